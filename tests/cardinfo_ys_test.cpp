// Card information in the YS convention of the IC_ family, end to end
// through the simulated reader: IC_GetInfo_YS (on a link the caller opened)
// and its wrapper IC_GetInfo. (The log switch from kolt.ini is checked in
// cardinfo_ys_exec_test.cpp.)
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "common/card_flow.hpp"
#include "emv/card_info.hpp"
#include "emv/tags.hpp"
#include "kolt/kolt.h"
#include "kolt_sim/card.hpp"
#include "support/log.hpp"

namespace {

using kolt::sim::Card;
using kolt::test::afl_reads;
using kolt::test::get_data_tags;
using kolt::test::kCardInitError;
using kolt::test::kContactNotInserted;
using kolt::test::kPowerOnError;
using kolt::test::kReadRecordError;
using kolt::test::load_card;
using kolt::test::sent;

// The reference card as IC_GetInfo_YS reports it.
const std::string kPan = "6299990000001234560";
const std::string kCdol1 = "9F02069F03069F1A0295055F2A029A039C019F37049F21039F4E14";

// IC_GetInfo_YS on a link opened the way the IC_ family does it.
struct YsCall {
    int rc = 0;
    std::string out;
    int32_t kind = -5;
    std::vector<uint8_t> appdata;
};

YsCall ys(int ic_type, const char* letters, const char* aid = "") {
    YsCall c;
    EXPECT_EQ(IC_initCom(0, 0), 0);
    std::vector<char> out(4096, 0);
    std::vector<char> app(KOLT_APPDATA_MAX, 0);
    c.rc = IC_GetInfo_YS(ic_type, letters, aid, out.data(), &c.kind, app.data());
    IC_CloseCom(0, 0);
    c.out = std::string(out.data());
    // The block has no terminator of its own: the test buffer was zeroed,
    // and no value of the reference cards holds a zero byte.
    size_t n = KOLT_APPDATA_MAX;
    while (n > 0 && app[n - 1] == 0) --n;
    c.appdata.assign(app.begin(), app.begin() + static_cast<long>(n));
    return c;
}

std::vector<uint8_t> block(const std::vector<std::pair<char, std::vector<uint8_t>>>& items) {
    std::vector<uint8_t> out;
    for (const auto& [letter, value] : items) {
        out.push_back(static_cast<uint8_t>(letter));
        out.push_back(static_cast<uint8_t>(value.size()));
        out.insert(out.end(), value.begin(), value.end());
    }
    return out;
}

std::vector<uint8_t> text(const std::string& s) { return std::vector<uint8_t>(s.begin(), s.end()); }

class YsInfoTest : public kolt::test::SimTest {};

// ---------------------------------------------------------------------------

TEST_F(YsInfoTest, EveryCallerLetterOnTheContactCard) {
    auto card = load_card("pboc_debit.json");
    sim().set_contact_card(card);
    const YsCall c = ys(0, "ABCDEFGHIJKL");
    EXPECT_EQ(c.rc, 0);
    EXPECT_EQ(c.out, "A019" + kPan +                                   // A: 5A
                         "B037" "6299990000001234560=30122201234567890" // B: 57 reformatted
                         "C012000000012345"                             // C: 9F79
                         "D012000000100000"                             // D: 9F77
                         "E006301231"                                   // E: 5F24
                         "F012000000050000"                             // F: 9F78
                         "G00201"                                       // G: 5F34
                         "H000"                                         // H: 9F36, in no record
                         "I00200"                                       // I: 9F62
                         "J018990000198001010012"                       // J: 9F61
                         "K009LI/SIMING"                                // K: 5F20
                         "L006\xC0\xEE\xCB\xBC\xC3\xF7");               // L: 9F0B
    EXPECT_EQ(c.kind, 1);
    // L is never found, so the whole AFL is read: the position after the
    // walk is 3 entries and one past the last record read.
    EXPECT_EQ(c.appdata, block({{'A', text(kPan)},
                                {'J', text("01")},
                                {'Z', text("7C00")},
                                {'3', kolt::test::from_hex(kCdol1)},
                                {'4', kolt::test::from_hex("8A02" + kCdol1)},
                                {'Y', text("0302")}}));
    EXPECT_TRUE(sent(sim(), 0x32, 0x23));
}

TEST_F(YsInfoTest, ContactlessCardReportsKindTwo) {
    auto card = load_card("qpboc_contactless.json");
    sim().set_contactless_card(card);
    const YsCall c = ys(1, "AEG");
    EXPECT_EQ(c.rc, 0);
    EXPECT_EQ(c.out, "A019" "6299990000002468019" "E006291130" "G00201");
    EXPECT_EQ(c.kind, 2);
    EXPECT_TRUE(sent(sim(), 0x32, 0x25));
}

TEST_F(YsInfoTest, SearchListGainsJ) {
    // 5A and 5F34 in different records: a request for A alone still reads
    // on until the PAN sequence number is found, then stops.
    auto card = Card::from_json(R"({
      "name": "split_records", "atr": "3B 02 14 50",
      "pse": {"sfi": 1, "records": [[{"aid": "F0 4B 4F 4C 54 01 01 21"}]]},
      "applications": [{
        "aid": "F0 4B 4F 4C 54 01 01 21",
        "gpo": {"format": 1, "aip": "7C00", "afl": "08010100 10010100 18010100"},
        "records": [
          {"sfi": 1, "record": 1, "data": {"70": {"5A": "6299990000000023"}}},
          {"sfi": 2, "record": 1, "data": {"70": {"5F34": "03"}}},
          {"sfi": 3, "record": 1, "data": {"70": {"5F20": {"text": "LAST/RECORD"}}}}
        ]
      }]})");
    sim().set_contact_card(card);
    const YsCall c = ys(0, "A");
    EXPECT_EQ(c.rc, 0);
    EXPECT_EQ(c.out, "A0166299990000000023");
    const std::vector<std::pair<int, int>> expected{{1, 1}, {1, 2}};
    EXPECT_EQ(afl_reads(*card), expected);
    // Stopped at entry 1, record 1.
    EXPECT_EQ(c.appdata, block({{'A', text("6299990000000023")}, {'J', text("03")}, {'Z', text("7C00")},
                                {'Y', text("0101")}}));

    // The ICRT convention has no such addition: it stops after record 1.
    card->clear_apdus();
    std::vector<char> out(256, 0);
    EXPECT_EQ(KOLT_ICRT_GetICCInfo(0, 1, 0, "", "A", out.data()), 0);
    const std::vector<std::pair<int, int>> icrt{{1, 1}};
    EXPECT_EQ(afl_reads(*card), icrt);
}

TEST_F(YsInfoTest, GetDataTriggersAreTheCallersOwnLetters) {
    auto card = load_card("pboc_debit.json");
    sim().set_contact_card(card);
    // C shows the balance (slot G), but only the caller letter G fetches it.
    YsCall c = ys(0, "C");
    EXPECT_EQ(c.rc, 0);
    EXPECT_EQ(c.out, "C000");
    EXPECT_TRUE(get_data_tags(*card).empty());

    card->clear_apdus();
    c = ys(0, "CG");
    EXPECT_EQ(c.rc, 0);
    EXPECT_EQ(c.out, "C012000000012345G00201");
    const std::vector<int> expected{0x9F79};
    EXPECT_EQ(get_data_tags(*card), expected);
}

TEST_F(YsInfoTest, LettersOutsideTheTableAreNotTranslated) {
    auto card = load_card("pboc_debit.json");
    sim().set_contact_card(card);
    const YsCall c = ys(0, "ZXY");
    EXPECT_EQ(c.rc, 0);
    // Z is the AIP, X the ATC (in no record), Y the position of the walk.
    EXPECT_EQ(c.out, "Z0047C00X000Y0040302");
}

TEST_F(YsInfoTest, AidTextSelectsTheApplication) {
    auto card = load_card("directory_two_records.json");
    sim().set_contact_card(card);
    const YsCall c = ys(0, "A", "F04B4F4C54020101");
    EXPECT_EQ(c.rc, 0);
    ASSERT_GE(c.out.size(), 4u);
    EXPECT_EQ(c.out.substr(c.out.size() - 4), "0073");
}

// Every way the selection fails, folded the IC_ way: -2 and -1 with
// "卡上电错误" and no power-off when the card never came up; -9 with
// "接触方式读卡时卡未插入", or -10 with "卡初始化错误" (a locked application
// too), the card powered off. Neither the card kind nor the application data
// is written. Each failure leaves its lines in the error log.
class YsSelectionFailureTest : public kolt::test::SimTest,
                               public ::testing::WithParamInterface<kolt::test::SelectionFailure> {};

TEST_P(YsSelectionFailureTest, CodeTextAndPowerOff) {
    const kolt::test::SelectionFailure& f = GetParam();
    f.setup(sim());
    kolt::test::DebugLogCapture debug;
    kolt::test::ErrorLogTail errors;
    const YsCall c = ys(0, "A");
    std::vector<std::string> logged;
    switch (f.init) {
    case -12: logged = kolt::test::kNoAnswerInitLogs; break;
    case -1:
        logged = {"IC_GetInfo \xBF\xA8\xC9\xCF\xB5\xE7\xB4\xED\xCE\xF3",  // 卡上电错误
                  "IC_GetInfo KOLT_T41_InitICCardApp flag =-1"};
        break;
    case ICC_Contact_Not_Insert: logged = {"IC_GetInfo KOLT_T41_InitICCardApp flag ICC_Contact_Not_Insert"}; break;
    case -7: logged = {"IC_GetInfo KOLT_T41_InitICCardApp flag =-7"}; break;
    default: logged = {"IC_GetInfo KOLT_T41_InitICCardApp flag not ok =" + std::to_string(f.init)}; break;
    }
    kolt::test::expect_logged(errors.text(), logged);
    switch (f.init) {
    case -12:
    case -1:
        EXPECT_EQ(c.rc, f.init == -12 ? -2 : -1);
        EXPECT_EQ(c.out, kPowerOnError);
        EXPECT_FALSE(sent(sim(), 0x32, 0x23));
        break;
    case ICC_Contact_Not_Insert:
        EXPECT_EQ(c.rc, -9);
        EXPECT_EQ(c.out, kContactNotInserted);
        EXPECT_TRUE(sent(sim(), 0x32, 0x23));
        break;
    default:
        EXPECT_EQ(c.rc, -10);
        EXPECT_EQ(c.out, kCardInitError);
        EXPECT_TRUE(sent(sim(), 0x32, 0x23));
        break;
    }
    EXPECT_EQ(c.kind, -5);  // not set on failure
    EXPECT_TRUE(c.appdata.empty());
}

INSTANTIATE_TEST_SUITE_P(Selection, YsSelectionFailureTest, ::testing::ValuesIn(kolt::test::selection_failures()));

TEST_F(YsInfoTest, FailingReadRecord) {
    auto card = load_card("pboc_debit.json");
    sim().set_contact_card(card);
    kolt::test::fail_read_record(sim(), 3);
    const YsCall c = ys(0, "AL");  // L is never found: SFI 3 is read
    EXPECT_EQ(c.rc, -10);
    EXPECT_EQ(c.out, kReadRecordError);
    EXPECT_TRUE(sent(sim(), 0x32, 0x23));
}

TEST_F(YsInfoTest, TraceWithTheLogSwitchOn) {
    kolt::test::DebugLogCapture debug;
    sim().set_contact_card(load_card("pboc_debit.json"));
    const YsCall c = ys(0, "AB");
    const std::string trace = debug.text();
    EXPECT_EQ(c.rc, 0);
    for (const char* line : {"] IC_GetInfo ICtype = 0\n", "] IC_GetInfo ctagList = AB\n",
                             "] IC_GetInfo myctagList = ABJ\n", "] IC_GetInfo nAFL i=0\n",
                             "] IC_GetInfo AIPAFLBuf j=1\n", "] IC_GetInfo All TagList is finded\n",
                             "] IC_GetInfo nAFL &tagListValue[nIndex][1]=0101\n", "] IC_GetInfo icflag=1\n",
                             "] IC_GetInfo apduTagList i =29\n", "] IC_GetInfo apduTagList value =008d\n",
                             "] IC_GetInfo KOLT_T41_ICC_Poweroff flag=0000\n"}) {
        EXPECT_NE(trace.find(line), std::string::npos) << line;
    }
    EXPECT_NE(trace.find("] IC_GetInfo infoBuf=41 30 31 39 "), std::string::npos);
    EXPECT_NE(trace.find("] IC_GetInfo lpicappdata=41 13 36 32 "), std::string::npos);
}

// ---------------------------------------------------------------------------
// The same multi-letter request on every shipped card, each in its own slot.

class YsShippedCardTest : public kolt::test::SimTest,
                          public ::testing::WithParamInterface<kolt::test::ShippedCard> {};

TEST_P(YsShippedCardTest, MultiLetterRequest) {
    const kolt::test::ShippedCard& c = GetParam();
    auto card = load_card(c.name);
    if (c.contactless) sim().set_contactless_card(card);
    else sim().set_contact_card(card);
    const YsCall call = ys(c.contactless ? 1 : 0, "ABEG");
    if (c.init != 0) {
        // A locked application is a failure in this convention too.
        EXPECT_EQ(call.rc, -10);
        EXPECT_EQ(call.out, kCardInitError);
        return;
    }
    using kolt::test::field;
    std::string track = c.track2.empty() ? "" : c.track2.substr(0, c.track2.size() - 1);
    std::replace(track.begin(), track.end(), 'D', '=');
    EXPECT_EQ(call.rc, 0);
    EXPECT_EQ(call.out, field('A', c.pan) + field('B', track) + field('E', c.expiry) + field('G', c.sequence));
    EXPECT_EQ(call.kind, c.contactless ? 2 : 1);
}

INSTANTIATE_TEST_SUITE_P(Cards, YsShippedCardTest, ::testing::ValuesIn(kolt::test::shipped_cards()));

// ---------------------------------------------------------------------------
// The YS answer format on its own.

TEST(YsFormat, TrackTwoOfTwentyFiveCharacters) {
    kolt::emv::clear_working_state();
    kolt::emv::set_slot_text(kolt::emv::kTrack2, "6299990000001234567D2512F");
    EXPECT_EQ(kolt::emv::ys_format("B"), "B024" "6299990000001234567=2512");
}

TEST(YsFormat, LastCharacterDroppedEvenWhenNotPadding) {
    kolt::emv::clear_working_state();
    kolt::emv::set_slot_text(kolt::emv::kTrack2, "6299990000001234D2512101");
    EXPECT_EQ(kolt::emv::ys_format("B"), "B023" "6299990000001234=251210");
}

TEST(YsFormat, EmptyTrackTwo) {
    kolt::emv::clear_working_state();
    EXPECT_EQ(kolt::emv::ys_format("BA"), "B000A000");
}

// ---------------------------------------------------------------------------
// IC_GetInfo: the port name, IC type counted from 1, folded results.

class IcGetInfoTest : public kolt::test::SimTest {};

// IC_GetInfo with the three ignored integers set, the caller's variables
// preset (IC type as given, output length -7) and an output of 'x'.
struct IcInfoCall {
    int rc = 0;
    int32_t ic_type = 0;
    int32_t len = -7;
    std::vector<char> out = std::vector<char>(1024, 'x');
    std::string text() const { return std::string(out.data()); }
};

IcInfoCall ic_info(const std::string& port, int32_t ic_type, const char* letters) {
    IcInfoCall c;
    c.ic_type = ic_type;
    c.out.back() = '\0';
    c.rc = IC_GetInfo(port.c_str(), 11, 22, 33, &c.ic_type, "", letters, &c.len, c.out.data());
    return c;
}

TEST_F(IcGetInfoTest, ContactCard) {
    sim().set_contact_card(load_card("pboc_debit.json"));
    const std::string port = gPortName;
    std::memset(gPortName, 0, sizeof gPortName);  // the call sets it itself
    const IcInfoCall c = ic_info(port, 1, "AEG");
    EXPECT_EQ(c.rc, 0);
    const std::string expected = "A019" + kPan + "E006301231" + "G00201";
    EXPECT_EQ(c.text(), expected);
    EXPECT_EQ(c.len, static_cast<int32_t>(expected.size()));
    EXPECT_EQ(c.ic_type, 1);
    EXPECT_EQ(std::string(gPortName), port);
}

TEST_F(IcGetInfoTest, ContactlessCard) {
    sim().set_contactless_card(load_card("qpboc_contactless.json"));
    const IcInfoCall c = ic_info(sim().port_name(), 2, "AG");
    EXPECT_EQ(c.rc, 0);
    EXPECT_EQ(c.text(), "A019" "6299990000002468019" "G00201");
    EXPECT_EQ(c.len, 29);
    EXPECT_EQ(c.ic_type, 2);
}

TEST_F(IcGetInfoTest, AutomaticSlot) {
    sim().set_contactless_card(load_card("qpboc_contactless.json"));
    const IcInfoCall c = ic_info(sim().port_name(), 3, "G");
    EXPECT_EQ(c.rc, 0);
    EXPECT_EQ(c.text(), "G00201");
    EXPECT_EQ(c.ic_type, 2);
}

TEST_F(IcGetInfoTest, LowestIcTypeReadsAsContact) {
    sim().set_contact_card(load_card("pboc_debit.json"));
    const IcInfoCall c = ic_info(sim().port_name(), INT32_MIN, "A");
    EXPECT_EQ(c.rc, 0);
    EXPECT_EQ(c.text(), "A019" + kPan);
    EXPECT_EQ(c.ic_type, 1);
}

TEST_F(IcGetInfoTest, FailuresFoldToMinus99) {
    sim().set_contact_card(load_card("app_locked.json"));
    const IcInfoCall c = ic_info(sim().port_name(), 1, "A");
    EXPECT_EQ(c.rc, -99);
    EXPECT_EQ(c.text(), kCardInitError);
    EXPECT_EQ(c.len, -7);
    EXPECT_EQ(c.ic_type, 1);
}

TEST_F(IcGetInfoTest, NoCardFoldsToMinus99) {
    const IcInfoCall c = ic_info(sim().port_name(), 1, "A");
    EXPECT_EQ(c.rc, -99);
    EXPECT_EQ(c.text(), kContactNotInserted);
}

TEST_F(IcGetInfoTest, PortThatCannotBeOpened) {
    const IcInfoCall c = ic_info("kolt-no-such-device", 1, "A");
    EXPECT_EQ(c.rc, -3);
    EXPECT_EQ(c.out[0], 'x');  // nothing written
    EXPECT_EQ(c.len, -7);
    EXPECT_EQ(std::string(gPortName), "kolt-no-such-device");
}

TEST_F(IcGetInfoTest, NullArgumentsDoNotCrash) {
    EXPECT_EQ(IC_GetInfo(nullptr, 0, 0, 0, nullptr, nullptr, nullptr, nullptr, nullptr), -3);
    sim().set_contact_card(load_card("pboc_debit.json"));
    EXPECT_EQ(IC_GetInfo(sim().port_name().c_str(), 0, 0, 0, nullptr, nullptr, nullptr, nullptr, nullptr), 0);
}

TEST_F(IcGetInfoTest, LongPortNameIsCut) {
    EXPECT_EQ(ic_info(std::string(100, 'p'), 1, "A").rc, -3);
    EXPECT_EQ(std::string(gPortName), std::string(31, 'p'));
}

}  // namespace
