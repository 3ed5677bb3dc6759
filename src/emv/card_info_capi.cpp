// Exported C entry points of the card information query.
#include <cstring>
#include <string>

#include "emv/card_info.hpp"
#include "kolt/kolt.h"
#include "support/capi_util.hpp"

using namespace kolt::emv;

extern "C" {

KOLT_API int32_t KOLT_DoICType(int32_t icType, int32_t* flag) { return do_ic_type(icType, flag); }

KOLT_API int32_t GetSysDate(char* out) {
    if (out == nullptr) return 0;
    std::memset(out, 0, 8);
    const std::string date = sys_date();
    std::memcpy(out, date.c_str(), date.size() + 1);
    return 0;
}

KOLT_API int32_t KOLT_ICRT_GetICCInfo(int32_t termType, int32_t port, int32_t icType, const char* aidList,
                                      const char* tagList, char* out) {
    const Outcome r = icrt_get_icc_info(termType, port, icType, candidate_list_text(aidList),
                                        bounded(tagList, kFieldMax));
    kolt::capi::copy_text_if(out, r.text);
    return r.code;
}

KOLT_API int32_t ICRT_GetICCInfo(int32_t termType, int32_t port, int32_t icType, const char* aidList,
                                 const char* tagList, char* out) {
    return KOLT_ICRT_GetICCInfo(termType, port, icType, aidList, tagList, out);
}

KOLT_API int32_t STAR_GetInfo(const char* dataIn, char* out) {
    const Outcome r = star_get_info(bounded(dataIn, kStarInputMax));
    kolt::capi::copy_text_if(out, r.text);
    // Always 0: a STAR_ caller tells failure from the text alone.
    return 0;
}

KOLT_API int32_t IC_GetInfo_YS(int32_t icType, const char* tagList, const char* aidList, char* out,
                               int32_t* cardKind, char* appData) {
    const YsOutcome r = ys_get_info(icType, bounded(tagList, kFieldMax), aidList);
    kolt::capi::copy_text_if(out, r.text);
    if (r.card_kind && cardKind != nullptr) *cardKind = *r.card_kind;
    if (r.app_data && appData != nullptr) std::memcpy(appData, r.app_data->data(), r.app_data->size());
    return r.code;
}

KOLT_API int32_t IC_GetInfo(const char* portName, int32_t reserved1, int32_t reserved2, int32_t reserved3,
                            int32_t* icType, const char* aidList, const char* tagList, int32_t* outLen,
                            char* out) {
    (void)reserved1;
    (void)reserved2;
    (void)reserved3;
    const int32_t type = icType != nullptr ? *icType : 0;
    const IcInfoOutcome r = ic_get_info(bounded(portName, kPortNameMax), type, aidList, bounded(tagList, kFieldMax));
    kolt::capi::copy_text_if(out, r.text);
    if (r.card_kind && icType != nullptr) *icType = *r.card_kind;
    if (r.out_len && outLen != nullptr) *outLen = *r.out_len;
    return r.code;
}

}  // extern "C"
