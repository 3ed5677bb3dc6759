// The example configuration files of examples/config/ read by the library's
// own readers: every key gives the value the file documents, and each file
// is taken from the place the library looks for it.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "common/sim_fixture.hpp"
#include "common/test_util.hpp"
#include "kolt/kolt.h"
#include "link/extfile.hpp"
#include "support/config.hpp"
#include "support/keyvalue.hpp"

namespace {

using kolt::test::ScopedEnv;
using kolt::test::ScopedSimulator;
using kolt::test::TempDir;

std::filesystem::path source_dir() {
    if (const char* d = std::getenv("KOLT_TEST_SOURCE_DIR")) return d;
    return std::filesystem::path(__FILE__).parent_path().parent_path();
}

std::string example(const std::string& name) { return (source_dir() / "examples" / "config" / name).string(); }

std::string example_text(const std::string& name) { return kolt::test::read_file(example(name)); }

// The example's text with one line replaced by another (the line must be there).
std::string with_line(const std::string& name, const std::string& from, const std::string& to) {
    std::string text = example_text(name);
    const auto at = text.find("\n" + from + "\n");
    EXPECT_NE(at, std::string::npos) << from << " is not a line of " << name;
    if (at != std::string::npos) text.replace(at + 1, from.size(), to);
    return text;
}

const std::string kEsc = kolt::test::kEsc;

}  // namespace

// ---- kolt.ini: the log switch of the card calls ------------------------------------

TEST(ExampleKoltIni, LogSwitchIsOff) {
    EXPECT_EQ(kolt::config::ini_string("icc", "log", example("kolt.ini")), "0");
    EXPECT_EQ(kolt::config::ini_int("icc", "log", example("kolt.ini")), 0);
}

TEST(ExampleKoltIni, TheValueComesFromTheLogLine) {
    // 0 is also what a missing key reads as: a copy that switches the log
    // on shows that the "log=" line is the one taken, not a comment.
    TempDir dir;
    const std::string path = dir.write("kolt.ini", with_line("kolt.ini", "log=0", "log=1"));
    EXPECT_EQ(kolt::config::ini_int("icc", "log", path), 1);
}

TEST(ExampleIniFiles, ReadThroughTheExportedReaders) {
    EXPECT_STREQ(GetIniKeyString("icc", "log", example("kolt.ini").c_str()), "0");
    EXPECT_EQ(GetIniKeyInt("log", "debug", example("param.ini").c_str()), 0);
}

// ---- param.ini: the log switch of the identity-card entry ----------------------------

TEST(ExampleParamIni, DebugSwitchIsOff) {
    EXPECT_EQ(kolt::config::ini_string("log", "debug", example("param.ini")), "0");
    EXPECT_EQ(kolt::config::ini_int("log", "debug", example("param.ini")), 0);
}

TEST(ExampleParamIni, TheValueComesFromTheDebugLine) {
    TempDir dir;
    const std::string path = dir.write("param.ini", with_line("param.ini", "debug=0", "debug=1"));
    EXPECT_EQ(kolt::config::ini_int("log", "debug", path), 1);
}

// ---- koltt41fp.cfg: the clerk verification server ----------------------------------

TEST(ExampleServerSettings, ServerAndPort) {
    TempDir home;
    home.write("librun/koltt41fp.cfg", example_text("koltt41fp.cfg"));
    ScopedEnv env("HOME", home.str());
    char ip[KOLT_FP_SERVERIP_MAX];
    int32_t port = -1;
    ASSERT_EQ(KOLT_T41_FP_ReadCfg(ip, &port), 0);
    EXPECT_STREQ(ip, "127.0.0.1");
    EXPECT_EQ(port, 9300);
}

TEST(ExampleServerSettings, LogDirectory) {
    TempDir home;
    home.write("librun/koltt41fp.cfg", example_text("koltt41fp.cfg"));
    ScopedEnv env("HOME", home.str());
    char dir[256];
    ASSERT_EQ(KOLT_InitLogDir(dir), 0);
    EXPECT_STREQ(dir, "/tmp");
    // "/tmp" is also the default: the entry itself must give it.
    std::string value;
    EXPECT_EQ(kolt::config::value_from_file(example("koltt41fp.cfg"), "logdir", value), 0);
    EXPECT_EQ(value, "/tmp");
}

TEST(ExampleServerSettings, EveryLineIsOneEntry) {
    // The reader has no comment syntax: the file holds its three entries
    // and nothing else (the explanations are in examples/config/README.md).
    EXPECT_EQ(example_text("koltt41fp.cfg"), "serverip=127.0.0.1\nserverport=9300\nlogdir=/tmp\n");
}

// ---- idcread.ext: terminal type 50 -----------------------------------------------

namespace {

const std::vector<std::string> kOpenLetters = {"Y", "Z", "X", "V"};

}  // namespace

TEST(ExampleTerminalFile, EveryAuxiliaryPort) {
    for (int port = 1; port <= 4; ++port) {
        SCOPED_TRACE("port " + std::to_string(port));
        kolt::link::TermCommands cmds;
        EXPECT_EQ(kolt::link::read_term_commands(example("idcread.ext"), "50", std::to_string(port), cmds), 2);
        EXPECT_EQ(cmds.open, kEsc + "!0;0;0;0" + kOpenLetters[port - 1] + kEsc + "[/54l" + kEsc + "[/53h" + kEsc +
                                 "[/50h");
        EXPECT_EQ(cmds.close, kEsc + "[/50l");
        EXPECT_EQ(cmds.lock, kEsc + "[2h");
        EXPECT_EQ(cmds.unlock, kEsc + "[2l");
        EXPECT_EQ(cmds.lead, kEsc + "[/51h");
        EXPECT_EQ(cmds.end, kEsc + "[/51l");
    }
}

TEST(ExampleTerminalFile, NoPortFive) {
    kolt::link::TermCommands cmds;
    EXPECT_EQ(kolt::link::read_term_commands(example("idcread.ext"), "50", "5", cmds), 0);
}

TEST(ExampleTerminalFile, OtherTypesAreNotDescribed) {
    kolt::link::TermCommands cmds;
    EXPECT_EQ(kolt::link::read_term_commands(example("idcread.ext"), "51", "1", cmds), 0);
    std::string bytes;
    EXPECT_EQ(kolt::link::read_transfer_command(example("idcread.ext"), "51", "A", bytes), -2);
}

TEST(ExampleTerminalFile, PassThroughPorts) {
    for (const char* letter : {"A", "B", "C", "D", "K"}) {
        SCOPED_TRACE(letter);
        std::string bytes;
        EXPECT_EQ(kolt::link::read_transfer_command(example("idcread.ext"), "50", letter, bytes), 0);
        EXPECT_EQ(bytes, kEsc + "%" + letter);
    }
}

TEST(ExampleTerminalFile, FoundThroughDccHome) {
    TempDir dcc;
    dcc.write("lxbs/font/idcread.ext", example_text("idcread.ext"));
    ScopedEnv env("DCCHOME", dcc.str());
    char open[256], close[256], lock[256], unlock[256], lead[256], end[256];
    EXPECT_EQ(KOLT_getTermCmdFromExtfile("50", "3", open, close, lock, unlock, lead, end), 2);
    EXPECT_EQ(std::string(open), kEsc + "!0;0;0;0X" + kEsc + "[/54l" + kEsc + "[/53h" + kEsc + "[/50h");
    EXPECT_EQ(std::string(close), kEsc + "[/50l");
    EXPECT_EQ(std::string(lead), kEsc + "[/51h");
    EXPECT_EQ(std::string(end), kEsc + "[/51l");
}

TEST(ExampleTerminalFile, ASessionThroughTheSimulatedTerminal) {
    // The simulator plays a terminal of type 50 from the same file: it
    // checks the lock, open, lead, end, close and unlock sequences.
    TempDir dcc;
    const std::string path = dcc.write("lxbs/font/idcread.ext", example_text("idcread.ext"));
    ScopedEnv env("DCCHOME", dcc.str());
    kolt::sim::Options opt;
    opt.terminal.type = 50;
    opt.terminal.port = 2;
    opt.terminal.ext_file = path;
    ScopedSimulator sim(opt);
    ASSERT_EQ(KOLT_initCom(50, sim->slave_path().c_str(), 2, ""), 0);
    EXPECT_EQ(KOLT_T41_Buzz(), 0);
    uint8_t version[KOLT_VERSION_MAX];
    EXPECT_GT(KOLT_T41_GetVersion(4, version, 2), 0);
    EXPECT_EQ(KOLT_freeCom(50, 2, ""), 0);
    EXPECT_TRUE(kolt::test::wait_until([&] { return !sim->aux_open() && !sim->keyboard_locked(); }));
    EXPECT_EQ(sim->terminal_events(),
              (std::vector<std::string>{"lock", "open", "lead", "end", "lead", "end", "close", "unlock"}));
    EXPECT_TRUE(sim->terminal_errors().empty());
}
