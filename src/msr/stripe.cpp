// Magnetic stripe reading and writing.
#include "msr/stripe.hpp"

#include <algorithm>
#include <array>
#include <cstring>

#include "device/command.hpp"
#include "device/peripheral.hpp"
#include "kolt/kolt.h"
#include "link/deadline.hpp"
#include "link/frame.hpp"
#include "link/io.hpp"
#include "link/link_state.hpp"
#include "link/session.hpp"
#include "support/log.hpp"
#include "support/text.hpp"

namespace kolt::msr {

namespace {

constexpr int kWriteTimeout = 3;        // writing a command to the line
constexpr int kReadSlice = 1;           // one read of the waiting loop (s)
constexpr long long kSettleMs = 1000;   // pause after a command, cut short by data
constexpr uint32_t kCardNoTimeout = 6;  // getMCCardNo's read

void log_bytes(const char* format, std::span<const uint8_t> bytes) { log::debug_hex(format, bytes); }

int link_fd() { return link::state().fd; }

int write_line(std::span<const uint8_t> bytes) { return link::write_buf(link_fd(), bytes, kWriteTimeout); }

// The stripe LED around a framed read.
class StripeLed {
public:
    StripeLed() { device::led_operate(LED_MC, LED_Color_G, LED_Light); }
    ~StripeLed() { device::led_operate(LED_MC, LED_Color_G, LED_Lightout); }
    StripeLed(const StripeLed&) = delete;
    StripeLed& operator=(const StripeLed&) = delete;
};

// The framed read: the reply's decoded length, or negative.
int framed_read(std::span<uint8_t> reply, uint32_t timeout) {
    std::array<uint8_t, 255> param{};
    param[0] = static_cast<uint8_t>(timeout);
    const int wait = static_cast<int>(std::min<uint32_t>(timeout, 0x7FFFFFF0u) + 2);
    const StripeLed led;
    return device::command(kClassStripe, kCodeStripeRead, std::span<const uint8_t>(param).first(1), reply, wait);
}

int32_t framed_code(int rc, std::span<const uint8_t> reply) {
    if (rc < 0) return Revdata_Error;
    return link::ret_code(reply[3], reply[4]);
}

}  // namespace

// ---------------------------------------------------------------------------
// Framed path.

int32_t read_data(std::span<uint8_t> reply, uint32_t timeout) {
    log::debug_text("KOLT_T41_MC_ReadData......%s", "");
    const int rc = framed_read(reply, timeout);
    const auto got = reply.first(static_cast<std::size_t>(std::max(rc, 0)));
    log_bytes("KOLT_T41_MC_ReadData rcvBuf=%02x", got);
    log::debug("KOLT_T41_MC_ReadData rcvBuf=%s", got.data(), static_cast<int>(got.size()));
    return framed_code(rc, reply);
}

ThreeTracks read_three_tracks(uint32_t timeout) {
    log::debug_text("KOLT_T41_MC_ReadThreeTrackData......%s", "");
    ThreeTracks out;
    out.reply.assign(link::kReplyMax, 0);
    const int rc = framed_read(out.reply, timeout);
    out.reply.resize(static_cast<std::size_t>(std::max(rc, 5)));
    log_bytes("KOLT_T41_MC_ReadThreeTrackData rcvBuf=%02x", std::span<const uint8_t>(out.reply).first(std::max(rc, 0)));
    out.code = framed_code(rc, out.reply);
    if (out.code == 0) out.tracks = split_three_tracks(out.reply);
    return out;
}

CardNo card_no(int32_t type, std::string_view tty, int32_t port, std::string_view transfer) {
    CardNo out;
    link::Session session(type, tty, port, transfer);
    if (!session.ok()) {
        // The line shares its text with the identity-card code.
        log::debug_int("displayCheckResult KOLT_initCom flag=%d", session.result());
        out.code = -1;
        return out;
    }
    const ThreeTracks t = read_three_tracks(kCardNoTimeout);
    session.close();

    // Track 2 as the exported read lays it out: status, length (2), data.
    std::vector<uint8_t> track2 = {t.tracks[1].status, t.tracks[1].length_hi, t.tracks[1].length_lo};
    track2.insert(track2.end(), t.tracks[1].data.begin(), t.tracks[1].data.end());
    const std::size_t len = t.tracks[1].length();
    if (t.code != 0 || len == 0 || track2[0] != 0) {
        out.code = -1;
        return out;
    }
    // ";" is searched over the first len bytes from the buffer's start, its
    // three header bytes included; without one the number starts there.
    const std::span<const uint8_t> head = std::span<const uint8_t>(track2).first(std::min(len, track2.size()));
    const uint8_t sentinel[1] = {';'};
    const int32_t pos = support::sub_buf_pos(sentinel, head);
    const std::size_t start = static_cast<std::size_t>(std::max(pos, -1) + 1);
    const int32_t n = start < head.size() ? card_no_len(head.subspan(start)) : -1;
    if (n <= 0) {
        out.code = -2;
        return out;
    }
    out.digits.assign(head.begin() + static_cast<std::ptrdiff_t>(start),
                      head.begin() + static_cast<std::ptrdiff_t>(start) + n);
    return out;
}

// ---------------------------------------------------------------------------
// Escape-sequence path.

namespace {

// Resets the reader after a cancel or a write.
void reset_reader() { write_line(kReset); }

// After the command: the reader's settling pause (ended early by data), then
// a fresh cancel flag and the deadline of the wait.
link::Deadline start_wait(uint32_t timeout) {
    link::wait_for_data(link_fd(), kSettleMs);
    cancelOperation = 0;
    return link::Deadline::after_ms(static_cast<long long>(timeout) * 1000);
}

bool cancelled() { return cancelOperation == 1; }

}  // namespace

ReadResult mc_read(int32_t term_type, int32_t port, int32_t mode, uint32_t timeout) {
    log::debug_text("KOLT_MC_Read begin......%s", "");
    log::debug_int("KOLT_MC_Read timeout=%d", static_cast<int>(timeout));
    ReadResult out;
    link::Session session = link::open_teller(term_type, port);
    if (!session.ok()) {
        log::debug_int("KOLT_MC_Read KOLT_initCom flag=%d", session.result());
        out.code = -1;
        return out;
    }
    const std::vector<uint8_t> cmd = read_command(mode);
    write_line(cmd);
    const link::Deadline deadline = start_wait(timeout);

    std::array<uint8_t, kBufferRoom> reply{};
    std::size_t got = 0;
    for (;;) {
        if (deadline.expired()) {
            session.release();  // the link stays open after a time-out
            out.code = -2;
            return out;
        }
        if (cancelled()) {
            reset_reader();
            session.release();
            out.code = -3;
            return out;
        }
        // Room for a terminator stays: the reply is read as text.
        const std::span<uint8_t> room = std::span<uint8_t>(reply).first(reply.size() - 1);
        if (got >= room.size()) {
            // A full buffer that never ended in "?" FS: not a reply.
            session.release();
            out.code = -4;
            return out;
        }
        const int n = link::rcv_buf_until(link_fd(), room, got, kReadSlice, kReplyEnd, &cancelOperation);
        if (n > 0) got += static_cast<std::size_t>(n);
        if (reply_complete(std::span<const uint8_t>(reply).first(got))) break;
    }
    const std::span<const uint8_t> bytes = std::span<const uint8_t>(reply).first(got);
    if (const auto text = normalised_reply(bytes)) {
        log::debug("KOLT_MC_Read KOLT_rcvBufUntilTailData replaceto=, data=%02x", text->data(),
                   static_cast<int>(text->size()));
    }
    out = parse_read_reply(bytes, mode);
    if (out.code != 0) {
        session.release();  // so are the other failures after the command
        return out;
    }
    return out;  // the session closes the link
}

int32_t mc_write(int32_t term_type, int32_t port, int32_t mode, std::string_view track2, std::string_view track3,
                 uint32_t timeout) {
    log::debug_text("KOLT_MC_Write begin......%s", "");
    link::Session session = link::open_teller(term_type, port);
    if (!session.ok()) {
        log::debug_int("KOLT_MC_Write KOLT_initCom flag=%d", session.result());
        return -1;
    }
    const std::vector<uint8_t> cmd = write_command(mode, track2, track3);
    log::debug_int("KOLT_MC_Write cmdBuf n=%d", static_cast<int>(cmd.size()));
    log_bytes("KOLT_MC_Write cmdBuf=%02x", cmd);
    write_line(cmd);
    const link::Deadline deadline = start_wait(timeout);

    const std::size_t status_len = write_status_length(mode);
    if (status_len == 0) {
        // No status is expected for this mode: nothing to check.
        reset_reader();
        return 0;
    }
    std::array<uint8_t, 4> status{};
    for (;;) {
        if (deadline.expired()) {
            session.release();
            return -2;
        }
        if (cancelled()) {
            reset_reader();
            session.release();
            return -3;
        }
        const auto want = std::span<uint8_t>(status).first(status_len);
        const int n = link::rcv_buf_until(link_fd(), want, 0, kReadSlice, {}, &cancelOperation);
        log::debug_int("KOLT_MC_Write KOLT_rcvBuf flag=%d", n);
        log_bytes("KOLT_MC_Write status=%02x", want);
        if (n > 0) {
            const int32_t rc = write_succeeded(want) ? 0 : -4;
            reset_reader();
            return rc;
        }
    }
}

// ---------------------------------------------------------------------------
// Teller entry points.

ReadResult msr_read(int32_t mode, int32_t port, uint32_t timeout) {
    if (mode == 1) mode = kModeBoth;
    ReadResult r = mc_read(0, port, mode, timeout);
    if (r.code != 0) r.code = kTellerFailure;
    return r;
}

int32_t msr_write(int32_t port, int32_t mode, std::string_view track2, std::string_view track3, uint32_t timeout) {
    return mc_write(0, port, mode, track2, track3, timeout) == 0 ? 0 : kTellerFailure;
}

ReadResult ms_read_card(std::string_view port_name, int32_t mode) {
    link::set_port_name(port_name);
    if (mode == kModeBoth) mode = 1;
    return msr_read(mode, 0, kTellerTimeout);
}

int32_t ms_write_card(std::string_view port_name, int32_t mode, std::string_view track2, std::string_view track3) {
    link::set_port_name(port_name);
    return msr_write(0, mode, track2, track3, kTellerTimeout);
}

}  // namespace kolt::msr
