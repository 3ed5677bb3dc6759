// Wire encoders and decoders of the KL560T41 framings, as the simulator
// speaks them. Handy for tests that talk to the simulator byte by byte.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace kolt::sim {

using Bytes = std::vector<uint8_t>;

// Base64 (standard alphabet, padded, no line breaks).
std::string base64_encode(std::span<const uint8_t> in);
// Accepts padded text and unpadded text whose length is 2 or 3 modulo 4;
// nullopt on any other text.
std::optional<Bytes> base64_decode(std::string_view text);

// Two characters '0' + high nibble, '0' + low nibble per byte.
std::string nibble_encode(std::span<const uint8_t> in);
// nullopt on an odd length or a character outside 0x30..0x3F.
std::optional<Bytes> nibble_decode(std::string_view text);

// --- main frame --------------------------------------------------------
// Host to device: 0x02, nibbles of length (data + 2), class, code, data,
// check (XOR of class, code and data), 0x03.
Bytes encode_main_command(uint8_t cls, uint8_t code, std::span<const uint8_t> data);
// Device to host: 0x02, nibbles of length (data + 2), s1, s2, data, check
// (XOR of s1, s2 and data), 0x03.
Bytes encode_main_reply(uint8_t s1, uint8_t s2, std::span<const uint8_t> data);
// The reply to class 0x35 code 0x82: 0x02, nibbles of the base64 text
// length, the base64 text of `body` raw, nibbles of the check (XOR of the
// text characters), 0x03. `body` starts with the device status pair.
Bytes encode_special_reply(std::span<const uint8_t> body);

struct MainFrame {
    uint8_t a = 0, b = 0;  // class and code, or status s1 and s2
    Bytes data;
};
// Decodes one complete wire frame (0x02 ... 0x03, nothing else); nullopt on
// any defect, the check included.
std::optional<MainFrame> decode_main(std::span<const uint8_t> wire);
// Decodes a special reply; returns the body (status pair first).
std::optional<Bytes> decode_special_reply(std::span<const uint8_t> wire);

// --- bracket framing -----------------------------------------------------
// "(", 3 length characters (base64 of (base64 length + 4), big-endian 16 bit),
// the command byte, base64 of data (absent when empty), 2 check characters
// (base64 of (XOR of length characters .. body, 0)), ")". Both directions.
Bytes encode_bracket(uint8_t cmd, std::span<const uint8_t> data);
struct BracketFrame {
    uint8_t cmd = 0;
    Bytes data;
};
std::optional<BracketFrame> decode_bracket(std::span<const uint8_t> wire);

// --- 0x86 family -----------------------------------------------------------
// Nibbles of 0x86, length (payload + 2, big-endian), payload, sum (additive,
// of length and payload bytes), 0x16. A command's payload is its command byte.
Bytes encode_86(std::span<const uint8_t> payload);
std::optional<Bytes> decode_86(std::span<const uint8_t> wire);  // the payload

// The device-family probe the host sends.
inline constexpr std::string_view kProbe = "860003101316(AAQAEA)";

}  // namespace kolt::sim
