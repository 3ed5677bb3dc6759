// Exported C entry points (Exported C shells.).
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "emv/tags.hpp"
#include "kolt/kolt.h"
#include "support/capi_util.hpp"
#include "support/hex.hpp"
#include "support/tlv.hpp"

using namespace kolt::emv;

extern "C" {

KOLT_API int32_t KOLT_T41_GetApduTagListIndex(const uint8_t* tag, int32_t len) {
    if (tag == nullptr) return -1;
    return tag_index(std::span<const uint8_t>(tag, len == 1 ? 1 : 2));
}

KOLT_API int32_t KOLT_T41_GetApduTagListIndexFromInt(uint64_t tag) { return tag_index(tag); }

KOLT_API int32_t KOLT_T41_GetTagListIndex(char letter) { return letter_index(letter); }

KOLT_API int32_t initTagListValue(void) {
    init_tag_list_value();
    return 0;
}

KOLT_API int32_t KOLT_IsAllFindTagList(const char* letters) {
    if (letters == nullptr) return 0;
    return all_found(letters) ? 0 : -1;
}

KOLT_API int32_t KOLT_T41_ParseTagValue(const uint8_t* reply, int32_t len, int32_t strict) {
    if (reply != nullptr && len > 0) parse_tag_value(std::span<const uint8_t>(reply, len), strict);
    return 0;
}

KOLT_API int32_t KOLT_T41_GetTagValue(const uint8_t* reply, int32_t len, const char* tag, uint8_t* out,
                                      int32_t* outLen, int32_t strict) {
    if (outLen == nullptr) return -1;
    if (*outLen >= 1) return -1;
    if (reply == nullptr || len <= 0 || tag == nullptr || out == nullptr) return -2;
    const std::span<const uint8_t> tag_bytes(reinterpret_cast<const uint8_t*>(tag), std::strlen(tag));
    const kolt::tlv::TagSearch r = kolt::tlv::search(std::span<const uint8_t>(reply, len), tag_bytes, strict, *outLen);
    if (r.found) {
        // The caller's buffer holds 256 bytes: a longer value is cut there.
        const std::size_t n = std::min<std::size_t>(r.value.size(), kSlotSize);
        if (n > 0) std::memcpy(out, r.value.data(), n);
        *outLen = static_cast<int32_t>(n);
    }
    return r.result > kSlotSize ? kSlotSize : r.result;
}

KOLT_API int32_t KOLT_T41_ICC_PareseSecondTrackData(void) { return split_track2(); }

KOLT_API int32_t KOLT_T41_ParseOneRecord(const uint8_t* record, char* out) {
    if (record == nullptr || out == nullptr) return 0;
    const std::string text = format_log_record(std::span<const uint8_t>(record, kLogRecordSize));
    std::memcpy(out, text.c_str(), text.size() + 1);
    return static_cast<int32_t>(text.size());
}

KOLT_API int32_t KOLT_SetTLV(const uint8_t* tag, int32_t len, const uint8_t* value, uint8_t* out) {
    if (tag == nullptr || out == nullptr || len < 0 || len > 255 || (len > 0 && value == nullptr)) return -1;
    const std::size_t room = kolt::tlv::tag_size(tag[0]) + 1 + static_cast<std::size_t>(len);
    return kolt::tlv::write_short(tag, std::span<const uint8_t>(value, static_cast<std::size_t>(len)),
                           std::span<uint8_t>(out, room));
}

}  // extern "C"
