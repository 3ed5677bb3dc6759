// Field 55 of the host message.
#include "emv/field55.hpp"

#include <algorithm>
#include <array>
#include <string_view>

#include "emv/state.hpp"
#include "emv/tags.hpp"
#include "support/hex.hpp"
#include "support/log.hpp"
#include "support/tlv.hpp"

namespace kolt::emv {

namespace {

// Terminal capabilities sent with every field 55.
constexpr uint8_t kTerminalCapabilities[3] = {0x20, 0xA1, 0x00};

// Hex text packed two characters a byte, right-aligned in width bytes; a
// text that needs more than width bytes leaves them all zero.
std::vector<uint8_t> packed(std::string_view text, std::size_t width) {
    std::vector<uint8_t> out(width, 0);
    if ((text.size() + 1) / 2 > width) return out;
    const std::vector<uint8_t> bytes = support::pack_bcd(text);
    std::copy(bytes.begin(), bytes.end(), out.end() - static_cast<std::ptrdiff_t>(bytes.size()));
    return out;
}

// Bytes [from, from + n) of the AC answer; beyond its end they read as zero.
std::vector<uint8_t> ac_bytes(std::span<const uint8_t> ac, std::size_t from, std::size_t n) {
    std::vector<uint8_t> out(n, 0);
    for (std::size_t i = 0; i < n && from + i < ac.size(); ++i) out[i] = ac[from + i];
    return out;
}

class Writer {
public:
    void add(std::initializer_list<uint8_t> tag, std::span<const uint8_t> value) {
        const std::vector<uint8_t> t(tag);
        const std::size_t at = out_.size();
        out_.resize(at + t.size() + 1 + value.size());
        const int32_t n = tlv::write_short(t.data(), value.first(std::min<std::size_t>(value.size(), 255)),
                                           std::span<uint8_t>(out_).subspan(at));
        out_.resize(at + static_cast<std::size_t>(std::max(n, 0)));
    }
    std::vector<uint8_t> take() { return std::move(out_); }

private:
    std::vector<uint8_t> out_;
};

}  // namespace

std::vector<uint8_t> build_field55(std::span<const uint8_t> ac, std::span<const uint8_t, 4> unpredictable) {
    Writer w;
    w.add({0x9F, 0x26}, ac_bytes(ac, 3, 8));
    w.add({0x9F, 0x27}, ac_bytes(ac, 0, 1));
    w.add({0x9F, 0x10}, ac.size() > 11 ? ac.subspan(11) : std::span<const uint8_t>());
    w.add({0x9F, 0x37}, unpredictable);
    w.add({0x9F, 0x36}, ac_bytes(ac, 1, 2));
    // The terminal verification results go as the slot holds them, not
    // packed: DOL building stores the five bytes themselves.
    w.add({0x95}, slot_value(kTvr));
    w.add({0x9F, 0x13}, packed(slot_text(kLastOnlineAtc), 2));

    std::string_view date = slot_text(kDate);
    if (date.size() == 8) {
        // A date with century: its first packed byte goes.
        const auto bytes = packed(date, 4);
        w.add({0x9A}, std::span<const uint8_t>(bytes).subspan(1));
    } else {
        w.add({0x9A}, packed(date, date.size() / 2));
    }
    const std::string_view type = slot_text(kTxType);
    if (type.size() <= 1) {
        const uint8_t goods = 0x01;
        w.add({0x9C}, std::span<const uint8_t>(&goods, 1));
    } else {
        w.add({0x9C}, packed(type, type.size() / 2));
    }
    // The 9F02 line carries the name of 9F1A; log readers know it so.
    log::debug_int("KOLT_Get55Data  9F1A nIndex=%d", kAmount);
    const std::string_view amount = slot_text(kAmount);
    w.add({0x9F, 0x02}, packed(amount, amount.size() / 2));
    const std::string_view currency = slot_text(kCurrency);
    w.add({0x5F, 0x2A}, packed(currency, currency.size() / 2));

    std::string pan(slot_text(kPan));
    if (pan.size() % 2 != 0) pan += 'F';
    w.add({0x5A}, packed(pan, pan.size() / 2));
    w.add({0x5F, 0x34}, packed(slot_text(kPanSequence), 1));
    w.add({0x82}, packed(slot_text(kAip), 2));
    w.add({0x9F, 0x1A}, packed(slot_text(kCountry), 2));
    const std::string_view other = slot_text(kAmountOther);
    w.add({0x9F, 0x03}, packed(other, other.size() / 2));
    w.add({0x9F, 0x33}, kTerminalCapabilities);
    return w.take();
}

std::string field55_text(std::span<const uint8_t> ac, std::span<const uint8_t, 4> unpredictable) {
    return support::to_hex_upper(build_field55(ac, unpredictable));
}

}  // namespace kolt::emv
