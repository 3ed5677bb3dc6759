// Transaction log in the ICRT and IC conventions.
#include "emv/tx_log.hpp"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "device/icc.hpp"
#include "emv/tags.hpp"
#include "kolt/kolt.h"
#include "support/log.hpp"

namespace kolt::emv {

namespace {

constexpr uint32_t kLogFormatTimeout = 20;  // GET DATA 9F4F
constexpr uint32_t kRecordTimeout = 6;      // READ RECORD
constexpr uint8_t kTagLogFormat[2] = {0x9F, 0x4F};

struct LogRead {
    enum class End { Complete, NoLogFormat, FormatMismatch, ReadFailed } end = End::Complete;
    int32_t read_result = 0;  // the failing READ RECORD
    int32_t count = 0;        // records formatted
    int32_t record_len = 0;   // length of the first formatted record
    std::string records;      // the formatted records back to back

    // The text both cores write when the read did not complete: none for a
    // log format of another layout.
    std::optional<std::string> failure_text() const {
        switch (end) {
        case End::NoLogFormat: return std::string(gbk::kLogFormatError);
        case End::ReadFailed: return std::string(gbk::kReadRecordError);
        default: return std::nullopt;
        }
    }
};

// GET DATA of the log format, the one-byte format check, then READ RECORD
// 1, 2, ... of the log file until the number the log entry announces, a
// status other than 9000 (a card holding fewer records answers 6A83) or a
// failed command. `header` bytes precede the records in the caller's
// output; records that would not fit in kLogTextRoom are not read.
LogRead read_log(const AppInit& app, std::size_t header, const FlowTrace& trace) {
    LogRead r;
    std::array<uint8_t, 256> format{};
    trace.log_get_data();
    const uint32_t sw = device::get_data(static_cast<uint32_t>(state().slot()), std::span<const uint8_t, 2>(kTagLogFormat),
                                         std::span<uint8_t, 256>(format), kLogFormatTimeout);
    if (sw != device::kSwOk) {
        trace.log_get_data_failed();
        r.end = LogRead::End::NoLogFormat;
        return r;
    }
    trace.log_format(std::span<const uint8_t>(format.data(), 1u + format[0]));

    // Only the first byte is compared with the expected layout: every card
    // whose log format begins with the date (9A) is taken to follow it. An
    // empty format passes.
    if (format[0] > 0 && format[1] != trDetailRecordFormat[0]) {
        r.end = LogRead::End::FormatMismatch;
        return r;
    }

    const uint8_t sfi = app.log_entry[0];
    const int announced = app.log_entry[1];
    for (int n = 1; n <= announced; ++n) {
        if (r.count > 0 && header + r.records.size() + static_cast<std::size_t>(r.record_len) + 1 > kLogTextRoom)
            break;  // the output holds no further record
        device::CardReply reply;
        const auto rc = static_cast<int32_t>(
            device::read_record(static_cast<uint32_t>(state().slot()), static_cast<uint8_t>(n), sfi, reply, kRecordTimeout));
        if (rc < 0) {
            r.end = LogRead::End::ReadFailed;
            r.read_result = rc;
            return r;
        }
        trace.log_record_reply(reply.response());
        if (static_cast<uint32_t>(rc) != device::kSwOk) break;

        const std::string text = format_log_record(reply.data());
        // Records are not all of one length (an ATC of 10000 or more has
        // five digits): one that would not fit ends the log here.
        if (header + r.records.size() + text.size() + 1 > kLogTextRoom) break;
        if (r.count == 0) r.record_len = static_cast<int32_t>(text.size());
        r.records += text;
        ++r.count;
        const int running = static_cast<int>(header + r.records.size());
        trace.log_formatted(running, text);
    }
    return r;
}

}  // namespace

// ---------------------------------------------------------------------------

FlowResult icrt_get_tr_detail(int32_t term_type, int32_t port, int32_t ic_type, const char* aid_text) {
    int32_t flag = 0;
    state().set_slot(do_ic_type(ic_type, &flag));
    log::debug_text("KOLT_ICRT_GetTrDetail begin......%s", "");
    log::debug_int("KOLT_ICRT_GetICCInfo ICtype = %d", state().slot());
    clear_working_state();

    const FlowTrace trace("KOLT_ICRT_GetTrDetail", Family::icrt);
    const link::Session session = open_link(term_type, port, trace);
    if (!session.ok()) return failed(Stage::link, -21, std::string(gbk::kPortOpenError));

    const AppInit app = start_app_psbc(aid_text);
    device::PoweredCard card(static_cast<uint32_t>(state().slot()));
    if (app.result == kInitPowerOnFailed) {
        card.release();
        // 卡上电错误: the card never came up, so no power-off is sent.
        return failed(Stage::power_on, -11, std::string(gbk::kPowerOnError));
    }

    FlowResult out;
    if (app.log_entry_len < 2) {
        // Whatever the selection gave, a card without a log entry ends here.
        out.code = app.result - 10;
        out.stage = Stage::log_entry;
        out.text = std::string(gbk::kNoLogEntry);
    } else {
        LogRead r = read_log(app, 3, trace);
        if (r.end != LogRead::End::Complete) {
            out.code = r.end == LogRead::End::ReadFailed ? r.read_result - 22 : -23;
            out.stage = r.end == LogRead::End::ReadFailed ? Stage::read_record : Stage::log_format;
            out.text = r.failure_text();
        } else {
            char head[16];
            std::snprintf(head, sizeof head, "%03d", r.record_len);
            std::string text = std::string(head, 3) + r.records;
            log_text("KOLT_ICRT_GetTrDetail TxDetail ='%s'", text);
            out.code = r.count;
            out.text = std::move(text);
            out.records = r.count;
            out.record_len = r.record_len;
        }
    }

    const int32_t off = card.power_off();
    log::debug_int("KOLT_ICRT_GetTrDetail KOLT_T41_ICC_Poweroff flag=%d", off);
    out.card_kind = card_kind_of_slot(state().slot());
    return out;
}

FlowResult icrt_get_tr_detail_for_selection(int32_t term_type, int32_t port, int32_t ic_type, const char* aid_text) {
    log::debug_text("ICRT_GetTrDetail begin... %s", "");
    return icrt_get_tr_detail(term_type, port, ic_type, aid_text);
}

std::optional<LogSelection> select_records(const FlowResult& log, int32_t index) {
    // Only a log read to its end gives records to hand out.
    if (log.code < 0 || !log.records || *log.records != log.code || !log.text) return std::nullopt;
    const int32_t n = log.code;
    const std::size_t len = static_cast<std::size_t>(log.record_len);
    const std::string& text = *log.text;
    if (index == 0) {
        // Every record without the header, and no terminator: callers hand
        // in a zeroed buffer.
        return LogSelection{text.substr(3), false};
    }
    if (index < 0 || index > n) return std::nullopt;
    return LogSelection{text.substr(0, 3) + text.substr(3 + static_cast<std::size_t>(index - 1) * len, len), true};
}

FlowResult star_get_tx_detail(std::string_view input) {
    // Field 4 ("txdata") is traced and not used.
    const StarInput in = read_star_input(input, "STAR_GetTxDetail", "txdata");
    FlowResult r = icrt_get_tr_detail(1, in.port, 1, "");
    log_star_return("STAR_GetTxDetail", r.text);
    return r;
}

FlowResult ic_get_tx_detail(int32_t ic_type, std::span<const uint8_t> aid_list) {
    int32_t flag = 0;
    state().set_slot(do_ic_type(ic_type_from_one(ic_type), &flag));
    log::debug_text("IC_GetTxDetail begin......%s", "");
    log::debug_int("IC_GetTxDetail ICtype = %d", state().slot());
    clear_working_state();

    FlowResult out;
    const FlowTrace trace("IC_GetTxDetail", Family::ic);
    const AppInit app = start_app(aid_list);
    device::PoweredCard card(static_cast<uint32_t>(state().slot()));
    if (app.result != 0) {
        // The same codes as the card information of the IC_ family, but no
        // text in the output.
        out = ic_init_result(app.result, trace, card);
        out.text.reset();
        if (out.stage == Stage::power_on) return out;
    } else if (app.log_entry_len < 2) {
        log::error_text("IC_GetTxDetail KOLT_T41_InitICCardApp nLogEntry error%s", "");
        out.code = -10;
        out.stage = Stage::log_entry;
    } else {
        LogRead r = read_log(app, 2, trace);
        if (r.end != LogRead::End::Complete) {
            // A failed READ RECORD is 10, not an error code, as the IC_
            // family defines it.
            out.code = r.end == LogRead::End::ReadFailed ? 10 : -10;
            out.stage = r.end == LogRead::End::ReadFailed ? Stage::read_record : Stage::log_format;
            out.text = r.failure_text();
        } else {
            std::string block;
            block += static_cast<char>(r.count & 0xFF);
            block += static_cast<char>(r.record_len & 0xFF);
            block += r.records;
            std::array<uint8_t, 256> head{};
            std::memcpy(head.data(), block.data(), std::min(block.size(), head.size()));
            log::debug_hex("IC_GetTxDetail TxDetail =%02x", head);
            log_text("IC_GetTxDetail TxDetail =%s", block);
            out.code = 0;
            out.text = std::move(block);
            out.card_kind = card_kind_of_slot(state().slot());
            log::debug_int("IC_GetTxDetail psbcICType=%d", *out.card_kind);
        }
    }

    const int32_t off = card.power_off();
    log::debug_int("IC_GetTxDetail KOLT_T41_ICC_Poweroff flag=%d", off);
    return out;
}

}  // namespace kolt::emv
