// Chinese character code conversion for the identity card: the GBK and
// UCS-2 code-point tables and their lookups, the converters in both
// directions, the ethnic-group ("nation") tables, the verification-result
// table, and the short converter of a raw card text record.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kolt::idcard {

// Pairs of the code-point tables: 0x00-0x7F and the 23,940 two-byte codes.
inline constexpr int kPairCount = 24068;

// searchgb: the GBK code of a Unicode value, or -1.
int32_t search_gb(int32_t unicode);
// searchuni: the Unicode value of a GBK code, or -1.
int32_t search_uni(int32_t gbk);

// KOLT_idInfoConvert2gb: UCS-2 little-endian units to two bytes each: a
// code above 127 as its two GBK bytes (high first), one of 0..127 as a blank
// and the character, an unmapped one as "**". nullopt for an odd length.
std::optional<std::string> ucs2le_to_gbk_pairs(std::span<const uint8_t> in);
// convert2gb: the same with the units read high byte first.
std::optional<std::string> ucs2be_to_gbk_pairs(std::span<const uint8_t> in);
// convert2uni: two-byte GBK units (high first) to UCS-2 big-endian; an
// unmapped unit gives 00 FF. nullopt for an odd length.
std::optional<std::vector<uint8_t>> gbk_units_to_ucs2be(std::span<const uint8_t> in);
// KOLT_gbConvert2idUni: mixed GBK/ASCII text to UCS-2 little-endian; a lead
// byte at the very end pairs with nothing (reads as 0); unmapped: FF 00.
std::vector<uint8_t> gbk_to_ucs2le(std::span<const uint8_t> in);

// A field of a card record as the card flows use it: converted with
// ucs2le_to_gbk_pairs (an odd length loses its last byte) and every blank
// removed.
std::string field_text(std::span<const uint8_t> ucs2le);

// The nation tables: 99 GBK names by two-digit code (index 99 does not
// exist). nationtable has codes 59 and 60; nationtablejh has them empty.
extern const char* const nationtable[99];
extern const char* const nationtablejh[99];
// The verification-result texts by code 0..4.
extern const char* const checkresulttable[5];

// nationtable's name of a code; empty outside 0..98.
std::string_view nation_name(int code);
// KOLT_getNationCode: index of the name in nationtablejh (0..98, first
// match), or -1.
int32_t nation_code(std::string_view name);
// KOLT_getCheckResultCode: index among the first four texts, else 4.
int32_t check_result_code(std::string_view text);

// idCovToGBK: the raw card text record (name 30, sex 2, nation 4, birth
// date 16, address 70, number 36, authority 30, valid from 16, valid to 16)
// as "name:sex:nation:birth:address:number:authority:from-to".
std::string id_cov_to_gbk(std::span<const uint8_t> record);

}  // namespace kolt::idcard
