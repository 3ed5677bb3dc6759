#include "device/command.hpp"

#include "link/frame.hpp"

namespace kolt::device {

int command(uint8_t cls, uint8_t code, std::span<const uint8_t> data, std::span<uint8_t> out, int timeout_s) {
    const auto body = base64_reply(cls, code) ? link::codec::Body::base64 : link::codec::Body::nibbles;
    return link::transact_t41(cls, code, data, out, timeout_s, body);
}

}  // namespace kolt::device
