// kolt-sim with an identity card file, its identity prompt commands and the
// verbose log of the display command. (It starts the program of the build:
// ctest labels these tests self_exec.)
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "common/sim_fixture.hpp"
#include "common/test_util.hpp"
#include "kolt_sim/frame.hpp"
#include "kolt_sim/idcard.hpp"

using namespace kolt::sim;
namespace fs = std::filesystem;

namespace {

std::string program() {
    return (fs::read_symlink("/proc/self/exe").parent_path().parent_path() / "sim" / "kolt-sim").string();
}

std::string card_file(const std::string& name) { return std::string(KOLT_SIM_PROFILE_DIR) + "/../cards/idcard/" + name; }

// The program with a pipe on its standard input and output and its standard
// error in a file.
struct Child {
    pid_t pid = -1;
    int in = -1, out = -1;
    ~Child() {
        if (pid > 0) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
        }
        if (in >= 0) ::close(in);
        if (out >= 0) ::close(out);
    }
    void say(const std::string& line) const {
        const std::string l = line + "\n";
        ASSERT_EQ(::write(in, l.data(), l.size()), static_cast<ssize_t>(l.size()));
    }
};

void spawn(Child& c, std::vector<std::string> args, const std::string& err_file) {
    int pin[2], pout[2];
    ASSERT_EQ(::pipe(pin), 0);
    ASSERT_EQ(::pipe(pout), 0);
    c.pid = ::fork();
    ASSERT_GE(c.pid, 0);
    if (c.pid == 0) {
        ::dup2(pin[0], 0);
        ::dup2(pout[1], 1);
        const int e = ::open(err_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (e >= 0) ::dup2(e, 2);
        ::close(pin[0]);
        ::close(pin[1]);
        ::close(pout[0]);
        ::close(pout[1]);
        std::vector<char*> argv;
        for (auto& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    ::close(pin[0]);
    ::close(pout[1]);
    c.in = pin[1];
    c.out = pout[0];
}

using kolt::test::read_line;

Bytes read_body(kolt::test::RawLine& l) {
    l.write(encode_main_command(0x35, 0x82, {}));
    return decode_special_reply(l.read_until(0x03, 2000)).value_or(Bytes{0xEE});
}

}  // namespace

TEST(SimIdCardProgram, CardFilePromptAndDisplayLog) {
    const std::string exe = program();
    ASSERT_TRUE(fs::exists(exe)) << exe;
    kolt::test::TempDir dir;
    const std::string port_file = dir.str() + "/port";
    const std::string err_file = dir.str() + "/err";
    Child c;
    spawn(c, {exe, "--port-file", port_file, "--id-card", card_file("foreign.json"), "--profile",
               kolt::test::sim_profile("default.json"), "--interactive", "--verbose"},
          err_file);
    ASSERT_EQ(read_line(c.out).rfind("kolt-sim: serving ", 0), 0u);
    const std::string port = kolt::test::read_file(port_file);
    kolt::test::RawLine l("/dev/" + port.substr(0, port.find('\n')));

    const Bytes body = read_body(l);
    ASSERT_EQ(body.size(), 2u + 4u + kIdRecordSize);
    EXPECT_EQ(Bytes(body.begin() + 6, body.end()), encode_id_record(load_id_card(card_file("foreign.json"))));

    c.say("id-card off");
    EXPECT_EQ(read_line(c.out), "identity card: none");
    EXPECT_EQ(read_body(l), (Bytes{0x00, 0x80}));
    c.say("id-card " + card_file("permit.json"));
    EXPECT_EQ(read_line(c.out), "identity card: 陈嘉欣");
    EXPECT_EQ(read_body(l).at(6 + 248), 'J');
    c.say("id-error on");
    EXPECT_EQ(read_line(c.out), "identity module error: on");
    EXPECT_EQ(read_body(l), (Bytes{0x00, 0x41}));
    c.say("id-error off");
    EXPECT_EQ(read_line(c.out), "identity module error: off");
    c.say("id-card-after 1 " + card_file("resident.json"));
    EXPECT_EQ(read_line(c.out), "identity card after 1 find or read commands");
    EXPECT_EQ(read_body(l), (Bytes{0x00, 0x80}));
    EXPECT_EQ(read_body(l).size(), 2u + 4u + kIdRecordSize);

    Bytes d{0x00, 0x52, '0', '2'};
    Bytes name = utf8_to_ucs2le("张三");
    while (name.size() < 30) name.insert(name.end(), {0x20, 0x00});
    d.insert(d.end(), name.begin(), name.end());
    for (char ch : std::string("110101198001010014")) d.push_back(static_cast<uint8_t>(ch));
    Bytes authority = utf8_to_ucs2le("北京市公安局");
    authority.resize(30, 0x00);
    d.insert(d.end(), authority.begin(), authority.end());
    l.write(encode_bracket(0x51, d));
    EXPECT_EQ(l.read_until(')', 2000), encode_bracket(0x51, Bytes{0x90}));
    c.say("id-displays");
    EXPECT_EQ(read_line(c.out), "display commands: 1");
    const std::string shown = read_line(c.out);
    EXPECT_NE(shown.find("code 02, name 张三, number 110101198001010014, authority 北京市公安局, photo 0 bytes"),
              std::string::npos)
        << shown;

    ASSERT_EQ(::kill(c.pid, SIGTERM), 0);
    int status = 0;
    ASSERT_EQ(::waitpid(c.pid, &status, 0), c.pid);
    c.pid = -1;
    EXPECT_EQ(WEXITSTATUS(status), 0);
    const std::string log = kolt::test::read_file(err_file);
    EXPECT_NE(log.find("identity display: length 82 (80 bytes follow), code 02, name 张三"), std::string::npos) << log;
}

TEST(SimIdCardProgram, BadCardFileFails) {
    const std::string exe = program();
    ASSERT_TRUE(fs::exists(exe)) << exe;
    kolt::test::TempDir dir;
    const std::string bad = dir.write("bad.json", R"({"layout": "I", "nation": "01"})");
    Child c;
    spawn(c, {exe, "--id-card", bad, "--no-interactive"}, dir.str() + "/err");
    int status = 0;
    ASSERT_EQ(::waitpid(c.pid, &status, 0), c.pid);
    c.pid = -1;
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 2);
    EXPECT_NE(kolt::test::read_file(dir.str() + "/err").find("has no field \"nation\""), std::string::npos);
}
