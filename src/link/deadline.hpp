// The one way the library waits: a deadline on the monotonic clock and a
// wait on a descriptor (or on nothing) that sleeps until data comes, the
// deadline passes or the caller's cancel flag is set. Nothing here spins:
// a line whose other end has gone (hang-up, error, end of file) is waited
// out in sleeps of at most kIdleSliceMs, not in a busy loop.
#pragma once

#include <cstdint>

namespace kolt::link {

// Longest sleep between two looks at a line that cannot signal readiness
// (hung up).
inline constexpr int kIdleSliceMs = 100;
// Longest wait between two looks at a caller's cancel flag: a cancel ends a
// waiting call well within 100 ms, what teller applications allow for.
inline constexpr int kCancelSliceMs = 50;

class Deadline {
public:
    // Ends ms milliseconds from now (monotonic; a negative ms is now).
    static Deadline after_ms(long long ms);
    // The device time-out rule: whole seconds on the wall clock's seconds
    // field. A wait of s seconds ends when the seconds field has advanced by
    // s, so it lasts between s - 1 and s seconds; a monotonic bound of s
    // seconds keeps a clock step from stretching it.
    static Deadline whole_seconds(int seconds);

    bool expired() const { return remaining_ms() <= 0; }
    // Milliseconds left, rounded so that a wait never ends early.
    long long remaining_ms() const;

private:
    Deadline() = default;
    long long mono_end_ms_ = 0;
    bool wall_rule_ = false;
    long long wall_start_s_ = 0;
    int seconds_ = 0;
};

// What ended a wait.
enum class Wake {
    ready,      // the descriptor has what was asked for
    timeout,    // the deadline passed
    hangup,     // the line has gone (hang-up or error); the caller decides
    cancelled,  // *cancel became non-zero
    invalid,    // the descriptor is not open
};

// Waits until fd is ready for events (POLLIN, POLLOUT) or the deadline
// passes; with a cancel flag, notices it within kCancelSliceMs. Retries
// interrupted waits.
Wake wait_fd(int fd, short events, const Deadline& deadline, const volatile int32_t* cancel = nullptr);

// Sleeps until the deadline (or the cancel flag is set, looked at every
// kCancelSliceMs). False when cancelled.
bool sleep_until(const Deadline& deadline, const volatile int32_t* cancel = nullptr);

// Sleeps ms milliseconds.
void sleep_ms(long long ms);

// A pause shorter than a millisecond between two polls of a device (the
// fingerprint sensors' 500 us); at most kIdleSliceMs.
void pause_us(long long us);

// Milliseconds on the monotonic clock.
long long monotonic_ms();

}  // namespace kolt::link
