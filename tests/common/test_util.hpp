// Small helpers shared by the tests: temporary directories, environment
// overrides and whole-file reads.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace kolt::test {

// A fresh directory under the system temporary directory, removed with
// everything in it when the object goes out of scope.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::string str() const { return path_.string(); }
    // Writes a file below the directory (creating parent directories) and
    // returns its full path.
    std::string write(const std::string& relative, const std::string& content) const;

private:
    std::filesystem::path path_;
};

// Sets (or unsets, with std::nullopt) an environment variable for the
// lifetime of the object and restores the previous value afterwards.
class ScopedEnv {
public:
    ScopedEnv(std::string name, std::optional<std::string> value);
    ~ScopedEnv();
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    std::string name_;
    std::optional<std::string> old_;
};

std::string read_file(const std::string& path);

// How long wait_until waits by default: far longer than anything the tests
// wait for takes, so that only a real failure runs into it.
inline constexpr std::chrono::milliseconds kWaitDeadline{3000};

// Waits for something another thread, process or the simulator does: asks
// pred every few milliseconds until it holds or the deadline has passed.
// Returns pred's last answer (asked once more at the deadline).
template <class Pred>
bool wait_until(Pred&& pred, std::chrono::milliseconds deadline = kWaitDeadline) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= end) return pred();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

// Runs a copy of the running test program, placed at copy (directories made,
// an older copy replaced), with only the test named by filter (its full
// name, Suite.Name) selected and the variables of env set; its standard
// output goes to stdout_file when one is given. Tests use it for what must
// happen in a process of its own beside files of its own (the executable's
// KTLog, a kolt.ini beside the program). Returns the exit status, -1 when
// the copy did not exit normally, or -2 when it never started that test (a
// filter that selects nothing would otherwise pass for a clean run). Test
// programs that call it are named *_exec_test.cpp (see tests/CMakeLists.txt).
int run_copy_of_self(const std::filesystem::path& copy, const std::string& filter,
                     const std::vector<std::pair<std::string, std::string>>& env,
                     const std::string& stdout_file = {});

// The variable that names the file in which a test program started by
// run_copy_of_self notes the name of every test it starts (test_main.cpp).
inline constexpr const char* kStartedTestsFileVar = "KOLT_TEST_STARTED_FILE";

// The timestamp that begins every log line, as a regular expression.
inline const std::string kLogStamp = R"(\[\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2} \d{3}\] )";
// The current year and month as the log file names carry them (YYYYMM).
std::string log_month();

// GBK bytes of UTF-8 text, by the C library's converter (iconv).
std::string gbk(const std::string& utf8);

// The ESC byte, as escape sequences are spelled in the tests.
inline const std::string kEsc = "\x1b";

// The terminal section of type 51 in the teller terminal's command file,
// port 1: text values with "\033" and hex values beginning "1B".
inline const std::string kTerm51Section =
    "[TERM_51_KOLT510QX]\n"
    "OPEN_COM1=\\033[/50h\n"
    "CLOSE_COM1=\\033[/50l\n"
    "LOCK_KEY=1B5B3268\n"
    "UNLOCK_KEY=1B5B326C\n"
    "CMD_BEGIN=\\033[/51h\n"
    "CMD_END=\\033[/51l\n";

// Switches the library's debug log on, into a temporary directory, for the
// lifetime of the object; text() is everything logged so far.
class DebugLogCapture {
public:
    DebugLogCapture();
    ~DebugLogCapture();
    DebugLogCapture(const DebugLogCapture&) = delete;
    DebugLogCapture& operator=(const DebugLogCapture&) = delete;

    std::string text() const;
    const TempDir& dir() const { return dir_; }

private:
    TempDir dir_;
};

// A working directory of its own holding the photo library's stand-in (the
// identity-card read loads ./libwlt.so and writes zp.bmp there), the
// working directory for the lifetime of the object.
class StandinDir {
public:
    StandinDir();
    ~StandinDir();
    StandinDir(const StandinDir&) = delete;
    StandinDir& operator=(const StandinDir&) = delete;
    const std::filesystem::path& path() const { return dir_.path(); }

private:
    TempDir dir_;
    std::filesystem::path saved_;
};

std::vector<uint8_t> bytes(std::initializer_list<int> values);

// One line of a child program's output on fd (without its newline), waiting
// at most 3 s for it.
std::string read_line(int fd);
std::vector<uint8_t> from_hex(const std::string& hex);  // blanks ignored
std::string to_hex(const uint8_t* data, size_t n);       // upper case, no blanks
inline std::string to_hex(const std::vector<uint8_t>& v) { return to_hex(v.data(), v.size()); }

}  // namespace kolt::test
