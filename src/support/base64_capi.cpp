// Exported C entry points.


#include "kolt/kolt.h"
#include "support/base64.hpp"
#include "support/capi_util.hpp"

extern "C" {

KOLT_API int32_t KOLT_Base64(uint8_t* buf, int32_t len) {
    const int text = kolt::base64::encoded_size(len);
    if (buf == nullptr || text < 0) return 0;
    return kolt::base64::encode_in_place(std::span<uint8_t>(buf, static_cast<size_t>(text) + 1), len);
}

KOLT_API int32_t KOLT_UnBase64(uint8_t* buf, int32_t len) {
    if (buf == nullptr || len < 0) return 0;
    return kolt::base64::decode_in_place(std::span<uint8_t>(buf, kolt::base64::padded_size(len)), len);
}

}  // extern "C"
