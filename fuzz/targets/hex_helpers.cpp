// Hex, BCD and string helpers that take outside text: KOLT_hexstrtoint,
// KOLT_hexstrtointBuf, KOLT_hexStrToIntStr, BCDBuf2HexCharBuf,
// byteBuf2BCDBuf, KOLT_GetSubStr, KOLT_strreplace, KOLT_strpos,
// KOLT_SubBufPos, kolt::support::from_hex and pack_bcd. Texts are heap
// copies with a terminating zero; outputs are heap blocks of exactly the
// room the header gives (or the least a caller could give where it gives
// none).
//
// Input: byte 0 picks the helper (modulo 11), the rest is its arguments:
//   0 KOLT_hexstrtoint      n (i32: taken modulo text length + 3, minus 1), text
//   1 KOLT_hexstrtointBuf   text
//   2 KOLT_hexStrToIntStr   text
//   3 BCDBuf2HexCharBuf     bytes
//   4 byteBuf2BCDBuf        n (i32), width (i32: above 4096 taken modulo 4097), digits
//   5 KOLT_GetSubStr        separator, k (i32), text
//   6 KOLT_strreplace       short field from, short field to, text
//   7 KOLT_strpos           short field needle, haystack
//   8 KOLT_SubBufPos        short field needle, buffer
//   9 from_hex              text
//  10 pack_bcd              digits
#include <algorithm>
#include <cstring>

#include "common/fuzz_input.hpp"
#include "kolt/kolt.h"
#include "support/hex.hpp"

using namespace kolt::fuzz;

namespace {

std::string_view view(std::span<const uint8_t> b) { return {reinterpret_cast<const char*>(b.data()), b.size()}; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input in(data, size);
    switch (in.u8() % 11) {
    case 0: {
        const int32_t raw = in.i32();
        const auto text = Heap::text(in.rest());
        const auto len = static_cast<int64_t>(std::strlen(text->chars()));
        const auto n = static_cast<int32_t>((raw < 0 ? -static_cast<int64_t>(raw) : raw) % (len + 3) - 1);
        (void)KOLT_hexstrtoint(text->chars(), n);
        break;
    }
    case 1: {
        // The header gives no room for out: the function clears 8 bytes and
        // writes one byte per pair of characters, so a caller gives the
        // larger of the two.
        const auto text = Heap::text(in.rest());
        const std::size_t len = std::strlen(text->chars());
        Heap out(std::max<std::size_t>(8, (len + 1) / 2));
        check(KOLT_hexstrtointBuf(text->chars(), out.data()) == 0, "KOLT_hexstrtointBuf: result not 0");
        break;
    }
    case 2: {
        const auto text = Heap::text(in.rest());
        const std::size_t len = std::strlen(text->chars());
        Heap out(len);  // "out needs strlen(text) bytes"
        const int32_t n = KOLT_hexStrToIntStr(text->chars(), out.data());
        check(n == static_cast<int32_t>(len / 2), "KOLT_hexStrToIntStr: result not strlen/2");
        break;
    }
    case 3: {
        const auto b = in.rest();
        Heap bytes(b, b.size());
        Heap out(2 * b.size() + 1);  // 2n digits and a terminator
        const int32_t n = BCDBuf2HexCharBuf(bytes.data(), static_cast<int32_t>(b.size()), out.chars());
        check(n == static_cast<int32_t>(2 * b.size()), "BCDBuf2HexCharBuf: result not 2n");
        break;
    }
    case 4: {
        const int32_t n = in.i32();
        int32_t width = in.i32();
        if (width > 4096) width %= 4097;
        const auto digits = Heap::text(in.rest());
        Heap out(width > 0 ? static_cast<std::size_t>(width) : 0);
        const int32_t rc = byteBuf2BCDBuf(digits->chars(), n, out.data(), width);
        check(rc == -1 || rc == width, "byteBuf2BCDBuf: result not -1 or width");
        break;
    }
    case 5: {
        const char separator = static_cast<char>(in.u8());
        const int32_t k = in.i32();
        const auto text = Heap::text(in.rest());
        Heap out(std::strlen(text->chars()) + 1);  // a field is at most the whole text
        const int32_t start = KOLT_GetSubStr(text->chars(), out.chars(), separator, k);
        check(start >= 0 && static_cast<std::size_t>(start) <= std::strlen(text->chars()),
              "KOLT_GetSubStr: start outside the text");
        break;
    }
    case 6: {
        const auto from = Heap::text(in.short_field());
        const auto to = Heap::text(in.short_field());
        const auto t = in.rest();
        Heap text(1024);  // the documented working room: 1023 characters and a terminator
        const std::size_t n = std::min<std::size_t>(t.size(), 1023);
        std::memcpy(text.data(), t.data(), n);
        text.data()[n] = 0;
        check(KOLT_strreplace(from->chars(), to->chars(), text.chars()) == 0, "KOLT_strreplace: result not 0");
        check(::strnlen(text.chars(), 1024) < 1024, "KOLT_strreplace: text not terminated within 1024 bytes");
        break;
    }
    case 7: {
        const auto needle = Heap::text(in.short_field());
        const auto haystack = Heap::text(in.rest());
        const int32_t pos = KOLT_strpos(needle->chars(), haystack->chars());
        check(pos >= -3 && pos <= static_cast<int32_t>(std::strlen(haystack->chars())), "KOLT_strpos: result outside");
        break;
    }
    case 8: {
        const auto nb = in.short_field();
        Heap needle(nb, nb.size());
        const auto bb = in.rest();
        Heap buffer(bb, bb.size());
        const int32_t pos = KOLT_SubBufPos(needle.data(), static_cast<int32_t>(nb.size()), buffer.data(),
                                           static_cast<int32_t>(bb.size()));
        check(pos >= -3 && (pos < 0 || static_cast<std::size_t>(pos) + nb.size() <= bb.size()),
              "KOLT_SubBufPos: result outside the buffer");
        break;
    }
    case 9: {
        const auto t = in.rest();
        Heap text(t, t.size());
        const auto bytes = kolt::support::from_hex(view(std::span<const uint8_t>(text.data(), text.size())));
        check(bytes.size() == (t.size() + 1) / 2, "from_hex: size not (n+1)/2");
        break;
    }
    case 10: {
        const auto t = in.rest();
        Heap text(t, t.size());
        const auto bytes = kolt::support::pack_bcd(view(std::span<const uint8_t>(text.data(), text.size())));
        check(bytes.size() == (t.size() + 1) / 2, "pack_bcd: size not (n+1)/2");
        break;
    }
    }
    return 0;
}
