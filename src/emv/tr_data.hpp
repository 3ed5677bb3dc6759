// Transaction data handed in by the caller of the cryptogram and
// issuer-authentication calls, in its two letter-coded encodings, and the
// storage of its fields into the tag-letter slots.
//
//   ICRT encoding: letter, three decimal digits n, n characters of value.
//   IC encoding:   letter, one byte n (binary), n bytes of value. The
//                  application data block of the IC_ card-information call
//                  has this layout too.
//
// The splitting is a pure codec over bytes; storing the fields goes through
// the working state.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kolt::emv {

// At most this many fields are taken from one text; further ones are
// ignored.
inline constexpr std::size_t kTrFieldsMax = 100;
// Longest ICRT-encoded text read: kTrFieldsMax fields of the longest form
// (letter, three digits, 999 characters).
inline constexpr std::size_t kTrTextMax = kTrFieldsMax * (4 + 999);

struct TrField {
    char letter = 0;
    std::span<const uint8_t> value;  // points into the source
};

// The fields of an ICRT-encoded text, in order. Splitting ends at the end
// of the text, at a zero letter, at a length that is not a number of zero
// or more, or after kTrFieldsMax fields; a value cut short by the end of
// the text is taken as far as it goes and ends the text.
std::vector<TrField> split_icrt(std::span<const uint8_t> text);
// The fields of an IC-encoded block: ends at its end, at a zero letter, or
// after kTrFieldsMax fields; a value cut short is taken as far as it goes.
std::vector<TrField> split_ic(std::span<const uint8_t> block);
// Bytes an IC-encoded block spans from p, read field by field up to its
// zero letter (not counted) or kTrFieldsMax fields: how far a block handed
// in by pointer alone may be read.
std::size_t ic_block_extent(const uint8_t* p);

// Letters of the ICRT encoding before lookup: J and V become W, K becomes
// 2 (9F37), L becomes 1 (95). The IC encoding renames only V to W.
char icrt_letter(char letter);
char ic_letter(char letter);

// Stores fields into their letters' slots (see store_tr_field); 0, or -2
// at the first letter outside the table (the fields before it stay).
int32_t store_tr_fields(const std::vector<TrField>& fields, char (*rename)(char));
// One field: P and Q as "%012d" of the value read as a decimal number, R as
// "%04d" (and the same four characters into V when V is empty), any other
// letter as it stands (cut to a slot's 255 bytes).
void store_tr_field(int index, char letter, std::span<const uint8_t> value);

// The IC encoding of the slots of the letters given: letter, length byte,
// value, for every non-empty slot (the application data block).
std::string encode_ic(std::string_view letters);

// KOLT_ParaseTrData_PSBC and KOLT_ParaseTrData: split and store. 0 or -2.
int32_t parse_tr_data_icrt(std::span<const uint8_t> text);
int32_t parse_tr_data_ic(std::span<const uint8_t> block);

// ParaDeal: the ICRT text normalised field by field: P and Q as "%s%03d%012s"
// with length 12, R as "%s%03d%04s" with length 4 (the C library pads %s
// with blanks, not zeros), every other letter as "%s%03d%s". The text is
// consumed n + 4 characters at a time.
std::string para_deal(std::span<const uint8_t> text);

}  // namespace kolt::emv
