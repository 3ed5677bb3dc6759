// Descriptors and the pseudo-terminal the simulator serves on.
#pragma once

#include <string>
#include <utility>

namespace kolt::sim {

// A descriptor that closes itself.
class Fd {
public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd() { reset(); }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    Fd(Fd&& o) noexcept : fd_(std::exchange(o.fd_, -1)) {}
    Fd& operator=(Fd&& o) noexcept {
        if (this != &o) {
            reset();
            fd_ = std::exchange(o.fd_, -1);
        }
        return *this;
    }
    int get() const { return fd_; }
    void reset();

private:
    int fd_ = -1;
};

// A pseudo-terminal pair: the master side non-blocking, the slave side a
// raw 9600 baud line, kept open so that the line does not hang up between
// the host's open/close cycles.
struct Pty {
    Fd master, slave;
    std::string slave_path;
};

// Both throw std::runtime_error naming the failed call.
Pty open_pty();
// A non-blocking pipe: read end, write end.
std::pair<Fd, Fd> open_pipe();

}  // namespace kolt::sim
