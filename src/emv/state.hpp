// The EMV working state shared by every card flow: one value slot per tag
// letter (tagListValue), the letters found so far (gFindedTagList), the card
// slot in use (device state, read and set through here), and the buffers the
// cryptogram call leaves for the issuer-authentication call of the same
// transaction (AIP and AFL, CDOL1, CDOL2, the format of the AC reply).
//
// Process-wide and unlocked: one card flow at a time. Every flow reads and
// writes it through state(); reset() returns it to a freshly loaded
// library's.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace kolt::emv {

inline constexpr int kTagCount = 30;           // letters in tagList
inline constexpr int kSlotSize = 256;          // one tagListValue entry: length byte + 255
inline constexpr int kSlotRoom = 255;          // value bytes a slot holds
inline constexpr std::size_t kFoundSize = 32;  // gFindedTagList: 31 letters + terminator
inline constexpr std::size_t kCardBufferRoom = 256;  // CDOL1Buf, CDOL2Buf, gACFormt80
inline constexpr std::size_t kAipBufferRoom = 128;   // gAIPAFLBuf

class WorkingState {
public:
    // One slot per letter: byte 0 the value length (0 = not present), bytes
    // 1..255 the value; text values are zero-terminated.
    uint8_t tag_values[kTagCount][kSlotSize]{};
    // Letters found in card replies, in order, repeats allowed.
    char found[kFoundSize]{};
    // What the cryptogram call leaves for the issuer-authentication call.
    std::array<uint8_t, kAipBufferRoom> aip_afl{};       // gAIPAFLBuf: byte 0 the length (2), then the AIP
    std::array<uint8_t, kCardBufferRoom> cdol1{};        // CDOL1Buf: the raw CDOL1
    std::array<uint8_t, kCardBufferRoom> cdol2{};        // CDOL2Buf: the raw CDOL2
    std::size_t cdol1_len = 0;                           // bytes of CDOL1Buf in use
    std::size_t cdol2_len = 0;                           // bytes of CDOL2Buf in use
    std::array<uint8_t, kCardBufferRoom> ac_format80{};  // gACFormt80: byte 0 the length of the first
                                                         // GENERATE AC's format-1 value, the value after it

    std::span<const uint8_t> cdol1_bytes() const { return std::span<const uint8_t>(cdol1).first(cdol1_len); }
    std::span<const uint8_t> cdol2_bytes() const { return std::span<const uint8_t>(cdol2).first(cdol2_len); }
    // Replace a CDOL buffer's content (cut to its room; the rest zeroed).
    void set_cdol1(std::span<const uint8_t> dol);
    void set_cdol2(std::span<const uint8_t> dol);
    // The AC answer kept in gACFormt80 (length byte, value cut to 255).
    void set_ac_format80(std::span<const uint8_t> value);
    std::span<const uint8_t> ac_format80_value() const {
        return std::span<const uint8_t>(ac_format80).subspan(1, ac_format80[0]);
    }
    // gAIPAFLBuf: cleared, byte 0 = 2, then the AIP.
    void set_aip(std::span<const uint8_t, 2> aip);

    // Card slot of the current card: 0x00 contact, 0xFF contactless (power-on
    // writes the slot that answered).
    int32_t slot() const;
    void set_slot(int32_t slot);

    // Slots by index 0..29; out-of-range indexes read as empty and are not
    // written.
    std::span<const uint8_t> value(int index) const;
    std::string_view text(int index) const;
    // Replaces a slot's value (cut to 255 bytes; the rest of the slot is
    // zeroed, so a shorter value stays zero-terminated).
    void set_value(int index, std::span<const uint8_t> value);
    void set_text(int index, std::string_view text);
    void clear_value(int index);
    // The whole slot (length byte and value area), for GET DATA, which
    // writes both; empty for an out-of-range index.
    std::span<uint8_t> raw(int index);
    std::span<const uint8_t> raw(int index) const;

    // Appends a letter to the found list. The list holds 31 letters; when it
    // is full, repeated letters are folded first so every letter found stays
    // listed.
    void append_found(char letter);
    std::string_view found_letters() const;
    // True when every letter of the text occurs in the found list.
    bool all_found(std::string_view letters) const;

    // Zeroes the slots and the found list (the start of every card flow).
    void clear();
    // clear(), the card buffers and the slot back to contact.
    void reset();
};

// The one working state of the process.
WorkingState& state();

// The historical names of the state's arrays, for code that reads them as
// arrays.
extern uint8_t (&tagListValue)[kTagCount][kSlotSize];
extern char (&gFindedTagList)[kFoundSize];

// Shorthands over state().
inline std::span<const uint8_t> slot_value(int index) { return state().value(index); }
inline std::string_view slot_text(int index) { return state().text(index); }
inline void set_slot(int index, std::span<const uint8_t> value) { state().set_value(index, value); }
inline void set_slot_text(int index, std::string_view text) { state().set_text(index, text); }
inline void clear_slot(int index) { state().clear_value(index); }
inline void append_found(char letter) { state().append_found(letter); }
inline std::string_view found_letters() { return state().found_letters(); }
inline bool all_found(std::string_view letters) { return state().all_found(letters); }
inline void clear_working_state() { state().clear(); }
inline void reset_state() { state().reset(); }

}  // namespace kolt::emv
