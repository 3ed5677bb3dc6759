// Peripheral and identity-module commands against the simulated reader on
// a real pseudo-terminal (local serial link).
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "common/pty_util.hpp"
#include "common/sim_fixture.hpp"
#include "common/test_util.hpp"
#include "device/peripheral.hpp"
#include "kolt/kolt.h"

namespace {

using kolt::sim::Fault;
using kolt::sim::Framing;
using kolt::test::to_hex;
using Bytes = std::vector<uint8_t>;
using kolt::test::elapsed_ms;

class Peripheral : public kolt::test::LinkedSimTest {
protected:
    // The last command the reader received.
    kolt::sim::Command last() {
        EXPECT_TRUE(sim().wait_for_commands(1, 2000));
        const auto t = sim().transcript();
        return t.empty() ? kolt::sim::Command{} : t.back();
    }
    void expect_last(uint8_t cls, uint8_t code, const Bytes& data) {
        const auto c = last();
        EXPECT_EQ(c.framing, Framing::Main);
        EXPECT_EQ(c.cls, cls);
        EXPECT_EQ(c.code, code);
        EXPECT_EQ(to_hex(c.data), to_hex(data));
    }
};

// ---- LEDs and buzzer: only the arrival of a reply counts.

TEST_F(Peripheral, LedOperateSendsLedColorModeAndFixedBytes) {
    EXPECT_EQ(KOLT_T41_LedOperate(LED_IC, LED_Color_R, LED_Flicker), 0);
    expect_last(0x31, 0x14, {0x01, 0x01, 0x02, 0x01, 0x01, 0x00});
    EXPECT_EQ(sim().leds()[LED_IC].color, LED_Color_R);
    EXPECT_EQ(sim().leds()[LED_IC].mode, LED_Flicker);
}

TEST_F(Peripheral, LedOperateIgnoresTheStatus) {
    sim().set_status(0x31, 0x14, 0x10, 0x01);
    EXPECT_EQ(KOLT_T41_LedOperate(LED_MC, LED_Color_y, LED_Light), 0);
}

TEST_F(Peripheral, LedOperateWithoutAValidReplyGivesMinusOne) {
    sim().inject(Fault{Fault::BadCheck});
    EXPECT_EQ(KOLT_T41_LedOperate(LED_FP, LED_Color_G, LED_Light), -1);
}

TEST_F(Peripheral, BuzzSendsItsFixedData) {
    EXPECT_EQ(KOLT_T41_Buzz(), 0);
    expect_last(0x31, 0x13, {0x02, 0x01, 0x01});
    EXPECT_EQ(sim().buzzer_count(), 1);
}

TEST_F(Peripheral, BuzzIgnoresTheStatus) {
    sim().set_status(0x31, 0x13, 0x00, 0x01);
    EXPECT_EQ(KOLT_T41_Buzz(), 0);
}

TEST_F(Peripheral, BuzzWithoutAValidReplyGivesMinusOne) {
    // A damaged reply counts as none (a missing one would take the whole
    // six-second time-out to tell).
    sim().inject(Fault{Fault::BadCheck});
    EXPECT_EQ(KOLT_T41_Buzz(), -1);
}

TEST_F(Peripheral, IdentityLedCallsDriveTheContactlessLedGreen) {
    EXPECT_EQ(KOLT_T41_IDLedFlicker(), 0);
    expect_last(0x31, 0x14, {LED_RF, LED_Color_G, LED_Flicker, 0x01, 0x01, 0x00});
    EXPECT_EQ(sim().leds()[LED_RF].mode, LED_Flicker);
    EXPECT_EQ(KOLT_T41_IDLedLight(), 0);
    expect_last(0x31, 0x14, {LED_RF, LED_Color_G, LED_Light, 0x01, 0x01, 0x00});
    EXPECT_EQ(sim().leds()[LED_RF].mode, LED_Light);
    EXPECT_EQ(KOLT_T41_IDLedLightOut(), 0);
    expect_last(0x31, 0x14, {LED_RF, LED_Color_G, LED_Lightout, 0x01, 0x01, 0x00});
    EXPECT_EQ(sim().leds()[LED_RF].mode, LED_Lightout);
}

TEST_F(Peripheral, IdentityLedCallsReportAMissingReply) {
    sim().inject(Fault{Fault::BadCheck}, 3);
    EXPECT_EQ(KOLT_T41_IDLedFlicker(), -1);
    EXPECT_EQ(KOLT_T41_IDLedLight(), -1);
    EXPECT_EQ(KOLT_T41_IDLedLightOut(), -1);
}

// ---- Commands judged by their status pair.

TEST_F(Peripheral, OpenAndCloseRf) {
    EXPECT_EQ(KOLT_T41_OpenRF(), 0);
    expect_last(0x38, 0x97, {});
    EXPECT_TRUE(sim().rf_on());
    EXPECT_EQ(KOLT_T41_CloseRF(), 0);
    expect_last(0x38, 0x98, {});
    EXPECT_FALSE(sim().rf_on());
}

TEST_F(Peripheral, RfWithAFailureStatusGivesMinusTwo) {
    sim().set_status(0x38, 0x97, 0x30, 0x01);
    sim().set_status(0x38, 0x98, 0x30, 0x01);
    EXPECT_EQ(KOLT_T41_OpenRF(), -2);
    EXPECT_EQ(KOLT_T41_CloseRF(), -2);
}

TEST_F(Peripheral, RfWithABadReplyGivesMinusOne) {
    sim().inject(Fault{Fault::BadCheck}, 2);
    EXPECT_EQ(KOLT_T41_OpenRF(), -1);
    EXPECT_EQ(KOLT_T41_CloseRF(), -1);
}

TEST_F(Peripheral, SigleOperateSendsClassAndCodeWithoutData) {
    sim().set_reply(0x38, 0x99, {0x00, 0x00, {}});
    EXPECT_EQ(KOLT_T41_SigleOperate(0x38, 0x99), 0);
    expect_last(0x38, 0x99, {});
    // The unit answers unknown commands with status 00 01.
    EXPECT_EQ(KOLT_T41_SigleOperate(0x38, 0x9A), -2);
}

TEST_F(Peripheral, SigleOperateWithoutReplyGivesMinusOneWithinItsTimeOut) {
    sim().inject(Fault{Fault::NoReply});
    EXPECT_LT(elapsed_ms([&] { EXPECT_EQ(KOLT_T41_SigleOperate(0x38, 0x97), -1); }), 3500);
}

TEST_F(Peripheral, FindCardSendsTwoZeroBytes) {
    EXPECT_EQ(KOLT_T41_Id_FindCard(), 0);
    expect_last(0x35, 0x80, {0x00, 0x00});
}

TEST_F(Peripheral, FindCardWithStatus0001GivesMinusTwo) {
    sim().set_status(0x35, 0x80, 0x00, 0x01);
    EXPECT_EQ(KOLT_T41_Id_FindCard(), -2);
}

TEST_F(Peripheral, FindCardWithoutReplyGivesMinusOne) {
    sim().inject(Fault{Fault::NoReply});
    EXPECT_LT(elapsed_ms([&] { EXPECT_EQ(KOLT_T41_Id_FindCard(), -1); }), 2500);
}

TEST_F(Peripheral, SelectCard) {
    kolt::test::away_from_second_boundary();  // its time-out is one second
    EXPECT_EQ(KOLT_T41_Id_SelectCard(), 0);
    expect_last(0x35, 0x81, {});
}

TEST_F(Peripheral, SelectCardWithoutCardGivesMinusTwo) {
    sim().set_id_answer(std::nullopt);
    kolt::test::away_from_second_boundary();
    EXPECT_EQ(KOLT_T41_Id_SelectCard(), -2);
    EXPECT_EQ(KOLT_T41_Id_FindCard(), -2);
}

TEST_F(Peripheral, SelectCardWithoutReplyGivesMinusOne) {
    sim().inject(Fault{Fault::NoReply});
    EXPECT_LT(elapsed_ms([&] { EXPECT_EQ(KOLT_T41_Id_SelectCard(), -1); }), 1500);
}

// ---- Identity-card read: the whole decoded frame stays in the buffer.

TEST_F(Peripheral, IdReadCardLeavesTheWholeFrame) {
    Bytes text(256), photo(1024);
    for (size_t i = 0; i < text.size(); ++i) text[i] = static_cast<uint8_t>(i);
    for (size_t i = 0; i < photo.size(); ++i) photo[i] = static_cast<uint8_t>(255 - i % 251);
    const Bytes answer = kolt::sim::make_id_answer(text, photo);
    sim().set_id_answer(answer);
    std::vector<uint8_t> reply(KOLT_T41_REPLY_MAX, 0xEE);
    const int n = KOLT_T41_Id_ReadCard(reply.data());
    // 0x02, length, status pair, the module's answer, 0x30, 0x03.
    ASSERT_EQ(n, static_cast<int>(answer.size() + 2 + 5));
    EXPECT_EQ(reply[0], 0x02);
    EXPECT_EQ(reply[1] * 256 + reply[2], static_cast<int>(answer.size() + 2));
    EXPECT_EQ(reply[3], 0x00);
    EXPECT_EQ(reply[4], 0x00);
    EXPECT_EQ(to_hex(reply.data() + 5, answer.size()), to_hex(answer));
    EXPECT_EQ(reply[n - 2], 0x30);
    EXPECT_EQ(reply[n - 1], 0x03);
    expect_last(0x35, 0x82, {});
}

TEST_F(Peripheral, IdReadCardWithoutCardGivesMinusTwo) {
    sim().set_id_answer(std::nullopt);
    std::vector<uint8_t> reply(KOLT_T41_REPLY_MAX);
    EXPECT_EQ(KOLT_T41_Id_ReadCard(reply.data()), -2);
}

TEST_F(Peripheral, IdReadCardWithABadReplyGivesMinusOne) {
    sim().inject(Fault{Fault::BadCheck});
    std::vector<uint8_t> reply(KOLT_T41_REPLY_MAX);
    EXPECT_EQ(KOLT_T41_Id_ReadCard(reply.data()), -1);
}

TEST_F(Peripheral, ReadIdCardUsesTheCallersTimeOut) {
    std::vector<uint8_t> reply(KOLT_T41_REPLY_MAX);
    EXPECT_GT(KOLT_T41_ReadIDCard(reply.data(), 2), 5);
    sim().inject(Fault{Fault::NoReply});
    EXPECT_LT(elapsed_ms([&] { EXPECT_EQ(KOLT_T41_ReadIDCard(reply.data(), 1), -1); }), 1500);
}

TEST_F(Peripheral, ReadIdCardWithoutCardGivesMinusTwo) {
    sim().set_id_answer(std::nullopt);
    std::vector<uint8_t> reply(KOLT_T41_REPLY_MAX);
    EXPECT_EQ(KOLT_T41_ReadIDCard(reply.data(), 1), -2);
}

// ---- Version.

TEST_F(Peripheral, GetVersionCopiesTheVersionBytesWithoutTerminator) {
    uint8_t out[KOLT_VERSION_MAX];
    std::memset(out, 0xEE, sizeof out);
    const std::string v = "KL560T41-FW-20240115-V1.08";
    EXPECT_EQ(KOLT_T41_GetVersion(4, out, 2), static_cast<int>(v.size()));
    EXPECT_EQ(std::string(reinterpret_cast<char*>(out), v.size()), v);
    EXPECT_EQ(out[v.size()], 0xEE);
    expect_last(0x31, 0x11, {0x04});
}

TEST_F(Peripheral, GetVersionWithAFailureStatusGivesMinusTwoAndWritesNothing) {
    uint8_t out[KOLT_VERSION_MAX];
    std::memset(out, 0xEE, sizeof out);
    EXPECT_EQ(KOLT_T41_GetVersion(9, out, 2), -2);  // unknown selector: status 00 01
    EXPECT_EQ(out[0], 0xEE);
}

TEST_F(Peripheral, GetVersionWithADamagedReplyGivesMinusOne) {
    sim().inject(Fault{Fault::BadCheck});  // fails at once, as a missing reply does after the time-out
    uint8_t out[KOLT_VERSION_MAX];
    EXPECT_EQ(KOLT_T41_GetVersion(4, out, 1), -1);
}

TEST_F(Peripheral, GetVersionLongerThanTheRoomIsRefused) {
    sim().set_reply(0x31, 0x11, {0x00, 0x00, Bytes(40, 'v')});
    Bytes out(16, 0xEE);
    EXPECT_EQ(kolt::device::get_version(1, out, 2), -1);
    for (uint8_t b : out) EXPECT_EQ(b, 0xEE);
}

// ---- Identity-module serial number.

TEST_F(Peripheral, SerialNumberTextFromLittleEndianFields) {
    sim().set_reply(0x35, 0x87, {0x00, 0x00, kolt::test::from_hex("01000200030000000400000005000000")});
    char out[KOLT_SAIMID_TEXT_MAX];
    EXPECT_EQ(KOLT_T41_GetSAIMIDStr(out, 2), 23);  // the frame length
    EXPECT_STREQ(out, "01.02-00000003-0000000004-0000000005");
    expect_last(0x35, 0x87, {0x00});
}

TEST_F(Peripheral, SerialNumberOfTheDefaultUnit) {
    char out[KOLT_SAIMID_TEXT_MAX];
    EXPECT_EQ(KOLT_T41_GetSAIMIDStr(out, 2), 23);
    EXPECT_STREQ(out, "01.02-20230915-0001234567-0089012345");
}

TEST_F(Peripheral, SerialNumberFailuresWriteNothing) {
    char out[KOLT_SAIMID_TEXT_MAX];
    std::memset(out, 'Z', sizeof out);
    sim().set_status(0x35, 0x87, 0x00, 0x01);
    EXPECT_EQ(KOLT_T41_GetSAIMIDStr(out, 2), -2);
    EXPECT_EQ(out[0], 'Z');
    sim().clear_status(0x35, 0x87);
    sim().inject(Fault{Fault::BadCheck});  // no usable reply
    EXPECT_EQ(KOLT_T41_GetSAIMIDStr(out, 1), -1);
    EXPECT_EQ(out[0], 'Z');
    // Fewer than 16 data bytes: no number to read.
    sim().set_reply(0x35, 0x87, {0x00, 0x00, {1, 0, 2, 0}});
    EXPECT_EQ(KOLT_T41_GetSAIMIDStr(out, 2), -1);
    EXPECT_EQ(out[0], 'Z');
}

TEST(PeripheralText, LargestSerialNumberFitsTheTextBuffer) {
    uint8_t all[16];
    std::memset(all, 0xFF, sizeof all);
    const std::string t = kolt::device::saimid_text(std::span<const uint8_t, 16>(all, 16));
    EXPECT_EQ(t, "65535.65535-4294967295-4294967295-4294967295");
    EXPECT_LT(t.size(), static_cast<size_t>(KOLT_SAIMID_TEXT_MAX));
}

TEST(PeripheralArgs, NullBuffersAreRefused) {
    EXPECT_EQ(KOLT_T41_Id_ReadCard(nullptr), Para_Error);
    EXPECT_EQ(KOLT_T41_ReadIDCard(nullptr, 1), Para_Error);
    EXPECT_EQ(KOLT_T41_GetVersion(1, nullptr, 1), Para_Error);
    EXPECT_EQ(KOLT_T41_GetSAIMIDStr(nullptr, 1), Para_Error);
}

}  // namespace
