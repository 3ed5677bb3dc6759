#include "clerk/clerk.hpp"

#include <cstdlib>
#include <mutex>
#include <utility>

#include "clerk/net.hpp"
#include "clerk/xml.hpp"
#include "finger/finger.hpp"
#include "support/config.hpp"
#include "support/keyvalue.hpp"
#include "support/log.hpp"

namespace kolt::clerk {

namespace {

constexpr std::string_view kStartMark = "<?xml";
constexpr std::string_view kEndMark = "</koltes>";

std::mutex g_mutex;
FeatureSource g_feature;
SettingsSource g_settings;

// The fingerprint layer's capture and settings.
Capture sensor_capture(const CaptureArgs& a) {
    const finger::Capture c = finger::gen_char(a.term_type, a.port_arg, a.port, a.aux_arg, a.timeout_secs);
    return {c.code, c.hex};
}

ServerSettings settings_file() {
    const finger::ServerConfig c = finger::read_cfg();
    return {c.code, c.ip, c.port};
}

FeatureSource feature_source() {
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_feature ? g_feature : FeatureSource(sensor_capture);
}

SettingsSource settings_source() {
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_settings ? g_settings : SettingsSource(settings_file);
}

// One line in the clerk service's log (its own directory), when logging is on.
void note(const char* format, const std::string& text) {
    if (log::switch_value() == 0) return;
    log::write_entry(log::file_in(log_dir()).c_str(), format, text.c_str(), 0);
}

// Steps common to the three requests: settings, exchange. 0 with the
// answer, or -8, -1, -2.
struct Exchange {
    int32_t code = 0;
    std::string answer;
};
Exchange exchange(const std::string& request, int timeout_secs) {
    const ServerSettings s = settings_source()();
    if (s.code != 0) return {-8, {}};
    const Answer a = write_and_read(s.ip, s.port, request, kStartMark, kEndMark, timeout_secs);
    if (a.code < 0) return {-1, {}};
    if (a.text.empty()) return {-2, {}};
    return {0, a.text};
}

// A decimal result element: its atoi, or -3 when missing or empty.
int32_t result_of(const std::string& answer, std::string_view name) {
    const Node n = node_value(answer, name);
    if (n.code != 0 || n.value.empty()) return -3;
    return std::atoi(std::string(n.value).c_str());
}

int32_t simple_request(const char* what, std::string_view bank_code, std::string_view clerk_num,
                       std::string_view password, std::string_view flag, std::string_view result_name,
                       int timeout_secs) {
    log_dir();
    note("%s begin...", what);
    const std::string request = envelope({bank_code, clerk_num, "", "", "", password, flag});
    const Exchange e = exchange(request, timeout_secs);
    if (e.code != 0) return e.code;
    note(what == std::string_view("QueryClerkMode") ? "QueryClerkMode readXmlBuf =%s" : "RefreshPwd readXmlBuf =%s",
         e.answer);
    return result_of(e.answer, result_name);
}

}  // namespace

void set_feature_source(FeatureSource source) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_feature = std::move(source);
}

void set_settings_source(SettingsSource source) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_settings = std::move(source);
}

void reset() {
    set_feature_source({});
    set_settings_source({});
}

std::string log_dir() {
    std::string dir;
    if (config::value_from_file(config::home_config_path(), "logdir", dir) != 0) dir = "/tmp";
    return dir;
}

Verification verify_clerk_finger(const CaptureArgs& capture, std::string_view bank_code, std::string_view clerk_num,
                                 int timeout_secs) {
    log_dir();
    note("%s", "Verify_clerk_finger begin...");
    const Capture c = feature_source()(capture);
    if (c.code == -3) return {-5, {}};
    if (c.code < 0) return {-6, {}};
    const std::string request = envelope({bank_code, clerk_num, "", "", c.feature_hex, "", kFlagVerifyFinger});
    const Exchange e = exchange(request, timeout_secs);
    if (e.code != 0) return {e.code, {}};
    note("Verify_clerk_finger readXmlBuf =%s", e.answer);
    const Node result = node_value(e.answer, "result");
    if (result.code != 0) return {-3, {}};
    const Node response = node_value(e.answer, "response");
    if (response.code != 0) return {-7, {}};
    const Node password = node_value(response.value, "password");
    if (password.code != 0) return {-7, {}};
    Verification v;
    v.password = std::string(password.value.substr(0, kPasswordRoom - 1));
    v.code = result.value.empty() ? -3 : std::atoi(std::string(result.value).c_str());
    return v;
}

int32_t query_clerk_mode(std::string_view bank_code, std::string_view clerk_num, int timeout_secs) {
    return simple_request("QueryClerkMode", bank_code, clerk_num, "", kFlagQueryMode, "msgflagresult", timeout_secs);
}

int32_t refresh_pwd(std::string_view bank_code, std::string_view clerk_num, std::string_view new_password,
                    int timeout_secs) {
    return simple_request("RefreshPwd", bank_code, clerk_num, new_password, kFlagChangePassword, "updatepwdresult",
                          timeout_secs);
}

}  // namespace kolt::clerk
