// Lookups in the GBK <-> UCS-2 tables and the converters built on them.
// Pure functions: no descriptor, clock or log.
#include "idcard/gbk.hpp"

#include <algorithm>
#include <array>
#include <cassert>

namespace kolt::idcard {

namespace {

// Direct indexes of the sorted columns, one slot per 16-bit value, built
// once from the generated pairs. They give what a binary search over the
// columns gives.
//
// pair_of_uni holds the two output bytes of the pairs converters for every
// UCS-2 unit: the GBK code high byte first, a blank and the character for
// 0..127, "**" for a unit without a code. The first byte tells them apart
// (a GBK lead byte is above 127), so search_gb reads it too.
// uni_of_gbk holds the Unicode value of every code, kNone for none (0xFFFF
// is neither a GBK code nor a Unicode value of the table).
constexpr uint16_t kNone = 0xFFFF;
using Pair = std::array<char, 2>;

struct Index {
    std::array<Pair, 0x10000> pair_of_uni;
    std::array<uint16_t, 0x10000> uni_of_gbk;

    Index() {
        pair_of_uni.fill(Pair{'*', '*'});
        uni_of_gbk.fill(kNone);
        for (int i = 0; i < kPairCount; ++i) {
            const int32_t g = table::gb[i];
            pair_of_uni[static_cast<uint16_t>(table::uni[i])] =
                g > 127 ? Pair{static_cast<char>(g >> 8), static_cast<char>(g & 0xFF)}
                        : Pair{' ', static_cast<char>(g)};
            uni_of_gbk[static_cast<uint16_t>(table::gbsort[i])] = static_cast<uint16_t>(table::unisortbygb[i]);
        }
    }
};

const Index& index() {
    static const Index idx;
    return idx;
}

template <bool kLittleEndian>
bool ucs2_to_gbk_pairs_into(std::span<const uint8_t> in, std::span<char> out) {
    if (in.size() % 2 != 0) return false;
    assert(out.size() >= in.size());
    const auto& pairs = index().pair_of_uni;
    const uint8_t* p = in.data();
    char* o = out.data();
    for (std::size_t i = 0; i < in.size(); i += 2) {
        const uint16_t unit = kLittleEndian ? static_cast<uint16_t>(p[i] | (p[i + 1] << 8))
                                            : static_cast<uint16_t>((p[i] << 8) | p[i + 1]);
        const Pair& pair = pairs[unit];
        o[i] = pair[0];
        o[i + 1] = pair[1];
    }
    return true;
}

template <bool kLittleEndian>
std::optional<std::string> ucs2_to_gbk_pairs(std::span<const uint8_t> in) {
    if (in.size() % 2 != 0) return std::nullopt;
    std::string out(in.size(), '\0');
    ucs2_to_gbk_pairs_into<kLittleEndian>(in, out);
    return out;
}

}  // namespace

int32_t search_gb(int32_t unicode) {
    if (unicode < 0 || unicode > 0xFFFF) return -1;
    const Pair& pair = index().pair_of_uni[static_cast<uint16_t>(unicode)];
    const auto hi = static_cast<uint8_t>(pair[0]);
    const auto lo = static_cast<uint8_t>(pair[1]);
    if (hi > 127) return (hi << 8) | lo;
    return hi == ' ' ? lo : -1;
}

int32_t search_uni(int32_t gbk) {
    if (gbk < 0 || gbk > 0xFFFF) return -1;
    const uint16_t u = index().uni_of_gbk[static_cast<uint16_t>(gbk)];
    return u == kNone ? -1 : u;
}

bool ucs2le_to_gbk_pairs_into(std::span<const uint8_t> in, std::span<char> out) {
    return ucs2_to_gbk_pairs_into<true>(in, out);
}

bool ucs2be_to_gbk_pairs_into(std::span<const uint8_t> in, std::span<char> out) {
    return ucs2_to_gbk_pairs_into<false>(in, out);
}

std::optional<std::string> ucs2le_to_gbk_pairs(std::span<const uint8_t> in) { return ucs2_to_gbk_pairs<true>(in); }

std::optional<std::string> ucs2be_to_gbk_pairs(std::span<const uint8_t> in) { return ucs2_to_gbk_pairs<false>(in); }

// An unmapped unit is written as -1 was always written here, quotient and
// remainder of a division by 256: 0x00 then 0xFF (high byte first), and
// 0xFF then 0x00 low byte first in gbk_to_ucs2le. Callers know these bytes.
std::optional<std::vector<uint8_t>> gbk_units_to_ucs2be(std::span<const uint8_t> in) {
    if (in.size() % 2 != 0) return std::nullopt;
    const auto& unis = index().uni_of_gbk;
    std::vector<uint8_t> out(in.size());
    for (std::size_t i = 0; i < in.size(); i += 2) {
        const uint16_t u = unis[static_cast<uint16_t>((in[i] << 8) | in[i + 1])];
        out[i] = u == kNone ? 0x00 : static_cast<uint8_t>(u >> 8);
        out[i + 1] = u == kNone ? 0xFF : static_cast<uint8_t>(u & 0xFF);
    }
    return out;
}

std::size_t gbk_to_ucs2le_into(std::span<const uint8_t> in, std::span<uint8_t> out) {
    assert(out.size() >= 2 * in.size());
    const auto& unis = index().uni_of_gbk;
    const uint8_t* p = in.data();
    uint8_t* o = out.data();
    const std::size_t n = in.size();
    std::size_t i = 0;
    std::size_t k = 0;
    while (i < n) {
        const uint8_t c = p[i];
        if (c > 127) {
            const uint8_t trail = i + 1 < n ? p[i + 1] : 0;
            const uint16_t u = unis[static_cast<uint16_t>((c << 8) | trail)];
            o[k] = u == kNone ? 0xFF : static_cast<uint8_t>(u & 0xFF);
            o[k + 1] = u == kNone ? 0x00 : static_cast<uint8_t>(u >> 8);
            i += 2;
        } else {
            o[k] = c;
            o[k + 1] = 0x00;
            i += 1;
        }
        k += 2;
    }
    return k;
}

std::vector<uint8_t> gbk_to_ucs2le(std::span<const uint8_t> in) {
    std::vector<uint8_t> out(in.size() * 2);
    out.resize(gbk_to_ucs2le_into(in, out));
    return out;
}

std::string field_text(std::span<const uint8_t> ucs2le) {
    std::string text = *ucs2le_to_gbk_pairs(ucs2le.first(ucs2le.size() & ~std::size_t{1}));
    text.erase(std::remove(text.begin(), text.end(), ' '), text.end());
    return text;
}

}  // namespace kolt::idcard
