// The online transaction in the ICRT, STAR_ and IC_ wrapper conventions,
// through the simulated reader: KOLT_ICRT_GetARQC and its wrappers, then
// KOLT_ICRT_ARPCExeScript and its wrappers. Issuer authentication is
// answered by the card as these tests arrange it (the cryptogram checks
// against a simulated issuer are in online_issuer_test.cpp).
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "common/card_flow.hpp"
#include "common/online_flow.hpp"
#include "emv/state.hpp"
#include "kolt/kolt.h"
#include "kolt_sim/card.hpp"

namespace {

using kolt::sim::ProfileCard;
using kolt::test::accept_issuer;
using kolt::test::apdus_hex;
using kolt::test::generate_acs;
using kolt::test::kArqcError;
using kolt::test::refuse_second_generate_ac;
using kolt::test::kCardInitError;
using kolt::test::kPortInitError;
using kolt::test::kPortInitErrorArqc;
using kolt::test::kPowerOnError;
using kolt::test::kReadRecordError;
using kolt::test::load_card;
using kolt::test::sent;


// Transaction data, ICRT encoding: amount 100, other amount 0, currency
// 0156, date 2026-11-22, type 00, time.
const char* const kTrData = "P003100Q0010R0040156S00820261122T00200U006101530";
const std::string kCdol2Hex = "8A029F02069F03069F1A0295055F2A029A039C019F37049F21039F4E14";

// The reference card's shipped profile text with one replacement.
std::shared_ptr<ProfileCard> edited_card(const std::string& name, const std::string& from, const std::string& to) {
    std::ifstream in(ProfileCard::shipped_cards_dir() + "/" + name + ".json");
    std::stringstream text;
    text << in.rdbuf();
    std::string json = text.str();
    const auto pos = json.find(from);
    EXPECT_NE(pos, std::string::npos) << from;
    if (pos != std::string::npos) json.replace(pos, from.size(), to);
    return ProfileCard::load_json(json);
}

struct Arqc {
    int rc = 0;
    std::string field55;   // up to the 'x' fill: the output has no terminator
    std::string app_data;
};

Arqc get_arqc(int ic_type = 0, const char* tr_data = kTrData, const char* aid = "") {
    std::vector<char> f55(KOLT_FIELD55_MAX + 16, 'x');
    std::vector<char> app(KOLT_APPDATA_TEXT_MAX, 0);
    Arqc a;
    a.rc = KOLT_ICRT_GetARQC(0, 1, ic_type, tr_data, aid, f55.data(), app.data());
    // Field 55 comes without a terminator, a failure text with one.
    const auto end = std::find_if(f55.begin(), f55.end(), [](char c) { return c == 'x' || c == '\0'; });
    a.field55.assign(f55.begin(), end);
    a.app_data = app.data();
    return a;
}

struct Arpc {
    int rc = 0;
    std::string script_result;
    std::string second_ac;
};

Arpc exe_script(const std::string& arpc, const std::string& app_data, const char* tr_data = kTrData) {
    std::vector<char> result(64, 0);
    std::vector<char> tc(KOLT_FIELD55_MAX + 8, 0);
    Arpc a;
    a.rc = KOLT_ICRT_ARPCExeScript(0, 1, 0, tr_data, arpc.c_str(), app_data.c_str(), result.data(), tc.data());
    a.script_result = result.data();
    a.second_ac = tc.data();
    return a;
}

// Issuer authentication data of an approval ("00") or of response code rc,
// and a script template 72 with one application-unblock command and the
// identifier 11 22 33 44 after it.
std::string arpc_text(const std::string& rc = "3030", bool script = true) {
    std::string text = "910A" "1122334455667788" + rc;
    if (script) text += "72" "12" "86098418000004AABBCCDD" "9F180411223344";
    return text;
}



class OnlineIcrtTest : public kolt::test::SimTest {};

}  // namespace

// ---------------------------------------------------------------------------
// First call.

TEST_F(OnlineIcrtTest, ArqcGivesField55AndApplicationDataAndLeavesTheCardPowered) {
    auto card = load_card("pboc_debit");
    sim().set_contact_card(card);
    const Arqc a = get_arqc();
    EXPECT_EQ(a.rc, 0);
    // Field 55 starts with the cryptogram and its CID, and carries the
    // transaction's data packed.
    EXPECT_EQ(a.field55.substr(0, 6), "9F2608");
    EXPECT_EQ(a.field55.substr(22, 8), "9F270180");
    EXPECT_NE(a.field55.find("9F0206000000000100"), std::string::npos);
    EXPECT_NE(a.field55.find("9A03261122"), std::string::npos);
    EXPECT_NE(a.field55.find("9C0100"), std::string::npos);
    EXPECT_NE(a.field55.find("5F2A020156"), std::string::npos);
    EXPECT_NE(a.field55.find("9F1A020156"), std::string::npos);
    EXPECT_NE(a.field55.find("5A0A6299990000001234560F"), std::string::npos);
    EXPECT_NE(a.field55.find("5F340101"), std::string::npos);
    EXPECT_EQ(a.field55.substr(a.field55.size() - 12), "9F330320A100");
    EXPECT_EQ(a.app_data, kCdol2Hex + "0");
    // One GENERATE AC asking for an ARQC, with CDOL1's 52 bytes.
    const auto acs = generate_acs(*card);
    ASSERT_EQ(acs.size(), 1u);
    EXPECT_EQ(acs[0].substr(0, 10), "80AE800034");
    // The card stays powered for the second call: no power-off was sent.
    EXPECT_FALSE(sent(sim(), 0x32, 0x23));
    EXPECT_TRUE(card->powered());
    // The working state the second call continues from.
    EXPECT_EQ(kolt::emv::state().aip_afl[0], 2);
    EXPECT_EQ(kolt::emv::state().ac_format80[1], 0x80);
}

TEST_F(OnlineIcrtTest, WrapperGivesTheSameAnswer) {
    sim().set_contact_card(load_card("pboc_debit"));
    std::vector<char> f55(KOLT_FIELD55_MAX + 1, 0);
    std::vector<char> app(512, 0);
    EXPECT_EQ(ICRT_GetARQC(0, 1, 0, kTrData, "", f55.data(), app.data()), 0);
    EXPECT_EQ(std::string(app.data()), kCdol2Hex + "0");
    EXPECT_EQ(std::string(f55.data()).substr(0, 6), "9F2608");
}

TEST_F(OnlineIcrtTest, LockedApplicationGivesTenAValidField55AndLockDigitOne) {
    sim().set_contact_card(load_card("app_locked"));
    const Arqc a = get_arqc();
    EXPECT_EQ(a.rc, 10);
    EXPECT_EQ(a.field55.substr(0, 6), "9F2608");
    EXPECT_NE(a.field55.find("9F3303"), std::string::npos);
    ASSERT_FALSE(a.app_data.empty());
    EXPECT_EQ(a.app_data.back(), '1');
}

TEST_F(OnlineIcrtTest, CardWithCdol1ButNoCdol2StillGivesAnArqc) {
    auto card = edited_card("pboc_debit", "\"8D\": \"", "\"9F7C\": \"");
    sim().set_contact_card(card);
    const Arqc a = get_arqc();
    EXPECT_EQ(a.rc, 0);
    EXPECT_EQ(a.app_data, "0");  // empty CDOL2 text, lock digit 0
    EXPECT_EQ(a.field55.substr(0, 6), "9F2608");
    // The whole AFL was read looking for CDOL2.
    EXPECT_FALSE(kolt::test::reads_of_sfi(*card, 3).empty());
}

TEST_F(OnlineIcrtTest, CardWithoutCdol1GivesMinusTwentyFourWithoutText) {
    sim().set_contact_card(edited_card("pboc_debit", "\"8C\": \"", "\"9F7D\": \""));
    const Arqc a = get_arqc();
    EXPECT_EQ(a.rc, -24);
    EXPECT_EQ(a.field55, "");
    EXPECT_EQ(a.app_data, "");
}

TEST_F(OnlineIcrtTest, WalkStopsOnceBothCdolsAreFound) {
    auto card = load_card("pboc_debit");
    sim().set_contact_card(card);
    EXPECT_EQ(get_arqc().rc, 0);
    // CDOL1 and CDOL2 are in SFI 2 record 1: SFI 3 is never read.
    EXPECT_TRUE(kolt::test::reads_of_sfi(*card, 3).empty());
}

TEST_F(OnlineIcrtTest, RefusedGenerateAcGivesMinusTwentyFive) {
    auto card = load_card("pboc_debit");
    card->override_sw(0xAE, 0x6985);
    sim().set_contact_card(card);
    const Arqc a = get_arqc();
    EXPECT_EQ(a.rc, -25);
    EXPECT_EQ(a.field55, kArqcError);
    EXPECT_EQ(a.app_data, "");
}

TEST_F(OnlineIcrtTest, ReadRecordFailureGivesItsResultMinusTwentyTwo) {
    sim().set_contact_card(load_card("pboc_debit"));
    kolt::test::fail_read_record(sim(), 2);
    const Arqc a = get_arqc();
    EXPECT_EQ(a.rc, Revdata_Error - 22);
    EXPECT_EQ(a.field55, kReadRecordError);
}

TEST_F(OnlineIcrtTest, PortThatCannotBeOpened) {
    std::strcpy(gPortName, "kolt-no-such-device");
    const Arqc a = get_arqc();
    EXPECT_EQ(a.rc, -21);
    EXPECT_EQ(a.field55, kPortInitErrorArqc);
}

class OnlineSelectionFailureTest : public kolt::test::SimTest,
                                   public ::testing::WithParamInterface<kolt::test::SelectionFailure> {};

TEST_P(OnlineSelectionFailureTest, CodeAndText) {
    const kolt::test::SelectionFailure& f = GetParam();
    f.setup(sim());
    const Arqc a = get_arqc();
    if (f.init == -7) {
        EXPECT_EQ(a.rc, 10);
        return;
    }
    if (f.init == -1) {
        EXPECT_EQ(a.rc, -11);
        EXPECT_EQ(a.field55, kPowerOnError);
    } else {
        EXPECT_EQ(a.rc, f.init - 10);
        EXPECT_EQ(a.field55, kCardInitError);
    }
    // No power-off on any path of the first call.
    EXPECT_FALSE(sent(sim(), 0x32, 0x23));
}

INSTANTIATE_TEST_SUITE_P(Selection, OnlineSelectionFailureTest,
                         ::testing::ValuesIn(kolt::test::selection_failures()));

TEST(StarGetArqc, PortFailureTextWithTheConstantOne) {
    kolt::test::ScopedStdin null("/dev/null");
    std::vector<char> out(256, 0);
    EXPECT_EQ(STAR_GetARQC("a|1|b|", out.data()), 0);
    EXPECT_EQ(std::string(out.data()), kPortInitErrorArqc + "|1");
}

TEST(StarGetArqc, CallsTheCoreWithTheCallersTextAsTheAid) {
    kolt::test::TerminalSimulator sim(2);
    auto card = load_card("qpboc_contactless");
    sim->set_contactless_card(card);
    std::vector<char> out(KOLT_FIELD55_MAX + 600, 0);
    // Field 4 names the application; no transaction data reaches the card.
    EXPECT_EQ(STAR_GetARQC("COM9|2|x|F04B4F4C54010106", out.data()), 0);
    const std::string text = out.data();
    EXPECT_EQ(text.substr(0, 6), "9F2608");
    EXPECT_EQ(text.substr(text.size() - 3), "0|1");
    bool selected = false;
    for (const auto& a : apdus_hex(*card))
        if (a == "00A4040008F04B4F4C54010106") selected = true;
    EXPECT_TRUE(selected);
}

TEST_F(OnlineIcrtTest, IcGenArqcCountsFromOneAndResetsTheSlot) {
    sim().set_contact_card(load_card("pboc_debit"));
    const std::string port(gPortName);
    int32_t ic_type = 1;  // contact
    int32_t len = -1;
    std::vector<char> f55(KOLT_FIELD55_MAX + 1, 0);
    std::vector<char> app(512, 0);
    EXPECT_EQ(IC_GenARQC(port.c_str(), 7, 8, 9, &ic_type, "", kTrData, &len, f55.data(), app.data()), 0);
    EXPECT_EQ(len, static_cast<int32_t>(std::strlen(f55.data())));
    EXPECT_EQ(ic_type, 1);
    EXPECT_EQ(kolt::emv::state().slot(), -1);
}

TEST_F(OnlineIcrtTest, IcGenArqcMapsItsCodes) {
    int32_t ic_type = 1;
    int32_t len = -1;
    std::vector<char> f55(KOLT_FIELD55_MAX + 1, 0);
    std::vector<char> app(512, 0);
    // The port: -21 becomes -3.
    EXPECT_EQ(IC_GenARQC("kolt-no-such-device", 0, 0, 0, &ic_type, "", kTrData, &len, f55.data(), app.data()), -3);
    EXPECT_EQ(len, -1);
    EXPECT_EQ(kolt::emv::state().slot(), -1);
    // A locked application's 10 is not a success here.
    const std::string port(gPortName);
    sim().set_contact_card(load_card("app_locked"));
    EXPECT_EQ(IC_GenARQC(sim().port_name().c_str(), 0, 0, 0, &ic_type, "", kTrData, &len, f55.data(), app.data()),
              -99);
    (void)port;
}

// ---------------------------------------------------------------------------
// Second call.

TEST_F(OnlineIcrtTest, ApprovedTransactionRunsTheScriptAndPowersOff) {
    auto card = load_card("pboc_debit");
    accept_issuer(*card);
    sim().set_contact_card(card);
    const Arqc a = get_arqc();
    ASSERT_EQ(a.rc, 0);
    const Arpc r = exe_script(arpc_text(), a.app_data);
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.script_result, "DF31052104112233");
    // "%03d" of the text length, then the second field 55 (a TC).
    ASSERT_GE(r.second_ac.size(), 3u);
    EXPECT_EQ(std::stoi(r.second_ac.substr(0, 3)), static_cast<int>(r.second_ac.size() - 3));
    EXPECT_EQ(r.second_ac.substr(3, 6), "9F2608");
    EXPECT_EQ(r.second_ac.substr(25, 8), "9F270140");
    const auto acs = generate_acs(*card);
    ASSERT_EQ(acs.size(), 2u);
    EXPECT_EQ(acs[1].substr(0, 10), "80AE400036");  // TC with CDOL2's 54 bytes
    // EXTERNAL AUTHENTICATE with tag 91's ten bytes; the script command as
    // the host sent it; the power-off at the end.
    const auto apdus = apdus_hex(*card);
    EXPECT_NE(std::find(apdus.begin(), apdus.end(), "008200000A11223344556677883030"), apdus.end());
    EXPECT_NE(std::find(apdus.begin(), apdus.end(), "8418000004AABBCCDD"), apdus.end());
    EXPECT_TRUE(sent(sim(), 0x32, 0x23));
    EXPECT_FALSE(card->powered());
}

TEST_F(OnlineIcrtTest, DeclineAsksForAnAac) {
    auto card = load_card("pboc_debit");
    accept_issuer(*card);
    sim().set_contact_card(card);
    const Arqc a = get_arqc();
    const Arpc r = exe_script(arpc_text("3035", false), a.app_data);
    EXPECT_EQ(r.rc, 0);
    const auto acs = generate_acs(*card);
    ASSERT_EQ(acs.size(), 2u);
    EXPECT_EQ(acs[1].substr(0, 6), "80AE00");
    EXPECT_EQ(r.second_ac.substr(25, 8), "9F270100");
}

TEST_F(OnlineIcrtTest, ResponseCodeTenAlsoAsksForATc) {
    auto card = load_card("pboc_debit");
    accept_issuer(*card);
    sim().set_contact_card(card);
    const Arqc a = get_arqc();
    EXPECT_EQ(exe_script(arpc_text("3130", false), a.app_data).rc, 0);
    EXPECT_EQ(generate_acs(*card).at(1).substr(0, 6), "80AE40");
}

TEST_F(OnlineIcrtTest, NoScriptGivesStateOneAndIndexZero) {
    auto card = load_card("pboc_debit");
    accept_issuer(*card);
    sim().set_contact_card(card);
    const Arqc a = get_arqc();
    const Arpc r = exe_script(arpc_text("3030", false), a.app_data);
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.script_result, "DF31051000000000");
}

TEST_F(OnlineIcrtTest, ExternalAuthenticationFailureAloneStillCompletes) {
    auto card = load_card("pboc_debit");
    card->override_sw(0x82, 0x6300);
    const uint8_t unblock[] = {0x84, 0x18};
    card->override_sw(unblock, 0x9000);
    sim().set_contact_card(card);
    const Arqc a = get_arqc();
    const Arpc r = exe_script(arpc_text(), a.app_data);
    EXPECT_EQ(r.rc, -26);
    EXPECT_EQ(r.script_result, "DF31052104112233");
    EXPECT_EQ(r.second_ac.substr(3, 6), "9F2608");
}

TEST_F(OnlineIcrtTest, SecondCryptogramRefusedSkipsTheScript) {
    auto card = load_card("pboc_debit");
    accept_issuer(*card);
    refuse_second_generate_ac(*card);
    sim().set_contact_card(card);
    const Arqc a = get_arqc();
    ASSERT_EQ(a.rc, 0);
    const Arpc r = exe_script(arpc_text(), a.app_data);
    EXPECT_EQ(r.rc, -27);
    EXPECT_EQ(r.script_result, "DF31050004112233");
    EXPECT_EQ(r.second_ac, "");
    for (const auto& apdu : apdus_hex(*card)) EXPECT_NE(apdu.substr(0, 4), "8418");
    EXPECT_TRUE(sent(sim(), 0x32, 0x23));
}

TEST_F(OnlineIcrtTest, LockedApplicationStillGetsItsScriptWhenTheSecondCryptogramFails) {
    auto card = load_card("app_locked");
    accept_issuer(*card);
    refuse_second_generate_ac(*card);
    sim().set_contact_card(card);
    const Arqc a = get_arqc();
    ASSERT_EQ(a.rc, 10);
    const Arpc r = exe_script(arpc_text(), a.app_data);
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.script_result, "DF31052104112233");
    EXPECT_EQ(r.second_ac, "");
}

TEST_F(OnlineIcrtTest, GetDataFailureGivesMinusTwentyEight) {
    auto card = load_card("pboc_debit");
    accept_issuer(*card);
    const uint8_t atc[] = {0x80, 0xCA, 0x9F, 0x13};
    card->override_sw(atc, 0x6A88);
    sim().set_contact_card(card);
    const Arqc a = get_arqc();
    const Arpc r = exe_script(arpc_text(), a.app_data);
    EXPECT_EQ(r.rc, -28);
    EXPECT_EQ(r.script_result, "DF31050004112233");
    EXPECT_EQ(r.second_ac.substr(3, 6), "9F2608");
}

TEST_F(OnlineIcrtTest, FailingScriptCommandGivesMinusTwentyNine) {
    auto card = load_card("pboc_debit");
    kolt::test::accept_external_authenticate(*card);
    const uint8_t unblock[] = {0x84, 0x18};
    card->override_sw(unblock, 0x6988);
    sim().set_contact_card(card);
    const Arqc a = get_arqc();
    const Arpc r = exe_script(arpc_text(), a.app_data);
    EXPECT_EQ(r.rc, -29);
    EXPECT_EQ(r.script_result, "DF31051004112233");
}

TEST_F(OnlineIcrtTest, PortFailureOfTheSecondCall) {
    std::strcpy(gPortName, "kolt-no-such-device");
    const Arpc r = exe_script(arpc_text(), kCdol2Hex + "0");
    EXPECT_EQ(r.rc, -21);
    EXPECT_EQ(r.script_result, kPortInitError);
    EXPECT_EQ(r.second_ac, "");
}

TEST_F(OnlineIcrtTest, IcCtlScriptDataMapsItsCodes) {
    auto card = load_card("pboc_debit");
    accept_issuer(*card);
    sim().set_contact_card(card);
    const Arqc a = get_arqc();
    int32_t ic_type = 1;
    int32_t len = -1;
    std::vector<char> tc(KOLT_FIELD55_MAX + 8, 0);
    std::vector<char> result(64, 0);
    const std::string arpc = arpc_text();
    EXPECT_EQ(IC_CtlScriptData(gPortName, 0, 0, 0, &ic_type, kTrData, arpc.c_str(), &len, tc.data(), result.data(),
                               a.app_data.c_str()),
              0);
    EXPECT_EQ(len, static_cast<int32_t>(std::strlen(tc.data())));
    EXPECT_EQ(ic_type, 1);
    EXPECT_EQ(std::string(result.data()), "DF31052104112233");
    // -21 (port) becomes -3; -27 is folded into -99.
    EXPECT_EQ(IC_CtlScriptData("kolt-no-such-device", 0, 0, 0, &ic_type, kTrData, arpc.c_str(), &len, tc.data(),
                               result.data(), a.app_data.c_str()),
              -3);
}

TEST(StarArpc, UsesTheCdol2OfTheFirstCall) {
    kolt::test::TerminalSimulator sim(2);
    auto card = load_card("qpboc_contactless");
    accept_issuer(*card);
    sim->set_contactless_card(card);
    std::vector<char> out(KOLT_FIELD55_MAX + 600, 0);
    ASSERT_EQ(STAR_GetARQC("COM9|2|x|", out.data()), 0);
    // The STAR_ call reads the raw CDOL2 buffer as its application data
    // text: its last byte is taken as the lock digit and the rest is not
    // hex, so the card refuses the second GENERATE AC.
    const std::string input = "COM9|2|x|" + arpc_text() + "|y";
    std::fill(out.begin(), out.end(), 0);
    EXPECT_EQ(STAR_ARPC_ExeICScrip(input.c_str(), out.data()), 0);
    const std::string text = out.data();
    EXPECT_EQ(text, "DF31050004112233|");
    EXPECT_TRUE(sim->terminal_errors().empty());
}

TEST(StarArpc, PortFailure) {
    kolt::test::ScopedStdin null("/dev/null");
    std::vector<char> out(256, 0);
    EXPECT_EQ(STAR_ARPC_ExeICScrip("a|1|b|910A11223344556677883030|c", out.data()), 0);
    EXPECT_EQ(std::string(out.data()), kPortInitError + "|");
}

TEST_F(OnlineIcrtTest, NullArgumentsDoNotCrash) {
    sim().set_contact_card(load_card("pboc_debit"));
    EXPECT_EQ(KOLT_ICRT_GetARQC(0, 1, 0, nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_LE(KOLT_ICRT_ARPCExeScript(0, 1, 0, nullptr, nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(STAR_GetARQC(nullptr, nullptr), 0);
    EXPECT_EQ(KOLT_ParaseTrData(nullptr), 0);
    EXPECT_EQ(ParaDeal("P003100", nullptr), -1);
    EXPECT_EQ(KOLT_Get55Data(nullptr, 0, nullptr, nullptr, nullptr), -1);
}

TEST_F(OnlineIcrtTest, TraceLinesOfBothCalls) {
    auto card = load_card("pboc_debit");
    accept_issuer(*card);
    sim().set_contact_card(card);
    kolt::test::DebugLogCapture debug;
    const Arqc a = get_arqc();
    ASSERT_EQ(a.rc, 0);
    exe_script(arpc_text(), a.app_data);
    const std::string trace = debug.text();
    for (const std::string& line : std::vector<std::string>{
             "] KOLT_ICRT_GetARQC begin......\n", "] KOLT_ICRT_GetARQC ICtype = 0\n",
          // The 9F02 line carries the name of 9F1A; P is letter 15.
          "] KOLT_Get55Data  9F1A nIndex=15\n", "] KOLT_ICRT_GetARQC ARQC tagValueLen =", "] KOLT_ICRT_GetARQC trAppData =" + kCdol2Hex + "0\n",
          "] KOLT_ICRT_ARPCExeScript begin......\n", "] KOLT_ICRT_ARPCExeScript CDOL2=" + kCdol2Hex + "\n",
          "] KOLT_ICRT_ARPCExeScript cardLockedState=0\n", "] KOLT_ARPC_GetScritp 72 scriptLen=18\n",
          "] KOLT_ICRT_ARPCExeScript ACType =64\n", "] KOLT_ICRT_ARPCExeScript scriptIndex =1\n",
          "] KOLT_ICRT_ARPCExeScript ScriptResult =DF31052104112233\n",
          "] KOLT_ICRT_ARPCExeScript KOLT_T41_ICC_Poweroff flag=0\n"}) {
        EXPECT_NE(trace.find(line), std::string::npos) << line;
    }
    // The trAppData line is written twice.
    const std::string app_line = "] KOLT_ICRT_GetARQC trAppData =";
    const auto first = trace.find(app_line);
    ASSERT_NE(first, std::string::npos);
    EXPECT_NE(trace.find(app_line, first + 1), std::string::npos);
}
