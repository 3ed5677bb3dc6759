// The EF01 packet of the fingerprint module: building a packet and reading
// the header of one that came back. Pure functions over bytes: no
// descriptor, clock or log.
//
//   EF 01 | FF FF FF FF | id | length (2) | payload | sum (2)
//
// Multi-byte fields are big-endian; length counts the payload and the sum;
// the sum is the 16-bit sum of the bytes from the identifier to the end of
// the payload.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace kolt::finger::ef01 {

inline constexpr uint8_t kHead0 = 0xEF;
inline constexpr uint8_t kHead1 = 0x01;
inline constexpr std::size_t kHeaderSize = 9;  // header, address, id, length
inline constexpr std::size_t kSumSize = 2;
inline constexpr uint8_t kPidCommand = 0x01;

// Room of one packet read from the module: a header and a body of up to
// 256 payload bytes and the sum. Longer packets are refused.
inline constexpr std::size_t kPacketMax = kHeaderSize + 256 + kSumSize;

// The module's instructions.
namespace ins {
inline constexpr uint8_t kGetImage = 0x01;
inline constexpr uint8_t kGenChar = 0x02;
inline constexpr uint8_t kRegModel = 0x05;
inline constexpr uint8_t kStore = 0x06;
inline constexpr uint8_t kLoadChar = 0x07;
inline constexpr uint8_t kUpChar = 0x08;
}  // namespace ins

// The sum of a packet: identifier, the two length bytes, payload.
uint16_t checksum(uint8_t pid, std::span<const uint8_t> payload);

// The whole packet for a payload.
std::vector<uint8_t> build(uint8_t pid, std::span<const uint8_t> payload);

// The same into out: the packet's length, or -1 when out cannot hold it or
// the payload does not fit a length field.
int build_into(uint8_t pid, std::span<const uint8_t> payload, std::span<uint8_t> out);

// What the 9 header bytes of a packet say.
struct Header {
    uint8_t pid = 0;
    std::size_t body = 0;  // the length field: payload + sum
};

// The header in the first 9 bytes; nullopt when they are fewer, do not start
// EF 01, or the length field is below 3 (a packet with no payload byte).
std::optional<Header> parse_header(std::span<const uint8_t> bytes);

// How a packet read from the line stands against the room it is read into.
// total: 9 + body when it is complete; -1 no header (fewer than 9 bytes,
// not EF 01); -2 body shorter than its length field; -3 a length field
// that is malformed (below 3) or larger than the room.
int reply_status(std::span<const uint8_t> bytes, std::size_t room);

// The confirmation code of an answer (byte 9), nullopt when there is none.
std::optional<uint8_t> confirmation(std::span<const uint8_t> reply);

// The payload of a complete packet (without the sum); empty when the
// packet is not complete.
std::span<const uint8_t> payload(std::span<const uint8_t> packet);

}  // namespace kolt::finger::ef01
