// kolt-soak: a long run of teller operations against the simulated reader,
// each with a fault of the reader drawn at random (a fixed seed: the same
// run every time), checking that every operation gives what its fault
// must give (tests/common/fault_flows.cpp), that none outlasts its time-out
// by more than a second, and that the process's descriptors and resident
// memory stay where they were after the warm-up.
//
//   kolt-soak [--ops N] [--seed S] [--report FILE]
//
// Exit status 0 when nothing was amiss, 1 otherwise (2 for bad arguments).
// With KOLT_REPORT_DIR set and no --report, the report goes to
// $KOLT_REPORT_DIR/soak.md.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "common/fault_flows.hpp"
#include "common/library_state.hpp"
#include "kolt/kolt.h"

namespace {

using kolt::test::FaultFlow;
using kolt::test::LineFault;

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#else
constexpr bool kSanitized = false;
#endif

constexpr unsigned kDefaultSeed = 20261123;
// Resident memory may grow this much from the end of the warm-up to the end.
constexpr long long kRssSlack = 4 << 20;

struct Options {
    long ops = 1000;
    unsigned seed = kDefaultSeed;
    std::string report;
};

[[noreturn]] void usage(const char* why) {
    std::fprintf(stderr, "kolt-soak: %s\nusage: kolt-soak [--ops N] [--seed S] [--report FILE]\n", why);
    std::exit(2);
}

Options parse(int argc, char** argv) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc) usage(("no value for " + a).c_str());
            return argv[++i];
        };
        if (a == "--ops") {
            o.ops = std::strtol(value().c_str(), nullptr, 10);
            if (o.ops < 1) usage("--ops must be positive");
        } else if (a == "--seed") {
            o.seed = static_cast<unsigned>(std::strtoul(value().c_str(), nullptr, 10));
        } else if (a == "--report") {
            o.report = value();
        } else {
            usage(("unknown option " + a).c_str());
        }
    }
    if (o.report.empty()) {
        if (const char* dir = std::getenv("KOLT_REPORT_DIR")) o.report = std::string(dir) + "/soak.md";
    }
    return o;
}

// The fault of one operation: about half healthy, the rest spread over the
// faults that end at once; the faults that make the host wait out a
// time-out are rare and go only to flows with short time-outs.
std::optional<LineFault> draw_fault(std::mt19937& rng, const FaultFlow& flow) {
    std::uniform_int_distribution<int> pct(0, 999);
    const int p = pct(rng);
    if (p < 500) return std::nullopt;
    std::vector<LineFault> quick, waiting;
    for (LineFault f : kolt::test::line_faults()) (flow.waits(f) ? waiting : quick).push_back(f);
    if (p < 520 && flow.short_waits()) {
        std::uniform_int_distribution<size_t> w(0, waiting.size() - 1);
        return waiting[w(rng)];
    }
    std::uniform_int_distribution<size_t> q(0, quick.size() - 1);
    return quick[q(rng)];
}

}  // namespace

int main(int argc, char** argv) {
    const Options opt = parse(argc, argv);
    const auto start = std::chrono::steady_clock::now();
    std::mt19937 rng(opt.seed);

    const auto& local = kolt::test::link_modes().front();
    kolt::test::FlowBench bench(local);
    std::vector<const FaultFlow*> flows;
    for (const auto& f : kolt::test::fault_flows()) {
        if (!f.runs_in(local)) continue;
        if (f.name == "device_info" && ::geteuid() != 0) continue;  // /dev/COM<n> needs root
        flows.push_back(&f);
    }
    // The escape-sequence stripe calls wait a second after their command
    // whatever happens: drawn a fifth as often as the others.
    std::vector<double> weights;
    for (const FaultFlow* f : flows) weights.push_back(f->unwrapped ? 0.2 : 1.0);
    std::discrete_distribution<size_t> pick(weights.begin(), weights.end());

    std::map<std::string, long> drawn;
    std::map<std::string, double> busy;  // seconds per flow
    std::vector<std::string> mismatches;
    long long worst_over = -1000000;
    std::string worst_op;
    const long warmup = std::max(20L, opt.ops / 20);
    int fds_start = 0;
    long long rss_start = 0;
    for (long i = 0; i < opt.ops; ++i) {
        if (i == warmup) {
            fds_start = kolt::test::open_descriptors();
            rss_start = kolt::test::resident_bytes();
        }
        const FaultFlow& flow = *flows[pick(rng)];
        const std::optional<LineFault> fault = draw_fault(rng, flow);
        const std::string fault_text = fault ? kolt::test::fault_name(*fault) : "healthy";
        ++drawn[fault_text];
        const auto op_start = std::chrono::steady_clock::now();
        const auto r = bench.run(flow, fault);
        const double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - op_start).count();
        busy[flow.name] += took;
        if (std::getenv("KOLT_SOAK_TRACE") != nullptr)
            std::fprintf(stderr, "%ld %s / %s: %d in %lld ms (op %.0f ms)\n", i, flow.name.c_str(), fault_text.c_str(),
                         r.outcome.code, r.elapsed_ms, took * 1000);
        const kolt::test::Outcome want = fault ? flow.expect(*fault, local) : flow.healthy;
        const int limit = fault ? flow.time_limit_ms(*fault) : flow.timeout_ms;
        std::ostringstream what;
        what << "op " << i << " " << flow.name << " / " << fault_text;
        if (r.outcome.code != want.code || (!want.text.empty() && r.outcome.text != want.text)) {
            std::ostringstream m;
            m << what.str() << ": got " << r.outcome << ", want " << want;
            mismatches.push_back(m.str());
        }
        if (r.elapsed_ms - limit > worst_over) worst_over = r.elapsed_ms - limit, worst_op = what.str();
        if (r.elapsed_ms > limit + 1000)
            mismatches.push_back(what.str() + ": took " + std::to_string(r.elapsed_ms) + " ms, limit " +
                                 std::to_string(limit) + " ms");
    }
    // A last healthy call that opens and closes the link: a link the
    // escape-sequence calls leave open after a failure is taken over there.
    const auto& closing = kolt::test::fault_flow("version");
    if (bench.run(closing, std::nullopt).outcome.code != closing.healthy.code)
        mismatches.push_back("closing healthy version query failed");
    const int fds_end = kolt::test::open_descriptors();
    const long long rss_end = kolt::test::resident_bytes();
    if (opt.ops <= warmup) fds_start = fds_end, rss_start = rss_end;
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    bool ok = mismatches.empty();
    if (fds_end != fds_start) {
        ok = false;
        mismatches.push_back("descriptors " + std::to_string(fds_start) + " after the warm-up, " +
                             std::to_string(fds_end) + " at the end");
    }
    if (!kSanitized && rss_end > rss_start + kRssSlack) {
        ok = false;
        mismatches.push_back("resident memory grew from " + std::to_string(rss_start) + " to " +
                             std::to_string(rss_end) + " bytes");
    }

    std::ostringstream md;
    md << "## Soak\n\n";
    md << "| | |\n|---|---|\n";
    md << "| operations | " << opt.ops << " (flows: " << flows.size() << ", local port) |\n";
    md << "| seed | " << opt.seed << " |\n";
    md << "| faults drawn | ";
    bool first = true;
    for (const auto& [name, n] : drawn) md << (first ? "" : ", ") << name << " " << n, first = false;
    md << " |\n";
    md << "| mismatches | " << mismatches.size() << " |\n";
    md << "| max time over time-out | " << worst_over << " ms (" << worst_op << "); limit +1000 ms |\n";
    md << "| resident memory after warm-up / at end | " << rss_start / 1024 << " KiB / " << rss_end / 1024 << " KiB"
       << (kSanitized ? " (not checked under sanitizers)" : " (slack " + std::to_string(kRssSlack >> 20) + " MiB)")
       << " |\n";
    md << "| descriptors after warm-up / at end | " << fds_start << " / " << fds_end << " |\n";
    char dur[32];
    std::snprintf(dur, sizeof dur, "%.1f s", seconds);
    md << "| duration | " << dur << " |\n";
    md << "| time per flow | ";
    first = true;
    for (const auto& [name, t] : busy) {
        char b[64];
        std::snprintf(b, sizeof b, "%s%s %.1f s", first ? "" : ", ", name.c_str(), t);
        md << b;
        first = false;
    }
    md << " |\n";
    if (!mismatches.empty()) {
        md << "\nMismatches (first 20):\n\n";
        for (size_t i = 0; i < mismatches.size() && i < 20; ++i) md << "- " << mismatches[i] << "\n";
    }
    std::fputs(md.str().c_str(), stdout);
    if (!opt.report.empty()) std::ofstream(opt.report) << md.str();
    kolt::test::reset_library_state();
    return ok ? 0 : 1;
}
