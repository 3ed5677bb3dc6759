// Command dispatch and the unit's built-in command table.
#include "dispatch_internal.hpp"

#include <chrono>

#include "device_model_internal.hpp"

namespace kolt::sim {

// --- the table ----------------------------------------------------------------------

void Dispatcher::add(Framing framing, uint8_t cls, uint8_t code, Route route) {
    routes_[{framing, key_of(cls, code)}] = std::move(route);
}

void Dispatcher::add_main(uint8_t cls, uint8_t code, Handler handler, ReplyForm form) {
    add(Framing::Main, cls, code, Route{std::move(handler), form, 0});
}

void Dispatcher::set_fallback(Framing framing, Route route) { fallbacks_[framing] = std::move(route); }

void Dispatcher::set_custom(uint8_t cls, uint8_t code, Handler handler) {
    custom_[key_of(cls, code)] = std::move(handler);
}

void Dispatcher::clear_custom(uint8_t cls, uint8_t code) { custom_.erase(key_of(cls, code)); }

void Dispatcher::set_status(uint8_t cls, uint8_t code, uint8_t s1, uint8_t s2) {
    status_[key_of(cls, code)] = {s1, s2};
}

void Dispatcher::clear_status(uint8_t cls, uint8_t code) { status_.erase(key_of(cls, code)); }

const Route* Dispatcher::route_of(const Command& c) const {
    if (auto it = routes_.find({c.framing, key_of(c.cls, c.code)}); it != routes_.end()) return &it->second;
    if (auto it = fallbacks_.find(c.framing); it != fallbacks_.end()) return &it->second;
    return nullptr;
}

// The host's handler of a main-frame command comes before the unit's own.
const Handler* Dispatcher::handler_of(const Command& c, const Route* route) const {
    if (c.framing == Framing::Main) {
        if (auto it = custom_.find(key_of(c.cls, c.code)); it != custom_.end()) return &it->second;
    }
    return route != nullptr ? &route->handler : nullptr;
}

std::optional<Answer> Dispatcher::dispatch(const Command& c) const {
    const Route* route = route_of(c);
    const Handler* handler = handler_of(c, route);
    if (handler == nullptr) return std::nullopt;
    std::optional<Reply> r = (*handler)(c);
    if (!r) return std::nullopt;
    if (c.framing == Framing::Main) {
        if (auto s = status_.find(key_of(c.cls, c.code)); s != status_.end()) std::tie(r->s1, r->s2) = s->second;
    }
    Answer a;
    a.reply = std::move(*r);
    if (route != nullptr) {
        a.form = route->form;
        a.cmd = route->reply_cmd;
    }
    return a;
}

// --- the unit's commands ---------------------------------------------------------

namespace {

std::optional<Reply> done() { return Reply{}; }

// Buzzer, LEDs and the contactless field: recorded, always successful.
void add_indicator_commands(Dispatcher& d, DeviceModel& m) {
    d.add_main(0x31, 0x13, [&m](const Command&) {
        m.beep();
        return done();
    });
    d.add_main(0x31, 0x14, [&m](const Command& c) {  // LED: led, colour, mode, 01 01 00
        if (c.data.size() >= 3) m.set_led(c.data[0], LedState{c.data[1], c.data[2]});
        return done();
    });
    d.add_main(0x38, 0x97, [&m](const Command&) {
        m.set_rf(true);
        return done();
    });
    d.add_main(0x38, 0x98, [&m](const Command&) {
        m.set_rf(false);
        return done();
    });
}

// The unit's own data, and what it answers to anything it does not know.
void add_unit_commands(Dispatcher& d, DeviceModel& m) {
    d.add_main(0x31, 0x11, [&m](const Command& c) -> std::optional<Reply> {  // version by selector
        auto v = c.data.empty() ? std::nullopt : m.version(c.data[0]);
        if (!v) return m.profile().unknown_reply;
        return Reply{0x00, 0x00, std::move(*v)};
    });
    d.set_fallback(Framing::Main, Route{[&m](const Command&) { return m.profile().unknown_reply; }});
}

// Contact and contactless cards: state, power and APDUs.
void add_card_commands(Dispatcher& d, DeviceModel& m) {
    d.add_main(0x32, 0x21, [&m](const Command&) { return m.reader_state(); });
    d.add_main(0x32, 0x22, [&m](const Command& c) {  // 00 00 slot
        return m.contact_power_on(c.data.size() >= 3 ? c.data[2] : 0x00);
    });
    d.add_main(0x32, 0x23, [&m](const Command& c) {  // slot
        return m.contact_power_off(c.data.empty() ? 0x00 : c.data[0]);
    });
    d.add_main(0x32, 0x24, [&m](const Command&) { return m.contactless_power_on(); });
    d.add_main(0x32, 0x25, [&m](const Command&) { return m.contactless_power_off(); });
    d.add_main(0x32, 0x26, [&m](const Command& c) {  // slot, then the APDU
        if (c.data.empty()) return Reply{0x10, 0x07, {}};
        return m.exchange(c.data[0], std::span(c.data).subspan(1));
    });
}

// The identity module: serial number, and find, select and read of the card.
void add_identity_commands(Dispatcher& d, DeviceModel& m) {
    d.add_main(0x35, 0x87, [&m](const Command&) { return Reply{0x00, 0x00, m.module_serial()}; });
    using std::chrono::steady_clock;
    d.add_main(0x35, 0x80, [&m](const Command&) { return m.id_find(steady_clock::now()); });
    d.add_main(0x35, 0x81, [&m](const Command&) { return m.id_select(steady_clock::now()); });
    d.add_main(0x35, 0x82, [&m](const Command&) { return m.id_read(steady_clock::now()); }, ReplyForm::Special);
}

// The magnetic stripe unit: the framed read and the escape sequences. Both
// are answered later, when a card is swiped (or the read times out).
void add_stripe_commands(Dispatcher& d, DeviceModel& m) {
    d.add_main(0x36, 0x91, [&m](const Command& c) -> std::optional<Reply> {  // time-out in seconds
        m.stripe().framed_read(c, std::chrono::steady_clock::now());
        return std::nullopt;
    });
    d.set_fallback(Framing::Escape, Route{[&m](const Command& c) -> std::optional<Reply> {
                       m.stripe().escape(c, std::chrono::steady_clock::now());
                       return std::nullopt;
                   }});
}

// The fingerprint sensor: the framed variant's class 0x37 and the EF01
// module's packets, each answered only when the profile's variant is there.
void add_finger_commands(Dispatcher& d, DeviceModel& m) {
    for (uint8_t code : {uint8_t{0x93}, uint8_t{0x96}}) {
        d.add_main(0x37, code, [&m](const Command& c) { return m.finger().framed(c, std::chrono::steady_clock::now()); });
    }
    d.set_fallback(Framing::Ef01, Route{[&m](const Command& c) -> std::optional<Reply> {
                                            Bytes out = m.finger().packet(c, std::chrono::steady_clock::now());
                                            if (out.empty()) return std::nullopt;
                                            return Reply{0x00, 0x00, std::move(out)};
                                        },
                                        ReplyForm::Raw, 0});
}

Handler fixed(Bytes data) {
    return [data = std::move(data)](const Command&) { return std::optional<Reply>(Reply{0x00, 0x00, data}); };
}

// The greeting and disconnect of the older framings: the unit speaks the
// one of its family, and answers the device probe in it.
void add_family_commands(Dispatcher& d, DeviceModel& m) {
    const DeviceProfile& p = m.profile();
    const Route legacy86{fixed(p.legacy86_reply), ReplyForm::Legacy86, 0};
    const Route greeting{fixed(p.greeting), ReplyForm::Bracket, 0x41};
    if (p.family == "bracket") {
        d.add(Framing::Bracket, 0, 0x41, greeting);
        d.add(Framing::Bracket, 0, 0x42, Route{fixed(p.disconnect), ReplyForm::Bracket, 0x42});
        // The result of an online identity verification, for the display:
        // kept for the tests, answered with 90.
        d.add(Framing::Bracket, 0, 0x51, Route{[&m](const Command& c) -> std::optional<Reply> {
                                                   m.id_display(c.data);
                                                   return Reply{0x00, 0x00, {0x90}};
                                               },
                                               ReplyForm::Bracket, 0x51});
    }
    if (p.family == "legacy86") d.set_fallback(Framing::Legacy86, legacy86);
    d.add(Framing::Probe, 0, 0, p.family == "legacy86" ? legacy86 : greeting);
}

}  // namespace

void add_builtin_commands(Dispatcher& d, DeviceModel& model) {
    add_indicator_commands(d, model);
    add_unit_commands(d, model);
    add_card_commands(d, model);
    add_identity_commands(d, model);
    add_stripe_commands(d, model);
    add_finger_commands(d, model);
    add_family_commands(d, model);
    for (const auto& [key, status] : model.profile().status_overrides)
        d.set_status(static_cast<uint8_t>(key >> 8), static_cast<uint8_t>(key & 0xFF), status.first, status.second);
}

}  // namespace kolt::sim
