// Device frame codecs.
#include "link/frame_codec.hpp"

#include <algorithm>
#include <string>
#include <string_view>

#include "kolt/kolt.h"
#include "support/base64.hpp"

namespace kolt::link::codec {
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

std::vector<uint8_t> base64_of(std::span<const uint8_t> bytes) {
    const std::string text = base64::encode(bytes);
    return std::vector<uint8_t>(text.begin(), text.end());
}

std::vector<uint8_t> unbase64_of(std::span<const uint8_t> text) {
    return base64::decode(std::string_view(reinterpret_cast<const char*>(text.data()), text.size()));
}

// Characters of the body a main-reply length field announces; -1 when bad.
long main_body_chars(std::span<const uint8_t> head, Body body) {
    if (head.size() < kMainHead) return -1;
    const long L = length4(head.data() + 1);
    if (L < 0) return -1;
    return body == Body::nibbles ? 2 * L : L;
}

}  // namespace

// ---------------------------------------------------------------------------

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

long main_rest(std::span<const uint8_t> head, Body body) {
    const long L = main_body_chars(head, body);
    return L < 0 ? -1 : L + 3;  // body, two check characters, ETX
}

long main_decoded_size(std::span<const uint8_t> head, Body body) {
    const long L = main_body_chars(head, body);
    if (L < 0) return -1;
    return body == Body::base64 ? L + 5 : L / 2 + 5;
}

int decode_main(std::span<const uint8_t> wire, Body body, std::span<uint8_t> out) {
    const long rest = main_rest(wire, body);
    const long total_l = main_decoded_size(wire, body);
    if (rest < 0 || total_l < 5) return Lenth_Error;
    if (wire.size() < kMainHead + static_cast<std::size_t>(rest)) return Lenth_Error;
    const auto total = static_cast<std::size_t>(total_l);
    if (total > out.size()) return Lenth_Error;

    out[0] = 0x02;
    if (body == Body::base64) {
        const auto L = static_cast<std::size_t>(rest - 3);
        out[1] = pair(wire[1], wire[2]);
        out[2] = pair(wire[3], wire[4]);
        std::copy_n(wire.begin() + 5, L, out.begin() + 3);
        out[3 + L] = pair(wire[5 + L], wire[6 + L]);
        out[4 + L] = 0x03;
    } else {
        const std::size_t n = total - 2;  // nibble pairs between STX and ETX
        for (std::size_t i = 1; i <= n; ++i) out[i] = pair(wire[2 * i - 1], wire[2 * i]);
        out[n + 1] = 0x03;
    }

    // The check covers status and data; the length bytes stay outside it.
    uint8_t check = 0;
    for (std::size_t i = 3; i + 2 < total; ++i) check ^= out[i];
    if (check != out[total - 2]) return Revdata_Error;
    if (body == Body::base64) return unbase64_reply(out.first(total));
    return static_cast<int>(total);
}

int unbase64_reply(std::span<uint8_t> reply) {
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

// ---------------------------------------------------------------------------

std::vector<uint8_t> bracket_frame(uint8_t cmd, std::span<const uint8_t> data) {
    const std::vector<uint8_t> body = data.empty() ? std::vector<uint8_t>{} : base64_of(data);
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
    return frame;
}

long bracket_rest(std::span<const uint8_t> head) {
    if (head.size() < kBracketHead) return -1;
    const std::vector<uint8_t> count = unbase64_of(head.subspan(1, 3));
    return (count.size() > 0 ? static_cast<long>(count[0]) << 8 : 0) + (count.size() > 1 ? count[1] : 0);
}

int decode_bracket(std::span<const uint8_t> wire, std::span<uint8_t> out) {
    const long R = bracket_rest(wire);
    // Command byte, two check characters and ")" at least.
    if (R < 4 || wire.size() < kBracketHead + static_cast<std::size_t>(R)) return Lenth_Error;
    const std::size_t T = kBracketHead + static_cast<std::size_t>(R);
    uint8_t sum = 0;
    for (std::size_t i = 1; i <= T - 4; ++i) sum ^= wire[i];
    const std::vector<uint8_t> got = unbase64_of(wire.subspan(T - 3, 2));
    if (got.empty() || got[0] != sum) return Revdata_Error;
    const std::vector<uint8_t> decoded = unbase64_of(wire.subspan(5, T - 8));
    if (decoded.size() > out.size()) return Lenth_Error;
    std::copy(decoded.begin(), decoded.end(), out.begin());
    return static_cast<int>(decoded.size());
}

// ---------------------------------------------------------------------------

std::vector<uint8_t> frame_100s(uint8_t cmd) {
    const uint8_t logical[6] = {0x86, 0x00, 0x03, cmd, static_cast<uint8_t>(cmd + 3), 0x16};
    std::vector<uint8_t> wire;
    wire.reserve(12);
    for (uint8_t b : logical) put_nibbles(wire, b);
    return wire;
}

long reply_100s_rest(std::span<const uint8_t> head) {
    if (head.size() < k100sHead) return -1;
    const long L = length4(head.data() + 2);
    return L < 0 ? -1 : 2 * L;
}

int decode_100s(std::span<const uint8_t> wire, std::span<uint8_t> out) {
    const long L = reply_100s_rest(wire);
    if (L < 0 || wire.size() < k100sHead + static_cast<std::size_t>(L)) return Lenth_Error;
    const std::size_t n = (k100sHead + static_cast<std::size_t>(L)) / 2;
    if (n > out.size() || n < 3) return Lenth_Error;
    for (std::size_t i = 0; i < n; ++i) out[i] = pair(wire[2 * i], wire[2 * i + 1]);
    // This family checks with an additive sum, not an XOR.
    uint8_t sum = 0;
    for (std::size_t i = 1; i + 3 <= n; ++i) sum = static_cast<uint8_t>(sum + out[i]);
    if (sum != out[n - 2]) return Revdata_Error;
    return static_cast<int>(n);
}

}  // namespace kolt::link::codec
