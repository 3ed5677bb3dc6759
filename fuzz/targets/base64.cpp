// Base64 decoding: kolt::base64::decode, decode_in_place and the exported
// KOLT_UnBase64.
//
// Input: byte 0 picks the length handed to the in-place decoders relative
// to the text (bit 7 set: text size + (byte & 3), so past the text; else
// text size - (byte & 3)); the rest is the text.
#include "common/fuzz_input.hpp"
#include "kolt/kolt.h"
#include "support/base64.hpp"

using namespace kolt::fuzz;

namespace {

// Room the in-place decoders need: up to the next multiple of 4.
std::size_t padded(std::size_t len) { return (len + 3) / 4 * 4; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input in(data, size);
    const uint8_t mode = in.u8();
    const auto text = in.rest();
    long long len = static_cast<long long>(text.size());
    len = (mode & 0x80) ? len + (mode & 3) : len - (mode & 3);
    if (len < 0) len = 0;

    {
        const auto bytes = kolt::base64::decode(
            std::string_view(reinterpret_cast<const char*>(text.data()), text.size()));
        // Three bytes per group of four characters (the count is not bounded
        // by the characters: a group that stops at its first character is
        // still counted whole).
        check(bytes.size() <= padded(text.size()) / 4 * 3, "decode: more bytes than its groups hold");
    }
    {
        // Exactly the text, no room beyond it: the decoder must refuse what
        // does not fit rather than pad past the end.
        Heap buf(text, text.size());
        const int n = kolt::base64::decode_in_place(buf.span(), static_cast<int>(len));
        check(n >= -1 && static_cast<long long>(n) <= static_cast<long long>(padded(static_cast<std::size_t>(len)) / 4 * 3),
              "decode_in_place: result outside -1..groups*3");
    }
    {
        // The documented room of the exported call: len rounded up to 4.
        Heap buf(text, padded(static_cast<std::size_t>(len)));
        const int32_t n = KOLT_UnBase64(buf.data(), static_cast<int32_t>(len));
        check(n >= 0 && static_cast<std::size_t>(n) <= padded(static_cast<std::size_t>(len)) / 4 * 3,
              "KOLT_UnBase64: result outside 0..groups*3");
    }
    return 0;
}
