// Device frames byte by byte on a real pseudo-terminal: the test plays the
// reader on the master side, checks what the library sends and answers with
// hand-built replies (well-formed and damaged).
#include <openssl/evp.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "common/pty_util.hpp"
#include "common/test_util.hpp"
#include "kolt/kolt.h"
#include "device/command.hpp"
#include "link/frame.hpp"
#include "link/link_state.hpp"

namespace {

using kolt::test::ends_with;
using kolt::test::elapsed_ms;
using kolt::test::to_hex;
using Bytes = std::vector<uint8_t>;
using Reader = kolt::test::FarEnd;

// A raw pseudo-terminal made the link of a local port (no lead or end).
class Pty : public kolt::test::Pty {
public:
    Pty() {
        kolt::link::state().fd = slave();
        kolt::link::clear_sequences();
    }
};

Reader::Done count(size_t n) { return kolt::test::at_least(n); }

std::string nibbles(const Bytes& b) {
    std::string s;
    for (uint8_t x : b) {
        s += static_cast<char>('0' + (x >> 4));
        s += static_cast<char>('0' + (x & 0x0F));
    }
    return s;
}

// A main-frame reply: 02, nibbles of length, status, data, check, 03.
std::string main_reply(uint8_t s1, uint8_t s2, const Bytes& data, int check_delta = 0) {
    Bytes body = {static_cast<uint8_t>((data.size() + 2) >> 8), static_cast<uint8_t>((data.size() + 2) & 0xFF), s1,
                  s2};
    uint8_t check = s1 ^ s2;
    for (uint8_t b : data) {
        body.push_back(b);
        check ^= b;
    }
    body.push_back(static_cast<uint8_t>(check + check_delta));
    return "\x02" + nibbles(body) + "\x03";
}

std::string b64(const Bytes& b) {
    std::string out(4 * ((b.size() + 2) / 3) + 1, '\0');
    const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()), b.data(), static_cast<int>(b.size()));
    out.resize(static_cast<size_t>(n));
    return out;
}

std::string text(const Bytes& b) { return std::string(b.begin(), b.end()); }

// The identity-card read reply: the body travels as raw base64 text.
std::string special_reply(const Bytes& body, int check_delta = 0) {
    const std::string t = b64(body);
    uint8_t check = 0;
    for (char c : t) check ^= static_cast<uint8_t>(c);
    return "\x02" + nibbles({static_cast<uint8_t>(t.size() >> 8), static_cast<uint8_t>(t.size() & 0xFF)}) + t +
           nibbles({static_cast<uint8_t>(check + check_delta)}) + "\x03";
}

// A bracket frame as the reader sends it.
std::string bracket(uint8_t cmd, const Bytes& data, int check_delta = 0) {
    const std::string body = data.empty() ? "" : b64(data);
    const size_t count = body.size() + 4;
    const std::string len = b64({static_cast<uint8_t>(count >> 8), static_cast<uint8_t>(count & 0xFF)}).substr(0, 3);
    std::string f = len + static_cast<char>(cmd) + body;
    uint8_t check = 0;
    for (char c : f) check ^= static_cast<uint8_t>(c);
    check = static_cast<uint8_t>(check + check_delta);
    return "(" + f + b64({check, 0}).substr(0, 2) + ")";
}

// ---------------------------------------------------------------------------
// Main frame.

TEST(FrameMain, LogicalFrameAndWireForm) {
    const Bytes data = {0x02, 0x01, 0x01};
    const Bytes logical = kolt::link::codec::main_frame(0x31, 0x13, data);
    EXPECT_EQ(to_hex(logical), "0200053113020101" "2003");
    const Bytes wire = kolt::link::codec::nibble_wire(logical);
    EXPECT_EQ(text(wire), std::string("\x02") + "0005311302010120" + "\x03");
    // 2 * (data + 5) + 2 bytes on the wire.
    EXPECT_EQ(wire.size(), 2u * (data.size() + 5) + 2);
}

TEST(FrameMain, BuzzerCommandOnTheWire) {
    Pty pty;
    Reader reader(pty, ends_with('\x03'), main_reply(0, 0, {}));
    EXPECT_EQ(KOLT_T41_Buzz(), 0);
    EXPECT_EQ(reader.received(), std::string("\x02") + "0005311302010120" + "\x03");
}

TEST(FrameMain, ReplyIsDecodedIntoTheCallersBuffer) {
    Pty pty;
    Reader reader(pty, ends_with('\x03'), main_reply(0, 0, {0x56, 0x31, 0xA5}));
    uint8_t out[KOLT_T41_REPLY_MAX];
    std::memset(out, 0xEE, sizeof out);
    const uint8_t sel = 4;
    const int n = KOLT_writeBufAndReadFromT41(0x31, 0x11, &sel, 1, out, 2);
    ASSERT_EQ(n, 10);
    EXPECT_EQ(to_hex(out, 10), "02000500005631A5" + to_hex(Bytes{static_cast<uint8_t>(0x56 ^ 0x31 ^ 0xA5)}) + "03");
    EXPECT_EQ(out[10], 0xEE);
    EXPECT_EQ(reader.received(), "\x02" + nibbles({0x00, 0x03, 0x31, 0x11, 0x04, 0x31 ^ 0x11 ^ 0x04}) + "\x03");
}

TEST(FrameMain, WrongCheckByteGivesMinusTwoEvenWithStatusOk) {
    Pty pty;
    Reader reader(pty, ends_with('\x03'), main_reply(0, 0, {0x12}, 1));
    uint8_t out[KOLT_T41_REPLY_MAX];
    EXPECT_EQ(KOLT_writeBufAndReadFromT41(0x31, 0x11, nullptr, 0, out, 2), Revdata_Error);
}

TEST(FrameMain, NoReplyGivesMinusOneWithinTheTimeOut) {
    Pty pty;
    Reader reader(pty, ends_with('\x03'), "");
    uint8_t out[KOLT_T41_REPLY_MAX];
    EXPECT_LT(elapsed_ms([&] {
                  EXPECT_EQ(KOLT_writeBufAndReadFromT41(0x31, 0x11, nullptr, 0, out, 1), Lenth_Error);
              }),
              1500);
}

TEST(FrameMain, TruncatedReplyGivesMinusOne) {
    Pty pty;
    const std::string full = main_reply(0, 0, {1, 2, 3, 4});
    Reader reader(pty, ends_with('\x03'), full.substr(0, full.size() / 2));
    uint8_t out[KOLT_T41_REPLY_MAX];
    EXPECT_EQ(KOLT_writeBufAndReadFromT41(0x31, 0x11, nullptr, 0, out, 1), Lenth_Error);
}

TEST(FrameMain, HeaderOnlyReplyGivesMinusOne) {
    Pty pty;
    Reader reader(pty, ends_with('\x03'), "\x02" "00");
    uint8_t out[KOLT_T41_REPLY_MAX];
    EXPECT_EQ(KOLT_writeBufAndReadFromT41(0x31, 0x11, nullptr, 0, out, 1), Lenth_Error);
}

TEST(FrameMain, GarbageBeforeTheReplyIsSkipped) {
    Pty pty;
    Reader reader(pty, ends_with('\x03'), "noise\xff" + main_reply(0, 0, {0x42}));
    uint8_t out[KOLT_T41_REPLY_MAX];
    EXPECT_EQ(KOLT_writeBufAndReadFromT41(0x31, 0x11, nullptr, 0, out, 2), 8);
    EXPECT_EQ(out[5], 0x42);
}

TEST(FrameMain, DelayedReplyWithinTheTimeOutIsTaken) {
    Pty pty;
    Reader reader(pty, ends_with('\x03'), main_reply(0, 0, {0x42}), 300);
    uint8_t out[KOLT_T41_REPLY_MAX];
    EXPECT_EQ(KOLT_writeBufAndReadFromT41(0x31, 0x11, nullptr, 0, out, 2), 8);
}

TEST(FrameMain, LengthFieldBiggerThanTheRoomIsRefusedWithoutOverflow) {
    Pty pty;
    // Claims 0x100 bytes of status and data; the caller has room for 16.
    Reader reader(pty, ends_with('\x03'), "\x02" + nibbles({0x01, 0x00}) + std::string(600, '0') + "\x03");
    Bytes out(16, 0xEE);
    EXPECT_EQ(kolt::link::transact_t41(0x31, 0x11, {}, out, 1), Lenth_Error);
    for (uint8_t b : out) EXPECT_EQ(b, 0xEE);
}

TEST(FrameMain, LengthFieldBeyondTheExportedCapacityIsRefused) {
    Pty pty;
    // 0xFFFF bytes claimed: far more than KOLT_T41_REPLY_MAX.
    Reader reader(pty, ends_with('\x03'), "\x02" "????" "0000");
    std::vector<uint8_t> out(KOLT_T41_REPLY_MAX, 0xEE);
    EXPECT_LT(elapsed_ms([&] {
                  EXPECT_EQ(KOLT_writeBufAndReadFromT41(0x31, 0x11, nullptr, 0, out.data(), 1), Lenth_Error);
              }),
              1500);
    EXPECT_EQ(out[0], 0xEE);
}

TEST(FrameMain, LengthFieldLongerThanTheDataGivesMinusOne) {
    Pty pty;
    // The length claims 4 bytes more than follow.
    std::string reply = main_reply(0, 0, {0x01, 0x02});
    reply.replace(1, 4, nibbles({0x00, 0x08}));
    Reader reader(pty, ends_with('\x03'), reply);
    uint8_t out[KOLT_T41_REPLY_MAX];
    EXPECT_EQ(KOLT_writeBufAndReadFromT41(0x31, 0x11, nullptr, 0, out, 1), Lenth_Error);
}

TEST(FrameMain, BadArgumentsAreRefused) {
    uint8_t out[KOLT_T41_REPLY_MAX];
    EXPECT_EQ(KOLT_writeBufAndReadFromT41(0x31, 0x11, nullptr, 3, out, 1), Para_Error);
    EXPECT_EQ(KOLT_writeBufAndReadFromT41(0x31, 0x11, out, -1, out, 1), Para_Error);
    EXPECT_EQ(KOLT_writeBufAndReadFromT41(0x31, 0x11, nullptr, 0, nullptr, 1), Para_Error);
}

// ---------------------------------------------------------------------------
// The identity-card read reply (class 0x35 code 0x82): raw base64 body.

TEST(FrameSpecial, Base64BodyIsDecodedInPlace) {
    Pty pty;
    const Bytes body = {0x00, 0x00, 'I', 'D', 0x7F};
    Reader reader(pty, ends_with('\x03'), special_reply(body));
    uint8_t out[KOLT_T41_REPLY_MAX];
    const int n = KOLT_writeBufAndReadFromT41(0x35, 0x82, nullptr, 0, out, 2);
    ASSERT_EQ(n, 10);  // 5 decoded bytes + 5
    EXPECT_EQ(to_hex(out, 10), "02000500004944" "7F" "3003");
    EXPECT_EQ(reader.received(), "\x02" + nibbles({0x00, 0x02, 0x35, 0x82, 0x35 ^ 0x82}) + "\x03");
}

TEST(FrameSpecial, WrongCheckGivesMinusTwo) {
    Pty pty;
    Reader reader(pty, ends_with('\x03'), special_reply({0x00, 0x00, 1, 2, 3}, 1));
    uint8_t out[KOLT_T41_REPLY_MAX];
    EXPECT_EQ(KOLT_writeBufAndReadFromT41(0x35, 0x82, nullptr, 0, out, 2), Revdata_Error);
}

TEST(FrameSpecial, LengthCountsBodyCharactersNotPairs) {
    Pty pty;
    // A body of 1200 bytes: 1600 base64 characters, more than fits in 1000.
    Bytes body(1200, 0x41);
    body[0] = body[1] = 0;
    Reader reader(pty, ends_with('\x03'), special_reply(body));
    Bytes small(1000, 0xEE);
    EXPECT_EQ(kolt::device::command(0x35, 0x82, {}, small, 1), Lenth_Error);
    for (uint8_t b : small) ASSERT_EQ(b, 0xEE);
}

TEST(FrameSpecial, LargeIdentityReplyFitsTheExportedCapacity) {
    Pty pty;
    Bytes body(2 + 4 + 256 + 1024, 0x5A);
    body[0] = body[1] = 0;
    Reader reader(pty, ends_with('\x03'), special_reply(body));
    std::vector<uint8_t> out(KOLT_T41_REPLY_MAX);
    EXPECT_EQ(KOLT_writeBufAndReadFromT41(0x35, 0x82, nullptr, 0, out.data(), 2), static_cast<int>(body.size() + 5));
    EXPECT_EQ(out[5], 0x5A);
}

TEST(FrameSpecial, Unbase64RewritesLengthAndTail) {
    uint8_t reply[16] = {0x02, 0x00, 0x04, 'Q', 'U', 'J', 'D', 0x11, 0x03};
    EXPECT_EQ(KOLT_T41_Unbase64(reply), 8);
    EXPECT_EQ(to_hex(reply, 8), "020003414243" "3003");
}

TEST(FrameSpecial, Unbase64IntoATooSmallSpanIsRefused) {
    Bytes reply = {0x02, 0x00, 0x40, 'Q', 'U', 'J', 'D'};
    EXPECT_EQ(kolt::link::codec::unbase64_reply(reply), Lenth_Error);
}

// ---------------------------------------------------------------------------
// Status mapping.

TEST(FrameStatus, EveryRowOfTheMapping) {
    struct Row {
        uint8_t a, b;
        int code;
    } rows[] = {
        {0x00, 0x00, OK},
        {0x10, 0x01, ICC_Contact_Not_Support},
        {0x10, 0x02, ICC_Contact_Not_Insert},
        {0x10, 0x03, ICC_Contact_Powered},
        {0x10, 0x04, ICC_Contact_Not_Powered},
        {0x10, 0x05, ICC_Contact_Poweron_Failed},
        {0x10, 0x06, ICC_No_Response},
        {0x10, 0x07, ICC_Data_Error},
        {0x20, 0x01, PSAM_Not_Supported},
        {0x20, 0x04, PSAM_Not_Powered},
        {0x20, 0x05, PSAM_Poweron_Failed},
        {0x20, 0x06, PSAM_No_Response},
        {0x20, 0x07, PSAM_Data_Error},
        {0x30, 0x01, ICC_Contactless_Not_Support},
        {0x30, 0x04, ICC_Contactless_Not_Activated},
        {0x90, 0x01, MC_Read_Timeout},
    };
    for (const Row& r : rows) EXPECT_EQ(KOLT_T41_Ret_Code(r.a, r.b), r.code) << std::hex << +r.a << " " << +r.b;
}

TEST(FrameStatus, ContactlessNoResponseAndDataErrorGiveTheContactCodes) {
    EXPECT_EQ(KOLT_T41_Ret_Code(0x30, 0x06), ICC_No_Response);
    EXPECT_EQ(KOLT_T41_Ret_Code(0x30, 0x07), ICC_Data_Error);
}

TEST(FrameStatus, AnythingElseIsUnknown) {
    EXPECT_EQ(KOLT_T41_Ret_Code(0x30, 0x05), Unknow_Error);  // no contactless start-up code
    EXPECT_EQ(KOLT_T41_Ret_Code(0x30, 0x09), Unknow_Error);
    EXPECT_EQ(KOLT_T41_Ret_Code(0x20, 0x02), Unknow_Error);
    EXPECT_EQ(KOLT_T41_Ret_Code(0x00, 0x01), Unknow_Error);
    EXPECT_EQ(KOLT_T41_Ret_Code(0xFF, 0xFF), Unknow_Error);
}

TEST(FrameStatus, Equal2Bytes) {
    const uint8_t p[2] = {0x90, 0x00};
    EXPECT_EQ(KOLT_Equal_2bytes(p, 0x90, 0x00), 0);
    EXPECT_EQ(KOLT_Equal_2bytes(p, 0x90, 0x01), -1);
    EXPECT_EQ(KOLT_Equal_2bytes(p, 0x61, 0x00), -1);
}

// ---------------------------------------------------------------------------
// Bracket framing.

TEST(FrameBracket, GreetingCommandOnTheWire) {
    Pty pty;
    const Bytes greeting = {0x90, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    Reader reader(pty, ends_with(')'), bracket(0x41, greeting));
    uint8_t out[KOLT_T41_REPLY_MAX];
    EXPECT_EQ(KOLT_writeBufAndRead(kolt::link::state().fd, 0x41, nullptr, 0, out, 2), 11);
    EXPECT_EQ(to_hex(out, 11), to_hex(greeting));
    EXPECT_EQ(reader.received(), "(AAQAEA)");
}

TEST(FrameBracket, DataTravelsAsBase64) {
    Pty pty;
    const Bytes data = {0x01, 0x02, 0x03, 0xFF};
    Reader reader(pty, ends_with(')'), bracket(0x42, {0x07}));
    uint8_t out[KOLT_T41_REPLY_MAX];
    EXPECT_EQ(KOLT_writeBufAndRead(kolt::link::state().fd, 0x55, data.data(), 4, out, 2), 1);
    EXPECT_EQ(out[0], 0x07);
    EXPECT_EQ(reader.received(), bracket(0x55, data));
    EXPECT_EQ(reader.received().substr(0, 5), "(AAw" "U");  // 8 + 4 = 12 characters follow
}

TEST(FrameBracket, WrongCheckGivesMinusTwo) {
    Pty pty;
    Reader reader(pty, ends_with(')'), bracket(0x41, {0x90, 1, 2}, 1));
    uint8_t out[KOLT_T41_REPLY_MAX];
    EXPECT_EQ(KOLT_writeBufAndRead(kolt::link::state().fd, 0x41, nullptr, 0, out, 2), Revdata_Error);
}

TEST(FrameBracket, NoReplyGivesMinusOne) {
    Pty pty;
    Reader reader(pty, ends_with(')'), "");
    uint8_t out[KOLT_T41_REPLY_MAX];
    EXPECT_EQ(KOLT_writeBufAndRead(kolt::link::state().fd, 0x41, nullptr, 0, out, 1), Lenth_Error);
}

TEST(FrameBracket, ShortReplyGivesMinusOne) {
    Pty pty;
    const std::string full = bracket(0x41, {0x90, 1, 2, 3, 4, 5});
    Reader reader(pty, ends_with(')'), full.substr(0, full.size() - 4));
    uint8_t out[KOLT_T41_REPLY_MAX];
    EXPECT_EQ(KOLT_writeBufAndRead(kolt::link::state().fd, 0x41, nullptr, 0, out, 1), Lenth_Error);
}

TEST(FrameBracket, LengthTooSmallForAFrameGivesMinusOne) {
    Pty pty;
    // Count 2: not even the command byte, the check and ")".
    Reader reader(pty, ends_with(')'), "(AAI" "xy");
    uint8_t out[KOLT_T41_REPLY_MAX];
    EXPECT_EQ(KOLT_writeBufAndRead(kolt::link::state().fd, 0x41, nullptr, 0, out, 1), Lenth_Error);
}

TEST(FrameBracket, ReplyLargerThanTheRoomIsRefused) {
    Pty pty;
    Reader reader(pty, ends_with(')'), bracket(0x41, Bytes(100, 0x33)));
    Bytes out(50, 0xEE);
    EXPECT_EQ(kolt::link::bracket_transact(kolt::link::state().fd, 0x41, {}, out, 1), Lenth_Error);
    for (uint8_t b : out) EXPECT_EQ(b, 0xEE);
}

TEST(FrameBracket, LongFramesGoInWrapped1024BytePieces) {
    Pty pty;
    kolt::link::set_seq(kolt::link::state().aux_lead, "<");
    kolt::link::set_seq(kolt::link::state().aux_end, ">");
    const Bytes data(1000, 0x5C);  // 1336 base64 characters, a frame of 1344
    const std::string frame = bracket(0x43, data);
    ASSERT_EQ(frame.size(), 1344u);
    Reader reader(pty, [](const std::string& s) { return std::count(s.begin(), s.end(), '>') == 2; }, "");
    uint8_t out[KOLT_T41_REPLY_MAX];
    EXPECT_EQ(KOLT_writeBufAndRead(kolt::link::state().fd, 0x43, data.data(), 1000, out, 1), Lenth_Error);
    const std::string got = reader.received();
    EXPECT_EQ(got, "<" + frame.substr(0, 1024) + "><" + frame.substr(1024) + ">");
}

// ---------------------------------------------------------------------------
// The 0x86 family.

TEST(Frame86, CommandAndReply) {
    Pty pty;
    Reader reader(pty, count(12), "860003101316");
    uint8_t out[KOLT_T41_REPLY_MAX];
    EXPECT_EQ(KOLT_writeBufAndReadFrom100s(0x10, 0, 0, out, 2), 6);
    EXPECT_EQ(to_hex(out, 6), "860003101316");
    EXPECT_EQ(reader.received(), "860003101316");
}

TEST(Frame86, LongerReplyWithAdditiveSum) {
    Pty pty;
    // 86 00 05 10 AA BB sum 16, sum = 00 + 05 + 10 + AA + BB (mod 256).
    const uint8_t sum = static_cast<uint8_t>(0x05 + 0x10 + 0xAA + 0xBB);
    Reader reader(pty, count(12), nibbles({0x86, 0x00, 0x05, 0x10, 0xAA, 0xBB, sum, 0x16}));
    uint8_t out[KOLT_T41_REPLY_MAX];
    EXPECT_EQ(KOLT_writeBufAndReadFrom100s(0x10, 0, 0, out, 2), 8);
    EXPECT_EQ(out[4], 0xAA);
}

TEST(Frame86, XorInsteadOfSumGivesMinusTwo) {
    Pty pty;
    const uint8_t x = 0x05 ^ 0x10 ^ 0xAA ^ 0xBB;
    Reader reader(pty, count(12), nibbles({0x86, 0x00, 0x05, 0x10, 0xAA, 0xBB, x, 0x16}));
    uint8_t out[KOLT_T41_REPLY_MAX];
    EXPECT_EQ(KOLT_writeBufAndReadFrom100s(0x10, 0, 0, out, 2), Revdata_Error);
}

TEST(Frame86, NoReplyOrForeignCharacterGivesMinusOne) {
    {
        Pty pty;
        Reader reader(pty, count(12), "");
        uint8_t out[KOLT_T41_REPLY_MAX];
        EXPECT_EQ(KOLT_writeBufAndReadFrom100s(0x10, 0, 0, out, 1), Lenth_Error);
    }
    {
        Pty pty;
        Reader reader(pty, count(12), "860003" "10Z316");
        uint8_t out[KOLT_T41_REPLY_MAX];
        EXPECT_EQ(KOLT_writeBufAndReadFrom100s(0x10, 0, 0, out, 1), Lenth_Error);
    }
}

TEST(Frame86, ReplyLargerThanTheRoomIsRefused) {
    Pty pty;
    Reader reader(pty, count(12), "86" + nibbles({0x00, 0x40}) + std::string(128, '0'));
    Bytes out(20, 0xEE);
    EXPECT_EQ(kolt::link::transact_100s(0x10, out, 1), Lenth_Error);
    for (uint8_t b : out) EXPECT_EQ(b, 0xEE);
}

TEST(Frame86, SendCmdWritesTheFrameOnly) {
    Pty pty;
    Reader reader(pty, count(12), "");
    EXPECT_EQ(KOLT_sendCmd100s(0x21), 12);
    EXPECT_EQ(reader.received(), "860003" "21" "2416");
}

// ---------------------------------------------------------------------------
// Device probe.

TEST(FrameProbe, OlderFamilyAnswersOne) {
    Pty pty;
    Reader reader(pty, count(20), "860003101316");
    EXPECT_EQ(KOLT_getDeviceType(), 1);
    EXPECT_EQ(reader.received(), "860003101316(AAQAEA)");
}

TEST(FrameProbe, BracketFamilyAnswersZero) {
    Pty pty;
    // Count 20: the command byte, 16 base64 characters, check and ")".
    Reader reader(pty, count(20), "(ABQ" + std::string("A") + b64(Bytes(12, 0x01)) + "xx)");
    EXPECT_EQ(KOLT_getDeviceType(), 0);
}

TEST(FrameProbe, NoOrForeignAnswerGivesMinusOne) {
    {
        Pty pty;
        Reader reader(pty, count(20), "");
        EXPECT_EQ(KOLT_getDeviceType(), -1);
    }
    {
        Pty pty;
        Reader reader(pty, count(20), "8700031013");
        EXPECT_EQ(KOLT_getDeviceType(), -1);
    }
}

}  // namespace
