// Bracket-frame replies: kolt::link::codec::decode_bracket.
//
// Input: bytes 0-1 the room of the output (big-endian, up to
// KOLT_T41_REPLY_MAX); the rest is the reply as received, "(" included.
#include "common/fuzz_input.hpp"
#include "kolt/kolt.h"
#include "link/frame_codec.hpp"

namespace codec = kolt::link::codec;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    return kolt::fuzz::fuzz_reply_decoder(
        data, size, KOLT_T41_REPLY_MAX, codec::kBracketHead, [](std::span<const uint8_t> h) { return codec::bracket_rest(h); },
        [](std::span<const uint8_t> w, std::span<uint8_t> o) { return codec::decode_bracket(w, o); },
        "decode_bracket: result outside -1, -2, 0..room");
}
