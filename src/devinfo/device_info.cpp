#include "devinfo/device_info.hpp"

#include <array>
#include <cstdint>

#include "device/peripheral.hpp"
#include "devinfo/request.hpp"
#include "kolt/kolt.h"
#include "link/frame.hpp"
#include "link/link_state.hpp"
#include "link/session.hpp"
#include "support/config.hpp"
#include "support/log.hpp"

namespace kolt::devinfo {

namespace {

// Every device step waits at most this long.
constexpr int kStepSeconds = 3;
// Selector of the device version.
constexpr uint8_t kVersionSelector = 4;

std::string bounded(std::string answer) {
    if (answer.size() >= kResponseMax) answer.resize(kResponseMax - 1);
    return answer;
}

// The device part, on a port already named: open, wake, serial number,
// version; the session closes the link on every path.
std::string ask_device(int port) {
    link::Session session = link::open_teller(0, port);
    log::debug_int("DEV_CommCall IC_initCom flag=%d", session.ok() ? 0 : -21);
    if (!session.ok()) return error_response();

    // Only wakes the identity module; what it answers does not matter.
    std::array<uint8_t, link::kReplyMax> wake{};
    (void)device::read_id_card(wake, kStepSeconds);

    std::string serial;
    if (device::get_saimid_str(serial, kStepSeconds) < 0) return error_response();

    std::array<uint8_t, KOLT_VERSION_MAX> version{};
    const int n = device::get_version(kVersionSelector, version, kStepSeconds);
    if (n < 0) return error_response();
    return success_response(serial, std::span<const uint8_t>(version.data(), static_cast<std::size_t>(n)));
}

}  // namespace

std::string comm_call(std::string_view in_json) {
    const std::string dir = config::so_dir();
    log::set_debug_dir(dir + "log");
    log::set_switch(config::ini_int("icc", "log", config::kolt_ini_path()));
    log::debug_int("DEV_CommCall g_nWriteDebugLog=%d", log::switch_value());
    log::debug_text("DEV_CommCall..............%s", "");
    const std::string logged(in_json);
    log::debug_text("DEV_CommCall inJson = %s", logged.c_str());

    const Request request = parse_request(in_json);
    switch (request.status) {
    case Request::Status::not_json:
        return error_response();
    case Request::Status::missing_key:
        log::debug_text("DEV_CommCall Input Param is NULL%s", "");
        return error_response();
    case Request::Status::bad_function:
        log::debug_text("DEV_CommCall FunctionCode or Port Error%s", "");
        return error_response();
    case Request::Status::ok:
        break;
    }
    link::set_port_name("COM" + std::to_string(request.port));
    return bounded(ask_device(request.port));
}

}  // namespace kolt::devinfo
