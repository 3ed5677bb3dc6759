// Field sessions: what went over the serial line between a teller
// application and a reader, recorded by a proxy in front of the reader and
// played back later by a replayer in its place.
//
//   kolt::sim::ProxyOptions po;                    // in front of a reader
//   po.device = "/dev/ttyUSB0";
//   po.record_path = "counter7.session";
//   kolt::sim::Proxy proxy(po);
//   proxy.start();                                 // the application opens proxy.port_name()
//   ...
//   proxy.stop();
//
//   kolt::sim::ReplayOptions ro;                   // at the desk
//   ro.speed = 0;                                  // no waiting
//   kolt::sim::Replayer replayer(kolt::sim::Recording::load("counter7.session"), ro);
//   replayer.start();                              // the application opens replayer.port_name()
//   ...
//   replayer.stop();
//   replayer.summary();                            // "replay: 7 exchanges, 0 differences, 0 unexpected bytes"
//
// The file format is a line-based text described in sim/README.md
// ("Recording and replaying a field session"):
//
//   # kolt-sim session 1
//   # device: /dev/ttyUSB0
//   # date: 2025-03-01T10:12:33+0800
//   +0.037 > 02 30 30 30 33 33 31 31 31 30 34 32 34 03  # version, selector 4
//   +51.107 < 02 30 30 31 3C 30 30 30 30 34 3B ...
//
// Both classes serve a pseudo-terminal as the Simulator does (the line stays
// usable across the application's open/close cycles); every accessor may be
// called from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace kolt::sim {

// The first line of every session file.
inline constexpr const char* kSessionMagic = "# kolt-sim session 1";

// Which way a chunk went over the line.
enum class Direction {
    ToDevice,    // '>': application to device
    FromDevice,  // '<': device to application
};

// The bytes one read took off the line, with the time they were read.
struct Chunk {
    Direction dir = Direction::ToDevice;
    double time_ms = 0;  // since the session began, on the monotonic clock
    std::vector<uint8_t> bytes;
    // Bytes that match anything ("??" in the file), for application bytes
    // known to vary (a random number, a date). Empty, or as long as bytes.
    std::vector<bool> any;
    // Comment lines just before this chunk's line, each the text after '#'.
    std::vector<std::string> comments;
    // Comment at the end of the chunk's own line, the text after '#'.
    std::string note;
    // Line of the file it was read from (0: not read from a file).
    size_t line = 0;

    bool wildcard(size_t i) const { return i < any.size() && any[i]; }
};

// One exchange of a recording: what the application sent up to the device's
// next bytes, then those bytes.
struct Exchange {
    size_t number = 0;  // 1, 2, ... in the order of the recording
    size_t line = 0;    // file line of its first chunk (0: not from a file)
    std::vector<uint8_t> app;
    std::vector<bool> app_any;  // as long as app: bytes that match anything
    // The device's answer, in the pieces it came in; delay_ms counts from the
    // application's last byte of this exchange (from the start of the session
    // for an exchange without application bytes, which only the first one can be).
    struct Piece {
        double delay_ms = 0;
        std::vector<uint8_t> bytes;
    };
    std::vector<Piece> reply;
};

// A session file that cannot be read. what() names the file (when read
// from one) and the line, e.g. "counter7.session: line 7: 'G1' is not a
// byte (two hex digits, or ?? on application lines)".
class RecordingError : public std::runtime_error {
public:
    RecordingError(size_t line, const std::string& message, const std::string& file = {});
    size_t line() const { return line_; }  // 0: not about one line (e.g. the file cannot be read)
    const std::string& message() const { return message_; }  // without the file and the line

private:
    size_t line_;
    std::string message_;
};

struct Recording {
    std::string device;  // header line "# device: ...", empty: none
    std::string date;    // header line "# date: ...", empty: none
    std::vector<Chunk> chunks;
    std::vector<std::string> trailing_comments;  // comment lines after the last chunk

    // Throws RecordingError naming the line. Blank lines are skipped; a
    // comment line, a "# device:" or "# date:" line before the first chunk
    // excepted, belongs to the chunk after it.
    static Recording parse(std::string_view text);
    // As parse; the message of the error also names the file.
    static Recording load(const std::string& path);
    // The file text; parse(format()) gives the same recording back (times
    // to the microsecond).
    std::string format() const;
    // Throws std::runtime_error when the file cannot be written.
    void save(const std::string& path) const;

    // The chunks grouped into exchanges.
    std::vector<Exchange> exchanges() const;
};

// One chunk as a line of the file, without the newline (no comments).
std::string format_chunk_line(const Chunk& chunk);
// Bytes as "02 31 ?? 03" (wildcards as ??).
std::string hex_pattern(const std::vector<uint8_t>& bytes, const std::vector<bool>& any = {});

// Where a proxy or a replayer reports; empty: a line on standard error.
using ReportSink = std::function<void(const std::string& line)>;

// --- the proxy ------------------------------------------------------------------

struct ProxyOptions {
    // The reader's line, opened raw at 9600 baud 8N1 and kept open until
    // the proxy is destroyed: /dev/ttyS0, /dev/ttyUSB0, the /dev/pts/N of a
    // kolt-sim.
    std::string device;
    // The session file, written as the chunks come (each line flushed);
    // empty: the recording is kept in memory only (recording()).
    std::string record_path;
    bool verbose = false;  // report every chunk
    ReportSink report;
};

class Proxy {
public:
    // Opens the pseudo-terminal, the device and the session file (writing
    // its header). Throws std::runtime_error naming what failed.
    explicit Proxy(ProxyOptions options);
    ~Proxy();  // stops
    Proxy(const Proxy&) = delete;
    Proxy& operator=(const Proxy&) = delete;

    // Starts forwarding; the session's clock starts at the first start().
    void start();
    void stop();
    bool running() const;

    std::string slave_path() const;  // e.g. "/dev/pts/5"
    std::string port_name() const;   // e.g. "pts/5", for gPortName

    // Everything recorded so far.
    Recording recording() const;
    size_t chunk_count() const;
    // Waits until at least n chunks went over the line.
    bool wait_for_chunks(size_t n, int timeout_ms) const;
    // The device side failed (a kolt-sim behind it ended, an adapter was
    // pulled): the proxy forwards nothing more. The reason, "" while it works.
    std::string device_error() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// --- the replayer ------------------------------------------------------------------

struct ReplayOptions {
    // The recorded delays before the device's bytes are multiplied by this:
    // 1 as recorded, 0.5 half as long, 0 at once.
    double speed = 1.0;
    bool verbose = false;  // report every exchange played
    ReportSink report;
};

// Application bytes that did not match the recording.
struct Difference {
    size_t exchange = 0;  // 1, 2, ...
    size_t line = 0;      // file line of the exchange
    size_t offset = 0;    // of the first byte that differs (or where the received bytes ended)
    std::vector<uint8_t> recorded;
    std::vector<bool> recorded_any;
    std::vector<uint8_t> received;
};

class Replayer {
public:
    // Opens the pseudo-terminal. Throws std::runtime_error on failure.
    explicit Replayer(Recording recording, ReplayOptions options = {});
    ~Replayer();  // stops
    Replayer(const Replayer&) = delete;
    Replayer& operator=(const Replayer&) = delete;

    // Starts answering from the beginning of the recording (once).
    void start();
    // Stops; application bytes of an exchange that were still waiting for
    // the rest count as a difference.
    void stop();
    bool running() const;

    std::string slave_path() const;
    std::string port_name() const;

    size_t exchange_count() const;  // in the recording
    size_t played() const;          // exchanges answered so far
    std::vector<Difference> differences() const;
    size_t unexpected_bytes() const;  // application bytes after the last exchange
    // Every exchange played and the device's bytes sent.
    bool finished() const;
    // Waits until finished() and no application byte came for quiet_ms;
    // false when timeout_ms passed first.
    bool wait_finished(int quiet_ms, int timeout_ms) const;
    // "replay: N exchanges, M differences, K unexpected bytes".
    std::string summary() const;
    // No difference and no unexpected byte.
    bool clean() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace kolt::sim
