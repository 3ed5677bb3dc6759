#include "link/deadline.hpp"

#include <poll.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <climits>

namespace kolt::link {
namespace {

long long now_ms(clockid_t clock) {
    timespec ts{};
    clock_gettime(clock, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

bool cancelled(const volatile int32_t* cancel) { return cancel != nullptr && *cancel != 0; }

// One wait slice: the whole remaining time, or kCancelSliceMs when a cancel
// flag has to be looked at.
int slice_ms(const Deadline& deadline, const volatile int32_t* cancel) {
    long long ms = deadline.remaining_ms();
    if (cancel != nullptr) ms = std::min<long long>(ms, kCancelSliceMs);
    return static_cast<int>(std::clamp<long long>(ms, 0, INT_MAX));
}

}  // namespace

long long monotonic_ms() { return now_ms(CLOCK_MONOTONIC); }

Deadline Deadline::after_ms(long long ms) {
    Deadline d;
    d.mono_end_ms_ = monotonic_ms() + std::max(ms, 0LL);
    return d;
}

Deadline Deadline::whole_seconds(int seconds) {
    Deadline d = after_ms(static_cast<long long>(std::max(seconds, 0)) * 1000);
    d.wall_rule_ = true;
    d.seconds_ = std::max(seconds, 0);
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    d.wall_start_s_ = ts.tv_sec;
    return d;
}

long long Deadline::remaining_ms() const {
    const long long mono_left = mono_end_ms_ - monotonic_ms();
    if (!wall_rule_) return std::max(0LL, mono_left);
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    if (ts.tv_sec - wall_start_s_ >= seconds_) return 0;
    const long long wall_left =
        (wall_start_s_ + seconds_) * 1000 - (static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000);
    return std::max(0LL, std::min(wall_left, mono_left));
}

Wake wait_fd(int fd, short events, const Deadline& deadline, const volatile int32_t* cancel) {
    if (fd < 0) return Wake::invalid;
    for (;;) {
        if (cancelled(cancel)) return Wake::cancelled;
        pollfd p{fd, events, 0};
        const int r = ::poll(&p, 1, slice_ms(deadline, cancel));
        if (r < 0) {
            if (errno == EINTR) continue;
            return Wake::invalid;
        }
        if (r > 0) {
            if (p.revents & POLLNVAL) return Wake::invalid;
            if (p.revents & events) return Wake::ready;
            return Wake::hangup;  // POLLHUP or POLLERR without data
        }
        if (deadline.expired()) return Wake::timeout;
    }
}

bool sleep_until(const Deadline& deadline, const volatile int32_t* cancel) {
    while (!deadline.expired()) {
        if (cancelled(cancel)) return false;
        const long long ms = slice_ms(deadline, cancel);
        timespec ts{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000};
        while (nanosleep(&ts, &ts) < 0 && errno == EINTR) {
        }
    }
    return !cancelled(cancel);
}

void sleep_ms(long long ms) { sleep_until(Deadline::after_ms(ms)); }

void pause_us(long long us) {
    if (us <= 0) return;
    us = std::min<long long>(us, kIdleSliceMs * 1000LL);
    timespec ts{static_cast<time_t>(us / 1000000), static_cast<long>(us % 1000000) * 1000};
    while (nanosleep(&ts, &ts) < 0 && errno == EINTR) {
    }
}

}  // namespace kolt::link
