// Clerk verification: the three requests of the verification server
// (verification mode, password change, fingerprint check) over one
// short-lived TCP connection each, and what each returns.
//
// The fingerprint capture and the server settings come through two
// replaceable sources: by default the fingerprint layer's capture
// (finger::gen_char) and its reader of $HOME/librun/koltt41fp.cfg
// (finger::read_cfg); tests put their own in.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace kolt::clerk {

// The network time-out of the entry points.
inline constexpr int kNetTimeoutSecs = 20;
// Room of the password returned by a fingerprint check (KOLT_CLERK_PASSWORD_MAX).
inline constexpr std::size_t kPasswordRoom = 64;

// What the capture is asked with: the device port as the fingerprint
// capture takes it, its fifth argument (3 for the clerk check) and the
// capture time-out.
struct CaptureArgs {
    int32_t term_type = 0;
    std::string port_arg;
    int32_t port = 0;
    std::string aux_arg;
    int32_t a5 = 3;
    int32_t timeout_secs = 0;
};
// The capture's code (0 or negative, as KOLT_T41_FP_GenChar) and, on 0,
// the feature data as hexadecimal text.
struct Capture {
    int32_t code = -3;
    std::string feature_hex;
};
using FeatureSource = std::function<Capture(const CaptureArgs&)>;

// The server settings: code 0, -1 "serverip" missing, -2 "serverport"
// missing (as KOLT_T41_FP_ReadCfg).
struct ServerSettings {
    int32_t code = 0;
    std::string ip;
    int32_t port = 0;
};
using SettingsSource = std::function<ServerSettings()>;

// Installs a capture (an empty function: the fingerprint layer's again).
void set_feature_source(FeatureSource source);
// Installs a settings reader (an empty function: the fingerprint layer's
// again).
void set_settings_source(SettingsSource source);
// Both sources back to their defaults.
void reset();

// Verify_clerk_finger. 0 or the server's "result", with the clerk's
// password (cut to kPasswordRoom - 1 characters); -1 network, -2 empty
// answer, -3 no result, -5 capture: exchange or unknown sensor, -6 capture:
// other, -7 no response or password, -8 no server settings. The password
// is taken whenever the answer has one and a "result" element (so also
// with -3 for an empty result).
struct Verification {
    int32_t code = 0;
    std::optional<std::string> password;
};
Verification verify_clerk_finger(const CaptureArgs& capture, std::string_view bank_code, std::string_view clerk_num,
                                 int timeout_secs = kNetTimeoutSecs);

// QueryClerkMode: the server's "msgflagresult"; -1, -2, -3, -8 as above.
int32_t query_clerk_mode(std::string_view bank_code, std::string_view clerk_num, int timeout_secs = kNetTimeoutSecs);

// RefreshPwd: the server's "updatepwdresult"; -1, -2, -3, -8 as above.
int32_t refresh_pwd(std::string_view bank_code, std::string_view clerk_num, std::string_view new_password,
                    int timeout_secs = kNetTimeoutSecs);

// The clerk service's log directory: "logdir" of the configuration file,
// "/tmp" when it cannot be read.
std::string log_dir();

}  // namespace kolt::clerk
