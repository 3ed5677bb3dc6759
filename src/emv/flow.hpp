// What the card-information and transaction-log flows share: the failure
// texts they write, the bounds of caller texts, the IC-type mapping, the
// link handling of the ICRT and IC_ families, application initiation with
// the flows' time-out, the power-off at the end, and the folding of
// initiation results in the IC_ family.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "emv/app_select.hpp"
#include "emv/trace.hpp"
#include "link/session.hpp"

namespace kolt::emv {

// ---------------------------------------------------------------------------
// Failure texts written into the caller's output in place of data (GBK).
namespace gbk {
// 打开端口错误
inline constexpr std::string_view kPortOpenError = "\xB4\xF2\xBF\xAA\xB6\xCB\xBF\xDA\xB4\xED\xCE\xF3";
// 卡上电错误
inline constexpr std::string_view kPowerOnError = "\xBF\xA8\xC9\xCF\xB5\xE7\xB4\xED\xCE\xF3";
// 卡初始化错误
inline constexpr std::string_view kCardInitError = "\xBF\xA8\xB3\xF5\xCA\xBC\xBB\xAF\xB4\xED\xCE\xF3";
// 读记录错误
inline constexpr std::string_view kReadRecordError = "\xB6\xC1\xBC\xC7\xC2\xBC\xB4\xED\xCE\xF3";
// 接触方式读卡时卡未插入
inline constexpr std::string_view kContactNotInserted =
    "\xBD\xD3\xB4\xA5\xB7\xBD\xCA\xBD\xB6\xC1\xBF\xA8\xCA\xB1\xBF\xA8\xCE\xB4\xB2\xE5\xC8\xEB";
// 没有交易记录文件入口
inline constexpr std::string_view kNoLogEntry =
    "\xC3\xBB\xD3\xD0\xBD\xBB\xD2\xD7\xBC\xC7\xC2\xBC\xCE\xC4\xBC\xFE\xC8\xEB\xBF\xDA";
// 获取交易记录格式错误
inline constexpr std::string_view kLogFormatError =
    "\xBB\xF1\xC8\xA1\xBD\xBB\xD2\xD7\xBC\xC7\xC2\xBC\xB8\xF1\xCA\xBD\xB4\xED\xCE\xF3";
}  // namespace gbk

// ---------------------------------------------------------------------------
// Bounds of caller texts.

// Tag letters of one request, and each field of a STAR_ input text: texts
// are read up to this many characters (a 256-byte field with its
// terminator); the rest is ignored.
inline constexpr std::size_t kFieldMax = 255;
// A STAR_ input text is read up to this many characters before it is split.
inline constexpr std::size_t kStarInputMax = 1023;
// Room of a port name (gPortName): 31 characters and a terminator.
inline constexpr std::size_t kPortNameMax = 31;
// Room of the application data block IC_GetInfo keeps for itself: the six
// letters "AJZ34Y", each with a length byte and up to 255 value bytes.
inline constexpr std::size_t kAppDataMax = 6 * (2 + 255);

// A caller's text up to max characters (nullptr reads as empty).
std::string_view bounded(const char* text, std::size_t max);

// The first kFieldMax characters of a STAR_ input's k-th field (from 1).
std::string star_field(std::string_view input, int k);

// What a STAR_ input text carries for the library: the port (field 2, read
// with atoi) and field 4. Traced under the entry point's name ("<name>
// ......", "<name>  datain=", "<name>  iPort=", "<name>  <label>=").
struct StarInput {
    int32_t port = 0;
    std::string field4;
};
StarInput read_star_input(std::string_view input, std::string_view name, std::string_view field4_label);
// The closing trace line "<name>  strReturn=" with the text written.
void log_star_return(std::string_view name, const std::optional<std::string>& text);

// Clears gPortName and copies the name into it (at most kPortNameMax
// characters), as the IC_ entry points do before they open the link.
void set_port_name(std::string_view name);

// ---------------------------------------------------------------------------
// IC type of the public interface to card slot: 0/20 contact (0), 1/21
// contactless (255), 2/22 automatic (2), anything else contact. For the six
// listed codes *flag (when given) receives -1; otherwise it is untouched.
int32_t do_ic_type(int32_t ic_type, int32_t* flag);

// The IC type of an IC_ caller, who counts from 1 (1 contact, 2
// contactless, 3 automatic), in the codes above: one less. The lowest int
// wraps round to the highest, which reads as contact like any other code.
int32_t ic_type_from_one(int32_t caller_type);

// Card kind reported to IC_ callers: 2 for the contactless slot, else 1.
int32_t card_kind_of_slot(int32_t slot);

// ---------------------------------------------------------------------------
// Link of the ICRT family: KOLT_DoTermType, then KOLT_initCom with the port.
// On failure the flow's log line (format with one "%d") goes to the error
// log. The link is released when the session ends, whether it opened or not.
link::Session open_link(int32_t term_type, int32_t port, const char* failure_log);

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

// ---------------------------------------------------------------------------


// A trace line of a text of known length (an empty text is logged as such,
// never as a terminated string at a null pointer), or of its bytes in hex.
void log_text(const char* format, std::string_view text);
void log_hex(const char* format, std::string_view bytes);

}  // namespace kolt::emv
