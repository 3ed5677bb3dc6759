// The EF01 packet codec.
#include "finger/ef01_codec.hpp"

#include <algorithm>

namespace kolt::finger::ef01 {

namespace {

constexpr std::size_t kMaxBody = 0xFFFF;
constexpr std::size_t kMinBody = 3;  // one payload byte and the sum

}  // namespace

uint16_t checksum(uint8_t pid, std::span<const uint8_t> payload) {
    const std::size_t len = payload.size() + kSumSize;
    unsigned sum = pid + ((len >> 8) & 0xFF) + (len & 0xFF);
    for (uint8_t b : payload) sum += b;
    return static_cast<uint16_t>(sum & 0xFFFF);
}

int build_into(uint8_t pid, std::span<const uint8_t> payload, std::span<uint8_t> out) {
    if (payload.size() + kSumSize > kMaxBody) return -1;
    const std::size_t total = kHeaderSize + payload.size() + kSumSize;
    if (out.size() < total) return -1;
    const std::size_t len = payload.size() + kSumSize;
    out[0] = kHead0;
    out[1] = kHead1;
    std::fill_n(out.begin() + 2, 4, uint8_t{0xFF});
    out[6] = pid;
    out[7] = static_cast<uint8_t>(len >> 8);
    out[8] = static_cast<uint8_t>(len & 0xFF);
    std::copy(payload.begin(), payload.end(), out.begin() + kHeaderSize);
    const uint16_t sum = checksum(pid, payload);
    out[kHeaderSize + payload.size()] = static_cast<uint8_t>(sum >> 8);
    out[kHeaderSize + payload.size() + 1] = static_cast<uint8_t>(sum & 0xFF);
    return static_cast<int>(total);
}

std::vector<uint8_t> build(uint8_t pid, std::span<const uint8_t> payload) {
    if (payload.size() + kSumSize > kMaxBody) return {};  // no packet: nothing to allocate
    std::vector<uint8_t> out(kHeaderSize + payload.size() + kSumSize);
    const int n = build_into(pid, payload, out);
    out.resize(n < 0 ? 0 : static_cast<std::size_t>(n));
    return out;
}

std::optional<Header> parse_header(std::span<const uint8_t> bytes) {
    if (bytes.size() < kHeaderSize || bytes[0] != kHead0 || bytes[1] != kHead1) return std::nullopt;
    Header h;
    h.pid = bytes[6];
    h.body = static_cast<std::size_t>(bytes[7]) << 8 | bytes[8];
    if (h.body < kMinBody) return std::nullopt;
    return h;
}

int reply_status(std::span<const uint8_t> bytes, std::size_t room) {
    if (bytes.size() < kHeaderSize || bytes[0] != kHead0 || bytes[1] != kHead1) return -1;
    const auto h = parse_header(bytes);
    if (!h || room < kHeaderSize || h->body > room - kHeaderSize) return -3;
    if (bytes.size() < kHeaderSize + h->body) return -2;
    return static_cast<int>(kHeaderSize + h->body);
}

std::optional<uint8_t> confirmation(std::span<const uint8_t> reply) {
    if (reply_status(reply, reply.size()) < 0) return std::nullopt;
    return reply[kHeaderSize];
}

std::span<const uint8_t> payload(std::span<const uint8_t> packet) {
    const int total = reply_status(packet, packet.size());
    if (total < 0) return {};
    return packet.subspan(kHeaderSize, static_cast<std::size_t>(total) - kHeaderSize - kSumSize);
}

}  // namespace kolt::finger::ef01
