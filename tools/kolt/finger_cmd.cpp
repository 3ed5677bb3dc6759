// finger and clerk: fingerprint capture and the clerk verification server.
#include <kolt/kolt.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include "cli.hpp"

namespace kolt::cli {

namespace {

constexpr int kDefaultFingerWait = 10;

// KOLT_T41_FP_GenChar.
Failure capture_failure(int32_t rc) {
    switch (rc) {
    case -1: return {kExitNoDevice, rc, "the port could not be opened"};
    case -2: return {kExitNothing, rc, "no finger on the sensor in time"};
    case -3: return {kExitNoDevice, rc, "the fingerprint sensor does not answer"};
    case -4: return {kExitNothing, rc, "the fingerprint module gave no features (no finger in time, or a capture step failed)"};
    default: return {kExitRefused, rc, "the fingerprint capture failed"};
    }
}

void prompt_finger() {
    if (::isatty(STDERR_FILENO) == 1) Output::note("place your finger on the sensor");
}

void run_finger(Globals& g, Output& out) {
    use_port(g);
    const int seconds = g.timeout_or(kDefaultFingerWait);
    std::vector<char> hex(KOLT_FP_FEATURE_HEX_MAX + 1, 0);
    prompt_finger();
    const int32_t rc = call_library(g, Wait{"a finger", seconds, false}, [&] {
        return KOLT_T41_FP_GenChar(g.terminal_type, "", g.port_no, "", 0, hex.data(), seconds);
    });
    if (rc != 0) throw capture_failure(rc);
    const std::string features = hex.data();
    json_int(out.root(), "result", rc);
    json_int(out.root(), "length", static_cast<long long>(features.size() / 2));
    json_string(out.root(), "features", features);
    out.line("feature length: %zu bytes", features.size() / 2);
    out.line("features: %s", features.c_str());
}

// ---------------------------------------------------------------------------
// clerk

struct ClerkOptions {
    std::string bank, clerk, password;
};

// The clerk calls' own codes (below 0); the server's answers are 0 and up.
std::optional<Failure> clerk_call_failure(int32_t rc) {
    switch (rc) {
    case -1: return Failure{kExitServer, rc, "the clerk server could not be reached or did not answer in time"};
    case -2: return Failure{kExitServer, rc, "the clerk server's answer was empty"};
    case -3: return Failure{kExitServer, rc, "the clerk server's answer holds no result"};
    case -5: return Failure{kExitNoDevice, rc, "the fingerprint sensor does not answer"};
    case -6: return Failure{kExitNothing, rc, "no finger was captured in time"};
    case -7: return Failure{kExitServer, rc, "the clerk server's answer holds no password"};
    case -8:
        return Failure{kExitSetup, rc,
                       "no clerk server settings: serverip and serverport in $HOME/librun/koltt41fp.cfg"};
    default: return rc < 0 ? std::optional<Failure>(Failure{kExitServer, rc, "the clerk request failed"}) : std::nullopt;
    }
}

Failure server_refused(int32_t rc, const std::string& what) {
    return {kExitRefused, rc, what + ": the clerk server answered " + std::to_string(rc)};
}

void clerk_json(Output& out, const ClerkOptions& o, int32_t rc) {
    json_int(out.root(), "result", rc);
    json_string(out.root(), "bank", o.bank);
    json_string(out.root(), "clerk", o.clerk);
}

void run_verify(Globals& g, Output& out, const ClerkOptions& o) {
    use_port(g);
    const int seconds = g.timeout_or(kDefaultFingerWait);
    char password[KOLT_CLERK_PASSWORD_MAX] = {0};
    prompt_finger();
    const int32_t rc = call_library(g, Wait{"a finger", seconds, false}, [&] {
        return Verify_clerk_finger(g.terminal_type, "", g.port_no, "", seconds, o.bank.c_str(), o.clerk.c_str(),
                                   password);
    });
    if (auto f = clerk_call_failure(rc)) throw *f;
    clerk_json(out, o, rc);
    if (rc == 1) throw Failure{kExitRefused, rc, "the finger is not clerk " + o.clerk + "'s"};
    if (rc != 0) throw server_refused(rc, "fingerprint check of clerk " + o.clerk);
    json_bool(out.root(), "verified", true);
    json_string(out.root(), "password", password);
    out.line("clerk %s of bank %s: fingerprint verified", o.clerk.c_str(), o.bank.c_str());
    out.line("password: %s", password);
}

// Result codes of the server that are refusals rather than values.
bool server_error(int32_t rc) { return rc >= 90; }

void run_mode(Globals& g, Output& out, const ClerkOptions& o) {
    const int32_t rc = call_library(g, Wait{}, [&] { return QueryClerkMode(o.bank.c_str(), o.clerk.c_str()); });
    if (auto f = clerk_call_failure(rc)) throw *f;
    clerk_json(out, o, rc);
    if (server_error(rc)) throw server_refused(rc, "mode of clerk " + o.clerk);
    json_int(out.root(), "mode", rc);
    out.line("clerk %s of bank %s: verification mode %d", o.clerk.c_str(), o.bank.c_str(), static_cast<int>(rc));
}

void run_password(Globals& g, Output& out, const ClerkOptions& o) {
    const int32_t rc = call_library(g, Wait{}, [&] {
        return RefreshPwd(o.bank.c_str(), o.clerk.c_str(), o.password.c_str());
    });
    if (auto f = clerk_call_failure(rc)) throw *f;
    clerk_json(out, o, rc);
    if (rc != 0) throw server_refused(rc, "password change of clerk " + o.clerk);
    out.line("clerk %s of bank %s: password changed", o.clerk.c_str(), o.bank.c_str());
}

CLI::App* clerk_sub(CLI::App* clerk, const char* name, const char* text, ClerkOptions& o) {
    CLI::App* sub = clerk->add_subcommand(name, text);
    sub->add_option("--bank", o.bank, "Bank code")->required()->type_name("CODE");
    sub->add_option("--clerk", o.clerk, "Clerk number")->required()->type_name("NUM");
    return sub;
}

}  // namespace

void add_finger_commands(CLI::App& app, Runner& run) {
    CLI::App* finger = app.add_subcommand("finger", "Fingerprint capture (KOLT_T41_FP_GenChar): the feature data");
    finger->footer("Waits 10 s for a finger unless --timeout says otherwise. Exit codes: see kolt --help.");
    finger->callback([&run] { run = [](Globals& g, Output& out) { run_finger(g, out); }; });

    CLI::App* clerk = app.add_subcommand("clerk", "Clerk verification server: fingerprint check, mode, password");
    clerk->require_subcommand(1);
    clerk->footer(
        "The server is the one named by serverip and serverport in $HOME/librun/koltt41fp.cfg. Exit codes: see kolt "
        "--help.");
    {
        auto o = std::make_shared<ClerkOptions>();
        CLI::App* sub = clerk_sub(clerk, "verify", "Capture a finger and check it with the server (Verify_clerk_finger)", *o);
        sub->footer("Waits 10 s for a finger unless --timeout says otherwise.");
        sub->callback([&run, o] { run = [o](Globals& g, Output& out) { run_verify(g, out, *o); }; });
    }
    {
        auto o = std::make_shared<ClerkOptions>();
        CLI::App* sub = clerk_sub(clerk, "mode", "The clerk's verification mode (QueryClerkMode)", *o);
        sub->callback([&run, o] { run = [o](Globals& g, Output& out) { run_mode(g, out, *o); }; });
    }
    {
        auto o = std::make_shared<ClerkOptions>();
        CLI::App* sub = clerk_sub(clerk, "password", "Change the clerk's password (RefreshPwd)", *o);
        sub->add_option("--new", o->password, "The new password")->required()->type_name("PWD");
        sub->callback([&run, o] { run = [o](Globals& g, Output& out) { run_password(g, out, *o); }; });
    }
}

}  // namespace kolt::cli
