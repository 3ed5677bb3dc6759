// The trace files: line format of the five conversions, the switch, the
// debug and error directories, rotation at 10 MiB and the clean-up command.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>

#include "common/test_util.hpp"
#include "kolt/kolt.h"
#include "support/log.hpp"

namespace fs = std::filesystem;
using kolt::test::read_file;
using kolt::test::TempDir;

namespace {

const std::string kStamp = R"(\[\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2} \d{3}\] )";

std::string month() {
    char ym[8] = {0};
    getNowYearMonth(ym);
    return ym;
}

// Runs a copy of this test program, placed at exe, with the helper test
// below selected and KOLT_LOG_HELPER=mode; returns the exit status and
// leaves standard output in out.
int run_helper_copy(const fs::path& exe, const std::string& mode, std::string& out) {
    const fs::path stdout_file = exe.parent_path().parent_path() / "helper.out";
    const int status = kolt::test::run_copy_of_self(exe, "LogHelper.Run", {{"KOLT_LOG_HELPER", mode}},
                                                    stdout_file.string());
    out = read_file(stdout_file.string());
    return status;
}

}  // namespace

// Not a test of its own: the body of the separate-process checks above.
// Without KOLT_LOG_HELPER it does nothing.
TEST(LogHelper, Run) {
    const char* mode = std::getenv("KOLT_LOG_HELPER");
    if (mode == nullptr) GTEST_SKIP() << "runs only as a helper process";
    const std::string m = mode;
    std::fflush(stdout);
    if (m == "error_on") {
        kolt::log::set_switch(1);
        int v = 7;
        KOLT_errorWriteLogLen("helper error value=%d", &v, 0);
    } else if (m == "error_off") {
        kolt::log::set_switch(0);
        int v = 7;
        KOLT_errorWriteLogLen("helper error value=%d", &v, 0);
    } else if (m == "delete") {
        std::printf("BEGIN\n");
        EXPECT_EQ(DeleteLogFilesOneMonthAgo(), 0);
    } else if (m == "badlink") {
        kolt::log::exe_dir("/nonexistent/kolt/link");
    }
    std::fflush(stdout);
    std::_Exit(0);
}

// Declared first: the debug directory starts empty in a fresh process.
TEST(DebugLog, EmptyDirectoryMeansTheRoot) {
    // Before a debug directory is set the file name is joined to "" with a
    // "/": the root. (Not written here; the switch stays off.)
    EXPECT_EQ(kolt::log::debug_dir(), "");
    EXPECT_EQ(kolt::log::file_in(""), "/koltIccheck" + month() + ".log");
}

// ---- the five conversions --------------------------------------------------

TEST(LogFormat, IntConversion) {
    TempDir dir;
    const auto path = dir.str() + "/t.log";
    int v = 5;
    KOLT_writeLog(path.c_str(), "openCom open flag=%d", &v, 0);
    EXPECT_TRUE(std::regex_match(read_file(path), std::regex(kStamp + "openCom open flag=5\n")));
}

TEST(LogFormat, HexDump) {
    TempDir dir;
    const auto path = dir.str() + "/t.log";
    const uint8_t data[] = {0x02, 0x00, 0x0a};
    KOLT_writeLog(path.c_str(), "writeBufAndRead read tmpBuf=%02x", data, 3);
    const std::string text = read_file(path);
    EXPECT_TRUE(std::regex_match(text, std::regex(kStamp + "writeBufAndRead read tmpBuf=.*\n")));
    const std::string prefix = "writeBufAndRead read tmpBuf=";
    const auto at = text.find(prefix);
    ASSERT_NE(at, std::string::npos);
    EXPECT_EQ(text.substr(at + prefix.size()), "02 00 0a \n");
}

TEST(LogFormat, HexDumpOfNothing) {
    TempDir dir;
    const auto path = dir.str() + "/t.log";
    KOLT_writeLog(path.c_str(), "empty=%02x", nullptr, 0);
    EXPECT_TRUE(std::regex_match(read_file(path), std::regex(kStamp + "empty=\n")));
}

TEST(LogFormat, PaddedHexInt) {
    TempDir dir;
    const auto path = dir.str() + "/t.log";
    int v = 0x1c;
    KOLT_writeLog(path.c_str(), "sw=%x", &v, 4);
    v = 0x9000;
    KOLT_writeLog(path.c_str(), "sw=%x", &v, 2);
    EXPECT_TRUE(std::regex_match(read_file(path), std::regex(kStamp + "sw=001c\n" + kStamp + "sw=9000\n")));
}

TEST(LogFormat, RawBytes) {
    TempDir dir;
    const auto path = dir.str() + "/t.log";
    const char data[] = {'a', 0, 'b', 'c'};
    KOLT_writeLog(path.c_str(), "raw=%c", data, 3);
    const std::string text = read_file(path);
    const auto at = text.find("raw=");
    ASSERT_NE(at, std::string::npos);
    EXPECT_EQ(text.substr(at + 4), std::string("a\0b\n\n", 5));
    EXPECT_TRUE(std::regex_search(text, std::regex("^" + kStamp + "raw=")));
}

TEST(LogFormat, TextWithAndWithoutLength) {
    TempDir dir;
    const auto path = dir.str() + "/t.log";
    KOLT_writeLog(path.c_str(), "name=%s", "abcdef", 3);
    KOLT_writeLog(path.c_str(), "name=%s", "abcdef", 0);
    KOLT_writeLog(path.c_str(), "name=%s", "abcdef", -1);
    EXPECT_TRUE(std::regex_match(read_file(path),
                                 std::regex(kStamp + "name=abc\n" + kStamp + "name=abcdef\n" + kStamp + "name=abcdef\n")));
}

TEST(LogFormat, FormatWithoutPercentLogsTheData) {
    TempDir dir;
    const auto path = dir.str() + "/t.log";
    KOLT_writeLog(path.c_str(), "no conversion here", "payload", 0);
    EXPECT_TRUE(std::regex_match(read_file(path), std::regex(kStamp + "payload\n")));
}

TEST(LogFormat, UnknownConversionWritesNothing) {
    TempDir dir;
    const auto path = dir.str() + "/t.log";
    long v = 5;
    KOLT_writeLog(path.c_str(), "value=%ld", &v, 0);
    KOLT_writeLog(path.c_str(), "value=%d and more", &v, 0);  // exact comparison of the conversion
    EXPECT_EQ(read_file(path), "");
}

TEST(LogFormat, TimestampShape) {
    const std::string ts = kolt::log::timestamp();
    EXPECT_TRUE(std::regex_match(ts, std::regex(R"(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2} \d{3})"))) << ts;
}

TEST(LogFormat, UnopenablePathWritesNothing) {
    TempDir dir;
    KOLT_writeLog((dir.str() + "/no/such/dir/t.log").c_str(), "x=%d", nullptr, 0);
    EXPECT_FALSE(fs::exists(dir.path() / "no"));
}

// ---- rotation ----------------------------------------------------------------

TEST(LogRotation, AboveTenMiBMovesToBak) {
    TempDir dir;
    const auto path = dir.str() + "/big.log";
    {
        std::ofstream f(path, std::ios::binary);
        f << std::string(0xA00000 + 1, 'x');
    }
    dir.write("big.log.bak", "older backup");
    int v = 1;
    KOLT_writeLog(path.c_str(), "after=%d", &v, 0);
    EXPECT_EQ(fs::file_size(path + ".bak"), 0xA00000u + 1);  // the older .bak is replaced
    EXPECT_TRUE(std::regex_match(read_file(path), std::regex(kStamp + "after=1\n")));
}

TEST(LogRotation, ExactlyTenMiBIsNotMoved) {
    TempDir dir;
    const auto path = dir.str() + "/big.log";
    {
        std::ofstream f(path, std::ios::binary);
        f << std::string(0xA00000, 'x');
    }
    int v = 1;
    KOLT_writeLog(path.c_str(), "after=%d", &v, 0);
    EXPECT_FALSE(fs::exists(path + ".bak"));
    EXPECT_GT(fs::file_size(path), 0xA00000u);
}

// ---- switch and directories ----------------------------------------------------

TEST(DebugLog, WritesIntoTheDebugDirectory) {
    TempDir dir;
    const auto logdir = dir.str() + "/log";
    kolt::log::set_debug_dir(logdir);
    kolt::log::set_switch(1);
    int v = 5;
    KOLT_debugWriteLogLen("openCom open flag=%d", &v, 0);
    kolt::log::debug_text("name=%s", "KOLT");
    const auto file = logdir + "/koltIccheck" + month() + ".log";
    EXPECT_TRUE(fs::is_directory(logdir));  // created on the first line
    EXPECT_TRUE(std::regex_match(read_file(file),
                                 std::regex(kStamp + "openCom open flag=5\n" + kStamp + "name=KOLT\n")));
    EXPECT_EQ(fs::status(logdir).permissions() & fs::perms::owner_all, fs::perms::owner_all);
}

TEST(DebugLog, SwitchOffWritesNothingAndCreatesNoDirectory) {
    TempDir dir;
    const auto logdir = dir.str() + "/log";
    kolt::log::set_debug_dir(logdir);
    kolt::log::set_switch(0);
    int v = 5;
    KOLT_debugWriteLogLen("openCom open flag=%d", &v, 0);
    kolt::log::debug_int("x=%d", 1);
    EXPECT_FALSE(fs::exists(logdir));
    EXPECT_EQ(kolt::log::switch_value(), 0);
}

TEST(DebugLog, DirectoryIsHeldTo254Characters) {
    kolt::log::set_debug_dir(std::string(400, 'd'));
    EXPECT_EQ(kolt::log::debug_dir().size(), 254u);
}

TEST(ErrorLog, WritesUnderTheExecutablesKTLog) {
    TempDir dir;
    std::string out;
    ASSERT_EQ(run_helper_copy(dir.path() / "bin" / "log_helper", "error_on", out), 0);
    const auto file = dir.path() / "bin" / "KTLog" / ("koltIccheck" + month() + ".log");
    EXPECT_TRUE(std::regex_match(read_file(file.string()), std::regex(kStamp + "helper error value=7\n")));
}

TEST(ErrorLog, SwitchOffCreatesNoDirectory) {
    TempDir dir;
    std::string out;
    ASSERT_EQ(run_helper_copy(dir.path() / "bin" / "log_helper", "error_off", out), 0);
    EXPECT_FALSE(fs::exists(dir.path() / "bin" / "KTLog"));
}

TEST(ErrorLog, DirectoryHasTheDoubledSlash) {
    const std::string d = kolt::log::exe_dir();
    ASSERT_FALSE(d.empty());
    EXPECT_EQ(d.back(), '/');
    EXPECT_EQ(kolt::log::error_dir(), d + "/KTLog");
    EXPECT_EQ(fs::canonical(d), fs::canonical("/proc/self/exe").parent_path());
}

TEST(ErrorLog, UnreadableExecutableLinkEndsTheProcess) {
    TempDir dir;
    std::string out;
    EXPECT_EQ(run_helper_copy(dir.path() / "bin" / "log_helper", "badlink", out), 255);
    EXPECT_EQ(out.substr(out.size() >= 11 ? out.size() - 11 : 0), "***Error***");
}

// ---- time helpers --------------------------------------------------------------

TEST(LogTime, YearMonthAndCurrentTime) {
    char ym[16];
    std::memset(ym, 'x', sizeof ym);
    EXPECT_EQ(getNowYearMonth(ym), 0);
    EXPECT_TRUE(std::regex_match(std::string(ym), std::regex(R"(\d{6})")));
    char now[32];
    EXPECT_EQ(KOLT_getcurrenttime(now), 0);
    EXPECT_TRUE(std::regex_match(std::string(now), std::regex(R"(\d{14})")));
    EXPECT_EQ(std::string(now).substr(0, 6).size(), 6u);
}

TEST(LogTime, TickCountIsMonotonicMilliseconds) {
    const uint32_t a = GetTickCount();
    ::usleep(20000);
    const uint32_t b = GetTickCount();
    EXPECT_GE(static_cast<uint32_t>(b - a), 19u);
    struct timespec ts {};
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    const uint32_t ref = static_cast<uint32_t>(static_cast<uint64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000);
    EXPECT_LE(static_cast<uint32_t>(ref - b), 60000u);  // same clock, same unit
}

// ---- log clean-up ----------------------------------------------------------------

TEST(DeleteLogs, RemovesEverythingInKTLogOnly) {
    TempDir dir;
    const auto bin = dir.path() / "bin";
    fs::create_directories(bin / "KTLog" / "sub");
    std::ofstream(bin / "KTLog" / "koltIccheck202401.log") << "old";
    std::ofstream(bin / "KTLog" / "sub" / "b.log") << "old";
    fs::create_directories(bin / "KTLogOther");
    std::ofstream(bin / "KTLogOther" / "keep.log") << "keep";
    std::ofstream(bin / "keep.txt") << "keep";
    std::string out;
    ASSERT_EQ(run_helper_copy(bin / "log_helper", "delete", out), 0);
    EXPECT_TRUE(fs::is_directory(bin / "KTLog"));
    EXPECT_TRUE(fs::is_empty(bin / "KTLog"));
    EXPECT_TRUE(fs::exists(bin / "KTLogOther" / "keep.log"));
    EXPECT_TRUE(fs::exists(bin / "keep.txt"));
    const std::string expected =
        "Record: find " + (bin / "KTLog").string() + "/* -exec rm -rf {} \\;.\n";
    EXPECT_NE(out.find("BEGIN\n" + expected), std::string::npos) << out;
}

TEST(DeleteLogs, PathWithBlankAndQuoteStaysInside) {
    TempDir dir;
    // Unquoted, "x y'z/KTLog/*" would name "<tmp>/x" and a bad quote; a
    // decoy directory "x" must survive.
    const auto bin = dir.path() / "x y'z";
    fs::create_directories(bin / "KTLog");
    std::ofstream(bin / "KTLog" / "a.log") << "old";
    fs::create_directories(dir.path() / "x");
    std::ofstream(dir.path() / "x" / "decoy") << "keep";
    std::ofstream(bin / "keep.txt") << "keep";
    std::string out;
    ASSERT_EQ(run_helper_copy(bin / "log_helper", "delete", out), 0);
    EXPECT_TRUE(fs::is_empty(bin / "KTLog"));
    EXPECT_TRUE(fs::exists(dir.path() / "x" / "decoy"));
    EXPECT_TRUE(fs::exists(bin / "keep.txt"));
    EXPECT_TRUE(fs::exists(bin / "log_helper"));
}

TEST(DeleteLogs, QuotingHelper) {
    EXPECT_EQ(kolt::log::shell_quote("/opt/app/KTLog"), "/opt/app/KTLog");
    EXPECT_EQ(kolt::log::shell_quote("/a b/it's"), "'/a b/it'\\''s'");
    EXPECT_EQ(kolt::log::shell_quote("/x/*"), "'/x/*'");
    EXPECT_EQ(kolt::log::shell_quote(""), "''");
    EXPECT_EQ(kolt::log::delete_command("/opt/app/KTLog"), "find /opt/app/KTLog/* -exec rm -rf {} \\;");
    EXPECT_EQ(kolt::log::delete_command("/a b/it's/KTLog"), "find '/a b/it'\\''s/KTLog'/* -exec rm -rf {} \\;");
}

// ---- KOLT_InitLogDir -------------------------------------------------------------

TEST(InitLogDir, ReadsLogdirUnderHome) {
    TempDir home;
    home.write("librun/koltt41fp.cfg", "serverip=10.0.0.1\nlogdir=/var/log/clerk\nserverport=9000\n");
    kolt::test::ScopedEnv env("HOME", home.str());
    char out[256] = "junk";
    EXPECT_EQ(KOLT_InitLogDir(out), 0);
    EXPECT_STREQ(out, "/var/log/clerk");
}

TEST(InitLogDir, MissingKeyOrFileGivesTmp) {
    TempDir home;
    kolt::test::ScopedEnv env("HOME", home.str());
    char out[256] = "junk";
    EXPECT_EQ(KOLT_InitLogDir(out), 0);
    EXPECT_STREQ(out, "/tmp");
    home.write("librun/koltt41fp.cfg", "serverip=10.0.0.1\n");
    std::strcpy(out, "junk");
    EXPECT_EQ(KOLT_InitLogDir(out), 0);
    EXPECT_STREQ(out, "/tmp");
}
