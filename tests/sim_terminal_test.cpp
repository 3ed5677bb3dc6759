// The simulator playing the teller terminal in front of the reader.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "common/sim_fixture.hpp"
#include "common/test_util.hpp"
#include "kolt_sim/frame.hpp"
#include "kolt_sim/simulator.hpp"

using namespace kolt::sim;
using kolt::test::RawLine;
using kolt::test::TempDir;

namespace {

const std::string ESC = "\x1B";
const std::string kLock = ESC + "[2h";
const std::string kUnlock = ESC + "[2l";
const std::string kOpen11 = ESC + "!0;0;0;0Y" + ESC + "[/54l" + ESC + "[/53h" + ESC + "[/50h";
const std::string kOpen12 = ESC + "!0;0;0;0Z" + ESC + "[/54l" + ESC + "[/53h" + ESC + "[/50h";
const std::string kOpen14 = ESC + "!0;0;0;0V" + ESC + "[/54l" + ESC + "[/53h" + ESC + "[/50h";
const std::string kClose1 = ESC + "[/50l";
const std::string kLead1 = ESC + "[/51h";
const std::string kEnd1 = ESC + "[/51l";

std::string frame_text(const Bytes& b) { return std::string(b.begin(), b.end()); }
const std::string kRfOn = frame_text(encode_main_command(0x38, 0x97, {}));
const Bytes kOk = kolt::test::stx_etx("0002000000");

using Events = std::vector<std::string>;

struct Session {
    explicit Session(int type, int port, std::string ext = {}) {
        Options o;
        o.terminal.type = type;
        o.terminal.port = port;
        o.terminal.ext_file = std::move(ext);
        sim = std::make_unique<Simulator>(o);
        sim->start();
        line = std::make_unique<RawLine>(sim->slave_path());
    }
    // One write per sequence, as the host writes them.
    void send(std::initializer_list<std::string> parts) {
        for (const auto& p : parts)
            if (!p.empty()) line->write(p);
    }
    Bytes reply() { return line->read_until(0x03, 1500); }
    // Waits until the terminal has seen `n` events.
    bool settle(size_t n) {
        return kolt::test::wait_until([&] { return sim->terminal_events().size() >= n; });
    }
    std::unique_ptr<Simulator> sim;
    std::unique_ptr<RawLine> line;
};

std::string join(const std::vector<std::string>& v) {
    std::string s;
    for (const auto& e : v) s += e + "\n";
    return s;
}

}  // namespace

TEST(SimTerminal, Type1Port1Session) {
    Session s(1, 1);
    s.send({kLock, kOpen11});
    s.send({kLead1, kRfOn, kEnd1});
    EXPECT_EQ(s.reply(), kOk);  // the reply comes back unwrapped
    EXPECT_TRUE(s.sim->aux_open());
    EXPECT_TRUE(s.sim->keyboard_locked());
    s.send({kClose1, kUnlock});
    ASSERT_TRUE(s.settle(6));
    EXPECT_EQ(s.sim->terminal_events(), (Events{"lock", "open", "lead", "end", "close", "unlock"}));
    EXPECT_TRUE(s.sim->terminal_errors().empty()) << join(s.sim->terminal_errors());
    EXPECT_FALSE(s.sim->aux_open());
    EXPECT_FALSE(s.sim->keyboard_locked());
    ASSERT_EQ(s.sim->transcript().size(), 1u);
    EXPECT_EQ(s.sim->transcript()[0].cls, 0x38);
}

TEST(SimTerminal, Type1WrongPortIsReportedAndNothingForwarded) {
    Session s(1, 1);
    s.send({kLock, kOpen12, kLead1, kRfOn, kEnd1});
    EXPECT_TRUE(s.line->read_for(300).empty());
    const auto errors = s.sim->terminal_errors();
    ASSERT_FALSE(errors.empty());
    EXPECT_NE(errors[0].find("ESC!0;0;0;0Z"), std::string::npos) << join(errors);
    EXPECT_FALSE(s.sim->aux_open());
    EXPECT_TRUE(s.sim->transcript().empty());
}

TEST(SimTerminal, Type1TransferCommandAccepted) {
    Session s(1, 2);
    s.send({kLock, kOpen12, ESC + "%B", kLead1, kRfOn, kEnd1});
    EXPECT_EQ(s.reply(), kOk);
    EXPECT_TRUE(s.sim->terminal_errors().empty()) << join(s.sim->terminal_errors());
    EXPECT_EQ(s.sim->terminal_events()[2], "transfer");
}

TEST(SimTerminal, Type1DataWithoutLockOrOpen) {
    Session s(1, 1);
    s.send({kLead1, kRfOn, kEnd1});
    EXPECT_TRUE(s.line->read_for(300).empty());
    EXPECT_FALSE(s.sim->terminal_errors().empty());
    EXPECT_TRUE(s.sim->transcript().empty());
}

TEST(SimTerminal, Type1FrameSplitOverTwoBlocks) {
    Session s(1, 1);
    s.send({kLock, kOpen11});
    s.send({kLead1, kRfOn.substr(0, 5), kEnd1});
    s.send({kLead1, kRfOn.substr(5), kEnd1});
    EXPECT_EQ(s.reply(), kOk);
    EXPECT_TRUE(s.sim->terminal_errors().empty()) << join(s.sim->terminal_errors());
}

TEST(SimTerminal, Type3Port1BarDelimitedBlocks) {
    Session s(3, 1);
    s.send({kLock, ESC + "[/1;1;8;0;1;0M" + ESC + "[/54l"});
    s.send({ESC + "[/|", kRfOn, "|"});
    EXPECT_EQ(s.reply(), kOk);
    s.send({ESC + "[/M", kUnlock});
    ASSERT_TRUE(s.settle(6));
    EXPECT_TRUE(s.sim->terminal_errors().empty()) << join(s.sim->terminal_errors());
    EXPECT_FALSE(s.sim->aux_open());
}

TEST(SimTerminal, Type3WrongLeadReported) {
    Session s(3, 1);
    s.send({kLock, ESC + "[/1;1;8;0;1;0M" + ESC + "[/54l"});
    s.send({kLead1, kRfOn, kEnd1});  // type-1 wrapping on a type-3 terminal
    EXPECT_TRUE(s.line->read_for(300).empty());
    EXPECT_FALSE(s.sim->terminal_errors().empty());
}

TEST(SimTerminal, Type4Port2UnwrappedData) {
    Session s(4, 2);
    s.send({kLock, ESC + "[1>", kRfOn});
    EXPECT_EQ(s.reply(), kOk);
    s.send({ESC + "[<", kUnlock});
    ASSERT_TRUE(s.settle(4));
    EXPECT_EQ(s.sim->terminal_events(), (Events{"lock", "open", "close", "unlock"}));
    EXPECT_TRUE(s.sim->terminal_errors().empty()) << join(s.sim->terminal_errors());
}

TEST(SimTerminal, Type4WrongOpenReported) {
    Session s(4, 2);
    s.send({kLock, ESC + "[>"});  // port 1's open sequence
    ASSERT_TRUE(s.settle(1));
    s.send({kRfOn});
    EXPECT_TRUE(s.line->read_for(300).empty());
    EXPECT_FALSE(s.sim->terminal_errors().empty());
}

TEST(SimTerminal, Type5Port1ClosesTwice) {
    Session s(5, 1);
    s.send({kLock, kOpen11, kLead1, kRfOn, kEnd1});
    EXPECT_EQ(s.reply(), kOk);
    s.send({kClose1 + kClose1, kUnlock});
    ASSERT_TRUE(s.settle(6));
    EXPECT_TRUE(s.sim->terminal_errors().empty()) << join(s.sim->terminal_errors());
    EXPECT_FALSE(s.sim->aux_open());
}

TEST(SimTerminal, Type5Port1SingleCloseReported) {
    Session s(5, 1);
    s.send({kLock, kOpen11, kClose1, kUnlock});
    ASSERT_TRUE(s.settle(3));
    EXPECT_TRUE(kolt::test::wait_until([&] { return !s.sim->terminal_errors().empty(); }));
    EXPECT_TRUE(s.sim->aux_open());
}

TEST(SimTerminal, Type5Port4HasNoCloseSequence) {
    Session s(5, 4);
    s.send({kLock, kOpen14, kLead1, kRfOn, kEnd1});
    EXPECT_EQ(s.reply(), kOk);
    s.send({kUnlock});
    ASSERT_TRUE(s.settle(5));
    EXPECT_TRUE(s.sim->terminal_errors().empty()) << join(s.sim->terminal_errors());
    EXPECT_FALSE(s.sim->aux_open());
}

namespace {
const char* kExt =
    "# teller system command file\n"
    "  # OPEN_COM1=\\033[/99h (comment)\n"
    "[TERM_50_KOLT510QX]\n"
    "OPEN_COM1=\\033[/40h\n"
    "CLOSE_COM1=\\033[/40l\n"
    "[TERM_51_KOLT510QX]\n"
    "OPEN_COM1=\\033[/50h\n"
    "CLOSE_COM1=\\033[/50l\n"
    "LOCK_KEY=1B5B3268\n"
    "UNLOCK_KEY=\t1B5B326C\r\n"
    "CMD_BEGIN=\\033[/51h\n"
    "CMD_END=\\033[/51l\n"
    "[TRANSFER_51_KOLT510QX]\n"
    "OPEN_PORTB=1B2542\n"
    "[TERM_51_KOLT510QX]\n"
    "OPEN_COM1=\\033[/77h\n";
}  // namespace

TEST(SimTerminal, Type51FromCommandFile) {
    TempDir dir;
    const std::string path = dir.write("lxbs/font/idcread.ext", kExt);
    Session s(51, 1, path);
    s.send({kLock, ESC + "[/50h", ESC + "%B", kLead1, kRfOn, kEnd1});
    EXPECT_EQ(s.reply(), kOk);
    s.send({kClose1, kUnlock});
    ASSERT_TRUE(s.settle(7));
    EXPECT_EQ(s.sim->terminal_events(), (Events{"lock", "open", "transfer", "lead", "end", "close", "unlock"}));
    EXPECT_TRUE(s.sim->terminal_errors().empty()) << join(s.sim->terminal_errors());
}

TEST(SimTerminal, Type51WrongLockReported) {
    TempDir dir;
    const std::string path = dir.write("idcread.ext", kExt);
    Session s(51, 1, path);
    s.send({ESC + "[3h", ESC + "[/50h"});
    ASSERT_TRUE(s.settle(1));
    EXPECT_TRUE(kolt::test::wait_until([&] { return s.sim->terminal_errors().size() >= 2; }));
    const auto errors = s.sim->terminal_errors();
    ASSERT_GE(errors.size(), 2u) << join(errors);
    EXPECT_NE(errors[0].find("ESC[3h"), std::string::npos) << join(errors);
    EXPECT_NE(errors[1].find("aux open"), std::string::npos) << join(errors);
}

TEST(SimTerminal, Type51FromDccHome) {
    TempDir dir;
    dir.write("lxbs/font/idcread.ext", kExt);
    kolt::test::ScopedEnv env("DCCHOME", dir.str());
    Session s(51, 1);
    s.send({kLock, ESC + "[/50h", kLead1, kRfOn, kEnd1});
    EXPECT_EQ(s.reply(), kOk);
}

TEST(SimTerminalFile, ValueRules) {
    TempDir dir;
    const std::string path = dir.write("idcread.ext",
                                       "[TERM_52_KOLT510QX]\n"
                                       "OPEN_COM1=\\033[/5%%0h\n"
                                       "CLOSE_COM1=1B5B2F35306C\n"
                                       "LOCK_KEY=X\n"
                                       "UNLOCK_KEY=\\033[2l\n"
                                       "CMD_BEGIN=\n"
                                       "CMD_END=|\n");
    const auto s = ext_file_terminal(path, 52, 1);
    EXPECT_EQ(s.open, ESC + "[/5%0h");
    EXPECT_EQ(s.close, ESC + "[/50l");
    EXPECT_EQ(s.lock, "");
    EXPECT_EQ(s.unlock, ESC + "[2l");
    EXPECT_EQ(s.lead, "");
    EXPECT_EQ(s.end, "");
    EXPECT_TRUE(s.transfer.empty());
}

TEST(SimTerminalFile, OnlyTheValueTextIsFormatted) {
    TempDir dir;
    const std::string path = dir.write("idcread.ext",
                                       "[TERM_52_KOLT510QX]\n"
                                       "OPEN_COM1=\\033[/50h\n"
                                       "CLOSE_COM1=\\033[/50l\n"
                                       "CMD_BEGIN=1B2525\n"
                                       "CMD_END=\\033%%%%\n");
    const auto s = ext_file_terminal(path, 52, 1);
    EXPECT_EQ(s.lead, ESC + "%%");  // the hex digits hold no "%%"
    EXPECT_EQ(s.end, ESC + "%%");
}

TEST(SimTerminalFile, OpenCom12CountsAsOpenCom1) {
    TempDir dir;
    const std::string path = dir.write("idcread.ext",
                                       "[TERM_52_KOLT510QX]\n"
                                       "OPEN_COM1=\\033[/50h\n"
                                       "OPEN_COM12=\\033[/99h\n");
    // Two OPEN_COM1 entries make the two entries required; the value of the
    // first stays.
    const auto s = ext_file_terminal(path, 52, 1);
    EXPECT_EQ(s.open, ESC + "[/50h");
    EXPECT_EQ(s.close, "");
}

TEST(SimTerminalFile, MissingSectionOrEntriesRejected) {
    TempDir dir;
    const std::string path = dir.write("idcread.ext", kExt);
    EXPECT_THROW(ext_file_terminal(path, 53, 1), std::runtime_error);
    EXPECT_THROW(ext_file_terminal(path, 51, 2), std::runtime_error);  // no OPEN_COM2/CLOSE_COM2
    EXPECT_THROW(ext_file_terminal(dir.str() + "/absent.ext", 51, 1), std::runtime_error);
    // The first section of a type is the one read.
    EXPECT_EQ(ext_file_terminal(path, 51, 1).open, ESC + "[/50h");
    EXPECT_EQ(ext_file_terminal(path, 50, 1).open, ESC + "[/40h");
    EXPECT_EQ(ext_file_terminal(path, 50, 1).lock, "");
    Options o;
    o.terminal = {51, 2, path};
    EXPECT_THROW(Simulator{o}, std::runtime_error);
}

TEST(SimTerminalFile, BuiltinTables) {
    EXPECT_EQ(builtin_terminal(2, 3).open, ESC + "!0;0;0;0X" + ESC + "[/54l" + ESC + "[/53h" + ESC + "[/50h");
    EXPECT_EQ(builtin_terminal(3, 4).open, ESC + "[/4;1;8;0;1;0M" + ESC + "[/54l");
    EXPECT_EQ(builtin_terminal(3, 4).lead, ESC + "[/|");
    EXPECT_EQ(builtin_terminal(3, 4).end, "|");
    EXPECT_EQ(builtin_terminal(4, 1).open, ESC + "[>");
    EXPECT_EQ(builtin_terminal(4, 4).open, ESC + "[3>");
    EXPECT_EQ(builtin_terminal(4, 4).lead, "");
    EXPECT_EQ(builtin_terminal(5, 1).close, kClose1 + kClose1);
    EXPECT_EQ(builtin_terminal(5, 4).close, "");
    EXPECT_EQ(builtin_terminal(1, 1).transfer.size(), 5u);
    EXPECT_TRUE(builtin_terminal(2, 1).transfer.empty());
    EXPECT_THROW(builtin_terminal(6, 1), std::invalid_argument);
    EXPECT_THROW(builtin_terminal(1, 5), std::invalid_argument);
}
