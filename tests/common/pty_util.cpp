#include "common/pty_util.hpp"

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <stdexcept>

namespace kolt::test {

long long ms_since(Clock::time_point t) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count();
}

int pending_input(int fd) {
    int n = 0;
    return ::ioctl(fd, FIONREAD, &n) == 0 ? n : -1;
}

void away_from_second_boundary() {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    if (now.tv_nsec > 700'000'000L) {
        const timespec pause{0, 1'000'000'000L - now.tv_nsec + 1'000'000L};
        ::nanosleep(&pause, nullptr);
    }
}

Pty::Pty(Mode mode) {
    master_ = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (master_ < 0 || ::grantpt(master_) != 0 || ::unlockpt(master_) != 0)
        throw std::runtime_error("no pseudo-terminal");
    path_ = ::ptsname(master_);
    // Held open by the test for its lifetime, so that the line stays up
    // while the library opens and closes its own descriptors.
    slave_ = ::open(path_.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (slave_ < 0) throw std::runtime_error("cannot open " + path_);
    if (mode == Mode::Raw) {
        termios t{};
        ::tcgetattr(slave_, &t);
        ::cfmakeraw(&t);
        t.c_cc[VMIN] = 0;
        t.c_cc[VTIME] = 0;
        ::tcsetattr(slave_, TCSANOW, &t);
    }
}

Pty::~Pty() {
    ::close(slave_);
    ::close(master_);
}

void Pty::send(const std::string& s) const {
    if (::write(master_, s.data(), s.size()) != static_cast<ssize_t>(s.size()))
        throw std::runtime_error("short write to the pseudo-terminal");
}

std::string Pty::take(int ms) const {
    std::string got;
    char buf[512];
    const auto start = Clock::now();
    while (ms_since(start) < ms) {
        pollfd p{master_, POLLIN, 0};
        if (::poll(&p, 1, 10) > 0) {
            const ssize_t n = ::read(master_, buf, sizeof buf);
            if (n > 0) got.append(buf, static_cast<size_t>(n));
        }
    }
    return got;
}

termios Pty::attrs() const {
    termios t{};
    ::tcgetattr(slave_, &t);
    return t;
}

ScopedStdin::ScopedStdin(const std::string& path) {
    saved_ = ::dup(0);
    const int fd = ::open(path.c_str(), O_RDWR | O_NOCTTY);
    if (fd < 0 || ::dup2(fd, 0) != 0) throw std::runtime_error("cannot put " + path + " on descriptor 0");
    ::close(fd);
}

ScopedStdin::~ScopedStdin() {
    if (saved_ >= 0) {
        ::dup2(saved_, 0);
        ::close(saved_);
    } else {
        ::close(0);
    }
}

bool ScopedStdin::same_file(int fd) {
    struct stat a {}, b {};
    return ::fstat(0, &a) == 0 && ::fstat(fd, &b) == 0 && a.st_dev == b.st_dev && a.st_ino == b.st_ino &&
           a.st_rdev == b.st_rdev;
}

FarEnd::FarEnd(const Pty& pty, Done done, std::string reply, int delay_ms)
    : thread_([this, master = pty.master(), done = std::move(done), reply = std::move(reply), delay_ms] {
          char buf[2048];
          const auto start = Clock::now();
          while (!done(received_) && ms_since(start) < 5000) {
              pollfd p{master, POLLIN, 0};
              if (::poll(&p, 1, 20) > 0) {
                  const ssize_t n = ::read(master, buf, sizeof buf);
                  if (n > 0) received_.append(buf, static_cast<size_t>(n));
              }
          }
          if (delay_ms > 0) std::this_thread::sleep_for(std::chrono::milliseconds(delay_ms));
          if (!reply.empty()) (void)!::write(master, reply.data(), reply.size());
      }) {}

FarEnd::~FarEnd() { join(); }

void FarEnd::join() {
    if (thread_.joinable()) thread_.join();
}

const std::string& FarEnd::received() {
    join();
    return received_;
}

FarEnd::Done ends_with(char c) {
    return [c](const std::string& s) { return !s.empty() && s.back() == c; };
}

FarEnd::Done at_least(size_t n) {
    return [n](const std::string& s) { return s.size() >= n; };
}

FarEnd::Done holds(std::string text) {
    return [text = std::move(text)](const std::string& s) { return s.find(text) != std::string::npos; };
}

}  // namespace kolt::test
