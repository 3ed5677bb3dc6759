// Card information query: the data elements of the payment application that
// a teller application names by tag letters, in the ICRT convention (the
// core KOLT_ICRT_GetICCInfo with its ICRT_ and STAR_ wrappers) and the YS
// convention of the IC_ family (IC_GetInfo_YS and its wrapper IC_GetInfo).
// What it shares with the transaction-log flows is in emv/flow.hpp.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "emv/app_select.hpp"
#include "emv/flow.hpp"

namespace kolt::emv {

// Local time as "%Y%m%d%H%M%S" (14 digits).
std::string sys_date();

// The answer formats, from the slots as they stand.
// ICRT: every letter with "%03d" of its slot's length and the value; letters
// outside the table and empty slots give "000".
std::string icrt_format(std::string_view letters);
// YS: caller letters A..L read the slots A E G H I K J X C D B M (others
// their own); the letter written is the caller's. B gives track 2 without its
// last character and with every "D" turned into "=" (an empty track gives
// "000").
std::string ys_format(std::string_view letters);

// What a flow hands back: its result and, when it writes one, the text for
// the caller's output (written with a terminator after it).
struct Outcome {
    int32_t code = 0;
    std::optional<std::string> text;
};

// ---------------------------------------------------------------------------
// The ICRT core: opens the link (terminal type, port), powers the card on,
// selects the application through the binary candidate list aid_list (may be
// null), reads until every letter is found and returns the letters in the
// ICRT format (letter, "%03d" length, value). 0, 10 (application locked, data
// still read), -21 port, -11 power-on, -22 READ RECORD, init result - 10.
Outcome icrt_get_icc_info(int32_t term_type, int32_t port, int32_t ic_type, std::span<const uint8_t> aid_list,
                          std::string_view letters);

// STAR_GetInfo: "|"-separated input, field 2 the port, field 4 the letters;
// terminal type 1, contactless, no AID list. The core's outcome (the public
// call returns 0 whatever it is).
Outcome star_get_info(std::string_view input);

// The YS core (link already open): PSBC selection with the hex AID text,
// the YS letter translation, the card kind and the application data block.
struct YsOutcome {
    int32_t code = 0;
    std::optional<std::string> text;
    std::optional<int32_t> card_kind;      // set on success
    std::optional<std::string> app_data;   // the block, set on success
};
YsOutcome ys_get_info(int32_t ic_type, std::string_view letters, const char* aid_text);

// IC_GetInfo: port name into gPortName, log switch from kolt.ini, link open
// (terminal type 0, port 0), the YS core with the IC type counted from 1,
// result folded (0, -3 port, -99 anything else; -25/-11 never occur).
struct IcInfoOutcome {
    int32_t code = 0;
    std::optional<std::string> text;
    std::optional<int32_t> card_kind;  // into the caller's IC-type variable
    std::optional<int32_t> out_len;    // length of the output text, on success
};
IcInfoOutcome ic_get_info(std::string_view port_name, int32_t ic_type, const char* aid_text,
                          std::string_view letters);

}  // namespace kolt::emv
