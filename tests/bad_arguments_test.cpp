// Bad arguments on every exported function.
//
// The cases come from the public header (tests/gen_bad_arguments.cmake):
// for every function and every parameter, bad values by the parameter's
// kind, every other argument valid. Each case runs in a child process of
// its own with a wall-clock limit, so that a crash or a hang is the failure
// of that case alone. A case passes when the call returns (any result: it
// is recorded) without a signal or a sanitizer report, within the limit,
// and without writing past the room the header gives an output buffer.
//
// One test per header section: first without a device (gPortName names a
// node under /dev that does not exist, so the device calls fail at once;
// descriptor 0, where the link stays for a refused port number, swallows
// writes and ends reads at once), then, for the sections that talk to the
// device, with a simulator that answers (a contact card inserted, an
// identity card on the reader, a stripe card that stays, a finger on the
// sensor), so that the calls get past opening the link to where the
// arguments are used. Huge time-outs return there as soon as the answer
// comes; stripe reads and writes, which wait for a swipe, are given up by
// cancelOperation as the caller's other thread would; an answer that never
// comes is waited for as long as the caller asked (those cases are listed
// as the caller's choice and not run).
//
// The hand table below holds only what the header says in words: valid
// values by parameter name, rooms stated in prose, rooms the caller gives
// as a function of other arguments, and the values left to the caller.
//
// With KOLT_REPORT_DIR set, the results go to
// $KOLT_REPORT_DIR/bad_arguments.md ("## Bad arguments"): one row per case
// and the rules left to the caller.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "bad_arguments.hpp"
#include "common/card_flow.hpp"
#include "common/sim_fixture.hpp"
#include "common/test_util.hpp"
#include "kolt/kolt.h"

namespace fs = std::filesystem;
using namespace kolt::test::badargs;

namespace {

constexpr std::size_t kBuf = 128 * 1024;    // every output buffer
constexpr std::size_t kTail = 256;          // canary tail when no room is stated
constexpr uint8_t kCanary = 0xA5;
constexpr long long kNone = LLONG_MIN;

// The working directory of the cases, and /dev/null opened write-only (the
// default descriptor and descriptor 0 of every case).
fs::path g_work;
int g_null_fd = -1;

constexpr auto kLimit = std::chrono::seconds(10);  // wall clock of one case

// ---------------------------------------------------------------------------
// The hand table: what the header says in prose rather than in a constant,
// and the valid arguments a function needs beyond the defaults by kind.

// Valid value of one parameter of one function (nullptr function: any).
struct Valid {
    const char* function;
    const char* param;
    const char* text = nullptr;  // texts, and the initial text of an in-place buffer
    long long integer = kNone;   // integers, and the initial value of an int32_t*
};

constexpr Valid T(const char* f, const char* p, const char* text) { return Valid{f, p, text, kNone}; }
constexpr Valid I(const char* f, const char* p, long long v) { return Valid{f, p, nullptr, v}; }

const Valid kValid[] = {
    // Texts by parameter name.
    T(nullptr, "typeText", "0"),
    T(nullptr, "portText", "1"),
    T(nullptr, "path", "bad-args.src"),
    T(nullptr, "source", "bad-args.src"),
    T(nullptr, "destination", "bad-args.out"),
    T(nullptr, "section", "kolt"),
    T(nullptr, "key", "logdir"),
    T(nullptr, "format", "%s"),
    T(nullptr, "needle", "b"),
    T(nullptr, "haystack", "abc"),
    T(nullptr, "from", "a"),
    T(nullptr, "to", "b"),
    T(nullptr, "digits", "1234"),
    T(nullptr, "xml", "<a>1</a>"),
    T(nullptr, "trData", "P003100"),
    T(nullptr, "dataIn", "a|0|b|AB"),
    T(nullptr, "serverIp", "127.0.0.1"),
    T(nullptr, "request", "<?xml version=\"1.0\"?><koltes></koltes>"),
    T(nullptr, "startMark", "<?xml"),
    T(nullptr, "endMark", "</koltes>"),
    T(nullptr, "inJson", R"({"FunctionCode":"0001","RequestPort":"3","RequestBaudRate":"9600","RequestTimeOut":"3"})"),
    T(nullptr, "photoPath", "photo.bmp"),
    T(nullptr, "label", "USB"),
    T(nullptr, "value", "1B5B"),
    T(nullptr, "track2", "6222020000000000000=2512"),
    T(nullptr, "track3", "996222020000000000000"),
    T(nullptr, "hexText", "00A4040000"),
    T(nullptr, "hex4", "4E00"),
    T(nullptr, "aidText", "A000000333010101"),
    T(nullptr, "arpc", "910A00000000000000003030"),
    T(nullptr, "aidList", ""),
    T(nullptr, "tagList", "AB"),
    T(nullptr, "letters", "AB"),
    T(nullptr, "transfer", ""),
    T(nullptr, "transferType", ""),
    T(nullptr, "transferData", ""),
    T(nullptr, "transferPort", ""),
    T(nullptr, "transferTypeText", ""),
    T(nullptr, "auxArg", ""),
    // IC-encoded transaction data: a letter, a length byte, the value.
    T("IC_GenARQC_YS", "trData", "P\x03" "100"),
    T("IC_ARPC_ExeICScript", "trData", "P\x03" "100"),
    // In-place texts.
    T("KOLT_getValueFromStr", "line", "key=value"),
    T("KOLT_getValueFromStr", "key", "key"),
    T("KOLT_strreplace", "text", "abc"),
    // Integers by parameter name.
    I(nullptr, "base", 10),
    I(nullptr, "mode", 2),
    I("select_fd", "mode", 1),
    I(nullptr, "slot", 0),
    I(nullptr, "icType", 0),
    I(nullptr, "record", 1),
    I(nullptr, "sfi", 1),
    I(nullptr, "k", 1),
    I(nullptr, "strict", 1),
    I(nullptr, "index", 0),
    I("Decimal2BCDBuf", "value", 1234),
    I("KOLT_itoa", "value", 1234),
    I(nullptr, "led", 1),
    I(nullptr, "color", 0),
    I(nullptr, "baud", 9600),
    I(nullptr, "unicode", 0x4E00),
    I(nullptr, "gbk", 0xD2BB),
    I(nullptr, "forceAac", 0),
    I(nullptr, "cmdClass", 0x31),
    I(nullptr, "cmdCode", 0x11),
    I(nullptr, "cmd", 0x41),
    I(nullptr, "p1", 0x80),
    I(nullptr, "head", 0xEF),
    I(nullptr, "headA", 0xEF),
    I(nullptr, "headB", 0x02),
    I(nullptr, "selector", 1),
    I(nullptr, "separator", '|'),
    I(nullptr, "letter", 'A'),
    Valid{nullptr, "tag", "5A", 0x9F36},
    I(nullptr, "n", 2),
    I(nullptr, "width", 6),
    I(nullptr, "addrLen", 16),
    I(nullptr, "lc", 4),
    I(nullptr, "serverPort", 1),
};

// Rooms the header states in words (the constants are read by the
// generator from the one-line comments).
struct Room {
    const char* function;
    const char* param;
    long long bytes;
};
const Room kRooms[] = {
    {"KOLT_getTermCmdFromExtfile", "openOut", 256},  {"KOLT_getTermCmdFromExtfile", "closeOut", 256},
    {"KOLT_getTermCmdFromExtfile", "lockOut", 256},  {"KOLT_getTermCmdFromExtfile", "unlockOut", 256},
    {"KOLT_getTermCmdFromExtfile", "leadOut", 256},  {"KOLT_getTermCmdFromExtfile", "endOut", 256},
    {"KOLT_getTransferCmdFromExtfile", "out", 256},  {"KOLT_getValueFromFile", "out", 256},
    {"KOLT_getAuxCmdOnTermtypeAuxno", "openOut", KOLT_SEQ_MAX},
    {"KOLT_getAuxCmdOnTermtypeAuxno", "closeOut", KOLT_SEQ_MAX},
    {"KOLT_getBPCommand", "out", KOLT_SEQ_MAX},
    {"KOLT_writeBufAndReadFromT41", "out", KOLT_T41_REPLY_MAX},
    {"KOLT_writeBufAndRead", "out", KOLT_T41_REPLY_MAX},
    {"KOLT_writeBufAndReadFrom100s", "out", KOLT_T41_REPLY_MAX},
    {"KOLT_T41_Id_ReadCard", "reply", KOLT_T41_REPLY_MAX},
    {"KOLT_T41_ReadIDCard", "reply", KOLT_T41_REPLY_MAX},
    {"KOLT_T41_Unbase64", "reply", KOLT_T41_REPLY_MAX},
    {"KOLT_T41_MC_ReadThreeTrackData", "track1", KOLT_T41_REPLY_MAX},
    {"KOLT_T41_MC_ReadThreeTrackData", "track2", KOLT_T41_REPLY_MAX},
    {"KOLT_T41_MC_ReadThreeTrackData", "track3", KOLT_T41_REPLY_MAX},
    {"KOLT_MC_Read", "track2", KOLT_STRIPE_TEXT_MAX},  {"KOLT_MC_Read", "track3", KOLT_STRIPE_TEXT_MAX},
    {"MsrRead", "track2", KOLT_STRIPE_TEXT_MAX},       {"MsrRead", "track3", KOLT_STRIPE_TEXT_MAX},
    {"MS_ReadCard", "track2", KOLT_STRIPE_TEXT_MAX},   {"MS_ReadCard", "track3", KOLT_STRIPE_TEXT_MAX},
    {"ID_GetInfo", "infoOut", KOLT_IDINFO_MAX},        {"getIdCardInfo", "infoOut", KOLT_IDINFO_MAX},
    {"YC_idCovToGBK", "infoOut", KOLT_IDINFO_MAX},
    {"socketXmlWriteAndRead", "replyBuf", KOLT_CLERK_REPLY_MAX},
    {"socketXmlRead", "replyBuf", KOLT_CLERK_REPLY_MAX},
    {"Verify_clerk_finger", "passwordOut", KOLT_CLERK_PASSWORD_MAX},
    {"KOLT_T41_FP_ReadCfg", "serverIpOut", KOLT_FP_SERVERIP_MAX},
    {"ARA_EM02_WriteAndRead", "reply", KOLT_FP_PACKET_MAX},
    {"ARA_EM02_Read", "reply", KOLT_FP_PACKET_MAX},
    {"ARA_EM02_GenChar", "featureOut", KOLT_FP_FEATURE_SIZE},
    {"KOLT_getNationCode", "codeOut", 8},
    {"KOLT_getCheckResultCode", "codeOut", 8},
    {"KOLT_T41_ParseOneRecord", "out", 108},
    {"GetSysDate", "out", 15},
    {"getNowYearMonth", "out", 7},
    {"KOLT_getcurrenttime", "out", 15},
    {"converZh", "out2", 2},
    {"KOLT_T41_APDUHexstr", "out", 256},
    {"KOLT_T41_APDUBuf", "out", 256},
    {"KOLT_T41_ICC_APDULcData", "out", 256},
    {"KOLT_T41_ICC_Comm_Read_Record", "out", 256},
    {"KOLT_T41_ICC_Select_Aid", "out", 256},
    {"KOLT_T41_ICC_SetGPO", "out", 256},
    {"KOLT_T41_ICC_Generate_Ac", "out", 256},
    {"KOLT_T41_External_Authenticate", "out", 256},
    {"KOLT_T41_Put_Data", "out", 256},
    {"KOLT_T41_Exec_Script", "out", 256},
    {"KOLT_T41_ICC_GetData", "out", 256},
    {"KOLT_T41_GetTagValue", "out", 256},
    {"KOLT_GetApduDataFromCDOL", "out", 256},
    {"KOLT_T41_InitICCardApp", "aipAfl", 256},        {"KOLT_T41_InitICCardApp", "logEntry", 256},
    {"KOLT_T41_InitICCardApp_PSBC", "aipAfl", 256},   {"KOLT_T41_InitICCardApp_PSBC", "logEntry", 256},
    {"IC_GetInfo_YS", "appData", KOLT_APPDATA_MAX},
    {"KOLT_ICRT_GetTrDetail", "out", KOLT_TXLOG_MAX}, {"ICRT_GetTxDetail", "out", KOLT_TXLOG_MAX},
    {"ICRT_GetTrDetail", "out", KOLT_TXLOG_MAX},      {"STAR_GetTxDetail", "out", KOLT_TXLOG_MAX},
    {"IC_GetTranDeta", "out", KOLT_TXLOG_MAX},        {"IC_GetTxDetail", "out", KOLT_TXLOG_MAX},
    {"KOLT_ICRT_GetARQC", "field55", KOLT_FIELD55_MAX + 1},
    {"KOLT_Get55Data", "out", KOLT_FIELD55_MAX + 1},
    {"KOLT_strreplace", "text", 1024},
    {"ICRT_GetARQC", "field55", KOLT_FIELD55_MAX + 1},
    {"IC_GenARQC", "field55", KOLT_FIELD55_MAX + 1},
    {"IC_GenARQC_YS", "arqc", KOLT_FIELD55_MAX + 7},
    {"KOLT_ICRT_ARPCExeScript", "secondAc", KOLT_FIELD55_MAX + 4},
    {"ICRT_ARPCExeScript", "secondAc", KOLT_FIELD55_MAX + 4},
    {"IC_CtlScriptData", "secondAc", KOLT_FIELD55_MAX + 4},
    {"IC_ARPC_ExeICScript", "secondAc", KOLT_FIELD55_MAX + 4},
    {"KOLT_ICRT_ARPCExeScript", "scriptResult", 18},  {"ICRT_ARPCExeScript", "scriptResult", 18},
    {"IC_CtlScriptData", "scriptResult", 18},         {"IC_ARPC_ExeICScript", "scriptResult", 18},
};

// Inputs of a size the header states: exactly that much is given, so that a
// read past it is a sanitizer report.
const Room kInputSizes[] = {
    {"KOLT_Equal_2bytes", "p", 2},
    {"KOLT_T41_ICC_APDULcData", "header4", 4},
    {"KOLT_T41_Put_Data", "tag2", 2},
    {"KOLT_T41_ICC_GetData", "tag2", 2},
    {"KOLT_GetApduDataFromCDOL", "random", 4},
    {"KOLT_Get55Data", "random", 4},
    {"KOLT_T41_ParseOneRecord", "record", 45},
    {"YC_idCovToGBK", "record", 256 + 1024},
    {"YC_GetBmp", "photo", 1024},
    {"idCovToGBK", "raw", 220},
};

// Rooms the header puts on the caller as a function of the other
// arguments: the case gets exactly that room (canaries after it).
struct CallerRoom {
    const char* function;
    const char* param;
    const char* rule;
    std::function<long long(const Slots&)> bytes;  // kNone: the case is not run
};

long long slen(const Slots& a, int k) {
    const char* p = a.get<const char*>(k);
    return p == nullptr ? 0 : static_cast<long long>(std::strlen(p));
}
long long count(const Slots& a, int k) { return a.get<int32_t>(k); }

// The function whose rooms are being worked out (set around the call).
const Function* g_function = nullptr;
int param_index(const char* name) {
    for (int i = 0; i < g_function->arity; ++i)
        if (std::strcmp(g_function->params[static_cast<std::size_t>(i)].name, name) == 0) return i;
    return -1;
}
long long slen(const Slots& a, const char* name) { return slen(a, param_index(name)); }

// Card information: 4 bytes per requested letter (at most
// KOLT_TAG_LETTERS_MAX), up to 255 value bytes each, and a terminator.
long long card_info_room(const Slots& a) {
    return std::max(259 * std::min<long long>(slen(a, "tagList"), KOLT_TAG_LETTERS_MAX) + 1, 23LL);
}
// A count of bytes the caller gives room for.
long long len_room(const Slots& a) {
    const long long n = a.get<int32_t>(param_index("len"));
    return n <= 0 ? 0 : n;
}

constexpr const char* kCardInfoRule =
    "card information: out holds 4 + 255 bytes per requested letter (at most KOLT_TAG_LETTERS_MAX) and a terminator";

const std::vector<CallerRoom>& caller_rooms() {
    static const std::vector<CallerRoom> all = {
        {"KOLT_Base64", "buf", "KOLT_Base64: buf holds (len+2)/3*4 + 1 bytes",
         [](const Slots& a) { long long n = count(a, 1); return n <= 0 ? 1 : (n + 2) / 3 * 4 + 1; }},
        {"KOLT_UnBase64", "buf", "KOLT_UnBase64: buf holds len rounded up to a multiple of 4",
         [](const Slots& a) { long long n = count(a, 1); return n <= 0 ? 0 : (n + 3) / 4 * 4; }},
        {"KOLT_hexstrtointBuf", "out", "KOLT_hexstrtointBuf: out holds max(8, (strlen(text)+1)/2) bytes",
         [](const Slots& a) { return std::max(8LL, (slen(a, 0) + 1) / 2); }},
        {"KOLT_hexStrToIntStr", "out", "KOLT_hexStrToIntStr: out holds strlen(text) bytes",
         [](const Slots& a) { return slen(a, 0); }},
        {"BCDBuf2HexCharBuf", "out", "BCDBuf2HexCharBuf: out holds 2n + 1 bytes",
         [](const Slots& a) { long long n = count(a, 1); return n <= 0 ? 1 : 2 * n + 1; }},
        {"KOLT_buf2HexStrBuf", "out", "KOLT_buf2HexStrBuf: out holds 2n bytes",
         [](const Slots& a) { long long n = count(a, 1); return n <= 0 ? 0 : 2 * n; }},
        {"KOLT_buf2HexStrBuf", "bytes", "KOLT_buf2HexStrBuf: bytes holds n bytes (upper-cased in place)",
         [](const Slots& a) { long long n = count(a, 1); return n <= 0 ? 0 : n; }},
        {"Decimal2BCDBuf", "out", "Decimal2BCDBuf: out holds width bytes",
         [](const Slots& a) { long long n = count(a, 2); return n <= 0 ? 0 : n; }},
        {"byteBuf2BCDBuf", "out", "byteBuf2BCDBuf: out holds width bytes and the spill of n digits (n + 1)",
         [](const Slots& a) { return std::max<long long>({0, count(a, 3), count(a, 1) + 1}); }},
        {"KOLT_GetRandByte", "out", "KOLT_GetRandByte: out holds n bytes",
         [](const Slots& a) { long long n = count(a, 1); return n <= 0 ? 0 : n; }},
        {"KOLT_readFile2Buf", "buffer", "KOLT_readFile2Buf: buffer holds n bytes",
         [](const Slots& a) { long long n = count(a, 2); return n <= 0 ? 0 : n; }},
        {"KOLT_idInfoConvert2gb", "out", "KOLT_idInfoConvert2gb: out holds len bytes",
         [](const Slots& a) { long long n = count(a, 1); return n <= 0 ? 0 : n; }},
        {"convert2gb", "out", "convert2gb: out holds len bytes",
         [](const Slots& a) { long long n = count(a, 1); return n <= 0 ? 0 : n; }},
        {"convert2uni", "out", "convert2uni: out holds len bytes",
         [](const Slots& a) { long long n = count(a, 1); return n <= 0 ? 0 : n; }},
        {"KOLT_gbConvert2idUni", "out", "KOLT_gbConvert2idUni: out holds 2 * len bytes",
         [](const Slots& a) { long long n = count(a, 1); return n <= 0 ? 0 : 2 * n; }},
        {"ARA_EM02_Protocol", "out", "ARA_EM02_Protocol: out holds len + 11 bytes",
         [](const Slots& a) { long long n = count(a, 2); return n <= 0 ? 11 : n + 11; }},
        {"KOLT_ARPC_GetScritp", "script", "KOLT_ARPC_GetScritp: script holds len bytes",
         [](const Slots& a) { long long n = count(a, 1); return n <= 0 ? 0 : n; }},
        {"KOLT_ARPC_GetScritp", "idBlock", "KOLT_ARPC_GetScritp: idBlock holds 5 bytes", [](const Slots&) { return 5LL; }},
        {"ParaDeal", "out", "ParaDeal: out holds strlen(out) + 4 * strlen(in) + 1 bytes",
         [](const Slots& a) { return 4 * slen(a, 0) + 1; }},
        {"KOLT_SetTLV", "out", "KOLT_SetTLV: out holds the tag, one length byte and len bytes",
         [](const Slots& a) { long long n = count(a, 1); return 3 + std::max(0LL, std::min(n, 255LL)); }},
        {"KOLT_ReceiveData", "buf", "KOLT_ReceiveData, KOLT_rcvBuf...: buf holds len bytes", len_room},
        {"KOLT_rcvBuf", "buf", "KOLT_ReceiveData, KOLT_rcvBuf...: buf holds len bytes", len_room},
        {"KOLT_rcvBuf100s", "buf", "KOLT_ReceiveData, KOLT_rcvBuf...: buf holds len bytes", len_room},
        {"KOLT_rcvBufFromHeadByte", "buf", "KOLT_ReceiveData, KOLT_rcvBuf...: buf holds len bytes", len_room},
        {"KOLT_rcvBufFrom2DisHeadByte", "buf", "KOLT_ReceiveData, KOLT_rcvBuf...: buf holds len bytes", len_room},
        {"KOLT_readFileToBuf", "buffer", "KOLT_readFileToBuf: buffer holds the whole file",
         [](const Slots& a) {
             const char* path = a.get<const char*>(param_index("path"));
             std::error_code ec;
             const auto n = path == nullptr ? 0 : fs::file_size(g_work / path, ec);
             return ec ? 0LL : static_cast<long long>(n);
         }},
        {"KOLT_ICRT_GetICCInfo", "out", kCardInfoRule, card_info_room},
        {"ICRT_GetICCInfo", "out", kCardInfoRule, card_info_room},
        {"IC_GetInfo_YS", "out", kCardInfoRule, card_info_room},
        {"IC_GetInfo", "out", kCardInfoRule, card_info_room},
        {"KOLT_XML_GetNodeValue", "valueOut", "KOLT_XML_GetNodeValue: valueOut holds strlen(xml) + 1 bytes",
         [](const Slots& a) { return slen(a, "xml") + 1; }},
        {"pack_tlv_data", "out", "pack_tlv_data: out holds the tag, the length bytes and length bytes",
         [](const Slots& a) { return 6 + std::min<long long>(a.get<uint32_t>(3), 128); }},
    };
    return all;
}

// Cases that are not run: the header leaves the argument's bound to the
// caller (an input buffer holds the count the caller gives, ...).
struct CallerRule {
    const char* function;  // nullptr: every function
    const char* param;
    std::vector<Value> values;  // empty: every value
    const char* rule;
    bool simulator_only = false;  // with no device the call returns at once: run there
};
const std::vector<CallerRule>& caller_rules() {
    // A count larger than the buffer it describes: the caller gives the
    // buffer, the count says how much of it there is.
    const std::vector<Value> huge = {Value::v_int_max, Value::v_uint_max};
    static const std::vector<CallerRule> all = {
        {"KOLT_UnBase64", "len", huge, "len, n, size, width: no more than the caller's buffer holds"},
        {"BCDBuf2HexCharBuf", "n", huge, "len, n, size, width: no more than the caller's buffer holds"},
        {"KOLT_buf2HexStrBuf", "n", huge, "len, n, size, width: no more than the caller's buffer holds"},
        {"Decimal2BCDBuf", "width", huge, "len, n, size, width: no more than the caller's buffer holds"},
        {"byteBuf2BCDBuf", "width", huge, "len, n, size, width: no more than the caller's buffer holds"},
        {"KOLT_GetRandByte", "n", huge, "len, n, size, width: no more than the caller's buffer holds"},
        {"count_tlv_substring", "size", huge, "len, n, size, width: no more than the caller's buffer holds"},
        {"KOLT_T41_APDUBuf", "apduLen", huge, "len, n, size, width: no more than the caller's buffer holds"},
        {"KOLT_T41_Exec_Script", "len", huge, "len, n, size, width: no more than the caller's buffer holds"},
        {"KOLT_T41_Exec_MutiScript", "len", huge, "len, n, size, width: no more than the caller's buffer holds"},
        {"KOLT_T41_ParseTagValue", "len", huge, "len, n, size, width: no more than the caller's buffer holds"},
        {"KOLT_gbConvert2idUni", "len", huge, "len, n, size, width: no more than the caller's buffer holds"},
        {"KOLT_GetApduDataFromCDOL", "dolLen", huge, "len, n, size, width: no more than the caller's buffer holds"},
        {"KOLT_SendData", "len", huge, "len, n, size, width: no more than the caller's buffer holds"},
        {"KOLT_writeBuf", "len", huge, "len, n, size, width: no more than the caller's buffer holds"},
        {"KOLT_T41_GetTagValue", "len", huge, "len, n, size, width: no more than the caller's buffer holds"},
        {"parse_tlv_data", "size", huge, "len, n, size, width: no more than the caller's buffer holds"},
        {"parse_tlv_data_t", "size", huge, "len, n, size, width: no more than the caller's buffer holds"},
        {"parse_tlv_data_tmplt", "size", huge, "len, n, size, width: no more than the caller's buffer holds"},
        {"unpack_tlv_data", "size", huge, "len, n, size, width: no more than the caller's buffer holds"},
        // Waits for what the simulated unit never sends.
        {"KOLT_writeBufAndReadFrom100s", "timeoutSec", huge,
         "a huge time-out for an answer that never comes (0x86 frame to a bracket-family unit) waits it out: the caller's choice",
         true},
        {"ARA_EM02_Read", "timeoutSecs", huge,
         "a huge time-out for a packet the module never sends by itself waits it out: the caller's choice", true},
    };
    return all;
}

// ---------------------------------------------------------------------------
// Describing values and results.

const char* describe(Value v) {
    switch (v) {
        case Value::v_null: return "NULL";
        case Value::v_empty: return "\"\"";
        case Value::v_long_text: return "10,000 characters";
        case Value::v_odd_hex: return "odd length \"ABC\"";
        case Value::v_non_hex: return "not hex \"G1ZZ\"";
        case Value::v_bad_letters: return "unknown letters \"a#?~\"";
        case Value::v_minus_one: return "-1";
        case Value::v_uint_max: return "UINT32_MAX";
        case Value::v_zero: return "0";
        case Value::v_int_min: return "INT32_MIN";
        case Value::v_int_max: return "INT32_MAX";
        case Value::v_seven: return "7";
        case Value::v_thousand: return "1000";
        case Value::v_nine: return "9";
        case Value::v_byte_ff: return "0xFF";
        case Value::v_nul_char: return "'\\0'";
        case Value::v_bad_char: return "'#'";
        case Value::v_u64_max: return "UINT64_MAX";
        case Value::v_minus_one_real: return "-1.0";
    }
    return "?";
}

std::string missing_port() { return "kolt-no-such-device-" + std::to_string(::getpid()); }

// ---------------------------------------------------------------------------
// One case in a child process.

struct OutReport {
    int param = -1;
    long long room = -1;       // -1: none stated
    long long changed = 0;     // bytes up to the last one the call changed
    int overflow = 0;
};

struct ChildReport {
    long long ret = 0;
    int too_large = 0;  // a room the caller must give exceeds every buffer: not called
    int outs = 0;
    OutReport out[8];
};

enum class Mode { no_device, simulator };

const Valid* find_valid(const Function& f, const Param& p) {
    const Valid* generic = nullptr;
    for (const Valid& v : kValid) {
        if (std::strcmp(v.param, p.name) != 0) continue;
        if (v.function != nullptr && std::strcmp(v.function, f.name) == 0) return &v;
        if (v.function == nullptr && generic == nullptr) generic = &v;
    }
    return generic;
}

// Inputs in the IC encoding (a letter, a length byte, the value, up to a
// zero letter or 100 fields): the caller zeroes the buffer behind the data.
constexpr std::size_t kIcEncodedZeros = 32 * 1024;
constexpr const char* kIcEncodedRule =
    "IC-encoded transaction data and application data blocks (IC_GenARQC_YS, IC_ARPC_ExeICScript) are read "
    "up to a zero letter: the caller zeroes the buffer behind the data (given 32 KiB of zeros behind every text)";
bool is_ic_encoded(const Function& f, const Param& p) {
    const std::string fn = f.name, n = p.name;
    return (fn == "IC_GenARQC_YS" || fn == "IC_ARPC_ExeICScript") && (n == "trData" || n == "appData") &&
           p.kind != Kind::k_out;
}

bool self_opening(const Function& f) {
    for (const Param& p : f.params) {
        const std::string n = p.name;
        if (p.kind == Kind::k_termtype || n == "ttyName" || n == "portName" || n == "devName" ||
            (n == "port" && p.kind == Kind::k_text) || n == "dataIn")
            return true;
    }
    return std::strcmp(f.name, "KOLT_openCom") == 0 || std::strcmp(f.name, "KOLT_openComOrAux") == 0 ||
           std::strcmp(f.name, "KOLT_connectDevice") == 0;
}

// Calls that finish a transaction: with the simulator, its first half (the
// ARQC) runs before them in the same child, and the application data it
// gives is their default.
std::map<std::string, std::string> first_half(const Function& f) {
    std::map<std::string, std::string> out;
    const std::string n = f.name;
    std::vector<char> field55(8192, 0), app(8192, 0);
    if (n == "KOLT_ICRT_ARPCExeScript" || n == "ICRT_ARPCExeScript" || n == "IC_CtlScriptData") {
        if (KOLT_ICRT_GetARQC(0, 1, 0, "P003100", "", field55.data(), app.data()) == 0) out["appData"] = app.data();
    } else if (n == "IC_ARPC_ExeICScript") {
        std::string tr("P\x03" "100");
        tr.append(kIcEncodedZeros, '\0');
        int32_t kind = 0;
        if (IC_GenARQC_YS(0, tr.data(), "", field55.data(), 0, &kind, app.data()) == 0)
            out["appData"] = std::string(app.data(), KOLT_APPDATA_MAX);
    } else if (n == "STAR_ARPC_ExeICScrip") {
        STAR_GetARQC("a|1|b|", field55.data());
    }
    return out;
}

// Builds the arguments (bad value c for its parameter), calls, checks the
// output buffers. Runs in the child.
ChildReport run_in_child(const Function& f, const Case& c, int null_fd, Mode mode) {
    const std::map<std::string, std::string> given =
        mode == Mode::simulator ? first_half(f) : std::map<std::string, std::string>{};
    std::deque<std::string> texts;
    std::deque<std::vector<uint8_t>> bufs;
    std::deque<int32_t> ints;
    Slots a;
    std::vector<int> out_params;
    const std::string port = gPortName;

    for (int i = 0; i < f.arity; ++i) {
        const Param& p = f.params[static_cast<std::size_t>(i)];
        Slot& s = a.s[static_cast<std::size_t>(i)];
        const Valid* valid = find_valid(f, p);
        const bool bad = c.param == i;
        // IC-encoded data is read up to a zero letter: the caller zeroes the
        // buffer behind the data.
        const bool ic_encoded = is_ic_encoded(f, p);
        auto text = [&](std::string t) {
            if (ic_encoded) t.append(kIcEncodedZeros, '\0');
            texts.push_back(std::move(t));
            s.p = texts.back().data();
        };
        switch (p.kind) {
            case Kind::k_text:
            case Kind::k_hex:
            case Kind::k_letters: {
                std::string def = p.kind == Kind::k_hex ? "0A1B" : p.kind == Kind::k_letters ? "AB" : "1";
                const std::string n = p.name;
                if (n == "ttyName" || n == "portName" || n == "port" || n == "portArg" || n == "devName")
                    def = port;
                if (valid != nullptr && valid->text != nullptr) def = valid->text;
                if (const auto g = given.find(p.name); g != given.end()) def = g->second;
                if (!bad) {
                    text(def);
                } else if (c.value == Value::v_null) {
                    s.p = nullptr;
                } else if (c.value == Value::v_empty) {
                    text("");
                } else if (c.value == Value::v_long_text) {
                    std::string t;
                    const char* unit = p.kind == Kind::k_hex ? "0A" : p.kind == Kind::k_letters ? "AB" : "A";
                    while (t.size() < 10000) t += unit;
                    t.resize(10000);
                    text(t);
                } else if (c.value == Value::v_odd_hex) {
                    text("ABC");
                } else if (c.value == Value::v_non_hex) {
                    text("G1ZZ");
                } else if (c.value == Value::v_bad_letters) {
                    text("a#?~");
                }
                break;
            }
            case Kind::k_out:
                if (bad) {
                    s.p = nullptr;
                } else {
                    bufs.emplace_back(kBuf, 0);
                    s.p = bufs.back().data();
                    out_params.push_back(i);
                }
                break;
            case Kind::k_in:
                if (bad) {
                    s.p = nullptr;
                } else {
                    std::size_t size = kBuf;
                    for (const Room& in : kInputSizes)
                        if (std::strcmp(in.function, f.name) == 0 && std::strcmp(in.param, p.name) == 0)
                            size = static_cast<std::size_t>(in.bytes);
                    bufs.emplace_back(size, 0);
                    s.p = bufs.back().data();
                }
                break;
            case Kind::k_outint:
                if (bad) {
                    s.p = nullptr;
                } else {
                    long long v = std::strcmp(p.name, "icType") == 0 ? 1 : -1;
                    if (valid != nullptr && valid->integer != kNone) v = valid->integer;
                    ints.push_back(static_cast<int32_t>(v));
                    s.p = &ints.back();
                }
                break;
            default: {
                long long v = 1;
                switch (p.kind) {
                    case Kind::k_length: v = 8; break;
                    case Kind::k_timeout: v = 1; break;
                    case Kind::k_termtype: v = 0; break;
                    case Kind::k_port: v = 1; break;
                    case Kind::k_fd: v = null_fd; break;
                    default: break;
                }
                if (valid != nullptr && valid->integer != kNone) v = valid->integer;
                s.d = p.kind == Kind::k_real ? 0.1 : 0;
                if (bad) {
                    switch (c.value) {
                        case Value::v_minus_one: v = -1; break;
                        case Value::v_uint_max: v = UINT32_MAX; break;
                        case Value::v_zero: v = 0; break;
                        case Value::v_int_min: v = INT32_MIN; break;
                        case Value::v_int_max: v = INT32_MAX; break;
                        case Value::v_seven: v = 7; break;
                        case Value::v_thousand: v = 1000; break;
                        case Value::v_nine: v = 9; break;
                        case Value::v_byte_ff: v = 0xFF; break;
                        case Value::v_nul_char: v = 0; break;
                        case Value::v_bad_char: v = '#'; break;
                        case Value::v_u64_max: v = -1; break;  // all bits: UINT64_MAX as uint64_t
                        case Value::v_minus_one_real: s.d = -1.0; break;
                        default: break;
                    }
                }
                s.i = v;
                break;
            }
        }
    }

    // Rooms, canaries and the initial contents of in-place buffers.
    ChildReport r;
    std::vector<std::vector<uint8_t>> before;
    for (int i : out_params) {
        const Param& p = f.params[static_cast<std::size_t>(i)];
        long long room = p.room;
        for (const Room& rm : kRooms)
            if (std::strcmp(rm.function, f.name) == 0 && std::strcmp(rm.param, p.name) == 0) room = rm.bytes;
        g_function = &f;
        for (const CallerRoom& cr : caller_rooms())
            if (cr.bytes && std::strcmp(cr.function, f.name) == 0 && std::strcmp(cr.param, p.name) == 0)
                room = cr.bytes(a);
        if (room > static_cast<long long>(kBuf)) {
            r.too_large = 1;
            return r;
        }
        auto* buf = static_cast<uint8_t*>(a.s[static_cast<std::size_t>(i)].p);
        const std::size_t zeroed = room >= 0 ? static_cast<std::size_t>(std::min<long long>(room, kBuf)) : kBuf - kTail;
        std::memset(buf + zeroed, kCanary, kBuf - zeroed);
        if (const Valid* v = find_valid(f, p); v != nullptr && v->text != nullptr)
            std::memcpy(buf, v->text, std::strlen(v->text) + 1);
        before.emplace_back(buf, buf + kBuf);
        if (r.outs == static_cast<int>(std::size(r.out))) break;
        OutReport& o = r.out[r.outs++];
        o.param = i;
        o.room = room;
    }

    if (::getenv("KOLT_BADARGS_TRACE") != nullptr) {
        std::fprintf(stderr, "call %s, %s = %s\n", f.name, f.params[static_cast<std::size_t>(c.param)].name,
                     describe(c.value));
    }
    r.ret = f.call(a);

    for (int k = 0; k < r.outs; ++k) {
        OutReport& o = r.out[k];
        const auto* buf = static_cast<const uint8_t*>(a.s[static_cast<std::size_t>(o.param)].p);
        const auto& old = before[static_cast<std::size_t>(k)];
        long long last = -1;
        for (std::size_t j = kBuf; j-- > 0;)
            if (buf[j] != old[j]) {
                last = static_cast<long long>(j);
                break;
            }
        o.changed = last + 1;
        const long long limit = o.room >= 0 ? o.room : static_cast<long long>(kBuf - kTail);
        o.overflow = last >= limit ? 1 : 0;
    }
    return r;
}

struct Outcome {
    bool ran = false;
    bool passed = false;
    std::string result;
    std::string verdict;
};


Outcome run_case(const Function& f, const Case& c, Mode mode) {
    Outcome out;
    int fds[2];
    if (::pipe(fds) != 0) {
        out.verdict = "FAIL: no pipe";
        return out;
    }
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::close(fds[0]);
        if (::chdir(g_work.c_str()) != 0) ::_exit(90);
        // Descriptor 0, where the link stays until a port is opened (and
        // after a refused port number), swallows what is written and ends
        // every read at once, as a missing device would.
        if (::dup2(g_null_fd, 0) != 0) ::_exit(90);
        if (mode == Mode::simulator && !self_opening(f)) {
            if (KOLT_initCom(0, "", 1, "") != 0) ::_exit(91);
        }
        if (std::strcmp(f.family, "stripe") == 0) {
            // A stripe read or write waits for a swipe: the caller's other
            // thread gives up, every 0.3 s (the call clears the flag once it
            // has sent its command).
            struct sigaction sa {};
            sa.sa_handler = [](int) { cancelOperation = 1; };
            ::sigaction(SIGALRM, &sa, nullptr);
            itimerval t{};
            t.it_value.tv_usec = 300000;
            t.it_interval.tv_usec = 300000;
            ::setitimer(ITIMER_REAL, &t, nullptr);
        }
        const ChildReport r = run_in_child(f, c, g_null_fd, mode);
        const ssize_t w = ::write(fds[1], &r, sizeof r);
        ::_exit(w == static_cast<ssize_t>(sizeof r) ? 0 : 92);
    }
    ::close(fds[1]);
    out.ran = true;
    const auto start = std::chrono::steady_clock::now();
    ChildReport r;
    std::size_t got = 0;
    bool timed_out = false;
    const auto end = std::chrono::steady_clock::now() + kLimit;
    while (got < sizeof r) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            timed_out = true;
            break;
        }
        pollfd pfd{fds[0], POLLIN, 0};
        const int n = ::poll(&pfd, 1, static_cast<int>(left.count()));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) continue;
        const ssize_t k = ::read(fds[0], reinterpret_cast<char*>(&r) + got, sizeof r - got);
        if (k <= 0) break;
        got += static_cast<std::size_t>(k);
    }
    ::close(fds[0]);
    if (timed_out) ::kill(pid, SIGKILL);
    int status = 0;
    ::waitpid(pid, &status, 0);

    if (timed_out) {
        out.result = "no return within " + std::to_string(kLimit.count()) + " s";
        out.verdict = "FAIL: hang";
        return out;
    }
    if (WIFSIGNALED(status)) {
        out.result = std::string("signal ") + ::strsignal(WTERMSIG(status));
        out.verdict = "FAIL: crash";
        return out;
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0 || got != sizeof r) {
        out.result = "exit status " + std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : -1);
        out.verdict = WIFEXITED(status) && WEXITSTATUS(status) == 91 ? "FAIL: link not opened" : "FAIL: crash";
        return out;
    }
    if (r.too_large) {
        out.passed = true;
        out.result = "not called: the room it needs exceeds any buffer";
        out.verdict = "left to the caller";
        return out;
    }
    std::ostringstream res;
    switch (f.ret) {
        case Return::r_none: res << "returns"; break;
        case Return::r_pointer: res << (r.ret != 0 ? "pointer" : "NULL"); break;
        case Return::r_unsigned32: {
            const auto u = static_cast<uint32_t>(r.ret);
            if (u > 0xFFFF && u >= 0xFFFFFF00u) res << static_cast<int32_t>(u) << " (unsigned)";
            else res << "0x" << std::hex << std::uppercase << u << std::dec;
            break;
        }
        case Return::r_signed32: res << r.ret; break;
    }
    bool overflow = false;
    for (int k = 0; k < r.outs; ++k) {
        const OutReport& o = r.out[k];
        res << "; " << f.params[static_cast<std::size_t>(o.param)].name << ": ";
        if (o.changed == 0) res << "unchanged";
        else res << o.changed << " B";
        if (o.room >= 0) res << " of " << o.room;
        if (o.overflow) overflow = true;
    }
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
    if (ms >= 500) res << "; after " << (ms + 50) / 100 / 10.0 << " s";
    out.result = res.str();
    if (overflow) {
        out.verdict = "FAIL: wrote past the room";
    } else {
        out.passed = true;
        out.verdict = "ok";
    }
    return out;
}

// ---------------------------------------------------------------------------
// The report: every test writes its rows into a file of its own, then joins
// them all into bad_arguments.md (under a lock, as ctest runs tests side by side).

std::string md_cell(std::string s) {
    std::string o;
    for (char ch : s) {
        if (ch == '|') o += "\\|";
        else if (ch == '\n') o += ' ';
        else o += ch;
    }
    return o;
}

std::vector<std::string> families() {
    std::vector<std::string> out;
    for (const Function& f : functions())
        if (std::find(out.begin(), out.end(), f.family) == out.end()) out.push_back(f.family);
    return out;
}

bool talks_to_device(const std::string& family) {
    static const std::set<std::string> s = {"link",     "device", "icc",    "emv",    "cardinfo",
                                            "online",   "idcard", "stripe", "finger", "clerk"};
    return s.count(family) != 0;
}

void write_report(const std::string& family, Mode mode, const std::string& rows) {
    const char* dir = std::getenv("KOLT_REPORT_DIR");
    if (dir == nullptr || *dir == '\0') return;
    const fs::path rows_dir = fs::path(dir) / "bad_arguments.d";
    fs::create_directories(rows_dir);
    const auto fam = families();
    const auto index = std::find(fam.begin(), fam.end(), family) - fam.begin();
    char name[128];
    std::snprintf(name, sizeof name, "%02d-%d-%s.md", static_cast<int>(index), mode == Mode::simulator ? 1 : 0,
                  family.c_str());
    std::ofstream(rows_dir / name) << rows;

    const int lock = ::open((rows_dir / ".lock").c_str(), O_CREAT | O_RDWR, 0644);
    if (lock >= 0) ::flock(lock, LOCK_EX);
    std::vector<fs::path> files;
    for (const auto& e : fs::directory_iterator(rows_dir))
        if (e.path().extension() == ".md") files.push_back(e.path());
    std::sort(files.begin(), files.end());
    std::ostringstream md;
    md << "## Bad arguments\n\n"
       << "Every exported function of kolt.h, every parameter, bad values by the parameter's kind "
          "(generated from the header; the other arguments valid; output buffers of 128 KiB, zero up to "
          "the room the header states and a canary beyond it; an input of a size the header states given exactly "
          "that size), each call in a child process with a limit of "
       << kLimit.count()
       << " s. Device \"none\": gPortName names a missing node under /dev and descriptor 0, where the link "
          "stays for a refused port number, swallows writes and ends reads at once. Device \"simulator\": "
          "the simulator answers (contact card, identity card, stripe card that stays, finger on the "
          "sensor), the link opened first for the calls that work on an open link; a huge time-out there "
          "returns when the answer comes. Stripe reads and writes wait for a swipe: cancelOperation is set "
          "every 0.3 s, as the caller's other thread would. Result: the return value, then per output "
          "buffer the bytes up to the last one the call changed (of its room); calls of 0.5 s or more "
          "give their duration.\n\n"
       << "| function | parameter | value | device | result | verdict |\n"
       << "| --- | --- | --- | --- | --- | --- |\n";
    for (const auto& p : files) md << kolt::test::read_file(p.string());
    md << "\n### Left to the caller\n\n";
    std::set<std::string> seen;
    md << "- " << kIcEncodedRule << "\n";
    md << "- A room the caller gives as a function of the arguments (below) that no buffer can hold: not called.\n";
    for (const CallerRoom& cr : caller_rooms())
        if (*cr.rule != '\0' && seen.insert(cr.rule).second) md << "- " << cr.rule << " (given exactly that room)\n";
    for (const CallerRule& r : caller_rules()) {
        if (!seen.insert(r.rule).second) continue;
        md << "- " << r.rule << " (not called with that value";
        const char* sep = ": ";
        for (const CallerRule& s : caller_rules())
            if (std::strcmp(s.rule, r.rule) == 0) {
                md << sep << s.function << " " << s.param << (s.simulator_only ? " with the simulator" : "");
                sep = ", ";
            }
        md << ")\n";
    }
    const fs::path tmp = fs::path(dir) / ("bad_arguments.md." + std::to_string(::getpid()));
    std::ofstream(tmp) << md.str();
    fs::rename(tmp, fs::path(dir) / "bad_arguments.md");
    if (lock >= 0) ::close(lock);
}

const CallerRule* rule_for(const Function& f, const Case& c, Mode mode) {
    const Param& p = f.params[static_cast<std::size_t>(c.param)];
    for (const CallerRule& r : caller_rules()) {
        if (r.function != nullptr && std::strcmp(r.function, f.name) != 0) continue;
        if (std::strcmp(r.param, p.name) != 0) continue;
        if (!r.values.empty() && std::find(r.values.begin(), r.values.end(), c.value) == r.values.end()) continue;
        if (r.simulator_only && mode != Mode::simulator) continue;
        return &r;
    }
    return nullptr;
}

void run_family(const std::string& family, Mode mode, const std::function<void(const Function&)>& before = {}) {
    std::ostringstream rows;
    int n = 0, failed = 0;
    for (const Function& f : functions()) {
        if (family != f.family) continue;
        if (before) before(f);
        for (const Case& c : f.cases) {
            const Param& p = f.params[static_cast<std::size_t>(c.param)];
            const char* device = mode == Mode::simulator ? "simulator" : "none";
            rows << "| " << f.name << " | " << p.name << " | " << md_cell(describe(c.value)) << " | " << device << " | ";
            if (const CallerRule* r = rule_for(f, c, mode)) {
                rows << "not called: " << md_cell(r->rule) << " | left to the caller |\n";
                continue;
            }
            ++n;
            const Outcome o = run_case(f, c, mode);
            rows << md_cell(o.result) << " | " << o.verdict << " |\n";
            if (!o.passed) {
                ++failed;
                ADD_FAILURE() << f.name << ", " << p.name << " = " << describe(c.value) << " (device " << device
                              << "): " << o.result << " (" << o.verdict << ")";
            }
        }
    }
    write_report(family, mode, rows.str());
    ::testing::Test::RecordProperty("cases", n);
    std::printf("%s (%s): %d cases, %d failed\n", family.c_str(), mode == Mode::simulator ? "simulator" : "no device", n,
                failed);
}

// The test program's working directory for the cases, the missing device,
// the configuration homes pointing at nothing.
class BadArguments : public ::testing::TestWithParam<std::string> {
protected:
    void SetUp() override {
        work_ = std::make_unique<kolt::test::TempDir>();
        g_work = work_->path();
        work_->write("bad-args.src", "kolt bad arguments\n");
        // The clerk server: a port on this machine where nobody listens (the
        // requests fail at connect). The photo decoders of the identity card.
        work_->write("librun/koltt41fp.cfg", "serverip=127.0.0.1\nserverport=1\n");
        for (const char* lib : {"libwlt.so", "libidpic.so"})
            fs::copy_file(fs::path(KOLT_STANDIN_DIR) / lib, work_->path() / lib);
        home_ = std::make_unique<kolt::test::ScopedEnv>("HOME", work_->str());
        dcc_ = std::make_unique<kolt::test::ScopedEnv>("DCCHOME", work_->str());
        g_null_fd = ::open("/dev/null", O_WRONLY);
        ASSERT_GE(g_null_fd, 0);
        std::memset(gPortName, 0, sizeof gPortName);
        std::strncpy(gPortName, missing_port().c_str(), sizeof gPortName - 1);
        ASSERT_FALSE(fs::exists(std::string("/dev/") + gPortName));
    }
    void TearDown() override {
        ::close(g_null_fd);
        g_null_fd = -1;
        dcc_.reset();
        home_.reset();
        work_.reset();
    }

private:
    std::unique_ptr<kolt::test::TempDir> work_;
    std::unique_ptr<kolt::test::ScopedEnv> home_, dcc_;
};

class NoDevice : public BadArguments {};
class WithSimulator : public BadArguments {};

TEST_P(NoDevice, Cases) { run_family(GetParam(), Mode::no_device); }

TEST_P(WithSimulator, Cases) {
    kolt::sim::Options options;
    options.profile.finger.type = "framed";
    options.profile.finger.finger_after_ms = 0;
    options.profile.stripe.card_stays = true;
    kolt::test::ScopedSimulator sim(options);
    for (const auto& card : kolt::test::shipped_cards()) {
        if (!card.contactless) {
            sim->set_contact_card(kolt::test::load_card(card.name));
            break;
        }
    }
    // The EF01 module answers the ARA_EM02_ packets, the framed sensor the rest.
    run_family(GetParam(), Mode::simulator, [&](const Function& f) {
        sim->set_finger_type(std::string_view(f.name).starts_with("ARA_EM02_") ? "ef01" : "framed");
    });
}

std::string family_name(const ::testing::TestParamInfo<std::string>& info) { return info.param; }

std::vector<std::string> device_families() {
    std::vector<std::string> out;
    for (const std::string& f : families())
        if (talks_to_device(f)) out.push_back(f);
    return out;
}

INSTANTIATE_TEST_SUITE_P(BadArguments, NoDevice, ::testing::ValuesIn(families()), family_name);
INSTANTIATE_TEST_SUITE_P(BadArguments, WithSimulator, ::testing::ValuesIn(device_families()), family_name);

}  // namespace

namespace {

// The generated table holds every function the header declares, and at
// least one case for every parameter.
TEST(BadArgumentsTable, EveryFunctionAndParameterOfTheHeader) {
    const char* source = std::getenv("KOLT_TEST_SOURCE_DIR");
    if (source == nullptr) GTEST_SKIP() << "KOLT_TEST_SOURCE_DIR not set";
    std::ifstream header(fs::path(source) / "include/kolt/kolt.h");
    ASSERT_TRUE(header.good());
    std::set<std::string> declared;
    for (std::string line; std::getline(header, line);) {
        if (line.rfind("KOLT_API ", 0) != 0 || line.rfind("KOLT_API extern ", 0) == 0) continue;
        const auto paren = line.find('(');
        ASSERT_NE(paren, std::string::npos) << line;
        auto start = line.find_last_of(" *", paren - 1);
        declared.insert(line.substr(start + 1, paren - start - 1));
    }
    std::set<std::string> generated;
    for (const Function& f : functions()) {
        generated.insert(f.name);
        for (int i = 0; i < f.arity; ++i) {
            const bool covered = std::any_of(f.cases.begin(), f.cases.end(), [i](const Case& c) { return c.param == i; });
            EXPECT_TRUE(covered) << f.name << " " << f.params[static_cast<std::size_t>(i)].name;
        }
    }
    EXPECT_EQ(generated, declared);
    EXPECT_GT(generated.size(), 150u);
}

}  // namespace
