// Exported C entry points of the magnetic stripe reader, and its cancel
// flag: another thread of the application sets it to 1 to abandon a waiting
// read or write.
#include <cstring>
#include <string>

#include "kolt/kolt.h"
#include "msr/stripe.hpp"
#include "support/capi_util.hpp"

using namespace kolt::msr;
using kolt::capi::CodeMap;
using kolt::capi::map_code;

extern "C" {
KOLT_API volatile int32_t cancelOperation = 0;
}

namespace {

// MS_ReadCard and MS_WriteCard fold the results of the layer below (which
// gives only 0 and -204).
constexpr CodeMap kTellerCodes[] = {{0, 0}, {-204, -11}, {-3, -3}};
constexpr int32_t kTellerOther = -99;

// A track text of the caller.
std::string_view track_text(const char* text) { return kolt::capi::text(text, kTrackTextMax); }

// The read's track texts, each with a terminator (nothing for a null out).
void write_tracks(const ReadResult& r, char* track2, char* track3) {
    if (r.code == 0 || r.code == -5) {
        kolt::capi::copy_text(track2, r.track2);
        kolt::capi::copy_text(track3, r.track3);
    }
}

// One track of the framed read: status, the length as carried, the data.
void write_track(uint8_t* out, const TrackField& f) {
    if (out == nullptr) return;
    std::memset(out, 0, 8);
    out[0] = f.status;
    out[1] = f.length_hi;
    out[2] = f.length_lo;
    if (!f.data.empty()) std::memcpy(out + 3, f.data.data(), f.data.size());
}

}  // namespace

extern "C" {

KOLT_API int32_t KOLT_T41_MC_ReadData(uint8_t* out, uint32_t timeout) {
    if (out == nullptr) return Para_Error;
    return read_data(std::span<uint8_t>(out, KOLT_T41_REPLY_MAX), timeout);
}

KOLT_API int32_t KOLT_T41_MC_ReadThreeTrackData(uint8_t* track1, uint8_t* track2, uint8_t* track3,
                                                uint32_t timeout) {
    const ThreeTracks t = read_three_tracks(timeout);
    if (t.code != 0) return t.code;
    write_track(track1, t.tracks[0]);
    write_track(track2, t.tracks[1]);
    write_track(track3, t.tracks[2]);
    return 0;
}

KOLT_API int32_t getCardNoLen(const uint8_t* buf, int32_t len) { return card_no_len(kolt::capi::span(buf, len)); }

KOLT_API int32_t getMCCardNo(int32_t termType, const char* portArg, int32_t port, const char* auxArg,
                             char* cardNo, int32_t unused) {
    (void)unused;
    const CardNo r = card_no(termType, kolt::capi::text(portArg), port, kolt::capi::text(auxArg));
    // The digits go without a terminator: the caller zeroes the buffer.
    if (r.code == 0 && cardNo != nullptr) std::memcpy(cardNo, r.digits.data(), r.digits.size());
    return r.code;
}

KOLT_API int32_t KOLT_MC_Read(int32_t termType, int32_t port, int32_t mode, char* track2, char* track3,
                              uint32_t timeout) {
    const ReadResult r = mc_read(termType, port, mode, timeout);
    write_tracks(r, track2, track3);
    return r.code;
}

KOLT_API int32_t KOLT_MC_Write(int32_t termType, int32_t port, int32_t mode, const char* track2,
                               const char* track3, uint32_t timeout) {
    return mc_write(termType, port, mode, track_text(track2), track_text(track3), timeout);
}

KOLT_API int32_t MsrRead(int32_t mode, int32_t unused, char* track2, char* track3, int32_t port, uint32_t timeout) {
    (void)unused;
    const ReadResult r = msr_read(mode, port, timeout);
    write_tracks(r, track2, track3);
    return r.code;
}

KOLT_API int32_t MsrWrite_YZ(int32_t port, int32_t unused, int32_t mode, const char* track2, const char* track3,
                             const char* label, uint32_t timeout) {
    (void)unused;
    (void)label;
    return msr_write(port, mode, track_text(track2), track_text(track3), timeout);
}

KOLT_API int32_t MS_ReadCard(const char* port, int32_t a2, int32_t a3, int32_t a4, int32_t mode, int32_t a6,
                             char* track2, char* track3) {
    (void)a2;
    (void)a3;
    (void)a4;
    (void)a6;
    const ReadResult r = ms_read_card(kolt::capi::text(port, sizeof gPortName - 1), mode);
    write_tracks(r, track2, track3);
    return map_code(r.code, kTellerCodes, kTellerOther);
}

KOLT_API int32_t MS_WriteCard(const char* port, int32_t a2, int32_t a3, int32_t a4, int32_t mode, int32_t a6,
                              const char* track2, const char* track3) {
    (void)a2;
    (void)a3;
    (void)a4;
    (void)a6;
    const int32_t rc = ms_write_card(kolt::capi::text(port, sizeof gPortName - 1), mode, track_text(track2),
                                     track_text(track3));
    return map_code(rc, kTellerCodes, kTellerOther);
}

}  // extern "C"
