// kolt-sim: serves a simulated KL560T41 reader on a pseudo-terminal until
// interrupted. See sim/README.md.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <optional>
#include <string>

#include "kolt_sim/card.hpp"
#include "kolt_sim/simulator.hpp"

namespace {

volatile sig_atomic_t g_stop = 0;

void on_signal(int) { g_stop = 1; }

void usage(std::FILE* to) {
    std::fputs(
        "usage: kolt-sim [options]\n"
        "  --profile FILE           device profile (JSON); default: the built-in unit\n"
        "  --contact-card FILE      card profile (JSON) inserted in the contact reader\n"
        "  --contactless-card FILE  card profile (JSON) on the contactless field\n"
        "  --no-id-card             no identity card on the reader\n"
        "  --terminal TYPE[:PORT]   play the teller terminal: type 1..5 or >= 50, aux port 1..4\n"
        "  --ext-file PATH          terminal command file for types >= 50\n"
        "  --pace                   send at the pace of a 9600 baud line\n"
        "  --verbose                log every decoded command to stderr\n"
        "  --port-file PATH         write the gPortName value into PATH\n"
        "  --help                   this text\n",
        to);
}

// What the command line asks for.
struct Args {
    kolt::sim::Options opt;
    std::string contact_file, contactless_file, port_file;
    bool no_id_card = false;
};

// Takes the option argv[i] (and argv[i + 1] as its value when it has one).
// Returns the exit status when the program is to end here.
std::optional<int> take_option(int argc, char** argv, int& i, Args& args) {
    const std::string a = argv[i];
    auto value = [&]() -> std::string {
        if (i + 1 >= argc) {
            std::fprintf(stderr, "kolt-sim: %s needs a value\n", a.c_str());
            std::exit(2);
        }
        return argv[++i];
    };
    if (a == "--profile") {
        args.opt.profile = kolt::sim::load_device_profile(value());
    } else if (a == "--contact-card") {
        args.contact_file = value();
    } else if (a == "--contactless-card") {
        args.contactless_file = value();
    } else if (a == "--no-id-card") {
        args.no_id_card = true;
    } else if (a == "--terminal") {
        const std::string v = value();
        const auto colon = v.find(':');
        args.opt.terminal.type = std::stoi(v.substr(0, colon));
        if (colon != std::string::npos) args.opt.terminal.port = std::stoi(v.substr(colon + 1));
    } else if (a == "--ext-file") {
        args.opt.terminal.ext_file = value();
    } else if (a == "--pace") {
        args.opt.pace = true;
    } else if (a == "--verbose") {
        args.opt.verbose = true;
    } else if (a == "--port-file") {
        args.port_file = value();
    } else if (a == "--help" || a == "-h") {
        usage(stdout);
        return 0;
    } else {
        std::fprintf(stderr, "kolt-sim: unknown option %s\n", a.c_str());
        usage(stderr);
        return 2;
    }
    return std::nullopt;
}

// Returns the exit status when the program is to end without serving.
std::optional<int> parse_args(int argc, char** argv, Args& args) {
    for (int i = 1; i < argc; ++i) {
        try {
            if (const auto status = take_option(argc, argv, i, args)) return status;
        } catch (const std::exception& e) {
            std::fprintf(stderr, "kolt-sim: %s\n", e.what());
            return 2;
        }
    }
    if (args.no_id_card) args.opt.profile.id_answer.clear();
    return std::nullopt;
}

void install_signal_handlers() {
    struct sigaction sa {};
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
}

bool write_port_file(const std::string& path, const std::string& port_name) {
    std::ofstream pf(path, std::ios::trunc);
    pf << port_name << "\n";
    if (!pf) {
        std::fprintf(stderr, "kolt-sim: cannot write %s\n", path.c_str());
        return false;
    }
    return true;
}

// Serves until SIGINT or SIGTERM; returns the exit status.
int serve(const Args& args) {
    kolt::sim::Simulator sim(args.opt);
    if (!args.contact_file.empty()) sim.set_contact_card(kolt::sim::Card::from_file(args.contact_file));
    if (!args.contactless_file.empty())
        sim.set_contactless_card(kolt::sim::Card::from_file(args.contactless_file));
    install_signal_handlers();

    sim.start();
    if (!args.port_file.empty() && !write_port_file(args.port_file, sim.port_name())) return 1;
    std::printf("kolt-sim: serving %s (gPortName=%s)\n", sim.slave_path().c_str(), sim.port_name().c_str());
    std::fflush(stdout);
    while (g_stop == 0) ::pause();
    sim.stop();
    for (const auto& e : sim.terminal_errors()) std::fprintf(stderr, "kolt-sim: terminal: %s\n", e.c_str());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    Args args;
    if (const auto status = parse_args(argc, argv, args)) return *status;
    try {
        return serve(args);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "kolt-sim: %s\n", e.what());
        return 1;
    }
}
