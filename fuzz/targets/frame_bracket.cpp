// Bracket-frame replies: kolt::link::codec::decode_bracket.
//
// Input: bytes 0-1 the room of the output (big-endian, up to
// KOLT_T41_REPLY_MAX); the rest is the reply as received, "(" included.
#include "common/fuzz_input.hpp"
#include "kolt/kolt.h"
#include "link/frame_codec.hpp"

using namespace kolt::fuzz;
namespace codec = kolt::link::codec;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input in(data, size);
    const std::size_t room = in.u16() % (KOLT_T41_REPLY_MAX + 1);
    const auto wire_bytes = in.rest();
    Heap wire(wire_bytes, wire_bytes.size());
    Heap out(room);

    if (wire.size() >= codec::kBracketHead) {
        (void)codec::bracket_rest(std::span<const uint8_t>(wire.data(), codec::kBracketHead));
    }
    const int n = codec::decode_bracket(std::span<const uint8_t>(wire.data(), wire.size()), out.span());
    check(n == Lenth_Error || n == Revdata_Error || (n >= 0 && static_cast<std::size_t>(n) <= room),
          "decode_bracket: result outside -1, -2, 0..room");
    return 0;
}
