// The tag-letter tables and their lookups, the parsing of card replies into
// the letter slots of the working state (emv/state.hpp), the track-2 split,
// the layout of a transaction-log record and the short tag writer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "device/icc.hpp"
#include "emv/state.hpp"

namespace kolt::emv {

// ---------------------------------------------------------------------------
// Tables (defined in tag_table.cpp).

// The letters naming data elements in requests and replies.
extern const char tagList[kTagCount + 1];  // "ABCDEFGHIJKLMNOPQRSTUVWXYZ1234"
// The EMV tag of each letter (two-byte tags as high*256 + low); 0 for the
// letters that name no tag (L, N, Y).
extern const uint64_t apduTagList[kTagCount];
// Card slot of the current card (device state, read by the card flows).
using device::ssICType;

// PDOL sent for a contact card whose application is reported locked: the
// bytes of this text's tag list, unfilled.
extern const char ContactStandardPDOL[];            // "9F7A019F02065F2A02"
extern const char TAG_Issuer_Discretionary_Data[];  // "BF0C"
extern const char TAG_DF_Name[];                    // "84"
// Log format a card's 9F4F is expected to have: 45 bytes of record.
extern const uint8_t trDetailRecordFormat[25];
inline constexpr int kLogRecordSize = 45;
// Longest text of one formatted record with its terminator: the ATC field
// has four digits, or five for a counter of 10000 or more.
inline constexpr std::size_t kLogRecordTextRoom = 108;

// Fixed terminal values used when building DOL data.
inline constexpr uint8_t kTerminalVerificationResults[5] = {0x00, 0x00, 0x00, 0x08, 0x00};  // 95
inline constexpr uint8_t kTerminalTransactionQualifiers[4] = {0xF4, 0x00, 0x00, 0x00};     // 9F66
inline constexpr uint8_t kEcTerminalSupportIndicator = 0x01;                               // 9F7A

// Slot positions of the letters the flows use by name.
enum Letter : int {
    kPan = 0,            // A 5A
    kCardholderName = 1, // B 5F20
    kIdType = 2,         // C 9F62
    kIdNumber = 3,       // D 9F61
    kTrack2 = 4,         // E 57
    kTrack1Discretionary = 5,  // F 9F1F
    kEcBalance = 6,      // G 9F79
    kEcBalanceLimit = 7, // H 9F77
    kExpiry = 8,         // I 5F24
    kPanSequence = 9,    // J 5F34
    kEcSingleLimit = 10, // K 9F78
    kNameExtended = 12,  // M 9F0B
    kLastOnlineAtc = 14, // O 9F13
    kAmount = 15,        // P 9F02
    kAmountOther = 16,   // Q 9F03
    kCurrency = 17,      // R 5F2A
    kDate = 18,          // S 9A
    kTxType = 19,        // T 9C
    kTime = 20,          // U 9F21
    kCountry = 21,       // V 9F1A
    kMerchant = 22,      // W 9F4E
    kAtc = 23,           // X 9F36
    kAflPosition = 24,   // Y (no tag)
    kAip = 25,           // Z 82
    kTvr = 26,           // 1 95
    kUnpredictable = 27, // 2 9F37
    kCdol1 = 28,         // 3 8C
    kCdol2 = 29,         // 4 8D
};

// ---------------------------------------------------------------------------
// Lookups: position 0..29, or -1. Tag 0 names no letter.

// tag: 1 byte when tag.size() == 1, otherwise its first two bytes.
int tag_index(std::span<const uint8_t> tag);
int tag_index(uint64_t tag);
int letter_index(char letter);

// Gives the slots of 9F1A and 5F2A the value "0156" when they are empty.
void init_tag_list_value();

// ---------------------------------------------------------------------------
// Card replies.

// Decodes reply into TLV items (strict as the codec's flag) and stores each
// item whose tag is in the table into its letter's slot, appending the
// letter; then does the same inside every item's value (strict), at any
// depth. A later occurrence overwrites an earlier one. Bad TLV yields nothing.
void parse_tag_value(std::span<const uint8_t> reply, int strict);

// Convenience: the value of the tag found as above (nested search), or
// nullopt when absent.
std::optional<std::span<const uint8_t>> find_tag(std::span<const uint8_t> reply,
                                                 std::span<const uint8_t> tag, int strict = 0);

// Splits the track 2 text of letter E at its first "D": the digits before
// it become letter A, the four after it (YYMM) letter I. 0, or -1 when no
// track 2 data (or no separator) is held.
int split_track2();

// ---------------------------------------------------------------------------
// One transaction-log record (trDetailRecordFormat layout; missing bytes of
// a short record read as zero) as lettered text:
// P012 amount, Q012 other amount, R004 currency, S006 date, T002 type,
// U006 time, V004 country, W020 merchant, X004 ATC.
std::string format_log_record(std::span<const uint8_t> record);


}  // namespace kolt::emv
