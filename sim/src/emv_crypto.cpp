// Key derivation, retail MAC and ARPC on libcrypto's triple DES.
#include "kolt_sim/emv_crypto.hpp"

#include <openssl/evp.h>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <string>

namespace kolt::sim::crypto {

namespace {

struct CtxFree {
    void operator()(EVP_CIPHER_CTX* c) const { EVP_CIPHER_CTX_free(c); }
};

void need_size(std::span<const uint8_t> v, size_t n, const char* what) {
    if (v.size() != n)
        throw std::invalid_argument(std::string(what) + " must be " + std::to_string(n) + " bytes, not " +
                                    std::to_string(v.size()));
}

// Two-key triple DES in ECB mode over one block. Single DES with key K is
// the same cipher with both halves K (E(K) D(K) E(K) = E(K)), which keeps
// everything in libcrypto's default provider.
void ede_block(const uint8_t key16[16], const uint8_t in[8], uint8_t out[8]) {
    std::unique_ptr<EVP_CIPHER_CTX, CtxFree> ctx(EVP_CIPHER_CTX_new());
    if (!ctx) throw std::runtime_error("libcrypto: no cipher context");
    int n1 = 0;
    int n2 = 0;
    if (EVP_EncryptInit_ex(ctx.get(), EVP_des_ede_ecb(), nullptr, key16, nullptr) != 1 ||
        EVP_CIPHER_CTX_set_padding(ctx.get(), 0) != 1 || EVP_EncryptUpdate(ctx.get(), out, &n1, in, 8) != 1 ||
        EVP_EncryptFinal_ex(ctx.get(), out + n1, &n2) != 1 || n1 + n2 != 8)
        throw std::runtime_error("libcrypto: triple DES failed");
}

void des_block(const uint8_t key8[8], const uint8_t in[8], uint8_t out[8]) {
    uint8_t k[16];
    std::copy(key8, key8 + 8, k);
    std::copy(key8, key8 + 8, k + 8);
    ede_block(k, in, out);
}

int digit_value(char c) {
    if (c < '0' || c > '9') throw std::invalid_argument(std::string("not a decimal digit: '") + c + "'");
    return c - '0';
}

}  // namespace

Bytes tdes_encrypt_block(std::span<const uint8_t> key16, std::span<const uint8_t> block8) {
    need_size(key16, 16, "a key");
    need_size(block8, 8, "a block");
    Bytes out(8);
    ede_block(key16.data(), block8.data(), out.data());
    return out;
}

Bytes with_odd_parity(std::span<const uint8_t> key) {
    Bytes out(key.begin(), key.end());
    for (uint8_t& b : out) {
        const uint8_t high = b & 0xFE;
        b = (__builtin_popcount(high) % 2 == 0) ? static_cast<uint8_t>(high | 1) : high;
    }
    return out;
}

Bytes key_check_value(std::span<const uint8_t> key16) {
    const Bytes zeros(8, 0);
    Bytes e = tdes_encrypt_block(key16, zeros);
    e.resize(3);
    return e;
}

std::span<const AcElement> cryptogram_elements() {
    static constexpr AcElement kElements[] = {
        {0x9F02, 6}, {0x9F03, 6}, {0x9F1A, 2}, {0x95, 5}, {0x5F2A, 2},
        {0x9A, 3},   {0x9C, 1},   {0x9F37, 4}, {0x82, 2}, {0x9F36, 2}, {0x9F27, 1},
    };
    return kElements;
}

Bytes fit_value(std::span<const uint8_t> value, size_t length) {
    if (value.size() >= length) return Bytes(value.end() - static_cast<std::ptrdiff_t>(length), value.end());
    Bytes out(length - value.size(), 0x00);
    out.insert(out.end(), value.begin(), value.end());
    return out;
}

Bytes pack_digits(std::string_view digits) {
    Bytes out;
    for (size_t i = 0; i < digits.size(); i += 2) {
        const int hi = digit_value(digits[i]);
        const int lo = i + 1 < digits.size() ? digit_value(digits[i + 1]) : 0xF;
        out.push_back(static_cast<uint8_t>(hi << 4 | lo));
    }
    return out;
}

std::string unpack_digits(std::span<const uint8_t> bcd) {
    std::string out;
    for (uint8_t b : bcd) {
        for (int nibble : {b >> 4, b & 0x0F}) {
            if (nibble == 0xF) return out;
            if (nibble > 9) throw std::invalid_argument("not a packed digit: " + std::to_string(nibble));
            out.push_back(static_cast<char>('0' + nibble));
        }
    }
    return out;
}

Bytes derive_icc_master_key(std::span<const uint8_t> issuer_master_key16, std::string_view pan_digits,
                            std::string_view psn_digits) {
    need_size(issuer_master_key16, 16, "an issuer master key");
    while (!pan_digits.empty() && (pan_digits.back() == 'F' || pan_digits.back() == 'f')) pan_digits.remove_suffix(1);
    if (pan_digits.empty()) throw std::invalid_argument("empty PAN");
    if (psn_digits.empty()) psn_digits = "00";
    if (psn_digits.size() != 2) throw std::invalid_argument("a PAN sequence number has two digits");
    std::string all = std::string(pan_digits) + std::string(psn_digits);
    for (char c : all) digit_value(c);
    if (all.size() < 16) all.insert(0, 16 - all.size(), '0');
    const Bytes y = pack_digits(std::string_view(all).substr(all.size() - 16));
    Bytes y_inv = y;
    for (uint8_t& b : y_inv) b = static_cast<uint8_t>(~b);
    Bytes key = tdes_encrypt_block(issuer_master_key16, y);
    const Bytes right = tdes_encrypt_block(issuer_master_key16, y_inv);
    key.insert(key.end(), right.begin(), right.end());
    return with_odd_parity(key);
}

Bytes derive_icc_master_key_packed(std::span<const uint8_t> issuer_master_key16, std::span<const uint8_t> pan_bcd,
                                   std::span<const uint8_t> psn_bcd) {
    const std::string pan = unpack_digits(pan_bcd);
    std::string psn = psn_bcd.empty() ? std::string("00") : unpack_digits(psn_bcd);
    if (psn.size() == 1) psn.insert(0, "0");
    return derive_icc_master_key(issuer_master_key16, pan, psn);
}

Bytes session_diversifier(std::span<const uint8_t> atc2) {
    need_size(atc2, 2, "an ATC");
    Bytes r(8, 0);
    r[0] = atc2[0];
    r[1] = atc2[1];
    return r;
}

Bytes derive_session_key(std::span<const uint8_t> icc_master_key16, std::span<const uint8_t> r8) {
    need_size(icc_master_key16, 16, "a card master key");
    need_size(r8, 8, "a diversification value");
    Bytes left_in(r8.begin(), r8.end());
    Bytes right_in = left_in;
    left_in[2] = 0xF0;
    right_in[2] = 0x0F;
    Bytes key = tdes_encrypt_block(icc_master_key16, left_in);
    const Bytes right = tdes_encrypt_block(icc_master_key16, right_in);
    key.insert(key.end(), right.begin(), right.end());
    return with_odd_parity(key);
}

Bytes pad_method2(std::span<const uint8_t> data) {
    Bytes out(data.begin(), data.end());
    out.push_back(0x80);
    while (out.size() % 8 != 0) out.push_back(0x00);
    return out;
}

Bytes retail_mac(std::span<const uint8_t> key16, std::span<const uint8_t> data) {
    need_size(key16, 16, "a MAC key");
    const Bytes padded = pad_method2(data);
    uint8_t h[8] = {};
    for (size_t off = 0; off < padded.size(); off += 8) {
        uint8_t x[8];
        for (size_t i = 0; i < 8; ++i) x[i] = static_cast<uint8_t>(h[i] ^ padded[off + i]);
        if (off + 8 < padded.size())
            des_block(key16.data(), x, h);
        else
            ede_block(key16.data(), x, h);
    }
    return Bytes(h, h + 8);
}

Bytes arpc_method1(std::span<const uint8_t> key16, std::span<const uint8_t> arqc8, std::span<const uint8_t> arc2) {
    need_size(arqc8, 8, "an ARQC");
    need_size(arc2, 2, "an authorisation response code");
    Bytes x(arqc8.begin(), arqc8.end());
    x[0] ^= arc2[0];
    x[1] ^= arc2[1];
    return tdes_encrypt_block(key16, x);
}

}  // namespace kolt::sim::crypto
