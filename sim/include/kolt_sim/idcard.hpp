// Identity cards of the simulated identity module: the card's record made
// from readable fields, the card files, and the display data the host sends
// after an online verification (bracket command 0x51).
//
// A card record is the 256-byte text block, UCS-2 little-endian, each field
// padded with blanks (20 00) to its size, followed by the 1024-byte photo
// block. Byte 248 of the text (the first byte of the card-type unit) tells
// the layout: 'I' the foreign permanent resident card, 'J' the residence
// permit, a blank the resident identity card. Field offsets and sizes (in
// bytes) are listed in sim/README.md ("Identity cards").
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kolt::sim {

inline constexpr size_t kIdTextSize = 256;
inline constexpr size_t kIdPhotoSize = 1024;
inline constexpr size_t kIdRecordSize = kIdTextSize + kIdPhotoSize;

// The readable fields of a card, UTF-8 text. Which fields a layout has:
//   "id": name, sex, nation, birth, address, number, authority, valid_from,
//         valid_to
//   "I":  english_name, sex, card_number, country, chinese_name, valid_from,
//         valid_to, birth, card_version, authority_code
//   "J":  name, sex, birth, address, number, authority, valid_from, valid_to,
//         pass_number, issue_count
// A field the layout does not have must stay empty. Fields left empty are
// blanks on the card.
struct IdCardFields {
    std::string layout = "id";  // "id", "I" or "J"
    std::string name, sex, nation, birth, address, number, authority, valid_from, valid_to;
    std::string english_name, card_number, country, chinese_name, card_version, authority_code;
    std::string pass_number, issue_count;
    // The photo block, kIdPhotoSize bytes; empty: default_id_photo().
    std::vector<uint8_t> photo;

    bool operator==(const IdCardFields&) const = default;
};

// UTF-8 text as UCS-2 little-endian. Every character of the Basic
// Multilingual Plane is accepted (private use and Extension A included);
// characters beyond it, surrogates and broken UTF-8 throw std::runtime_error.
std::vector<uint8_t> utf8_to_ucs2le(std::string_view utf8);
// The other way, for showing card text: UCS-2 little-endian to UTF-8 (an odd
// last byte is left out).
std::string ucs2le_to_utf8(std::span<const uint8_t> ucs2);

// The photo block used when a card gives none: byte i is (7 i + 0x57) mod 256.
std::vector<uint8_t> default_id_photo();
// The built-in card (resident identity card of the invented 张三).
IdCardFields default_id_card();

// The 256-byte text block. Throws std::runtime_error for an unknown layout, a
// field too long for its place, or a field the layout does not have.
std::vector<uint8_t> encode_id_text(const IdCardFields& card);
// Text block and photo block: kIdRecordSize bytes.
std::vector<uint8_t> encode_id_record(const IdCardFields& card);
// The identity module's answer to a read (see make_id_answer in
// simulator.hpp): text length, photo length, text, photo.
std::vector<uint8_t> make_id_card_answer(const IdCardFields& card);

// A card file: a JSON object with "layout" and the field names of
// IdCardFields, "photo_hex" (1024 bytes of hex) and "comment"; every key
// optional (absent: empty, layout "id"). Unknown keys are refused. Throws
// std::runtime_error naming the problem; the file is checked by encoding it.
IdCardFields parse_id_card(const std::string& json_text);
IdCardFields load_id_card(const std::string& path);

// The data of the display command 0x51 (the result of an online identity
// verification): length (2 bytes, big-endian), result code (2 ASCII
// characters), name (30 bytes UCS-2LE), identity number (18 ASCII
// characters), issuing authority (30 bytes UCS-2LE), then the photo bytes
// when the code is "00".
struct IdDisplay {
    uint16_t length = 0;    // the length field as sent
    std::string code;       // e.g. "00"
    std::string name;       // UTF-8, trailing blanks and zeros removed
    std::string number;
    std::string authority;  // UTF-8, trailing blanks and zeros removed
    std::vector<uint8_t> photo;  // whatever follows the authority
};
inline constexpr size_t kIdDisplayHead = 2 + 2 + 30 + 18 + 30;

// nullopt when the data is shorter than kIdDisplayHead.
std::optional<IdDisplay> decode_id_display(std::span<const uint8_t> data);
// One line for logs: code, name, number, authority, photo size.
std::string describe_id_display(std::span<const uint8_t> data);

}  // namespace kolt::sim
