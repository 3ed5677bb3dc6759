// The main of kolt-bench: runs the benchmarks as Google Benchmark's own
// main does, printing to the console, and with --markdown FILE also writes
// the tables of docs/performance.md that come from them (scripts/bench.sh
// puts the document together). Each row names the benchmarks it is made
// of; a library figure next to a reference carries the ratio, library time
// over reference time, as N.NNx.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Run = benchmark::BenchmarkReporter::Run;

// Keeps, for every benchmark, its median (with repetitions) or its only run.
class Collector : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& r : runs) {
            const std::string key = r.run_name.function_name + (r.run_name.args.empty() ? "" : "/" + r.run_name.args);
            if (r.aggregate_name == "median" || (r.aggregate_name.empty() && !runs_.count(key))) runs_[key] = r;
        }
        ConsoleReporter::ReportRuns(runs);
    }
    const Run* find(const std::string& name) const {
        const auto it = runs_.find(name);
        return it == runs_.end() || it->second.error_occurred ? nullptr : &it->second;
    }

private:
    std::map<std::string, Run> runs_;
};

std::string format(const char* f, double v) {
    char buf[64];
    std::snprintf(buf, sizeof buf, f, v);
    return buf;
}

double ns_of(const Run& r) { return r.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(r.time_unit) * 1e9; }

std::string time_text(double ns) {
    if (ns < 10) return format("%.2f ns", ns);
    if (ns < 1e3) return format("%.0f ns", ns);
    if (ns < 1e6) return format("%.1f us", ns / 1e3);
    if (ns < 1e9) return format("%.1f ms", ns / 1e6);
    return format("%.2f s", ns / 1e9);
}

std::optional<double> counter(const Run& r, const char* name) {
    const auto it = r.counters.find(name);
    if (it == r.counters.end()) return std::nullopt;
    return it->second.value;
}

// "271 ns (3.5 GB/s)" where the benchmark counted bytes.
std::string time_and_rate(const Run& r) {
    std::string s = time_text(ns_of(r));
    if (const auto bps = counter(r, "bytes_per_second")) {
        const double v = *bps;
        s += v >= 1e9 ? format(" (%.1f GB/s)", v / 1e9) : format(" (%.0f MB/s)", v / 1e6);
    }
    return s;
}

const char* kMissing = "not run";

class Document {
public:
    explicit Document(const Collector& c) : c_(c) {}

    void text(const std::string& line) { out_ << line << "\n"; }

    // Rows of library against reference: label, library, reference, ratio.
    void compare(const char* label, const char* lib, const char* ref) {
        const Run* a = c_.find(lib);
        const Run* b = c_.find(ref);
        out_ << "| " << label << " | " << (a ? time_and_rate(*a) : kMissing) << " | "
             << (b ? time_and_rate(*b) : kMissing) << " | "
             << (a && b ? format("%.2fx", ns_of(*a) / ns_of(*b)) : std::string("-")) << " |\n";
    }

    // A row of figures computed from one benchmark.
    void row(const char* label, const char* name, const std::function<std::string(const Run&)>& cells, int columns) {
        out_ << "| " << label << " | ";
        if (const Run* r = c_.find(name)) {
            out_ << cells(*r);
        } else {
            out_ << kMissing;
            for (int i = 1; i < columns; ++i) out_ << " | ";
        }
        out_ << " |\n";
    }

    std::string str() const { return out_.str(); }

private:
    const Collector& c_;
    std::ostringstream out_;
};

std::string markdown(const Collector& c) {
    Document d(c);
    auto percent = [](const Run& r, const char* name) {
        const auto v = counter(r, name);
        return v ? format("%.3f %%", *v) : std::string("-");
    };

    d.text("## Waiting: no CPU");
    d.text("");
    d.text("A call waiting 10 seconds for something that never comes, `bench/waiting_bench.cpp`. The library's");
    d.text("share is the CPU time of the calling thread over the wall time (target: below 0.1 % of one core); the");
    d.text("process's share adds the simulator's thread in the same process.");
    d.text("");
    d.text("| Waiting for | Benchmark | Wall time | Library thread | Whole process |");
    d.text("|---|---|---:|---:|---:|");
    const struct {
        const char* label;
        const char* name;
    } waits[] = {
        {"an identity card (`getIdCardInfo`)", "BM_WaitIdCard"},
        {"a stripe swipe (`KOLT_MC_Read`)", "BM_WaitStripeSwipe"},
        {"a finger, framed sensor (`KOLT_T41_FP_GenChar`)", "BM_WaitFinger/framed"},
        {"a finger, EF01 module (`KOLT_T41_FP_GenChar`)", "BM_WaitFinger/ef01"},
        {"an IC reply that never comes (`KOLT_writeBufAndReadFromT41`)", "BM_WaitIcReply"},
        {"a clerk server that never answers (`socketXmlWriteAndRead`)", "BM_WaitClerkServer"},
        {"a reply on a line whose other end has gone", "BM_WaitDeadLine"},
    };
    for (const auto& w : waits) {
        const std::string name = std::string("`") + w.name + "`";
        d.row(w.label, w.name,
              [&](const Run& r) {
                  const auto wall = counter(r, "wall_s");
                  return name + " | " + (wall ? format("%.2f s", *wall) : "-") + " | " +
                         percent(r, "thread_cpu_percent") + " | " + percent(r, "process_cpu_percent");
              },
              4);
    }
    d.text("");

    d.text("## Cancel");
    d.text("");
    d.text("| Operation | Benchmark | Mean | Worst |");
    d.text("|---|---|---:|---:|");
    d.row("`cancelOperation = 1` to the stripe read's return (-3), 14 cancels spread over the read's slices",
          "BM_StripeCancelLatency",
          [](const Run& r) {
              const auto worst = counter(r, "worst_ms");
              return std::string("`BM_StripeCancelLatency` | ") + time_text(ns_of(r)) + " | " +
                     (worst ? format("%.1f ms", *worst) : "-");
          },
          3);
    d.text("");

    d.text("## Throughput against reference libraries");
    d.text("");
    d.text("Each library figure beside a reference measured in the same run (median of the repetitions); the");
    d.text("ratio is library time over reference time, so below 1.00x the library is faster.");
    d.text("");
    d.text("| Operation | libkolt | Reference | Ratio |");
    d.text("|---|---:|---:|---:|");
    d.compare("Base64 encode 1 KiB (OpenSSL `EVP_EncodeBlock`)", "BM_Base64EncodeLibrary/1024", "BM_Base64EncodeOpenSSL/1024");
    d.compare("Base64 encode 64 KiB (OpenSSL `EVP_EncodeBlock`)", "BM_Base64EncodeLibrary/65536",
              "BM_Base64EncodeOpenSSL/65536");
    d.compare("Base64 decode 1 KiB (OpenSSL `EVP_DecodeBlock`)", "BM_Base64DecodeLibrary/1024", "BM_Base64DecodeOpenSSL/1024");
    d.compare("Base64 decode 64 KiB (OpenSSL `EVP_DecodeBlock`)", "BM_Base64DecodeLibrary/65536",
              "BM_Base64DecodeOpenSSL/65536");
    d.compare("identity-card record UCS-2LE to GBK (glibc `iconv`)", "BM_IdUcs2ToGbkLibrary", "BM_IdUcs2ToGbkIconv");
    d.compare("identity-card text GBK to UCS-2LE (glibc `iconv`)", "BM_IdGbkToUcs2Library", "BM_IdGbkToUcs2Iconv");
    d.compare("TLV walk over a card record's 56 items, 1.2 KiB (OpenSSL `ASN1_get_object`)", "BM_TlvWalkLibrary",
              "BM_TlvWalkOpenSSL");
    d.compare("`searchgb`, one lookup in the 24,068 pairs (binary search of the sorted table)", "BM_SearchGbLibrary",
              "BM_SearchGbBinary");
    d.compare("`searchuni`, one lookup in the 24,068 pairs (binary search of the sorted table)", "BM_SearchUniLibrary",
              "BM_SearchUniBinary");
    d.text("");

    d.text("## Parsing and logging");
    d.text("");
    d.text("| Operation | Benchmark | Time |");
    d.text("|---|---|---:|");
    auto single = [&](const char* label, const char* name) {
        const std::string n = std::string("`") + name + "`";
        d.row(label, name, [&](const Run& r) { return n + " | " + time_and_rate(r); }, 2);
    };
    single("a READ RECORD reply as received: main frame decoded, its record stored into the tag-letter slots",
           "BM_CardReplyParse");
    single("`idCovToGBK`: a whole identity-card record to its line", "BM_IdCovToGbk");
    single("one debug-log line with the log switch on (opened, written, closed)", "BM_LogLineOn");
    single("a logging call with the log switch off", "BM_LogCallOff");
    single("a whole stripe read (tracks 2 and 3) when the card is swiped at once", "BM_StripeReadSwipedAtOnce");
    d.text("");
    return d.str();
}

}  // namespace

int main(int argc, char** argv) {
    std::string markdown_file;
    std::vector<char*> args;
    for (int i = 0; i < argc; ++i) {
        if (std::strcmp(argv[i], "--markdown") == 0 && i + 1 < argc) {
            markdown_file = argv[++i];
        } else {
            args.push_back(argv[i]);
        }
    }
    int n = static_cast<int>(args.size());
    benchmark::Initialize(&n, args.data());
    if (benchmark::ReportUnrecognizedArguments(n, args.data())) return 1;
    Collector collector;
    benchmark::RunSpecifiedBenchmarks(&collector);
    benchmark::Shutdown();
    if (!markdown_file.empty()) {
        std::ofstream out(markdown_file);
        out << markdown(collector);
        if (!out) {
            std::fprintf(stderr, "kolt-bench: cannot write %s\n", markdown_file.c_str());
            return 1;
        }
    }
    return 0;
}
