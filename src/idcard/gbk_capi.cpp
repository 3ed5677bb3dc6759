// Exported C entry points of the identity-card code conversion.
#include <cstdio>
#include <cstring>

#include "idcard/gbk.hpp"
#include "kolt/kolt.h"
#include "support/capi_util.hpp"

using namespace kolt::idcard;

namespace {

// 没有找到相应的gbk编码
constexpr const char* kUgNotFound =
    "\xC3\xBB\xD3\xD0\xD5\xD2\xB5\xBD\xCF\xE0\xD3\xA6\xB5\xC4\x67\x62\x6B\xB1\xE0\xC2\xEB";

// The input of a length-checked converter: nullopt for a negative or odd
// length, a null pointer with a positive length, or a null output.
std::optional<std::span<const uint8_t>> units(const uint8_t* in, int32_t len, const void* out) {
    if (len < 0 || len % 2 != 0 || out == nullptr || (in == nullptr && len > 0)) return std::nullopt;
    return kolt::capi::span(in, len);
}

// "%02d" of a code 0..99 into the caller's 8-byte code, cleared first.
void put_code(char* codeOut, int32_t code) {
    std::memset(codeOut, 0, 8);
    codeOut[0] = static_cast<char>('0' + code / 10);
    codeOut[1] = static_cast<char>('0' + code % 10);
}

}  // namespace

extern "C" {

KOLT_API int32_t searchgb(int32_t unicode) { return search_gb(unicode); }

KOLT_API int32_t searchuni(int32_t gbk) { return search_uni(gbk); }

KOLT_API int32_t KOLT_idInfoConvert2gb(const uint8_t* in, int32_t len, char* out) {
    const auto span = units(in, len, out);
    if (!span) return -1;
    ucs2le_to_gbk_pairs_into(*span, std::span<char>(out, span->size()));
    return 0;
}

KOLT_API int32_t convert2gb(const uint8_t* in, int32_t len, char* out) {
    const auto span = units(in, len, out);
    if (!span) return -1;
    ucs2be_to_gbk_pairs_into(*span, std::span<char>(out, span->size()));
    return 0;
}

KOLT_API int32_t convert2uni(const uint8_t* in, int32_t len, uint8_t* out) {
    const auto span = units(in, len, out);
    if (!span) return -1;
    kolt::capi::copy_bytes(out, *gbk_units_to_ucs2be(*span));
    return 0;
}

KOLT_API int32_t KOLT_gbConvert2idUni(const char* in, int32_t len, uint8_t* out) {
    if (len <= 0) return 0;
    if (in == nullptr || out == nullptr) return -1;
    const auto gbk = kolt::capi::span(kolt::capi::bytes(in), len);
    return static_cast<int32_t>(gbk_to_ucs2le_into(gbk, std::span<uint8_t>(out, 2 * gbk.size())));
}

KOLT_API int32_t isChineseHighByte(int32_t c) { return c > 127 ? 1 : 0; }

KOLT_API int32_t KOLT_getNationCode(const char* name, char* codeOut) {
    if (codeOut == nullptr) return -1;
    std::memset(codeOut, 0, 8);
    if (name == nullptr) return -1;
    const int32_t code = nation_code(name);
    if (code < 0) return -1;
    put_code(codeOut, code);
    return 0;
}

KOLT_API int32_t KOLT_getCheckResultCode(const char* text, char* codeOut) {
    if (codeOut == nullptr) return 0;
    put_code(codeOut, check_result_code(kolt::capi::text(text)));
    return 0;
}

KOLT_API int32_t idCovToGBK(const uint8_t* raw, char* out) {
    if (raw == nullptr || out == nullptr) return -1;
    kolt::capi::copy_text(out, id_cov_to_gbk(std::span<const uint8_t>(raw, kRawRecordSize)));
    return 0;
}

KOLT_API int32_t converZh(const char* hex4, uint8_t* out2) {
    if (hex4 == nullptr || out2 == nullptr) return -1;
    const auto found = conver_zh(kolt::capi::text(hex4, 4));
    if (!found) {
        std::printf("%s", kUgNotFound);
        return -1;
    }
    out2[0] = (*found)[0];
    out2[1] = (*found)[1];
    return 1;
}

}  // extern "C"
