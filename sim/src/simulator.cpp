// The simulator's server: pseudo-terminal, frame parser, command handling,
// fault injection and output pacing.
#include "kolt_sim/simulator.hpp"

#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <thread>
#include <utility>

#include "device_model_internal.hpp"
#include "dispatch_internal.hpp"
#include "frame_internal.hpp"
#include "pty_internal.hpp"
#include "terminal_internal.hpp"
#include "util_internal.hpp"

namespace kolt::sim {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

const char* framing_name(Framing f) {
    switch (f) {
        case Framing::Main: return "main";
        case Framing::Bracket: return "bracket";
        case Framing::Legacy86: return "legacy86";
        case Framing::Probe: return "probe";
        case Framing::Raw: return "raw";
    }
    return "?";
}

namespace {

// Stray bytes written before a reply by the GarbageBefore fault; none of
// them can start a reply of any framing.
const Bytes kGarbage = {0x00, 0x55, 0xAA, 'Z', 0x7F, 0xFF};

bool is_nibble(uint8_t c) { return c >= 0x30 && c <= 0x3F; }
bool is_b64(uint8_t c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' || c == '/' ||
           c == '=';
}

}  // namespace

struct Simulator::Impl {
    // A reply ready to go, before the fault is applied to its timing.
    struct Outgoing {
        Bytes wire;
        std::optional<Fault> fault;
    };
    struct FaultEntry {
        Fault fault;
        int remaining;
        std::optional<uint16_t> key;
    };
    struct RawRule {
        Bytes trigger, reply;
    };
    enum class Parse { Complete, NeedMore, NotFrame, Bad };

    Options opt;

    mutable std::mutex m;
    mutable std::condition_variable cv;
    std::mutex write_m;

    Pty pty;
    Fd wake_r, wake_w;
    std::thread thread;
    std::atomic<bool> stopping{false};
    bool running = false;

    // Everything below is guarded by m.
    std::vector<Command> transcript;
    Bytes rx, tx;
    std::vector<std::string> frame_errors;
    DeviceModel model;
    Dispatcher dispatcher;
    std::vector<FaultEntry> faults;
    std::vector<RawRule> raw_rules;
    std::optional<TerminalEmulator> term;

    Bytes in;  // device-side input not yet parsed
    Clock::time_point last_rx{};
    Clock::time_point dead_until{};

    explicit Impl(Options o) : opt(std::move(o)), model(opt.profile) {
        add_builtin_commands(dispatcher, model);
        if (opt.terminal.type != 0) term.emplace(terminal_sequences(opt.terminal));
        pty = open_pty();
        std::tie(wake_r, wake_w) = open_pipe();
    }

    void log(const std::string& line) const {
        if (opt.verbose) {
            std::fprintf(stderr, "kolt-sim: %s\n", line.c_str());
            std::fflush(stderr);
        }
    }

    void record(Command c) {
        if (opt.verbose) {
            char head[64];
            std::snprintf(head, sizeof head, "<- %s %02X %02X", framing_name(c.framing), c.cls, c.code);
            log(std::string(head) + (c.data.empty() ? "" : " [" + hex_dump(c.data) + "]"));
        }
        transcript.push_back(std::move(c));
        cv.notify_all();
    }

    std::optional<Fault> take_fault(uint16_t key) {
        for (auto it = faults.begin(); it != faults.end(); ++it) {
            if (it->key && *it->key != key) continue;
            Fault f = it->fault;
            if (it->remaining > 0 && --it->remaining == 0) faults.erase(it);
            return f;
        }
        return std::nullopt;
    }

    // Records a decoded command and queues the reply the dispatch gives it.
    void on_command(Command c, std::vector<Outgoing>& out) {
        record(c);
        const std::optional<Answer> answer = dispatcher.dispatch(c);
        if (!answer) return;
        Outgoing o;
        o.fault = take_fault(key_of(c.cls, c.code));
        Tweak tw;
        if (o.fault && o.fault->kind == Fault::BadCheck) tw.check_xor = 0x01;
        if (o.fault && o.fault->kind == Fault::LengthTooLong) tw.length_extra = 4;
        o.wire = encode_answer(*answer, tw);
        out.push_back(std::move(o));
    }

    // --- parser -------------------------------------------------------------------

    void frame_error(const std::string& what, size_t n) {
        const Bytes shown(in.begin(), in.begin() + static_cast<long>(std::min<size_t>(n, 64)));
        frame_errors.push_back(what + ": " + printable(std::string(shown.begin(), shown.end())));
        log("frame error: " + frame_errors.back());
    }

    Parse try_main(size_t& n, std::vector<Outgoing>& out) {
        if (in.size() < 5) {
            for (size_t i = 1; i < in.size(); ++i)
                if (!is_nibble(in[i])) return Parse::NotFrame;
            return Parse::NeedMore;
        }
        for (size_t i = 1; i < 5; ++i)
            if (!is_nibble(in[i])) return Parse::NotFrame;
        const size_t len = static_cast<size_t>((in[1] - '0') << 12 | (in[2] - '0') << 8 | (in[3] - '0') << 4 |
                                               (in[4] - '0'));
        const size_t total = 1 + 4 + 2 * len + 2 + 1;
        for (size_t i = 5; i < std::min(total - 1, in.size()); ++i) {
            if (!is_nibble(in[i])) {
                frame_error("main frame shorter than its length", i + 1);
                return Parse::Bad;
            }
        }
        if (in.size() < total) return Parse::NeedMore;
        n = total;
        if (in[total - 1] != 0x03) {
            frame_error("main frame without 0x03 at its end", total);
            return Parse::Bad;
        }
        auto f = decode_main(std::span(in.data(), total));
        if (!f || len < 2) {
            frame_error("main frame with a wrong check byte", total);
            return Parse::Bad;
        }
        on_command(Command{Framing::Main, f->a, f->b, std::move(f->data)}, out);
        return Parse::Complete;
    }

    Parse try_bracket(size_t& n, std::vector<Outgoing>& out) {
        for (size_t i = 1; i < std::min<size_t>(4, in.size()); ++i)
            if (!is_b64(in[i])) return Parse::NotFrame;
        if (in.size() < 4) return Parse::NeedMore;
        auto r = bracket_length(std::span(in.data() + 1, 3));
        if (!r || *r < 4) return Parse::NotFrame;
        const size_t total = 4 + *r;
        for (size_t i = 5; i < std::min(total - 1, in.size()); ++i) {
            if (!is_b64(in[i])) {
                frame_error("bracket frame shorter than its length", i + 1);
                return Parse::Bad;
            }
        }
        if (in.size() < total) return Parse::NeedMore;
        n = total;
        auto f = decode_bracket(std::span(in.data(), total));
        if (!f) {
            frame_error("bracket frame with a wrong check or end", total);
            return Parse::Bad;
        }
        on_command(Command{Framing::Bracket, 0, f->cmd, std::move(f->data)}, out);
        return Parse::Complete;
    }

    Parse try_86(size_t& n, std::vector<Outgoing>& out, bool idle) {
        // The probe: an 0x86 query immediately followed by a bracket "A".
        const size_t probe_n = std::min(in.size(), kProbe.size());
        if (std::equal(in.begin(), in.begin() + static_cast<long>(probe_n), kProbe.begin())) {
            if (probe_n == kProbe.size()) {
                n = probe_n;
                on_command(Command{Framing::Probe, 0, 0, {}}, out);
                return Parse::Complete;
            }
            if (!idle) return Parse::NeedMore;
        }
        const size_t have = std::min<size_t>(in.size(), 6);
        for (size_t i = 1; i < have; ++i)
            if (!is_nibble(in[i])) return Parse::NotFrame;
        if (in.size() >= 2 && in[1] != '6') return Parse::NotFrame;
        if (in.size() < 6) return Parse::NeedMore;
        const size_t len = static_cast<size_t>((in[2] - '0') << 12 | (in[3] - '0') << 8 | (in[4] - '0') << 4 |
                                               (in[5] - '0'));
        const size_t total = 6 + 2 * len;
        for (size_t i = 6; i < std::min(total, in.size()); ++i)
            if (!is_nibble(in[i])) return Parse::NotFrame;
        if (in.size() < total) return Parse::NeedMore;
        auto payload = decode_86(std::span(in.data(), total));
        if (!payload) return Parse::NotFrame;
        n = total;
        on_command(Command{Framing::Legacy86, 0x86, payload->empty() ? uint8_t{0} : payload->front(), {}}, out);
        return Parse::Complete;
    }

    // Raw rules come first: 1 fired, 0 no match, -1 a trigger has begun.
    int try_raw(std::vector<Outgoing>& out) {
        bool partial = false;
        for (const auto& rule : raw_rules) {
            if (in.size() >= rule.trigger.size()) {
                if (std::equal(rule.trigger.begin(), rule.trigger.end(), in.begin())) {
                    in.erase(in.begin(), in.begin() + static_cast<long>(rule.trigger.size()));
                    record(Command{Framing::Raw, 0, 0, rule.trigger});
                    out.push_back(Outgoing{rule.reply, std::nullopt});
                    return 1;
                }
            } else if (std::equal(in.begin(), in.end(), rule.trigger.begin())) {
                partial = true;
            }
        }
        return partial ? -1 : 0;
    }

    // Parses what can be parsed. `idle`: no byte came for a while, so an
    // incomplete probe is taken for what it is; `stale`: an incomplete frame
    // has waited too long and its first byte is given up.
    void parse(std::vector<Outgoing>& out, bool idle, bool stale) {
        while (!in.empty()) {
            const int raw = try_raw(out);
            if (raw > 0) continue;
            size_t n = 1;
            Parse p = Parse::NotFrame;
            if (raw < 0) {
                p = Parse::NeedMore;
            } else if (in[0] == 0x02) {
                p = try_main(n, out);
            } else if (in[0] == '(') {
                p = try_bracket(n, out);
            } else if (in[0] == '8') {
                p = try_86(n, out, idle);
            }
            if (p == Parse::NeedMore) {
                if (!stale) return;
                frame_error("incomplete frame dropped", in.size());
                p = Parse::NotFrame;
                n = 1;
            }
            if (p == Parse::Bad) n = 1;  // resynchronise just after the broken start
            in.erase(in.begin(), in.begin() + static_cast<long>(n));
        }
    }

    // --- I/O --------------------------------------------------------------------------

    bool write_all(const Bytes& bytes) {
        std::lock_guard wl(write_m);
        const auto start = Clock::now();
        const auto per_byte = std::chrono::nanoseconds(1'041'667);  // 10 bits at 9600 baud
        size_t done = 0;
        auto give_up = Clock::now() + 3s;
        while (done < bytes.size()) {
            if (stopping) return false;
            const size_t chunk = opt.pace ? 1 : bytes.size() - done;
            ssize_t w = 0;
            int err = 0;
            {
                // Recorded under the lock together with the write, so that a
                // host that has read the reply also finds it in raw_sent().
                std::lock_guard l(m);
                w = ::write(pty.master.get(), bytes.data() + done, chunk);
                err = errno;
                if (w > 0)
                    tx.insert(tx.end(), bytes.begin() + static_cast<long>(done),
                              bytes.begin() + static_cast<long>(done + static_cast<size_t>(w)));
            }
            if (w > 0) {
                done += static_cast<size_t>(w);
                give_up = Clock::now() + 3s;
                if (opt.pace) std::this_thread::sleep_until(start + per_byte * done);
                continue;
            }
            if (w < 0 && err != EAGAIN && err != EINTR) return false;
            if (Clock::now() > give_up) {
                log("host does not read; reply dropped");
                return false;
            }
            pollfd pfd{pty.master.get(), POLLOUT, 0};
            ::poll(&pfd, 1, 20);
        }
        return true;
    }

    void send(const Outgoing& o) {
        Bytes wire = o.wire;
        if (o.fault) {
            const Fault& f = *o.fault;
            static const char* const names[] = {"no reply", "bad check", "truncate", "garbage before",
                                                "length too long", "delay", "close mid-frame"};
            log(std::string("fault: ") + names[f.kind]);
            switch (f.kind) {
                case Fault::NoReply:
                    return;
                case Fault::Delay: {
                    std::unique_lock l(m);
                    cv.wait_for(l, std::chrono::milliseconds(f.delay_ms), [&] { return stopping.load(); });
                    break;
                }
                case Fault::GarbageBefore:
                    wire.insert(wire.begin(), kGarbage.begin(), kGarbage.end());
                    break;
                case Fault::Truncate:
                    wire.resize(wire.size() / 2);
                    break;
                case Fault::CloseMidFrame: {
                    wire.resize(wire.size() / 2);
                    write_all(wire);
                    std::lock_guard l(m);
                    dead_until = Clock::now() + std::chrono::milliseconds(f.delay_ms > 0 ? f.delay_ms : 1000);
                    ::tcflush(pty.master.get(), TCIFLUSH);
                    in.clear();
                    if (term) term->drop_input();
                    return;
                }
                default:
                    break;
            }
        }
        if (opt.verbose) log("-> " + printable(std::string(wire.begin(), wire.end())));
        write_all(wire);
    }

    void on_input(const uint8_t* p, size_t n) {
        std::vector<Outgoing> out;
        {
            std::lock_guard l(m);
            rx.insert(rx.end(), p, p + n);
            if (Clock::now() < dead_until) return;  // the line is dead
            last_rx = Clock::now();
            if (term) {
                const std::string data = term->feed(std::string_view(reinterpret_cast<const char*>(p), n));
                in.insert(in.end(), data.begin(), data.end());
            } else {
                in.insert(in.end(), p, p + n);
            }
            parse(out, false, false);
        }
        for (const auto& o : out) send(o);
    }

    void on_idle() {
        std::vector<Outgoing> out;
        {
            std::lock_guard l(m);
            const auto now = Clock::now();
            if (term) term->idle(now, 300ms);
            if (in.empty()) return;
            const auto quiet = now - last_rx;
            if (quiet >= 50ms) parse(out, true, quiet >= 600ms);
        }
        for (const auto& o : out) send(o);
    }

    bool has_pending() const {
        std::lock_guard l(m);
        return !in.empty() || (term && term->pending());
    }

    void serve() {
        uint8_t buf[4096];
        while (!stopping) {
            pollfd pfd[2] = {{pty.master.get(), POLLIN, 0}, {wake_r.get(), POLLIN, 0}};
            const int r = ::poll(pfd, 2, has_pending() ? 25 : 500);
            if (stopping) break;
            if (r < 0) {
                if (errno == EINTR) continue;
                std::this_thread::sleep_for(10ms);
                continue;
            }
            if (pfd[1].revents & POLLIN) {
                while (::read(wake_r.get(), buf, sizeof buf) > 0) {
                }
            }
            if (pfd[0].revents & POLLIN) {
                const ssize_t n = ::read(pty.master.get(), buf, sizeof buf);
                if (n > 0) {
                    on_input(buf, static_cast<size_t>(n));
                    continue;
                }
                std::this_thread::sleep_for(5ms);
            } else if (pfd[0].revents & (POLLHUP | POLLERR)) {
                std::this_thread::sleep_for(10ms);
            }
            on_idle();
        }
    }
};

// --- public interface ------------------------------------------------------------------

Simulator::Simulator(Options options) : impl_(std::make_unique<Impl>(std::move(options))) {}

Simulator::~Simulator() { stop(); }

void Simulator::start() {
    std::lock_guard l(impl_->m);
    if (impl_->running) return;
    impl_->stopping = false;
    impl_->thread = std::thread([this] { impl_->serve(); });
    impl_->running = true;
}

void Simulator::stop() {
    {
        std::lock_guard l(impl_->m);
        if (!impl_->running) return;
        impl_->stopping = true;
        impl_->cv.notify_all();
    }
    const uint8_t b = 1;
    [[maybe_unused]] auto ignored = ::write(impl_->wake_w.get(), &b, 1);
    impl_->thread.join();
    std::lock_guard l(impl_->m);
    impl_->running = false;
}

bool Simulator::running() const {
    std::lock_guard l(impl_->m);
    return impl_->running;
}

std::string Simulator::slave_path() const { return impl_->pty.slave_path; }

std::string Simulator::port_name() const {
    const std::string& p = impl_->pty.slave_path;
    return p.rfind("/dev/", 0) == 0 ? p.substr(5) : p;
}

std::vector<Command> Simulator::transcript() const {
    std::lock_guard l(impl_->m);
    return impl_->transcript;
}

void Simulator::clear_transcript() {
    std::lock_guard l(impl_->m);
    impl_->transcript.clear();
}

bool Simulator::wait_for_commands(size_t n, int timeout_ms) const {
    std::unique_lock l(impl_->m);
    return impl_->cv.wait_for(l, std::chrono::milliseconds(timeout_ms),
                              [&] { return impl_->transcript.size() >= n; });
}

std::vector<uint8_t> Simulator::raw_received() const {
    std::lock_guard l(impl_->m);
    return impl_->rx;
}

std::vector<uint8_t> Simulator::raw_sent() const {
    std::lock_guard l(impl_->m);
    return impl_->tx;
}

void Simulator::clear_raw() {
    std::lock_guard l(impl_->m);
    impl_->rx.clear();
    impl_->tx.clear();
}

std::vector<std::string> Simulator::frame_errors() const {
    std::lock_guard l(impl_->m);
    return impl_->frame_errors;
}

std::map<uint8_t, LedState> Simulator::leds() const {
    std::lock_guard l(impl_->m);
    return impl_->model.leds();
}

int Simulator::buzzer_count() const {
    std::lock_guard l(impl_->m);
    return impl_->model.buzzer_count();
}

bool Simulator::rf_on() const {
    std::lock_guard l(impl_->m);
    return impl_->model.rf_on();
}

void Simulator::set_contact_card(std::shared_ptr<Card> card) {
    std::lock_guard l(impl_->m);
    impl_->model.insert_contact(std::move(card));
}

void Simulator::set_contactless_card(std::shared_ptr<Card> card) {
    std::lock_guard l(impl_->m);
    impl_->model.insert_contactless(std::move(card));
}

void Simulator::set_id_answer(std::optional<std::vector<uint8_t>> answer) {
    std::lock_guard l(impl_->m);
    impl_->model.set_id_answer(answer ? std::move(*answer) : std::vector<uint8_t>{});
}

void Simulator::inject(Fault fault, int count) {
    if (count == 0) return;
    std::lock_guard l(impl_->m);
    impl_->faults.push_back({fault, count, std::nullopt});
}

void Simulator::inject_for(uint8_t cls, uint8_t code, Fault fault, int count) {
    if (count == 0) return;
    std::lock_guard l(impl_->m);
    impl_->faults.push_back({fault, count, key_of(cls, code)});
}

void Simulator::clear_faults() {
    std::lock_guard l(impl_->m);
    impl_->faults.clear();
}

void Simulator::set_status(uint8_t cls, uint8_t code, uint8_t s1, uint8_t s2) {
    std::lock_guard l(impl_->m);
    impl_->dispatcher.set_status(cls, code, s1, s2);
}

void Simulator::clear_status(uint8_t cls, uint8_t code) {
    std::lock_guard l(impl_->m);
    impl_->dispatcher.clear_status(cls, code);
}

void Simulator::set_reply(uint8_t cls, uint8_t code, Reply reply) {
    set_handler(cls, code, [reply](const Command&) { return std::optional<Reply>(reply); });
}

void Simulator::set_handler(uint8_t cls, uint8_t code, Handler handler) {
    std::lock_guard l(impl_->m);
    impl_->dispatcher.set_custom(cls, code, std::move(handler));
}

void Simulator::clear_reply(uint8_t cls, uint8_t code) {
    std::lock_guard l(impl_->m);
    impl_->dispatcher.clear_custom(cls, code);
}

void Simulator::add_raw_rule(std::vector<uint8_t> trigger, std::vector<uint8_t> reply) {
    if (trigger.empty()) throw std::invalid_argument("raw rule without trigger");
    std::lock_guard l(impl_->m);
    impl_->raw_rules.push_back({std::move(trigger), std::move(reply)});
}

void Simulator::clear_raw_rules() {
    std::lock_guard l(impl_->m);
    impl_->raw_rules.clear();
}

void Simulator::write_raw(std::span<const uint8_t> bytes) { impl_->write_all(Bytes(bytes.begin(), bytes.end())); }

std::vector<std::string> Simulator::terminal_errors() const {
    std::lock_guard l(impl_->m);
    return impl_->term ? impl_->term->errors() : std::vector<std::string>{};
}

std::vector<std::string> Simulator::terminal_events() const {
    std::lock_guard l(impl_->m);
    return impl_->term ? impl_->term->events() : std::vector<std::string>{};
}

bool Simulator::aux_open() const {
    std::lock_guard l(impl_->m);
    return impl_->term && impl_->term->aux_open();
}

bool Simulator::keyboard_locked() const {
    std::lock_guard l(impl_->m);
    return impl_->term && impl_->term->locked();
}

}  // namespace kolt::sim
