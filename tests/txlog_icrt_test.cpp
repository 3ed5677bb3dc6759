// Transaction log in the ICRT, STAR_ and IC_GetTranDeta conventions, end to
// end through the simulated reader: KOLT_ICRT_GetTrDetail, ICRT_GetTxDetail,
// ICRT_GetTrDetail, STAR_GetTxDetail and IC_GetTranDeta.
#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "common/card_flow.hpp"
#include "common/pty_util.hpp"
#include "kolt/kolt.h"
#include "kolt_sim/card.hpp"

namespace {

using kolt::sim::Card;
using kolt::test::kLogFormatError;
using kolt::test::kNoLogEntry;
using kolt::test::kPortOpenError;
using kolt::test::kPowerOnError;
using kolt::test::kReadRecordError;
using kolt::test::card_with_log;
using kolt::test::load_card;
using kolt::test::log_record;
using kolt::test::reads_of_sfi;
using kolt::test::sent;

// The log of the reference card, oldest first.
const std::vector<std::string> kDebitLog = {
    log_record("000000010000", "250301", "00", "101530", "KOLT TEST SHOP 01", 0x17),
    log_record("000000002550", "250415", "00", "142205", "KOLT CANTEEN", 0x18),
    log_record("000000050000", "250620", "01", "090012", "KOLT BRANCH ATM 7", 0x19),
    log_record("000000000899", "251102", "00", "183047", "KOLT BOOKSTORE", 0x1A),
    log_record("000000100000", "260114", "60", "111111", "KOLT EC LOAD", 0x1B),
};

std::string joined(const std::vector<std::string>& records, size_t n) {
    std::string s;
    for (size_t i = 0; i < n; ++i) s += records[i];
    return s;
}

std::string core(int ic_type, int* rc, const char* aid = "") {
    std::vector<char> out(KOLT_TXLOG_MAX, 0);
    *rc = KOLT_ICRT_GetTrDetail(0, 1, ic_type, aid, out.data());
    return std::string(out.data());
}

class TxLogTest : public kolt::test::SimTest {};

// ---------------------------------------------------------------------------
// KOLT_ICRT_GetTrDetail and ICRT_GetTxDetail.

TEST_F(TxLogTest, ReadsEveryRecordOfTheReferenceCard) {
    auto card = load_card("pboc_debit.json");
    sim().set_contact_card(card);
    int rc = -1;
    const std::string out = core(0, &rc);
    EXPECT_EQ(rc, 5);
    EXPECT_EQ(out, "106" + joined(kDebitLog, 5));
    const std::vector<std::pair<int, int>> expected{{1, 11}, {2, 11}, {3, 11}, {4, 11}, {5, 11}};
    EXPECT_EQ(reads_of_sfi(*card, 11), expected);
    EXPECT_TRUE(sent(sim(), 0x32, 0x23));
}

TEST_F(TxLogTest, OneRecordLiterally) {
    auto card = load_card("pboc_debit.json");
    sim().set_contact_card(card);
    int rc = -1;
    const std::string out = core(0, &rc);
    ASSERT_EQ(rc, 5);
    EXPECT_EQ(out.substr(0, 3 + 106),
              "106P012000000010000Q012000000000000R0040156S006250301T00200U006101530V0040156"
              "W020KOLT TEST SHOP 01   X0040023");
}

TEST_F(TxLogTest, WrapperGivesTheSameAnswer) {
    auto card = load_card("pboc_debit.json");
    sim().set_contact_card(card);
    std::vector<char> out(KOLT_TXLOG_MAX, 0);
    EXPECT_EQ(ICRT_GetTxDetail(0, 1, 0, "", out.data()), 5);
    EXPECT_EQ(std::string(out.data()), "106" + joined(kDebitLog, 5));
}

TEST_F(TxLogTest, WrapperPassesFailuresThrough) {
    sim().set_contact_card(load_card("no_log_entry.json"));
    std::vector<char> out(64, 0);
    EXPECT_EQ(ICRT_GetTxDetail(0, 1, 0, "", out.data()), -10);
    EXPECT_EQ(std::string(out.data()), kNoLogEntry);
}

TEST_F(TxLogTest, NullArgumentsDoNotCrash) {
    sim().set_contact_card(load_card("pboc_debit.json"));
    EXPECT_EQ(KOLT_ICRT_GetTrDetail(0, 1, 0, nullptr, nullptr), 5);
    EXPECT_EQ(ICRT_GetTrDetail(0, 1, 0, 1, nullptr, nullptr), 0);
    EXPECT_EQ(IC_GetTranDeta(nullptr, 0, 0, 0, nullptr, nullptr, nullptr, nullptr), -99);
}

TEST_F(TxLogTest, TraceWithTheLogSwitchOn) {
    kolt::test::DebugLogCapture debug;
    sim().set_contact_card(load_card("log_short.json"));
    int rc = -1;
    core(0, &rc);
    const std::string trace = debug.text();
    EXPECT_EQ(rc, 3);
    for (const char* line : {"] KOLT_ICRT_GetTrDetail begin......\n", "] KOLT_ICRT_GetICCInfo ICtype = 0\n",
                             "] KOLT_ICRT_GetTrDetail KOLT_T41_ICC_GetData oneTagValue =19 9a 03 9f 21 03 ",
                             "] KOLT_ICRT_GetTrDetail nTxDetailDataLen =321\n",
                             "] KOLT_ICRT_GetTrDetail &TxDetail[nIndex] =P012000000010000Q012",
                             "] KOLT_ICRT_GetTrDetail KOLT_T41_ICC_Poweroff flag=0\n"}) {
        EXPECT_NE(trace.find(line), std::string::npos) << line;
    }
}

TEST_F(TxLogTest, ContactlessCard) {
    auto card = load_card("qpboc_contactless.json");
    sim().set_contactless_card(card);
    int rc = -1;
    const std::string out = core(1, &rc);
    EXPECT_EQ(rc, 3);
    ASSERT_EQ(out.size(), 3u + 3 * 106);
    EXPECT_EQ(out.substr(0, 3 + 106),
              "106" + log_record("000000000600", "251201", "00", "080102", "KOLT METRO GATE 3", 6));
}

TEST_F(TxLogTest, TenAnnouncedThreePresent) {
    auto card = load_card("log_short.json");
    sim().set_contact_card(card);
    int rc = -1;
    const std::string out = core(0, &rc);
    EXPECT_EQ(rc, 3);
    EXPECT_EQ(out, "106" + joined(kDebitLog, 3));
    // READ RECORD 4 answered 6A83 and ended the walk.
    const std::vector<std::pair<int, int>> expected{{1, 11}, {2, 11}, {3, 11}, {4, 11}};
    EXPECT_EQ(reads_of_sfi(*card, 11), expected);
}

TEST_F(TxLogTest, FormatBeginningWithDatePassesWhateverFollows) {
    auto card = Card::from_json(R"({
      "name": "date_first", "atr": "3B 02 14 50",
      "pse": {"sfi": 1, "records": [[{"aid": "F0 4B 4F 4C 54 01 01 42"}]]},
      "applications": [{
        "aid": "F0 4B 4F 4C 54 01 01 42",
        "gpo": {"format": 1, "aip": "7C00", "afl": "08010100"},
        "records": [{"sfi": 1, "record": 1, "data": {"70": {"5A": "6299990000000049"}}}],
        "log": {"sfi": 11, "format": "9A 03 9F 36 02", "records": ["250301 0017"]}
      }]})");
    sim().set_contact_card(card);
    int rc = -1;
    const std::string out = core(0, &rc);
    EXPECT_EQ(rc, 1);
    // The record is read in the standard layout whatever the card's format.
    EXPECT_EQ(out, "106P012000000000000Q012000000000000R0040000S006250301T00200U006001700V0040000W020" +
                       std::string(20, ' ') + "X0040000");
}

TEST_F(TxLogTest, FormatBeginningWithTimeFails) {
    auto card = load_card("log_format_9f21.json");
    sim().set_contact_card(card);
    std::vector<char> out(64, 'x');
    EXPECT_EQ(KOLT_ICRT_GetTrDetail(0, 1, 0, "", out.data()), -23);
    EXPECT_EQ(out[0], 'x');  // no text
    EXPECT_TRUE(reads_of_sfi(*card, 12).empty());
    EXPECT_TRUE(sent(sim(), 0x32, 0x23));
}

TEST_F(TxLogTest, LogFormatNotAvailable) {
    auto card = load_card("pboc_debit.json");
    card->remove_get_data(0x9F4F);
    sim().set_contact_card(card);
    int rc = -1;
    const std::string out = core(0, &rc);
    EXPECT_EQ(rc, -23);
    EXPECT_EQ(out, kLogFormatError);
    EXPECT_TRUE(sent(sim(), 0x32, 0x23));
}

TEST_F(TxLogTest, NoLogEntry) {
    auto card = load_card("no_log_entry.json");
    sim().set_contact_card(card);
    int rc = -1;
    const std::string out = core(0, &rc);
    EXPECT_EQ(rc, -10);
    EXPECT_EQ(out, kNoLogEntry);
    EXPECT_TRUE(sent(sim(), 0x32, 0x23));
}

TEST_F(TxLogTest, LockedApplicationStillGivesItsLog) {
    // Whatever the selection reports, only the log entry decides: the
    // locked contactless application still names its log.
    auto card = load_card("qpboc_contactless.json");
    card->set_locked(true);
    sim().set_contactless_card(card);
    int rc = -1;
    const std::string out = core(1, &rc);
    EXPECT_EQ(rc, 3);
    EXPECT_EQ(out.size(), 3u + 3 * 106);
}

TEST_F(TxLogTest, EmptyLog) {
    auto card = card_with_log(0, 2);
    sim().set_contact_card(card);
    int rc = -1;
    const std::string out = core(0, &rc);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(out, "000");
}

TEST_F(TxLogTest, RecordsBeyondTheOutputAreNotRead) {
    auto card = card_with_log(25, 25);
    sim().set_contact_card(card);
    int rc = -1;
    const std::string out = core(0, &rc);
    EXPECT_EQ(rc, 19);
    EXPECT_EQ(out.size(), 3u + 19 * 106);
    EXPECT_EQ(reads_of_sfi(*card, 11).size(), 19u);
}

TEST_F(TxLogTest, FailingReadRecord) {
    auto card = load_card("pboc_debit.json");
    sim().set_contact_card(card);
    kolt::test::fail_read_record(sim(), 11);
    int rc = -1;
    const std::string out = core(0, &rc);
    EXPECT_EQ(rc, Revdata_Error - 22);
    EXPECT_EQ(out, kReadRecordError);
    EXPECT_TRUE(sent(sim(), 0x32, 0x23));
}

// Every way the selection fails: only a failed power-on ends the call at
// once (-11, "卡上电错误", no power-off); otherwise the selection left no log
// entry (a locked contact application goes on without reading its FCI), so
// its code minus 10 and "没有交易记录文件入口", the card powered off.
class TxSelectionFailureTest : public kolt::test::SimTest,
                               public ::testing::WithParamInterface<kolt::test::SelectionFailure> {};

TEST_P(TxSelectionFailureTest, CodeTextAndPowerOff) {
    const kolt::test::SelectionFailure& f = GetParam();
    f.setup(sim());
    int rc = -1;
    const std::string out = core(0, &rc);
    if (f.init == -1) {
        EXPECT_EQ(rc, -11);
        EXPECT_EQ(out, kPowerOnError);
        EXPECT_FALSE(sent(sim(), 0x32, 0x23));
    } else {
        EXPECT_EQ(rc, f.init - 10);
        EXPECT_EQ(out, kNoLogEntry);
        EXPECT_TRUE(sent(sim(), 0x32, 0x23));
    }
}

INSTANTIATE_TEST_SUITE_P(Selection, TxSelectionFailureTest, ::testing::ValuesIn(kolt::test::selection_failures()));

TEST_F(TxLogTest, PortThatCannotBeOpened) {
    std::strcpy(gPortName, "kolt-no-such-device");
    int rc = -1;
    const std::string out = core(0, &rc);
    EXPECT_EQ(rc, -21);
    EXPECT_EQ(out, kPortOpenError);
}

TEST_F(TxLogTest, AidTextSelectsTheApplication) {
    auto card = load_card("pboc_debit.json");
    sim().set_contact_card(card);
    int rc = -1;
    const std::string out = core(0, &rc, "F04B4F4C54010101");
    EXPECT_EQ(rc, 5);
    bool selected = false;
    for (const auto& a : card->apdus())
        if (kolt::test::to_hex(a) == "00A4040008F04B4F4C54010101") selected = true;
    EXPECT_TRUE(selected);
}

// ---------------------------------------------------------------------------
// ICRT_GetTrDetail: one record, all records, folded failures.

TEST_F(TxLogTest, IndexZeroGivesEveryRecordWithoutHeaderOrTerminator) {
    auto card = load_card("pboc_debit.json");
    sim().set_contact_card(card);
    std::vector<char> out(KOLT_TXLOG_MAX, 'Z');
    EXPECT_EQ(ICRT_GetTrDetail(0, 1, 0, 0, "", out.data()), 0);
    const std::string all = joined(kDebitLog, 5);
    EXPECT_EQ(std::string(out.data(), all.size()), all);
    EXPECT_EQ(out[all.size()], 'Z');  // no terminator
}

TEST_F(TxLogTest, IndexTwoOfFive) {
    auto card = load_card("pboc_debit.json");
    sim().set_contact_card(card);
    std::vector<char> out(KOLT_TXLOG_MAX, 'Z');
    EXPECT_EQ(ICRT_GetTrDetail(0, 1, 0, 2, "", out.data()), 0);
    EXPECT_EQ(std::string(out.data()), "106" + kDebitLog[1]);
}

TEST_F(TxLogTest, LastIndexAndBeyond) {
    auto card = load_card("pboc_debit.json");
    sim().set_contact_card(card);
    std::vector<char> out(KOLT_TXLOG_MAX, 0);
    EXPECT_EQ(ICRT_GetTrDetail(0, 1, 0, 5, "", out.data()), 0);
    EXPECT_EQ(std::string(out.data()), "106" + kDebitLog[4]);
    std::vector<char> none(64, 'x');
    EXPECT_EQ(ICRT_GetTrDetail(0, 1, 0, 6, "", none.data()), -120);
    EXPECT_EQ(ICRT_GetTrDetail(0, 1, 0, -1, "", none.data()), -120);
    EXPECT_EQ(none[0], 'x');
}

TEST_F(TxLogTest, IndexZeroOnAnEmptyLog) {
    auto card = card_with_log(0, 3);
    sim().set_contact_card(card);
    std::vector<char> out(64, 'x');
    EXPECT_EQ(ICRT_GetTrDetail(0, 1, 0, 0, "", out.data()), 0);
    EXPECT_EQ(out[0], '\0');
}

TEST_F(TxLogTest, SelectionOnAnEmptyLogIsEmptyWhateverTheIndex) {
    auto card = card_with_log(0, 3);
    sim().set_contact_card(card);
    std::vector<char> out(64, 'x');
    EXPECT_EQ(ICRT_GetTrDetail(0, 1, 0, 4, "", out.data()), 0);
    EXPECT_EQ(out[0], '\0');
}

TEST_F(TxLogTest, SelectionFoldsFailures) {
    std::vector<char> out(64, 'x');
    {  // no log entry: -10 from the core
        sim().set_contact_card(load_card("no_log_entry.json"));
        EXPECT_EQ(ICRT_GetTrDetail(0, 1, 0, 0, "", out.data()), -120);
    }
    {  // log format: -23
        sim().set_contact_card(load_card("log_format_9f21.json"));
        EXPECT_EQ(ICRT_GetTrDetail(0, 1, 0, 0, "", out.data()), -120);
    }
    {  // no card in the contact slot: a positive code from the core
        sim().set_contact_card(nullptr);
        EXPECT_EQ(ICRT_GetTrDetail(0, 1, 0, 1, "", out.data()), -120);
    }
    EXPECT_EQ(out[0], 'x');  // failures write nothing
}

TEST_F(TxLogTest, SelectionOfPowerOnFailure) {
    sim().set_contact_card(load_card("pboc_debit.json"));
    sim().set_status(0x32, 0x22, 0x10, 0x05);
    std::vector<char> out(64, 'x');
    EXPECT_EQ(ICRT_GetTrDetail(0, 1, 0, 0, "", out.data()), -105);
}

TEST_F(TxLogTest, SelectionOfCardNotAnswering) {
    sim().set_contact_card(load_card("pboc_debit.json"));
    sim().set_status(0x32, 0x22, 0x10, 0x06);
    std::vector<char> out(64, 'x');
    EXPECT_EQ(ICRT_GetTrDetail(0, 1, 0, 0, "", out.data()), -102);
}

TEST_F(TxLogTest, SelectionOfPortFailure) {
    std::strcpy(gPortName, "kolt-no-such-device");
    std::vector<char> out(64, 'x');
    EXPECT_EQ(ICRT_GetTrDetail(0, 1, 0, 0, "", out.data()), -120);
    EXPECT_EQ(out[0], 'x');
}

// ---------------------------------------------------------------------------
// IC_GetTranDeta.

struct TranDeta {
    int rc = 0;
    std::string out;
    int32_t ic_type = 0;
    int32_t len = -7;
};

TranDeta tran_deta(const std::string& port, int32_t ic_type) {
    TranDeta t;
    t.ic_type = ic_type;
    std::vector<char> out(KOLT_TXLOG_MAX, 0);
    t.rc = IC_GetTranDeta(port.c_str(), 1, 2, 3, &t.ic_type, "", &t.len, out.data());
    t.out = std::string(out.data());
    return t;
}

TEST_F(TxLogTest, TranDetaContactCard) {
    sim().set_contact_card(load_card("pboc_debit.json"));
    const std::string port = gPortName;
    std::memset(gPortName, 0, sizeof gPortName);
    const TranDeta t = tran_deta(port, 1);
    EXPECT_EQ(t.rc, 0);
    EXPECT_EQ(t.out, joined(kDebitLog, 5));
    EXPECT_EQ(t.len, 5 * 106);
    EXPECT_EQ(t.ic_type, 1);
    EXPECT_EQ(std::string(gPortName), port);
}

TEST_F(TxLogTest, TranDetaContactlessCard) {
    sim().set_contactless_card(load_card("qpboc_contactless.json"));
    const TranDeta t = tran_deta(sim().port_name(), 2);
    EXPECT_EQ(t.rc, 0);
    EXPECT_EQ(t.len, 3 * 106);
    EXPECT_EQ(t.ic_type, 2);
}

TEST_F(TxLogTest, TranDetaLowestIcTypeReadsAsContact) {
    sim().set_contact_card(load_card("pboc_debit.json"));
    const TranDeta t = tran_deta(sim().port_name(), INT32_MIN);
    EXPECT_EQ(t.rc, 0);
    EXPECT_EQ(t.out, joined(kDebitLog, 5));
    EXPECT_EQ(t.ic_type, 1);
}

TEST_F(TxLogTest, TranDetaEmptyLog) {
    sim().set_contact_card(card_with_log(0, 1));
    const TranDeta t = tran_deta(sim().port_name(), 1);
    EXPECT_EQ(t.rc, 0);
    EXPECT_EQ(t.out, "");
    EXPECT_EQ(t.len, 0);
}

TEST_F(TxLogTest, TranDetaFoldsFailures) {
    sim().set_contact_card(load_card("no_log_entry.json"));
    TranDeta t = tran_deta(sim().port_name(), 1);
    EXPECT_EQ(t.rc, -99);
    EXPECT_EQ(t.len, -7);
    EXPECT_EQ(t.ic_type, 1);

    sim().set_contact_card(load_card("pboc_debit.json"));
    sim().set_status(0x32, 0x22, 0x10, 0x05);  // power-on: -11, -105
    t = tran_deta(sim().port_name(), 1);
    EXPECT_EQ(t.rc, -25);

    sim().set_status(0x32, 0x22, 0x10, 0x06);  // no answer: -22, -102
    t = tran_deta(sim().port_name(), 1);
    EXPECT_EQ(t.rc, -11);
}

TEST_F(TxLogTest, TranDetaPortFailure) {
    const TranDeta t = tran_deta("kolt-no-such-device", 1);
    EXPECT_EQ(t.rc, -99);
    EXPECT_EQ(t.out, "");
    EXPECT_EQ(t.len, -7);
}

// ---------------------------------------------------------------------------
// STAR_GetTxDetail: terminal type 1, contactless, always 0.

TEST(StarGetTxDetail, ReturnsZeroWithTheTextWhenThePortCannotBeOpened) {
    kolt::test::ScopedStdin null("/dev/null");
    std::vector<char> out(256, 0);
    EXPECT_EQ(STAR_GetTxDetail("x|1|y|txdata", out.data()), 0);
    EXPECT_EQ(std::string(out.data()), kPortOpenError);
}

TEST(StarGetTxDetail, TracesItsInputAndAnswer) {
    kolt::test::ScopedStdin null("/dev/null");
    kolt::test::DebugLogCapture debug;
    std::vector<char> out(256, 0);
    EXPECT_EQ(STAR_GetTxDetail("x|7|y|txdata", out.data()), 0);
    const std::string trace = debug.text();
    const std::vector<std::string> lines = {"STAR_GetTxDetail ......", "STAR_GetTxDetail  datain=x|7|y|txdata",
                                            "STAR_GetTxDetail  iPort=7", "STAR_GetTxDetail  txdata=txdata",
                                            "STAR_GetTxDetail  strReturn=" + kPortOpenError};
    kolt::test::expect_logged(trace, lines);
}

TEST(StarGetTxDetail, ReadsTheContactlessLogThroughTheTerminal) {
    kolt::test::TerminalSimulator sim(3);
    sim->set_contactless_card(load_card("qpboc_contactless.json"));
    std::vector<char> out(KOLT_TXLOG_MAX, 0);
    EXPECT_EQ(STAR_GetTxDetail("COM1|3|ignored|anything", out.data()), 0);
    const std::string text(out.data());
    ASSERT_EQ(text.size(), 3u + 3 * 106);
    EXPECT_EQ(text.substr(0, 3 + 106),
              "106" + log_record("000000000600", "251201", "00", "080102", "KOLT METRO GATE 3", 6));
    EXPECT_TRUE(sim->terminal_errors().empty());
}

TEST(StarGetTxDetail, ReturnsZeroWhenTheCardFails) {
    kolt::test::TerminalSimulator sim(1);  // no card on the field
    std::vector<char> out(256, 0);
    EXPECT_EQ(STAR_GetTxDetail("|1||", out.data()), 0);
    EXPECT_EQ(std::string(out.data()), kPowerOnError);
}

}  // namespace
