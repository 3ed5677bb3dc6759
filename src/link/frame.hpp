// Device frames: the main nibble-text frame (with the raw base64 reply of
// the identity-card read), the bracket frame with base64 bodies (connect
// greeting and disconnect), the 0x86 frame of the older device family, and
// the mapping of the device's status bytes to result codes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "kolt/kolt.h"

namespace kolt::link {

// Room of a reply buffer of the exported calls (KOLT_T41_REPLY_MAX).
inline constexpr std::size_t kReplyMax = KOLT_T41_REPLY_MAX;

// Logical main frame: 02, length (data + 2, big-endian), class, code, data,
// XOR check of class, code and data, 03.
std::vector<uint8_t> main_frame(uint8_t cls, uint8_t code, std::span<const uint8_t> data);
// Its wire form: 02 and 03 raw, every byte between them as two characters
// '0' + high nibble, '0' + low nibble.
std::vector<uint8_t> nibble_wire(std::span<const uint8_t> logical);

// Sends one main frame on the link and leaves the decoded reply in out:
// 02, length, status s1 s2, data, check, 03. Returns the decoded length
// (> 0), -1 when no complete reply arrives or it would not fit in out, -2
// on a wrong check byte, -3 for data too long for a frame. The reply to
// class 0x35 code 0x82 carries a raw base64 body that is decoded in place
// (see t41_unbase64).
int transact_t41(uint8_t cls, uint8_t code, std::span<const uint8_t> data, std::span<uint8_t> out,
                 int timeout_s);

// Decodes the base64 body of a special reply in place: L = reply[1..2],
// the L characters from reply[3]; the decoded count n goes to reply[1..2],
// 0x30 and 0x03 follow the data. Returns n + 5, or -1 when the frame does
// not fit in reply.
int t41_unbase64(std::span<uint8_t> reply);

// Result code of the device status pair.
int ret_code(uint8_t s1, uint8_t s2);

// Bracket frame: "(" three length characters, the command byte, base64
// data, two check characters ")". Returns the decoded reply data length in
// out, -1 on no or short reply (or one that does not fit in out), -2 on a
// check mismatch, -3 for data too long for a frame.
int bracket_transact(int fd, uint8_t cmd, std::span<const uint8_t> data, std::span<uint8_t> out,
                     int timeout_s);

// The 0x86 frame 86 00 03 cmd cmd+3 16 in nibble text; the decoded reply
// goes to out. Returns its length, -1 on no or short reply (or one that
// does not fit in out), -2 on a sum mismatch.
int transact_100s(uint8_t cmd, std::span<uint8_t> out, int timeout_s);
// Sends the 0x86 frame only; the count of frame characters written.
int send_cmd_100s(uint8_t cmd);

// Which device family answers: 1 the 0x86 family, 0 the bracket family,
// -1 none.
int get_device_type();

}  // namespace kolt::link
