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

namespace {

// The application data block: letter, length byte, value for each non-empty
// slot of "AJZ34Y".
std::string app_data_block() {
    std::string block;
    for (char c : kAppDataLetters) {
        const auto value = slot_text(letter_index(c));
        if (value.empty()) continue;
        block += c;
        block += static_cast<char>(value.size());
        block += value;
    }
    return block;
}

void log_slots() {
    for (int i = 0; i < kTagCount; ++i) {
        log::debug_int("IC_GetInfo apduTagList i =%d", i);
        const int tag = static_cast<int>(apduTagList[i]);
        log::debug("IC_GetInfo apduTagList value =%x", &tag, 4);
        log::debug_int("IC_GetInfo tagListValue value Lenth=%d", static_cast<int>(slot_value(i).size()));
        log::debug_hex("IC_GetInfo tagListValue value=%02x", slot_value(i));
    }
}

}  // namespace

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

Outcome icrt_get_icc_info(int32_t term_type, int32_t port, int32_t ic_type, std::span<const uint8_t> aid_list,
                          std::string_view letters) {
    int32_t flag = 0;
    state().set_slot(do_ic_type(ic_type, &flag));
    log::debug_text("KOLT_ICRT_GetICCInfo begin......%s", "");
    log::debug_int("KOLT_ICRT_GetICCInfo ICtype = %d", state().slot());
    log_text("KOLT_ICRT_GetICCInfo ctagList = %s", letters);

    clear_working_state();
    init_tag_list_value();

    const link::Session session = open_link(term_type, port, "KOLT_ICRT_GetICCInfo KOLT_initCom flag=%d");
    if (!session.ok()) return {-21, std::string(gbk::kPortOpenError)};

    Outcome result;
    const AppInit app = start_app(aid_list);
    device::PoweredCard card(static_cast<uint32_t>(state().slot()));
    if (app.result == kInitPowerOnFailed) {
        card.release();
        // 卡上电错误: the card never came up, so no power-off is sent.
        log::error_text("KOLT_ICRT_GetICCInfo \xBF\xA8\xC9\xCF\xB5\xE7\xB4\xED\xCE\xF3%s", "");
        return {app.result - 10, std::string(gbk::kPowerOnError)};
    }
    if (app.result != 0 && app.result != kInitAppLocked) {
        log::error_int("KOLT_ICRT_GetICCInfo KOLT_T41_InitICCardApp flag=%d", app.result);
        result = {app.result - 10, std::string(gbk::kCardInitError)};
    } else {
        // A locked application (-7) is still read; the caller sees 10.
        const int32_t final_code = app.result == kInitAppLocked ? 10 : 0;

        // Electronic-cash values. The trigger letters differ from the
        // letters of the slots they fill: E fills G, F fills H, G fills K.
        fetch_ec_values(letters, "EFG");

        const Walk w = walk_afl(app, letters, FlowTrace("KOLT_ICRT_GetICCInfo", Family::icrt));
        if (w.read_result < 0) {
            result = {-22, std::string(gbk::kReadRecordError)};
        } else {
            std::string info = icrt_format(letters);
            log_text("KOLT_ICRT_GetICCInfo infoBuf=%s", info);
            result = {final_code, std::move(info)};
        }
    }

    const int32_t off = card.power_off();
    log::debug("getIdCardInfo KOLT_T41_ICC_Poweroff flag=%x", &off, 4);
    return result;
}

Outcome star_get_info(std::string_view input) {
    const StarInput in = read_star_input(input, "STAR_GetInfo", "tagList");
    Outcome r = icrt_get_icc_info(1, in.port, 1, {}, in.field4);
    log_star_return("STAR_GetInfo", r.text);
    return r;
}

// ---------------------------------------------------------------------------
// YS core.

YsOutcome ys_get_info(int32_t ic_type, std::string_view letters, const char* aid_text) {
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

    YsOutcome out;
    const FlowTrace trace("IC_GetInfo", Family::ic);
    const AppInit app = start_app_psbc(aid_text);
    device::PoweredCard card(static_cast<uint32_t>(state().slot()));
    if (app.result != 0) {
        const InitFailure failure = ic_init_failure(app.result, trace);
        out.code = failure.code;
        out.text = std::string(failure.text);
        if (!failure.power_off) {
            card.release();  // the card never came up
            return out;
        }
    } else {
        // The GET DATA triggers are tested on the caller's own letters,
        // before the YS translation.
        fetch_ec_values(search, "GHK");

        const Walk w = walk_afl(app, search, trace);
        if (w.read_result < 0) {
            out.code = -10;
            out.text = std::string(gbk::kReadRecordError);
        } else {
            char pos[16];
            std::snprintf(pos, sizeof pos, "%02d%02d", w.entry, w.record);
            set_slot_text(kAflPosition, pos);
            log_text("IC_GetInfo nAFL &tagListValue[nIndex][1]=%s", slot_text(kAflPosition));

            std::string info = ys_format(letters);
            log_hex("IC_GetInfo infoBuf=%02x", info);
            log_text("IC_GetInfo infoBuf='%s'", info);

            const int32_t kind = card_kind_of_slot(state().slot());
            log::debug_int("IC_GetInfo icflag=%d", kind);

            std::string block = app_data_block();
            std::array<uint8_t, 128> head{};
            std::memcpy(head.data(), block.data(), std::min(block.size(), head.size()));
            log::debug_hex("IC_GetInfo lpicappdata=%02x", head);
            log_slots();

            out.code = 0;
            out.text = std::move(info);
            out.card_kind = kind;
            out.app_data = std::move(block);
        }
    }

    const int32_t off = card.power_off();
    log::debug("IC_GetInfo KOLT_T41_ICC_Poweroff flag=%x", &off, 4);
    return out;
}

IcInfoOutcome ic_get_info(std::string_view port_name, int32_t ic_type, const char* aid_text,
                          std::string_view letters) {
    set_port_name(port_name);

    log::set_switch(config::ini_int("icc", "log", config::kolt_ini_path()));
    log::debug_int("ID_GetInfo g_nWriteDebugLog=%d", log::switch_value());
    log::debug_int("IC_GetInfo icType ===%d", ic_type);
    log::debug_int("IC_GetInfo nPortNo ===%d", 0);

    IcInfoOutcome out;
    const link::Session session = link::open_teller(0, 0);
    if (!session.ok()) {
        out.code = -3;
        return out;
    }

    YsOutcome ys = ys_get_info(ic_type_from_one(ic_type), letters, aid_text);
    log::debug_int("IC_GetInfo IC_GetInfo_YS nRet=%d", ys.code);
    out.text = std::move(ys.text);
    out.card_kind = ys.card_kind;
    if (ys.code == 0 && out.text) out.out_len = static_cast<int32_t>(::strnlen(out.text->c_str(), out.text->size()));

    // The folding of the YS results is kept as the IC_ family defines it;
    // the YS core itself never gives -105, -102 or -3.
    switch (ys.code) {
    case 0: out.code = 0; break;
    case -105: out.code = -25; break;
    case -102: out.code = -11; break;
    case -3: out.code = -3; break;
    default: out.code = -99; break;
    }
    return out;
}

}  // namespace kolt::emv
