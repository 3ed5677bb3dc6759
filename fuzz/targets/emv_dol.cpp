// DOL data built from a card's data object list: the exported
// KOLT_GetApduDataFromCDOL (out of kolt::emv::kDolRoom = 256 bytes, as the
// header asks) and kolt::emv::build_dol with an output of another room.
//
// Input: byte 0 the number of slots to fill (low three bits), then per slot
// an index byte (modulo the 30 letters) and a short field with its value;
// then the 4 random bytes, bytes 0-1 of a second output room (up to 512),
// and the rest is the card's DOL.
#include <algorithm>

#include "common/fuzz_input.hpp"
#include "emv/dol.hpp"
#include "emv/tags.hpp"
#include "kolt/kolt.h"

using namespace kolt::fuzz;
namespace emv = kolt::emv;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    emv::reset_state();
    Input in(data, size);
    const int slots = in.u8() & 7;
    for (int i = 0; i < slots; ++i) {
        const int index = in.u8() % emv::kTagCount;
        emv::set_slot(index, in.short_field());
    }
    uint8_t random_bytes[4] = {};
    const auto r = in.bytes(4);
    std::copy(r.begin(), r.end(), random_bytes);
    Heap random(std::span<const uint8_t>(random_bytes, 4), 4);
    const std::size_t room2 = in.u16() % 513;
    const auto dol_bytes = in.rest();
    Heap dol(dol_bytes, dol_bytes.size());

    {
        Heap out(emv::kDolRoom);
        int32_t out_len = 77;
        const int32_t rc =
            KOLT_GetApduDataFromCDOL(dol.data(), static_cast<int32_t>(dol.size()), random.data(), out.data(), &out_len);
        check(rc == 0 || rc == -1, "KOLT_GetApduDataFromCDOL: result not 0 or -1");
        check(out_len >= 0 && out_len <= emv::kDolRoom, "KOLT_GetApduDataFromCDOL: length outside 0..256");
        check(rc == 0 || out_len == 0, "KOLT_GetApduDataFromCDOL: failure with a length");
    }
    {
        Heap out(room2);
        int32_t out_len = 77;
        const int rc = emv::build_dol(std::span<const uint8_t>(dol.data(), dol.size()),
                                      std::span<const uint8_t, 4>(random.data(), 4), out.span(), out_len);
        check(rc == 0 || rc == -1, "build_dol: result not 0 or -1");
        check(out_len >= 0 && static_cast<std::size_t>(out_len) <= room2, "build_dol: length outside 0..room");
    }
    emv::reset_state();
    return 0;
}
