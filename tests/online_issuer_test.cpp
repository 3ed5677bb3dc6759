// Whole online transactions through the library, the simulated reader and
// the simulated issuer host, on cards that compute real cryptograms: the
// issuer verifies the ARQC from the field 55 the library built, answers
// with its ARPC and script, and the card checks both.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "common/card_flow.hpp"
#include "common/online_flow.hpp"
#include "kolt/kolt.h"
#include "kolt_sim/card.hpp"
#include "kolt_sim/issuer.hpp"

namespace {

using kolt::sim::Issuer;
using kolt::sim::IssuerPolicy;
using kolt::sim::ProfileCard;
using kolt::sim::ScriptCommand;
using kolt::test::generate_acs;
using kolt::test::load_card;
using kolt::test::sent;

constexpr auto ic = kolt::test::ic_field;

// Amount 250.00, currency 0156, the date, type 00, time.
const char* const kTrData = "P00525000Q0010R0040156S00820261122T00200U006101530";
const std::string kTrBlock = ic('P', "25000") + ic('R', "156") + ic('S', "20261122") + ic('T', "00");

// The card's answer to the first command that began with prefix (hex), or "".
std::string answer_to(const ProfileCard& card, const std::string& prefix) {
    const auto apdus = card.apdus();
    const auto responses = card.responses();
    for (std::size_t i = 0; i < apdus.size() && i < responses.size(); ++i) {
        if (kolt::test::to_hex(apdus[i]).rfind(prefix, 0) == 0) return kolt::test::to_hex(responses[i]);
    }
    return "";
}

std::shared_ptr<ProfileCard> online_card(const std::string& name) { return load_card("online/" + name); }

// The CID of a field 55 text (9F27's value), or -1.
int cid_of(const std::string& field55) {
    const auto pos = field55.find("9F2701");
    if (pos == std::string::npos || pos + 8 > field55.size()) return -1;
    return std::stoi(field55.substr(pos + 6, 2), nullptr, 16);
}

std::string icrt_info(int ic_type, const char* letters, int* rc) {
    std::vector<char> out(4096, 0);
    *rc = ICRT_GetICCInfo(0, 1, ic_type, "", letters, out.data());
    return out.data();
}

struct Icrt {
    int arqc_rc = 0;
    std::string field55, app_data;
    kolt::sim::Authorisation auth;
    int arpc_rc = 0;
    std::string script_result, second_ac;
};

// ICRT_GetARQC, the issuer, ICRT_ARPCExeScript.
Icrt icrt_transaction(int ic_type, const IssuerPolicy& policy) {
    Icrt t;
    std::vector<char> f55(KOLT_FIELD55_MAX + 1, 0);
    std::vector<char> app(KOLT_APPDATA_TEXT_MAX, 0);
    t.arqc_rc = ICRT_GetARQC(0, 1, ic_type, kTrData, "", f55.data(), app.data());
    t.field55 = f55.data();
    t.app_data = app.data();
    t.auth = Issuer().authorise(t.field55, policy);
    std::vector<char> result(64, 0);
    std::vector<char> tc(KOLT_FIELD55_MAX + 8, 0);
    t.arpc_rc = ICRT_ARPCExeScript(0, 1, ic_type, kTrData, t.auth.answer_hex.c_str(), t.app_data.c_str(),
                                   result.data(), tc.data());
    t.script_result = result.data();
    t.second_ac = tc.data();
    return t;
}

class OnlineIssuerTest : public kolt::test::SimTest {};

}  // namespace

TEST_F(OnlineIssuerTest, ContactTransactionIcrtWithAPutDataScript) {
    auto card = online_card("online_debit");
    sim().set_contact_card(card);
    int rc = -1;
    EXPECT_EQ(icrt_info(0, "AJ", &rc), "A0196299990000020000018J00201");
    ASSERT_EQ(rc, 0);

    IssuerPolicy policy;
    policy.script.push_back(ScriptCommand::put_data(0x9F77, {0x00, 0x00, 0x00, 0x20, 0x00, 0x00}));
    const Icrt t = icrt_transaction(0, policy);
    ASSERT_EQ(t.arqc_rc, 0);
    EXPECT_EQ(cid_of(t.field55), 0x80);
    // The issuer recomputed the cryptogram from field 55's data elements.
    EXPECT_TRUE(t.auth.verified) << t.auth.reason;
    EXPECT_EQ(t.auth.pan, "6299990000020000018");
    EXPECT_EQ(t.arpc_rc, 0);
    EXPECT_EQ(answer_to(*card, "0082"), "9000");  // the card accepted the ARPC
    EXPECT_EQ(cid_of(t.second_ac.substr(3)), 0x40);  // TC
    // Each cryptogram has its own unpredictable number and its own value,
    // even within one second.
    const auto un_of = [](const std::string& f55) { return f55.substr(f55.find("9F3704") + 6, 8); };
    EXPECT_NE(un_of(t.field55), un_of(t.second_ac.substr(3)));
    EXPECT_NE(t.field55.substr(6, 16), t.second_ac.substr(9, 16));
    EXPECT_EQ(t.script_result, "DF31052104000000");
    // The card ends powered off, as the reader's transcript shows.
    EXPECT_TRUE(sent(sim(), 0x32, 0x23));
    EXPECT_FALSE(card->powered());
    // The script changed the card: the next card-information call reads the
    // new balance limit (trigger letter F fills H with 9F77).
    EXPECT_NE(icrt_info(0, "FH", &rc).find("H012000000200000"), std::string::npos);
    EXPECT_EQ(rc, 0);
}

TEST_F(OnlineIssuerTest, ContactlessTransactionIcrt) {
    auto card = online_card("online_contactless");
    sim().set_contactless_card(card);
    const Icrt t = icrt_transaction(1, IssuerPolicy{});
    ASSERT_EQ(t.arqc_rc, 0);
    EXPECT_TRUE(t.auth.verified) << t.auth.reason;
    EXPECT_EQ(t.arpc_rc, 0);
    EXPECT_EQ(cid_of(t.second_ac.substr(3)), 0x40);
    // No script: the script step ran and found none.
    EXPECT_EQ(t.script_result, "DF31051000000000");
    EXPECT_TRUE(sent(sim(), 0x32, 0x25));  // contactless power-off
    EXPECT_FALSE(card->powered());
}

TEST_F(OnlineIssuerTest, DeclineGivesAnAac) {
    auto card = online_card("online_debit");
    sim().set_contact_card(card);
    IssuerPolicy policy;
    policy.response_code = "05";
    const Icrt t = icrt_transaction(0, policy);
    EXPECT_TRUE(t.auth.verified) << t.auth.reason;
    EXPECT_EQ(t.arpc_rc, 0);
    EXPECT_EQ(generate_acs(*card).at(1).substr(0, 6), "80AE00");
    EXPECT_EQ(cid_of(t.second_ac.substr(3)), 0x00);
}

TEST_F(OnlineIssuerTest, LockedApplicationIsUnblockedByItsScript) {
    auto card = online_card("online_locked");
    sim().set_contact_card(card);
    int rc = -1;
    icrt_info(0, "A", &rc);
    EXPECT_EQ(rc, 10);

    IssuerPolicy policy;
    policy.script.push_back(ScriptCommand::unblock());
    const Icrt t = icrt_transaction(0, policy);
    EXPECT_EQ(t.arqc_rc, 10);
    ASSERT_FALSE(t.app_data.empty());
    EXPECT_EQ(t.app_data.back(), '1');
    EXPECT_TRUE(t.auth.verified) << t.auth.reason;
    // The locked application refuses its final cryptogram, and its script
    // still runs.
    EXPECT_EQ(t.arpc_rc, 0);
    EXPECT_EQ(t.second_ac, "");
    EXPECT_EQ(t.script_result, "DF31052104000000");
    // The next card-information call no longer reports it locked.
    icrt_info(0, "A", &rc);
    EXPECT_EQ(rc, 0);
}

TEST_F(OnlineIssuerTest, WrongScriptMacIsReportedInTheScriptResult) {
    auto card = online_card("online_locked");
    sim().set_contact_card(card);
    IssuerPolicy policy;
    ScriptCommand unblock = ScriptCommand::unblock();
    unblock.bad_mac = true;
    policy.script.push_back(unblock);
    const Icrt t = icrt_transaction(0, policy);
    EXPECT_EQ(t.arpc_rc, -29);
    EXPECT_EQ(t.script_result, "DF31051004000000");
    int rc = -1;
    icrt_info(0, "A", &rc);
    EXPECT_EQ(rc, 10);  // still locked
}

TEST_F(OnlineIssuerTest, IssuerWithOtherKeysFailsIssuerAuthentication) {
    auto card = online_card("online_debit");
    sim().set_contact_card(card);
    std::vector<char> f55(KOLT_FIELD55_MAX + 1, 0);
    std::vector<char> app(KOLT_APPDATA_TEXT_MAX, 0);
    ASSERT_EQ(ICRT_GetARQC(0, 1, 0, kTrData, "", f55.data(), app.data()), 0);
    kolt::sim::IssuerKeys keys;
    keys.ac_master[0] ^= 0x02;  // not a parity bit
    const auto auth = Issuer(keys).authorise(f55.data(), IssuerPolicy{});
    EXPECT_FALSE(auth.verified);
    std::vector<char> result(64, 0);
    std::vector<char> tc(KOLT_FIELD55_MAX + 8, 0);
    // The ARPC of a wrong key fails at the card: -26, yet the transaction is
    // completed (the unverified answer is a decline: AAC).
    EXPECT_EQ(ICRT_ARPCExeScript(0, 1, 0, kTrData, auth.answer_hex.c_str(), app.data(), result.data(), tc.data()), -26);
    EXPECT_EQ(cid_of(std::string(tc.data()).substr(3)), 0x00);
    EXPECT_EQ(answer_to(*card, "0082"), "6300");
}

TEST_F(OnlineIssuerTest, AField55WithAChangedAmountDoesNotVerify) {
    sim().set_contact_card(online_card("online_debit"));
    std::vector<char> f55(KOLT_FIELD55_MAX + 1, 0);
    std::vector<char> app(KOLT_APPDATA_TEXT_MAX, 0);
    ASSERT_EQ(ICRT_GetARQC(0, 1, 0, kTrData, "", f55.data(), app.data()), 0);
    std::string field55 = f55.data();
    EXPECT_TRUE(Issuer().authorise(field55).verified);
    const auto pos = field55.find("9F0206000000025000");
    ASSERT_NE(pos, std::string::npos);
    field55.replace(pos, 18, "9F0206000000026000");
    const auto auth = Issuer().authorise(field55);
    EXPECT_FALSE(auth.verified);
}

TEST_F(OnlineIssuerTest, IcConventionCoresRoundTripTheApplicationDataBlock) {
    auto card = online_card("online_debit");
    sim().set_contact_card(card);
    ASSERT_EQ(IC_initCom(0, 0), 0);
    std::vector<char> out(4096, 0);
    std::vector<char> app(KOLT_APPDATA_MAX, 0);
    int32_t kind = 0;
    ASSERT_EQ(IC_GetInfo_YS(0, "AG", "", out.data(), &kind, app.data()), 0);

    std::vector<char> arqc(KOLT_FIELD55_MAX + 8, 0);
    ASSERT_EQ(IC_GenARQC_YS(1, kTrBlock.c_str(), "", arqc.data(), 0, &kind, app.data()), 0);
    EXPECT_EQ(kind, 1);
    const std::string field55 = std::string(arqc.data()).substr(6);
    IssuerPolicy policy;
    policy.script.push_back(ScriptCommand::put_data(0x9F78, {0x00, 0x00, 0x00, 0x01, 0x00, 0x00}));
    policy.script_id = {0x12, 0x34, 0x56, 0x78};
    const auto auth = Issuer().authorise(field55, policy);
    EXPECT_TRUE(auth.verified) << auth.reason;

    std::vector<char> tc(KOLT_FIELD55_MAX + 8, 0);
    std::vector<char> result(64, 0);
    EXPECT_EQ(IC_ARPC_ExeICScript(1, kTrBlock.c_str(), auth.answer_hex.c_str(), 0, tc.data(), result.data(),
                                  app.data()),
              0);
    EXPECT_EQ(std::string(result.data()), "DF31052104123456");
    EXPECT_EQ(cid_of(std::string(tc.data()).substr(3)), 0x40);
    EXPECT_FALSE(card->powered());
    // The single-transaction limit the script set: YS letter F shows it
    // once K asks for the GET DATA.
    std::fill(out.begin(), out.end(), 0);
    ASSERT_EQ(IC_GetInfo_YS(0, "FK", "", out.data(), &kind, app.data()), 0);
    EXPECT_EQ(std::string(out.data()).substr(0, 16), "F012000000010000");
    IC_CloseCom(0, 0);
}

TEST_F(OnlineIssuerTest, IcConventionWrappers) {
    auto card = online_card("online_debit");
    sim().set_contact_card(card);
    const std::string port = sim().port_name();
    int32_t ic_type = 1;
    int32_t len = 0;
    std::vector<char> f55(KOLT_FIELD55_MAX + 1, 0);
    std::vector<char> app(KOLT_APPDATA_TEXT_MAX, 0);
    ASSERT_EQ(IC_GenARQC(port.c_str(), 0, 0, 0, &ic_type, "", kTrData, &len, f55.data(), app.data()), 0);
    const auto auth = Issuer().authorise(f55.data(), IssuerPolicy{});
    EXPECT_TRUE(auth.verified) << auth.reason;
    ic_type = 1;
    std::vector<char> tc(KOLT_FIELD55_MAX + 8, 0);
    std::vector<char> result(64, 0);
    EXPECT_EQ(IC_CtlScriptData(port.c_str(), 0, 0, 0, &ic_type, kTrData, auth.answer_hex.c_str(), &len, tc.data(),
                               result.data(), app.data()),
              0);
    EXPECT_EQ(len, static_cast<int32_t>(std::strlen(tc.data())));
    EXPECT_EQ(cid_of(std::string(tc.data()).substr(3)), 0x40);
    EXPECT_EQ(answer_to(*card, "0082"), "9000");
}
