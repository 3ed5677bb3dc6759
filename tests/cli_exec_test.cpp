// kolt, the command-line tool, as a child process against the simulated
// reader of this process: every command's readable and JSON output, the
// failures and their exit codes, Ctrl-C, the clerk server and the manual
// page. (It starts programs of the build: ctest labels these tests
// self_exec.)
#include <cjson/cJSON.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "common/card_flow.hpp"
#include "common/com_link.hpp"
#include "common/sim_fixture.hpp"
#include "common/test_util.hpp"
#include "kolt_sim/issuer.hpp"
#include "kolt_sim/simulator.hpp"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using kolt::test::load_card;
using kolt::test::ScopedSimulator;
using kolt::test::TempDir;
using namespace std::chrono_literals;

// ---------------------------------------------------------------------------
// The programs of the build: <build>/tools/kolt, <build>/sim/...

fs::path build_dir() { return fs::read_symlink("/proc/self/exe").parent_path().parent_path(); }
std::string kolt_program() { return (build_dir() / "tools" / "kolt").string(); }
std::string sim_program(const std::string& name) { return (build_dir() / "sim" / name).string(); }

fs::path source_dir() {
    if (const char* d = std::getenv("KOLT_TEST_SOURCE_DIR")) return d;
    return fs::path(__FILE__).parent_path().parent_path();
}

// ---------------------------------------------------------------------------
// Running kolt.

using Env = std::map<std::string, std::string>;

// The child's environment: this one without KOLT_PORT and the locale, a
// UTF-8 locale, then the given variables.
std::vector<std::string> child_env(const Env& env) {
    std::vector<std::string> out;
    for (char** e = environ; *e != nullptr; ++e) {
        const std::string v = *e;
        const std::string name = v.substr(0, v.find('='));
        if (name == "KOLT_PORT" || name == "LC_ALL" || name == "LANG" || name.rfind("LC_", 0) == 0 ||
            env.count(name) > 0)
            continue;
        out.push_back(v);
    }
    if (env.count("LC_ALL") == 0) out.push_back("LC_ALL=C.UTF-8");
    for (const auto& [k, v] : env) out.push_back(k + "=" + v);
    return out;
}

struct Result {
    int status = -1;  // exit status, or -1 when it did not exit
    std::string out, err;
};

std::ostream& operator<<(std::ostream& os, const Result& r) {
    return os << "exit " << r.status << "\n--- stdout\n" << r.out << "--- stderr\n" << r.err;
}

// A started kolt: standard input from /dev/null (or a pipe), standard
// output and error into files (or a pipe for standard output).
class Child {
public:
    Child(const std::vector<std::string>& args, const Env& env = {}, bool pipes = false) {
        out_ = dir_.str() + "/out";
        err_ = dir_.str() + "/err";
        std::vector<std::string> a = {kolt_program()};
        a.insert(a.end(), args.begin(), args.end());
        std::vector<std::string> e = child_env(env);
        std::vector<char*> argv, envp;
        for (auto& s : a) argv.push_back(s.data());
        argv.push_back(nullptr);
        for (auto& s : e) envp.push_back(s.data());
        envp.push_back(nullptr);
        int in_pipe[2] = {-1, -1}, out_pipe[2] = {-1, -1};
        if (pipes && (::pipe2(in_pipe, O_CLOEXEC) != 0 || ::pipe2(out_pipe, O_CLOEXEC) != 0)) return;
        const int null_fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        const int out_fd = ::open(out_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        const int err_fd = ::open(err_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        pid_ = ::fork();
        if (pid_ == 0) {
            // Only async-signal-safe calls here: the parent has threads.
            ::dup2(pipes ? in_pipe[0] : null_fd, 0);
            ::dup2(pipes ? out_pipe[1] : out_fd, 1);
            ::dup2(err_fd, 2);
            ::execve(argv[0], argv.data(), envp.data());
            ::_exit(127);
        }
        ::close(null_fd);
        ::close(out_fd);
        ::close(err_fd);
        if (pipes) {
            ::close(in_pipe[0]);
            ::close(out_pipe[1]);
            in_ = in_pipe[1];
            from_ = out_pipe[0];
        }
    }
    ~Child() {
        if (in_ >= 0) ::close(in_);
        if (from_ >= 0) ::close(from_);
        if (pid_ > 0 && !waited_) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    pid_t pid() const { return pid_; }
    // The pipes of a child started with pipes.
    int to_stdin() const { return in_; }
    int from_stdout() const { return from_; }
    void close_stdin() {
        if (in_ >= 0) ::close(in_);
        in_ = -1;
    }

    Result wait() {
        Result r;
        int st = 0;
        if (pid_ > 0 && ::waitpid(pid_, &st, 0) == pid_ && WIFEXITED(st)) r.status = WEXITSTATUS(st);
        waited_ = true;
        r.out = kolt::test::read_file(out_);
        r.err = kolt::test::read_file(err_);
        return r;
    }

private:
    TempDir dir_;
    std::string out_, err_;
    pid_t pid_ = -1;
    bool waited_ = false;
    int in_ = -1, from_ = -1;
};

Result run(const std::vector<std::string>& args, const Env& env = {}) { return Child(args, env).wait(); }

// The JSON object of a run's standard output (one object, then a newline).
struct Json {
    explicit Json(const std::string& text) : root(cJSON_Parse(text.c_str())) {}
    ~Json() { cJSON_Delete(root); }
    Json(const Json&) = delete;
    Json& operator=(const Json&) = delete;
    cJSON* operator[](const char* key) const { return cJSON_GetObjectItemCaseSensitive(root, key); }
    std::string text(const char* key) const {
        const cJSON* item = (*this)[key];
        return cJSON_IsString(item) ? item->valuestring : "<not a string>";
    }
    double number(const char* key) const {
        const cJSON* item = (*this)[key];
        return cJSON_IsNumber(item) ? item->valuedouble : -99999;
    }
    cJSON* root;
};

std::string text_of(const cJSON* obj, const char* key) {
    const cJSON* item = cJSON_GetObjectItemCaseSensitive(obj, key);
    return cJSON_IsString(item) ? item->valuestring : "<not a string>";
}

double number_of(const cJSON* obj, const char* key) {
    const cJSON* item = cJSON_GetObjectItemCaseSensitive(obj, key);
    return cJSON_IsNumber(item) ? item->valuedouble : -99999;
}

// A failure in JSON mode: the error object with its exit code.
void expect_json_error(const Result& r, int code) {
    EXPECT_EQ(r.status, code) << r;
    EXPECT_EQ(r.out.back(), '\n') << r;
    EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 1) << r;
    const Json j(r.out);
    ASSERT_NE(j.root, nullptr) << r;
    const cJSON* e = j["error"];
    ASSERT_TRUE(cJSON_IsObject(e)) << r;
    EXPECT_EQ(number_of(e, "code"), code) << r;
    EXPECT_TRUE(cJSON_IsNumber(cJSON_GetObjectItem(e, "library_result"))) << r;
    EXPECT_FALSE(text_of(e, "message").empty()) << r;
}

// Lines of a text.
std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string l; std::getline(in, l);) out.push_back(l);
    return out;
}

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// Every test has the tool and a simulator of its own.
class Cli : public ::testing::Test {
protected:
    void SetUp() override {
        if (!fs::exists(kolt_program())) GTEST_SKIP() << "kolt not built";
        sim_ = std::make_unique<ScopedSimulator>(options());
    }
    virtual kolt::sim::Options options() const { return {}; }
    kolt::sim::Simulator& sim() { return **sim_; }
    std::string port() { return sim().port_name(); }  // "pts/N"
    // kolt --port pts/N ARGS...
    Result kolt(std::vector<std::string> args, const Env& env = {}) {
        args.insert(args.begin(), {"--port", port()});
        return run(args, env);
    }

private:
    std::unique_ptr<ScopedSimulator> sim_;
};

// ---------------------------------------------------------------------------
// The command line.

TEST_F(Cli, HelpVersionAndTheHelpOfEveryCommand) {
    const Result help = run({"--help"});
    EXPECT_EQ(help.status, 0) << help;
    EXPECT_TRUE(contains(help.out, "Usage: kolt")) << help;
    const Result version = run({"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out, "kolt 2.0.1\n");
    for (const char* cmd : {"device", "card", "log", "arqc", "transaction", "stripe", "idcard", "finger", "clerk",
                            "selftest"}) {
        const Result r = run({cmd, "--help"});
        EXPECT_EQ(r.status, 0) << cmd << r;
        EXPECT_TRUE(contains(r.out, std::string("Usage: kolt ") + cmd)) << r;
    }
    const Result r = run({"stripe", "read", "-h"});
    EXPECT_EQ(r.status, 0) << r;
    EXPECT_TRUE(contains(r.out, "--path")) << r;
    // The card command lists every element name.
    const Result card = run({"card", "--help"});
    EXPECT_TRUE(contains(card.out, "track1-discretionary")) << card;
    EXPECT_TRUE(contains(card.out, "cdol2")) << card;
}

TEST_F(Cli, UsageErrorsGiveTwo) {
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {},                                              // no command
             {"nonsense"},                                    // unknown command
             {"card", "--bogus"},                             // unknown option
             {"card", "--port", port(), "xyz"},               // unknown element
             {"card", "--slot", "sideways"},                  // bad slot
             {"stripe"},                                      // no subcommand
             {"stripe", "read", "--track", "1"},              // bad track
             {"arqc", "--port", port()},                      // no amount
             {"clerk", "mode", "--bank", "0101"},             // no clerk
             {"--timeout", "0", "finger"},                    // bad time-out
             {"-t", "7", "card"},                             // no such terminal type
             {"--port", port(), "--port-file", "/tmp/x", "device"},
         }) {
        const Result r = run(args);
        EXPECT_EQ(r.status, 2) << ::testing::PrintToString(args) << r;
        EXPECT_TRUE(r.out.empty()) << r;
        EXPECT_TRUE(contains(r.err, "kolt: ")) << r;
    }
    // The tool's own checks after parsing.
    EXPECT_EQ(kolt({"arqc", "--amount", "100", "--currency", "156", "--country", "840"}).status, 2);
    EXPECT_EQ(kolt({"stripe", "write", "--track2", "123", "--path", "framed"}).status, 2);
    // No port at all.
    const Result none = run({"device"});
    EXPECT_EQ(none.status, 2) << none;
    EXPECT_TRUE(contains(none.err, "KOLT_PORT")) << none;
    // In JSON mode the error object too.
    expect_json_error(run({"--json", "card", "--bogus"}), 2);
}

TEST_F(Cli, PortThatCannotBeOpenedGivesThree) {
    const Result r = run({"--port", "pts/99999", "card"});
    EXPECT_EQ(r.status, 3) << r;
    EXPECT_TRUE(contains(r.err, "cannot open /dev/pts/99999")) << r;
    expect_json_error(run({"--json", "--port", "/dev/kolt-no-such-device", "log"}), 3);
    // A name longer than gPortName takes is a usage error.
    EXPECT_EQ(run({"--port", std::string(40, 'x'), "card"}).status, 2);
}

TEST_F(Cli, PortFormsEnvironmentAndPortFile) {
    const std::string expected = run({"--port", port(), "device"}).out;
    EXPECT_TRUE(contains(expected, "serial number:    0001234567")) << expected;
    const Result dev = run({"--port", "/dev/" + port(), "device"});
    EXPECT_EQ(dev.status, 0) << dev;
    EXPECT_EQ(dev.out, expected);
    const Result short_opt = run({"-p", port(), "device"});
    EXPECT_EQ(short_opt.out, expected) << short_opt;
    // Global options after the command.
    const Result after = run({"device", "--port", port()});
    EXPECT_EQ(after.status, 0) << after;
    EXPECT_EQ(after.out, expected);
    const Result env = run({"device"}, {{"KOLT_PORT", port()}});
    EXPECT_EQ(env.status, 0) << env;
    EXPECT_EQ(env.out, expected);
    TempDir dir;
    const std::string file = dir.write("port", "/dev/" + port() + "\n");
    const Result pf = run({"--port-file", file, "device"});
    EXPECT_EQ(pf.status, 0) << pf;
    EXPECT_EQ(pf.out, expected);
}

// ---------------------------------------------------------------------------
// device

TEST_F(Cli, DeviceReadableAndJson) {
    const Result r = kolt({"device"});
    EXPECT_EQ(r.status, 0) << r;
    EXPECT_EQ(r.out,
              "brand:            KOLT\n"
              "library version:  2.0.1\n"
              "model:            KL560T41\n"
              "serial number:    0001234567\n"
              "version:          V1.08\n");
    const Result j = kolt({"--json", "device"});
    EXPECT_EQ(j.status, 0) << j;
    // DEV_CommCall's keys in its order.
    EXPECT_EQ(j.out,
              R"({"ErrorCode":"0","ErrorMessage":"success","DeviceBrand":"KOLT","DllVersion":"2.0.1",)"
              R"("ProductionDate":"","DeviceSN":"0001234567","DeviceVersion":"V1.08","DeviceModel":"KL560T41"})"
              "\n");
}

class CliShortVersion : public Cli {
protected:
    kolt::sim::Options options() const override {
        kolt::sim::Options o;
        o.profile = kolt::sim::load_device_profile(kolt::test::sim_profile("short_version.json"));
        return o;
    }
};

TEST_F(CliShortVersion, VersionOfSeventeenBytesIsNotShown) {
    const Result j = kolt({"--json", "device"});
    EXPECT_EQ(j.status, 0) << j;
    const Json json(j.out);
    EXPECT_EQ(json.text("DeviceVersion"), "");
    EXPECT_EQ(json.text("DeviceSN").size(), 10u);
}

TEST_F(Cli, DeviceThatDoesNotAnswer) {
    sim().inject(kolt::sim::Fault{kolt::sim::Fault::NoReply}, -1);
    const Result r = kolt({"device"});
    EXPECT_EQ(r.status, 3) << r;
    EXPECT_TRUE(contains(r.err, "the device does not answer")) << r;
}

TEST_F(Cli, DeviceThroughDevCommCall) {
    kolt::test::ComLink link(sim().slave_path());
    if (link.number() == 0) GTEST_SKIP() << "cannot create a /dev/COM<n> link here";
    const std::string n = std::to_string(link.number());
    const std::string answer =
        R"({"ErrorCode":"0","ErrorMessage":"success","DeviceBrand":"KOLT","DllVersion":"2.0.1",)"
        R"("ProductionDate":"","DeviceSN":"0001234567","DeviceVersion":"V1.08","DeviceModel":"KL560T41"})"
        "\n";
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {"--json", "device", "--com", n}, {"--json", "--port", "COM" + n, "device"},
             {"--json", "--port", "/dev/COM" + n, "device"}}) {
        const Result r = run(args);
        EXPECT_EQ(r.status, 0) << r;
        EXPECT_EQ(r.out, answer) << r;
    }
    const Result readable = run({"device", "--com", n});
    EXPECT_EQ(readable.status, 0) << readable;
    EXPECT_TRUE(contains(readable.out, "serial number:    0001234567\n")) << readable;
    // The device does not answer: DEV_CommCall's failure answer and the error.
    sim().inject(kolt::sim::Fault{kolt::sim::Fault::NoReply}, -1);
    const Result silent = run({"--json", "device", "--com", n});
    expect_json_error(silent, 3);
    const Json j(silent.out);
    EXPECT_EQ(j.text("ErrorCode"), "-1");
}

TEST_F(Cli, DevCommCallPortThatDoesNotExist) {
    const int n = kolt::test::free_com_number();
    ASSERT_NE(n, 0);
    const Result r = run({"device", "--com", std::to_string(n)});
    EXPECT_EQ(r.status, 3) << r;
    EXPECT_TRUE(contains(r.err, "/dev/COM" + std::to_string(n))) << r;
}

// DEV_CommCall opens ports 1..8 only; a larger number would leave the link
// on the terminal.
TEST_F(Cli, DevCommCallPortOutsideOneToEightIsAUsageError) {
    for (const char* n : {"0", "9", "12"}) {
        const Result r = run({"device", "--com", n});
        EXPECT_EQ(r.status, 2) << r;
    }
}

// ---------------------------------------------------------------------------
// card

TEST_F(Cli, CardReadableAndJson) {
    sim().set_contact_card(load_card("pboc_debit"));
    const Result r = kolt({"card", "ABEIJ"});
    EXPECT_EQ(r.status, 0) << r;
    const auto l = lines(r.out);
    ASSERT_EQ(l.size(), 6u) << r;
    EXPECT_EQ(l[0], "letter name                  value");
    EXPECT_EQ(l[1], "A      pan                   6299990000001234560");
    EXPECT_TRUE(contains(l[2], "B      name ")) << l[2];
    EXPECT_TRUE(contains(l[3], "E      track2                6299990000001234560D")) << l[3];
    EXPECT_EQ(l[5], "J      psn                   01");

    const Result j = kolt({"--json", "card", "pan", "psn"});
    EXPECT_EQ(j.status, 0) << j;
    const Json json(j.out);
    EXPECT_EQ(json.number("result"), 0);
    const cJSON* elements = json["elements"];
    ASSERT_EQ(cJSON_GetArraySize(elements), 2) << j;
    EXPECT_EQ(text_of(cJSON_GetArrayItem(elements, 0), "letter"), "A");
    EXPECT_EQ(text_of(cJSON_GetArrayItem(elements, 0), "name"), "pan");
    EXPECT_EQ(text_of(cJSON_GetArrayItem(elements, 0), "value"), "6299990000001234560");
    EXPECT_EQ(text_of(cJSON_GetArrayItem(elements, 1), "letter"), "J");
    EXPECT_EQ(text_of(cJSON_GetArrayItem(elements, 1), "value"), "01");
}

TEST_F(Cli, CardElectronicCashValuesAndDefaultSet) {
    sim().set_contact_card(load_card("pboc_debit"));
    // The balance, its limit and the single limit, each asked for alone.
    const Result r = kolt({"--json", "card", "balance", "balance-limit", "K"});
    EXPECT_EQ(r.status, 0) << r;
    const Json j(r.out);
    const cJSON* e = j["elements"];
    ASSERT_EQ(cJSON_GetArraySize(e), 3) << r;
    EXPECT_EQ(text_of(cJSON_GetArrayItem(e, 0), "value"), "000000012345");
    EXPECT_EQ(text_of(cJSON_GetArrayItem(e, 1), "value"), "000000100000");
    EXPECT_EQ(text_of(cJSON_GetArrayItem(e, 2), "value"), "000000050000");
    const Result readable = kolt({"card", "G"});
    EXPECT_TRUE(contains(readable.out, "G      balance               000000012345  (123.45)")) << readable;
    // The default set.
    const Result d = kolt({"--json", "card"});
    const Json dj(d.out);
    std::string letters;
    const cJSON* item = nullptr;
    cJSON_ArrayForEach(item, dj["elements"]) letters += text_of(item, "letter");
    EXPECT_EQ(letters, "ABCDIJG") << d;
}

TEST_F(Cli, CardAidAndContactless) {
    sim().set_contactless_card(load_card("qpboc_contactless"));
    const Result r = kolt({"--json", "card", "--slot", "contactless", "A"});
    EXPECT_EQ(r.status, 0) << r;
    // The contact slot is empty.
    const Result none = kolt({"card", "A"});
    EXPECT_EQ(none.status, 4) << none;
    EXPECT_TRUE(contains(none.err, "no card in the contact reader")) << none;
    // The candidate list: the card is asked for the AIDs given.
    auto card = load_card("pboc_debit");
    sim().set_contact_card(card);
    const Result aids = kolt({"card", "--aid", "F04B4F4C54090909", "--aid", "F04B4F4C54010101", "A"});
    EXPECT_EQ(aids.status, 0) << aids;
    EXPECT_TRUE(contains(aids.out, "A      pan                   6299990000001234560")) << aids;
    const auto apdus = kolt::test::apdus_hex(*card);
    EXPECT_NE(std::find(apdus.begin(), apdus.end(), "00A4040008F04B4F4C54090909"), apdus.end());
    EXPECT_NE(std::find(apdus.begin(), apdus.end(), "00A4040008F04B4F4C54010101"), apdus.end());
    const Result aid_zero = kolt({"card", "--aid", "A000000333010101", "A"});
    EXPECT_EQ(aid_zero.status, 2) << aid_zero;
}

TEST_F(Cli, CardFailures) {
    // No card on the contactless field.
    const Result none = kolt({"--json", "card", "--slot", "contactless"});
    expect_json_error(none, 4);
    // A locked application is read, with a note.
    sim().set_contact_card(load_card("app_locked"));
    const Result locked = kolt({"--json", "card", "A"});
    EXPECT_EQ(locked.status, 0) << locked;
    EXPECT_EQ(Json(locked.out).number("result"), 10);
    EXPECT_TRUE(contains(locked.err, "locked")) << locked;
    // A card whose answer the library cannot use.
    sim().set_contact_card(load_card("gpo_format2"));
    const Result gpo = kolt({"card", "A"});
    EXPECT_EQ(gpo.status, 8) << gpo;
    // A card that does not answer the power-on (the device does).
    sim().set_contact_card(load_card("pboc_debit"));
    sim().set_status(0x32, 0x22, 0x10, 0x06);
    const Result mute = kolt({"card", "A"});
    EXPECT_EQ(mute.status, 8) << mute;
    sim().set_status(0x32, 0x22, 0x10, 0x05);  // power-on failed
    const Result power = kolt({"card", "A"});
    EXPECT_EQ(power.status, 1) << power;
}

// ---------------------------------------------------------------------------
// log

TEST_F(Cli, LogTableAndJson) {
    sim().set_contact_card(load_card("pboc_debit"));
    const Result r = kolt({"log"});
    EXPECT_EQ(r.status, 0) << r;
    const auto l = lines(r.out);
    ASSERT_EQ(l.size(), 7u) << r;
    EXPECT_EQ(l[0],
              "#   date       time            amount         other country currency type   ATC  merchant");
    EXPECT_EQ(l[1],
              "1   2025-03-01 10:15:30        100.00          0.00 0156    0156     00      23  KOLT TEST SHOP 01");
    EXPECT_EQ(l[6], "(5 records, as the card keeps them)");

    const Result j = kolt({"--json", "log"});
    EXPECT_EQ(j.status, 0) << j;
    const Json json(j.out);
    EXPECT_EQ(json.number("result"), 5);
    const cJSON* records = json["records"];
    ASSERT_EQ(cJSON_GetArraySize(records), 5);
    const cJSON* last = cJSON_GetArrayItem(records, 4);
    EXPECT_EQ(text_of(last, "date"), "2026-01-14");
    EXPECT_EQ(text_of(last, "time"), "11:11:11");
    EXPECT_EQ(number_of(last, "amount"), 100000);
    EXPECT_EQ(number_of(last, "other_amount"), 0);
    EXPECT_EQ(text_of(last, "currency"), "0156");
    EXPECT_EQ(text_of(last, "country"), "0156");
    EXPECT_EQ(text_of(last, "merchant"), "KOLT EC LOAD");
    EXPECT_EQ(text_of(last, "type"), "60");
    EXPECT_EQ(number_of(last, "atc"), 0x1B);
}

TEST_F(Cli, LogFailures) {
    EXPECT_EQ(kolt({"log"}).status, 4);  // no card
    sim().set_contact_card(load_card("no_log_entry"));
    const Result r = kolt({"--json", "log"});
    expect_json_error(r, 8);
    sim().set_contact_card(load_card("log_format_9f21"));
    EXPECT_EQ(kolt({"log"}).status, 8);
    sim().set_contact_card(kolt::test::card_with_log(0, 2));
    const Result empty = kolt({"log"});
    EXPECT_EQ(empty.status, 0) << empty;
    EXPECT_EQ(empty.out, "no transactions in the card's log\n");
}

// ---------------------------------------------------------------------------
// arqc and transaction

TEST_F(Cli, ArqcGivesField55AndTheApplicationData) {
    sim().set_contact_card(load_card("online/online_debit"));
    const Result r = kolt({"arqc", "--amount", "12345", "--date", "20261122", "--time", "101530"});
    EXPECT_EQ(r.status, 0) << r;
    EXPECT_TRUE(contains(r.out, "transaction data: P00512345Q0010R0040156S00820261122T00200U006101530\n")) << r;
    EXPECT_TRUE(contains(r.out, "field 55: 9F2608")) << r;
    EXPECT_TRUE(contains(r.out, "  9F02  amount                               000000012345\n")) << r;
    EXPECT_TRUE(contains(r.out, "the card stays powered")) << r;

    const Result j = kolt({"--json", "arqc", "--amount", "100", "--merchant", "KOLT SHOP", "--type", "01"});
    EXPECT_EQ(j.status, 0) << j;
    const Json json(j.out);
    const cJSON* a = json["arqc"];
    EXPECT_EQ(number_of(a, "result"), 0);
    EXPECT_EQ(text_of(a, "cryptogram"), "ARQC");
    const std::string f55 = text_of(a, "field55");
    EXPECT_EQ(f55.substr(0, 6), "9F2608");
    EXPECT_TRUE(contains(f55, "9F0206000000000100")) << f55;
    EXPECT_TRUE(contains(f55, "9C0101")) << f55;
    EXPECT_TRUE(contains(text_of(a, "transaction_data"), "W009KOLT SHOP")) << j;
    EXPECT_EQ(text_of(a, "app_data").back(), '0');
    // No card.
    sim().set_contact_card(nullptr);
    expect_json_error(kolt({"--json", "arqc", "--amount", "100"}), 4);
}

TEST_F(Cli, TransactionWithTheIssuerProgramIsApproved) {
    auto card = load_card("online/online_debit");
    sim().set_contact_card(card);
    const std::string issuer = sim_program("kolt-issuer") + " --put-data 9F77=000000200000";
    const Result r = kolt({"transaction", "--amount", "12345", "--issuer", issuer});
    EXPECT_EQ(r.status, 0) << r;
    EXPECT_TRUE(contains(r.out, "response data (response code 00):")) << r;
    EXPECT_TRUE(contains(r.out, "issuer script: executed (DF3105")) << r;
    EXPECT_TRUE(contains(r.out, "final cryptogram: TC,")) << r;
    EXPECT_TRUE(contains(r.out, "outcome: approved\n")) << r;
    // The script raised the balance limit.
    const Result limit = kolt({"--json", "card", "balance-limit"});
    EXPECT_EQ(text_of(cJSON_GetArrayItem(Json(limit.out)["elements"], 0), "value"), "000000200000") << limit;

    const Result j = kolt({"--json", "transaction", "--amount", "500", "--issuer", sim_program("kolt-issuer")});
    EXPECT_EQ(j.status, 0) << j;
    const Json json(j.out);
    EXPECT_EQ(json.number("result"), 0);
    EXPECT_EQ(json.text("outcome"), "approved");
    EXPECT_EQ(json.text("second_cryptogram"), "TC");
    EXPECT_EQ(json.text("script"), "none");
    EXPECT_EQ(json.text("field55").substr(0, 6), "9F2608");
    EXPECT_EQ(text_of(json["issuer"], "response_code"), "00");
    EXPECT_EQ(number_of(json["issuer"], "exit_status"), 0);
    EXPECT_EQ(text_of(json["arqc"], "cryptogram"), "ARQC");
}

TEST_F(Cli, TransactionDeclinedByTheIssuer) {
    sim().set_contact_card(load_card("online/online_debit"));
    const Result r =
        kolt({"--json", "transaction", "--amount", "100", "--issuer", sim_program("kolt-issuer") + " --decline 05"});
    expect_json_error(r, 7);
    const Json j(r.out);
    EXPECT_EQ(j.text("outcome"), "declined");
    EXPECT_EQ(j.text("second_cryptogram"), "AAC");
    EXPECT_EQ(text_of(j["issuer"], "response_code"), "05");
}

TEST_F(Cli, TransactionIssuerFailures) {
    sim().set_contact_card(load_card("online/online_debit"));
    // A program that cannot be started, one that answers nothing, no
    // response data on standard input.
    EXPECT_EQ(kolt({"transaction", "--amount", "100", "--issuer", "/nonexistent/issuer"}).status, 6);
    const Result quiet = kolt({"transaction", "--amount", "100", "--issuer", "/bin/true"});
    EXPECT_EQ(quiet.status, 6) << quiet;
    const Result none = kolt({"--json", "transaction", "--amount", "100"});
    expect_json_error(none, 6);
    // The response data that is not hex.
    const Result bad = kolt({"transaction", "--amount", "100", "--issuer", "/bin/echo not-hex"});
    EXPECT_EQ(bad.status, 6) << bad;
}

TEST_F(Cli, TransactionWithTheResponseDataOnStandardInput) {
    sim().set_contact_card(load_card("online/online_debit"));
    Child child({"--port", port(), "transaction", "--amount", "2500"}, {}, true);
    // The readable output names field 55; the answer goes back on stdin.
    std::string seen;
    std::string field55;
    const auto end = std::chrono::steady_clock::now() + 10s;
    while (field55.empty() && std::chrono::steady_clock::now() < end) {
        pollfd p{child.from_stdout(), POLLIN, 0};
        if (::poll(&p, 1, 100) <= 0) continue;
        char buf[4096];
        const ssize_t n = ::read(child.from_stdout(), buf, sizeof buf);
        if (n <= 0) break;
        seen.append(buf, static_cast<size_t>(n));
        const auto at = seen.find("field 55: ");
        const auto eol = at == std::string::npos ? at : seen.find('\n', at);
        if (eol != std::string::npos) field55 = seen.substr(at + 10, eol - at - 10);
    }
    ASSERT_FALSE(field55.empty()) << seen;
    const kolt::sim::Authorisation a = kolt::sim::Issuer().authorise(field55);
    ASSERT_TRUE(a.verified) << a.reason;
    const std::string line = a.answer_hex + "\n";
    ASSERT_EQ(::write(child.to_stdin(), line.data(), line.size()), static_cast<ssize_t>(line.size()));
    child.close_stdin();
    std::string rest;
    for (;;) {
        char buf[4096];
        const ssize_t n = ::read(child.from_stdout(), buf, sizeof buf);
        if (n <= 0) break;
        rest.append(buf, static_cast<size_t>(n));
    }
    const Result r = child.wait();
    EXPECT_EQ(r.status, 0) << r << seen << rest;
    EXPECT_TRUE(contains(rest, "outcome: approved")) << rest;
}

// ---------------------------------------------------------------------------
// stripe

const kolt::sim::StripeCard kSwiped{"", ";6299990000001234560=30122201234567890?", ";996299990000001234560=1560?"};

TEST_F(Cli, StripeReadEscapePath) {
    sim().swipe(kSwiped);
    const Result r = kolt({"stripe", "read"});
    EXPECT_EQ(r.status, 0) << r;
    EXPECT_EQ(r.out,
              "track 2: 6299990000001234560=30122201234567890\n"
              "track 3: 996299990000001234560=1560\n");
    sim().swipe(kSwiped);
    const Result j = kolt({"--json", "stripe", "read", "--track", "2"});
    EXPECT_EQ(j.status, 0) << j;
    const Json json(j.out);
    EXPECT_EQ(json.text("path"), "escape");
    EXPECT_EQ(json.text("track2"), "6299990000001234560=30122201234567890");
    EXPECT_EQ(json["track3"], nullptr);
}

TEST_F(Cli, StripeReadFramedPath) {
    sim().swipe(kSwiped);
    const Result r = kolt({"--json", "stripe", "read", "--path", "framed"});
    EXPECT_EQ(r.status, 0) << r;
    const Json json(r.out);
    EXPECT_EQ(json.text("path"), "framed");
    EXPECT_TRUE(contains(json.text("track2"), "6299990000001234560=30122201234567890")) << r;
    EXPECT_TRUE(contains(json.text("track3"), "996299990000001234560=1560")) << r;
    EXPECT_EQ(json.text("track1"), "");
    // Nothing swiped within a second.
    const Result none = kolt({"--timeout", "1", "stripe", "read", "--path", "framed"});
    EXPECT_EQ(none.status, 4) << none;
}

TEST_F(Cli, StripeReadWithoutASwipeTimesOut) {
    const Result r = kolt({"--json", "--timeout", "1", "stripe", "read"});
    expect_json_error(r, 4);
}

TEST_F(Cli, StripeWrite) {
    sim().swipe(kSwiped);
    const Result r = kolt({"stripe", "write", "--track2", "6299990000009999990=30122201234567890"});
    EXPECT_EQ(r.status, 0) << r;
    EXPECT_EQ(r.out, "written: track 2\n");
    ASSERT_TRUE(sim().stripe_card().has_value());
    EXPECT_EQ(sim().stripe_card()->track2, ";6299990000009999990=30122201234567890?");
    // The reader cannot write the card.
    sim().set_stripe_write_fails(true);
    sim().swipe(kSwiped);
    const Result fails = kolt({"--json", "stripe", "write", "--track2", "1234", "--track3", "5678"});
    expect_json_error(fails, 1);
}

TEST_F(Cli, CtrlCCancelsAStripeRead) {
    Child child({"--port", port(), "stripe", "read", "--timeout", "20"});
    ASSERT_TRUE(kolt::test::wait_until([&] { return sim().stripe_waiting(); }, 5000ms));
    std::this_thread::sleep_for(300ms);
    ::kill(child.pid(), SIGINT);
    const Result r = child.wait();
    EXPECT_EQ(r.status, 5) << r;
    EXPECT_TRUE(contains(r.err, "cancelled")) << r;
}

// ---------------------------------------------------------------------------
// idcard

// A working directory with the stand-ins of the two closed libraries.
class Desk {
public:
    Desk() {
        for (const char* lib : {"libwlt.so", "libidpic.so"})
            fs::copy_file(fs::path(KOLT_STANDIN_DIR) / lib, dir_.path() / lib);
    }
    std::string str() const { return dir_.str(); }

private:
    TempDir dir_;
};

TEST_F(Cli, IdCardFieldsInUtf8AndThePhoto) {
    Desk desk;
    const Result r = kolt({"idcard", "--photo-dir", desk.str()});
    EXPECT_EQ(r.status, 0) << r;
    EXPECT_TRUE(contains(r.out, "card type:      resident identity card\n")) << r;
    EXPECT_TRUE(contains(r.out, "name:           张三\n")) << r;
    EXPECT_TRUE(contains(r.out, "sex:            男\n")) << r;
    EXPECT_TRUE(contains(r.out, "number:         110101198001010014\n")) << r;
    EXPECT_TRUE(contains(r.out, "photo:          " + desk.str() + "/zp.bmp\n")) << r;
    EXPECT_TRUE(fs::exists(desk.str() + "/zp.bmp"));

    const Result j = kolt({"--json", "idcard", "--photo-dir", desk.str()});
    EXPECT_EQ(j.status, 0) << j;
    const Json json(j.out);
    EXPECT_EQ(json.text("card_type"), "resident");
    EXPECT_EQ(text_of(json["fields"], "name"), "张三");
    EXPECT_EQ(text_of(json["fields"], "nation"), "汉");
    EXPECT_EQ(text_of(json["fields"], "birth"), "19800101");
    EXPECT_EQ(json.text("photo"), desk.str() + "/zp.bmp");
}

TEST_F(Cli, IdCardAsTheLibraryGaveItOnAnotherLocale) {
    Desk desk;
    const Result r = kolt({"idcard", "--photo-dir", desk.str()}, {{"LC_ALL", "C"}});
    EXPECT_EQ(r.status, 0) << r;
    EXPECT_TRUE(contains(r.out, "name:           \xD5\xC5\xC8\xFD\n")) << r;  // GBK
    // JSON is UTF-8 whatever the locale.
    const Result j = kolt({"--json", "idcard", "--photo-dir", desk.str()}, {{"LC_ALL", "C"}});
    EXPECT_EQ(text_of(Json(j.out)["fields"], "name"), "张三") << j;
}

TEST_F(Cli, IdCardPermitAndForeignCard) {
    Desk desk;
    sim().set_id_card(kolt::sim::load_id_card((source_dir() / "sim" / "cards" / "idcard" / "permit.json").string()));
    const Result permit = kolt({"--json", "idcard", "--photo-dir", desk.str()});
    EXPECT_EQ(permit.status, 0) << permit;
    const Json pj(permit.out);
    EXPECT_EQ(pj.text("card_type"), "permit");
    EXPECT_EQ(text_of(pj["fields"], "pass_number"), "H12345678") << permit;
    EXPECT_EQ(pj.text("front"), desk.str() + "/zfmfront.bmp");
    sim().set_id_card(kolt::sim::load_id_card((source_dir() / "sim" / "cards" / "idcard" / "foreign.json").string()));
    const Result foreign = kolt({"--json", "idcard", "--photo-dir", desk.str()});
    EXPECT_EQ(Json(foreign.out).text("card_type"), "foreign") << foreign;
}

TEST_F(Cli, IdCardFailures) {
    // Without ./libwlt.so in the working directory.
    TempDir empty;
    const Result missing = kolt({"idcard", "--photo-dir", empty.str()});
    EXPECT_EQ(missing.status, 9) << missing;
    EXPECT_TRUE(contains(missing.err, "libwlt.so")) << missing;
    EXPECT_EQ(kolt({"idcard", "--photo-dir", "/nonexistent/dir"}).status, 2);
    // No card within a second.
    Desk desk;
    sim().set_id_card(std::nullopt);
    const Result none = kolt({"--json", "--timeout", "1", "idcard", "--photo-dir", desk.str()});
    expect_json_error(none, 4);
}

// ---------------------------------------------------------------------------
// finger

class CliFramedSensor : public Cli {
protected:
    kolt::sim::Options options() const override {
        kolt::sim::Options o;
        o.profile.finger.type = "framed";
        return o;
    }
};

TEST_F(CliFramedSensor, FingerGivesTheFeatures) {
    sim().place_finger();
    const std::string hex = kolt::test::to_hex(kolt::sim::default_finger_features());
    const Result r = kolt({"finger"});
    EXPECT_EQ(r.status, 0) << r;
    EXPECT_EQ(r.out, "feature length: 256 bytes\nfeatures: " + hex + "\n");
    const Result j = kolt({"--json", "finger"});
    const Json json(j.out);
    EXPECT_EQ(json.number("length"), 256);
    EXPECT_EQ(json.text("features"), hex);
}

TEST_F(CliFramedSensor, NoFingerInTime) {
    expect_json_error(kolt({"--json", "--timeout", "1", "finger"}), 4);
}

TEST_F(Cli, NoFingerprintSensor) {
    const Result r = kolt({"--timeout", "1", "finger"});
    EXPECT_EQ(r.status, 3) << r;
}

// ---------------------------------------------------------------------------
// clerk, against kolt-clerkd

const std::string kEnrolled = "00112233445566778899AABBCCDDEEFF00112233";

// kolt-clerkd on a port of its choice with a data file and a HOME of its own.
class ClerkServer {
public:
    ClerkServer() {
        if (!fs::exists(sim_program("kolt-clerkd"))) return;
        data_ = dir_.write("clerks.json",
                           R"({"clerks":[
 {"bankcode":"0101","clerknum":"1001","password":"111111","mode":2,"feature":")" +
                               kEnrolled + R"("},
 {"bankcode":"0101","clerknum":"1005","password":"555555","mode":1,"feature":")" +
                               kolt::test::to_hex(kolt::sim::default_finger_features()) + R"("}
]})");
        int out[2];
        if (::pipe(out) != 0) return;
        std::vector<std::string> a = {sim_program("kolt-clerkd"), "--data", data_, "--quiet"};
        std::vector<char*> argv;
        for (auto& s : a) argv.push_back(s.data());
        argv.push_back(nullptr);
        pid_ = ::fork();
        if (pid_ == 0) {
            ::dup2(out[1], 1);
            ::execv(argv[0], argv.data());
            ::_exit(127);
        }
        ::close(out[1]);
        const std::string line = kolt::test::read_line(out[0]);
        ::close(out[0]);
        const auto colon = line.rfind(':');
        if (line.rfind("kolt-clerkd listening on 127.0.0.1:", 0) == 0) port_ = std::stoi(line.substr(colon + 1));
        dir_.write("home/librun/koltt41fp.cfg",
                   "serverip=127.0.0.1\nserverport=" + std::to_string(port_) + "\nlogdir=" + dir_.str() + "\n");
    }
    ~ClerkServer() {
        if (pid_ > 0) {
            ::kill(pid_, SIGTERM);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    bool running() const { return port_ > 0; }
    std::string home() const { return dir_.str() + "/home"; }
    std::string data() const { return kolt::test::read_file(data_); }

private:
    TempDir dir_;
    std::string data_;
    pid_t pid_ = -1;
    int port_ = 0;
};

TEST_F(CliFramedSensor, ClerkCommands) {
    ClerkServer server;
    if (!fs::exists(sim_program("kolt-clerkd"))) GTEST_SKIP() << "kolt-clerkd not built";
    ASSERT_TRUE(server.running());
    const Env home{{"HOME", server.home()}};

    const Result mode = run({"clerk", "mode", "--bank", "0101", "--clerk", "1001"}, home);
    EXPECT_EQ(mode.status, 0) << mode;
    EXPECT_EQ(mode.out, "clerk 1001 of bank 0101: verification mode 2\n");
    const Result jmode = run({"--json", "clerk", "mode", "--bank", "0101", "--clerk", "1005"}, home);
    EXPECT_EQ(Json(jmode.out).number("mode"), 1) << jmode;
    // An unknown clerk: the server's 90.
    const Result unknown = run({"--json", "clerk", "mode", "--bank", "0101", "--clerk", "9999"}, home);
    expect_json_error(unknown, 1);
    EXPECT_EQ(number_of(Json(unknown.out)["error"], "library_result"), 90);

    const Result pw = run({"clerk", "password", "--bank", "0101", "--clerk", "1001", "--new", "654321"}, home);
    EXPECT_EQ(pw.status, 0) << pw;
    EXPECT_EQ(pw.out, "clerk 1001 of bank 0101: password changed\n");
    EXPECT_TRUE(contains(server.data(), "\"654321\""));
    EXPECT_EQ(run({"clerk", "password", "--bank", "0101", "--clerk", "1001", "--new", ""}, home).status, 1);

    // The fingerprint check with the simulated sensor's finger.
    sim().place_finger();
    const Result verify = kolt({"clerk", "verify", "--bank", "0101", "--clerk", "1005"}, home);
    EXPECT_EQ(verify.status, 0) << verify;
    EXPECT_EQ(verify.out, "clerk 1005 of bank 0101: fingerprint verified\npassword: 555555\n");
    const Result jverify = kolt({"--json", "clerk", "verify", "--bank", "0101", "--clerk", "1005"}, home);
    EXPECT_EQ(Json(jverify.out).text("password"), "555555") << jverify;
    // Another clerk's finger.
    const Result other = kolt({"clerk", "verify", "--bank", "0101", "--clerk", "1001"}, home);
    EXPECT_EQ(other.status, 1) << other;
    // No finger on the sensor.
    sim().lift_finger();
    const Result none = kolt({"--timeout", "1", "clerk", "verify", "--bank", "0101", "--clerk", "1005"}, home);
    EXPECT_EQ(none.status, 4) << none;
}

TEST_F(Cli, ClerkServerMissingOrUnreachable) {
    TempDir home;
    const Result no_settings = run({"clerk", "mode", "--bank", "0101", "--clerk", "1001"}, {{"HOME", home.str()}});
    EXPECT_EQ(no_settings.status, 9) << no_settings;
    EXPECT_TRUE(contains(no_settings.err, "koltt41fp.cfg")) << no_settings;
    // Port 1 of the loopback: nobody listens.
    home.write("librun/koltt41fp.cfg", "serverip=127.0.0.1\nserverport=1\n");
    const Result refused =
        run({"--json", "clerk", "password", "--bank", "0101", "--clerk", "1001", "--new", "1"}, {{"HOME", home.str()}});
    expect_json_error(refused, 6);
}

// ---------------------------------------------------------------------------
// selftest

TEST_F(Cli, SelftestBeepsAndLightsEveryLed) {
    const Result r = kolt({"selftest"});
    EXPECT_EQ(r.status, 0) << r;
    const auto l = lines(r.out);
    ASSERT_EQ(l.size(), 14u) << r;
    EXPECT_EQ(l[0], "beep                       ok");
    EXPECT_EQ(l[1], "LED ic green               ok");
    EXPECT_EQ(l[12], "LED fingerprint yellow     ok");
    EXPECT_EQ(l[13], "all LEDs off               ok");
    EXPECT_EQ(sim().buzzer_count(), 1);
    for (const auto& [led, state] : sim().leds()) EXPECT_EQ(state.mode, 0) << "LED " << int(led);
    // Every LED was lit in every colour.
    int lit = 0;
    for (const auto& c : sim().transcript())
        if (c.cls == 0x31 && c.code == 0x14 && c.data.size() >= 3 && c.data[2] == 1) ++lit;
    EXPECT_EQ(lit, 12);

    const Result j = kolt({"--json", "selftest"});
    const Json json(j.out);
    EXPECT_EQ(cJSON_GetArraySize(json["steps"]), 14) << j;
    EXPECT_EQ(json.number("result"), 0);
}

// ---------------------------------------------------------------------------
// The manual page covers every command and every exit code of the tool.

// Names listed under "Subcommands:" in a help text.
std::vector<std::string> subcommands(const std::string& help) {
    std::vector<std::string> names;
    bool in = false;
    for (const std::string& l : lines(help)) {
        if (l == "Subcommands:") {
            in = true;
            continue;
        }
        if (!in) continue;
        if (l.empty() || l[0] != ' ') break;
        std::istringstream words(l);
        std::string name;
        words >> name;
        names.push_back(name);
    }
    return names;
}

TEST(CliManual, MentionsEveryCommandAndExitCode) {
    if (!fs::exists(kolt_program())) GTEST_SKIP() << "kolt not built";
    const std::string man = kolt::test::read_file((source_dir() / "tools" / "kolt.1").string());
    ASSERT_FALSE(man.empty());
    const Result help = run({"--help"});
    const std::vector<std::string> commands = subcommands(help.out);
    ASSERT_GE(commands.size(), 10u) << help;
    std::set<std::string> sections;
    for (const std::string& l : lines(man))
        if (l.rfind(".SS ", 0) == 0) sections.insert(l.substr(4));
    for (const std::string& cmd : commands) {
        const std::vector<std::string> subs = subcommands(run({cmd, "--help"}).out);
        if (subs.empty()) {
            EXPECT_EQ(sections.count(cmd), 1u) << "no section for " << cmd;
        }
        for (const std::string& sub : subs) EXPECT_EQ(sections.count(cmd + " " + sub), 1u) << "no section for " << cmd << " " << sub;
    }
    // Exit codes: those the help lists, each in the manual's EXIT STATUS.
    const auto from = man.find(".SH EXIT STATUS");
    ASSERT_NE(from, std::string::npos);
    const std::string exit_status = man.substr(from, man.find(".SH ", from + 4) - from);
    const std::regex code_line(R"(^  (\d+)  \S.*$)");
    int codes = 0;
    bool in = false;
    for (const std::string& l : lines(help.out)) {
        if (l == "Exit codes:") in = true;
        std::smatch m;
        if (in && std::regex_match(l, m, code_line)) {
            ++codes;
            EXPECT_TRUE(contains(exit_status, ".TP\n.B " + m[1].str() + "\n")) << "exit code " << m[1];
        }
    }
    EXPECT_GE(codes, 10);
}

}  // namespace
