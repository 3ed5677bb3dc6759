// Exported C entry points of the fingerprint sensor.
#include <cstring>
#include <vector>

#include "finger/finger.hpp"
#include "kolt/kolt.h"
#include "support/capi_util.hpp"

using namespace kolt::finger;

extern "C" {

KOLT_API int32_t ARA_EM02_Protocol(uint8_t pid, const uint8_t* payload, int32_t len, uint8_t* out, int32_t* outLen) {
    if (len < 0 || (payload == nullptr && len > 0) || out == nullptr) return -1;
    const std::vector<uint8_t> packet = ef01::build(pid, kolt::capi::span(payload, len));
    if (packet.empty()) return -1;
    kolt::capi::copy_bytes(out, packet);
    kolt::capi::put(outLen, packet.size());
    return 0;
}

KOLT_API int32_t ARA_EM02_WriteAndRead(uint8_t pid, const uint8_t* payload, int32_t len, uint8_t* reply,
                                       int32_t timeoutSecs) {
    if (len < 0 || (payload == nullptr && len > 0) || reply == nullptr) return -1;
    return write_and_read(pid, kolt::capi::span(payload, len), std::span<uint8_t>(reply, KOLT_FP_PACKET_MAX),
                          timeoutSecs);
}

KOLT_API int32_t ARA_EM02_Read(uint8_t* reply, int32_t timeoutSecs) {
    if (reply == nullptr) return -1;
    return read_packet(std::span<uint8_t>(reply, KOLT_FP_PACKET_MAX), timeoutSecs);
}

KOLT_API int32_t ARA_EM02_GenChar(uint8_t* featureOut, int32_t timeoutSecs) {
    const ModuleCapture r = module_gen_char(timeoutSecs);
    if (r.code == 0) kolt::capi::copy_bytes(featureOut, r.features);
    return r.code;
}

KOLT_API int32_t KOLT_T41_FP_Init(uint8_t param) { return init(param); }

KOLT_API int32_t KOLT_FP_GetDeviceType(void) { return device_type(); }

KOLT_API int32_t KOLT_T41_FP_GenChar(int32_t termType, const char* portArg, int32_t port, const char* auxArg,
                                     int32_t a5, char* featureHexOut, int32_t timeoutSecs) {
    (void)a5;
    const Capture r = gen_char(termType, kolt::capi::text(portArg), port, kolt::capi::text(auxArg), timeoutSecs);
    if (r.code == 0) kolt::capi::copy_text(featureHexOut, r.hex, KOLT_FP_FEATURE_HEX_MAX);
    return r.code;
}

KOLT_API int32_t KOLT_T41_FP_ReadCfg(char* serverIpOut, int32_t* serverPortOut) {
    const ServerConfig r = read_cfg();
    if (r.code != -1) kolt::capi::copy_text(serverIpOut, r.ip, KOLT_FP_SERVERIP_MAX);
    if (r.code == 0) kolt::capi::put(serverPortOut, r.port);
    return r.code;
}

}  // extern "C"
