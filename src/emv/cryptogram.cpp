// ARQC and field 55 in the ICRT and YS conventions.
#include "emv/cryptogram.hpp"

#include <algorithm>
#include <array>
#include <cstdio>
#include <vector>

#include "device/icc.hpp"
#include "emv/app_select.hpp"
#include "emv/dol.hpp"
#include "emv/field55.hpp"
#include "emv/flow.hpp"
#include "emv/issuer_data.hpp"
#include "emv/record_walk.hpp"
#include "emv/tags.hpp"
#include "emv/tr_data.hpp"
#include "kolt/kolt.h"
#include "support/hex.hpp"
#include "support/log.hpp"
#include "support/random.hpp"
#include "support/text.hpp"

namespace kolt::emv {

namespace {

constexpr uint32_t kCardTimeout = 20;    // initiation, READ RECORD and GENERATE AC of these flows
constexpr uint32_t kGetDataTimeout = 6;  // GET DATA 9F13 of the YS flow
constexpr uint8_t kTagCdol1[1] = {0x8C};
constexpr uint8_t kTagCdol2[1] = {0x8D};
constexpr uint8_t kTagAcFormat1[1] = {0x80};
constexpr uint8_t kTagLastOnlineAtc[2] = {0x9F, 0x13};
// Letters of the application data block the YS cryptogram call hands back
// (the AFL position is no longer needed).
constexpr std::string_view kArqcBlockLetters = "AJZ34";

// The first GENERATE AC, asking for an ARQC, with CDOL1 filled from the
// slots and a fresh unpredictable number.
struct FirstAc {
    std::optional<std::vector<uint8_t>> value;  // of tag 80 (format 1)
    std::array<uint8_t, 4> un{};
};

FirstAc first_generate_ac(const FlowTrace& trace, const char* cdol_data_format) {
    FirstAc ac;
    support::unpredictable_bytes(ac.un);
    std::array<uint8_t, kDolRoom> data{};
    int32_t len = 0;
    build_dol(state().cdol1_bytes(), ac.un, data, len);
    const auto cdol_data = std::span<const uint8_t>(data).first(static_cast<std::size_t>(std::max(len, 0)));
    log::debug_hex(cdol_data_format, cdol_data);

    device::CardReply reply;
    device::generate_ac(static_cast<uint32_t>(state().slot()), kAcTypeArqc, cdol_data, reply, kCardTimeout);
    trace.debug_hex("KOLT_T41_ICC_Generate_Ac1 rApduBuf=%02x", reply.response());
    const auto value = find_tag(reply.data(), kTagAcFormat1, 0);
    trace.debug_hex("AC =%02x", value ? *value : std::span<const uint8_t>());
    trace.debug_int("ARQC tagValueLen =%d", value ? static_cast<int>(value->size()) : -1);
    if (value) {
        ac.value.emplace(value->begin(), value->end());
        state().set_ac_format80(*value);
    } else {
        trace.error_hex("ARQC KOLT_T41_ICC_Generate_Ac rApduBuf=%02x", reply.response());
    }
    return ac;
}

// Looks up CDOL1 (8C) and CDOL2 (8D) in a record, each while it is still
// missing; true when both are held.
bool take_cdols(std::span<const uint8_t> record, bool& have1, bool& have2) {
    if (!have1) {
        if (const auto v = find_tag(record, kTagCdol1, 1)) {
            state().set_cdol1(*v);
            have1 = true;
        }
    }
    if (!have2) {
        if (const auto v = find_tag(record, kTagCdol2, 1)) {
            state().set_cdol2(*v);
            have2 = true;
        }
    }
    return have1 && have2;
}

}  // namespace

// ---------------------------------------------------------------------------
// ICRT core.

ArqcResult icrt_get_arqc(int32_t term_type, int32_t port, int32_t ic_type, std::span<const uint8_t> tr_data,
                         const char* aid_text) {
    const FlowTrace trace("KOLT_ICRT_GetARQC", Family::icrt);
    trace.debug_text("begin......%s", "");
    trace.debug_text("trData = %s", std::string_view(reinterpret_cast<const char*>(tr_data.data()), tr_data.size()));
    trace.debug_int("ICtype = %d", ic_type);

    state().set_cdol1({});
    state().set_cdol2({});
    clear_working_state();
    // The country and currency defaults are not set here: they come from the
    // caller's data alone. A data text that does not parse is not an error.
    parse_tr_data_icrt(tr_data);

    int32_t flag = 0;
    state().set_slot(do_ic_type(ic_type, &flag));

    ArqcResult out;
    const link::Session session = open_link(term_type, port, trace);
    if (!session.ok()) {
        out.code = -21;
        out.failure = std::string(gbk::kPortInitErrorArqc);
        return out;
    }

    const AppInit app = start_app_psbc(aid_text);
    // Whatever happens from here, no power-off is sent: on success the card
    // stays powered and selected for the issuer-authentication call.
    device::PoweredCard card(static_cast<uint32_t>(state().slot()));
    card.release();

    int lock = 0;
    if (app.result == kInitPowerOnFailed) {
        out.code = app.result - 10;
        out.failure = std::string(gbk::kPowerOnError);
        return out;
    }
    if (app.result == kInitAppLocked) {
        lock = 1;
        out.code = 10;
    } else if (app.result != 0) {
        out.code = app.result - 10;
        out.failure = std::string(gbk::kCardInitError);
        return out;
    }

    state().set_aip(std::span<const uint8_t, 2>(app.aip_afl.data(), 2));

    bool have1 = false;
    bool have2 = false;
    const Walk w = walk_records(app, kCardTimeout, {}, {}, [&](std::span<const uint8_t> record) {
        parse_tag_value(record, 1);
        return take_cdols(record, have1, have2);
    });
    if (w.read_result < 0) {
        out.code = w.read_result - 22;
        out.failure = std::string(gbk::kReadRecordError);
        return out;
    }
    if (!w.stopped) {
        trace.debug_hex(" CDOL1Buf=%02x", state().cdol1_bytes());
        trace.debug_hex(" CDOL2Buf=%02x", state().cdol2_bytes());
        // A missing CDOL2 is tolerated; without CDOL1 there is nothing to ask.
        if (state().cdol1_len < 1) {
            out.code = -24;
            return out;
        }
    }

    const FirstAc ac = first_generate_ac(trace, "CDOLData1 =%02x");
    if (!ac.value) {
        out.code = -25;
        out.failure = std::string(gbk::kArqcError);
        return out;
    }

    out.app_data = support::to_hex_upper(state().cdol2_bytes()) + std::to_string(lock);
    trace.debug_text("trAppData =%s", *out.app_data);
    trace.debug_text("trAppData =%s", *out.app_data);
    out.field55 = field55_text(*ac.value, ac.un);
    trace.debug_text("ARQC ='%s'", *out.field55);
    return out;
}

std::string star_get_arqc(std::string_view input) {
    const StarInput in = read_star_input(input, "STAR_GetARQC", "txdata");
    // The caller's text goes where the core takes its AID, and no
    // transaction data goes with it: that is how this convention has always
    // called the core.
    const ArqcResult r = icrt_get_arqc(1, in.port, 1, {}, in.field4.c_str());
    std::string text = r.field55 ? *r.field55 : r.failure.value_or("");
    text += r.app_data.value_or("");
    text += "|1";
    log_star_return("STAR_GetARQC", text);
    return text;
}

ArqcResult ic_gen_arqc(std::string_view port_name, int32_t ic_type, const char* aid_text,
                       std::span<const uint8_t> tr_data) {
    set_port_name(port_name);
    log::debug_text("IC_GenARQC beginnn......%s", "");
    ArqcResult r = icrt_get_arqc(0, 0, ic_type_from_one(ic_type), tr_data, aid_text);
    if (r.code == 0) r.card_kind = card_kind_of_slot(state().slot());
    state().set_slot(-1);
    return r;
}

// ---------------------------------------------------------------------------
// YS core.

namespace {

std::string_view as_text(std::span<const uint8_t> bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

}  // namespace

ArqcResult ys_gen_arqc(int32_t ic_type, std::span<const uint8_t> tr_block, std::span<const uint8_t> aid_list,
                       std::span<const uint8_t> app_block) {
    const FlowTrace trace("IC_GenARQC_YS", Family::ic);
    trace.debug_text("begin......%s", "");
    trace.debug_text("trData =%s", as_text(tr_block));
    trace.debug_hex("trData hex =%02x", tr_block);
    trace.debug_int("ICtype = %d", ic_type);
    trace.debug_hex("lpicappdata=%02x", app_block);

    state().set_cdol1({});
    state().set_cdol2({});
    // The block restores the account number, PAN sequence number, AIP,
    // CDOLs and AFL position of the card-information call.
    parse_tr_data_ic(app_block);
    trace.slots();
    parse_tr_data_ic(tr_block);

    int32_t flag = 0;
    state().set_slot(do_ic_type(ic_type_from_one(ic_type), &flag));
    ArqcResult out;
    const AppInit app = init_app(kCardTimeout, static_cast<uint32_t>(state().slot()), aid_list);
    // No power-off is sent by this flow: on success the card stays powered
    // for the issuer-authentication call.
    device::PoweredCard card(static_cast<uint32_t>(state().slot()));
    card.release();
    switch (app.result) {
    case 0:
        break;
    case kInitPowerOnFailed:
        // 卡上电错误
        trace.error_text("\xBF\xA8\xC9\xCF\xB5\xE7\xB4\xED\xCE\xF3%s", "");
        out.code = -1;
        return out;
    case ICC_Contact_Not_Insert:
        out.code = -9;
        return out;
    default:
        // A locked application (-7) ends here too.
        trace.error_int("KOLT_T41_InitICCardApp flag =%d", app.result);
        out.code = -10;
        return out;
    }

    // Where the card-information call's record walk stopped.
    const std::string_view position = slot_text(kAflPosition);
    const WalkStart from{support::atoi_value(position.substr(0, 2)),
                         support::atoi_value(position.size() > 2 ? position.substr(2, 2) : std::string_view())};
    trace.debug_int(" inAFL=%d", from.entry);
    trace.debug_int(" jAIPAFLBuf=%d", from.record);
    device::get_data(static_cast<uint32_t>(state().slot()), kTagLastOnlineAtc,
                     state().raw(kLastOnlineAtc).first<kSlotSize>(), kGetDataTimeout);

    state().set_cdol1(slot_value(kCdol1));
    state().set_cdol2(slot_value(kCdol2));
    trace.debug_hex(" CDOL1Buf=%02x", state().cdol1_bytes());
    trace.debug_hex(" CDOL2Buf=%02x", state().cdol2_bytes());
    trace.debug_int(" nAFL=%d", app.afl_count);
    if (state().cdol1_len == 0 || state().cdol2_len == 0) {
        trace.debug_text(" CDOL1Buf begin...%s", "");
        state().set_aip(std::span<const uint8_t, 2>(app.aip_afl.data(), 2));
        WalkHooks hooks;
        hooks.entry = [&](int i) { trace.debug_int(" for1 i=%d", i); };
        hooks.sfi = [&](int sfi) { trace.debug_int(" cSfi=%d", sfi); };
        hooks.record = [&](int j) { trace.debug_int(" for2 j=%d", j); };
        hooks.failed = [&](int32_t rc) { trace.error_int("KOLT_T41_ICC_Comm_Read_Record flag =%d", rc); };
        const Walk w = walk_records(app, kCardTimeout, from, hooks, [](std::span<const uint8_t> record) {
            parse_tag_value(record, 1);
            return !slot_value(kCdol1).empty();
        });
        if (w.read_result < 0) {
            out.code = -10;
            return out;
        }
        state().set_cdol1(slot_value(kCdol1));
        state().set_cdol2(slot_value(kCdol2));
        trace.debug_hex(" CDOL1Buf2=%02x", state().cdol1_bytes());
        trace.debug_hex(" CDOL2Buf2=%02x", state().cdol2_bytes());
    }
    if (state().cdol1_len == 0) {
        log::error_int("ARQC CDOL1Len=%d", 0);
        out.code = -10;
        return out;
    }

    const FirstAc ac = first_generate_ac(trace, "IC_GenARQC_YS CDOLData1 =%02x");
    if (!ac.value) {
        out.code = -3;
        out.failure = std::string(gbk::kArqcError);
        return out;
    }

    // The length goes first as the hex of its own three decimal characters:
    // 54 bytes give "303534".
    const std::vector<uint8_t> field = build_field55(*ac.value, ac.un);
    char digits[16];
    std::snprintf(digits, sizeof digits, "%03d", static_cast<int>(field.size()));
    const std::string length_text(digits);
    out.field55 = support::to_hex_upper(std::span<const uint8_t>(
                      reinterpret_cast<const uint8_t*>(length_text.data()), length_text.size())) +
                  support::to_hex_upper(field);
    trace.debug_text("ARQC =%s", *out.field55);

    out.card_kind = card_kind_of_slot(state().slot());
    trace.debug_int("icflag=%d", *out.card_kind);
    out.app_block = encode_ic(kArqcBlockLetters);
    trace.debug_hex("lpicappdata end=%02x",
                    std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(out.app_block->data()),
                                             out.app_block->size()));
    return out;
}

}  // namespace kolt::emv
