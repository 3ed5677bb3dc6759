// The proxy: serves the pseudo-terminal, forwards every byte to the reader's
// line and back as it comes, and records each chunk with its direction and
// time.
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <thread>

#include "kolt_sim/session.hpp"
#include "serial_line_internal.hpp"

namespace kolt::sim {

namespace {

using Clock = std::chrono::steady_clock;

// The wall-clock time for the header, e.g. "2025-03-01T10:12:33+0800".
std::string now_text() {
    const std::time_t t = std::time(nullptr);
    std::tm tm{};
    ::localtime_r(&t, &tm);
    char buf[64];
    std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%S%z", &tm);
    return buf;
}

void to_stderr(const std::string& line) {
    std::fprintf(stderr, "%s\n", line.c_str());
    std::fflush(stderr);
}

}  // namespace

struct Proxy::Impl {
    ProxyOptions opt;
    Pty pty;
    Fd device;
    Fd wake_r, wake_w;
    std::FILE* file = nullptr;

    std::thread thread;
    std::atomic<bool> stopping{false};

    mutable std::mutex m;
    mutable std::condition_variable cv;
    // Guarded by m.
    bool running = false;
    bool clock_started = false;
    Clock::time_point t0{};
    Recording rec;
    std::string device_error;
    bool file_failed = false;

    explicit Impl(ProxyOptions o) : opt(std::move(o)) {
        if (!opt.report) opt.report = to_stderr;
        if (opt.device.empty()) throw std::runtime_error("the proxy needs a device line");
        pty = open_pty();
        device = open_serial_line(opt.device);
        std::tie(wake_r, wake_w) = open_pipe();
        rec.device = opt.device;
        rec.date = now_text();
        if (!opt.record_path.empty()) {
            file = std::fopen(opt.record_path.c_str(), "w");
            if (file == nullptr)
                throw std::runtime_error("cannot write " + opt.record_path + ": " + std::strerror(errno));
            write_line(rec.format());  // the header alone
        }
    }

    ~Impl() {
        if (file != nullptr) std::fclose(file);
    }

    // Under m.
    void write_line(const std::string& text) {
        if (file == nullptr || file_failed) return;
        if (std::fputs(text.c_str(), file) < 0 || std::fflush(file) != 0) {
            file_failed = true;
            opt.report("proxy: cannot write " + opt.record_path + ": " + std::strerror(errno));
        }
    }

    void add(Direction dir, const uint8_t* p, size_t n) {
        std::lock_guard l(m);
        Chunk c;
        c.dir = dir;
        c.time_ms = ms_between(t0, Clock::now());
        c.bytes.assign(p, p + n);
        // Comments written since the last chunk belong to this one.
        c.comments = std::move(rec.trailing_comments);
        rec.trailing_comments.clear();
        const std::string line = format_chunk_line(c);
        write_line(line + "\n");
        if (opt.verbose) opt.report("proxy: " + line);
        rec.chunks.push_back(std::move(c));
        cv.notify_all();
    }

    void device_failed(const std::string& why) {
        std::lock_guard l(m);
        if (!device_error.empty()) return;
        device_error = why;
        rec.trailing_comments.push_back(" the device line failed here: " + why);
        write_line("# the device line failed here: " + why + "\n");
        opt.report("proxy: the device line " + opt.device + " failed: " + why);
        cv.notify_all();
    }

    bool device_ok() const {
        std::lock_guard l(m);
        return device_error.empty();
    }

    void serve() {
        uint8_t buf[4096];
        bool dev_ok = device_ok();
        while (!stopping) {
            pollfd p[3] = {{pty.master.get(), POLLIN, 0}, {dev_ok ? device.get() : -1, POLLIN, 0}, {wake_r.get(), POLLIN, 0}};
            const int r = ::poll(p, 3, 500);
            if (stopping) break;
            if (r < 0) {
                if (errno != EINTR) std::this_thread::sleep_for(std::chrono::milliseconds(10));
                continue;
            }
            if (p[2].revents & POLLIN) {
                while (::read(wake_r.get(), buf, sizeof buf) > 0) {
                }
            }
            if (p[0].revents & POLLIN) {
                const ssize_t n = ::read(pty.master.get(), buf, sizeof buf);
                if (n > 0) {
                    add(Direction::ToDevice, buf, static_cast<size_t>(n));
                    if (dev_ok && !write_fully(device.get(), buf, static_cast<size_t>(n), stopping) && !stopping)
                        device_failed(std::string("write: ") + (errno != 0 ? std::strerror(errno) : "no room"));
                }
            } else if (p[0].revents & (POLLHUP | POLLERR)) {
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
            if (dev_ok && (p[1].revents & (POLLIN | POLLHUP | POLLERR))) {
                const ssize_t n = ::read(device.get(), buf, sizeof buf);
                if (n > 0) {
                    add(Direction::FromDevice, buf, static_cast<size_t>(n));
                    write_fully(pty.master.get(), buf, static_cast<size_t>(n), stopping);
                } else if (n == 0) {
                    device_failed("hung up");
                } else if (errno != EAGAIN && errno != EINTR) {
                    device_failed(std::string("read: ") + std::strerror(errno));
                }
            }
            dev_ok = device_ok();
        }
    }
};

Proxy::Proxy(ProxyOptions options) : impl_(std::make_unique<Impl>(std::move(options))) {}

Proxy::~Proxy() { stop(); }

void Proxy::start() {
    std::lock_guard l(impl_->m);
    if (impl_->running) return;
    if (!impl_->clock_started) {
        impl_->t0 = Clock::now();
        impl_->clock_started = true;
    }
    impl_->stopping = false;
    impl_->thread = std::thread([this] { impl_->serve(); });
    impl_->running = true;
}

void Proxy::stop() {
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
}

bool Proxy::running() const {
    std::lock_guard l(impl_->m);
    return impl_->running;
}

std::string Proxy::slave_path() const { return impl_->pty.slave_path; }
std::string Proxy::port_name() const { return port_name_of(impl_->pty.slave_path); }

Recording Proxy::recording() const {
    std::lock_guard l(impl_->m);
    return impl_->rec;
}

size_t Proxy::chunk_count() const {
    std::lock_guard l(impl_->m);
    return impl_->rec.chunks.size();
}

bool Proxy::wait_for_chunks(size_t n, int timeout_ms) const {
    std::unique_lock l(impl_->m);
    return impl_->cv.wait_for(l, std::chrono::milliseconds(timeout_ms), [&] { return impl_->rec.chunks.size() >= n; });
}

std::string Proxy::device_error() const {
    std::lock_guard l(impl_->m);
    return impl_->device_error;
}

}  // namespace kolt::sim
