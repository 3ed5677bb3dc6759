// Exported C entry points of issuer authentication and script processing.
#include <algorithm>
#include <cstring>
#include <string>

#include "emv/caller_args.hpp"
#include "emv/issuer_auth.hpp"
#include "emv/issuer_data.hpp"
#include "emv/tr_data.hpp"
#include "kolt/kolt.h"
#include "support/capi_util.hpp"

using namespace kolt::emv;
using kolt::capi::CodeMap;
using kolt::capi::map_code;

namespace {

// IC_CtlScriptData folds the ICRT core's results as the IC_ family defines
// them.
constexpr CodeMap kIcScriptCodes[] = {{0, 0},      {-21, -3},    {-3, -3},   {-6, -15},
                                      {-102, -11}, {-105, -25}, {-109, -31}, {-110, -30}};
constexpr int32_t kIcScriptOther = -99;

std::span<const uint8_t> icrt_text(const char* text) { return kolt::capi::bytes(kolt::capi::text(text, kTrTextMax)); }

std::span<const uint8_t> ic_block(const char* block) {
    const auto* p = kolt::capi::bytes(block);
    return {p, ic_block_extent(p)};
}

void write_outputs(const ArpcResult& r, char* scriptResult, char* secondAc) {
    kolt::capi::copy_text_if(scriptResult, r.script_result);
    kolt::capi::copy_text_if(secondAc, r.second_ac);
}

}  // namespace

extern "C" {

KOLT_API int32_t KOLT_ARPC_GetScritp(const uint8_t* data, int32_t len, uint8_t* script, int32_t* scriptLen,
                                     uint8_t* idBlock) {
    const ScriptPick pick = pick_script(kolt::capi::span(data, len));
    if (pick.kind < 0) {
        kolt::capi::put(scriptLen, -1);
        return -1;
    }
    kolt::capi::copy_bytes(script, pick.script);
    kolt::capi::put(scriptLen, pick.script.size());
    kolt::capi::copy_bytes(idBlock, pick.id);
    return pick.kind;
}

KOLT_API int32_t KOLT_ICRT_ARPCExeScript(int32_t termType, int32_t port, int32_t icType, const char* trData,
                                         const char* arpc, const char* appData, char* scriptResult,
                                         char* secondAc) {
    const ArpcResult r = icrt_arpc_exe_script(termType, port, icType, icrt_text(trData),
                                              kolt::capi::text(arpc, KOLT_ARPC_TEXT_MAX),
                                              kolt::capi::text(appData, KOLT_APPDATA_TEXT_MAX));
    write_outputs(r, scriptResult, secondAc);
    return r.code;
}

KOLT_API int32_t ICRT_ARPCExeScript(int32_t termType, int32_t port, int32_t icType, const char* trData,
                                    const char* arpc, const char* appData, char* scriptResult, char* secondAc) {
    return KOLT_ICRT_ARPCExeScript(termType, port, icType, trData, arpc, appData, scriptResult, secondAc);
}

KOLT_API int32_t IC_CtlScriptData(const char* portName, int32_t reserved1, int32_t reserved2, int32_t reserved3,
                                  int32_t* icType, const char* trData, const char* arpc, int32_t* outLen,
                                  char* secondAc, char* scriptResult, const char* appData) {
    (void)reserved1;
    (void)reserved2;
    (void)reserved3;
    const int32_t type = icType != nullptr ? *icType : 0;
    const ArpcResult r = ic_ctl_script_data(bounded(portName, kPortNameMax), type, icrt_text(trData),
                                            kolt::capi::text(arpc, KOLT_ARPC_TEXT_MAX),
                                            kolt::capi::text(appData, KOLT_APPDATA_TEXT_MAX));
    write_outputs(r, scriptResult, secondAc);
    if (r.code == 0) {
        kolt::capi::put(outLen, r.second_ac ? r.second_ac->size() : 0);
        if (r.card_kind) kolt::capi::put(icType, *r.card_kind);
    }
    return map_code(r.code, kIcScriptCodes, kIcScriptOther);
}

KOLT_API int32_t STAR_ARPC_ExeICScrip(const char* dataIn, char* out) {
    const std::string text = star_arpc_exe_script(bounded(dataIn, kStarInputMax));
    kolt::capi::copy_text(out, text);
    return 0;
}

KOLT_API int32_t IC_ARPC_ExeICScript(int32_t icType, const char* trData, const char* arpc, int32_t forceAac,
                                     char* secondAc, char* scriptResult, const char* appData) {
    const ArpcResult r = ic_arpc_exe_script(icType, ic_block(trData), kolt::capi::text(arpc, KOLT_ARPC_TEXT_MAX),
                                            forceAac, ic_block(appData));
    write_outputs(r, scriptResult, secondAc);
    return r.code;
}

}  // extern "C"
