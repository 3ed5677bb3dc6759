// kolt-flow-bench: every teller operation through the library's C entry
// points against a simulated reader on a paced line (9600 baud 8N1 in both
// directions), set against what the line and the prescribed pauses allow.
//
// For each operation: the bytes that crossed the line each way (the
// simulator's records of what it received and sent), the pauses the flow
// must make whatever the line does (named), the lower bound
//
//     (bytes out + bytes in) x 10 bits / 9600 baud + the required pauses,
//
// the measured wall time of the call (median of --runs runs, each on a
// fresh simulator) and their ratio. The table goes to standard output;
// --markdown FILE writes it as a section for docs/performance.md.
//
//   kolt-flow-bench [--runs N] [--only TEXT] [--markdown FILE]
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "common/com_link.hpp"
#include "kolt/kolt.h"
#include "kolt_sim/card.hpp"
#include "kolt_sim/idcard.hpp"
#include "kolt_sim/simulator.hpp"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using kolt::sim::Simulator;

// One byte on the line: 10 bits at 9600 baud.
constexpr double kByteMs = 10.0 * 1000.0 / 9600.0;

// A pause the flow must make whatever the line does.
struct Wait {
    std::string name;
    double ms = 0;
};

struct Operation {
    std::string name;
    std::vector<Wait> waits;
    // Pauses of the flow that the reader's answer ends (not counted).
    std::string note;
    // Sets up the reader (cards, swipes, a first call the operation needs);
    // not measured.
    std::function<void(Simulator&)> prepare;
    // The measured call; empty when it gave what it should, else what it gave.
    std::function<std::string(Simulator&)> run;
    // Why the operation cannot run here; empty: it can.
    std::function<std::string()> skip;
};

struct Result {
    size_t out = 0, in = 0;  // host to reader, reader to host
    size_t commands = 0;     // commands the reader recognised
    double measured_ms = 0;
    std::string failure;
};

std::string source_dir() { return KOLT_SOURCE_DIR; }

void set_port(const std::string& name) {
    std::memset(gPortName, 0, sizeof gPortName);
    std::strncpy(gPortName, name.c_str(), sizeof gPortName - 1);
}

std::string rc_is(int rc, int want, const char* what) {
    if (rc == want) return {};
    return std::string(what) + " gave " + std::to_string(rc);
}

// --- the clerk server ------------------------------------------------------------

// kolt-clerkd with one clerk enrolled with the simulated sensor's built-in
// finger, and HOME pointing at a directory whose librun/koltt41fp.cfg names
// it, for the lifetime of the object.
class ClerkServer {
public:
    ClerkServer() {
#ifdef KOLT_CLERKD
        dir_ = fs::temp_directory_path() / ("kolt-flow-bench-" + std::to_string(::getpid()));
        fs::create_directories(dir_ / "home" / "librun");
        std::string features;
        char hex[3];
        for (uint8_t b : kolt::sim::default_finger_features()) {
            std::snprintf(hex, sizeof hex, "%02X", b);
            features += hex;
        }
        const fs::path data = dir_ / "clerks.json";
        std::ofstream(data) << R"({"clerks":[{"bankcode":"0101","clerknum":"1005","password":"555555","mode":2,)"
                            << R"("feature":")" << features << R"("}]})";
        int out[2];
        if (::pipe(out) != 0) return;
        pid_ = ::fork();
        if (pid_ == 0) {
            ::dup2(out[1], 1);
            ::close(out[0]);
            const std::string d = data.string();
            ::execl(KOLT_CLERKD, KOLT_CLERKD, "--data", d.c_str(), "--quiet", static_cast<char*>(nullptr));
            ::_exit(127);
        }
        ::close(out[1]);
        std::string line;
        char c;
        while (::read(out[0], &c, 1) == 1 && c != '\n') line += c;
        ::close(out[0]);
        const auto colon = line.rfind(':');
        if (line.rfind("kolt-clerkd listening on 127.0.0.1:", 0) != 0 || colon == std::string::npos) return;
        port_ = std::atoi(line.c_str() + colon + 1);
        std::ofstream(dir_ / "home" / "librun" / "koltt41fp.cfg")
            << "serverip=127.0.0.1\nserverport=" << port_ << "\n";
        if (const char* h = std::getenv("HOME")) old_home_ = h;
        ::setenv("HOME", (dir_ / "home").c_str(), 1);
#endif
    }
    ~ClerkServer() {
        if (pid_ > 0) {
            ::kill(pid_, SIGTERM);
            int st = 0;
            ::waitpid(pid_, &st, 0);
        }
        if (old_home_) ::setenv("HOME", old_home_->c_str(), 1);
        std::error_code ec;
        if (!dir_.empty()) fs::remove_all(dir_, ec);
    }
    ClerkServer(const ClerkServer&) = delete;
    ClerkServer& operator=(const ClerkServer&) = delete;
    bool running() const { return port_ > 0; }

private:
    fs::path dir_;
    pid_t pid_ = -1;
    int port_ = 0;
    std::optional<std::string> old_home_;
};

// A working directory holding the photo decoder's stand-in (the identity
// read loads ./libwlt.so and writes zp.bmp beside it).
class StandinDir {
public:
    StandinDir() : saved_(fs::current_path()) {
        dir_ = fs::temp_directory_path() / ("kolt-flow-bench-id-" + std::to_string(::getpid()));
        fs::create_directories(dir_);
        fs::copy_file(fs::path(KOLT_STANDIN_DIR) / "libwlt.so", dir_ / "libwlt.so",
                      fs::copy_options::overwrite_existing);
        fs::current_path(dir_);
    }
    ~StandinDir() {
        fs::current_path(saved_);
        std::error_code ec;
        fs::remove_all(dir_, ec);
    }
    StandinDir(const StandinDir&) = delete;
    StandinDir& operator=(const StandinDir&) = delete;

private:
    fs::path dir_, saved_;
};

// --- the operations ----------------------------------------------------------------

const char* const kAllLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZ1234";
const char* const kTrData = "P003100Q0010R0040156S00820261122T00200U006101530";
// Tag 91 (ARPC and response code 00) and a 72 script that unblocks the
// application.
const std::string kArpc = "910A" "1122334455667788" "3030" "72" "12" "86098418000004AABBCCDD" "9F180411223344";
const std::string kTrack2 = "6299990000001234560=30122201234567890";
const std::string kTrack3 = "996299990000001234560=1561560000000000000003000000114000049120";
const kolt::sim::StripeCard kStripe{"%B6299990000001234560^LI/SIMING^3012101?", ";" + kTrack2 + "?",
                                    ";" + kTrack3 + "?"};

std::shared_ptr<kolt::sim::ProfileCard> card(const std::string& name) {
    return kolt::sim::ProfileCard::shipped(name);
}

// The card answers EXTERNAL AUTHENTICATE and the script's unblock command
// with 9000 whatever their cryptograms.
std::shared_ptr<kolt::sim::ProfileCard> issuer_card() {
    auto c = card("pboc_debit");
    kolt::sim::ResponseOverride auth;
    auth.ins = 0x82;
    auth.response = {0x90, 0x00};
    c->add_override(auth);
    const uint8_t unblock[] = {0x84, 0x18};
    c->override_sw(unblock, 0x9000);
    return c;
}

Operation card_info(const std::string& name, bool contactless, const char* letters) {
    return {name,
            {},
            "",
            [contactless](Simulator& sim) {
                if (contactless)
                    sim.set_contactless_card(card("qpboc_contactless"));
                else
                    sim.set_contact_card(card("pboc_debit"));
            },
            [contactless, letters](Simulator&) {
                std::vector<char> out(8192, 0);
                return rc_is(ICRT_GetICCInfo(0, 1, contactless ? 1 : 0, "", letters, out.data()), 0,
                             "ICRT_GetICCInfo");
            },
            {}};
}

std::vector<Operation> operations(bool& clerk_ok) {
    std::vector<Operation> ops;
    ops.push_back(card_info("card information, contact, 5 letters (ICRT_GetICCInfo ABEIJ)", false, "ABEIJ"));
    ops.push_back(card_info("card information, contact, all 30 letters (ICRT_GetICCInfo)", false, kAllLetters));
    ops.push_back(
        card_info("card information, contactless, 5 letters (ICRT_GetICCInfo ABEIJ)", true, "ABEIJ"));
    ops.push_back(
        card_info("card information, contactless, all 30 letters (ICRT_GetICCInfo)", true, kAllLetters));
    ops.push_back({"card information, contact, IC_ convention (IC_GetInfo ABCDEFGHIJKL)",
                   {{"400 ms pause before the flow (IC_GetInfo_YS step 1)", 400}},
                   "",
                   [](Simulator& sim) { sim.set_contact_card(card("pboc_debit")); },
                   [](Simulator& sim) {
                       int32_t ic_type = 1, len = 0;
                       std::vector<char> out(8192, 0);
                       return rc_is(IC_GetInfo(sim.port_name().c_str(), 0, 0, 0, &ic_type, "", "ABCDEFGHIJKL", &len,
                                               out.data()),
                                    0, "IC_GetInfo");
                   },
                   {}});
    ops.push_back({"transaction log, contact (ICRT_GetTxDetail)",
                   {},
                   "",
                   [](Simulator& sim) { sim.set_contact_card(card("pboc_debit")); },
                   [](Simulator&) {
                       std::vector<char> out(KOLT_TXLOG_MAX, 0);
                       return rc_is(ICRT_GetTxDetail(0, 1, 0, "", out.data()), 5, "ICRT_GetTxDetail");
                   },
                   {}});
    ops.push_back({"ARQC and field 55 (KOLT_ICRT_GetARQC)",
                   {},
                   "",
                   [](Simulator& sim) { sim.set_contact_card(card("pboc_debit")); },
                   [](Simulator&) {
                       std::vector<char> f55(KOLT_FIELD55_MAX + 1, 0), app(KOLT_APPDATA_TEXT_MAX, 0);
                       return rc_is(KOLT_ICRT_GetARQC(0, 1, 0, kTrData, "", f55.data(), app.data()), 0,
                                    "KOLT_ICRT_GetARQC");
                   },
                   {}});
    {
        // The ARQC call runs in prepare; its application data feed the
        // measured issuer authentication.
        auto app = std::make_shared<std::string>();
        ops.push_back({"issuer authentication with a script (KOLT_ICRT_ARPCExeScript)",
                       {},
                       "",
                       [app](Simulator& sim) {
                           sim.set_contact_card(issuer_card());
                           std::vector<char> f55(KOLT_FIELD55_MAX + 1, 0), a(KOLT_APPDATA_TEXT_MAX, 0);
                           KOLT_ICRT_GetARQC(0, 1, 0, kTrData, "", f55.data(), a.data());
                           *app = a.data();
                       },
                       [app](Simulator&) {
                           std::vector<char> result(64, 0), tc(KOLT_FIELD55_MAX + 1, 0);
                           return rc_is(KOLT_ICRT_ARPCExeScript(0, 1, 0, kTrData, kArpc.c_str(), app->c_str(),
                                                                result.data(), tc.data()),
                                        0, "KOLT_ICRT_ARPCExeScript");
                       },
                       {}});
    }
    ops.push_back({"stripe read, escape sequences, tracks 2 and 3 (KOLT_MC_Read 23)",
                   {},
                   "1 s pause after the command: ended by the reply",
                   [](Simulator& sim) { sim.swipe(kStripe); },
                   [](Simulator&) {
                       char t2[KOLT_STRIPE_TEXT_MAX] = {}, t3[KOLT_STRIPE_TEXT_MAX] = {};
                       return rc_is(KOLT_MC_Read(0, 1, 23, t2, t3, 5), 0, "KOLT_MC_Read");
                   },
                   {}});
    ops.push_back({"stripe write, escape sequences, tracks 2 and 3 (KOLT_MC_Write 23)",
                   {},
                   "1 s pause after the command: ended by the reply",
                   [](Simulator& sim) { sim.swipe(kStripe); },
                   [](Simulator&) {
                       return rc_is(KOLT_MC_Write(0, 1, 23, kTrack2.c_str(), kTrack3.c_str(), 5), 0,
                                    "KOLT_MC_Write");
                   },
                   {}});
    ops.push_back({"stripe read, framed, three tracks (KOLT_T41_MC_ReadThreeTrackData)",
                   {},
                   "",
                   [](Simulator& sim) { sim.swipe(kStripe); },
                   [](Simulator&) {
                       const int open = KOLT_initCom(0, "", 1, "");
                       std::vector<uint8_t> t1(KOLT_T41_REPLY_MAX), t2(KOLT_T41_REPLY_MAX), t3(KOLT_T41_REPLY_MAX);
                       const int rc = KOLT_T41_MC_ReadThreeTrackData(t1.data(), t2.data(), t3.data(), 5);
                       KOLT_freeCom(0, 1, "");
                       if (open != 0) return rc_is(open, 0, "KOLT_initCom");
                       return rc_is(rc, 0, "KOLT_T41_MC_ReadThreeTrackData");
                   },
                   {}});
    ops.push_back({"identity card read with photo (ID_GetInfo)",
                   {},
                   "1 s pause only between looks without a card",
                   [](Simulator& sim) {
                       sim.set_id_card(kolt::sim::load_id_card(source_dir() + "/sim/cards/idcard/resident.json"));
                   },
                   [](Simulator& sim) {
                       StandinDir dir;
                       std::vector<char> out(KOLT_IDINFO_MAX, 0);
                       return rc_is(ID_GetInfo(sim.port_name().c_str(), 0, 0, 5, "", 0, 0, 0, out.data()), 0,
                                    "ID_GetInfo");
                   },
                   {}});
    for (const char* type : {"framed", "ef01"}) {
        const std::string t = type;
        ops.push_back({"fingerprint capture, " + std::string(t == "framed" ? "framed sensor" : "EF01 module") +
                           " (KOLT_T41_FP_GenChar)",
                       {},
                       "",
                       [t](Simulator& sim) {
                           sim.set_finger_type(t);
                           sim.place_finger();
                       },
                       [](Simulator&) {
                           char hex[KOLT_FP_FEATURE_HEX_MAX] = {};
                           return rc_is(KOLT_T41_FP_GenChar(0, "", 1, "", 3, hex, 5), 0, "KOLT_T41_FP_GenChar");
                       },
                       {}});
    }
    ops.push_back({"clerk verification by fingerprint, framed sensor (Verify_clerk_finger)",
                   {},
                   "the request to the clerk server goes over loopback TCP, not the line",
                   [](Simulator& sim) {
                       sim.set_finger_type("framed");
                       sim.place_finger();
                   },
                   [](Simulator&) {
                       char pw[KOLT_CLERK_PASSWORD_MAX] = {};
                       const int rc = Verify_clerk_finger(0, "", 1, "", 5, "0101", "1005", pw);
                       if (rc == 0 && std::strcmp(pw, "555555") != 0) return std::string("wrong password");
                       return rc_is(rc, 0, "Verify_clerk_finger");
                   },
                   [&clerk_ok]() -> std::string {
                       return clerk_ok ? "" : "kolt-clerkd not built or not started";
                   }});
    {
        auto link = std::make_shared<std::unique_ptr<kolt::test::ComLink>>();
        ops.push_back({"device information (DEV_CommCall)",
                       {},
                       "",
                       [link](Simulator& sim) { *link = std::make_unique<kolt::test::ComLink>(sim.slave_path()); },
                       [link](Simulator&) {
                           const std::string in = R"({"FunctionCode":"0001","RequestPort":")" +
                                                  std::to_string((*link)->number()) +
                                                  R"(","RequestBaudRate":"9600","RequestTimeOut":"3"})";
                           std::vector<char> out(4096, 0);
                           int32_t len = 0;
                           DEV_CommCall(in.c_str(), nullptr, out.data(), &len);
                           link->reset();
                           if (std::strstr(out.data(), "\"ErrorCode\":\"0\"") == nullptr &&
                               std::strstr(out.data(), "DeviceSN") == nullptr)
                               return std::string("DEV_CommCall answered ") + out.data();
                           return std::string();
                       },
                       []() -> std::string {
                           return ::geteuid() == 0 ? "" : "needs root (a /dev/COM<n> link to the simulator's line)";
                       }});
    }
    ops.push_back({"connect and disconnect (KOLT_connectDevice, KOLT_disconnectDevice)",
                   {},
                   "",
                   [](Simulator&) {},
                   [](Simulator&) {
                       const int c = KOLT_connectDevice("", "0", "1", "", "");
                       const int d = KOLT_disconnectDevice("0", "1");
                       if (c != 0) return rc_is(c, 0, "KOLT_connectDevice");
                       return rc_is(d, 0, "KOLT_disconnectDevice");
                   },
                   {}});
    ops.push_back({"device probe (KOLT_initCom, KOLT_getDeviceType, KOLT_freeCom)",
                   {},
                   "",
                   [](Simulator&) {},
                   [](Simulator&) {
                       const int open = KOLT_initCom(0, "", 1, "");
                       const int type = KOLT_getDeviceType();
                       KOLT_freeCom(0, 1, "");
                       if (open != 0) return rc_is(open, 0, "KOLT_initCom");
                       return rc_is(type, 0, "KOLT_getDeviceType");
                   },
                   {}});
    return ops;
}

// --- measuring ------------------------------------------------------------------------

// Waits until the simulator's record of received bytes has stopped growing
// (whatever the host sent last has crossed the line).
void settle(const Simulator& sim) {
    size_t last = sim.raw_received().size();
    for (int quiet = 0; quiet < 3;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        const size_t now = sim.raw_received().size();
        quiet = now == last ? quiet + 1 : 0;
        last = now;
    }
}

Result run_once(const Operation& op) {
    kolt::sim::Options o;
    o.pace = true;
    Simulator sim(o);
    sim.start();
    set_port(sim.port_name());
    Result r;
    op.prepare(sim);
    settle(sim);
    sim.clear_raw();
    sim.clear_transcript();
    const auto start = Clock::now();
    r.failure = op.run(sim);
    const auto took = Clock::now() - start;
    settle(sim);
    r.measured_ms = std::chrono::duration<double, std::milli>(took).count();
    r.out = sim.raw_received().size();
    r.in = sim.raw_sent().size();
    r.commands = sim.transcript().size();
    sim.stop();
    set_port("");
    return r;
}

std::string ms_text(double ms) {
    char buf[32];
    if (ms >= 1000)
        std::snprintf(buf, sizeof buf, "%.3f s", ms / 1000);
    else
        std::snprintf(buf, sizeof buf, "%.1f ms", ms);
    return buf;
}

struct Row {
    std::string operation, out, in, waits, bound, measured, ratio;
};

std::string table(const std::vector<Row>& rows) {
    std::ostringstream t;
    t << "| Operation | bytes out | bytes in | required waits (named) | lower bound | measured | ratio |\n";
    t << "|---|---:|---:|---|---:|---:|---:|\n";
    for (const Row& r : rows)
        t << "| " << r.operation << " | " << r.out << " | " << r.in << " | " << r.waits << " | " << r.bound << " | "
          << r.measured << " | " << r.ratio << " |\n";
    return t.str();
}

int usage() {
    std::fputs("usage: kolt-flow-bench [--runs N] [--only TEXT] [--markdown FILE]\n", stderr);
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    int runs = 3;
    std::string only, markdown;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--runs" && i + 1 < argc) {
            runs = std::max(1, std::atoi(argv[++i]));
        } else if (a == "--only" && i + 1 < argc) {
            only = argv[++i];
        } else if (a == "--markdown" && i + 1 < argc) {
            markdown = argv[++i];
        } else if (a == "--help" || a == "-h") {
            usage();
            return 0;
        } else {
            return usage();
        }
    }
    ::signal(SIGPIPE, SIG_IGN);

    ClerkServer clerk;
    bool clerk_ok = clerk.running();
    std::vector<Row> rows;
    std::vector<std::string> notes;
    for (const Operation& op : operations(clerk_ok)) {
        if (!only.empty() && op.name.find(only) == std::string::npos) continue;
        if (op.skip) {
            if (const std::string why = op.skip(); !why.empty()) {
                rows.push_back({op.name, "-", "-", "-", "-", "skipped: " + why, "-"});
                std::fprintf(stderr, "%s: skipped (%s)\n", op.name.c_str(), why.c_str());
                continue;
            }
        }
        std::vector<Result> results;
        for (int i = 0; i < runs; ++i) results.push_back(run_once(op));
        std::sort(results.begin(), results.end(),
                  [](const Result& a, const Result& b) { return a.measured_ms < b.measured_ms; });
        const Result& med = results[results.size() / 2];
        std::string failure;
        for (const Result& r : results)
            if (!r.failure.empty()) failure = r.failure;
        double waits_ms = 0;
        std::string waits;
        for (const Wait& w : op.waits) {
            waits_ms += w.ms;
            waits += (waits.empty() ? "" : "; ") + w.name;
        }
        if (!op.note.empty()) waits += (waits.empty() ? "none (" : " (not counted: ") + op.note + ")";
        if (waits.empty()) waits = "none";
        const double bound = static_cast<double>(med.out + med.in) * kByteMs + waits_ms;
        char ratio[32];
        std::snprintf(ratio, sizeof ratio, "%.2fx", med.measured_ms / bound);
        rows.push_back({op.name, std::to_string(med.out), std::to_string(med.in), waits, ms_text(bound),
                        ms_text(med.measured_ms) + (failure.empty() ? "" : " (FAILED: " + failure + ")"), ratio});
        std::fprintf(stderr, "%s: %zu out, %zu in, %zu commands, bound %s, measured %s, %s%s\n", op.name.c_str(),
                     med.out, med.in, med.commands, ms_text(bound).c_str(), ms_text(med.measured_ms).c_str(), ratio,
                     failure.empty() ? "" : (" FAILED: " + failure).c_str());
    }

    const std::string t = table(rows);
    std::fputs(t.c_str(), stdout);
    if (!markdown.empty()) {
        std::ofstream md(markdown);
        md << "## Teller operations on a 9600 baud line\n\n"
           << "`kolt-flow-bench` (`bench/flow_latency.cpp`): every teller operation through\n"
           << "the library's C entry points against `kolt-sim` on a paced line (9600 baud\n"
           << "8N1 both ways, 10 bits a byte; see sim/README.md, \"A paced line\"), median\n"
           << "of " << runs << " runs, each on a fresh simulator. Bytes out: what the reader\n"
           << "received; bytes in: what it sent (the simulator's records). Lower bound:\n"
           << "(bytes out + bytes in) x 10 / 9600 s plus the pauses the flow must make\n"
           << "whatever the line does (named; pauses that the reader's answer ends are\n"
           << "noted and not counted). Ratio: measured / lower bound.\n\n"
           << t
           << "\nThe simulated reader answers a command once its last byte has crossed; the\n"
           << "first byte of its reply reaches the host at once and the last one a byte\n"
           << "time before the line would have carried it, and the reader takes that byte\n"
           << "time back before it reads again, so over a flow of several commands the\n"
           << "two cancel. A ratio just under 1.00 is a flow whose last bytes are not\n"
           << "waited for (the ESC \"0\" reset after a stripe write, 2 bytes) or a flow of\n"
           << "one or two exchanges.\n";
    }
    return 0;
}
