// Card replies into the tag-letter slots.
#include <algorithm>
#include <string>

#include "emv/state.hpp"
#include "emv/tags.hpp"
#include "support/hex.hpp"
#include "support/tlv.hpp"

namespace kolt::emv {

namespace {

using tlv::tag_of;
using tlv::value_of;

// Stores one decoded item into its letter's slot.
void store_item(const tlv_t& item) {
    const int index = tag_index(tag_of(item));
    if (index < 0) return;
    append_found(tagList[index]);

    const auto value = value_of(item);
    switch (apduTagList[index]) {
    case 0x5A: {
        // Account number: hex digits up to the first non-digit (drops the F pad).
        const std::size_t n = std::min<std::size_t>(value.size(), (kSlotRoom - 1) / 2);
        std::string text = support::to_hex_upper(value.first(n));
        const auto cut = text.find_first_not_of("0123456789");
        if (cut != std::string::npos) text.resize(cut);
        set_slot_text(index, text);
        break;
    }
    case 0x57:
    case 0x5F24:
    case 0x5F34:
    case 0x9F1F:
    case 0x9F62: {
        // Held as hex digits; the length keeps only the low seven bits of
        // the value length, so at most 127 bytes (254 digits) are held.
        const std::size_t n = value.size() & 0x7F;
        set_slot_text(index, support::to_hex_upper(value.first(n)));
        break;
    }
    default:
        set_slot(index, value);
        break;
    }
}

}  // namespace

void parse_tag_value(std::span<const uint8_t> reply, int strict) {
    // Every item at any depth; nested values are always decoded strictly.
    tlv::walk(reply, strict, 1, [](const tlv_t& item, std::size_t) {
        store_item(item);
        return tlv::Step::Descend;
    });
}

std::optional<std::span<const uint8_t>> find_tag(std::span<const uint8_t> reply, std::span<const uint8_t> tag,
                                                 int strict) {
    return tlv::find_nested(reply, tag, strict);
}

int split_track2() {
    const std::string track(slot_text(kTrack2));
    if (track.empty()) return -1;
    const auto sep = track.find('D');
    if (sep == std::string::npos) return -1;
    set_slot_text(kPan, std::string_view(track).substr(0, sep));
    set_slot_text(kExpiry, std::string_view(track).substr(sep + 1, 4));
    return 0;
}

}  // namespace kolt::emv
