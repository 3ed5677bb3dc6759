// Exported C entry points (Exported C shells. aipAfl and logEntry hold 256 bytes.).
#include <algorithm>
#include <cstring>
#include <string>

#include "device/icc.hpp"
#include "emv/app_select.hpp"
#include "emv/dol.hpp"
#include "emv/tags.hpp"
#include "kolt/kolt.h"
#include "support/capi_util.hpp"
#include "support/hex.hpp"
#include "support/log.hpp"

extern "C" {

KOLT_API int32_t KOLT_T41_InitICCardApp(uint32_t timeout, uint32_t slot, const uint8_t* aidList, uint8_t* aipAfl,
                                        int32_t* aflCount, uint8_t* logEntry, int32_t* logEntryLen) {
    if (aipAfl == nullptr || aflCount == nullptr || logEntry == nullptr || logEntryLen == nullptr) return Para_Error;
    return kolt::emv::init_icc_app(timeout, slot, aidList, std::span<uint8_t, 256>(aipAfl, 256), *aflCount,
                                   std::span<uint8_t, 256>(logEntry, 256), *logEntryLen);
}

KOLT_API int32_t KOLT_T41_InitICCardApp_PSBC(uint32_t timeout, uint32_t slot, const char* aidText, uint8_t* aipAfl,
                                             int32_t* aflCount, uint8_t* logEntry, int32_t* logEntryLen) {
    if (aipAfl == nullptr || aflCount == nullptr || logEntry == nullptr || logEntryLen == nullptr) return Para_Error;
    return kolt::emv::init_icc_app_psbc(timeout, slot, aidText, std::span<uint8_t, 256>(aipAfl, 256), *aflCount,
                                        std::span<uint8_t, 256>(logEntry, 256), *logEntryLen);
}

KOLT_API int32_t KOLT_T41_ICC_GetCardAppState(uint32_t slot) { return kolt::emv::card_app_state(slot); }

}  // extern "C"
