// UCS-2 text of the identity card to GBK pairs: KOLT_idInfoConvert2gb
// (little-endian units) and convert2gb (big-endian) over the whole input,
// each into an output of exactly the input's size, and field_text.
//
// Input: the UCS-2 bytes (an odd count must give -1 and write nothing).
#include <cstring>

#include "common/fuzz_input.hpp"
#include "idcard/gbk.hpp"
#include "kolt/kolt.h"

using namespace kolt::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 1 << 16) return 0;
    Heap in(std::span<const uint8_t>(data, size), size);
    const int32_t len = static_cast<int32_t>(size);
    for (int big_endian = 0; big_endian < 2; ++big_endian) {
        Heap out(size);
        const int32_t rc = big_endian ? convert2gb(in.data(), len, out.chars())
                                      : KOLT_idInfoConvert2gb(in.data(), len, out.chars());
        if (size % 2 != 0) {
            check(rc == -1, "odd length not refused");
            for (std::size_t i = 0; i < out.size(); ++i) {
                check(out.data()[i] == 0xA5, "output written for an odd length");
            }
            continue;
        }
        check(rc == 0, "even length refused");
        // Every unit gives two bytes: GBK (lead above 127), blank + ASCII, or "**".
        for (std::size_t i = 0; i < size; i += 2) {
            const uint8_t a = out.data()[i];
            const uint8_t b = out.data()[i + 1];
            check(a > 127 || (a == ' ' && b < 128) || (a == '*' && b == '*'), "unit converted to an unknown form");
        }
    }
    const std::string text = kolt::idcard::field_text(std::span<const uint8_t>(in.data(), size));
    check(text.size() <= size, "field_text longer than its input");
    check(text.find(' ') == std::string::npos, "field_text kept a blank");
    return 0;
}
