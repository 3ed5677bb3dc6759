// The public face of the simulator: the device model, the command dispatch
// and the frame server put together, behind one lock.
#include "kolt_sim/simulator.hpp"

#include "device_model_internal.hpp"
#include "dispatch_internal.hpp"
#include "frame_server_internal.hpp"

namespace kolt::sim {

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

struct Simulator::Impl {
    // The model and the dispatch table are guarded by the server's lock.
    // The server comes last: it is destroyed, and its thread stopped, first.
    DeviceModel model;
    Dispatcher dispatcher;
    FrameServer server;

    explicit Impl(const Options& opt)
        : model(opt.profile), server(opt, [this](const Command& c) { return dispatcher.dispatch(c); }) {
        add_builtin_commands(dispatcher, model);
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

// --- terminal mode -------------------------------------------------------------------

std::vector<std::string> Simulator::terminal_errors() const { return impl_->server.terminal_errors(); }
std::vector<std::string> Simulator::terminal_events() const { return impl_->server.terminal_events(); }
bool Simulator::aux_open() const { return impl_->server.aux_open(); }
bool Simulator::keyboard_locked() const { return impl_->server.keyboard_locked(); }

}  // namespace kolt::sim
