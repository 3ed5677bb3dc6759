// The clerk requests end to end against kolt-clerkd (the server of the
// simulator, which parses with libxml2 and keeps its clerks in a JSON
// file). (It starts a program of the build: ctest labels these tests
// self_exec.)
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "clerk/clerk.hpp"
#include "common/clerk_server.hpp"
#include "common/sim_fixture.hpp"
#include "common/test_util.hpp"
#include "kolt/kolt.h"
#include "kolt_sim/simulator.hpp"

namespace {

namespace fs = std::filesystem;
namespace clerk = kolt::clerk;
using namespace std::chrono_literals;
using kolt::test::ScopedEnv;
using kolt::test::TempDir;

const std::string kEnrolled = "00112233445566778899AABBCCDDEEFF00112233";  // 20 bytes

// Clerks: 1001 (mode 2, password 111111, the enrolled feature), 1002 (mode
// 0), 1003 (its answers split), 1004 (never answered), 1005 (enrolled with
// the simulated sensor's built-in finger).
std::string clerk_file() {
    return R"({"clerks":[
 {"bankcode":"0101","clerknum":"1001","password":"111111","mode":2,"feature":")" +
           kEnrolled + R"("},
 {"bankcode":"0101","clerknum":"1002","password":"222222","mode":0,"feature":""},
 {"bankcode":"0101","clerknum":"1003","password":"333333","mode":1,"feature":"","fault":"split"},
 {"bankcode":"0101","clerknum":"1004","password":"444444","mode":1,"feature":"","fault":"silent"},
 {"bankcode":"0101","clerknum":"1005","password":"555555","mode":2,"feature":")" +
           kolt::test::to_hex(kolt::sim::default_finger_features()) + R"("}
]})";
}

// kolt-clerkd with the clerks above.
class Server : public kolt::test::ClerkServer {
public:
    explicit Server(std::vector<std::string> args = {}) : ClerkServer(clerk_file(), std::move(args)) {}
};

#define START_SERVER(name, ...)                                            \
    Server name{__VA_ARGS__};                                              \
    if (!fs::exists(kolt::test::ClerkServer::program())) GTEST_SKIP() << "kolt-clerkd not built";   \
    ASSERT_TRUE(name.running());                                           \
    ScopedEnv home_env("HOME", name.home())

void use_feature(const std::string& hex) {
    clerk::set_feature_source([hex](const clerk::CaptureArgs&) { return clerk::Capture{0, hex}; });
}

TEST(ClerkServer, QueryClerkMode) {
    START_SERVER(server);
    EXPECT_EQ(QueryClerkMode("0101", "1001"), 2);
    EXPECT_EQ(QueryClerkMode("0101", "1002"), 0);
    EXPECT_EQ(QueryClerkMode("0101", "9999"), 90);  // unknown clerk
    EXPECT_NE(server.report().find("request: msgflag=0 bankcode=0101 clerknum=1001"), std::string::npos);
}

TEST(ClerkServer, RefreshPwdChangesTheDataFile) {
    START_SERVER(server);
    EXPECT_NE(server.data().find("\"111111\""), std::string::npos);
    EXPECT_EQ(RefreshPwd("0101", "1001", "654321"), 0);
    const std::string data = server.data();
    EXPECT_NE(data.find("\"654321\""), std::string::npos);
    EXPECT_EQ(data.find("\"111111\""), std::string::npos);
    EXPECT_EQ(RefreshPwd("0101", "1001", ""), 91);  // empty password refused
    EXPECT_EQ(RefreshPwd("0101", "9999", "x"), 90);
    // The new password comes back from a fingerprint check.
    use_feature(kEnrolled);
    char pw[KOLT_CLERK_PASSWORD_MAX] = "";
    EXPECT_EQ(Verify_clerk_finger(0, "", 1, "", 5, "0101", "1001", pw), 0);
    EXPECT_STREQ(pw, "654321");
}

TEST(ClerkServer, VerifyClerkFingerWithTheFeatureSource) {
    START_SERVER(server);
    char pw[KOLT_CLERK_PASSWORD_MAX] = "";
    use_feature(kEnrolled);
    EXPECT_EQ(Verify_clerk_finger(0, "", 1, "", 5, "0101", "1001", pw), 0);
    EXPECT_STREQ(pw, "111111");
    // 17 of 20 bytes equal (85 %): still the clerk.
    use_feature("FF1122334455667788FFAABBCCDDEEFF001122FF");
    EXPECT_EQ(Verify_clerk_finger(0, "", 1, "", 5, "0101", "1001", pw), 0);
    // 15 of 20 (75 %): not the clerk; the answer's password is empty.
    use_feature("FFFFFFFFFF5566778899AABBCCDDEEFF00112233");
    std::strcpy(pw, "junk");
    EXPECT_EQ(Verify_clerk_finger(0, "", 1, "", 5, "0101", "1001", pw), 1);
    EXPECT_STREQ(pw, "");
    EXPECT_NE(server.report().find("fingerprint of 0101/1001: 75% equal"), std::string::npos);
}

TEST(ClerkServer, UnescapedValuesAreReportedByTheParser) {
    START_SERVER(server);
    EXPECT_EQ(QueryClerkMode("01&01", "1001"), 99);
    EXPECT_EQ(RefreshPwd("0101", "1001", "a<b"), 99);
    const std::string report = server.report();
    EXPECT_NE(report.find("request not well-formed"), std::string::npos) << report;
    EXPECT_EQ(server.data().find("a<b"), std::string::npos);
}

TEST(ClerkServer, SplitAnswerIsAccumulated) {
    START_SERVER(server, {"--delay-ms", "100"});
    EXPECT_EQ(QueryClerkMode("0101", "1003"), 1);  // this clerk's answers come in 3 segments
}

TEST(ClerkServer, SplitForEveryone) {
    START_SERVER(server, {"--fault", "split", "--segments", "7", "--delay-ms", "20"});
    use_feature(kEnrolled);
    char pw[KOLT_CLERK_PASSWORD_MAX] = "";
    EXPECT_EQ(Verify_clerk_finger(0, "", 1, "", 5, "0101", "1001", pw), 0);
    EXPECT_STREQ(pw, "111111");
}

TEST(ClerkServer, GarbageAnswer) {
    START_SERVER(server, {"--fault", "garbage"});
    EXPECT_EQ(QueryClerkMode("0101", "1001"), -1);
}

TEST(ClerkServer, AnswerWithoutEndMark) {
    START_SERVER(server, {"--fault", "no-end"});
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(clerk::query_clerk_mode("0101", "1001", 2), -1);
    EXPECT_GE(std::chrono::steady_clock::now() - t0, 1500ms);
}

TEST(ClerkServer, SilentServerShortTimeOut) {
    START_SERVER(server, {"--fault", "silent"});
    EXPECT_EQ(clerk::refresh_pwd("0101", "1001", "x", 1), -1);
}

TEST(ClerkServer, SilentServerGivesMinus1After20Seconds) {
    START_SERVER(server);
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(QueryClerkMode("0101", "1004"), -1);  // this clerk is never answered
    const auto took = std::chrono::steady_clock::now() - t0;
    EXPECT_GE(took, 19s);
    EXPECT_LT(took, 25s);
}

TEST(ClerkServer, ResultElementsMissingOrEmpty) {
    {
        START_SERVER(server, {"--fault", "bare"});
        EXPECT_EQ(QueryClerkMode("0101", "1001"), -3);
        EXPECT_EQ(RefreshPwd("0101", "1001", "x"), -3);
        use_feature(kEnrolled);
        char pw[KOLT_CLERK_PASSWORD_MAX] = "";
        EXPECT_EQ(Verify_clerk_finger(0, "", 1, "", 5, "0101", "1001", pw), -3);
    }
    {
        START_SERVER(server2, {"--fault", "empty-result"});
        EXPECT_EQ(QueryClerkMode("0101", "1001"), -3);
    }
}

TEST(ClerkServer, VerificationWithoutResponse) {
    START_SERVER(server, {"--fault", "no-response"});
    use_feature(kEnrolled);
    char pw[KOLT_CLERK_PASSWORD_MAX] = "";
    EXPECT_EQ(Verify_clerk_finger(0, "", 1, "", 5, "0101", "1001", pw), -7);
}

TEST(ClerkServer, ServerGoneRefusesTheConnection) {
    int port = 0;
    {
        START_SERVER(server);
        port = server.port();
        EXPECT_EQ(QueryClerkMode("0101", "1001"), 2);
    }
    TempDir dir;
    dir.write("librun/koltt41fp.cfg", "serverip=127.0.0.1\nserverport=" + std::to_string(port) + "\n");
    ScopedEnv env("HOME", dir.str());
    EXPECT_EQ(QueryClerkMode("0101", "1001"), -1);
}

}  // namespace

// The whole verification: the simulated sensor (either kind) captures the
// finger, the library sends its features, the server compares them with the
// clerk's enrolled ones and returns the password.
class SensorAndServer : public ::testing::TestWithParam<const char*> {};

TEST_P(SensorAndServer, VerifyClerkFingerEndToEnd) {
    START_SERVER(server);
    kolt::sim::Options o;
    o.profile.finger.type = GetParam();
    kolt::test::ScopedSimulator sim(o);
    sim->place_finger();
    char pw[KOLT_CLERK_PASSWORD_MAX] = {0};
    EXPECT_EQ(Verify_clerk_finger(0, "", 1, "", 5, "0101", "1005", pw), 0) << server.report();
    EXPECT_STREQ(pw, "555555");
    // Another clerk's finger does not match.
    std::memset(pw, 0, sizeof pw);
    sim->place_finger();
    EXPECT_EQ(Verify_clerk_finger(0, "", 1, "", 5, "0101", "1001", pw), 1);
}

INSTANTIATE_TEST_SUITE_P(Sensors, SensorAndServer, ::testing::Values("framed", "ef01"));
