// The C functions of the TLV codec over card data: tlv_parser,
// count_tlv_substring and unpack_tlv_data (strict and lenient),
// parse_tlv_data_t, parse_tlv_data and parse_tlv_data_tmplt.
//
// Input: a short field with the tag searched for (its bytes up to a zero
// are the C text), a short field with the template path of
// parse_tlv_data_tmplt (likewise), then the TLV source.
#include <cstdlib>

#include "common/fuzz_input.hpp"
#include "kolt/kolt.h"
#include "support/tlv.hpp"

using namespace kolt::fuzz;

namespace {

bool inside(const uint8_t* p, std::size_t n, const Heap& src) {
    return p >= src.data() && p <= src.data() + src.size() && n <= static_cast<std::size_t>(src.data() + src.size() - p);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input in(data, size);
    const auto tag = Heap::text(in.short_field());
    const auto path = Heap::text(in.short_field());
    const auto src_bytes = in.rest();
    Heap src(src_bytes, src_bytes.size());
    const auto n = static_cast<int32_t>(src.size());

    {
        tlv_t item{};
        if (tlv_parser(&item, src.data(), n) == 0) {
            check(inside(item.tag.data, item.tag.size, src), "tlv_parser: tag outside the source");
            if (item.val.data != nullptr) check(inside(item.val.data, item.val.size, src), "tlv_parser: value outside the source");
            (void)touch(kolt::tlv::value_of(item));
        }
    }
    for (int32_t strict = 0; strict <= 1; ++strict) {
        const int32_t count = count_tlv_substring(src.data(), n, strict);
        tlv_t* list = nullptr;
        const int32_t got = unpack_tlv_data(&list, src.data(), n, strict);
        check(got == count || (count < 0 && got == -1), "unpack_tlv_data: count differs from count_tlv_substring");
        for (int32_t i = 0; i < got; ++i) {
            if (list[i].val.data != nullptr) {
                check(inside(list[i].val.data, list[i].val.size, src), "unpack_tlv_data: value outside the source");
            }
            (void)touch(kolt::tlv::value_of(list[i]));
        }
        std::free(list);
    }
    {
        const uint8_t* value = nullptr;
        const int32_t len = parse_tlv_data_t(&value, tag->chars(), src.data(), n);
        if (len >= 0) {
            check(len == 0 || inside(value, static_cast<std::size_t>(len), src), "parse_tlv_data_t: value outside the source");
        } else {
            check(len == -1 || len == -2, "parse_tlv_data_t: result below -2");
        }
    }
    {
        // A value is at most the whole source.
        Heap out(src.size());
        const int32_t len = parse_tlv_data(out.data(), tag->chars(), src.data(), n);
        check(len >= -1 && len <= n, "parse_tlv_data: result outside -1..size");
    }
    {
        Heap out(src.size());
        const int32_t len = parse_tlv_data_tmplt(out.data(), tag->chars(), path->chars(), src.data(), n);
        check(len >= -3 && len <= n, "parse_tlv_data_tmplt: result outside -3..size");
    }
    return 0;
}
