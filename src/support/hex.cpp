// Hex text and BCD. Their edge behaviour is relied on by the link and the
// card flows and is kept exactly: the 0x3A digit, the odd final hex
// character.
#include "support/hex.hpp"

#include <cstdlib>

namespace kolt::support {
namespace {

// Packs even-length digit text into len/2 bytes by base-16 pairs.
std::vector<uint8_t> pack_pairs(const std::string& text) {
    std::vector<uint8_t> out(text.size() / 2);
    for (size_t i = 0; i < out.size(); ++i) out[i] = pair_value(text.data(), text.size(), 2 * i);
    return out;
}

}  // namespace

uint32_t hex_digit(unsigned char c) {
    // 0x30..0x3A: the colon counts as ten, as the device's own tools write it.
    if (c >= 0x30 && c <= 0x3A) return c - 0x30u;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10u;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10u;
    return 0;
}

uint8_t pair_value(const char* text, size_t len, size_t pos) {
    char pair[3] = {0, 0, 0};
    if (pos < len) pair[0] = text[pos];
    if (pos + 1 < len) pair[1] = text[pos + 1];
    return static_cast<uint8_t>(std::strtol(pair, nullptr, 16));
}

std::string to_hex_upper(std::span<const uint8_t> bytes) {
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(bytes.size() * 2);
    for (const uint8_t b : bytes) {
        out += digits[b >> 4];
        out += digits[b & 15];
    }
    return out;
}

uint32_t hex_value(std::string_view text) {
    uint32_t value = 0;
    for (const char c : text) value = value * 16 + hex_digit(static_cast<unsigned char>(c));
    return value;
}

std::vector<uint8_t> from_hex(std::string_view text) {
    std::vector<uint8_t> out((text.size() + 1) / 2);
    for (size_t i = 0; i < out.size(); ++i) {
        const uint32_t hi = hex_digit(static_cast<unsigned char>(text[2 * i]));
        const uint32_t lo = 2 * i + 1 < text.size() ? hex_digit(static_cast<unsigned char>(text[2 * i + 1])) : 0;
        out[i] = static_cast<uint8_t>(hi * 16 + lo);
    }
    return out;
}

std::vector<uint8_t> pack_bcd(std::string_view digits) {
    std::string text(digits);
    if (text.size() % 2 != 0) text.insert(text.begin(), '0');
    return pack_pairs(text);
}

}  // namespace kolt::support
