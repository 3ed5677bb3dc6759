// INI reading with its kept rules, the library's own directory and the
// executable's directory as invoked.
#include <dlfcn.h>
#include <errno.h>
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <string>

#include "common/test_util.hpp"
#include "kolt/kolt.h"
#include "support/config.hpp"

namespace fs = std::filesystem;
using kolt::test::TempDir;

namespace {

std::string ini(const TempDir& dir, const std::string& content, const char* section, const char* key) {
    const auto path = dir.write("kolt.ini", content);
    return GetIniKeyString(section, key, path.c_str());
}

struct DlCloser {
    void operator()(void* h) const { ::dlclose(h); }
};

}  // namespace

TEST(Ini, SectionAndKey) {
    TempDir dir;
    EXPECT_EQ(ini(dir, "[icc]\nlog=1\n", "icc", "log"), "1");
    const auto path = dir.str() + "/kolt.ini";
    EXPECT_EQ(GetIniKeyInt("icc", "log", path.c_str()), 1);
}

TEST(Ini, LastLineWithoutLineFeedIsNeverRead) {
    TempDir dir;
    const auto path = dir.write("kolt.ini", "[icc]\nlog=1");
    EXPECT_STREQ(GetIniKeyString("icc", "log", path.c_str()), "");
    EXPECT_EQ(GetIniKeyInt("icc", "log", path.c_str()), 0);
}

TEST(Ini, MissingFileGivesEmptyAndZero) {
    TempDir dir;
    const auto path = dir.str() + "/none.ini";
    EXPECT_STREQ(GetIniKeyString("icc", "log", path.c_str()), "");
    EXPECT_EQ(GetIniKeyInt("icc", "log", path.c_str()), 0);
}

TEST(Ini, MissingSectionOrKey) {
    TempDir dir;
    EXPECT_EQ(ini(dir, "[other]\nlog=1\n", "icc", "log"), "");
    EXPECT_EQ(ini(dir, "[icc]\ndebug=1\n", "icc", "log"), "");
    EXPECT_EQ(ini(dir, "log=1\n[icc]\n", "icc", "log"), "");  // before the section
}

TEST(Ini, ValueIsNotTrimmed) {
    TempDir dir;
    EXPECT_EQ(ini(dir, "[icc]\nlog = 1\n", "icc", "log"), " 1");
    EXPECT_EQ(GetIniKeyInt("icc", "log", (dir.str() + "/kolt.ini").c_str()), 1);
}

TEST(Ini, KeyIsASubstring) {
    TempDir dir;
    EXPECT_EQ(ini(dir, "[icc]\ncatalog=1\nlog=2\n", "icc", "log"), "1");
    // Anywhere in the line, the value part included.
    EXPECT_EQ(ini(dir, "[icc]\nlevel=changelog\n", "icc", "log"), "changelog");
}

TEST(Ini, SectionLastsToTheEndOfTheFile) {
    TempDir dir;
    EXPECT_EQ(ini(dir, "[icc]\nport=1\n[other]\nlog=1\n", "icc", "log"), "1");
}

TEST(Ini, HeaderIsAPrefixAndCaseSensitive) {
    TempDir dir;
    EXPECT_EQ(ini(dir, "[icc] ; reader\nlog=3\n", "icc", "log"), "3");
    EXPECT_EQ(ini(dir, "[ICC]\nlog=3\n", "icc", "log"), "");
    EXPECT_EQ(ini(dir, " [icc]\nlog=3\n", "icc", "log"), "");
}

TEST(Ini, Comments) {
    TempDir dir;
    EXPECT_EQ(ini(dir, "[icc]\n# log=1\nlog=2\n", "icc", "log"), "2");
    EXPECT_EQ(ini(dir, "[icc]\n//log=1\nlog=2\n", "icc", "log"), "2");
    EXPECT_EQ(ini(dir, "[icc]\n/log=1\nlog=2\n", "icc", "log"), "1");
}

TEST(Ini, CarriageReturnStaysInTheValue) {
    TempDir dir;
    EXPECT_EQ(ini(dir, "[icc]\r\nlog=1\r\n", "icc", "log"), "1\r");
    EXPECT_EQ(GetIniKeyInt("icc", "log", (dir.str() + "/kolt.ini").c_str()), 1);
}

TEST(Ini, ValueAfterTheFirstEqualsSign) {
    TempDir dir;
    EXPECT_EQ(ini(dir, "[log]\ndebug=a=b\n", "log", "debug"), "a=b");
}

TEST(Ini, SharedBufferIsOverwritten) {
    TempDir dir;
    const auto path = dir.write("kolt.ini", "[icc]\nlog=1\nport=22\n");
    const char* first = GetIniKeyString("icc", "log", path.c_str());
    const char* second = GetIniKeyString("icc", "port", path.c_str());
    EXPECT_EQ(first, second);
    EXPECT_STREQ(first, "22");
}

TEST(Ini, LongLinesAndValuesStayBounded) {
    TempDir dir;
    const std::string content = "[icc]\nlog=" + std::string(3000, '7') + "\n";
    const std::string v = ini(dir, content, "icc", "log");
    EXPECT_EQ(v.size(), 1023u - 4u);  // a line holds at most 1023 characters
    EXPECT_EQ(v, std::string(1019, '7'));
}

TEST(Ini, CppApi) {
    TempDir dir;
    const auto path = dir.write("param.ini", "[log]\ndebug=9\n");
    EXPECT_EQ(kolt::config::ini_string("log", "debug", path), "9");
    EXPECT_EQ(kolt::config::ini_int("log", "debug", path), 9);
}

TEST(SoPath, TestProgramDirectoryEndsInSlash) {
    char out[256] = {0};
    EXPECT_EQ(getsoPath(out), 0);
    const std::string dir = out;
    ASSERT_FALSE(dir.empty());
    EXPECT_EQ(dir.back(), '/');
    EXPECT_EQ(kolt::config::kolt_ini_path(), dir + "kolt.ini");
    funcGetsoPath();  // only its address matters
}

TEST(SoPath, SharedLibraryFindsItsOwnDirectory) {
    // The shared object of the build sits one directory above the tests.
    const fs::path lib = fs::canonical("/proc/self/exe").parent_path().parent_path() / "libkolt.so";
    ASSERT_TRUE(fs::exists(lib)) << lib;
    std::unique_ptr<void, DlCloser> handle(::dlopen(lib.c_str(), RTLD_NOW | RTLD_LOCAL));
    ASSERT_NE(handle, nullptr) << ::dlerror();
    using Fn = int32_t (*)(char*);
    auto fn = reinterpret_cast<Fn>(::dlsym(handle.get(), "getsoPath"));
    ASSERT_NE(fn, nullptr);
    char out[256] = {0};
    EXPECT_EQ(fn(out), 0);
    const std::string dir = out;
    ASSERT_FALSE(dir.empty());
    EXPECT_EQ(dir.back(), '/');
    EXPECT_EQ(fs::canonical(dir), lib.parent_path());
}

TEST(CurrentPath, DirectoryAsInvokedPlusName) {
    char out[600] = {0};
    EXPECT_EQ(GetCurrentPath(out, "zp.bmp"), 0);
    std::string invoked = program_invocation_name;
    const auto slash = invoked.rfind('/');
    const std::string expected = (slash == std::string::npos ? "" : invoked.substr(0, slash + 1)) + "zp.bmp";
    EXPECT_EQ(std::string(out), expected);
}

TEST(HomeConfig, PathUnderHome) {
    kolt::test::ScopedEnv env("HOME", "/home/teller");
    EXPECT_EQ(kolt::config::home_config_path(), "/home/teller/librun/koltt41fp.cfg");
}
