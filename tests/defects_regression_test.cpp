// Regression tests of defects found by probing the library with hostile
// input: each would read or write outside a buffer, overflow an int or
// leave a descriptor open. Under ASan the buffers below are exactly the
// room the library is allowed to use, so any overrun is reported.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <pty.h>
#include <sys/resource.h>
#include <unistd.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "common/card_flow.hpp"
#include "common/sim_fixture.hpp"
#include "common/test_util.hpp"
#include "emv/app_select.hpp"
#include "kolt/kolt.h"
#include "kolt_sim/card.hpp"
#include "link/link_state.hpp"

namespace {

using kolt::sim::Card;

// A 45-byte log record whose ATC (bytes 43-44) is atc.
std::vector<uint8_t> record_with_atc(int atc) {
    std::vector<uint8_t> rec(45, 0);
    rec[0] = 0x26;
    rec[1] = 0x01;
    rec[2] = 0x15;
    std::memcpy(rec.data() + 22, "KOLT TEST", 9);
    rec[43] = static_cast<uint8_t>(atc >> 8);
    rec[44] = static_cast<uint8_t>(atc & 0xFF);
    return rec;
}

TEST(ParseOneRecordRoom, FiveDigitCounterNeeds108Bytes) {
    const auto rec = record_with_atc(10000);
    auto out = std::make_unique<char[]>(108);  // the room the header states
    EXPECT_EQ(KOLT_T41_ParseOneRecord(rec.data(), out.get()), 107);
    EXPECT_EQ(std::strlen(out.get()), 107u);
    EXPECT_EQ(std::string(out.get()).substr(98), "X00510000");
}

TEST(ParseOneRecordRoom, LargestCounterStillFits) {
    const auto rec = record_with_atc(0xFFFF);
    auto out = std::make_unique<char[]>(108);
    EXPECT_EQ(KOLT_T41_ParseOneRecord(rec.data(), out.get()), 107);
    EXPECT_EQ(std::string(out.get()).substr(98), "X00565535");
}

TEST(ParseOneRecordRoom, FourDigitCounterKeepsItsLength) {
    const auto rec = record_with_atc(9999);
    auto out = std::make_unique<char[]>(108);
    EXPECT_EQ(KOLT_T41_ParseOneRecord(rec.data(), out.get()), 106);
    EXPECT_EQ(std::string(out.get()).substr(98), "X0049999");
}

// A contact card with `count` log records: the first with a small counter
// (so the flows take 106 characters as the record length), the rest with
// counters of five digits (107 characters each).
std::shared_ptr<Card> card_with_long_counters(int count) {
    return kolt::test::card_with_log(count, count, "", [](int i) { return i == 0 ? 7 : 20000 + i; });
}

class LongCounterLog : public kolt::test::SimTest {};

TEST_F(LongCounterLog, IcrtLogNeverPassesItsRoom) {
    sim().set_contact_card(card_with_long_counters(30));
    auto out = std::make_unique<char[]>(KOLT_TXLOG_MAX);
    std::memset(out.get(), 0, KOLT_TXLOG_MAX);
    const int32_t rc = KOLT_ICRT_GetTrDetail(0, 1, 0, "", out.get());
    const size_t len = ::strnlen(out.get(), KOLT_TXLOG_MAX);
    ASSERT_LT(len, static_cast<size_t>(KOLT_TXLOG_MAX));
    // "106" header, one record of 106 characters, then 107-character ones
    // for as long as they fit with the terminator.
    EXPECT_EQ(std::string(out.get(), 3), "106");
    EXPECT_EQ(rc, 19);
    EXPECT_EQ(len, 3u + 106u + 18u * 107u);
}

TEST_F(LongCounterLog, IcLogNeverPassesItsRoom) {
    sim().set_contact_card(card_with_long_counters(30));
    ASSERT_EQ(IC_initCom(0, 1), 0);
    auto out = std::make_unique<char[]>(KOLT_TXLOG_MAX);
    std::memset(out.get(), 0, KOLT_TXLOG_MAX);
    int32_t kind = 0;
    const int32_t rc = IC_GetTxDetail(1, "", out.get(), &kind);
    IC_CloseCom(0, 1);
    ASSERT_EQ(rc, 0);
    const auto* bytes = reinterpret_cast<const uint8_t*>(out.get());
    EXPECT_EQ(bytes[0], 19);   // records
    EXPECT_EQ(bytes[1], 106);  // the first record's length
    EXPECT_LT(2u + 106u + 18u * 107u, static_cast<size_t>(KOLT_TXLOG_MAX));
}

// --- candidate AID lists handed in as text ---------------------------------

TEST(CandidateListText, StopsAtTheTerminatingZero) {
    // "A0000003": count 0x41, first length 0x30; the text ends long before.
    const char* text = "A0000003";
    const auto bytes = kolt::emv::candidate_list_text(text);
    EXPECT_EQ(bytes.size(), 8u);
    EXPECT_TRUE(kolt::emv::parse_candidates(bytes).empty());
}

TEST(CandidateListText, SingleFfByte) {
    auto text = std::make_unique<char[]>(2);
    text[0] = static_cast<char>(0xFF);
    text[1] = 0;
    const auto bytes = kolt::emv::candidate_list_text(text.get());
    EXPECT_EQ(bytes.size(), 1u);
    EXPECT_TRUE(kolt::emv::parse_candidates(bytes).empty());
}

TEST(CandidateListBytes, BinaryListNeverPassesItsRoom) {
    // 255 candidates of 255 bytes claimed in a 256-byte list.
    std::vector<uint8_t> list(kolt::emv::kCandidateListMax, 0xFF);
    const auto bytes = kolt::emv::candidate_list_bytes(list.data());
    EXPECT_EQ(bytes.size(), kolt::emv::kCandidateListMax);
    EXPECT_TRUE(kolt::emv::parse_candidates(bytes).empty());
}

class CandidateTextFlow : public kolt::test::SimTest {};

TEST_F(CandidateTextFlow, IcrtCardInfoWithAHostileAidText) {
    sim().set_contact_card(kolt::test::load_card("pboc_debit.json"));
    // Heap copies of exactly their length: any read past the zero is caught.
    for (const char* list_text : {"A0000003", "\xFF"}) {
        const std::string list(list_text);
        auto aid = std::make_unique<char[]>(list.size() + 1);
        std::memcpy(aid.get(), list.c_str(), list.size() + 1);
        std::vector<char> out(4096, 0);
        EXPECT_EQ(KOLT_ICRT_GetICCInfo(0, 1, 0, aid.get(), "A", out.data()), 0) << list;
        EXPECT_EQ(std::string(out.data()).substr(0, 4), "A019");
    }
}

// --- length fields and counts ----------------------------------------------

TEST(Unbase64Room, LengthAboveTheReplyRoomIsRefused) {
    std::vector<uint8_t> reply(KOLT_T41_REPLY_MAX, 'A');
    reply[0] = 0x02;
    reply[1] = 0xFF;
    reply[2] = 0xFF;
    EXPECT_EQ(KOLT_T41_Unbase64(reply.data()), Lenth_Error);
    reply[1] = static_cast<uint8_t>((KOLT_T41_REPLY_MAX - 4) >> 8);
    reply[2] = static_cast<uint8_t>((KOLT_T41_REPLY_MAX - 4) & 0xFF);
    EXPECT_EQ(KOLT_T41_Unbase64(reply.data()), Lenth_Error);
    reply[1] = static_cast<uint8_t>((KOLT_T41_REPLY_MAX - 5) >> 8);
    reply[2] = static_cast<uint8_t>((KOLT_T41_REPLY_MAX - 5) & 0xFF);
    EXPECT_GT(KOLT_T41_Unbase64(reply.data()), 0);
}

TEST(ByteBufToBcd, LargestCountDoesNotOverflow) {
    uint8_t out[4] = {0xEE, 0xEE, 0xEE, 0xEE};
    EXPECT_EQ(byteBuf2BCDBuf("12", INT_MAX, out, 4), -1);
    EXPECT_EQ(out[0], 0xEE);
}

// --- NULL data with a positive length ---------------------------------------

class NullData : public kolt::test::LinkedSimTest {};

TEST_F(NullData, CardCommandsRefuseAndSendNothing) {
    uint8_t out[256] = {};
    int32_t len = 77;
    const uint8_t header[4] = {0x00, 0xA4, 0x04, 0x00};
    const uint8_t tag[2] = {0x9F, 0x36};
    const size_t before = kolt::test::commands(sim()).size();
    EXPECT_EQ(KOLT_T41_ICC_APDULcData(0, header, nullptr, 4, out, &len, 1), static_cast<uint32_t>(Para_Error));
    EXPECT_EQ(KOLT_T41_ICC_Select_Aid(0, nullptr, 4, out, &len, 1), static_cast<uint32_t>(Para_Error));
    EXPECT_EQ(KOLT_T41_ICC_SetGPO(0, nullptr, 4, out, &len, 1), static_cast<uint32_t>(Para_Error));
    EXPECT_EQ(KOLT_T41_ICC_Generate_Ac(0, 0x80, nullptr, 4, out, &len, 1), static_cast<uint32_t>(Para_Error));
    EXPECT_EQ(KOLT_T41_External_Authenticate(0, nullptr, 4, out, &len, 1), static_cast<uint32_t>(Para_Error));
    EXPECT_EQ(KOLT_T41_Put_Data(0, tag, nullptr, 4, out, &len, 1), static_cast<uint32_t>(Para_Error));
    EXPECT_EQ(kolt::test::commands(sim()).size(), before);
    EXPECT_EQ(out[0], 0);
}

TEST(NullBuffers, RandomBytesAndFileReadAnswerMinusOne) {
    EXPECT_EQ(KOLT_GetRandByte(nullptr, 4), -1);
    EXPECT_EQ(KOLT_GetRandByte(nullptr, 0), 0);
    kolt::test::TempDir dir;
    const std::string path = dir.write("f.bin", "abcd");
    EXPECT_EQ(KOLT_readFile2Buf(path.c_str(), nullptr, 4), -1);
    EXPECT_EQ(KOLT_readFile2Buf(path.c_str(), nullptr, 0), 0);
}

// --- a failed connect closes what it opened ---------------------------------

int open_descriptors() {
    int n = 0;
    for (const auto& e : std::filesystem::directory_iterator("/proc/self/fd")) {
        (void)e;
        ++n;
    }
    return n;
}

class FailedConnect : public kolt::test::SimTest {};

TEST_F(FailedConnect, ClosesThePortItOpened) {
    sim().inject_for(0, 0x41, kolt::sim::Fault{kolt::sim::Fault::BadCheck});
    const int before = open_descriptors();
    EXPECT_EQ(KOLT_connectDevice("", "0", "1", "", ""), -1);
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(kolt::link::state().owned_fd, -1);
}

// --- a line whose other end has gone -----------------------------------------

// Voluntary context switches of this thread: each sleep on the line is one.
long wakeups() {
    rusage r{};
    getrusage(RUSAGE_THREAD, &r);
    return r.ru_nvcsw;
}

TEST(DeadLine, IsWaitedOutWithoutSpinning) {
    int master = -1;
    int slave = -1;
    ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
    ::fcntl(slave, F_SETFL, ::fcntl(slave, F_GETFL) | O_NONBLOCK);
    ::close(master);  // the other end has gone: the line reports a hang-up
    uint8_t buf[16];
    const long before = wakeups();
    EXPECT_EQ(KOLT_rcvBuf(slave, buf, sizeof buf, 1), 0);
    const long woke = wakeups() - before;
    // A busy loop wakes thousands of times a second; sleeping in slices of
    // 100 ms wakes about ten times.
    EXPECT_LT(woke, 100) << "woke " << woke << " times in a one-second wait";
    ::close(slave);
}

}  // namespace
