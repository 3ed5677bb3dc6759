// kolt-sim: serves a simulated KL560T41 reader on a pseudo-terminal until
// interrupted; or, in front of a real reader, records the session that goes
// over the line (--proxy), or plays a recorded session back (--replay).
// See sim/README.md.
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "kolt_sim/card.hpp"
#include "kolt_sim/idcard.hpp"
#include "kolt_sim/session.hpp"
#include "kolt_sim/simulator.hpp"

namespace {

volatile sig_atomic_t g_stop = 0;
volatile sig_atomic_t g_swipes = 0;  // SIGUSR1s not yet turned into swipes

void on_signal(int) { g_stop = 1; }
void on_swipe_signal(int) { g_swipes = g_swipes + 1; }

void usage(std::FILE* to) {
    std::fputs(
        "usage: kolt-sim [options]\n"
        "  --profile FILE|NAME      device profile (JSON), or the NAME of a shipped one\n"
        "                           (e.g. stripe_demo); default: the built-in unit\n"
        "  --contact-card FILE      card profile (JSON) inserted in the contact reader\n"
        "  --contactless-card FILE  card profile (JSON) on the contactless field\n"
        "  --id-card FILE           the identity card (JSON card file) on the reader\n"
        "  --no-id-card             no identity card on the reader\n"
        "  --terminal TYPE[:PORT]   play the teller terminal: type 1..5 or >= 50, aux port 1..4\n"
        "  --ext-file PATH          terminal command file for types >= 50\n"
        "  --pace                   a 9600 baud 8N1 line both ways (about 1.04 ms a byte): replies\n"
        "                           go out at that pace, and a command counts as received (and is\n"
        "                           answered) only once its bytes could have crossed the line\n"
        "  --verbose                log every decoded command to stderr\n"
        "  --port-file PATH         write the gPortName value into PATH\n"
        "  --stripe-card FILE       the stripe card (JSON) a swipe by hand uses\n"
        "  --stripe-stays           the stripe card stays: every read is answered with it\n"
        "  --interactive            read commands (swipe, status, help) from standard input;\n"
        "                           the default when standard input is a terminal\n"
        "  --no-interactive         do not read standard input\n"
        "\n"
        "recording and replaying a field session (sim/README.md):\n"
        "  --proxy DEVICE           do not simulate: forward the line to the reader on DEVICE\n"
        "                           (e.g. /dev/ttyUSB0, raw 9600 baud 8N1) and back\n"
        "  --record FILE            with --proxy: record every chunk with its direction and time\n"
        "  --replay FILE            do not simulate: answer from the recorded session FILE\n"
        "  --replay-speed X         multiply the recorded delays by X (0: at once; default 1)\n"
        "  --replay-exit-at-end     exit once the last exchange is answered and the line is quiet\n"
        "  (--port-file and --verbose apply to both; exit status 4: the replay found differences)\n"
        "  --help                   this text\n",
        to);
}

// The file of a --profile argument. An argument that names no file here and
// has no "/" in it is the name of a shipped profile ("stripe_demo" or
// "stripe_demo.json"): an installed kolt-sim keeps them in
// KOLT_SIM_SHIPPED_PROFILES, relative to the directory of the program
// (bin/../share/kolt/sim/profiles), so an installed tree can be moved.
std::string profile_path(const std::string& arg) {
#ifdef KOLT_SIM_SHIPPED_PROFILES
    if (arg.empty() || arg.find('/') != std::string::npos || ::access(arg.c_str(), F_OK) == 0) return arg;
    char exe[4096];
    const ssize_t n = ::readlink("/proc/self/exe", exe, sizeof exe - 1);
    if (n <= 0) return arg;
    std::string dir(exe, static_cast<std::size_t>(n));
    dir.erase(dir.rfind('/') + 1);
    const std::string shipped = dir + KOLT_SIM_SHIPPED_PROFILES + "/" + arg;
    for (const std::string& candidate : {shipped, shipped + ".json"}) {
        if (::access(candidate.c_str(), R_OK) == 0) return candidate;
    }
#endif
    return arg;
}

// What the command line asks for.
struct Args {
    kolt::sim::Options opt;
    std::string contact_file, contactless_file, port_file, id_card_file;
    bool no_id_card = false;
    std::optional<bool> interactive;  // unset: when standard input is a terminal
    // Field sessions: the reader's line and the file to record into, or the
    // file to play back.
    std::string proxy_device, record_file, replay_file;
    double replay_speed = 1.0;
    bool replay_exit_at_end = false;
    // Options of the simulated reader that were given (they do not apply
    // to a proxy or a replay).
    std::vector<std::string> simulation_options;
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
    static const char* const kSimulationOnly[] = {
        "--profile",      "--contact-card", "--contactless-card", "--id-card",     "--no-id-card",
        "--terminal",     "--ext-file",     "--pace",             "--stripe-card", "--stripe-stays",
        "--interactive"};
    for (const char* o : kSimulationOnly)
        if (a == o) args.simulation_options.push_back(a);
    if (a == "--profile") {
        args.opt.profile = kolt::sim::load_device_profile(profile_path(value()));
    } else if (a == "--contact-card") {
        args.contact_file = value();
    } else if (a == "--contactless-card") {
        args.contactless_file = value();
    } else if (a == "--id-card") {
        args.id_card_file = value();
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
    } else if (a == "--stripe-card") {
        args.opt.profile.stripe.card = kolt::sim::load_stripe_card(value());
    } else if (a == "--stripe-stays") {
        args.opt.profile.stripe.card_stays = true;
    } else if (a == "--interactive") {
        args.interactive = true;
    } else if (a == "--no-interactive") {
        args.interactive = false;
    } else if (a == "--proxy") {
        args.proxy_device = value();
    } else if (a == "--record") {
        args.record_file = value();
    } else if (a == "--replay") {
        args.replay_file = value();
    } else if (a == "--replay-speed") {
        const std::string v = value();
        char* end = nullptr;
        args.replay_speed = std::strtod(v.c_str(), &end);
        if (v.empty() || *end != '\0' || !(args.replay_speed >= 0)) {
            std::fprintf(stderr, "kolt-sim: --replay-speed takes a number of 0 or more, not %s\n", v.c_str());
            return 2;
        }
    } else if (a == "--replay-exit-at-end") {
        args.replay_exit_at_end = true;
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

// The options of field sessions go together; returns 2 when they do not.
std::optional<int> check_session_options(const Args& args) {
    auto bad = [](const char* text) {
        std::fprintf(stderr, "kolt-sim: %s\n", text);
        return std::optional<int>(2);
    };
    const bool proxy = !args.proxy_device.empty(), replay = !args.replay_file.empty();
    if (proxy && replay) return bad("--proxy and --replay do not go together");
    if (!args.record_file.empty() && !proxy) return bad("--record needs --proxy");
    if (!replay && (args.replay_exit_at_end || args.replay_speed != 1.0))
        return bad("--replay-speed and --replay-exit-at-end need --replay");
    if ((proxy || replay) && !args.simulation_options.empty()) {
        std::fprintf(stderr, "kolt-sim: %s simulates nothing: %s does not apply\n", proxy ? "--proxy" : "--replay",
                     args.simulation_options.front().c_str());
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
    if (const auto status = check_session_options(args)) return status;
    // The card file goes over the profile's card, whatever the order.
    if (!args.id_card_file.empty()) {
        try {
            args.opt.profile.id_answer = kolt::sim::make_id_card_answer(kolt::sim::load_id_card(args.id_card_file));
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
    sa.sa_handler = on_swipe_signal;
    sigaction(SIGUSR1, &sa, nullptr);
    // Started in the background of a shell, a read of the terminal fails
    // instead of stopping the program.
    sa.sa_handler = SIG_IGN;
    sigaction(SIGTTIN, &sa, nullptr);
}

// --- the prompt ------------------------------------------------------------------

const char kPromptHelp[] =
    "commands:\n"
    "  swipe [TRACK2 [TRACK3]]  swipe the profile's card, or a card with these tracks\n"
    "                           (\"-\" for a track without data)\n"
    "  swipe-empty              swipe a card with nothing on it\n"
    "  swipe-again              swipe the card last read or written once more\n"
    "  card-stays on|off        the profile's card stays and answers every read\n"
    "  no-swipe                 forget the swipes not taken yet\n"
    "  write-fails on|off       writes to the card fail\n"
    "  status                   what the stripe reader is doing\n"
    "  id-card FILE|off         put the identity card of a card file on the reader, or take it away\n"
    "  id-card-after N FILE     no identity card for N find or read commands, then this one\n"
    "  id-error on|off          identity reads answer the module's error status (00 41)\n"
    "  id-displays              the verification results the host sent to the display\n"
    "  finger [MS]              put the profile's finger on the fingerprint sensor (after MS ms)\n"
    "  finger off               lift the finger\n"
    "  finger-fail STEP CODE    make capture step STEP (1..7) answer CODE (< 0: no answer)\n"
    "  finger-fail off          every step succeeds again\n"
    "  finger-type TYPE         the sensor variant: none, framed or ef01\n"
    "  help                     this text\n"
    "  quit                     stop the simulator\n";

std::string show_card(const std::optional<kolt::sim::StripeCard>& c) {
    if (!c) return "none";
    auto t = [](const std::string& s) { return s.empty() ? std::string("-") : s; };
    return "track1 " + t(c->track1) + ", track2 " + t(c->track2) + ", track3 " + t(c->track3);
}


bool on_off(const std::string& word, bool& value) {
    if (word == "on") value = true;
    else if (word == "off") value = false;
    else return false;
    return true;
}

// The identity-card commands of the prompt.
void id_command(kolt::sim::Simulator& sim, const std::vector<std::string>& w) {
    const std::string& cmd = w[0];
    bool flag = false;
    try {
        if (cmd == "id-card" && w.size() == 2 && w[1] == "off") {
            sim.set_id_card(std::nullopt);
            std::printf("identity card: none\n");
        } else if (cmd == "id-card" && w.size() == 2) {
            const auto card = kolt::sim::load_id_card(w[1]);
            sim.set_id_card(card);
            std::printf("identity card: %s\n", card.layout == "I" ? card.english_name.c_str() : card.name.c_str());
        } else if (cmd == "id-card-after" && w.size() == 3) {
            const int looks = std::stoi(w[1]);
            sim.id_card_after(looks, kolt::sim::load_id_card(w[2]));
            std::printf("identity card after %d find or read commands\n", looks);
        } else if (cmd == "id-error" && w.size() == 2 && on_off(w[1], flag)) {
            sim.set_id_module_error(flag);
            std::printf("identity module error: %s\n", flag ? "on" : "off");
        } else if (cmd == "id-displays") {
            const auto displays = sim.id_displays();
            std::printf("display commands: %zu\n", displays.size());
            for (const auto& d : displays) std::printf("  %s\n", kolt::sim::describe_id_display(d).c_str());
        } else {
            std::printf("unknown command: %s (try help)\n", cmd.c_str());
        }
    } catch (const std::exception& e) {
        std::printf("%s\n", e.what());
    }
}

// The fingerprint commands of the prompt.
void finger_command(kolt::sim::Simulator& sim, const std::vector<std::string>& w) {
    const std::string& cmd = w[0];
    try {
        if (cmd == "finger" && w.size() == 2 && w[1] == "off") {
            sim.lift_finger();
            std::printf("finger lifted\n");
        } else if (cmd == "finger" && w.size() <= 2) {
            const int ms = w.size() == 2 ? std::stoi(w[1]) : 0;
            sim.place_finger({}, ms);
            std::printf("finger on the sensor in %d ms\n", ms);
        } else if (cmd == "finger-fail" && w.size() == 2 && w[1] == "off") {
            sim.clear_finger_failures();
            std::printf("every capture step succeeds\n");
        } else if (cmd == "finger-fail" && w.size() == 3) {
            const int step = std::stoi(w[1]);
            const int code = std::stoi(w[2], nullptr, 0);
            sim.set_finger_failure(step, code);
            std::printf("capture step %d answers %d\n", step, code);
        } else if (cmd == "finger-type" && w.size() == 2 &&
                   (w[1] == "none" || w[1] == "framed" || w[1] == "ef01")) {
            sim.set_finger_type(w[1]);
            std::printf("fingerprint sensor: %s\n", w[1].c_str());
        } else {
            std::printf("unknown command: %s (try help)\n", cmd.c_str());
        }
    } catch (const std::exception& e) {
        std::printf("%s\n", e.what());
    }
}

// Carries out one command line; false on "quit".
bool prompt_command(kolt::sim::Simulator& sim, const kolt::sim::StripeProfile& stripe, const std::string& line) {
    std::istringstream in(line);
    std::vector<std::string> w;
    for (std::string word; in >> word;) w.push_back(word);
    if (w.empty()) return true;
    const std::string& cmd = w[0];
    bool flag = false;
    if (cmd == "swipe") {
        kolt::sim::StripeCard card = stripe.card;
        if (w.size() > 1) {
            card = {};
            card.track2 = w[1] == "-" ? "" : w[1];
            if (w.size() > 2) card.track3 = w[2] == "-" ? "" : w[2];
        }
        sim.swipe(card);
        std::printf("swiped: %s\n", show_card(card).c_str());
    } else if (cmd == "swipe-empty") {
        sim.swipe(kolt::sim::StripeCard{});
        std::printf("swiped: an empty card\n");
    } else if (cmd == "swipe-again") {
        sim.swipe_again();
        std::printf("swiped again: %s\n", show_card(sim.stripe_card()).c_str());
    } else if (cmd == "card-stays" && w.size() == 2 && on_off(w[1], flag)) {
        if (flag) sim.set_stripe_card(stripe.card, stripe.swipe_delay_ms);
        else sim.set_stripe_card(std::nullopt);
        std::printf("card stays: %s\n", flag ? "on" : "off");
    } else if (cmd == "no-swipe") {
        sim.no_swipe();
        std::printf("no swipes queued\n");
    } else if (cmd == "write-fails" && w.size() == 2 && on_off(w[1], flag)) {
        sim.set_stripe_write_fails(flag);
        std::printf("write fails: %s\n", flag ? "on" : "off");
    } else if (cmd == "status") {
        const auto cmds = sim.stripe_commands();
        std::printf("waiting for a swipe: %s\nswipes queued: %zu\ncard in the reader: %s\nresets: %d\n",
                    sim.stripe_waiting() ? "yes" : "no", sim.stripe_swipes_queued(),
                    show_card(sim.stripe_card()).c_str(), sim.stripe_resets());
        std::printf("escape commands: %zu%s%s\n", cmds.size(), cmds.empty() ? "" : ", last ",
                    cmds.empty() ? "" : kolt::sim::printable(std::string_view(reinterpret_cast<const char*>(cmds.back().data()), cmds.back().size())).c_str());
    } else if (cmd.rfind("id-", 0) == 0) {
        id_command(sim, w);
    } else if (cmd.rfind("finger", 0) == 0) {
        finger_command(sim, w);
    } else if (cmd == "help" || cmd == "?") {
        std::fputs(kPromptHelp, stdout);
    } else if (cmd == "quit" || cmd == "exit") {
        return false;
    } else {
        std::printf("unknown command: %s (try help)\n", line.c_str());
    }
    std::fflush(stdout);
    return true;
}

// Turns the SIGUSR1s that came into swipes of the profile's card.
void swipe_on_signal(kolt::sim::Simulator& sim, const kolt::sim::StripeProfile& stripe) {
    while (g_swipes > 0) {
        g_swipes = g_swipes - 1;
        sim.swipe(stripe.card);
    }
}

// Serves until a signal ends it, reading commands from standard input when
// `interactive`; end of input leaves the simulator serving.
void run(kolt::sim::Simulator& sim, const kolt::sim::StripeProfile& stripe, bool interactive) {
    const bool tty = ::isatty(0) != 0;
    std::string pending;
    auto prompt = [&] {
        if (tty) {
            std::printf("kolt-sim> ");
            std::fflush(stdout);
        }
    };
    if (interactive) prompt();
    while (g_stop == 0) {
        swipe_on_signal(sim, stripe);
        if (!interactive) {
            ::poll(nullptr, 0, 200);  // a signal cuts it short
            continue;
        }
        pollfd p{0, POLLIN, 0};
        const int r = ::poll(&p, 1, 200);
        if (r <= 0 || (p.revents & (POLLIN | POLLHUP)) == 0) continue;
        char buf[256];
        const ssize_t n = ::read(0, buf, sizeof buf);
        if (n == 0 || (n < 0 && errno != EINTR && errno != EAGAIN && errno != EIO)) {
            interactive = false;  // end of input: serve on
            continue;
        }
        if (n < 0) {
            if (errno == EIO) ::poll(nullptr, 0, 500);  // in the background of a shell
            continue;
        }
        pending.append(buf, static_cast<size_t>(n));
        for (auto nl = pending.find('\n'); nl != std::string::npos; nl = pending.find('\n')) {
            const std::string line = pending.substr(0, nl);
            pending.erase(0, nl + 1);
            if (!prompt_command(sim, stripe, line)) {
                g_stop = 1;
                break;
            }
            prompt();
        }
    }
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

void announce(const std::string& slave_path, const std::string& port_name) {
    std::printf("kolt-sim: serving %s (gPortName=%s)\n", slave_path.c_str(), port_name.c_str());
    std::fflush(stdout);
}

// In front of a real reader: forwards and records until SIGINT or SIGTERM,
// or until the reader's line fails.
int serve_proxy(const Args& args) {
    kolt::sim::ProxyOptions po;
    po.device = args.proxy_device;
    po.record_path = args.record_file;
    po.verbose = args.opt.verbose;
    kolt::sim::Proxy proxy(po);
    install_signal_handlers();
    proxy.start();
    if (!args.port_file.empty() && !write_port_file(args.port_file, proxy.port_name())) return 1;
    announce(proxy.slave_path(), proxy.port_name());
    while (g_stop == 0 && proxy.device_error().empty()) ::poll(nullptr, 0, 200);
    proxy.stop();
    const std::string where = args.record_file.empty() ? "" : "; the session is in " + args.record_file;
    if (!proxy.device_error().empty()) {
        std::fprintf(stderr, "kolt-sim: the reader's line %s failed (%s)%s\n", args.proxy_device.c_str(),
                     proxy.device_error().c_str(), where.c_str());
        return 1;
    }
    std::fprintf(stderr, "kolt-sim: %zu chunks forwarded%s\n", proxy.chunk_count(), where.c_str());
    return 0;
}

// Plays a recorded session until SIGINT or SIGTERM (or its end, with
// --replay-exit-at-end); 0 when the application sent what was recorded, 4
// when not.
int serve_replay(const Args& args) {
    kolt::sim::Recording recording;
    try {
        recording = kolt::sim::Recording::load(args.replay_file);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "kolt-sim: %s\n", e.what());
        return 2;
    }
    kolt::sim::ReplayOptions ro;
    ro.speed = args.replay_speed;
    ro.verbose = args.opt.verbose;
    kolt::sim::Replayer replayer(std::move(recording), ro);
    install_signal_handlers();
    replayer.start();
    if (!args.port_file.empty() && !write_port_file(args.port_file, replayer.port_name())) return 1;
    announce(replayer.slave_path(), replayer.port_name());
    // The quiet time after the last exchange: bytes the application still
    // sends then are reported as unexpected.
    constexpr int kQuietMs = 300;
    while (g_stop == 0) {
        if (args.replay_exit_at_end) {
            if (replayer.wait_finished(kQuietMs, 200)) break;
        } else {
            ::poll(nullptr, 0, 200);
        }
    }
    replayer.stop();
    std::fprintf(stderr, "%s\n", replayer.summary().c_str());
    return replayer.clean() ? 0 : 4;
}

// Serves until SIGINT or SIGTERM; returns the exit status.
int serve(const Args& args) {
    if (!args.proxy_device.empty()) return serve_proxy(args);
    if (!args.replay_file.empty()) return serve_replay(args);
    kolt::sim::Simulator sim(args.opt);
    if (!args.contact_file.empty()) sim.set_contact_card(kolt::sim::Card::from_file(args.contact_file));
    if (!args.contactless_file.empty())
        sim.set_contactless_card(kolt::sim::Card::from_file(args.contactless_file));
    install_signal_handlers();

    sim.start();
    if (!args.port_file.empty() && !write_port_file(args.port_file, sim.port_name())) return 1;
    announce(sim.slave_path(), sim.port_name());
    run(sim, args.opt.profile.stripe, args.interactive.value_or(::isatty(0) != 0));
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
