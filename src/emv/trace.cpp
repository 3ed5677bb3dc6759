#include "emv/trace.hpp"

#include "emv/state.hpp"
#include "emv/tags.hpp"
#include "support/log.hpp"

namespace kolt::emv {
namespace {

// The two IC_ cores spell two of their initiation lines each in their own
// way.
struct InitSpelling {
    std::string_view entry;
    std::string_view not_inserted;  // "%s" (empty)
    std::string_view other_int;     // "%d"
    std::string_view other_text;    // "%s" (empty); empty: no line
};
constexpr InitSpelling kInitSpellings[] = {
    {"IC_GetInfo", "KOLT_T41_InitICCardApp flag ICC_Contact_Not_Insert%s", "KOLT_T41_InitICCardApp flag not ok =%d",
     ""},
    {"IC_GetTxDetail", "KOLT_T41_InitICCardApp ICC_Contact_Not_Insert %s", "KOLT_T41_InitICCardApp not ok flag=%d",
     "KOLT_T41_InitICCardApp not ok%s"},
};

const InitSpelling& init_spelling(std::string_view entry) {
    for (const InitSpelling& s : kInitSpellings)
        if (s.entry == entry) return s;
    return kInitSpellings[0];
}

}  // namespace

std::string FlowTrace::format(std::string_view rest) const { return entry_ + " " + std::string(rest); }

void FlowTrace::debug_text(std::string_view rest, std::string_view text) const { log_text(format(rest).c_str(), text); }

void FlowTrace::debug_int(std::string_view rest, int value) const { log::debug_int(format(rest).c_str(), value); }

void FlowTrace::error_text(std::string_view rest, std::string_view text) const {
    const std::string t(text);
    log::error_text(format(rest).c_str(), t.c_str());
}

void FlowTrace::error_int(std::string_view rest, int value) const { log::error_int(format(rest).c_str(), value); }

void FlowTrace::debug_hex(std::string_view rest, std::span<const uint8_t> bytes) const {
    log::debug_hex(format(rest).c_str(), bytes);
}

void FlowTrace::error_hex(std::string_view rest, std::span<const uint8_t> bytes) const {
    log::error(format(rest).c_str(), bytes.data(), static_cast<int>(bytes.size()));
}

void FlowTrace::slots() const {
    for (int i = 0; i < kTagCount; ++i) {
        debug_int("apduTagList i =%d", i);
        const int tag = static_cast<int>(apduTagList[i]);
        log::debug(format("apduTagList value =%x").c_str(), &tag, 4);
        debug_int("tagListValue value Lenth=%d", static_cast<int>(slot_value(i).size()));
        debug_hex("tagListValue value=%02x", slot_value(i));
    }
}

// ---------------------------------------------------------------------------

void FlowTrace::walk_entry(int index) const {
    if (family_ == Family::ic) debug_int("nAFL i=%d", index);
}

void FlowTrace::walk_record(int record) const {
    if (family_ == Family::ic) debug_int("AIPAFLBuf j=%d", record);
}

void FlowTrace::walk_parsed(std::string_view found) const {
    if (family_ == Family::icrt) debug_text("gFindedTagList2=%s", found);
}

void FlowTrace::walk_all_found() const { debug_text("All TagList is finded%s", ""); }

void FlowTrace::walk_read_failed(int32_t result) const {
    error_int(family_ == Family::icrt ? "KOLT_T41_ICC_Comm_Read_Record flag=%d"
                                      : "KOLT_T41_ICC_Comm_Read_Record flag =%d",
              result);
}

// ---------------------------------------------------------------------------

void FlowTrace::log_get_data() const {
    if (family_ == Family::icrt) debug_text("KOLT_T41_ICC_GetData......%s", "");
}

void FlowTrace::log_get_data_failed() const {
    if (family_ == Family::ic) error_text("KOLT_T41_ICC_GetData \x9F\x4F =%s", "");
}

void FlowTrace::log_format(std::span<const uint8_t> format_bytes) const {
    if (family_ == Family::icrt) log::debug_hex(format("KOLT_T41_ICC_GetData oneTagValue =%02x").c_str(), format_bytes);
}

void FlowTrace::log_record_reply(std::span<const uint8_t> reply) const {
    log::debug_hex(format("KOLT_T41_ICC_Comm_Read_Record rApduBuf=%02x").c_str(), reply);
}

void FlowTrace::log_formatted(int running_length, std::string_view text) const {
    debug_int("nTxDetailDataLen =%d", running_length);
    if (family_ == Family::ic) debug_text("&TxDetail[nIndex] =%02x", text);
    debug_text("&TxDetail[nIndex] =%s", text);
}

// ---------------------------------------------------------------------------

void FlowTrace::init_power_on_failed(int32_t result) const {
    // 卡上电错误
    error_text("\xBF\xA8\xC9\xCF\xB5\xE7\xB4\xED\xCE\xF3%s", "");
    error_int("KOLT_T41_InitICCardApp flag =%d", result);
}

void FlowTrace::init_not_inserted() const { error_text(init_spelling(entry_).not_inserted, ""); }

void FlowTrace::init_locked() const { error_text("KOLT_T41_InitICCardApp flag =%s", "-7"); }

void FlowTrace::init_other(int32_t result) const {
    const InitSpelling& s = init_spelling(entry_);
    error_int(s.other_int, result);
    if (!s.other_text.empty()) error_text(s.other_text, "");
}

// ---------------------------------------------------------------------------

void log_text(const char* format, std::string_view text) {
    if (text.empty()) {
        log::debug_text(format, "");
        return;
    }
    log::debug(format, text.data(), static_cast<int>(text.size()));
}

void log_hex(const char* format, std::string_view bytes) {
    log::debug(format, bytes.data(), static_cast<int>(bytes.size()));
}

}  // namespace kolt::emv
