// Main-frame replies: kolt::link::codec::decode_main with a nibble body or
// a base64 body (the identity-card read).
//
// Input: byte 0 chooses the body (bit 0: base64) and the room of the output
// (bit 1: KOLT_T41_REPLY_MAX bytes, as the exported calls give; else the
// room in bytes 1-2, big-endian, up to KOLT_T41_REPLY_MAX); the rest is the
// reply as received from the line, head included.
#include "common/fuzz_input.hpp"
#include "kolt/kolt.h"
#include "link/frame_codec.hpp"

using namespace kolt::fuzz;
namespace codec = kolt::link::codec;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input in(data, size);
    const uint8_t mode = in.u8();
    const uint16_t room_field = in.u16();
    const codec::Body body = (mode & 1) ? codec::Body::base64 : codec::Body::nibbles;
    const std::size_t room = (mode & 2) ? KOLT_T41_REPLY_MAX : room_field % (KOLT_T41_REPLY_MAX + 1);

    const auto wire_bytes = in.rest();
    Heap wire(wire_bytes, wire_bytes.size());
    Heap out(room);

    // What the link reads first and what it allocates from it.
    if (wire.size() >= codec::kMainHead) {
        const std::span<const uint8_t> head(wire.data(), codec::kMainHead);
        (void)codec::main_rest(head, body);
        (void)codec::main_decoded_size(head, body);
    }
    const int n = codec::decode_main(std::span<const uint8_t>(wire.data(), wire.size()), body, out.span());
    check(n == Lenth_Error || n == Revdata_Error || (n >= 0 && static_cast<std::size_t>(n) <= room),
          "decode_main: result outside -1, -2, 0..room");
    return 0;
}
