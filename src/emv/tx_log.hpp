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
// when the card names no log.
struct LogOutcome {
    int32_t code = 0;
    std::optional<std::string> text;
    // Set when the log was read to its end: the records formatted and the
    // length of one formatted record (the result is then that count).
    std::optional<int32_t> records;
    int32_t record_len = 0;
};
LogOutcome icrt_get_tr_detail(int32_t term_type, int32_t port, int32_t ic_type, const char* aid_text);

// ICRT_GetTrDetail: index 0 all records without the header and without a
// terminator; index k one record with its "%03d" header; the core's
// failures folded into -105, -102 and -120.
struct TrDetailOutcome {
    int32_t code = 0;
    std::optional<std::string> bytes;  // written to the caller's output
    bool terminate = true;             // a zero after the bytes
};
TrDetailOutcome icrt_select_tr_detail(int32_t term_type, int32_t port, int32_t ic_type, int32_t index,
                                      const char* aid_text);

// STAR_GetTxDetail: field 2 the port, field 4 "txdata" (logged only);
// terminal type 1, contactless, no AID.
LogOutcome star_get_tx_detail(std::string_view input);

// IC_GetTranDeta: port name into gPortName, ICRT_GetTrDetail with terminal
// type 0, port 0, the IC type counted from 1 and index 0.
struct TranDetaOutcome {
    int32_t code = 0;
    TrDetailOutcome written;
    std::optional<int32_t> out_len;
    std::optional<int32_t> card_kind;
};
TranDetaOutcome ic_get_tran_deta(std::string_view port_name, int32_t ic_type, const char* aid_text);

// The IC_ core (link already open): byte 0 the record count, byte 1 the
// record length, records from byte 2. Result 0, 10 after a failed READ
// RECORD, or -1, -2, -9, -10.
struct TxDetailOutcome {
    int32_t code = 0;
    std::optional<std::string> text;
    std::optional<int32_t> card_kind;
};
TxDetailOutcome ic_get_tx_detail(int32_t ic_type, std::span<const uint8_t> aid_list);

}  // namespace kolt::emv
