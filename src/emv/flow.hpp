// What the card-information and transaction-log flows share: the flow
// result, the link of the ICRT and IC_ families, application initiation with
// the flows' time-out, the folding of initiation results in the IC_ family,
// and trace lines of texts. Caller arguments are in emv/caller_args.hpp, the
// failure texts in emv/gbk_texts.hpp.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "device/icc.hpp"
#include "emv/app_select.hpp"
#include "emv/caller_args.hpp"
#include "emv/gbk_texts.hpp"
#include "emv/trace.hpp"
#include "link/session.hpp"

namespace kolt::emv {

// ---------------------------------------------------------------------------
// What a card flow hands back, whatever its calling convention: the core's
// result code, where the flow ended, the text for the caller's main output
// (data, or a failure text; written with a terminator after it) and the
// further outputs some conventions have. Each convention's C shells map it
// to their own codes.

enum class Stage {
    done,         // the flow ran to its end
    link,         // the link did not open
    power_on,     // the card did not come up
    init,         // application selection or initiation failed
    read_record,  // a READ RECORD failed
    log_entry,    // the application names no transaction log
    log_format,   // the log format could not be read
};

struct FlowResult {
    int32_t code = 0;
    std::optional<std::string> text;
    std::optional<int32_t> records;        // a log read to its end: the records formatted
    int32_t record_len = 0;                // and the length of the first
    std::optional<int32_t> card_kind;      // IC_ family: 1 contact, 2 contactless
    std::optional<std::string> app_data;   // IC_GetInfo's application data block
    Stage stage = Stage::done;
};

// A flow that ended at stage with code (and the failure text, if any).
inline FlowResult failed(Stage stage, int32_t code, std::optional<std::string> text = std::nullopt) {
    FlowResult r;
    r.code = code;
    r.text = std::move(text);
    r.stage = stage;
    return r;
}
// A flow that ran to its end with code and its text.
inline FlowResult finished(int32_t code, std::string text) {
    FlowResult r;
    r.code = code;
    r.text = std::move(text);
    return r;
}

// ---------------------------------------------------------------------------
// Link of the ICRT family: KOLT_DoTermType, then KOLT_initCom with the port.
// On failure the flow's "<entry> KOLT_initCom flag=%d" line goes to the
// error log. The link is released when the session ends, whether it opened
// or not.
link::Session open_link(int32_t term_type, int32_t port, const FlowTrace& trace);

// Application selection and initiation as the information and log flows
// use it (time-out 20 s, slot ssICType, which power-on rewrites).
// start_app: KOLT_T41_InitICCardApp with a candidate list (count, then
// length and AID bytes per candidate; may be empty).
// start_app_psbc: KOLT_T41_InitICCardApp_PSBC with one candidate as hex
// text (null or empty: none; read up to kFieldMax characters).
AppInit start_app(std::span<const uint8_t> aid_list);
AppInit start_app_psbc(const char* aid_text);


// The IC_ family's reading of an initiation result other than 0 (both of
// its cores fold them alike): the result code, the text the card
// information call writes, and whether the card came up and is powered off.
struct InitFailure {
    int32_t code = 0;
    std::string_view text;
    bool power_off = true;
};
// The error-log lines are the core's (see FlowTrace).
InitFailure ic_init_failure(int32_t init_result, const FlowTrace& trace);
// The same as a flow result (with the text the card information call
// writes); a card that never came up is released, not powered off.
FlowResult ic_init_result(int32_t init_result, const FlowTrace& trace, device::PoweredCard& card);

}  // namespace kolt::emv
