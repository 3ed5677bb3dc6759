#include "pty_internal.hpp"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace kolt::sim {

namespace {

[[noreturn]] void sys_fail(const std::string& what) {
    throw std::runtime_error("kolt-sim: " + what + ": " + std::strerror(errno));
}

void make_raw_line(int fd) {
    termios t{};
    if (::tcgetattr(fd, &t) != 0) sys_fail("tcgetattr");
    ::cfmakeraw(&t);
    ::cfsetispeed(&t, B9600);
    ::cfsetospeed(&t, B9600);
    t.c_cflag |= CLOCAL | CREAD;
    if (::tcsetattr(fd, TCSANOW, &t) != 0) sys_fail("tcsetattr");
}

}  // namespace

void Fd::reset() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

Pty open_pty() {
    Pty p;
    p.master = Fd(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (p.master.get() < 0) sys_fail("posix_openpt");
    if (::grantpt(p.master.get()) != 0) sys_fail("grantpt");
    if (::unlockpt(p.master.get()) != 0) sys_fail("unlockpt");
    char name[128];
    if (::ptsname_r(p.master.get(), name, sizeof name) != 0) sys_fail("ptsname");
    p.slave_path = name;
    p.slave = Fd(::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (p.slave.get() < 0) sys_fail("open " + p.slave_path);
    make_raw_line(p.slave.get());
    const int fl = ::fcntl(p.master.get(), F_GETFL);
    if (fl < 0 || ::fcntl(p.master.get(), F_SETFL, fl | O_NONBLOCK) != 0) sys_fail("fcntl");
    return p;
}

std::pair<Fd, Fd> open_pipe() {
    int p[2];
    if (::pipe2(p, O_CLOEXEC | O_NONBLOCK) != 0) sys_fail("pipe");
    return {Fd(p[0]), Fd(p[1])};
}

}  // namespace kolt::sim
