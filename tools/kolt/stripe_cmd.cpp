// stripe read and stripe write: the escape-sequence reader (cancellable)
// and the framed three-track read.
#include <kolt/kolt.h>

#include <CLI/CLI.hpp>

#include "cli.hpp"

namespace kolt::cli {

namespace {

constexpr int kDefaultSwipeWait = 20;

struct StripeOptions {
    std::string path = "escape";
    std::string track = "23";
    std::string track2, track3;
};

// KOLT_MC_Read and KOLT_MC_Write.
Failure escape_failure(int32_t rc, bool write) {
    switch (rc) {
    case -1: return {kExitNoDevice, rc, "the port could not be opened"};
    case -2: return {kExitNothing, rc, "no card was swiped in time"};
    case -3: return {kExitCancelled, rc, "cancelled"};
    case -4:
        return write ? Failure{kExitRefused, rc, "the reader could not write the card"}
                     : Failure{kExitUnusable, rc, "the reader's answer is not usable"};
    case -5: return {kExitUnusable, rc, "a track asked for holds no data"};
    case -6: return {kExitUnusable, rc, "the reader's answer does not separate the two tracks"};
    default: return {kExitRefused, rc, write ? "the stripe write failed" : "the stripe read failed"};
    }
}

int mode_of(const std::string& track) { return std::atoi(track.c_str()); }

void reset_cancel() {
    if (interrupted()) throw Failure{kExitCancelled, 0, "cancelled"};
    cancelOperation = 0;
}

void add_track(Output& out, const Globals& g, const char* key, const char* label, const std::string& text) {
    json_string(out.root(), key, gbk_to_utf8(text));
    out.line("%s %s", label, text.empty() ? "(no data)" : shown(g, text).c_str());
}

void read_escape(Globals& g, Output& out, const StripeOptions& o) {
    const int seconds = g.timeout_or(kDefaultSwipeWait);
    const int mode = mode_of(o.track);
    std::vector<char> t2(KOLT_STRIPE_TEXT_MAX, 0);
    std::vector<char> t3(KOLT_STRIPE_TEXT_MAX, 0);
    reset_cancel();
    if (::isatty(STDERR_FILENO) == 1) Output::note("swipe the card");
    const int32_t rc = call_library(g, Wait{"a swipe", seconds, true}, [&] {
        return KOLT_MC_Read(g.terminal_type, g.port_no, mode, t2.data(), t3.data(), static_cast<uint32_t>(seconds));
    });
    if (rc != 0) throw escape_failure(rc, false);
    json_int(out.root(), "result", rc);
    json_string(out.root(), "path", "escape");
    if (mode != 3) add_track(out, g, "track2", "track 2:", t2.data());
    if (mode != 2) add_track(out, g, "track3", "track 3:", t3.data());
}

// A track of the framed read: status (00 data, 01 none), length, data.
std::string framed_track(const std::vector<uint8_t>& buf) {
    if (buf[0] != 0) return {};
    const size_t len = static_cast<size_t>(buf[1]) << 8 | buf[2];
    return std::string(reinterpret_cast<const char*>(buf.data()) + 3, std::min(len, buf.size() - 3));
}

void read_framed(Globals& g, Output& out, const StripeOptions& o) {
    const int seconds = g.timeout_or(kDefaultSwipeWait);
    std::vector<uint8_t> t1(KOLT_T41_REPLY_MAX, 0), t2(KOLT_T41_REPLY_MAX, 0), t3(KOLT_T41_REPLY_MAX, 0);
    int32_t open_rc = 0;
    if (::isatty(STDERR_FILENO) == 1) Output::note("swipe the card");
    const int32_t rc = call_library(g, Wait{"a swipe", seconds, false}, [&]() -> int32_t {
        open_rc = IC_initCom(g.terminal_type, g.port_no);
        if (open_rc != 0) return open_rc;
        const int32_t r = KOLT_T41_MC_ReadThreeTrackData(t1.data(), t2.data(), t3.data(), static_cast<uint32_t>(seconds));
        IC_CloseCom(g.terminal_type, g.port_no);
        return r;
    });
    if (open_rc != 0) throw Failure{kExitNoDevice, open_rc, "the port could not be opened"};
    if (rc == MC_Read_Timeout) throw Failure{kExitNothing, rc, "no card was swiped in time"};
    if (rc == Revdata_Error || rc == Lenth_Error) throw Failure{kExitNoDevice, rc, "the device does not answer"};
    if (rc != 0) {
        char text[80];
        std::snprintf(text, sizeof text, "the reader refused the stripe read (device result 0x%04X)",
                      static_cast<unsigned>(rc));
        throw Failure{kExitRefused, rc, text};
    }
    json_int(out.root(), "result", rc);
    json_string(out.root(), "path", "framed");
    const int mode = mode_of(o.track);
    add_track(out, g, "track1", "track 1:", framed_track(t1));
    if (mode != 3) add_track(out, g, "track2", "track 2:", framed_track(t2));
    if (mode != 2) add_track(out, g, "track3", "track 3:", framed_track(t3));
}

void run_read(Globals& g, Output& out, const StripeOptions& o) {
    use_port(g);
    if (o.path == "framed")
        read_framed(g, out, o);
    else
        read_escape(g, out, o);
}

void run_write(Globals& g, Output& out, const StripeOptions& o) {
    if (o.path == "framed") throw Failure{kExitUsage, 0, "the framed path only reads: write with --path escape"};
    if (o.track2.empty() && o.track3.empty()) throw Failure{kExitUsage, 0, "give --track2 and/or --track3"};
    use_port(g);
    const int mode = o.track3.empty() ? 2 : o.track2.empty() ? 3 : 23;
    const int seconds = g.timeout_or(kDefaultSwipeWait);
    reset_cancel();
    if (::isatty(STDERR_FILENO) == 1) Output::note("swipe the card to write it");
    const int32_t rc = call_library(g, Wait{"a swipe", seconds, true}, [&] {
        return KOLT_MC_Write(g.terminal_type, g.port_no, mode, o.track2.c_str(), o.track3.c_str(),
                             static_cast<uint32_t>(seconds));
    });
    if (rc != 0) throw escape_failure(rc, true);
    json_int(out.root(), "result", rc);
    json_int(out.root(), "mode", mode);
    out.line("written: %s", mode == 2 ? "track 2" : mode == 3 ? "track 3" : "tracks 2 and 3");
}

const CLI::Validator kTrackText(
    [](std::string& text) -> std::string {
        if (text.size() > 500) return "a track text is at most 500 characters";
        for (char c : text)
            if (c == 'A' || c == '?' || c == '\x1C' || static_cast<unsigned char>(c) < 0x20)
                return "a track text holds no \"A\", \"?\" or control characters";
        return {};
    },
    "");

}  // namespace

void add_stripe_command(CLI::App& app, Runner& run) {
    CLI::App* stripe = app.add_subcommand("stripe", "Magnetic stripe: read or write a card");
    stripe->require_subcommand(1);
    {
        auto o = std::make_shared<StripeOptions>();
        CLI::App* sub = stripe->add_subcommand(
            "read", "Read a swiped card (escape path: KOLT_MC_Read, Ctrl-C cancels; framed path: KOLT_T41_MC_ReadThreeTrackData)");
        sub->add_option("--path", o->path, "escape (default) or framed")
            ->check(CLI::IsMember({"escape", "framed"}).description(""))
            ->type_name("framed|escape");
        sub->add_option("--track", o->track, "Tracks: 2, 3 or 23 (default 23)")
            ->check(CLI::IsMember({"2", "3", "23"}).description(""))
            ->type_name("2|3|23");
        sub->footer("Waits 20 s for a swipe unless --timeout says otherwise. Exit codes: see kolt --help.");
        sub->callback([&run, o] { run = [o](Globals& g, Output& out) { run_read(g, out, *o); }; });
    }
    {
        auto o = std::make_shared<StripeOptions>();
        CLI::App* sub = stripe->add_subcommand("write", "Write tracks 2 and/or 3 of a swiped card (KOLT_MC_Write)");
        sub->add_option("--track2", o->track2, "Track 2 text, without sentinels")->check(kTrackText)->type_name("T");
        sub->add_option("--track3", o->track3, "Track 3 text, without sentinels")->check(kTrackText)->type_name("T");
        sub->add_option("--path", o->path, "escape (default; the framed path only reads)")
            ->check(CLI::IsMember({"escape", "framed"}).description(""))
            ->type_name("framed|escape");
        sub->footer("Waits 20 s for a swipe unless --timeout says otherwise. Exit codes: see kolt --help.");
        sub->callback([&run, o] { run = [o](Globals& g, Output& out) { run_write(g, out, *o); }; });
    }
}

}  // namespace kolt::cli
