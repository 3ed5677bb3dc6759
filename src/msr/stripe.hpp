// Magnetic stripe reading and writing, on both paths: the framed device
// command (three tracks; the account number of track 2), and the raw
// escape-sequence commands of the stripe unit (tracks 2 and 3), with the
// teller entry points' fixed settings.
//
// A read or write that waits for a swipe sleeps on the line and notices the
// caller's cancel flag (cancelOperation) within link::kCancelSliceMs.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "msr/stripe_codec.hpp"

namespace kolt::msr {

inline constexpr uint8_t kClassStripe = 0x36;
inline constexpr uint8_t kCodeStripeRead = 0x91;

// ---------------------------------------------------------------------------
// Framed path, on the open link.

// KOLT_T41_MC_ReadData: the stripe LED on, the read (0x36 0x91, the
// time-out as its one data byte, timeout + 2 s to wait), the LED off. The
// decoded reply goes to reply; the device result code, or Revdata_Error.
int32_t read_data(std::span<uint8_t> reply, uint32_t timeout);

// KOLT_T41_MC_ReadThreeTrackData.
struct ThreeTracks {
    int32_t code = 0;
    std::vector<uint8_t> reply;          // the decoded reply
    std::array<TrackField, 3> tracks{};  // within reply; valid when code is 0
};
ThreeTracks read_three_tracks(uint32_t timeout);

// getMCCardNo: opens the link (KOLT_initCom's arguments), reads the three
// tracks (6 s), closes, and takes the account number from track 2: the
// digits after its ";" (searched from the start of the track's 3 header
// bytes, which count) up to the first other byte. 0 with the digits; -1 the
// link, a track-2 status other than 0 or no track-2 data; -2 no digits.
struct CardNo {
    int32_t code = 0;
    std::string digits;
};
CardNo card_no(int32_t type, std::string_view tty, int32_t port, std::string_view transfer);

// ---------------------------------------------------------------------------
// Escape-sequence path.

// KOLT_MC_Read: 0, -1 link, -2 time-out, -3 cancelled, -4 bad reply, -5
// empty track(s), -6 no "A" between the tracks. Only the successful read
// closes the link; every other ending after the command went out leaves it
// open, as the reader's callers have always found it.
ReadResult mc_read(int32_t term_type, int32_t port, int32_t mode, uint32_t timeout);
// KOLT_MC_Write: 0, -1 link, -2 time-out, -3 cancelled, -4 the reader
// refused (its status does not end in "p").
int32_t mc_write(int32_t term_type, int32_t port, int32_t mode, std::string_view track2, std::string_view track3,
                 uint32_t timeout);

// The teller entry points: terminal type 0 below them; MsrRead takes mode 1
// as 23; any failure is -204.
inline constexpr int32_t kTellerFailure = -204;
ReadResult msr_read(int32_t mode, int32_t port, uint32_t timeout);
int32_t msr_write(int32_t port, int32_t mode, std::string_view track2, std::string_view track3, uint32_t timeout);

// MS_ReadCard / MS_WriteCard: the port name into gPortName, then port 0 and
// a fixed 5-second time-out whatever the caller passed; MS_ReadCard turns
// mode 23 into 1 (MsrRead turns it back).
inline constexpr uint32_t kTellerTimeout = 5;
ReadResult ms_read_card(std::string_view port_name, int32_t mode);
int32_t ms_write_card(std::string_view port_name, int32_t mode, std::string_view track2, std::string_view track3);

}  // namespace kolt::msr
