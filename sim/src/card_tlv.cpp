// BER-TLV and hex helpers of the simulated cards.
#include "kolt_sim/card.hpp"

#include <stdexcept>

namespace kolt::sim::ber {

namespace {

int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

}  // namespace

Bytes from_hex(std::string_view text) {
    Bytes out;
    out.reserve(text.size() / 2);
    int high = -1;
    for (char c : text) {
        if (is_blank(c)) continue;
        const int d = hex_digit(c);
        if (d < 0) throw std::invalid_argument("not a hex digit: '" + std::string(1, c) + "'");
        if (high < 0) {
            high = d;
        } else {
            out.push_back(static_cast<uint8_t>(high << 4 | d));
            high = -1;
        }
    }
    if (high >= 0) throw std::invalid_argument("odd number of hex digits");
    return out;
}

std::string to_hex(std::span<const uint8_t> bytes) {
    static const char digits[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(bytes.size() * 2);
    for (uint8_t b : bytes) {
        out += digits[b >> 4];
        out += digits[b & 0x0F];
    }
    return out;
}

Bytes tag_bytes(uint32_t tag) {
    Bytes out;
    if (tag > 0xFFFF) out.push_back(static_cast<uint8_t>(tag >> 16));
    if (tag > 0xFF) out.push_back(static_cast<uint8_t>(tag >> 8));
    out.push_back(static_cast<uint8_t>(tag));
    return out;
}

namespace {

// Reads a tag at `pos`; returns its size in bytes (0 when malformed).
size_t read_tag(std::span<const uint8_t> buf, size_t pos, uint32_t& tag) {
    if (pos >= buf.size()) return 0;
    tag = buf[pos];
    size_t n = 1;
    if ((buf[pos] & 0x1F) != 0x1F) return n;
    for (;;) {
        if (pos + n >= buf.size() || n >= 3) return 0;
        const uint8_t b = buf[pos + n];
        tag = tag << 8 | b;
        ++n;
        if ((b & 0x80) == 0) return n;
    }
}

// Reads a definite length at `pos`; returns the number of length bytes
// (0 when malformed).
size_t read_length(std::span<const uint8_t> buf, size_t pos, size_t& length) {
    if (pos >= buf.size()) return 0;
    const uint8_t b0 = buf[pos];
    if (b0 < 0x80) {
        length = b0;
        return 1;
    }
    const size_t count = b0 & 0x7F;
    if (count == 0 || count > 3 || pos + count >= buf.size()) return 0;
    length = 0;
    for (size_t i = 1; i <= count; ++i) length = length << 8 | buf[pos + i];
    return count + 1;
}

}  // namespace

uint32_t parse_tag_text(std::string_view text) {
    const Bytes b = from_hex(text);
    uint32_t tag = 0;
    if (b.empty() || b.size() > 3 || read_tag(b, 0, tag) != b.size())
        throw std::invalid_argument("not a BER tag: " + std::string(text));
    if (b[0] == 0x00 || b[0] == 0xFF) throw std::invalid_argument("not a BER tag: " + std::string(text));
    return tag;
}

bool is_constructed(uint32_t tag) {
    const Bytes b = tag_bytes(tag);
    return (b[0] & 0x20) != 0;
}

Bytes length_bytes(size_t length) {
    if (length < 0x80) return {static_cast<uint8_t>(length)};
    if (length <= 0xFF) return {0x81, static_cast<uint8_t>(length)};
    if (length <= 0xFFFF) return {0x82, static_cast<uint8_t>(length >> 8), static_cast<uint8_t>(length)};
    if (length <= 0xFFFFFF)
        return {0x83, static_cast<uint8_t>(length >> 16), static_cast<uint8_t>(length >> 8),
                static_cast<uint8_t>(length)};
    throw std::length_error("TLV value too long");
}

void append(Bytes& out, uint32_t tag, std::span<const uint8_t> value) {
    const Bytes t = tag_bytes(tag);
    const Bytes l = length_bytes(value.size());
    out.insert(out.end(), t.begin(), t.end());
    out.insert(out.end(), l.begin(), l.end());
    out.insert(out.end(), value.begin(), value.end());
}

Bytes encode(uint32_t tag, std::span<const uint8_t> value) {
    Bytes out;
    append(out, tag, value);
    return out;
}

std::optional<std::vector<Item>> parse(std::span<const uint8_t> buffer) {
    std::vector<Item> items;
    size_t pos = 0;
    while (pos < buffer.size()) {
        if (buffer[pos] == 0x00 || buffer[pos] == 0xFF) {
            ++pos;
            continue;
        }
        Item item;
        item.offset = pos;
        const size_t tn = read_tag(buffer, pos, item.tag);
        if (tn == 0) return std::nullopt;
        size_t length = 0;
        const size_t ln = read_length(buffer, pos + tn, length);
        if (ln == 0) return std::nullopt;
        item.header_size = tn + ln;
        const size_t start = pos + item.header_size;
        if (length > buffer.size() - start) return std::nullopt;
        item.value = buffer.subspan(start, length);
        items.push_back(item);
        pos = start + length;
    }
    return items;
}

std::optional<std::span<const uint8_t>> find(std::span<const uint8_t> buffer, uint32_t tag) {
    const auto items = parse(buffer);
    if (!items) return std::nullopt;
    for (const Item& item : *items) {
        if (item.tag == tag) return item.value;
        if (is_constructed(item.tag)) {
            if (auto inner = find(item.value, tag)) return inner;
        }
    }
    return std::nullopt;
}

std::optional<std::vector<DolEntry>> parse_dol(std::span<const uint8_t> dol) {
    std::vector<DolEntry> entries;
    size_t pos = 0;
    while (pos < dol.size()) {
        DolEntry e;
        const size_t tn = read_tag(dol, pos, e.tag);
        if (tn == 0 || pos + tn >= dol.size()) return std::nullopt;
        e.length = dol[pos + tn];
        entries.push_back(e);
        pos += tn + 1;
    }
    return entries;
}

std::optional<size_t> dol_length(std::span<const uint8_t> dol) {
    const auto entries = parse_dol(dol);
    if (!entries) return std::nullopt;
    size_t sum = 0;
    for (const DolEntry& e : *entries) sum += e.length;
    return sum;
}

}  // namespace kolt::sim::ber
