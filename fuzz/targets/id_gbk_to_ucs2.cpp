// GBK text of the identity card to UCS-2: convert2uni (two-byte units to
// big-endian) and KOLT_gbConvert2idUni (mixed GBK/ASCII to little-endian),
// the input in an exactly sized block, the output in 2 * len bytes.
//
// Input: the GBK bytes.
#include <cstring>

#include "common/fuzz_input.hpp"
#include "idcard/gbk.hpp"
#include "kolt/kolt.h"

using namespace kolt::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 1 << 16) return 0;
    Heap in(std::span<const uint8_t>(data, size), size);
    const int32_t len = static_cast<int32_t>(size);

    Heap units(size);
    const int32_t rc = convert2uni(in.data(), len, units.data());
    check(rc == (size % 2 == 0 ? 0 : -1), "convert2uni: result does not follow the length");
    if (rc == 0) {
        for (std::size_t i = 0; i < size; i += 2) {
            const int32_t code = (in.data()[i] << 8) | in.data()[i + 1];
            const int32_t u = kolt::idcard::search_uni(code);
            const int32_t got = (units.data()[i] << 8) | units.data()[i + 1];
            check(u < 0 ? got == 0x00FF : got == u, "convert2uni: unit differs from the table");
            // A mapped code goes back to itself.
            if (u >= 0) check(kolt::idcard::search_gb(u) == code, "tables not one-to-one");
        }
    }

    Heap out(2 * size);
    const int32_t n = KOLT_gbConvert2idUni(in.chars(), len, out.data());
    check(n >= 0 && static_cast<std::size_t>(n) <= 2 * size && n % 2 == 0, "KOLT_gbConvert2idUni: bad count");
    touch(std::span<const uint8_t>(out.data(), static_cast<std::size_t>(n)));
    return 0;
}
