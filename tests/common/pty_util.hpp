// Raw pseudo-terminal helpers for tests that play the far end of the link
// themselves, byte by byte, without the simulator.
#pragma once

#include <termios.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>

namespace kolt::test {

using Clock = std::chrono::steady_clock;

// Milliseconds since t.
long long ms_since(Clock::time_point t);

// Milliseconds that f takes.
template <class F>
long long elapsed_ms(F&& f) {
    const auto start = Clock::now();
    f();
    return ms_since(start);
}

// Bytes waiting to be read on a descriptor (FIONREAD; a terminal in
// canonical mode counts complete lines only), -1 on error.
int pending_input(int fd);

// The library's time-outs count whole seconds of the wall clock, so a
// one-second time-out begun late in a second ends almost at once. Before a
// call with such a time-out that must succeed, this waits (at most 300 ms)
// until the current second has at least 300 ms left.
void away_from_second_boundary();

// A pseudo-terminal pair. The slave side is the link end the library uses;
// the test reads and writes the master side.
class Pty {
public:
    enum class Mode {
        Raw,       // slave in raw mode, reads return at once (VMIN = VTIME = 0)
        Terminal,  // slave keeps the default terminal settings until the library changes them
    };
    explicit Pty(Mode mode = Mode::Raw);
    ~Pty();
    Pty(const Pty&) = delete;
    Pty& operator=(const Pty&) = delete;

    int master() const { return master_; }
    int slave() const { return slave_; }
    const std::string& path() const { return path_; }  // e.g. "/dev/pts/4"
    std::string name() const { return path_.substr(5); }  // below "/dev/", for gPortName

    // Writes s to the master side (the far end sends).
    void send(const std::string& s) const;
    // Everything that arrives on the master side within ms.
    std::string take(int ms = 150) const;
    // The current settings of the slave side.
    termios attrs() const;

private:
    int master_ = -1;
    int slave_ = -1;
    std::string path_;
};

// Puts the file at path in place of descriptor 0 (the process's own
// terminal line) for the lifetime of the object.
class ScopedStdin {
public:
    explicit ScopedStdin(const std::string& path);
    ~ScopedStdin();
    ScopedStdin(const ScopedStdin&) = delete;
    ScopedStdin& operator=(const ScopedStdin&) = delete;

    // Whether descriptor 0 still refers to the same file as fd.
    static bool same_file(int fd);

private:
    int saved_ = -1;
};

// The far end in a thread of its own: collects what the library sends on
// the master side until `done` says the command is complete (or 5 seconds
// have passed), waits delay_ms, then sends `reply` (nothing when empty).
class FarEnd {
public:
    using Done = std::function<bool(const std::string&)>;
    FarEnd(const Pty& pty, Done done, std::string reply, int delay_ms = 0);
    ~FarEnd();
    FarEnd(const FarEnd&) = delete;
    FarEnd& operator=(const FarEnd&) = delete;

    void join();
    // What the far end received (after it has finished).
    const std::string& received();

private:
    std::string received_;
    std::thread thread_;
};

// Ready-made completion tests for FarEnd.
FarEnd::Done ends_with(char c);
FarEnd::Done at_least(size_t n);
FarEnd::Done holds(std::string text);

}  // namespace kolt::test
