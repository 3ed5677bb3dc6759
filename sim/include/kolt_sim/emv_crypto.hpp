// The card-side and issuer-side cryptography of an online payment-card
// transaction, as the simulated card and the simulated issuer host use it.
//
// All keys are double-length DES keys (16 bytes: left half, right half);
// every block is 8 bytes. The functions throw std::invalid_argument on
// inputs of the wrong size or form, and std::runtime_error when libcrypto
// fails.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kolt::sim::crypto {

using Bytes = std::vector<uint8_t>;

// Triple-DES (two keys, encrypt-decrypt-encrypt) of one 8-byte block.
Bytes tdes_encrypt_block(std::span<const uint8_t> key16, std::span<const uint8_t> block8);

// Sets the low bit of every byte so that each byte has an odd number of
// one bits.
Bytes with_odd_parity(std::span<const uint8_t> key);

// Key check value: the first three bytes of the triple-DES encryption of
// eight zero bytes.
Bytes key_check_value(std::span<const uint8_t> key16);

// The card's own master key (for the application cryptogram, or for script
// integrity) from the issuer's master key of that purpose: the rightmost 16
// digits of PAN||PAN sequence number, packed into 8 bytes (Y), give the left
// half E(Y) and the right half E(Y xor FF..FF), with odd parity.
//   pan_digits: the PAN as decimal digit text (trailing 'F'/'f' padding is
//               ignored); psn_digits: two digits, "00" when the card has none.
Bytes derive_icc_master_key(std::span<const uint8_t> issuer_master_key16, std::string_view pan_digits,
                            std::string_view psn_digits);

// The same, with the PAN and the PAN sequence number as the card stores
// them (tag 5A, packed digits, F padding; tag 5F34, one byte of packed
// digits, or empty for "00").
Bytes derive_icc_master_key_packed(std::span<const uint8_t> issuer_master_key16, std::span<const uint8_t> pan_bcd,
                                   std::span<const uint8_t> psn_bcd);

// A session key from a card master key and an 8-byte diversification value
// R: left half E(R0 R1 F0 R3..R7), right half E(R0 R1 0F R3..R7), with odd
// parity. For the cryptogram and the script-integrity keys R is the ATC
// followed by six zero bytes (session_diversifier).
Bytes derive_session_key(std::span<const uint8_t> icc_master_key16, std::span<const uint8_t> r8);
Bytes session_diversifier(std::span<const uint8_t> atc2);

// Padding method 2: 80, then 00 up to a multiple of 8 bytes (a whole block
// of padding when the data is already a multiple of 8).
Bytes pad_method2(std::span<const uint8_t> data);

// Retail MAC (ISO/IEC 9797-1 algorithm 3, padding method 2): single DES CBC
// under the left key half over the padded data, the last block finished
// with triple DES. Returns the 8-byte MAC; callers keep its leftmost bytes
// as they need.
Bytes retail_mac(std::span<const uint8_t> key16, std::span<const uint8_t> data);

// Authorisation response cryptogram, method 1: E(ARQC xor (ARC || 00*6))
// under key; the ARC is 2 bytes.
Bytes arpc_method1(std::span<const uint8_t> key16, std::span<const uint8_t> arqc8, std::span<const uint8_t> arc2);

// The data the application cryptogram covers, in this order: the terminal's
// amount (9F02), other amount (9F03), country (9F1A), verification results
// (95), currency (5F2A), date (9A), transaction type (9C) and unpredictable
// number (9F37), then the card's AIP (82) and ATC (9F36), and the
// cryptogram information it answers (9F27), so that the TC and the ARQC of
// one transaction differ. The card takes the terminal's elements from the
// GENERATE AC data, the issuer from field 55.
struct AcElement {
    uint32_t tag;
    size_t length;
};
std::span<const AcElement> cryptogram_elements();

// A value brought to an element's length: a shorter one right-aligned with
// 00 bytes on the left, a longer one cut to its last `length` bytes.
Bytes fit_value(std::span<const uint8_t> value, size_t length);

// Packs decimal digit text into bytes, two digits a byte, padding an odd
// count with a trailing F. Throws std::invalid_argument on a non-digit.
Bytes pack_digits(std::string_view digits);
// Unpacks packed digits to text, stopping at the first F nibble. Throws
// std::invalid_argument on a nibble A..E.
std::string unpack_digits(std::span<const uint8_t> bcd);

}  // namespace kolt::sim::crypto
