// Transaction log of the card's payment application: the records of the
// file that the log entry (9F4D) names, laid out as the log format (9F4F)
// says, each turned into lettered text. The ICRT core KOLT_ICRT_GetTrDetail
// (with its ICRT_, STAR_ and IC_GetTranDeta wrappers) and the IC_ core
// IC_GetTxDetail with its binary header.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "emv/flow.hpp"

namespace kolt::emv {

// Room of a log text, terminator included: the working buffer of
// ICRT_GetTrDetail. Records that would not fit are not read; with records of
// 106 characters this holds 19 of them.
inline constexpr std::size_t kLogTextRoom = 2048;

// The ICRT core: opens the link, powers on, selects with the PSBC selection
// (hex AID text), reads the log and returns "%03d" of the record length and
// the formatted records. Result: the number of records (0 or more), -21
// port, -11 power-on, -23 log format, read failure - 22, init result - 10
// when the card names no log. A log read to its end sets records and
// record_len; card_kind is set whenever the card came up.
FlowResult icrt_get_tr_detail(int32_t term_type, int32_t port, int32_t ic_type, const char* aid_text);

// icrt_get_tr_detail as ICRT_GetTrDetail starts it (with its own first
// trace line).
FlowResult icrt_get_tr_detail_for_selection(int32_t term_type, int32_t port, int32_t ic_type, const char* aid_text);

// What ICRT_GetTrDetail hands out of a log read to its end: index 0 every
// record without the header and without a terminator, index k record k with
// the "%03d" header; nullopt for an index outside the records.
struct LogSelection {
    std::string bytes;
    bool terminate = true;  // a zero after the bytes
};
std::optional<LogSelection> select_records(const FlowResult& log, int32_t index);

// STAR_GetTxDetail: field 2 the port, field 4 "txdata" (logged only);
// terminal type 1, contactless, no AID.
FlowResult star_get_tx_detail(std::string_view input);

// The IC_ core (link already open): byte 0 the record count, byte 1 the
// record length, records from byte 2. Result 0, 10 after a failed READ
// RECORD, or -1, -2, -9, -10.
FlowResult ic_get_tx_detail(int32_t ic_type, std::span<const uint8_t> aid_list);

}  // namespace kolt::emv
