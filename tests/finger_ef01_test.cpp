// The EF01 packet of the fingerprint module: the codec on its own, then the
// exchanges and the module's capture sequence through the simulated module.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "common/sim_fixture.hpp"
#include "common/test_util.hpp"
#include "finger/ef01_codec.hpp"
#include "finger/finger.hpp"
#include "kolt/kolt.h"
#include "kolt_sim/simulator.hpp"

namespace {

namespace ef01 = kolt::finger::ef01;
using Bytes = std::vector<uint8_t>;

std::string hex(const Bytes& b) { return kolt::test::to_hex(b); }

// The module's answer to a command: identifier 07, the confirmation code.
Bytes answer(uint8_t code) { return ef01::build(0x07, Bytes{code}); }

using Ef01Test = kolt::test::FingerSensorTest<kolt::test::LinkedSimTest, kolt::test::Ef01Sensor>;

}  // namespace

// ---------------------------------------------------------------------------
// The codec.

TEST(Ef01Codec, ChecksumOfCaptureImage) {
    EXPECT_EQ(ef01::checksum(0x01, Bytes{0x01}), 0x0005);
    EXPECT_EQ(hex(ef01::build(0x01, Bytes{0x01})), "EF01FFFFFFFF010003010005");
}

TEST(Ef01Codec, ChecksumOfStore) {
    EXPECT_EQ(ef01::checksum(0x01, Bytes{0x06, 0x01, 0x00, 0x58}), 0x0066);
    EXPECT_EQ(hex(ef01::build(0x01, Bytes{0x06, 0x01, 0x00, 0x58})), "EF01FFFFFFFF010006060100580066");
}

TEST(Ef01Codec, ChecksumCarriesPastOneByte) {
    const Bytes payload(200, 0xFF);
    const unsigned expected = (0x01 + 0x00 + 202 + 200 * 0xFF) & 0xFFFF;
    EXPECT_EQ(ef01::checksum(0x01, payload), expected);
    const Bytes p = ef01::build(0x01, payload);
    ASSERT_EQ(p.size(), 9u + 200 + 2);
    EXPECT_EQ(p[7], 0x00);
    EXPECT_EQ(p[8], 202);
    EXPECT_EQ(p[p.size() - 2], expected >> 8);
    EXPECT_EQ(p.back(), expected & 0xFF);
}

TEST(Ef01Codec, BuildIntoRefusesShortRoom) {
    uint8_t out[11];
    EXPECT_EQ(ef01::build_into(0x01, Bytes{0x01}, out), -1);
    uint8_t room[12];
    EXPECT_EQ(ef01::build_into(0x01, Bytes{0x01}, room), 12);
}

TEST(Ef01Codec, ReplyStatus) {
    const Bytes ok = answer(0x00);
    EXPECT_EQ(ef01::reply_status(ok, 64), 12);
    EXPECT_EQ(ef01::confirmation(ok), 0x00);
    EXPECT_EQ(ef01::reply_status(Bytes(ok.begin(), ok.begin() + 8), 64), -1);  // no whole header
    Bytes other = ok;
    other[1] = 0x02;
    EXPECT_EQ(ef01::reply_status(other, 64), -1);                             // not EF 01
    EXPECT_EQ(ef01::reply_status(Bytes(ok.begin(), ok.end() - 1), 64), -2);  // short body
    EXPECT_EQ(ef01::reply_status(ok, 11), -3);                               // past the room
    Bytes huge = ok;
    huge[7] = 0xFF;
    huge[8] = 0xFF;
    EXPECT_EQ(ef01::reply_status(huge, ef01::kPacketMax), -3);
    Bytes empty = ok;
    empty[8] = 0x02;  // no payload byte
    EXPECT_EQ(ef01::reply_status(empty, 64), -3);
    EXPECT_FALSE(ef01::confirmation(empty).has_value());
}

TEST(Ef01Codec, AnswerIdentifierIsNotChecked) {
    Bytes p = ef01::build(0x55, Bytes{0x00, 0x01});
    EXPECT_EQ(ef01::reply_status(p, 64), 13);
    EXPECT_EQ(ef01::payload(p).size(), 2u);
}

TEST(Ef01Capi, Protocol) {
    const uint8_t payload[] = {0x06, 0x01, 0x00, 0x58};
    uint8_t out[32] = {};
    int32_t len = 0;
    EXPECT_EQ(ARA_EM02_Protocol(0x01, payload, 4, out, &len), 0);
    EXPECT_EQ(len, 15);
    EXPECT_EQ(hex(Bytes(out, out + len)), "EF01FFFFFFFF010006060100580066");
    EXPECT_EQ(ARA_EM02_Protocol(0x01, nullptr, 4, out, &len), -1);
}

// A payload longer than a packet body can carry is refused before anything is
// built (no packet-sized allocation for a huge count).
TEST(Ef01Capi, ProtocolRefusesAHugePayloadAtOnce) {
    const uint8_t payload[4] = {};
    uint8_t out[32] = {};
    int32_t len = 7;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ARA_EM02_Protocol(0x01, payload, INT32_MAX, out, &len), -1);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));
    EXPECT_EQ(len, 7);
    EXPECT_TRUE(ef01::build(0x01, std::span<const uint8_t>(payload, std::size_t{0x10000})).empty());
}

// ---------------------------------------------------------------------------
// Exchanges through the simulated module.

TEST_F(Ef01Test, WriteAndReadCaptureImage) {
    sim().place_finger();
    const uint8_t payload[] = {0x01};
    uint8_t reply[KOLT_FP_PACKET_MAX] = {};
    EXPECT_EQ(ARA_EM02_WriteAndRead(0x01, payload, 1, reply, 2), 12);
    EXPECT_EQ(reply[9], 0x00);
    EXPECT_EQ(hex(sim().raw_received()), "EF01FFFFFFFF010003010005");
}

TEST_F(Ef01Test, WriteAndReadNoFinger) {
    const uint8_t payload[] = {0x01};
    uint8_t reply[KOLT_FP_PACKET_MAX] = {};
    EXPECT_EQ(ARA_EM02_WriteAndRead(0x01, payload, 1, reply, 2), 12);
    EXPECT_NE(reply[9], 0x00);
}

TEST_F(Ef01Test, StrayBytesBeforeTheAnswerAreSkipped) {
    sim().write_raw(Bytes{0x11, 0x22, 0x33});
    const Bytes a = answer(0x09);
    sim().write_raw(a);
    uint8_t reply[KOLT_FP_PACKET_MAX] = {};
    EXPECT_EQ(ARA_EM02_Read(reply, 2), 12);
    EXPECT_EQ(reply[9], 0x09);
}

TEST_F(Ef01Test, OversizedReplyIsRefused) {
    Bytes a = ef01::build(0x07, Bytes(300, 0x00));
    sim().write_raw(a);
    uint8_t reply[KOLT_FP_PACKET_MAX + 16];
    std::fill(std::begin(reply), std::end(reply), 0xAA);
    EXPECT_EQ(ARA_EM02_Read(reply, 2), -3);
    for (size_t i = KOLT_FP_PACKET_MAX; i < sizeof reply; ++i) ASSERT_EQ(reply[i], 0xAA);
}

TEST_F(Ef01Test, MalformedLengthIsRefused) {
    Bytes a = answer(0x00);
    a[8] = 0x01;
    sim().write_raw(a);
    uint8_t reply[KOLT_FP_PACKET_MAX] = {};
    EXPECT_EQ(ARA_EM02_Read(reply, 2), -3);
}

TEST_F(Ef01Test, ShortBody) {
    const Bytes a = answer(0x00);
    sim().write_raw(Bytes(a.begin(), a.begin() + 10));
    uint8_t reply[KOLT_FP_PACKET_MAX] = {};
    EXPECT_EQ(ARA_EM02_Read(reply, 1), -2);
}

TEST_F(Ef01Test, NoAnswer) {
    sim().set_finger_failure(1, -1);
    const uint8_t payload[] = {0x01};
    uint8_t reply[KOLT_FP_PACKET_MAX] = {};
    EXPECT_EQ(ARA_EM02_WriteAndRead(0x01, payload, 1, reply, 1), -1);
}

// ---------------------------------------------------------------------------
// The capture sequence.

TEST_F(Ef01Test, GenCharKeepsTheLastHalfOfTheUpload) {
    Bytes features(256);
    for (size_t i = 0; i < features.size(); ++i) features[i] = static_cast<uint8_t>(i);
    sim().place_finger(features);
    uint8_t out[KOLT_FP_FEATURE_SIZE] = {};
    EXPECT_EQ(ARA_EM02_GenChar(out, 5), 0);
    EXPECT_EQ(Bytes(out, out + 256), features);
    // The six commands in order, with their payloads.
    std::vector<std::string> sent;
    for (const auto& c : sim().transcript())
        if (c.framing == kolt::sim::Framing::Ef01) sent.push_back(hex(c.data));
    EXPECT_EQ(sent, (std::vector<std::string>{"01", "0201", "06010058", "07020058", "05", "0802"}));
}

TEST_F(Ef01Test, GenCharWaitsForTheFinger) {
    sim().place_finger({}, 300);
    const auto start = std::chrono::steady_clock::now();
    auto r = kolt::finger::module_gen_char(5);
    EXPECT_EQ(r.code, 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(250));
    const Bytes f = kolt::sim::default_finger_features();
    EXPECT_EQ(Bytes(r.features.begin(), r.features.end()), f);
    EXPECT_GT(sim().finger_captures(), 2);
}

TEST_F(Ef01Test, NoFingerIsPolledUntilTheTimeOut) {
    const auto start = std::chrono::steady_clock::now();
    uint8_t out[KOLT_FP_FEATURE_SIZE] = {};
    EXPECT_EQ(ARA_EM02_GenChar(out, 2), -7);
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, std::chrono::milliseconds(900));
    EXPECT_LE(took, std::chrono::milliseconds(2500));
    // Every round is an exchange and a 500 us pause: many rounds per second.
    EXPECT_GT(sim().finger_captures(), 20);
}

TEST_F(Ef01Test, GenCharStepFailures) {
    sim().place_finger();
    const struct {
        int step, code;
    } rows[] = {{2, -2}, {3, -3}, {4, -4}, {5, -5}, {6, -6}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.step);
        sim().clear_finger_failures();
        sim().set_finger_failure(row.step, 0x0A);
        uint8_t out[KOLT_FP_FEATURE_SIZE] = {};
        EXPECT_EQ(ARA_EM02_GenChar(out, 5), row.code);
    }
}

TEST_F(Ef01Test, GenCharCaptureWithoutAnswer) {
    sim().set_finger_failure(1, -1);
    uint8_t out[KOLT_FP_FEATURE_SIZE] = {};
    EXPECT_EQ(ARA_EM02_GenChar(out, 1), -1);
}

TEST_F(Ef01Test, GenCharStepWithoutAnswer) {
    sim().place_finger();
    sim().set_finger_failure(5, -1);
    uint8_t out[KOLT_FP_FEATURE_SIZE] = {};
    EXPECT_EQ(ARA_EM02_GenChar(out, 1), -5);
}

TEST_F(Ef01Test, GenCharDataPacketMalformed) {
    sim().place_finger();
    sim().set_finger_failure(7, 1);
    uint8_t out[KOLT_FP_FEATURE_SIZE] = {};
    EXPECT_EQ(ARA_EM02_GenChar(out, 5), -8);
}

TEST_F(Ef01Test, GenCharDataPacketsMissing) {
    sim().place_finger();
    sim().set_finger_failure(7, -1);
    uint8_t out[KOLT_FP_FEATURE_SIZE] = {};
    EXPECT_EQ(ARA_EM02_GenChar(out, 1), -8);
}
