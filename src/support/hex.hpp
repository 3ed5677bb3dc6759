// Hex text and BCD: the rules behind the exported KOLT_hexstrtoint,
// BCDBuf2HexCharBuf, Decimal2BCDBuf and their kin.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kolt::support {

// Value of one hex digit character: 0x30..0x3A are 0..10 (the colon
// counts as ten), A-F/a-f 10..15, anything else 0.
uint32_t hex_digit(unsigned char c);

// One pair of characters of text (len characters) from pos read as base-16
// text (strtol: leading blanks and a sign are accepted, conversion stops at
// the first non-digit; none gives 0). Characters past len read as none.
uint8_t pair_value(const char* text, size_t len, size_t pos);

// Bytes as upper-case hex digits ("5A0F").
std::string to_hex_upper(std::span<const uint8_t> bytes);

// Hex text to bytes, pair by pair with the KOLT_hexstrtoint digit rule (an
// odd final character is read as its high nibble: "ABC" gives AB C0).
std::vector<uint8_t> from_hex(std::string_view text);

// Value of the first n characters as a hex number (0x30..0x3A are 0..10,
// letters A-F/a-f 10..15, anything else 0 but still a digit position).
uint32_t hex_value(std::string_view text);

// Decimal digit text packed two digits a byte ("156" gives 01 56); a leading
// "0" is added for an odd count. Pairs are read as base-16 text.
std::vector<uint8_t> pack_bcd(std::string_view digits);

}  // namespace kolt::support
