// Card information query: the data elements of the payment application that
// a teller application names by tag letters, in the ICRT convention (the
// core KOLT_ICRT_GetICCInfo with its ICRT_ and STAR_ wrappers) and the YS
// convention of the IC_ family (IC_GetInfo_YS and its wrapper IC_GetInfo).
// Also the helpers the transaction-log flows share with it: the IC-type
// mapping, the failure texts and the bounds of caller texts.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "emv/app_select.hpp"

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

// ---------------------------------------------------------------------------
// IC type of the public interface to card slot: 0/20 contact (0), 1/21
// contactless (255), 2/22 automatic (2), anything else contact. For the six
// listed codes *flag (when given) receives -1; otherwise it is untouched.
int32_t do_ic_type(int32_t ic_type, int32_t* flag);

// Card kind reported to IC_ callers: 2 for the contactless slot, else 1.
int32_t card_kind_of_slot(int32_t slot);

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

// Application selection and initiation as the information and log flows
// use it (time-out 20 s, slot ssICType, which power-on rewrites).
// start_app: KOLT_T41_InitICCardApp with a binary candidate list (count,
// then length and AID bytes per candidate; may be null).
// start_app_psbc: KOLT_T41_InitICCardApp_PSBC with one candidate as hex
// text (null or empty: none; read up to kFieldMax characters).
AppInit start_app(const uint8_t* aid_list);
AppInit start_app_psbc(const char* aid_text);

// Powers the card off in slot ssICType; the device result.
int32_t power_off_card();

// Copies a flow's text with its terminator into a caller's buffer.
void write_text(char* out, const std::optional<std::string>& text);

// ---------------------------------------------------------------------------
// The ICRT core: opens the link (terminal type, port), powers the card on,
// selects the application through the binary candidate list aid_list (may be
// null), reads until every letter is found and returns the letters in the
// ICRT format (letter, "%03d" length, value). 0, 10 (application locked, data
// still read), -21 port, -11 power-on, -22 READ RECORD, init result - 10.
Outcome icrt_get_icc_info(int32_t term_type, int32_t port, int32_t ic_type, const uint8_t* aid_list,
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
