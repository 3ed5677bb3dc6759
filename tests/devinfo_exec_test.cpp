// DEV_CommCall's log: the switch from "kolt.ini" beside the library and the
// debug log in the "log" directory there. Checked in a copy of this program
// started from a directory of its own (ctest labels these tests self_exec).
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "common/test_util.hpp"
#include "kolt/kolt.h"
#include "support/log.hpp"

namespace {

const char* const kChild = "KOLT_DEVINFO_CHILD";

// In the copy: two refused requests (the device is never opened).
void calls_in_copy() {
    char out[KOLT_DEVINFO_RESPONSE_MAX];
    int32_t len = 0;
    EXPECT_EQ(DEV_CommCall(R"({"FunctionCode":"0002","RequestPort":"1","RequestBaudRate":"9600","RequestTimeOut":"3"})",
                           nullptr, out, &len),
              0);
    EXPECT_EQ(DEV_CommCall(R"({"FunctionCode":"0001","RequestPort":"1"})", nullptr, out, &len), 0);
    EXPECT_EQ(kolt::log::switch_value(), std::atoi(std::getenv(kChild)));
}

std::string debug_log(const kolt::test::TempDir& dir) {
    const auto file = dir.path() / "log" / ("koltIccheck" + kolt::test::log_month() + ".log");
    return std::filesystem::exists(file) ? kolt::test::read_file(file.string()) : std::string();
}

TEST(DevCommCallLog, SwitchFromKoltIniAndLogBesideTheLibrary) {
    if (std::getenv(kChild) != nullptr) return calls_in_copy();
    kolt::test::TempDir dir;
    dir.write("kolt.ini", "[icc]\nlog=1\n");
    ASSERT_EQ(kolt::test::run_copy_of_self(dir.path() / "devinfo_copy",
                                           "DevCommCallLog.SwitchFromKoltIniAndLogBesideTheLibrary", {{kChild, "1"}}),
              0);
    const std::string log = debug_log(dir);
    EXPECT_NE(log.find("DEV_CommCall g_nWriteDebugLog=1"), std::string::npos) << log;
    EXPECT_NE(log.find("DEV_CommCall..............\n"), std::string::npos) << log;
    EXPECT_NE(log.find(R"(DEV_CommCall inJson = {"FunctionCode":"0002","RequestPort":"1",)"), std::string::npos)
        << log;
    EXPECT_NE(log.find("DEV_CommCall FunctionCode or Port Error\n"), std::string::npos) << log;
    EXPECT_NE(log.find("DEV_CommCall Input Param is NULL\n"), std::string::npos) << log;
    EXPECT_EQ(log.find("IC_initCom flag"), std::string::npos) << log;
}

TEST(DevCommCallLog, OffWithoutKoltIni) {
    if (std::getenv(kChild) != nullptr) return calls_in_copy();
    kolt::test::TempDir dir;
    ASSERT_EQ(
        kolt::test::run_copy_of_self(dir.path() / "devinfo_copy", "DevCommCallLog.OffWithoutKoltIni", {{kChild, "0"}}),
        0);
    EXPECT_FALSE(std::filesystem::exists(dir.path() / "log"));
}

}  // namespace
