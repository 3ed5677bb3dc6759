// The candidate AID list of application selection (count byte, then per
// candidate a length byte and the AID): kolt::emv::parse_candidates over
// the input; the path of the exported ICRT_GetICCInfo's aidList text
// argument, kolt::emv::candidate_list_text, over a heap copy of the input
// with a terminating zero; and the binary list of KOLT_T41_InitICCardApp,
// kolt::emv::candidate_list_bytes, over a list buffer of exactly
// kolt::emv::kCandidateListMax bytes holding the input (cut to that room).
//
// Input: the list.
#include "common/fuzz_input.hpp"
#include "emv/app_select.hpp"

using namespace kolt::fuzz;
namespace emv = kolt::emv;

namespace {

bool inside(std::span<const uint8_t> part, const Heap& block) {
    return part.empty() || (part.data() >= block.data() && part.data() + part.size() <= block.data() + block.size());
}

}  // namespace

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
        const auto bytes = emv::candidate_list_text(text->chars());
        check(inside(bytes, *text), "candidate_list_text: span outside the text");
        (void)touch(bytes);
        (void)emv::parse_candidates(bytes);
    }
    {
        Heap list(input, emv::kCandidateListMax);
        const auto bytes = emv::candidate_list_bytes(list.data());
        check(inside(bytes, list), "candidate_list_bytes: span outside the list's room");
        (void)touch(bytes);
        (void)emv::parse_candidates(bytes);
    }
    return 0;
}
