// The C++ tag search of the TLV codec: kolt::tlv::search (at any depth) and
// find_nested, with the top-level lookup find, parse_one and items beside.
//
// Input: byte 0 the strict flag (0, 1 or 2, as callers pass it), byte 1 the
// length_in given to search (0x00: -1 "nothing found yet", else the byte as
// a signed number), a short field with the tag bytes, then the TLV source.
#include "common/fuzz_input.hpp"
#include "kolt/kolt.h"
#include "support/tlv.hpp"

using namespace kolt::fuzz;

namespace {

bool inside(std::span<const uint8_t> part, const Heap& src) {
    if (part.empty()) return true;
    return part.data() >= src.data() && part.data() + part.size() <= src.data() + src.size();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input in(data, size);
    const int strict = in.u8() % 3;
    const uint8_t length_byte = in.u8();
    const int32_t length_in = length_byte == 0 ? -1 : static_cast<int8_t>(length_byte);
    const auto tag_bytes = in.short_field();
    Heap tag(tag_bytes, tag_bytes.size());
    const auto src_bytes = in.rest();
    Heap src(src_bytes, src_bytes.size());
    const std::span<const uint8_t> s(src.data(), src.size());
    const std::span<const uint8_t> t(tag.data(), tag.size());

    const auto r = kolt::tlv::search(s, t, strict, length_in);
    if (r.found) {
        check(inside(r.value, src), "search: value outside the source");
        (void)touch(r.value);
    }
    const auto nested = kolt::tlv::find_nested(s, t, strict);
    if (nested) {
        check(inside(*nested, src), "find_nested: value outside the source");
        (void)touch(*nested);
    }
    const auto top = kolt::tlv::find(s, t);
    if (top.code >= 0) {
        check(inside(top.value, src), "find: value outside the source");
        check(top.value.size() == static_cast<std::size_t>(top.code), "find: code is not the value length");
    }
    if (const auto one = kolt::tlv::parse_one(s)) (void)touch(kolt::tlv::value_of(*one));
    for (const tlv_t& item : kolt::tlv::items(s, strict)) {
        check(inside(kolt::tlv::value_of(item), src), "items: value outside the source");
    }
    return 0;
}
