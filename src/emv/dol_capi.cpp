// Exported C entry points.
#include <algorithm>
#include <cstring>
#include <string_view>
#include <vector>

#include "emv/dol.hpp"
#include "emv/tags.hpp"
#include "kolt/kolt.h"
#include "support/capi_util.hpp"
#include "support/hex.hpp"
#include "support/tlv.hpp"

extern "C" {

KOLT_API int32_t KOLT_GetApduDataFromCDOL(const uint8_t* dol, int32_t dolLen, const uint8_t* random, uint8_t* out,
                                          int32_t* outLen) {
    if (outLen != nullptr) *outLen = 0;
    if (dol == nullptr || dolLen <= 0 || random == nullptr || out == nullptr || outLen == nullptr) return -1;
    return kolt::emv::build_dol(std::span<const uint8_t>(dol, static_cast<std::size_t>(dolLen)),
                                std::span<const uint8_t, 4>(random, 4),
                                std::span<uint8_t>(out, kolt::emv::kDolRoom), *outLen);
}

}  // extern "C"
