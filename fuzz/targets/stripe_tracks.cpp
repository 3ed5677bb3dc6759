// The framed stripe read's reply (three tracks: status bytes at 6..8,
// lengths at 8..13, data from 14) and the account-number scan of track 2
// (kolt::msr::split_three_tracks, getCardNoLen).
//
// Input: the decoded reply.
#include "common/fuzz_input.hpp"
#include "kolt/kolt.h"
#include "msr/stripe_codec.hpp"

using namespace kolt::fuzz;
namespace msr = kolt::msr;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Heap reply(std::span<const uint8_t>(data, size), size);
    const std::span<const uint8_t> bytes(reply.data(), reply.size());
    const auto tracks = msr::split_three_tracks(bytes);
    std::size_t total = 0;
    for (const auto& t : tracks) {
        touch(t.data);
        check(t.data.size() <= t.length(), "track data longer than its length");
        total += t.data.size();
        // The exported call writes status, two length bytes and the data
        // into a buffer of KOLT_T41_REPLY_MAX bytes.
        check(3 + t.data.size() <= static_cast<std::size_t>(KOLT_T41_REPLY_MAX) || size > KOLT_T41_REPLY_MAX,
              "track beyond its buffer");
        const int32_t n = getCardNoLen(t.data.data(), static_cast<int32_t>(t.data.size()));
        check(n >= -1 && n <= static_cast<int32_t>(t.data.size()), "getCardNoLen out of range");
    }
    check(total <= size, "tracks beyond the reply");
    return 0;
}
