// Card replies into the tag-letter slots and the single-tag search:
// KOLT_T41_ParseTagValue, KOLT_T41_GetTagValue (out of 256 bytes, as the
// header asks) and the track 2 split that reads the slots afterwards.
//
// Input: byte 0 the strict flag (0, 1 or 2), a short field with the tag of
// KOLT_T41_GetTagValue (its bytes up to a zero are the C text), then the
// card reply.
#include "common/fuzz_input.hpp"
#include "emv/tags.hpp"
#include "kolt/kolt.h"

using namespace kolt::fuzz;
namespace emv = kolt::emv;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    emv::reset_state();
    Input in(data, size);
    const int32_t strict = in.u8() % 3;
    const auto tag = Heap::text(in.short_field());
    const auto reply_bytes = in.rest();
    Heap reply(reply_bytes, reply_bytes.size());
    const auto n = static_cast<int32_t>(reply.size());

    check(KOLT_T41_ParseTagValue(reply.data(), n, strict) == 0, "KOLT_T41_ParseTagValue: result not 0");
    for (int i = 0; i < emv::kTagCount; ++i) (void)touch(emv::slot_value(i));
    check(emv::found_letters().size() < emv::kFoundSize, "gFindedTagList: not terminated");
    (void)KOLT_T41_ICC_PareseSecondTrackData();
    (void)KOLT_IsAllFindTagList("ABCDE");

    Heap out(emv::kSlotSize);
    int32_t out_len = -1;
    const int32_t rc = KOLT_T41_GetTagValue(reply.data(), n, tag->chars(), out.data(), &out_len, strict);
    check(rc >= -2 && rc <= emv::kSlotSize, "KOLT_T41_GetTagValue: result outside -2..256");
    check(out_len >= -1 && out_len <= emv::kSlotSize, "KOLT_T41_GetTagValue: length outside -1..256");

    // A second search with a value already found stops at once.
    out_len = 1;
    check(KOLT_T41_GetTagValue(reply.data(), n, tag->chars(), out.data(), &out_len, strict) == -1,
          "KOLT_T41_GetTagValue: a found value does not stop the search");
    emv::reset_state();
    return 0;
}
