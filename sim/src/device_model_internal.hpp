// The simulated reader's state: the cards in its slots and whether they are
// powered, the LED, buzzer and contactless-field records, the identity
// module, the magnetic stripe unit, and the fixed data of the unit from its
// profile.
//
// Not thread-safe on its own: the simulator calls it under its lock. The
// operations that answer a command return the reader's status pair and data.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "kolt_sim/card.hpp"
#include "kolt_sim/simulator.hpp"
#include "stripe_unit_internal.hpp"

namespace kolt::sim {

class DeviceModel {
public:
    explicit DeviceModel(DeviceProfile profile);

    const DeviceProfile& profile() const { return profile_; }

    // --- indicators -------------------------------------------------------
    void beep() { ++buzz_; }
    int buzzer_count() const { return buzz_; }
    void set_led(uint8_t led, LedState state) { leds_[led] = state; }
    const std::map<uint8_t, LedState>& leds() const { return leds_; }
    void set_rf(bool on) { rf_ = on; }
    bool rf_on() const { return rf_; }

    // --- cards (a card is unpowered when inserted; nullptr removes it) ----
    void insert_contact(std::shared_ptr<Card> card);
    void insert_contactless(std::shared_ptr<Card> card);
    // Two bytes: contact, contactless (0 empty, 1 present, 2 powered).
    Reply reader_state() const;
    Reply contact_power_on(uint8_t slot);
    Reply contact_power_off(uint8_t slot);
    Reply contactless_power_on();
    Reply contactless_power_off();
    // An APDU for the card in `slot` (contact 00..02, contactless FF).
    Reply exchange(uint8_t slot, std::span<const uint8_t> apdu);

    // --- identity module --------------------------------------------------
    // Empty: no identity card on the reader.
    void set_id_answer(std::vector<uint8_t> answer) { id_answer_ = std::move(answer); }
    Reply id_find() const;  // find and select
    Reply id_read() const;
    const std::vector<uint8_t>& module_serial() const { return profile_.module_serial; }

    // --- magnetic stripe unit ----------------------------------------------
    StripeUnit& stripe() { return stripe_; }
    const StripeUnit& stripe() const { return stripe_; }

    // --- unit data --------------------------------------------------------
    // Version bytes for a selector; nullopt for a selector the unit lacks.
    std::optional<std::vector<uint8_t>> version(uint8_t selector) const;

private:
    enum class Slot { Contact, Contactless, Psam, None };
    static Slot slot_kind(uint8_t slot);
    // Why a contact-reader command for `slot` cannot go ahead, if it cannot.
    std::optional<Reply> contact_slot_error(uint8_t slot) const;
    Reply contact_exchange(std::span<const uint8_t> apdu);
    Reply contactless_exchange(std::span<const uint8_t> apdu);
    Reply no_id_card() const;

    DeviceProfile profile_;
    std::map<uint8_t, LedState> leds_;
    int buzz_ = 0;
    bool rf_ = false;
    std::shared_ptr<Card> contact_, contactless_;
    bool contact_powered_ = false, contactless_powered_ = false;
    std::vector<uint8_t> id_answer_;
    StripeUnit stripe_;
};

}  // namespace kolt::sim
