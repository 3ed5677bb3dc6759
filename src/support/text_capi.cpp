// Exported C entry points of the text search and replacement helpers.
#include <algorithm>
#include <cstring>
#include <string>

#include "kolt/kolt.h"
#include "support/capi_util.hpp"
#include "support/text.hpp"

namespace ks = kolt::support;

extern "C" {

KOLT_API int32_t KOLT_strpos(const char* needle, const char* haystack) {
    if (needle == nullptr || needle[0] == 0) return -2;
    if (haystack == nullptr || haystack[0] == 0) return -3;
    const char* hit = std::strstr(haystack, needle);
    return hit == nullptr ? -1 : static_cast<int32_t>(hit - haystack);
}

KOLT_API int32_t KOLT_SubBufPos(const uint8_t* needle, int32_t needleLen, const uint8_t* buffer, int32_t bufferLen) {
    if (needle == nullptr || needleLen < 1) return -2;
    if (buffer == nullptr || bufferLen < needleLen) return -3;
    return ks::sub_buf_pos(std::span<const uint8_t>(needle, static_cast<size_t>(needleLen)),
                           std::span<const uint8_t>(buffer, static_cast<size_t>(bufferLen)));
}

KOLT_API int32_t KOLT_GetSubStr(const char* text, char* out, char separator, int32_t k) {
    if (out == nullptr) return 0;
    out[0] = 0;
    if (text == nullptr) return 0;
    const ks::SubField f = ks::sub_field(text, separator, k);
    kolt::capi::copy_text(out, f.field);
    return f.start;
}

KOLT_API int32_t KOLT_strreplace(const char* from, const char* to, char* text) {
    if (from == nullptr || to == nullptr || text == nullptr) return 0;
    // The working copy holds at most 1023 characters and a terminator.
    std::string work(text, ::strnlen(text, 1023));
    work = ks::replace_bounded(std::move(work), from, to, 1023);
    std::memcpy(text, work.c_str(), work.size() + 1);
    return 0;
}

}  // extern "C"
