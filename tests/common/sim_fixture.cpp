#include "common/sim_fixture.hpp"

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <stdexcept>

#include "kolt/kolt.h"

namespace kolt::test {

ScopedSimulator::ScopedSimulator(kolt::sim::Options options)
    : sim_(std::make_unique<kolt::sim::Simulator>(std::move(options))), saved_port_(gPortName) {
    sim_->start();
    const std::string port = sim_->port_name();
    std::memset(gPortName, 0, sizeof gPortName);
    std::strncpy(gPortName, port.c_str(), sizeof gPortName - 1);
}

ScopedSimulator::~ScopedSimulator() {
    sim_->stop();
    std::memset(gPortName, 0, sizeof gPortName);
    std::strncpy(gPortName, saved_port_.c_str(), sizeof gPortName - 1);
}

void SimTest::SetUp() { sim_ = std::make_unique<ScopedSimulator>(options()); }

void SimTest::TearDown() { sim_.reset(); }

RawLine::RawLine(const std::string& path) {
    fd_ = ::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd_ < 0) throw std::runtime_error("cannot open " + path);
    termios t{};
    if (::tcgetattr(fd_, &t) == 0) {
        ::cfmakeraw(&t);
        ::tcsetattr(fd_, TCSANOW, &t);
    }
    ::tcflush(fd_, TCIFLUSH);
}

RawLine::~RawLine() {
    if (fd_ >= 0) ::close(fd_);
}

void RawLine::write(const std::vector<uint8_t>& bytes) {
    size_t done = 0;
    const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (done < bytes.size() && std::chrono::steady_clock::now() < give_up) {
        const ssize_t w = ::write(fd_, bytes.data() + done, bytes.size() - done);
        if (w > 0) {
            done += static_cast<size_t>(w);
        } else {
            pollfd p{fd_, POLLOUT, 0};
            ::poll(&p, 1, 10);
        }
    }
}

void RawLine::write(const std::string& text) { write(text_bytes(text)); }

namespace {
template <class Done>
std::vector<uint8_t> read_loop(int fd, int timeout_ms, Done done) {
    std::vector<uint8_t> out;
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!done(out)) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        if (left.count() <= 0) break;
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
        uint8_t buf[512];
        const ssize_t n = ::read(fd, buf, sizeof buf);
        if (n > 0) out.insert(out.end(), buf, buf + n);
    }
    return out;
}
}  // namespace

std::vector<uint8_t> RawLine::read(size_t n, int timeout_ms) {
    // Reads at most what is asked for, one byte at a time near the end.
    std::vector<uint8_t> out;
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (out.size() < n) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        if (left.count() <= 0) break;
        pollfd p{fd_, POLLIN, 0};
        if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
        uint8_t buf[512];
        const ssize_t got = ::read(fd_, buf, std::min(sizeof buf, n - out.size()));
        if (got > 0) out.insert(out.end(), buf, buf + got);
    }
    return out;
}

std::vector<uint8_t> RawLine::read_until(uint8_t last, int timeout_ms) {
    std::vector<uint8_t> out;
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (out.empty() || out.back() != last) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        if (left.count() <= 0) break;
        pollfd p{fd_, POLLIN, 0};
        if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
        uint8_t b = 0;
        if (::read(fd_, &b, 1) == 1) out.push_back(b);
    }
    return out;
}

std::vector<uint8_t> RawLine::read_for(int ms) {
    return read_loop(fd_, ms, [](const std::vector<uint8_t>&) { return false; });
}

std::vector<uint8_t> stx_etx(const std::string& inner) {
    std::vector<uint8_t> b(inner.size() + 2);
    b.front() = 0x02;
    std::copy(inner.begin(), inner.end(), b.begin() + 1);
    b.back() = 0x03;
    return b;
}

std::vector<uint8_t> text_bytes(const std::string& text) { return {text.begin(), text.end()}; }

std::string sim_profile(const std::string& file) {
    return std::string(KOLT_SIM_PROFILE_DIR) + "/" + file;
}

}  // namespace kolt::test
