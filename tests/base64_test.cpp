// In-place Base64: exact texts, the terminator rules, unpadded input and
// the shortening by characters outside the alphabet.
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "common/test_util.hpp"
#include "kolt/kolt.h"
#include "support/base64.hpp"

using kolt::test::bytes;

namespace {

std::string encode_c(std::vector<uint8_t> in) {
    const int len = static_cast<int>(in.size());
    in.resize(in.size() + 8, 0xEE);
    const int n = KOLT_Base64(in.data(), len);
    EXPECT_EQ(n, (len + 2) / 3 * 4);
    return std::string(in.begin(), in.begin() + n);
}

std::vector<uint8_t> text(const std::string& s, size_t room = 8) {
    std::vector<uint8_t> v(s.begin(), s.end());
    v.resize(v.size() + room, 0xEE);
    return v;
}

}  // namespace

TEST(Base64, EncodesThreeBytes) { EXPECT_EQ(encode_c(bytes({0x41, 0x42, 0x43})), "QUJD"); }

TEST(Base64, EncodesOneByteWithTwoPads) { EXPECT_EQ(encode_c(bytes({0xFF})), "/w=="); }

TEST(Base64, EncodesTwoBytesWithOnePad) { EXPECT_EQ(encode_c(bytes({0x00, 0x04})), "AAQ="); }

TEST(Base64, EncodingOfNothingIsEmpty) {
    uint8_t buf[4] = {0xEE, 0xEE, 0xEE, 0xEE};
    EXPECT_EQ(KOLT_Base64(buf, 0), 0);
    EXPECT_EQ(buf[0], 0xEE);
}

TEST(Base64, WholeGroupsWriteNoTerminator) {
    auto buf = bytes({1, 2, 3, 4, 5, 6});
    buf.resize(12, 0xEE);
    EXPECT_EQ(KOLT_Base64(buf.data(), 6), 8);
    EXPECT_EQ(std::string(buf.begin(), buf.begin() + 8), "AQIDBAUG");
    EXPECT_EQ(buf[8], 0xEE);  // r = 0: nothing after the text
}

TEST(Base64, RemainderOfOneWritesTerminator) {
    auto buf = bytes({1, 2, 3, 4});
    buf.resize(12, 0xEE);
    EXPECT_EQ(KOLT_Base64(buf.data(), 4), 8);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(buf.data())), "AQIDBA==");
    EXPECT_EQ(buf[8], 0);
    EXPECT_EQ(buf[9], 0xEE);
}

TEST(Base64, RemainderOfTwoWritesTerminator) {
    auto buf = bytes({1, 2, 3, 4, 5});
    buf.resize(12, 0xEE);
    EXPECT_EQ(KOLT_Base64(buf.data(), 5), 8);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(buf.data())), "AQIDBAU=");
    EXPECT_EQ(buf[8], 0);
}

TEST(Base64, MatchesIndependentEncoderOnRandomData) {
    std::mt19937 rng(12345);
    for (int len = 0; len < 200; ++len) {
        std::vector<uint8_t> data(static_cast<size_t>(len));
        for (auto& b : data) b = static_cast<uint8_t>(rng());
        std::vector<unsigned char> ref(static_cast<size_t>(len) / 3 * 4 + 8);
        const int rn = EVP_EncodeBlock(ref.data(), data.data(), len);
        EXPECT_EQ(encode_c(data), std::string(ref.begin(), ref.begin() + rn)) << "len " << len;
    }
}

TEST(Base64, DecodingRoundTripsRandomData) {
    std::mt19937 rng(777);
    for (int len = 1; len < 200; ++len) {
        std::vector<uint8_t> data(static_cast<size_t>(len));
        for (auto& b : data) b = static_cast<uint8_t>(rng());
        auto buf = text(encode_c(data));
        const int n = KOLT_UnBase64(buf.data(), (len + 2) / 3 * 4);
        ASSERT_EQ(n, len);
        EXPECT_EQ(std::vector<uint8_t>(buf.begin(), buf.begin() + n), data);
    }
}

TEST(Base64, DecodesPaddedText) {
    auto buf = text("QUJD");
    EXPECT_EQ(KOLT_UnBase64(buf.data(), 4), 3);
    EXPECT_EQ(std::string(buf.begin(), buf.begin() + 3), "ABC");
    buf = text("/w==");
    EXPECT_EQ(KOLT_UnBase64(buf.data(), 4), 1);
    EXPECT_EQ(buf[0], 0xFF);
    EXPECT_EQ(buf[1], 0);  // one byte, then a 0
}

TEST(Base64, DecodesUnpaddedThreeCharacters) {
    auto buf = text("AAQ");
    EXPECT_EQ(KOLT_UnBase64(buf.data(), 3), 2);
    EXPECT_EQ(buf[0], 0x00);
    EXPECT_EQ(buf[1], 0x04);
    EXPECT_EQ(buf[2], 0x00);
    EXPECT_EQ(buf[3], '=');  // padded in place before decoding
}

TEST(Base64, DecodesUnpaddedTwoCharacters) {
    auto buf = text("/w");
    EXPECT_EQ(KOLT_UnBase64(buf.data(), 2), 1);
    EXPECT_EQ(buf[0], 0xFF);
}

TEST(Base64, FiveCharactersGiveZero) {
    auto buf = text("QUJDQ");
    EXPECT_EQ(KOLT_UnBase64(buf.data(), 5), 0);
    EXPECT_EQ(buf[0], 'Q');  // untouched
}

TEST(Base64, LineBreakShortensTheResult) {
    auto whole = text("QUJDQUJD");
    EXPECT_EQ(KOLT_UnBase64(whole.data(), 8), 6);
    auto broken = text("QUJDQU\nJ");
    EXPECT_EQ(KOLT_UnBase64(broken.data(), 8), 4);
    EXPECT_EQ(std::string(broken.begin(), broken.begin() + 4), "ABCA");
}

TEST(Base64, ForeignCharacterInAnEarlierGroupCountsLast) {
    // The last recorded stop position decides, whichever group it came from.
    auto buf = text("QU\nJQUJD");
    EXPECT_EQ(KOLT_UnBase64(buf.data(), 8), 4);
}

TEST(Base64, LengthWhoseTextAnIntCannotCountIsRefused) {
    uint8_t buf[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    EXPECT_EQ(KOLT_Base64(buf, INT32_MAX), 0);
    EXPECT_EQ(KOLT_Base64(buf, 1'610'612'734), 0);  // 2^31 characters
    EXPECT_EQ(buf[0], 1);  // untouched
    EXPECT_EQ(kolt::base64::encoded_size(INT32_MAX), -1);
    EXPECT_EQ(kolt::base64::encoded_size(-1), -1);
    EXPECT_EQ(kolt::base64::encoded_size(1'610'612'733), 2'147'483'644);  // the longest text
}

TEST(Base64, NullBufferGivesZero) {
    EXPECT_EQ(KOLT_Base64(nullptr, 3), 0);
    EXPECT_EQ(KOLT_UnBase64(nullptr, 4), 0);
}

TEST(Base64Cpp, EncodeInPlaceRefusesSmallBuffer) {
    uint8_t buf[4] = {1, 2, 3, 4};
    EXPECT_EQ(kolt::base64::encode_in_place(std::span<uint8_t>(buf, 4), 3), 4);  // r = 0 needs no terminator
    uint8_t small[4] = {1, 0, 0, 0};
    EXPECT_EQ(kolt::base64::encode_in_place(std::span<uint8_t>(small, 4), 1), -1);  // "AQ==" + terminator
    EXPECT_EQ(small[0], 1);
    EXPECT_EQ(kolt::base64::encode_in_place(std::span<uint8_t>(small, 4), -1), -1);
}

TEST(Base64Cpp, DecodeInPlaceNeedsRoomForPadding) {
    uint8_t buf[3] = {'A', 'A', 'Q'};
    EXPECT_EQ(kolt::base64::decode_in_place(std::span<uint8_t>(buf, 3), 3), -1);
    uint8_t room[4] = {'A', 'A', 'Q', 0};
    EXPECT_EQ(kolt::base64::decode_in_place(std::span<uint8_t>(room, 4), 3), 2);
}

TEST(Base64Cpp, CopyingHelpers) {
    EXPECT_EQ(kolt::base64::encode(bytes({0x41, 0x42, 0x43, 0x44})), "QUJDRA==");
    EXPECT_EQ(kolt::base64::decode("QUJDRA=="), bytes({0x41, 0x42, 0x43, 0x44}));
    EXPECT_TRUE(kolt::base64::decode("QUJDR").empty());
}
