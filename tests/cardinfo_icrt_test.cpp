// Card information in the ICRT and STAR_ conventions, end to end through the
// simulated reader: KOLT_ICRT_GetICCInfo, ICRT_GetICCInfo, STAR_GetInfo,
// KOLT_DoICType and GetSysDate.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "common/card_flow.hpp"
#include "common/pty_util.hpp"
#include "emv/tags.hpp"
#include "kolt/kolt.h"
#include "kolt_sim/card.hpp"

namespace {

using kolt::sim::Card;
using kolt::sim::Fault;
using kolt::test::afl_reads;
using kolt::test::get_data_tags;
using kolt::test::kCardInitError;
using kolt::test::kPortOpenError;
using kolt::test::kPowerOnError;
using kolt::test::kReadRecordError;
using kolt::test::load_card;
using kolt::test::sent;

std::string info(int term_type, int port, int ic_type, const char* aid, const char* letters, int* rc) {
    std::vector<char> out(8192, 0);
    *rc = KOLT_ICRT_GetICCInfo(term_type, port, ic_type, aid, letters, out.data());
    return std::string(out.data());
}

// The reference card's values, as the card profile holds them.
const std::string kPan = "6299990000001234560";                        // 5A without its F pad
const std::string kTrack2 = "6299990000001234560D30122201234567890F";  // 57
const std::string kName = "LI/SIMING";                                 // 5F20

class IcrtInfoTest : public kolt::test::SimTest {};

// ---------------------------------------------------------------------------

TEST_F(IcrtInfoTest, ContactCardMultiLetterRequest) {
    auto card = load_card("pboc_debit.json");
    sim().set_contact_card(card);
    int rc = -1;
    const std::string out = info(0, 1, 0, "", "ABEIJ", &rc);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(out, "A019" + kPan + "B009" + kName + "E038" + kTrack2 + "I006301231" + "J00201");
    // The card is powered off and the link closed afterwards.
    EXPECT_TRUE(sent(sim(), 0x32, 0x23));
}

TEST_F(IcrtInfoTest, WrapperGivesTheSameAnswer) {
    auto card = load_card("pboc_debit.json");
    sim().set_contact_card(card);
    std::vector<char> out(4096, 0);
    EXPECT_EQ(ICRT_GetICCInfo(0, 1, 0, "", "AIJ", out.data()), 0);
    EXPECT_EQ(std::string(out.data()), "A019" + kPan + "I006301231" + "J00201");
}

TEST_F(IcrtInfoTest, ContactlessCardMultiLetterRequest) {
    auto card = load_card("qpboc_contactless.json");
    sim().set_contactless_card(card);
    int rc = -1;
    const std::string out = info(0, 1, 1, "", "ABDEIJ", &rc);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(out, "A019" "6299990000002468019"
                   "B013" "WANG/XIAOHONG"
                   "D018" "990000199205150027"
                   "E038" "6299990000002468019D29112201234567890F"
                   "I006" "291130"
                   "J002" "01");
    EXPECT_TRUE(sent(sim(), 0x32, 0x24));   // contactless power-on
    EXPECT_TRUE(sent(sim(), 0x32, 0x25));   // contactless power-off
    EXPECT_FALSE(sent(sim(), 0x32, 0x22));  // the contact slot is not tried
}

TEST_F(IcrtInfoTest, AutomaticSlotFallsBackToContactless) {
    auto card = load_card("qpboc_contactless.json");
    sim().set_contactless_card(card);
    int rc = -1;
    const std::string out = info(0, 1, 2, "", "AJ", &rc);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(out, "A019" "6299990000002468019" "J002" "01");
    EXPECT_TRUE(sent(sim(), 0x32, 0x22));
    EXPECT_TRUE(sent(sim(), 0x32, 0x24));
    EXPECT_EQ(kolt::emv::ssICType, 255);
}

TEST_F(IcrtInfoTest, EveryShippedDebitLetterOnTheReferenceCard) {
    auto card = load_card("pboc_debit.json");
    sim().set_contact_card(card);
    int rc = -1;
    const std::string out = info(0, 1, 0, "", "CDFMZ", &rc);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(out, "C00200"
                   "D018990000198001010012"
                   "F024" "303030303031323330303030"  // 9F1F text held as hex digits
                   "M006\xC0\xEE\xCB\xBC\xC3\xF7"     // 9F0B raw bytes
                   "Z004" "7C00");                    // AIP from the GPO
}

TEST_F(IcrtInfoTest, TraceWithTheLogSwitchOn) {
    kolt::test::DebugLogCapture debug;
    sim().set_contact_card(load_card("pboc_debit.json"));
    int rc = -1;
    info(0, 1, 0, "", "AJ", &rc);
    const std::string trace = debug.text();
    EXPECT_EQ(rc, 0);
    for (const char* line : {"] KOLT_ICRT_GetICCInfo begin......\n", "] KOLT_ICRT_GetICCInfo ICtype = 0\n",
                             "] KOLT_ICRT_GetICCInfo ctagList = AJ\n",
                             "] KOLT_ICRT_GetICCInfo All TagList is finded\n",
                             "] KOLT_ICRT_GetICCInfo infoBuf=A0196299990000001234560J00201\n",
                             "] getIdCardInfo KOLT_T41_ICC_Poweroff flag=0000\n"}) {
        EXPECT_NE(trace.find(line), std::string::npos) << line;
    }
    EXPECT_NE(trace.find("] KOLT_ICRT_GetICCInfo gFindedTagList2="), std::string::npos);
}

TEST_F(IcrtInfoTest, WalkStopsOnceEveryLetterIsFound) {
    auto card = load_card("pboc_debit.json");
    sim().set_contact_card(card);
    int rc = -1;
    info(0, 1, 0, "", "ABEIJ", &rc);
    ASSERT_EQ(rc, 0);
    // A, I and J come with SFI 2 record 1: SFI 3 is never read.
    const auto reads = afl_reads(*card);
    const std::vector<std::pair<int, int>> expected{{1, 1}, {1, 2}};
    EXPECT_EQ(reads, expected);
}

TEST_F(IcrtInfoTest, LetterTheCardNeverSuppliesReadsEveryRecord) {
    auto card = load_card("pboc_debit.json");
    sim().set_contact_card(card);
    int rc = -1;
    const std::string out = info(0, 1, 0, "", "AO", &rc);  // 9F13 is in no record
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(out, "A019" + kPan + "O000");
    const std::vector<std::pair<int, int>> expected{{1, 1}, {1, 2}, {1, 3}};
    EXPECT_EQ(afl_reads(*card), expected);
}

TEST_F(IcrtInfoTest, UnknownLettersAreReportedEmpty) {
    auto card = load_card("pboc_debit.json");
    sim().set_contact_card(card);
    int rc = -1;
    const std::string out = info(0, 1, 0, "", "LNY?a", &rc);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(out, "L000N000Y000?000a000");
}

TEST_F(IcrtInfoTest, EmptyRequestStopsAfterTheFirstRecord) {
    auto card = load_card("pboc_debit.json");
    sim().set_contact_card(card);
    int rc = -1;
    std::vector<char> out(64, 'x');
    rc = KOLT_ICRT_GetICCInfo(0, 1, 0, "", "", out.data());
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(out[0], '\0');
    const std::vector<std::pair<int, int>> expected{{1, 1}};
    EXPECT_EQ(afl_reads(*card), expected);
}

TEST_F(IcrtInfoTest, HighSfiEntriesAreNeverRead) {
    auto card = load_card("afl_high_sfi.json");
    sim().set_contact_card(card);
    int rc = -1;
    const std::string out = info(0, 1, 0, "", "ABJM", &rc);
    EXPECT_EQ(rc, 0);
    // B (SFI 11), M and J (SFI 12) are on the card but never read.
    EXPECT_EQ(out, "A016" "6299990000010065" "B000" "J000" "M000");
    const std::vector<std::pair<int, int>> expected{{1, 1}};
    EXPECT_EQ(afl_reads(*card), expected);
    for (const auto& [record, sfi] : afl_reads(*card)) EXPECT_LT(sfi, 11);
}

TEST_F(IcrtInfoTest, GetDataTriggerLettersFillOtherSlots) {
    auto card = load_card("pboc_debit.json");
    sim().set_contact_card(card);
    int rc = -1;
    // E fetches 9F79 into G, F fetches 9F77 into H, G fetches 9F78 into K.
    const std::string out = info(0, 1, 0, "", "EFGHK", &rc);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(out, "E038" + kTrack2 + "F024303030303031323330303030" + "G012000000012345" +
                       "H012000000100000" + "K012000000050000");
    const std::vector<int> expected{0x9F79, 0x9F77, 0x9F78};
    EXPECT_EQ(get_data_tags(*card), expected);
}

TEST_F(IcrtInfoTest, BalanceLetterAloneFetchesTheSingleLimit) {
    auto card = load_card("pboc_debit.json");
    sim().set_contact_card(card);
    int rc = -1;
    // G alone triggers 9F78 (into K), not 9F79: the balance stays empty and
    // the whole AFL is read looking for it.
    const std::string out = info(0, 1, 0, "", "G", &rc);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(out, "G000");
    const std::vector<int> expected{0x9F78};
    EXPECT_EQ(get_data_tags(*card), expected);
    EXPECT_EQ(afl_reads(*card).size(), 3u);
    EXPECT_EQ(kolt::emv::slot_text(kolt::emv::kEcSingleLimit), "000000050000");
}

TEST_F(IcrtInfoTest, FailedGetDataIsIgnored) {
    auto card = Card::from_json(R"({
      "name": "no_ec", "atr": "3B 02 14 50",
      "pse": {"sfi": 1, "records": [[{"aid": "F0 4B 4F 4C 54 01 01 31"}]]},
      "applications": [{
        "aid": "F0 4B 4F 4C 54 01 01 31",
        "gpo": {"format": 1, "aip": "7C00", "afl": "08010100"},
        "records": [{"sfi": 1, "record": 1, "data": {"70": {"57": "6299990000000015D301201F", "5A": "6299990000000015"}}}]
      }]})");
    sim().set_contact_card(card);
    int rc = -1;
    const std::string out = info(0, 1, 0, "", "AEG", &rc);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(out, "A0166299990000000015E0246299990000000015D301201FG000");
    EXPECT_EQ(afl_reads(*card).size(), 1u);
}

TEST_F(IcrtInfoTest, LockedApplicationGivesTenWithData) {
    auto card = load_card("app_locked.json");
    sim().set_contact_card(card);
    int rc = -1;
    const std::string out = info(0, 1, 0, "", "AE", &rc);
    EXPECT_EQ(rc, 10);
    EXPECT_EQ(out, "A019" "6299990000005550003" "E038" "6299990000005550003D28062201234567890F");
}

TEST_F(IcrtInfoTest, CandidateListSelectsTheApplication) {
    auto card = load_card("directory_two_records.json");
    sim().set_contact_card(card);
    // count 1, length 8, the AID of the first application.
    const char aid[] = "\x01\x08\xF0\x4B\x4F\x4C\x54\x02\x01\x01";
    int rc = -1;
    const std::string out = info(0, 1, 0, aid, "A", &rc);
    EXPECT_EQ(rc, 0);
    ASSERT_GE(out.size(), 4u);
    EXPECT_EQ(out.substr(out.size() - 4), "0073");
}

// Every way the selection fails: its code minus 10 and "卡初始化错误" with the
// card powered off; a failed power-on -11 and "卡上电错误" with no power-off;
// a locked application 10 with the data.
class IcrtSelectionFailureTest : public kolt::test::SimTest,
                                 public ::testing::WithParamInterface<kolt::test::SelectionFailure> {};

TEST_P(IcrtSelectionFailureTest, CodeTextAndPowerOff) {
    const kolt::test::SelectionFailure& f = GetParam();
    f.setup(sim());
    int rc = -1;
    const std::string out = info(0, 1, 0, "", "A", &rc);
    if (f.init == -1) {
        EXPECT_EQ(rc, -11);
        EXPECT_EQ(out, kPowerOnError);
        EXPECT_FALSE(sent(sim(), 0x32, 0x23));  // the card never came up: no power-off
        return;
    }
    if (f.init == -7) {
        EXPECT_EQ(rc, 10);
        EXPECT_EQ(out, "A019" "6299990000005550003");
    } else {
        EXPECT_EQ(rc, f.init - 10);
        EXPECT_EQ(out, kCardInitError);
    }
    EXPECT_TRUE(sent(sim(), 0x32, 0x23));  // power-off still sent
}

INSTANTIATE_TEST_SUITE_P(Selection, IcrtSelectionFailureTest, ::testing::ValuesIn(kolt::test::selection_failures()));

// The card flows' one test of a real device time-out: the reader never
// answers the power-on, and the flow waits out its time. Other failing
// commands of the flows come as damaged replies (fail_read_record), which
// fail at once with the same result.
TEST_F(IcrtInfoTest, NoReplyFromTheDevice) {
    auto card = load_card("pboc_debit.json");
    sim().set_contact_card(card);
    sim().inject_for(0x32, 0x22, Fault{Fault::NoReply, 0}, 1);
    int rc = -1;
    const std::string out = info(0, 1, 0, "", "A", &rc);
    EXPECT_EQ(rc, -22);
    EXPECT_EQ(out, kCardInitError);
    EXPECT_TRUE(card->apdus().empty());
}

TEST_F(IcrtInfoTest, FailingReadRecord) {
    auto card = load_card("pboc_debit.json");
    sim().set_contact_card(card);
    kolt::test::fail_read_record(sim(), 2);
    int rc = -1;
    const std::string out = info(0, 1, 0, "", "AJ", &rc);
    EXPECT_EQ(rc, -22);
    EXPECT_EQ(out, kReadRecordError);
    EXPECT_TRUE(sent(sim(), 0x32, 0x23));
}

TEST_F(IcrtInfoTest, PortThatCannotBeOpened) {
    std::strcpy(gPortName, "kolt-no-such-device");
    int rc = -1;
    const std::string out = info(0, 1, 0, "", "A", &rc);
    EXPECT_EQ(rc, -21);
    EXPECT_EQ(out, kPortOpenError);
}

TEST_F(IcrtInfoTest, WrapperPassesFailuresThrough) {
    std::strcpy(gPortName, "kolt-no-such-device");
    std::vector<char> out(64, 0);
    EXPECT_EQ(ICRT_GetICCInfo(0, 1, 0, "", "A", out.data()), -21);
    EXPECT_EQ(std::string(out.data()), kPortOpenError);
}

TEST_F(IcrtInfoTest, NullArgumentsDoNotCrash) {
    auto card = load_card("pboc_debit.json");
    sim().set_contact_card(card);
    // No AID list, no letters, no output: an empty request on the card.
    EXPECT_EQ(KOLT_ICRT_GetICCInfo(0, 1, 0, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(STAR_GetInfo(nullptr, nullptr), 0);
}

TEST_F(IcrtInfoTest, LongLetterListIsBounded) {
    auto card = load_card("pboc_debit.json");
    sim().set_contact_card(card);
    const std::string letters(4000, 'J');
    std::vector<char> out(300 * 7, 0);
    const int rc = KOLT_ICRT_GetICCInfo(0, 1, 0, "", letters.c_str(), out.data());
    EXPECT_EQ(rc, 0);
    std::string expected;
    for (int i = 0; i < KOLT_TAG_LETTERS_MAX; ++i) expected += "J00201";
    EXPECT_EQ(std::string(out.data()), expected);
}

// ---------------------------------------------------------------------------
// The same multi-letter request on every shipped card, each in its own slot
// (contact cards with IC type 0, contactless cards with IC type 1).

class ShippedCardTest : public kolt::test::SimTest, public ::testing::WithParamInterface<kolt::test::ShippedCard> {};

TEST_P(ShippedCardTest, MultiLetterRequest) {
    const kolt::test::ShippedCard& c = GetParam();
    auto card = load_card(c.name);
    if (c.contactless) sim().set_contactless_card(card);
    else sim().set_contact_card(card);
    int rc = -1;
    const std::string out = info(0, 1, c.contactless ? 1 : 0, "", "ABEIJ", &rc);
    using kolt::test::field;
    if (c.init == 0 || c.init == -7) {
        // A locked application gives 10, with the data all the same.
        EXPECT_EQ(rc, c.init == 0 ? 0 : 10);
        EXPECT_EQ(out, field('A', c.pan) + field('B', c.holder) + field('E', c.track2) + field('I', c.expiry) +
                           field('J', c.sequence));
    } else {
        EXPECT_EQ(rc, c.init - 10);
        EXPECT_EQ(out, kCardInitError);
    }
}

INSTANTIATE_TEST_SUITE_P(Cards, ShippedCardTest, ::testing::ValuesIn(kolt::test::shipped_cards()));

TEST(ShippedCards, EveryCardProfileIsCovered) {
    std::vector<std::string> names;
    for (const auto& c : kolt::test::shipped_cards()) names.push_back(c.name);
    int files = 0;
    for (const auto& f : std::filesystem::directory_iterator(kolt::sim::ProfileCard::shipped_cards_dir())) {
        if (f.path().extension() != ".json") continue;
        ++files;
        EXPECT_NE(std::find(names.begin(), names.end(), f.path().stem().string()), names.end()) << f.path();
    }
    EXPECT_EQ(files, static_cast<int>(names.size()));
}

// ---------------------------------------------------------------------------
// STAR_GetInfo: terminal type 1 (the teller terminal's auxiliary port),
// contactless, the port in field 2 and the letters in field 4.

TEST(StarGetInfo, ReturnsZeroWithTheTextWhenThePortCannotBeOpened) {
    kolt::test::ScopedStdin null("/dev/null");  // not a terminal: the auxiliary port cannot be set up
    std::vector<char> out(256, 0);
    EXPECT_EQ(STAR_GetInfo("x|1|y|AB", out.data()), 0);
    EXPECT_EQ(std::string(out.data()), kPortOpenError);
}

TEST(StarGetInfo, TracesItsInputAndAnswer) {
    kolt::test::ScopedStdin null("/dev/null");
    kolt::test::DebugLogCapture debug;
    std::vector<char> out(256, 0);
    EXPECT_EQ(STAR_GetInfo("x|7|y|AB", out.data()), 0);
    const std::string trace = debug.text();
    const std::vector<std::string> lines = {"STAR_GetInfo ......", "STAR_GetInfo  datain=x|7|y|AB",
                                            "STAR_GetInfo  iPort=7", "STAR_GetInfo  tagList=AB",
                                            "STAR_GetInfo  strReturn=" + kPortOpenError};
    kolt::test::expect_logged(trace, lines);
}

TEST(StarGetInfo, ReadsTheContactlessCardThroughTheTerminal) {
    kolt::test::TerminalSimulator sim(2);
    sim->set_contactless_card(load_card("qpboc_contactless.json"));
    std::vector<char> out(512, 0);
    EXPECT_EQ(STAR_GetInfo("COM9|2|unused|AIJ", out.data()), 0);
    EXPECT_EQ(std::string(out.data()), "A019" "6299990000002468019" "I006291130" "J00201");
    EXPECT_TRUE(sim->terminal_errors().empty());
    // The terminal's port is switched off again (the close sequence may
    // still be on its way to the simulated terminal).
    EXPECT_TRUE(kolt::test::wait_until([&] { return !sim->aux_open(); }));
}

TEST(StarGetInfo, ReturnsZeroWhenTheCardFails) {
    kolt::test::TerminalSimulator sim(1);  // no card on the field
    std::vector<char> out(512, 0);
    EXPECT_EQ(STAR_GetInfo("|1||A", out.data()), 0);
    EXPECT_EQ(std::string(out.data()), kPowerOnError);
}

TEST(StarGetInfo, OverlongFieldsAreCut) {
    kolt::test::ScopedStdin null("/dev/null");
    std::string input = "x|1|y|" + std::string(5000, 'A');
    std::vector<char> out(256, 0);
    EXPECT_EQ(STAR_GetInfo(input.c_str(), out.data()), 0);
    EXPECT_EQ(std::string(out.data()), kPortOpenError);
}

// ---------------------------------------------------------------------------

TEST(DoICType, MapsTheSixCodesAndSetsTheFlag) {
    const int codes[][2] = {{0, 0}, {20, 0}, {1, 255}, {21, 255}, {2, 2}, {22, 2}};
    for (const auto& c : codes) {
        int32_t flag = 7;
        EXPECT_EQ(KOLT_DoICType(c[0], &flag), c[1]) << c[0];
        EXPECT_EQ(flag, -1) << c[0];
    }
}

TEST(DoICType, OtherCodesAreContactAndLeaveTheFlag) {
    for (int code : {3, -1, 19, 23, 255, 1000}) {
        int32_t flag = 7;
        EXPECT_EQ(KOLT_DoICType(code, &flag), 0) << code;
        EXPECT_EQ(flag, 7) << code;
    }
    EXPECT_EQ(KOLT_DoICType(1, nullptr), 255);
}

TEST(GetSysDate, WritesFourteenDigitsOfLocalTime) {
    char buf[64];
    std::memset(buf, 'x', sizeof buf);
    const std::time_t before = std::time(nullptr);
    EXPECT_EQ(GetSysDate(buf), 0);
    const std::time_t after = std::time(nullptr);
    ASSERT_EQ(std::strlen(buf), 14u);
    for (int i = 0; i < 14; ++i) EXPECT_TRUE(buf[i] >= '0' && buf[i] <= '9');
    auto stamp = [](std::time_t t) {
        std::tm tm{};
        localtime_r(&t, &tm);
        char s[32];
        std::strftime(s, sizeof s, "%Y%m%d%H%M%S", &tm);
        return std::string(s);
    };
    const std::string got(buf);
    EXPECT_TRUE(got == stamp(before) || got == stamp(after)) << got;
}

}  // namespace
