// Timed read and write primitives of the device link.
#include "link/io.hpp"

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstring>

#include "kolt/kolt.h"
#include "link/deadline.hpp"
#include "link/link_state.hpp"

namespace kolt::link {
namespace {

// Waits until fd is readable or ms pass; the poll events (a single look,
// for the pauses before a reply's body and the buffer clearing).
short wait_readable(int fd, long long ms) {
    // A signal cuts the wait short: what is left of it follows, not all of it
    // again (a caller's periodic timer would otherwise keep it going).
    const Deadline deadline = Deadline::after_ms(ms);
    pollfd p{fd, POLLIN, 0};
    int r;
    do {
        r = ::poll(&p, 1, static_cast<int>(std::clamp<long long>(deadline.remaining_ms(), 0, INT_MAX)));
    } while (r < 0 && errno == EINTR);
    return r > 0 ? p.revents : 0;
}

// A line that reports readiness but yields nothing (its other end has gone)
// is looked at again after a pause, never in a busy loop.
void idle(const Deadline& deadline) {
    sleep_until(Deadline::after_ms(std::min<long long>(deadline.remaining_ms(), kIdleSliceMs)));
}

// Writes on a descriptor that may be blocking (the terminal's own line in
// auxiliary mode) must not block: the descriptor is switched to
// non-blocking for the duration of the write and restored afterwards.
class NonBlocking {
public:
    explicit NonBlocking(int fd) : fd_(fd) {
        flags_ = ::fcntl(fd, F_GETFL);
        if (flags_ >= 0 && !(flags_ & O_NONBLOCK)) {
            changed_ = ::fcntl(fd, F_SETFL, flags_ | O_NONBLOCK) == 0;
        }
    }
    ~NonBlocking() {
        if (changed_) ::fcntl(fd_, F_SETFL, flags_);
    }
    NonBlocking(const NonBlocking&) = delete;
    NonBlocking& operator=(const NonBlocking&) = delete;

private:
    int fd_;
    int flags_ = -1;
    bool changed_ = false;
};

// On a terminal line, a read of a known count asks the line discipline to
// report the line readable only once the bytes still missing (at most 255)
// are there (VMIN), so that a reply crossing a slow line wakes the reader
// once or twice instead of once a byte. The setting the read found is
// restored when it ends; other descriptors are left alone.
class MinChars {
public:
    explicit MinChars(int fd) : fd_(fd) {
        tty_ = ::tcgetattr(fd, &attr_) == 0;
        saved_ = attr_.c_cc[VMIN];
        current_ = saved_;
    }
    ~MinChars() { set(saved_); }
    MinChars(const MinChars&) = delete;
    MinChars& operator=(const MinChars&) = delete;

    void want(std::size_t missing) { set(static_cast<cc_t>(std::min<std::size_t>(missing, 255))); }
    // Back to the setting found: a last read then takes what is there.
    void restore() { set(saved_); }

private:
    void set(cc_t v) {
        if (!tty_ || v == current_) return;
        attr_.c_cc[VMIN] = v;
        if (::tcsetattr(fd_, TCSANOW, &attr_) == 0) current_ = v;
    }

    int fd_;
    bool tty_ = false;
    termios attr_{};
    cc_t saved_ = 0;
    cc_t current_ = 0;
};

enum class Stop { none, first_above_3f };

// What else ends a read besides a full buffer and the time: a tail that the
// buffer's content (from its start) ends with, and a caller's cancel flag.
struct ReadEnd {
    std::span<const uint8_t> tail;
    const volatile int32_t* cancel = nullptr;
};

bool ends_with(std::span<const uint8_t> bytes, std::span<const uint8_t> tail) {
    return !tail.empty() && bytes.size() >= tail.size() &&
           std::equal(tail.begin(), tail.end(), bytes.end() - static_cast<std::ptrdiff_t>(tail.size()));
}

// The common read loop of the rcv_buf family: reads into buf from `have`
// on; the count read.
int read_loop(int fd, std::span<uint8_t> buf, std::size_t have, int timeout_s, Stop stop, const ReadEnd& end = {}) {
    if (have >= buf.size() || fd < 0) return 0;
    const Deadline deadline = Deadline::whole_seconds(timeout_s);
    std::size_t got = have;
    bool first = true;
    // Only a read that ends at its count alone may wait for the whole rest.
    const bool counted = stop == Stop::none && end.tail.empty();
    MinChars min_chars(counted ? fd : -1);
    bool timed_out = false;
    while (got < buf.size()) {
        if (!first && deadline.expired()) {
            timed_out = true;
            break;
        }
        first = false;
        min_chars.want(buf.size() - got);
        const Wake wake = wait_fd(fd, POLLIN, deadline, end.cancel);
        if (wake == Wake::invalid || wake == Wake::cancelled) break;
        if (wake == Wake::timeout) continue;
        if (wake == Wake::hangup) {
            if (!sleep_until(Deadline::after_ms(std::min<long long>(kIdleSliceMs, deadline.remaining_ms())),
                             end.cancel))
                break;
            continue;
        }
        const ssize_t n = ::read(fd, buf.data() + got, buf.size() - got);
        if (n > 0) {
            if (stop == Stop::first_above_3f) {
                for (std::size_t i = got; i < got + static_cast<std::size_t>(n); ++i) {
                    if (buf[i] > 0x3F) return static_cast<int>(i + 1);
                }
            }
            got += static_cast<std::size_t>(n);
            if (ends_with(buf.first(got), end.tail)) break;
            continue;
        }
        if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (n < 0 && errno == EBADF) break;
        idle(deadline);  // readable but nothing to read: the line hung up
    }
    if (timed_out && got < buf.size()) {
        // Bytes that came in time but fewer than the count asked: the
        // line discipline held them back from poll; they count all the same.
        min_chars.restore();
        const ssize_t n = ::read(fd, buf.data() + got, buf.size() - got);
        if (n > 0) got += static_cast<std::size_t>(n);
    }
    return static_cast<int>(got - have);
}

// Reads single bytes until one of the heads arrives; true when it did.
bool find_head(int fd, uint8_t& found, uint8_t head_a, uint8_t head_b, int timeout_s) {
    if (fd < 0) return false;
    const Deadline deadline = Deadline::whole_seconds(timeout_s);
    bool first = true;
    for (;;) {
        if (!first && deadline.expired()) return false;
        first = false;
        const Wake wake = wait_fd(fd, POLLIN, deadline);
        if (wake == Wake::invalid) return false;
        if (wake == Wake::timeout) continue;
        if (wake == Wake::hangup) {
            idle(deadline);
            continue;
        }
        uint8_t c = 0;
        const ssize_t n = ::read(fd, &c, 1);
        if (n == 1) {
            if (c == head_a || c == head_b) {
                found = c;
                return true;
            }
            continue;
        }
        if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (n < 0 && errno == EBADF) return false;
        idle(deadline);
    }
}

}  // namespace

long pacing_us(long missing) {
    if (missing < 0) missing = 0;
    long long us = static_cast<long long>(missing) * 8 * 1000000 / ibaud;
    us = std::min<long long>(us, 1000000);
    us = std::max<long long>(us, 2000);
    return static_cast<long>(us / 2);
}

int write_buf(int fd, std::span<const uint8_t> buf, int timeout_s) {
    if (buf.empty() || fd < 0) return 0;
    NonBlocking nb(fd);
    const Deadline deadline = Deadline::whole_seconds(timeout_s);
    std::size_t done = 0;
    for (;;) {
        const ssize_t n = ::write(fd, buf.data() + done, buf.size() - done);
        if (n > 0) done += static_cast<std::size_t>(n);
        if (done >= buf.size()) break;
        if (n < 0 && errno != EAGAIN && errno != EINTR) break;
        if (deadline.expired()) break;
        // After a partial write wait (at most 200 ms) for room on the line.
        if (wait_fd(fd, POLLOUT, Deadline::after_ms(std::min<long long>(200, deadline.remaining_ms()))) ==
            Wake::hangup)
            break;
    }
    return static_cast<int>(done);
}

int rcv_buf(int fd, std::span<uint8_t> buf, int timeout_s) { return read_loop(fd, buf, 0, timeout_s, Stop::none); }

int rcv_buf_until(int fd, std::span<uint8_t> buf, std::size_t have, int timeout_s, std::span<const uint8_t> tail,
                  const volatile int32_t* cancel) {
    return read_loop(fd, buf, have, timeout_s, Stop::none, ReadEnd{tail, cancel});
}

int rcv_buf_100s(int fd, std::span<uint8_t> buf, int timeout_s) {
    return read_loop(fd, buf, 0, timeout_s, Stop::first_above_3f);
}

int rcv_from_head(int fd, std::span<uint8_t> buf, uint8_t head, int timeout_s) {
    if (buf.empty()) return 0;
    uint8_t found = 0;
    if (!find_head(fd, found, head, head, timeout_s)) return -1;
    buf[0] = found;
    return 1 + rcv_buf(fd, buf.subspan(1), timeout_s);
}

int rcv_from_2heads(int fd, std::span<uint8_t> buf, uint8_t head_a, uint8_t head_b, int timeout_s) {
    if (buf.empty()) return 0;
    uint8_t found = 0;
    if (!find_head(fd, found, head_a, head_b, timeout_s)) return -1;
    buf[0] = found;
    return 1 + rcv_buf(fd, buf.subspan(1), timeout_s);
}

int clear_com_buf(int fd) {
    if (fd < 0) return 0;
    const long long start = monotonic_ms();
    uint8_t scratch[255];
    long long wait = 0;  // the first read takes only what is there
    for (;;) {
        const short ev = wait_readable(fd, wait);
        if (!(ev & (POLLIN | POLLHUP | POLLERR))) return 0;
        const ssize_t n = ::read(fd, scratch, sizeof scratch);
        if (n <= 0) return 0;
        if (monotonic_ms() - start > 5000) return -1;
        wait = 200;  // data came: look again within 200 ms
    }
}

int select_fd(int fd, int mode, double seconds) {
    if (std::isnan(seconds) || seconds <= -1.0) return -1;
    if (fd < 0) return -1;
    const double whole = std::min(std::trunc(seconds), 1.0e9);
    timespec ts{static_cast<time_t>(whole), 0};
    pollfd p{fd, 0, 0};
    if (mode & 1) p.events |= POLLIN;
    if (mode & 2) p.events |= POLLOUT;
    if (p.events == 0) {
        while (nanosleep(&ts, &ts) < 0 && errno == EINTR) {
        }
        return 0;
    }
    const int r = ::ppoll(&p, 1, &ts, nullptr);
    if (r <= 0) return r;
    if (p.revents & POLLNVAL) return -1;
    int ready = 0;
    // A hang-up or error makes the descriptor count as readable, as select does.
    if ((mode & 1) && (p.revents & (POLLIN | POLLHUP | POLLERR))) ++ready;
    if ((mode & 2) && (p.revents & (POLLOUT | POLLERR))) ++ready;
    return ready;
}

int write_wrapped(std::span<const uint8_t> block, int timeout_s) {
    return write_wrapped_fd(state().fd, block, timeout_s);
}

int write_wrapped_fd(int fd, std::span<const uint8_t> block, int timeout_s) {
    LinkState& s = state();
    const std::string_view lead = seq_text(s.aux_lead);
    const std::string_view end = seq_text(s.aux_end);
    write_buf(fd, std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(lead.data()), lead.size()), 2);
    const int n = write_buf(fd, block, timeout_s);
    write_buf(fd, std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(end.data()), end.size()), 2);
    return n;
}

void wait_for_data(int fd, long long ms) {
    if (fd < 0 || ms <= 0) return;
    wait_readable(fd, ms);
}

void write_text(std::string_view text) {
    if (text.empty()) return;
    write_buf(state().fd,
              std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(text.data()), text.size()), 2);
}

}  // namespace kolt::link
