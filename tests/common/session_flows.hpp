// Library flows that make the recorded sessions of sim/sessions/: each sets
// up the simulated reader, calls the library on whatever port gPortName
// names (the simulator, a proxy in front of it, or a replayer) and gives
// the results as one text, so that the three ways can be compared.
// kolt-record-sessions (tests/tools/record_sessions.cpp) records them.
#pragma once

#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "kolt_sim/session.hpp"
#include "kolt_sim/simulator.hpp"

namespace kolt::test {

struct SessionFlow {
    std::string name;  // the file is sim/sessions/<name>.session
    std::string what;  // a line for the file's comments
    // Puts the cards (and swipes) on the simulated reader.
    std::function<void(kolt::sim::Simulator&)> prepare;
    // Calls the library on gPortName; the results as text.
    std::function<std::string()> run;
    // What run() gives on the simulator with prepare() done.
    std::string expected;
};

const std::vector<SessionFlow>& session_flows();
const SessionFlow& session_flow(const std::string& name);
void PrintTo(const SessionFlow& flow, std::ostream* os);  // its name, for test names

// The committed recording of a flow: sim/sessions/<name>.session.
std::string session_file(const std::string& name);

// Sets gPortName for the lifetime of the object and restores it afterwards.
class ScopedPortName {
public:
    explicit ScopedPortName(const std::string& name);
    ~ScopedPortName();
    ScopedPortName(const ScopedPortName&) = delete;
    ScopedPortName& operator=(const ScopedPortName&) = delete;

private:
    std::string saved_;
};

// Runs a flow on a fresh simulator through an in-process proxy; the results
// and the recording (its comments name the flow).
struct ProxiedRun {
    std::string result;
    kolt::sim::Recording recording;
};
ProxiedRun run_through_proxy(const SessionFlow& flow);

// Runs a flow against a replayer of `recording` at speed 0; the results, the
// replayer's differences and unexpected bytes, and its summary.
struct ReplayedRun {
    std::string result;
    std::vector<kolt::sim::Difference> differences;
    size_t unexpected = 0;
    size_t played = 0;
    size_t exchanges = 0;
    std::vector<std::string> reports;  // what the replayer reported
};
ReplayedRun run_against_replay(const SessionFlow& flow, const kolt::sim::Recording& recording);

}  // namespace kolt::test
