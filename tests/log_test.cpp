// The trace files: line format of the five conversions, the switch, the
// debug and error directories, rotation at 10 MiB and the clean-up command.
// (What needs a process of its own is in log_exec_test.cpp.)
#include <gtest/gtest.h>
#include <unistd.h>

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
using kolt::test::kLogStamp;
using kolt::test::log_month;
using kolt::test::read_file;
using kolt::test::TempDir;

namespace {

}  // namespace

// The debug directory starts empty in a fresh process (and after every
// test: the reset between tests puts it back).
TEST(DebugLog, EmptyDirectoryMeansTheRoot) {
    // Before a debug directory is set the file name is joined to "" with a
    // "/": the root. (Not written here; the switch stays off.)
    EXPECT_EQ(kolt::log::debug_dir(), "");
    EXPECT_EQ(kolt::log::file_in(""), "/koltIccheck" + log_month() + ".log");
}

// ---- the five conversions --------------------------------------------------

TEST(LogFormat, IntConversion) {
    TempDir dir;
    const auto path = dir.str() + "/t.log";
    int v = 5;
    KOLT_writeLog(path.c_str(), "openCom open flag=%d", &v, 0);
    EXPECT_TRUE(std::regex_match(read_file(path), std::regex(kLogStamp + "openCom open flag=5\n")));
}

TEST(LogFormat, HexDump) {
    TempDir dir;
    const auto path = dir.str() + "/t.log";
    const uint8_t data[] = {0x02, 0x00, 0x0a};
    KOLT_writeLog(path.c_str(), "writeBufAndRead read tmpBuf=%02x", data, 3);
    const std::string text = read_file(path);
    EXPECT_TRUE(std::regex_match(text, std::regex(kLogStamp + "writeBufAndRead read tmpBuf=.*\n")));
    const std::string prefix = "writeBufAndRead read tmpBuf=";
    const auto at = text.find(prefix);
    ASSERT_NE(at, std::string::npos);
    EXPECT_EQ(text.substr(at + prefix.size()), "02 00 0a \n");
}

TEST(LogFormat, HexDumpOfNothing) {
    TempDir dir;
    const auto path = dir.str() + "/t.log";
    KOLT_writeLog(path.c_str(), "empty=%02x", nullptr, 0);
    EXPECT_TRUE(std::regex_match(read_file(path), std::regex(kLogStamp + "empty=\n")));
}

TEST(LogFormat, PaddedHexInt) {
    TempDir dir;
    const auto path = dir.str() + "/t.log";
    int v = 0x1c;
    KOLT_writeLog(path.c_str(), "sw=%x", &v, 4);
    v = 0x9000;
    KOLT_writeLog(path.c_str(), "sw=%x", &v, 2);
    EXPECT_TRUE(std::regex_match(read_file(path), std::regex(kLogStamp + "sw=001c\n" + kLogStamp + "sw=9000\n")));
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
    EXPECT_TRUE(std::regex_search(text, std::regex("^" + kLogStamp + "raw=")));
}

TEST(LogFormat, TextWithAndWithoutLength) {
    TempDir dir;
    const auto path = dir.str() + "/t.log";
    KOLT_writeLog(path.c_str(), "name=%s", "abcdef", 3);
    KOLT_writeLog(path.c_str(), "name=%s", "abcdef", 0);
    KOLT_writeLog(path.c_str(), "name=%s", "abcdef", -1);
    EXPECT_TRUE(std::regex_match(read_file(path),
                                 std::regex(kLogStamp + "name=abc\n" + kLogStamp + "name=abcdef\n" + kLogStamp + "name=abcdef\n")));
}

TEST(LogFormat, FormatWithoutPercentLogsTheData) {
    TempDir dir;
    const auto path = dir.str() + "/t.log";
    KOLT_writeLog(path.c_str(), "no conversion here", "payload", 0);
    EXPECT_TRUE(std::regex_match(read_file(path), std::regex(kLogStamp + "payload\n")));
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
    EXPECT_TRUE(std::regex_match(read_file(path), std::regex(kLogStamp + "after=1\n")));
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
    const auto file = logdir + "/koltIccheck" + log_month() + ".log";
    EXPECT_TRUE(fs::is_directory(logdir));  // created on the first line
    EXPECT_TRUE(std::regex_match(read_file(file),
                                 std::regex(kLogStamp + "openCom open flag=5\n" + kLogStamp + "name=KOLT\n")));
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

TEST(ErrorLog, DirectoryHasTheDoubledSlash) {
    const std::string d = kolt::log::exe_dir();
    ASSERT_FALSE(d.empty());
    EXPECT_EQ(d.back(), '/');
    EXPECT_EQ(kolt::log::error_dir(), d + "/KTLog");
    EXPECT_EQ(fs::canonical(d), fs::canonical("/proc/self/exe").parent_path());
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
