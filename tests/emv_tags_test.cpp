// Tag-letter tables, reply parsing, tag search, track-2 split, log records
// and the short tag writer. None of these touch the device.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "common/test_util.hpp"
#include "emv/tags.hpp"
#include "kolt/kolt.h"

using kolt::test::from_hex;
using kolt::test::to_hex;
namespace emv = kolt::emv;

namespace {

std::string slot_string(int index) { return std::string(emv::slot_text(index)); }

std::string slot_hex(int index) {
    const auto v = emv::slot_value(index);
    return to_hex(v.data(), v.size());
}

void parse(const std::string& hex, int strict = 1) {
    const auto bytes = from_hex(hex);
    ASSERT_EQ(KOLT_T41_ParseTagValue(bytes.data(), static_cast<int32_t>(bytes.size()), strict), 0);
}

}  // namespace

// --- tables -------------------------------------------------------------

TEST(EmvTables, LettersAndTagsPairByPosition) {
    EXPECT_STREQ(emv::tagList, "ABCDEFGHIJKLMNOPQRSTUVWXYZ1234");
    const std::pair<char, uint64_t> pairs[] = {
        {'A', 0x5A},   {'B', 0x5F20}, {'C', 0x9F62}, {'D', 0x9F61}, {'E', 0x57},   {'F', 0x9F1F},
        {'G', 0x9F79}, {'H', 0x9F77}, {'I', 0x5F24}, {'J', 0x5F34}, {'K', 0x9F78}, {'M', 0x9F0B},
        {'O', 0x9F13}, {'P', 0x9F02}, {'Q', 0x9F03}, {'R', 0x5F2A}, {'S', 0x9A},   {'T', 0x9C},
        {'U', 0x9F21}, {'V', 0x9F1A}, {'W', 0x9F4E}, {'X', 0x9F36}, {'Z', 0x82},   {'1', 0x95},
        {'2', 0x9F37}, {'3', 0x8C},   {'4', 0x8D},
    };
    for (const auto& [letter, tag] : pairs) {
        const int pos = KOLT_T41_GetTagListIndex(letter);
        ASSERT_GE(pos, 0) << letter;
        EXPECT_EQ(emv::apduTagList[pos], tag) << letter;
        EXPECT_EQ(KOLT_T41_GetApduTagListIndexFromInt(tag), pos) << letter;
    }
    for (char unused : {'L', 'N', 'Y'}) EXPECT_EQ(emv::apduTagList[KOLT_T41_GetTagListIndex(unused)], 0u);
}

TEST(EmvTables, TagIndexFromBytes) {
    const uint8_t pan[] = {0x5A};
    const uint8_t atc[] = {0x9F, 0x36, 0xEE};
    EXPECT_EQ(KOLT_T41_GetApduTagListIndex(pan, 1), 0);
    EXPECT_EQ(KOLT_T41_GetApduTagListIndex(atc, 2), 23);
    // Any length other than 1 reads two bytes.
    EXPECT_EQ(KOLT_T41_GetApduTagListIndex(atc, 3), 23);
    EXPECT_EQ(KOLT_T41_GetApduTagListIndex(atc, 0), 23);
    const uint8_t unknown[] = {0x9F, 0x35};
    EXPECT_EQ(KOLT_T41_GetApduTagListIndex(unknown, 2), -1);
    EXPECT_EQ(KOLT_T41_GetApduTagListIndex(nullptr, 1), -1);
}

TEST(EmvTables, UnknownTagsAndLetters) {
    EXPECT_EQ(KOLT_T41_GetApduTagListIndexFromInt(0x9F35), -1);
    // The unused letters carry no tag, so tag 0 names none of them.
    EXPECT_EQ(KOLT_T41_GetApduTagListIndexFromInt(0), -1);
    EXPECT_EQ(KOLT_T41_GetTagListIndex('a'), -1);
    EXPECT_EQ(KOLT_T41_GetTagListIndex('5'), -1);
    EXPECT_EQ(KOLT_T41_GetTagListIndex('\0'), -1);
    EXPECT_EQ(KOLT_T41_GetTagListIndex('4'), 29);
}

TEST(EmvTables, SharedConstants) {
    EXPECT_STREQ(emv::ContactStandardPDOL, "9F7A019F02065F2A02");
    EXPECT_STREQ(emv::TAG_Issuer_Discretionary_Data, "BF0C");
    EXPECT_STREQ(emv::TAG_DF_Name, "84");
    EXPECT_EQ(to_hex(emv::trDetailRecordFormat, sizeof emv::trDetailRecordFormat),
              "9A039F21039F02069F03069F1A025F2A029F4E149C019F3602");
}

TEST(EmvTables, InitTagListValueFillsOnlyEmptyCountryAndCurrency) {
    EXPECT_EQ(initTagListValue(), 0);
    EXPECT_EQ(slot_string(emv::kCountry), "0156");
    EXPECT_EQ(slot_string(emv::kCurrency), "0156");
    EXPECT_EQ(emv::tagListValue[emv::kCurrency][5], 0);  // zero-terminated

    emv::clear_working_state();
    emv::set_slot_text(emv::kCurrency, "0840");
    initTagListValue();
    EXPECT_EQ(slot_string(emv::kCurrency), "0840");
    EXPECT_EQ(slot_string(emv::kCountry), "0156");
}

TEST(EmvTables, IsAllFindTagList) {
    EXPECT_EQ(KOLT_IsAllFindTagList(""), 0);
    EXPECT_EQ(KOLT_IsAllFindTagList("A"), -1);
    parse("70 0A 5A 02 12 34 5F 24 03 25 12 31");
    EXPECT_STREQ(emv::gFindedTagList, "AI");
    EXPECT_EQ(KOLT_IsAllFindTagList("IA"), 0);
    EXPECT_EQ(KOLT_IsAllFindTagList("AIB"), -1);
}

// --- reply parsing ------------------------------------------------------

TEST(EmvParse, AccountNumberDropsThePad) {
    parse("70 06 5A 04 12 34 56 7F");
    EXPECT_EQ(slot_string(emv::kPan), "1234567");
    EXPECT_EQ(emv::tagListValue[emv::kPan][0], 7);
    EXPECT_STREQ(emv::gFindedTagList, "A");
}

TEST(EmvParse, HexTextTagsAndRawTags) {
    parse("70 20 57 04 62 25 D2 51  5F 24 03 25 12 31  5F 34 01 01  9F 62 01 00  5F 20 04 41 42 43 20  9F 36 02 00 1C");
    EXPECT_EQ(slot_string(emv::kTrack2), "6225D251");
    EXPECT_EQ(slot_string(emv::kExpiry), "251231");
    EXPECT_EQ(slot_string(emv::kPanSequence), "01");
    EXPECT_EQ(slot_string(emv::kIdType), "00");
    EXPECT_EQ(slot_string(emv::kCardholderName), "ABC ");
    EXPECT_EQ(slot_hex(emv::kAtc), "001C");
    EXPECT_STREQ(emv::gFindedTagList, "EIJCBX");
}

TEST(EmvParse, NestedAtAnyDepthAndLaterOccurrencesOverwrite) {
    // 6F { A5 { BF0C { 9F4D } } } and an ATC twice at different depths.
    parse("6F 14 A5 0D BF 0C 0A 61 08 9F 36 02 00 01 9F 4D 00 9F 36 02 00 02");
    EXPECT_EQ(slot_hex(emv::kAtc), "0002");
    EXPECT_STREQ(emv::gFindedTagList, "XX");

    std::string deep = "9F 36 02 AB CD";
    for (int i = 0; i < 100; ++i) {
        const auto inner = from_hex(deep);
        char head[8];
        std::snprintf(head, sizeof head, "70 %02X ", static_cast<unsigned>(inner.size()));
        deep = head + to_hex(inner);
        if (inner.size() > 120) break;
    }
    emv::clear_working_state();
    parse(deep);
    EXPECT_EQ(slot_hex(emv::kAtc), "ABCD");
}

TEST(EmvParse, VeryDeepNestingDoesNotExhaustTheStack) {
    // 2000 levels of 70 templates with two-byte lengths around one ATC.
    std::vector<uint8_t> buf = from_hex("9F 36 02 12 34");
    for (int i = 0; i < 2000; ++i) {
        const size_t n = buf.size();
        std::vector<uint8_t> outer = {0x70, 0x82, static_cast<uint8_t>(n >> 8), static_cast<uint8_t>(n)};
        outer.insert(outer.end(), buf.begin(), buf.end());
        buf.swap(outer);
    }
    KOLT_T41_ParseTagValue(buf.data(), static_cast<int32_t>(buf.size()), 1);
    EXPECT_EQ(slot_hex(emv::kAtc), "1234");
}

TEST(EmvParse, BadTlvYieldsNothing) {
    parse("70 08 5A 04 12 34");  // runs past the end
    EXPECT_EQ(emv::tagListValue[emv::kPan][0], 0);
    EXPECT_STREQ(emv::gFindedTagList, "");
    parse("");
    EXPECT_EQ(KOLT_T41_ParseTagValue(nullptr, 4, 1), 0);
}

TEST(EmvParse, StrictFlagDecidesAboutTrailingGarbage) {
    parse("5A 02 12 34 80", 1);
    EXPECT_EQ(emv::tagListValue[emv::kPan][0], 0);
    parse("5A 02 12 34 80", 0);
    EXPECT_EQ(slot_string(emv::kPan), "1234");
}

TEST(EmvParse, LongHexValueKeepsTheLowSevenBitsOfItsLength) {
    // A 57 of 130 bytes: the held length is (130 & 0x7F) * 2 = 4 digits.
    std::vector<uint8_t> buf = {0x57, 0x81, 130};
    for (int i = 0; i < 130; ++i) buf.push_back(static_cast<uint8_t>(0x11 * (i % 9 + 1)));
    KOLT_T41_ParseTagValue(buf.data(), static_cast<int32_t>(buf.size()), 1);
    EXPECT_EQ(slot_string(emv::kTrack2), "1122");
    EXPECT_STREQ(emv::gFindedTagList, "E");
}

TEST(EmvParse, LongRawValueIsCutToTheSlot) {
    std::vector<uint8_t> buf = {0x9F, 0x4E, 0x82, 0x01, 0x2C};
    buf.resize(buf.size() + 300, 0x41);
    KOLT_T41_ParseTagValue(buf.data(), static_cast<int32_t>(buf.size()), 1);
    EXPECT_EQ(emv::tagListValue[emv::kMerchant][0], 255);
    EXPECT_EQ(emv::slot_value(emv::kMerchant).size(), 255u);
}

TEST(EmvParse, FoundLettersNeverOverflow) {
    // 40 items: A and X alternately, then one B.
    std::string hex;
    for (int i = 0; i < 20; ++i) hex += "5A 01 12 9F 36 02 00 01 ";
    hex += "5F 20 01 41";
    parse(hex, 1);
    const std::string found = emv::gFindedTagList;
    EXPECT_LE(found.size(), 31u);
    EXPECT_EQ(emv::gFindedTagList[31], '\0');
    EXPECT_NE(found.find('A'), std::string::npos);
    EXPECT_NE(found.find('X'), std::string::npos);
    EXPECT_NE(found.find('B'), std::string::npos);
    EXPECT_EQ(KOLT_IsAllFindTagList("AXB"), 0);
}

// --- single-tag search --------------------------------------------------

TEST(EmvSearch, TopLevelMatchReturnsItsLength) {
    const auto buf = from_hex("9F 36 02 00 1C");
    uint8_t out[256] = {};
    int32_t len = -1;
    EXPECT_EQ(KOLT_T41_GetTagValue(buf.data(), 5, "\x9F\x36", out, &len, 1), 2);
    EXPECT_EQ(len, 2);
    EXPECT_EQ(to_hex(out, 2), "001C");
}

TEST(EmvSearch, LengthAlreadySetReturnsMinusOne) {
    const auto buf = from_hex("9F 36 02 00 1C");
    uint8_t out[256] = {};
    int32_t len = 1;
    EXPECT_EQ(KOLT_T41_GetTagValue(buf.data(), 5, "\x9F\x36", out, &len, 1), -1);
    EXPECT_EQ(len, 1);
    EXPECT_EQ(out[0], 0);
}

TEST(EmvSearch, UndecodableBufferReturnsMinusTwo) {
    const auto buf = from_hex("9F 36 05 00 1C");
    uint8_t out[256] = {};
    int32_t len = -1;
    EXPECT_EQ(KOLT_T41_GetTagValue(buf.data(), 5, "\x9F\x36", out, &len, 1), -2);
    EXPECT_EQ(len, -1);
}

TEST(EmvSearch, NestedMatchReturnsZeroButSetsTheLength) {
    const auto buf = from_hex("77 0A 82 02 7C 00 94 04 08 01 01 00");
    uint8_t out[256] = {};
    int32_t len = -1;
    EXPECT_EQ(KOLT_T41_GetTagValue(buf.data(), static_cast<int32_t>(buf.size()), "\x94", out, &len, 0), 0);
    EXPECT_EQ(len, 4);
    EXPECT_EQ(to_hex(out, 4), "08010100");
}

TEST(EmvSearch, AbsentTagLeavesTheLengthAtMinusOne) {
    const auto buf = from_hex("70 04 5A 02 12 34");
    uint8_t out[256] = {};
    int32_t len = -1;
    EXPECT_EQ(KOLT_T41_GetTagValue(buf.data(), 6, "\x88", out, &len, 0), 0);
    EXPECT_EQ(len, -1);
}

TEST(EmvSearch, OuterMatchLaterInTheBufferOverwritesANestedOne) {
    const auto buf = from_hex("70 05 9F 36 02 00 01 9F 36 02 00 02");
    uint8_t out[256] = {};
    int32_t len = -1;
    EXPECT_EQ(KOLT_T41_GetTagValue(buf.data(), static_cast<int32_t>(buf.size()), "\x9F\x36", out, &len, 0), 2);
    EXPECT_EQ(to_hex(out, 2), "0002");
}

TEST(EmvSearch, FirstMatchInsideATemplateEndsThatTemplate) {
    // Inside the template the search ends with its first match; only an
    // outer item could overwrite it.
    const auto buf = from_hex("70 0A 9F 36 02 00 01 9F 36 02 00 02");
    uint8_t out[256] = {};
    int32_t len = -1;
    EXPECT_EQ(KOLT_T41_GetTagValue(buf.data(), static_cast<int32_t>(buf.size()), "\x9F\x36", out, &len, 0), 0);
    EXPECT_EQ(len, 2);
    EXPECT_EQ(to_hex(out, 2), "0001");
}

TEST(EmvSearch, NestedSearchesStopOnceAValueIsFound) {
    // The second template's ATC is not searched: a value is already held.
    const auto buf = from_hex("70 05 9F 36 02 00 01 71 05 9F 36 02 00 02");
    uint8_t out[256] = {};
    int32_t len = -1;
    EXPECT_EQ(KOLT_T41_GetTagValue(buf.data(), static_cast<int32_t>(buf.size()), "\x9F\x36", out, &len, 0), 0);
    EXPECT_EQ(len, 2);
    EXPECT_EQ(to_hex(out, 2), "0001");
}

TEST(EmvSearch, CppFindTag) {
    const auto buf = from_hex("6F 09 84 02 A0 00 A5 03 88 01 01");
    const uint8_t sfi[] = {0x88};
    auto v = emv::find_tag(buf, sfi, 0);
    ASSERT_TRUE(v.has_value());
    EXPECT_EQ(to_hex(v->data(), v->size()), "01");
    const uint8_t pdol[] = {0x9F, 0x38};
    EXPECT_FALSE(emv::find_tag(buf, pdol, 0).has_value());
}

TEST(EmvSearch, LongValueIsCutToTheCallersBuffer) {
    std::vector<uint8_t> buf = {0x9F, 0x4E, 0x82, 0x01, 0x2C};
    buf.resize(buf.size() + 300, 0x42);
    std::vector<uint8_t> out(300, 0);
    int32_t len = -1;
    EXPECT_EQ(KOLT_T41_GetTagValue(buf.data(), static_cast<int32_t>(buf.size()), "\x9F\x4E", out.data(), &len, 1), 256);
    EXPECT_EQ(len, 256);
    EXPECT_EQ(out[256], 0);
}

// --- track 2 ------------------------------------------------------------

TEST(EmvTrack2, SplitsAtTheFirstD) {
    parse("57 0D 62 22 02 12 34 56 78 90 12 3D 25 12 1F");
    ASSERT_EQ(slot_string(emv::kTrack2), "6222021234567890123D25121F");
    EXPECT_EQ(KOLT_T41_ICC_PareseSecondTrackData(), 0);
    EXPECT_EQ(slot_string(emv::kPan), "6222021234567890123");
    EXPECT_EQ(emv::tagListValue[emv::kPan][0], 19);
    EXPECT_EQ(slot_string(emv::kExpiry), "2512");
    EXPECT_EQ(emv::tagListValue[emv::kExpiry][0], 4);
}

TEST(EmvTrack2, NoTrackDataGivesMinusOne) {
    EXPECT_EQ(KOLT_T41_ICC_PareseSecondTrackData(), -1);
    emv::set_slot_text(emv::kTrack2, "1234567890");
    EXPECT_EQ(KOLT_T41_ICC_PareseSecondTrackData(), -1);
    EXPECT_EQ(emv::tagListValue[emv::kPan][0], 0);
}

// --- log records ----------------------------------------------------------

TEST(EmvLogRecord, FormatsTheFixedLayout) {
    std::vector<uint8_t> rec = from_hex(
        "26 11 15"              // date
        "14 30 59"              // time
        "00 00 00 01 23 45"     // amount
        "00 00 00 00 00 00"     // other amount
        "01 56"                 // country
        "01 56");               // currency
    const std::string merchant = "SHOP 1";
    rec.insert(rec.end(), merchant.begin(), merchant.end());
    rec.resize(rec.size() + 20 - merchant.size(), 0x00);
    rec.push_back(0x31);                   // type
    rec.push_back(0x01);
    rec.push_back(0x2C);                   // ATC 300
    ASSERT_EQ(rec.size(), 45u);

    char out[256];
    std::memset(out, 'x', sizeof out);
    const int32_t n = KOLT_T41_ParseOneRecord(rec.data(), out);
    const std::string expected =
        "P012000000012345Q012000000000000R0040156S006261115T00231U006143059V0040156"
        "W020SHOP 1              X0040300";
    EXPECT_EQ(n, 106);
    EXPECT_EQ(std::string(out), expected);
    EXPECT_EQ(expected.size(), 106u);
}

TEST(EmvLogRecord, LargeCounterWidensItsField) {
    std::vector<uint8_t> rec(45, 0);
    rec[43] = 0xFF;
    rec[44] = 0xFF;
    const std::string text = emv::format_log_record(rec);
    EXPECT_EQ(text.substr(text.size() - 9), "X00565535");
    // A short record reads as zeros beyond its end.
    EXPECT_EQ(emv::format_log_record(std::vector<uint8_t>(3, 0x11)).substr(0, 4), "P012");
}

// --- short tag writer -----------------------------------------------------

TEST(EmvSetTlv, OneAndTwoByteTags) {
    uint8_t out[300] = {};
    const uint8_t tag2[] = {0x9F, 0x26};
    const uint8_t ac[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    EXPECT_EQ(KOLT_SetTLV(tag2, 8, ac, out), 11);
    EXPECT_EQ(to_hex(out, 11), "9F26080102030405060708");

    const uint8_t tag1[] = {0x95};
    const uint8_t tvr[5] = {0, 0, 0, 8, 0};
    EXPECT_EQ(KOLT_SetTLV(tag1, 5, tvr, out), 7);
    EXPECT_EQ(to_hex(out, 7), "95050000000800");

    EXPECT_EQ(KOLT_SetTLV(tag1, 0, nullptr, out), 2);
    EXPECT_EQ(to_hex(out, 2), "9500");
}

TEST(EmvSetTlv, LongValuesKeepAOneByteLength) {
    std::vector<uint8_t> value(200, 0xAB);
    std::vector<uint8_t> out(300, 0);
    const uint8_t tag[] = {0x86};
    EXPECT_EQ(KOLT_SetTLV(tag, 200, value.data(), out.data()), 202);
    EXPECT_EQ(out[1], 0xC8);
    EXPECT_EQ(out[2], 0xAB);
    std::vector<uint8_t> big(256, 0);
    EXPECT_EQ(KOLT_SetTLV(tag, 256, big.data(), out.data()), -1);
    EXPECT_EQ(KOLT_SetTLV(tag, -1, big.data(), out.data()), -1);
}
