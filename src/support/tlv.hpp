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
#include <utility>
#include <vector>

#include "kolt/kolt.h"

namespace kolt::tlv {

// The tag at src (one or two bytes, see tag_size); false for a null src.
bool parse_tag(tlv_t& item, const uint8_t* src);
// The length at p and where the value starts (none for a length byte of
// 00); false for a first length byte outside 00..7F, 81, 82, 83.
bool parse_length(tlv_field_t& val, const uint8_t* p);
// One item at the start of src: the tag, length and whole value must lie
// within src. False on a bad length byte or when anything runs past the end.
bool parse_into(tlv_t& item, std::span<const uint8_t> src);
std::optional<tlv_t> parse_one(std::span<const uint8_t> src);

// Number of items that tile src; on a bad item -1 when strict is 1, else
// the count of the items before it.
int32_t count(std::span<const uint8_t> src, int strict);

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

// Tag bytes of an item whose first tag byte is b: two when its low five bits
// are all set, else one. The second byte is not examined, so a three-byte
// tag reads as two bytes and garbage.
constexpr std::size_t tag_size(uint8_t b) { return (b & 0x1F) == 0x1F ? 2u : 1u; }

// The items that tile src: strict 1 refuses the whole source on a bad
// item, any other value keeps the items before it. Empty when none.
std::vector<tlv_t> items(std::span<const uint8_t> src, int strict);

// What a walk does after visiting an item.
enum class Step {
    Descend,   // on into the item's value, then the item's next sibling
    Next,      // on with the item's next sibling
    EndLevel,  // on with the next sibling of the item's parent
    Stop,      // the walk ends
};

// Depth-first through the items of `top` and, as visit(item, depth)
// decides, the items inside their values (decoded with nested_strict), in
// source order. An explicit stack keeps arbitrarily deep nesting off the
// call stack.
template <class Visit>
void walk_items(std::vector<tlv_t> top, int nested_strict, Visit&& visit) {
    struct Level {
        std::vector<tlv_t> items;
        std::size_t next = 0;
    };
    std::vector<Level> stack;
    if (!top.empty()) stack.push_back(Level{std::move(top)});
    while (!stack.empty()) {
        Level& level = stack.back();
        if (level.next >= level.items.size()) {
            stack.pop_back();
            continue;
        }
        const tlv_t item = level.items[level.next++];
        switch (visit(item, stack.size() - 1)) {
        case Step::Descend: {
            auto nested = items(value_of(item), nested_strict);
            if (!nested.empty()) stack.push_back(Level{std::move(nested)});
            break;
        }
        case Step::Next: break;
        case Step::EndLevel: stack.pop_back(); break;
        case Step::Stop: return;
        }
    }
}

// walk_items over the items of src (decoded with top_strict).
template <class Visit>
void walk(std::span<const uint8_t> src, int top_strict, int nested_strict, Visit&& visit) {
    walk_items(items(src, top_strict), nested_strict, std::forward<Visit>(visit));
}

// Nested search of one tag: length_in >= 1 gives result -1 at once (a value
// was already found); an undecodable source -2; a match among the top-level
// items returns its value length; otherwise 0, even when a nested item
// matched (length then tells). value points into src.
struct TagSearch {
    int32_t result = 0;
    int32_t length = -1;                 // length_in while nothing was found
    bool found = false;
    std::span<const uint8_t> value;      // valid when found
};
TagSearch search(std::span<const uint8_t> src, std::span<const uint8_t> tag, int strict, int32_t length_in = -1);

// The value of the tag found as search does (at any depth), or nullopt.
std::optional<std::span<const uint8_t>> find_nested(std::span<const uint8_t> src, std::span<const uint8_t> tag,
                                                    int strict = 0);

// Value of the first top-level item with the given tag bytes; -2 when the
// source ends without one, -1 on a malformed item (parse_tlv_data_t).
struct Found {
    int code = -2;                    // value length, or -1 / -2
    std::span<const uint8_t> value;   // empty unless code >= 0
};
Found find(std::span<const uint8_t> src, std::span<const uint8_t> tag);

// Value of tag inside the one-byte templates named by path, each found
// among the items of the one before: -1 when a template is missing or
// malformed, -2 when one is empty, -3 when the tag is not in the last.
Found find_in_template(std::span<const uint8_t> src, std::span<const uint8_t> tag, std::span<const uint8_t> path);

// Length bytes of a value length: the count written into out, 0 for a
// length the codec refuses (exactly 128, or above 0xFFFFFF).
int encode_length(uint32_t length, uint8_t (&out)[4]);

// Short tag writer: tag (two bytes when the low five bits of the first are
// all set), one length byte, value. Returns the bytes written, or -1 when
// the value is longer than 255 bytes or out has no room.
int32_t write_short(const uint8_t* tag, std::span<const uint8_t> value, std::span<uint8_t> out);

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
