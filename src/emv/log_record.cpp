// One transaction-log record as lettered text.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>

#include "emv/tags.hpp"
#include "support/hex.hpp"

namespace kolt::emv {

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

}  // namespace kolt::emv
