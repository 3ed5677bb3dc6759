// The trace files, where a process of their own is needed: the error log
// below the executable's directory, a process that cannot find its own
// executable, and the clean-up of the KTLog directory. Each test runs a copy
// of this program (placed in a directory of its own) with the helper test
// LogHelper.Run selected; ctest labels these tests self_exec.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
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

// Not a test of its own: the body of the separate-process checks below.
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

TEST(ErrorLog, WritesUnderTheExecutablesKTLog) {
    TempDir dir;
    std::string out;
    ASSERT_EQ(run_helper_copy(dir.path() / "bin" / "log_helper", "error_on", out), 0);
    const auto file = dir.path() / "bin" / "KTLog" / ("koltIccheck" + log_month() + ".log");
    EXPECT_TRUE(std::regex_match(read_file(file.string()), std::regex(kLogStamp + "helper error value=7\n")));
}

TEST(ErrorLog, SwitchOffCreatesNoDirectory) {
    TempDir dir;
    std::string out;
    ASSERT_EQ(run_helper_copy(dir.path() / "bin" / "log_helper", "error_off", out), 0);
    EXPECT_FALSE(fs::exists(dir.path() / "bin" / "KTLog"));
}

TEST(ErrorLog, UnreadableExecutableLinkEndsTheProcess) {
    TempDir dir;
    std::string out;
    EXPECT_EQ(run_helper_copy(dir.path() / "bin" / "log_helper", "badlink", out), 255);
    EXPECT_EQ(out.substr(out.size() >= 11 ? out.size() - 11 : 0), "***Error***");
}

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
