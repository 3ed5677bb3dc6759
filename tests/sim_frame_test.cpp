// The simulator's own frame codecs, pinned to known wire bytes.
#include <gtest/gtest.h>

#include "common/sim_fixture.hpp"
#include "common/test_util.hpp"
#include "kolt_sim/frame.hpp"

using namespace kolt::sim;
using kolt::test::stx_etx;
using kolt::test::text_bytes;

TEST(SimFrame, BuzzerCommandWireBytes) {
    const Bytes data{0x02, 0x01, 0x01};
    EXPECT_EQ(encode_main_command(0x31, 0x13, data), stx_etx("0005311302010120"));
}

TEST(SimFrame, MainDecodeRoundTripAndCheck) {
    auto f = decode_main(stx_etx("0005311302010120"));
    ASSERT_TRUE(f);
    EXPECT_EQ(f->a, 0x31);
    EXPECT_EQ(f->b, 0x13);
    EXPECT_EQ(f->data, (Bytes{0x02, 0x01, 0x01}));
    EXPECT_FALSE(decode_main(stx_etx("0005311302010121")));  // check byte off by one
    EXPECT_FALSE(decode_main(stx_etx("0006311302010120")));  // length too long
}

TEST(SimFrame, ReplyWithVersionText) {
    EXPECT_EQ(encode_main_reply(0, 0, text_bytes("HW-REV-C")), stx_etx("000:000048572=5245562=431="));
    EXPECT_EQ(encode_main_reply(0, 0, {}), stx_etx("0002000000"));
}

TEST(SimFrame, SpecialReplyIsRawBase64WithNibbleLengthAndCheck) {
    const Bytes body{0x00, 0x00, 0x01, 0x02, 0x03};
    const Bytes wire = encode_special_reply(body);
    EXPECT_EQ(wire, stx_etx("0008AAABAgM=55"));
    auto back = decode_special_reply(wire);
    ASSERT_TRUE(back);
    EXPECT_EQ(*back, body);
}

TEST(SimFrame, BracketGreetingCommandAndReply) {
    EXPECT_EQ(encode_bracket(0x41, {}), text_bytes("(AAQAEA)"));
    EXPECT_EQ(encode_bracket(0x42, {}), text_bytes("(AAQBEw)"));
    const Bytes greeting{0x90, 0x00, 0x4B, 0x4C, 0x35, 0x36, 0x30, 0x54, 0x34, 0x31, 0x01};
    const Bytes reply = encode_bracket(0x41, greeting);
    EXPECT_EQ(reply, text_bytes("(ABQAkABLTDU2MFQ0MQE=Tg)"));
    auto f = decode_bracket(reply);
    ASSERT_TRUE(f);
    EXPECT_EQ(f->cmd, 0x41);
    EXPECT_EQ(f->data, greeting);
    Bytes bad = reply;
    bad[bad.size() - 3] = 'U';
    EXPECT_FALSE(decode_bracket(bad));
}

TEST(SimFrame, ProbeIsAn86QueryAndABracketGreeting) {
    const std::string probe(kProbe);
    ASSERT_EQ(probe.size(), 20u);
    auto q = decode_86(text_bytes(probe.substr(0, 12)));
    ASSERT_TRUE(q);
    EXPECT_EQ(*q, Bytes{0x10});
    EXPECT_EQ(encode_86(Bytes{0x10}), text_bytes("860003101316"));
    auto b = decode_bracket(text_bytes(probe.substr(12)));
    ASSERT_TRUE(b);
    EXPECT_EQ(b->cmd, 0x41);
    EXPECT_TRUE(b->data.empty());
}

TEST(SimFrame, Legacy86SumIsAdditive) {
    // 00 + 05 + 10 + 90 + 00 = A5, written as the characters ":5".
    EXPECT_EQ(encode_86(Bytes{0x10, 0x90, 0x00}), text_bytes("860005109000:516"));
    EXPECT_FALSE(decode_86(text_bytes("860005109000:416")));
}

TEST(SimFrame, Base64Examples) {
    EXPECT_EQ(base64_encode(Bytes{0x41, 0x42, 0x43}), "QUJD");
    EXPECT_EQ(base64_encode(Bytes{0xFF}), "/w==");
    EXPECT_EQ(base64_encode(Bytes{0x00, 0x04}), "AAQ=");
    EXPECT_EQ(base64_decode("AAQ"), (Bytes{0x00, 0x04}));
    EXPECT_EQ(base64_decode("QUJD"), (Bytes{0x41, 0x42, 0x43}));
    EXPECT_FALSE(base64_decode("QUJDQ"));
    EXPECT_FALSE(base64_decode("QU\nJD"));
}

TEST(SimFrame, NibbleCodec) {
    EXPECT_EQ(nibble_encode(Bytes{0x00, 0xAF, 0x3C}), "00:?3<");
    EXPECT_EQ(nibble_decode("00:?3<"), (Bytes{0x00, 0xAF, 0x3C}));
    EXPECT_FALSE(nibble_decode("0A"));
    EXPECT_FALSE(nibble_decode("000"));
}
