// Second half of an online transaction: issuer authentication (EXTERNAL
// AUTHENTICATE with tag 91), the second GENERATE AC (TC when the host
// approved, AAC otherwise), the issuer script, and the issuer script result
// for the host. It continues the card transaction the cryptogram call left
// powered and powers the card off at its end.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace kolt::emv {

struct ArpcResult {
    int32_t code = 0;
    // The issuer script result ("DF3105..."), or a GBK failure text where
    // the flow ended before it.
    std::optional<std::string> script_result;
    // "%03d" of the length of the second field 55's text, then that text.
    std::optional<std::string> second_ac;
    // IC_ family: 1 contact, 2 contactless.
    std::optional<int32_t> card_kind;
};

// KOLT_ICRT_ARPCExeScript: transaction data in the ICRT encoding, the
// host's response data as hex text, the application data text of the
// cryptogram call (CDOL2 hex and the lock digit). 0, -21 port, -26
// external authentication, -27 second cryptogram, -28 GET DATA 9F13, -29
// script command (the last failure wins).
ArpcResult icrt_arpc_exe_script(int32_t term_type, int32_t port, int32_t ic_type, std::span<const uint8_t> tr_data,
                                std::string_view arpc_text, std::string_view app_data);
// STAR_ARPC_ExeICScrip: "a|port|b|arpc|field5"; the core gets CDOL2Buf as
// its application data text. Returns the text for the caller: the script
// result, "|", the second cryptogram output.
std::string star_arpc_exe_script(std::string_view input);
// IC_CtlScriptData: port name, IC type counted from 1; the ICRT core.
ArpcResult ic_ctl_script_data(std::string_view port_name, int32_t ic_type, std::span<const uint8_t> tr_data,
                              std::string_view arpc_text, std::string_view app_data);
// IC_ARPC_ExeICScript on an open link: IC type counted from 1, transaction
// data and application data block in the IC encoding (CDOL2 from the
// block's letter 4), force_aac non-zero asks an AAC whatever the host said.
// 0; -2 external authentication or second cryptogram failed; -4 the
// response data carries no issuer authentication data (tag 91 of ARPC and
// response code): nothing is sent but the power-off; -10 GET DATA 9F13 or a
// script command failed.
ArpcResult ic_arpc_exe_script(int32_t ic_type, std::span<const uint8_t> tr_block, std::string_view arpc_text,
                              int32_t force_aac, std::span<const uint8_t> app_block);

}  // namespace kolt::emv
