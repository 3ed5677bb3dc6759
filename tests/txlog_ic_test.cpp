// Transaction log in the IC_ convention: IC_GetTxDetail on a link the
// caller opened, with its binary header (record count, record length),
// end to end through the simulated reader.
#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <string>
#include <vector>

#include "common/card_flow.hpp"
#include "kolt/kolt.h"
#include "kolt_sim/card.hpp"

namespace {

using kolt::sim::Card;
using kolt::test::kLogFormatError;
using kolt::test::kReadRecordError;
using kolt::test::load_card;
using kolt::test::log_record;
using kolt::test::sent;

int log_reads(const Card& card, int sfi) { return static_cast<int>(kolt::test::reads_of_sfi(card, sfi).size()); }

struct TxCall {
    int rc = 0;
    std::vector<char> out;
    int32_t kind = -5;
    // The output's text after the two header bytes.
    std::string records() const { return std::string(out.data() + 2); }
};

// IC_GetTxDetail on a link opened the way the IC_ family does it; the
// output is filled with 'x' beforehand so that untouched bytes show.
TxCall tx(int ic_type, const char* aid = nullptr) {
    TxCall c;
    c.out.assign(KOLT_TXLOG_MAX, 'x');
    EXPECT_EQ(IC_initCom(0, 0), 0);
    c.rc = IC_GetTxDetail(ic_type, aid, c.out.data(), &c.kind);
    IC_CloseCom(0, 0);
    return c;
}

// A complete log of n records of 106 characters: result 0, the count and the
// record length in the two header bytes, the records after them.
void expect_log(const TxCall& c, int n) {
    EXPECT_EQ(c.rc, 0);
    EXPECT_EQ(c.out[0], n);
    EXPECT_EQ(c.out[1], 106);
    EXPECT_EQ(c.records().size(), static_cast<size_t>(n) * 106);
}

class IcTxDetailTest : public kolt::test::SimTest {};

TEST_F(IcTxDetailTest, ReferenceCard) {
    auto card = load_card("pboc_debit.json");
    sim().set_contact_card(card);
    const TxCall c = tx(1);
    expect_log(c, 5);
    const std::string records = c.records();
    ASSERT_EQ(records.size(), 5u * 106);
    EXPECT_EQ(records.substr(0, 106), log_record("000000010000", "250301", "00", "101530", "KOLT TEST SHOP 01", 23));
    EXPECT_EQ(records.substr(4 * 106), log_record("000000100000", "260114", "60", "111111", "KOLT EC LOAD", 27));
    EXPECT_EQ(c.kind, 1);
    EXPECT_TRUE(sent(sim(), 0x32, 0x23));
}

TEST_F(IcTxDetailTest, LowestIcTypeReadsAsContact) {
    sim().set_contact_card(load_card("pboc_debit.json"));
    const TxCall c = tx(INT32_MIN);  // one less wraps round: not one of the six codes
    expect_log(c, 5);
    EXPECT_EQ(c.kind, 1);
}

TEST_F(IcTxDetailTest, NullArgumentsDoNotCrash) {
    sim().set_contact_card(load_card("pboc_debit.json"));
    ASSERT_EQ(IC_initCom(0, 0), 0);
    EXPECT_EQ(IC_GetTxDetail(1, nullptr, nullptr, nullptr), 0);
    IC_CloseCom(0, 0);
}

TEST_F(IcTxDetailTest, TraceWithTheLogSwitchOn) {
    kolt::test::DebugLogCapture debug;
    sim().set_contact_card(load_card("log_short.json"));
    const TxCall c = tx(1);
    const std::string trace = debug.text();
    EXPECT_EQ(c.rc, 0);
    for (const char* line : {"] IC_GetTxDetail begin......\n", "] IC_GetTxDetail ICtype = 0\n",
                             "] IC_GetTxDetail nTxDetailDataLen =320\n", "] IC_GetTxDetail TxDetail =03 6a 50 30 31 32 ",
                             "] IC_GetTxDetail psbcICType=1\n", "] IC_GetTxDetail KOLT_T41_ICC_Poweroff flag=0\n",
                             "] IC_GetTxDetail KOLT_T41_ICC_Comm_Read_Record rApduBuf=6a 83 \n"}) {
        EXPECT_NE(trace.find(line), std::string::npos) << line;
    }
}

TEST_F(IcTxDetailTest, ContactlessCard) {
    auto card = load_card("qpboc_contactless.json");
    sim().set_contactless_card(card);
    const TxCall c = tx(2);
    expect_log(c, 3);
    EXPECT_EQ(c.kind, 2);
}

TEST_F(IcTxDetailTest, BinaryCandidateList) {
    auto card = load_card("pboc_debit.json");
    sim().set_contact_card(card);
    const char aid[] = "\x01\x08\xF0\x4B\x4F\x4C\x54\x01\x01\x01";
    const TxCall c = tx(1, aid);
    EXPECT_EQ(c.rc, 0);
    EXPECT_EQ(c.out[0], 5);
}

TEST_F(IcTxDetailTest, TenAnnouncedThreePresent) {
    auto card = load_card("log_short.json");
    sim().set_contact_card(card);
    const TxCall c = tx(1);
    expect_log(c, 3);
    EXPECT_EQ(log_reads(*card, 11), 4);
}

TEST_F(IcTxDetailTest, EmptyLog) {
    auto card = Card::from_json(R"({
      "name": "empty_log", "atr": "3B 02 14 50",
      "pse": {"sfi": 1, "records": [[{"aid": "F0 4B 4F 4C 54 01 01 51"}]]},
      "applications": [{
        "aid": "F0 4B 4F 4C 54 01 01 51",
        "gpo": {"format": 1, "aip": "7C00", "afl": "08010100"},
        "records": [{"sfi": 1, "record": 1, "data": {"70": {"5A": "6299990000000056"}}}],
        "log": {"sfi": 11, "announced": 4, "records": []}
      }]})");
    sim().set_contact_card(card);
    const TxCall c = tx(1);
    EXPECT_EQ(c.rc, 0);
    EXPECT_EQ(c.out[0], 0);
    EXPECT_EQ(c.out[1], 0);
    EXPECT_EQ(c.kind, 1);
}

TEST_F(IcTxDetailTest, NoLogEntry) {
    sim().set_contact_card(load_card("no_log_entry.json"));
    const TxCall c = tx(1);
    EXPECT_EQ(c.rc, -10);
    EXPECT_EQ(c.out[0], 'x');
    EXPECT_TRUE(sent(sim(), 0x32, 0x23));
}

TEST_F(IcTxDetailTest, LogFormatNotAvailable) {
    auto card = load_card("pboc_debit.json");
    card->remove_get_data(0x9F4F);
    sim().set_contact_card(card);
    const TxCall c = tx(1);
    EXPECT_EQ(c.rc, -10);
    EXPECT_EQ(std::string(c.out.data()), kLogFormatError);
    EXPECT_EQ(log_reads(*card, 11), 0);
}

TEST_F(IcTxDetailTest, FormatBeginningWithTime) {
    auto card = load_card("log_format_9f21.json");
    sim().set_contact_card(card);
    const TxCall c = tx(1);
    EXPECT_EQ(c.rc, -10);
    EXPECT_EQ(c.out[0], 'x');
    EXPECT_EQ(log_reads(*card, 12), 0);
}

TEST_F(IcTxDetailTest, FailingReadRecordGivesTen) {
    auto card = load_card("pboc_debit.json");
    sim().set_contact_card(card);
    kolt::test::fail_read_record(sim(), 11, 2);  // record 2 of the log: a damaged reply
    const TxCall c = tx(1);
    EXPECT_EQ(c.rc, 10);
    EXPECT_EQ(std::string(c.out.data()), kReadRecordError);
    EXPECT_EQ(c.kind, -5);
    EXPECT_TRUE(sent(sim(), 0x32, 0x23));
}

// Every way the selection fails, folded as in the card information of the
// IC_ family (-2, -1 without power-off; -9; -10, a locked application too),
// but with nothing written into the output and no card kind. Each failure
// leaves its lines in the error log.
class IcTxSelectionFailureTest : public kolt::test::SimTest,
                                 public ::testing::WithParamInterface<kolt::test::SelectionFailure> {};

TEST_P(IcTxSelectionFailureTest, CodeAndPowerOff) {
    const kolt::test::SelectionFailure& f = GetParam();
    f.setup(sim());
    kolt::test::DebugLogCapture debug;
    kolt::test::ErrorLogTail errors;
    const TxCall c = tx(1);
    std::vector<std::string> logged;
    switch (f.init) {
    case -12: logged = kolt::test::kNoAnswerInitLogs; break;
    case -1:
        logged = {"IC_GetTxDetail \xBF\xA8\xC9\xCF\xB5\xE7\xB4\xED\xCE\xF3",  // 卡上电错误
                  "IC_GetTxDetail KOLT_T41_InitICCardApp flag =-1"};
        break;
    case ICC_Contact_Not_Insert: logged = {"IC_GetTxDetail KOLT_T41_InitICCardApp ICC_Contact_Not_Insert "}; break;
    case -7: logged = {"IC_GetTxDetail KOLT_T41_InitICCardApp flag =-7"}; break;
    default:
        logged = {"IC_GetTxDetail KOLT_T41_InitICCardApp not ok flag=" + std::to_string(f.init),
                  "IC_GetTxDetail KOLT_T41_InitICCardApp not ok"};
        break;
    }
    kolt::test::expect_logged(errors.text(), logged);
    const bool came_up = f.init != -12 && f.init != -1;
    switch (f.init) {
    case -12: EXPECT_EQ(c.rc, -2); break;
    case -1: EXPECT_EQ(c.rc, -1); break;
    case ICC_Contact_Not_Insert: EXPECT_EQ(c.rc, -9); break;
    default: EXPECT_EQ(c.rc, -10); break;
    }
    EXPECT_EQ(c.out[0], 'x');  // no text
    EXPECT_EQ(c.kind, -5);
    EXPECT_EQ(sent(sim(), 0x32, 0x23), came_up);
}

INSTANTIATE_TEST_SUITE_P(Selection, IcTxSelectionFailureTest, ::testing::ValuesIn(kolt::test::selection_failures()));

}  // namespace
