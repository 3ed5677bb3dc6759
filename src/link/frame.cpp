// Device frames and the status mapping.
#include "link/frame.hpp"

#include <termios.h>
#include <time.h>

#include <algorithm>
#include <cstring>
#include <string_view>

#include "link/io.hpp"
#include "link/link_state.hpp"
#include "support/base64.hpp"
#include "support/log.hpp"

namespace kolt::link {
namespace {

// Value of one nibble character as the length fields read it.
int nib(uint8_t c) { return static_cast<int>(c) - '0'; }

// One decoded byte of a nibble pair. The first character contributes its
// low four bits, the second its distance from '0'; replies from the field
// are decoded this way, whatever the characters.
uint8_t pair(uint8_t hi, uint8_t lo) { return static_cast<uint8_t>(((hi & 0x0F) << 4) + (lo - '0')); }

// Length field of four nibble characters.
long length4(const uint8_t* c) {
    return static_cast<long>(nib(c[0]) * 16 + nib(c[1])) * 256 + nib(c[2]) * 16 + nib(c[3]);
}

void put_nibbles(std::vector<uint8_t>& wire, uint8_t b) {
    wire.push_back(static_cast<uint8_t>('0' + (b >> 4)));
    wire.push_back(static_cast<uint8_t>('0' + (b & 0x0F)));
}

// Base64 text of a byte run.
std::vector<uint8_t> base64_of(std::span<const uint8_t> bytes) {
    const std::string text = base64::encode(bytes);
    return std::vector<uint8_t>(text.begin(), text.end());
}

// Decoded bytes of a base64 text.
std::vector<uint8_t> unbase64_of(std::span<const uint8_t> text) {
    return base64::decode(std::string_view(reinterpret_cast<const char*>(text.data()), text.size()));
}

std::span<const uint8_t> text_bytes(std::string_view s) {
    return {reinterpret_cast<const uint8_t*>(s.data()), s.size()};
}

// The pause before the body of a reply is read: the time its bytes need
// at ibaud, at most one second; the wait ends early when data is there.
void pause_for(int fd, long bytes) {
    const long long ms = std::min<long long>(static_cast<long long>(bytes) * 8 * 1000 / ibaud, 1000);
    wait_for_data(fd, ms);
}

std::vector<uint8_t> frame_100s(uint8_t cmd) {
    const uint8_t logical[6] = {0x86, 0x00, 0x03, cmd, static_cast<uint8_t>(cmd + 3), 0x16};
    std::vector<uint8_t> wire;
    wire.reserve(12);
    for (uint8_t b : logical) put_nibbles(wire, b);
    return wire;
}

}  // namespace

std::vector<uint8_t> main_frame(uint8_t cls, uint8_t code, std::span<const uint8_t> data) {
    const std::size_t len = data.size() + 2;
    std::vector<uint8_t> f;
    f.reserve(data.size() + 7);
    f.push_back(0x02);
    f.push_back(static_cast<uint8_t>(len >> 8));
    f.push_back(static_cast<uint8_t>(len & 0xFF));
    f.push_back(cls);
    f.push_back(code);
    uint8_t check = cls ^ code;
    for (uint8_t b : data) {
        f.push_back(b);
        check ^= b;
    }
    f.push_back(check);
    f.push_back(0x03);
    return f;
}

std::vector<uint8_t> nibble_wire(std::span<const uint8_t> logical) {
    std::vector<uint8_t> wire;
    if (logical.size() < 2) return wire;
    wire.reserve(2 * logical.size());
    wire.push_back(logical.front());
    for (std::size_t i = 1; i + 1 < logical.size(); ++i) put_nibbles(wire, logical[i]);
    wire.push_back(logical.back());
    return wire;
}

int transact_t41(uint8_t cls, uint8_t code, std::span<const uint8_t> data, std::span<uint8_t> out,
                 int timeout_s) {
    if (data.size() > 0xFFFF - 2) return Para_Error;
    if (out.size() < 5) return Para_Error;

    const std::vector<uint8_t> logical = main_frame(cls, code, data);
    const std::vector<uint8_t> wire = nibble_wire(logical);
    log::debug_hex("KOLT_writeBufAndReadFromT41 tBuf %02x",
                   std::span<const uint8_t>(logical).first(logical.size() < 9 ? logical.size() : 8));

    const int fd = state().fd;
    write_wrapped_fd(fd, wire, timeout_s);

    uint8_t head[5] = {};
    if (rcv_from_head(fd, head, 0x02, timeout_s) <= 4) return Lenth_Error;

    // The identity-card read (class 0x35 code 0x82) answers with a raw base64
    // body whose length field counts its characters; every other reply
    // counts bytes, sent as two characters each.
    const bool special = cls == 0x35 && code == 0x82;
    long L = length4(head + 1);
    if (L < 0) return Lenth_Error;
    if (!special) L *= 2;
    const long R = L + 3;  // body, two check characters, ETX

    // A length field that promises more than the caller has room for is
    // refused before anything is read into the buffer.
    const std::size_t total = special ? static_cast<std::size_t>(L) + 5 : static_cast<std::size_t>(L) / 2 + 5;
    if (total > out.size()) return Lenth_Error;

    pause_for(fd, R);
    std::vector<uint8_t> raw(5 + static_cast<std::size_t>(R));
    std::copy(std::begin(head), std::end(head), raw.begin());
    const int got = rcv_buf(fd, std::span<uint8_t>(raw).subspan(5), timeout_s);
    if (got < R) {
        log::debug_int("KOLT_writeBufAndReadFromT4 KOLT_rcvBuf100s error flag=%d", got);
        return Lenth_Error;
    }

    out[0] = 0x02;
    if (special) {
        out[1] = pair(raw[1], raw[2]);
        out[2] = pair(raw[3], raw[4]);
        std::copy(raw.begin() + 5, raw.begin() + 5 + L, out.begin() + 3);
        out[3 + L] = pair(raw[5 + L], raw[6 + L]);
        out[4 + L] = 0x03;
    } else {
        const std::size_t n = total - 2;  // nibble pairs between STX and ETX
        for (std::size_t i = 1; i <= n; ++i) out[i] = pair(raw[2 * i - 1], raw[2 * i]);
        out[n + 1] = 0x03;
    }

    // The check covers status and data; the length bytes stay outside it.
    uint8_t check = 0;
    for (std::size_t i = 3; i + 2 < total; ++i) check ^= out[i];
    if (check != out[total - 2]) {
        log::debug_text("KOLT_writeBufAndReadFromT4 checkByte error%s", "");
        return Revdata_Error;
    }
    if (special) return t41_unbase64(out.first(total));
    return static_cast<int>(total);
}

int t41_unbase64(std::span<uint8_t> reply) {
    if (reply.size() < 5) return Lenth_Error;
    const std::size_t L = static_cast<std::size_t>(reply[1]) * 256 + reply[2];
    if (L + 5 > reply.size()) return Lenth_Error;
    const int decoded = base64::decode_in_place(reply.subspan(3), static_cast<int>(L));
    const std::size_t n = static_cast<std::size_t>(std::clamp(decoded, 0, static_cast<int>(L)));
    reply[1] = static_cast<uint8_t>(n >> 8);
    reply[2] = static_cast<uint8_t>(n & 0xFF);
    reply[n + 3] = 0x30;
    reply[n + 4] = 0x03;
    return static_cast<int>(n + 5);
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

    std::vector<uint8_t> body = data.empty() ? std::vector<uint8_t>{} : base64_of(data);
    const std::size_t count = body.size() + 4;
    const uint8_t count_bytes[2] = {static_cast<uint8_t>(count >> 8), static_cast<uint8_t>(count & 0xFF)};
    const std::vector<uint8_t> count_text = base64_of(count_bytes);

    std::vector<uint8_t> frame;
    frame.reserve(body.size() + 8);
    frame.push_back('(');
    frame.insert(frame.end(), count_text.begin(), count_text.begin() + 3);
    frame.push_back(cmd);
    frame.insert(frame.end(), body.begin(), body.end());
    uint8_t check = 0;
    for (std::size_t i = 1; i < frame.size(); ++i) check ^= frame[i];
    const uint8_t check_bytes[2] = {check, 0};
    const std::vector<uint8_t> check_text = base64_of(check_bytes);
    frame.insert(frame.end(), check_text.begin(), check_text.begin() + 2);
    frame.push_back(')');

    ::tcflush(fd, TCIFLUSH);
    // Terminals forward at most 1024 bytes a block: longer frames go in
    // wrapped pieces with a pause after each full one.
    constexpr std::size_t kPiece = 1024;
    std::span<const uint8_t> rest(frame);
    while (rest.size() >= kPiece) {
        write_wrapped_fd(fd, rest.first(kPiece), timeout_s);
        rest = rest.subspan(kPiece);
        const timespec pause{0, 200 * 1000 * 1000};
        nanosleep(&pause, nullptr);
    }
    if (!rest.empty()) write_wrapped_fd(fd, rest, timeout_s);

    uint8_t head[4] = {};
    const int n = rcv_from_head(fd, head, '(', timeout_s);
    if (n <= 3) {
        log::debug_int("writeBufAndRead read rcvBuf4 error=%d", n);
        return Lenth_Error;
    }
    const std::vector<uint8_t> rbytes = unbase64_of(std::span<const uint8_t>(head + 1, 3));
    const std::size_t R = (rbytes.size() > 0 ? static_cast<std::size_t>(rbytes[0]) << 8 : 0) +
                          (rbytes.size() > 1 ? rbytes[1] : 0);
    std::vector<uint8_t> reply(4 + R);
    std::copy(std::begin(head), std::end(head), reply.begin());
    if (rcv_buf(fd, std::span<uint8_t>(reply).subspan(4), timeout_s) < static_cast<int>(R)) {
        log::debug_text("writeBufAndRead rcv error%s", "");
        log::error_text("writeBufAndRead rcv error%s", "");
        return Lenth_Error;
    }
    // Command byte, two check characters and ")" at least.
    if (R < 4) return Lenth_Error;
    const std::size_t T = 4 + R;
    uint8_t sum = 0;
    for (std::size_t i = 1; i <= T - 4; ++i) sum ^= reply[i];
    const std::vector<uint8_t> got = unbase64_of(std::span<const uint8_t>(reply).subspan(T - 3, 2));
    if (got.empty() || got[0] != sum) {
        log::debug_text("%s", "writeBufAndRead check error");
        log::error_text("%s", "writeBufAndRead check error");
        return Revdata_Error;
    }
    const std::vector<uint8_t> decoded = unbase64_of(std::span<const uint8_t>(reply).subspan(5, T - 8));
    if (decoded.size() > out.size()) return Lenth_Error;
    std::copy(decoded.begin(), decoded.end(), out.begin());
    return static_cast<int>(decoded.size());
}

int transact_100s(uint8_t cmd, std::span<uint8_t> out, int timeout_s) {
    const int fd = state().fd;
    write_wrapped_fd(fd, frame_100s(cmd), timeout_s);

    uint8_t head[6] = {};
    if (rcv_from_head(fd, head, '8', timeout_s) < 6) return Lenth_Error;
    long L = length4(head + 2);
    if (L < 0) return Lenth_Error;
    L *= 2;
    const std::size_t n = (6 + static_cast<std::size_t>(L)) / 2;
    if (n > out.size()) return Lenth_Error;

    pause_for(fd, L);
    std::vector<uint8_t> raw(6 + static_cast<std::size_t>(L));
    std::copy(std::begin(head), std::end(head), raw.begin());
    if (rcv_buf_100s(fd, std::span<uint8_t>(raw).subspan(6), timeout_s) < L) return Lenth_Error;

    for (std::size_t i = 0; i < n; ++i) out[i] = pair(raw[2 * i], raw[2 * i + 1]);
    // This family checks with an additive sum, not an XOR.
    uint8_t sum = 0;
    for (std::size_t i = 1; i + 3 <= n; ++i) sum = static_cast<uint8_t>(sum + out[i]);
    if (sum != out[n - 2]) return Revdata_Error;
    return static_cast<int>(n);
}

int send_cmd_100s(uint8_t cmd) { return write_wrapped_fd(state().fd, frame_100s(cmd), 2); }

int get_device_type() {
    const int fd = state().fd;
    // An 0x86-family query followed by a bracket-family command "A": each
    // family ignores the other's frame and answers its own.
    write_wrapped_fd(fd, text_bytes("860003101316(AAQAEA)"), 2);
    uint8_t head[6] = {};
    const int n = rcv_from_2heads(fd, head, '8', '(', 3);
    if (n >= 4 && std::memcmp(head, "8600", 4) == 0) {
        if (n == 6) {
            const long L = length4(head + 2) * 2;
            if (L > 0) {
                std::vector<uint8_t> rest(static_cast<std::size_t>(L));
                rcv_buf(fd, rest, 3);
            }
        }
        return 1;
    }
    if (n >= 4 && std::memcmp(head, "(ABQ", 4) == 0) {
        const std::vector<uint8_t> len = unbase64_of(std::span<const uint8_t>(head + 1, 3));
        const long count = len.size() >= 2 ? (len[0] << 8) + len[1] : 0;
        const long more = count - 2;
        if (more > 0) {
            std::vector<uint8_t> rest(static_cast<std::size_t>(more));
            rcv_buf(fd, rest, 3);
        }
        return 0;
    }
    return -1;
}

}  // namespace kolt::link

// ---------------------------------------------------------------------------
// C interface.

using namespace kolt;

extern "C" {

KOLT_API int32_t KOLT_writeBufAndReadFromT41(uint8_t cmdClass, uint8_t cmdCode, const uint8_t* data,
                                             int32_t dataLen, uint8_t* out, int32_t timeoutSec) {
    if (out == nullptr || dataLen < 0 || (data == nullptr && dataLen > 0)) return Para_Error;
    return link::transact_t41(cmdClass, cmdCode,
                              std::span<const uint8_t>(data, data ? static_cast<std::size_t>(dataLen) : 0),
                              std::span<uint8_t>(out, link::kReplyMax), timeoutSec);
}

KOLT_API int32_t KOLT_T41_Ret_Code(uint8_t s1, uint8_t s2) { return link::ret_code(s1, s2); }

KOLT_API int32_t KOLT_Equal_2bytes(const uint8_t* p, uint8_t a, uint8_t b) {
    if (p == nullptr) return -1;
    return (p[0] == a && p[1] == b) ? 0 : -1;
}

KOLT_API int32_t KOLT_writeBufAndRead(int32_t fd, uint8_t cmd, const uint8_t* data, int32_t dataLen,
                                      uint8_t* out, int32_t timeoutSec) {
    if (out == nullptr || dataLen < 0 || (data == nullptr && dataLen > 0)) return Para_Error;
    return link::bracket_transact(fd, cmd,
                                  std::span<const uint8_t>(data, data ? static_cast<std::size_t>(dataLen) : 0),
                                  std::span<uint8_t>(out, link::kReplyMax), timeoutSec);
}

KOLT_API int32_t KOLT_sendCmd100s(uint8_t cmd) { return link::send_cmd_100s(cmd); }

KOLT_API int32_t KOLT_writeBufAndReadFrom100s(uint8_t cmd, int32_t unused1, int32_t unused2, uint8_t* out,
                                              int32_t timeoutSec) {
    (void)unused1;
    (void)unused2;
    if (out == nullptr) return Para_Error;
    return link::transact_100s(cmd, std::span<uint8_t>(out, link::kReplyMax), timeoutSec);
}

KOLT_API int32_t KOLT_getDeviceType(void) { return link::get_device_type(); }

KOLT_API int32_t KOLT_T41_Unbase64(uint8_t* reply) {
    if (reply == nullptr) return Para_Error;
    const std::size_t L = static_cast<std::size_t>(reply[1]) * 256 + reply[2];
    return link::t41_unbase64(std::span<uint8_t>(reply, L + 5));
}

}  // extern "C"
