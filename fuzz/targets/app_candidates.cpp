// The candidate AID list of application selection (count byte, then per
// candidate a length byte and the AID): kolt::emv::parse_candidates over
// the input, and the path of the exported ICRT_GetICCInfo's aidList
// argument, kolt::emv::candidate_list_bytes, over a heap copy of the input
// with a terminating zero (the list is a text argument).
//
// Input: the list.
#include "common/fuzz_input.hpp"
#include "emv/app_select.hpp"

using namespace kolt::fuzz;
namespace emv = kolt::emv;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::span<const uint8_t> input(data, size);
    {
        Heap list(input, size);
        const auto candidates = emv::parse_candidates(std::span<const uint8_t>(list.data(), list.size()));
        std::size_t total = candidates.empty() ? 0 : 1;
        for (const auto& aid : candidates) total += 1 + aid.size();
        check(total <= size, "parse_candidates: more bytes than the list");
    }
    {
        const auto text = Heap::text(input);
        const auto bytes = emv::candidate_list_bytes(text->data());
        (void)touch(bytes);
        (void)emv::parse_candidates(bytes);
    }
    return 0;
}
