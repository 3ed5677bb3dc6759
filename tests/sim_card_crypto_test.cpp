// The simulated card's cryptograms, its ATC, the issuer authentication and
// the MAC-checked issuer script commands, driven APDU by APDU.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "common/test_util.hpp"
#include "kolt_sim/card.hpp"
#include "kolt_sim/emv_crypto.hpp"

namespace {

using kolt::sim::ProfileCard;
using kolt::test::from_hex;
using kolt::test::to_hex;
namespace ber = kolt::sim::ber;
namespace crypto = kolt::sim::crypto;
using Bytes = std::vector<uint8_t>;

std::filesystem::path cards_dir() {
    if (const char* d = std::getenv("KOLT_TEST_SOURCE_DIR")) return std::filesystem::path(d) / "sim" / "cards";
    return std::filesystem::path(__FILE__).parent_path().parent_path() / "sim" / "cards";
}

std::shared_ptr<ProfileCard> load(const std::string& name) {
    return ProfileCard::load_file((cards_dir() / (name + ".json")).string());
}

std::string tx(ProfileCard& card, const std::string& apdu_hex) { return to_hex(card.exchange(from_hex(apdu_hex))); }
std::string sw_of(const std::string& r) { return r.substr(r.size() - 4); }

const std::string kDefaultAcKey = "0123456789ABCDEFFEDCBA9876543210";
const std::string kDefaultSmiKey = "FEDCBA98765432100123456789ABCDEF";
const std::string kOnlinePan = "6299990000020000018";
const std::string kLockedPan = "6299990000020000117";
const std::string kSelectOnline = "00 A4 04 00 08 F04B4F4C5401010E";
const std::string kSelectLocked = "00 A4 04 00 08 F04B4F4C5401010F";
const std::string kGpo = "80 A8 00 00 0B 83 09 01 000000000100 0156";

// The terminal's data of one transaction, laid out as CDOL1 asks:
// 9F02 9F03 9F1A 95 5F2A 9A 9C 9F37 9F21 9F4E.
struct Terminal {
    std::string amount = "000000012345", other = "000000000000", country = "0156", tvr = "0000000000",
                currency = "0156", date = "250612", type = "00", un = "11223344";
    std::string cdol1() const {
        return amount + other + country + tvr + currency + date + type + un + "103000" + std::string(40, '0');
    }
    std::string cdol2(const std::string& arc = "3030") const { return arc + cdol1(); }
    // What the cryptogram covers, for the card's AIP, ATC and the
    // cryptogram information it answers.
    Bytes mac_input(const std::string& aip, const std::string& atc, const std::string& cid = "80") const {
        return from_hex(amount + other + country + tvr + currency + date + type + un + aip + atc + cid);
    }
};

Bytes session_key(const std::string& issuer_key, const std::string& pan, const std::string& atc) {
    const Bytes mk = crypto::derive_icc_master_key(from_hex(issuer_key), pan, "01");
    return crypto::derive_session_key(mk, crypto::session_diversifier(from_hex(atc)));
}

// The card after SELECT and GPO.
void start(ProfileCard& card, const std::string& select) {
    const std::string fci = tx(card, select);
    ASSERT_TRUE(sw_of(fci) == "9000" || sw_of(fci) == "6283") << fci;
    ASSERT_EQ(sw_of(tx(card, kGpo)), "9000");
}

struct Ac {
    std::string cid, atc, ac;
};

// GENERATE AC answered in format 1: 80 1E CID ATC AC IAD.
Ac generate_ac(ProfileCard& card, const std::string& p1, const std::string& data) {
    const std::string lc = to_hex(Bytes{static_cast<uint8_t>(data.size() / 2)});
    const std::string r = tx(card, "80 AE " + p1 + " 00 " + lc + data);
    EXPECT_EQ(sw_of(r), "9000") << r;
    if (sw_of(r) != "9000") return {};
    EXPECT_EQ(r.substr(0, 4), "801E");
    return Ac{r.substr(4, 2), r.substr(6, 4), r.substr(10, 16)};
}

// A script command with its MAC as the card checks it.
std::string script_command(const std::string& header, const std::string& data, const Ac& arqc,
                           const std::string& pan, const std::string& smi_key = kDefaultSmiKey) {
    const Bytes d = from_hex(data);
    const Bytes h = from_hex(header);
    Bytes input = h;
    input.push_back(static_cast<uint8_t>(d.size() + 4));
    for (const auto& part : {from_hex(arqc.atc), from_hex(arqc.ac), d}) input.insert(input.end(), part.begin(), part.end());
    Bytes mac = crypto::retail_mac(session_key(smi_key, pan, arqc.atc), input);
    mac.resize(4);
    return header + to_hex(Bytes{static_cast<uint8_t>(d.size() + 4)}) + data + to_hex(mac);
}

std::string arpc(const Ac& arqc, const std::string& pan, const std::string& arc = "3030") {
    return to_hex(crypto::arpc_method1(session_key(kDefaultAcKey, pan, arqc.atc), from_hex(arqc.ac), from_hex(arc))) +
           arc;
}

// ---------------------------------------------------------------------------

TEST(SimCardCrypto, OnlineCardsLoadAndAreDocumented) {
    const std::string readme = kolt::test::read_file((cards_dir() / "README.md").string());
    int n = 0;
    for (const auto& entry : std::filesystem::directory_iterator(cards_dir() / "online")) {
        if (entry.path().extension() != ".json") continue;
        ++n;
        auto card = ProfileCard::load_file(entry.path().string());
        EXPECT_EQ(card->name(), entry.path().stem().string());
        EXPECT_NE(readme.find("online/" + entry.path().filename().string()), std::string::npos) << entry.path();
        EXPECT_EQ(ProfileCard::shipped("online/" + card->name())->name(), card->name());
    }
    EXPECT_EQ(n, 3);
}

TEST(SimCardCrypto, ArqcIsTheMacOfTheTransactionData) {
    auto card = load("online/online_debit");
    card->power_on();
    start(*card, kSelectOnline);
    const Terminal t;
    const Ac ac = generate_ac(*card, "80", t.cdol1());
    EXPECT_EQ(ac.cid, "80");
    EXPECT_EQ(ac.atc, "001C");
    const Bytes expected = crypto::retail_mac(session_key(kDefaultAcKey, kOnlinePan, "001C"), t.mac_input("7C00", "001C"));
    EXPECT_EQ(ac.ac, to_hex(expected));
}

TEST(SimCardCrypto, CryptogramDependsOnEveryElement) {
    auto ac_for = [](const Terminal& t) {
        auto card = load("online/online_debit");
        card->power_on();
        start(*card, kSelectOnline);
        return generate_ac(*card, "80", t.cdol1()).ac;
    };
    const Terminal base;
    const std::string a = ac_for(base);
    EXPECT_EQ(a, ac_for(base));
    Terminal t = base;
    t.amount = "000000012346";
    EXPECT_NE(a, ac_for(t));
    t = base;
    t.un = "11223345";
    EXPECT_NE(a, ac_for(t));
    t = base;
    t.tvr = "0000008000";
    EXPECT_NE(a, ac_for(t));
}

TEST(SimCardCrypto, TcOfTheSecondGenerateAcUsesCdol2AndTheSameAtc) {
    auto card = load("online/online_debit");
    card->power_on();
    start(*card, kSelectOnline);
    const Terminal t;
    const Ac arqc = generate_ac(*card, "80", t.cdol1());
    const Ac tc = generate_ac(*card, "40", t.cdol2());
    EXPECT_EQ(tc.cid, "40");
    EXPECT_EQ(tc.atc, arqc.atc);
    const Bytes expected = crypto::retail_mac(session_key(kDefaultAcKey, kOnlinePan, tc.atc), t.mac_input("7C00", tc.atc, "40"));
    EXPECT_EQ(tc.ac, to_hex(expected));
    // The TC is not the ARQC, though the data are the same.
    EXPECT_NE(tc.ac, arqc.ac);
}

TEST(SimCardCrypto, AtcGrowsWithEveryTransaction) {
    auto card = load("online/online_debit");
    card->power_on();
    EXPECT_EQ(tx(*card, "80 CA 9F 36 00"), "9F3602001C9000");
    const Terminal t;
    for (const char* atc : {"001C", "001D", "001E"}) {
        start(*card, kSelectOnline);
        EXPECT_EQ(generate_ac(*card, "80", t.cdol1()).atc, atc);
        EXPECT_EQ(tx(*card, "80 CA 9F 36 00"), std::string("9F3602") + atc + "9000");
    }
    card->power_off();
    card->power_on();  // the counter is card data
    start(*card, kSelectOnline);
    EXPECT_EQ(generate_ac(*card, "00", t.cdol1()).atc, "001F");
    card->set_get_data(0x9F36, from_hex("0100"));  // the next transaction takes this value
    start(*card, kSelectOnline);
    EXPECT_EQ(generate_ac(*card, "80", t.cdol1()).atc, "0100");
}

TEST(SimCardCrypto, ExternalAuthenticateChecksTheArpc) {
    auto card = load("online/online_debit");
    card->power_on();
    start(*card, kSelectOnline);
    const Ac arqc = generate_ac(*card, "80", Terminal{}.cdol1());
    EXPECT_EQ(tx(*card, "80 CA 9F 13 00"), "9F130200199000");
    EXPECT_EQ(tx(*card, "00 82 00 00 08 1122334455667788"), "6700");  // no response code
    // an ARPC for another response code does not fit
    const std::string other = arpc(arqc, kOnlinePan, "3035");
    EXPECT_EQ(tx(*card, "00 82 00 00 0A " + other.substr(0, 16) + "3030"), "6300");
    EXPECT_EQ(tx(*card, "00 82 00 00 0A 1122334455667788 3030"), "6300");
    EXPECT_FALSE(card->issuer_authenticated());
    EXPECT_EQ(tx(*card, "80 CA 9F 13 00"), "9F130200199000");
    EXPECT_EQ(tx(*card, "00 82 00 00 0A " + arpc(arqc, kOnlinePan)), "9000");
    EXPECT_TRUE(card->issuer_authenticated());
    EXPECT_EQ(tx(*card, "80 CA 9F 13 00"), "9F1302" + arqc.atc + "9000");  // last online ATC
    EXPECT_EQ(tx(*card, "00 82 00 00 0A " + arpc(arqc, kOnlinePan, "3035")), "9000");  // a decline is authentic too
    card->power_on();
    EXPECT_FALSE(card->issuer_authenticated());
}

TEST(SimCardCrypto, ExternalAuthenticateOnlyAfterAnArqc) {
    auto card = load("online/online_debit");
    card->power_on();
    start(*card, kSelectOnline);
    EXPECT_EQ(tx(*card, "00 82 00 00 0A 1122334455667788 3030"), "6985");
    const Ac tc = generate_ac(*card, "40", Terminal{}.cdol1());
    EXPECT_EQ(tc.cid, "40");
    EXPECT_EQ(tx(*card, "00 82 00 00 0A " + arpc(tc, kOnlinePan)), "6985");
}

TEST(SimCardCrypto, OverridesRefuseTheOnlineCommands) {
    auto card = load("online/online_debit");
    card->power_on();
    start(*card, kSelectOnline);
    card->override_sw(0x82, 0x6985);
    const Ac arqc = generate_ac(*card, "80", Terminal{}.cdol1());
    EXPECT_EQ(tx(*card, "00 82 00 00 0A " + arpc(arqc, kOnlinePan)), "6985");
    card->override_sw(0xAE, 0x6985);
    EXPECT_EQ(tx(*card, "80 AE 40 00 36 " + Terminal{}.cdol2()), "6985");
    card->override_sw(from_hex("84 18"), 0x6A81);
    EXPECT_EQ(tx(*card, script_command("84180000", "", arqc, kOnlinePan)), "6A81");

    auto refusing = ProfileCard::load_json(R"({"name": "r", "atr": "3B 00", "applications": [{"aid": "F000000001"}],
        "overrides": [{"ins": "AE", "sw": "6985"}, {"ins": "82", "sw": "6985"}]})");
    refusing->power_on();
    tx(*refusing, "00 A4 04 00 05 F000000001");
    tx(*refusing, "80 A8 00 00 02 83 00");
    EXPECT_EQ(tx(*refusing, "80 AE 80 00 04 11223344"), "6985");
    EXPECT_EQ(tx(*refusing, "00 82 00 00 0A 1122334455667788 3030"), "6985");
}

TEST(SimCardCrypto, LockedApplicationGoesOnlineAndAScriptUnblocksIt) {
    auto card = load("online/online_locked");
    card->power_on();
    start(*card, kSelectLocked);
    const Terminal t;
    const Ac arqc = generate_ac(*card, "40", t.cdol1());  // a TC asked, an ARQC given
    EXPECT_EQ(arqc.cid, "80");
    EXPECT_EQ(tx(*card, "80 AE 40 00 36 " + t.cdol2()), "6985");  // nothing completes while locked
    EXPECT_EQ(tx(*card, "00 82 00 00 0A " + arpc(arqc, kLockedPan)), "9000");
    EXPECT_EQ(tx(*card, script_command("84180000", "", arqc, kLockedPan)), "9000");
    EXPECT_FALSE(card->locked());
    const Ac tc = generate_ac(*card, "40", t.cdol2());
    EXPECT_EQ(tc.cid, "40");
    card->power_off();
    card->power_on();
    EXPECT_EQ(sw_of(tx(*card, kSelectLocked)), "9000");  // unblocked for good
}

TEST(SimCardCrypto, WrongScriptMacChangesNothing) {
    auto card = load("online/online_locked");
    card->power_on();
    start(*card, kSelectLocked);
    EXPECT_EQ(tx(*card, "84 18 00 00 04 11223344"), "6988");  // no ARQC yet
    const Ac arqc = generate_ac(*card, "80", Terminal{}.cdol1());
    std::string bad = script_command("84180000", "", arqc, kLockedPan);
    bad.back() = bad.back() == '0' ? '1' : '0';
    EXPECT_EQ(tx(*card, bad), "6988");
    EXPECT_EQ(tx(*card, "84 18 00 00"), "6988");                              // no MAC at all
    EXPECT_EQ(tx(*card, script_command("84180000", "", arqc, kLockedPan, kDefaultAcKey)), "6988");  // other key
    EXPECT_TRUE(card->locked());
    std::string put = script_command("04DA9F77", "000000200000", arqc, kLockedPan);
    put[put.size() - 9] = put[put.size() - 9] == '0' ? '1' : '0';  // a changed value byte
    EXPECT_EQ(tx(*card, put), "6988");
    EXPECT_EQ(tx(*card, "80 CA 9F 77 00"), "9F77060000001000009000");
    // after a new power-on the old ARQC is gone
    card->power_on();
    start(*card, kSelectLocked);
    EXPECT_EQ(tx(*card, script_command("84180000", "", arqc, kLockedPan)), "6988");
    EXPECT_TRUE(card->locked());
}

TEST(SimCardCrypto, PutDataChangesGetData) {
    auto card = load("online/online_debit");
    card->power_on();
    start(*card, kSelectOnline);
    const Ac arqc = generate_ac(*card, "80", Terminal{}.cdol1());
    EXPECT_EQ(tx(*card, script_command("04DA9F77", "000000200000", arqc, kOnlinePan)), "9000");
    EXPECT_EQ(tx(*card, script_command("04DA9F78", "000000030000", arqc, kOnlinePan)), "9000");
    EXPECT_EQ(tx(*card, "80 CA 9F 77 00"), "9F77060000002000009000");
    EXPECT_EQ(tx(*card, "80 CA 9F 78 00"), "9F78060000000300009000");
    card->power_on();  // card data: it stays
    EXPECT_EQ(tx(*card, "80 CA 9F 77 00"), "9F77060000002000009000");
}

TEST(SimCardCrypto, BlockScriptsWithAGoodMac) {
    auto card = load("online/online_debit");
    card->power_on();
    start(*card, kSelectOnline);
    const Ac arqc = generate_ac(*card, "80", Terminal{}.cdol1());
    EXPECT_EQ(tx(*card, script_command("84240000", "1122334455667788", arqc, kOnlinePan)), "9000");  // other INS
    EXPECT_EQ(tx(*card, script_command("841E0000", "", arqc, kOnlinePan)), "9000");
    EXPECT_TRUE(card->locked());
    EXPECT_EQ(tx(*card, script_command("84160000", "", arqc, kOnlinePan)), "9000");
    EXPECT_EQ(tx(*card, kSelectOnline), "6A81");
}

TEST(SimCardCrypto, KeysFromTheProfile) {
    const std::string ac_key = "00112233445566778899AABBCCDDEEFF";
    const std::string profile = R"({"name": "k", "atr": "3B 00", KEYS "applications": [{
        "aid": "F0 00 00 00 09", APPKEYS
        "records": [{"sfi": 1, "record": 1, "data": {"70": {"5A": "4711 0000 0000 0011", "5F34": "02",
                     "8C": "9F37 04 9F02 06 9A 03", "8D": "8A 02"}}}]}]})";
    auto ac_of = [&](const std::string& keys, const std::string& app_keys) {
        std::string text = profile;
        text.replace(text.find("KEYS"), 4, keys);
        text.replace(text.find("APPKEYS"), 7, app_keys);
        auto card = ProfileCard::load_json(text);
        card->power_on();
        tx(*card, "00 A4 04 00 05 F000000009");
        tx(*card, "80 A8 00 00 02 83 00");
        const std::string r = tx(*card, "80 AE 80 00 0D 11223344 000000000500 250612");
        EXPECT_EQ(sw_of(r), "9000");
        return r.substr(10, 16);
    };
    // The elements the CDOL lists are taken wherever it puts them, the
    // others count as zeros; the ATC of a card without 9F36 starts at 0001.
    const Bytes input = from_hex("000000000500 000000000000 0000 0000000000 0000 250612 00 11223344 7C00 0001 80");
    const Bytes mk = crypto::derive_icc_master_key(from_hex(ac_key), "4711000000000011", "02");
    const std::string expected =
        to_hex(crypto::retail_mac(crypto::derive_session_key(mk, crypto::session_diversifier(from_hex("0001"))), input));
    const std::string keys = R"("issuer_keys": {"ac": ")" + ac_key + R"("},)";
    const std::string app_keys = R"("issuer_keys": {"ac": ")" + ac_key + R"(", "smi": ")" + kDefaultSmiKey + R"("},)";
    EXPECT_EQ(ac_of(keys, ""), expected);      // the card's keys
    EXPECT_EQ(ac_of("", app_keys), expected);  // the application's
    EXPECT_NE(ac_of("", ""), expected);        // the default keys
    EXPECT_THROW(ProfileCard::load_json(R"({"name": "k", "atr": "3B 00", "issuer_keys": {"ac": "0011"},
        "applications": []})"),
                 std::runtime_error);
    EXPECT_THROW(ProfileCard::load_json(R"({"name": "k", "atr": "3B 00", "applications": [
        {"aid": "F000000001", "issuer_keys": {"mac": "00112233445566778899AABBCCDDEEFF"}}]})"),
                 std::runtime_error);
}

TEST(SimCardCrypto, CardsWithAFixedCryptogramTakeAnyArpc) {
    auto card = load("pboc_debit");
    card->power_on();
    start(*card, "00 A4 04 00 08 F04B4F4C54010101");
    const Ac arqc = generate_ac(*card, "80", Terminal{}.cdol1());
    EXPECT_EQ(arqc.ac, "1A2B3C4D5E6F7081");
    EXPECT_EQ(tx(*card, "00 82 00 00 0A 1122334455667788 3030"), "9000");
    EXPECT_EQ(tx(*card, "84 18 00 00 04 11223344"), "9000");
}

}  // namespace
