// kolt: the KL560T41 from the command line, for integrators and support
// staff at a teller desk. Global options, the commands, the exit codes.
#include <langinfo.h>

#include <CLI/CLI.hpp>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "cli.hpp"

#ifndef KOLT_CLI_VERSION
#define KOLT_CLI_VERSION "2.0.1"
#endif

using namespace kolt::cli;

namespace {

std::string exit_code_footer() {
    std::string text = "Exit codes:\n";
    for (const ExitCodeText& c : exit_codes()) text += "  " + std::to_string(c.code) + "  " + c.text + "\n";
    text +=
        "\nEnvironment: KOLT_PORT is the port when --port and --port-file are not given.\n"
        "Every command has its own --help; \"man kolt\" (tools/kolt.1) tells more.";
    return text;
}

// Terminal types the library knows: 0 the local serial port, 1..5 the
// built-in teller terminals, 50 and above from the terminal command file.
const CLI::Validator kTerminalType(
    [](std::string& text) -> std::string {
        char* end = nullptr;
        const long v = std::strtol(text.c_str(), &end, 10);
        if (end == text.c_str() || *end != '\0' || v < 0 || (v > 5 && v < 50) || v > 9999)
            return "terminal type must be 0, 1..5 or 50 and above";
        return {};
    },
    "", "terminal type");

}  // namespace

int main(int argc, char** argv) {
    std::setlocale(LC_CTYPE, "");
    Globals g;
    g.utf8_locale = std::string(nl_langinfo(CODESET)) == "UTF-8";

    CLI::App app{"kolt: the KOLT KL560T41 bank-counter peripheral from the command line (libkolt " KOLT_CLI_VERSION ")",
                 "kolt"};
    app.fallthrough();  // global options may also follow the command
    app.require_subcommand(1);
    app.set_version_flag("--version", "kolt " KOLT_CLI_VERSION, "Print the version and exit");
    auto* port = app.add_option("-p,--port", g.port,
                                "Device below /dev: \"/dev/pts/3\", \"pts/3\", \"ttyS0\" (default: $KOLT_PORT)")
                     ->type_name("PORT");
    app.add_option("--port-file", g.port_file, "Read the port name from FILE (waits up to 10 s for it)")
        ->type_name("FILE")
        ->excludes(port);
    app.add_option("-t,--terminal-type", g.terminal_type,
                   "0 local serial port (default), 1..5 teller terminal types, 50+ from the terminal command file")
        ->check(kTerminalType)
        ->type_name("N");
    app.add_option("-n,--port-no", g.port_no, "Numeric port for the calls that take one (default 1), 0..99")
        ->check(CLI::Range(0, 99).description(""))
        ->type_name("N");
    app.add_option("--timeout", g.timeout,
                   "Seconds to wait for a card, a swipe, a finger, 1..86400 (each command has its default)")
        ->check(CLI::Range(1, 86400).description(""))
        ->type_name("SECONDS");
    auto* json = app.add_flag("--json", g.json, "One JSON object on stdout, nothing else (messages go to stderr)");
    app.add_flag("--no-countdown", g.no_countdown, "No countdown, even on a terminal");
    app.footer(exit_code_footer());

    Runner run;
    add_device_command(app, run);
    add_card_commands(app, run);
    add_stripe_command(app, run);
    add_idcard_command(app, run);
    add_finger_commands(app, run);
    add_selftest_command(app, run);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        if (e.get_exit_code() == 0) return app.exit(e);  // --help, --version
        Output out(json->count() > 0);
        return out.fail(Failure{kExitUsage, 0, std::string(e.what()) + " (kolt --help shows the usage)"});
    }
    if (g.port.empty() && g.port_file.empty()) {
        if (const char* env = std::getenv("KOLT_PORT")) g.port = env;
    }

    install_signal_handler();
    Output out(g.json);
    try {
        if (!run) throw Failure{kExitUsage, 0, "no command given (kolt --help lists them)"};
        run(g, out);
        return out.finish();
    } catch (const Failure& f) {
        return out.fail(f);
    }
}
