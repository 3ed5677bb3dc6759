// Tag-letter tables, the value slots and the parsing of card replies.
#include "emv/tags.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "kolt/kolt.h"
#include "support/hex.hpp"
#include "support/tlv.hpp"

namespace kolt::emv {

const char tagList[kTagCount + 1] = "ABCDEFGHIJKLMNOPQRSTUVWXYZ1234";

const uint64_t apduTagList[kTagCount] = {
    0x5A,   0x5F20, 0x9F62, 0x9F61, 0x57,   0x9F1F, 0x9F79, 0x9F77, 0x5F24, 0x5F34,
    0x9F78, 0,      0x9F0B, 0,      0x9F13, 0x9F02, 0x9F03, 0x5F2A, 0x9A,   0x9C,
    0x9F21, 0x9F1A, 0x9F4E, 0x9F36, 0,      0x82,   0x95,   0x9F37, 0x8C,   0x8D,
};

uint8_t tagListValue[kTagCount][kSlotSize] = {};
char gFindedTagList[kFoundSize] = {};

const char ContactStandardPDOL[] = "9F7A019F02065F2A02";
const char TAG_Issuer_Discretionary_Data[] = "BF0C";
const char TAG_DF_Name[] = "84";
const uint8_t trDetailRecordFormat[25] = {
    0x9A, 0x03,              // transaction date
    0x9F, 0x21, 0x03,        // transaction time
    0x9F, 0x02, 0x06,        // amount, authorised
    0x9F, 0x03, 0x06,        // amount, other
    0x9F, 0x1A, 0x02,        // terminal country code
    0x5F, 0x2A, 0x02,        // transaction currency code
    0x9F, 0x4E, 0x14,        // merchant name and location
    0x9C, 0x01,              // transaction type
    0x9F, 0x36, 0x02,        // application transaction counter
};

// ---------------------------------------------------------------------------

int tag_index(uint64_t tag) {
    if (tag == 0) return -1;  // L, N and Y carry no tag
    for (int i = 0; i < kTagCount; ++i) {
        if (apduTagList[i] == tag) return i;
    }
    return -1;
}

int tag_index(std::span<const uint8_t> tag) {
    if (tag.empty()) return -1;
    if (tag.size() == 1) return tag_index(static_cast<uint64_t>(tag[0]));
    return tag_index(static_cast<uint64_t>(tag[0]) * 256u + tag[1]);
}

int letter_index(char letter) {
    if (letter == '\0') return -1;
    const char* p = std::strchr(tagList, letter);
    return p == nullptr ? -1 : static_cast<int>(p - tagList);
}

// ---------------------------------------------------------------------------

static bool valid_index(int index) { return index >= 0 && index < kTagCount; }

std::span<const uint8_t> slot_value(int index) {
    if (!valid_index(index)) return {};
    return std::span<const uint8_t>(&tagListValue[index][1], tagListValue[index][0]);
}

std::string_view slot_text(int index) {
    auto v = slot_value(index);
    return std::string_view(reinterpret_cast<const char*>(v.data()), v.size());
}

void set_slot(int index, std::span<const uint8_t> value) {
    if (!valid_index(index)) return;
    const std::size_t n = std::min<std::size_t>(value.size(), kSlotRoom);
    uint8_t* slot = tagListValue[index];
    std::memset(slot, 0, kSlotSize);
    if (n > 0) std::memcpy(slot + 1, value.data(), n);
    slot[0] = static_cast<uint8_t>(n);
}

void set_slot_text(int index, std::string_view text) {
    // One byte stays for the terminator.
    if (text.size() > kSlotRoom - 1) text = text.substr(0, kSlotRoom - 1);
    set_slot(index, std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(text.data()), text.size()));
}

void clear_slot(int index) {
    if (valid_index(index)) std::memset(tagListValue[index], 0, kSlotSize);
}

void clear_working_state() {
    std::memset(tagListValue, 0, sizeof tagListValue);
    std::memset(gFindedTagList, 0, sizeof gFindedTagList);
}

void reset_state() {
    clear_working_state();
    ssICType = 0;
}

void init_tag_list_value() {
    for (int index : {kCountry, kCurrency}) {
        if (tagListValue[index][0] == 0) set_slot_text(index, "0156");
    }
}

std::string_view found_letters() {
    return std::string_view(gFindedTagList, strnlen(gFindedTagList, kFoundSize - 1));
}

void append_found(char letter) {
    if (letter == '\0') return;
    std::size_t n = found_letters().size();
    if (n >= kFoundSize - 1) {
        // Full: keep the first occurrence of each letter.
        std::size_t kept = 0;
        for (std::size_t i = 0; i < n; ++i) {
            if (std::memchr(gFindedTagList, gFindedTagList[i], kept) == nullptr) {
                gFindedTagList[kept++] = gFindedTagList[i];
            }
        }
        std::memset(gFindedTagList + kept, 0, kFoundSize - kept);
        n = kept;
    }
    if (n < kFoundSize - 1) {
        gFindedTagList[n] = letter;
        gFindedTagList[n + 1] = '\0';
    }
}

bool all_found(std::string_view letters) {
    const auto found = found_letters();
    for (char c : letters) {
        if (found.find(c) == std::string_view::npos) return false;
    }
    return true;
}

// ---------------------------------------------------------------------------

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

std::string format_log_record(std::span<const uint8_t> record) {
    uint8_t r[kLogRecordSize] = {};
    std::memcpy(r, record.data(), std::min<std::size_t>(record.size(), kLogRecordSize));
    const auto hex = [&](int offset, int n) {
        return support::to_hex_upper(std::span<const uint8_t>(r + offset, n));
    };
    std::string merchant(reinterpret_cast<const char*>(r + 22), 20);
    std::replace(merchant.begin(), merchant.end(), '\0', ' ');
    char atc[16];
    std::snprintf(atc, sizeof atc, "%04d", r[43] * 256 + r[44]);

    const std::pair<char, std::string> fields[] = {
        {'P', hex(6, 6)},  {'Q', hex(12, 6)}, {'R', hex(20, 2)},
        {'S', hex(0, 3)},  {'T', hex(42, 1)}, {'U', hex(3, 3)},
        {'V', hex(18, 2)}, {'W', merchant},   {'X', atc},
    };
    std::string out;
    for (const auto& [letter, value] : fields) {
        char head[8];
        std::snprintf(head, sizeof head, "%c%03d", letter, static_cast<int>(value.size()));
        out += head;
        out += value;
    }
    return out;
}

int32_t write_short_tlv(const uint8_t* tag, std::span<const uint8_t> value, std::span<uint8_t> out) {
    if (tag == nullptr || value.size() > 255) return -1;
    const std::size_t tag_len = kolt::tlv::tag_size(tag[0]);
    const std::size_t total = tag_len + 1 + value.size();
    if (total > out.size()) return -1;
    std::memcpy(out.data(), tag, tag_len);
    out[tag_len] = static_cast<uint8_t>(value.size());
    if (!value.empty()) std::memcpy(out.data() + tag_len + 1, value.data(), value.size());
    return static_cast<int32_t>(total);
}

}  // namespace kolt::emv
