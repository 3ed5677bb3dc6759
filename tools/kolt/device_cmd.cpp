// device: brand, library version, model, serial number and firmware
// version of the reader.
#include <kolt/kolt.h>

#include <CLI/CLI.hpp>
#include <cstring>

#include "cli.hpp"

namespace kolt::cli {

namespace {

constexpr const char* kBrand = "KOLT";
constexpr const char* kLibraryVersion = "2.0.1";
constexpr const char* kModel = "KL560T41";
constexpr uint32_t kCallSeconds = 3;

struct DeviceOptions {
    std::optional<int> com;
};

// The device information in the order of its JSON keys.
struct DeviceInfo {
    std::string error_code = "0";
    std::string error_message = "success";
    std::string production_date, serial, version;
};

// Serial number: the module's serial text carries it in 10 characters from
// its character 15 (when it has at least 25), the production date in the 8
// from character 6.
std::string serial_of(const std::string& text) { return text.size() >= 25 ? text.substr(15, 10) : ""; }
std::string date_of(const std::string& text) { return text.size() >= 14 ? text.substr(6, 8) : ""; }

// The same request through the exported commands.
DeviceInfo ask_device(const Globals& g) {
    int32_t open_rc = 0, serial_rc = 0, version_rc = 0;
    std::string serial_text, version;
    call_library(g, Wait{}, [&]() -> int32_t {
        open_rc = IC_initCom(g.terminal_type, g.port_no);
        if (open_rc != 0) return open_rc;
        std::vector<uint8_t> reply(KOLT_T41_REPLY_MAX, 0);
        KOLT_T41_ReadIDCard(reply.data(), kCallSeconds);  // wakes the identity module
        char serial[KOLT_SAIMID_TEXT_MAX] = {0};
        serial_rc = KOLT_T41_GetSAIMIDStr(serial, kCallSeconds);
        if (serial_rc >= 0) serial_text = serial;
        uint8_t buf[KOLT_VERSION_MAX] = {0};
        version_rc = KOLT_T41_GetVersion(4, buf, kCallSeconds);
        if (version_rc > 0) version.assign(reinterpret_cast<const char*>(buf), static_cast<size_t>(version_rc));
        IC_CloseCom(g.terminal_type, g.port_no);
        return 0;
    });
    if (open_rc != 0) throw Failure{kExitNoDevice, open_rc, "the port could not be opened"};
    if (serial_rc == Lenth_Error && version_rc == Lenth_Error)
        throw Failure{kExitNoDevice, version_rc, "the device does not answer"};
    DeviceInfo info;
    info.serial = serial_of(serial_text);
    info.production_date = date_of(serial_text);
    if (version.size() > 17) info.version = version.substr(version.size() - 5);
    if (version_rc < 0 && serial_rc < 0) throw Failure{kExitRefused, version_rc, "the device refused the version and serial queries"};
    return info;
}

void print_info(Output& out, const DeviceInfo& info) {
    cJSON* r = out.root();
    json_string(r, "ErrorCode", info.error_code);
    json_string(r, "ErrorMessage", info.error_message);
    json_string(r, "DeviceBrand", kBrand);
    json_string(r, "DllVersion", kLibraryVersion);
    json_string(r, "ProductionDate", info.production_date);
    json_string(r, "DeviceSN", info.serial);
    json_string(r, "DeviceVersion", info.version);
    json_string(r, "DeviceModel", kModel);
    out.line("%-18s %s", "brand:", kBrand);
    out.line("%-18s %s", "library version:", kLibraryVersion);
    out.line("%-18s %s", "model:", kModel);
    out.line("%-18s %s", "serial number:", info.serial.c_str());
    out.line("%-18s %s", "production date:", info.production_date.c_str());
    out.line("%-18s %s", "firmware version:", info.version.c_str());
}

void run_device(Globals& g, Output& out, const DeviceOptions& o) {
    use_port(g);
    (void)o;
    print_info(out, ask_device(g));
}

}  // namespace

void add_device_command(CLI::App& app, Runner& run) {
    auto o = std::make_shared<DeviceOptions>();
    CLI::App* sub = app.add_subcommand("device", "Device information: brand, library version, model, serial number, version");
    sub->callback([&run, o] { run = [o](Globals& g, Output& out) { run_device(g, out, *o); }; });
}

}  // namespace kolt::cli
