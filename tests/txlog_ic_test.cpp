// Transaction log in the IC_ convention: IC_GetTxDetail on a link the
// caller opened, with its binary header (record count, record length),
// end to end through the simulated reader.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "common/sim_fixture.hpp"
#include "common/test_util.hpp"
#include "kolt/kolt.h"
#include "kolt_sim/card.hpp"
#include "support/log.hpp"

namespace {

using kolt::sim::Card;
using kolt::sim::Command;
using kolt::sim::ProfileCard;

const std::string kReadRecordError = "\xB6\xC1\xBC\xC7\xC2\xBC\xB4\xED\xCE\xF3";  // 读记录错误
const std::string kLogFormatError =                                                // 获取交易记录格式错误
    "\xBB\xF1\xC8\xA1\xBD\xBB\xD2\xD7\xBC\xC7\xC2\xBC\xB8\xF1\xCA\xBD\xB4\xED\xCE\xF3";

std::string card_path(const std::string& file) {
    const char* env = std::getenv("KOLT_TEST_SOURCE_DIR");
    const std::filesystem::path root =
        env != nullptr ? std::filesystem::path(env) : std::filesystem::path(__FILE__).parent_path().parent_path();
    return (root / "sim" / "cards" / file).string();
}

std::shared_ptr<ProfileCard> load(const std::string& file) { return ProfileCard::load_file(card_path(file)); }

bool sent(const kolt::sim::Simulator& sim, uint8_t cls, uint8_t code) {
    for (const Command& c : sim.transcript())
        if (c.cls == cls && c.code == code) return true;
    return false;
}

int log_reads(const Card& card, int sfi) {
    int n = 0;
    for (const auto& a : card.apdus())
        if (a.size() >= 4 && a[0] == 0x00 && a[1] == 0xB2 && (a[3] >> 3) == sfi) ++n;
    return n;
}

std::string record(const std::string& amount, const std::string& date, const std::string& type,
                   const std::string& time, std::string merchant, int atc) {
    merchant.resize(20, ' ');
    char x[8];
    std::snprintf(x, sizeof x, "%04d", atc);
    return "P012" + amount + "Q012000000000000" + "R0040156" + "S006" + date + "T002" + type + "U006" + time +
           "V0040156" + "W020" + merchant + "X004" + x;
}

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

class IcTxDetailTest : public kolt::test::SimTest {};

TEST_F(IcTxDetailTest, ReferenceCard) {
    auto card = load("pboc_debit.json");
    sim().set_contact_card(card);
    const TxCall c = tx(1);
    EXPECT_EQ(c.rc, 0);
    EXPECT_EQ(c.out[0], 5);
    EXPECT_EQ(c.out[1], 106);
    const std::string records = c.records();
    ASSERT_EQ(records.size(), 5u * 106);
    EXPECT_EQ(records.substr(0, 106), record("000000010000", "250301", "00", "101530", "KOLT TEST SHOP 01", 23));
    EXPECT_EQ(records.substr(4 * 106), record("000000100000", "260114", "60", "111111", "KOLT EC LOAD", 27));
    EXPECT_EQ(c.kind, 1);
    EXPECT_TRUE(sent(sim(), 0x32, 0x23));
}

TEST_F(IcTxDetailTest, NullArgumentsDoNotCrash) {
    sim().set_contact_card(load("pboc_debit.json"));
    ASSERT_EQ(IC_initCom(0, 0), 0);
    EXPECT_EQ(IC_GetTxDetail(1, nullptr, nullptr, nullptr), 0);
    IC_CloseCom(0, 0);
}

TEST_F(IcTxDetailTest, TraceWithTheLogSwitchOn) {
    kolt::test::TempDir dir;
    kolt::log::set_debug_dir(dir.str());
    kolt::log::set_switch(1);
    sim().set_contact_card(load("log_short.json"));
    const TxCall c = tx(1);
    kolt::log::set_switch(0);
    EXPECT_EQ(c.rc, 0);
    std::string trace;
    for (const auto& f : std::filesystem::directory_iterator(dir.path())) trace += kolt::test::read_file(f.path());
    for (const char* line : {"] IC_GetTxDetail begin......\n", "] IC_GetTxDetail ICtype = 0\n",
                             "] IC_GetTxDetail nTxDetailDataLen =320\n", "] IC_GetTxDetail TxDetail =03 6a 50 30 31 32 ",
                             "] IC_GetTxDetail psbcICType=1\n", "] IC_GetTxDetail KOLT_T41_ICC_Poweroff flag=0\n",
                             "] IC_GetTxDetail KOLT_T41_ICC_Comm_Read_Record rApduBuf=6a 83 \n"}) {
        EXPECT_NE(trace.find(line), std::string::npos) << line;
    }
}

TEST_F(IcTxDetailTest, ContactlessCard) {
    auto card = load("qpboc_contactless.json");
    sim().set_contactless_card(card);
    const TxCall c = tx(2);
    EXPECT_EQ(c.rc, 0);
    EXPECT_EQ(c.out[0], 3);
    EXPECT_EQ(c.out[1], 106);
    EXPECT_EQ(c.records().size(), 3u * 106);
    EXPECT_EQ(c.kind, 2);
}

TEST_F(IcTxDetailTest, BinaryCandidateList) {
    auto card = load("pboc_debit.json");
    sim().set_contact_card(card);
    const char aid[] = "\x01\x08\xF0\x4B\x4F\x4C\x54\x01\x01\x01";
    const TxCall c = tx(1, aid);
    EXPECT_EQ(c.rc, 0);
    EXPECT_EQ(c.out[0], 5);
}

TEST_F(IcTxDetailTest, TenAnnouncedThreePresent) {
    auto card = load("log_short.json");
    sim().set_contact_card(card);
    const TxCall c = tx(1);
    EXPECT_EQ(c.rc, 0);
    EXPECT_EQ(c.out[0], 3);
    EXPECT_EQ(c.out[1], 106);
    EXPECT_EQ(c.records().size(), 3u * 106);
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

TEST_F(IcTxDetailTest, LockedApplication) {
    sim().set_contact_card(load("app_locked.json"));
    const TxCall c = tx(1);
    EXPECT_EQ(c.rc, -10);
    EXPECT_EQ(c.out[0], 'x');  // no text
    EXPECT_EQ(c.kind, -5);
    EXPECT_TRUE(sent(sim(), 0x32, 0x23));
}

TEST_F(IcTxDetailTest, NoLogEntry) {
    sim().set_contact_card(load("no_log_entry.json"));
    const TxCall c = tx(1);
    EXPECT_EQ(c.rc, -10);
    EXPECT_EQ(c.out[0], 'x');
    EXPECT_TRUE(sent(sim(), 0x32, 0x23));
}

TEST_F(IcTxDetailTest, LogFormatNotAvailable) {
    auto card = load("pboc_debit.json");
    card->remove_get_data(0x9F4F);
    sim().set_contact_card(card);
    const TxCall c = tx(1);
    EXPECT_EQ(c.rc, -10);
    EXPECT_EQ(std::string(c.out.data()), kLogFormatError);
    EXPECT_EQ(log_reads(*card, 11), 0);
}

TEST_F(IcTxDetailTest, FormatBeginningWithTime) {
    auto card = load("log_format_9f21.json");
    sim().set_contact_card(card);
    const TxCall c = tx(1);
    EXPECT_EQ(c.rc, -10);
    EXPECT_EQ(c.out[0], 'x');
    EXPECT_EQ(log_reads(*card, 12), 0);
}

TEST_F(IcTxDetailTest, FailingReadRecordGivesTen) {
    auto card = load("pboc_debit.json");
    sim().set_contact_card(card);
    sim().set_handler(0x32, 0x26, [card](const Command& cmd) -> std::optional<kolt::sim::Reply> {
        const std::span<const uint8_t> apdu(cmd.data.data() + 1, cmd.data.size() - 1);
        if (apdu.size() >= 4 && apdu[0] == 0x00 && apdu[1] == 0xB2 && apdu[2] == 2 && (apdu[3] >> 3) == 11)
            return std::nullopt;  // record 2 of the log: no reply
        return kolt::sim::Reply{0x00, 0x00, card->exchange(apdu)};
    });
    const TxCall c = tx(1);
    EXPECT_EQ(c.rc, 10);
    EXPECT_EQ(std::string(c.out.data()), kReadRecordError);
    EXPECT_EQ(c.kind, -5);
    EXPECT_TRUE(sent(sim(), 0x32, 0x23));
}

TEST_F(IcTxDetailTest, NoCardInTheContactSlot) {
    const TxCall c = tx(1);
    EXPECT_EQ(c.rc, -9);
    EXPECT_EQ(c.out[0], 'x');
    EXPECT_TRUE(sent(sim(), 0x32, 0x23));
}

TEST_F(IcTxDetailTest, PowerOnFailure) {
    sim().set_contact_card(load("pboc_debit.json"));
    sim().set_status(0x32, 0x22, 0x10, 0x05);
    const TxCall c = tx(1);
    EXPECT_EQ(c.rc, -1);
    EXPECT_EQ(c.out[0], 'x');
    EXPECT_FALSE(sent(sim(), 0x32, 0x23));
}

TEST_F(IcTxDetailTest, CardNotAnsweringPowerOn) {
    sim().set_contact_card(load("pboc_debit.json"));
    sim().set_status(0x32, 0x22, 0x10, 0x06);
    const TxCall c = tx(1);
    EXPECT_EQ(c.rc, -2);
    EXPECT_EQ(c.out[0], 'x');
    EXPECT_FALSE(sent(sim(), 0x32, 0x23));
}

TEST_F(IcTxDetailTest, OtherSelectionFailure) {
    sim().set_contact_card(load("gpo_format2.json"));
    const TxCall c = tx(1);
    EXPECT_EQ(c.rc, -10);
    EXPECT_EQ(c.out[0], 'x');
    EXPECT_TRUE(sent(sim(), 0x32, 0x23));
}

}  // namespace
