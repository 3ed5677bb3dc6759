// IC card command set, end to end through the simulated reader and its cards.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "common/card_flow.hpp"
#include "device/icc.hpp"
#include "emv/tags.hpp"
#include "kolt/kolt.h"
#include "kolt_sim/card.hpp"
#include "support/log.hpp"

using kolt::sim::ProfileCard;
using kolt::test::commands;
using kolt::test::from_hex;
using kolt::test::to_hex;

namespace {

std::shared_ptr<ProfileCard> card(const std::string& name) { return kolt::test::load_card(name); }
std::vector<std::string> apdus(const ProfileCard& c) { return kolt::test::apdus_hex(c); }

constexpr uint32_t sw(int value) { return static_cast<uint32_t>(value); }

// A simulated reader with the link open.
class Icc : public kolt::test::LinkedSimTest {
protected:
    // Powers the contact card on (slot 0x00) and forgets what was sent.
    void power_contact(const std::shared_ptr<ProfileCard>& c) {
        sim().set_contact_card(c);
        int32_t slot = -1;
        ASSERT_EQ(KOLT_T41_ICC_Poweron(0x00, 3, &slot), OK);
        sim().clear_transcript();
        c->clear_apdus();
    }
    // Powers the contact card on, selects the reference application (issuer
    // scripts need one) and forgets what the card received.
    void select_reference(const std::shared_ptr<ProfileCard>& c) {
        power_contact(c);
        const uint8_t aid[] = {0xF0, 0x4B, 0x4F, 0x4C, 0x54, 0x01, 0x01, 0x01};
        uint8_t out[256] = {};
        int32_t len = -1;
        ASSERT_EQ(KOLT_T41_ICC_Select_Aid(0x00, aid, 8, out, &len, 3), sw(0x9000));
        c->clear_apdus();
    }
};

// READ RECORD 1 of SFI 1 as a raw exchange on slot 0x00: the result, and
// the response length (preset to -1).
struct RawRead {
    int32_t rc = 0;
    int32_t len = -1;
};
RawRead raw_read_record(uint8_t* out, uint32_t timeout) {
    const uint8_t cmd[] = {0x00, 0xB2, 0x01, 0x0C, 0x00};
    RawRead r;
    r.rc = KOLT_T41_APDUBuf(0x00, cmd, 5, out, &r.len, timeout);
    return r;
}

}  // namespace

// --- power-on -----------------------------------------------------------

TEST_F(Icc, AutoPowerOnFallsBackToContactlessAndLightsTheRfLed) {
    sim().set_contactless_card(card("qpboc_contactless"));
    int32_t slot = -1;
    EXPECT_EQ(KOLT_T41_ICC_Poweron(0x02, 5, &slot), OK);
    EXPECT_EQ(slot, 0xFF);
    EXPECT_EQ(commands(sim()), (std::vector<std::string>{"32 22 000000", "32 24 0000", "31 14 030001010100"}));
    EXPECT_EQ(sim().leds()[LED_RF].mode, LED_Light);
}

TEST_F(Icc, AutoPowerOnUsesTheContactCardFirst) {
    sim().set_contact_card(card("pboc_debit"));
    sim().set_contactless_card(card("qpboc_contactless"));
    int32_t slot = -1;
    EXPECT_EQ(KOLT_T41_ICC_Poweron(0x02, 5, &slot), OK);
    EXPECT_EQ(slot, 0x00);
    // The working slot is 0x00, which lights no LED.
    EXPECT_EQ(commands(sim()), (std::vector<std::string>{"32 22 000000"}));
}

TEST_F(Icc, PowerOnSlotZeroLightsNothing) {
    sim().set_contact_card(card("pboc_debit"));
    int32_t slot = -1;
    EXPECT_EQ(KOLT_T41_ICC_Poweron(0x00, 3, &slot), OK);
    EXPECT_EQ(slot, 0x00);
    EXPECT_EQ(commands(sim()), (std::vector<std::string>{"32 22 000000"}));
    EXPECT_TRUE(sim().leds().empty() || sim().leds()[LED_IC].mode == LED_Lightout);
}

TEST_F(Icc, PowerOnSlotOneLightsTheIcLed) {
    sim().set_contact_card(card("pboc_debit"));
    int32_t slot = -1;
    EXPECT_EQ(KOLT_T41_ICC_Poweron(0x01, 3, &slot), OK);
    EXPECT_EQ(slot, 0x01);
    EXPECT_EQ(commands(sim()), (std::vector<std::string>{"32 22 000001", "31 14 010001010100"}));
    EXPECT_EQ(sim().leds()[LED_IC].mode, LED_Light);
}

TEST_F(Icc, PowerOnContactlessSlot) {
    sim().set_contactless_card(card("qpboc_contactless"));
    EXPECT_EQ(KOLT_T41_ICC_Poweron(0xFF, 3, &kolt::emv::ssICType), OK);
    EXPECT_EQ(kolt::emv::ssICType, 0xFF);
    EXPECT_EQ(commands(sim()), (std::vector<std::string>{"32 24 0000", "31 14 030001010100"}));
}

TEST_F(Icc, PowerOnRefusesOtherSlotsWithoutACommand) {
    for (uint32_t slot : {0x03u, 0x11u, 0x14u, 0xFEu, 0x100u}) {
        int32_t out = 0x55;
        EXPECT_EQ(KOLT_T41_ICC_Poweron(slot, 3, &out), Para_Error) << slot;
        EXPECT_EQ(out, 0x55);
    }
    EXPECT_TRUE(sim().transcript().empty());
}

TEST_F(Icc, PowerOnWithoutCardReportsTheDeviceCode) {
    int32_t slot = -1;
    EXPECT_EQ(KOLT_T41_ICC_Poweron(0x00, 3, &slot), ICC_Contact_Not_Insert);
    EXPECT_EQ(slot, 0x00);  // stored also on failure
    EXPECT_EQ(commands(sim()), (std::vector<std::string>{"32 22 000000"}));
}

TEST_F(Icc, AutoPowerOnWithoutAnyCardTriesBothSlotsOnce) {
    int32_t slot = -1;
    EXPECT_EQ(KOLT_T41_ICC_Poweron(0x02, 3, &slot), ICC_Contactless_Not_Activated);
    EXPECT_EQ(slot, 0xFF);
    EXPECT_EQ(commands(sim()), (std::vector<std::string>{"32 22 000000", "32 24 0000"}));
}

// The device layer's one test of a real time-out that only needs the
// command to fail: the reader stays silent and the power-on waits out its
// time (the shortest, timeout 0 takes one second). Elsewhere a damaged reply
// gives the same failure at once; the tests named ...WithinItsTimeOut,
// ...UsesTheCallersTimeOut and PowerOnWithTenSeconds... measure the time-outs
// themselves.
TEST_F(Icc, PowerOnWithoutAnswerIsRevdataErrorAndStoresNoSlot) {
    sim().set_contact_card(card("pboc_debit"));
    sim().inject_for(0x32, 0x22, kolt::sim::Fault{kolt::sim::Fault::NoReply, 0});
    int32_t slot = 0x55;
    EXPECT_EQ(KOLT_T41_ICC_Poweron(0x02, 0, &slot), Revdata_Error);
    EXPECT_EQ(slot, 0x55);
    // No contactless attempt after a silent reader.
    EXPECT_EQ(commands(sim()), (std::vector<std::string>{"32 22 000000"}));
}

TEST(IccTimeout, PowerOnTransportTimeOutIsCappedAtFourSeconds) {
    EXPECT_EQ(kolt::device::poweron_transport_timeout(10), 4u);
    EXPECT_EQ(kolt::device::poweron_transport_timeout(3), 4u);
    EXPECT_EQ(kolt::device::poweron_transport_timeout(2), 3u);
    EXPECT_EQ(kolt::device::poweron_transport_timeout(0), 1u);
    EXPECT_EQ(kolt::device::poweron_transport_timeout(0xFFFFFFFFu), 4u);
}

TEST_F(Icc, PowerOnWithTenSecondsGivesUpOnAReaderSlowerThanFour) {
    // A reply 5.5 s late is not waited for: ten seconds become four.
    sim().set_contact_card(card("pboc_debit"));
    sim().inject_for(0x32, 0x22, kolt::sim::Fault{kolt::sim::Fault::Delay, 5500});
    int32_t slot = -1;
    EXPECT_EQ(KOLT_T41_ICC_Poweron(0x00, 10, &slot), Revdata_Error);
}

TEST_F(Icc, PowerOnWithTenSecondsWaitsForAReaderTwoSecondsLate) {
    sim().set_contact_card(card("pboc_debit"));
    sim().inject_for(0x32, 0x22, kolt::sim::Fault{kolt::sim::Fault::Delay, 2000});
    int32_t slot = -1;
    EXPECT_EQ(KOLT_T41_ICC_Poweron(0x00, 10, &slot), OK);
    EXPECT_EQ(slot, 0x00);
}

// --- power-off ----------------------------------------------------------

TEST_F(Icc, PowerOffContactSlotOneSwitchesTheIcLedOff) {
    sim().set_contact_card(card("pboc_debit"));
    int32_t slot = -1;
    ASSERT_EQ(KOLT_T41_ICC_Poweron(0x01, 3, &slot), OK);
    sim().clear_transcript();
    EXPECT_EQ(KOLT_T41_ICC_Poweroff(0x01), OK);
    EXPECT_EQ(commands(sim()), (std::vector<std::string>{"32 23 01", "31 14 010000010100"}));
    EXPECT_EQ(sim().leds()[LED_IC].mode, LED_Lightout);
}

TEST_F(Icc, PowerOffContactlessSwitchesTheRfLedOff) {
    sim().set_contactless_card(card("qpboc_contactless"));
    int32_t slot = -1;
    ASSERT_EQ(KOLT_T41_ICC_Poweron(0xFF, 3, &slot), OK);
    sim().clear_transcript();
    EXPECT_EQ(KOLT_T41_ICC_Poweroff(0xFF), OK);
    EXPECT_EQ(commands(sim()), (std::vector<std::string>{"32 25 0000", "31 14 030000010100"}));
}

TEST_F(Icc, PowerOffSlotZeroTouchesNoLed) {
    power_contact(card("pboc_debit"));
    EXPECT_EQ(KOLT_T41_ICC_Poweroff(0x00), OK);
    EXPECT_EQ(commands(sim()), (std::vector<std::string>{"32 23 00"}));
}

TEST_F(Icc, PowerOffFailures) {
    EXPECT_EQ(KOLT_T41_ICC_Poweroff(0x01), ICC_Contact_Not_Insert);
    EXPECT_EQ(commands(sim()), (std::vector<std::string>{"32 23 01"}));  // no LED after a failure
    sim().inject_for(0x32, 0x25, kolt::sim::Fault{kolt::sim::Fault::BadCheck, 0});
    EXPECT_EQ(KOLT_T41_ICC_Poweroff(0xFF), Revdata_Error);
}

// --- state query ----------------------------------------------------------

TEST_F(Icc, StateQueryReturnsTheTransportResult) {
    sim().set_contact_card(card("pboc_debit"));
    const int32_t n = KOLT_T41_ICC_Getstate(0x77);
    EXPECT_EQ(n, 9);  // 02, length, status, two state bytes, check, 03
    EXPECT_EQ(commands(sim()), (std::vector<std::string>{"32 21 11"}));
    sim().inject_for(0x32, 0x21, kolt::sim::Fault{kolt::sim::Fault::BadCheck, 0});
    EXPECT_EQ(KOLT_T41_ICC_Getstate(0), -2);
}

// --- raw exchange -----------------------------------------------------------

TEST_F(Icc, HexTextWithBlanksIsSentAsBytesAfterTheSlot) {
    power_contact(card("pboc_debit"));
    uint8_t out[256];
    std::memset(out, 0xEE, sizeof out);
    int32_t len = -1;
    EXPECT_EQ(KOLT_T41_APDUHexstr(0x00, "00 A4 04 00 02 3F 00", out, &len, 3), OK);
    EXPECT_EQ(commands(sim()), (std::vector<std::string>{"32 26 0000A40400023F00"}));
    // The card knows no such name: the response is its status word, raw.
    EXPECT_EQ(len, 2);
    EXPECT_EQ(to_hex(out, 3), "6A8200");
}

TEST_F(Icc, BufferFormReturnsResponseAndStatus) {
    auto c = card("pboc_debit");
    power_contact(c);
    const auto select = from_hex("00 A4 04 00 0E 31 50 41 59 2E 53 59 53 2E 44 44 46 30 31");
    uint8_t out[256] = {};
    int32_t len = -1;
    EXPECT_EQ(KOLT_T41_APDUBuf(0x00, select.data(), static_cast<int32_t>(select.size()), out, &len, 3), OK);
    ASSERT_GE(len, 4);
    EXPECT_EQ(out[0], 0x6F);
    EXPECT_EQ(to_hex(out + len - 2, 2), "9000");
    EXPECT_EQ(apdus(*c), (std::vector<std::string>{"00A404000E315041592E5359532E4444463031"}));
    EXPECT_EQ(commands(sim()), (std::vector<std::string>{"32 26 0000A404000E315041592E5359532E4444463031"}));
}

TEST_F(Icc, DeviceFailureOfAnExchangeIsItsCode) {
    sim().set_contact_card(card("pboc_debit"));  // inserted, not powered
    uint8_t out[256] = {};
    const RawRead r = raw_read_record(out, 3);
    EXPECT_EQ(r.rc, ICC_Contact_Not_Powered);
    EXPECT_EQ(r.len, 0);
}

TEST_F(Icc, ExchangeWithoutValidReplyIsRevdataError) {
    power_contact(card("pboc_debit"));
    sim().inject_for(0x32, 0x26, kolt::sim::Fault{kolt::sim::Fault::BadCheck, 0});
    uint8_t out[256] = {};
    const RawRead r = raw_read_record(out, 2);
    EXPECT_EQ(r.rc, Revdata_Error);
    EXPECT_EQ(r.len, 0);
}

TEST_F(Icc, ResponseLongerThanTheBufferIsRefused) {
    kolt::sim::Reply big{0x00, 0x00, std::vector<uint8_t>(300, 0x41)};
    big.data.push_back(0x90);
    big.data.push_back(0x00);
    sim().set_reply(0x32, 0x26, big);
    std::vector<uint8_t> out(400, 0xEE);
    const RawRead r = raw_read_record(out.data(), 3);
    EXPECT_EQ(r.rc, Lenth_Error);
    EXPECT_EQ(r.len, 0);
    EXPECT_EQ(out[0], 0xEE);
    int32_t len = -1;
    // READ RECORD through the card-level path: the same code, unsigned.
    EXPECT_EQ(KOLT_T41_ICC_Comm_Read_Record(0x00, 1, 1, out.data(), &len, 3), sw(Lenth_Error));
    // A response of 255 bytes (and its zero) still fits.
    kolt::sim::Reply fits{0x00, 0x00, std::vector<uint8_t>(253, 0x42)};
    fits.data.push_back(0x90);
    fits.data.push_back(0x00);
    sim().set_reply(0x32, 0x26, fits);
    EXPECT_EQ(KOLT_T41_ICC_Comm_Read_Record(0x00, 1, 1, out.data(), &len, 3), sw(0x9000));
    EXPECT_EQ(len, 255);
    EXPECT_EQ(out[255], 0);
}

TEST_F(Icc, ReplyWithoutStatusWordIsLenthError) {
    sim().set_reply(0x32, 0x26, kolt::sim::Reply{0x00, 0x00, {0x90}});
    uint8_t out[256] = {};
    int32_t len = -1;
    EXPECT_EQ(KOLT_T41_ICC_Comm_Read_Record(0x00, 1, 1, out, &len, 3), sw(Lenth_Error));
}

// --- APDU builders ----------------------------------------------------------

TEST_F(Icc, LcDataBuildsHeaderLcAndData) {
    auto c = card("pboc_debit");
    power_contact(c);
    const uint8_t header[4] = {0x00, 0xA4, 0x04, 0x00};
    const auto name = from_hex("31 50 41 59 2E 53 59 53 2E 44 44 46 30 31");
    uint8_t out[256] = {};
    int32_t len = -1;
    EXPECT_EQ(KOLT_T41_ICC_APDULcData(0x00, header, name.data(), 14, out, &len, 3), sw(0x9000));
    EXPECT_EQ(apdus(*c), (std::vector<std::string>{"00A404000E315041592E5359532E4444463031"}));
    EXPECT_EQ(to_hex(out + len - 2, 2), "9000");
}

TEST_F(Icc, LcDataRefusesNegativeAndOversizedLc) {
    const uint8_t header[4] = {0x00, 0xA4, 0x04, 0x00};
    const std::vector<uint8_t> data(300, 0);
    uint8_t out[256] = {};
    int32_t len = 7;
    EXPECT_EQ(KOLT_T41_ICC_APDULcData(0x00, header, data.data(), -1, out, &len, 3), sw(Lenth_Error));
    EXPECT_EQ(len, 0);
    EXPECT_EQ(KOLT_T41_ICC_APDULcData(0x00, header, data.data(), 256, out, &len, 3), sw(Lenth_Error));
    EXPECT_TRUE(sim().transcript().empty());
}

TEST_F(Icc, EmvCommandsSendTheirExactBytes) {
    auto c = card("pboc_debit");
    power_contact(c);
    uint8_t out[256] = {};
    int32_t len = -1;
    const auto aid = from_hex("F0 4B 4F 4C 54 01 01 01");
    EXPECT_EQ(KOLT_T41_ICC_Select_Aid(0x00, aid.data(), 8, out, &len, 3), sw(0x9000));
    const auto pdol = from_hex("01 000000000100 0156");
    EXPECT_EQ(KOLT_T41_ICC_SetGPO(0x00, pdol.data(), 9, out, &len, 3), sw(0x9000));
    EXPECT_EQ(out[0], 0x80);
    EXPECT_EQ(KOLT_T41_ICC_Comm_Read_Record(0x00, 1, 2, out, &len, 3), sw(0x9000));
    EXPECT_EQ(out[0], 0x70);
    const std::vector<uint8_t> cdol1(52, 0x00);
    EXPECT_EQ(KOLT_T41_ICC_Generate_Ac(0x00, 0x80, cdol1.data(), 52, out, &len, 3), sw(0x9000));
    const auto arpc = from_hex("11 22 33 44 55 66 77 88 30 30");
    EXPECT_EQ(KOLT_T41_External_Authenticate(0x00, arpc.data(), 10, out, &len, 3), sw(0x9000));
    const uint8_t tag[2] = {0x9F, 0x79};
    const auto value = from_hex("000000000500");
    EXPECT_EQ(KOLT_T41_Put_Data(0x00, tag, value.data(), 6, out, &len, 3), sw(0x9000));

    const auto sent = apdus(*c);
    ASSERT_EQ(sent.size(), 6u);
    EXPECT_EQ(sent[0], "00A4040008F04B4F4C54010101");
    EXPECT_EQ(sent[1], "80A800000B8309010000000001000156");
    EXPECT_EQ(sent[2], "00B2011400");
    EXPECT_EQ(sent[3], "80AE800034" + std::string(104, '0'));
    EXPECT_EQ(sent[4], "00820000" "0A" "11223344556677883030");
    EXPECT_EQ(sent[5], "04DA9F7906000000000500");
}

TEST_F(Icc, CardRejectionIsItsStatusWord) {
    auto c = card("pboc_debit");
    power_contact(c);
    uint8_t out[256] = {};
    int32_t len = -1;
    const auto aid = from_hex("F0 4B 4F 4C 54 09 09 09");
    EXPECT_EQ(KOLT_T41_ICC_Select_Aid(0x00, aid.data(), 8, out, &len, 3), sw(0x6A82));
    EXPECT_EQ(len, 2);
}

// --- GET DATA ---------------------------------------------------------------

TEST_F(Icc, GetDataOfTheCounterIsRawBytes) {
    auto c = card("pboc_debit");
    power_contact(c);
    uint8_t out[256];
    std::memset(out, 0xEE, sizeof out);
    const uint8_t tag[2] = {0x9F, 0x36};
    EXPECT_EQ(KOLT_T41_ICC_GetData(0x00, tag, out, 3), sw(0x9000));
    EXPECT_EQ(out[0], 2);
    EXPECT_EQ(to_hex(out + 1, 2), "001C");
    EXPECT_EQ(apdus(*c), (std::vector<std::string>{"80CA9F3600"}));
}

TEST_F(Icc, GetDataOfHexFormattedTags) {
    power_contact(card("pboc_debit"));
    uint8_t out[256] = {};
    const uint8_t atc_online[2] = {0x9F, 0x13};
    EXPECT_EQ(KOLT_T41_ICC_GetData(0x00, atc_online, out, 3), sw(0x9000));
    EXPECT_EQ(out[0], 4);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(out + 1)), "0019");
    const uint8_t balance[2] = {0x9F, 0x79};
    EXPECT_EQ(KOLT_T41_ICC_GetData(0x00, balance, out, 3), sw(0x9000));
    EXPECT_EQ(out[0], 12);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(out + 1)), "000000012345");
}

TEST_F(Icc, GetDataRefusedLeavesTheBufferAlone) {
    power_contact(card("no_log_entry"));
    uint8_t out[256];
    std::memset(out, 0xEE, sizeof out);
    const uint8_t tag[2] = {0x9F, 0x4F};
    EXPECT_EQ(KOLT_T41_ICC_GetData(0x00, tag, out, 3), sw(0x6A88));
    EXPECT_EQ(out[0], 0xEE);
    EXPECT_EQ(out[1], 0xEE);
}

TEST_F(Icc, GetDataLongValueStaysInTheSlot) {
    // 150 bytes of 9F79: held as (150 & 0x7F) * 2 = 44 hex digits.
    kolt::sim::Reply r{0x00, 0x00, {0x9F, 0x79, 0x81, 150}};
    r.data.resize(r.data.size() + 150, 0x12);
    r.data.push_back(0x90);
    r.data.push_back(0x00);
    sim().set_reply(0x32, 0x26, r);
    uint8_t out[256] = {};
    const uint8_t tag[2] = {0x9F, 0x79};
    EXPECT_EQ(kolt::device::get_data(0, tag, std::span<uint8_t, 256>(out, 256), 3), sw(0x9000));
    EXPECT_EQ(out[0], 44);
    EXPECT_EQ(out[45], 0);
}

// --- scripts ----------------------------------------------------------------

TEST_F(Icc, ScriptCommandOfThreeBytesIsRefused) {
    power_contact(card("pboc_debit"));
    const uint8_t cmd[] = {0x84, 0x18, 0x00};
    uint8_t out[256] = {};
    int32_t len = -1;
    EXPECT_EQ(KOLT_T41_Exec_Script(0x00, cmd, 3, out, &len, 3), sw(-1));
    EXPECT_TRUE(sim().transcript().empty());
}

TEST_F(Icc, ScriptCommandIsSentAsItStands) {
    auto c = card("pboc_debit");
    select_reference(c);
    uint8_t out[256] = {};
    int32_t len = -1;
    const uint8_t cmd[] = {0x84, 0x18, 0x00, 0x00, 0x00};
    EXPECT_EQ(KOLT_T41_Exec_Script(0x00, cmd, 5, out, &len, 3), sw(0x9000));
    EXPECT_EQ(apdus(*c).back(), "8418000000");
}

TEST_F(Icc, TwoScriptsWithTheSecondFailing) {
    auto c = card("pboc_debit");
    select_reference(c);
    const uint8_t prefix[] = {0x84, 0x1E};
    c->override_sw(prefix, 0x6985);

    const auto script = from_hex("86 05 84 18 00 00 00  86 05 84 1E 00 00 00");
    int32_t executed = -1;
    EXPECT_EQ(KOLT_T41_Exec_MutiScript(0x00, script.data(), static_cast<int32_t>(script.size()), &executed, 3),
              sw(0x6985));
    EXPECT_EQ(executed, 1);
    EXPECT_EQ(apdus(*c), (std::vector<std::string>{"8418000000", "841E000000"}));
}

TEST_F(Icc, ScriptsAllSucceeding) {
    auto c = card("pboc_debit");
    select_reference(c);
    const auto script = from_hex("86 05 84 18 00 00 00  86 0B 04 DA 9F 79 06 00 00 00 00 05 00  86 05 84 18 00 00 00");
    int32_t executed = -1;
    EXPECT_EQ(KOLT_T41_Exec_MutiScript(0x00, script.data(), static_cast<int32_t>(script.size()), &executed, 3),
              sw(0x9000));
    EXPECT_EQ(executed, 3);
    EXPECT_EQ(apdus(*c), (std::vector<std::string>{"8418000000", "04DA9F7906000000000500", "8418000000"}));
}

TEST_F(Icc, ScriptWithoutCommandsExecutesNothing) {
    power_contact(card("pboc_debit"));
    const auto script = from_hex("9F 18 04 00 00 00 01");
    int32_t executed = -1;
    EXPECT_EQ(KOLT_T41_Exec_MutiScript(0x00, script.data(), static_cast<int32_t>(script.size()), &executed, 3),
              sw(0x9000));
    EXPECT_EQ(executed, 0);
    EXPECT_EQ(KOLT_T41_Exec_MutiScript(0x00, nullptr, 0, &executed, 3), sw(0x9000));
    EXPECT_TRUE(sim().transcript().empty());
}

// --- trace -----------------------------------------------------------------

TEST_F(Icc, StepsAreTracedWhenTheLogIsOn) {
    kolt::test::DebugLogCapture debug;
    sim().set_contact_card(card("pboc_debit"));
    int32_t slot = -1;
    ASSERT_EQ(KOLT_T41_ICC_Poweron(0x00, 3, &slot), OK);
    uint8_t out[256] = {};
    const uint8_t tag[2] = {0x9F, 0x36};
    EXPECT_EQ(KOLT_T41_ICC_GetData(0x00, tag, out, 3), sw(0x9000));
    EXPECT_EQ(KOLT_T41_ICC_Poweroff(0x00), OK);
    const std::string log = debug.text();
    for (const char* line : {"KOLT_T41_ICC_Poweron slotNo=0", "KOLT_T41_ICC_GetData......",
                             "KOLT_T41_ICC_SingleAPDUWrite......", "KOLT_T41_ICC_SingleAPDUWrite sw=9000",
                             "KOLT_T41_APDUBuf......", "KOLT_T41_ICC_Poweroff......"}) {
        EXPECT_NE(log.find(line), std::string::npos) << line;
    }
}

// --- PSAM -------------------------------------------------------------------

class Psam : public kolt::test::SimTest {};

TEST_F(Psam, ContactSlotIsPoweredOnAndOff) {
    sim().set_contact_card(card("pboc_debit"));
    EXPECT_EQ(KOLT_PSAM_Operate(0, "", 1, "", 0, 0x00), OK);
    EXPECT_EQ(commands(sim()), (std::vector<std::string>{"32 21 11", "32 22 000000", "32 23 00"}));
    EXPECT_EQ(kolt::emv::ssICType, 0x00);
}

TEST_F(Psam, PsamHolderNumberFailsAtPowerOn) {
    kolt::emv::ssICType = 0x33;
    EXPECT_EQ(KOLT_PSAM_Operate(0, "", 1, "", 0, SLOT_2_SIM200), -1);
    EXPECT_EQ(commands(sim()), (std::vector<std::string>{"32 21 11"}));
    EXPECT_EQ(kolt::emv::ssICType, 0x33);
}

TEST_F(Psam, PowerOnFailureIsMinusOne) {
    EXPECT_EQ(KOLT_PSAM_Operate(0, "", 1, "", 0, 0x00), -1);  // no card
    EXPECT_EQ(commands(sim()), (std::vector<std::string>{"32 21 11", "32 22 000000"}));
}

TEST_F(Psam, PowerOffResultIsReturned) {
    sim().set_contact_card(card("pboc_debit"));
    sim().set_status(0x32, 0x23, 0x10, 0x04);
    EXPECT_EQ(KOLT_PSAM_Operate(0, "", 1, "", 0, 0x00), ICC_Contact_Not_Powered);
}

TEST(PsamLink, LinkFailureIsMinusOne) {
    std::strncpy(gPortName, "kolt-no-such-port", sizeof gPortName - 1);
    EXPECT_EQ(KOLT_PSAM_Operate(0, "", 1, "", 0, 0x00), -1);
}
