// Swiping by hand at the kolt-sim program: SIGUSR1 and the prompt commands
// on standard input. (It starts the program of the build: ctest labels these
// tests self_exec.)
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
using kolt::test::RawLine;
using kolt::test::text_bytes;

namespace {

std::string program() {
    return (fs::read_symlink("/proc/self/exe").parent_path().parent_path() / "sim" / "kolt-sim").string();
}

const Bytes kRead2 = {0x1B, 'O', 0x1B, ']'};
const Bytes kRead23 = {0x1B, 'O', 0x1B, 'B', ']'};

Bytes reply(const std::string& text) { return text_bytes("\x1Bs" + text + "?\x1C"); }

// kolt-sim with its standard input and output on pipes.
struct Child {
    pid_t pid = -1;
    int in = -1, out = -1;
    ~Child() {
        if (in >= 0) ::close(in);
        if (pid > 0) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
        }
        if (out >= 0) ::close(out);
    }
    void say(const std::string& line) const {
        ASSERT_EQ(::write(in, line.data(), line.size()), static_cast<ssize_t>(line.size()));
    }
    int stop() {
        ::kill(pid, SIGTERM);
        int status = 0;
        ::waitpid(pid, &status, 0);
        pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
};

void spawn(Child& c, std::vector<std::string> args) {
    int to[2], from[2];
    ASSERT_EQ(::pipe(to), 0);
    ASSERT_EQ(::pipe(from), 0);
    c.pid = ::fork();
    ASSERT_GE(c.pid, 0);
    if (c.pid == 0) {
        ::dup2(to[0], 0);
        ::dup2(from[1], 1);
        ::close(to[0]);
        ::close(to[1]);
        ::close(from[0]);
        ::close(from[1]);
        std::vector<char*> argv;
        for (auto& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    ::close(to[0]);
    ::close(from[1]);
    c.in = to[1];
    c.out = from[0];
}

using kolt::test::read_line;

// Starts the program and returns the slave path it serves.
std::string start(Child& c, std::vector<std::string> extra) {
    std::vector<std::string> args{program()};
    args.insert(args.end(), extra.begin(), extra.end());
    spawn(c, args);
    const std::string line = read_line(c.out);  // kolt-sim: serving /dev/pts/N (gPortName=pts/N)
    const auto from = line.find("/dev/");
    if (from == std::string::npos) return "";
    return line.substr(from, line.find(' ', from) - from);
}

// Waits until the simulator has the read command (it waits for a swipe).
void settle() { std::this_thread::sleep_for(std::chrono::milliseconds(150)); }

}  // namespace

TEST(SimStripeProgram, Sigusr1SwipesTheProfileCard) {
    ASSERT_TRUE(fs::exists(program()));
    Child c;
    const std::string path = start(c, {"--no-interactive"});
    ASSERT_FALSE(path.empty());
    RawLine l(path);
    l.write(kRead2);
    settle();
    EXPECT_TRUE(l.read_for(200).empty());
    ASSERT_EQ(::kill(c.pid, SIGUSR1), 0);
    EXPECT_EQ(l.read_until(0x1C, 2000), reply("6299990000001234560=30122201234567890"));
    EXPECT_EQ(c.stop(), 0);
}

TEST(SimStripeProgram, Sigusr1SwipesTheCardFile) {
    kolt::test::TempDir dir;
    const auto card = dir.write("card.json", R"({"track2": ";6299990000005555555=27122201234567890?"})");
    Child c;
    const std::string path = start(c, {"--no-interactive", "--stripe-card", card});
    ASSERT_FALSE(path.empty());
    RawLine l(path);
    ASSERT_EQ(::kill(c.pid, SIGUSR1), 0);  // swiped when the next command comes
    settle();
    l.write(kRead23);
    EXPECT_EQ(l.read_until(0x1C, 2000), reply("6299990000005555555=27122201234567890A\x7F"));
    EXPECT_EQ(c.stop(), 0);
}

TEST(SimStripeProgram, PromptCommands) {
    Child c;
    const std::string path = start(c, {"--interactive"});
    ASSERT_FALSE(path.empty());
    RawLine l(path);

    l.write(kRead23);
    settle();
    c.say("swipe 1234=5678 99=88\n");
    EXPECT_EQ(read_line(c.out), "swiped: track1 -, track2 1234=5678, track3 99=88");
    EXPECT_EQ(l.read_until(0x1C, 2000), reply("1234=5678A99=88"));

    c.say("swipe-empty\n");
    EXPECT_EQ(read_line(c.out), "swiped: an empty card");
    l.write(kRead2);
    EXPECT_EQ(l.read_until(0x1C, 2000), reply("\x7F"));

    c.say("write-fails on\n");
    EXPECT_EQ(read_line(c.out), "write fails: on");
    c.say("swipe\n");
    read_line(c.out);
    l.write(Bytes{0x1B, 't', '1', '=', '2', 0x1D, 0x1B, '\\', 0x1B, 'j'});
    EXPECT_EQ(l.read(3, 2000), (Bytes{0x1B, '0', 0x41}));

    l.write(Bytes{0x1B, '0'});
    settle();
    c.say("status\n");
    EXPECT_EQ(read_line(c.out), "waiting for a swipe: no");
    EXPECT_EQ(read_line(c.out), "swipes queued: 0");
    EXPECT_EQ(read_line(c.out).rfind("card in the reader: track1 %B6299", 0), 0u);
    EXPECT_EQ(read_line(c.out), "resets: 1");
    EXPECT_EQ(read_line(c.out), "escape commands: 4, last ESC0");

    c.say("card-stays on\n");
    EXPECT_EQ(read_line(c.out), "card stays: on");
    l.write(kRead2);
    EXPECT_EQ(l.read_until(0x1C, 2000), reply("6299990000001234560=30122201234567890"));

    c.say("help\n");
    EXPECT_EQ(read_line(c.out), "commands:");
    c.say("quit\n");
    int status = 0;
    ASSERT_EQ(::waitpid(c.pid, &status, 0), c.pid);
    c.pid = -1;
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(SimStripeProgram, EndOfInputKeepsServing) {
    Child c;
    const std::string path = start(c, {"--interactive"});
    ASSERT_FALSE(path.empty());
    ::close(c.in);
    c.in = -1;
    settle();
    RawLine l(path);
    l.write(encode_main_command(0x38, 0x97, {}));
    EXPECT_TRUE(decode_main(l.read_until(0x03, 1500)));
    EXPECT_EQ(c.stop(), 0);
}
