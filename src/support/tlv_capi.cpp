// Exported C entry points of the TLV codec: argument checks over the C++
// codec of support/tlv.hpp.
#include <cstdlib>
#include <cstring>

#include "kolt/kolt.h"
#include "support/capi_util.hpp"
#include "support/tlv.hpp"

namespace tlv = kolt::tlv;

namespace {

std::span<const uint8_t> source(const uint8_t* src, int32_t size) { return kolt::capi::span(src, size); }

std::span<const uint8_t> tag_bytes(const char* tag) { return kolt::capi::bytes(kolt::capi::text(tag)); }

// The C item parser over the core, for the allocating unpack.
int32_t parse_item(tlv_t* item, const uint8_t* src, int32_t avail) {
    if (item == nullptr || src == nullptr || avail < 1) return -1;
    return tlv::parse_into(*item, source(src, avail)) ? 0 : -1;
}

}  // namespace

extern "C" {

// The codec's trace hook: it writes nothing.
KOLT_API void KOLT_TLV_debugWriteLog(const char* format, const void* data, int32_t len) {
    (void)format;
    (void)data;
    (void)len;
}

KOLT_API int32_t parse_tlv_tag(tlv_t* item, const uint8_t* src) {
    if (item == nullptr || src == nullptr) return -1;
    tlv::parse_tag(*item, src);
    return 0;
}

KOLT_API int32_t parse_tlv_length(tlv_field_t* val, const uint8_t* p) {
    if (val == nullptr || p == nullptr) return -1;
    return tlv::parse_length(*val, p) ? 0 : -1;
}

KOLT_API int32_t tlv_parser(tlv_t* item, const uint8_t* src, int32_t avail) { return parse_item(item, src, avail); }

KOLT_API int32_t count_tlv_substring(const uint8_t* src, int32_t size, int32_t strict) {
    if (src == nullptr) return 0;
    return tlv::count(source(src, size), strict);
}

KOLT_API int32_t unpack_tlv_data(tlv_t** list, const uint8_t* src, int32_t size, int32_t strict) {
    return tlv::detail::unpack_with(
        list, src, size, strict, [](size_t count, size_t each) -> void* { return std::calloc(count, each); },
        parse_item);
}

KOLT_API int32_t parse_tlv_data_t(const uint8_t** out, const char* tag, const uint8_t* src, int32_t size) {
    if (tag == nullptr || (src == nullptr && size > 0)) return -1;
    const tlv::Found found = tlv::find(source(src, size), tag_bytes(tag));
    if (found.code >= 0 && out != nullptr) *out = found.value.data();
    return found.code;
}

KOLT_API int32_t parse_tlv_data(uint8_t* out, const char* tag, const uint8_t* src, int32_t size) {
    if (tag == nullptr || (src == nullptr && size > 0)) return -1;
    const tlv::Found found = tlv::find(source(src, size), tag_bytes(tag));
    if (found.code < 0) return -1;
    kolt::capi::copy_bytes(out, found.value);
    return found.code;
}

KOLT_API int32_t parse_tlv_data_tmplt(uint8_t* out, const char* tag, const char* path, const uint8_t* src,
                                      int32_t size) {
    if (tag == nullptr || path == nullptr) return -1;
    if (src == nullptr && size > 0) return -2;
    const tlv::Found found = tlv::find_in_template(source(src, size), tag_bytes(tag), tag_bytes(path));
    if (found.code < 0) return found.code;
    kolt::capi::copy_bytes(out, found.value);
    return found.code;
}

KOLT_API int32_t pack_tlv_data(uint8_t* out, const char* tag, const uint8_t* value, uint32_t length) {
    if (out == nullptr || tag == nullptr) return -1;
    const auto t = tag_bytes(tag);
    if (t.empty() || t.size() > 2 || tlv::tag_size(t[0]) != t.size()) return -1;
    uint8_t len_bytes[4];
    const int k = tlv::encode_length(length, len_bytes);
    if (k == 0 || (value == nullptr && length > 0)) return -2;
    std::memcpy(out, t.data(), t.size());
    std::memcpy(out + t.size(), len_bytes, static_cast<size_t>(k));
    if (length > 0) std::memcpy(out + t.size() + k, value, length);
    return static_cast<int32_t>(t.size() + static_cast<size_t>(k) + length);
}

}  // extern "C"
