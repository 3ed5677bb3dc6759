// The public face of the simulator: the device model, the command dispatch
// and the frame server put together, behind one lock.
#include "kolt_sim/simulator.hpp"

#include <chrono>
#include <limits>

#include "device_model_internal.hpp"
#include "dispatch_internal.hpp"
#include "frame_server_internal.hpp"
#include "stripe_unit_internal.hpp"

namespace kolt::sim {

const char* framing_name(Framing f) {
    switch (f) {
        case Framing::Main: return "main";
        case Framing::Bracket: return "bracket";
        case Framing::Legacy86: return "legacy86";
        case Framing::Probe: return "probe";
        case Framing::Raw: return "raw";
        case Framing::Escape: return "escape";
        case Framing::Ef01: return "ef01";
    }
    return "?";
}

struct Simulator::Impl {
    // The model and the dispatch table are guarded by the server's lock.
    // The server comes last: it is destroyed, and its thread stopped, first.
    DeviceModel model;
    Dispatcher dispatcher;
    FrameServer server;

    explicit Impl(const Options& opt)
        : model(opt.profile), server(opt, [this](const Command& c) { return dispatcher.dispatch(c); }) {
        add_builtin_commands(dispatcher, model);
        server.set_describe([](const Command& c) -> std::string {
            if (c.framing == Framing::Bracket && c.code == 0x51) return describe_id_display(c.data);
            return {};
        });
        server.set_timer([this](FrameServer::Clock::time_point now, FrameServer::Clock::time_point& next) {
            std::vector<LateReply> out;
            for (auto& o : model.stripe().tick(now)) {
                LateReply late{std::move(o.command), std::nullopt, std::move(o.raw)};
                if (o.framed) late.answer = Answer{ReplyForm::Main, std::move(*o.framed), 0};
                out.push_back(std::move(late));
            }
            next = model.stripe().next_due();
            return out;
        });
    }

    // Changes the stripe unit under the lock, then has the server look at it.
    template <typename F>
    void stripe(F&& f) {
        {
            auto l = server.lock();
            f(model.stripe(), std::chrono::steady_clock::now());
        }
        server.wake();
    }
    template <typename F>
    auto stripe_read(F&& f) const {
        auto l = server.lock();
        return f(model.stripe());
    }
};

Simulator::Simulator(Options options) : impl_(std::make_unique<Impl>(options)) {}

Simulator::~Simulator() { stop(); }

void Simulator::start() { impl_->server.start(); }
void Simulator::stop() { impl_->server.stop(); }
bool Simulator::running() const { return impl_->server.running(); }

std::string Simulator::slave_path() const { return impl_->server.slave_path(); }

std::string Simulator::port_name() const {
    const std::string& p = impl_->server.slave_path();
    return p.rfind("/dev/", 0) == 0 ? p.substr(5) : p;
}

// --- what the host sent ------------------------------------------------------------

std::vector<Command> Simulator::transcript() const { return impl_->server.transcript(); }
void Simulator::clear_transcript() { impl_->server.clear_transcript(); }
bool Simulator::wait_for_commands(size_t n, int timeout_ms) const {
    return impl_->server.wait_for_commands(n, timeout_ms);
}
std::vector<uint8_t> Simulator::raw_received() const { return impl_->server.raw_received(); }
std::vector<uint8_t> Simulator::raw_sent() const { return impl_->server.raw_sent(); }
void Simulator::clear_raw() { impl_->server.clear_raw(); }
std::vector<std::string> Simulator::frame_errors() const { return impl_->server.frame_errors(); }

// --- device state and cards ------------------------------------------------------

std::map<uint8_t, LedState> Simulator::leds() const {
    auto l = impl_->server.lock();
    return impl_->model.leds();
}

int Simulator::buzzer_count() const {
    auto l = impl_->server.lock();
    return impl_->model.buzzer_count();
}

bool Simulator::rf_on() const {
    auto l = impl_->server.lock();
    return impl_->model.rf_on();
}

void Simulator::set_contact_card(std::shared_ptr<Card> card) {
    auto l = impl_->server.lock();
    impl_->model.insert_contact(std::move(card));
}

void Simulator::set_contactless_card(std::shared_ptr<Card> card) {
    auto l = impl_->server.lock();
    impl_->model.insert_contactless(std::move(card));
}

void Simulator::set_id_answer(std::optional<std::vector<uint8_t>> answer) {
    auto l = impl_->server.lock();
    impl_->model.set_id_answer(answer ? std::move(*answer) : std::vector<uint8_t>{});
}

void Simulator::set_id_card(std::optional<IdCardFields> card) {
    std::vector<uint8_t> answer = card ? make_id_card_answer(*card) : std::vector<uint8_t>{};
    auto l = impl_->server.lock();
    impl_->model.set_id_answer(std::move(answer));
}

void Simulator::id_card_after(int looks, IdCardFields card) {
    std::vector<uint8_t> answer = make_id_card_answer(card);
    auto l = impl_->server.lock();
    impl_->model.id_answer_later(std::move(answer), looks, std::chrono::steady_clock::time_point::max());
}

void Simulator::id_card_after_ms(int ms, IdCardFields card) {
    std::vector<uint8_t> answer = make_id_card_answer(card);
    const auto when = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    auto l = impl_->server.lock();
    impl_->model.id_answer_later(std::move(answer), std::numeric_limits<int>::max(), when);
}

void Simulator::set_id_module_error(bool on, uint8_t s1, uint8_t s2) {
    auto l = impl_->server.lock();
    impl_->model.set_id_error(on ? std::optional(std::pair{s1, s2}) : std::nullopt);
}

std::vector<std::vector<uint8_t>> Simulator::id_displays() const {
    auto l = impl_->server.lock();
    return impl_->model.id_displays();
}

void Simulator::clear_id_displays() {
    auto l = impl_->server.lock();
    impl_->model.clear_id_displays();
}

// --- scripting and faults ------------------------------------------------------------

void Simulator::inject(Fault fault, int count) { impl_->server.inject(fault, count, std::nullopt); }

void Simulator::inject_for(uint8_t cls, uint8_t code, Fault fault, int count) {
    impl_->server.inject(fault, count, key_of(cls, code));
}

void Simulator::inject_when(uint8_t cls, uint8_t code, Match match, Fault fault, int count) {
    impl_->server.inject(fault, count, key_of(cls, code), std::move(match));
}

void Simulator::clear_faults() { impl_->server.clear_faults(); }

void Simulator::set_status(uint8_t cls, uint8_t code, uint8_t s1, uint8_t s2) {
    auto l = impl_->server.lock();
    impl_->dispatcher.set_status(cls, code, s1, s2);
}

void Simulator::clear_status(uint8_t cls, uint8_t code) {
    auto l = impl_->server.lock();
    impl_->dispatcher.clear_status(cls, code);
}

void Simulator::set_reply(uint8_t cls, uint8_t code, Reply reply) {
    set_handler(cls, code, [reply](const Command&) { return std::optional<Reply>(reply); });
}

void Simulator::set_handler(uint8_t cls, uint8_t code, Handler handler) {
    auto l = impl_->server.lock();
    impl_->dispatcher.set_custom(cls, code, std::move(handler));
}

void Simulator::clear_reply(uint8_t cls, uint8_t code) {
    auto l = impl_->server.lock();
    impl_->dispatcher.clear_custom(cls, code);
}

void Simulator::add_raw_rule(std::vector<uint8_t> trigger, std::vector<uint8_t> reply) {
    impl_->server.add_raw_rule(std::move(trigger), std::move(reply));
}

void Simulator::clear_raw_rules() { impl_->server.clear_raw_rules(); }

void Simulator::write_raw(std::span<const uint8_t> bytes) { impl_->server.write_raw(bytes); }

// --- fingerprint sensor ----------------------------------------------------------------

void Simulator::set_finger_type(std::string type) {
    auto l = impl_->server.lock();
    impl_->model.finger().set_type(std::move(type));
}

void Simulator::place_finger(std::vector<uint8_t> features, int after_ms) {
    auto l = impl_->server.lock();
    impl_->model.finger().place(std::move(features),
                                std::chrono::steady_clock::now() + std::chrono::milliseconds(after_ms));
}

void Simulator::lift_finger() {
    auto l = impl_->server.lock();
    impl_->model.finger().lift();
}

void Simulator::set_finger_failure(int step, int code) {
    auto l = impl_->server.lock();
    impl_->model.finger().set_failure(step, code);
}

void Simulator::clear_finger_failures() {
    auto l = impl_->server.lock();
    impl_->model.finger().clear_failures();
}

int Simulator::finger_captures() const {
    auto l = impl_->server.lock();
    return impl_->model.finger().captures();
}

// --- magnetic stripe unit ------------------------------------------------------------

using SteadyTime = std::chrono::steady_clock::time_point;

void Simulator::swipe(StripeCard card, int after_ms) {
    impl_->stripe([&](StripeUnit& s, SteadyTime now) { s.swipe(std::move(card), after_ms, now); });
}

void Simulator::swipe_again(int after_ms) {
    impl_->stripe([&](StripeUnit& s, SteadyTime now) { s.swipe_again(after_ms, now); });
}

void Simulator::no_swipe() {
    impl_->stripe([](StripeUnit& s, SteadyTime) { s.no_swipe(); });
}

void Simulator::set_stripe_card(std::optional<StripeCard> card, int after_ms) {
    impl_->stripe([&](StripeUnit& s, SteadyTime now) { s.set_card(std::move(card), after_ms, now); });
}

void Simulator::set_stripe_style(StripeStyle style) {
    impl_->stripe([&](StripeUnit& s, SteadyTime) { s.set_style(std::move(style)); });
}

StripeStyle Simulator::stripe_style() const {
    return impl_->stripe_read([](const StripeUnit& s) { return s.style(); });
}

void Simulator::set_stripe_write_fails(bool fails) {
    impl_->stripe([&](StripeUnit& s, SteadyTime) { s.set_write_fails(fails); });
}

std::vector<std::vector<uint8_t>> Simulator::stripe_commands() const {
    return impl_->stripe_read([](const StripeUnit& s) { return s.commands(); });
}

void Simulator::clear_stripe_commands() {
    impl_->stripe([](StripeUnit& s, SteadyTime) { s.clear_commands(); });
}

int Simulator::stripe_resets() const {
    return impl_->stripe_read([](const StripeUnit& s) { return s.resets(); });
}

std::optional<StripeCard> Simulator::stripe_card() const {
    return impl_->stripe_read([](const StripeUnit& s) { return s.card(); });
}

bool Simulator::stripe_waiting() const {
    return impl_->stripe_read([](const StripeUnit& s) { return s.waiting(); });
}

size_t Simulator::stripe_swipes_queued() const {
    return impl_->stripe_read([](const StripeUnit& s) { return s.queued(); });
}

// --- terminal mode -------------------------------------------------------------------

std::vector<std::string> Simulator::terminal_errors() const { return impl_->server.terminal_errors(); }
std::vector<std::string> Simulator::terminal_events() const { return impl_->server.terminal_events(); }
bool Simulator::aux_open() const { return impl_->server.aux_open(); }
bool Simulator::keyboard_locked() const { return impl_->server.keyboard_locked(); }

}  // namespace kolt::sim
