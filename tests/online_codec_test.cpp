// The pieces of the online transaction that need no card: the transaction
// data in both encodings, ParaDeal, field 55, the issuer script choice and
// the script result text.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "common/test_util.hpp"
#include "emv/field55.hpp"
#include "emv/issuer_data.hpp"
#include "emv/state.hpp"
#include "emv/tags.hpp"
#include "emv/tr_data.hpp"
#include "kolt/kolt.h"

using kolt::test::from_hex;
using kolt::test::to_hex;
namespace emv = kolt::emv;

namespace {

std::string slot(int index) { return std::string(emv::slot_text(index)); }

const uint8_t kUn[4] = {0xA1, 0xB2, 0xC3, 0xD4};

// A format-1 GENERATE AC value: CID 80, ATC 001C, AC 1122334455667788,
// issuer application data 07010103A0A000.
const std::string kAcValue = "80" "001C" "1122334455667788" "07010103A0A000";

std::string get55(const std::string& ac_hex) {
    const auto ac = from_hex(ac_hex);
    std::vector<char> out(KOLT_FIELD55_MAX + 1, 'x');
    const int32_t n = KOLT_Get55Data(ac.data(), static_cast<int32_t>(ac.size()), nullptr, kUn, out.data());
    EXPECT_EQ(n, static_cast<int32_t>(std::strlen(out.data())));
    return out.data();
}

// An IC-encoded field: letter, binary length, value.
std::string ic(char letter, const std::string& value) {
    return std::string(1, letter) + static_cast<char>(value.size()) + value;
}

}  // namespace

// ---------------------------------------------------------------------------
// ICRT encoding.

TEST(TrDataIcrt, AmountIsStoredAsTwelveDigitsAndPackedIntoField55) {
    EXPECT_EQ(KOLT_ParaseTrData_PSBC("P003100"), 0);
    EXPECT_EQ(slot(emv::kAmount), "000000000100");
    EXPECT_NE(get55(kAcValue).find("9F0206000000000100"), std::string::npos);
}

TEST(TrDataIcrt, AmountOtherAndCurrency) {
    EXPECT_EQ(KOLT_ParaseTrData_PSBC("Q0017R003156"), 0);
    EXPECT_EQ(slot(emv::kAmountOther), "000000000007");
    EXPECT_EQ(slot(emv::kCurrency), "0156");
    // The country code follows the currency when the caller gave none.
    EXPECT_EQ(slot(emv::kCountry), "0156");
}

TEST(TrDataIcrt, CurrencyLeavesACountryAlreadyHeld) {
    emv::set_slot_text(emv::kCountry, "0344");
    EXPECT_EQ(KOLT_ParaseTrData_PSBC("R003840"), 0);
    EXPECT_EQ(slot(emv::kCurrency), "0840");
    EXPECT_EQ(slot(emv::kCountry), "0344");
}

TEST(TrDataIcrt, LettersAreRenamedBeforeLookup) {
    // J and V name the merchant (W), K the unpredictable number (2), L the
    // terminal verification results (1).
    EXPECT_EQ(KOLT_ParaseTrData_PSBC("J004SHOPK0041234L00500000"), 0);
    EXPECT_EQ(slot(emv::kMerchant), "SHOP");
    EXPECT_EQ(slot(emv::kUnpredictable), "1234");
    EXPECT_EQ(slot(emv::kTvr), "00000");
    EXPECT_EQ(slot(emv::kPanSequence), "");
    EXPECT_EQ(KOLT_ParaseTrData_PSBC("V004BANK"), 0);
    EXPECT_EQ(slot(emv::kMerchant), "BANK");
    EXPECT_EQ(slot(emv::kCountry), "");
}

TEST(TrDataIcrt, OtherLettersAreStoredAsTheyStand) {
    EXPECT_EQ(KOLT_ParaseTrData_PSBC("S00820240131T00200U006101530"), 0);
    EXPECT_EQ(slot(emv::kDate), "20240131");
    EXPECT_EQ(slot(emv::kTxType), "00");
    EXPECT_EQ(slot(emv::kTime), "101530");
}

TEST(TrDataIcrt, UnknownLetterStopsWithMinusTwoAndKeepsEarlierFields) {
    EXPECT_EQ(KOLT_ParaseTrData_PSBC("T00231#002xxS006240131"), -2);
    EXPECT_EQ(slot(emv::kTxType), "31");
    EXPECT_EQ(slot(emv::kDate), "");
}

TEST(TrDataIcrt, AtMostOneHundredFieldsAreParsed) {
    std::string text;
    for (int i = 0; i < 100; ++i) text += "T00201";
    text += "T00299";
    EXPECT_EQ(KOLT_ParaseTrData_PSBC(text.c_str()), 0);
    EXPECT_EQ(slot(emv::kTxType), "01");
}

TEST(TrDataIcrt, ValueCutShortByTheEndOfTheTextIsTakenAsFarAsItGoes) {
    EXPECT_EQ(KOLT_ParaseTrData_PSBC("W010ABC"), 0);
    EXPECT_EQ(slot(emv::kMerchant), "ABC");
    EXPECT_EQ(KOLT_ParaseTrData_PSBC("W0"), 0);  // no whole head: nothing
    EXPECT_EQ(KOLT_ParaseTrData_PSBC(nullptr), 0);
}

TEST(TrDataIcrt, LongValueIsCutToTheSlot) {
    const std::string text = "W300" + std::string(300, 'M');
    EXPECT_EQ(KOLT_ParaseTrData_PSBC(text.c_str()), 0);
    EXPECT_EQ(slot(emv::kMerchant), std::string(255, 'M'));
}

// ---------------------------------------------------------------------------
// IC encoding.

TEST(TrDataIc, BinaryLengthsAndOnlyVRenamed) {
    const std::string block = ic('P', "100") + ic('J', "01") + ic('V', "SHOP") + ic('S', "240131");
    EXPECT_EQ(KOLT_ParaseTrData(block.c_str()), 0);
    EXPECT_EQ(slot(emv::kAmount), "000000000100");
    EXPECT_EQ(slot(emv::kPanSequence), "01");
    EXPECT_EQ(slot(emv::kMerchant), "SHOP");
    EXPECT_EQ(slot(emv::kDate), "240131");
}

TEST(TrDataIc, ValuesMayHoldZeroBytes) {
    // A CDOL (raw bytes) with a zero inside, as the application data block
    // carries it.
    const std::string cdol("\x9F\x02\x06\x00\x01", 5);
    std::string block = ic('3', cdol) + ic('A', "123");
    block.push_back('\0');
    EXPECT_EQ(KOLT_ParaseTrData(block.c_str()), 0);
    EXPECT_EQ(slot(emv::kCdol1), cdol);
    EXPECT_EQ(slot(emv::kPan), "123");
    EXPECT_EQ(emv::ic_block_extent(reinterpret_cast<const uint8_t*>(block.data())), block.size() - 1);
}

TEST(TrDataIc, UnknownLetterGivesMinusTwo) {
    const std::string block = ic('T', "31") + ic('#', "x") + ic('S', "240131");
    EXPECT_EQ(KOLT_ParaseTrData(block.c_str()), -2);
    EXPECT_EQ(slot(emv::kTxType), "31");
    EXPECT_EQ(slot(emv::kDate), "");
}

TEST(TrDataIc, EncodeIsTheInverseOfParse) {
    emv::set_slot_text(emv::kPan, "6299990000001234560");
    emv::set_slot_text(emv::kAip, "7C00");
    const std::string block = emv::encode_ic("AJZ34Y");
    EXPECT_EQ(block, ic('A', "6299990000001234560") + ic('Z', "7C00"));
    emv::clear_working_state();
    EXPECT_EQ(KOLT_ParaseTrData(block.c_str()), 0);
    EXPECT_EQ(slot(emv::kPan), "6299990000001234560");
    EXPECT_EQ(slot(emv::kAip), "7C00");
}

// ---------------------------------------------------------------------------
// ParaDeal.

TEST(ParaDeal, NormalisesAmountsAndCurrencyWithBlanks) {
    char out[256] = "head:";
    EXPECT_EQ(ParaDeal("P003100R0011A003abcZ0027C", out), 0);
    EXPECT_STREQ(out, "head:P012         100R004   1A003abcZ0027C");
}

TEST(ParaDeal, LongerValuesAreNotCut) {
    char out[256] = "";
    EXPECT_EQ(ParaDeal("Q0131234567890123", out), 0);
    EXPECT_STREQ(out, "Q0121234567890123");
}

TEST(ParaDeal, StopsAtTheEndOfTheText) {
    char out[64] = "";
    EXPECT_EQ(ParaDeal("T00231T0", out), 0);
    EXPECT_STREQ(out, "T00231");
    EXPECT_EQ(ParaDeal("T010ab", out), 0);
    EXPECT_STREQ(out, "T00231T010ab");
}

// ---------------------------------------------------------------------------
// Field 55.

TEST(Field55, OrderAndPackingOfEveryTag) {
    emv::set_slot(emv::kTvr, std::vector<uint8_t>{0x00, 0x00, 0x00, 0x08, 0x00});
    emv::set_slot_text(emv::kLastOnlineAtc, "0019");
    emv::set_slot_text(emv::kDate, "20240131");
    emv::set_slot_text(emv::kTxType, "31");
    emv::set_slot_text(emv::kAmount, "000000000100");
    emv::set_slot_text(emv::kCurrency, "0156");
    emv::set_slot_text(emv::kPan, "6299990000001234560");
    emv::set_slot_text(emv::kPanSequence, "01");
    emv::set_slot_text(emv::kAip, "7C00");
    emv::set_slot_text(emv::kCountry, "0156");
    emv::set_slot_text(emv::kAmountOther, "000000000000");
    EXPECT_EQ(get55(kAcValue),
              "9F2608" "1122334455667788"
              "9F2701" "80"
              "9F1007" "07010103A0A000"
              "9F3704" "A1B2C3D4"
              "9F3602" "001C"
              "9505" "0000000800"
              "9F1302" "0019"
              "9A03" "240131"
              "9C01" "31"
              "9F0206" "000000000100"
              "5F2A02" "0156"
              "5A0A" "6299990000001234560F"
              "5F3401" "01"
              "8202" "7C00"
              "9F1A02" "0156"
              "9F0306" "000000000000"
              "9F3303" "20A100");
}

TEST(Field55, DateWithOrWithoutCenturyGivesTheSameThreeBytes) {
    emv::set_slot_text(emv::kDate, "20240131");
    const std::string with_century = get55(kAcValue);
    emv::set_slot_text(emv::kDate, "240131");
    const std::string without = get55(kAcValue);
    EXPECT_NE(with_century.find("9A03240131"), std::string::npos);
    EXPECT_EQ(with_century, without);
}

TEST(Field55, TransactionTypeOfOneCharacterOrNoneIsGoods) {
    EXPECT_NE(get55(kAcValue).find("9C0101"), std::string::npos);
    emv::set_slot_text(emv::kTxType, "3");
    EXPECT_NE(get55(kAcValue).find("9C0101"), std::string::npos);
    emv::set_slot_text(emv::kTxType, "00");
    EXPECT_NE(get55(kAcValue).find("9C0100"), std::string::npos);
}

TEST(Field55, NineteenDigitAccountNumberIsPaddedToTenBytes) {
    emv::set_slot_text(emv::kPan, "6299990000001234567");
    EXPECT_NE(get55(kAcValue).find("5A0A6299990000001234567F"), std::string::npos);
    emv::set_slot_text(emv::kPan, "6299990000001234");
    EXPECT_NE(get55(kAcValue).find("5A086299990000001234"), std::string::npos);
}

TEST(Field55, TvrIsTakenAsStoredWithoutPacking) {
    emv::set_slot_text(emv::kTvr, "00000");  // a caller's L field, as text
    EXPECT_NE(get55(kAcValue).find("95053030303030"), std::string::npos);
}

TEST(Field55, ShortAcAnswerReadsAsZerosAndEmptySlotsGiveEmptyOrZeroValues) {
    const std::string f = get55("40");
    EXPECT_EQ(f.substr(0, 36), "9F26080000000000000000" "9F270140" "9F1000");
    // Fixed lengths stay fixed when their slots are empty.
    EXPECT_NE(f.find("9F13020000"), std::string::npos);
    EXPECT_NE(f.find("5F340100"), std::string::npos);
    EXPECT_NE(f.find("82020000"), std::string::npos);
    EXPECT_NE(f.find("9F1A020000"), std::string::npos);
    EXPECT_NE(f.find("5A00"), std::string::npos);
}

TEST(Field55, LengthOfTheLongestFieldFitsTheDocumentedRoom) {
    for (int i = 0; i < emv::kTagCount; ++i) emv::set_slot_text(i, std::string(255, '9'));
    const std::vector<uint8_t> ac(253, 0x11);
    const std::array<uint8_t, 4> un{};
    const std::string text = emv::field55_text(ac, un);
    EXPECT_LE(text.size(), static_cast<size_t>(KOLT_FIELD55_MAX));
    EXPECT_LE(text.size(), emv::kField55TextMax);
}

// ---------------------------------------------------------------------------
// The issuer's answer.

TEST(ArpcScript, Template71WithItsIdentifier) {
    const auto data = from_hex("910A1122334455667788303071" "12" "9F180400000001" "86098418000004AABBCCDD");
    uint8_t script[64] = {};
    int32_t len = 0;
    uint8_t id[5] = {};
    EXPECT_EQ(KOLT_ARPC_GetScritp(data.data(), static_cast<int32_t>(data.size()), script, &len, id), 0x71);
    EXPECT_EQ(to_hex(script, static_cast<size_t>(len)), "9F18040000000186098418000004AABBCCDD");
    EXPECT_EQ(to_hex(id, 5), "0400000001");
}

TEST(ArpcScript, Template72WhenThereIsNo71) {
    const auto data = from_hex("910A11223344556677883030" "720F" "86098418000004AABBCCDD" "9F1801" "07");
    uint8_t script[64] = {};
    int32_t len = 0;
    uint8_t id[5] = {};
    EXPECT_EQ(KOLT_ARPC_GetScritp(data.data(), static_cast<int32_t>(data.size()), script, &len, id), 0x72);
    EXPECT_EQ(len, 15);
    // A short identifier fills what it has.
    EXPECT_EQ(to_hex(id, 5), "0407000000");
}

TEST(ArpcScript, OnlyTheFirstScriptIsUsed) {
    const auto data = from_hex("72" "06" "860400000000" "71" "06" "860411111111");
    const emv::ScriptPick pick = emv::pick_script(data);
    EXPECT_EQ(pick.kind, 0x71);
    EXPECT_EQ(to_hex(pick.script.data(), pick.script.size()), "860411111111");
}

TEST(ArpcScript, NoScriptGivesMinusOne) {
    const auto data = from_hex("910A11223344556677883030");
    uint8_t script[8] = {};
    int32_t len = 5;
    uint8_t id[5] = {9, 9, 9, 9, 9};
    EXPECT_EQ(KOLT_ARPC_GetScritp(data.data(), static_cast<int32_t>(data.size()), script, &len, id), -1);
    EXPECT_EQ(len, -1);
    EXPECT_EQ(KOLT_ARPC_GetScritp(nullptr, 0, script, &len, id), -1);
}

TEST(ScriptResult, ThreeStatesAndTheIdentifierBytes) {
    const emv::ScriptId id{4, 0x12, 0x34, 0x56, 0x78};
    EXPECT_EQ(emv::script_result_text(emv::ScriptState::none, 3, id), "DF31050004123456");
    EXPECT_EQ(emv::script_result_text(emv::ScriptState::started, 1, id), "DF31051104123456");
    EXPECT_EQ(emv::script_result_text(emv::ScriptState::executed, 2, id), "DF31052204123456");
    EXPECT_EQ(emv::script_result_text(emv::ScriptState::started, 0, emv::ScriptId{}), "DF31051000000000");
}

TEST(ResponseCode, ApprovedCodesAskForTcOthersForAac) {
    const auto approved = from_hex("11223344556677883030");
    EXPECT_EQ(emv::response_code(approved), "00");
    EXPECT_EQ(emv::second_ac_type("00"), emv::kAcTypeTc);
    EXPECT_EQ(emv::second_ac_type("10"), emv::kAcTypeTc);
    EXPECT_EQ(emv::second_ac_type("05"), emv::kAcTypeAac);
    EXPECT_EQ(emv::second_ac_type(""), emv::kAcTypeAac);
    EXPECT_EQ(emv::response_code(from_hex("1122334455667788")), "");
}
