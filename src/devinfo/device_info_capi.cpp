// Exported C entry point of the device-information call.
#include "devinfo/device_info.hpp"
#include "kolt/kolt.h"
#include "support/capi_util.hpp"

extern "C" {

KOLT_API int32_t DEV_CommCall(const char* inJson, void* unused, char* outJson, int32_t* outLen) {
    (void)unused;
    const std::string answer = kolt::devinfo::comm_call(kolt::capi::text(inJson));
    kolt::capi::copy_text(outJson, answer, KOLT_DEVINFO_RESPONSE_MAX);
    kolt::capi::put(outLen, outJson == nullptr ? 0 : answer.size());
    return 0;
}

}  // extern "C"
