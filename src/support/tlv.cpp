#include "support/tlv.hpp"

#include <cstdlib>
#include <cstring>
#include <memory>

namespace kolt::tlv {
namespace {

// Number of length bytes for a first length byte, 0 for one outside the
// table (0x80 and 0x84..0xFF).
int length_bytes(uint8_t b0) {
    if (b0 <= 0x7F) return 1;
    if (b0 == 0x81) return 2;
    if (b0 == 0x82) return 3;
    if (b0 == 0x83) return 4;
    return 0;
}

// Decodes a length whose bytes are known to be present.
uint32_t length_value(const uint8_t* p) {
    switch (p[0]) {
        case 0x81: return p[1];
        case 0x82: return static_cast<uint32_t>(p[1]) * 256u + p[2];
        // The 0x83 form: (b1 * 16 + b2) * 256 + b3. The first byte is worth
        // 16, not 65536; cards in the field rely on it.
        case 0x83: return (static_cast<uint32_t>(p[1]) * 16u + p[2]) * 256u + p[3];
        default: return p[0];
    }
}

bool same_tag(const tlv_t& item, std::span<const uint8_t> tag) {
    return item.tag.size == tag.size() && std::memcmp(item.tag.data, tag.data(), tag.size()) == 0;
}

// Bytes of the item at p (tag, length and value, every one within avail
// bytes), 0 when it does not fit or its length byte is not one of 00..7F,
// 81, 82, 83. The walks over a source go item by item with it. (An item
// whose length byte is 00 ends right after it, like any other.)
std::size_t item_extent(const uint8_t* p, std::size_t avail) {
    const std::size_t t = tag_size(p[0]);
    if (t >= avail) return 0;
    // With three bytes there, both places the length byte can be at are
    // read at once, so that the walk waits on one load per item, not two.
    const uint8_t b0 = avail >= 3 ? (t == 2 ? p[2] : p[1]) : p[t];
    if (b0 <= 0x7F) return t + 1 + b0 <= avail ? t + 1 + b0 : 0;
    const int k = length_bytes(b0);
    if (k == 0 || t + static_cast<std::size_t>(k) > avail) return 0;
    const std::size_t whole = t + static_cast<std::size_t>(k) + length_value(p + t);
    return whole <= avail ? whole : 0;
}

}  // namespace

size_t item_size(const tlv_t& item, const uint8_t* start) {
    if (item.val.data == nullptr) {
        // A zero-length item ends right after its length byte.
        return item.tag.size + 1u;
    }
    return static_cast<size_t>(item.val.data - start) + item.val.size;
}

bool parse_tag(tlv_t& item, const uint8_t* src) {
    if (src == nullptr) return false;
    item.tag.data = src;
    item.tag.size = static_cast<uint32_t>(tag_size(src[0]));
    return true;
}

bool parse_length(tlv_field_t& val, const uint8_t* p) {
    if (p == nullptr) return false;
    const int k = length_bytes(p[0]);
    if (k == 0) return false;
    val.size = length_value(p);
    val.data = p[0] == 0x00 ? nullptr : p + k;
    return true;
}

bool parse_into(tlv_t& item, std::span<const uint8_t> src) {
    if (src.empty()) return false;
    const auto avail = static_cast<uint64_t>(src.size());
    parse_tag(item, src.data());
    const uint64_t t = item.tag.size;
    if (t + 1 > avail) return false;
    const int k = length_bytes(src[t]);
    if (k == 0 || t + static_cast<uint64_t>(k) > avail) return false;
    parse_length(item.val, src.data() + t);
    return t + static_cast<uint64_t>(k) + item.val.size <= avail;
}

std::optional<tlv_t> parse_one(std::span<const uint8_t> src) {
    tlv_t item{};
    if (!parse_into(item, src)) return std::nullopt;
    return item;
}

int32_t count(std::span<const uint8_t> src, int strict) {
    int32_t n = 0;
    const uint8_t* p = src.data();
    std::size_t left = src.size();
    while (left > 0) {
        const std::size_t size = item_extent(p, left);
        if (size == 0) return strict == 1 ? -1 : n;
        p += size;
        left -= size;
        ++n;
    }
    return n;
}

std::optional<std::vector<tlv_t>> unpack(std::span<const uint8_t> src, bool strict) {
    const int32_t n = count(src, strict ? 1 : 0);
    if (n < 0) return std::nullopt;
    std::vector<tlv_t> list(static_cast<size_t>(n));
    size_t off = 0;
    for (tlv_t& item : list) {
        parse_into(item, src.subspan(off));
        off += item_size(item, src.data() + off);
    }
    return list;
}

Found find(std::span<const uint8_t> src, std::span<const uint8_t> tag) {
    Found found;
    size_t off = 0;
    while (off < src.size()) {
        tlv_t item{};
        if (!parse_into(item, src.subspan(off))) {
            found.code = -1;
            return found;
        }
        if (same_tag(item, tag)) {
            found.code = static_cast<int>(item.val.size);
            found.value = value_of(item);
            return found;
        }
        off += item_size(item, src.data() + off);
    }
    found.code = -2;
    return found;
}

Found find_in_template(std::span<const uint8_t> src, std::span<const uint8_t> tag, std::span<const uint8_t> path) {
    Found found;
    std::span<const uint8_t> cur = src;
    // Descend through the one-byte templates of path.
    for (const uint8_t step : path) {
        if (cur.data() == nullptr || cur.empty()) {
            found.code = -2;
            return found;
        }
        const Found level = find(cur, std::span<const uint8_t>(&step, 1));
        if (level.code < 0) {
            found.code = -1;
            return found;
        }
        cur = level.value;
    }
    if (cur.data() == nullptr || cur.empty()) {
        found.code = -2;
        return found;
    }
    found = find(cur, tag);
    if (found.code < 0) found.code = -3;
    return found;
}

int encode_length(uint32_t length, uint8_t (&out)[4]) {
    int k = 0;
    if (length < 128) {
        out[k++] = static_cast<uint8_t>(length);
    } else if (length >= 129 && length <= 255) {
        out[k++] = 0x81;
        out[k++] = static_cast<uint8_t>(length);
    } else if (length >= 256 && length <= 65535) {
        out[k++] = 0x82;
        out[k++] = static_cast<uint8_t>(length >> 8);
        out[k++] = static_cast<uint8_t>(length);
    } else if (length >= 65536 && length <= 16777215) {
        out[k++] = 0x83;
        out[k++] = static_cast<uint8_t>(length >> 16);
        out[k++] = static_cast<uint8_t>(length >> 8);
        out[k++] = static_cast<uint8_t>(length);
    }
    // Exactly 128 falls between the one-byte and the 0x81 forms and is
    // refused like a length above 0xFFFFFF.
    return k;
}

std::optional<std::vector<uint8_t>> pack(std::span<const uint8_t> tag, std::span<const uint8_t> value) {
    if (tag.empty() || tag.size() > 2 || tag_size(tag[0]) != tag.size()) return std::nullopt;
    if (tag[0] == 0 || (tag.size() == 2 && tag[1] == 0)) return std::nullopt;
    if (value.size() > 0xFFFFFF) return std::nullopt;
    uint8_t len_bytes[4];
    const int k = encode_length(static_cast<uint32_t>(value.size()), len_bytes);
    if (k == 0) return std::nullopt;
    std::vector<uint8_t> out(tag.begin(), tag.end());
    out.insert(out.end(), len_bytes, len_bytes + k);
    out.insert(out.end(), value.begin(), value.end());
    return out;
}

int32_t write_short(const uint8_t* tag, std::span<const uint8_t> value, std::span<uint8_t> out) {
    if (tag == nullptr || value.size() > 255) return -1;
    const std::size_t tag_len = tag_size(tag[0]);
    const std::size_t total = tag_len + 1 + value.size();
    if (total > out.size()) return -1;
    std::memcpy(out.data(), tag, tag_len);
    out[tag_len] = static_cast<uint8_t>(value.size());
    if (!value.empty()) std::memcpy(out.data() + tag_len + 1, value.data(), value.size());
    return static_cast<int32_t>(total);
}

std::vector<tlv_t> items(std::span<const uint8_t> src, int strict) {
    if (src.empty()) return {};
    auto list = unpack(src, strict == 1);
    if (!list) return {};
    return std::move(*list);
}

TagSearch search(std::span<const uint8_t> src, std::span<const uint8_t> tag, int strict, int32_t length_in) {
    TagSearch r;
    r.length = length_in;
    if (length_in >= 1) {
        r.result = -1;  // a value was already found
        return r;
    }
    auto top = items(src, strict);
    if (top.empty()) {
        r.result = -2;
        return r;
    }
    r.result = 0;  // unless a top-level item matches; the length tells about nested ones
    walk_items(std::move(top), strict, [&](const tlv_t& item, std::size_t depth) {
        if (!tag.empty() && same_tag(item, tag)) {
            r.found = true;
            r.value = value_of(item);
            r.length = static_cast<int32_t>(item.val.size);
            if (depth == 0) {
                r.result = r.length;  // a match among the top-level items
                return Step::Stop;
            }
            return Step::EndLevel;  // that level's search ends with its match
        }
        // A nested search started with a value already found stops at once.
        return r.length >= 1 ? Step::Next : Step::Descend;
    });
    return r;
}

std::optional<std::span<const uint8_t>> find_nested(std::span<const uint8_t> src, std::span<const uint8_t> tag,
                                                    int strict) {
    const TagSearch r = search(src, tag, strict, -1);
    if (!r.found) return std::nullopt;
    return r.value;
}

namespace detail {

int32_t unpack_with(tlv_t** list, const uint8_t* src, int32_t size, int32_t strict, Alloc alloc, Parser parser) {
    if (list == nullptr) return -1;
    *list = nullptr;
    if (src == nullptr && size > 0) return -1;
    const int32_t n = src == nullptr ? 0 : count(std::span<const uint8_t>(src, size > 0 ? static_cast<size_t>(size) : 0u), strict);
    if (n < 0) return -1;
    // At least one element, so that even n == 0 hands the caller an array
    // to free.
    auto* items = static_cast<tlv_t*>(alloc(n > 0 ? static_cast<size_t>(n) : 1u, sizeof(tlv_t)));
    if (items == nullptr) return -2;
    int32_t off = 0;
    for (int32_t i = 0; i < n; ++i) {
        if (parser(&items[i], src + off, size - off) != 0) {
            std::free(items);
            return -3;
        }
        off += static_cast<int32_t>(item_size(items[i], src + off));
    }
    *list = items;
    return n;
}

}  // namespace detail
}  // namespace kolt::tlv
