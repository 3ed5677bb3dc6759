// Device frame exchanges on the open link: one command out, its reply read
// and decoded (the byte layouts are in link/frame_codec.hpp), and the
// mapping of the device's status bytes to result codes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "kolt/kolt.h"
#include "link/frame_codec.hpp"

namespace kolt::link {

// Room of a reply buffer of the exported calls (KOLT_T41_REPLY_MAX).
inline constexpr std::size_t kReplyMax = KOLT_T41_REPLY_MAX;

// Sends one main frame on the link and leaves the decoded reply in out:
// 02, length, status s1 s2, data, check, 03. body says how the reply's body
// travels (the device layer knows which command answers in base64). Returns
// the decoded length (> 0), -1 when no complete reply arrives or it would
// not fit in out, -2 on a wrong check byte, -3 for data too long for a frame
// or an out buffer too small for any reply.
int transact_t41(uint8_t cls, uint8_t code, std::span<const uint8_t> data, std::span<uint8_t> out, int timeout_s,
                 codec::Body body = codec::Body::nibbles);

// Result code of the device status pair.
int ret_code(uint8_t s1, uint8_t s2);

// Bracket-family commands: the connect greeting and the disconnect.
inline constexpr uint8_t kBracketConnect = 0x41;
inline constexpr uint8_t kBracketDisconnect = 0x42;

// Bracket frame exchange on fd. Returns the decoded reply data length in
// out, -1 on no or short reply (or one that does not fit in out), -2 on a
// check mismatch, -3 for data too long for a frame.
int bracket_transact(int fd, uint8_t cmd, std::span<const uint8_t> data, std::span<uint8_t> out, int timeout_s);

// The 0x86 frame exchange; the decoded reply goes to out. Returns its
// length, -1 on no or short reply (or one that does not fit in out), -2 on a
// sum mismatch.
int transact_100s(uint8_t cmd, std::span<uint8_t> out, int timeout_s);
// Sends the 0x86 frame only; the count of frame characters written.
int send_cmd_100s(uint8_t cmd);

// Which device family answers: 1 the 0x86 family, 0 the bracket family,
// -1 none.
int get_device_type();

}  // namespace kolt::link
