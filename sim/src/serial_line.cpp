#include "serial_line_internal.hpp"

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace kolt::sim {

Fd open_serial_line(const std::string& path) {
    Fd fd(::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    auto fail = [&](const std::string& what) {
        throw std::runtime_error("cannot open " + path + ": " + what + ": " + std::strerror(errno));
    };
    if (fd.get() < 0) fail("open");
    termios t{};
    if (::tcgetattr(fd.get(), &t) != 0) fail("not a serial line");
    ::cfmakeraw(&t);  // 8 data bits, no parity, no echo, no translation
    t.c_iflag &= ~static_cast<tcflag_t>(IXON | IXOFF | IXANY);
    t.c_cflag &= ~static_cast<tcflag_t>(CSTOPB | CRTSCTS);
    t.c_cflag |= CLOCAL | CREAD;
    t.c_cc[VMIN] = 1;
    t.c_cc[VTIME] = 0;
    if (::cfsetispeed(&t, B9600) != 0 || ::cfsetospeed(&t, B9600) != 0) fail("cfsetspeed");
    if (::tcsetattr(fd.get(), TCSANOW, &t) != 0) fail("tcsetattr");
    ::tcflush(fd.get(), TCIOFLUSH);
    return fd;
}

bool write_fully(int fd, const uint8_t* bytes, size_t n, const std::atomic<bool>& stopping) {
    using Clock = std::chrono::steady_clock;
    size_t done = 0;
    auto give_up = Clock::now() + std::chrono::seconds(3);
    while (done < n) {
        if (stopping) return false;
        const ssize_t w = ::write(fd, bytes + done, n - done);
        if (w > 0) {
            done += static_cast<size_t>(w);
            give_up = Clock::now() + std::chrono::seconds(3);
            continue;
        }
        if (w < 0 && errno != EAGAIN && errno != EINTR) return false;
        if (Clock::now() > give_up) return false;
        pollfd p{fd, POLLOUT, 0};
        ::poll(&p, 1, 20);
    }
    return true;
}

}  // namespace kolt::sim
