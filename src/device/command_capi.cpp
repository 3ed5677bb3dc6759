// Exported C entry point of the device command call.
#include "device/command.hpp"
#include "kolt/kolt.h"
#include "link/frame.hpp"
#include "support/capi_util.hpp"

using namespace kolt;

extern "C" {

KOLT_API int32_t KOLT_writeBufAndReadFromT41(uint8_t cmdClass, uint8_t cmdCode, const uint8_t* data,
                                             int32_t dataLen, uint8_t* out, int32_t timeoutSec) {
    if (out == nullptr || dataLen < 0 || (data == nullptr && dataLen > 0)) return Para_Error;
    return device::command(cmdClass, cmdCode, capi::span(data, dataLen), std::span<uint8_t>(out, link::kReplyMax),
                           timeoutSec);
}

}  // extern "C"
