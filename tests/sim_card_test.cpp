// The simulated IC cards: card profiles, the APDUs they answer, and the
// simulator's own BER-TLV helpers.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/test_util.hpp"
#include "kolt_sim/card.hpp"

namespace {

using kolt::sim::Card;
using kolt::sim::ProfileCard;
using kolt::sim::ResponseOverride;
using kolt::test::from_hex;
using kolt::test::to_hex;
namespace ber = kolt::sim::ber;

std::filesystem::path source_dir() {
    if (const char* d = std::getenv("KOLT_TEST_SOURCE_DIR")) return d;
    return std::filesystem::path(__FILE__).parent_path().parent_path();
}

std::filesystem::path cards_dir() { return source_dir() / "sim" / "cards"; }

std::shared_ptr<ProfileCard> load(const std::string& name) {
    return ProfileCard::load_file((cards_dir() / (name + ".json")).string());
}

// Sends one APDU written as hex and returns the response as hex (no blanks).
std::string tx(Card& card, const std::string& apdu_hex) {
    const auto apdu = from_hex(apdu_hex);
    return to_hex(card.exchange(apdu));
}

std::string hex(const std::string& text) {  // hex text with the blanks taken out
    std::string out;
    for (char c : text)
        if (c != ' ') out += c;
    return out;
}

std::string ascii_hex(const std::string& s) { return to_hex(reinterpret_cast<const uint8_t*>(s.data()), s.size()); }

const std::string kSelectPse = "00 A4 04 00 0E 31 50 41 59 2E 53 59 53 2E 44 44 46 30 31";
const std::string kDebitAid = "F04B4F4C54010101";
const std::string kSelectDebit = "00 A4 04 00 08 " + kDebitAid;
// GPO data for the debit card's PDOL 9F7A 01 9F02 06 5F2A 02.
const std::string kGpoDebit = "80 A8 00 00 0B 83 09 01 000000000100 0156";
const std::string kStandardLogFormat = "9A039F21039F02069F03069F1A025F2A029F4E149C019F3602";

std::string cdol1_data() { return std::string(52 * 2, '1'); }
std::string cdol2_data() { return std::string(54 * 2, '2'); }

// Brings the debit card to the point after GET PROCESSING OPTIONS.
std::shared_ptr<ProfileCard> initiated_debit() {
    auto card = load("pboc_debit");
    card->power_on();
    const std::string fci = tx(*card, kSelectDebit);
    EXPECT_EQ(fci.substr(fci.size() - 4), "9000");
    EXPECT_EQ(tx(*card, kGpoDebit).substr(0, 2), "80");
    return card;
}

std::string sw_of(const std::string& response_hex) { return response_hex.substr(response_hex.size() - 4); }

// ---------------------------------------------------------------------------

TEST(SimCardProfiles, EveryShippedProfileLoadsAndIsDocumented) {
    const std::string readme = kolt::test::read_file((cards_dir() / "README.md").string());
    ASSERT_FALSE(readme.empty());
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(cards_dir())) {
        if (entry.path().extension() != ".json") continue;
        SCOPED_TRACE(entry.path().string());
        std::shared_ptr<ProfileCard> card;
        ASSERT_NO_THROW(card = ProfileCard::load_file(entry.path().string()));
        EXPECT_EQ(card->name(), entry.path().stem().string());
        EXPECT_FALSE(card->description().empty());
        const auto atr = card->power_on();
        ASSERT_GE(atr.size(), 2u);
        EXPECT_EQ(atr[0], 0x3B);
        // Every shipped card has a directory that names an application it can select.
        const std::string fci = tx(*card, kSelectPse);
        EXPECT_EQ(sw_of(fci), "9000");
        EXPECT_EQ(fci.substr(0, 2), "6F");
        const std::string record = tx(*card, "00 B2 01 0C 00");
        EXPECT_EQ(sw_of(record), "9000");
        EXPECT_NE(readme.find(entry.path().filename().string()), std::string::npos) << "not in README.md";
        names.insert(card->name());
    }
    for (const char* required : {"pboc_debit", "qpboc_contactless", "app_locked", "no_log_entry",
                                 "contactless_pdol_without_9f66", "gpo_format2", "gpo_6985", "log_short",
                                 "log_format_9f21", "afl_high_sfi", "directory_two_records", "candidate_missing"})
        EXPECT_TRUE(names.count(required)) << required;
}

TEST(SimCardProfiles, CardFactoriesReturnProfileCards) {
    auto a = Card::from_file((cards_dir() / "pboc_debit.json").string());
    ASSERT_NE(std::dynamic_pointer_cast<ProfileCard>(a), nullptr);
    auto b = Card::from_json(R"({"name": "x", "atr": "3B 00", "applications": []})");
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(to_hex(b->power_on()), "3B00");
    EXPECT_THROW(Card::from_file((cards_dir() / "no_such_card.json").string()), std::runtime_error);
}

TEST(SimCardProfiles, ShippedCardsByName) {
    EXPECT_EQ(std::filesystem::canonical(ProfileCard::shipped_cards_dir()), std::filesystem::canonical(cards_dir()));
    EXPECT_EQ(ProfileCard::shipped("gpo_6985")->name(), "gpo_6985");
    EXPECT_THROW(ProfileCard::shipped("no_such_card"), std::runtime_error);
    kolt::test::TempDir dir;
    dir.write("mine.json", R"({"name": "mine", "atr": "3B 00", "applications": []})");
    kolt::test::ScopedEnv env("KOLT_SIM_CARD_DIR", dir.str());
    EXPECT_EQ(ProfileCard::shipped_cards_dir(), dir.str());
    EXPECT_EQ(ProfileCard::shipped("mine")->name(), "mine");
}

TEST(SimCardProfiles, InterfacesAreAsShipped) {
    EXPECT_EQ(load("pboc_debit")->interface_kind(), "contact");
    EXPECT_EQ(load("qpboc_contactless")->interface_kind(), "contactless");
    EXPECT_EQ(load("contactless_pdol_without_9f66")->interface_kind(), "contactless");
    EXPECT_EQ(load("app_locked")->interface_kind(), "contact");
}

// ---------------------------------------------------------------------------
// Selection

TEST(SimCardSelect, PaymentSystemDirectoryFci) {
    auto card = load("pboc_debit");
    EXPECT_EQ(to_hex(card->power_on()), "3B6C00004B4F4C542D44454249543031");
    EXPECT_EQ(tx(*card, kSelectPse), hex("6F 1C 84 0E 315041592E5359532E4444463031"
                                         " A5 0A 88 01 01 5F 2D 04 7A 68 65 6E 9000"));
}

TEST(SimCardSelect, DirectoryRecordsAndPastTheLast) {
    auto card = load("pboc_debit");
    card->power_on();
    tx(*card, kSelectPse);
    EXPECT_EQ(tx(*card, "00 B2 01 0C 00"),
              hex("70 1B 61 19 4F 08 F04B4F4C54010101 50 0A 4B4F4C54204445424954 87 01 01 9000"));
    EXPECT_EQ(tx(*card, "00 B2 02 0C 00"), "6A83");
    EXPECT_EQ(tx(*card, "00 B2 01 14 00"), "6A82");  // SFI 2 does not exist in the directory
}

TEST(SimCardSelect, ApplicationFciHoldsPdolAndLogEntry) {
    auto card = load("pboc_debit");
    card->power_on();
    EXPECT_EQ(tx(*card, kSelectDebit), hex("6F 36 84 08 F04B4F4C54010101"
                                           " A5 2A 50 0A 4B4F4C54204445424954 87 01 01"
                                           " 9F 38 09 9F7A01 9F0206 5F2A02"
                                           " 5F 2D 04 7A68656E"
                                           " BF 0C 05 9F 4D 02 0B 05 9000"));
}

TEST(SimCardSelect, MissingAidAnswers6A82) {
    auto card = load("pboc_debit");
    card->power_on();
    EXPECT_EQ(tx(*card, "00 A4 04 00 08 F04B4F4C54010199"), "6A82");
    EXPECT_EQ(tx(*card, "00 A4 04 00 07 A0000000999999"), "6A82");
    EXPECT_EQ(tx(*card, "00 A4 04 02 08 " + kDebitAid), "6A82");  // no next occurrence
    EXPECT_EQ(tx(*card, "00 A4 00 00 02 3F00"), "6A86");
}

TEST(SimCardSelect, PartialAidSelectsTheApplication) {
    auto card = load("pboc_debit");
    card->power_on();
    const std::string r = tx(*card, "00 A4 04 00 07 F04B4F4C540101");
    EXPECT_EQ(r.substr(0, 24), hex("6F 36 84 08 F04B4F4C54010101"));
    EXPECT_EQ(sw_of(r), "9000");
}

TEST(SimCardSelect, CardWithoutDirectoryAnswers6A82ToPse) {
    auto card = ProfileCard::load_json(R"({"name": "bare", "atr": "3B 00",
        "applications": [{"aid": "F0 00 00 00 01"}]})");
    card->power_on();
    EXPECT_EQ(tx(*card, kSelectPse), "6A82");
    EXPECT_EQ(tx(*card, "00 A4 04 00 05 F000000001"), hex("6F 09 84 05 F000000001 A5 00 9000"));
}

TEST(SimCardSelect, LockedApplicationAnswers6283WithItsFci) {
    auto card = load("app_locked");
    card->power_on();
    EXPECT_TRUE(card->locked());
    const std::string r = tx(*card, "00 A4 04 00 08 F04B4F4C54010102");
    EXPECT_EQ(sw_of(r), "6283");
    EXPECT_EQ(r.substr(0, 24), hex("6F 2A 84 08 F04B4F4C54010102"));
    // A terminal that goes on anyway still gets GPO answered (no PDOL: any data).
    EXPECT_EQ(sw_of(tx(*card, "80 A8 00 00 0B 83 09 9F7A019F02065F2A02")), "9000");
    card->set_locked(false);
    EXPECT_EQ(sw_of(tx(*card, "00 A4 04 00 08 F04B4F4C54010102")), "9000");
}

TEST(SimCardSelect, DirectoryOfTwoRecordsSecondHoldingTwoEntries) {
    auto card = load("directory_two_records");
    card->power_on();
    const std::string fci = tx(*card, kSelectPse);
    const auto fci_bytes = from_hex(fci.substr(0, fci.size() - 4));
    auto sfi = ber::find(fci_bytes, 0x88);
    ASSERT_TRUE(sfi);
    ASSERT_EQ(sfi->size(), 1u);
    const std::string p2 = to_hex(std::vector<uint8_t>{static_cast<uint8_t>((*sfi)[0] << 3 | 4)});
    const std::string r1 = tx(*card, "00 B2 01 " + p2 + " 00");
    EXPECT_NE(r1.find("4F08F04B4F4C54020101"), std::string::npos);
    const std::string r2 = tx(*card, "00 B2 02 " + p2 + " 00");
    ASSERT_EQ(sw_of(r2), "9000");
    const auto rec = from_hex(r2.substr(0, r2.size() - 4));
    const auto items = ber::parse(rec);
    ASSERT_TRUE(items);
    ASSERT_EQ(items->size(), 1u);
    EXPECT_EQ((*items)[0].tag, 0x70u);
    const auto entries = ber::parse((*items)[0].value);
    ASSERT_TRUE(entries);
    ASSERT_EQ(entries->size(), 2u);
    EXPECT_EQ(ber::to_hex(*ber::find(rec, 0x4F)), "F04B4F4C54020102");  // the first entry of record 2
    EXPECT_EQ(tx(*card, "00 B2 03 " + p2 + " 00"), "6A83");
    // Each application answers with its own PAN.
    for (const auto& [aid, pan] : std::vector<std::pair<std::string, std::string>>{
             {"F04B4F4C54020101", "6299990000010073"},
             {"F04B4F4C54020102", "6299990000010081"},
             {"F04B4F4C54020103", "6299990000010099"}}) {
        SCOPED_TRACE(aid);
        EXPECT_EQ(sw_of(tx(*card, "00 A4 04 00 08 " + aid)), "9000");
        EXPECT_EQ(sw_of(tx(*card, "80 A8 00 00 02 83 00")), "9000");
        EXPECT_NE(tx(*card, "00 B2 01 14 00").find("5A08" + pan), std::string::npos);
    }
}

TEST(SimCardSelect, RetiredCandidateAnswers6A82AndDirectoryNamesTheOther) {
    auto card = load("candidate_missing");
    card->power_on();
    EXPECT_EQ(tx(*card, "00 A4 04 00 08 F04B4F4C54090909"), "6A82");
    tx(*card, kSelectPse);
    EXPECT_NE(tx(*card, "00 B2 01 0C 00").find("4F08F04B4F4C5401010D"), std::string::npos);
    EXPECT_EQ(sw_of(tx(*card, "00 A4 04 00 08 F04B4F4C5401010D")), "9000");
}

// ---------------------------------------------------------------------------
// GET PROCESSING OPTIONS

TEST(SimCardGpo, Format1WithAipAndAfl) {
    auto card = load("pboc_debit");
    card->power_on();
    tx(*card, kSelectDebit);
    EXPECT_EQ(tx(*card, kGpoDebit), hex("80 0E 7C00 08010100 10010101 18010100 9000"));
}

TEST(SimCardGpo, PdolDataOfTheWrongLengthIsRefused) {
    auto card = load("pboc_debit");
    card->power_on();
    tx(*card, kSelectDebit);
    EXPECT_EQ(tx(*card, "80 A8 00 00 02 83 00"), "6700");
    EXPECT_EQ(tx(*card, "80 A8 00 00 0A 83 08 01 000000000100 01"), "6700");
    EXPECT_EQ(tx(*card, "80 A8 00 00 0B 84 09 01 000000000100 0156"), "6A80");  // not template 83
    EXPECT_EQ(tx(*card, "80 A8 00 00 0B 83 09 01 000000000100"), "6700");       // Lc disagrees
    EXPECT_EQ(tx(*card, "80 A8 01 00 0B 83 09 01 000000000100 0156"), "6A86");
}

TEST(SimCardGpo, LengthChecksCanBeSwitchedOff) {
    const std::string profile = R"({"name": "lenient", "atr": "3B 00", "check_dol_lengths": CHECK,
        "applications": [{"aid": "F0 00 00 00 05", "pdol": "9F02 06",
          "records": [{"sfi": 1, "record": 1, "data": {"70": {"8C": "9F37 04"}}}]}]})";
    for (const bool check : {true, false}) {
        std::string text = profile;
        text.replace(text.find("CHECK"), 5, check ? "true" : "false");
        auto card = ProfileCard::load_json(text);
        card->power_on();
        tx(*card, "00 A4 04 00 05 F000000005");
        EXPECT_EQ(sw_of(tx(*card, "80 A8 00 00 02 83 00")), check ? "6700" : "9000");
        if (!check) {
            EXPECT_EQ(sw_of(tx(*card, "80 AE 80 00 02 1122")), "9000");
        }
    }
}

TEST(SimCardGpo, RequiresASelectedApplication) {
    auto card = load("pboc_debit");
    card->power_on();
    EXPECT_EQ(tx(*card, kGpoDebit), "6985");
    tx(*card, kSelectPse);
    EXPECT_EQ(tx(*card, kGpoDebit), "6985");
}

TEST(SimCardGpo, ContactlessPdolWith9F66) {
    auto card = load("qpboc_contactless");
    EXPECT_EQ(to_hex(card->power_on()), "3B8880014B4F4C542D5143507A");
    const std::string fci = tx(*card, "00 A4 04 00 08 F04B4F4C54010106");
    EXPECT_NE(fci.find("9F380E9F66049F02069F37045F2A029A03"), std::string::npos);
    EXPECT_EQ(tx(*card, "80 A8 00 00 15 83 13 F4000000 000000000100 11223344 0156 261115"),
              hex("80 0A 7C00 08010100 10010200 9000"));
}

TEST(SimCardGpo, ContactlessPdolWithout9F66) {
    auto card = load("contactless_pdol_without_9f66");
    card->power_on();
    const std::string fci = tx(*card, "00 A4 04 00 08 F04B4F4C54010107");
    ASSERT_EQ(sw_of(fci), "9000");
    const auto bytes = from_hex(fci.substr(0, fci.size() - 4));
    auto pdol = ber::find(bytes, 0x9F38);
    ASSERT_TRUE(pdol);
    EXPECT_EQ(ber::to_hex(*pdol), "9F0206");
}

TEST(SimCardGpo, Format2Template77) {
    auto card = load("gpo_format2");
    card->power_on();
    tx(*card, "00 A4 04 00 08 F04B4F4C54010108");
    EXPECT_EQ(tx(*card, "80 A8 00 00 02 83 00"), hex("77 13 82 02 7C00 94 08 08010100 10010100 9F 36 02 00 21 9000"));
}

TEST(SimCardGpo, ConfiguredStatus6985) {
    auto card = load("gpo_6985");
    card->power_on();
    tx(*card, "00 A4 04 00 08 F04B4F4C54010109");
    EXPECT_EQ(tx(*card, "80 A8 00 00 02 83 00"), "6985");
    // and without a successful GPO there is no GENERATE AC either
    EXPECT_EQ(tx(*card, "80 AE 80 00 34 " + cdol1_data()), "6985");
}

TEST(SimCardGpo, AflDerivedFromTheRecordsWhenNotGiven) {
    auto card = ProfileCard::load_json(R"({"name": "auto", "atr": "3B 00", "applications": [{
        "aid": "F0 00 00 00 01",
        "records": [
          {"sfi": 1, "record": 1, "data": "70 00"}, {"sfi": 1, "record": 2, "data": "70 00"},
          {"sfi": 1, "record": 4, "data": "70 00"}, {"sfi": 3, "record": 1, "data": "70 00"},
          {"sfi": 11, "record": 1, "data": "70 00"}]}]})");
    card->power_on();
    tx(*card, "00 A4 04 00 05 F000000001");
    EXPECT_EQ(tx(*card, "80 A8 00 00 02 83 00"), hex("80 12 7C00 08010200 08040400 18010100 58010100 9000"));
}

// ---------------------------------------------------------------------------
// READ RECORD

TEST(SimCardRecords, AflRecordsAndMissingOnes) {
    auto card = initiated_debit();
    const std::string r = tx(*card, "00 B2 01 14 00");
    ASSERT_EQ(sw_of(r), "9000");
    const auto rec = from_hex(r.substr(0, r.size() - 4));
    EXPECT_EQ(ber::to_hex(*ber::find(rec, 0x5A)), "6299990000001234560F");
    EXPECT_EQ(ber::to_hex(*ber::find(rec, 0x8C)), "9F02069F03069F1A0295055F2A029A039C019F37049F21039F4E14");
    EXPECT_EQ(ber::to_hex(*ber::find(rec, 0x8D)), "8A029F02069F03069F1A0295055F2A029A039C019F37049F21039F4E14");
    EXPECT_EQ(rec[0], 0x70);
    EXPECT_EQ(rec[1], 0x81);  // long form length: the record is longer than 127 bytes
    EXPECT_EQ(rec.size(), 3u + rec[2]);
    const std::string r1 = tx(*card, "00 B2 01 0C 00");
    const auto rec1 = from_hex(r1.substr(0, r1.size() - 4));
    EXPECT_EQ(ber::to_hex(*ber::find(rec1, 0x57)), "6299990000001234560D30122201234567890F");
    EXPECT_EQ(ber::to_hex(*ber::find(rec1, 0x5F20)), ascii_hex("LI/SIMING"));
    EXPECT_EQ(ber::to_hex(*ber::find(rec1, 0x9F62)), "00");
    EXPECT_EQ(ber::to_hex(*ber::find(rec1, 0x9F61)), ascii_hex("990000198001010012"));
    EXPECT_EQ(ber::to_hex(*ber::find(rec1, 0x9F0B)), "C0EECBBCC3F7");
    EXPECT_TRUE(ber::find(rec1, 0x9F1F));

    EXPECT_EQ(tx(*card, "00 B2 02 14 00"), "6A83");
    EXPECT_EQ(tx(*card, "00 B2 02 0C 00"), "6A83");
    EXPECT_EQ(tx(*card, "00 B2 01 2C 00"), "6A82");  // SFI 5: no such file
    EXPECT_EQ(tx(*card, "00 B2 00 0C 00"), "6A83");
    EXPECT_EQ(tx(*card, "00 B2 01 0D 00"), "6A86");  // P2 not "record number in P1"
}

TEST(SimCardRecords, WrongLeAsksForTheRightOne) {
    auto card = initiated_debit();
    EXPECT_EQ(tx(*card, "00 B2 01 1C 05"), "6C0D");  // SFI 3 record 1 holds 13 bytes
    EXPECT_EQ(tx(*card, "00 B2 01 1C 0D"), hex("70 0B 8F 01 08 9F 32 01 03 9F 4A 01 82 9000"));
}

TEST(SimCardRecords, NoReadRecordWithoutSelection) {
    auto card = load("pboc_debit");
    card->power_on();
    EXPECT_EQ(tx(*card, "00 B2 01 0C 00"), "6985");
}

TEST(SimCardRecords, RecordsInSfi11AndAbove) {
    auto card = load("afl_high_sfi");
    card->power_on();
    tx(*card, "00 A4 04 00 08 F04B4F4C5401010C");
    EXPECT_EQ(tx(*card, "80 A8 00 00 02 83 00"), hex("80 0E 7C00 08010100 58010100 60010200 9000"));
    EXPECT_EQ(tx(*card, "00 B2 01 5C 00"), hex("70 0F 5F 20 08") + ascii_hex("HIGH/SFI") + hex("9F 62 01 00 9000"));
    EXPECT_EQ(tx(*card, "00 B2 02 64 00"), hex("70 04 5F 34 01 02 9000"));
    EXPECT_EQ(tx(*card, "00 B2 03 64 00"), "6A83");
    const std::string r = tx(*card, "00 B2 01 0C 00");
    EXPECT_EQ(r.find("5F20"), std::string::npos);  // the low SFI does not hold the name
}

// ---------------------------------------------------------------------------
// GET DATA

TEST(SimCardGetData, ValuesAndAbsentTags) {
    auto card = initiated_debit();
    EXPECT_EQ(tx(*card, "80 CA 9F 36 00"), hex("9F 36 02 00 1C 9000"));
    EXPECT_EQ(tx(*card, "80 CA 9F 79 00"), hex("9F 79 06 000000012345 9000"));
    EXPECT_EQ(tx(*card, "80 CA 9F 77 00"), hex("9F 77 06 000000100000 9000"));
    EXPECT_EQ(tx(*card, "80 CA 9F 78 00"), hex("9F 78 06 000000050000 9000"));
    EXPECT_EQ(tx(*card, "80 CA 9F 13 00"), hex("9F 13 02 00 19 9000"));
    EXPECT_EQ(tx(*card, "80 CA 9F 4F 00"), "9F4F19" + kStandardLogFormat + "9000");  // 25 bytes
    EXPECT_EQ(tx(*card, "80 CA 9F 6D 00"), "6A88");
    EXPECT_EQ(tx(*card, "80 CA 9F 36 03"), "6C05");
}

TEST(SimCardGetData, DefaultApplicationWhenNothingIsSelected) {
    auto card = load("pboc_debit");
    card->power_on();
    EXPECT_EQ(tx(*card, "80 CA 9F 36 00"), hex("9F 36 02 00 1C 9000"));
}

TEST(SimCardGetData, CardWithoutLogHasNoLogFormat) {
    auto card = load("no_log_entry");
    card->power_on();
    const std::string fci = tx(*card, "00 A4 04 00 08 F04B4F4C54010103");
    ASSERT_EQ(sw_of(fci), "9000");
    const auto bytes = from_hex(fci.substr(0, fci.size() - 4));
    EXPECT_FALSE(ber::find(bytes, 0x9F4D));
    EXPECT_FALSE(ber::find(bytes, 0xBF0C));
    EXPECT_EQ(tx(*card, "80 CA 9F 4F 00"), "6A88");
    EXPECT_EQ(tx(*card, "80 CA 9F 36 00"), hex("9F 36 02 00 1C 9000"));
}

TEST(SimCardGetData, SetterChangesAndRemovesValues) {
    auto card = load("pboc_debit");
    card->power_on();
    card->set_get_data(0x9F79, from_hex("000000000001"));
    EXPECT_EQ(tx(*card, "80 CA 9F 79 00"), hex("9F 79 06 000000000001 9000"));
    card->remove_get_data(0x9F79);
    EXPECT_EQ(tx(*card, "80 CA 9F 79 00"), "6A88");
    EXPECT_THROW(card->set_get_data(0x9F79, {}, from_hex("F000000099")), std::invalid_argument);
    EXPECT_THROW(card->set_get_data(0x9F79, std::vector<uint8_t>(300)), std::invalid_argument);
}

// ---------------------------------------------------------------------------
// Transaction log

TEST(SimCardLog, FiveRecordsInTheStandardLayout) {
    auto card = initiated_debit();
    const std::string merchant = ascii_hex("KOLT TEST SHOP 01") + "000000";
    EXPECT_EQ(tx(*card, "00 B2 01 5C 00"),
              hex("250301 101530 000000010000 000000000000 0156 0156") + merchant + hex("00 0017 9000"));
    for (int r = 1; r <= 5; ++r) {
        SCOPED_TRACE(r);
        const std::string resp = tx(*card, "00 B2 0" + std::to_string(r) + " 5C 00");
        EXPECT_EQ(resp.size(), (45u + 2u) * 2u);
        EXPECT_EQ(sw_of(resp), "9000");
        EXPECT_EQ(resp.substr(resp.size() - 8, 4), "001" + std::string(1, "789AB"[r - 1]));  // ATC
    }
    EXPECT_EQ(tx(*card, "00 B2 06 5C 00"), "6A83");
}

TEST(SimCardLog, EntryAnnouncesMoreRecordsThanPresent) {
    auto card = load("log_short");
    card->power_on();
    const std::string fci = tx(*card, "00 A4 04 00 08 F04B4F4C5401010A");
    EXPECT_NE(fci.find("BF0C059F4D020B0A"), std::string::npos);
    EXPECT_EQ(sw_of(tx(*card, "00 B2 03 5C 00")), "9000");
    EXPECT_EQ(tx(*card, "00 B2 04 5C 00"), "6A83");
    EXPECT_EQ(tx(*card, "00 B2 0A 5C 00"), "6A83");
}

TEST(SimCardLog, FormatBeginningWith9F21) {
    auto card = load("log_format_9f21");
    card->power_on();
    const std::string fci = tx(*card, "00 A4 04 00 08 F04B4F4C5401010B");
    EXPECT_NE(fci.find("9F4D020C02"), std::string::npos);
    EXPECT_EQ(tx(*card, "80 CA 9F 4F 00"), hex("9F 4F 19 9F2103 9A03 9F0206 9F0306 9F1A02 5F2A02 9F4E14 9C01 9F3602 9000"));
    const std::string r = tx(*card, "00 B2 01 64 00");
    EXPECT_EQ(r.substr(0, 12), "101530250301");  // time first, then date
    EXPECT_EQ(r.size(), (45u + 2u) * 2u);
}

TEST(SimCardLog, RecordsFollowACustomFormat) {
    auto card = ProfileCard::load_json(R"({"name": "custom-log", "atr": "3B 00", "applications": [{
        "aid": "F0 00 00 00 02",
        "log": {"sfi": 13, "format": "9A 03 9F02 06 9F4E 04",
                "records": [{"9F02": "0150", "9F4E": {"text": "AB"}, "9A": "260102"}, "00 11 22"]}}]})");
    card->power_on();
    tx(*card, "00 A4 04 00 05 F000000002");
    EXPECT_EQ(tx(*card, "00 B2 01 6C 00"), hex("260102 000000000150 41420000 9000"));
    EXPECT_EQ(tx(*card, "00 B2 02 6C 00"), hex("001122 9000"));
    EXPECT_EQ(tx(*card, "80 CA 9F 4F 00"), hex("9F 4F 08 9A 03 9F02 06 9F4E 04 9000"));
}

// ---------------------------------------------------------------------------
// GENERATE AC, EXTERNAL AUTHENTICATE, scripts

TEST(SimCardCryptogram, ArqcThenTcInFormat1) {
    auto card = initiated_debit();
    const std::string iad = "070101 03A00000 010A010000000000 4B4F4C54";
    EXPECT_EQ(tx(*card, "80 AE 80 00 34 " + cdol1_data()),
              hex("80 1E 80 001C 1A2B3C4D5E6F7081 " + iad + " 9000"));
    EXPECT_EQ(tx(*card, "00 82 00 00 04 11223344"), "6700");  // too short for an ARPC
    EXPECT_EQ(tx(*card, "00 82 01 00 0A 1122334455667788 3030"), "6A86");
    EXPECT_EQ(tx(*card, "00 82 00 00 0A 1122334455667788 3030"), "9000");
    EXPECT_EQ(tx(*card, "80 AE 40 00 36 " + cdol2_data()),
              hex("80 1E 40 001C 1A2B3C4D5E6F7081 " + iad + " 9000"));
    EXPECT_EQ(tx(*card, "80 AE 40 00 36 " + cdol2_data()), "6985");  // the transaction is over
    EXPECT_EQ(tx(*card, "00 82 00 00 0A 1122334455667788 3030"), "6985");
}

TEST(SimCardCryptogram, AacRequestedSecondTime) {
    auto card = initiated_debit();
    tx(*card, "80 AE 80 00 34 " + cdol1_data());
    const std::string r = tx(*card, "80 AE 00 00 36 " + cdol2_data());
    EXPECT_EQ(r.substr(0, 6), "801E00");
}

TEST(SimCardCryptogram, DataMustMatchTheCdol) {
    auto card = initiated_debit();
    EXPECT_EQ(tx(*card, "80 AE 80 00 36 " + cdol2_data()), "6700");  // CDOL2 length for the first
    EXPECT_EQ(tx(*card, "80 AE 80 00 34 " + cdol1_data()).substr(0, 6), "801E80");
    EXPECT_EQ(tx(*card, "80 AE 40 00 34 " + cdol1_data()), "6700");  // CDOL1 length for the second
    EXPECT_EQ(tx(*card, "80 AE C0 00 36 " + cdol2_data()), "6A86");
}

TEST(SimCardCryptogram, NotBeforeGpo) {
    auto card = load("pboc_debit");
    card->power_on();
    tx(*card, kSelectDebit);
    EXPECT_EQ(tx(*card, "80 AE 80 00 34 " + cdol1_data()), "6985");
    EXPECT_EQ(tx(*card, "00 82 00 00 0A 1122334455667788 3030"), "6985");
}

TEST(SimCardCryptogram, PowerOnEndsTheTransaction) {
    auto card = initiated_debit();
    EXPECT_EQ(tx(*card, "80 AE 80 00 34 " + cdol1_data()).substr(0, 6), "801E80");
    card->power_on();
    EXPECT_EQ(tx(*card, "00 82 00 00 0A 1122334455667788 3030"), "6985");
}

TEST(SimCardCryptogram, Format2AndDerivedCryptogram) {
    const std::string profile = R"({"name": "ac2", "atr": "3B 00", "applications": [{
        "aid": "F0 00 00 00 03",
        "records": [{"sfi": 1, "record": 1, "data": {"70": {"8C": "9F37 04", "8D": "8A 02 9F37 04"}}}],
        "get_data": {"9F36": "0042"},
        "generate_ac": {"format": 2, "iad": "0102"}}]})";
    auto run = [&](const std::string& un) {
        auto card = ProfileCard::load_json(profile);
        card->power_on();
        tx(*card, "00 A4 04 00 05 F000000003");
        EXPECT_EQ(tx(*card, "80 A8 00 00 02 83 00"), hex("80 06 7C00 08010100 9000"));
        return tx(*card, "80 AE 80 00 04 " + un);
    };
    const std::string a = run("11223344");
    ASSERT_EQ(sw_of(a), "9000");
    const auto bytes = from_hex(a.substr(0, a.size() - 4));
    EXPECT_EQ(bytes[0], 0x77);
    EXPECT_EQ(ber::to_hex(*ber::find(bytes, 0x9F27)), "80");
    EXPECT_EQ(ber::to_hex(*ber::find(bytes, 0x9F36)), "0042");
    EXPECT_EQ(ber::to_hex(*ber::find(bytes, 0x9F10)), "0102");
    ASSERT_TRUE(ber::find(bytes, 0x9F26));
    EXPECT_EQ(ber::find(bytes, 0x9F26)->size(), 8u);
    EXPECT_EQ(a, run("11223344"));  // deterministic
    EXPECT_NE(a, run("11223345"));  // but depends on the data
}

TEST(SimCardScripts, SecureMessagingCommandsAndPutData) {
    auto card = initiated_debit();
    tx(*card, "80 AE 80 00 34 " + cdol1_data());
    EXPECT_EQ(tx(*card, "84 24 00 00 08 1122334455667788"), "9000");     // PIN change
    EXPECT_EQ(tx(*card, "04 DA 9F 79 0A 000000010000 A1B2C3D4"), "9000");  // PUT DATA
    EXPECT_EQ(tx(*card, "84 DC 01 0C 08 0011223344556677"), "9000");     // UPDATE RECORD
}

TEST(SimCardScripts, ApplicationBlockAndUnblock) {
    auto card = initiated_debit();
    EXPECT_EQ(tx(*card, "84 1E 00 00 04 11223344"), "9000");
    EXPECT_TRUE(card->locked());
    EXPECT_EQ(sw_of(tx(*card, kSelectDebit)), "6283");
    EXPECT_EQ(tx(*card, "84 18 00 00 04 11223344"), "9000");
    EXPECT_FALSE(card->locked());
    EXPECT_EQ(sw_of(tx(*card, kSelectDebit)), "9000");
}

TEST(SimCardScripts, CardBlock) {
    auto card = initiated_debit();
    EXPECT_EQ(tx(*card, "84 16 00 00 04 11223344"), "9000");
    EXPECT_EQ(tx(*card, kSelectDebit), "6A81");
    EXPECT_EQ(tx(*card, kSelectPse), "6A81");
}

TEST(SimCardScripts, NoScriptWithoutSelectedApplication) {
    auto card = load("pboc_debit");
    card->power_on();
    EXPECT_EQ(tx(*card, "84 24 00 00 08 1122334455667788"), "6985");
}

// ---------------------------------------------------------------------------
// Overrides, recording, power

TEST(SimCardOverrides, FromTheProfileByInsAndByPrefix) {
    auto card = ProfileCard::load_json(R"({"name": "ov", "atr": "3B 00",
        "applications": [{"aid": "F0 00 00 00 04", "get_data": {"9F36": "0001", "9F13": "0002"}}],
        "overrides": [
          {"ins": "A8", "sw": "6985"},
          {"prefix": "80 CA 9F 13", "response": "9F 13 02 12 34 90 00", "after": 1, "times": 2}]})");
    card->power_on();
    EXPECT_EQ(sw_of(tx(*card, "00 A4 04 00 05 F000000004")), "9000");
    EXPECT_EQ(tx(*card, "80 A8 00 00 02 83 00"), "6985");
    EXPECT_EQ(tx(*card, "80 CA 9F 13 00"), hex("9F 13 02 00 02 9000"));  // `after` lets one through
    EXPECT_EQ(tx(*card, "80 CA 9F 13 00"), hex("9F 13 02 12 34 9000"));
    EXPECT_EQ(tx(*card, "80 CA 9F 13 00"), hex("9F 13 02 12 34 9000"));
    EXPECT_EQ(tx(*card, "80 CA 9F 13 00"), hex("9F 13 02 00 02 9000"));  // `times` used up
    EXPECT_EQ(tx(*card, "80 CA 9F 36 00"), hex("9F 36 02 00 01 9000"));  // other prefix
}

TEST(SimCardOverrides, FromCodeByInsAndPrefix) {
    auto card = initiated_debit();
    card->override_sw(0xB2, 0x6A83);
    EXPECT_EQ(tx(*card, "00 B2 01 0C 00"), "6A83");
    const auto prefix = from_hex("80 CA 9F 79");
    card->override_sw(prefix, 0x6A88);
    EXPECT_EQ(tx(*card, "80 CA 9F 79 00"), "6A88");
    EXPECT_EQ(tx(*card, "80 CA 9F 36 00"), hex("9F 36 02 00 1C 9000"));
    // the latest override wins
    card->override_sw(0xB2, 0x6281);
    EXPECT_EQ(tx(*card, "00 B2 01 0C 00"), "6281");
    card->clear_overrides();
    EXPECT_EQ(sw_of(tx(*card, "00 B2 01 0C 00")), "9000");
    EXPECT_EQ(sw_of(tx(*card, "80 CA 9F 79 00")), "9000");
}

TEST(SimCardOverrides, SecondGenerateAcFailsOnly) {
    auto card = initiated_debit();
    ResponseOverride o = ResponseOverride::for_ins(0xAE, 0x6985);
    o.after = 1;
    card->add_override(o);
    EXPECT_EQ(tx(*card, "80 AE 80 00 34 " + cdol1_data()).substr(0, 6), "801E80");
    EXPECT_EQ(tx(*card, "80 AE 40 00 36 " + cdol2_data()), "6985");
    EXPECT_THROW(card->add_override(ResponseOverride{}), std::invalid_argument);
    ResponseOverride bad = ResponseOverride::for_ins(0xAE, 0x6985);
    bad.response = {0x90};
    EXPECT_THROW(card->add_override(bad), std::invalid_argument);
}

TEST(SimCardOverrides, ExternalAuthenticateFailure) {
    auto card = initiated_debit();
    card->override_sw(0x82, 0x6300);
    tx(*card, "80 AE 80 00 34 " + cdol1_data());
    EXPECT_EQ(tx(*card, "00 82 00 00 0A 1122334455667788 3030"), "6300");
}

TEST(SimCardRecording, ApdusAndResponsesInOrder) {
    auto card = load("pboc_debit");
    card->power_on();
    EXPECT_TRUE(card->apdus().empty());
    tx(*card, kSelectPse);
    tx(*card, "00 B2 01 0C 00");
    tx(*card, "00 B2 02 0C 00");
    const auto a = card->apdus();
    ASSERT_EQ(a.size(), 3u);
    EXPECT_EQ(to_hex(a[0]), hex(kSelectPse));
    EXPECT_EQ(to_hex(a[1]), "00B2010C00");
    EXPECT_EQ(to_hex(a[2]), "00B2020C00");
    const auto r = card->responses();
    ASSERT_EQ(r.size(), 3u);
    EXPECT_EQ(to_hex(r[2]), "6A83");
    card->clear_apdus();
    EXPECT_TRUE(card->apdus().empty());
    EXPECT_TRUE(card->responses().empty());
    tx(*card, "00 B2 03 0C 00");
    ASSERT_EQ(card->apdus().size(), 1u);
    EXPECT_EQ(to_hex(card->apdus()[0]), "00B2030C00");
}

TEST(SimCardRecording, UnpoweredCardAnswers6F00ButRecords) {
    auto card = load("pboc_debit");
    EXPECT_FALSE(card->powered());
    EXPECT_EQ(tx(*card, kSelectPse), "6F00");
    card->power_on();
    EXPECT_TRUE(card->powered());
    EXPECT_EQ(sw_of(tx(*card, kSelectPse)), "9000");
    card->power_off();
    EXPECT_FALSE(card->powered());
    EXPECT_EQ(tx(*card, "00 B2 01 0C 00"), "6F00");
    EXPECT_EQ(card->apdus().size(), 3u);
}

TEST(SimCardRecording, PowerOnResetsTheSelection) {
    auto card = load("pboc_debit");
    card->power_on();
    tx(*card, kSelectPse);
    EXPECT_EQ(sw_of(tx(*card, "00 B2 01 0C 00")), "9000");
    card->power_on();
    EXPECT_EQ(tx(*card, "00 B2 01 0C 00"), "6985");
}

TEST(SimCardCommands, MalformedAndUnknownCommands) {
    auto card = load("pboc_debit");
    card->power_on();
    EXPECT_EQ(tx(*card, "00 A4 04"), "6700");
    EXPECT_EQ(tx(*card, "00 A4 04 00 08 F04B4F4C"), "6700");  // Lc larger than the data
    EXPECT_EQ(tx(*card, "00 A4 04 00 00"), "6700");
    EXPECT_EQ(tx(*card, "00 C0 00 00 00"), "6D00");
    EXPECT_EQ(tx(*card, "80 50 00 00 08 1122334455667788"), "6D00");
    EXPECT_EQ(tx(*card, "A0 A4 00 00 02 3F00"), "6E00");
    // SELECT with a trailing Le works as well
    EXPECT_EQ(sw_of(tx(*card, kSelectPse + " 00")), "9000");
}

// ---------------------------------------------------------------------------
// Bad profiles

TEST(SimCardProfiles, MalformedProfilesAreRejected) {
    const std::vector<std::string> bad = {
        "",
        "not json",
        "[1, 2]",
        R"({"name": "x", "atr": "3B 00"})",                                          // no applications
        R"({"atr": "3B 00", "applications": []})",                                  // no name
        R"({"name": "x", "applications": []})",                                     // no ATR
        R"({"name": "x", "atr": "3B 0", "applications": []})",                      // odd hex
        R"({"name": "x", "atr": "3B ZZ", "applications": []})",                     // not hex
        R"({"name": "x", "atr": "12 34", "applications": []})",                     // not an ATR
        R"({"name": "x", "atr": "3B 00", "applications": [], "colour": "red"})",    // unknown key
        R"({"name": 5, "atr": "3B 00", "applications": []})",                       // wrong type
        R"({"name": "x", "atr": "3B 00", "interface": "usb", "applications": []})",
        R"({"name": "x", "atr": "3B 00", "applications": {}})",
        R"({"name": "x", "atr": "3B 00", "applications": [{"aid": "F0 00"}]})",     // AID too short
        R"({"name": "x", "atr": "3B 00", "applications": [{"label": "no aid"}]})",
        R"({"name": "x", "atr": "3B 00", "applications": [{"aid": "F000000001"}, {"aid": "F000000001"}]})",
        R"({"name": "x", "atr": "3B 00", "applications": [{"aid": "F000000001",
            "records": [{"sfi": 31, "record": 1, "data": "70 00"}]}]})",             // SFI out of range
        R"({"name": "x", "atr": "3B 00", "applications": [{"aid": "F000000001",
            "records": [{"sfi": 1, "record": 0, "data": "70 00"}]}]})",              // record 0
        R"({"name": "x", "atr": "3B 00", "applications": [{"aid": "F000000001",
            "records": [{"sfi": 1, "record": 1, "data": "70 00"}, {"sfi": 1, "record": 1, "data": "70 00"}]}]})",
        R"({"name": "x", "atr": "3B 00", "applications": [{"aid": "F000000001",
            "records": [{"sfi": 1, "record": 1, "data": {"ZZ": "00"}}]}]})",         // bad tag
        R"({"name": "x", "atr": "3B 00", "applications": [{"aid": "F000000001",
            "records": [{"sfi": 1, "record": 1, "data": {"70": 12}}]}]})",           // bad value
        R"({"name": "x", "atr": "3B 00", "applications": [{"aid": "F000000001",
            "records": [{"sfi": 1, "record": 1.5, "data": "70 00"}]}]})",
        R"({"name": "x", "atr": "3B 00", "applications": [{"aid": "F000000001", "gpo": {"afl": "08 01 01"}}]})",
        R"({"name": "x", "atr": "3B 00", "applications": [{"aid": "F000000001", "gpo": {"afl": "08 02 01 00"}}]})",
        R"({"name": "x", "atr": "3B 00", "applications": [{"aid": "F000000001", "gpo": {"aip": "7C"}}]})",
        R"({"name": "x", "atr": "3B 00", "applications": [{"aid": "F000000001", "gpo": {"format": 3}}]})",
        R"({"name": "x", "atr": "3B 00", "applications": [{"aid": "F000000001", "pdol": "9F"}]})",
        R"({"name": "x", "atr": "3B 00", "applications": [{"aid": "F000000001", "select_sw": "1234"}]})",
        R"({"name": "x", "atr": "3B 00", "applications": [{"aid": "F000000001", "get_data": {"9F36": "XX"}}]})",
        R"({"name": "x", "atr": "3B 00", "applications": [{"aid": "F000000001",
            "log": {"sfi": 11, "records": [{"9F4E": {"text": "THIS MERCHANT NAME IS TOO LONG"}}]}}]})",
        R"({"name": "x", "atr": "3B 00", "applications": [{"aid": "F000000001",
            "log": {"sfi": 11, "records": [{"5A": "12"}]}}]})",                      // not in the format
        R"({"name": "x", "atr": "3B 00", "applications": [{"aid": "F000000001", "log": {"records": []}}]})",
        R"({"name": "x", "atr": "3B 00", "applications": [{"aid": "F000000001", "log": {"sfi": 1},
            "records": [{"sfi": 1, "record": 1, "data": "70 00"}]}]})",              // records in the log file
        R"({"name": "x", "atr": "3B 00", "pse": {"sfi": 0}, "applications": []})",
        R"({"name": "x", "atr": "3B 00", "pse": {"records": [[{"label": "no aid"}]]}, "applications": []})",
        R"({"name": "x", "atr": "3B 00", "pse": {"records": [[{"aid": "F000000001", "priority": 300}]]},
            "applications": []})",
        R"({"name": "x", "atr": "3B 00", "applications": [], "overrides": [{"sw": "6985"}]})",
        R"({"name": "x", "atr": "3B 00", "applications": [], "overrides": [{"ins": "A8"}]})",
        R"({"name": "x", "atr": "3B 00", "applications": [],
            "overrides": [{"ins": "A8", "sw": "6985", "response": "9000"}]})",
    };
    // A record too long for a short response: 70 81 FC and 252 bytes.
    const std::string long_record = R"({"name": "x", "atr": "3B 00", "applications": [{"aid": "F000000001",
        "records": [{"sfi": 1, "record": 1, "data": {"70": ")" + std::string(252 * 2, 'A') + R"("}}]}]})";
    std::vector<std::string> all = bad;
    all.push_back(long_record);
    for (const std::string& text : all) {
        SCOPED_TRACE(text);
        EXPECT_THROW(ProfileCard::load_json(text), std::runtime_error);
    }
    // The largest record that fits is accepted: 70 81 FB and 251 bytes, 254 in all.
    const std::string just_fits = R"({"name": "x", "atr": "3B 00", "applications": [{"aid": "F000000001",
        "records": [{"sfi": 1, "record": 1, "data": {"70": ")" + std::string(251 * 2, 'A') + R"("}}]}]})";
    EXPECT_NO_THROW(ProfileCard::load_json(just_fits));
}

TEST(SimCardProfiles, HugeNumbersAreRejected) {
    EXPECT_THROW(ProfileCard::load_json(R"({"name": "x", "atr": "3B 00", "applications": [{"aid": "F000000001",
        "records": [{"sfi": 1e300, "record": 1, "data": "70 00"}]}]})"), std::runtime_error);
    EXPECT_THROW(ProfileCard::load_json(R"({"name": "x", "atr": "3B 00", "applications": [{"aid": "F000000001",
        "records": [{"sfi": -1e300, "record": 1, "data": "70 00"}]}]})"), std::runtime_error);
}

// Every prefix of a shipped profile either loads or is refused with an
// exception; none crashes.
TEST(SimCardProfiles, TruncatedProfilesNeverCrash) {
    const std::string text = kolt::test::read_file((cards_dir() / "pboc_debit.json").string());
    ASSERT_GT(text.size(), 1000u);
    size_t refused = 0;
    for (size_t n = 0; n < text.size(); ++n) {
        try {
            ProfileCard::load_json(text.substr(0, n));
        } catch (const std::runtime_error&) {
            ++refused;
        }
    }
    // only the whole text (with or without its final newline) is a complete document
    ASSERT_EQ(text.substr(text.size() - 2), "}\n");
    EXPECT_EQ(refused, text.size() - 1);
    EXPECT_NO_THROW(ProfileCard::load_json(text));
}

// Random commands get a status word of their own and never more than a
// short response.
TEST(SimCardCommands, RandomApdusAlwaysGetAnAnswer) {
    uint32_t state = 12345;
    auto next = [&state] {
        state = state * 1103515245u + 12345u;
        return static_cast<uint8_t>(state >> 16);
    };
    for (const char* name : {"pboc_debit", "qpboc_contactless", "app_locked", "directory_two_records"}) {
        auto card = load(name);
        card->power_on();
        for (int i = 0; i < 3000; ++i) {
            std::vector<uint8_t> apdu;
            const uint8_t classes[] = {0x00, 0x80, 0x84, 0x04, next()};
            const uint8_t inss[] = {0xA4, 0xB2, 0xA8, 0xAE, 0xCA, 0x82, 0x1E, 0x18, 0x16, next()};
            apdu.push_back(classes[next() % 5]);
            apdu.push_back(inss[next() % 10]);
            const size_t len = next() % 40;
            for (size_t k = 0; k < len; ++k) apdu.push_back(next());
            if (apdu.size() > 4 && next() % 2) apdu[4] = static_cast<uint8_t>(apdu.size() - 5);
            if (i % 100 == 0) card->power_on();
            const auto r = card->exchange(apdu);
            ASSERT_GE(r.size(), 2u);
            ASSERT_LE(r.size(), 256u);
        }
        EXPECT_EQ(card->apdus().size(), 3000u);
    }
}

TEST(SimCardProfiles, ErrorMessageNamesTheKey) {
    try {
        ProfileCard::load_json(R"({"name": "x", "atr": "3B 00", "applications": [{"aid": "F000000001",
            "records": [{"sfi": 1, "record": 1, "data": "70 0"}]}]})");
        FAIL() << "no exception";
    } catch (const std::runtime_error& e) {
        EXPECT_NE(std::string(e.what()).find("applications[0].records[0].data"), std::string::npos) << e.what();
    }
}

TEST(SimCardProfiles, BadProfileFileIsRejectedWithItsPath) {
    kolt::test::TempDir dir;
    const std::string path = dir.write("broken.json", R"({"name": "x", "atr": "3B 00", "applications": [)");
    try {
        ProfileCard::load_file(path);
        FAIL() << "no exception";
    } catch (const std::runtime_error& e) {
        EXPECT_NE(std::string(e.what()).find("broken.json"), std::string::npos) << e.what();
    }
}

// ---------------------------------------------------------------------------
// BER-TLV helpers of the simulator

TEST(SimCardBer, HexConversion) {
    EXPECT_EQ(ber::from_hex(" 9f 4D\n0a\t"), (std::vector<uint8_t>{0x9F, 0x4D, 0x0A}));
    EXPECT_TRUE(ber::from_hex("").empty());
    EXPECT_THROW(ber::from_hex("9F4"), std::invalid_argument);
    EXPECT_THROW(ber::from_hex("9G"), std::invalid_argument);
    EXPECT_EQ(ber::to_hex(std::vector<uint8_t>{0x00, 0xAB, 0x7F}), "00AB7F");
}

TEST(SimCardBer, EncodeLengthsAndTags) {
    EXPECT_EQ(ber::to_hex(ber::encode(0x9F36, from_hex("001C"))), "9F3602001C");
    EXPECT_EQ(ber::to_hex(ber::encode(0x5A, {})), "5A00");
    EXPECT_EQ(ber::to_hex(ber::length_bytes(127)), "7F");
    EXPECT_EQ(ber::to_hex(ber::length_bytes(128)), "8180");
    EXPECT_EQ(ber::to_hex(ber::length_bytes(255)), "81FF");
    EXPECT_EQ(ber::to_hex(ber::length_bytes(256)), "820100");
    EXPECT_EQ(ber::to_hex(ber::length_bytes(70000)), "83011170");
    EXPECT_EQ(ber::to_hex(ber::tag_bytes(0xBF0C)), "BF0C");
    EXPECT_EQ(ber::to_hex(ber::tag_bytes(0xDF8101)), "DF8101");
    EXPECT_EQ(ber::parse_tag_text("9F4D"), 0x9F4Du);
    EXPECT_EQ(ber::parse_tag_text("DF 81 01"), 0xDF8101u);
    EXPECT_THROW(ber::parse_tag_text("9F"), std::invalid_argument);    // second byte missing
    EXPECT_THROW(ber::parse_tag_text("5A01"), std::invalid_argument);  // one-byte tag with extra
    EXPECT_THROW(ber::parse_tag_text("9F81"), std::invalid_argument);  // continuation never ends
    EXPECT_THROW(ber::parse_tag_text(""), std::invalid_argument);
    EXPECT_TRUE(ber::is_constructed(0x70));
    EXPECT_TRUE(ber::is_constructed(0xBF0C));
    EXPECT_FALSE(ber::is_constructed(0x9F4D));
}

TEST(SimCardBer, ParseAndFind) {
    const auto buf = from_hex("6F 10 84 02 AABB A5 0A 88 01 02 BF 0C 04 9F 4D 01 0B 00 00 9F 36 02 00 1C");
    const auto items = ber::parse(buf);
    ASSERT_TRUE(items);
    ASSERT_EQ(items->size(), 2u);  // padding 00 00 skipped
    EXPECT_EQ((*items)[0].tag, 0x6Fu);
    EXPECT_EQ((*items)[0].size(), 18u);
    EXPECT_EQ((*items)[1].tag, 0x9F36u);
    EXPECT_EQ((*items)[1].offset, 20u);
    EXPECT_EQ(ber::to_hex(*ber::find(buf, 0x9F4D)), "0B");
    EXPECT_EQ(ber::to_hex(*ber::find(buf, 0x88)), "02");
    EXPECT_EQ(ber::to_hex(*ber::find(buf, 0x9F36)), "001C");
    EXPECT_FALSE(ber::find(buf, 0x5A));
    // a primitive value is not searched
    EXPECT_FALSE(ber::find(from_hex("5A 03 9F 36 00"), 0x9F36));
    // long lengths
    std::vector<uint8_t> long_item = from_hex("70 81 80");
    long_item.resize(3 + 128, 0x11);
    ASSERT_TRUE(ber::parse(long_item));
    EXPECT_EQ((*ber::parse(long_item))[0].value.size(), 128u);
    // malformed
    EXPECT_FALSE(ber::parse(from_hex("9F 36 03 00 1C")));  // value past the end
    EXPECT_FALSE(ber::parse(from_hex("9F")));              // tag cut
    EXPECT_FALSE(ber::parse(from_hex("5A 80")));           // indefinite length
    EXPECT_FALSE(ber::parse(from_hex("5A 84 00 00 00 01 00")));
    EXPECT_FALSE(ber::find(from_hex("70 05 5A 01"), 0x5A));
}

TEST(SimCardBer, DataObjectLists) {
    const auto dol = ber::parse_dol(from_hex("9F66 04 9F02 06 9F37 04 5F2A 02 9A 03"));
    ASSERT_TRUE(dol);
    ASSERT_EQ(dol->size(), 5u);
    EXPECT_EQ((*dol)[0].tag, 0x9F66u);
    EXPECT_EQ((*dol)[4].tag, 0x9Au);
    EXPECT_EQ((*dol)[4].length, 3u);
    EXPECT_EQ(ber::dol_length(from_hex("9F66 04 9F02 06 9F37 04 5F2A 02 9A 03")), 19u);
    EXPECT_EQ(ber::dol_length(from_hex("")), 0u);
    EXPECT_FALSE(ber::dol_length(from_hex("9F66")));
    EXPECT_FALSE(ber::dol_length(from_hex("9F66 04 9A")));
}

}  // namespace
