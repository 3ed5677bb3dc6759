// Opening, configuring and closing the link: terminal-type mapping, the
// escape-sequence tables, the local port and the terminal auxiliary port,
// checked byte for byte on a real pseudo-terminal.
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "common/test_util.hpp"
#include "kolt/kolt.h"
#include "link/aux_tables.hpp"
#include "link/link_state.hpp"
#include "support/log.hpp"

namespace {

using Clock = std::chrono::steady_clock;
using kolt::test::ScopedEnv;
using kolt::test::TempDir;
using kolt::test::to_hex;

const std::string ESC = "\x1b";

long long ms_since(Clock::time_point t) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count();
}

// A pseudo-terminal whose master side the test reads; the slave side keeps
// the terminal's default settings until the library changes them.
class Pty {
public:
    Pty() {
        master_ = ::posix_openpt(O_RDWR | O_NOCTTY);
        if (master_ < 0 || ::grantpt(master_) != 0 || ::unlockpt(master_) != 0) std::abort();
        path_ = ::ptsname(master_);
        keep_ = ::open(path_.c_str(), O_RDWR | O_NOCTTY);  // keeps the line up
        if (keep_ < 0) std::abort();
    }
    ~Pty() {
        ::close(keep_);
        ::close(master_);
    }
    const std::string& path() const { return path_; }
    std::string name() const { return path_.substr(5); }  // below "/dev/"
    int slave() const { return keep_; }
    void send(const std::string& s) const { (void)!::write(master_, s.data(), s.size()); }
    std::string take(int ms = 150) const {
        std::string got;
        char buf[512];
        const auto start = Clock::now();
        while (ms_since(start) < ms) {
            pollfd p{master_, POLLIN, 0};
            if (::poll(&p, 1, 10) > 0) {
                const ssize_t n = ::read(master_, buf, sizeof buf);
                if (n > 0) got.append(buf, static_cast<size_t>(n));
            }
        }
        return got;
    }
    termios attrs() const {
        termios t{};
        ::tcgetattr(keep_, &t);
        return t;
    }

private:
    int master_ = -1;
    int keep_ = -1;
    std::string path_;
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
    ESC + "!0;0;0;0Y" + ESC + "[/54l" + ESC + "[/53h" + ESC + "[/50h",
    ESC + "!0;0;0;0Z" + ESC + "[/54l" + ESC + "[/53h" + ESC + "[/50h",
    ESC + "!0;0;0;0X" + ESC + "[/54l" + ESC + "[/53h" + ESC + "[/50h",
    ESC + "!0;0;0;0V" + ESC + "[/54l" + ESC + "[/53h" + ESC + "[/50h",
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
            EXPECT_EQ(s.close, ESC + "[/50l");
            EXPECT_EQ(lead(), ESC + "[/51h");
            EXPECT_EQ(end(), ESC + "[/51l");
            EXPECT_EQ(lock(), ESC + "[2h");
            EXPECT_EQ(unlock(), ESC + "[2l");
        }
    }
}

TEST(LinkTables, TypeThree) {
    for (int port = 1; port <= 4; ++port) {
        int rc = 99;
        const Seqs s = aux_cmd("3", std::to_string(port).c_str(), &rc);
        EXPECT_EQ(rc, 0);
        EXPECT_EQ(s.open, ESC + "[/" + std::to_string(port) + ";1;8;0;1;0M" + ESC + "[/54l");
        EXPECT_EQ(s.close, ESC + "[/M");
        EXPECT_EQ(lead(), ESC + "[/|");
        EXPECT_EQ(end(), "|");
        EXPECT_EQ(lock(), ESC + "[2h");
        EXPECT_EQ(unlock(), ESC + "[2l");
    }
}

TEST(LinkTables, TypeFourHasNoLeadOrEnd) {
    const std::string opens[4] = {ESC + "[>", ESC + "[1>", ESC + "[2>", ESC + "[3>"};
    for (int port = 1; port <= 4; ++port) {
        int rc = 99;
        const Seqs s = aux_cmd("4", std::to_string(port).c_str(), &rc);
        EXPECT_EQ(rc, 0);
        EXPECT_EQ(s.open, opens[port - 1]);
        EXPECT_EQ(s.close, ESC + "[<");
        EXPECT_EQ(lead(), "");
        EXPECT_EQ(end(), "");
        EXPECT_EQ(lock(), ESC + "[2h");
    }
}

TEST(LinkTables, TypeFivePortOneClosesTwice) {
    int rc = 99;
    const Seqs s = aux_cmd("5", "1", &rc);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(s.open, kType1Open[0]);
    EXPECT_EQ(s.close, ESC + "[/50l" + ESC + "[/50l");
    EXPECT_EQ(lead(), ESC + "[/51h");
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
    EXPECT_EQ(lead(), ESC + "[/51h");  // the type-1 row
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
        EXPECT_EQ(std::string(out), ESC + "%" + letters[i]);
        char num[KOLT_SEQ_MAX] = {};
        EXPECT_EQ(KOLT_getBPCommand("1", std::to_string(i + 1).c_str(), num), 0);
        EXPECT_EQ(std::string(num), ESC + "%" + letters[i]);
    }
    char out[KOLT_SEQ_MAX] = {};
    EXPECT_EQ(KOLT_getBPCommand("2", "A", out), -1);
    EXPECT_EQ(KOLT_getBPCommand("3", "1", out), -1);
    EXPECT_EQ(KOLT_getBPCommand("1", "6", out), -1);
    EXPECT_EQ(KOLT_getBPCommand("1", "0", out), -1);
    EXPECT_EQ(KOLT_getBPCommand("1", "E", out), -1);
}

const char* kExtFile =
    "# teller terminal commands\n"
    "[TERM_50_KOLT510QX]\n"
    "OPEN_COM1=\\033[/60h\n"
    "[TERM_51_KOLT510QX]\n"
    "OPEN_COM1=\\033[/50h\n"
    "CLOSE_COM1=\\033[/50l\n"
    "OPEN_COM2=1B5B2F3532680D\n"
    "CLOSE_COM2=1B5B2F35326C\n"
    "LOCK_KEY=1B5B3268\n"
    "UNLOCK_KEY=1B5B326C\n"
    "CMD_BEGIN=\\033[/51h\n"
    "CMD_END=\\033[/51l\n"
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
    EXPECT_EQ(s.open, ESC + "[/50h");
    EXPECT_EQ(s.close, ESC + "[/50l");
    EXPECT_EQ(lock(), ESC + "[2h");
    EXPECT_EQ(unlock(), ESC + "[2l");
    EXPECT_EQ(lead(), ESC + "[/51h");
    EXPECT_EQ(end(), ESC + "[/51l");
    s = aux_cmd("51", "2", &rc);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(s.open, ESC + "[/52h\r");
    EXPECT_EQ(s.close, ESC + "[/52l");
}

TEST(LinkExtFile, SectionWithOpenCloseAndLockOnlyIsEnough) {
    TempDir dir;
    dir.write("lxbs/font/idcread.ext", kExtFile);
    ScopedEnv env("DCCHOME", dir.str());
    int rc = 99;
    const Seqs s = aux_cmd("52", "1", &rc);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(s.open, ESC + "[/50h");
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
    EXPECT_EQ(std::string(out), ESC + "%B");
    std::memset(out, 0, sizeof out);
    EXPECT_EQ(KOLT_getBPCommand("51", "5", out), 0);  // "5" is port K
    EXPECT_EQ(std::string(out), ESC + "%K");
    std::memset(out, 0, sizeof out);
    EXPECT_EQ(KOLT_getBPCommand("51", "A", out), 0);
    EXPECT_EQ(std::string(out), ESC + "%A");
    EXPECT_EQ(KOLT_getBPCommand("51", "3", out), -2);  // no OPEN_PORTC
    EXPECT_EQ(KOLT_getBPCommand("52", "1", out), -2);  // no pass-through section
    TempDir empty;
    ScopedEnv env2("DCCHOME", empty.str());
    EXPECT_EQ(KOLT_getBPCommand("51", "1", out), -1);
}

// ---------------------------------------------------------------------------
// Local port.

TEST(LinkLocal, OpenComRefusesPortAndSpeedWithZeroWithoutOpening) {
    Pty pty;
    set_port_name(pty.name());
    const int before = open_descriptors();
    EXPECT_EQ(KOLT_openCom(9, 9600), 0);
    EXPECT_EQ(KOLT_openCom(1, 1200), 0);
    EXPECT_EQ(KOLT_openCom(-1, 9600), 0);
    EXPECT_EQ(KOLT_openCom(2, 0), 0);
    EXPECT_EQ(open_descriptors(), before);
}

TEST(LinkLocal, OpenComOpensTheNamedDeviceRaw) {
    Pty pty;
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
    Pty pty;
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

TEST(LinkLocal, OpenComTracesTheDeviceItOpens) {
    TempDir dir;
    kolt::log::set_debug_dir(dir.str());
    kolt::log::set_switch(1);
    set_port_name("kolt-no-such-device");
    EXPECT_EQ(KOLT_openCom(1, 9600), -1);
    kolt::log::set_switch(0);
    std::string log;
    for (const auto& e : std::filesystem::directory_iterator(dir.path())) log += kolt::test::read_file(e.path());
    EXPECT_NE(log.find("] openCom gPortName is:kolt-no-such-device\n"), std::string::npos) << log;
    EXPECT_NE(log.find("] openCom begin open device=/dev/kolt-no-such-device\n"), std::string::npos) << log;
    EXPECT_NE(log.find("] openCom open flag=-1\n"), std::string::npos) << log;
}

TEST(LinkLocal, OpenAndCloseThroughOpenComOrAux) {
    Pty pty;
    set_port_name(pty.name());
    pty.send("stale input");
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
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
    Pty pty;
    set_port_name(pty.name());
    // openCom's 0 for a refused port is not an error: the link is fd 0.
    EXPECT_EQ(KOLT_openComOrAux("", "0", "9", "", ""), 0);
    EXPECT_EQ(kolt::link::state().fd, 0);
}

TEST(LinkLocal, InitAndFreeCom) {
    Pty pty;
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
    Pty pty;
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
    Pty pty;
    set_port_name(pty.name());
    ASSERT_EQ(KOLT_openComOrAux("", "0", "1", "", ""), 0);
    const int fd = kolt::link::state().fd;
    EXPECT_EQ(KOLT_closeAux("0", "1"), 0);
    EXPECT_FALSE(is_open(fd));
}

// ---------------------------------------------------------------------------
// Terminal auxiliary port, named terminal device.

TEST(LinkAux, TypeThreePortOneSequencesAndWrapping) {
    Pty pty;
    ASSERT_EQ(KOLT_initCom(3, pty.path().c_str(), 1, ""), 0);
    EXPECT_EQ(pty.take(), ESC + "[2h" + ESC + "[/1;1;8;0;1;0M" + ESC + "[/54l");

    // Every data block goes out between ESC [ / | and |.
    std::string received;
    std::thread far([&] {
        const auto start = Clock::now();
        while (received.find("\x03|") == std::string::npos && ms_since(start) < 3000) received += pty.take(20);
        pty.send(std::string("\x02") + "0002000000" + "\x03");
    });
    EXPECT_EQ(KOLT_T41_Buzz(), 0);
    far.join();
    EXPECT_EQ(received, ESC + "[/|" + "\x02" + "0005311302010120" + "\x03" + "|");

    EXPECT_EQ(KOLT_freeCom(3, 1, ""), 0);
    EXPECT_EQ(pty.take(), ESC + "[/M" + ESC + "[2l");
}

TEST(LinkAux, TransferDataIsWrittenWrappedAfterTheOpenSequence) {
    Pty pty;
    ASSERT_EQ(KOLT_initCom(3, pty.path().c_str(), 2, "1XYZ"), 0);
    EXPECT_EQ(pty.take(), ESC + "[2h" + ESC + "[/2;1;8;0;1;0M" + ESC + "[/54l" + ESC + "[/|XYZ|");
    // Any other transfer type writes nothing more.
    KOLT_freeCom(3, 2, "");
    pty.take();
    ASSERT_EQ(KOLT_initCom(3, pty.path().c_str(), 2, "2XYZ"), 0);
    EXPECT_EQ(pty.take(), ESC + "[2h" + ESC + "[/2;1;8;0;1;0M" + ESC + "[/54l");
}

TEST(LinkAux, TypeOnePortFiveOpensWithTheTypeTwoPortOneSequence) {
    Pty pty;
    ASSERT_EQ(KOLT_openComOrAux(pty.path().c_str(), "1", "5", "", ""), 0);
    EXPECT_EQ(pty.take(), ESC + "[2h" + kType1Open[0]);
}

TEST(LinkAux, TypeSixPortOneFailsWithMinusTwo) {
    Pty pty;
    EXPECT_EQ(KOLT_openComOrAux(pty.path().c_str(), "6", "1", "", ""), -2);
    EXPECT_EQ(KOLT_initCom(6, pty.path().c_str(), 1, ""), -2);
}

TEST(LinkAux, MissingTerminalDeviceGivesMinusOne) {
    EXPECT_EQ(KOLT_openComOrAux("/dev/kolt-no-such-tty", "1", "1", "", ""), -1);
    EXPECT_EQ(KOLT_initCom(1, "/dev/kolt-no-such-tty", 1, ""), -2);
}

TEST(LinkAux, LineSettingsAreRawWhileOpenAndRestoredAtClose) {
    Pty pty;
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
    Pty pty;
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

TEST(LinkAux, SetTermOnSomethingElseThanATerminalFails) {
    int p[2];
    ASSERT_EQ(::pipe(p), 0);
    kolt::link::state().fd = p[0];
    EXPECT_EQ(KOLT_setTerm(), -1);
    ::close(p[0]);
    ::close(p[1]);
}

TEST(LinkAux, CloseAuxWritesTheCloseSequenceAndRestores) {
    Pty pty;
    ASSERT_EQ(KOLT_openComOrAux(pty.path().c_str(), "4", "3", "", ""), 0);
    EXPECT_EQ(pty.take(), ESC + "[2h" + ESC + "[2>");
    EXPECT_EQ(KOLT_closeAux("4", "3"), 0);
    EXPECT_EQ(pty.take(), ESC + "[<");  // no unlock: that is closeComOrAux's
    EXPECT_NE(pty.attrs().c_lflag & ICANON, 0u);
    EXPECT_EQ(KOLT_closeComOrAux("4", "3"), 0);
    EXPECT_EQ(pty.take(), ESC + "[<" + ESC + "[2l");
}

TEST(LinkAux, ReopeningANamedTerminalDoesNotLeakDescriptors) {
    Pty pty;
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
    Pty pty;
    ASSERT_EQ(KOLT_initCom(51, pty.path().c_str(), 1, ""), 0);
    EXPECT_EQ(pty.take(), ESC + "[2h" + ESC + "[/50h");
    EXPECT_EQ(KOLT_freeCom(51, 1, ""), 0);
    EXPECT_EQ(pty.take(), ESC + "[/50l" + ESC + "[2l");
}

TEST(LinkAux, FileTypeWithoutSectionFailsToOpen) {
    TempDir dir;
    dir.write("lxbs/font/idcread.ext", kExtFile);
    ScopedEnv env("DCCHOME", dir.str());
    Pty pty;
    EXPECT_EQ(KOLT_openComOrAux(pty.path().c_str(), "57", "1", "", ""), -2);
}

// ---------------------------------------------------------------------------
// Terminal auxiliary port on the process's own terminal line (fd 0).

class StdinTerminal : public ::testing::Test {
protected:
    void SetUp() override {
        saved_ = ::dup(0);
        const int s = ::open(pty_.path().c_str(), O_RDWR | O_NOCTTY);
        ASSERT_GE(s, 0);
        ASSERT_EQ(::dup2(s, 0), 0);
        ::close(s);
    }
    void TearDown() override {
        ::dup2(saved_, 0);
        ::close(saved_);
    }
    Pty pty_;
    int saved_ = -1;
};

TEST_F(StdinTerminal, IcInitComWritesToDescriptorZero) {
    EXPECT_EQ(IC_initCom(1, 1), 0);
    EXPECT_EQ(kolt::link::state().fd, 0);
    EXPECT_EQ(pty_.take(), ESC + "[2h" + kType1Open[0]);
    EXPECT_EQ(IC_CloseCom(1, 1), 0);
    EXPECT_EQ(pty_.take(), ESC + "[/50l" + ESC + "[2l");
    EXPECT_TRUE(is_open(0));
}

TEST_F(StdinTerminal, PublicTypesTwoAndThree) {
    EXPECT_EQ(IC_initCom(2, 3), 0);  // internal type 3
    EXPECT_EQ(pty_.take(), ESC + "[2h" + ESC + "[/3;1;8;0;1;0M" + ESC + "[/54l");
    IC_CloseCom(2, 3);
    EXPECT_EQ(pty_.take(), ESC + "[/M" + ESC + "[2l");
    EXPECT_EQ(IC_initCom(3, 2), 0);  // internal type 4
    EXPECT_EQ(pty_.take(), ESC + "[2h" + ESC + "[1>");
    IC_CloseCom(3, 2);
    EXPECT_EQ(pty_.take(), ESC + "[<" + ESC + "[2l");
}

TEST(LinkStdin, DescriptorZeroThatIsNoTerminalFailsWithMinus21) {
    const int saved = ::dup(0);
    const int n = ::open("/dev/null", O_RDWR);
    ASSERT_GE(n, 0);
    ::dup2(n, 0);
    ::close(n);
    EXPECT_EQ(IC_initCom(1, 1), -21);
    ::dup2(saved, 0);
    ::close(saved);
}

}  // namespace
