// The stripe reader's replies and commands as bytes: the framed three-track
// reply, the escape-sequence read and write commands and the escape-sequence
// read reply. Pure functions, no descriptor, no clock.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kolt::msr {

// ---------------------------------------------------------------------------
// Framed path.

// One track of the framed read reply.
struct TrackField {
    uint8_t status = 0;
    uint8_t length_hi = 0;            // the length as the reply carries it
    uint8_t length_lo = 0;
    std::span<const uint8_t> data;    // within the reply (cut where the reply ends)
    uint16_t length() const { return static_cast<uint16_t>(length_hi << 8 | length_lo); }
};

// Offsets in the decoded reply (02, length, status pair, data): the three
// status bytes at 6, 7, 8, the three big-endian lengths at 8-9, 10-11,
// 12-13, the data from 14, track after track. Byte 8 is the third status and
// the high byte of the first length at once: the reader's layout, kept.
inline constexpr std::size_t kTrackStatus = 6;
inline constexpr std::size_t kTrackLengths = 8;
inline constexpr std::size_t kTrackData = 14;

// The three tracks of a decoded reply of `size` bytes; bytes the reply does
// not hold read as zero, and data stop where the reply ends.
std::array<TrackField, 3> split_three_tracks(std::span<const uint8_t> reply);

// getCardNoLen: index of the first byte that is not an ASCII digit, -1 when
// every byte is one.
int32_t card_no_len(std::span<const uint8_t> bytes);

// ---------------------------------------------------------------------------
// Escape-sequence path.

// Track selector: 2, 3, or 23 (both); any other sends the command prefix
// only.
inline constexpr int32_t kModeTrack2 = 2;
inline constexpr int32_t kModeTrack3 = 3;
inline constexpr int32_t kModeBoth = 23;

inline constexpr uint8_t kEsc = 0x1B;
inline constexpr uint8_t kFs = 0x1C;
inline constexpr uint8_t kEmptyTrack = 0x7F;  // DEL in a track's first position: no data
// The reader's reset.
inline constexpr std::array<uint8_t, 2> kReset = {kEsc, '0'};
// What ends a read reply.
inline constexpr std::array<uint8_t, 2> kReplyEnd = {'?', kFs};
// Room of the read reply and of the command buffers.
inline constexpr std::size_t kBufferRoom = 1024;
// A track text of a write is read up to this many characters.
inline constexpr std::size_t kTrackTextMax = 500;

// ESC "O", then ESC "]" (track 2), ESC "T" "]" (track 3) or ESC "B" "]"
// (both).
std::vector<uint8_t> read_command(int32_t mode);
// ESC "t", the tracks ("A" before track 3), GS ESC "\" ESC "j".
std::vector<uint8_t> write_command(int32_t mode, std::string_view track2, std::string_view track3);
// Status bytes the write waits for: 3 for track 2, 4 for track 3 and both,
// none for any other mode (no status is read or checked).
std::size_t write_status_length(int32_t mode);
// The write went through: the last status byte is "p".
bool write_succeeded(std::span<const uint8_t> status);

// A read reply is complete once its last two bytes are "?" FS.
bool reply_complete(std::span<const uint8_t> reply);

struct ReadResult {
    int32_t code = 0;     // 0, -4, -5, -6
    std::string track2;   // as the reader sent them, separators made "="
    std::string track3;
};

// A complete reply (read as text: up to its first zero byte) cut right
// after its first "?" FS (-4 when there is none), its separators "'", ">"
// and "|" made "=", and split by mode:
//   2   data from byte 2, all but the last 4 bytes of the text;
//   3   data from byte 3, all but the last 5;
//   23  track 2 from byte 2 up to the first "A" (-6 without one), track 3
//       after it up to the last 2 bytes;
// a track whose first byte is DEL (7F) is empty; -5 when what was asked is
// empty (both tracks, for 23). Any other mode gives 0 and no tracks.
ReadResult parse_read_reply(std::span<const uint8_t> reply, int32_t mode);

// The reply after its cut and separator normalisation (for the trace).
std::optional<std::string> normalised_reply(std::span<const uint8_t> reply);

}  // namespace kolt::msr
