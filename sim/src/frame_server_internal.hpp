// The simulator's end of the serial line: reads the host's bytes from the
// pseudo-terminal, passes them through the teller terminal when there is
// one, recognises the frames, hands each command to the dispatch callback
// and writes the encoded reply, with fault injection and pacing applied at
// the byte level. It keeps the records of what went over the line.
//
// Its lock is the simulator's lock: the dispatch callback runs under it on
// the server thread, and whatever that callback uses is guarded by it too
// (lock() hands it out for that). The other public members take it
// themselves where they need it.
#pragma once

#include <time.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "frame_internal.hpp"
#include "frame_parser_internal.hpp"
#include "kolt_sim/simulator.hpp"
#include "pty_internal.hpp"
#include "terminal_internal.hpp"

namespace kolt::sim {

// Something the unit sends later than the command it answers (the stripe
// reader answers when a card is swiped): an answer to `command`, encoded and
// open to faults like any other, or bytes sent as they are.
struct LateReply {
    Command command;
    std::optional<Answer> answer;
    Bytes raw;
};

class FrameServer final : private FrameParser::Sink {
public:
    using Clock = std::chrono::steady_clock;
    // The reply to a command, nullopt for silence.
    using Dispatch = std::function<std::optional<Answer>(const Command&)>;
    // Asked under the lock on the server thread: what is due at `now`; sets
    // `next` to when it has something to send next (max(): nothing).
    using Timer = std::function<std::vector<LateReply>(Clock::time_point now, Clock::time_point& next)>;

    // Opens the pseudo-terminal; throws std::runtime_error on failure.
    FrameServer(const Options& options, Dispatch dispatch);
    ~FrameServer();
    FrameServer(const FrameServer&) = delete;
    FrameServer& operator=(const FrameServer&) = delete;

    // Readable text of a command for the verbose log, "" for none.
    using Describe = std::function<std::string(const Command&)>;

    // Set before start().
    void set_timer(Timer timer) { timer_ = std::move(timer); }
    void set_describe(Describe describe) { describe_ = std::move(describe); }
    // Makes the server thread ask the timer again (after its state changed).
    void wake();

    void start();
    void stop();
    bool running() const;
    const std::string& slave_path() const { return pty_.slave_path; }
    std::unique_lock<std::mutex> lock() const { return std::unique_lock(m_); }

    // --- records ----------------------------------------------------------
    std::vector<Command> transcript() const;
    void clear_transcript();
    bool wait_for_commands(size_t n, int timeout_ms) const;
    Bytes raw_received() const;
    Bytes raw_sent() const;
    void clear_raw();
    std::vector<std::string> frame_errors() const;

    // --- faults and raw replies -------------------------------------------
    // `key`: only replies to that command (key_of(cls, code)); nullopt: any.
    // `match`: only the commands it accepts (empty: every command of key).
    void inject(Fault fault, int count, std::optional<uint16_t> key, Simulator::Match match = {});
    void clear_faults();
    void add_raw_rule(Bytes trigger, Bytes reply);
    void clear_raw_rules();
    void write_raw(std::span<const uint8_t> bytes) { write_all(Bytes(bytes.begin(), bytes.end())); }

    // --- the teller terminal ------------------------------------------------
    std::vector<std::string> terminal_errors() const;
    std::vector<std::string> terminal_events() const;
    bool aux_open() const;
    bool keyboard_locked() const;

private:
    // A reply ready to go, before the fault is applied to its timing.
    struct Outgoing {
        Bytes wire;
        std::optional<Fault> fault;
    };
    // Bytes read from the line that are still crossing it (paced line).
    struct Crossing {
        Clock::time_point done;
        Bytes bytes;
    };
    struct FaultEntry {
        Fault fault;
        int remaining;
        std::optional<uint16_t> key;
        Simulator::Match match;  // empty: every command of the key
    };

    // FrameParser::Sink, called under the lock.
    void command(Command c) override;
    void raw(const RawRule& rule) override;
    void error(const std::string& text) override;

    void log(const std::string& line) const;
    void record(Command c);
    std::optional<Fault> take_fault(uint16_t key, const Command& c);
    std::vector<Outgoing> take_replies();

    void serve();
    void on_input(const uint8_t* p, size_t n);
    void on_crossed();
    void receive(const uint8_t* p, size_t n);
    void on_idle();
    void on_timer();
    timespec poll_timeout() const;
    Outgoing outgoing(const Command& c, const Answer& answer);
    void send(const Outgoing& o);
    void cut_line(Bytes wire, int dead_ms);
    void write_spaced(const Bytes& bytes, int gap_ms, bool give_up_on_input);
    Answer other_answer(const Command& answered, const Answer& answer) const;
    void apply_to_wire(Outgoing& o, const Command& c);
    bool write_all(const Bytes& bytes);

    const bool pace_, verbose_;
    const Dispatch dispatch_;
    Timer timer_;
    Describe describe_;

    mutable std::mutex m_;
    mutable std::condition_variable cv_;
    std::mutex write_m_;

    Pty pty_;
    Fd wake_r_, wake_w_;
    std::thread thread_;
    std::atomic<bool> stopping_{false};

    // Everything below is guarded by m_.
    bool running_ = false;
    std::vector<Command> transcript_;
    Bytes rx_, tx_;
    std::vector<std::string> frame_errors_;
    std::vector<FaultEntry> faults_;
    std::optional<TerminalEmulator> term_;
    FrameParser parser_;
    std::vector<Outgoing> replies_;  // of the input parsed last
    Clock::time_point last_rx_{};
    Clock::time_point dead_until_{};
    Clock::time_point next_due_ = Clock::time_point::max();
    // Paced line, host to unit: busy until this time, and what is on it.
    Clock::time_point rx_busy_until_{};
    std::deque<Crossing> crossing_;
};

}  // namespace kolt::sim
