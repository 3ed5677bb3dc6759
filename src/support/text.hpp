// Text search and replacement: the rules behind the exported KOLT_strpos,
// KOLT_SubBufPos, KOLT_GetSubStr and KOLT_strreplace.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace kolt::support {

// Replaces every from by to. After each replacement the search starts again
// at the beginning; a to that contains from would never end that way, so
// then every occurrence is replaced once, left to right. The text never
// grows beyond max_len characters, and the number of rounds is bounded.
std::string replace_bounded(std::string text, std::string_view from, std::string_view to, size_t max_len);

// Replaces every from by to (the KOLT_strreplace rule, without its
// 1023-character working limit).
std::string replace_all(std::string text, std::string_view from, std::string_view to);

// Field k (from 1) of text split at separator: the field and the offset
// where it starts. A text with fewer fields gives an empty field and offset
// 0; the last field is the whole rest, also with offset 0 (the
// KOLT_GetSubStr rule). A zero separator splits nothing.
struct SubField {
    std::string_view field;
    int32_t start = 0;
};
SubField sub_field(std::string_view text, char separator, int32_t k);

// Index of the first run of needle's bytes in buffer: -1 absent, -2 an
// empty needle, -3 a buffer shorter than the needle (KOLT_SubBufPos).
int32_t sub_buf_pos(std::span<const uint8_t> needle, std::span<const uint8_t> buffer);

// The decimal value of a text as atoi reads it (leading blanks, a sign,
// digits up to the first other character or a zero byte), wrapped to 32
// bits as the C library does; 0 when there is no number.
int32_t atoi_value(std::string_view text);

}  // namespace kolt::support
