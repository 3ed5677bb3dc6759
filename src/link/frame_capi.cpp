// Exported C entry points of the frame exchanges.
#include "kolt/kolt.h"
#include "link/frame.hpp"
#include "support/capi_util.hpp"

using namespace kolt;

extern "C" {

KOLT_API int32_t KOLT_T41_Ret_Code(uint8_t s1, uint8_t s2) { return link::ret_code(s1, s2); }

KOLT_API int32_t KOLT_Equal_2bytes(const uint8_t* p, uint8_t a, uint8_t b) {
    if (p == nullptr) return -1;
    return (p[0] == a && p[1] == b) ? 0 : -1;
}

KOLT_API int32_t KOLT_writeBufAndRead(int32_t fd, uint8_t cmd, const uint8_t* data, int32_t dataLen,
                                      uint8_t* out, int32_t timeoutSec) {
    if (out == nullptr || dataLen < 0 || (data == nullptr && dataLen > 0)) return Para_Error;
    return link::bracket_transact(fd, cmd, capi::span(data, dataLen), std::span<uint8_t>(out, link::kReplyMax),
                                  timeoutSec);
}

KOLT_API int32_t KOLT_sendCmd100s(uint8_t cmd) { return link::send_cmd_100s(cmd); }

KOLT_API int32_t KOLT_writeBufAndReadFrom100s(uint8_t cmd, int32_t unused1, int32_t unused2, uint8_t* out,
                                              int32_t timeoutSec) {
    (void)unused1;
    (void)unused2;
    if (out == nullptr) return Para_Error;
    return link::transact_100s(cmd, std::span<uint8_t>(out, link::kReplyMax), timeoutSec);
}

KOLT_API int32_t KOLT_getDeviceType(void) { return link::get_device_type(); }

// The reply buffer of the exported calls holds KOLT_T41_REPLY_MAX bytes: a
// length field promising more than that is refused, never followed.
KOLT_API int32_t KOLT_T41_Unbase64(uint8_t* reply) {
    if (reply == nullptr) return Para_Error;
    return link::codec::unbase64_reply(std::span<uint8_t>(reply, link::kReplyMax));
}

}  // extern "C"
