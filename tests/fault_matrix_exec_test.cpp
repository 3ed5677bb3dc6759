// Every device flow under every fault of the reader's reply: the result
// code and output text each fault must give, a call that ends within its
// time-out and one second, no descriptor left behind, and a healthy call of
// the same flow right after that succeeds. On the local port and behind the
// teller terminals, with the library's log off and on (on: in a copy of
// this program in a temporary directory, where the error log beside the
// program lands).
//
// ctest runs every flow under every fault on the local port with the log
// off, and a covering set (every flow and every fault at least once) in
// each terminal mode and with the log on. KOLT_FAULT_MATRIX=full runs the
// whole product instead (scripts/fault_matrix.sh). With KOLT_REPORT_DIR set,
// the program writes $KOLT_REPORT_DIR/fault_matrix.md at its end.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "common/clerk_server.hpp"
#include "common/fault_flows.hpp"
#include "common/pty_util.hpp"
#include "common/test_util.hpp"
#include "kolt/kolt.h"

namespace {

using kolt::test::FaultFlow;
using kolt::test::FlowBench;
using kolt::test::LineFault;
using kolt::test::LinkMode;
using kolt::test::Outcome;

std::string matrix_var() {
    const char* v = std::getenv("KOLT_FAULT_MATRIX");
    return v == nullptr ? "" : v;
}

// KOLT_FAULT_MATRIX=full: the whole product; =report: the report of the
// rows that full runs of single modes left in $KOLT_REPORT_DIR/rows.
bool full_run() { return matrix_var() == "full" || matrix_var() == "report"; }

// KOLT_FAULT_MATRIX_MODE=<mode name>: a full run of that mode alone (the
// script runs the modes side by side: most of the time goes into waiting).
bool mode_selected(const LinkMode& mode) {
    const char* only = std::getenv("KOLT_FAULT_MATRIX_MODE");
    return only == nullptr || mode.name == only;
}

// What one cell gave.
struct Cell {
    std::string flow, fault, mode;
    bool logging = false;
    Outcome got, want;
    long long elapsed_ms = 0;
    int timeout_ms = 0;
    int fds_before = 0, fds_after = 0, fds_end = 0;  // end: after the healthy call that follows
    bool healthy_after = true;
    std::string problems;
    bool ok() const { return problems.empty(); }
};

std::vector<Cell>& cells() {
    static std::vector<Cell> all;
    return all;
}

std::string describe(const Cell& c) {
    return c.flow + " / " + c.fault + " / " + c.mode + " / log " + (c.logging ? "on" : "off");
}

std::string shown(const Outcome& o) {
    std::ostringstream s;
    s << o;
    return s.str();
}

// A cell as one line of tab-separated fields (the child with the log on
// hands its cells to the parent so).
std::string to_row(const Cell& c) {
    auto clean = [](std::string s) {
        std::replace(s.begin(), s.end(), '\t', ' ');
        std::replace(s.begin(), s.end(), '\n', ' ');
        return s;
    };
    std::ostringstream s;
    s << c.flow << '\t' << c.fault << '\t' << c.mode << '\t' << c.logging << '\t' << c.got.code << '\t'
      << c.want.code << '\t' << c.elapsed_ms << '\t' << c.timeout_ms << '\t' << c.fds_before << '\t' << c.fds_after
      << '\t' << c.fds_end << '\t' << c.healthy_after << '\t' << clean(c.problems) << '\n';
    return s.str();
}

Cell from_row(const std::string& line) {
    std::vector<std::string> f;
    std::string part;
    std::istringstream in(line);
    while (std::getline(in, part, '\t')) f.push_back(part);
    f.resize(13);
    Cell c;
    c.flow = f[0], c.fault = f[1], c.mode = f[2], c.logging = f[3] == "1";
    c.got.code = std::atoi(f[4].c_str()), c.want.code = std::atoi(f[5].c_str());
    c.elapsed_ms = std::atoll(f[6].c_str()), c.timeout_ms = std::atoi(f[7].c_str());
    c.fds_before = std::atoi(f[8].c_str()), c.fds_after = std::atoi(f[9].c_str());
    c.fds_end = std::atoi(f[10].c_str());
    c.healthy_after = f[11] == "1";
    c.problems = f[12];
    return c;
}

// Runs the cells of one mode: a healthy warm-up call of each flow first
// (what the library sets up once is not a leak), then every (flow, fault)
// followed by a healthy call of the same flow.
void run_cells(const LinkMode& mode, bool logging, const std::vector<std::pair<const FaultFlow*, LineFault>>& plan) {
    FlowBench bench(mode);
    std::optional<kolt::test::DebugLogCapture> log;
    if (logging) log.emplace();
    // KOLT_FAULT_MATRIX_ONLY=<flow>, KOLT_FAULT_MATRIX_FAULT=<fault>: those
    // cells alone (when looking into one).
    const char* only = std::getenv("KOLT_FAULT_MATRIX_ONLY");
    const char* only_fault = std::getenv("KOLT_FAULT_MATRIX_FAULT");
    std::set<std::string> warm;
    for (const auto& [flow, fault] : plan) {
        if (only != nullptr && flow->name != only) continue;
        if (only_fault != nullptr && std::string(kolt::test::fault_name(fault)) != only_fault) continue;
        if (warm.insert(flow->name).second) {
            const auto h = bench.run(*flow, std::nullopt);
            EXPECT_EQ(h.outcome.code, flow->healthy.code) << flow->name << " healthy (warm-up) / " << mode.name;
        }
        Cell c;
        c.flow = flow->name, c.fault = kolt::test::fault_name(fault), c.mode = mode.name, c.logging = logging;
        c.want = flow->expect(fault, mode);
        c.timeout_ms = flow->time_limit_ms(fault);
        c.fds_before = kolt::test::open_descriptors();
        const auto r = bench.run(*flow, fault);
        c.fds_after = kolt::test::open_descriptors();
        c.got = r.outcome;
        c.elapsed_ms = r.elapsed_ms;
        const auto h = bench.run(*flow, std::nullopt);
        c.fds_end = kolt::test::open_descriptors();
        c.healthy_after = h.outcome.code == flow->healthy.code &&
                          (flow->healthy.text.empty() || h.outcome.text == flow->healthy.text);
        if (c.got.code != c.want.code || (!c.want.text.empty() && c.got.text != c.want.text))
            c.problems += "got " + shown(c.got) + ", want " + shown(c.want) + "; ";
        if (c.elapsed_ms > c.timeout_ms + 1000)
            c.problems += "took " + std::to_string(c.elapsed_ms) + " ms, time-out " + std::to_string(c.timeout_ms) + " ms; ";
        const bool kept = flow->keeps_link_on_failure && c.fds_after == c.fds_before + 1;
        if ((c.fds_before != c.fds_after && !kept) || c.fds_end != c.fds_before)
            c.problems += "descriptors " + std::to_string(c.fds_before) + " -> " + std::to_string(c.fds_after) + " -> " +
                          std::to_string(c.fds_end) + "; ";
        if (!c.healthy_after) c.problems += "healthy call after it gave " + shown(h.outcome) + "; ";
        EXPECT_TRUE(c.ok()) << describe(c) << ": " << c.problems;
        cells().push_back(c);
    }
}

// The ctest share of one flow on the local port: every fault that does not
// make the host wait, and those that do where the wait is short
// (FaultFlow::short_waits). The longer waits (3 to 10 s each) are for the
// full run.
std::vector<std::pair<const FaultFlow*, LineFault>> ctest_cells(const FaultFlow& flow) {
    std::vector<std::pair<const FaultFlow*, LineFault>> plan;
    std::vector<LineFault> waiting;
    for (LineFault f : kolt::test::line_faults()) {
        if (!flow.waits(f)) {
            plan.emplace_back(&flow, f);
        } else {
            waiting.push_back(f);
        }
    }
    if (flow.short_waits())
        for (LineFault f : waiting) plan.emplace_back(&flow, f);
    return plan;
}

// The clerk verification server's misbehaviours (the reader healthy), on
// the local port: those that end at once, or all of them (`all`: those
// that wait out the library's 20 seconds too).
void run_server_faults(bool all) {
    const LinkMode& local = kolt::test::link_modes().front();
    FlowBench bench(local);
    const auto& flow = kolt::test::fault_flow("clerk_verify");
    const auto warm = bench.run_clerk("1005");
    EXPECT_EQ(warm.outcome, flow.healthy) << "clerk_verify healthy (warm-up)";
    for (const auto& sf : kolt::test::clerk_server_faults()) {
        if (sf.waits && !all) continue;
        Cell c;
        c.flow = "clerk server", c.fault = sf.name, c.mode = local.name;
        c.want = sf.expected;
        c.timeout_ms = sf.timeout_ms;
        c.fds_before = kolt::test::open_descriptors();
        const auto r = bench.run_clerk(sf.clerk);
        c.fds_after = kolt::test::open_descriptors();
        c.got = r.outcome, c.elapsed_ms = r.elapsed_ms;
        const auto h = bench.run_clerk("1005");
        c.fds_end = kolt::test::open_descriptors();
        c.healthy_after = h.outcome == flow.healthy;
        if (!(c.got == c.want)) c.problems += "got " + shown(c.got) + ", want " + shown(c.want) + "; ";
        if (c.elapsed_ms > c.timeout_ms + 1000)
            c.problems += "took " + std::to_string(c.elapsed_ms) + " ms, time-out " + std::to_string(c.timeout_ms) + " ms; ";
        if (c.fds_after != c.fds_before || c.fds_end != c.fds_before)
            c.problems += "descriptors " + std::to_string(c.fds_before) + " -> " + std::to_string(c.fds_after) + " -> " +
                          std::to_string(c.fds_end) + "; ";
        if (!c.healthy_after) c.problems += "healthy call after it gave " + shown(h.outcome) + "; ";
        EXPECT_TRUE(c.ok()) << describe(c) << ": " << c.problems;
        cells().push_back(c);
    }
}

std::vector<std::pair<const FaultFlow*, LineFault>> every_cell(const LinkMode& mode, const FaultFlow* only = nullptr) {
    std::vector<std::pair<const FaultFlow*, LineFault>> plan;
    for (const auto& flow : kolt::test::fault_flows()) {
        if (only != nullptr && &flow != only) continue;
        if (!flow.runs_in(mode)) continue;
        for (LineFault f : kolt::test::line_faults()) plan.emplace_back(&flow, f);
    }
    return plan;
}

// Every flow of the mode once and every fault at least once, kept short:
// faults that make the host wait go to the flows with the shortest
// time-outs. `turn` rotates the faults between modes.
std::vector<std::pair<const FaultFlow*, LineFault>> covering_cells(const LinkMode& mode, int turn) {
    const auto& faults = kolt::test::line_faults();
    std::vector<const FaultFlow*> flows;
    for (const auto& flow : kolt::test::fault_flows())
        if (flow.runs_in(mode)) flows.push_back(&flow);
    std::vector<std::pair<const FaultFlow*, LineFault>> plan;
    std::set<LineFault> covered;
    int k = turn;
    for (const FaultFlow* flow : flows) {
        LineFault f = faults[static_cast<size_t>(k++) % faults.size()];
        while (flow->waits(f) && !flow->short_waits()) f = faults[static_cast<size_t>(k++) % faults.size()];
        plan.emplace_back(flow, f);
        covered.insert(f);
    }
    // The missing ones go to the flow with the shortest time-out (the
    // version query, 1 s).
    const FaultFlow* quick = *std::min_element(flows.begin(), flows.end(), [](const FaultFlow* a, const FaultFlow* b) {
        return a->timeout_ms < b->timeout_ms;
    });
    for (LineFault f : faults)
        if (!covered.count(f)) plan.emplace_back(quick, f);
    return plan;
}

const LinkMode& mode_named(const std::string& name) {
    for (const auto& m : kolt::test::link_modes())
        if (m.name == name) return m;
    throw std::invalid_argument(name);
}

// --- the report ----------------------------------------------------------------

std::string code_text(int code) {
    if (code > 0xFF || code < -0xFF) {
        char b[16];
        std::snprintf(b, sizeof b, code < 0 ? "-0x%X" : "0x%X", code < 0 ? -code : code);
        return b;
    }
    return std::to_string(code);
}

void write_report() {
    const char* dir = std::getenv("KOLT_REPORT_DIR");
    if (dir == nullptr || cells().empty()) return;
    const auto& faults = kolt::test::line_faults();
    std::ostringstream md;
    md << "## Fault matrix\n\n";
    md << "Each cell: the result code of the call with that fault in the reply of the flow's command, "
          "on the local port with the log off where that ran, and ok when every run of the cell (all modes, log off "
          "and on) gave the expected code and text, ended within its time-out + 1 s, left the descriptor count as it "
          "was and was followed by a healthy call that succeeded. n/a: not run.\n\n";
    md << "| flow |";
    for (LineFault f : faults) md << ' ' << kolt::test::fault_name(f) << " |";
    md << "\n|---|";
    for (size_t i = 0; i < faults.size(); ++i) md << "---|";
    md << "\n";
    for (const auto& flow : kolt::test::fault_flows()) {
        md << "| " << flow.name << " |";
        for (LineFault f : faults) {
            const std::string fn = kolt::test::fault_name(f);
            const Cell* shown_cell = nullptr;
            bool all_ok = true;
            int runs = 0;
            for (const auto& c : cells()) {
                if (c.flow != flow.name || c.fault != fn) continue;
                ++runs;
                all_ok = all_ok && c.ok();
                if (shown_cell == nullptr || (c.mode == "local" && !c.logging)) shown_cell = &c;
            }
            if (runs == 0) {
                md << " n/a |";
            } else {
                md << ' ' << code_text(shown_cell->got.code) << ' ' << (all_ok ? "ok" : "FAIL") << " |";
            }
        }
        md << "\n";
    }
    md << "\nClerk verification server misbehaving (the reader healthy; Verify_clerk_finger of a clerk whose "
          "requests the server spoils):\n\n| server fault | result | time (limit) | check |\n|---|---|---|---|\n";
    for (const auto& c : cells()) {
        if (c.flow != "clerk server") continue;
        md << "| " << c.fault << " | " << c.got.code << " | " << c.elapsed_ms << " ms (" << c.timeout_ms
           << " ms) | " << (c.ok() ? "ok" : "FAIL") << " |\n";
    }
    std::map<std::string, std::pair<int, int>> per_mode;  // cells, failures
    long long worst = -1000000;
    std::string worst_cell;
    int fd_bad = 0, healthy_bad = 0, failures = 0;
    for (const auto& c : cells()) {
        auto& m = per_mode[c.mode + ", log " + (c.logging ? "on" : "off")];
        ++m.first;
        if (!c.ok()) ++m.second, ++failures;
        if (c.elapsed_ms - c.timeout_ms > worst) worst = c.elapsed_ms - c.timeout_ms, worst_cell = describe(c);
        if (c.fds_end != c.fds_before) ++fd_bad;
        if (!c.healthy_after) ++healthy_bad;
    }
    md << "\nRun: " << (full_run() ? "full product (KOLT_FAULT_MATRIX=full)" : "the ctest set (all cells on the local port with the log off, a covering set elsewhere)")
       << "; " << cells().size() << " cells, " << failures << " failing.\n\n";
    md << "| mode, log | cells | failing |\n|---|---|---|\n";
    for (const auto& [name, n] : per_mode) md << "| " << name << " | " << n.first << " | " << n.second << " |\n";
    md << "\nLongest call against its time-out: " << worst << " ms over (" << worst_cell << "); limit +1000 ms.\n";
    md << "Descriptor check (/proc/self/fd before each faulty call, after it, and after the healthy call that follows; "
          "the escape-sequence stripe calls leave their link open on failure, as they always have, until the next call): "
       << fd_bad << " cells differ.\n";
    md << "Time limit of a call: the time-out of the exchange whose reply is spoiled, plus 1 s. The trickle sends "
          "the reply's first byte at once and each further one after that time-out.\n";
    md << "Healthy call right after each faulty one: " << healthy_bad << " failed.\n";
    md << "Flows that need a public terminal type (the teller entry points) do not run in aux types 2, 5 and 51, "
          "which no public type reaches; the escape-sequence stripe calls write their sequences without the "
          "terminal's lead and end and so run only on the local port and behind type 4 (which has none); "
          "device_info runs on the local port only (it opens /dev/COM<n>).\n";
    std::ofstream(std::string(dir) + "/fault_matrix.md") << md.str();
}

class ReportEnvironment : public ::testing::Environment {
public:
    void TearDown() override {
        if (std::getenv("KOLT_FAULT_MATRIX_ROWS") == nullptr) write_report();
    }
};

const auto* const kReport = ::testing::AddGlobalTestEnvironment(new ReportEnvironment);

// The log-on runs happen in a copy of this program in a temporary
// directory; the copy writes its cells to the file KOLT_FAULT_MATRIX_ROWS
// names.
void run_logging_child(const std::string& plan) {
    kolt::test::TempDir dir;
    const std::string rows = dir.str() + "/rows.tsv";
    std::vector<std::pair<std::string, std::string>> env = {{"KOLT_FAULT_MATRIX_ROWS", rows},
                                                            {"KOLT_FAULT_MATRIX_CHILD", plan},
                                                            {"KOLT_CLERKD", kolt::test::ClerkServer::program()}};
    const int rc = kolt::test::run_copy_of_self(dir.path() / "bin" / "fault_matrix_exec_test",
                                                "FaultMatrixChild.LogOn", env, dir.str() + "/child.out");
    std::ifstream in(rows);
    std::string line;
    int n = 0;
    while (std::getline(in, line)) {
        Cell c = from_row(line);
        EXPECT_TRUE(c.ok()) << describe(c) << ": " << c.problems;
        cells().push_back(c);
        ++n;
    }
    EXPECT_EQ(rc, 0) << kolt::test::read_file(dir.str() + "/child.out");
    EXPECT_GT(n, 0);
}

}  // namespace

class LocalMatrix : public ::testing::TestWithParam<std::string> {};

// The local port, the log off: one test per flow.
TEST_P(LocalMatrix, EveryFault) {
    if (full_run()) GTEST_SKIP() << "FaultMatrix.Full runs it";
    const FaultFlow& flow = kolt::test::fault_flow(GetParam());
    const LinkMode& local = mode_named("local");
    run_cells(local, false, ctest_cells(flow));
}

INSTANTIATE_TEST_SUITE_P(Flows, LocalMatrix, ::testing::ValuesIn([] {
                             std::vector<std::string> names;
                             for (const auto& f : kolt::test::fault_flows()) names.push_back(f.name);
                             return names;
                         }()),
                         [](const ::testing::TestParamInfo<std::string>& i) { return i.param; });

// A covering set behind each teller terminal, the log off: one test per
// terminal type.
class TerminalMatrix : public ::testing::TestWithParam<int> {};

TEST_P(TerminalMatrix, Covered) {
    if (full_run()) GTEST_SKIP() << "FaultMatrix.Full runs it";
    for (const auto& mode : kolt::test::link_modes())
        if (mode.type == GetParam()) run_cells(mode, false, covering_cells(mode, 3 * mode.type));
}

INSTANTIATE_TEST_SUITE_P(Types, TerminalMatrix, ::testing::Values(1, 2, 3, 4, 5, 51),
                         [](const ::testing::TestParamInfo<int>& i) { return "type" + std::to_string(i.param); });

// The clerk server's misbehaviours that end at once (the silent ones wait
// 20 s each: the full run has them).
TEST(FaultMatrix, ClerkServer) {
    if (full_run()) GTEST_SKIP() << "FaultMatrix.Full runs it";
    run_server_faults(false);
}

// A covering set on the local port and behind a terminal with the log on.
TEST(FaultMatrix, LogOnCovered) {
    if (full_run()) GTEST_SKIP() << "FaultMatrix.Full runs it";
    run_logging_child("cover");
}

TEST(FaultMatrixChild, LogOn) {
    const char* plan = std::getenv("KOLT_FAULT_MATRIX_CHILD");
    if (plan == nullptr) GTEST_SKIP() << "started by FaultMatrix.LogOnCovered";
    const std::string which = plan;
    int turn = 1;
    for (const auto& mode : kolt::test::link_modes()) {
        if (which == "full") {
            if (mode_selected(mode)) run_cells(mode, true, every_cell(mode));
        } else if (mode.type == 0 || mode.type == 1) {
            run_cells(mode, true, covering_cells(mode, turn += 5));
        }
    }
    std::ofstream out(std::getenv("KOLT_FAULT_MATRIX_ROWS"));
    for (const auto& c : cells()) out << to_row(c);
}

// The whole product, for the report script: every flow under every fault
// in every mode, the log off and on.
TEST(FaultMatrix, Full) {
    if (matrix_var() != "full") GTEST_SKIP() << "KOLT_FAULT_MATRIX=full runs it";
    for (const auto& mode : kolt::test::link_modes())
        if (mode_selected(mode)) run_cells(mode, false, every_cell(mode));
    if (mode_selected(kolt::test::link_modes().front())) run_server_faults(true);
    run_logging_child("full");
    // The cells for a report made later (KOLT_FAULT_MATRIX=report).
    if (const char* rows = std::getenv("KOLT_FAULT_MATRIX_ROWS_OUT")) {
        std::ofstream out(rows);
        for (const auto& c : cells()) out << to_row(c);
    }
}

// The report of the rows of full runs of single modes.
TEST(FaultMatrix, Report) {
    if (matrix_var() != "report") GTEST_SKIP() << "KOLT_FAULT_MATRIX=report runs it";
    const char* dir = std::getenv("KOLT_REPORT_DIR");
    ASSERT_NE(dir, nullptr);
    for (const auto& e : std::filesystem::directory_iterator(std::string(dir) + "/rows")) {
        std::ifstream in(e.path());
        std::string line;
        while (std::getline(in, line)) {
            Cell c = from_row(line);
            EXPECT_TRUE(c.ok()) << describe(c) << ": " << c.problems;
            cells().push_back(c);
        }
    }
    EXPECT_FALSE(cells().empty());
}
