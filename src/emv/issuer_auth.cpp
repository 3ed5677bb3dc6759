// Issuer authentication and script processing in the ICRT and IC_
// conventions.
#include "emv/issuer_auth.hpp"

#include <algorithm>
#include <array>
#include <cstdio>
#include <vector>

#include "device/icc.hpp"
#include "emv/dol.hpp"
#include "emv/field55.hpp"
#include "emv/flow.hpp"
#include "emv/issuer_data.hpp"
#include "emv/tags.hpp"
#include "emv/tr_data.hpp"
#include "support/hex.hpp"
#include "support/log.hpp"
#include "support/random.hpp"
#include "support/text.hpp"

namespace kolt::emv {

namespace {

constexpr uint32_t kCardTimeout = 20;
constexpr uint8_t kTagIssuerAuth[1] = {0x91};
constexpr uint8_t kTagAcFormat1[1] = {0x80};
constexpr uint8_t kTagLastOnlineAtc[2] = {0x9F, 0x13};

// Codes of one convention for the failures of the common steps.
struct StepCodes {
    int32_t external_auth;
    int32_t second_ac;
    int32_t get_data;
    int32_t script;
};
constexpr StepCodes kIcrtCodes{-26, -27, -28, -29};
constexpr StepCodes kIcCodes{-2, -2, -10, -10};

// What the common steps start from.
struct IssuerAnswer {
    std::vector<uint8_t> data;  // the response data, zero-padded to the text's length
    ScriptPick script;
    std::span<const uint8_t> issuer_auth;  // value of 91 (empty when absent)
    bool has_issuer_auth = false;
};

// Packs the response text and picks its script and tag 91. The search runs
// over as many bytes as the text has characters: the bytes past the packed
// ones are zero, as they always were.
IssuerAnswer read_answer(std::string_view arpc_text, const FlowTrace& trace) {
    IssuerAnswer a;
    a.data = support::from_hex(arpc_text);
    a.data.resize(std::max(a.data.size(), arpc_text.size()), 0);
    a.script = pick_script(a.data);
    trace.debug_int("scriptLen =%d", a.script.kind < 0 ? -1 : static_cast<int>(a.script.script.size()));
    trace.debug_hex("script =%02x", a.script.script);
    const int kind = a.script.kind;
    log::debug(trace.format("scriptFlag =%02x").c_str(), &kind, 1);
    const std::size_t packed = arpc_text.size() / 2;
    trace.debug_hex("ARPCBin=%02x", std::span<const uint8_t>(a.data).first(std::min(packed, a.data.size())));
    if (const auto v = find_tag(std::span<const uint8_t>(a.data).first(std::min(packed, a.data.size())),
                                kTagIssuerAuth, 0)) {
        a.issuer_auth = *v;
        a.has_issuer_auth = true;
    }
    trace.debug_hex("oneTagValue=%02x", a.issuer_auth);
    return a;
}

struct StepInput {
    const IssuerAnswer& answer;
    std::span<const uint8_t> cdol2;
    int lock = 0;          // the application said it is locked at selection
    bool force_aac = false;
    StepCodes codes;
    // State reported when the script step ran and the answer held no script.
    ScriptState without_script = ScriptState::started;
};

// EXTERNAL AUTHENTICATE, second GENERATE AC, GET DATA 9F13 and the script;
// the script result. The card is not powered off here.
ArpcResult issuer_steps(const StepInput& in, const FlowTrace& trace) {
    ArpcResult out;
    const uint32_t slot = static_cast<uint32_t>(state().slot());
    auto fail = [&](int32_t code, std::string_view text) {
        out.code = code;
        out.script_result = std::string(text);
    };

    device::CardReply reply;
    const uint32_t auth = device::external_authenticate(slot, in.answer.issuer_auth, reply, kCardTimeout);
    // A failed issuer authentication is reported, and the card is still
    // asked for its final cryptogram.
    if (auth != device::kSwOk) fail(in.codes.external_auth, gbk::kExternalAuthError);
    log::debug(trace.format("KOLT_T41_External_Authenticate flag=%x").c_str(), &auth, 4);

    const std::string code = response_code(in.answer.issuer_auth);
    log::debug(trace.format("RCode=%2x").c_str(), code.data(), static_cast<int>(code.size()));
    const uint8_t ac_type = in.force_aac ? kAcTypeAac : second_ac_type(code);
    trace.debug_int("ACType =%d", ac_type);

    state().set_cdol2(in.cdol2);
    trace.debug_hex("CDOL2Buf =%02x", state().cdol2_bytes());
    std::array<uint8_t, 4> un{};
    support::unpredictable_bytes(un);
    std::array<uint8_t, kDolRoom> data{};
    int32_t len = 0;
    build_dol(state().cdol2_bytes(), un, data, len);
    const auto cdol_data = std::span<const uint8_t>(data).first(static_cast<std::size_t>(std::max(len, 0)));
    trace.debug_int("CDOLDataLen =%d", len);
    trace.debug_hex("CDOLData2 =%02x", cdol_data);

    device::CardReply ac_reply;
    const uint32_t sw = device::generate_ac(slot, ac_type, cdol_data, ac_reply, kCardTimeout);
    bool script_step = true;
    if (sw == device::kSwOk) {
        trace.debug_hex("KOLT_T41_ICC_Generate_Ac1 rApduBuf=%02x", ac_reply.response());
        const auto ac = find_tag(ac_reply.data(), kTagAcFormat1, 0);
        const std::span<const uint8_t> value = ac ? *ac : std::span<const uint8_t>();
        trace.debug_hex("ARQC Ret =%02x", value);
        const std::string text = field55_text(value, un);
        char head[16];
        std::snprintf(head, sizeof head, "%03d", static_cast<int>(text.size()));
        out.second_ac = head + text;
    } else if (in.lock == 0) {
        fail(in.codes.second_ac, gbk::kCryptogramError);
        script_step = false;
    }
    // A locked application refuses its final cryptogram; the script goes to
    // it all the same, so that it can receive its unblocking command.

    ScriptState script_state = ScriptState::none;
    int32_t index = 0;
    if (script_step) {
        const auto last_online_atc = [&] {
            return device::get_data(slot, kTagLastOnlineAtc, state().raw(kLastOnlineAtc).first<kSlotSize>(),
                                    kCardTimeout);
        };
        if (last_online_atc() != device::kSwOk) {
            fail(in.codes.get_data, gbk::kAtcError);
        } else {
            script_state = ScriptState::started;
            trace.debug_text("exec script begin...%s", "");
            if (in.answer.script.kind < 0) {
                script_state = in.without_script;
            } else if (last_online_atc() != device::kSwOk) {
                fail(in.codes.get_data, gbk::kAtcError);
            } else {
                const uint32_t rc = device::exec_multi_script(slot, in.answer.script.script, index, kCardTimeout);
                trace.debug_int("scriptIndex =%d", index);
                if (rc != device::kSwOk) {
                    out.code = in.codes.script;
                    trace.error_text("KOLT_T41_Exec_Script error %s", "");
                } else {
                    script_state = ScriptState::executed;
                    trace.debug_text("KOLT_T41_Exec_Script succ %s", "");
                }
            }
        }
    }
    out.script_result = script_result_text(script_state, index, in.answer.script.id);
    trace.debug_text("ScriptResult =%s", *out.script_result);
    return out;
}

std::string_view as_text(std::span<const uint8_t> bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

}  // namespace

// ---------------------------------------------------------------------------

ArpcResult icrt_arpc_exe_script(int32_t term_type, int32_t port, int32_t ic_type, std::span<const uint8_t> tr_data,
                                std::string_view arpc_text, std::string_view app_data) {
    const FlowTrace trace("KOLT_ICRT_ARPCExeScript", Family::icrt);
    trace.debug_text("begin......%s", "");
    trace.debug_int("ICtype = %d", ic_type);
    trace.debug_text("trData=%s", as_text(tr_data));
    trace.debug_text("ARPC=%s", arpc_text);
    trace.debug_text("trAppData=%s", app_data);
    clear_working_state();

    // The application data: CDOL2 as hex text, then one digit, the lock
    // state of the cryptogram call.
    const std::string_view cdol2_text = app_data.empty() ? app_data : app_data.substr(0, app_data.size() - 1);
    const int lock = app_data.empty() ? 0 : support::atoi_value(app_data.substr(app_data.size() - 1));
    trace.debug_text("CDOL2=%s", cdol2_text);
    trace.debug_int("cardLockedState=%d", lock);

    parse_tr_data_icrt(tr_data);
    int32_t flag = 0;
    state().set_slot(do_ic_type(ic_type, &flag));
    const link::Session session = open_link(term_type, port, trace);
    if (!session.ok()) {
        ArpcResult out;
        out.code = -21;
        out.script_result = std::string(gbk::kPortInitError);
        return out;
    }
    // The card the cryptogram call left powered: this call ends its
    // transaction with a power-off.
    device::PoweredCard card(static_cast<uint32_t>(state().slot()));

    const IssuerAnswer answer = read_answer(arpc_text, trace);
    const std::vector<uint8_t> cdol2 = support::from_hex(cdol2_text);
    ArpcResult out = issuer_steps({answer, cdol2, lock, false, kIcrtCodes, ScriptState::started}, trace);

    const int32_t off = card.power_off();
    trace.debug_int("KOLT_T41_ICC_Poweroff flag=%d", off);
    return out;
}

std::string star_arpc_exe_script(std::string_view input) {
    const StarInput in = read_star_input(input, "STAR_ARPC_ExeICScrip", "txdata");
    const std::string field5 = star_field(input, 5);
    log_text("STAR_ARPC_ExeICScrip  txdata=%s", field5);
    // The application data text is the CDOL2 buffer the cryptogram call
    // left, read as text: that is how this convention has always called the
    // core.
    const auto cdol2 = state().cdol2_bytes();
    const std::string app_data(as_text(cdol2).substr(0, as_text(cdol2).find('\0')));
    const ArpcResult r = icrt_arpc_exe_script(1, in.port, 1, {}, in.field4, app_data);
    std::string text = r.script_result.value_or("") + "|" + r.second_ac.value_or("");
    log_star_return("STAR_ARPC_ExeICScrip", text);
    return text;
}

ArpcResult ic_ctl_script_data(std::string_view port_name, int32_t ic_type, std::span<const uint8_t> tr_data,
                              std::string_view arpc_text, std::string_view app_data) {
    set_port_name(port_name);
    ArpcResult r = icrt_arpc_exe_script(0, 0, ic_type_from_one(ic_type), tr_data, arpc_text, app_data);
    if (r.code == 0) r.card_kind = card_kind_of_slot(state().slot());
    return r;
}

ArpcResult ic_arpc_exe_script(int32_t ic_type, std::span<const uint8_t> tr_block, std::string_view arpc_text,
                              int32_t force_aac, std::span<const uint8_t> app_block) {
    const FlowTrace trace("IC_ARPC_ExeICScript", Family::ic);
    trace.debug_text("begin......%s", "");
    trace.debug_int("status=%d", force_aac);
    trace.debug_text("lpicappdata=%s", as_text(app_block));
    // The block restores the card's data elements and CDOLs, then the
    // transaction data goes over them.
    parse_tr_data_ic(app_block);
    parse_tr_data_ic(tr_block);
    int32_t flag = 0;
    state().set_slot(do_ic_type(ic_type_from_one(ic_type), &flag));
    device::PoweredCard card(static_cast<uint32_t>(state().slot()));

    const IssuerAnswer answer = read_answer(arpc_text, trace);
    ArpcResult out;
    if (!answer.has_issuer_auth) {
        // Nothing to authenticate the issuer with: the transaction ends here.
        trace.error_text("no issuer authentication data (91)%s", "");
        out.code = -4;
    } else {
        const std::vector<uint8_t> cdol2(slot_value(kCdol2).begin(), slot_value(kCdol2).end());
        out = issuer_steps({answer, cdol2, 0, force_aac != 0, kIcCodes, ScriptState::executed}, trace);
        if (out.second_ac) trace.debug_text("TC =%s", *out.second_ac);
        out.card_kind = card_kind_of_slot(state().slot());
    }
    const int32_t off = card.power_off();
    trace.debug_int("KOLT_T41_ICC_Poweroff flag=%d", off);
    return out;
}

}  // namespace kolt::emv
