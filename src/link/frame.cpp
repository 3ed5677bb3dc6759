// Device frames and the status mapping.
#include "link/frame.hpp"

#include <termios.h>
#include <time.h>

#include <algorithm>
#include <cstring>
#include <string_view>

#include "link/deadline.hpp"
#include "link/io.hpp"
#include "link/link_state.hpp"
#include "support/base64.hpp"
#include "support/log.hpp"

namespace kolt::link {
namespace {

std::span<const uint8_t> text_bytes(std::string_view s) {
    return {reinterpret_cast<const uint8_t*>(s.data()), s.size()};
}

// The pause before the body of a reply is read: the time its bytes need
// at ibaud, at most one second; the wait ends early when data is there.
void pause_for(int fd, long bytes) {
    const long long ms = std::min<long long>(static_cast<long long>(bytes) * 8 * 1000 / ibaud, 1000);
    wait_for_data(fd, ms);
}

// Reads the rest of a reply after its head into one wire buffer; false
// when fewer than rest bytes arrive (what came is still in wire).
template <class Read>
bool read_rest(std::vector<uint8_t>& wire, std::span<const uint8_t> head, long rest, Read&& read, int& got) {
    wire.assign(head.begin(), head.end());
    wire.resize(head.size() + static_cast<std::size_t>(rest));
    got = read(std::span<uint8_t>(wire).subspan(head.size()));
    return got >= rest;
}

}  // namespace

int transact_t41(uint8_t cls, uint8_t code, std::span<const uint8_t> data, std::span<uint8_t> out,
                 int timeout_s, codec::Body body) {
    if (data.size() > 0xFFFF - 2) return Para_Error;
    if (out.size() < 5) return Para_Error;

    const std::vector<uint8_t> logical = codec::main_frame(cls, code, data);
    log::debug_hex("KOLT_writeBufAndReadFromT41 tBuf %02x",
                   std::span<const uint8_t>(logical).first(logical.size() < 9 ? logical.size() : 8));

    const int fd = state().fd;
    write_wrapped_fd(fd, codec::nibble_wire(logical), timeout_s);

    uint8_t head[codec::kMainHead] = {};
    if (rcv_from_head(fd, head, 0x02, timeout_s) <= 4) return Lenth_Error;
    const long rest = codec::main_rest(head, body);
    if (rest < 0) return Lenth_Error;
    // A length field that promises more than the caller has room for is
    // refused before anything is read into the buffer.
    if (codec::main_decoded_size(head, body) > static_cast<long>(out.size())) return Lenth_Error;

    // The device's own description sleeps the body's line time (at most a
    // second) before reading it. The counted read sleeps on the line until
    // the whole body is there, which is never later, and spares the reader
    // a wake-up per reply.
    std::vector<uint8_t> wire;
    int got = 0;
    if (!read_rest(wire, head, rest, [&](std::span<uint8_t> b) { return rcv_buf(fd, b, timeout_s); }, got)) {
        log::debug_int("KOLT_writeBufAndReadFromT4 KOLT_rcvBuf100s error flag=%d", got);
        return Lenth_Error;
    }
    const int n = codec::decode_main(wire, body, out);
    if (n == Revdata_Error) log::debug_text("KOLT_writeBufAndReadFromT4 checkByte error%s", "");
    return n;
}

int ret_code(uint8_t s1, uint8_t s2) {
    const uint8_t pairbuf[2] = {s1, s2};
    log::debug_hex("KOLT_T41_Ret_Code byteBuf=%02x", pairbuf);
    struct Row {
        uint8_t a, b;
        int code;
    };
    // Contactless 30 06 and 30 07 give the contact codes: applications test
    // for ICC_No_Response and ICC_Data_Error whatever the slot.
    static constexpr Row rows[] = {
        {0x00, 0x00, OK},
        {0x10, 0x01, ICC_Contact_Not_Support},
        {0x10, 0x02, ICC_Contact_Not_Insert},
        {0x10, 0x03, ICC_Contact_Powered},
        {0x10, 0x04, ICC_Contact_Not_Powered},
        {0x10, 0x05, ICC_Contact_Poweron_Failed},
        {0x10, 0x06, ICC_No_Response},
        {0x10, 0x07, ICC_Data_Error},
        {0x20, 0x01, PSAM_Not_Supported},
        {0x20, 0x04, PSAM_Not_Powered},
        {0x20, 0x05, PSAM_Poweron_Failed},
        {0x20, 0x06, PSAM_No_Response},
        {0x20, 0x07, PSAM_Data_Error},
        {0x30, 0x01, ICC_Contactless_Not_Support},
        {0x30, 0x04, ICC_Contactless_Not_Activated},
        {0x30, 0x06, ICC_No_Response},
        {0x30, 0x07, ICC_Data_Error},
        {0x90, 0x01, MC_Read_Timeout},
    };
    for (const Row& r : rows) {
        if (r.a == s1 && r.b == s2) return r.code;
    }
    return Unknow_Error;
}

int bracket_transact(int fd, uint8_t cmd, std::span<const uint8_t> data, std::span<uint8_t> out,
                     int timeout_s) {
    const std::size_t b64_len = (data.size() + 2) / 3 * 4;
    if (b64_len + 4 > 0xFFFF) return Para_Error;
    const std::vector<uint8_t> frame = codec::bracket_frame(cmd, data);

    ::tcflush(fd, TCIFLUSH);
    // Terminals forward at most 1024 bytes a block: longer frames go in
    // wrapped pieces with a pause after each full one.
    constexpr std::size_t kPiece = 1024;
    std::span<const uint8_t> left(frame);
    while (left.size() >= kPiece) {
        write_wrapped_fd(fd, left.first(kPiece), timeout_s);
        left = left.subspan(kPiece);
        sleep_ms(200);
    }
    if (!left.empty()) write_wrapped_fd(fd, left, timeout_s);

    uint8_t head[codec::kBracketHead] = {};
    const int n = rcv_from_head(fd, head, '(', timeout_s);
    if (n <= 3) {
        log::debug_int("writeBufAndRead read rcvBuf4 error=%d", n);
        return Lenth_Error;
    }
    std::vector<uint8_t> wire;
    int got = 0;
    if (!read_rest(wire, head, codec::bracket_rest(head), [&](std::span<uint8_t> b) { return rcv_buf(fd, b, timeout_s); },
                   got)) {
        log::debug_text("writeBufAndRead rcv error%s", "");
        log::error_text("writeBufAndRead rcv error%s", "");
        return Lenth_Error;
    }
    const int r = codec::decode_bracket(wire, out);
    if (r == Revdata_Error) {
        log::debug_text("%s", "writeBufAndRead check error");
        log::error_text("%s", "writeBufAndRead check error");
    }
    return r;
}

int transact_100s(uint8_t cmd, std::span<uint8_t> out, int timeout_s) {
    const int fd = state().fd;
    write_wrapped_fd(fd, codec::frame_100s(cmd), timeout_s);

    uint8_t head[codec::k100sHead] = {};
    if (rcv_from_head(fd, head, '8', timeout_s) < 6) return Lenth_Error;
    const long L = codec::reply_100s_rest(head);
    if (L < 0) return Lenth_Error;
    if ((codec::k100sHead + static_cast<std::size_t>(L)) / 2 > out.size()) return Lenth_Error;

    pause_for(fd, L);
    std::vector<uint8_t> wire;
    int got = 0;
    if (!read_rest(wire, head, L, [&](std::span<uint8_t> b) { return rcv_buf_100s(fd, b, timeout_s); }, got))
        return Lenth_Error;
    return codec::decode_100s(wire, out);
}

int send_cmd_100s(uint8_t cmd) { return write_wrapped_fd(state().fd, codec::frame_100s(cmd), 2); }

int get_device_type() {
    const int fd = state().fd;
    write_wrapped_fd(fd, text_bytes(codec::kProbe), 2);
    uint8_t head[codec::k100sHead] = {};
    const int n = rcv_from_2heads(fd, head, '8', '(', 3);
    if (n >= 4 && std::memcmp(head, "8600", 4) == 0) {
        if (n == 6) {
            const long L = codec::reply_100s_rest(head);
            if (L > 0) {
                std::vector<uint8_t> rest(static_cast<std::size_t>(L));
                rcv_buf(fd, rest, 3);
            }
        }
        return 1;
    }
    if (n >= 4 && std::memcmp(head, "(ABQ", 4) == 0) {
        const long more = codec::bracket_rest(head) - 2;
        if (more > 0) {
            std::vector<uint8_t> rest(static_cast<std::size_t>(more));
            rcv_buf(fd, rest, 3);
        }
        return 0;
    }
    return -1;
}

}  // namespace kolt::link

