// kolt-sim: serves a simulated KL560T41 reader on a pseudo-terminal until
// interrupted. See sim/README.md.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
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

}  // namespace

int main(int argc, char** argv) {
    kolt::sim::Options opt;
    std::string contact_file, contactless_file, port_file;
    bool no_id_card = false;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc) {
                std::fprintf(stderr, "kolt-sim: %s needs a value\n", a.c_str());
                std::exit(2);
            }
            return argv[++i];
        };
        try {
            if (a == "--profile") {
                opt.profile = kolt::sim::load_device_profile(value());
            } else if (a == "--contact-card") {
                contact_file = value();
            } else if (a == "--contactless-card") {
                contactless_file = value();
            } else if (a == "--no-id-card") {
                no_id_card = true;
            } else if (a == "--terminal") {
                const std::string v = value();
                const auto colon = v.find(':');
                opt.terminal.type = std::stoi(v.substr(0, colon));
                if (colon != std::string::npos) opt.terminal.port = std::stoi(v.substr(colon + 1));
            } else if (a == "--ext-file") {
                opt.terminal.ext_file = value();
            } else if (a == "--pace") {
                opt.pace = true;
            } else if (a == "--verbose") {
                opt.verbose = true;
            } else if (a == "--port-file") {
                port_file = value();
            } else if (a == "--help" || a == "-h") {
                usage(stdout);
                return 0;
            } else {
                std::fprintf(stderr, "kolt-sim: unknown option %s\n", a.c_str());
                usage(stderr);
                return 2;
            }
        } catch (const std::exception& e) {
            std::fprintf(stderr, "kolt-sim: %s\n", e.what());
            return 2;
        }
    }
    if (no_id_card) opt.profile.id_answer.clear();

    try {
        kolt::sim::Simulator sim(opt);
        if (!contact_file.empty()) sim.set_contact_card(kolt::sim::Card::from_file(contact_file));
        if (!contactless_file.empty()) sim.set_contactless_card(kolt::sim::Card::from_file(contactless_file));

        struct sigaction sa {};
        sa.sa_handler = on_signal;
        sigemptyset(&sa.sa_mask);
        sigaction(SIGINT, &sa, nullptr);
        sigaction(SIGTERM, &sa, nullptr);

        sim.start();
        if (!port_file.empty()) {
            std::ofstream pf(port_file, std::ios::trunc);
            pf << sim.port_name() << "\n";
            if (!pf) {
                std::fprintf(stderr, "kolt-sim: cannot write %s\n", port_file.c_str());
                return 1;
            }
        }
        std::printf("kolt-sim: serving %s (gPortName=%s)\n", sim.slave_path().c_str(), sim.port_name().c_str());
        std::fflush(stdout);
        while (g_stop == 0) ::pause();
        sim.stop();
        for (const auto& e : sim.terminal_errors()) std::fprintf(stderr, "kolt-sim: terminal: %s\n", e.c_str());
    } catch (const std::exception& e) {
        std::fprintf(stderr, "kolt-sim: %s\n", e.what());
        return 1;
    }
    return 0;
}
