// The magnetic stripe unit: its commands, swipes and answers.
#include "stripe_unit_internal.hpp"

#include <algorithm>
#include <utility>

namespace kolt::sim {

namespace {

constexpr uint8_t kEsc = 0x1B;
constexpr uint8_t kFs = 0x1C;

// The track text without its start and end sentinels.
std::string bare(const std::string& track) {
    std::string t = track;
    if (!t.empty() && (t.front() == ';' || t.front() == '%')) t.erase(0, 1);
    if (!t.empty() && t.back() == '?') t.pop_back();
    return t;
}

// The track text with its sentinels, as the stripe holds it.
std::string with_sentinels(const std::string& track, char start) {
    if (track.empty()) return track;
    return std::string(1, start) + bare(track) + "?";
}

// Track 2 or 3 as the escape reader sends it.
Bytes escape_track(const std::string& track, char separator) {
    const std::string t = bare(track);
    if (t.empty()) return Bytes{0x7F};
    Bytes out;
    for (char ch : t) out.push_back(static_cast<uint8_t>(ch == '=' ? separator : ch));
    return out;
}

// Written track text as the stripe keeps it: the separator back to "=",
// and the sentinels around it.
std::string written_track(const std::string& text, char separator) {
    std::string t = text;
    if (separator != '=') std::replace(t.begin(), t.end(), separator, '=');
    if (t.empty() || t == "\x7F") return "";
    return ";" + t + "?";
}

void append(Bytes& out, const Bytes& b) { out.insert(out.end(), b.begin(), b.end()); }

}  // namespace

// --- wire forms -------------------------------------------------------------------

Bytes stripe_framed_data(const StripeCard& card, uint8_t no_data_status) {
    const std::string t[3] = {with_sentinels(card.track1, '%'), with_sentinels(card.track2, ';'),
                              with_sentinels(card.track3, ';')};
    auto status = [&](int i) { return t[i].empty() ? no_data_status : uint8_t{0x00}; };
    Bytes d;
    d.push_back(0x00);
    d.push_back(status(0));
    d.push_back(status(1));
    d.push_back(status(2));  // shares its place with the high byte of the track-1 length
    d.push_back(static_cast<uint8_t>(t[0].size() & 0xFF));
    for (int i = 1; i < 3; ++i) {
        d.push_back(static_cast<uint8_t>(t[i].size() >> 8));
        d.push_back(static_cast<uint8_t>(t[i].size() & 0xFF));
    }
    for (const auto& track : t) d.insert(d.end(), track.begin(), track.end());
    return d;
}

Bytes stripe_escape_reply(const StripeCard& card, int mode, const StripeStyle& style) {
    Bytes r{kEsc, 's'};
    if (mode == 2 || mode == 23) append(r, escape_track(card.track2, style.separator));
    if (mode == 3 || (mode == 23 && !style.omit_a)) r.push_back('A');
    if (mode == 3 || mode == 23) append(r, escape_track(card.track3, style.separator));
    r.push_back('?');
    r.push_back(kFs);
    append(r, style.trailer);
    return r;
}

Bytes stripe_write_status(bool track3, bool ok, uint8_t fail_byte) {
    Bytes s{kEsc, '0'};
    if (track3) s.push_back('0');
    s.push_back(ok ? 'p' : fail_byte);
    return s;
}

// --- commands ---------------------------------------------------------------------

StripeUnit::StripeUnit(const StripeProfile& profile) : style_(profile.style), write_fails_(profile.write_fails) {
    if (profile.card_stays) {
        staying_ = profile.card;
        staying_after_ms_ = profile.swipe_delay_ms;
    }
}

void StripeUnit::framed_read(const Command& c, Clock::time_point now) {
    Waiting w;
    w.op = Op::FramedRead;
    w.command = c;
    const int seconds = c.data.empty() ? 0 : c.data[0];
    if (seconds > 0) w.timeout_at = now + std::chrono::seconds(seconds);
    begin(std::move(w), now);
}

void StripeUnit::escape(const Command& c, Clock::time_point now) {
    commands_.push_back(c.data);
    const Bytes& d = c.data;
    if (c.code == '0') {
        ++resets_;
        give_back_swipe();
        waiting_.reset();
        return;
    }
    Waiting w;
    w.command = c;
    if (c.code == 'O') {
        if (d.size() < 4) return;  // ESC "O" alone: nothing to do
        w.op = Op::Read;
        w.mode = d[3] == ']' ? 2 : d[3] == 'T' ? 3 : 23;
    } else if (c.code == 't') {
        // ESC "t", [track 2] ["A" track 3], GS ESC "\" ESC "j".
        w.op = Op::Write;
        const std::string payload(d.begin() + 2, d.end() - 5);
        const auto a = payload.find('A');
        const std::string t2 = payload.substr(0, a);
        if (!t2.empty()) w.t2 = t2;
        if (a != std::string::npos) w.t3 = payload.substr(a + 1);
    } else {
        return;
    }
    begin(std::move(w), now);
}

// A new command takes the place of one still waiting.
void StripeUnit::begin(Waiting w, Clock::time_point now) {
    give_back_swipe();
    waiting_ = std::move(w);
    assign_swipe(now);
}

// The waiting command gets the next queued swipe, or the staying card.
void StripeUnit::assign_swipe(Clock::time_point now) {
    if (!waiting_ || waiting_->swipe) return;
    if (!queue_.empty()) {
        waiting_->swipe = std::move(queue_.front());
        queue_.pop_front();
    } else if (staying_) {
        waiting_->swipe = Swipe{Swipe::Staying, {}, staying_after_ms_};
    } else {
        return;
    }
    waiting_->swipe_at = now + std::chrono::milliseconds(std::max(0, waiting_->swipe->after_ms));
}

// A command that goes away before its card came: the card was not swiped
// yet, so it waits for the next command.
void StripeUnit::give_back_swipe() {
    if (!waiting_ || !waiting_->swipe) return;
    if (waiting_->swipe->source != Swipe::Staying) queue_.push_front(std::move(*waiting_->swipe));
    waiting_->swipe.reset();
    waiting_->swipe_at.reset();
}

StripeCard StripeUnit::card_of(const Swipe& s) const {
    switch (s.source) {
        case Swipe::Given: return s.card;
        case Swipe::Again: return memory_.value_or(StripeCard{});
        case Swipe::Staying: return staying_.value_or(StripeCard{});
    }
    return {};
}

// --- swipes -------------------------------------------------------------------------

void StripeUnit::swipe(StripeCard card, int after_ms, Clock::time_point now) {
    queue_.push_back(Swipe{Swipe::Given, std::move(card), after_ms});
    assign_swipe(now);
}

void StripeUnit::swipe_again(int after_ms, Clock::time_point now) {
    queue_.push_back(Swipe{Swipe::Again, {}, after_ms});
    assign_swipe(now);
}

void StripeUnit::no_swipe() {
    queue_.clear();
    staying_.reset();
    if (waiting_) {
        waiting_->swipe.reset();
        waiting_->swipe_at.reset();
    }
}

void StripeUnit::set_card(std::optional<StripeCard> card, int after_ms, Clock::time_point now) {
    staying_ = std::move(card);
    staying_after_ms_ = after_ms;
    if (!staying_ && waiting_ && waiting_->swipe && waiting_->swipe->source == Swipe::Staying) {
        waiting_->swipe.reset();
        waiting_->swipe_at.reset();
    }
    assign_swipe(now);
}

// --- time -----------------------------------------------------------------------------

// The card goes through the reader: the waiting command is answered.
void StripeUnit::complete(Waiting w, Clock::time_point now) {
    StripeCard card = card_of(*w.swipe);
    switch (w.op) {
        case Op::FramedRead:
            outbox_.push_back(Piece{
                now, StripeOutput{w.command, Reply{0x00, 0x00, stripe_framed_data(card, style_.no_data_status)}, {}}});
            break;
        case Op::Read:
            send_pieces(w.command, stripe_escape_reply(card, w.mode, style_), now);
            break;
        case Op::Write: {
            if (!write_fails_) {
                if (w.t2) card.track2 = written_track(*w.t2, style_.separator);
                if (w.t3) card.track3 = written_track(*w.t3, style_.separator);
                if (w.swipe->source == Swipe::Staying) staying_ = card;
            }
            const Bytes status = stripe_write_status(w.t3.has_value(), !write_fails_, style_.write_fail_byte);
            outbox_.push_back(Piece{now, StripeOutput{w.command, std::nullopt, status}});
            break;
        }
    }
    memory_ = std::move(card);
}

// The reply in the style's pieces, after whatever is still on its way.
void StripeUnit::send_pieces(const Command& c, const Bytes& reply, Clock::time_point now) {
    Clock::time_point at = outbox_.empty() ? now : std::max(now, outbox_.back().at);
    size_t pos = 0;
    for (size_t size : style_.pieces) {
        if (pos >= reply.size()) break;
        const size_t n = std::min(size, reply.size() - pos);
        if (n == 0) continue;
        outbox_.push_back(Piece{at, StripeOutput{c, std::nullopt, Bytes(reply.begin() + static_cast<long>(pos),
                                                                         reply.begin() + static_cast<long>(pos + n))}});
        pos += n;
        at += std::chrono::milliseconds(std::max(0, style_.piece_delay_ms));
    }
    if (pos < reply.size())
        outbox_.push_back(
            Piece{at, StripeOutput{c, std::nullopt, Bytes(reply.begin() + static_cast<long>(pos), reply.end())}});
}

std::vector<StripeOutput> StripeUnit::tick(Clock::time_point now) {
    if (waiting_) {
        const auto& w = *waiting_;
        const bool timed_out = w.timeout_at && now >= *w.timeout_at && (!w.swipe_at || *w.swipe_at > *w.timeout_at);
        if (timed_out) {
            // The card that was to come is too late: it is gone.
            outbox_.push_back(Piece{now, StripeOutput{w.command, Reply{0x90, 0x01, {}}, {}}});
            waiting_.reset();
        } else if (w.swipe_at && now >= *w.swipe_at) {
            Waiting done = std::move(*waiting_);
            waiting_.reset();
            complete(std::move(done), now);
        }
    }
    std::vector<StripeOutput> out;
    while (!outbox_.empty() && outbox_.front().at <= now) {
        out.push_back(std::move(outbox_.front().out));
        outbox_.pop_front();
    }
    return out;
}

StripeUnit::Clock::time_point StripeUnit::next_due() const {
    auto next = Clock::time_point::max();
    if (!outbox_.empty()) next = outbox_.front().at;
    if (waiting_) {
        if (waiting_->swipe_at) next = std::min(next, *waiting_->swipe_at);
        if (waiting_->timeout_at) next = std::min(next, *waiting_->timeout_at);
    }
    return next;
}

}  // namespace kolt::sim
