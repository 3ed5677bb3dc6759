// Command dispatch: maps a decoded command to the handler that answers it
// and returns the reply with its wire form.
//
// The unit's behaviour is a table of routes keyed by framing, class and
// code, filled by one function per subsystem (add_builtin_commands); a new
// subsystem adds its own routes. On top of the table the host can replace
// the handler or the status pair of a main-frame command.
//
// Not thread-safe on its own: the simulator calls it under its lock.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <utility>

#include "frame_internal.hpp"
#include "kolt_sim/simulator.hpp"

namespace kolt::sim {

class DeviceModel;

using Handler = Simulator::Handler;

// How the unit answers one command: the handler (nullopt: no reply) and the
// wire form of its reply.
struct Route {
    Handler handler;
    ReplyForm form = ReplyForm::Main;
    uint8_t reply_cmd = 0;  // Bracket: the command byte of the reply frame
};

class Dispatcher {
public:
    // The reply to a command, nullopt for silence.
    std::optional<Answer> dispatch(const Command& c) const;

    // --- the unit's table ---------------------------------------------------
    void add(Framing framing, uint8_t cls, uint8_t code, Route route);
    void add_main(uint8_t cls, uint8_t code, Handler handler, ReplyForm form = ReplyForm::Main);
    // Answers the commands of a framing that have no route of their own.
    void set_fallback(Framing framing, Route route);

    // --- the host's changes to main-frame commands ------------------------
    void set_custom(uint8_t cls, uint8_t code, Handler handler);
    void clear_custom(uint8_t cls, uint8_t code);
    void set_status(uint8_t cls, uint8_t code, uint8_t s1, uint8_t s2);
    void clear_status(uint8_t cls, uint8_t code);

private:
    const Route* route_of(const Command& c) const;
    const Handler* handler_of(const Command& c, const Route* route) const;

    std::map<std::pair<Framing, uint16_t>, Route> routes_;
    std::map<Framing, Route> fallbacks_;
    std::map<uint16_t, Handler> custom_;
    std::map<uint16_t, std::pair<uint8_t, uint8_t>> status_;
};

// Fills the table with the unit's commands, answered from `model`, and the
// profile's status overrides. `model` must outlive `d`.
void add_builtin_commands(Dispatcher& d, DeviceModel& model);

}  // namespace kolt::sim
