// One device command: class, code and data out as a main frame, the
// decoded reply back. The device layer knows which command answers with a
// base64 body (the identity-card read) and tells the link.
#pragma once

#include <cstdint>
#include <span>

namespace kolt::device {

// Command classes and codes of the reader.
namespace cmd {
inline constexpr uint8_t kClassSystem = 0x31;   // version, buzzer, LEDs
inline constexpr uint8_t kVersion = 0x11;
inline constexpr uint8_t kBuzz = 0x13;
inline constexpr uint8_t kLed = 0x14;
inline constexpr uint8_t kClassIcc = 0x32;      // IC card
inline constexpr uint8_t kClassId = 0x35;       // identity-card module
inline constexpr uint8_t kIdFind = 0x80;
inline constexpr uint8_t kIdSelect = 0x81;
inline constexpr uint8_t kIdRead = 0x82;        // answers with a base64 body
inline constexpr uint8_t kIdSamId = 0x87;
inline constexpr uint8_t kClassRf = 0x38;       // contactless field
inline constexpr uint8_t kRfOn = 0x97;
inline constexpr uint8_t kRfOff = 0x98;
}  // namespace cmd

// Whether the reply to (cls, code) carries its body as raw base64 text.
constexpr bool base64_reply(uint8_t cls, uint8_t code) { return cls == cmd::kClassId && code == cmd::kIdRead; }

// Sends the command on the open link and decodes its reply into out (the
// link's transact_t41 results: length, -1, -2, -3).
int command(uint8_t cls, uint8_t code, std::span<const uint8_t> data, std::span<uint8_t> out, int timeout_s);

}  // namespace kolt::device
