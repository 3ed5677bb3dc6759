// Exported C entry points of the transaction log.
#include <cstring>
#include <string>

#include "emv/tx_log.hpp"
#include "kolt/kolt.h"
#include "support/capi_util.hpp"

using namespace kolt::emv;

extern "C" {

KOLT_API int32_t KOLT_ICRT_GetTrDetail(int32_t termType, int32_t port, int32_t icType, const char* aidList,
                                       char* out) {
    const LogOutcome r = icrt_get_tr_detail(termType, port, icType, aidList);
    kolt::capi::copy_text_if(out, r.text);
    return r.code;
}

KOLT_API int32_t ICRT_GetTxDetail(int32_t termType, int32_t port, int32_t icType, const char* aidList,
                                  char* out) {
    return KOLT_ICRT_GetTrDetail(termType, port, icType, aidList, out);
}

KOLT_API int32_t ICRT_GetTrDetail(int32_t termType, int32_t port, int32_t icType, int32_t index,
                                  const char* aidList, char* out) {
    const TrDetailOutcome r = icrt_select_tr_detail(termType, port, icType, index, aidList);
    if (out != nullptr && r.bytes) {
        std::memcpy(out, r.bytes->data(), r.bytes->size());
        if (r.terminate) out[r.bytes->size()] = '\0';
    }
    return r.code;
}

KOLT_API int32_t STAR_GetTxDetail(const char* dataIn, char* out) {
    const LogOutcome r = star_get_tx_detail(bounded(dataIn, kStarInputMax));
    kolt::capi::copy_text_if(out, r.text);
    // Always 0: a STAR_ caller tells failure from the text alone.
    return 0;
}

KOLT_API int32_t IC_GetTranDeta(const char* portName, int32_t reserved1, int32_t reserved2, int32_t reserved3,
                                int32_t* icType, const char* aidList, int32_t* outLen, char* out) {
    (void)reserved1;
    (void)reserved2;
    (void)reserved3;
    const int32_t type = icType != nullptr ? *icType : 0;
    const TranDetaOutcome r = ic_get_tran_deta(bounded(portName, kPortNameMax), type, aidList);
    if (out != nullptr && r.written.bytes) {
        std::memcpy(out, r.written.bytes->data(), r.written.bytes->size());
        if (r.written.terminate) out[r.written.bytes->size()] = '\0';
    }
    if (r.out_len && outLen != nullptr) *outLen = *r.out_len;
    if (r.card_kind && icType != nullptr) *icType = *r.card_kind;
    return r.code;
}

KOLT_API int32_t IC_GetTxDetail(int32_t icType, const char* aidList, char* out, int32_t* cardKind) {
    const TxDetailOutcome r = ic_get_tx_detail(icType, candidate_list_text(aidList));
    kolt::capi::copy_text_if(out, r.text);
    if (r.card_kind && cardKind != nullptr) *cardKind = *r.card_kind;
    return r.code;
}

}  // extern "C"
