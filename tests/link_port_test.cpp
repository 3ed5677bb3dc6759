// Opening, configuring and closing the link: terminal-type mapping, the
// escape-sequence tables, the local port and the terminal auxiliary port,
// checked byte for byte on a real pseudo-terminal.
#include <dirent.h>
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "common/pty_util.hpp"
#include "common/test_util.hpp"
#include "kolt/kolt.h"
#include "link/aux_tables.hpp"
#include "link/link_state.hpp"
#include "support/log.hpp"

namespace {

using kolt::test::FarEnd;
using kolt::test::kEsc;
using kolt::test::Pty;
using kolt::test::ScopedEnv;
using kolt::test::ScopedStdin;
using kolt::test::TempDir;

// The pseudo-terminal of these tests keeps the terminal's default settings
// until the library changes them.
struct TermPty : Pty {
    TermPty() : Pty(Mode::Terminal) {}
};

void set_port_name(const std::string& name) {
    std::memset(gPortName, 0, sizeof gPortName);
    std::strncpy(gPortName, name.c_str(), sizeof gPortName - 1);
}

int open_descriptors() {
    int n = 0;
    if (DIR* d = ::opendir("/proc/self/fd")) {
        while (::readdir(d) != nullptr) ++n;
        ::closedir(d);
    }
    return n;
}

bool is_open(int fd) { return ::fcntl(fd, F_GETFD) != -1; }

struct Seqs {
    std::string open, close;
};

Seqs aux_cmd(const char* type, const char* port, int* rc) {
    char o[KOLT_SEQ_MAX], c[KOLT_SEQ_MAX];
    std::memset(o, 'x', sizeof o);
    std::memset(c, 'x', sizeof c);
    *rc = KOLT_getAuxCmdOnTermtypeAuxno(type, port, o, c);
    return {o, c};
}

std::string lead() { return std::string(kolt::link::seq_text(kolt::link::state().aux_lead)); }
std::string end() { return std::string(kolt::link::seq_text(kolt::link::state().aux_end)); }
std::string lock() { return std::string(kolt::link::seq_text(kolt::link::state().key_lock_cmd)); }
std::string unlock() { return std::string(kolt::link::seq_text(kolt::link::state().key_unlock_cmd)); }

const std::string kType1Open[4] = {
    kEsc + "!0;0;0;0Y" + kEsc + "[/54l" + kEsc + "[/53h" + kEsc + "[/50h",
    kEsc + "!0;0;0;0Z" + kEsc + "[/54l" + kEsc + "[/53h" + kEsc + "[/50h",
    kEsc + "!0;0;0;0X" + kEsc + "[/54l" + kEsc + "[/53h" + kEsc + "[/50h",
    kEsc + "!0;0;0;0V" + kEsc + "[/54l" + kEsc + "[/53h" + kEsc + "[/50h",
};

// ---------------------------------------------------------------------------
// Terminal types and tables.

TEST(LinkTermType, PublicTypesMapToInternalTypes) {
    EXPECT_EQ(KOLT_DoTermType(1), 1);
    EXPECT_EQ(KOLT_DoTermType(4), 1);
    EXPECT_EQ(KOLT_DoTermType(5), 1);
    EXPECT_EQ(KOLT_DoTermType(2), 3);
    EXPECT_EQ(KOLT_DoTermType(3), 4);
    EXPECT_EQ(KOLT_DoTermType(0), 0);
    EXPECT_EQ(KOLT_DoTermType(6), 0);
    EXPECT_EQ(KOLT_DoTermType(51), 0);
    EXPECT_EQ(KOLT_DoTermType(-1), 0);
}

TEST(LinkTables, TypesOneAndTwo) {
    for (const char* type : {"1", "2"}) {
        for (int port = 1; port <= 4; ++port) {
            int rc = 99;
            const Seqs s = aux_cmd(type, std::to_string(port).c_str(), &rc);
            EXPECT_EQ(rc, 0);
            EXPECT_EQ(s.open, kType1Open[port - 1]) << type << "/" << port;
            EXPECT_EQ(s.close, kEsc + "[/50l");
            EXPECT_EQ(lead(), kEsc + "[/51h");
            EXPECT_EQ(end(), kEsc + "[/51l");
            EXPECT_EQ(lock(), kEsc + "[2h");
            EXPECT_EQ(unlock(), kEsc + "[2l");
        }
    }
}

TEST(LinkTables, TypeThree) {
    for (int port = 1; port <= 4; ++port) {
        int rc = 99;
        const Seqs s = aux_cmd("3", std::to_string(port).c_str(), &rc);
        EXPECT_EQ(rc, 0);
        EXPECT_EQ(s.open, kEsc + "[/" + std::to_string(port) + ";1;8;0;1;0M" + kEsc + "[/54l");
        EXPECT_EQ(s.close, kEsc + "[/M");
        EXPECT_EQ(lead(), kEsc + "[/|");
        EXPECT_EQ(end(), "|");
        EXPECT_EQ(lock(), kEsc + "[2h");
        EXPECT_EQ(unlock(), kEsc + "[2l");
    }
}

TEST(LinkTables, TypeFourHasNoLeadOrEnd) {
    const std::string opens[4] = {kEsc + "[>", kEsc + "[1>", kEsc + "[2>", kEsc + "[3>"};
    for (int port = 1; port <= 4; ++port) {
        int rc = 99;
        const Seqs s = aux_cmd("4", std::to_string(port).c_str(), &rc);
        EXPECT_EQ(rc, 0);
        EXPECT_EQ(s.open, opens[port - 1]);
        EXPECT_EQ(s.close, kEsc + "[<");
        EXPECT_EQ(lead(), "");
        EXPECT_EQ(end(), "");
        EXPECT_EQ(lock(), kEsc + "[2h");
    }
}

TEST(LinkTables, TypeFivePortOneClosesTwice) {
    int rc = 99;
    const Seqs s = aux_cmd("5", "1", &rc);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(s.open, kType1Open[0]);
    EXPECT_EQ(s.close, kEsc + "[/50l" + kEsc + "[/50l");
    EXPECT_EQ(lead(), kEsc + "[/51h");
}

TEST(LinkTables, TypeFivePortFourHasAnEmptyClose) {
    int rc = 99;
    const Seqs s = aux_cmd("5", "4", &rc);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(s.open, kType1Open[3]);
    EXPECT_EQ(s.close, "");
    EXPECT_EQ(kolt::link::termCloseAux.size(), 19u);
    EXPECT_EQ(kolt::link::termOpenAux.size(), 20u);
}

TEST(LinkTables, TypeOnePortFiveReachesTheTypeTwoPortOneEntry) {
    int rc = 99;
    const Seqs s = aux_cmd("1", "5", &rc);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(s.open, kolt::link::termOpenAux[4]);
    EXPECT_EQ(s.open, kType1Open[0]);
    EXPECT_EQ(lead(), kEsc + "[/51h");  // the type-1 row
}

TEST(LinkTables, TypeSixPortOneIsPastTheTable) {
    int rc = 99;
    aux_cmd("6", "1", &rc);
    EXPECT_EQ(rc, -2);
}

TEST(LinkTables, NegativeIndexGivesMinusOne) {
    int rc = 99;
    aux_cmd("0", "1", &rc);
    EXPECT_EQ(rc, -1);
    aux_cmd("1", "0", &rc);
    EXPECT_EQ(rc, -1);
}

TEST(LinkTables, IndexInsideTheTableButTypeWithoutRowIsRefused) {
    int rc = 99;
    aux_cmd("0", "9", &rc);  // index 4, type row -1
    EXPECT_EQ(rc, -2);
    aux_cmd("7", "-7", &rc);  // index 16, type row 6
    EXPECT_EQ(rc, -2);
}

TEST(LinkTables, UnusedTypePortNumbers) {
    EXPECT_STREQ(kolt::link::termTypeAuxno[0], "011");
    EXPECT_STREQ(kolt::link::termTypeAuxno[19], "054");
}

TEST(LinkBPCommand, OnlyTypeOneHasPassThroughPorts) {
    const char* ports[5] = {"A", "B", "C", "D", "K"};
    const char letters[5] = {'A', 'B', 'C', 'D', 'K'};
    for (int i = 0; i < 5; ++i) {
        char out[KOLT_SEQ_MAX] = {};
        EXPECT_EQ(KOLT_getBPCommand("1", ports[i], out), 0);
        EXPECT_EQ(std::string(out), kEsc + "%" + letters[i]);
        char num[KOLT_SEQ_MAX] = {};
        EXPECT_EQ(KOLT_getBPCommand("1", std::to_string(i + 1).c_str(), num), 0);
        EXPECT_EQ(std::string(num), kEsc + "%" + letters[i]);
    }
    char out[KOLT_SEQ_MAX] = {};
    EXPECT_EQ(KOLT_getBPCommand("2", "A", out), -1);
    EXPECT_EQ(KOLT_getBPCommand("3", "1", out), -1);
    EXPECT_EQ(KOLT_getBPCommand("1", "6", out), -1);
    EXPECT_EQ(KOLT_getBPCommand("1", "0", out), -1);
    EXPECT_EQ(KOLT_getBPCommand("1", "E", out), -1);
}

const std::string kExtFile = "# teller terminal commands\n"
                             "[TERM_50_KOLT510QX]\n"
                             "OPEN_COM1=\\033[/60h\n" +
                             kolt::test::kTerm51Section +
                             "OPEN_COM2=1B5B2F3532680D\n"
                             "CLOSE_COM2=1B5B2F35326C\n"
                             "[TRANSFER_51_KOLT510QX]\n"
                             "OPEN_PORTA=1B2541\n"
                             "OPEN_PORTB=1B2542\n"
                             "OPEN_PORTK=1B254B\n"
                             "[TERM_52_KOLT510QX]\n"
                             "OPEN_COM1=\\033[/50h\n"
                             "CLOSE_COM1=\\033[/50l\n"
                             "LOCK_KEY=1B5B3268\n";

TEST(LinkExtFile, TypeFiftyOneSequencesFromTheTerminalFile) {
    TempDir dir;
    dir.write("lxbs/font/idcread.ext", kExtFile);
    ScopedEnv env("DCCHOME", dir.str());
    int rc = 99;
    Seqs s = aux_cmd("51", "1", &rc);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(s.open, kEsc + "[/50h");
    EXPECT_EQ(s.close, kEsc + "[/50l");
    EXPECT_EQ(lock(), kEsc + "[2h");
    EXPECT_EQ(unlock(), kEsc + "[2l");
    EXPECT_EQ(lead(), kEsc + "[/51h");
    EXPECT_EQ(end(), kEsc + "[/51l");
    s = aux_cmd("51", "2", &rc);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(s.open, kEsc + "[/52h\r");
    EXPECT_EQ(s.close, kEsc + "[/52l");
}

TEST(LinkExtFile, SectionWithOpenCloseAndLockOnlyIsEnough) {
    TempDir dir;
    dir.write("lxbs/font/idcread.ext", kExtFile);
    ScopedEnv env("DCCHOME", dir.str());
    int rc = 99;
    const Seqs s = aux_cmd("52", "1", &rc);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(s.open, kEsc + "[/50h");
    EXPECT_EQ(lead(), "");
}

TEST(LinkExtFile, FewerThanTwoEntriesOrNoSectionOrNoFileGiveMinusOne) {
    TempDir dir;
    dir.write("lxbs/font/idcread.ext", kExtFile);
    ScopedEnv env("DCCHOME", dir.str());
    int rc = 99;
    aux_cmd("50", "1", &rc);  // one entry
    EXPECT_EQ(rc, -1);
    aux_cmd("51", "3", &rc);  // no entry for port 3
    EXPECT_EQ(rc, -1);
    aux_cmd("53", "1", &rc);  // no section
    EXPECT_EQ(rc, -1);
    TempDir empty;
    ScopedEnv env2("DCCHOME", empty.str());
    aux_cmd("51", "1", &rc);  // no file
    EXPECT_EQ(rc, -1);
}

TEST(LinkExtFile, PassThroughCommandsOfFileTypes) {
    TempDir dir;
    dir.write("lxbs/font/idcread.ext", kExtFile);
    ScopedEnv env("DCCHOME", dir.str());
    char out[KOLT_SEQ_MAX] = {};
    EXPECT_EQ(KOLT_getBPCommand("51", "2", out), 0);  // "2" is port B
    EXPECT_EQ(std::string(out), kEsc + "%B");
    std::memset(out, 0, sizeof out);
    EXPECT_EQ(KOLT_getBPCommand("51", "5", out), 0);  // "5" is port K
    EXPECT_EQ(std::string(out), kEsc + "%K");
    std::memset(out, 0, sizeof out);
    EXPECT_EQ(KOLT_getBPCommand("51", "A", out), 0);
    EXPECT_EQ(std::string(out), kEsc + "%A");
    EXPECT_EQ(KOLT_getBPCommand("51", "3", out), -2);  // no OPEN_PORTC
    EXPECT_EQ(KOLT_getBPCommand("52", "1", out), -2);  // no pass-through section
    TempDir empty;
    ScopedEnv env2("DCCHOME", empty.str());
    EXPECT_EQ(KOLT_getBPCommand("51", "1", out), -1);
}

// ---------------------------------------------------------------------------
// Local port.

TEST(LinkLocal, OpenComRefusesPortAndSpeedWithZeroWithoutOpening) {
    TermPty pty;
    set_port_name(pty.name());
    const int before = open_descriptors();
    EXPECT_EQ(KOLT_openCom(9, 9600), 0);
    EXPECT_EQ(KOLT_openCom(1, 1200), 0);
    EXPECT_EQ(KOLT_openCom(-1, 9600), 0);
    EXPECT_EQ(KOLT_openCom(2, 0), 0);
    EXPECT_EQ(open_descriptors(), before);
}

TEST(LinkLocal, OpenComOpensTheNamedDeviceRaw) {
    TermPty pty;
    set_port_name(pty.name());
    const int fd = KOLT_openCom(0, 9600);  // port 0 is taken as 1
    ASSERT_GT(fd, 2);
    const termios t = pty.attrs();
    EXPECT_EQ(t.c_cflag & CSIZE, static_cast<tcflag_t>(CS8));
    EXPECT_EQ(t.c_cflag & (PARENB | CSTOPB), 0u);
    EXPECT_NE(t.c_cflag & CLOCAL, 0u);
    EXPECT_NE(t.c_cflag & CREAD, 0u);
    EXPECT_EQ(t.c_lflag, 0u);
    EXPECT_EQ(t.c_iflag, 0u);
    EXPECT_NE(t.c_oflag & OPOST, 0u);
    EXPECT_EQ(t.c_cc[VMIN], 0);
    EXPECT_EQ(t.c_cc[VTIME], 0);
    EXPECT_EQ(cfgetospeed(&t), static_cast<speed_t>(B9600));
    ::close(fd);
}

TEST(LinkLocal, OpenComSpeeds) {
    TermPty pty;
    set_port_name(pty.name());
    const std::pair<int, speed_t> speeds[] = {{4800, B4800},   {9600, B9600},   {19200, B19200},
                                              {38400, B38400}, {57600, B57600}, {115200, B115200}};
    for (auto [baud, code] : speeds) {
        const int fd = KOLT_openCom(8, baud);
        ASSERT_GT(fd, 2) << baud;
        EXPECT_EQ(cfgetispeed(&kolt::link::state().newtio), code);
        const termios t = pty.attrs();
        EXPECT_EQ(cfgetospeed(&t), code);
        ::close(fd);
    }
}

TEST(LinkLocal, OpenComOfAMissingDeviceGivesMinusOne) {
    set_port_name("kolt-no-such-device");
    EXPECT_EQ(KOLT_openCom(1, 9600), -1);
}

TEST(LinkLocal, OpenAndCloseThroughOpenComOrAux) {
    TermPty pty;
    set_port_name(pty.name());
    pty.send("stale input\n");
    // Arrived: a whole line, so that the terminal in canonical mode counts it.
    ASSERT_TRUE(kolt::test::wait_until([&] { return kolt::test::pending_input(pty.slave()) > 0; }));
    EXPECT_EQ(KOLT_openComOrAux("", "0", "1", "", ""), 0);
    const int fd = kolt::link::state().fd;
    ASSERT_GT(fd, 2);
    EXPECT_EQ(lead(), "");
    EXPECT_EQ(end(), "");
    uint8_t buf[16];
    EXPECT_EQ(KOLT_rcvBuf(fd, buf, sizeof buf, 0), 0);  // input was flushed
    EXPECT_EQ(KOLT_closeComOrAux("0", "1"), 0);
    EXPECT_FALSE(is_open(fd));
    EXPECT_EQ(kolt::link::state().fd, fd);  // the descriptor number is kept
}

TEST(LinkLocal, OpenComOrAuxOfAMissingDeviceGivesMinusOne) {
    set_port_name("kolt-no-such-device");
    EXPECT_EQ(KOLT_openComOrAux("", "0", "1", "", ""), -1);
    EXPECT_EQ(kolt::link::state().fd, -1);
}

TEST(LinkLocal, RefusedPortLeavesDescriptorZeroAndSucceeds) {
    TermPty pty;
    set_port_name(pty.name());
    // openCom's 0 for a refused port is not an error: the link is fd 0.
    EXPECT_EQ(KOLT_openComOrAux("", "0", "9", "", ""), 0);
    EXPECT_EQ(kolt::link::state().fd, 0);
}

TEST(LinkLocal, ClosingTheLinkOfARefusedPortLeavesTheTerminalOpen) {
    TermPty pty;
    ScopedStdin stdin_is(pty.path());
    set_port_name(pty.name());
    ASSERT_EQ(KOLT_openComOrAux("", "0", "9", "", ""), 0);
    ASSERT_EQ(kolt::link::state().fd, 0);
    EXPECT_EQ(KOLT_closeComOrAux("0", "9"), 0);
    EXPECT_TRUE(ScopedStdin::same_file(pty.slave()));  // the library did not open it: not closed
    ASSERT_EQ(IC_initCom(9, 9), 0);
    EXPECT_EQ(IC_CloseCom(9, 9), 0);
    EXPECT_EQ(KOLT_closeAux("0", "9"), 0);
    EXPECT_TRUE(ScopedStdin::same_file(pty.slave()));
}

TEST(LinkLocal, ClosingTwiceLeavesADescriptorThatReusedTheNumberAlone) {
    TermPty pty;
    set_port_name(pty.name());
    ASSERT_EQ(KOLT_initCom(0, "", 1, ""), 0);
    const int fd = kolt::link::state().fd;
    EXPECT_EQ(KOLT_freeCom(0, 1, ""), 0);
    const int other = ::open("/dev/null", O_RDONLY);
    ASSERT_EQ(other, fd);  // the lowest free number comes back
    EXPECT_EQ(KOLT_freeCom(0, 1, ""), 0);
    EXPECT_TRUE(is_open(other));
    ::close(other);
}

TEST(LinkLocal, OpeningAgainWithoutClosingDoesNotLeakDescriptors) {
    TermPty pty;
    set_port_name(pty.name());
    ASSERT_EQ(KOLT_openComOrAux("", "0", "1", "", ""), 0);
    const int before = open_descriptors();
    for (int i = 0; i < 5; ++i) ASSERT_EQ(KOLT_openComOrAux("", "0", "1", "", ""), 0);
    EXPECT_EQ(open_descriptors(), before);
    const int fd = kolt::link::state().fd;
    EXPECT_EQ(KOLT_closeComOrAux("0", "1"), 0);
    EXPECT_FALSE(is_open(fd));
}

TEST(LinkLocal, InitAndFreeCom) {
    TermPty pty;
    set_port_name(pty.name());
    EXPECT_EQ(KOLT_initCom(0, "", 1, ""), 0);
    const int fd = kolt::link::state().fd;
    EXPECT_TRUE(is_open(fd));
    EXPECT_EQ(KOLT_freeCom(0, 1, ""), 0);
    EXPECT_FALSE(is_open(fd));
}

TEST(LinkLocal, InitComFailureGivesMinusTwo) {
    set_port_name("kolt-no-such-device");
    EXPECT_EQ(KOLT_initCom(0, "", 1, ""), -2);
}

TEST(LinkLocal, IcInitComAndCloseCom) {
    TermPty pty;
    set_port_name(pty.name());
    EXPECT_EQ(IC_initCom(0, 1), 0);
    const int fd = kolt::link::state().fd;
    EXPECT_TRUE(is_open(fd));
    EXPECT_EQ(IC_CloseCom(0, 1), 0);
    EXPECT_FALSE(is_open(fd));
}

TEST(LinkLocal, IcInitComFailureGivesMinus21) {
    set_port_name("kolt-no-such-device");
    EXPECT_EQ(IC_initCom(0, 1), -21);
    EXPECT_EQ(IC_initCom(9, 2), -21);  // unknown types are the local port
}

TEST(LinkLocal, CloseAuxOfTheLocalPortCloses) {
    TermPty pty;
    set_port_name(pty.name());
    ASSERT_EQ(KOLT_openComOrAux("", "0", "1", "", ""), 0);
    const int fd = kolt::link::state().fd;
    EXPECT_EQ(KOLT_closeAux("0", "1"), 0);
    EXPECT_FALSE(is_open(fd));
}

// ---------------------------------------------------------------------------
// Terminal auxiliary port, named terminal device.

TEST(LinkAux, TypeThreePortOneSequencesAndWrapping) {
    TermPty pty;
    ASSERT_EQ(KOLT_initCom(3, pty.path().c_str(), 1, ""), 0);
    EXPECT_EQ(pty.take(), kEsc + "[2h" + kEsc + "[/1;1;8;0;1;0M" + kEsc + "[/54l");

    // Every data block goes out between ESC [ / | and |.
    FarEnd far(pty, kolt::test::holds("\x03|"), std::string("\x02") + "0002000000" + "\x03");
    EXPECT_EQ(KOLT_T41_Buzz(), 0);
    EXPECT_EQ(far.received(), kEsc + "[/|" + "\x02" + "0005311302010120" + "\x03" + "|");

    EXPECT_EQ(KOLT_freeCom(3, 1, ""), 0);
    EXPECT_EQ(pty.take(), kEsc + "[/M" + kEsc + "[2l");
}

TEST(LinkAux, TransferDataIsWrittenWrappedAfterTheOpenSequence) {
    TermPty pty;
    ASSERT_EQ(KOLT_initCom(3, pty.path().c_str(), 2, "1XYZ"), 0);
    EXPECT_EQ(pty.take(), kEsc + "[2h" + kEsc + "[/2;1;8;0;1;0M" + kEsc + "[/54l" + kEsc + "[/|XYZ|");
    // Any other transfer type writes nothing more.
    KOLT_freeCom(3, 2, "");
    pty.take();
    ASSERT_EQ(KOLT_initCom(3, pty.path().c_str(), 2, "2XYZ"), 0);
    EXPECT_EQ(pty.take(), kEsc + "[2h" + kEsc + "[/2;1;8;0;1;0M" + kEsc + "[/54l");
}

TEST(LinkAux, TypeOnePortFiveOpensWithTheTypeTwoPortOneSequence) {
    TermPty pty;
    ASSERT_EQ(KOLT_openComOrAux(pty.path().c_str(), "1", "5", "", ""), 0);
    EXPECT_EQ(pty.take(), kEsc + "[2h" + kType1Open[0]);
}

TEST(LinkAux, TypeSixPortOneFailsWithMinusTwo) {
    TermPty pty;
    EXPECT_EQ(KOLT_openComOrAux(pty.path().c_str(), "6", "1", "", ""), -2);
    EXPECT_EQ(KOLT_initCom(6, pty.path().c_str(), 1, ""), -2);
}

TEST(LinkAux, MissingTerminalDeviceGivesMinusOne) {
    EXPECT_EQ(KOLT_openComOrAux("/dev/kolt-no-such-tty", "1", "1", "", ""), -1);
    EXPECT_EQ(KOLT_initCom(1, "/dev/kolt-no-such-tty", 1, ""), -2);
}

TEST(LinkAux, LineSettingsAreRawWhileOpenAndRestoredAtClose) {
    TermPty pty;
    const termios before = pty.attrs();
    ASSERT_NE(before.c_lflag & ICANON, 0u);
    ASSERT_EQ(KOLT_initCom(1, pty.path().c_str(), 1, ""), 0);
    const termios t = pty.attrs();
    EXPECT_EQ(t.c_lflag & (ISIG | ICANON | ECHO | NOFLSH | IEXTEN), 0u);
    EXPECT_EQ(t.c_iflag & (ISTRIP | INLCR | IGNCR | ICRNL | IXON | IXOFF), 0u);
    EXPECT_EQ(t.c_cc[VMIN], 0);
    EXPECT_EQ(t.c_cc[VTIME], 0);
    EXPECT_EQ(t.c_cc[VQUIT], 0x7F);
    EXPECT_EQ(KOLT_freeCom(1, 1, ""), 0);
    const termios after = pty.attrs();
    EXPECT_EQ(after.c_lflag, before.c_lflag);
    EXPECT_EQ(after.c_iflag, before.c_iflag);
    EXPECT_EQ(after.c_cc[VQUIT], before.c_cc[VQUIT]);
    // The named terminal stays open after the close (the descriptor is kept).
    EXPECT_TRUE(is_open(kolt::link::state().fd));
}

TEST(LinkAux, SetTermAndResetTermDirectly) {
    TermPty pty;
    kolt::link::state().fd = pty.slave();
    EXPECT_EQ(KOLT_resetTerm(), -1);  // nothing saved yet
    EXPECT_EQ(KOLT_setTerm(), pty.slave());
    EXPECT_EQ(pty.attrs().c_lflag & ICANON, 0u);
    EXPECT_EQ(KOLT_resetTerm(), 0);
    EXPECT_NE(pty.attrs().c_lflag & ICANON, 0u);
    kolt::link::state().fd = -1;
    EXPECT_EQ(KOLT_setTerm(), -1);
    EXPECT_EQ(KOLT_resetTerm(), -1);
}

TEST(LinkAux, SettingsOfAnEarlierLineAreNotRestoredOntoAnother) {
    TermPty first;
    kolt::link::state().fd = first.slave();
    ASSERT_EQ(KOLT_setTerm(), first.slave());
    TermPty second;
    kolt::link::state().fd = second.slave();
    ASSERT_EQ(KOLT_setTerm(), second.slave());  // second now raw, its settings saved
    int p[2];
    ASSERT_EQ(::pipe(p), 0);
    kolt::link::state().fd = p[0];
    EXPECT_EQ(KOLT_setTerm(), -1);  // not a terminal: nothing saved
    kolt::link::state().fd = second.slave();
    EXPECT_EQ(KOLT_resetTerm(), -1);
    EXPECT_EQ(second.attrs().c_lflag & ICANON, 0u);  // left as it was
    ::close(p[0]);
    ::close(p[1]);
}

TEST(LinkAux, SetTermOnSomethingElseThanATerminalFails) {
    int p[2];
    ASSERT_EQ(::pipe(p), 0);
    kolt::link::state().fd = p[0];
    EXPECT_EQ(KOLT_setTerm(), -1);
    ::close(p[0]);
    ::close(p[1]);
}

TEST(LinkAux, CloseAuxWritesTheCloseSequenceAndRestores) {
    TermPty pty;
    ASSERT_EQ(KOLT_openComOrAux(pty.path().c_str(), "4", "3", "", ""), 0);
    EXPECT_EQ(pty.take(), kEsc + "[2h" + kEsc + "[2>");
    EXPECT_EQ(KOLT_closeAux("4", "3"), 0);
    EXPECT_EQ(pty.take(), kEsc + "[<");  // no unlock: that is closeComOrAux's
    EXPECT_NE(pty.attrs().c_lflag & ICANON, 0u);
    EXPECT_EQ(KOLT_closeComOrAux("4", "3"), 0);
    EXPECT_EQ(pty.take(), kEsc + "[<" + kEsc + "[2l");
}

TEST(LinkAux, ReopeningANamedTerminalDoesNotLeakDescriptors) {
    TermPty pty;
    ASSERT_EQ(KOLT_initCom(1, pty.path().c_str(), 1, ""), 0);
    KOLT_freeCom(1, 1, "");
    const int before = open_descriptors();
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(KOLT_initCom(1, pty.path().c_str(), 1, ""), 0);
        KOLT_freeCom(1, 1, "");
    }
    EXPECT_EQ(open_descriptors(), before);
}

TEST(LinkAux, FileTypeSessionWritesTheFileSequences) {
    TempDir dir;
    dir.write("lxbs/font/idcread.ext", kExtFile);
    ScopedEnv env("DCCHOME", dir.str());
    TermPty pty;
    ASSERT_EQ(KOLT_initCom(51, pty.path().c_str(), 1, ""), 0);
    EXPECT_EQ(pty.take(), kEsc + "[2h" + kEsc + "[/50h");
    EXPECT_EQ(KOLT_freeCom(51, 1, ""), 0);
    EXPECT_EQ(pty.take(), kEsc + "[/50l" + kEsc + "[2l");
}

TEST(LinkAux, FileTypeWithoutSectionFailsToOpen) {
    TempDir dir;
    dir.write("lxbs/font/idcread.ext", kExtFile);
    ScopedEnv env("DCCHOME", dir.str());
    TermPty pty;
    EXPECT_EQ(KOLT_openComOrAux(pty.path().c_str(), "57", "1", "", ""), -2);
}

// ---------------------------------------------------------------------------
// Terminal auxiliary port on the process's own terminal line (fd 0).

class StdinTerminal : public ::testing::Test {
protected:
    TermPty pty_;
    ScopedStdin stdin_is_{pty_.path()};
};

TEST_F(StdinTerminal, IcInitComWritesToDescriptorZero) {
    EXPECT_EQ(IC_initCom(1, 1), 0);
    EXPECT_EQ(kolt::link::state().fd, 0);
    EXPECT_EQ(pty_.take(), kEsc + "[2h" + kType1Open[0]);
    EXPECT_EQ(IC_CloseCom(1, 1), 0);
    EXPECT_EQ(pty_.take(), kEsc + "[/50l" + kEsc + "[2l");
    EXPECT_TRUE(is_open(0));
}

TEST_F(StdinTerminal, PublicTypesTwoAndThree) {
    EXPECT_EQ(IC_initCom(2, 3), 0);  // internal type 3
    EXPECT_EQ(pty_.take(), kEsc + "[2h" + kEsc + "[/3;1;8;0;1;0M" + kEsc + "[/54l");
    IC_CloseCom(2, 3);
    EXPECT_EQ(pty_.take(), kEsc + "[/M" + kEsc + "[2l");
    EXPECT_EQ(IC_initCom(3, 2), 0);  // internal type 4
    EXPECT_EQ(pty_.take(), kEsc + "[2h" + kEsc + "[1>");
    IC_CloseCom(3, 2);
    EXPECT_EQ(pty_.take(), kEsc + "[<" + kEsc + "[2l");
}

TEST(LinkStdin, DescriptorZeroThatIsNoTerminalFailsWithMinus21) {
    ScopedStdin stdin_is("/dev/null");
    EXPECT_EQ(IC_initCom(1, 1), -21);
}

}  // namespace
