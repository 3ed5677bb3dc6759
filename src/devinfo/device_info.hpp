// The device-information call: which device is attached, asked through a
// JSON request on a numbered local port, answered in JSON.
#pragma once

#include <string>
#include <string_view>

namespace kolt::devinfo {

// Room of the answer, terminator included.
inline constexpr std::size_t kResponseMax = 2048;

// The whole call: log set-up from kolt.ini beside the library, the request
// checked, the device "/dev/COM<port>" opened in local mode, the identity
// module woken, its serial number and the device version read, the link
// closed on every path after it was opened. Returns the answer, success or
// the one error answer; never longer than kResponseMax - 1.
std::string comm_call(std::string_view in_json);

}  // namespace kolt::devinfo
