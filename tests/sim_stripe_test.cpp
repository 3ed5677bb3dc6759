// The simulated magnetic stripe reader seen from the host side of the line:
// the framed read (36 91), the escape-sequence reader, swipes, writes and
// resets, byte by byte.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "common/sim_fixture.hpp"
#include "common/test_util.hpp"
#include "kolt_sim/frame.hpp"
#include "kolt_sim/simulator.hpp"

using namespace kolt::sim;
using kolt::test::RawLine;
using kolt::test::text_bytes;
using Clock = std::chrono::steady_clock;

namespace {

const std::string kTrack1 = "%B6299990000001234560^ZHANG/SAN^3012201100000000000000?";
const std::string kTrack2 = ";6299990000001234560=30122201234567890?";
const std::string kTrack3 =
    ";996299990000001234560=1560000000000000000000000000000000000003012=0000000000000000000000?";
const std::string kBare2 = "6299990000001234560=30122201234567890";
const std::string kBare3 = "996299990000001234560=1560000000000000000000000000000000000003012=0000000000000000000000";

const Bytes kRead2 = {0x1B, 'O', 0x1B, ']'};
const Bytes kRead3 = {0x1B, 'O', 0x1B, 'T', ']'};
const Bytes kRead23 = {0x1B, 'O', 0x1B, 'B', ']'};
const Bytes kReset = {0x1B, '0'};
const Bytes kWriteEnd = {0x1D, 0x1B, '\\', 0x1B, 'j'};

StripeCard full_card() { return StripeCard{kTrack1, kTrack2, kTrack3}; }

Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

Bytes write_cmd(const std::string& payload) { return cat({{0x1B, 't'}, text_bytes(payload), kWriteEnd}); }

// 1B 73 <text> 3F 1C
Bytes reply(const std::string& text) { return cat({{0x1B, 's'}, text_bytes(text), {'?', 0x1C}}); }

long ms_since(Clock::time_point t) {
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count());
}

class SimStripe : public kolt::test::RawSimTest {
protected:
    // Sends a command and reads the escape reply up to its "?" FS.
    Bytes ask_escape(const Bytes& cmd, int timeout_ms = 1500) {
        line->write(cmd);
        return line->read_until(0x1C, timeout_ms);
    }
    MainFrame framed_read(uint8_t seconds, int timeout_ms = 1500) {
        line->write(encode_main_command(0x36, 0x91, Bytes{seconds}));
        const Bytes wire = line->read_until(0x03, timeout_ms);
        auto f = decode_main(wire);
        EXPECT_TRUE(f) << "undecodable reply of " << wire.size() << " bytes";
        return f.value_or(MainFrame{0xEE, 0xEE, {}});
    }
    // Waits until the reader has a command waiting for a swipe.
    bool wait_waiting(int timeout_ms = 1500) {
        const auto end = Clock::now() + std::chrono::milliseconds(timeout_ms);
        while (Clock::now() < end) {
            if (sim->stripe_waiting()) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return false;
    }
};

}  // namespace

// --- framed read ------------------------------------------------------------------

TEST_F(SimStripe, FramedReadLayout) {
    sim->swipe(full_card());
    line->write(encode_main_command(0x36, 0x91, Bytes{0x05}));
    const Bytes wire = line->read_until(0x03, 1500);
    auto f = decode_main(wire);
    ASSERT_TRUE(f);
    EXPECT_EQ(f->a, 0x00);
    EXPECT_EQ(f->b, 0x00);
    const Bytes expected = cat({{0x00, 0x00, 0x00, 0x00, static_cast<uint8_t>(kTrack1.size()), 0x00,
                                 static_cast<uint8_t>(kTrack2.size()), 0x00, static_cast<uint8_t>(kTrack3.size())},
                                text_bytes(kTrack1), text_bytes(kTrack2), text_bytes(kTrack3)});
    EXPECT_EQ(f->data, expected);

    // The host's decoded reply: 02, length (2), status (2), then the data.
    Bytes r{0x02, static_cast<uint8_t>((f->data.size() + 2) >> 8), static_cast<uint8_t>(f->data.size() + 2), f->a,
            f->b};
    r.insert(r.end(), f->data.begin(), f->data.end());
    EXPECT_EQ(r[5], 0x00);
    EXPECT_EQ(r[6], 0x00);  // track-1 status
    EXPECT_EQ(r[7], 0x00);  // track-2 status
    EXPECT_EQ(r[8], 0x00);  // track-3 status
    const size_t len1 = r[8] << 8 | r[9], len2 = r[10] << 8 | r[11], len3 = r[12] << 8 | r[13];
    EXPECT_EQ(len1, kTrack1.size());
    EXPECT_EQ(len2, kTrack2.size());
    EXPECT_EQ(len3, kTrack3.size());
    EXPECT_EQ(std::string(r.begin() + 14, r.begin() + 14 + static_cast<long>(len1)), kTrack1);
    EXPECT_EQ(std::string(r.begin() + 14 + static_cast<long>(len1), r.begin() + 14 + static_cast<long>(len1 + len2)),
              kTrack2);
    EXPECT_EQ(std::string(r.begin() + 14 + static_cast<long>(len1 + len2), r.end()), kTrack3);
    // The card number the host finds in track 2: the digits after ";" up to "=".
    const std::string t2(r.begin() + 14 + static_cast<long>(len1), r.begin() + 14 + static_cast<long>(len1 + len2));
    EXPECT_EQ(t2.substr(t2.find(';') + 1, t2.find('=') - t2.find(';') - 1), "6299990000001234560");
    EXPECT_EQ(sim->stripe_card(), full_card());
}

TEST_F(SimStripe, FramedReadAddsSentinelsAndMarksEmptyTracks) {
    sim->swipe(StripeCard{"", "6299990000001234560=3012", ""});
    const auto f = framed_read(5);
    EXPECT_EQ(f.a, 0x00);
    EXPECT_EQ(f.b, 0x00);
    const std::string t2 = ";6299990000001234560=3012?";
    EXPECT_EQ(f.data, cat({{0x00, 0x01, 0x00, 0x01, 0x00, 0x00, static_cast<uint8_t>(t2.size()), 0x00, 0x00},
                           text_bytes(t2)}));
}

TEST_F(SimStripe, FramedReadNoDataStatusIsConfigurable) {
    StripeStyle st;
    st.no_data_status = 0x02;
    sim->set_stripe_style(st);
    sim->swipe(StripeCard{});
    EXPECT_EQ(framed_read(5).data, (Bytes{0x00, 0x02, 0x02, 0x02, 0, 0, 0, 0, 0}));
}

TEST_F(SimStripe, FramedReadTimesOutWith9001) {
    const auto t0 = Clock::now();
    const auto f = framed_read(1, 3000);
    EXPECT_GE(ms_since(t0), 900);
    EXPECT_EQ(f.a, 0x90);
    EXPECT_EQ(f.b, 0x01);
    EXPECT_TRUE(f.data.empty());
    EXPECT_FALSE(sim->stripe_waiting());
}

TEST_F(SimStripe, FramedReadSwipeTooLateTimesOut) {
    sim->swipe(full_card(), 2500);
    const auto f = framed_read(1, 3000);
    EXPECT_EQ(f.a, 0x90);
    EXPECT_EQ(f.b, 0x01);
}

TEST_F(SimStripe, FramedReadWaitsSilentlyForTheSwipe) {
    line->write(encode_main_command(0x36, 0x91, Bytes{0x0A}));
    ASSERT_TRUE(wait_waiting());
    EXPECT_TRUE(line->read_for(300).empty());
    sim->swipe(full_card());
    auto f = decode_main(line->read_until(0x03, 1500));
    ASSERT_TRUE(f);
    EXPECT_EQ(f->a, 0x00);
    EXPECT_EQ(f->data.size(), 9 + kTrack1.size() + kTrack2.size() + kTrack3.size());
}

TEST_F(SimStripe, StripeLedAroundTheRead) {
    line->write(encode_main_command(0x31, 0x14, Bytes{0x02, 0x00, 0x01, 0x01, 0x01, 0x00}));
    auto f = decode_main(line->read_until(0x03, 1500));
    ASSERT_TRUE(f);
    EXPECT_EQ(f->a, 0x00);
    EXPECT_EQ(f->b, 0x00);
    ASSERT_EQ(sim->leds().count(2), 1u);
    EXPECT_EQ(sim->leds().at(2).mode, 1);
    sim->swipe(full_card());
    EXPECT_EQ(framed_read(5).a, 0x00);
    line->write(encode_main_command(0x31, 0x14, Bytes{0x02, 0x00, 0x00, 0x01, 0x01, 0x00}));
    ASSERT_TRUE(decode_main(line->read_until(0x03, 1500)));
    EXPECT_EQ(sim->leds().at(2).mode, 0);
}

// --- escape read --------------------------------------------------------------------

TEST_F(SimStripe, EscapeReadTrack2) {
    sim->swipe(full_card());
    EXPECT_EQ(ask_escape(kRead2), reply(kBare2));
    EXPECT_EQ(sim->stripe_commands(), std::vector<Bytes>{kRead2});
    const auto t = sim->transcript();
    ASSERT_EQ(t.size(), 1u);
    EXPECT_EQ(t[0].framing, Framing::Escape);
    EXPECT_EQ(t[0].code, 'O');
    EXPECT_EQ(t[0].data, kRead2);
}

TEST_F(SimStripe, EscapeReadTrack3) {
    sim->swipe(full_card());
    EXPECT_EQ(ask_escape(kRead3), reply("A" + kBare3));
}

TEST_F(SimStripe, EscapeReadTracks2And3) {
    sim->swipe(full_card());
    const Bytes r = ask_escape(kRead23);
    EXPECT_EQ(r, reply(kBare2 + "A" + kBare3));
    // The host's offsets: track 2 from [2] up to "A", track 3 after it up to the last 2.
    const std::string s(r.begin(), r.end());
    EXPECT_EQ(s.substr(2, s.find('A') - 2), kBare2);
    EXPECT_EQ(s.substr(s.find('A') + 1, s.size() - s.find('A') - 3), kBare3);
}

TEST_F(SimStripe, EscapeReplyOffsetsForTheHost) {
    sim->swipe(full_card());
    sim->swipe(full_card());
    const std::string r2 = [&] { auto b = ask_escape(kRead2); return std::string(b.begin(), b.end()); }();
    EXPECT_EQ(r2.substr(2, r2.size() - 4), kBare2);
    const std::string r3 = [&] { auto b = ask_escape(kRead3); return std::string(b.begin(), b.end()); }();
    EXPECT_EQ(r3.substr(3, r3.size() - 5), kBare3);
}

TEST_F(SimStripe, EmptyTracksAre7F) {
    sim->swipe(StripeCard{"", kTrack2, ""});
    EXPECT_EQ(ask_escape(kRead23), reply(kBare2 + "A\x7F"));
    sim->swipe(StripeCard{"", "", kTrack3});
    EXPECT_EQ(ask_escape(kRead23), reply("\x7F" "A" + kBare3));
    sim->swipe(StripeCard{});
    EXPECT_EQ(ask_escape(kRead2), reply("\x7F"));
    sim->swipe(StripeCard{});
    EXPECT_EQ(ask_escape(kRead3), reply("A\x7F"));
}

TEST_F(SimStripe, SeparatorReplacesTheEqualsSign) {
    for (char sep : std::string("='>|")) {
        SCOPED_TRACE(std::string(1, sep));
        StripeStyle st;
        st.separator = sep;
        sim->set_stripe_style(st);
        sim->swipe(full_card());
        std::string t2 = kBare2, t3 = kBare3;
        std::replace(t2.begin(), t2.end(), '=', sep);
        std::replace(t3.begin(), t3.end(), '=', sep);
        EXPECT_EQ(ask_escape(kRead23), reply(t2 + "A" + t3));
    }
}

TEST_F(SimStripe, Mode23WithoutTheA) {
    StripeStyle st;
    st.omit_a = true;
    sim->set_stripe_style(st);
    sim->swipe(full_card());
    EXPECT_EQ(ask_escape(kRead23), reply(kBare2 + kBare3));
    sim->swipe(full_card());
    EXPECT_EQ(ask_escape(kRead3), reply("A" + kBare3));  // mode 3 keeps its "A"
}

TEST_F(SimStripe, TrailingBytesAfterTheFirstEnd) {
    StripeStyle st;
    st.trailer = text_bytes("12?\x1C");
    sim->set_stripe_style(st);
    sim->swipe(full_card());
    line->write(kRead2);
    EXPECT_EQ(line->read(reply(kBare2).size() + 4, 1500), cat({reply(kBare2), text_bytes("12?\x1C")}));
    EXPECT_TRUE(line->read_for(200).empty());
}

TEST_F(SimStripe, ReplyInPiecesWithDelays) {
    StripeStyle st;
    st.pieces = {3, 10};
    st.piece_delay_ms = 150;
    sim->set_stripe_style(st);
    sim->swipe(full_card());
    const Bytes whole = reply(kBare2 + "A" + kBare3);
    line->write(kRead23);
    const Bytes first = line->read(3, 1500);
    const auto t0 = Clock::now();
    EXPECT_EQ(first, Bytes(whole.begin(), whole.begin() + 3));
    EXPECT_TRUE(line->read_for(80).empty());
    const Bytes second = line->read(10, 1500);
    const long gap1 = ms_since(t0);
    EXPECT_EQ(second, Bytes(whole.begin() + 3, whole.begin() + 13));
    const Bytes rest = line->read(whole.size() - 13, 1500);
    const long gap2 = ms_since(t0);
    EXPECT_EQ(rest, Bytes(whole.begin() + 13, whole.end()));
    EXPECT_GE(gap1, 120);
    EXPECT_GE(gap2, 270);
}

// --- swipes ---------------------------------------------------------------------------

TEST_F(SimStripe, SwipeAfterDelayFromTheCommand) {
    sim->swipe(full_card(), 400);
    line->write(kRead2);
    const auto t0 = Clock::now();
    EXPECT_TRUE(line->read_for(250).empty());
    EXPECT_EQ(line->read_until(0x1C, 1500), reply(kBare2));
    EXPECT_GE(ms_since(t0), 380);
}

TEST_F(SimStripe, SwipeAfterDelayWhileACommandWaits) {
    line->write(kRead2);
    ASSERT_TRUE(wait_waiting());
    const auto t0 = Clock::now();
    sim->swipe(full_card(), 300);
    EXPECT_EQ(line->read_until(0x1C, 1500), reply(kBare2));
    EXPECT_GE(ms_since(t0), 280);
}

TEST_F(SimStripe, SwipesAreTakenInOrder) {
    sim->swipe(StripeCard{"", ";111=1?", ""});
    sim->swipe(StripeCard{"", ";222=2?", ""});
    EXPECT_EQ(sim->stripe_swipes_queued(), 2u);
    EXPECT_EQ(ask_escape(kRead2), reply("111=1"));
    EXPECT_EQ(ask_escape(kRead2), reply("222=2"));
    line->write(kRead2);
    EXPECT_TRUE(line->read_for(300).empty());  // no card: the reader stays silent
    EXPECT_TRUE(sim->stripe_waiting());
}

TEST_F(SimStripe, NoSwipeLeavesTheHostWaiting) {
    sim->swipe(full_card());
    sim->no_swipe();
    line->write(kRead2);
    EXPECT_TRUE(line->read_for(300).empty());
}

TEST_F(SimStripe, CardThatStaysAnswersEveryRead) {
    sim->set_stripe_card(full_card(), 50);
    EXPECT_EQ(ask_escape(kRead2), reply(kBare2));
    EXPECT_EQ(ask_escape(kRead3), reply("A" + kBare3));
    EXPECT_EQ(framed_read(5).a, 0x00);
    sim->set_stripe_card(std::nullopt);
    line->write(kRead2);
    EXPECT_TRUE(line->read_for(300).empty());
}

// --- reset ------------------------------------------------------------------------------

TEST_F(SimStripe, ResetCancelsAWaitingReadAndIsRecorded) {
    line->write(kRead23);
    ASSERT_TRUE(wait_waiting());
    line->write(kReset);
    const auto end = Clock::now() + std::chrono::milliseconds(1500);
    while (sim->stripe_resets() == 0 && Clock::now() < end) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(sim->stripe_resets(), 1);
    EXPECT_FALSE(sim->stripe_waiting());
    sim->swipe(full_card());
    EXPECT_TRUE(line->read_for(300).empty());  // nothing is answered
    EXPECT_EQ(sim->stripe_commands(), (std::vector<Bytes>{kRead23, kReset}));
    // The card was not taken: the next read gets it.
    EXPECT_EQ(ask_escape(kRead2), reply(kBare2));
}

TEST_F(SimStripe, ResetGivesBackASwipeThatHadNotHappened) {
    sim->swipe(full_card(), 500);
    line->write(kRead2);
    ASSERT_TRUE(wait_waiting());
    line->write(kReset);
    EXPECT_TRUE(line->read_for(700).empty());
    EXPECT_EQ(sim->stripe_swipes_queued(), 1u);
    EXPECT_EQ(sim->stripe_resets(), 1);
}

TEST_F(SimStripe, ReadAndResetInOneWrite) {
    line->write(cat({kReset, kRead2}));
    sim->swipe(full_card());
    EXPECT_EQ(line->read_until(0x1C, 1500), reply(kBare2));
    EXPECT_EQ(sim->stripe_commands(), (std::vector<Bytes>{kReset, kRead2}));
}

// --- write -------------------------------------------------------------------------------

TEST_F(SimStripe, WriteBothTracksThenReadBack) {
    sim->swipe(full_card());
    line->write(write_cmd("6299990000009999999=4912A996299990000009999999=49"));
    EXPECT_EQ(line->read(4, 1500), (Bytes{0x1B, '0', '0', 'p'}));
    EXPECT_TRUE(line->read_for(100).empty());
    const StripeCard written{kTrack1, ";6299990000009999999=4912?", ";996299990000009999999=49?"};
    EXPECT_EQ(sim->stripe_card(), written);
    sim->swipe_again();
    EXPECT_EQ(ask_escape(kRead23), reply("6299990000009999999=4912A996299990000009999999=49"));
    sim->swipe_again();
    EXPECT_EQ(framed_read(5).data.size(), 9 + kTrack1.size() + written.track2.size() + written.track3.size());
}

TEST_F(SimStripe, WriteTrack2OnlyHasAThreeByteStatus) {
    sim->swipe(full_card());
    line->write(write_cmd("6299990000009999999=4912"));
    EXPECT_EQ(line->read(3, 1500), (Bytes{0x1B, '0', 'p'}));
    EXPECT_TRUE(line->read_for(100).empty());
    EXPECT_EQ(sim->stripe_card(), (StripeCard{kTrack1, ";6299990000009999999=4912?", kTrack3}));
}

TEST_F(SimStripe, WriteTrack3Only) {
    sim->swipe(full_card());
    line->write(write_cmd("A996299990000009999999=49"));
    EXPECT_EQ(line->read(4, 1500), (Bytes{0x1B, '0', '0', 'p'}));
    EXPECT_EQ(sim->stripe_card(), (StripeCard{kTrack1, kTrack2, ";996299990000009999999=49?"}));
}

TEST_F(SimStripe, WriteWithoutDataWritesNothing) {
    sim->swipe(full_card());
    line->write(write_cmd(""));
    EXPECT_EQ(line->read(3, 1500), (Bytes{0x1B, '0', 'p'}));
    EXPECT_EQ(sim->stripe_card(), full_card());
}

TEST_F(SimStripe, WriteWithAnotherSeparatorReadsBackTheSame) {
    StripeStyle st;
    st.separator = '\'';
    sim->set_stripe_style(st);
    sim->swipe(full_card());
    line->write(write_cmd("6299990000009999999'4912A99'49"));
    EXPECT_EQ(line->read(4, 1500), (Bytes{0x1B, '0', '0', 'p'}));
    EXPECT_EQ(sim->stripe_card()->track2, ";6299990000009999999=4912?");
    sim->swipe_again();
    EXPECT_EQ(ask_escape(kRead23), reply("6299990000009999999'4912A99'49"));
}

TEST_F(SimStripe, WriteFailure) {
    sim->set_stripe_write_fails(true);
    sim->swipe(full_card());
    line->write(write_cmd("6299990000009999999=4912A99=49"));
    EXPECT_EQ(line->read(4, 1500), (Bytes{0x1B, '0', '0', 0x41}));
    EXPECT_EQ(sim->stripe_card(), full_card());
    sim->swipe(full_card());
    line->write(write_cmd("6299990000009999999=4912"));
    EXPECT_EQ(line->read(3, 1500), (Bytes{0x1B, '0', 0x41}));
    StripeStyle st;
    st.write_fail_byte = 0x45;
    sim->set_stripe_style(st);
    sim->swipe(full_card());
    line->write(write_cmd("1=2"));
    EXPECT_EQ(line->read(3, 1500), (Bytes{0x1B, '0', 0x45}));
    sim->set_stripe_write_fails(false);
    sim->swipe(full_card());
    line->write(write_cmd("1=2"));
    EXPECT_EQ(line->read(3, 1500), (Bytes{0x1B, '0', 'p'}));
}

TEST_F(SimStripe, WriteWaitsForTheCard) {
    line->write(write_cmd("1=2"));
    ASSERT_TRUE(wait_waiting());
    EXPECT_TRUE(line->read_for(200).empty());
    sim->swipe(full_card());
    EXPECT_EQ(line->read(3, 1500), (Bytes{0x1B, '0', 'p'}));
}

TEST_F(SimStripe, WriteOnTheCardThatStays) {
    sim->set_stripe_card(full_card());
    line->write(write_cmd("1=2"));
    EXPECT_EQ(line->read(3, 1500), (Bytes{0x1B, '0', 'p'}));
    EXPECT_EQ(ask_escape(kRead2), reply("1=2"));
}

TEST_F(SimStripe, WriteSplitAcrossWrites) {
    sim->swipe(full_card());
    const Bytes w = write_cmd("1=2A3=4");
    line->write(Bytes(w.begin(), w.end() - 3));
    std::this_thread::sleep_for(std::chrono::milliseconds(120));
    line->write(Bytes(w.end() - 3, w.end()));
    EXPECT_EQ(line->read(4, 1500), (Bytes{0x1B, '0', '0', 'p'}));
    EXPECT_EQ(sim->stripe_commands(), std::vector<Bytes>{w});
    EXPECT_TRUE(sim->frame_errors().empty());
}

// --- the line -------------------------------------------------------------------------

TEST_F(SimStripe, BareReadCommandIsRecordedAndIgnored) {
    sim->swipe(full_card());
    line->write(Bytes{0x1B, 'O'});
    EXPECT_TRUE(line->read_for(300).empty());
    EXPECT_EQ(sim->stripe_commands(), std::vector<Bytes>{(Bytes{0x1B, 'O'})});
    EXPECT_FALSE(sim->stripe_waiting());
    EXPECT_EQ(sim->stripe_swipes_queued(), 1u);
}

TEST_F(SimStripe, EscapeAndMainFramesShareTheLine) {
    sim->swipe(full_card());
    line->write(
        cat({kRead2, encode_main_command(0x38, 0x97, {}), Bytes{0x1B, 'x'}, encode_main_command(0x38, 0x98, {})}));
    Bytes got;
    const auto end = Clock::now() + std::chrono::milliseconds(1500);
    const Bytes esc = reply(kBare2);
    const Bytes ok = encode_main_reply(0, 0, {});
    while (got.size() < esc.size() + 2 * ok.size() && Clock::now() < end) {
        const Bytes more = line->read_for(50);
        got.insert(got.end(), more.begin(), more.end());
    }
    // The main frames are answered at once, the read when its card comes.
    EXPECT_EQ(got, cat({ok, ok, esc}));
    EXPECT_FALSE(sim->rf_on());
    ASSERT_EQ(sim->transcript().size(), 3u);
    EXPECT_TRUE(sim->frame_errors().empty());
}

TEST_F(SimStripe, RawRulesStillComeFirst) {
    const Bytes answer = text_bytes("\x1bs;6225880123456789=2512?\x1c");
    sim->add_raw_rule(kRead2, answer);
    EXPECT_EQ(ask_escape(kRead2), answer);
    EXPECT_TRUE(sim->stripe_commands().empty());
}

TEST_F(SimStripe, FaultsApplyToTheFramedRead) {
    sim->inject_for(0x36, 0x91, Fault{Fault::BadCheck});
    sim->swipe(full_card());
    line->write(encode_main_command(0x36, 0x91, Bytes{0x05}));
    const Bytes wire = line->read_until(0x03, 1500);
    ASSERT_FALSE(wire.empty());
    EXPECT_FALSE(decode_main(wire));
}

// --- terminal mode --------------------------------------------------------------------

namespace {
class SimStripeTerminal : public kolt::test::RawSimTest {
protected:
    Options options() const override {
        Options o;
        o.terminal.type = 1;
        o.terminal.port = 1;
        return o;
    }
};
}  // namespace

TEST_F(SimStripeTerminal, EscapeReadInsideADataBlock) {
    const std::string ESC = "\x1B";
    const std::string lead = ESC + "[/51h", end = ESC + "[/51l";
    sim->swipe(full_card());
    line->write(ESC + "[2h" + ESC + "!0;0;0;0Y" + ESC + "[/54l" + ESC + "[/53h" + ESC + "[/50h");
    line->write(lead + std::string(kRead2.begin(), kRead2.end()) + end);
    EXPECT_EQ(line->read_until(0x1C, 1500), reply(kBare2));
    EXPECT_TRUE(sim->terminal_errors().empty());
    EXPECT_EQ(sim->stripe_commands(), std::vector<Bytes>{kRead2});
}

// --- profiles --------------------------------------------------------------------------

TEST(SimStripeProfile, DefaultFileHasTheBuiltInStripeUnit) {
    const auto file = load_device_profile(kolt::test::sim_profile("default.json")).stripe;
    const auto built = default_profile().stripe;
    EXPECT_EQ(file.card, built.card);
    EXPECT_EQ(built.card, default_stripe_card());
    EXPECT_EQ(file.card_stays, built.card_stays);
    EXPECT_EQ(file.swipe_delay_ms, built.swipe_delay_ms);
    EXPECT_EQ(file.style.separator, built.style.separator);
    EXPECT_EQ(file.style.write_fail_byte, built.style.write_fail_byte);
    EXPECT_EQ(file.style.no_data_status, built.style.no_data_status);
    EXPECT_EQ(file.style.trailer, built.style.trailer);
    EXPECT_FALSE(built.card_stays);
}

TEST(SimStripeProfile, ValuesFromJson) {
    const auto p = parse_device_profile(R"({
        "stripe": {
            "card": {"track2": ";123=456?", "track3": "789"},
            "card_stays": true, "swipe_delay_ms": 250,
            "pieces": [2, 5], "piece_delay_ms": 40,
            "separator": ">", "omit_a": true, "trailer": {"hex": "31323F1C"},
            "write_fails": true, "write_fail_byte": "45", "no_data_status": "02"
        }
    })").stripe;
    EXPECT_EQ(p.card, (StripeCard{"", ";123=456?", "789"}));
    EXPECT_TRUE(p.card_stays);
    EXPECT_EQ(p.swipe_delay_ms, 250);
    EXPECT_EQ(p.style.pieces, (std::vector<size_t>{2, 5}));
    EXPECT_EQ(p.style.piece_delay_ms, 40);
    EXPECT_EQ(p.style.separator, '>');
    EXPECT_TRUE(p.style.omit_a);
    EXPECT_EQ(p.style.trailer, text_bytes("12?\x1C"));
    EXPECT_TRUE(p.write_fails);
    EXPECT_EQ(p.style.write_fail_byte, 0x45);
    EXPECT_EQ(p.style.no_data_status, 0x02);
}

TEST(SimStripeProfile, BadValuesAreRejected) {
    EXPECT_THROW(parse_device_profile(R"({"stripe": {"separator": "x"}})"), std::runtime_error);
    EXPECT_THROW(parse_device_profile(R"({"stripe": {"cards": {}}})"), std::runtime_error);
    EXPECT_THROW(parse_device_profile(R"({"stripe": {"card": {"track2": "12A3"}}})"), std::runtime_error);
    EXPECT_THROW(parse_device_profile(R"({"stripe": {"no_data_status": "00"}})"), std::runtime_error);
    EXPECT_THROW(parse_stripe_card(R"({"track4": "1"})"), std::runtime_error);
}

TEST(SimStripeProfile, CardFilesLoad) {
    kolt::test::TempDir dir;
    const auto path = dir.write("card.json", R"({"track1": "%B1^X^2?", "track2": "1=2"})");
    EXPECT_EQ(load_stripe_card(path), (StripeCard{"%B1^X^2?", "1=2", ""}));
    const std::string shipped = std::string(KOLT_SIM_PROFILE_DIR) + "/../cards/stripe/track2_only.json";
    EXPECT_EQ(load_stripe_card(shipped).track2, ";6299990000001111111=28122201234567890?");
    EXPECT_TRUE(load_device_profile(kolt::test::sim_profile("stripe_demo.json")).stripe.card_stays);
}

TEST(SimStripeProfile, ProfileCardThatStaysAnswersReads) {
    Options o;
    o.profile = load_device_profile(kolt::test::sim_profile("stripe_demo.json"));
    Simulator sim(o);
    sim.start();
    RawLine l(sim.slave_path());
    l.write(kRead2);
    const auto t0 = Clock::now();
    EXPECT_EQ(l.read_until(0x1C, 2000), reply("6299990000007654321=29122201234567890"));
    EXPECT_GE(ms_since(t0), 450);
}
