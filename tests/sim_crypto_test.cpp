// The simulator's payment-card cryptography: key derivation, retail MAC,
// ARPC and check values, against known answers.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "common/test_util.hpp"
#include "kolt_sim/emv_crypto.hpp"

namespace {

namespace crypto = kolt::sim::crypto;
using kolt::test::from_hex;
using kolt::test::to_hex;

const std::string kIssuerMasterKey = "0123456789ABCDEFFEDCBA9876543210";
const std::string kIccMasterKey = "F84315C7B95BD3B0C74694922C3808B0";  // PAN 9901234567890123, PSN 45
const std::string kSessionKey = "3E736BF8D37664348A04E3ABE00DEFC1";    // R = 1234567890123456

std::string hex(const crypto::Bytes& b) { return to_hex(b); }

TEST(SimCrypto, KeyCheckValues) {
    EXPECT_EQ(hex(crypto::key_check_value(from_hex(kIssuerMasterKey))), "08D7B4");
    EXPECT_EQ(hex(crypto::key_check_value(from_hex(kIccMasterKey))), "1DA5E1");
    EXPECT_EQ(hex(crypto::key_check_value(from_hex(kSessionKey))), "099592");
}

TEST(SimCrypto, IccMasterKeyOptionA) {
    EXPECT_EQ(hex(crypto::derive_icc_master_key(from_hex(kIssuerMasterKey), "9901234567890123", "45")), kIccMasterKey);
    // the same from the card's own encoding of PAN and sequence number
    EXPECT_EQ(hex(crypto::derive_icc_master_key_packed(from_hex(kIssuerMasterKey), from_hex("9901234567890123"),
                                                       from_hex("45"))),
              kIccMasterKey);
    // trailing F padding of the PAN is not part of it
    EXPECT_EQ(crypto::derive_icc_master_key(from_hex(kIssuerMasterKey), "9901234567890123F", "45"),
              crypto::derive_icc_master_key(from_hex(kIssuerMasterKey), "9901234567890123", "45"));
}

TEST(SimCrypto, IccMasterKeyUsesTheRightmostSixteenDigits) {
    const auto imk = from_hex(kIssuerMasterKey);
    // 19-digit PAN: only its last 14 digits and the sequence number count
    EXPECT_EQ(crypto::derive_icc_master_key(imk, "6299990000001234560", "01"),
              crypto::derive_icc_master_key(imk, "9990000001234560", "01"));
    EXPECT_EQ(crypto::derive_icc_master_key(imk, "6299990000001234560", "01"),
              crypto::derive_icc_master_key_packed(imk, from_hex("6299990000001234560F"), from_hex("01")));
    // no sequence number is "00"
    EXPECT_EQ(crypto::derive_icc_master_key_packed(imk, from_hex("6299990000001234560F"), {}),
              crypto::derive_icc_master_key(imk, "6299990000001234560", "00"));
    // a short PAN is filled with zeros on the left
    EXPECT_EQ(crypto::derive_icc_master_key(imk, "12345678901", "01"),
              crypto::derive_icc_master_key(imk, "00012345678901", "01"));
}

TEST(SimCrypto, KeysHaveOddParity) {
    const auto key = crypto::derive_icc_master_key(from_hex(kIssuerMasterKey), "6299990000001234560", "01");
    for (uint8_t b : key) EXPECT_EQ(__builtin_popcount(b) % 2, 1) << to_hex(key);
    EXPECT_EQ(hex(crypto::with_odd_parity(from_hex("0001FEFF"))), "0101FEFE");
}

TEST(SimCrypto, SessionKey) {
    EXPECT_EQ(hex(crypto::derive_session_key(from_hex(kIccMasterKey), from_hex("1234567890123456"))), kSessionKey);
    EXPECT_EQ(hex(crypto::session_diversifier(from_hex("001C"))), "001C000000000000");
}

TEST(SimCrypto, RetailMacPaddingMethod2) {
    EXPECT_EQ(hex(crypto::retail_mac(from_hex(kSessionKey), from_hex("0123456789ABCDEF0123456789ABCDEF"))),
              "4B46013359B7A58B");
    EXPECT_EQ(hex(crypto::pad_method2(from_hex("0102"))), "0102800000000000");
    EXPECT_EQ(hex(crypto::pad_method2(from_hex("0102030405060708"))), "01020304050607088000000000000000");
}

TEST(SimCrypto, ArpcMethod1) {
    // The ARQC here is the MAC of the test above (4B46013359B7A58B), the
    // response code the two bytes 00 00.
    const auto arqc = from_hex("4B46013359B7A58B");
    const auto arc = from_hex("0000");
    EXPECT_EQ(hex(crypto::arpc_method1(from_hex(kIccMasterKey), arqc, arc)), "F8C9CECAABD55AD1");
    EXPECT_EQ(hex(crypto::arpc_method1(from_hex(kSessionKey), arqc, arc)), "E49DB40BFF246CCA");
    // the response code enters the result
    EXPECT_NE(hex(crypto::arpc_method1(from_hex(kSessionKey), arqc, from_hex("3030"))), "E49DB40BFF246CCA");
}

TEST(SimCrypto, PackedDigits) {
    EXPECT_EQ(hex(crypto::pack_digits("123")), "123F");
    EXPECT_EQ(crypto::unpack_digits(from_hex("6299990000001234560F")), "6299990000001234560");
    EXPECT_EQ(crypto::unpack_digits(from_hex("01")), "01");
    EXPECT_THROW(crypto::pack_digits("12A"), std::invalid_argument);
    EXPECT_THROW(crypto::unpack_digits(from_hex("1A")), std::invalid_argument);
}

TEST(SimCrypto, WrongSizesAreRefused) {
    EXPECT_THROW(crypto::key_check_value(from_hex("0123")), std::invalid_argument);
    EXPECT_THROW(crypto::retail_mac(from_hex("0123456789ABCDEF"), from_hex("00")), std::invalid_argument);
    EXPECT_THROW(crypto::arpc_method1(from_hex(kSessionKey), from_hex("00"), from_hex("0000")), std::invalid_argument);
    EXPECT_THROW(crypto::derive_icc_master_key(from_hex(kIssuerMasterKey), "1234", "1"), std::invalid_argument);
    EXPECT_THROW(crypto::derive_session_key(from_hex(kSessionKey), from_hex("0001")), std::invalid_argument);
}

}  // namespace
