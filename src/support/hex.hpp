// Hex text, BCD and string helpers. The exported C functions (KOLT_hexstrtoint,
// BCDBuf2HexCharBuf, Decimal2BCDBuf, KOLT_strpos, ...) are declared in
// kolt/kolt.h and may be called directly; these are the C++ conveniences
// over the same rules.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kolt::support {

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

// Replaces every from by to (the KOLT_strreplace rule, without its
// 1023-character working limit).
std::string replace_all(std::string text, std::string_view from, std::string_view to);

// Whole-file read; false when the file cannot be opened.
bool read_file(const std::string& path, std::vector<uint8_t>& out);

}  // namespace kolt::support
