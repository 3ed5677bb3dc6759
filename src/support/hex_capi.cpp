// Exported C entry points of the hex text and BCD helpers.
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kolt/kolt.h"
#include "support/hex.hpp"
#include "support/text.hpp"

namespace ks = kolt::support;

extern "C" {

KOLT_API uint32_t KOLT_hexstrtoint(const char* text, int32_t n) {
    if (text == nullptr || n <= 0) return 0;
    // The caller names n characters; a terminator inside them ends the read
    // (it would contribute a zero digit, the rest lies beyond the text).
    uint32_t value = 0;
    for (int32_t i = 0; i < n; ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c == 0) {
            // Zero digits for the rest: eight of them shift every bit out.
            const int32_t rest = n - i;
            return rest >= 8 ? 0 : value << (4 * rest);
        }
        value = value * 16 + ks::hex_digit(c);
    }
    return value;
}

KOLT_API int32_t KOLT_hexstrtointBuf(const char* text, uint8_t* out) {
    if (out == nullptr) return 0;
    std::memset(out, 0, 8);
    if (text == nullptr) return 0;
    const size_t len = std::strlen(text);
    for (size_t i = 0; i < len; i += 2) out[i / 2] = static_cast<uint8_t>(KOLT_hexstrtoint(text + i, 2));
    return 0;
}

KOLT_API int32_t KOLT_hexStrToIntStr(const char* text, uint8_t* out) {
    if (text == nullptr || out == nullptr) return 0;
    const size_t len = std::strlen(text);
    // One step per input character, not per pair: out receives len bytes,
    // the first len/2 of them meaningful, the rest the values of the pairs
    // beyond the text (a lone last digit, then zeros).
    for (size_t i = 0; i < len; ++i) out[i] = ks::pair_value(text, len, 2 * i);
    return static_cast<int32_t>(len / 2);
}

KOLT_API int32_t BCDBuf2HexCharBuf(const uint8_t* bytes, int32_t n, char* out) {
    if (out == nullptr) return 0;
    if (bytes == nullptr || n < 0) n = 0;
    const std::string hex = ks::to_hex_upper(std::span<const uint8_t>(bytes, static_cast<size_t>(n)));
    std::memcpy(out, hex.c_str(), hex.size() + 1);
    return 2 * n;
}

KOLT_API int32_t KOLT_buf2HexStrBuf(char* out, int32_t n, uint8_t* bytes) {
    if (out == nullptr || bytes == nullptr || n <= 0) return 0;
    static constexpr char digits[] = "0123456789abcdef";
    for (int32_t i = 0; i < n; ++i) {
        out[2 * i] = digits[bytes[i] >> 4];
        out[2 * i + 1] = digits[bytes[i] & 15];
    }
    // The routine upper-cases its source, not its output: the hex text stays
    // lower case (use BCDBuf2HexCharBuf for upper case). Only the n source
    // bytes that exist are upper-cased; the source is never written past
    // its end.
    for (int32_t i = 0; i < n; ++i) bytes[i] = static_cast<uint8_t>(std::toupper(bytes[i]));
    return 2 * n;
}

KOLT_API int32_t Decimal2BCDBuf(int32_t value, uint8_t* out, int32_t width) {
    if (out == nullptr) return -1;
    char text[16] = {0};
    std::snprintf(text, sizeof text, "%d", value);
    const std::vector<uint8_t> packed = ks::pack_bcd(text);
    if (width < 0 || packed.size() > static_cast<size_t>(width)) return -1;
    // Right-aligned; the bytes to the left of the digits are left as they
    // are (callers clear them).
    std::memcpy(out + (width - static_cast<int32_t>(packed.size())), packed.data(), packed.size());
    return width;
}

KOLT_API int32_t byteBuf2BCDBuf(const char* digits, int32_t n, uint8_t* out, int32_t width) {
    if (digits == nullptr || out == nullptr || n < 0 || width < 0) return -1;
    // Computed wide: n + 1 must not overflow for n = INT_MAX.
    if ((static_cast<int64_t>(n) + 1) / 2 > width) return -1;
    // n characters, but never past a terminator inside them.
    const std::vector<uint8_t> packed = ks::pack_bcd(std::string_view(digits, ::strnlen(digits, static_cast<size_t>(n))));
    // Only the packed bytes are written, right-aligned in out[0..width-1];
    // nothing beyond width is touched.
    if (!packed.empty()) std::memcpy(out + (width - static_cast<int32_t>(packed.size())), packed.data(), packed.size());
    return width;
}

KOLT_API int32_t KOLT_atoiLen(const char* text, int32_t n) {
    if (text == nullptr || n <= 0) return 0;
    return kolt::support::atoi_value(std::string_view(text, ::strnlen(text, static_cast<size_t>(n))));
}

KOLT_API char* KOLT_itoa(uint64_t value, char* out, int32_t base) {
    if (out == nullptr) return out;
    if (base < 2 || base > 36) {
        // Base 0 (and any base that cannot spell a number) writes "0".
        out[0] = '0';
        out[1] = 0;
        return out;
    }
    static constexpr char digits[] = "0123456789abcdefghijklmnopqrstuvwxyz";
    char tmp[72];
    int n = 0;
    do {
        tmp[n++] = digits[value % static_cast<uint64_t>(base)];
        value /= static_cast<uint64_t>(base);
    } while (value != 0);
    for (int i = 0; i < n; ++i) out[i] = tmp[n - 1 - i];
    out[n] = 0;
    return out;
}

KOLT_API int32_t KOLT_CharIsNum(uint8_t c) { return (c >= '0' && c <= '9') ? 0 : -1; }

KOLT_API int32_t KOLT_isNum(const uint8_t* bytes, int32_t n) {
    if (bytes == nullptr && n > 0) return -1;
    for (int32_t i = 0; i < n; ++i)
        if (KOLT_CharIsNum(bytes[i]) != 0) return -1;
    return 0;
}

}  // extern "C"
