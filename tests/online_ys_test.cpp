// The online transaction in the IC_ convention's cores, on a link the
// caller opened, through the simulated reader: the application data block
// of IC_GetInfo_YS through IC_GenARQC_YS and IC_ARPC_ExeICScript.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "common/card_flow.hpp"
#include "common/online_flow.hpp"
#include "emv/tr_data.hpp"
#include "kolt/kolt.h"
#include "kolt_sim/card.hpp"

namespace {

constexpr auto ic = kolt::test::ic_field;
using kolt::sim::ProfileCard;
using kolt::test::accept_issuer;
using kolt::test::apdus_hex;
using kolt::test::generate_acs;
using kolt::test::kArqcError;
using kolt::test::refuse_second_generate_ac;
using kolt::test::load_card;
using kolt::test::sent;



// Amount 100, currency 0156, date, type 00; zero after it.
const std::string kTrBlock = ic('P', "100") + ic('R', "156") + ic('S', "20261122") + ic('T', "00");

// The application data block of IC_GetInfo_YS for letters AJ, in a zeroed
// buffer of the documented size.
std::vector<char> card_info_block() {
    std::vector<char> out(4096, 0);
    std::vector<char> app(KOLT_APPDATA_MAX, 0);
    int32_t kind = 0;
    // The YS core takes the IC type as the library codes it (0 contact).
    EXPECT_EQ(IC_GetInfo_YS(0, "AJ", "", out.data(), &kind, app.data()), 0);
    return app;
}

// The letters of an IC-encoded block, in order.
std::string letters_of(const std::vector<char>& block) {
    std::string letters;
    for (const auto& f : kolt::emv::split_ic(
             std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(block.data()), block.size())))
        letters += f.letter;
    return letters;
}

struct Arqc {
    int rc = 0;
    std::string arqc;
    int32_t kind = 0;
};

Arqc gen_arqc(std::vector<char>& app, const std::string& tr = kTrBlock) {
    std::vector<char> out(KOLT_FIELD55_MAX + 8, 0);
    Arqc a;
    a.rc = IC_GenARQC_YS(1, tr.c_str(), "", out.data(), 0, &a.kind, app.data());
    a.arqc = out.data();
    return a;
}

struct Arpc {
    int rc = 0;
    std::string tc;
    std::string result;
};

Arpc exe(const std::vector<char>& app, const std::string& arpc, int force_aac = 0) {
    std::vector<char> tc(KOLT_FIELD55_MAX + 8, 0);
    std::vector<char> result(64, 0);
    Arpc r;
    r.rc = IC_ARPC_ExeICScript(1, kTrBlock.c_str(), arpc.c_str(), force_aac, tc.data(), result.data(), app.data());
    r.tc = tc.data();
    r.result = result.data();
    return r;
}

const std::string kArpc = "910A" "1122334455667788" "3030" "72" "12" "86098418000004AABBCCDD" "9F180411223344";



class OnlineYsTest : public kolt::test::SimTest {
protected:
    void SetUp() override {
        SimTest::SetUp();
        ASSERT_EQ(IC_initCom(0, 0), 0);
    }
    void TearDown() override {
        IC_CloseCom(0, 0);
        SimTest::TearDown();
    }
};

}  // namespace

TEST_F(OnlineYsTest, ApplicationDataBlockRoundTrip) {
    auto card = load_card("pboc_debit");
    accept_issuer(*card);
    sim().set_contact_card(card);
    std::vector<char> app = card_info_block();
    EXPECT_EQ(letters_of(app), "AJZ34Y");

    const Arqc a = gen_arqc(app);
    ASSERT_EQ(a.rc, 0);
    EXPECT_EQ(a.kind, 1);
    // The length goes first as the hex of its three decimal characters.
    ASSERT_GT(a.arqc.size(), 6u);
    char digits[8];
    std::snprintf(digits, sizeof digits, "%03d", static_cast<int>((a.arqc.size() - 6) / 2));
    char head[8];
    std::snprintf(head, sizeof head, "%02X%02X%02X", digits[0], digits[1], digits[2]);
    EXPECT_EQ(a.arqc.substr(0, 6), head);
    EXPECT_EQ(a.arqc.substr(6, 6), "9F2608");
    EXPECT_NE(a.arqc.find("5A0A6299990000001234560F"), std::string::npos);
    EXPECT_NE(a.arqc.find("9F0206000000000100"), std::string::npos);
    // The last online ATC read with GET DATA goes into field 55.
    EXPECT_NE(a.arqc.find("9F13020019"), std::string::npos);
    // The block comes back without the AFL position.
    EXPECT_EQ(letters_of(app), "AJZ34");
    EXPECT_TRUE(card->powered());

    const Arpc r = exe(app, kArpc);
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.result, "DF31052104112233");
    EXPECT_EQ(r.tc.substr(3, 6), "9F2608");
    EXPECT_NE(r.tc.find("9F270140"), std::string::npos);
    const auto acs = generate_acs(*card);
    ASSERT_EQ(acs.size(), 2u);
    EXPECT_EQ(acs[1].substr(0, 6), "80AE40");
    EXPECT_FALSE(card->powered());
}

TEST_F(OnlineYsTest, NonZeroStatusForcesAnAac) {
    auto card = load_card("pboc_debit");
    accept_issuer(*card);
    sim().set_contact_card(card);
    std::vector<char> app = card_info_block();
    ASSERT_EQ(gen_arqc(app).rc, 0);
    const Arpc r = exe(app, kArpc, 1);
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(generate_acs(*card).at(1).substr(0, 6), "80AE00");
}

TEST_F(OnlineYsTest, NoScriptReportsExecutedWithIndexZero) {
    auto card = load_card("pboc_debit");
    accept_issuer(*card);
    sim().set_contact_card(card);
    std::vector<char> app = card_info_block();
    ASSERT_EQ(gen_arqc(app).rc, 0);
    const Arpc r = exe(app, "910A11223344556677883030");
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.result, "DF31052000000000");
}

TEST_F(OnlineYsTest, ResponseDataWithoutTag91GivesMinusFourAndOnlyAPowerOff) {
    auto card = load_card("pboc_debit");
    sim().set_contact_card(card);
    std::vector<char> app = card_info_block();
    ASSERT_EQ(gen_arqc(app).rc, 0);
    card->clear_apdus();
    const Arpc r = exe(app, "72" "12" "86098418000004AABBCCDD" "9F180411223344");
    EXPECT_EQ(r.rc, -4);
    EXPECT_EQ(r.result, "");
    EXPECT_EQ(r.tc, "");
    EXPECT_TRUE(card->apdus().empty());
    EXPECT_FALSE(card->powered());
}

TEST_F(OnlineYsTest, ExternalAuthenticationFailureGivesMinusTwo) {
    auto card = load_card("pboc_debit");
    card->override_sw(0x82, 0x6300);
    const uint8_t unblock[] = {0x84, 0x18};
    card->override_sw(unblock, 0x9000);
    sim().set_contact_card(card);
    std::vector<char> app = card_info_block();
    ASSERT_EQ(gen_arqc(app).rc, 0);
    const Arpc r = exe(app, kArpc);
    EXPECT_EQ(r.rc, -2);
    EXPECT_EQ(r.result, "DF31052104112233");
}

TEST_F(OnlineYsTest, SecondCryptogramFailureGivesMinusTwo) {
    auto card = load_card("pboc_debit");
    accept_issuer(*card);
    refuse_second_generate_ac(*card);
    sim().set_contact_card(card);
    std::vector<char> app = card_info_block();
    ASSERT_EQ(gen_arqc(app).rc, 0);
    const Arpc r = exe(app, kArpc);
    EXPECT_EQ(r.rc, -2);
    EXPECT_EQ(r.result, "DF31050004112233");
}

TEST_F(OnlineYsTest, GetDataOrScriptFailureGivesMinusTen) {
    auto card = load_card("pboc_debit");
    kolt::test::accept_external_authenticate(*card);
    const uint8_t unblock[] = {0x84, 0x18};
    card->override_sw(unblock, 0x6988);
    sim().set_contact_card(card);
    std::vector<char> app = card_info_block();
    ASSERT_EQ(gen_arqc(app).rc, 0);
    const Arpc r = exe(app, kArpc);
    EXPECT_EQ(r.rc, -10);
    EXPECT_EQ(r.result, "DF31051004112233");
}

TEST_F(OnlineYsTest, CdolsMissingFromTheBlockAreReadFromTheRecords) {
    auto card = load_card("pboc_debit");
    sim().set_contact_card(card);
    std::vector<char> app(KOLT_APPDATA_MAX, 0);
    const std::string block = ic('A', "6299990000001234560") + ic('J', "01") + ic('Z', "7C00") + ic('Y', "0001");
    std::memcpy(app.data(), block.data(), block.size());
    const Arqc a = gen_arqc(app);
    EXPECT_EQ(a.rc, 0);
    EXPECT_EQ(letters_of(app), "AJZ34");
    EXPECT_FALSE(kolt::test::afl_reads(*card).empty());
}

TEST_F(OnlineYsTest, MissingCryptogramGivesMinusThreeWithItsText) {
    auto card = load_card("pboc_debit");
    card->override_sw(0xAE, 0x6985);
    sim().set_contact_card(card);
    std::vector<char> app = card_info_block();
    const Arqc a = gen_arqc(app);
    EXPECT_EQ(a.rc, -3);
    EXPECT_EQ(a.arqc, kArqcError);
}

TEST_F(OnlineYsTest, InitiationFailures) {
    std::vector<char> app(KOLT_APPDATA_MAX, 0);
    EXPECT_EQ(gen_arqc(app).rc, -9);  // no card in the contact slot
    sim().set_contact_card(load_card("app_locked"));
    EXPECT_EQ(gen_arqc(app).rc, -10);
    sim().set_status(0x32, 0x22, 0x10, 0x05);
    EXPECT_EQ(gen_arqc(app).rc, -1);
}
