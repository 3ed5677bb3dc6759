// Field sessions through the kolt-sim program: --proxy in front of a second
// kolt-sim recording a library flow, --replay answering the library from
// the file, and the exit status of both. (It starts the program of the
// build: ctest labels these tests self_exec.)
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fcntl.h>
#include <string>
#include <thread>
#include <vector>

#include "common/session_flows.hpp"
#include "common/sim_fixture.hpp"
#include "common/test_util.hpp"
#include "kolt/kolt.h"
#include "kolt_sim/frame.hpp"
#include "kolt_sim/session.hpp"

namespace fs = std::filesystem;
using kolt::sim::Direction;
using kolt::sim::Recording;
using kolt::test::session_flow;

namespace {

// The program is built beside the tests: <build>/sim/kolt-sim.
std::string program() { return (fs::read_symlink("/proc/self/exe").parent_path().parent_path() / "sim" / "kolt-sim").string(); }

fs::path source_dir() {
    if (const char* d = std::getenv("KOLT_TEST_SOURCE_DIR")) return d;
    return fs::path(__FILE__).parent_path().parent_path();
}

// A kolt-sim started with its standard output on a pipe and its standard
// error into a file; killed at the end unless it has been waited for.
class Child {
public:
    Child(std::vector<std::string> args, const std::string& err_file) : err_(err_file) {
        args.insert(args.begin(), program());
        int p[2];
        if (::pipe(p) != 0) throw std::runtime_error("pipe");
        pid_ = ::fork();
        if (pid_ == 0) {
            ::dup2(p[1], 1);
            const int e = ::open(err_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            ::dup2(e, 2);
            const int null = ::open("/dev/null", O_RDONLY);
            ::dup2(null, 0);
            ::close(p[0]);
            ::close(p[1]);
            std::vector<char*> argv;
            for (auto& a : args) argv.push_back(a.data());
            argv.push_back(nullptr);
            ::execv(argv[0], argv.data());
            ::_exit(127);
        }
        ::close(p[1]);
        out_ = p[0];
    }
    ~Child() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
        if (out_ >= 0) ::close(out_);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    // The gPortName of the "serving" line it announces ("" when none came).
    std::string port() {
        const std::string line = kolt::test::read_line(out_);
        const auto at = line.find("gPortName=");
        if (at == std::string::npos) return {};
        return line.substr(at + 10, line.find(')', at) - at - 10);
    }
    void signal(int sig) { ::kill(pid_, sig); }
    // The exit status; -1 when it did not exit normally within timeout_ms.
    int wait(int timeout_ms = 5000) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
        int status = 0;
        while (::waitpid(pid_, &status, WNOHANG) == 0) {
            if (std::chrono::steady_clock::now() > end) return -1;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    std::string err() const { return kolt::test::read_file(err_); }
    // Its standard output up to its end (after wait()).
    std::string out() {
        std::string text;
        char buf[4096];
        for (ssize_t n; (n = ::read(out_, buf, sizeof buf)) > 0;) text.append(buf, static_cast<size_t>(n));
        return text;
    }

private:
    pid_t pid_ = -1;
    int out_ = -1;
    std::string err_;
};

// The bytes of one direction, all chunks together.
std::vector<uint8_t> bytes_of(const Recording& r, Direction dir) {
    std::vector<uint8_t> out;
    for (const auto& c : r.chunks)
        if (c.dir == dir) out.insert(out.end(), c.bytes.begin(), c.bytes.end());
    return out;
}

std::string card(const std::string& name) { return (source_dir() / "sim" / "cards" / name).string(); }

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// The version and serial-number commands, with selector 3 for the version.
std::string version_serial_with_selector_3() {
    EXPECT_EQ(KOLT_initCom(0, "", 1, ""), 0);
    uint8_t version[KOLT_VERSION_MAX] = {};
    const int n = KOLT_T41_GetVersion(3, version, 2);
    char serial[KOLT_SAIMID_TEXT_MAX] = {};
    const int s = KOLT_T41_GetSAIMIDStr(serial, 2);
    KOLT_freeCom(0, 1, "");
    return std::to_string(n) + " " + std::to_string(s) + " " + serial;
}

}  // namespace

TEST(SessionProgram, ProxyRecordsALibraryFlowAndReplayGivesItBack) {
    kolt::test::TempDir dir;
    const auto& flow = session_flow("card_info_contact");
    Child device({"--no-interactive", "--contact-card", card("pboc_debit.json")}, dir.str() + "/device.err");
    const std::string device_port = device.port();
    ASSERT_FALSE(device_port.empty()) << device.err();

    const std::string file = dir.str() + "/field.session";
    const std::string port_file = dir.str() + "/proxy.port";
    Child proxy({"--proxy", "/dev/" + device_port, "--record", file, "--port-file", port_file, "--verbose"},
                dir.str() + "/proxy.err");
    const std::string proxy_port = proxy.port();
    ASSERT_FALSE(proxy_port.empty()) << proxy.err();
    EXPECT_EQ(kolt::test::read_file(port_file), proxy_port + "\n");
    {
        kolt::test::ScopedPortName port(proxy_port);
        EXPECT_EQ(flow.run(), flow.expected);
    }
    proxy.signal(SIGTERM);
    EXPECT_EQ(proxy.wait(), 0) << proxy.err();
    const std::string perr = proxy.err();
    EXPECT_TRUE(contains(perr, "chunks forwarded; the session is in " + file)) << perr;
    EXPECT_TRUE(contains(perr, "proxy: +")) << perr;  // --verbose: every chunk

    const Recording rec = Recording::load(file);
    EXPECT_EQ(rec.device, "/dev/" + device_port);
    EXPECT_FALSE(rec.date.empty());
    // The same bytes as the committed recording of the flow.
    const Recording committed = Recording::load(kolt::test::session_file(flow.name));
    EXPECT_EQ(bytes_of(rec, Direction::ToDevice), bytes_of(committed, Direction::ToDevice));
    EXPECT_EQ(bytes_of(rec, Direction::FromDevice), bytes_of(committed, Direction::FromDevice));
    const size_t exchanges = rec.exchanges().size();

    Child replay({"--replay", file, "--replay-speed", "0", "--replay-exit-at-end"}, dir.str() + "/replay.err");
    const std::string replay_port = replay.port();
    ASSERT_FALSE(replay_port.empty()) << replay.err();
    {
        kolt::test::ScopedPortName port(replay_port);
        EXPECT_EQ(flow.run(), flow.expected);
    }
    EXPECT_EQ(replay.wait(), 0) << replay.err();
    EXPECT_EQ(replay.err(), "replay: " + std::to_string(exchanges) + " exchanges, 0 differences, 0 unexpected bytes\n");
}

TEST(SessionProgram, ReplayOfACleanSessionEndsWithZeroOnSigterm) {
    kolt::test::TempDir dir;
    const auto& flow = session_flow("id_card");
    Child replay({"--replay", kolt::test::session_file(flow.name), "--replay-speed", "0"}, dir.str() + "/replay.err");
    const std::string port = replay.port();
    ASSERT_FALSE(port.empty()) << replay.err();
    {
        kolt::test::ScopedPortName p(port);
        EXPECT_EQ(flow.run(), flow.expected);
    }
    replay.signal(SIGTERM);
    EXPECT_EQ(replay.wait(), 0) << replay.err();
    EXPECT_EQ(replay.err(), "replay: 2 exchanges, 0 differences, 0 unexpected bytes\n");
}

TEST(SessionProgram, ADifferenceIsReportedAndTheExitStatusIsFour) {
    kolt::test::TempDir dir;
    Child replay({"--replay", kolt::test::session_file("device_version_serial"), "--replay-speed", "0",
                  "--replay-exit-at-end"},
                 dir.str() + "/replay.err");
    const std::string port = replay.port();
    ASSERT_FALSE(port.empty()) << replay.err();
    {
        kolt::test::ScopedPortName p(port);
        // The recorded answers come all the same.
        EXPECT_EQ(version_serial_with_selector_3(), "26 23 01.02-20230915-0001234567-0089012345");
    }
    EXPECT_EQ(replay.wait(), 4) << replay.err();
    const auto recorded = kolt::sim::encode_main_command(0x31, 0x11, std::vector<uint8_t>{0x04});
    const auto sent = kolt::sim::encode_main_command(0x31, 0x11, std::vector<uint8_t>{0x03});
    size_t at = 0;
    while (recorded[at] == sent[at]) ++at;
    const Recording rec = Recording::load(kolt::test::session_file("device_version_serial"));
    const std::string line = std::to_string(rec.exchanges().at(0).line);
    const std::string err = replay.err();
    EXPECT_TRUE(contains(err, "replay: exchange 1 (line " + line + "): difference at offset " + std::to_string(at) +
                                  "\nreplay:   recorded: " + kolt::sim::hex_pattern(recorded) +
                                  "\nreplay:   received: " + kolt::sim::hex_pattern(sent) + "\n"))
        << err;
    EXPECT_TRUE(contains(err, "\nreplay: 2 exchanges, 1 differences, 0 unexpected bytes\n")) << err;
}

TEST(SessionProgram, UnexpectedBytesAreReportedAndTheExitStatusIsFour) {
    kolt::test::TempDir dir;
    const auto& flow = session_flow("device_version_serial");
    Child replay({"--replay", kolt::test::session_file(flow.name), "--replay-speed", "0"}, dir.str() + "/replay.err");
    const std::string port = replay.port();
    ASSERT_FALSE(port.empty()) << replay.err();
    {
        kolt::test::ScopedPortName p(port);
        EXPECT_EQ(flow.run(), flow.expected);
    }
    {
        // A command more than the recording holds.
        kolt::test::RawLine line("/dev/" + port);
        line.write(kolt::sim::encode_main_command(0x38, 0x97, {}));
    }
    replay.signal(SIGTERM);
    EXPECT_EQ(replay.wait(), 4) << replay.err();
    const std::string err = replay.err();
    const std::string extra = kolt::sim::hex_pattern(kolt::sim::encode_main_command(0x38, 0x97, {}));
    const size_t n = kolt::sim::encode_main_command(0x38, 0x97, {}).size();
    EXPECT_TRUE(contains(err, "replay: " + std::to_string(n) + " unexpected bytes after the last exchange: " + extra + "\n"))
        << err;
    EXPECT_TRUE(contains(err, "replay: 2 exchanges, 0 differences, " + std::to_string(n) + " unexpected bytes\n")) << err;
}

TEST(SessionProgram, AKilledProxyLeavesAUsableFile) {
    kolt::test::TempDir dir;
    const auto& flow = session_flow("device_version_serial");
    Child device({"--no-interactive"}, dir.str() + "/device.err");
    const std::string device_port = device.port();
    ASSERT_FALSE(device_port.empty()) << device.err();
    const std::string file = dir.str() + "/killed.session";
    Child proxy({"--proxy", "/dev/" + device_port, "--record", file}, dir.str() + "/proxy.err");
    const std::string proxy_port = proxy.port();
    ASSERT_FALSE(proxy_port.empty()) << proxy.err();
    {
        kolt::test::ScopedPortName p(proxy_port);
        EXPECT_EQ(flow.run(), flow.expected);
    }
    proxy.signal(SIGKILL);
    EXPECT_EQ(proxy.wait(), -1);
    // Every chunk is in the file, and a replay of it answers the library.
    const Recording rec = Recording::load(file);
    const Recording committed = Recording::load(kolt::test::session_file(flow.name));
    EXPECT_EQ(bytes_of(rec, Direction::ToDevice), bytes_of(committed, Direction::ToDevice));
    EXPECT_EQ(bytes_of(rec, Direction::FromDevice), bytes_of(committed, Direction::FromDevice));
    const auto replayed = kolt::test::run_against_replay(flow, rec);
    EXPECT_EQ(replayed.result, flow.expected);
    EXPECT_TRUE(replayed.differences.empty());
}

TEST(SessionProgram, TheProxyEndsWithOneWhenTheReaderGoesAway) {
    kolt::test::TempDir dir;
    Child device({"--no-interactive"}, dir.str() + "/device.err");
    const std::string device_port = device.port();
    ASSERT_FALSE(device_port.empty()) << device.err();
    const std::string file = dir.str() + "/gone.session";
    Child proxy({"--proxy", "/dev/" + device_port, "--record", file}, dir.str() + "/proxy.err");
    ASSERT_FALSE(proxy.port().empty()) << proxy.err();
    device.signal(SIGTERM);
    EXPECT_EQ(device.wait(), 0);
    EXPECT_EQ(proxy.wait(), 1) << proxy.err();
    EXPECT_TRUE(contains(proxy.err(), "kolt-sim: the reader's line /dev/" + device_port + " failed")) << proxy.err();
    const Recording rec = Recording::load(file);
    ASSERT_EQ(rec.trailing_comments.size(), 1u);
    EXPECT_TRUE(contains(rec.trailing_comments[0], "the device line failed here"));
}

TEST(SessionProgram, ADeviceThatCannotBeOpenedGivesOne) {
    kolt::test::TempDir dir;
    Child proxy({"--proxy", "/dev/kolt-no-such-line", "--record", dir.str() + "/x.session"}, dir.str() + "/proxy.err");
    EXPECT_EQ(proxy.wait(), 1);
    EXPECT_TRUE(contains(proxy.err(), "cannot open /dev/kolt-no-such-line")) << proxy.err();
}

TEST(SessionProgram, ABadSessionFileGivesTwoNamingTheLine) {
    kolt::test::TempDir dir;
    const std::string file = dir.write("bad.session", "# kolt-sim session 1\n+0.000 > 02 31\n+1.000 < 06 ??\n");
    Child replay({"--replay", file}, dir.str() + "/replay.err");
    EXPECT_EQ(replay.wait(), 2);
    EXPECT_EQ(replay.err(), "kolt-sim: " + file + ": line 3: ?? (any byte) is for application lines (>) only\n");
}

TEST(SessionProgram, OptionsThatDoNotGoTogetherGiveTwo) {
    kolt::test::TempDir dir;
    const std::string file = dir.write("s.session", "# kolt-sim session 1\n");
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"--record", file}, "--record needs --proxy"},
        {{"--proxy", "/dev/null", "--replay", file}, "--proxy and --replay do not go together"},
        {{"--replay-speed", "0"}, "need --replay"},
        {{"--replay", file, "--replay-speed", "fast"}, "--replay-speed takes a number"},
        {{"--replay", file, "--contact-card", card("pboc_debit.json")}, "--contact-card does not apply"},
    };
    for (const auto& [args, message] : cases) {
        Child c(args, dir.str() + "/err");
        EXPECT_EQ(c.wait(), 2) << message;
        EXPECT_TRUE(contains(c.err(), message)) << c.err();
    }
}

TEST(SessionProgram, HelpNamesTheSessionOptions) {
    kolt::test::TempDir dir;
    Child c({"--help"}, dir.str() + "/err");
    EXPECT_EQ(c.wait(), 0);
    const std::string help = c.out();
    for (const char* option : {"--proxy DEVICE", "--record FILE", "--replay FILE", "--replay-speed X",
                               "--replay-exit-at-end", "exit status 4"})
        EXPECT_TRUE(contains(help, option)) << option << "\n" << help;
}
