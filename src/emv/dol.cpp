// DOL data building for GET PROCESSING OPTIONS and GENERATE AC.
#include "emv/dol.hpp"

#include <algorithm>
#include <cstring>
#include <string_view>
#include <vector>

#include "emv/tags.hpp"
#include "kolt/kolt.h"
#include "support/hex.hpp"
#include "support/tlv.hpp"

namespace kolt::emv {

namespace {

// Digit text packed two a byte, right-aligned in n bytes (zeros to the left).
// Of a longer text the first 2n digits are taken.
std::vector<uint8_t> pack_digits(std::string_view digits, std::size_t n) {
    std::vector<uint8_t> out(n, 0);
    if (digits.size() > 2 * n) digits = digits.substr(0, 2 * n);
    const auto packed = support::pack_bcd(digits);
    const std::size_t k = std::min(packed.size(), n);
    std::copy(packed.end() - static_cast<std::ptrdiff_t>(k), packed.end(), out.end() - static_cast<std::ptrdiff_t>(k));
    return out;
}

}  // namespace

int build_dol(std::span<const uint8_t> dol, std::span<const uint8_t, 4> random, std::span<uint8_t> out,
              int32_t& out_len) {
    out_len = 0;
    if (dol.empty()) return -1;

    std::size_t len = 0;  // bytes counted so far: where the next entry goes
    std::size_t pos = 0;
    while (pos < dol.size()) {
        const std::size_t tag_len = tlv::tag_size(dol[pos]);
        if (pos + tag_len >= dol.size()) break;  // no room left for the length byte
        const auto tag = dol.subspan(pos, tag_len);
        std::size_t counted = dol[pos + tag_len];
        pos += tag_len + 1;

        const uint64_t tag_value = tag_len == 1 ? tag[0] : tag[0] * 256u + tag[1];
        const int index = tag_index(tag);
        std::vector<uint8_t> bytes;
        if (index >= 0) {
            switch (tag_value) {
            case 0x95:
                // The terminal verification results are always five bytes,
                // whatever length the card's list gives.
                bytes.assign(std::begin(kTerminalVerificationResults), std::end(kTerminalVerificationResults));
                set_slot(index, bytes);
                break;
            case 0x9F37:
                bytes.assign(random.begin(), random.end());
                set_slot(index, bytes);
                break;
            case 0x9A: {
                std::string_view date = slot_text(index);
                if (date.size() == 8) date.remove_prefix(2);  // YYYYMMDD: the century goes
                bytes = pack_digits(date, counted);
                break;
            }
            case 0x9F4E: {
                // Raw merchant text; the slot is zero beyond its value.
                const auto area = state().raw(index).subspan(1, std::min<std::size_t>(counted, kSlotRoom));
                bytes.assign(area.begin(), area.end());
                bytes.resize(counted, 0);
                break;
            }
            default:
                bytes = pack_digits(slot_text(index), counted);
                break;
            }
            counted = bytes.size();
        } else if (tag_value == 0x9F66) {
            // Terminal transaction qualifiers: four bytes written, the
            // card's length counted.
            bytes.assign(std::begin(kTerminalTransactionQualifiers), std::end(kTerminalTransactionQualifiers));
        } else if (tag_value == 0x9F7A) {
            // The electronic cash terminal support indicator is one byte,
            // and one byte is counted, whatever the card's length says.
            bytes.assign(1, kEcTerminalSupportIndicator);
            counted = 1;
        } else {
            // Tags the terminal does not know are answered with characters
            // "0" (0x30), not with zero bytes; cards in the field see this.
            bytes.assign(counted, 0x30);
        }

        if (std::max(len + bytes.size(), len + counted) > out.size()) {
            out_len = 0;
            return -1;
        }
        std::memset(out.data() + len, 0, counted);
        if (!bytes.empty()) std::memcpy(out.data() + len, bytes.data(), bytes.size());
        len += counted;
    }
    out_len = static_cast<int32_t>(len);
    return 0;
}

}  // namespace kolt::emv
