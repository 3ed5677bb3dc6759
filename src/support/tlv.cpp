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

struct Freer {
    void operator()(tlv_t* p) const { std::free(p); }
};

}  // namespace

size_t item_size(const tlv_t& item, const uint8_t* start) {
    if (item.val.data == nullptr) {
        // A zero-length item ends right after its length byte.
        return item.tag.size + 1u;
    }
    return static_cast<size_t>(item.val.data - start) + item.val.size;
}

std::optional<tlv_t> parse_one(std::span<const uint8_t> src) {
    tlv_t item{};
    const auto avail = src.size() > 0x7FFFFFFF ? 0x7FFFFFFF : static_cast<int32_t>(src.size());
    if (tlv_parser(&item, src.data(), avail) != 0) return std::nullopt;
    return item;
}

std::optional<std::vector<tlv_t>> unpack(std::span<const uint8_t> src, bool strict) {
    if (src.size() > 0x7FFFFFFF) return std::nullopt;
    tlv_t* raw = nullptr;
    const int32_t n = unpack_tlv_data(&raw, src.data(), static_cast<int32_t>(src.size()), strict ? 1 : 0);
    const std::unique_ptr<tlv_t, Freer> owner(raw);
    if (n < 0) return std::nullopt;
    return std::vector<tlv_t>(raw, raw + n);
}

Found find(std::span<const uint8_t> src, std::span<const uint8_t> tag) {
    Found found;
    if (src.size() > 0x7FFFFFFF) {
        found.code = -1;
        return found;
    }
    size_t off = 0;
    while (off < src.size()) {
        tlv_t item{};
        if (tlv_parser(&item, src.data() + off, static_cast<int32_t>(src.size() - off)) != 0) {
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

std::optional<std::vector<uint8_t>> pack(std::span<const uint8_t> tag, std::span<const uint8_t> value) {
    if (tag.empty() || tag.size() > 2 || value.size() > 0xFFFFFF) return std::nullopt;
    const char tag_text[3] = {static_cast<char>(tag[0]), tag.size() > 1 ? static_cast<char>(tag[1]) : '\0', '\0'};
    if (tag_text[0] == 0 || (tag.size() == 2 && tag_text[1] == 0)) return std::nullopt;
    std::vector<uint8_t> out(tag.size() + 4 + value.size());
    const int32_t n = pack_tlv_data(out.data(), tag_text, value.data(), static_cast<uint32_t>(value.size()));
    if (n < 0) return std::nullopt;
    out.resize(static_cast<size_t>(n));
    return out;
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
    const int32_t n = count_tlv_substring(src, size, strict);
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

// ---------------------------------------------------------------------------
// C interface

extern "C" {

// The codec's trace hook: its calls stay at their places in the codec but
// write nothing.
KOLT_API void KOLT_TLV_debugWriteLog(const char* format, const void* data, int32_t len) {
    (void)format;
    (void)data;
    (void)len;
}

KOLT_API int32_t parse_tlv_tag(tlv_t* item, const uint8_t* src) {
    if (item == nullptr || src == nullptr) return -1;
    item->tag.data = src;
    item->tag.size = static_cast<uint32_t>(kolt::tlv::tag_size(src[0]));
    return 0;
}

KOLT_API int32_t parse_tlv_length(tlv_field_t* val, const uint8_t* p) {
    if (val == nullptr || p == nullptr) return -1;
    const int k = kolt::tlv::length_bytes(p[0]);
    if (k == 0) return -1;
    val->size = kolt::tlv::length_value(p);
    val->data = p[0] == 0x00 ? nullptr : p + k;
    return 0;
}

KOLT_API int32_t tlv_parser(tlv_t* item, const uint8_t* src, int32_t avail) {
    if (item == nullptr || src == nullptr || avail < 1) return -1;
    parse_tlv_tag(item, src);
    const int64_t t = item->tag.size;
    KOLT_TLV_debugWriteLog("tlv_parser tlv->tag.size= %d", &item->tag.size, 0);
    if (t + 1 > avail) return -1;
    const int k = kolt::tlv::length_bytes(src[t]);
    if (k == 0 || t + k > avail) return -1;
    if (parse_tlv_length(&item->val, src + t) != 0) return -1;
    KOLT_TLV_debugWriteLog("tlv_parser tlv->val.size 1= %d", &item->val.size, 0);
    if (t + k + static_cast<int64_t>(item->val.size) > avail) return -1;
    return 0;
}

KOLT_API int32_t count_tlv_substring(const uint8_t* src, int32_t size, int32_t strict) {
    int32_t count = 0;
    int32_t off = 0;
    while (src != nullptr && off < size) {
        tlv_t item{};
        if (tlv_parser(&item, src + off, size - off) != 0) return strict == 1 ? -1 : count;
        KOLT_TLV_debugWriteLog("count_tlv_substring while tlv.tag.size= %d", &item.tag.size, 0);
        off += static_cast<int32_t>(kolt::tlv::item_size(item, src + off));
        ++count;
    }
    return count;
}

KOLT_API int32_t unpack_tlv_data(tlv_t** list, const uint8_t* src, int32_t size, int32_t strict) {
    return kolt::tlv::detail::unpack_with(
        list, src, size, strict, [](size_t count, size_t each) -> void* { return std::calloc(count, each); },
        tlv_parser);
}

KOLT_API int32_t parse_tlv_data_t(const uint8_t** out, const char* tag, const uint8_t* src, int32_t size) {
    if (tag == nullptr || (src == nullptr && size > 0)) return -1;
    if (size < 0) size = 0;
    const auto found = kolt::tlv::find(std::span<const uint8_t>(src, static_cast<size_t>(size)),
                                       std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(tag), std::strlen(tag)));
    if (found.code >= 0 && out != nullptr) *out = found.value.data();
    return found.code;
}

KOLT_API int32_t parse_tlv_data(uint8_t* out, const char* tag, const uint8_t* src, int32_t size) {
    const uint8_t* value = nullptr;
    const int32_t n = parse_tlv_data_t(&value, tag, src, size);
    if (n < 0) return -1;
    if (out != nullptr && value != nullptr && n > 0) std::memcpy(out, value, static_cast<size_t>(n));
    return n;
}

KOLT_API int32_t parse_tlv_data_tmplt(uint8_t* out, const char* tag, const char* path, const uint8_t* src, int32_t size) {
    if (tag == nullptr || path == nullptr) return -1;
    const uint8_t* cur = src;
    int32_t left = size;
    // Descend through the one-byte templates of path.
    for (const char* p = path; *p != 0; ++p) {
        if (cur == nullptr || left <= 0) return -2;
        const char step[2] = {*p, 0};
        const uint8_t* value = nullptr;
        const int32_t n = parse_tlv_data_t(&value, step, cur, left);
        if (n < 0) return -1;
        cur = value;
        left = n;
    }
    if (cur == nullptr || left <= 0) return -2;
    const uint8_t* value = nullptr;
    const int32_t n = parse_tlv_data_t(&value, tag, cur, left);
    if (n < 0) return -3;
    if (out != nullptr && value != nullptr && n > 0) std::memcpy(out, value, static_cast<size_t>(n));
    return n;
}

KOLT_API int32_t pack_tlv_data(uint8_t* out, const char* tag, const uint8_t* value, uint32_t length) {
    if (out == nullptr || tag == nullptr) return -1;
    const size_t t = std::strlen(tag);
    if (t != 1 && t != 2) return -1;
    if (kolt::tlv::tag_size(static_cast<uint8_t>(tag[0])) != t) return -1;
    uint8_t len_bytes[4];
    size_t k = 0;
    if (length < 128) {
        len_bytes[k++] = static_cast<uint8_t>(length);
    } else if (length >= 129 && length <= 255) {
        len_bytes[k++] = 0x81;
        len_bytes[k++] = static_cast<uint8_t>(length);
    } else if (length >= 256 && length <= 65535) {
        len_bytes[k++] = 0x82;
        len_bytes[k++] = static_cast<uint8_t>(length >> 8);
        len_bytes[k++] = static_cast<uint8_t>(length);
    } else if (length >= 65536 && length <= 16777215) {
        len_bytes[k++] = 0x83;
        len_bytes[k++] = static_cast<uint8_t>(length >> 16);
        len_bytes[k++] = static_cast<uint8_t>(length >> 8);
        len_bytes[k++] = static_cast<uint8_t>(length);
    } else {
        // Exactly 128 falls between the one-byte and the 0x81 forms and is
        // refused like a length above 0xFFFFFF.
        return -2;
    }
    if (value == nullptr && length > 0) return -2;
    std::memcpy(out, tag, t);
    std::memcpy(out + t, len_bytes, k);
    if (length > 0) std::memcpy(out + t + k, value, length);
    return static_cast<int32_t>(t + k + length);
}

}  // extern "C"
