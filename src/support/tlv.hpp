// BER-TLV reader and writer for the data objects EMV cards return. Items
// point into the caller's source buffer; nothing is copied. One- and
// two-byte tags, definite lengths with up to three following bytes (the
// 0x83 form multiplies its first byte by 16, as cards in the field expect),
// and no interpretation of the constructed bit.
//
// The C functions (parse_tlv_tag, tlv_parser, count_tlv_substring,
// unpack_tlv_data, parse_tlv_data_t, parse_tlv_data, parse_tlv_data_tmplt,
// pack_tlv_data) are declared in kolt/kolt.h together with tlv_t.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "kolt/kolt.h"

namespace kolt::tlv {

// One item at the start of src: the tag, length and whole value must lie
// within src. nullopt on a bad length byte or when anything runs past the end.
std::optional<tlv_t> parse_one(std::span<const uint8_t> src);

// Byte count of an item from its tag to the end of its value.
size_t item_size(const tlv_t& item, const uint8_t* start);

// The top-level items that tile src, in source order. nullopt when counting
// fails (strict: any bad item; otherwise the items before a bad one are
// returned). The array the C codec allocates is freed here.
std::optional<std::vector<tlv_t>> unpack(std::span<const uint8_t> src, bool strict);

inline std::span<const uint8_t> tag_of(const tlv_t& item) { return {item.tag.data, item.tag.size}; }
inline std::span<const uint8_t> value_of(const tlv_t& item) {
    if (item.val.data == nullptr) return {};
    return {item.val.data, item.val.size};
}

// Value of the first top-level item with the given tag bytes; -2 when the
// source ends without one, -1 on a malformed item (parse_tlv_data_t).
struct Found {
    int code = -2;                    // value length, or -1 / -2
    std::span<const uint8_t> value;   // empty unless code >= 0
};
Found find(std::span<const uint8_t> src, std::span<const uint8_t> tag);

// Tag, length and value as bytes; nullopt for a bad tag or a length the
// codec refuses (exactly 128, or above 0xFFFFFF).
std::optional<std::vector<uint8_t>> pack(std::span<const uint8_t> tag, std::span<const uint8_t> value);

namespace detail {
// unpack_tlv_data with the allocation and the item parser named, so that
// the failure paths of the second pass can be exercised.
using Alloc = void* (*)(size_t count, size_t size);
using Parser = int32_t (*)(tlv_t* item, const uint8_t* src, int32_t avail);
int32_t unpack_with(tlv_t** list, const uint8_t* src, int32_t size, int32_t strict, Alloc alloc, Parser parser);
}  // namespace detail

}  // namespace kolt::tlv
