// Month-stamped trace files. Every line is written by opening the file,
// appending and closing it again, so a crash never loses what was logged.
#include "support/log.hpp"

#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string_view>

#include "kolt/kolt.h"
#include "support/config.hpp"
#include "support/file.hpp"
#include "support/keyvalue.hpp"

namespace kolt::log {
namespace {

// g_nWriteDebugLog: 0 = no log lines at all.
int g_write_debug_log = 0;
// g_szLogPath: 255 bytes in the device wrapper's layout; longer settings are cut.
constexpr size_t kLogPathMax = 254;
std::string g_log_path;

// Files above this size move to their ".bak" name before the next line.
constexpr long kRotateSize = 0xA00000;

// A moment in local time through a strftime format.
std::string local_time(std::time_t when, const char* format) {
    std::tm tm{};
    localtime_r(&when, &tm);
    char buf[64] = {0};
    std::strftime(buf, sizeof buf, format, &tm);
    return buf;
}


void write_to_dir(const std::string& dir, const char* format, const void* data, int len) {
    ::mkdir(dir.c_str(), 0775);  // an existing directory is no error
    const std::string path = file_in(dir);
    write_entry(path.c_str(), format, data, len);
}

int read_int(const void* data) {
    int value = 0;
    if (data != nullptr) std::memcpy(&value, data, sizeof value);
    return value;
}

}  // namespace

void reset() {
    g_write_debug_log = 0;
    g_log_path.clear();
}

std::string now_as(const char* format) { return local_time(std::time(nullptr), format); }

int switch_value() { return g_write_debug_log; }
void set_switch(int value) { g_write_debug_log = value; }

std::string debug_dir() { return g_log_path; }
void set_debug_dir(const std::string& dir) { g_log_path = dir.substr(0, kLogPathMax); }

std::string file_in(const std::string& dir) { return dir + "/" + "koltIccheck" + now_as("%Y%m") + ".log"; }

std::string exe_dir(const char* link) {
    char buf[256] = {0};
    const ssize_t n = ::readlink(link, buf, sizeof buf);
    if (n < 0 || n >= static_cast<ssize_t>(sizeof buf)) {
        // Without its own location the process cannot place its logs; it
        // stops here rather than write them somewhere unexpected.
        std::printf("***Error***");
        std::exit(-1);
    }
    std::string path(buf, static_cast<size_t>(n));
    const auto slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
}

// The executable directory already ends in "/", so the path carries a
// doubled slash; the file system ignores it.
std::string error_dir() { return exe_dir() + "/" + "KTLog"; }

std::string shell_quote(const std::string& text) {
    bool plain = !text.empty();
    for (const char c : text) {
        const bool ok = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                        c == '/' || c == '.' || c == '_' || c == '+' || c == '-';
        if (!ok) {
            plain = false;
            break;
        }
    }
    if (plain) return text;
    std::string out = "'";
    for (const char c : text) {
        if (c == '\'') out += "'\\''";
        else out += c;
    }
    out += "'";
    return out;
}

std::string delete_command(const std::string& dir) {
    // The glob "/*" stays outside the quotes so that the shell expands it
    // inside the quoted directory and nowhere else.
    return "find " + shell_quote(dir) + "/* -exec rm -rf {} \\;";
}

std::string timestamp() {
    struct timeval tv {};
    ::gettimeofday(&tv, nullptr);
    const std::string date = local_time(tv.tv_sec, "%Y-%m-%d %H:%M:%S");
    char out[64] = {0};
    std::snprintf(out, sizeof out, "%s %03ld", date.c_str(), static_cast<long>(tv.tv_usec / 1000));
    return out;
}

void write_entry(const char* path, const char* format, const void* data, int len) {
    if (path == nullptr || format == nullptr) return;
    support::File fp = support::open_file(path, "a+");
    if (!fp) return;

    struct stat st {};
    if (::fstat(::fileno(fp.get()), &st) == 0 && st.st_size > kRotateSize) {
        fp.reset();
        const std::string bak = std::string(path) + "." + "bak";
        std::remove(bak.c_str());
        std::rename(path, bak.c_str());
        fp.reset(std::fopen(path, "a+"));
        if (!fp) return;
    }

    const std::string ts = timestamp();

    // One conversion per format: the text before the first "%" is the
    // prefix; a format without "%" is logged as "%s" of the data.
    const std::string_view fmt(format);
    const auto pct = fmt.find('%');
    const std::string prefix(pct == std::string_view::npos ? std::string_view() : fmt.substr(0, pct));
    const std::string_view conv = pct == std::string_view::npos ? std::string_view("%s") : fmt.substr(pct);
    std::FILE* f = fp.get();

    if (conv == "%s") {
        std::string text;
        if (data == nullptr) {
            text = "(null)";
        } else if (len > 0) {
            const auto* p = static_cast<const char*>(data);
            text.assign(p, ::strnlen(p, static_cast<size_t>(len)));
        } else {
            text = static_cast<const char*>(data);
        }
        std::fprintf(f, "[%s] %s%s\n", ts.c_str(), prefix.c_str(), text.c_str());
    } else if (conv == "%d") {
        std::fprintf(f, "[%s] %s%d\n", ts.c_str(), prefix.c_str(), read_int(data));
    } else if (conv == "%02x") {
        std::fprintf(f, "[%s] %s", ts.c_str(), prefix.c_str());
        const auto* p = static_cast<const uint8_t*>(data);
        for (int i = 0; p != nullptr && i < len; ++i) std::fprintf(f, "%02x ", p[i]);
        std::fprintf(f, "\n");
    } else if (conv == "%x") {
        // The int as lower-case hex, zero-padded to len digits: the same as
        // the run-time format "[%s] %s%0<len>x\n". The width is held to a
        // sane range so that a wild length cannot fill the disk.
        int width = len;
        if (width > 1024) width = 1024;
        if (width < -1024) width = -1024;
        std::fprintf(f, "[%s] %s%0*x\n", ts.c_str(), prefix.c_str(), width,
                     static_cast<unsigned>(read_int(data)));
    } else if (conv == "%c") {
        std::fprintf(f, "[%s] %s", ts.c_str(), prefix.c_str());
        if (data != nullptr && len > 0) std::fwrite(data, 1, static_cast<size_t>(len), f);
        std::fprintf(f, "\n\n");
    }
    // Any other conversion writes nothing.
}

void debug(const char* format, const void* data, int len) {
    if (g_write_debug_log == 0) return;
    write_to_dir(g_log_path, format, data, len);
}

void error(const char* format, const void* data, int len) {
    if (g_write_debug_log == 0) return;
    write_to_dir(error_dir(), format, data, len);
}

}  // namespace kolt::log
