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
    if (::dladdr(reinterpret_cast<void*>(&so_dir), &info) == 0 || info.dli_fname == nullptr) return "./";
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
