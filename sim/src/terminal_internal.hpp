// The teller terminal in front of the reader: recognises the keyboard
// lock/unlock, auxiliary-port open/close and data lead/end sequences the
// host writes to it and passes the data between lead and end on.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "kolt_sim/simulator.hpp"

namespace kolt::sim {

// The sequences of a terminal configuration of type 1..5 or >= 50; for the
// latter the terminal command file defaults to $DCCHOME/lxbs/font/idcread.ext
// or /dcc/lxbs/font/idcread.ext. Throws as builtin_terminal() and
// ext_file_terminal() do.
TerminalSequences terminal_sequences(const TerminalConfig& config);

class TerminalEmulator {
public:
    using Clock = std::chrono::steady_clock;

    explicit TerminalEmulator(TerminalSequences seq);

    // Bytes from the host; returns the bytes for the peripheral.
    std::string feed(std::string_view in);
    // Called when no byte came for a while: an incomplete sequence that has
    // waited longer than `patience` is reported and dropped.
    void idle(Clock::time_point now, std::chrono::milliseconds patience);
    bool pending() const { return !buf_.empty(); }
    void drop_input() { buf_.clear(); }

    const std::vector<std::string>& errors() const { return errors_; }
    const std::vector<std::string>& events() const { return events_; }
    bool aux_open() const { return open_; }
    bool locked() const { return locked_; }

private:
    enum class Kind { Lock, Unlock, Open, Close, Lead, End, Transfer };
    struct Token {
        std::string seq;
        Kind kind;
    };
    // Inside a lead/end block: passes the data before the end sequence on and
    // returns the bytes used; the block stays open while no end has come.
    size_t pass_block(std::string_view rest, std::string& out);
    // The longest sequence `rest` starts with; `partial` is set when `rest`
    // may be the beginning of a longer one.
    const Token* match_token(std::string_view rest, bool& partial) const;
    // A byte outside any sequence: data while the port is open without a
    // lead sequence, else part of an unexpected run.
    void plain_byte(char c, std::string& out);
    void apply(Kind k);
    void error(const std::string& what);
    void flush_unexpected();
    void deliver(std::string_view data, std::string& out);
    std::string state_text() const;

    TerminalSequences seq_;
    std::vector<Token> tokens_;
    std::string buf_;
    std::string unexpected_;
    Clock::time_point last_feed_{};
    bool locked_ = false;
    bool open_ = false;
    bool in_block_ = false;
    std::vector<std::string> errors_;
    std::vector<std::string> events_;
};

}  // namespace kolt::sim
