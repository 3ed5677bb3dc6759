#include "kolt_sim/frame.hpp"

#include <openssl/evp.h>

#include "frame_internal.hpp"

namespace kolt::sim {

std::string base64_encode(std::span<const uint8_t> in) {
    if (in.empty()) return {};
    std::string out(4 * ((in.size() + 2) / 3) + 1, '\0');
    const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()), in.data(),
                                  static_cast<int>(in.size()));
    out.resize(static_cast<size_t>(n));
    return out;
}

static bool is_b64_char(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' ||
           c == '/';
}

std::optional<Bytes> base64_decode(std::string_view text) {
    std::string padded(text);
    if (padded.size() % 4 == 1) return std::nullopt;
    while (padded.size() % 4 != 0) padded.push_back('=');
    // Only "=" may follow the data characters, at most two of them.
    size_t data_len = padded.size();
    while (data_len > 0 && padded[data_len - 1] == '=') --data_len;
    if (padded.size() - data_len > 2) return std::nullopt;
    for (size_t i = 0; i < data_len; ++i)
        if (!is_b64_char(padded[i])) return std::nullopt;
    if (padded.empty()) return Bytes{};
    Bytes out(padded.size() / 4 * 3);
    const int n = EVP_DecodeBlock(out.data(), reinterpret_cast<const unsigned char*>(padded.data()),
                                  static_cast<int>(padded.size()));
    if (n < 0) return std::nullopt;
    out.resize(static_cast<size_t>(n) - (padded.size() - data_len));
    return out;
}

std::string nibble_encode(std::span<const uint8_t> in) {
    std::string out;
    out.reserve(in.size() * 2);
    for (uint8_t b : in) {
        out.push_back(static_cast<char>('0' + (b >> 4)));
        out.push_back(static_cast<char>('0' + (b & 0x0F)));
    }
    return out;
}

std::optional<Bytes> nibble_decode(std::string_view text) {
    if (text.size() % 2 != 0) return std::nullopt;
    Bytes out;
    out.reserve(text.size() / 2);
    for (size_t i = 0; i < text.size(); i += 2) {
        const auto hi = static_cast<uint8_t>(text[i]);
        const auto lo = static_cast<uint8_t>(text[i + 1]);
        if (hi < 0x30 || hi > 0x3F || lo < 0x30 || lo > 0x3F) return std::nullopt;
        out.push_back(static_cast<uint8_t>(((hi - 0x30) << 4) | (lo - 0x30)));
    }
    return out;
}

static void append(Bytes& out, std::string_view s) { out.insert(out.end(), s.begin(), s.end()); }

static uint8_t xor_of(std::span<const uint8_t> s) {
    uint8_t x = 0;
    for (uint8_t b : s) x ^= b;
    return x;
}

// --- main frame ----------------------------------------------------------------

Bytes encode_main_frame(uint8_t a, uint8_t b, std::span<const uint8_t> data, const Tweak& tw) {
    const size_t len = tw.length_max ? 0xFFFF : data.size() + 2 + static_cast<size_t>(tw.length_extra);
    Bytes logical;
    logical.reserve(data.size() + 5);
    logical.push_back(static_cast<uint8_t>(len >> 8));
    logical.push_back(static_cast<uint8_t>(len & 0xFF));
    logical.push_back(a);
    logical.push_back(b);
    logical.insert(logical.end(), data.begin(), data.end());
    const uint8_t check = xor_of(std::span(logical).subspan(2)) ^ tw.check_xor;
    logical.push_back(check);
    Bytes wire;
    wire.push_back(0x02);
    append(wire, nibble_encode(logical));
    wire.push_back(0x03);
    return wire;
}

Bytes encode_special_frame(std::span<const uint8_t> body, const Tweak& tw) {
    const std::string text = base64_encode(body);
    const size_t len = tw.length_max ? 0xFFFF : text.size() + static_cast<size_t>(tw.length_extra);
    const uint8_t lenb[2] = {static_cast<uint8_t>(len >> 8), static_cast<uint8_t>(len & 0xFF)};
    uint8_t check = tw.check_xor;
    for (char c : text) check ^= static_cast<uint8_t>(c);
    Bytes wire;
    wire.push_back(0x02);
    append(wire, nibble_encode(lenb));
    append(wire, text);
    append(wire, nibble_encode(std::span(&check, 1)));
    wire.push_back(0x03);
    return wire;
}

Bytes encode_main_command(uint8_t cls, uint8_t code, std::span<const uint8_t> data) {
    return encode_main_frame(cls, code, data, {});
}

Bytes encode_main_reply(uint8_t s1, uint8_t s2, std::span<const uint8_t> data) {
    return encode_main_frame(s1, s2, data, {});
}

Bytes encode_special_reply(std::span<const uint8_t> body) { return encode_special_frame(body, {}); }

std::optional<MainFrame> decode_main(std::span<const uint8_t> wire) {
    if (wire.size() < 12 || wire.front() != 0x02 || wire.back() != 0x03) return std::nullopt;
    const std::string_view inner(reinterpret_cast<const char*>(wire.data()) + 1, wire.size() - 2);
    auto bytes = nibble_decode(inner);
    if (!bytes || bytes->size() < 5) return std::nullopt;
    const size_t len = (size_t{(*bytes)[0]} << 8) | (*bytes)[1];
    if (len + 3 != bytes->size()) return std::nullopt;
    const auto body = std::span(*bytes).subspan(2, len);
    if (xor_of(body) != bytes->back()) return std::nullopt;
    MainFrame f;
    f.a = body[0];
    f.b = body[1];
    f.data.assign(body.begin() + 2, body.end());
    return f;
}

std::optional<Bytes> decode_special_reply(std::span<const uint8_t> wire) {
    if (wire.size() < 8 || wire.front() != 0x02 || wire.back() != 0x03) return std::nullopt;
    const auto* chars = reinterpret_cast<const char*>(wire.data());
    auto lenb = nibble_decode(std::string_view(chars + 1, 4));
    if (!lenb) return std::nullopt;
    const size_t len = (size_t{(*lenb)[0]} << 8) | (*lenb)[1];
    if (wire.size() != len + 8) return std::nullopt;
    const std::string_view text(chars + 5, len);
    auto check = nibble_decode(std::string_view(chars + 5 + len, 2));
    if (!check) return std::nullopt;
    uint8_t x = 0;
    for (char c : text) x ^= static_cast<uint8_t>(c);
    if (x != (*check)[0]) return std::nullopt;
    return base64_decode(text);
}

// --- bracket framing ------------------------------------------------------------

Bytes encode_bracket_frame(uint8_t cmd, std::span<const uint8_t> data, const Tweak& tw) {
    const std::string body = base64_encode(data);
    const size_t lenval = tw.length_max ? 0xFFFF : body.size() + 4 + static_cast<size_t>(tw.length_extra);
    const uint8_t lenb[2] = {static_cast<uint8_t>(lenval >> 8), static_cast<uint8_t>(lenval & 0xFF)};
    Bytes wire;
    wire.push_back('(');
    append(wire, base64_encode(lenb).substr(0, 3));
    wire.push_back(cmd);
    append(wire, body);
    const uint8_t check = xor_of(std::span(wire).subspan(1)) ^ tw.check_xor;
    const uint8_t checkb[2] = {check, 0};
    append(wire, base64_encode(checkb).substr(0, 2));
    wire.push_back(')');
    return wire;
}

Bytes encode_bracket(uint8_t cmd, std::span<const uint8_t> data) {
    return encode_bracket_frame(cmd, data, {});
}

std::optional<uint16_t> bracket_length(std::span<const uint8_t> three) {
    if (three.size() != 3) return std::nullopt;
    auto v = base64_decode(std::string_view(reinterpret_cast<const char*>(three.data()), 3));
    if (!v || v->size() != 2) return std::nullopt;
    return static_cast<uint16_t>(((*v)[0] << 8) | (*v)[1]);
}

std::optional<BracketFrame> decode_bracket(std::span<const uint8_t> wire) {
    if (wire.size() < 8 || wire.front() != '(' || wire.back() != ')') return std::nullopt;
    auto r = bracket_length(wire.subspan(1, 3));
    if (!r || size_t{*r} + 4 != wire.size()) return std::nullopt;
    const size_t t = wire.size();
    const uint8_t check = xor_of(wire.subspan(1, t - 4));
    auto got = base64_decode(std::string_view(reinterpret_cast<const char*>(wire.data()) + t - 3, 2));
    if (!got || got->empty() || (*got)[0] != check) return std::nullopt;
    BracketFrame f;
    f.cmd = wire[4];
    auto body = base64_decode(std::string_view(reinterpret_cast<const char*>(wire.data()) + 5, t - 8));
    if (!body) return std::nullopt;
    f.data = std::move(*body);
    return f;
}

// --- 0x86 family ----------------------------------------------------------------

Bytes encode_86_frame(std::span<const uint8_t> payload, const Tweak& tw) {
    const size_t len = tw.length_max ? 0xFFFF : payload.size() + 2 + static_cast<size_t>(tw.length_extra);
    Bytes logical{0x86, static_cast<uint8_t>(len >> 8), static_cast<uint8_t>(len & 0xFF)};
    logical.insert(logical.end(), payload.begin(), payload.end());
    uint8_t sum = 0;
    for (size_t i = 1; i < logical.size(); ++i) sum = static_cast<uint8_t>(sum + logical[i]);
    logical.push_back(sum ^ tw.check_xor);
    logical.push_back(0x16);
    Bytes wire;
    append(wire, nibble_encode(logical));
    return wire;
}

Bytes encode_86(std::span<const uint8_t> payload) { return encode_86_frame(payload, {}); }

std::optional<Bytes> decode_86(std::span<const uint8_t> wire) {
    auto bytes = nibble_decode(std::string_view(reinterpret_cast<const char*>(wire.data()), wire.size()));
    if (!bytes || bytes->size() < 5 || (*bytes)[0] != 0x86 || bytes->back() != 0x16) return std::nullopt;
    const size_t len = (size_t{(*bytes)[1]} << 8) | (*bytes)[2];
    if (len + 3 != bytes->size()) return std::nullopt;
    uint8_t sum = 0;
    for (size_t i = 1; i + 2 < bytes->size(); ++i) sum = static_cast<uint8_t>(sum + (*bytes)[i]);
    if (sum != (*bytes)[bytes->size() - 2]) return std::nullopt;
    return Bytes(bytes->begin() + 3, bytes->end() - 2);
}

// --- replies ----------------------------------------------------------------------

Bytes encode_answer(const Answer& answer, const Tweak& tw) {
    const Reply& r = answer.reply;
    switch (answer.form) {
        case ReplyForm::Main: return encode_main_frame(r.s1, r.s2, r.data, tw);
        case ReplyForm::Special: {
            Bytes body{r.s1, r.s2};
            body.insert(body.end(), r.data.begin(), r.data.end());
            return encode_special_frame(body, tw);
        }
        case ReplyForm::Bracket: return encode_bracket_frame(answer.cmd, r.data, tw);
        case ReplyForm::Legacy86: return encode_86_frame(r.data, tw);
        case ReplyForm::Raw: {
            Bytes out = r.data;
            if (!out.empty()) out.back() ^= tw.check_xor;
            // An EF01 packet: its length field (bytes 7 and 8) can lie too.
            if (out.size() >= 9 && out[0] == 0xEF && out[1] == 0x01 && (tw.length_max || tw.length_extra != 0)) {
                const size_t len = tw.length_max ? 0xFFFF
                                                 : ((size_t{out[7]} << 8 | out[8]) + static_cast<size_t>(tw.length_extra));
                out[7] = static_cast<uint8_t>(len >> 8);
                out[8] = static_cast<uint8_t>(len & 0xFF);
            }
            return out;
        }
    }
    return {};
}

}  // namespace kolt::sim
