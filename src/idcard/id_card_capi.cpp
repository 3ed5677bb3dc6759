// Exported C entry points of identity card reading.
#include <cstring>
#include <string>

#include "idcard/id_card.hpp"
#include "kolt/kolt.h"
#include "support/capi_util.hpp"

using namespace kolt::idcard;

namespace {

// The output line: cleared first (its first 8 bytes), then written with a
// terminator.
void write_line(char* out, const CardResult& r) {
    if (out == nullptr || r.code != 0) return;
    kolt::capi::copy_text(out, r.line);
}

}  // namespace

extern "C" {

KOLT_API int32_t ID_GetInfo(const char* port, int32_t a2, int32_t a3, int32_t timeout, const char* photoPath,
                            int32_t a6, int32_t a7, int32_t a8, char* infoOut) {
    (void)a2;
    (void)a3;
    (void)a6;
    (void)a7;
    (void)a8;
    const CardResult r = id_get_info(kolt::capi::text(port, sizeof gPortName - 1), timeout,
                                     kolt::capi::text(photoPath, KOLT_PATH_MAX));
    write_line(infoOut, r);
    return r.folded ? id_get_info_code(r.code) : r.code;
}

KOLT_API int32_t getIdCardInfo(int32_t termType, const char* devName, int32_t port, const char* auxArg,
                               int32_t timeout, char* infoOut, const char* photoPath, int32_t a8, int32_t a9,
                               int32_t a10) {
    (void)a8;
    (void)a9;
    (void)a10;
    if (infoOut != nullptr) std::memset(infoOut, 0, 8);
    const CardResult r = get_id_card_info(termType, kolt::capi::text(devName), port, kolt::capi::text(auxArg),
                                          timeout, kolt::capi::text(photoPath, KOLT_PATH_MAX));
    write_line(infoOut, r);
    return r.code;
}

KOLT_API int32_t YC_idCovToGBK(const uint8_t* record, char* infoOut, const char* photoPath, int32_t a4, int32_t a5,
                               int32_t a6) {
    (void)a4;
    (void)a5;
    (void)a6;
    if (record == nullptr) return -1;
    const CardResult r =
        yc_id_cov_to_gbk(std::span<const uint8_t>(record, kRecordSize), kolt::capi::text(photoPath, KOLT_PATH_MAX));
    write_line(infoOut, r);
    return r.code;
}

KOLT_API int32_t YC_GetBmp(const uint8_t* photo) {
    if (photo == nullptr) return -1;
    return get_bmp(std::span<const uint8_t>(photo, kPhotoSize));
}

KOLT_API int32_t displayCheckResult(int32_t termType, const char* ttyName, int32_t portId, const char* extendCmd,
                                    const char* resultCode, const char* name, const char* id, const char* issueOrgan,
                                    const char* photoBase64) {
    return display_check_result(termType, kolt::capi::text(ttyName), portId, kolt::capi::text(extendCmd),
                                kolt::capi::text(resultCode, 16), kolt::capi::text(name, 256),
                                kolt::capi::text(id, 64), kolt::capi::text(issueOrgan, 256),
                                kolt::capi::text(photoBase64, KOLT_PHOTO_BASE64_MAX));
}

}  // extern "C"
