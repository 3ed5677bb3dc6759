// Exported C entry points of the transaction log, and the code tables of
// their calling conventions.
#include <cstring>
#include <string>

#include "emv/tx_log.hpp"
#include "kolt/kolt.h"
#include "support/capi_util.hpp"

using namespace kolt::emv;
using kolt::capi::CodeMap;
using kolt::capi::map_code;

namespace {

// ICRT_GetTrDetail: the core's power-on and READ RECORD failures get codes
// of their own; a log without records is 0 and writes an empty text; any
// other result that is not a log read to its end (a failure, or the positive
// code of a card missing from the contact slot) is -120.
constexpr CodeMap kTrDetailCodes[] = {{-11, -105}, {-22, -102}};
constexpr int32_t kTrDetailOther = -120;

// IC_GetTranDeta folds the ICRT_GetTrDetail codes.
constexpr CodeMap kTranDetaCodes[] = {{-21, -3}, {-3, -3}, {-105, -25}, {-102, -11}, {0, 0}};
constexpr int32_t kTranDetaOther = -99;

struct TrDetail {
    int32_t code = 0;
    std::optional<LogSelection> written;
    std::optional<int32_t> card_kind;
};

TrDetail tr_detail(int32_t term_type, int32_t port, int32_t ic_type, int32_t index, const char* aid_text) {
    const FlowResult log = icrt_get_tr_detail_for_selection(term_type, port, ic_type, aid_text);
    TrDetail out;
    out.card_kind = log.card_kind;
    out.code = map_code(log.code, kTrDetailCodes, log.code);
    if (out.code != log.code) return out;
    if (log.code == 0) {
        out.written = LogSelection{};
        return out;
    }
    out.written = select_records(log, index);
    out.code = out.written ? 0 : kTrDetailOther;
    return out;
}

void write_selection(char* out, const std::optional<LogSelection>& s) {
    if (out == nullptr || !s) return;
    std::memcpy(out, s->bytes.data(), s->bytes.size());
    if (s->terminate) out[s->bytes.size()] = '\0';
}

}  // namespace

extern "C" {

KOLT_API int32_t KOLT_ICRT_GetTrDetail(int32_t termType, int32_t port, int32_t icType, const char* aidList,
                                       char* out) {
    const FlowResult r = icrt_get_tr_detail(termType, port, icType, aidList);
    kolt::capi::copy_text_if(out, r.text);
    return r.code;
}

KOLT_API int32_t ICRT_GetTxDetail(int32_t termType, int32_t port, int32_t icType, const char* aidList,
                                  char* out) {
    const FlowResult r = icrt_get_tr_detail(termType, port, icType, aidList);
    kolt::capi::copy_text_if(out, r.text);
    return r.code;
}

KOLT_API int32_t ICRT_GetTrDetail(int32_t termType, int32_t port, int32_t icType, int32_t index,
                                  const char* aidList, char* out) {
    const TrDetail r = tr_detail(termType, port, icType, index, aidList);
    write_selection(out, r.written);
    return r.code;
}

KOLT_API int32_t STAR_GetTxDetail(const char* dataIn, char* out) {
    const FlowResult r = star_get_tx_detail(bounded(dataIn, kStarInputMax));
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
    set_port_name(bounded(portName, kPortNameMax));
    const TrDetail r = tr_detail(0, 0, ic_type_from_one(type), 0, aidList);
    write_selection(out, r.written);
    if (r.code == 0) {
        // The records carry no zero byte, so the text written is exactly
        // what strlen of a zeroed output finds.
        const std::string& b = r.written->bytes;
        kolt::capi::put(outLen, ::strnlen(b.c_str(), b.size()));
        if (r.card_kind) kolt::capi::put(icType, *r.card_kind);
    }
    return map_code(r.code, kTranDetaCodes, kTranDetaOther);
}

KOLT_API int32_t IC_GetTxDetail(int32_t icType, const char* aidList, char* out, int32_t* cardKind) {
    const FlowResult r = ic_get_tx_detail(icType, candidate_list_text(aidList));
    kolt::capi::copy_text_if(out, r.text);
    if (r.card_kind) kolt::capi::put(cardKind, *r.card_kind);
    return r.code;
}

}  // extern "C"
