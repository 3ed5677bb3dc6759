// IC-encoded transaction data and application data blocks (letter, binary
// length byte, value): the exported KOLT_ParaseTrData over the block with a
// zero letter after it, then field 55 from the slots it filled.
//
// Input: one length byte and the GENERATE AC value for field 55 (short
// field), then the block.
#include "common/fuzz_input.hpp"
#include "common/tr_fuzz.hpp"
#include "emv/state.hpp"
#include "emv/tr_data.hpp"
#include "kolt/kolt.h"

using namespace kolt::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input in(data, size);
    const auto ac = in.short_field();
    const auto block = in.rest();
    // Callers zero what follows their block; a value that runs past its end
    // would read into that zero area, so the copy carries 256 zero bytes.
    Heap copy(block.size() + 257);
    std::memset(copy.data(), 0, copy.size());
    if (!block.empty()) std::memcpy(copy.data(), block.data(), block.size());
    kolt::emv::reset_state();
    const int32_t rc = KOLT_ParaseTrData(copy.chars());
    check(rc == 0 || rc == -2, "KOLT_ParaseTrData: result not 0 or -2");
    check(kolt::emv::ic_block_extent(copy.data()) <= copy.size() - 1, "ic_block_extent beyond the block");
    // The codec over the bytes alone never reads past them.
    const auto fields = kolt::emv::split_ic(block);
    for (const auto& f : fields) touch(f.value);
    check_slots_and_field55(ac);
    return 0;
}
