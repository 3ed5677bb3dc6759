// The stripe reader's commands and replies as bytes: the framed three-track
// reply, the escape-sequence commands and the read reply's cut, separator
// normalisation and split.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kolt/kolt.h"
#include "msr/stripe_codec.hpp"

namespace msr = kolt::msr;

namespace {

std::vector<uint8_t> bytes(const std::string& s) { return {s.begin(), s.end()}; }
std::string text(const std::vector<uint8_t>& b) { return {b.begin(), b.end()}; }

msr::ReadResult parse(const std::string& reply, int mode) { return msr::parse_read_reply(bytes(reply), mode); }

const std::string kT2 = "6299990000001234560=30122201234567890";
const std::string kT3 = "996299990000001234560=156156000000000000";

}  // namespace

TEST(StripeFramed, ThreeTrackOffsets) {
    // 02, length, status 00 00, then: 00, s1, s2, s3 (= track 1's length,
    // high byte), length 1 low, length 2, length 3, the tracks.
    std::vector<uint8_t> reply = {0x02, 0x00, 0x00, 0x00, 0x00, 0x00, 0x05, 0x00, 0x00, 0x03, 0x00, 0x04, 0x00, 0x02};
    for (char c : std::string("ABC" "2345" "67")) reply.push_back(static_cast<uint8_t>(c));
    const auto t = msr::split_three_tracks(reply);
    EXPECT_EQ(t[0].status, 0x05);
    EXPECT_EQ(t[1].status, 0x00);
    EXPECT_EQ(t[2].status, 0x00);
    EXPECT_EQ(t[0].length(), 3);
    EXPECT_EQ(t[1].length(), 4);
    EXPECT_EQ(t[2].length(), 2);
    EXPECT_EQ(std::string(t[0].data.begin(), t[0].data.end()), "ABC");
    EXPECT_EQ(std::string(t[1].data.begin(), t[1].data.end()), "2345");
    EXPECT_EQ(std::string(t[2].data.begin(), t[2].data.end()), "67");
}

TEST(StripeFramed, ByteEightIsTheThirdStatusAndTheFirstLengthsHighByte) {
    std::vector<uint8_t> reply(14, 0);
    reply[8] = 0x01;  // track 3 status 01, and track 1 length 0x0100
    reply[9] = 0x00;
    const auto t = msr::split_three_tracks(reply);
    EXPECT_EQ(t[2].status, 0x01);
    EXPECT_EQ(t[0].length(), 0x0100);
    // The data stop where the reply ends.
    EXPECT_TRUE(t[0].data.empty());
}

TEST(StripeFramed, ShortReplyReadsAsZeros) {
    const std::vector<uint8_t> reply = {0x02, 0x00, 0x02};
    const auto t = msr::split_three_tracks(reply);
    for (const auto& f : t) {
        EXPECT_EQ(f.status, 0);
        EXPECT_EQ(f.length(), 0);
        EXPECT_TRUE(f.data.empty());
    }
}

TEST(StripeFramed, CardNoLen) {
    const auto digits = bytes("6299990000001234560=3012");
    EXPECT_EQ(getCardNoLen(digits.data(), static_cast<int32_t>(digits.size())), 19);
    const auto all = bytes("1234");
    EXPECT_EQ(getCardNoLen(all.data(), 4), -1);
    EXPECT_EQ(getCardNoLen(all.data(), 0), -1);
    const auto none = bytes(";123");
    EXPECT_EQ(getCardNoLen(none.data(), 4), 0);
    EXPECT_EQ(getCardNoLen(nullptr, 5), -1);
}

TEST(StripeEscape, ReadCommands) {
    EXPECT_EQ(msr::read_command(2), (std::vector<uint8_t>{0x1B, 0x4F, 0x1B, 0x5D}));
    EXPECT_EQ(msr::read_command(3), (std::vector<uint8_t>{0x1B, 0x4F, 0x1B, 0x54, 0x5D}));
    EXPECT_EQ(msr::read_command(23), (std::vector<uint8_t>{0x1B, 0x4F, 0x1B, 0x42, 0x5D}));
    EXPECT_EQ(msr::read_command(1), (std::vector<uint8_t>{0x1B, 0x4F}));  // the prefix only
}

TEST(StripeEscape, WriteCommandsAndStatusLengths) {
    const std::string trailer = "\x1D\x1B\\\x1Bj";
    EXPECT_EQ(text(msr::write_command(2, "123=45", "678")), "\x1Bt" "123=45" + trailer);
    EXPECT_EQ(text(msr::write_command(3, "123=45", "678")), "\x1Bt" "A678" + trailer);
    EXPECT_EQ(text(msr::write_command(23, "123=45", "678")), "\x1Bt" "123=45A678" + trailer);
    EXPECT_EQ(text(msr::write_command(1, "123=45", "678")), "\x1Bt" + trailer);
    EXPECT_EQ(msr::write_status_length(2), 3u);
    EXPECT_EQ(msr::write_status_length(3), 4u);
    EXPECT_EQ(msr::write_status_length(23), 4u);
    EXPECT_EQ(msr::write_status_length(1), 0u);
    EXPECT_TRUE(msr::write_succeeded(bytes("\x1B" "0p")));
    EXPECT_FALSE(msr::write_succeeded(bytes("\x1B" "0A")));
    // Track texts are bounded.
    EXPECT_EQ(msr::write_command(2, std::string(2000, '1'), "").size(), 2 + msr::kTrackTextMax + 5);
}

TEST(StripeEscape, ReplyIsCompleteWhenItEndsInQuestionMarkFs) {
    EXPECT_FALSE(msr::reply_complete(bytes("\x1Bs" + kT2)));
    EXPECT_FALSE(msr::reply_complete(bytes("\x1Bs" + kT2 + "?")));
    EXPECT_TRUE(msr::reply_complete(bytes("\x1Bs" + kT2 + "?\x1C")));
    EXPECT_FALSE(msr::reply_complete(bytes("\x1C")));
}

TEST(StripeEscape, Track2AndTrack3Alone) {
    msr::ReadResult r = parse("\x1Bs" + kT2 + "?\x1C", 2);
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.track2, kT2);
    EXPECT_EQ(r.track3, "");
    r = parse("\x1BsA" + kT3 + "?\x1C", 3);
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.track3, kT3);
}

TEST(StripeEscape, BothTracks) {
    const msr::ReadResult r = parse("\x1Bs" + kT2 + "A" + kT3 + "?\x1C", 23);
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.track2, kT2);
    EXPECT_EQ(r.track3, kT3);
}

TEST(StripeEscape, BytesAfterTheFirstEndAreCut) {
    const msr::ReadResult r = parse("\x1Bs" + kT2 + "?\x1C" "12?\x1C", 2);
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.track2, kT2);
}

TEST(StripeEscape, SeparatorsBecomeEquals) {
    for (const char* sep : {"'", ">", "|"}) {
        const msr::ReadResult r = parse("\x1Bs" "6299990000001234560" + std::string(sep) + "3012?\x1C", 2);
        EXPECT_EQ(r.track2, "6299990000001234560=3012") << sep;
    }
}

TEST(StripeEscape, EmptyTracks) {
    msr::ReadResult r = parse("\x1Bs\x7F" "A" + kT3 + "?\x1C", 23);
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.track2, "");
    EXPECT_EQ(r.track3, kT3);
    r = parse("\x1Bs" + kT2 + "A\x7F?\x1C", 23);
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.track2, kT2);
    EXPECT_EQ(r.track3, "");
    EXPECT_EQ(parse("\x1Bs\x7F" "A\x7F?\x1C", 23).code, -5);
    EXPECT_EQ(parse("\x1Bs\x7F?\x1C", 2).code, -5);
    EXPECT_EQ(parse("\x1BsA\x7F?\x1C", 3).code, -5);
}

TEST(StripeEscape, MissingAGivesMinusSix) { EXPECT_EQ(parse("\x1Bs" + kT2 + kT3 + "?\x1C", 23).code, -6); }

TEST(StripeEscape, EndPairHiddenBehindAZeroGivesMinusFour) {
    // The reply is read as text: a zero byte ends it before its "?" FS.
    std::string reply = "\x1Bs" + kT2 + "?\x1C";
    reply[5] = '\0';
    EXPECT_EQ(parse(reply, 2).code, -4);
}

TEST(StripeEscape, ShortRepliesGiveNoNegativeCounts) {
    EXPECT_EQ(parse("?\x1C", 2).track2, "");
    EXPECT_EQ(parse("?\x1C", 3).track3, "");
    const msr::ReadResult r = parse("A?\x1C", 23);
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.track2, "");
    EXPECT_EQ(parse("\x1Bs" + kT2 + "?\x1C", 7).code, 0);  // other modes split nothing
}
