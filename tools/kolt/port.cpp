// The port: its name below /dev/, the port file, the check that it opens.
#include <fcntl.h>
#include <kolt/kolt.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>

#include "cli.hpp"

namespace kolt::cli {

std::string port_below_dev(std::string_view given) {
    std::string name(given);
    if (name.rfind("/dev/", 0) == 0) name.erase(0, 5);
    if (name.empty() || name.size() >= sizeof gPortName) return {};
    return name;
}

std::optional<int> com_port_number(std::string_view port) {
    std::string_view p = port;
    if (p.substr(0, 5) == "/dev/") p.remove_prefix(5);
    if (p.size() < 4 || p.substr(0, 3) != "COM") return std::nullopt;
    int n = 0;
    for (char c : p.substr(3)) {
        if (c < '0' || c > '9' || n > 9999) return std::nullopt;
        n = n * 10 + (c - '0');
    }
    // DEV_CommCall opens only ports 1..8 (a larger number would leave the
    // library's link on descriptor 0, the terminal); another COMn is asked
    // through the exported commands like any other port.
    if (n < 1 || n > 8) return std::nullopt;
    return n;
}

namespace {

// The first line of the port file, waiting up to 10 s for the file to
// appear with a name in it.
std::string read_port_file(const std::string& path) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    for (;;) {
        std::ifstream in(path);
        std::string name;
        if (in && std::getline(in, name)) {
            while (!name.empty() && (name.back() == '\r' || name.back() == ' ')) name.pop_back();
            if (!name.empty()) return name;
        }
        if (std::chrono::steady_clock::now() >= end || interrupted()) return {};
        pause_ms(100);
    }
}

}  // namespace

void use_port(Globals& g) {
    if (!g.port_file.empty()) {
        const std::string name = read_port_file(g.port_file);
        if (interrupted()) throw Failure{kExitCancelled, 0, "cancelled"};
        if (name.empty()) throw Failure{kExitNoDevice, 0, "no port name in " + g.port_file + " after 10 s"};
        g.port = name;
    }
    if (g.port.empty()) {
        if (!g.local()) return;  // a teller terminal: the reader is behind the terminal on standard input
        throw Failure{kExitUsage, 0, "no port: give --port (or --port-file), or set KOLT_PORT"};
    }
    const std::string name = port_below_dev(g.port);
    if (name.empty())
        throw Failure{kExitUsage, 0,
                      "the port name \"" + g.port + "\" is too long (at most " +
                          std::to_string(sizeof gPortName - 1) + " characters below /dev/)"};
    g.port = name;
    std::memset(gPortName, 0, sizeof gPortName);
    std::memcpy(gPortName, name.data(), name.size());
    if (!g.local()) return;
    // The library opens /dev/<name> for every call; a port that cannot be
    // opened is told here with the system's reason.
    const std::string device = "/dev/" + name;
    const int fd = ::open(device.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        const int e = errno;
        throw Failure{kExitNoDevice, 0, "cannot open " + device + ": " + std::strerror(e)};
    }
    ::close(fd);
}

std::optional<Failure> device_failure_after(const Globals& g, int32_t rc) {
    int32_t open_rc = 0;
    const int32_t version = call_library(g, Wait{}, [&]() -> int32_t {
        open_rc = IC_initCom(g.terminal_type, g.port_no);
        if (open_rc != 0) return open_rc;
        uint8_t buf[KOLT_VERSION_MAX] = {0};
        const int32_t r = KOLT_T41_GetVersion(4, buf, 1);
        IC_CloseCom(g.terminal_type, g.port_no);
        return r;
    });
    if (open_rc != 0) return Failure{kExitNoDevice, rc, "the port could not be opened"};
    if (version == Lenth_Error) return Failure{kExitNoDevice, rc, "the device does not answer"};
    return std::nullopt;
}

}  // namespace kolt::cli
