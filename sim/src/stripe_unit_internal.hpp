// The magnetic stripe unit: the framed read (36 91) and the escape-sequence
// reader on the same line. A read or write command waits for a swipe; the
// swipes are events the host of the simulator queues (or a card that stays
// in the reader). The unit answers later than the command, from tick(), so
// the frame server asks it what is due and when the next thing is.
//
// Not thread-safe on its own: the simulator calls it under its lock.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "kolt_sim/frame.hpp"
#include "kolt_sim/simulator.hpp"

namespace kolt::sim {

// What the unit sends on its own: a main-frame reply to `command`, or bytes
// as they are (the escape replies and write statuses).
struct StripeOutput {
    Command command;
    std::optional<Reply> framed;
    Bytes raw;
};

// --- the unit's wire forms (see sim/README.md) -------------------------------
// Data field of the framed read reply: 00, s1, s2, s3 (also the high byte of
// the track-1 length), track-1 length low byte, track-2 length (2 bytes),
// track-3 length (2 bytes), the three tracks with their sentinels.
Bytes stripe_framed_data(const StripeCard& card, uint8_t no_data_status);
// Escape read reply for mode 2, 3 or 23: ESC "s", the track text (sentinels
// off, "=" as the style's separator, 7F for an empty track), "?" FS, then
// the style's trailer.
Bytes stripe_escape_reply(const StripeCard& card, int mode, const StripeStyle& style);
// Status after a write: 1B 30 [30] last, the 30 doubled when track 3 was
// written; last is 'p' on success.
Bytes stripe_write_status(bool track3, bool ok, uint8_t fail_byte);

class StripeUnit {
public:
    using Clock = std::chrono::steady_clock;

    explicit StripeUnit(const StripeProfile& profile);

    // --- commands from the host ------------------------------------------
    // 36 91: data = the time-out in seconds (0: none).
    void framed_read(const Command& c, Clock::time_point now);
    // An escape sequence (Framing::Escape; data = the whole sequence).
    void escape(const Command& c, Clock::time_point now);

    // --- swipes ---------------------------------------------------------------
    void swipe(StripeCard card, int after_ms, Clock::time_point now);
    void swipe_again(int after_ms, Clock::time_point now);
    void no_swipe();
    void set_card(std::optional<StripeCard> card, int after_ms, Clock::time_point now);
    void set_style(StripeStyle style) { style_ = std::move(style); }
    const StripeStyle& style() const { return style_; }
    void set_write_fails(bool fails) { write_fails_ = fails; }

    // --- time ------------------------------------------------------------------
    // What is due at `now`, in order.
    std::vector<StripeOutput> tick(Clock::time_point now);
    // When tick() has something to do next; Clock::time_point::max(): never.
    Clock::time_point next_due() const;

    // --- records ---------------------------------------------------------------
    const std::vector<Bytes>& commands() const { return commands_; }
    void clear_commands() { commands_.clear(); }
    int resets() const { return resets_; }
    const std::optional<StripeCard>& card() const { return memory_; }
    bool waiting() const { return waiting_.has_value(); }
    size_t queued() const { return queue_.size(); }

private:
    enum class Op { FramedRead, Read, Write };
    // A swipe event: a given card, the card in memory again, or the card
    // that stays.
    struct Swipe {
        enum Source { Given, Again, Staying } source = Given;
        StripeCard card;
        int after_ms = 0;
    };
    struct Waiting {
        Op op = Op::Read;
        Command command;
        int mode = 2;                        // Read: 2, 3 or 23
        std::optional<std::string> t2, t3;   // Write: the tracks to write
        std::optional<Swipe> swipe;          // the swipe this command got
        std::optional<Clock::time_point> swipe_at, timeout_at;
    };
    struct Piece {
        Clock::time_point at;
        StripeOutput out;
    };

    void begin(Waiting w, Clock::time_point now);
    void assign_swipe(Clock::time_point now);
    void give_back_swipe();
    StripeCard card_of(const Swipe& s) const;
    void complete(Waiting w, Clock::time_point now);
    void send_pieces(const Command& c, const Bytes& reply, Clock::time_point now);

    StripeStyle style_;
    bool write_fails_ = false;
    std::optional<StripeCard> staying_;
    int staying_after_ms_ = 0;
    std::deque<Swipe> queue_;
    std::optional<Waiting> waiting_;
    std::deque<Piece> outbox_;
    std::optional<StripeCard> memory_;
    std::vector<Bytes> commands_;
    int resets_ = 0;
};

}  // namespace kolt::sim
