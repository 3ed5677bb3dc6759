// The serial-line helpers the proxy and the replayer share: the reader's
// device line opened raw, writes that wait for room, and the session clock.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

#include "pty_internal.hpp"

namespace kolt::sim {

// Opens a serial line (a tty, a USB adapter, the /dev/pts/N of another
// kolt-sim) read-write, non-blocking, raw at 9600 baud 8N1 without flow
// control, and drops what waits in its buffers. Throws std::runtime_error
// naming the path and the failed call.
Fd open_serial_line(const std::string& path);

// Writes all of `bytes` to a non-blocking descriptor, waiting for room;
// gives up when nothing could be written for 3 s, on an error, or when
// `stopping` is set. Returns whether everything went out.
bool write_fully(int fd, const uint8_t* bytes, size_t n, const std::atomic<bool>& stopping);

// Milliseconds from `from` to `to` with their fraction.
inline double ms_between(std::chrono::steady_clock::time_point from, std::chrono::steady_clock::time_point to) {
    return std::chrono::duration<double, std::milli>(to - from).count();
}

// The slave path without "/dev/", as gPortName takes it.
inline std::string port_name_of(const std::string& slave_path) {
    return slave_path.rfind("/dev/", 0) == 0 ? slave_path.substr(5) : slave_path;
}

}  // namespace kolt::sim
