// Recognises the frames of every framing the unit speaks in the bytes from
// the host (after the terminal has taken its escape sequences out): the main
// frame, the bracket frame, the 0x86 family, the device probe, and the raw
// rules' triggers. It decodes them and hands them on in order of arrival.
//
// Not thread-safe on its own: the simulator calls it under its lock.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "frame_internal.hpp"
#include "kolt_sim/simulator.hpp"

namespace kolt::sim {

// Bytes outside any frame that call for a fixed reply.
struct RawRule {
    Bytes trigger, reply;
};

class FrameParser {
public:
    // Where the parser's findings go.
    class Sink {
    public:
        virtual void command(Command c) = 0;              // a decoded frame
        virtual void raw(const RawRule& rule) = 0;        // a raw rule's trigger
        virtual void error(const std::string& text) = 0;  // a damaged frame, shown
    protected:
        ~Sink() = default;
    };

    void append(std::span<const uint8_t> bytes) { in_.insert(in_.end(), bytes.begin(), bytes.end()); }
    void clear() { in_.clear(); }
    bool empty() const { return in_.empty(); }

    void add_raw_rule(RawRule rule) { rules_.push_back(std::move(rule)); }
    void clear_raw_rules() { rules_.clear(); }

    // Parses what can be parsed. `idle`: no byte came for a while, so an
    // incomplete probe is taken for what it is; `stale`: an incomplete frame
    // has waited too long and its first byte is given up.
    void parse(Sink& sink, bool idle, bool stale);

private:
    enum class Parse { Complete, NeedMore, NotFrame, Bad };
    using CharTest = bool (*)(uint8_t);

    Parse try_frame(size_t& n, Sink& sink, bool idle);
    Parse try_main(size_t& n, Sink& sink);
    Parse try_bracket(size_t& n, Sink& sink);
    Parse try_86(size_t& n, Sink& sink, bool idle);
    Parse try_probe(size_t& n, Sink& sink, bool idle);
    Parse try_escape(size_t& n, Sink& sink, bool idle);
    Parse try_ef01(size_t& n, Sink& sink);
    Parse try_escape_read(size_t& n, Sink& sink, bool idle);
    Parse try_escape_write(size_t& n, Sink& sink);
    void escape(Sink& sink, size_t n);
    int try_raw(Sink& sink);

    size_t first_not(size_t from, size_t to, CharTest ok) const;
    bool cut_short(size_t from, size_t total, CharTest ok, const char* what, Sink& sink) const;
    size_t nibble_u16(size_t at) const;
    void error(Sink& sink, const std::string& what, size_t n) const;

    Bytes in_;  // input not yet parsed
    std::vector<RawRule> rules_;
};

}  // namespace kolt::sim
