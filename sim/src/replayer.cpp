// The replayer: serves the pseudo-terminal and answers from a recording.
// It gathers the application's bytes until the next exchange's share has
// come, compares them with the recording (?? matching anything), and sends
// the recorded device bytes with the recorded delays, whether they matched
// or not.
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <mutex>
#include <thread>

#include "kolt_sim/session.hpp"
#include "serial_line_internal.hpp"

namespace kolt::sim {

namespace {

using Clock = std::chrono::steady_clock;

void to_stderr(const std::string& line) {
    std::fprintf(stderr, "%s\n", line.c_str());
    std::fflush(stderr);
}

// Where `received` first differs from the pattern (its length when all of
// it matches a shorter or equal part); npos when it matches all of it.
size_t first_difference(const std::vector<uint8_t>& pattern, const std::vector<bool>& any,
                        const std::vector<uint8_t>& received) {
    const size_t n = std::min(pattern.size(), received.size());
    for (size_t i = 0; i < n; ++i) {
        if (!(i < any.size() && any[i]) && pattern[i] != received[i]) return i;
    }
    return received.size() == pattern.size() ? std::string::npos : n;
}

std::string exchange_name(size_t number, size_t line) {
    std::string s = "exchange " + std::to_string(number);
    if (line > 0) s += " (line " + std::to_string(line) + ")";
    return s;
}

}  // namespace

struct Replayer::Impl {
    const std::vector<Exchange> ex;
    ReplayOptions opt;
    Pty pty;
    Fd wake_r, wake_w;

    std::thread thread;
    std::atomic<bool> stopping{false};

    struct Send {
        Clock::time_point due;
        std::vector<uint8_t> bytes;
    };

    mutable std::mutex m;
    mutable std::condition_variable cv;
    // Guarded by m.
    bool running = false;
    bool started = false;
    bool ended = false;  // stop() has settled the accounts
    size_t next = 0;     // the exchange whose application bytes come next
    std::vector<uint8_t> pending;
    std::deque<Send> queue;
    int in_flight = 0;
    std::vector<Difference> diffs;
    size_t unexpected = 0;
    Clock::time_point last_activity{};

    Impl(const Recording& r, ReplayOptions o) : ex(r.exchanges()), opt(std::move(o)) {
        if (!opt.report) opt.report = to_stderr;
        if (!(opt.speed >= 0)) opt.speed = 0;
        pty = open_pty();
        std::tie(wake_r, wake_w) = open_pipe();
    }

    // Under m: queues the device's bytes of exchange e, timed from `base`.
    void schedule(const Exchange& e, Clock::time_point base) {
        Clock::time_point after = queue.empty() ? base : queue.back().due;
        for (const auto& piece : e.reply) {
            const auto delay = std::chrono::duration_cast<Clock::duration>(
                std::chrono::duration<double, std::milli>(piece.delay_ms * opt.speed));
            after = std::max(after, base + delay);
            queue.push_back({after, piece.bytes});
        }
    }

    // Under m.
    void report_difference(const Difference& d, const std::string& what) {
        opt.report("replay: " + exchange_name(d.exchange, d.line) + ": " + what);
        opt.report("replay:   recorded: " + hex_pattern(d.recorded, d.recorded_any));
        opt.report("replay:   received: " + hex_pattern(d.received));
    }

    // Under m: what the application sent, as it came.
    void on_bytes(const uint8_t* p, size_t n, Clock::time_point now) {
        last_activity = now;
        if (next >= ex.size()) {
            unexpected_bytes(std::vector<uint8_t>(p, p + n));
            return;
        }
        pending.insert(pending.end(), p, p + n);
        while (next < ex.size() && pending.size() >= ex[next].app.size()) {
            const Exchange& e = ex[next];
            std::vector<uint8_t> got(pending.begin(), pending.begin() + static_cast<long>(e.app.size()));
            pending.erase(pending.begin(), pending.begin() + static_cast<long>(e.app.size()));
            const size_t at = first_difference(e.app, e.app_any, got);
            if (at != std::string::npos) {
                Difference d{e.number, e.line, at, e.app, e.app_any, std::move(got)};
                report_difference(d, "difference at offset " + std::to_string(at));
                diffs.push_back(std::move(d));
            }
            if (opt.verbose) {
                size_t out = 0;
                for (const auto& piece : e.reply) out += piece.bytes.size();
                opt.report("replay: " + exchange_name(e.number, e.line) + ": " + std::to_string(e.app.size()) +
                           " bytes in, " + std::to_string(out) + " bytes out");
            }
            schedule(e, now);
            ++next;
        }
        if (next >= ex.size() && !pending.empty()) unexpected_bytes(std::exchange(pending, {}));
        cv.notify_all();
    }

    // Under m.
    void unexpected_bytes(const std::vector<uint8_t>& bytes) {
        unexpected += bytes.size();
        opt.report("replay: " + std::to_string(bytes.size()) + " unexpected bytes after the last exchange: " +
                   hex_pattern(bytes));
    }

    // Sends what is due; returns how long until the next piece is (ms, at most 200).
    int send_due() {
        for (;;) {
            Send s;
            {
                std::lock_guard l(m);
                if (queue.empty()) return 200;
                const auto now = Clock::now();
                if (queue.front().due > now) {
                    const auto left = std::chrono::ceil<std::chrono::milliseconds>(queue.front().due - now).count();
                    return static_cast<int>(std::clamp<long long>(left, 0, 200));
                }
                s = std::move(queue.front());
                queue.pop_front();
                ++in_flight;
            }
            write_fully(pty.master.get(), s.bytes.data(), s.bytes.size(), stopping);
            std::lock_guard l(m);
            --in_flight;
            last_activity = Clock::now();
            cv.notify_all();
        }
    }

    void serve() {
        uint8_t buf[4096];
        int timeout = send_due();
        while (!stopping) {
            pollfd p[2] = {{pty.master.get(), POLLIN, 0}, {wake_r.get(), POLLIN, 0}};
            const int r = ::poll(p, 2, timeout);
            if (stopping) break;
            if (r < 0 && errno != EINTR) std::this_thread::sleep_for(std::chrono::milliseconds(10));
            if (r > 0 && (p[1].revents & POLLIN)) {
                while (::read(wake_r.get(), buf, sizeof buf) > 0) {
                }
            }
            if (r > 0 && (p[0].revents & POLLIN)) {
                const ssize_t n = ::read(pty.master.get(), buf, sizeof buf);
                if (n > 0) {
                    std::lock_guard l(m);
                    on_bytes(buf, static_cast<size_t>(n), Clock::now());
                }
            } else if (r > 0 && (p[0].revents & (POLLHUP | POLLERR))) {
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
            timeout = send_due();
        }
    }

    // Under m.
    bool finished() const { return next >= ex.size() && queue.empty() && in_flight == 0; }

    // Under m: the application's bytes of an exchange that never came whole.
    void settle() {
        if (ended) return;
        ended = true;
        if (next < ex.size() && !pending.empty()) {
            const Exchange& e = ex[next];
            const size_t at = first_difference(e.app, e.app_any, pending);
            Difference d{e.number, e.line, at, e.app, e.app_any, std::exchange(pending, {})};
            report_difference(d, "only " + std::to_string(d.received.size()) + " of " + std::to_string(e.app.size()) +
                                     " bytes came, difference at offset " + std::to_string(at));
            diffs.push_back(std::move(d));
        }
        if (next < ex.size())
            opt.report("replay: the application stopped after " + std::to_string(next) + " of " +
                       std::to_string(ex.size()) + " exchanges");
    }
};

Replayer::Replayer(Recording recording, ReplayOptions options)
    : impl_(std::make_unique<Impl>(recording, std::move(options))) {}

Replayer::~Replayer() { stop(); }

void Replayer::start() {
    std::lock_guard l(impl_->m);
    if (impl_->running || impl_->started) return;
    impl_->started = true;
    const auto now = Clock::now();
    impl_->last_activity = now;
    // A recording in which the device spoke first: its bytes go out now.
    while (impl_->next < impl_->ex.size() && impl_->ex[impl_->next].app.empty()) {
        impl_->schedule(impl_->ex[impl_->next], now);
        ++impl_->next;
    }
    impl_->stopping = false;
    impl_->thread = std::thread([this] { impl_->serve(); });
    impl_->running = true;
}

void Replayer::stop() {
    {
        std::lock_guard l(impl_->m);
        if (!impl_->running) return;
        impl_->stopping = true;
    }
    const uint8_t b = 1;
    [[maybe_unused]] auto ignored = ::write(impl_->wake_w.get(), &b, 1);
    impl_->thread.join();
    std::lock_guard l(impl_->m);
    impl_->running = false;
    // What the application sent before the stop still counts.
    uint8_t buf[4096];
    for (ssize_t n; (n = ::read(impl_->pty.master.get(), buf, sizeof buf)) > 0;)
        impl_->on_bytes(buf, static_cast<size_t>(n), Clock::now());
    impl_->settle();
    impl_->cv.notify_all();
}

bool Replayer::running() const {
    std::lock_guard l(impl_->m);
    return impl_->running;
}

std::string Replayer::slave_path() const { return impl_->pty.slave_path; }
std::string Replayer::port_name() const { return port_name_of(impl_->pty.slave_path); }

size_t Replayer::exchange_count() const { return impl_->ex.size(); }

size_t Replayer::played() const {
    std::lock_guard l(impl_->m);
    return impl_->next;
}

std::vector<Difference> Replayer::differences() const {
    std::lock_guard l(impl_->m);
    return impl_->diffs;
}

size_t Replayer::unexpected_bytes() const {
    std::lock_guard l(impl_->m);
    return impl_->unexpected;
}

bool Replayer::finished() const {
    std::lock_guard l(impl_->m);
    return impl_->finished();
}

bool Replayer::wait_finished(int quiet_ms, int timeout_ms) const {
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
    const auto quiet = std::chrono::milliseconds(quiet_ms);
    std::unique_lock l(impl_->m);
    for (;;) {
        const auto now = Clock::now();
        if (impl_->finished() && now - impl_->last_activity >= quiet) return true;
        if (now >= deadline) return false;
        auto until = deadline;
        if (impl_->finished()) until = std::min(until, impl_->last_activity + quiet);
        impl_->cv.wait_until(l, std::min(until, now + std::chrono::milliseconds(50)));
    }
}

std::string Replayer::summary() const {
    std::lock_guard l(impl_->m);
    return "replay: " + std::to_string(impl_->next) + " exchanges, " + std::to_string(impl_->diffs.size()) +
           " differences, " + std::to_string(impl_->unexpected) + " unexpected bytes";
}

bool Replayer::clean() const {
    std::lock_guard l(impl_->m);
    return impl_->diffs.empty() && impl_->unexpected == 0;
}

}  // namespace kolt::sim
