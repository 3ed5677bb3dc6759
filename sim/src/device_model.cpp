// The simulated reader's state and what it does with it.
#include "device_model_internal.hpp"

#include <utility>

namespace kolt::sim {

namespace {

Reply ok(std::vector<uint8_t> data = {}) { return Reply{0x00, 0x00, std::move(data)}; }

uint8_t slot_state(const std::shared_ptr<Card>& card, bool powered) {
    if (card == nullptr) return 0;
    return powered ? 2 : 1;
}

}  // namespace

DeviceModel::DeviceModel(DeviceProfile profile)
    : profile_(std::move(profile)), id_answer_(profile_.id_answer), stripe_(profile_.stripe),
      finger_(profile_.finger, std::chrono::steady_clock::now()) {}

// --- cards --------------------------------------------------------------------

DeviceModel::Slot DeviceModel::slot_kind(uint8_t slot) {
    if (slot <= 0x02) return Slot::Contact;
    if (slot == 0xFF) return Slot::Contactless;
    if (slot >= 0x11 && slot <= 0x14) return Slot::Psam;
    return Slot::None;
}

void DeviceModel::insert_contact(std::shared_ptr<Card> card) {
    contact_ = std::move(card);
    contact_powered_ = false;
}

void DeviceModel::insert_contactless(std::shared_ptr<Card> card) {
    contactless_ = std::move(card);
    contactless_powered_ = false;
}

Reply DeviceModel::reader_state() const {
    return ok({slot_state(contact_, contact_powered_), slot_state(contactless_, contactless_powered_)});
}

std::optional<Reply> DeviceModel::contact_slot_error(uint8_t slot) const {
    const Slot k = slot_kind(slot);
    if (k == Slot::Psam) return Reply{0x20, 0x01, {}};
    if (k != Slot::Contact) return Reply{0x10, 0x01, {}};
    if (contact_ == nullptr) return Reply{0x10, 0x02, {}};
    return std::nullopt;
}

Reply DeviceModel::contact_power_on(uint8_t slot) {
    if (auto e = contact_slot_error(slot)) return *e;
    auto atr = contact_->power_on();
    contact_powered_ = true;
    return ok(std::move(atr));
}

Reply DeviceModel::contact_power_off(uint8_t slot) {
    if (auto e = contact_slot_error(slot)) return *e;
    contact_->power_off();
    contact_powered_ = false;
    return ok();
}

Reply DeviceModel::contactless_power_on() {
    if (contactless_ == nullptr) return Reply{0x30, 0x04, {}};
    auto atr = contactless_->power_on();
    contactless_powered_ = true;
    return ok(std::move(atr));
}

Reply DeviceModel::contactless_power_off() {
    if (contactless_ == nullptr) return Reply{0x30, 0x04, {}};
    contactless_->power_off();
    contactless_powered_ = false;
    return ok();
}

Reply DeviceModel::exchange(uint8_t slot, std::span<const uint8_t> apdu) {
    switch (slot_kind(slot)) {
        case Slot::Contact: return contact_exchange(apdu);
        case Slot::Contactless: return contactless_exchange(apdu);
        case Slot::Psam: return Reply{0x20, 0x04, {}};
        case Slot::None: break;
    }
    return Reply{0x10, 0x01, {}};
}

Reply DeviceModel::contact_exchange(std::span<const uint8_t> apdu) {
    if (contact_ == nullptr) return Reply{0x10, 0x02, {}};
    if (!contact_powered_) return Reply{0x10, 0x04, {}};
    if (apdu.size() < 4) return Reply{0x10, 0x07, {}};
    return ok(contact_->exchange(apdu));
}

Reply DeviceModel::contactless_exchange(std::span<const uint8_t> apdu) {
    if (contactless_ == nullptr || !contactless_powered_) return Reply{0x30, 0x04, {}};
    if (apdu.size() < 4) return Reply{0x30, 0x07, {}};
    return ok(contactless_->exchange(apdu));
}

// --- identity module and unit data ------------------------------------------------

Reply DeviceModel::no_id_card() const { return Reply{profile_.id_no_card_s1, profile_.id_no_card_s2, {}}; }

void DeviceModel::set_id_answer(std::vector<uint8_t> answer) {
    id_answer_ = std::move(answer);
    id_coming_.reset();
}

void DeviceModel::id_answer_later(std::vector<uint8_t> answer, int looks, std::chrono::steady_clock::time_point when) {
    id_answer_.clear();
    id_coming_ = std::move(answer);
    id_looks_left_ = looks;
    id_due_ = when;
}

bool DeviceModel::id_present(std::chrono::steady_clock::time_point now, bool look) {
    if (id_coming_) {
        if (now >= id_due_ || id_looks_left_ <= 0) {
            id_answer_ = std::move(*id_coming_);
            id_coming_.reset();
        } else {
            if (look) --id_looks_left_;
            return false;
        }
    }
    return !id_answer_.empty();
}

Reply DeviceModel::id_find(std::chrono::steady_clock::time_point now) {
    return id_present(now, true) ? ok() : no_id_card();
}

Reply DeviceModel::id_select(std::chrono::steady_clock::time_point now) {
    return id_present(now, false) ? ok() : no_id_card();
}

Reply DeviceModel::id_read(std::chrono::steady_clock::time_point now) {
    if (id_error_) return Reply{id_error_->first, id_error_->second, {}};
    return id_present(now, true) ? ok(id_answer_) : no_id_card();
}

std::optional<std::vector<uint8_t>> DeviceModel::version(uint8_t selector) const {
    auto it = profile_.versions.find(selector);
    if (it == profile_.versions.end()) return std::nullopt;
    return it->second;
}

}  // namespace kolt::sim
