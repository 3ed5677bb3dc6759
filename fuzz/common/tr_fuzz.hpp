// What the two transaction-data targets check after a parse: every slot
// within its room, and field 55 built from the slots within the room the
// header gives.
#pragma once

#include <array>

#include "common/fuzz_input.hpp"
#include "emv/field55.hpp"
#include "emv/state.hpp"
#include "kolt/kolt.h"

namespace kolt::fuzz {

inline void check_slots_and_field55(std::span<const uint8_t> ac) {
    for (int i = 0; i < emv::kTagCount; ++i)
        check(emv::slot_value(i).size() <= static_cast<std::size_t>(emv::kSlotRoom), "slot beyond its room");
    Heap ac_copy(ac, ac.size());
    const std::array<uint8_t, 4> un{1, 2, 3, 4};
    Heap out(KOLT_FIELD55_MAX + 1);
    const int32_t n = KOLT_Get55Data(ac_copy.data(), static_cast<int32_t>(ac_copy.size()), nullptr, un.data(),
                                     out.chars());
    check(n >= 0 && n <= KOLT_FIELD55_MAX, "KOLT_Get55Data: field 55 beyond KOLT_FIELD55_MAX");
}

}  // namespace kolt::fuzz
