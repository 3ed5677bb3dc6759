// Exported C entry points.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <memory>
#include <unistd.h>

#include "kolt/kolt.h"
#include "support/capi_util.hpp"
#include "support/config.hpp"
#include "support/file.hpp"

namespace {
// The value GetIniKeyString hands out; the next call overwrites it.
char g_ini_value[1024];
}  // namespace

extern "C" {

KOLT_API char* GetIniKeyString(const char* section, const char* key, const char* path) {
    std::string value;
    if (section != nullptr && key != nullptr && path != nullptr) value = kolt::config::ini_string(section, key, path);
    const size_t n = std::min(value.size(), sizeof g_ini_value - 1);
    std::memcpy(g_ini_value, value.data(), n);
    g_ini_value[n] = 0;
    return g_ini_value;
}

KOLT_API int32_t GetIniKeyInt(const char* section, const char* key, const char* path) {
    return std::atoi(GetIniKeyString(section, key, path));
}

// Only its address matters: the loader names the object that holds it.
KOLT_API void funcGetsoPath(void) {}

KOLT_API int32_t getsoPath(char* out) {
    if (out == nullptr) return -1;
    std::string dir = kolt::config::so_dir();
    if (dir.size() > 255) dir = "./";
    std::memcpy(out, dir.c_str(), dir.size() + 1);
    return 0;
}

KOLT_API int32_t GetCurrentPath(char* out, const char* name) {
    if (out == nullptr) return -1;
    char cmdline[257] = {0};
    char proc[64];
    std::snprintf(proc, sizeof proc, "/proc/%d/cmdline", static_cast<int>(::getpid()));
    if (const auto fp = kolt::support::open_file(proc, "r")) {
        const size_t got = std::fread(cmdline, 1, 256, fp.get());
        (void)got;
    }
    // The first argument, cut after its last "/", then the name.
    std::string dir(cmdline);
    const auto slash = dir.rfind('/');
    dir = slash == std::string::npos ? std::string() : dir.substr(0, slash + 1);
    if (name != nullptr) dir += name;
    std::memcpy(out, dir.c_str(), dir.size() + 1);
    return 0;
}

}  // extern "C"
