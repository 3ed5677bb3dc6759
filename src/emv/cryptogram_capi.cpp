// Exported C entry points of the ARQC and field-55 calls and of the
// transaction-data helpers.
#include <cstring>
#include <string>

#include "emv/caller_args.hpp"
#include "emv/cryptogram.hpp"
#include "emv/field55.hpp"
#include "emv/app_select.hpp"
#include "emv/state.hpp"
#include "emv/tr_data.hpp"
#include "kolt/kolt.h"
#include "support/capi_util.hpp"

using namespace kolt::emv;
using kolt::capi::CodeMap;
using kolt::capi::map_code;

namespace {

// IC_GenARQC folds the ICRT core's results (a locked application's 10
// included) as the IC_ family defines them.
constexpr CodeMap kIcArqcCodes[] = {{0, 0}, {-21, -3}, {-3, -3}, {-105, -25}, {-102, -11}};
constexpr int32_t kIcArqcOther = -99;

std::span<const uint8_t> icrt_text(const char* text) { return kolt::capi::bytes(kolt::capi::text(text, kTrTextMax)); }

std::span<const uint8_t> ic_block(const char* block) {
    const auto* p = kolt::capi::bytes(block);
    return {p, ic_block_extent(p)};
}

// The ICRT core's field-55 output: the text as it stands, without a
// terminator (callers zero the buffer first); a failure text with one.
void write_field55(char* out, const ArqcResult& r) {
    if (out == nullptr) return;
    if (r.field55) {
        std::memcpy(out, r.field55->data(), r.field55->size());
    } else {
        kolt::capi::copy_text_if(out, r.failure);
    }
}

}  // namespace

extern "C" {

KOLT_API int32_t KOLT_ParaseTrData_PSBC(const char* trData) { return parse_tr_data_icrt(icrt_text(trData)); }

KOLT_API int32_t KOLT_ParaseTrData(const char* trData) { return parse_tr_data_ic(ic_block(trData)); }

KOLT_API int32_t ParaDeal(const char* in, char* out) {
    if (out == nullptr) return -1;
    const std::string text = para_deal(icrt_text(in));
    std::memcpy(out + std::strlen(out), text.c_str(), text.size() + 1);
    return 0;
}

KOLT_API int32_t KOLT_Get55Data(const uint8_t* ac, int32_t acLen, const uint8_t* aipAfl, const uint8_t* random,
                                char* out) {
    (void)aipAfl;  // tag 82 comes from the AIP letter Z
    if (out == nullptr || random == nullptr) return -1;
    const std::string text =
        field55_text(kolt::capi::span(ac, std::min<int32_t>(acLen, 255)), std::span<const uint8_t, 4>(random, 4));
    kolt::capi::copy_text(out, text);
    return static_cast<int32_t>(text.size());
}

KOLT_API int32_t KOLT_ICRT_GetARQC(int32_t termType, int32_t port, int32_t icType, const char* trData,
                                   const char* aidList, char* field55, char* appData) {
    const ArqcResult r = icrt_get_arqc(termType, port, icType, icrt_text(trData), aidList);
    write_field55(field55, r);
    if (appData != nullptr) kolt::capi::copy_text_if(appData, r.app_data);
    return r.code;
}

KOLT_API int32_t ICRT_GetARQC(int32_t termType, int32_t port, int32_t icType, const char* trData,
                              const char* aidList, char* field55, char* appData) {
    return KOLT_ICRT_GetARQC(termType, port, icType, trData, aidList, field55, appData);
}

KOLT_API int32_t STAR_GetARQC(const char* dataIn, char* out) {
    const std::string text = star_get_arqc(bounded(dataIn, kStarInputMax));
    kolt::capi::copy_text(out, text);
    // Always 0: a STAR_ caller tells failure from the text alone.
    return 0;
}

KOLT_API int32_t IC_GenARQC(const char* portName, int32_t reserved1, int32_t reserved2, int32_t reserved3,
                            int32_t* icType, const char* aidList, const char* trData, int32_t* outLen,
                            char* field55, char* appData) {
    (void)reserved1;
    (void)reserved2;
    (void)reserved3;
    const int32_t type = icType != nullptr ? *icType : 0;
    const ArqcResult r = ic_gen_arqc(bounded(portName, kPortNameMax), type, aidList, icrt_text(trData));
    write_field55(field55, r);
    if (appData != nullptr) kolt::capi::copy_text_if(appData, r.app_data);
    if (r.code == 0) {
        kolt::capi::put(outLen, r.field55 ? r.field55->size() : 0);
        if (r.card_kind) kolt::capi::put(icType, *r.card_kind);
    }
    return map_code(r.code, kIcArqcCodes, kIcArqcOther);
}

KOLT_API int32_t IC_GenARQC_YS(int32_t icType, const char* trData, const char* aidList, char* arqc,
                               int32_t reserved, int32_t* cardKind, char* appData) {
    (void)reserved;
    const std::span<const uint8_t> block = ic_block(appData);
    const ArqcResult r = ys_gen_arqc(icType, ic_block(trData), candidate_list_text(aidList), block);
    if (r.field55) {
        kolt::capi::copy_text(arqc, *r.field55);
    } else {
        kolt::capi::copy_text_if(arqc, r.failure);
    }
    if (r.card_kind) kolt::capi::put(cardKind, *r.card_kind);
    if (r.app_block && appData != nullptr) {
        // Rebuilt in place; what is left of the old block is cleared.
        const std::size_t old = block.size();
        std::memcpy(appData, r.app_block->data(), r.app_block->size());
        if (old > r.app_block->size()) std::memset(appData + r.app_block->size(), 0, old - r.app_block->size());
    }
    return r.code;
}

}  // extern "C"
