// Exported C entry point of the random bytes.
#include "kolt/kolt.h"
#include "support/capi_util.hpp"
#include "support/random.hpp"

extern "C" {

// NULL with a positive count writes nothing and answers -1.
KOLT_API int32_t KOLT_GetRandByte(uint8_t* out, int32_t n) {
    if (out == nullptr && n > 0) return -1;
    kolt::support::random_bytes(kolt::capi::span(out, n));
    return n;
}

}  // extern "C"
