// First half of an online transaction: the card's authorisation request
// cryptogram (ARQC) and field 55 for the host message.
//
// The card is deliberately left powered when these flows end: the
// issuer-authentication call (emv/issuer_auth.hpp) continues the same card
// transaction, with the CDOLs, the AIP and the AC answer kept in the working
// state.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace kolt::emv {

struct ArqcResult {
    int32_t code = 0;
    // ICRT: field 55 as hex text. YS: the hex of the three characters "%03d"
    // of field 55's byte count, then field 55 as hex text.
    std::optional<std::string> field55;
    // A GBK failure text written in the field-55 output's place.
    std::optional<std::string> failure;
    // ICRT: CDOL2 as hex text and the lock digit (1: the application said
    // it is locked).
    std::optional<std::string> app_data;
    // IC_ family: 1 contact, 2 contactless.
    std::optional<int32_t> card_kind;
    // YS: the application data block rebuilt from the letters "AJZ34".
    std::optional<std::string> app_block;
};

// KOLT_ICRT_GetARQC: transaction data in the ICRT encoding, the candidate
// AID as hex text. 0, 10 (locked application), -21 port, -11 power-on,
// initiation result - 10, READ RECORD result - 22, -24 no CDOL1, -25 no
// cryptogram.
ArqcResult icrt_get_arqc(int32_t term_type, int32_t port, int32_t ic_type, std::span<const uint8_t> tr_data,
                         const char* aid_text);
// STAR_GetARQC: "a|port|b|txdata"; the core gets txdata as its AID text.
// The output text is field 55, the application data, "|1".
std::string star_get_arqc(std::string_view input);
// IC_GenARQC: port name, IC type counted from 1. Resets the card slot to -1
// afterwards, whatever happened.
ArqcResult ic_gen_arqc(std::string_view port_name, int32_t ic_type, const char* aid_text,
                       std::span<const uint8_t> tr_data);
// IC_GenARQC_YS on an open link: transaction data and application data
// block in the IC encoding, candidate list as bytes. 0, -1 power-on, -9 no
// card in the contact slot, -10 initiation or records, -3 no cryptogram.
ArqcResult ys_gen_arqc(int32_t ic_type, std::span<const uint8_t> tr_block, std::span<const uint8_t> aid_list,
                       std::span<const uint8_t> app_block);

}  // namespace kolt::emv
