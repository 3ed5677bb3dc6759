// The frame codecs on their own: byte spans in, byte spans out, no line.
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "common/test_util.hpp"
#include "kolt/kolt.h"
#include "link/frame_codec.hpp"

namespace {

namespace codec = kolt::link::codec;
using Bytes = std::vector<uint8_t>;
using kolt::test::to_hex;

Bytes bytes_of(const std::string& s) { return Bytes(s.begin(), s.end()); }

// A main reply as the device sends it: the logical frame with the status
// pair in place of class and code, in nibble text.
Bytes main_reply(uint8_t s1, uint8_t s2, const Bytes& data) {
    return codec::nibble_wire(codec::main_frame(s1, s2, data));
}

TEST(CodecMain, DecodesANibbleReply) {
    const Bytes wire = main_reply(0x00, 0x00, {0x56, 0x31, 0xA5});
    // A5 and the check C2 travel as ":5" and "<2".
    EXPECT_EQ(std::string(wire.begin(), wire.end()), "\x02" "0005" "0000" "5631:5" "<2" "\x03");
    Bytes out(64, 0xEE);
    ASSERT_EQ(codec::decode_main(wire, codec::Body::nibbles, out), 10);
    EXPECT_EQ(to_hex(out.data(), 10), "02000500005631A5C203");
    EXPECT_EQ(out[10], 0xEE);  // nothing past the frame
}

TEST(CodecMain, RoundTripsAnyData) {
    std::mt19937 rng(7);
    for (int len : {0, 1, 2, 3, 100, 255, 1000}) {
        Bytes data(static_cast<size_t>(len));
        for (auto& b : data) b = static_cast<uint8_t>(rng());
        const Bytes logical = codec::main_frame(0x10, 0x02, data);
        Bytes out(logical.size());
        ASSERT_EQ(codec::decode_main(codec::nibble_wire(logical), codec::Body::nibbles, out),
                  static_cast<int>(logical.size()));
        EXPECT_EQ(out, logical);
    }
}

TEST(CodecMain, WrongCheckShortWireAndNoRoom) {
    Bytes wire = main_reply(0x00, 0x00, {0x12});
    Bytes out(64);
    Bytes bad = wire;
    bad[bad.size() - 2] ^= 0x01;  // low nibble of the check byte
    EXPECT_EQ(codec::decode_main(bad, codec::Body::nibbles, out), Revdata_Error);
    EXPECT_EQ(codec::decode_main(std::span<const uint8_t>(wire).first(wire.size() - 1), codec::Body::nibbles, out),
              Lenth_Error);
    Bytes small(7);  // the frame needs 8
    EXPECT_EQ(codec::decode_main(wire, codec::Body::nibbles, small), Lenth_Error);
    EXPECT_EQ(codec::decode_main(Bytes{0x02, '0'}, codec::Body::nibbles, out), Lenth_Error);
}

TEST(CodecMain, LengthCharactersBelowZeroAreRefused) {
    // '/' reads as -1 in a length field.
    const Bytes wire = bytes_of("\x02" "000/");
    Bytes out(64);
    EXPECT_EQ(codec::main_rest(wire, codec::Body::nibbles), -1);
    EXPECT_EQ(codec::decode_main(wire, codec::Body::nibbles, out), Lenth_Error);
}

TEST(CodecMain, SizesFollowTheLengthField) {
    const Bytes head = bytes_of("\x02" "0005");
    EXPECT_EQ(codec::main_rest(head, codec::Body::nibbles), 13);  // 10 body characters, check, ETX
    EXPECT_EQ(codec::main_decoded_size(head, codec::Body::nibbles), 10);
    EXPECT_EQ(codec::main_rest(head, codec::Body::base64), 8);
    EXPECT_EQ(codec::main_decoded_size(head, codec::Body::base64), 10);
}

TEST(CodecMain, Base64BodyIsDecodedInPlace) {
    // "AAAB" is 00 00 01: status 00 00 and one data byte. The check covers
    // the characters: 'A' ^ 'A' ^ 'A' ^ 'B' = 0x03.
    const Bytes wire = bytes_of("\x02" "0004" "AAAB" "03" "\x03");
    Bytes out(64, 0xEE);
    ASSERT_EQ(codec::decode_main(wire, codec::Body::base64, out), 8);
    EXPECT_EQ(to_hex(out.data(), 8), "0200030000013003");
}

TEST(CodecUnbase64, LengthPastTheRoomIsRefused) {
    Bytes reply = {0x02, 0x00, 0x08, 'A', 'A', 'A', 'B'};
    EXPECT_EQ(codec::unbase64_reply(reply), Lenth_Error);
    reply = {0x02, 0x00, 0x04, 'A', 'A', 'A', 'B', 0x00, 0x03};
    EXPECT_EQ(codec::unbase64_reply(reply), 8);
    EXPECT_EQ(to_hex(reply.data(), 8), "0200030000013003");
}

TEST(CodecBracket, CommandFrameAndReplyRoundTrip) {
    // The probe's bracket half: command "A" without data.
    const Bytes probe = codec::bracket_frame('A', {});
    EXPECT_EQ(std::string(probe.begin(), probe.end()), "(AAQAEA)");
    std::mt19937 rng(11);
    for (int len : {0, 1, 2, 3, 10, 11, 300}) {
        Bytes data(static_cast<size_t>(len));
        for (auto& b : data) b = static_cast<uint8_t>(rng());
        const Bytes frame = codec::bracket_frame(0x90, data);
        Bytes out(512);
        const int n = codec::decode_bracket(frame, out);
        ASSERT_EQ(n, len);
        EXPECT_EQ(Bytes(out.begin(), out.begin() + n), data);
    }
}

TEST(CodecBracket, CheckShortAndRoom) {
    const Bytes frame = codec::bracket_frame(0x90, Bytes(12, 0x01));
    Bytes out(64);
    Bytes bad = frame;
    bad[5] = bad[5] == 'A' ? 'B' : 'A';  // a data character changes, the check does not
    EXPECT_EQ(codec::decode_bracket(bad, out), Revdata_Error);
    EXPECT_EQ(codec::decode_bracket(std::span<const uint8_t>(frame).first(frame.size() - 1), out), Lenth_Error);
    Bytes small(11);
    EXPECT_EQ(codec::decode_bracket(frame, small), Lenth_Error);
    // A count below the command byte, the check and ")" is short.
    EXPECT_EQ(codec::decode_bracket(bytes_of("(AAI" "xy"), out), Lenth_Error);
}

TEST(Codec100s, CommandAndReply) {
    const Bytes cmd = codec::frame_100s(0x10);
    EXPECT_EQ(std::string(cmd.begin(), cmd.end()), "860003101316");
    Bytes out(64);
    ASSERT_EQ(codec::decode_100s(bytes_of("860003101316"), out), 6);
    EXPECT_EQ(to_hex(out.data(), 6), "860003101316");
    EXPECT_EQ(codec::decode_100s(bytes_of("860003101416"), out), Revdata_Error);
    EXPECT_EQ(codec::decode_100s(bytes_of("86000310131"), out), Lenth_Error);
    Bytes small(5);
    EXPECT_EQ(codec::decode_100s(bytes_of("860003101316"), small), Lenth_Error);
    EXPECT_EQ(codec::reply_100s_rest(bytes_of("8600/3")), -1);
}

TEST(CodecProbe, BothFamiliesInOneWrite) {
    const Bytes probe = codec::frame_100s(0x10);
    const Bytes bracket = codec::bracket_frame('A', {});
    EXPECT_EQ(std::string(codec::kProbe), std::string(probe.begin(), probe.end()) + std::string(bracket.begin(), bracket.end()));
}

}  // namespace
