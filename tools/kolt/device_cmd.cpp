// device: brand, library version, model, serial number and version of the
// reader, through DEV_CommCall for a /dev/COM<N> port, else through the
// exported device commands on the port named.
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

struct DeviceInfo {
    std::string serial, version;
};

// The serial number: 10 characters of the identity module's serial text
// from its character 15, when it has at least 25.
std::string serial_of(const std::string& text) { return text.size() >= 25 ? text.substr(15, 10) : ""; }

// The version: the last 5 bytes of the version text when it is longer than
// 17 bytes (up to a zero byte among them).
std::string version_of(const std::string& text) {
    if (text.size() <= 17) return "";
    const std::string last = text.substr(text.size() - 5);
    return last.substr(0, last.find('\0'));
}

// The request DEV_CommCall makes, through the exported commands.
DeviceInfo ask_device(const Globals& g) {
    int32_t open_rc = 0, serial_rc = 0, version_rc = 0;
    std::string serial_text, version;
    call_library(g, Wait{}, [&]() -> int32_t {
        open_rc = IC_initCom(g.terminal_type, g.port_no);
        if (open_rc != 0) return open_rc;
        std::vector<uint8_t> reply(KOLT_T41_REPLY_MAX, 0);
        KOLT_T41_ReadIDCard(reply.data(), kCallSeconds);  // only wakes the identity module
        char serial[KOLT_SAIMID_TEXT_MAX] = {0};
        serial_rc = KOLT_T41_GetSAIMIDStr(serial, kCallSeconds);
        if (serial_rc >= 0) {
            serial_text = serial;
            uint8_t buf[KOLT_VERSION_MAX] = {0};
            version_rc = KOLT_T41_GetVersion(4, buf, kCallSeconds);
            if (version_rc > 0) version.assign(reinterpret_cast<const char*>(buf), static_cast<size_t>(version_rc));
        }
        IC_CloseCom(g.terminal_type, g.port_no);
        return 0;
    });
    if (open_rc != 0) throw Failure{kExitNoDevice, open_rc, "the port could not be opened"};
    for (const int32_t rc : {serial_rc, version_rc}) {
        if (rc == Lenth_Error) throw Failure{kExitNoDevice, rc, "the device does not answer"};
        if (rc < 0) throw Failure{kExitRefused, rc, "the device refused the serial number or version query"};
    }
    return DeviceInfo{serial_of(serial_text), version_of(version)};
}

void show(Output& out, const char* label, const std::string& value) {
    out.line("%-17s %s", label, value.empty() ? "(none)" : value.c_str());
}

void print_info(Output& out, const DeviceInfo& info) {
    cJSON* r = out.root();
    json_string(r, "ErrorCode", "0");
    json_string(r, "ErrorMessage", "success");
    json_string(r, "DeviceBrand", kBrand);
    json_string(r, "DllVersion", kLibraryVersion);
    json_string(r, "ProductionDate", "");
    json_string(r, "DeviceSN", info.serial);
    json_string(r, "DeviceVersion", info.version);
    json_string(r, "DeviceModel", kModel);
    show(out, "brand:", kBrand);
    show(out, "library version:", kLibraryVersion);
    show(out, "model:", kModel);
    show(out, "serial number:", info.serial);
    show(out, "version:", info.version);
}

// DEV_CommCall, which opens /dev/COM<n> itself.
void comm_call(Globals& g, Output& out, int n) {
    g.port = "COM" + std::to_string(n);
    g.port_file.clear();
    const int terminal_type = g.terminal_type;
    g.terminal_type = 0;  // DEV_CommCall always uses the local port
    use_port(g);
    g.terminal_type = terminal_type;
    const std::string request = R"({"FunctionCode":"0001","RequestPort":")" + std::to_string(n) +
                                R"(","RequestBaudRate":"9600","RequestTimeOut":"3"})";
    std::vector<char> answer(KOLT_DEVINFO_RESPONSE_MAX + 1, 0);
    int32_t len = 0;
    call_library(g, Wait{}, [&] { return DEV_CommCall(request.c_str(), nullptr, answer.data(), &len); });
    const std::string text(answer.data());

    cJSON* parsed = cJSON_Parse(text.c_str());
    if (parsed == nullptr) throw Failure{kExitRefused, 0, "DEV_CommCall gave no JSON answer"};
    auto text_of = [&](const char* key) {
        const cJSON* item = cJSON_GetObjectItemCaseSensitive(parsed, key);
        return cJSON_IsString(item) ? std::string(item->valuestring) : std::string();
    };
    const std::string code = text_of("ErrorCode");
    if (code != "0") {
        // The answer goes out as it came, with the failure added.
        for (cJSON* item = parsed->child; item != nullptr;) {
            cJSON* next = item->next;
            cJSON_AddItemToObject(out.root(), item->string, cJSON_Duplicate(item, 1));
            item = next;
        }
        const std::string message = text_of("ErrorMessage");
        cJSON_Delete(parsed);
        throw Failure{kExitNoDevice, std::atoi(code.c_str()),
                      "DEV_CommCall answered ErrorCode " + code + " (" + message +
                          "): the device on /dev/COM" + std::to_string(n) + " does not answer"};
    }
    out.json_as_is(text);
    DeviceInfo info{text_of("DeviceSN"), text_of("DeviceVersion")};
    show(out, "brand:", text_of("DeviceBrand"));
    show(out, "library version:", text_of("DllVersion"));
    show(out, "model:", text_of("DeviceModel"));
    show(out, "serial number:", info.serial);
    show(out, "version:", info.version);
    cJSON_Delete(parsed);
}

void run_device(Globals& g, Output& out, const DeviceOptions& o) {
    std::optional<int> com = o.com;
    if (!com && g.port_file.empty()) com = com_port_number(g.port);
    if (com) return comm_call(g, out, *com);
    use_port(g);
    if (auto n = com_port_number(g.port)) return comm_call(g, out, *n);  // named in the port file
    print_info(out, ask_device(g));
}

}  // namespace

void add_device_command(CLI::App& app, Runner& run) {
    auto o = std::make_shared<DeviceOptions>();
    CLI::App* sub = app.add_subcommand(
        "device", "Device information: brand, library version, model, serial number, version (DEV_CommCall for COMn)");
    sub->add_option("--com", o->com,
                    "Ask DEV_CommCall for the device on /dev/COM<N> (also done for a port named COMn or /dev/COMn)")
        ->check(CLI::Range(1, 8).description(""))
        ->type_name("N");
    sub->footer(
        "With --com N, or a port COMn, DEV_CommCall answers (it opens /dev/COM<N> itself); with any other port the "
        "same request goes through the exported device commands. --json prints the object with DEV_CommCall's "
        "keys. Exit codes: see kolt --help.");
    sub->callback([&run, o] { run = [o](Globals& g, Output& out) { run_device(g, out, *o); }; });
}

}  // namespace kolt::cli
