#include "support/config.hpp"

#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "kolt/kolt.h"
#include "support/file.hpp"

namespace kolt::config {

namespace {

// Lines shorter than 1024 characters.
constexpr size_t kLineMax = 1023;

bool starts_with(const std::string& s, const std::string& prefix) { return s.compare(0, prefix.size(), prefix) == 0; }

}  // namespace

std::string ini_string(const std::string& section, const std::string& key, const std::string& path) {
    const support::File fp = support::open_file(path.c_str(), "r");
    if (!fp) return {};
    const std::string header = "[" + section + "]";
    bool in_section = false;
    std::string line;
    int c;
    while ((c = std::fgetc(fp.get())) != EOF) {
        if (c != '\n') {
            if (line.size() < kLineMax) line += static_cast<char>(c);
            continue;
        }
        // A complete line (the carriage return of a CRLF file stays in it).
        // A last line without a line feed never gets here.
        if (!in_section) {
            if (starts_with(line, header)) in_section = true;
        } else if (line.find('=') != std::string::npos) {
            const bool comment = starts_with(line, "#") || starts_with(line, "//");
            if (!comment && line.find(key) != std::string::npos) return line.substr(line.find('=') + 1);
        }
        // Once in the section the reader stays there to the end of the file,
        // so a line without "=" (another header) changes nothing.
        line.clear();
    }
    return {};
}

int ini_int(const std::string& section, const std::string& key, const std::string& path) {
    return std::atoi(ini_string(section, key, path).c_str());
}

std::string so_dir() {
    Dl_info info{};
    if (::dladdr(reinterpret_cast<void*>(&funcGetsoPath), &info) == 0 || info.dli_fname == nullptr) return "./";
    const std::string file = info.dli_fname;
    const auto slash = file.rfind('/');
    if (slash == std::string::npos) return "./";
    return file.substr(0, slash + 1);
}

std::string home_config_path() {
    const char* home = std::getenv("HOME");
    return std::string(home == nullptr ? "" : home) + "/librun/koltt41fp.cfg";
}

std::string kolt_ini_path() { return so_dir() + "kolt.ini"; }

}  // namespace kolt::config

// ---------------------------------------------------------------------------
// C interface

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
