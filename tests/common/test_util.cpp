#include "common/test_util.hpp"

#include <iconv.h>

#include "kolt/kolt.h"

#include "support/log.hpp"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kolt::test {

TempDir::TempDir() {
    std::string templ = (std::filesystem::temp_directory_path() / "kolt-test-XXXXXX").string();
    if (::mkdtemp(templ.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = templ;
}

TempDir::~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

std::string TempDir::write(const std::string& relative, const std::string& content) const {
    const auto full = path_ / relative;
    std::filesystem::create_directories(full.parent_path());
    std::ofstream out(full, std::ios::binary | std::ios::trunc);
    out << content;
    return full.string();
}

ScopedEnv::ScopedEnv(std::string name, std::optional<std::string> value) : name_(std::move(name)) {
    if (const char* old = std::getenv(name_.c_str())) old_ = old;
    if (value) ::setenv(name_.c_str(), value->c_str(), 1);
    else ::unsetenv(name_.c_str());
}

ScopedEnv::~ScopedEnv() {
    if (old_) ::setenv(name_.c_str(), old_->c_str(), 1);
    else ::unsetenv(name_.c_str());
}

std::string log_month() {
    char ym[8] = {0};
    getNowYearMonth(ym);
    return ym;
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

DebugLogCapture::DebugLogCapture() {
    kolt::log::set_debug_dir(dir_.str());
    kolt::log::set_switch(1);
}

DebugLogCapture::~DebugLogCapture() {
    kolt::log::set_switch(0);
    kolt::log::set_debug_dir("");
}

std::string DebugLogCapture::text() const {
    std::string all;
    for (const auto& e : std::filesystem::directory_iterator(dir_.path())) all += read_file(e.path().string());
    return all;
}

int run_copy_of_self(const std::filesystem::path& copy, const std::string& filter,
                     const std::vector<std::pair<std::string, std::string>>& env,
                     const std::string& stdout_file) {
    std::filesystem::create_directories(copy.parent_path());
    // Read to the end rather than copied by its stated size: under qemu-user
    // a stat of /proc/self/exe describes the emulator, not the program.
    {
        std::ifstream in("/proc/self/exe", std::ios::binary);
        std::ofstream out(copy, std::ios::binary | std::ios::trunc);
        out << in.rdbuf();
        if (!in || !out) return -1;
    }
    std::filesystem::permissions(copy, std::filesystem::perms::owner_all, std::filesystem::perm_options::add);
    const std::string filter_arg = "--gtest_filter=" + filter;
    const std::string started_file = copy.string() + ".started";
    std::error_code ec;
    std::filesystem::remove(started_file, ec);
    const pid_t pid = ::fork();
    if (pid < 0) return -1;
    if (pid == 0) {
        if (!stdout_file.empty() && std::freopen(stdout_file.c_str(), "w", stdout) == nullptr) ::_exit(100);
        for (const auto& [name, value] : env) ::setenv(name.c_str(), value.c_str(), 1);
        ::setenv(kStartedTestsFileVar, started_file.c_str(), 1);
        ::execl(copy.c_str(), copy.c_str(), filter_arg.c_str(), "--gtest_brief=1", static_cast<char*>(nullptr));
        ::_exit(127);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    if (!WIFEXITED(status)) return -1;
    if (read_file(started_file).find(filter + "\n") == std::string::npos) return -2;
    return WEXITSTATUS(status);
}

StandinDir::StandinDir() : saved_(std::filesystem::current_path()) {
    std::filesystem::copy_file(std::filesystem::path(KOLT_STANDIN_DIR) / "libwlt.so", dir_.path() / "libwlt.so");
    std::filesystem::current_path(dir_.path());
}

StandinDir::~StandinDir() {
    std::error_code ec;
    std::filesystem::current_path(saved_, ec);
}

std::vector<uint8_t> bytes(std::initializer_list<int> values) {
    std::vector<uint8_t> out;
    for (int v : values) out.push_back(static_cast<uint8_t>(v));
    return out;
}

std::vector<uint8_t> from_hex(const std::string& hex) {
    std::vector<uint8_t> out;
    std::string digits;
    for (char c : hex)
        if (c != ' ') digits += c;
    for (size_t i = 0; i + 1 < digits.size(); i += 2)
        out.push_back(static_cast<uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
    return out;
}

std::string to_hex(const uint8_t* data, size_t n) {
    std::string out;
    char b[3];
    for (size_t i = 0; i < n; ++i) {
        std::snprintf(b, sizeof b, "%02X", data[i]);
        out += b;
    }
    return out;
}

std::string read_line(int fd) {
    std::string s;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    while (std::chrono::steady_clock::now() < end) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, 100) <= 0) continue;
        char ch = 0;
        if (::read(fd, &ch, 1) != 1 || ch == '\n') break;
        s.push_back(ch);
    }
    return s;
}

std::string gbk(const std::string& utf8) {
    iconv_t cd = iconv_open("GBK", "UTF-8");
    if (cd == reinterpret_cast<iconv_t>(-1)) throw std::runtime_error("no GBK converter");
    std::string in = utf8;
    std::vector<char> out(in.size() * 2 + 8);
    char* src = in.data();
    size_t left = in.size();
    char* dst = out.data();
    size_t room = out.size();
    iconv(cd, &src, &left, &dst, &room);
    iconv_close(cd);
    return std::string(out.data(), out.size() - room);
}

}  // namespace kolt::test
