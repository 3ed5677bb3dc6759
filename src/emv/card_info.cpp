// Card information query in the ICRT and YS conventions.
#include "emv/card_info.hpp"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "device/icc.hpp"
#include "emv/app_select.hpp"
#include "emv/record_walk.hpp"
#include "emv/tags.hpp"
#include "emv/tr_data.hpp"
#include "kolt/kolt.h"
#include "link/deadline.hpp"
#include "link/port.hpp"
#include "support/config.hpp"
#include "support/hex.hpp"
#include "support/text.hpp"
#include "support/log.hpp"

namespace kolt::emv {

namespace {

constexpr uint32_t kCommandTimeout = 6;  // GET DATA

// Caller letters A..L of the YS convention and the slot each one reads.
constexpr std::string_view kYsLetters = "ABCDEFGHIJKL";
constexpr std::string_view kYsSlots = "AEGHIKJXCDBM";
// Letters whose slots make up the application data block of the IC_ family.
constexpr std::string_view kAppDataLetters = "AJZ34Y";

bool contains(std::string_view letters, char c) { return letters.find(c) != std::string_view::npos; }

// The electronic-cash values read with GET DATA, in the order they are read:
// balance 9F79 (slot G), balance limit 9F77 (slot H), single transaction
// limit 9F78 (slot K).
struct EcValue {
    uint8_t tag[2];
    int slot;
};
constexpr EcValue kEcValues[3] = {
    {{0x9F, 0x79}, kEcBalance},
    {{0x9F, 0x77}, kEcBalanceLimit},
    {{0x9F, 0x78}, kEcSingleLimit},
};

// GET DATA of value i when the request holds triggers[i]. The letter of the
// slot filled is listed as found whatever the card answered (a failed read
// leaves the slot empty, and the letter is then reported with length 0).
void fetch_ec_values(std::string_view request, std::string_view triggers) {
    for (std::size_t i = 0; i < std::size(kEcValues); ++i) {
        if (!contains(request, triggers[i])) continue;
        const EcValue& v = kEcValues[i];
        device::get_data(static_cast<uint32_t>(state().slot()), std::span<const uint8_t, 2>(v.tag),
                         state().raw(v.slot).first<kSlotSize>(), kCommandTimeout);
        append_found(tagList[v.slot]);
    }
}

// Letter, "%03d" of the length, value.
void append_field(std::string& out, char letter, std::string_view value) {
    char head[8];
    std::snprintf(head, sizeof head, "%c%03d", letter, static_cast<int>(value.size()));
    out += head;
    out += value;
}

}  // namespace

std::string icrt_format(std::string_view letters) {
    std::string out;
    for (char c : letters) append_field(out, c, slot_text(letter_index(c)));
    return out;
}

std::string ys_format(std::string_view letters) {
    std::string out;
    for (char c : letters) {
        const auto pos = kYsLetters.find(c);
        const char slot_letter = pos == std::string_view::npos ? c : kYsSlots[pos];
        std::string_view value = slot_text(letter_index(slot_letter));
        if (c == 'B' && !value.empty()) {
            const std::string track =
                support::replace_all(std::string(value.substr(0, value.size() - 1)), "D", "=");
            append_field(out, c, track);
            continue;
        }
        append_field(out, c, value);
    }
    return out;
}


// ---------------------------------------------------------------------------

std::string sys_date() {
    char buf[100] = {0};
    const std::time_t now = std::time(nullptr);
    std::tm tm{};
    localtime_r(&now, &tm);
    std::strftime(buf, sizeof buf, "%Y%m%d%H%M%S", &tm);
    return buf;
}

// ---------------------------------------------------------------------------
// ICRT core.

FlowResult icrt_get_icc_info(int32_t term_type, int32_t port, int32_t ic_type, std::span<const uint8_t> aid_list,
                          std::string_view letters) {
    int32_t flag = 0;
    state().set_slot(do_ic_type(ic_type, &flag));
    log::debug_text("KOLT_ICRT_GetICCInfo begin......%s", "");
    log::debug_int("KOLT_ICRT_GetICCInfo ICtype = %d", state().slot());
    log_text("KOLT_ICRT_GetICCInfo ctagList = %s", letters);

    clear_working_state();
    init_tag_list_value();

    const FlowTrace trace("KOLT_ICRT_GetICCInfo", Family::icrt);
    const link::Session session = open_link(term_type, port, trace);
    if (!session.ok()) return failed(Stage::link, -21, std::string(gbk::kPortOpenError));

    FlowResult result;
    const AppInit app = start_app(aid_list);
    device::PoweredCard card(static_cast<uint32_t>(state().slot()));
    if (app.result == kInitPowerOnFailed) {
        card.release();
        // 卡上电错误: the card never came up, so no power-off is sent.
        log::error_text("KOLT_ICRT_GetICCInfo \xBF\xA8\xC9\xCF\xB5\xE7\xB4\xED\xCE\xF3%s", "");
        return failed(Stage::power_on, app.result - 10, std::string(gbk::kPowerOnError));
    }
    if (app.result != 0 && app.result != kInitAppLocked) {
        log::error_int("KOLT_ICRT_GetICCInfo KOLT_T41_InitICCardApp flag=%d", app.result);
        result = failed(Stage::init, app.result - 10, std::string(gbk::kCardInitError));
    } else {
        // A locked application (-7) is still read; the caller sees 10.
        const int32_t final_code = app.result == kInitAppLocked ? 10 : 0;

        // Electronic-cash values. The trigger letters differ from the
        // letters of the slots they fill: E fills G, F fills H, G fills K.
        fetch_ec_values(letters, "EFG");

        const Walk w = walk_afl(app, letters, trace);
        if (w.read_result < 0) {
            result = failed(Stage::read_record, -22, std::string(gbk::kReadRecordError));
        } else {
            std::string info = icrt_format(letters);
            log_text("KOLT_ICRT_GetICCInfo infoBuf=%s", info);
            result = finished(final_code, std::move(info));
        }
    }

    const int32_t off = card.power_off();
    log::debug("getIdCardInfo KOLT_T41_ICC_Poweroff flag=%x", &off, 4);
    return result;
}

FlowResult star_get_info(std::string_view input) {
    const StarInput in = read_star_input(input, "STAR_GetInfo", "tagList");
    FlowResult r = icrt_get_icc_info(1, in.port, 1, {}, in.field4);
    log_star_return("STAR_GetInfo", r.text);
    return r;
}

// ---------------------------------------------------------------------------
// YS core.

namespace {

// The YS reading of an initiated card: the electronic-cash values, the
// record walk, the answer, the card kind and the application data block.
FlowResult ys_read(const AppInit& app, std::string_view letters, std::string_view search, const FlowTrace& trace) {
    // The GET DATA triggers are tested on the caller's own letters, before
    // the YS translation.
    fetch_ec_values(search, "GHK");

    const Walk w = walk_afl(app, search, trace);
    if (w.read_result < 0) return failed(Stage::read_record, -10, std::string(gbk::kReadRecordError));

    char pos[16];
    std::snprintf(pos, sizeof pos, "%02d%02d", w.entry, w.record);
    set_slot_text(kAflPosition, pos);
    log_text("IC_GetInfo nAFL &tagListValue[nIndex][1]=%s", slot_text(kAflPosition));

    FlowResult out = finished(0, ys_format(letters));
    log_hex("IC_GetInfo infoBuf=%02x", *out.text);
    log_text("IC_GetInfo infoBuf='%s'", *out.text);

    out.card_kind = card_kind_of_slot(state().slot());
    log::debug_int("IC_GetInfo icflag=%d", *out.card_kind);

    out.app_data = encode_ic(kAppDataLetters);
    std::array<uint8_t, 128> head{};
    std::memcpy(head.data(), out.app_data->data(), std::min(out.app_data->size(), head.size()));
    log::debug_hex("IC_GetInfo lpicappdata=%02x", head);
    FlowTrace("IC_GetInfo", Family::ic).slots();
    return out;
}

}  // namespace

FlowResult ys_get_info(int32_t ic_type, std::string_view letters, const char* aid_text) {
    // The card information of this family starts with a 400 ms pause.
    link::sleep_ms(400);
    int32_t flag = 0;
    state().set_slot(do_ic_type(ic_type, &flag));
    log::debug_int("IC_GetInfo ICtype = %d", state().slot());
    log_text("IC_GetInfo ctagList = %s", letters);
    clear_working_state();
    init_tag_list_value();

    // The search list always holds J: the PAN sequence number is part of
    // the application data block.
    std::string search(letters);
    if (!contains(search, 'J')) search += 'J';
    log_text("IC_GetInfo myctagList = %s", search);

    const FlowTrace trace("IC_GetInfo", Family::ic);
    const AppInit app = start_app_psbc(aid_text);
    device::PoweredCard card(static_cast<uint32_t>(state().slot()));
    FlowResult out;
    if (app.result != 0) {
        out = ic_init_result(app.result, trace, card);
        if (out.stage == Stage::power_on) return out;
    } else {
        out = ys_read(app, letters, search, trace);
    }
    const int32_t off = card.power_off();
    log::debug("IC_GetInfo KOLT_T41_ICC_Poweroff flag=%x", &off, 4);
    return out;
}

FlowResult ic_get_info(std::string_view port_name, int32_t ic_type, const char* aid_text, std::string_view letters) {
    set_port_name(port_name);

    log::set_switch(config::ini_int("icc", "log", config::kolt_ini_path()));
    log::debug_int("ID_GetInfo g_nWriteDebugLog=%d", log::switch_value());
    log::debug_int("IC_GetInfo icType ===%d", ic_type);
    log::debug_int("IC_GetInfo nPortNo ===%d", 0);

    const link::Session session = link::open_teller(0, 0);
    if (!session.ok()) return failed(Stage::link, -3);

    FlowResult ys = ys_get_info(ic_type_from_one(ic_type), letters, aid_text);
    log::debug_int("IC_GetInfo IC_GetInfo_YS nRet=%d", ys.code);
    return ys;
}

}  // namespace kolt::emv
