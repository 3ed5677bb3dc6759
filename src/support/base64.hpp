// In-place Base64 (standard alphabet, "=" padding, no line breaks). Both
// frame formats of the device link carry Base64 text.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kolt::base64 {

// Encoded length of len bytes: (len + 2) / 3 * 4; -1 when len is negative
// or the text would not be countable in an int.
constexpr int encoded_size(int len) {
    if (len < 0) return -1;
    const long long n = (static_cast<long long>(len) + 2) / 3 * 4;
    return n > 0x7FFFFFFF - 1 ? -1 : static_cast<int>(n);
}

// Room the decoder needs for len characters: up to the next multiple of 4.
constexpr std::size_t padded_size(int len) { return (static_cast<std::size_t>(len) + 3) / 4 * 4; }

// Replaces the first len bytes of buf with their Base64 text and returns its
// length. A remainder of 1 or 2 bytes also gets a terminating 0 after the
// text; a whole number of groups gets none (callers use the length).
// Returns -1 when len is negative or too large, or buf cannot hold the text
// (and the terminator when one is written).
int encode_in_place(std::span<uint8_t> buf, int len);

// Replaces the first len characters of buf with the decoded bytes and
// returns their count; 0 when len % 4 == 1. Unpadded text (len % 4 of 2 or
// 3) is padded with "=" in buf first, so buf needs room up to the next
// multiple of 4; -1 when it has not, or when len is negative.
// The stop position of the last group that ended early (at a character
// outside the alphabet) decides the count, whichever group it came from.
int decode_in_place(std::span<uint8_t> buf, int len);

// Convenience copies over the same routines.
std::string encode(std::span<const uint8_t> bytes);
std::vector<uint8_t> decode(std::string_view text);

}  // namespace kolt::base64
