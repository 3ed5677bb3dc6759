// The device flows of the library, each with what a faulty device makes of
// it: how to set up the simulated reader, how to call the flow through the
// exported C functions with the smallest time-outs its parameters allow,
// what a healthy run gives, and what each kind of fault in the reply of one
// command of the flow gives. The fault matrix (fault_matrix_exec_test.cpp)
// and the soak program (tools/soak.cpp) run them.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "kolt_sim/simulator.hpp"

namespace kolt::test {

// A fault of the matrix: one misbehaviour of the reader in one reply.
enum class LineFault {
    NoReply,
    Truncated,
    BadCheck,
    GarbageBefore,
    GarbageInside,
    LengthHuge,
    CloseMidFrame,
    Trickle,
    SplitBytes,
    OtherReply,
};
inline constexpr int kLineFaultCount = 10;

const std::vector<LineFault>& line_faults();
const char* fault_name(LineFault f);
// Whether the fault leaves the host waiting out its time-out.
bool fault_waits(LineFault f);
// The simulator's fault for it; trickle_gap_ms spaces a trickled reply.
kolt::sim::Fault sim_fault(LineFault f, int trickle_gap_ms);

// How the library reaches the reader: the local port (type 0), or the
// auxiliary port of a teller terminal of an internal type 1..5 or >= 50
// (the terminal command file). public_type is the public terminal type the
// teller entry points take for it (KOLT_DoTermType), -1 when none maps to it.
struct LinkMode {
    std::string name;
    int type = 0;
    int public_type = 0;
    int port = 1;
    bool wraps = false;  // the terminal forwards only blocks inside its lead and end
};
const std::vector<LinkMode>& link_modes();

// What a call gave: its result code and the text that matters of its
// outputs (empty when it has none).
struct Outcome {
    int code = 0;
    std::string text;
    bool operator==(const Outcome&) const = default;
};
std::ostream& operator<<(std::ostream& os, const Outcome& o);

// One run of a flow: its outcome and how long the call under test took.
struct FlowRun {
    Outcome outcome;
    long long elapsed_ms = 0;
};

struct FaultFlow {
    std::string name;
    std::string what;  // the calls, for the report
    // The command whose reply is spoiled: main frames by class and code,
    // bracket commands class 0 and the command byte, the probe 0 0, EF01
    // packets 0xEF and the instruction, escape sequences 0x1B and the letter.
    // Faults that make the host wait go to wait_target (a command of the
    // flow with a shorter time-out) when it is set.
    uint8_t cls = 0, code = 0;
    std::optional<std::pair<uint8_t, uint8_t>> wait_target;
    // Only replies to the commands this accepts (empty: every one of cls/code).
    kolt::sim::Simulator::Match match;
    // The longest the call under test may wait for the spoiled reply
    // (the time-out of that exchange), ms; a call must end within this
    // and 1 s more.
    int timeout_ms = 1000;
    // The flow leaves the link open when it fails after its command, as
    // the library has always done (the next call's open takes it over):
    // the descriptor count is checked after the healthy call that follows.
    bool keeps_link_on_failure = false;
    // Writes its commands to the line as they are, without the terminal's
    // lead and end around them: runs only where the mode has none (the
    // local port, terminal type 4).
    bool unwrapped = false;
    // Runs only on the local port (the call names its own device).
    bool local_only = false;
    // Runs only where a public terminal type reaches the mode (the call
    // takes the public type).
    bool needs_public_type = false;
    // The fingerprint sensor it needs ("none", "framed", "ef01").
    std::string sensor = "none";
    // Talks to the clerk verification server (kolt-clerkd, started by the
    // bench; HOME points the library at it).
    bool clerk_server = false;
    // Puts cards, swipes, fingers on the reader; before every run.
    std::function<void(kolt::sim::Simulator&)> prepare;
    // Calls the library; gPortName names the simulator, descriptor 0 is the
    // simulator's line in the auxiliary modes.
    std::function<FlowRun(const LinkMode&)> run;
    Outcome healthy;
    // The outcome under each fault; faults not listed give `failure`.
    Outcome failure;
    std::map<LineFault, Outcome> expected;
    // Where it differs behind a teller terminal.
    std::map<LineFault, Outcome> expected_aux;

    // Faults besides the waiting ones (fault_waits) that leave this flow
    // waiting out its time-out: the bracket framing reads whatever count
    // its length field gives before it looks at it.
    std::vector<LineFault> also_waits;

    Outcome expect(LineFault f, const LinkMode& mode) const;
    bool waits(LineFault f) const;
    // Whether waiting out its time-out is cheap enough for the test suite
    // and the soak: the 1-second queries and the escape-sequence stripe
    // calls (their own time-out of a second); the others wait 3 to 10 s.
    bool short_waits() const { return timeout_ms <= 1000 || unwrapped; }
    // How long the call may take under the fault: the exchange's time-out.
    // (A trickle whose head came in time and the rest too late could take
    // twice that: the clock starts again for the rest. The bench's trickle
    // is slower than the time-out from its second byte on.)
    int time_limit_ms(LineFault) const { return timeout_ms; }
    bool runs_in(const LinkMode& mode) const;
    std::pair<uint8_t, uint8_t> target(LineFault f) const;
};

const std::vector<FaultFlow>& fault_flows();
const FaultFlow& fault_flow(const std::string& name);

// Misbehaviours of the clerk verification server, each played for the
// requests of one clerk of the bench's clerk file: what a fingerprint check
// of that clerk gives (the reader healthy), and how long it may take.
struct ServerFault {
    std::string name;
    std::string clerk;  // clerk number, bank 0101
    Outcome expected;
    int timeout_ms = 0;
    bool waits = false;  // the library waits out its 20-second time-out
};
const std::vector<ServerFault>& clerk_server_faults();
// A fingerprint check of a clerk (Verify_clerk_finger, 1 s capture) in the
// mode: the result and the password handed back.
FlowRun verify_clerk(const LinkMode& mode, const std::string& clerk);

// The setting of one link mode for the lifetime of the object: the
// simulator (with the terminal of the mode, a fingerprint sensor of each
// kind on demand), gPortName, descriptor 0 on the simulator's line in the
// auxiliary modes, the terminal command file of types >= 50.
class FlowBench {
public:
    explicit FlowBench(const LinkMode& mode);
    ~FlowBench();
    FlowBench(const FlowBench&) = delete;
    FlowBench& operator=(const FlowBench&) = delete;

    kolt::sim::Simulator& sim();
    const LinkMode& mode() const { return mode_; }

    // One run of the flow with the fault (nullopt: healthy) on its command.
    FlowRun run(const FaultFlow& flow, std::optional<LineFault> fault);
    // A fingerprint check of one clerk of the bench's clerk file, the
    // reader healthy (the server's misbehaviours, clerk_server_faults()).
    FlowRun run_clerk(const std::string& clerk);

private:
    void start_clerks();
    void forget_records();
    struct Impl;
    LinkMode mode_;
    std::unique_ptr<Impl> impl_;
};

// Open descriptors of the process (entries of /proc/self/fd).
int open_descriptors();
// Resident set of the process in bytes (/proc/self/statm).
long long resident_bytes();

}  // namespace kolt::test
