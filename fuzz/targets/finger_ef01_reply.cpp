// The fingerprint module's packets as read from the line: the header, the
// length field against the room it is read into, the confirmation code and
// the payload (kolt::finger::ef01), as the module reader judges them.
//
// Input: one byte choosing the room (0: the reader's own, KOLT_FP_PACKET_MAX;
// otherwise that many bytes), then the bytes as they arrived.
#include "common/fuzz_input.hpp"
#include "finger/ef01_codec.hpp"
#include "kolt/kolt.h"

using namespace kolt::fuzz;
namespace ef01 = kolt::finger::ef01;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input in(data, size);
    const uint8_t pick = in.u8();
    const size_t room = pick == 0 ? static_cast<size_t>(KOLT_FP_PACKET_MAX) : pick;
    const auto rest = in.rest();
    Heap reply(rest, rest.size());
    const std::span<const uint8_t> bytes(reply.data(), reply.size());

    const int status = ef01::reply_status(bytes, room);
    check(status >= -3 && status != 0, "reply_status: unexpected code");
    const auto header = ef01::parse_header(bytes);
    if (status > 0) {
        const size_t total = static_cast<size_t>(status);
        check(total <= room && total <= bytes.size(), "packet past the room or the bytes");
        check(header.has_value() && total == ef01::kHeaderSize + header->body, "total and header disagree");
        const auto whole = bytes.first(total);
        const auto code = ef01::confirmation(whole);
        check(code.has_value() && *code == whole[ef01::kHeaderSize], "confirmation is not byte 9");
        const auto payload = ef01::payload(whole);
        check(payload.size() + ef01::kHeaderSize + ef01::kSumSize == total, "payload size");
        // The packet the module would have built for this payload has the
        // same length and the same identifier.
        const auto rebuilt = ef01::build(header->pid, payload);
        check(rebuilt.size() == total && rebuilt[6] == whole[6], "rebuilt packet differs");
    } else if (status == -2) {
        check(header.has_value() && bytes.size() < ef01::kHeaderSize + header->body, "-2 with a whole body");
    } else if (status == -1) {
        check(!header.has_value(), "-1 with a header");
    }
    return 0;
}
