// The server thread: line input, frames in, replies out, faults and pacing.
#include "frame_server_internal.hpp"

#include <poll.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <utility>

#include "util_internal.hpp"

namespace kolt::sim {

using namespace std::chrono_literals;

namespace {

// Stray bytes written before a reply by the GarbageBefore fault; none of
// them can start a reply of any framing.
const Bytes kGarbage = {0x00, 0x55, 0xAA, 'Z', 0x7F, 0xFF};

// One byte on a 9600 baud 8N1 line: start bit, 8 data bits, stop bit.
constexpr std::chrono::nanoseconds kByteTime{1'041'667};

const char* fault_name(Fault::Kind k) {
    static const char* const names[] = {"no reply",       "bad check",      "truncate",       "garbage before",
                                        "length too long", "delay",         "close mid-frame", "garbage inside",
                                        "trickle",         "split bytes",   "other reply",     "length huge"};
    return names[k];
}

}  // namespace

FrameServer::FrameServer(const Options& options, Dispatch dispatch)
    : pace_(options.pace), verbose_(options.verbose), dispatch_(std::move(dispatch)) {
    if (options.terminal.type != 0) term_.emplace(terminal_sequences(options.terminal));
    pty_ = open_pty();
    std::tie(wake_r_, wake_w_) = open_pipe();
}

FrameServer::~FrameServer() { stop(); }

// --- the thread ------------------------------------------------------------------------

void FrameServer::start() {
    std::lock_guard l(m_);
    if (running_) return;
    stopping_ = false;
    thread_ = std::thread([this] { serve(); });
    running_ = true;
}

void FrameServer::stop() {
    {
        std::lock_guard l(m_);
        if (!running_) return;
        stopping_ = true;
        cv_.notify_all();
    }
    const uint8_t b = 1;
    [[maybe_unused]] auto ignored = ::write(wake_w_.get(), &b, 1);
    thread_.join();
    std::lock_guard l(m_);
    running_ = false;
}

bool FrameServer::running() const {
    std::lock_guard l(m_);
    return running_;
}

void FrameServer::serve() {
    uint8_t buf[4096];
    while (!stopping_) {
        pollfd pfd[2] = {{pty_.master.get(), POLLIN, 0}, {wake_r_.get(), POLLIN, 0}};
        const timespec ts = poll_timeout();
        const int r = ::ppoll(pfd, 2, &ts, nullptr);
        if (stopping_) break;
        if (r < 0) {
            if (errno == EINTR) continue;
            std::this_thread::sleep_for(10ms);
            continue;
        }
        if (pfd[1].revents & POLLIN) {
            while (::read(wake_r_.get(), buf, sizeof buf) > 0) {
            }
        }
        if (pfd[0].revents & POLLIN) {
            const ssize_t n = ::read(pty_.master.get(), buf, sizeof buf);
            if (n > 0) {
                on_input(buf, static_cast<size_t>(n));
                on_crossed();
                on_timer();
                continue;
            }
            std::this_thread::sleep_for(5ms);
        } else if (pfd[0].revents & (POLLHUP | POLLERR)) {
            std::this_thread::sleep_for(10ms);
        }
        on_crossed();
        on_idle();
        on_timer();
    }
}

void FrameServer::wake() {
    const uint8_t b = 1;
    [[maybe_unused]] auto ignored = ::write(wake_w_.get(), &b, 1);
}

// Short while a frame is incomplete, and no later than the timer's next
// event or the moment the next bytes on the line have crossed it.
timespec FrameServer::poll_timeout() const {
    std::lock_guard l(m_);
    const auto now = Clock::now();
    auto wait = std::chrono::duration_cast<Clock::duration>(
        (!parser_.empty() || (term_ && term_->pending())) ? 25ms : 500ms);
    if (next_due_ != Clock::time_point::max()) wait = std::min(wait, next_due_ - now);
    if (!crossing_.empty()) wait = std::min(wait, crossing_.front().done - now);
    const long long ns = std::max<long long>(std::chrono::nanoseconds(wait).count(), 0);
    return timespec{static_cast<time_t>(ns / 1'000'000'000), static_cast<long>(ns % 1'000'000'000)};
}

// --- input -----------------------------------------------------------------------------

// Bytes read from the line. Unpaced they count as received at once. Paced,
// they first cross a 9600 baud 8N1 line (10 bits a byte) that carries one
// byte at a time: bytes read at t have crossed at max(t, line busy until) +
// n byte times, and only then are they recorded and handed to the parser
// (on_crossed), so that a command is answered no earlier than a real unit
// could have had all of it.
void FrameServer::on_input(const uint8_t* p, size_t n) {
    if (pace_) {
        std::lock_guard l(m_);
        const auto start = std::max(Clock::now(), rx_busy_until_);
        rx_busy_until_ = start + std::chrono::duration_cast<Clock::duration>(kByteTime * static_cast<long>(n));
        crossing_.push_back(Crossing{rx_busy_until_, Bytes(p, p + n)});
        return;
    }
    receive(p, n);
}

// Hands over the bytes that have crossed the line by now, in order.
void FrameServer::on_crossed() {
    for (;;) {
        Bytes bytes;
        {
            std::lock_guard l(m_);
            if (crossing_.empty() || crossing_.front().done > Clock::now()) return;
            bytes = std::move(crossing_.front().bytes);
            crossing_.pop_front();
        }
        receive(bytes.data(), bytes.size());
    }
}

void FrameServer::receive(const uint8_t* p, size_t n) {
    std::vector<Outgoing> out;
    {
        std::lock_guard l(m_);
        rx_.insert(rx_.end(), p, p + n);
        // A dead line: behind a terminal it is the reader's cable that is
        // cut; the terminal still follows its sequences, but what it
        // forwards to the reader is lost.
        const bool dead = Clock::now() < dead_until_;
        if (dead && !term_) return;
        last_rx_ = Clock::now();
        if (term_) {
            const std::string data = term_->feed(std::string_view(reinterpret_cast<const char*>(p), n));
            if (dead) return;
            parser_.append(std::span(reinterpret_cast<const uint8_t*>(data.data()), data.size()));
        } else {
            parser_.append(std::span(p, n));
        }
        parser_.parse(*this, false, false);
        out = take_replies();
    }
    for (const auto& o : out) send(o);
}

void FrameServer::on_idle() {
    std::vector<Outgoing> out;
    {
        std::lock_guard l(m_);
        // Bytes still crossing the line: the host has not gone quiet.
        if (!crossing_.empty()) return;
        const auto now = Clock::now();
        if (term_) term_->idle(now, 300ms);
        if (parser_.empty()) return;
        const auto quiet = now - last_rx_;
        if (quiet >= 50ms) parser_.parse(*this, true, quiet >= 600ms);
        out = take_replies();
    }
    for (const auto& o : out) send(o);
}

void FrameServer::on_timer() {
    std::vector<Outgoing> out;
    {
        std::lock_guard l(m_);
        if (!timer_) return;
        const auto now = Clock::now();
        if (now < dead_until_) return;
        for (auto& late : timer_(now, next_due_)) {
            if (late.answer) {
                out.push_back(outgoing(late.command, *late.answer));
            } else {
                // Unframed answers (the stripe reader's escape replies) take
                // the faults of their command too.
                Outgoing o;
                o.fault = take_fault(key_of(late.command.cls, late.command.code), late.command);
                o.wire = std::move(late.raw);
                if (o.fault) apply_to_wire(o, late.command);
                out.push_back(std::move(o));
            }
        }
    }
    for (const auto& o : out) send(o);
}

std::vector<FrameServer::Outgoing> FrameServer::take_replies() { return std::exchange(replies_, {}); }

void FrameServer::log(const std::string& line) const {
    if (verbose_) {
        std::fprintf(stderr, "kolt-sim: %s\n", line.c_str());
        std::fflush(stderr);
    }
}

void FrameServer::record(Command c) {
    if (verbose_) {
        char head[64];
        std::snprintf(head, sizeof head, "<- %s %02X %02X", framing_name(c.framing), c.cls, c.code);
        log(std::string(head) + (c.data.empty() ? "" : " [" + hex_dump(c.data) + "]"));
        if (describe_) {
            if (const std::string text = describe_(c); !text.empty()) log("   " + text);
        }
    }
    transcript_.push_back(std::move(c));
    cv_.notify_all();
}

void FrameServer::command(Command c) {
    record(c);
    const std::optional<Answer> answer = dispatch_(c);
    if (!answer) return;
    replies_.push_back(outgoing(c, *answer));
}

// The answer to `c` on the wire, with the fault that applies to it.
FrameServer::Outgoing FrameServer::outgoing(const Command& c, const Answer& answer) {
    Outgoing o;
    o.fault = take_fault(key_of(c.cls, c.code), c);
    Tweak tw;
    if (o.fault && o.fault->kind == Fault::BadCheck) tw.check_xor = 0x01;
    if (o.fault && o.fault->kind == Fault::LengthTooLong) tw.length_extra = 4;
    if (o.fault && o.fault->kind == Fault::LengthHuge) tw.length_max = true;
    if (o.fault && o.fault->kind == Fault::OtherReply) {
        o.wire = encode_answer(other_answer(c, answer), {});
        return o;
    }
    o.wire = encode_answer(answer, tw);
    return o;
}

// A well-formed answer to another command than the one answered: the
// greeting and the disconnect swap their replies, the version query gets
// the serial number's, everything else the version query's.
Answer FrameServer::other_answer(const Command& answered, const Answer& answer) const {
    if (answer.form == ReplyForm::Bracket && (answer.cmd == 0x41 || answer.cmd == 0x42)) {
        const uint8_t other = answer.cmd == 0x41 ? 0x42 : 0x41;
        if (auto a = dispatch_(Command{Framing::Bracket, 0, other, {}})) return *a;
    }
    if (answered.framing == Framing::Main && answered.cls == 0x31 && answered.code == 0x11) {
        // The version query itself gets the identity module's serial number.
        if (auto a = dispatch_(Command{Framing::Main, 0x35, 0x87, {}})) return *a;
    }
    if (auto a = dispatch_(Command{Framing::Main, 0x31, 0x11, {0x04}})) return *a;
    return Answer{ReplyForm::Main, Reply{0x00, 0x00, {}}, 0};
}

// The faults that change an unframed answer: no check field and no length
// to spoil, so only what happens to any bytes on a line.
void FrameServer::apply_to_wire(Outgoing& o, const Command& c) {
    switch (o.fault->kind) {
        case Fault::BadCheck:
            if (!o.wire.empty()) o.wire.back() ^= 0x01;
            break;
        case Fault::OtherReply:
            o.wire = encode_answer(other_answer(c, Answer{ReplyForm::Raw, {}, 0}), {});
            break;
        default:
            break;
    }
}

void FrameServer::raw(const RawRule& rule) {
    record(Command{Framing::Raw, 0, 0, rule.trigger});
    replies_.push_back(Outgoing{rule.reply, std::nullopt});
}

void FrameServer::error(const std::string& text) {
    frame_errors_.push_back(text);
    log("frame error: " + text);
}

// --- output ----------------------------------------------------------------------------

std::optional<Fault> FrameServer::take_fault(uint16_t key, const Command& c) {
    for (auto it = faults_.begin(); it != faults_.end(); ++it) {
        if (it->key && *it->key != key) continue;
        if (it->match && !it->match(c)) continue;
        Fault f = it->fault;
        if (it->remaining > 0 && --it->remaining == 0) faults_.erase(it);
        return f;
    }
    return std::nullopt;
}

void FrameServer::send(const Outgoing& o) {
    Bytes wire = o.wire;
    if (o.fault) {
        const Fault& f = *o.fault;
        log(std::string("fault: ") + fault_name(f.kind));
        switch (f.kind) {
            case Fault::NoReply:
                return;
            case Fault::Delay: {
                std::unique_lock l(m_);
                cv_.wait_for(l, std::chrono::milliseconds(f.delay_ms), [&] { return stopping_.load(); });
                break;
            }
            case Fault::GarbageBefore:
                wire.insert(wire.begin(), kGarbage.begin(), kGarbage.end());
                break;
            case Fault::Truncate:
                wire.resize(wire.size() / 2);
                break;
            case Fault::CloseMidFrame:
                cut_line(std::move(wire), f.delay_ms > 0 ? f.delay_ms : 1000);
                return;
            case Fault::GarbageInside:
                wire.insert(wire.begin() + static_cast<long>(wire.size() / 2), kGarbage.begin(), kGarbage.end());
                break;
            case Fault::Trickle:
                if (verbose_) log("-> (trickled) " + printable(std::string(wire.begin(), wire.end())));
                write_spaced(wire, f.delay_ms > 0 ? f.delay_ms : 200, true);
                return;
            case Fault::SplitBytes:
                if (verbose_) log("-> (split) " + printable(std::string(wire.begin(), wire.end())));
                write_spaced(wire, f.delay_ms > 0 ? f.delay_ms : 1, false);
                return;
            default:
                break;
        }
    }
    if (verbose_) log("-> " + printable(std::string(wire.begin(), wire.end())));
    write_all(wire);
}

// Half the reply goes out, then whatever the host sends is dropped for
// `dead_ms`, as if the cable was pulled.
void FrameServer::cut_line(Bytes wire, int dead_ms) {
    wire.resize(wire.size() / 2);
    write_all(wire);
    std::lock_guard l(m_);
    dead_until_ = Clock::now() + std::chrono::milliseconds(dead_ms);
    if (!term_) ::tcflush(pty_.master.get(), TCIFLUSH);
    parser_.clear();
}

// One byte a write, gap_ms after each. With give_up_on_input the rest is
// dropped as soon as the host sends something (a host that gave up on the
// reply and goes on).
void FrameServer::write_spaced(const Bytes& bytes, int gap_ms, bool give_up_on_input) {
    for (size_t i = 0; i < bytes.size(); ++i) {
        if (stopping_) return;
        if (!write_all(Bytes{bytes[i]})) return;
        if (i + 1 == bytes.size()) break;
        if (give_up_on_input) {
            pollfd pfd{pty_.master.get(), POLLIN, 0};
            if (::poll(&pfd, 1, gap_ms) > 0 && (pfd.revents & POLLIN)) {
                log("host sent again; rest of the trickled reply dropped");
                return;
            }
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(gap_ms));
        }
    }
}

bool FrameServer::write_all(const Bytes& bytes) {
    std::lock_guard wl(write_m_);
    const auto start = Clock::now();
    const auto per_byte = std::chrono::nanoseconds(1'041'667);  // 10 bits at 9600 baud
    size_t done = 0;
    auto give_up = Clock::now() + 3s;
    while (done < bytes.size()) {
        if (stopping_) return false;
        const size_t chunk = pace_ ? 1 : bytes.size() - done;
        ssize_t w = 0;
        int err = 0;
        {
            // Recorded under the lock together with the write, so that a
            // host that has read the reply also finds it in raw_sent().
            std::lock_guard l(m_);
            w = ::write(pty_.master.get(), bytes.data() + done, chunk);
            err = errno;
            if (w > 0)
                tx_.insert(tx_.end(), bytes.begin() + static_cast<long>(done),
                           bytes.begin() + static_cast<long>(done + static_cast<size_t>(w)));
        }
        if (w > 0) {
            done += static_cast<size_t>(w);
            give_up = Clock::now() + 3s;
            if (pace_) std::this_thread::sleep_until(start + per_byte * done);
            continue;
        }
        if (w < 0 && err != EAGAIN && err != EINTR) return false;
        if (Clock::now() > give_up) {
            log("host does not read; reply dropped");
            return false;
        }
        pollfd pfd{pty_.master.get(), POLLOUT, 0};
        ::poll(&pfd, 1, 20);
    }
    return true;
}

// --- records, faults, raw rules, terminal ---------------------------------------------

std::vector<Command> FrameServer::transcript() const {
    std::lock_guard l(m_);
    return transcript_;
}

void FrameServer::clear_transcript() {
    std::lock_guard l(m_);
    transcript_.clear();
}

bool FrameServer::wait_for_commands(size_t n, int timeout_ms) const {
    std::unique_lock l(m_);
    return cv_.wait_for(l, std::chrono::milliseconds(timeout_ms), [&] { return transcript_.size() >= n; });
}

Bytes FrameServer::raw_received() const {
    std::lock_guard l(m_);
    return rx_;
}

Bytes FrameServer::raw_sent() const {
    std::lock_guard l(m_);
    return tx_;
}

void FrameServer::clear_raw() {
    std::lock_guard l(m_);
    rx_.clear();
    tx_.clear();
}

std::vector<std::string> FrameServer::frame_errors() const {
    std::lock_guard l(m_);
    return frame_errors_;
}

void FrameServer::inject(Fault fault, int count, std::optional<uint16_t> key, Simulator::Match match) {
    if (count == 0) return;
    std::lock_guard l(m_);
    faults_.push_back({fault, count, key, std::move(match)});
}

void FrameServer::clear_faults() {
    std::lock_guard l(m_);
    faults_.clear();
}

void FrameServer::add_raw_rule(Bytes trigger, Bytes reply) {
    if (trigger.empty()) throw std::invalid_argument("raw rule without trigger");
    std::lock_guard l(m_);
    parser_.add_raw_rule(RawRule{std::move(trigger), std::move(reply)});
}

void FrameServer::clear_raw_rules() {
    std::lock_guard l(m_);
    parser_.clear_raw_rules();
}

std::vector<std::string> FrameServer::terminal_errors() const {
    std::lock_guard l(m_);
    return term_ ? term_->errors() : std::vector<std::string>{};
}

std::vector<std::string> FrameServer::terminal_events() const {
    std::lock_guard l(m_);
    return term_ ? term_->events() : std::vector<std::string>{};
}

bool FrameServer::aux_open() const {
    std::lock_guard l(m_);
    return term_ && term_->aux_open();
}

bool FrameServer::keyboard_locked() const {
    std::lock_guard l(m_);
    return term_ && term_->locked();
}

}  // namespace kolt::sim
