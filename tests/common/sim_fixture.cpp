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

void LinkedSimTest::SetUp() {
    SimTest::SetUp();
    ASSERT_EQ(KOLT_initCom(0, "", 1, ""), 0);
}

void LinkedSimTest::TearDown() {
    KOLT_freeCom(0, 1, "");
    SimTest::TearDown();
}

void RawSimTest::SetUp() {
    sim = std::make_unique<kolt::sim::Simulator>(options());
    sim->start();
    line = std::make_unique<RawLine>(sim->slave_path());
}

void RawSimTest::TearDown() {
    line.reset();
    sim.reset();
}

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
// Reads from fd until `want` (asked with what has arrived so far) says that
// no more bytes are wanted, or timeout_ms has passed; `want` also caps how
// many bytes one read may take.
template <class Want>
std::vector<uint8_t> read_loop(int fd, int timeout_ms, Want want) {
    std::vector<uint8_t> out;
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (size_t n = want(out); n > 0; n = want(out)) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        if (left.count() <= 0) break;
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
        uint8_t buf[512];
        const ssize_t got = ::read(fd, buf, std::min(sizeof buf, n));
        if (got > 0) out.insert(out.end(), buf, buf + got);
    }
    return out;
}
}  // namespace

std::vector<uint8_t> RawLine::read(size_t n, int timeout_ms) {
    // Reads at most what is asked for.
    return read_loop(fd_, timeout_ms, [n](const std::vector<uint8_t>& got) { return n - got.size(); });
}

std::vector<uint8_t> RawLine::read_until(uint8_t last, int timeout_ms) {
    // One byte at a time, so that nothing after `last` is taken.
    return read_loop(fd_, timeout_ms, [last](const std::vector<uint8_t>& got) -> size_t {
        return !got.empty() && got.back() == last ? 0 : 1;
    });
}

std::vector<uint8_t> RawLine::read_for(int ms) {
    return read_loop(fd_, ms, [](const std::vector<uint8_t>&) -> size_t { return 512; });
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
