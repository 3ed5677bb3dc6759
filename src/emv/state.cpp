#include "emv/state.hpp"

#include <algorithm>
#include <cstring>

#include "device/icc.hpp"
#include "emv/tags.hpp"

namespace kolt::emv {
namespace {

bool valid_index(int index) { return index >= 0 && index < kTagCount; }

}  // namespace

WorkingState& state() {
    static WorkingState s;
    return s;
}

uint8_t (&tagListValue)[kTagCount][kSlotSize] = state().tag_values;
char (&gFindedTagList)[kFoundSize] = state().found;

int32_t WorkingState::slot() const { return device::ssICType; }
void WorkingState::set_slot(int32_t slot) { device::ssICType = slot; }

std::span<const uint8_t> WorkingState::value(int index) const {
    if (!valid_index(index)) return {};
    return std::span<const uint8_t>(&tag_values[index][1], tag_values[index][0]);
}

std::string_view WorkingState::text(int index) const {
    const auto v = value(index);
    return std::string_view(reinterpret_cast<const char*>(v.data()), v.size());
}

void WorkingState::set_value(int index, std::span<const uint8_t> v) {
    if (!valid_index(index)) return;
    const std::size_t n = std::min<std::size_t>(v.size(), kSlotRoom);
    uint8_t* slot = tag_values[index];
    std::memset(slot, 0, kSlotSize);
    if (n > 0) std::memcpy(slot + 1, v.data(), n);
    slot[0] = static_cast<uint8_t>(n);
}

void WorkingState::set_text(int index, std::string_view t) {
    // One byte stays for the terminator.
    if (t.size() > kSlotRoom - 1) t = t.substr(0, kSlotRoom - 1);
    set_value(index, std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(t.data()), t.size()));
}

void WorkingState::clear_value(int index) {
    if (valid_index(index)) std::memset(tag_values[index], 0, kSlotSize);
}

std::span<uint8_t> WorkingState::raw(int index) {
    if (!valid_index(index)) return {};
    return std::span<uint8_t>(tag_values[index], kSlotSize);
}

std::span<const uint8_t> WorkingState::raw(int index) const {
    if (!valid_index(index)) return {};
    return std::span<const uint8_t>(tag_values[index], kSlotSize);
}

std::string_view WorkingState::found_letters() const { return std::string_view(found, strnlen(found, kFoundSize - 1)); }

void WorkingState::append_found(char letter) {
    if (letter == '\0') return;
    std::size_t n = found_letters().size();
    if (n >= kFoundSize - 1) {
        // Full: keep the first occurrence of each letter.
        std::size_t kept = 0;
        for (std::size_t i = 0; i < n; ++i) {
            if (std::memchr(found, found[i], kept) == nullptr) found[kept++] = found[i];
        }
        std::memset(found + kept, 0, kFoundSize - kept);
        n = kept;
    }
    if (n < kFoundSize - 1) {
        found[n] = letter;
        found[n + 1] = '\0';
    }
}

bool WorkingState::all_found(std::string_view letters) const {
    const auto have = found_letters();
    return std::all_of(letters.begin(), letters.end(),
                       [&](char c) { return have.find(c) != std::string_view::npos; });
}

void WorkingState::clear() {
    std::memset(tag_values, 0, sizeof tag_values);
    std::memset(found, 0, sizeof found);
}

void WorkingState::reset() {
    clear();
    aip_afl.fill(0);
    cdol1.fill(0);
    cdol2.fill(0);
    cdol1_len = 0;
    cdol2_len = 0;
    ac_format80.fill(0);
    set_slot(0);
}

namespace {
std::size_t fill_buffer(std::array<uint8_t, kCardBufferRoom>& buffer, std::span<const uint8_t> bytes) {
    buffer.fill(0);
    const std::size_t n = std::min(bytes.size(), buffer.size());
    std::copy_n(bytes.begin(), n, buffer.begin());
    return n;
}
}  // namespace

void WorkingState::set_cdol1(std::span<const uint8_t> dol) { cdol1_len = fill_buffer(cdol1, dol); }
void WorkingState::set_cdol2(std::span<const uint8_t> dol) { cdol2_len = fill_buffer(cdol2, dol); }

void WorkingState::set_ac_format80(std::span<const uint8_t> value) {
    ac_format80.fill(0);
    const std::size_t n = std::min<std::size_t>(value.size(), kCardBufferRoom - 1);
    ac_format80[0] = static_cast<uint8_t>(n);
    std::copy_n(value.begin(), n, ac_format80.begin() + 1);
}

void WorkingState::set_aip(std::span<const uint8_t, 2> aip) {
    aip_afl.fill(0);
    aip_afl[0] = 2;
    aip_afl[1] = aip[0];
    aip_afl[2] = aip[1];
}

void init_tag_list_value() {
    for (int index : {kCountry, kCurrency}) {
        if (state().value(index).empty()) state().set_text(index, "0156");
    }
}

}  // namespace kolt::emv
