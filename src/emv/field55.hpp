// Field 55 of the host message: the ICC data of an online transaction,
// built from a GENERATE AC answer (format 1 value: CID, ATC, cryptogram,
// issuer application data), the unpredictable number sent with it and the
// transaction's letter slots.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace kolt::emv {

// Longest field 55 in bytes: 17 short TLVs, the card's values at most 253
// bytes, the slots' at most 255 (halved where they are packed).
inline constexpr std::size_t kField55Max = 1360;
// Longest field 55 as hex text.
inline constexpr std::size_t kField55TextMax = 2 * kField55Max;

// The TLVs in this order, each with a one-byte length:
//   9F26  8   AC answer bytes 3..10         9A    S packed; 8 characters
//   9F27  1   AC answer byte 0                    (with century) give 3 bytes
//   9F10      AC answer from byte 11         9C    T packed; none or 1 char: 01
//   9F37  4   the unpredictable number      9F02  P packed
//   9F36  2   AC answer bytes 1..2          5F2A  R packed
//   95        letter 1 as stored (raw)      5A    A, an odd PAN padded with F
//   9F13  2   O packed                      5F34  1  J packed
//                                           82    2  Z packed
//                                           9F1A  2  V packed
//                                           9F03  Q packed
//                                           9F33  3  20 A1 00
// "Packed" is two hex characters a byte, right-aligned in the length given
// (a slot too long for a fixed length leaves zeros). Bytes the AC answer
// lacks read as zero.
std::vector<uint8_t> build_field55(std::span<const uint8_t> ac, std::span<const uint8_t, 4> unpredictable);
// The same as upper-case hex text.
std::string field55_text(std::span<const uint8_t> ac, std::span<const uint8_t, 4> unpredictable);

}  // namespace kolt::emv
