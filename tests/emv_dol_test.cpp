// DOL data building from the tag-letter slots and the terminal's fixed values.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "common/test_util.hpp"
#include "emv/dol.hpp"
#include "emv/tags.hpp"
#include "kolt/kolt.h"

using kolt::test::from_hex;
using kolt::test::to_hex;
namespace emv = kolt::emv;

namespace {

const uint8_t kRandom[4] = {0x11, 0x22, 0x33, 0x44};

// Builds the DOL given as hex through the exported call; returns the data
// as hex, or "ERR<code>".
std::string build(const std::string& dol_hex) {
    const auto dol = from_hex(dol_hex);
    uint8_t out[300] = {};
    int32_t len = 77;
    const int32_t rc = KOLT_GetApduDataFromCDOL(dol.data(), static_cast<int32_t>(dol.size()), kRandom, out, &len);
    if (rc != 0) return "ERR" + std::to_string(rc) + "/" + std::to_string(len);
    return to_hex(out, static_cast<size_t>(len));
}

}  // namespace

TEST(EmvDol, ContactlessPdolExample) {
    emv::set_slot_text(emv::kAmount, "000000000100");
    emv::set_slot_text(emv::kCurrency, "0156");
    emv::set_slot_text(emv::kDate, "20261115");
    const std::string data = build("9F 66 04 9F 02 06 9F 37 04 5F 2A 02 9A 03");
    EXPECT_EQ(data, "F4000000" "000000000100" "11223344" "0156" "261115");
    EXPECT_EQ(data.size(), 38u);  // 19 bytes
    // The unpredictable number is kept in its slot.
    EXPECT_EQ(to_hex(emv::slot_value(emv::kUnpredictable).data(), 4), "11223344");
}

TEST(EmvDol, UnknownTagGivesCharacterZeros) {
    EXPECT_EQ(build("9F 35 01"), "30");
    EXPECT_EQ(build("DF 60 03"), "303030");
}

TEST(EmvDol, TerminalVerificationResultsAreAlwaysFiveBytes) {
    EXPECT_EQ(build("95 04"), "0000000800");
    EXPECT_EQ(to_hex(emv::slot_value(emv::kTvr).data(), emv::slot_value(emv::kTvr).size()), "0000000800");
    EXPECT_EQ(build("95 04 9F 35 01"), "000000080030");
}

TEST(EmvDol, UnpredictableNumberIsAlwaysFourBytes) {
    EXPECT_EQ(build("9F 37 02 9F 35 01"), "1122334430");
}

TEST(EmvDol, QualifiersCountTheCardsLength) {
    EXPECT_EQ(build("9F 7A 01"), "01");
    EXPECT_EQ(build("9F 66 04 9F 7A 01"), "F400000001");
    // Four bytes are written, two counted: the next entry lands on the third.
    EXPECT_EQ(build("9F 66 02 9F 7A 01"), "F40001");
    EXPECT_EQ(build("9F 66 06"), "F40000000000");
}

TEST(EmvDol, EcIndicatorIsOneByteWhateverTheCardsLength) {
    EXPECT_EQ(build("9F 7A 02 9F 35 01"), "0130");
    EXPECT_EQ(build("9F 7A 00 9F 35 01"), "0130");
}

TEST(EmvDol, DateInShortForm) {
    emv::set_slot_text(emv::kDate, "261115");
    EXPECT_EQ(build("9A 03"), "261115");
}

TEST(EmvDol, DigitsRightAlignedAndEmptySlotsZero) {
    emv::set_slot_text(emv::kAmount, "100");
    EXPECT_EQ(build("9F 02 06 9F 03 06 9C 01"), "000000000100" "000000000000" "00");
    emv::set_slot_text(emv::kTxType, "31");
    emv::set_slot_text(emv::kTime, "143059");
    initTagListValue();
    EXPECT_EQ(build("9C 01 9F 21 03 9F 1A 02"), "31" "143059" "0156");
}

TEST(EmvDol, MerchantIsRawBytes) {
    emv::set_slot_text(emv::kMerchant, "AB");
    EXPECT_EQ(build("9F 4E 05"), "4142000000");
}

TEST(EmvDol, HexTextSlotsPackAsHex) {
    emv::set_slot_text(emv::kAip, "7C00");
    EXPECT_EQ(build("82 02"), "7C00");
}

TEST(EmvDol, EmptyDolIsRefused) {
    EXPECT_EQ(build(""), "ERR-1/0");
    uint8_t out[8];
    int32_t len = 5;
    const uint8_t dol[] = {0x95, 0x05};
    EXPECT_EQ(KOLT_GetApduDataFromCDOL(dol, -3, kRandom, out, &len), -1);
    EXPECT_EQ(len, 0);
}

TEST(EmvDol, TruncatedDolStopsAtTheLastWholeEntry) {
    emv::set_slot_text(emv::kAmount, "000000000100");
    EXPECT_EQ(build("9F 02 06 9F"), "000000000100");
    EXPECT_EQ(build("9F 02 06 9F 03"), "000000000100");
}

TEST(EmvDol, DataLongerThanOneCommandIsRefused) {
    EXPECT_EQ(build("9F 4E 7F 9F 4E 7F 9F 4E 7F"), "ERR-1/0");
    // The C++ form accepts whatever room it is given.
    const auto dol = from_hex("9F 4E 7F 9F 4E 7F 9F 4E 7F");
    std::vector<uint8_t> out(400);
    int32_t len = 0;
    EXPECT_EQ(emv::build_dol(dol, std::span<const uint8_t, 4>(kRandom, 4), out, len), 0);
    EXPECT_EQ(len, 381);
}
