// Application selection and initiation, end to end through the simulated
// reader and its cards.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "common/card_flow.hpp"
#include "emv/app_select.hpp"
#include "emv/tags.hpp"
#include "kolt/kolt.h"
#include "kolt_sim/card.hpp"
#include "support/log.hpp"

using kolt::sim::ProfileCard;
using kolt::test::from_hex;
using kolt::test::to_hex;
namespace emv = kolt::emv;

namespace {

std::shared_ptr<ProfileCard> card(const std::string& name) { return kolt::test::load_card(name); }
std::vector<std::string> apdus(const ProfileCard& c) { return kolt::test::apdus_hex(c); }

bool sent_gpo(const ProfileCard& c) {
    const auto all = apdus(c);
    return std::any_of(all.begin(), all.end(), [](const std::string& a) { return a.rfind("80A8", 0) == 0; });
}

const std::string kSelectPse = "00A404000E315041592E5359532E4444463031";

// A card whose directory answers SELECT without an SFI (88).
const char* kPseWithoutSfi = R"({
  "name": "pse_without_sfi",
  "atr": "3B 6C 00 00 4B 4F 4C 54 2D 44 45 42 49 54 30 31",
  "pse": {"fci": "6F 10 84 0E 31 50 41 59 2E 53 59 53 2E 44 44 46 30 31"},
  "applications": [{"aid": "F0 4B 4F 4C 54 01 01 01", "gpo": {"format": 1, "aip": "7C00", "afl": "08010100"}}]
})";

struct Outputs {
    int32_t result = 0;
    uint8_t aip_afl[256];
    int32_t afl_count = -9;
    uint8_t log_entry[256];
    int32_t log_len = -9;
};

class AppSelect : public kolt::test::LinkedSimTest {
protected:
    void SetUp() override {
        LinkedSimTest::SetUp();
        emv::clear_working_state();
        initTagListValue();
    }
    Outputs init(uint32_t slot, const std::vector<uint8_t>* list = nullptr, uint32_t timeout = 3) {
        Outputs o;
        std::memset(o.aip_afl, 0xEE, sizeof o.aip_afl);
        std::memset(o.log_entry, 0, sizeof o.log_entry);
        o.result = KOLT_T41_InitICCardApp(timeout, slot, list ? list->data() : nullptr, o.aip_afl, &o.afl_count,
                                          o.log_entry, &o.log_len);
        return o;
    }
    Outputs init_psbc(uint32_t slot, const char* aid_text) {
        Outputs o;
        o.result = KOLT_T41_InitICCardApp_PSBC(3, slot, aid_text, o.aip_afl, &o.afl_count, o.log_entry, &o.log_len);
        return o;
    }
};

}  // namespace

// --- success ------------------------------------------------------------------

TEST_F(AppSelect, ContactCardThroughTheDirectory) {
    auto c = card("pboc_debit");
    sim().set_contact_card(c);
    const Outputs o = init(0x00);
    EXPECT_EQ(o.result, 0);
    EXPECT_EQ(emv::ssICType, 0x00);
    EXPECT_EQ(apdus(*c), (std::vector<std::string>{
                             kSelectPse,
                             "00B2010C00",
                             "00B2020C00",
                             "00A4040008F04B4F4C54010101",
                             "80A800000B8309" "01" "000000000000" "0156",
                         }));
    EXPECT_EQ(o.afl_count, 3);
    EXPECT_EQ(to_hex(o.aip_afl, 14), "7C00" "08010100" "10010101" "18010100");
    EXPECT_EQ(o.aip_afl[14], 0);  // the rest of the buffer is cleared
    EXPECT_EQ(o.log_len, 2);
    EXPECT_EQ(to_hex(o.log_entry, 2), "0B05");
    EXPECT_EQ(std::string(emv::slot_text(emv::kAip)), "7C00");
}

TEST_F(AppSelect, ContactlessCardGetsTheTerminalValuesInItsPdol) {
    auto c = card("qpboc_contactless");
    sim().set_contactless_card(c);
    emv::set_slot_text(emv::kAmount, "000000000100");
    emv::set_slot_text(emv::kDate, "20261115");
    const Outputs o = init(0xFF);
    EXPECT_EQ(o.result, 0);
    EXPECT_EQ(emv::ssICType, 0xFF);
    const auto random = emv::slot_value(emv::kUnpredictable);
    ASSERT_EQ(random.size(), 4u);
    const std::string gpo = "80A8000015" "8313" "F4000000" "000000000100" + to_hex(random.data(), 4) + "0156" "261115";
    EXPECT_EQ(apdus(*c).back(), gpo);
    EXPECT_EQ(o.afl_count, 2);
}

TEST_F(AppSelect, AutoSlotFallsBackToContactless) {
    auto c = card("qpboc_contactless");
    sim().set_contactless_card(c);
    EXPECT_EQ(init(0x02).result, 0);
    EXPECT_EQ(emv::ssICType, 0xFF);
    // Every command went to the contactless slot.
    for (const auto& cmd : sim().transcript()) {
        if (cmd.cls == 0x32 && cmd.code == 0x26) {
            EXPECT_EQ(cmd.data.at(0), 0xFF);
        }
    }
}

TEST_F(AppSelect, WorkingCandidateSkipsTheDirectory) {
    auto c = card("pboc_debit");
    sim().set_contact_card(c);
    const std::vector<uint8_t> list = from_hex("02  08 F04B4F4C54090909  08 F04B4F4C54010101");
    EXPECT_EQ(init(0x00, &list).result, 0);
    const auto sent = apdus(*c);
    ASSERT_EQ(sent.size(), 3u);
    EXPECT_EQ(sent[0], "00A4040008F04B4F4C54090909");
    EXPECT_EQ(sent[1], "00A4040008F04B4F4C54010101");
    EXPECT_EQ(sent[2].substr(0, 4), "80A8");
}

TEST_F(AppSelect, FailingCandidateFallsBackToTheDirectory) {
    auto c = card("candidate_missing");
    sim().set_contact_card(c);
    const std::vector<uint8_t> list = from_hex("01 08 F04B4F4C54090909");
    EXPECT_EQ(init(0x00, &list).result, 0);
    const auto sent = apdus(*c);
    ASSERT_EQ(sent.size(), 6u);
    EXPECT_EQ(sent[0], "00A4040008F04B4F4C54090909");  // answered 6A82
    EXPECT_EQ(sent[1], kSelectPse);
    EXPECT_EQ(sent[2], "00B2010C00");
    EXPECT_EQ(sent[3], "00B2020C00");
    EXPECT_EQ(sent[4], "00A4040008F04B4F4C5401010D");
    EXPECT_EQ(sent[5].substr(0, 4), "80A8");
}

TEST_F(AppSelect, LockedCandidateMovesOnToTheDirectory) {
    auto c = card("app_locked");
    sim().set_contact_card(c);
    const std::vector<uint8_t> list = from_hex("01 08 F04B4F4C54010102");
    EXPECT_EQ(init(0x00, &list).result, -7);
    const auto sent = apdus(*c);
    ASSERT_GE(sent.size(), 2u);
    EXPECT_EQ(sent[0], "00A4040008F04B4F4C54010102");  // 6283 is not taken
    EXPECT_EQ(sent[1], kSelectPse);
}

TEST_F(AppSelect, FirstEntryOfTheLastDirectoryRecordIsChosen) {
    auto c = card("directory_two_records");
    sim().set_contact_card(c);
    EXPECT_EQ(init(0x00).result, 0);
    const auto sent = apdus(*c);
    ASSERT_EQ(sent.size(), 6u);
    EXPECT_EQ(sent[1], "00B2010C00");
    EXPECT_EQ(sent[2], "00B2020C00");
    EXPECT_EQ(sent[3], "00B2030C00");  // 6A83 ends the walk
    EXPECT_EQ(sent[4], "00A4040008F04B4F4C54020102");
}

TEST_F(AppSelect, ApplicationWithoutLogEntry) {
    sim().set_contact_card(card("no_log_entry"));
    const Outputs o = init(0x00);
    EXPECT_EQ(o.result, 0);
    EXPECT_EQ(o.log_len, -1);
}

TEST_F(AppSelect, CppFormHandsBackTheAfl) {
    sim().set_contact_card(card("pboc_debit"));
    const emv::AppInit a = emv::init_app(3, 0x00, {});
    EXPECT_EQ(a.result, 0);
    EXPECT_EQ(a.afl_entries(), 3);
    EXPECT_EQ(to_hex(a.aip().data(), 2), "7C00");
    EXPECT_EQ(to_hex(a.afl_entry(1).data(), 4), "10010101");
}

TEST_F(AppSelect, StepsAreTracedWhenTheLogIsOn) {
    kolt::test::DebugLogCapture debug;
    sim().set_contactless_card(card("qpboc_contactless"));
    EXPECT_EQ(init(0xFF).result, 0);
    EXPECT_EQ(KOLT_T41_ICC_GetCardAppState(0xFF), 0x9000);
    const std::string log = debug.text();
    for (const char* line : {"KOLT_T41_InitICCardApp CAPDU_Select_1PAYSYSDDF01=0", "KOLT_T41_InitICCardApp cSfi = 1",
                             "KOLT_T41_InitICCardApp x9F x66 9F66049F02069F37045F2A029A03",
                             "KOLT_T41_InitICCardApp nRet=0", "KOLT_T41_IsLockCardApp CAPDU_Select_1PAYSYSDDF01=0",
                             "KOLT_T41_IsLockCardApp cSfi = 1"}) {
        EXPECT_NE(log.find(line), std::string::npos) << line;
    }
}

// --- the PSBC variant -------------------------------------------------------

TEST_F(AppSelect, PsbcCandidateFromHexText) {
    auto c = card("pboc_debit");
    sim().set_contact_card(c);
    const Outputs o = init_psbc(0x00, "F04B4F4C54010101");
    EXPECT_EQ(o.result, 0);
    EXPECT_EQ(apdus(*c).front(), "00A4040008F04B4F4C54010101");
    EXPECT_EQ(apdus(*c).size(), 2u);
    EXPECT_EQ(o.afl_count, 3);
}

TEST_F(AppSelect, PsbcWithoutCandidateUsesTheDirectory) {
    auto c = card("pboc_debit");
    sim().set_contact_card(c);
    EXPECT_EQ(init_psbc(0x00, "").result, 0);
    EXPECT_EQ(apdus(*c).front(), kSelectPse);
    c->clear_apdus();
    EXPECT_EQ(init_psbc(0x00, nullptr).result, 0);
    EXPECT_EQ(apdus(*c).front(), kSelectPse);
}

// --- result codes -------------------------------------------------------------

TEST_F(AppSelect, ContactlessPdolWithout9F66StopsBeforeGpo) {
    auto c = card("contactless_pdol_without_9f66");
    sim().set_contactless_card(c);
    EXPECT_EQ(init(0xFF).result, -5);
    EXPECT_FALSE(sent_gpo(*c));
    EXPECT_EQ(apdus(*c).back(), "00A4040008F04B4F4C54010107");
}

TEST_F(AppSelect, ContactlessWithoutPdolStopsBeforeGpo) {
    auto c = card("gpo_6985");
    sim().set_contactless_card(c);
    EXPECT_EQ(init(0xFF).result, -5);
    EXPECT_FALSE(sent_gpo(*c));
}

TEST_F(AppSelect, GpoInFormatTwoIsMinusSix) {
    sim().set_contact_card(card("gpo_format2"));
    const Outputs o = init(0x00);
    EXPECT_EQ(o.result, -6);
    EXPECT_EQ(o.afl_count, 0);
}

TEST_F(AppSelect, GpoRefusedStillReturnsZero) {
    auto c = card("gpo_6985");
    sim().set_contact_card(c);
    const Outputs o = init(0x00);
    EXPECT_EQ(o.result, 0);
    EXPECT_EQ(o.afl_count, 0);
    EXPECT_TRUE(sent_gpo(*c));
    EXPECT_EQ(emv::tagListValue[emv::kAip][0], 0);
}

TEST_F(AppSelect, LockedContactApplicationSendsTheStandardPdolUnfilled) {
    auto c = card("app_locked");
    sim().set_contact_card(c);
    const Outputs o = init(0x00);
    EXPECT_EQ(o.result, -7);
    EXPECT_EQ(apdus(*c).back(), "80A800000B" "8309" "9F7A019F02065F2A02");
}

TEST_F(AppSelect, LockedContactlessApplicationGoesOnWithItsPdol) {
    auto c = card("qpboc_contactless");
    c->set_locked(true);
    sim().set_contactless_card(c);
    const Outputs o = init(0xFF);
    EXPECT_EQ(o.result, -7);
    EXPECT_EQ(apdus(*c).back().substr(0, 22), "80A80000158313F4000000");
    EXPECT_EQ(o.afl_count, 2);
}

TEST_F(AppSelect, DirectoryApplicationRefusedIsMinusFour) {
    auto c = card("pboc_debit");
    c->override_sw(from_hex("00 A4 04 00 08 F0"), 0x6A81);
    sim().set_contact_card(c);
    EXPECT_EQ(init(0x00).result, -4);
    EXPECT_FALSE(sent_gpo(*c));
}

TEST_F(AppSelect, DirectoryWithoutSfiIsMinusThree) {
    auto c = ProfileCard::load_json(kPseWithoutSfi);
    sim().set_contact_card(c);
    EXPECT_EQ(init(0x00).result, -3);
    EXPECT_EQ(apdus(*c), (std::vector<std::string>{kSelectPse}));
}

TEST_F(AppSelect, NoDirectoryAtAllIsMinusThree) {
    // A card without a directory answers its SELECT with 6A82 alone: the
    // status word is not checked, the missing SFI is what counts.
    const std::string json = R"({"name": "no_pse", "atr": "3B 00",
        "applications": [{"aid": "F0 4B 4F 4C 54 01 01 01"}]})";
    sim().set_contact_card(ProfileCard::load_json(json));
    EXPECT_EQ(init(0x00).result, -3);
}

TEST_F(AppSelect, DirectorySelectDeviceFailureIsMinusTwo) {
    sim().set_contact_card(card("pboc_debit"));
    sim().inject_for(0x32, 0x26, kolt::sim::Fault{kolt::sim::Fault::BadCheck, 0});
    EXPECT_EQ(init(0x00).result, -2);
}

TEST_F(AppSelect, NoContactCardIsPassedThrough) {
    EXPECT_EQ(init(0x00).result, ICC_Contact_Not_Insert);
}

TEST_F(AppSelect, SilentReaderAtPowerOnIsMinusTwelve) {
    sim().set_contact_card(card("pboc_debit"));
    sim().inject_for(0x32, 0x22, kolt::sim::Fault{kolt::sim::Fault::BadCheck, 0});
    EXPECT_EQ(init(0x00).result, -12);
}

TEST_F(AppSelect, CardNotAnsweringAtPowerOnIsMinusTwelve) {
    sim().set_contact_card(card("pboc_debit"));
    sim().set_status(0x32, 0x22, 0x10, 0x06);
    EXPECT_EQ(init(0x00).result, -12);
}

TEST_F(AppSelect, OtherPowerOnFailuresAreMinusOne) {
    sim().set_contact_card(card("pboc_debit"));
    sim().set_status(0x32, 0x22, 0x10, 0x05);
    EXPECT_EQ(init(0x00).result, -1);
    EXPECT_EQ(init(0x05).result, -1);  // not a card slot
    EXPECT_EQ(KOLT_T41_InitICCardApp(3, 0, nullptr, nullptr, nullptr, nullptr, nullptr), Para_Error);
}

// --- application state ----------------------------------------------------------

class AppState : public AppSelect {
protected:
    void power(const std::shared_ptr<ProfileCard>& c) {
        sim().set_contact_card(c);
        int32_t slot = -1;
        ASSERT_EQ(KOLT_T41_ICC_Poweron(0x00, 3, &slot), OK);
        c->clear_apdus();
    }
};

TEST_F(AppState, SelectableApplication) {
    auto c = card("pboc_debit");
    power(c);
    EXPECT_EQ(KOLT_T41_ICC_GetCardAppState(0x00), 0x9000);
    EXPECT_EQ(apdus(*c).back(), "00A4040008F04B4F4C54010101");
}

TEST_F(AppState, LockedApplication) {
    power(card("app_locked"));
    EXPECT_EQ(KOLT_T41_ICC_GetCardAppState(0x00), APDU_App_Locked);
}

TEST_F(AppState, DirectorySelectDeviceFailure) {
    power(card("pboc_debit"));
    sim().inject_for(0x32, 0x26, kolt::sim::Fault{kolt::sim::Fault::BadCheck, 0});
    EXPECT_EQ(KOLT_T41_ICC_GetCardAppState(0x00), -2);
}

TEST_F(AppState, DirectoryWithoutSfi) {
    power(ProfileCard::load_json(kPseWithoutSfi));
    EXPECT_EQ(KOLT_T41_ICC_GetCardAppState(0x00), -3);
}

// --- candidate lists ------------------------------------------------------------

TEST(CandidateList, DecodedWithinItsBytes) {
    const auto list = from_hex("03 02 A0 01 03 B0 02 03 09 C0");
    const auto c = emv::parse_candidates(list);
    ASSERT_EQ(c.size(), 2u);  // the third claims 9 bytes and has 1
    EXPECT_EQ(to_hex(c[0]), "A001");
    EXPECT_EQ(to_hex(c[1]), "B00203");
    EXPECT_TRUE(emv::parse_candidates({}).empty());
    const auto whole = from_hex("02 02 A0 01 03 B0 02 03 FF");
    EXPECT_EQ(emv::candidate_list_bytes(whole.data()).size(), 8u);
    EXPECT_TRUE(emv::candidate_list_bytes(nullptr).empty());
}
