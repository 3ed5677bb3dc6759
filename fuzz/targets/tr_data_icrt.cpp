// ICRT-encoded transaction data (letter, three digits, value): the exported
// KOLT_ParaseTrData_PSBC and ParaDeal over a terminated copy of the text,
// then field 55 from the slots it filled.
//
// Input: one length byte and the GENERATE AC value for field 55 (short
// field), then the text.
#include <cstring>

#include "common/fuzz_input.hpp"
#include "common/tr_fuzz.hpp"
#include "emv/state.hpp"
#include "kolt/kolt.h"

using namespace kolt::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input in(data, size);
    const auto ac = in.short_field();
    const auto text = Heap::text(in.rest());
    kolt::emv::reset_state();
    const int32_t rc = KOLT_ParaseTrData_PSBC(text->chars());
    check(rc == 0 || rc == -2, "KOLT_ParaseTrData_PSBC: result not 0 or -2");
    check_slots_and_field55(ac);

    // ParaDeal appends to what out holds: the header asks for
    // strlen(out) + 4 * strlen(in) + 1 bytes.
    const std::size_t in_len = std::strlen(text->chars());
    Heap out(3 + 4 * in_len + 1);
    std::memcpy(out.data(), "ab", 3);
    check(ParaDeal(text->chars(), out.chars()) == 0, "ParaDeal: result not 0");
    check(std::strlen(out.chars()) <= 2 + 4 * in_len, "ParaDeal: text longer than 4 times its input");
    return 0;
}
