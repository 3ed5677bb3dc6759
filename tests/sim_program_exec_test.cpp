// The stand-alone kolt-sim program: start, announce, serve, stop on SIGTERM.
// (It starts the program of the build: ctest labels these tests self_exec.)
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "common/sim_fixture.hpp"
#include "common/test_util.hpp"
#include "kolt_sim/frame.hpp"

using namespace kolt::sim;
namespace fs = std::filesystem;

namespace {

// The program is built beside the tests: <build>/sim/kolt-sim.
std::string program() { return (fs::read_symlink("/proc/self/exe").parent_path().parent_path() / "sim" / "kolt-sim").string(); }

struct Child {
    pid_t pid = -1;
    int out = -1;
    ~Child() {
        if (pid > 0) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
        }
        if (out >= 0) ::close(out);
    }
};

void spawn(Child& c, std::vector<std::string> args) {
    int p[2];
    ASSERT_EQ(::pipe(p), 0);
    c.pid = ::fork();
    ASSERT_GE(c.pid, 0);
    if (c.pid == 0) {
        ::dup2(p[1], 1);
        ::close(p[0]);
        ::close(p[1]);
        std::vector<char*> argv;
        for (auto& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    ::close(p[1]);
    c.out = p[0];
}

using kolt::test::read_line;

}  // namespace

TEST(SimProgram, ServesUntilTerminated) {
    const std::string exe = program();
    ASSERT_TRUE(fs::exists(exe)) << exe;
    kolt::test::TempDir dir;
    const std::string port_file = dir.str() + "/port";
    Child c;
    spawn(c, {exe, "--port-file", port_file, "--profile", kolt::test::sim_profile("default.json")});
    const std::string line = read_line(c.out);
    const std::string port = kolt::test::read_file(port_file);
    ASSERT_FALSE(port.empty());
    const std::string name = port.substr(0, port.find('\n'));
    EXPECT_EQ(line, "kolt-sim: serving /dev/" + name + " (gPortName=" + name + ")");

    kolt::test::RawLine l("/dev/" + name);
    l.write(encode_main_command(0x38, 0x97, {}));
    auto reply = decode_main(l.read_until(0x03, 1500));
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->a, 0x00);

    ASSERT_EQ(::kill(c.pid, SIGTERM), 0);
    int status = 0;
    ASSERT_EQ(::waitpid(c.pid, &status, 0), c.pid);
    c.pid = -1;
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(SimProgram, BadProfileFails) {
    const std::string exe = program();
    ASSERT_TRUE(fs::exists(exe)) << exe;
    kolt::test::TempDir dir;
    const std::string bad = dir.write("bad.json", "{\"family\": \"nope\"}");
    Child c;
    spawn(c, {exe, "--profile", bad});
    int status = 0;
    ASSERT_EQ(::waitpid(c.pid, &status, 0), c.pid);
    c.pid = -1;
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 2);
}
