// Terminal auxiliary-port mode end to end: the simulator plays the teller
// terminal in front of the reader, checks the key-lock, open, close and
// unlock sequences and strips the lead and end around every block.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <thread>
#include <string>
#include <vector>

#include "common/pty_util.hpp"
#include "common/sim_fixture.hpp"
#include "common/test_util.hpp"
#include "kolt/kolt.h"
#include "link/link_state.hpp"

namespace {

using kolt::test::ScopedEnv;
using kolt::test::ScopedSimulator;
using kolt::test::TempDir;
using Events = std::vector<std::string>;

kolt::sim::Options terminal(int type, int port, const std::string& ext_file = "") {
    kolt::sim::Options o;
    o.terminal.type = type;
    o.terminal.port = port;
    o.terminal.ext_file = ext_file;
    return o;
}

// The terminal works through what it received in its own thread: give it
// a moment to catch up with the last sequences written.
template <class Pred>
bool settle(Pred pred) {
    return kolt::test::wait_until(pred);
}

bool closed(kolt::sim::Simulator& sim) {
    return settle([&] { return !sim.aux_open() && !sim.keyboard_locked(); });
}

bool port_closed(kolt::sim::Simulator& sim) {
    return settle([&] { return !sim.aux_open(); });
}

std::string join(const std::vector<std::string>& v) {
    std::string s;
    for (const auto& x : v) s += x + "; ";
    return s;
}

// One session: open, the buzzer and a version query, close.
void session(kolt::sim::Simulator& sim, int type, int port) {
    ASSERT_EQ(KOLT_initCom(type, sim.slave_path().c_str(), port, ""), 0);
    EXPECT_TRUE(settle([&] { return sim.keyboard_locked() && sim.aux_open(); }));
    EXPECT_EQ(KOLT_T41_Buzz(), 0);
    uint8_t version[KOLT_VERSION_MAX];
    EXPECT_EQ(KOLT_T41_GetVersion(4, version, 2), 26);
    EXPECT_EQ(KOLT_freeCom(type, port, ""), 0);
    EXPECT_TRUE(sim.wait_for_commands(2, 1000));
    EXPECT_EQ(sim.buzzer_count(), 1);
    EXPECT_TRUE(closed(sim));
    EXPECT_TRUE(sim.terminal_errors().empty()) << join(sim.terminal_errors());
}

// The terminal's events in a session with a terminal of that type and port.
Events session_events(int type, int port, const std::string& ext_file = "") {
    ScopedSimulator sim(terminal(type, port, ext_file));
    session(*sim, type, port);
    return sim->terminal_events();
}

const Events kWrapped = {"lock", "open", "lead", "end", "lead", "end", "close", "unlock"};

TEST(LinkTerminal, TypeOne) { EXPECT_EQ(session_events(1, 1), kWrapped); }

TEST(LinkTerminal, TypeTwoPortThree) { EXPECT_EQ(session_events(2, 3), kWrapped); }

TEST(LinkTerminal, TypeThree) { EXPECT_EQ(session_events(3, 1), kWrapped); }

TEST(LinkTerminal, TypeFourHasNoWrapping) {
    EXPECT_EQ(session_events(4, 2), (Events{"lock", "open", "close", "unlock"}));
}

// A session with the buzzer only; the terminal must find nothing amiss.
void buzz_session(kolt::sim::Simulator& sim, int type, int port) {
    ASSERT_EQ(KOLT_initCom(type, sim.slave_path().c_str(), port, ""), 0);
    EXPECT_EQ(KOLT_T41_Buzz(), 0);
    EXPECT_EQ(KOLT_freeCom(type, port, ""), 0);
    EXPECT_TRUE(closed(sim));
    EXPECT_TRUE(sim.terminal_errors().empty()) << join(sim.terminal_errors());
}

// How often text occurs in what the terminal received.
int count_received(const kolt::sim::Simulator& sim, const std::string& text) {
    const auto raw = sim.raw_received();
    const std::string all(raw.begin(), raw.end());
    int n = 0;
    for (auto at = all.find(text); at != std::string::npos; at = all.find(text, at + text.size())) ++n;
    return n;
}

TEST(LinkTerminal, TypeFivePortOneClosesTwice) {
    ScopedSimulator sim(terminal(5, 1));
    buzz_session(*sim, 5, 1);
    // The terminal takes the doubled close sequence as the one close of
    // this port: written once, it would be left incomplete (an error).
    EXPECT_EQ(sim->terminal_events(), (Events{"lock", "open", "lead", "end", "close", "unlock"}));
    const std::string close = kolt::test::kEsc + "[/50l";
    EXPECT_EQ(count_received(*sim, close + close), 1);
    EXPECT_EQ(count_received(*sim, close), 2);
}

TEST(LinkTerminal, TypeFivePortFourClosesWithAnEmptySequence) {
    ScopedSimulator sim(terminal(5, 4));
    buzz_session(*sim, 5, 4);
    // No close at all: the unlock ends the session and closes the port.
    EXPECT_EQ(sim->terminal_events(), (Events{"lock", "open", "lead", "end", "unlock"}));
    EXPECT_EQ(count_received(*sim, kolt::test::kEsc + "[/50l"), 0);
}

TEST(LinkTerminal, PublicTypeOnThe_ProcessTerminal) {
    ScopedSimulator sim(terminal(1, 2));
    kolt::test::ScopedStdin stdin_is(sim->slave_path());
    EXPECT_EQ(IC_initCom(4, 2), 0);  // public type 4 is internal type 1
    EXPECT_EQ(kolt::link::state().fd, 0);
    EXPECT_EQ(KOLT_T41_LedOperate(LED_IC, LED_Color_G, LED_Light), 0);
    EXPECT_EQ(IC_CloseCom(4, 2), 0);
    EXPECT_TRUE(closed(*sim));
    EXPECT_EQ(sim->terminal_events(), (Events{"lock", "open", "lead", "end", "close", "unlock"}));
    EXPECT_TRUE(sim->terminal_errors().empty()) << join(sim->terminal_errors());
}

const std::string kExtFile = kolt::test::kTerm51Section +
                             "[TRANSFER_51_KOLT510QX]\n"
                             "OPEN_PORTA=1B2541\n"
                             "OPEN_PORTB=1B2542\n";

TEST(LinkTerminal, TypeFromTheTerminalCommandFile) {
    TempDir dir;
    const std::string path = dir.write("lxbs/font/idcread.ext", kExtFile);
    ScopedEnv env("DCCHOME", dir.str());
    EXPECT_EQ(session_events(51, 1, path), kWrapped);
}

TEST(LinkTerminal, ConnectWithPassThroughPortOfTypeOne) {
    ScopedSimulator sim(terminal(1, 1));
    EXPECT_EQ(KOLT_connectDevice(sim->slave_path().c_str(), "1", "1", "1", "A"), 0);
    EXPECT_EQ(std::string(kolt::link::seq_text(kolt::link::state().ExtendCmd)), "\x1b%A");
    EXPECT_EQ(KOLT_disconnectDevice("1", "1"), 0);
    EXPECT_TRUE(port_closed(*sim));
    // Disconnect closes the port but leaves the keyboard as it is.
    EXPECT_EQ(sim->terminal_events(),
              (Events{"lock", "open", "transfer", "lead", "end", "lead", "end", "close"}));
    EXPECT_TRUE(sim->terminal_errors().empty()) << join(sim->terminal_errors());
    EXPECT_TRUE(sim->keyboard_locked());
}

TEST(LinkTerminal, ConnectWithoutPassThroughPort) {
    ScopedSimulator sim(terminal(3, 2));
    // Type 3 has no pass-through ports: nothing is written for them.
    EXPECT_EQ(KOLT_connectDevice(sim->slave_path().c_str(), "3", "2", "3", "A"), 0);
    EXPECT_EQ(KOLT_disconnectDevice("3", "2"), 0);
    EXPECT_TRUE(port_closed(*sim));
    EXPECT_EQ(sim->terminal_events(), (Events{"lock", "open", "lead", "end", "lead", "end", "close"}));
    EXPECT_TRUE(sim->terminal_errors().empty()) << join(sim->terminal_errors());
}

TEST(LinkTerminal, ConnectWithPassThroughPortFromTheFile) {
    TempDir dir;
    const std::string path = dir.write("lxbs/font/idcread.ext", kExtFile);
    ScopedEnv env("DCCHOME", dir.str());
    ScopedSimulator sim(terminal(51, 1, path));
    EXPECT_EQ(KOLT_connectDevice(sim->slave_path().c_str(), "51", "1", "51", "2"), 0);
    EXPECT_EQ(std::string(kolt::link::seq_text(kolt::link::state().ExtendCmd)), "\x1b%B");
    EXPECT_EQ(KOLT_disconnectDevice("51", "1"), 0);
    EXPECT_TRUE(port_closed(*sim));
    EXPECT_EQ(sim->terminal_events(),
              (Events{"lock", "open", "transfer", "lead", "end", "lead", "end", "close"}));
    EXPECT_TRUE(sim->terminal_errors().empty()) << join(sim->terminal_errors());
}

TEST(LinkTerminal, AuxDisconnectAcceptsAnyPositiveLength) {
    auto o = terminal(1, 1);
    o.profile.disconnect = {0x90, 0x00};
    ScopedSimulator sim(o);
    ASSERT_EQ(KOLT_connectDevice(sim->slave_path().c_str(), "1", "1", "", ""), 0);
    EXPECT_EQ(KOLT_disconnectDevice("1", "1"), 0);
}

TEST(LinkTerminal, AuxDisconnectWithoutAnswerFails) {
    ScopedSimulator sim(terminal(1, 1));
    ASSERT_EQ(KOLT_connectDevice(sim->slave_path().c_str(), "1", "1", "", ""), 0);
    sim->inject_for(0, 0x42, kolt::sim::Fault{kolt::sim::Fault::BadCheck});
    EXPECT_EQ(KOLT_disconnectDevice("1", "1"), -1);
    EXPECT_TRUE(port_closed(*sim));
}

TEST(LinkTerminal, ConnectFailures) {
    ScopedSimulator sim(terminal(1, 1));
    EXPECT_EQ(KOLT_connectDevice("/dev/kolt-no-such-tty", "1", "1", "", ""), -1);
    EXPECT_EQ(KOLT_connectDevice(sim->slave_path().c_str(), "6", "1", "", ""), -1);
}

}  // namespace
