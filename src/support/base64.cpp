#include "support/base64.hpp"

#include <array>
#include <cstring>

#include "kolt/kolt.h"

namespace kolt::base64 {
namespace {

constexpr char B64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
// Every fourth alphabet character: the last character of a two-byte
// remainder is chosen by the low nibble of the second byte.
constexpr char B16[] = "AEIMQUYcgkosw048";
// Every sixteenth character: the second character of a one-byte remainder
// is chosen by the low two bits of the byte.
constexpr char B04[] = "AQgw";

// Value of each character in the alphabet; kInvalid for every other byte.
// One table look-up a character keeps the decoder free of branches on the
// character classes.
constexpr uint8_t kInvalid = 0x80;
constexpr auto kValues = [] {
    std::array<uint8_t, 256> t{};
    t.fill(kInvalid);
    for (uint8_t i = 0; i < 64; ++i) t[static_cast<uint8_t>(B64[i])] = i;
    return t;
}();

// The two alphabet characters of every 12-bit value, for the encoder's
// whole groups.
constexpr auto kPairs = [] {
    std::array<std::array<uint8_t, 2>, 4096> t{};
    for (size_t i = 0; i < t.size(); ++i) {
        t[i][0] = static_cast<uint8_t>(B64[i >> 6]);
        t[i][1] = static_cast<uint8_t>(B64[i & 63]);
    }
    return t;
}();

// The encoder proper; buf must hold the text (and terminator).
int encode_raw(uint8_t* buf, int len) {
    const int q = len / 3;
    const int r = len % 3;
    uint8_t* rem = buf + 4 * q;
    if (r == 2) {
        const uint8_t b0 = buf[3 * q], b1 = buf[3 * q + 1];
        rem[0] = B64[b0 >> 2];
        rem[1] = B64[((b0 << 4) & 63) | (b1 >> 4)];
        rem[2] = B16[b1 & 15];
        rem[3] = '=';
        rem[4] = 0;
    } else if (r == 1) {
        const uint8_t b0 = buf[3 * q];
        rem[0] = B64[b0 >> 2];
        rem[1] = B04[b0 & 3];
        rem[2] = '=';
        rem[3] = '=';
        rem[4] = 0;
    }
    // Whole groups from the last to the first: the text of group i covers
    // bytes 4i..4i+3, which only hold input of groups already encoded.
    for (int i = q - 1; i >= 0; --i) {
        const uint8_t* in = buf + 3 * static_cast<size_t>(i);
        const uint32_t x = static_cast<uint32_t>(in[0]) << 16 | static_cast<uint32_t>(in[1]) << 8 | in[2];
        uint8_t* o = buf + 4 * static_cast<size_t>(i);
        // Two characters for each 12 bits.
        std::memcpy(o, kPairs[x >> 12].data(), 2);
        std::memcpy(o + 2, kPairs[x & 0xFFF].data(), 2);
    }
    return (len + 2) / 3 * 4;
}

// The decoder proper; buf must have room up to the next multiple of 4.
int decode_raw(uint8_t* buf, int len) {
    int g = len / 4;
    const int r = len % 4;
    if (r == 1) return 0;
    if (r != 0) {
        for (long long i = len; i < (static_cast<long long>(g) + 1) * 4; ++i) buf[i] = '=';
        ++g;
    }
    int stop = 0;
    for (int i = 0; i < g; ++i) {
        const uint8_t* in = buf + 4 * static_cast<size_t>(i);
        uint8_t* o = buf + 3 * static_cast<size_t>(i);
        const uint32_t a = kValues[in[0]], b = kValues[in[1]], c = kValues[in[2]], d = kValues[in[3]];
        if (((a | b | c | d) & kInvalid) == 0) {
            // A whole group of the alphabet: 24 bits, three bytes. The
            // output never runs ahead of the input (3 bytes for every 4).
            const uint32_t x = a << 18 | b << 12 | c << 6 | d;
            o[0] = static_cast<uint8_t>(x >> 16);
            o[1] = static_cast<uint8_t>(x >> 8);
            o[2] = static_cast<uint8_t>(x);
            continue;
        }
        int v[4] = {static_cast<int>(a), static_cast<int>(b), static_cast<int>(c), static_cast<int>(d)};
        // The group ends at its first character outside the alphabet; that
        // one and those after it count as zero.
        int group_stop = 0;
        while ((v[group_stop] & kInvalid) == 0) ++group_stop;
        for (int k = group_stop; k < 4; ++k) v[k] = 0;
        stop = group_stop;
        const uint8_t b0 = static_cast<uint8_t>((v[0] << 2) | (v[1] >> 4));
        const uint8_t b1 = static_cast<uint8_t>(((v[1] & 15) << 4) | (v[2] >> 2));
        const uint8_t b2 = static_cast<uint8_t>(((v[2] & 3) << 6) | v[3]);
        if (group_stop == 2) {
            o[0] = b0;
            o[1] = 0;
        } else if (group_stop == 3) {
            o[0] = b0;
            o[1] = b1;
            o[2] = 0;
        } else {
            o[0] = b0;
            o[1] = b1;
            o[2] = b2;
        }
    }
    if (stop != 0) return (g - 1) * 3 + stop - 1;
    return g * 3;
}

}  // namespace

int encode_in_place(std::span<uint8_t> buf, int len) {
    if (encoded_size(len) < 0) return -1;
    const size_t need = static_cast<size_t>(encoded_size(len)) + (len % 3 != 0 ? 1 : 0);
    if (buf.size() < need || buf.size() < static_cast<size_t>(len)) return -1;
    return encode_raw(buf.data(), len);
}

int decode_in_place(std::span<uint8_t> buf, int len) {
    if (len < 0 || buf.size() < static_cast<size_t>(len)) return -1;
    if (len % 4 == 1) return 0;
    const size_t need = padded_size(len);
    if (buf.size() < need) return -1;
    return decode_raw(buf.data(), len);
}

std::string encode(std::span<const uint8_t> bytes) {
    std::vector<uint8_t> buf(bytes.begin(), bytes.end());
    const int len = static_cast<int>(bytes.size());
    buf.resize(static_cast<size_t>(encoded_size(len)) + 1);
    const int n = encode_in_place(buf, len);
    return n < 0 ? std::string() : std::string(buf.begin(), buf.begin() + n);
}

std::vector<uint8_t> decode(std::string_view text) {
    std::vector<uint8_t> buf(text.begin(), text.end());
    buf.resize(text.size() + 4);
    const int n = decode_in_place(buf, static_cast<int>(text.size()));
    if (n <= 0) return {};
    buf.resize(static_cast<size_t>(n));
    return buf;
}

}  // namespace kolt::base64
