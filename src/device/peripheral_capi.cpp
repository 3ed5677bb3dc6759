// Exported C entry points.
#include <algorithm>
#include <array>
#include <climits>
#include <cstdio>
#include <cstring>

#include "device/command.hpp"
#include "device/peripheral.hpp"
#include "kolt/kolt.h"
#include "link/frame.hpp"
#include "support/capi_util.hpp"
#include "support/log.hpp"

using namespace kolt;

extern "C" {

KOLT_API int32_t KOLT_T41_SigleOperate(uint8_t cmdClass, uint8_t cmdCode) {
    return device::sigle_operate(cmdClass, cmdCode);
}
KOLT_API int32_t KOLT_T41_OpenRF(void) { return device::open_rf(); }
KOLT_API int32_t KOLT_T41_CloseRF(void) { return device::close_rf(); }
KOLT_API int32_t KOLT_T41_Buzz(void) { return device::buzz(); }
KOLT_API int32_t KOLT_T41_LedOperate(uint32_t led, uint32_t color, uint32_t mode) {
    return device::led_operate(led, color, mode);
}
KOLT_API int32_t KOLT_T41_IDLedFlicker(void) { return device::id_led_flicker(); }
KOLT_API int32_t KOLT_T41_IDLedLight(void) { return device::id_led_light(); }
KOLT_API int32_t KOLT_T41_IDLedLightOut(void) { return device::id_led_light_out(); }
KOLT_API int32_t KOLT_T41_Id_FindCard(void) { return device::id_find_card(); }
KOLT_API int32_t KOLT_T41_Id_SelectCard(void) { return device::id_select_card(); }

KOLT_API int32_t KOLT_T41_Id_ReadCard(uint8_t* reply) {
    if (reply == nullptr) return Para_Error;
    return device::id_read_card(std::span<uint8_t>(reply, link::kReplyMax));
}

KOLT_API int32_t KOLT_T41_ReadIDCard(uint8_t* reply, uint32_t timeout) {
    if (reply == nullptr) return Para_Error;
    return device::read_id_card(std::span<uint8_t>(reply, link::kReplyMax), capi::seconds(timeout));
}

KOLT_API int32_t KOLT_T41_GetVersion(uint8_t selector, uint8_t* out, uint32_t timeout) {
    if (out == nullptr) return Para_Error;
    return device::get_version(selector, std::span<uint8_t>(out, KOLT_VERSION_MAX), capi::seconds(timeout));
}

KOLT_API int32_t KOLT_T41_GetSAIMIDStr(char* out, uint32_t timeout) {
    if (out == nullptr) return Para_Error;
    std::string text;
    const int r = device::get_saimid_str(text, capi::seconds(timeout));
    if (r >= 0) {
        const std::size_t n = std::min<std::size_t>(text.size(), KOLT_SAIMID_TEXT_MAX - 1);
        std::memcpy(out, text.data(), n);
        out[n] = '\0';
    }
    return r;
}

}  // extern "C"
