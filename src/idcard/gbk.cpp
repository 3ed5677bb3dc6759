// Lookups in the GBK <-> UCS-2 tables and the converters built on them.
// Pure functions: no descriptor, clock or log.
#include "idcard/gbk.hpp"

#include <algorithm>
#include <array>

namespace kolt::idcard {

namespace {

// Direct indexes of the sorted columns, one slot per 16-bit value; kNone
// marks a value without a pair (0xFFFF is neither a GBK code nor a Unicode
// value of the table). They give what a binary search over the columns
// gives.
constexpr uint16_t kNone = 0xFFFF;

struct Index {
    std::array<uint16_t, 0x10000> gbk_of_uni;
    std::array<uint16_t, 0x10000> uni_of_gbk;

    Index() {
        gbk_of_uni.fill(kNone);
        uni_of_gbk.fill(kNone);
        for (int i = 0; i < kPairCount; ++i) {
            gbk_of_uni[static_cast<uint16_t>(table::uni[i])] = static_cast<uint16_t>(table::gb[i]);
            uni_of_gbk[static_cast<uint16_t>(table::gbsort[i])] = static_cast<uint16_t>(table::unisortbygb[i]);
        }
    }
};

const Index& index() {
    static const Index idx;
    return idx;
}

inline int32_t lookup(const std::array<uint16_t, 0x10000>& column, int32_t key) {
    if (key < 0 || key > 0xFFFF) return -1;
    const uint16_t v = column[static_cast<uint16_t>(key)];
    return v == kNone ? -1 : v;
}

// One UCS-2 unit as the two bytes of the pairs format.
inline void put_pair(std::string& out, int32_t g) {
    if (g < 0) {
        out += "**";
    } else if (g > 127) {
        out += static_cast<char>(g >> 8);
        out += static_cast<char>(g & 0xFF);
    } else {
        out += ' ';
        out += static_cast<char>(g);
    }
}

std::optional<std::string> ucs2_to_gbk_pairs(std::span<const uint8_t> in, bool little_endian) {
    if (in.size() % 2 != 0) return std::nullopt;
    const Index& idx = index();
    std::string out;
    out.reserve(in.size());
    for (std::size_t i = 0; i < in.size(); i += 2) {
        const int32_t unit = little_endian ? (in[i] | (in[i + 1] << 8)) : ((in[i] << 8) | in[i + 1]);
        put_pair(out, lookup(idx.gbk_of_uni, unit));
    }
    return out;
}

}  // namespace

int32_t search_gb(int32_t unicode) { return lookup(index().gbk_of_uni, unicode); }

int32_t search_uni(int32_t gbk) { return lookup(index().uni_of_gbk, gbk); }

std::optional<std::string> ucs2le_to_gbk_pairs(std::span<const uint8_t> in) { return ucs2_to_gbk_pairs(in, true); }

std::optional<std::string> ucs2be_to_gbk_pairs(std::span<const uint8_t> in) { return ucs2_to_gbk_pairs(in, false); }

// An unmapped unit is written as -1 was always written here, quotient and
// remainder of a division by 256: 0x00 then 0xFF (high byte first), and
// 0xFF then 0x00 low byte first in gbk_to_ucs2le. Callers know these bytes.
std::optional<std::vector<uint8_t>> gbk_units_to_ucs2be(std::span<const uint8_t> in) {
    if (in.size() % 2 != 0) return std::nullopt;
    const Index& idx = index();
    std::vector<uint8_t> out;
    out.reserve(in.size());
    for (std::size_t i = 0; i < in.size(); i += 2) {
        const int32_t u = lookup(idx.uni_of_gbk, (in[i] << 8) | in[i + 1]);
        if (u < 0) {
            out.push_back(0x00);
            out.push_back(0xFF);
        } else {
            out.push_back(static_cast<uint8_t>(u >> 8));
            out.push_back(static_cast<uint8_t>(u & 0xFF));
        }
    }
    return out;
}

std::vector<uint8_t> gbk_to_ucs2le(std::span<const uint8_t> in) {
    const Index& idx = index();
    std::vector<uint8_t> out;
    out.reserve(in.size() * 2);
    std::size_t i = 0;
    while (i < in.size()) {
        const uint8_t c = in[i];
        if (c > 127) {
            const uint8_t trail = i + 1 < in.size() ? in[i + 1] : 0;
            const int32_t u = lookup(idx.uni_of_gbk, (c << 8) | trail);
            if (u < 0) {
                out.push_back(0xFF);
                out.push_back(0x00);
            } else {
                out.push_back(static_cast<uint8_t>(u & 0xFF));
                out.push_back(static_cast<uint8_t>(u >> 8));
            }
            i += 2;
        } else {
            out.push_back(c);
            out.push_back(0x00);
            i += 1;
        }
    }
    return out;
}

std::string field_text(std::span<const uint8_t> ucs2le) {
    std::string text = *ucs2le_to_gbk_pairs(ucs2le.first(ucs2le.size() & ~std::size_t{1}));
    text.erase(std::remove(text.begin(), text.end(), ' '), text.end());
    return text;
}

}  // namespace kolt::idcard
