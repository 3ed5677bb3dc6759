// In-place decoding of the base64 body of a reply in logical form:
// kolt::link::codec::unbase64_reply over a buffer of exactly the input's
// size, and the exported KOLT_T41_Unbase64 over a reply buffer of exactly
// KOLT_T41_REPLY_MAX bytes holding the input (cut to that room).
//
// Input: the logical reply (02, length high, length low, body, ...).
#include "common/fuzz_input.hpp"
#include "kolt/kolt.h"
#include "link/frame_codec.hpp"

using namespace kolt::fuzz;
namespace codec = kolt::link::codec;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::span<const uint8_t> input(data, size);
    {
        Heap reply(input, size);
        const int n = codec::unbase64_reply(reply.span());
        check(n == Lenth_Error || (n >= 5 && static_cast<std::size_t>(n) <= size),
              "unbase64_reply: result outside -1, 5..size");
    }
    {
        Heap reply(input, KOLT_T41_REPLY_MAX);
        const int32_t n = KOLT_T41_Unbase64(reply.data());
        check(n == Lenth_Error || (n >= 5 && n <= KOLT_T41_REPLY_MAX),
              "KOLT_T41_Unbase64: result outside -1, 5..KOLT_T41_REPLY_MAX");
    }
    return 0;
}
