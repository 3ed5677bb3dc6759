// The simulated reader's state: the cards in its slots and whether they are
// powered, the LED, buzzer and contactless-field records, the identity
// module, the magnetic stripe unit, and the fixed data of the unit from its
// profile.
//
// Not thread-safe on its own: the simulator calls it under its lock. The
// operations that answer a command return the reader's status pair and data.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "kolt_sim/card.hpp"
#include "kolt_sim/simulator.hpp"
#include "finger_unit_internal.hpp"
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
    // Empty: no identity card on the reader. Forgets a card still to come.
    void set_id_answer(std::vector<uint8_t> answer);
    // No card now; the card `answer` comes after `looks` find or read
    // commands answered "no card", or at `when`, whichever is first.
    void id_answer_later(std::vector<uint8_t> answer, int looks, std::chrono::steady_clock::time_point when);
    // A read answers this status pair alone while set (the module failed).
    void set_id_error(std::optional<std::pair<uint8_t, uint8_t>> status) { id_error_ = status; }
    Reply id_find(std::chrono::steady_clock::time_point now);  // find
    Reply id_select(std::chrono::steady_clock::time_point now);
    Reply id_read(std::chrono::steady_clock::time_point now);
    // The display command 0x51: its data is kept, the unit answers 90.
    void id_display(std::vector<uint8_t> data) { id_displays_.push_back(std::move(data)); }
    const std::vector<std::vector<uint8_t>>& id_displays() const { return id_displays_; }
    void clear_id_displays() { id_displays_.clear(); }
    const std::vector<uint8_t>& module_serial() const { return profile_.module_serial; }

    // --- magnetic stripe unit ----------------------------------------------
    StripeUnit& stripe() { return stripe_; }
    const StripeUnit& stripe() const { return stripe_; }

    // --- fingerprint sensor ------------------------------------------------
    FingerUnit& finger() { return finger_; }
    const FingerUnit& finger() const { return finger_; }

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
    // Whether a card lies on the reader at `now`; `look` counts the command
    // towards a card still to come.
    bool id_present(std::chrono::steady_clock::time_point now, bool look);

    DeviceProfile profile_;
    std::map<uint8_t, LedState> leds_;
    int buzz_ = 0;
    bool rf_ = false;
    std::shared_ptr<Card> contact_, contactless_;
    bool contact_powered_ = false, contactless_powered_ = false;
    std::vector<uint8_t> id_answer_;
    // A card still to come: after id_looks_left_ more looks, or at id_due_.
    std::optional<std::vector<uint8_t>> id_coming_;
    int id_looks_left_ = 0;
    std::chrono::steady_clock::time_point id_due_{};
    std::optional<std::pair<uint8_t, uint8_t>> id_error_;
    std::vector<std::vector<uint8_t>> id_displays_;
    StripeUnit stripe_;
    FingerUnit finger_;
};

}  // namespace kolt::sim
