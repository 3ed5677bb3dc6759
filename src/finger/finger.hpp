// The fingerprint sensor: which of the two sensor variants is on the line,
// the EF01 module's exchanges and its capture sequence, the framed sensor's
// commands, the capture entry point that opens and closes the link, and the
// fingerprint server settings.
//
// Everything here works on the open link (link::state()) except gen_char,
// which opens and closes it itself, and read_cfg, which only reads a file.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "finger/ef01_codec.hpp"

namespace kolt::finger {

// Feature data handed to callers: 256 bytes, as 512 upper-case hex digits.
inline constexpr std::size_t kFeatureSize = 256;
using Features = std::array<uint8_t, kFeatureSize>;

// Framed sensor commands.
inline constexpr uint8_t kClassFinger = 0x37;
inline constexpr uint8_t kCodeInit = 0x93;
inline constexpr uint8_t kCodeCapture = 0x96;

// Device types of device_type().
inline constexpr int kTypeFramed = 0;
inline constexpr int kTypeEf01 = 1;

// ---------------------------------------------------------------------------
// EF01 module on the open link.

// ARA_EM02_WriteAndRead: the packet for (pid, payload) goes out between the
// auxiliary lead and end sequences; the answer is read from its first 0xEF
// (9 header bytes within timeout_s, then the body within 3 s). The answer's
// total length (9 + length field), -1 no header, -2 short body, -3 a length
// field that is malformed or does not fit reply. The sum is not checked.
int write_and_read(uint8_t pid, std::span<const uint8_t> payload, std::span<uint8_t> reply, int timeout_s);

// ARA_EM02_Read: the same for a packet that comes without a command.
int read_packet(std::span<uint8_t> reply, int timeout_s);

// ARA_EM02_GenChar: capture image until a finger is there (a non-zero
// confirmation is retried after 500 us), then generate, store as template
// 88, load it into buffer 2, merge, upload buffer 2, and read the four
// 128-byte data packets; the features are the last 256 of the 512 bytes.
// code: 0, -1 no answer to capture, -2 generate, -3 store, -4 load,
// -5 merge, -6 upload, -7 time-out, -8 a data packet missing or malformed.
struct ModuleCapture {
    int code = 0;
    Features features{};
};
ModuleCapture module_gen_char(int timeout_s);

// ---------------------------------------------------------------------------
// Framed sensor and detection on the open link.

// KOLT_T41_FP_Init: 0, -1 exchange failed, -2 status not zero.
int init(uint8_t param);

// KOLT_FP_GetDeviceType: the framed init (parameter 3) and the EF01 capture
// image packet in one write; 0 framed sensor, 1 EF01 module, -1 no answer.
int device_type();

// ---------------------------------------------------------------------------
// Entry points that open their own link or none.

// KOLT_T41_FP_GenChar: term_type goes through KOLT_DoTermType, then with
// port_arg, port and aux_arg to KOLT_initCom. code: 0 with hex (512
// digits), -1 port, -2 time-out, -3 exchange failed or unknown device,
// -4 EF01 capture failed.
struct Capture {
    int code = 0;
    std::string hex;
};
Capture gen_char(int term_type, std::string_view port_arg, int port, std::string_view aux_arg, int timeout_s);

// KOLT_T41_FP_ReadCfg: "serverip" and "serverport" of
// $HOME/librun/koltt41fp.cfg. code: 0, -1 no "serverip", -2 no "serverport".
struct ServerConfig {
    int code = 0;
    std::string ip;
    int port = 0;
};
ServerConfig read_cfg();

}  // namespace kolt::finger
