// Chinese character code conversion for the identity card: the GBK and
// UCS-2 code-point tables and their lookups, the converters in both
// directions, the ethnic-group ("nation") tables, the verification-result
// table, and the short converter of a raw card text record.
#pragma once

#include <array>
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

// The pairs (generated data, data/gbk_tables.inc): gb/uni sorted by Unicode
// value, gbsort/unisortbygb sorted by GBK code. gb[i] maps to uni[i] and
// gbsort[i] to unisortbygb[i].
namespace table {
extern const int32_t gb[kPairCount];
extern const int32_t uni[kPairCount];
extern const int32_t gbsort[kPairCount];
extern const int32_t unisortbygb[kPairCount];
}  // namespace table

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

// The converters above writing into the caller's room, without allocating:
// out must hold in.size() bytes (the pairs) or 2 * in.size() bytes
// (gbk_to_ucs2le_into, which returns the count written). The pairs
// converters return false, and write nothing, for an odd length.
bool ucs2le_to_gbk_pairs_into(std::span<const uint8_t> in, std::span<char> out);
bool ucs2be_to_gbk_pairs_into(std::span<const uint8_t> in, std::span<char> out);
std::size_t gbk_to_ucs2le_into(std::span<const uint8_t> in, std::span<uint8_t> out);

// A field of a card record as the card flows use it: converted with
// ucs2le_to_gbk_pairs (an odd length loses its last byte) and every blank
// removed.
std::string field_text(std::span<const uint8_t> ucs2le);

// The nation tables: 99 GBK names by two-digit code (index 99 does not
// exist). nationtable has codes 59 and 60; nationtablejh has them empty.
extern const std::array<const char*, 99> nationtable;
extern const std::array<const char*, 99> nationtablejh;
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
// Every field goes through field_text and is kept in the module's record
// (idcardInfo, cleared first; a field longer than its slot is cut at a
// character boundary); the sex becomes the GBK text of male for "1" and of
// female otherwise, the nation the nationtable name of the two-digit code.
// A record shorter than kRawRecordSize reads as cut there.
std::string id_cov_to_gbk(std::span<const uint8_t> record);

// The raw card text record's size (the fields above, from offset 0).
inline constexpr std::size_t kRawRecordSize = 220;
// The longest line id_cov_to_gbk gives: name 30, sex 2, nation 8, birth
// date 8, address 70, number 18, authority 30, period 8 + 1 + 8, seven
// colons (190 characters).
inline constexpr std::size_t kIdCovTextMax = 190;

// The module's record of the last id_cov_to_gbk (213 bytes, GBK texts with
// terminators).
struct IdCardInfo {
    char name[31];
    char sex[3];
    char nation[31];
    char birth[9];
    char address[71];
    char number[19];
    char authority[31];
    char valid_from[9];
    char valid_to[9];
};
static_assert(sizeof(IdCardInfo) == 213);
const IdCardInfo& id_card_info();

// converZh: the two bytes of the 4-hex-character key (upper-cased; a
// shorter text is padded with zero bytes) in the table set by set_ug_table,
// or nullopt. A result character that is not a hex digit gives nibble 0.
std::optional<std::array<uint8_t, 2>> conver_zh(std::string_view hex4);
// The table of converZh: 8-character records (4 hex characters of the
// result, then the 4 of the key), sorted by key; a trailing partial record
// is ignored. The library never loads it itself.
void set_ug_table(std::string records);

// Clears the module's state (the record and the converZh table).
void reset();

}  // namespace kolt::idcard
