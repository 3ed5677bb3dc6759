// The simulated issuer host: it verifies the ARQC of a simulated card from
// field 55, and its answer (ARPC, scripts) is what that card accepts.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/test_util.hpp"
#include "kolt_sim/card.hpp"
#include "kolt_sim/issuer.hpp"

namespace {

using kolt::sim::Authorisation;
using kolt::sim::Issuer;
using kolt::sim::IssuerKeys;
using kolt::sim::IssuerPolicy;
using kolt::sim::ProfileCard;
using kolt::sim::ScriptCommand;
using kolt::test::from_hex;
using kolt::test::to_hex;
namespace ber = kolt::sim::ber;
using Bytes = std::vector<uint8_t>;

std::filesystem::path cards_dir() {
    if (const char* d = std::getenv("KOLT_TEST_SOURCE_DIR")) return std::filesystem::path(d) / "sim" / "cards";
    return std::filesystem::path(__FILE__).parent_path().parent_path() / "sim" / "cards";
}

std::string tx(ProfileCard& card, const std::string& apdu_hex) { return to_hex(card.exchange(from_hex(apdu_hex))); }
std::string sw_of(const std::string& r) { return r.substr(r.size() - 4); }

std::string tlv(const std::string& tag, const std::string& value_hex) {
    return tag + to_hex(Bytes{static_cast<uint8_t>(value_hex.size() / 2)}) + value_hex;
}

// One online transaction with a simulated card up to the ARQC, and field 55
// as a terminal builds it from the card's answer and its own data.
struct Online {
    std::shared_ptr<ProfileCard> card;
    std::string amount = "000000012345", other = "000000000000", country = "0156", tvr = "0000000000",
                currency = "0156", date = "250612", type = "00", un = "A1B2C3D4";
    std::string cid, atc, ac, iad;

    explicit Online(const std::string& name, const std::string& aid_last = "0E") {
        card = ProfileCard::load_file((cards_dir() / (name + ".json")).string());
        card->power_on();
        const std::string fci = tx(*card, "00 A4 04 00 08 F04B4F4C540101" + aid_last);
        EXPECT_TRUE(sw_of(fci) == "9000" || sw_of(fci) == "6283");
        EXPECT_EQ(sw_of(tx(*card, "80 A8 00 00 0B 83 09 01 000000000100 0156")), "9000");
        const std::string cdol1 = amount + other + country + tvr + currency + date + type + un + "103000" +
                                  std::string(40, '0');
        const std::string r = tx(*card, "80 AE 80 00 34 " + cdol1);
        EXPECT_EQ(sw_of(r), "9000");
        cid = r.substr(4, 2);
        atc = r.substr(6, 4);
        ac = r.substr(10, 16);
        iad = r.substr(26, r.size() - 26 - 4);
    }

    // In the order the driver library sends them.
    std::map<std::string, std::string> elements(const std::string& pan, const std::string& psn) const {
        return {{"9F26", ac},    {"9F27", cid},  {"9F10", iad},      {"9F37", un},   {"9F36", atc},
                {"95", tvr},     {"9F13", "0019"}, {"9A", date},     {"9C", type},   {"9F02", amount},
                {"5F2A", currency}, {"5A", pan},  {"5F34", psn},     {"82", "7C00"}, {"9F1A", country},
                {"9F03", other}, {"9F33", "E0F8C8"}};
    }
    std::string field55(const std::string& pan = "6299990000020000018F", const std::string& psn = "01") const {
        auto e = elements(pan, psn);
        std::string out;
        for (const char* tag : {"9F26", "9F27", "9F10", "9F37", "9F36", "95", "9F13", "9A", "9C", "9F02", "5F2A",
                                "5A", "5F34", "82", "9F1A", "9F03", "9F33"})
            out += tlv(tag, e[tag]);
        return out;
    }
};

// The items of the answer text, for the card.
std::string item(const std::string& answer_hex, uint32_t tag) {
    const Bytes b = from_hex(answer_hex);
    auto v = ber::find(b, tag);
    return v ? ber::to_hex(*v) : std::string("(none)");
}

// The script commands (86 items) of a script template.
std::vector<std::string> commands(const std::string& answer_hex, uint32_t template_tag) {
    const Bytes b = from_hex(answer_hex);
    auto t = ber::find(b, template_tag);
    std::vector<std::string> out;
    if (!t) return out;
    auto items = ber::parse(*t);
    if (!items) return out;
    for (const auto& i : *items)
        if (i.tag == 0x86) out.push_back(ber::to_hex(i.value));
    return out;
}

// ---------------------------------------------------------------------------

TEST(SimIssuer, VerifiesTheCardsArqcAndTheCardTakesItsArpc) {
    Online t("online/online_debit");
    const Authorisation a = Issuer().authorise(t.field55());
    EXPECT_TRUE(a.parsed);
    EXPECT_TRUE(a.verified) << a.reason;
    EXPECT_EQ(a.pan, "6299990000020000018");
    EXPECT_EQ(a.psn, "01");
    EXPECT_EQ(to_hex(a.atc), "001C");
    EXPECT_EQ(to_hex(a.arqc), t.ac);
    EXPECT_EQ(a.cid, 0x80);
    EXPECT_EQ(a.cid_type, "ARQC");
    EXPECT_EQ(a.response_code, "00");
    EXPECT_EQ(a.answer_hex, "910A" + to_hex(a.arpc) + "3030");
    EXPECT_EQ(tx(*t.card, "00 82 00 00 0A " + item(a.answer_hex, 0x91)), "9000");
    EXPECT_TRUE(t.card->issuer_authenticated());
    EXPECT_EQ(sw_of(tx(*t.card, "80 AE 40 00 36 3030" + std::string(104, '0'))), "9000");
}

TEST(SimIssuer, DeclineCodeIsInTheArpc) {
    Online t("online/online_debit");
    IssuerPolicy p;
    p.response_code = "05";
    const Authorisation a = Issuer().authorise(t.field55(), p);
    EXPECT_TRUE(a.verified);
    EXPECT_EQ(a.response_code, "05");
    EXPECT_EQ(item(a.answer_hex, 0x91).substr(16), "3035");
    EXPECT_EQ(tx(*t.card, "00 82 00 00 0A " + item(a.answer_hex, 0x91)), "9000");
}

TEST(SimIssuer, ChangedAmountDoesNotVerify) {
    Online t("online/online_debit");
    std::string f55 = t.field55();
    const std::string amount = tlv("9F02", t.amount);
    f55.replace(f55.find(amount), amount.size(), tlv("9F02", "000000012346"));
    IssuerPolicy p;
    p.script.push_back(ScriptCommand::unblock());
    const Authorisation a = Issuer().authorise(f55, p);
    EXPECT_TRUE(a.parsed);
    EXPECT_FALSE(a.verified);
    EXPECT_NE(a.reason.find("expected " + to_hex(a.expected)), std::string::npos) << a.reason;
    EXPECT_NE(a.reason.find("received " + t.ac), std::string::npos) << a.reason;
    EXPECT_EQ(a.response_code, "05");
    // still an answer, without the script, that the card finds authentic
    EXPECT_EQ(item(a.answer_hex, 0x72), "(none)");
    EXPECT_EQ(item(a.answer_hex, 0x91).substr(16), "3035");
    EXPECT_EQ(tx(*t.card, "00 82 00 00 0A " + item(a.answer_hex, 0x91)), "9000");
}

TEST(SimIssuer, OtherElementsThatCount) {
    Online t("online/online_debit");
    auto verified = [&](const std::string& tag, const std::string& value) {
        std::string f55 = t.field55();
        const auto e = t.elements("6299990000020000018F", "01");
        const std::string old = tlv(tag, e.at(tag));
        f55.replace(f55.find(old), old.size(), tlv(tag, value));
        return Issuer().authorise(f55).verified;
    };
    EXPECT_FALSE(verified("9F37", "A1B2C3D5"));
    EXPECT_FALSE(verified("95", "0000008000"));
    EXPECT_FALSE(verified("9A", "250613"));
    EXPECT_FALSE(verified("82", "7800"));
    EXPECT_FALSE(verified("5F34", "02"));
    EXPECT_FALSE(verified("9F36", "001D"));
    // not covered by the cryptogram
    EXPECT_TRUE(verified("9F10", "00"));
    EXPECT_TRUE(verified("9F33", "000000"));
    EXPECT_TRUE(verified("9F13", "0000"));
}

TEST(SimIssuer, ParsesTolerantly) {
    Online t("online/online_debit");
    const auto e = t.elements("6299990000020000018F", "01");
    // another order, an unknown tag, a short amount (right-aligned), blanks, lower case
    std::string f55 = tlv("9F1A", e.at("9F1A")) + tlv("DF01", "00112233") + tlv("9F02", "012345") + " " +
                      tlv("9F26", t.ac) + tlv("9F36", t.atc) + tlv("5A", "6299990000020000018f") + tlv("5F34", "01");
    for (const char* tag : {"9F03", "95", "5F2A", "9A", "9C", "9F37", "82", "9F27"}) f55 += tlv(tag, e.at(tag));
    const Authorisation a = Issuer().authorise(f55);
    EXPECT_TRUE(a.verified) << a.reason;
    EXPECT_EQ(a.cid_type, "ARQC");
    // a long amount counts with its last six bytes
    const std::string long_amount = tlv("9F02", "00" + t.amount);
    std::string f = t.field55();
    f.replace(f.find(tlv("9F02", t.amount)), tlv("9F02", t.amount).size(), long_amount);
    EXPECT_TRUE(Issuer().authorise(f).verified);
}

TEST(SimIssuer, ValuesOf128BytesAndMoreHaveOneLengthByte) {
    Online t("online/online_debit");
    const std::string f55 = tlv("DF7F", std::string(2 * 200, 'A')) + t.field55();
    ASSERT_EQ(f55.substr(0, 6), "DF7FC8");
    EXPECT_TRUE(Issuer().authorise(f55).verified);
}

TEST(SimIssuer, NotVerifiable) {
    Online t("online/online_debit");
    for (const std::string& bad : {std::string("9F2608"), std::string("XYZ"), t.field55().substr(1),
                                   t.field55() + "9F02"}) {
        const Authorisation a = Issuer().authorise(bad);
        EXPECT_FALSE(a.parsed) << bad;
        EXPECT_FALSE(a.verified);
        EXPECT_TRUE(a.answer_hex.empty());
        EXPECT_FALSE(a.reason.empty());
    }
    const Authorisation a = Issuer().authorise(tlv("9F26", t.ac) + tlv("9F36", t.atc));
    EXPECT_FALSE(a.parsed);
    EXPECT_NE(a.reason.find("5A"), std::string::npos) << a.reason;
    EXPECT_FALSE(Issuer().authorise(t.field55("6299990000020000A18F")).parsed);  // not digits
}

TEST(SimIssuer, PanWithoutSequenceNumberIsSequence00) {
    // A card without 5F34: the issuer takes 00 as the card does.
    auto card = ProfileCard::load_json(R"({"name": "n", "atr": "3B 00", "applications": [{
        "aid": "F0 00 00 00 07", "get_data": {"9F36": "0005"},
        "records": [{"sfi": 1, "record": 1, "data": {"70": {"5A": "4711000000000011",
                     "8C": "9F02 06 9F37 04", "8D": "8A 02"}}}]}]})");
    card->power_on();
    tx(*card, "00 A4 04 00 05 F000000007");
    tx(*card, "80 A8 00 00 02 83 00");
    const std::string r = tx(*card, "80 AE 80 00 0A 000000000700 01020304");
    ASSERT_EQ(sw_of(r), "9000");
    const std::string f55 = tlv("9F26", r.substr(10, 16)) + tlv("9F36", r.substr(6, 4)) + tlv("5A", "4711000000000011") +
                            tlv("9F02", "000000000700") + tlv("9F37", "01020304") + tlv("82", "7C00") +
                            tlv("9F27", "80");
    const Authorisation a = Issuer().authorise(f55);
    EXPECT_TRUE(a.verified) << a.reason;
    EXPECT_EQ(a.psn, "00");
    EXPECT_FALSE(Issuer().authorise(f55 + tlv("5F34", "01")).verified);
}

TEST(SimIssuer, ScriptUnblocksTheLockedCardAndPutDataChangesGetData) {
    Online t("online/online_locked", "0F");
    IssuerPolicy p;
    p.script = {ScriptCommand::unblock(), ScriptCommand::put_data(0x9F77, from_hex("000000200000"))};
    const Authorisation a = Issuer().authorise(t.field55("6299990000020000117F"), p);
    ASSERT_TRUE(a.verified) << a.reason;
    const auto cmds = commands(a.answer_hex, 0x72);
    ASSERT_EQ(cmds.size(), 2u);
    EXPECT_EQ(cmds[0].substr(0, 10), "8418000004");
    EXPECT_EQ(cmds[1].substr(0, 22), "04DA9F770A000000200000");
    // the commands first, the identifier last
    const Bytes answer = from_hex(a.answer_hex);
    const auto tmpl = ber::find(answer, 0x72);
    ASSERT_TRUE(tmpl);
    const auto items = ber::parse(*tmpl);
    ASSERT_TRUE(items);
    ASSERT_EQ(items->size(), 3u);
    EXPECT_EQ((*items)[2].tag, 0x9F18u);
    EXPECT_EQ(ber::to_hex((*items)[2].value), "00000001");

    EXPECT_EQ(tx(*t.card, "00 82 00 00 0A " + item(a.answer_hex, 0x91)), "9000");
    for (const auto& c : cmds) EXPECT_EQ(tx(*t.card, c), "9000");
    EXPECT_FALSE(t.card->locked());
    EXPECT_EQ(tx(*t.card, "80 CA 9F 77 00"), "9F77060000002000009000");
}

TEST(SimIssuer, BadMacIsRefusedByTheCard) {
    Online t("online/online_locked", "0F");
    IssuerPolicy p;
    ScriptCommand bad = ScriptCommand::unblock();
    bad.bad_mac = true;
    p.script = {bad, ScriptCommand::block()};
    p.script_template = 0x71;
    p.script_id = from_hex("12345678");
    const Authorisation a = Issuer().authorise(t.field55("6299990000020000117F"), p);
    ASSERT_TRUE(a.verified);
    EXPECT_EQ(item(a.answer_hex, 0x72), "(none)");
    const auto cmds = commands(a.answer_hex, 0x71);
    ASSERT_EQ(cmds.size(), 2u);
    EXPECT_EQ(item(a.answer_hex, 0x9F18), "12345678");
    EXPECT_EQ(tx(*t.card, cmds[0]), "6988");
    EXPECT_TRUE(t.card->locked());
    EXPECT_EQ(tx(*t.card, cmds[1]), "9000");  // block: a good MAC
    EXPECT_TRUE(t.card->locked());
}

TEST(SimIssuer, OtherKeysDoNotVerify) {
    Online t("online/online_debit");
    IssuerKeys keys;
    keys.ac_master = from_hex("00112233445566778899AABBCCDDEEFF");
    IssuerPolicy p;
    p.unverified_response_code = "Z3";
    const Authorisation a = Issuer(keys).authorise(t.field55(), p);
    EXPECT_TRUE(a.parsed);
    EXPECT_FALSE(a.verified);
    EXPECT_EQ(a.response_code, "Z3");
    EXPECT_EQ(tx(*t.card, "00 82 00 00 0A " + item(a.answer_hex, 0x91)), "6300");
}

TEST(SimIssuer, BadPolicyAndKeysAreRefused) {
    IssuerPolicy p;
    p.response_code = "0";
    EXPECT_THROW(Issuer().authorise("", p), std::invalid_argument);
    p = {};
    p.script_template = 0x73;
    EXPECT_THROW(Issuer().authorise("", p), std::invalid_argument);
    p = {};
    p.script_id = {1, 2};
    EXPECT_THROW(Issuer().authorise("", p), std::invalid_argument);
    IssuerKeys k;
    k.smi_master = {1};
    EXPECT_THROW(Issuer{k}, std::invalid_argument);
    EXPECT_EQ(to_hex(Issuer::arc_of("00")), "3030");
}

}  // namespace
