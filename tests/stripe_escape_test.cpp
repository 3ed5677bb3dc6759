// The stripe reader's escape-sequence path end to end through the simulated
// reader: KOLT_MC_Read, KOLT_MC_Write and the teller entry points MsrRead,
// MsrWrite_YZ, MS_ReadCard and MS_WriteCard, with swipes, cancels and the
// reader's reply styles.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "common/sim_fixture.hpp"
#include "common/test_util.hpp"
#include "kolt/kolt.h"
#include "kolt_sim/simulator.hpp"

namespace {

using kolt::sim::StripeCard;
using kolt::sim::StripeStyle;

const std::string kT2 = "6299990000001234560=30122201234567890";
const std::string kT3 = "996299990000001234560=1561560000000000000003000000114000049120";
const StripeCard kCard{"%B6299990000001234560^LI/SIMING^3012101?", ";" + kT2 + "?", ";" + kT3 + "?"};

struct Read {
    int rc = 0;
    std::string track2, track3;
};

Read mc_read(int mode, uint32_t timeout = 5) {
    std::vector<char> t2(KOLT_STRIPE_TEXT_MAX, 'x'), t3(KOLT_STRIPE_TEXT_MAX, 'x');
    t2.back() = t3.back() = 0;
    Read r;
    r.rc = KOLT_MC_Read(0, 1, mode, t2.data(), t3.data(), timeout);
    r.track2 = t2.data();
    r.track3 = t3.data();
    return r;
}

std::string hex(const std::vector<uint8_t>& b) { return kolt::test::to_hex(b); }

// Sets cancelOperation until the call in `done` has returned: the call
// clears the flag once when it starts to wait, so the cancel is repeated.
template <class T>
T cancel_until_done(std::future<T>& done) {
    while (done.wait_for(std::chrono::milliseconds(20)) != std::future_status::ready) cancelOperation = 1;
    return done.get();
}

class StripeEscapeTest : public kolt::test::SimTest {};

}  // namespace

// ---------------------------------------------------------------------------
// Reads.

TEST_F(StripeEscapeTest, Track2) {
    sim().swipe(kCard);
    const Read r = mc_read(2);
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.track2, kT2);
    const auto cmds = sim().stripe_commands();
    ASSERT_FALSE(cmds.empty());
    EXPECT_EQ(hex(cmds[0]), "1B4F1B5D");
}

TEST_F(StripeEscapeTest, Track3) {
    sim().swipe(kCard);
    const Read r = mc_read(3);
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.track3, kT3);
    EXPECT_EQ(hex(sim().stripe_commands().at(0)), "1B4F1B545D");
}

TEST_F(StripeEscapeTest, BothTracks) {
    sim().swipe(kCard);
    const Read r = mc_read(23);
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.track2, kT2);
    EXPECT_EQ(r.track3, kT3);
    EXPECT_EQ(hex(sim().stripe_commands().at(0)), "1B4F1B425D");
}

TEST_F(StripeEscapeTest, SwipeAfterAWhile) {
    sim().swipe(kCard, 1500);
    const Read r = mc_read(2);
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.track2, kT2);
}

TEST_F(StripeEscapeTest, ReplyInSeveralPiecesIsAccumulated) {
    StripeStyle style;
    style.pieces = {3, 10, 5};
    style.piece_delay_ms = 300;
    sim().set_stripe_style(style);
    sim().swipe(kCard);
    const Read r = mc_read(23);
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.track2, kT2);
    EXPECT_EQ(r.track3, kT3);
}

TEST_F(StripeEscapeTest, BytesAfterTheFirstEndAreCut) {
    StripeStyle style;
    style.trailer = {'1', '2', '?', 0x1C};
    sim().set_stripe_style(style);
    sim().swipe(kCard);
    const Read r = mc_read(2);
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.track2, kT2);
}

TEST_F(StripeEscapeTest, SeparatorsComeBackAsEquals) {
    for (char sep : {'\'', '>', '|'}) {
        StripeStyle style;
        style.separator = sep;
        sim().set_stripe_style(style);
        sim().swipe(kCard);
        const Read r = mc_read(23);
        EXPECT_EQ(r.rc, 0) << sep;
        EXPECT_EQ(r.track2, kT2) << sep;
        EXPECT_EQ(r.track3, kT3) << sep;
    }
}

TEST_F(StripeEscapeTest, EmptyTrack2WithTrack3IsASuccess) {
    sim().swipe(StripeCard{"", "", ";" + kT3 + "?"});
    const Read r = mc_read(23);
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.track2, "");
    EXPECT_EQ(r.track3, kT3);
}

TEST_F(StripeEscapeTest, EmptyTracksGiveMinusFive) {
    sim().swipe(StripeCard{"", "", ""});
    Read r = mc_read(23);
    EXPECT_EQ(r.rc, -5);
    EXPECT_EQ(r.track2, "");
    EXPECT_EQ(r.track3, "");
    sim().swipe(StripeCard{"", "", ";" + kT3 + "?"});
    r = mc_read(2);
    EXPECT_EQ(r.rc, -5);
    EXPECT_EQ(r.track2, "");
    EXPECT_EQ(r.track3, "");
}

TEST_F(StripeEscapeTest, MissingAGivesMinusSix) {
    StripeStyle style;
    style.omit_a = true;
    sim().set_stripe_style(style);
    sim().swipe(kCard);
    EXPECT_EQ(mc_read(23).rc, -6);
}

TEST_F(StripeEscapeTest, NoSwipeTimesOut) {
    sim().no_swipe();
    const Read r = mc_read(2, 0);
    EXPECT_EQ(r.rc, -2);
    // The link was left open; the next read opens it again and works. The
    // reader still holds the abandoned read until the new one replaces it:
    // the card is swiped once the new command is there.
    sim().clear_stripe_commands();
    auto done = std::async(std::launch::async, [] { return mc_read(2).rc; });
    ASSERT_TRUE(kolt::test::wait_until([&] { return !sim().stripe_commands().empty(); }));
    sim().swipe(kCard);
    EXPECT_EQ(done.get(), 0);
}

TEST_F(StripeEscapeTest, CancelFromAnotherThread) {
    sim().no_swipe();
    auto done = std::async(std::launch::async, [] { return mc_read(23, 60).rc; });
    EXPECT_EQ(cancel_until_done(done), -3);
    // The reader was reset with ESC "0".
    EXPECT_TRUE(kolt::test::wait_until([&] { return sim().stripe_resets() >= 1; }));
    const auto cmds = sim().stripe_commands();
    EXPECT_EQ(hex(cmds.back()), "1B30");
    cancelOperation = 0;
}

TEST_F(StripeEscapeTest, PortThatCannotBeOpened) {
    std::strcpy(gPortName, "kolt-no-such-device");
    EXPECT_EQ(mc_read(2).rc, -1);
    EXPECT_EQ(KOLT_MC_Write(0, 1, 2, kT2.c_str(), "", 5), -1);
}

// ---------------------------------------------------------------------------
// Writes.

TEST_F(StripeEscapeTest, WriteThenReadBack) {
    sim().swipe(kCard);
    const std::string t2 = "6299990000009876543=29122201234567890";
    const std::string t3 = "990000123456789012=15615600000000";
    EXPECT_EQ(KOLT_MC_Write(0, 1, 23, t2.c_str(), t3.c_str(), 5), 0);
    // The reset after the write may still be on its way.
    EXPECT_TRUE(kolt::test::wait_until([&] { return sim().stripe_commands().size() >= 2; }));
    const auto cmds = sim().stripe_commands();
    ASSERT_GE(cmds.size(), 2u);
    EXPECT_EQ(std::string(cmds[0].begin(), cmds[0].end()), "\x1Bt" + t2 + "A" + t3 + "\x1D\x1B\\\x1Bj");
    EXPECT_EQ(hex(cmds[1]), "1B30");  // the reader is reset after the write
    sim().swipe_again();
    const Read r = mc_read(23);
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.track2, t2);
    EXPECT_EQ(r.track3, t3);
}

TEST_F(StripeEscapeTest, WriteTrack2Alone) {
    sim().swipe(kCard);
    EXPECT_EQ(KOLT_MC_Write(0, 1, 2, "1234=5678", "", 5), 0);
    ASSERT_TRUE(sim().stripe_card().has_value());
    sim().swipe_again();
    EXPECT_EQ(mc_read(2).track2, "1234=5678");
}

TEST_F(StripeEscapeTest, RefusedWriteGivesMinusFour) {
    sim().set_stripe_write_fails(true);
    sim().swipe(kCard);
    EXPECT_EQ(KOLT_MC_Write(0, 1, 3, "", kT3.c_str(), 5), -4);
    EXPECT_TRUE(kolt::test::wait_until([&] { return sim().stripe_resets() >= 1; }));
}

TEST_F(StripeEscapeTest, WriteTimesOutAndIsCancelled) {
    sim().no_swipe();
    EXPECT_EQ(KOLT_MC_Write(0, 1, 2, kT2.c_str(), "", 0), -2);
    auto done = std::async(std::launch::async, [] { return KOLT_MC_Write(0, 1, 2, kT2.c_str(), "", 60); });
    EXPECT_EQ(cancel_until_done(done), -3);
    EXPECT_TRUE(kolt::test::wait_until([&] { return sim().stripe_resets() >= 1; }));
    cancelOperation = 0;
}

// ---------------------------------------------------------------------------
// Teller entry points.

TEST_F(StripeEscapeTest, MsReadCardModes23And1AreTheSame) {
    for (int mode : {23, 1}) {
        sim().swipe(kCard);
        std::vector<char> t2(KOLT_STRIPE_TEXT_MAX, 0), t3(KOLT_STRIPE_TEXT_MAX, 0);
        const std::string port = sim().port_name();
        std::memset(gPortName, 0, sizeof gPortName);
        EXPECT_EQ(MS_ReadCard(port.c_str(), 9, 9, 9, mode, 9, t2.data(), t3.data()), 0) << mode;
        EXPECT_EQ(std::string(t2.data()), kT2) << mode;
        EXPECT_EQ(std::string(t3.data()), kT3) << mode;
        EXPECT_EQ(hex(sim().stripe_commands().back()), "1B4F1B425D") << mode;
        sim().clear_stripe_commands();
    }
}

TEST_F(StripeEscapeTest, MsWriteCardMode1SendsOnlyTheCommandAndTrailer) {
    sim().swipe(kCard);
    const std::string port = sim().port_name();
    EXPECT_EQ(MS_WriteCard(port.c_str(), 0, 0, 0, 1, 0, kT2.c_str(), kT3.c_str()), 0);
    const auto cmds = sim().stripe_commands();
    ASSERT_FALSE(cmds.empty());
    EXPECT_EQ(hex(cmds[0]), "1B741D1B5C1B6A");
}

TEST_F(StripeEscapeTest, MsWriteCardWritesTheCard) {
    sim().swipe(kCard);
    const std::string port = sim().port_name();
    EXPECT_EQ(MS_WriteCard(port.c_str(), 0, 0, 0, 23, 0, "1111=2222", "3333=4444"), 0);
    sim().swipe_again();
    std::vector<char> t2(KOLT_STRIPE_TEXT_MAX, 0), t3(KOLT_STRIPE_TEXT_MAX, 0);
    EXPECT_EQ(MS_ReadCard(port.c_str(), 0, 0, 0, 23, 0, t2.data(), t3.data()), 0);
    EXPECT_EQ(std::string(t2.data()), "1111=2222");
    EXPECT_EQ(std::string(t3.data()), "3333=4444");
}

TEST_F(StripeEscapeTest, FailuresReachTellerApplicationsAsMinus204AndMinus11) {
    std::vector<char> t2(KOLT_STRIPE_TEXT_MAX, 0), t3(KOLT_STRIPE_TEXT_MAX, 0);
    sim().swipe(StripeCard{"", "", ""});
    EXPECT_EQ(MsrRead(2, 0, t2.data(), t3.data(), 1, 5), -204);
    sim().set_stripe_write_fails(true);
    sim().swipe(kCard);
    EXPECT_EQ(MsrWrite_YZ(1, 0, 2, kT2.c_str(), "", "USB", 5), -204);
    const std::string port = sim().port_name();
    sim().swipe(StripeCard{"", "", ""});
    EXPECT_EQ(MS_ReadCard(port.c_str(), 0, 0, 0, 23, 0, t2.data(), t3.data()), -11);
    sim().swipe(kCard);
    EXPECT_EQ(MS_WriteCard(port.c_str(), 0, 0, 0, 2, 0, kT2.c_str(), ""), -11);
    EXPECT_EQ(MS_ReadCard("kolt-no-such-device", 0, 0, 0, 23, 0, t2.data(), t3.data()), -11);
}

TEST_F(StripeEscapeTest, MsrReadTakesMode1AsBothTracks) {
    sim().swipe(kCard);
    std::vector<char> t2(KOLT_STRIPE_TEXT_MAX, 0), t3(KOLT_STRIPE_TEXT_MAX, 0);
    EXPECT_EQ(MsrRead(1, 0, t2.data(), t3.data(), 1, 5), 0);
    EXPECT_EQ(std::string(t3.data()), kT3);
}

TEST_F(StripeEscapeTest, NullOutputsDoNotCrash) {
    sim().swipe(kCard);
    EXPECT_EQ(KOLT_MC_Read(0, 1, 23, nullptr, nullptr, 5), 0);
    sim().swipe(kCard);
    EXPECT_EQ(KOLT_MC_Write(0, 1, 23, nullptr, nullptr, 5), 0);
}
