// The stripe reader's framed path end to end through the simulated reader:
// KOLT_T41_MC_ReadData, KOLT_T41_MC_ReadThreeTrackData (on an open link)
// and getMCCardNo (which opens its own).
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "common/card_flow.hpp"
#include "common/sim_fixture.hpp"
#include "kolt/kolt.h"
#include "kolt_sim/simulator.hpp"

namespace {

using kolt::sim::StripeCard;
using kolt::test::commands;

const std::string kT1 = "%B6299990000001234560^LI/SIMING^3012101?";
const std::string kT2 = ";6299990000001234560=30122201234567890?";
const std::string kT3 = ";996299990000001234560=1561560000000000000003000000114000049120?";

std::string track_data(const std::vector<uint8_t>& buf) {
    const std::size_t len = static_cast<std::size_t>(buf[1] << 8 | buf[2]);
    return std::string(buf.begin() + 3, buf.begin() + 3 + static_cast<long>(len));
}

class StripeFramedTest : public kolt::test::LinkedSimTest {};
class CardNoTest : public kolt::test::SimTest {};

std::string card_no(int* rc) {
    std::vector<char> out(64, 0);
    *rc = getMCCardNo(0, "", 1, "", out.data(), 0);
    return out.data();
}

}  // namespace

TEST_F(StripeFramedTest, ThreeTracksWithTheLedAround) {
    sim().swipe(StripeCard{kT1, kT2, kT3});
    std::vector<uint8_t> t1(KOLT_T41_REPLY_MAX, 0xEE), t2(KOLT_T41_REPLY_MAX, 0xEE), t3(KOLT_T41_REPLY_MAX, 0xEE);
    EXPECT_EQ(KOLT_T41_MC_ReadThreeTrackData(t1.data(), t2.data(), t3.data(), 5), 0);
    EXPECT_EQ(t1[0], 0);
    EXPECT_EQ(t2[0], 0);
    EXPECT_EQ(t3[0], 0);
    EXPECT_EQ(track_data(t1), kT1);
    EXPECT_EQ(track_data(t2), kT2);
    EXPECT_EQ(track_data(t3), kT3);
    // The read (36 91 with the time-out byte), between the stripe LED on and off.
    const auto cmds = commands(sim());
    std::vector<std::string> stripe;
    for (const auto& c : cmds)
        if (c.rfind("31 14 02", 0) == 0 || c.rfind("36 91", 0) == 0) stripe.push_back(c);
    ASSERT_EQ(stripe.size(), 3u);
    EXPECT_EQ(stripe[0].substr(0, 12), "31 14 020001");  // LED_MC, green, on
    EXPECT_EQ(stripe[1], "36 91 05");
    EXPECT_EQ(stripe[2].substr(0, 12), "31 14 020000");  // off
}

TEST_F(StripeFramedTest, TrackWithoutDataHasItsStatusAndNoLength) {
    sim().swipe(StripeCard{"", kT2, kT3});
    std::vector<uint8_t> t1(KOLT_T41_REPLY_MAX, 0), t2(KOLT_T41_REPLY_MAX, 0), t3(KOLT_T41_REPLY_MAX, 0);
    EXPECT_EQ(KOLT_T41_MC_ReadThreeTrackData(t1.data(), t2.data(), t3.data(), 5), 0);
    EXPECT_NE(t1[0], 0);
    EXPECT_EQ(t1[1] << 8 | t1[2], 0);
    EXPECT_EQ(track_data(t2), kT2);
    EXPECT_EQ(track_data(t3), kT3);
}

TEST_F(StripeFramedTest, ThirdStatusIsAlsoTheHighByteOfTheFirstLength) {
    // Without track 3 the reader's third status (01) is read as the high
    // byte of track 1's length as well: the offsets are kept as they are.
    sim().swipe(StripeCard{"", kT2, ""});
    std::vector<uint8_t> t1(KOLT_T41_REPLY_MAX, 0), t2(KOLT_T41_REPLY_MAX, 0), t3(KOLT_T41_REPLY_MAX, 0);
    EXPECT_EQ(KOLT_T41_MC_ReadThreeTrackData(t1.data(), t2.data(), t3.data(), 5), 0);
    EXPECT_EQ(t3[0], 0x01);
    EXPECT_EQ(t1[1], 0x01);
    EXPECT_EQ(t1[1] << 8 | t1[2], 0x0100);
    // Track 1's 256 bytes take what the reply holds (track 2 included).
    EXPECT_EQ(std::string(t1.begin() + 3, t1.begin() + 3 + static_cast<long>(kT2.size())), kT2);
}

TEST_F(StripeFramedTest, NoSwipeGivesTheReadTimeOut) {
    sim().no_swipe();
    std::vector<uint8_t> t1(KOLT_T41_REPLY_MAX, 0), t2(KOLT_T41_REPLY_MAX, 0), t3(KOLT_T41_REPLY_MAX, 0);
    // The reader answers its time-out status once the second has passed.
    EXPECT_EQ(KOLT_T41_MC_ReadThreeTrackData(t1.data(), t2.data(), t3.data(), 1), MC_Read_Timeout);
    std::vector<uint8_t> reply(KOLT_T41_REPLY_MAX, 0);
    EXPECT_EQ(KOLT_T41_MC_ReadData(reply.data(), 1), MC_Read_Timeout);
}

TEST_F(StripeFramedTest, ReadDataGivesTheWholeReply) {
    sim().swipe(StripeCard{"", kT2, ""});
    std::vector<uint8_t> reply(KOLT_T41_REPLY_MAX, 0);
    EXPECT_EQ(KOLT_T41_MC_ReadData(reply.data(), 5), 0);
    EXPECT_EQ(reply[0], 0x02);
    const std::string data(reply.begin() + 14, reply.begin() + 14 + static_cast<long>(kT2.size()));
    EXPECT_EQ(data, kT2);
}

TEST_F(StripeFramedTest, NoReplyIsRevdataError) {
    sim().inject_for(0x36, 0x91, kolt::sim::Fault{kolt::sim::Fault::BadCheck, 0}, 1);
    sim().swipe(StripeCard{"", kT2, ""});
    std::vector<uint8_t> t(KOLT_T41_REPLY_MAX, 0);
    EXPECT_EQ(KOLT_T41_MC_ReadThreeTrackData(t.data(), t.data(), t.data(), 5), Revdata_Error);
}

TEST_F(CardNoTest, DigitsAfterTheSentinel) {
    sim().swipe(StripeCard{kT1, kT2, kT3});
    int rc = -9;
    EXPECT_EQ(card_no(&rc), "6299990000001234560");
    EXPECT_EQ(rc, 0);
}

TEST_F(CardNoTest, WithoutSentinelTheSearchStartsAtTheHeader) {
    // The track buffer's first byte is its status (00): no digits there.
    sim().swipe(StripeCard{"", "6299990000001234560=3012", ""});
    int rc = -9;
    EXPECT_EQ(card_no(&rc), "");
    EXPECT_EQ(rc, -2);
}

TEST_F(CardNoTest, NoTrack2GivesMinusOne) {
    sim().swipe(StripeCard{kT1, "", kT3});
    int rc = -9;
    card_no(&rc);
    EXPECT_EQ(rc, -1);
}

TEST_F(CardNoTest, PortThatCannotBeOpened) {
    std::strcpy(gPortName, "kolt-no-such-device");
    int rc = -9;
    card_no(&rc);
    EXPECT_EQ(rc, -1);
}
