// Exported C entry points of the IC card commands. Card buffers hold 256
// bytes. Data given as NULL with a positive length is a bad parameter:
// Para_Error, nothing sent and nothing written.
#include <algorithm>
#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "device/command.hpp"
#include "device/icc.hpp"
#include "kolt/kolt.h"
#include "link/frame.hpp"
#include "support/capi_util.hpp"
#include "support/hex.hpp"
#include "support/log.hpp"
#include "support/tlv.hpp"

using namespace kolt::device;

namespace {

// Copies a card reply into the caller's buffer (response and a zero).
void copy_out(const CardReply& reply, uint8_t* out, int32_t* outLen) {
    kolt::capi::put(outLen, reply.length);
    if (reply.length > 0)
        kolt::capi::copy_bytes(out, std::span<const uint8_t>(reply.bytes).first(static_cast<std::size_t>(reply.length) + 1));
}

template <class F>
uint32_t card_call(uint8_t* out, int32_t* outLen, F&& f) {
    CardReply reply;
    const uint32_t rc = f(reply);
    copy_out(reply, out, outLen);
    return rc;
}

using kolt::capi::span;

// Data of a card command: a negative length is a length error, NULL with a
// positive length a bad parameter; 0 when the data can be sent.
int32_t check_data(const uint8_t* data, int32_t len) {
    if (len < 0) return Lenth_Error;
    if (data == nullptr && len > 0) return Para_Error;
    return 0;
}

}  // namespace

extern "C" {

KOLT_API int32_t KOLT_T41_ICC_Getstate(uint32_t slot) {
    (void)slot;  // the reader reports every slot at once
    return get_state();
}

KOLT_API int32_t KOLT_T41_ICC_Poweron(uint32_t slot, uint32_t timeout, int32_t* outSlot) {
    return power_on(slot, timeout, outSlot);
}

KOLT_API int32_t KOLT_T41_ICC_Poweroff(uint32_t slot) { return power_off(slot); }

KOLT_API int32_t KOLT_T41_APDUHexstr(uint32_t slot, const char* hexText, uint8_t* out, int32_t* outLen,
                                     uint32_t timeout) {
    if (hexText == nullptr || out == nullptr || outLen == nullptr) return Para_Error;
    return apdu_hex(slot, hexText, std::span<uint8_t>(out, kCardReplyRoom), *outLen, timeout);
}

KOLT_API int32_t KOLT_T41_APDUBuf(uint32_t slot, const uint8_t* apduBytes, int32_t apduLen, uint8_t* out,
                                  int32_t* outLen, uint32_t timeout) {
    if (out == nullptr || outLen == nullptr) return Para_Error;
    *outLen = 0;
    if (apduLen < 0 || (apduBytes == nullptr && apduLen > 0)) return Lenth_Error;
    return apdu(slot, span(apduBytes, apduLen), std::span<uint8_t>(out, kCardReplyRoom), *outLen, timeout);
}

KOLT_API uint32_t KOLT_T41_ICC_APDULcData(uint32_t slot, const uint8_t* header4, const uint8_t* data, int32_t lc,
                                          uint8_t* out, int32_t* outLen, uint32_t timeout) {
    if (outLen != nullptr) *outLen = 0;
    if (lc < 0) return static_cast<uint32_t>(Lenth_Error);
    if (header4 == nullptr || (data == nullptr && lc > 0)) return static_cast<uint32_t>(Para_Error);
    return card_call(out, outLen, [&](CardReply& r) {
        return apdu_lc_data(slot, std::span<const uint8_t, 4>(header4, 4), span(data, lc), r, timeout);
    });
}

KOLT_API uint32_t KOLT_T41_ICC_Comm_Read_Record(uint32_t slot, int32_t record, int32_t sfi, uint8_t* out,
                                                int32_t* outLen, uint32_t timeout) {
    return card_call(out, outLen, [&](CardReply& r) {
        return read_record(slot, static_cast<uint8_t>(record), static_cast<uint8_t>(sfi), r, timeout);
    });
}

KOLT_API uint32_t KOLT_T41_ICC_Select_Aid(uint32_t slot, const uint8_t* aid, int32_t aidLen, uint8_t* out,
                                          int32_t* outLen, uint32_t timeout) {
    if (const int32_t bad = check_data(aid, aidLen)) return static_cast<uint32_t>(bad);
    return card_call(out, outLen, [&](CardReply& r) { return select_aid(slot, span(aid, aidLen), r, timeout); });
}

KOLT_API uint32_t KOLT_T41_ICC_SetGPO(uint32_t slot, const uint8_t* pdolData, int32_t len, uint8_t* out,
                                      int32_t* outLen, uint32_t timeout) {
    if (const int32_t bad = check_data(pdolData, len)) return static_cast<uint32_t>(bad);
    return card_call(out, outLen, [&](CardReply& r) { return set_gpo(slot, span(pdolData, len), r, timeout); });
}

KOLT_API uint32_t KOLT_T41_ICC_Generate_Ac(uint32_t slot, uint8_t p1, const uint8_t* cdolData, int32_t len,
                                           uint8_t* out, int32_t* outLen, uint32_t timeout) {
    if (const int32_t bad = check_data(cdolData, len)) return static_cast<uint32_t>(bad);
    return card_call(out, outLen,
                     [&](CardReply& r) { return generate_ac(slot, p1, span(cdolData, len), r, timeout); });
}

KOLT_API uint32_t KOLT_T41_External_Authenticate(uint32_t slot, const uint8_t* data, int32_t len, uint8_t* out,
                                                 int32_t* outLen, uint32_t timeout) {
    if (const int32_t bad = check_data(data, len)) return static_cast<uint32_t>(bad);
    return card_call(out, outLen,
                     [&](CardReply& r) { return external_authenticate(slot, span(data, len), r, timeout); });
}

KOLT_API uint32_t KOLT_T41_Put_Data(uint32_t slot, const uint8_t* tag2, const uint8_t* data, int32_t len,
                                    uint8_t* out, int32_t* outLen, uint32_t timeout) {
    if (const int32_t bad = check_data(data, len)) return static_cast<uint32_t>(bad);
    if (tag2 == nullptr) return static_cast<uint32_t>(Para_Error);
    return card_call(out, outLen, [&](CardReply& r) {
        return put_data(slot, std::span<const uint8_t, 2>(tag2, 2), span(data, len), r, timeout);
    });
}

KOLT_API uint32_t KOLT_T41_Exec_Script(uint32_t slot, const uint8_t* command, int32_t len, uint8_t* out,
                                       int32_t* outLen, uint32_t timeout) {
    if (outLen != nullptr) *outLen = 0;
    if (command == nullptr || len < 4) return static_cast<uint32_t>(-1);
    return card_call(out, outLen, [&](CardReply& r) { return exec_script(slot, span(command, len), r, timeout); });
}

KOLT_API uint32_t KOLT_T41_Exec_MutiScript(uint32_t slot, const uint8_t* script, int32_t len, int32_t* executed,
                                           uint32_t timeout) {
    int32_t count = 0;
    const uint32_t rc = exec_multi_script(slot, span(script, len), count, timeout);
    if (executed != nullptr) *executed = count;
    return rc;
}

KOLT_API uint32_t KOLT_T41_ICC_GetData(uint32_t slot, const uint8_t* tag2, uint8_t* out, uint32_t timeout) {
    if (tag2 == nullptr || out == nullptr) return static_cast<uint32_t>(Para_Error);
    return get_data(slot, std::span<const uint8_t, 2>(tag2, 2), std::span<uint8_t, 256>(out, 256), timeout);
}

KOLT_API int32_t KOLT_PSAM_Operate(int32_t termType, const char* ttyName, int32_t port, const char* transfer,
                                   int32_t unused, uint32_t slot) {
    (void)unused;
    return psam_operate(termType, kolt::capi::text(ttyName), port, kolt::capi::text(transfer), slot);
}

}  // extern "C"
