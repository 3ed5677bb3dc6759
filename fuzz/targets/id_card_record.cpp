// The identity card's text record as the card flows read it: the layout by
// byte 248, every field converted from UCS-2LE to GBK with its blanks
// removed, the "|"-separated line (kolt::idcard::card_fields, card_line),
// and the bitmap built from a decoder's pixels (bmp_file).
//
// Input: the 256-byte text record (shorter inputs read as blanks beyond
// their end); the same bytes serve as pixels for the bitmap.
#include <algorithm>

#include "common/fuzz_input.hpp"
#include "idcard/id_card.hpp"
#include "kolt/kolt.h"

using namespace kolt::fuzz;
namespace idcard = kolt::idcard;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Heap text(std::span<const uint8_t>(data, size), size);
    const std::span<const uint8_t> bytes(text.data(), std::min<size_t>(size, idcard::kTextSize));
    const idcard::CardFields f = idcard::card_fields(bytes);
    const std::string line = idcard::card_line(f);
    check(line.size() < KOLT_IDINFO_MAX, "card line longer than KOLT_IDINFO_MAX");
    check(f.line.size() == (f.type == idcard::CardType::permit ? 17u : 15u), "wrong field count");
    for (const auto& s : f.permit) check(s.size() < KOLT_IDINFO_MAX, "permit text too long");

    const std::vector<uint8_t> bmp = idcard::bmp_file(std::span<const uint8_t>(text.data(), size));
    check(bmp.size() == idcard::kBmpFileSize, "bitmap of the wrong size");
    return 0;
}
