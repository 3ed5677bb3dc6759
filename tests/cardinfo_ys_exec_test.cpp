// The log switch of IC_GetInfo comes from "kolt.ini" beside the library:
// checked in a copy of this program, started from a directory of its own
// (ctest labels these tests self_exec).
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "common/test_util.hpp"
#include "kolt/kolt.h"
#include "support/log.hpp"

namespace {

// Each test runs a copy of this program from a directory of its own (the
// library is linked into it, so its directory is the program's), with or
// without a kolt.ini there; the copy makes the call and checks the switch.

const char* const kChildExpect = "KOLT_CARDINFO_EXPECT_SWITCH";
const char* const kChildLogDir = "KOLT_CARDINFO_LOG_DIR";

int run_copy_of_self(const kolt::test::TempDir& dir, const std::string& filter, const std::string& expect) {
    return kolt::test::run_copy_of_self(dir.path() / "cardinfo_copy", filter,
                                        {{kChildExpect, expect}, {kChildLogDir, (dir.path() / "log").string()}});
}

// In the copy: IC_GetInfo sets the switch before it opens the port.
void check_switch_in_copy() {
    const int expect = std::atoi(std::getenv(kChildExpect));
    kolt::log::set_debug_dir(std::getenv(kChildLogDir));
    kolt::log::set_switch(9);
    int32_t ic_type = 1;
    int32_t len = 0;
    char out[64] = {0};
    EXPECT_EQ(IC_GetInfo("kolt-no-such-device", 0, 0, 0, &ic_type, "", "A", &len, out), -3);
    EXPECT_EQ(kolt::log::switch_value(), expect);
}

TEST(IcGetInfoLogSwitch, ReadFromKoltIniBesideTheLibrary) {
    if (std::getenv(kChildExpect) != nullptr) return check_switch_in_copy();
    kolt::test::TempDir dir;
    dir.write("kolt.ini", "[icc]\nlog=4\n");
    EXPECT_EQ(run_copy_of_self(dir, "IcGetInfoLogSwitch.ReadFromKoltIniBesideTheLibrary", "4"), 0);
    // With the switch on, the call's own trace went to the debug log.
    bool logged = false;
    for (const auto& f : std::filesystem::directory_iterator(dir.path() / "log")) {
        if (kolt::test::read_file(f.path().string()).find("ID_GetInfo g_nWriteDebugLog=4") != std::string::npos)
            logged = true;
    }
    EXPECT_TRUE(logged);
}

TEST(IcGetInfoLogSwitch, OffWithoutKoltIni) {
    if (std::getenv(kChildExpect) != nullptr) return check_switch_in_copy();
    kolt::test::TempDir dir;
    EXPECT_EQ(run_copy_of_self(dir, "IcGetInfoLogSwitch.OffWithoutKoltIni", "0"), 0);
    EXPECT_FALSE(std::filesystem::exists(dir.path() / "log"));
}

}  // namespace
