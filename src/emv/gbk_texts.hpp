// Failure texts the card flows write into the caller's output in place of
// data, in GBK as teller applications display them.
#pragma once

#include <string_view>

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
// 初始换端口错误: the cryptogram call's own spelling, one character off
// the issuer-authentication call's; teller applications compare both.
inline constexpr std::string_view kPortInitErrorArqc =
    "\xB3\xF5\xCA\xBC\xBB\xBB\xB6\xCB\xBF\xDA\xB4\xED\xCE\xF3";
// 初始化端口错误
inline constexpr std::string_view kPortInitError = "\xB3\xF5\xCA\xBC\xBB\xAF\xB6\xCB\xBF\xDA\xB4\xED\xCE\xF3";
// 生成ARQC错误
inline constexpr std::string_view kArqcError = "\xC9\xFA\xB3\xC9\x41\x52\x51\x43\xB4\xED\xCE\xF3";
// 外部认证错误
inline constexpr std::string_view kExternalAuthError = "\xCD\xE2\xB2\xBF\xC8\xCF\xD6\xA4\xB4\xED\xCE\xF3";
// 生成密文错误
inline constexpr std::string_view kCryptogramError = "\xC9\xFA\xB3\xC9\xC3\xDC\xCE\xC4\xB4\xED\xCE\xF3";
// 生成ATC错误
inline constexpr std::string_view kAtcError = "\xC9\xFA\xB3\xC9\x41\x54\x43\xB4\xED\xCE\xF3";
}  // namespace gbk

}  // namespace kolt::emv
