// Fingerprint capture on the framed sensor and on the EF01 module.
#include "finger/finger.hpp"

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "device/command.hpp"
#include "link/deadline.hpp"
#include "link/frame.hpp"
#include "link/frame_codec.hpp"
#include "link/io.hpp"
#include "link/link_state.hpp"
#include "link/port.hpp"
#include "link/session.hpp"
#include "support/config.hpp"
#include "support/hex.hpp"
#include "support/keyvalue.hpp"
#include "support/log.hpp"

namespace kolt::finger {

namespace {

constexpr int kPacketWriteTimeout = 2;  // writing one EF01 packet
constexpr int kBodyTimeout = 3;         // the body after an EF01 header
constexpr int kDetectTimeout = 3;       // the detection answer and its drain
constexpr int kCaptureWait = 10;        // one framed capture exchange
constexpr int kInitWait = 6;            // the framed init
constexpr long long kRetryPauseUs = 500;
constexpr int kDataPackets = 4;
constexpr std::size_t kDataPayload = 128;
constexpr uint8_t kDetectParam = 0x03;
constexpr uint8_t kTemplateId = 0x58;  // template 88 of the module's library

int link_fd() { return link::state().fd; }

// The body of a packet whose 9 header bytes are in reply[0..8].
int read_body(std::span<uint8_t> reply) {
    const int status = ef01::reply_status(reply.first(ef01::kHeaderSize), reply.size());
    if (status == -1 || status == -3) return status;
    const std::size_t body = static_cast<std::size_t>(reply[7]) << 8 | reply[8];
    const int got = link::rcv_buf(link_fd(), reply.subspan(ef01::kHeaderSize, body), kBodyTimeout);
    if (got < static_cast<int>(body)) return -2;
    return static_cast<int>(ef01::kHeaderSize + body);
}

// Reads and throws away n bytes of an answer nobody needs.
void drain(std::size_t n) {
    std::array<uint8_t, 256> scratch{};
    while (n > 0) {
        const std::size_t k = std::min(n, scratch.size());
        const int got = link::rcv_buf(link_fd(), std::span<uint8_t>(scratch).first(k), kDetectTimeout);
        if (got < static_cast<int>(k)) return;
        n -= k;
    }
}

// One step of the capture sequence: the exchange and its confirmation.
bool step_ok(std::span<const uint8_t> payload, std::span<uint8_t> reply, int timeout_s, const char* log_text) {
    const int n = write_and_read(ef01::kPidCommand, payload, reply, timeout_s);
    if (n < 1) {
        log::error_int(log_text, n);
        return false;
    }
    if (reply[ef01::kHeaderSize] != 0) {
        log::error_int(log_text, reply[ef01::kHeaderSize]);
        return false;
    }
    return true;
}

}  // namespace

// ---------------------------------------------------------------------------
// EF01 module.

int write_and_read(uint8_t pid, std::span<const uint8_t> payload, std::span<uint8_t> reply, int timeout_s) {
    const std::vector<uint8_t> packet = ef01::build(pid, payload);
    log::debug_hex("ARA_EM02_WriteAndRead WriteBuf=%02x", packet);
    link::write_wrapped(packet, kPacketWriteTimeout);
    return read_packet(reply, timeout_s);
}

int read_packet(std::span<uint8_t> reply, int timeout_s) {
    if (reply.size() < ef01::kHeaderSize) return -1;
    const int got = link::rcv_from_head(link_fd(), reply.first(ef01::kHeaderSize), ef01::kHead0, timeout_s);
    if (got < static_cast<int>(ef01::kHeaderSize)) {
        log::error_int("ARA_EM02_WriteAndRead read rcvBuf9 error=%d", got);
        return -1;
    }
    return read_body(reply);
}

ModuleCapture module_gen_char(int timeout_s) {
    ModuleCapture out;
    std::array<uint8_t, ef01::kPacketMax> reply{};
    const link::Deadline deadline = link::Deadline::whole_seconds(timeout_s);
    const uint8_t get_image[] = {ef01::ins::kGetImage};
    for (;;) {
        if (deadline.expired()) {
            log::error_text("ARA_EM02_GenChar timeout...%s", "");
            out.code = -7;
            return out;
        }
        const int n = write_and_read(ef01::kPidCommand, get_image, reply, timeout_s);
        if (n < 1) {
            log::error_int("ARA_EM02_GenChar EMGetImage flag=%d", n);
            out.code = -1;
            return out;
        }
        if (reply[ef01::kHeaderSize] == 0) break;
        link::pause_us(kRetryPauseUs);  // no finger yet
    }

    struct Step {
        std::vector<uint8_t> payload;
        int code;
        const char* log_text;
    };
    // The upload step reports with the merge step's text.
    const Step steps[] = {
        {{ef01::ins::kGenChar, 0x01}, -2, "ARA_EM02_GenChar EMGenChar flag=%d"},
        {{ef01::ins::kStore, 0x01, 0x00, kTemplateId}, -3, "ARA_EM02_GenChar EMStore flag=%d"},
        {{ef01::ins::kLoadChar, 0x02, 0x00, kTemplateId}, -4, "ARA_EM02_GenChar EMLoadChar flag=%d"},
        {{ef01::ins::kRegModel}, -5, "ARA_EM02_GenChar EMRegModel flag=%d"},
        {{ef01::ins::kUpChar, 0x02}, -6, "ARA_EM02_GenChar EMRegModel flag=%d"},
    };
    for (const Step& s : steps) {
        if (!step_ok(s.payload, reply, timeout_s, s.log_text)) {
            out.code = s.code;
            return out;
        }
    }

    std::array<uint8_t, kDataPackets * kDataPayload> data{};
    for (int i = 0; i < kDataPackets; ++i) {
        const int n = read_packet(reply, timeout_s);
        if (n < static_cast<int>(ef01::kHeaderSize + kDataPayload)) {
            log::error_int("ARA_EM02_GenChar EMUpChar read flag=%d", n);
            out.code = -8;
            return out;
        }
        std::copy_n(reply.begin() + ef01::kHeaderSize, kDataPayload, data.begin() + i * kDataPayload);
    }
    // Of the 512 bytes uploaded, the second half is the feature data.
    std::copy_n(data.begin() + kFeatureSize, kFeatureSize, out.features.begin());
    return out;
}

// ---------------------------------------------------------------------------
// Framed sensor and detection.

int init(uint8_t param) {
    std::vector<uint8_t> reply(link::kReplyMax);
    const uint8_t data[] = {param};
    const int n = device::command(kClassFinger, kCodeInit, data, reply, kInitWait);
    if (n < 5) return -1;
    return reply[3] == 0 && reply[4] == 0 ? 0 : -2;
}

int device_type() {
    const uint8_t param[] = {kDetectParam};
    std::vector<uint8_t> block = link::codec::nibble_wire(link::codec::main_frame(kClassFinger, kCodeInit, param));
    const uint8_t get_image[] = {ef01::ins::kGetImage};
    const std::vector<uint8_t> packet = ef01::build(ef01::kPidCommand, get_image);
    block.insert(block.end(), packet.begin(), packet.end());
    link::write_wrapped(block, kDetectTimeout);

    std::array<uint8_t, ef01::kHeaderSize> head{};
    const int got = link::rcv_from_2heads(link_fd(), std::span<uint8_t>(head).first(5), 0x02, ef01::kHead0,
                                          kDetectTimeout);
    if (got < 5) return -1;
    if (head[0] == 0x02) {
        auto nib = [&](int i) { return static_cast<std::size_t>(static_cast<uint8_t>(head[i] - 0x30)); };
        const std::size_t len = (nib(1) * 16 + nib(2)) * 256 + nib(3) * 16 + nib(4);
        drain(len * 2 + 3);
        return kTypeFramed;
    }
    if (link::rcv_buf(link_fd(), std::span<uint8_t>(head).subspan(5), kDetectTimeout) < 4) return kTypeEf01;
    drain(static_cast<std::size_t>(head[7]) << 8 | head[8]);
    return kTypeEf01;
}

// ---------------------------------------------------------------------------
// Entry points.

namespace {

// The framed sensor's capture loop on the open link.
int framed_capture(int timeout_s, Features& features) {
    std::vector<uint8_t> reply(link::kReplyMax);
    const link::Deadline deadline = link::Deadline::whole_seconds(timeout_s);
    while (!deadline.expired()) {
        const int n = device::command(kClassFinger, kCodeCapture, {}, reply, kCaptureWait);
        if (n < 1) return -3;
        if (n >= 5 && link::ret_code(reply[3], reply[4]) == 0) {
            if (static_cast<std::size_t>(n) < 5 + kFeatureSize + 2) return -3;  // too short for the features
            std::copy_n(reply.begin() + 5, kFeatureSize, features.begin());
            return 0;
        }
        link::pause_us(kRetryPauseUs);  // no finger yet
    }
    return -2;
}

}  // namespace

Capture gen_char(int term_type, std::string_view port_arg, int port, std::string_view aux_arg, int timeout_s) {
    Capture out;
    log::debug_text("KOLT_T41_FP_GenChar begin......%s", "");
    link::Session session(link::do_term_type(term_type), port_arg, port, aux_arg);
    if (!session.ok()) {
        log::error_int("KOLT_T41_FP_GenChar KOLT_initCom flag=%d", session.result());
        out.code = -1;
        return out;
    }
    const int type = device_type();
    log::debug_int("KOLT_T41_FP_GenChar iDeviceType =%d", type);
    Features features{};
    if (type == kTypeFramed) {
        out.code = framed_capture(timeout_s, features);
    } else if (type == kTypeEf01) {
        const ModuleCapture m = module_gen_char(timeout_s);
        out.code = m.code == 0 ? 0 : -4;
        features = m.features;
    } else {
        out.code = -3;
    }
    if (out.code == 0) out.hex = support::to_hex_upper(features);
    return out;
}

ServerConfig read_cfg() {
    ServerConfig out;
    const std::string path = config::home_config_path();
    if (config::value_from_file(path, "serverip", out.ip) != 0) {
        out.ip.clear();
        out.code = -1;
        return out;
    }
    std::string port_text;
    if (config::value_from_file(path, "serverport", port_text) != 0) {
        out.code = -2;
        return out;
    }
    out.port = std::atoi(port_text.c_str());
    log::debug_text("KOLT_T41_FP_ReadCfg Serverip =%s", out.ip.c_str());
    log::debug_int("KOLT_T41_FP_ReadCfg serverport =%d", out.port);
    return out;
}

}  // namespace kolt::finger
