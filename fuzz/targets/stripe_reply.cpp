// The escape-sequence stripe reader's read reply: the cut after the first
// "?" FS, the separator normalisation and the split into tracks 2 and 3
// (kolt::msr::parse_read_reply), for each track selector.
//
// Input: one byte choosing the mode (0: 2, 1: 3, 2: 23, else that value),
// then the reply as it arrived.
#include "common/fuzz_input.hpp"
#include "kolt/kolt.h"
#include "msr/stripe_codec.hpp"

using namespace kolt::fuzz;
namespace msr = kolt::msr;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input in(data, size);
    const uint8_t pick = in.u8();
    const int32_t mode = pick == 0 ? 2 : pick == 1 ? 3 : pick == 2 ? 23 : pick;
    const auto rest = in.rest();
    // The reader's reply never exceeds the read buffer (1023 bytes and a
    // terminator); the splitter must hold to any bytes all the same.
    Heap reply(rest, rest.size());
    const std::span<const uint8_t> bytes(reply.data(), reply.size());
    const bool complete = msr::reply_complete(bytes);
    const msr::ReadResult r = msr::parse_read_reply(bytes, mode);
    check(r.code == 0 || r.code == -4 || r.code == -5 || r.code == -6, "parse_read_reply: unexpected code");
    check(r.track2.size() <= bytes.size() && r.track3.size() <= bytes.size(), "track longer than the reply");
    if (rest.size() < KOLT_STRIPE_TEXT_MAX)
        check(r.track2.size() < KOLT_STRIPE_TEXT_MAX && r.track3.size() < KOLT_STRIPE_TEXT_MAX,
              "track longer than its output");
    if (r.code == -5) check(r.track2.empty() && r.track3.empty(), "-5 with a track");
    (void)complete;
    return 0;
}
