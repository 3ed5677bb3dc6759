// IC card command set: power on and off in the contact and contactless
// slots, APDU exchange, the EMV command builders (READ RECORD, SELECT, GET
// PROCESSING OPTIONS, GENERATE AC, EXTERNAL AUTHENTICATE, PUT DATA, GET
// DATA), issuer scripts and the PSAM check.
//
// Every command here goes to the reader as class 0x32 on a link the caller
// has opened (except psam_operate, which opens and closes its own). Card
// commands return the card's status word SW1*256+SW2 (0x9000 = APDU_OK) or,
// when the reader itself failed, a device result code (KOLT_T41_Ret_Code,
// Revdata_Error, Lenth_Error) as an unsigned value; the two ranges do not
// overlap.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string_view>

namespace kolt::device {

inline constexpr uint8_t kIccClass = 0x32;
inline constexpr uint8_t kCodeState = 0x21;
inline constexpr uint8_t kCodeContactPowerOn = 0x22;
inline constexpr uint8_t kCodeContactPowerOff = 0x23;
inline constexpr uint8_t kCodeRfPowerOn = 0x24;
inline constexpr uint8_t kCodeRfPowerOff = 0x25;
inline constexpr uint8_t kCodeApdu = 0x26;

inline constexpr uint32_t kSlotContact = 0x00;
inline constexpr uint32_t kSlotAuto = 0x02;  // power-on argument: contact, then contactless
inline constexpr uint32_t kSlotRf = 0xFF;

inline constexpr uint32_t kSwOk = 0x9000;

// Room of a card command's out buffer: the response (data, SW1 SW2) and a
// terminating zero.
inline constexpr std::size_t kCardReplyRoom = 256;

// A card's response: data followed by SW1 SW2, zero after it.
struct CardReply {
    std::array<uint8_t, kCardReplyRoom> bytes{};
    int32_t length = 0;  // data + SW1 SW2

    std::span<const uint8_t> response() const { return {bytes.data(), static_cast<std::size_t>(length)}; }
    // The response data without its status word.
    std::span<const uint8_t> data() const {
        return {bytes.data(), length >= 2 ? static_cast<std::size_t>(length - 2) : 0u};
    }
    std::span<uint8_t> room() { return bytes; }
};

// Card slot of the current card: 0x00 contact, 0xFF contactless. Written by
// power-on (the slot that answered), read by the card flows.
extern int32_t ssICType;

// A card result in the trace under format (one "%x"), as four hex digits.
void log_sw(const char* format, uint32_t sw);

// Transport time-out of a power-on: the caller's time-out capped at 3 s,
// plus one second.
uint32_t poweron_transport_timeout(uint32_t timeout);

// State query (data 0x11, 2 s): the raw transport result.
int32_t get_state();

// Power-on of slot 0x00, 0x01, 0xFF, or 0x02 (contact first, then
// contactless). *out_slot (when given) receives the slot actually used.
int32_t power_on(uint32_t slot, uint32_t timeout, int32_t* out_slot);
int32_t power_off(uint32_t slot);

// Raw exchange: slot byte and the APDU. out receives the response (data and
// SW1 SW2) and a zero after it; out_len its length. Returns the mapped
// device status.
int32_t apdu(uint32_t slot, std::span<const uint8_t> command, std::span<uint8_t> out, int32_t& out_len,
             uint32_t timeout);
// The APDU as hex text; blanks are ignored (at most 1023 characters).
int32_t apdu_hex(uint32_t slot, std::string_view hex, std::span<uint8_t> out, int32_t& out_len, uint32_t timeout);

// header CLA INS P1 P2, then Lc = data.size() and the data. Lenth_Error when
// data has more than 255 bytes.
uint32_t apdu_lc_data(uint32_t slot, std::span<const uint8_t, 4> header, std::span<const uint8_t> data,
                      CardReply& reply, uint32_t timeout);
uint32_t read_record(uint32_t slot, uint8_t record, uint8_t sfi, CardReply& reply, uint32_t timeout);
uint32_t select_aid(uint32_t slot, std::span<const uint8_t> aid, CardReply& reply, uint32_t timeout);
uint32_t set_gpo(uint32_t slot, std::span<const uint8_t> pdol_data, CardReply& reply, uint32_t timeout);
uint32_t generate_ac(uint32_t slot, uint8_t p1, std::span<const uint8_t> cdol_data, CardReply& reply,
                     uint32_t timeout);
uint32_t external_authenticate(uint32_t slot, std::span<const uint8_t> data, CardReply& reply, uint32_t timeout);
uint32_t put_data(uint32_t slot, std::span<const uint8_t, 2> tag, std::span<const uint8_t> data, CardReply& reply,
                  uint32_t timeout);
// One script command as it stands; fewer than 4 bytes: -1, nothing sent.
uint32_t exec_script(uint32_t slot, std::span<const uint8_t> command, CardReply& reply, uint32_t timeout);
// Every 86 command of a script in turn; executed counts the ones that
// answered 0x9000. Returns 0x9000, or the status word of the failing one.
uint32_t exec_multi_script(uint32_t slot, std::span<const uint8_t> script, int32_t& executed, uint32_t timeout);
// GET DATA of a two-byte tag; on 0x9000, out[0] = length and the value from
// out[1] (for 9F13, 9F77, 9F78, 9F79 as hex digits, out[0] = their count).
uint32_t get_data(uint32_t slot, std::span<const uint8_t, 2> tag, std::span<uint8_t, 256> out, uint32_t timeout);

// A card that is powered: powered off when the object goes out of scope,
// unless power_off() was called already or release() handed the card on on
// purpose (it never came up, or a later call of the same transaction goes on
// with it powered).
class PoweredCard {
public:
    explicit PoweredCard(uint32_t slot) : slot_(slot) {}
    ~PoweredCard() {
        if (armed_) device_power_off();
    }
    PoweredCard(const PoweredCard&) = delete;
    PoweredCard& operator=(const PoweredCard&) = delete;

    // Powers the card off now; the device result.
    int32_t power_off() {
        armed_ = false;
        return device_power_off();
    }
    // The card stays as it is: nothing is sent.
    void release() { armed_ = false; }
    uint32_t slot() const { return slot_; }

private:
    int32_t device_power_off() const;
    uint32_t slot_;
    bool armed_ = true;
};

// Opens the link, powers the slot on and off again, closes the link.
// -1 when the link or the power-on fails, else the power-off result.
int32_t psam_operate(int32_t term_type, std::string_view tty_name, int32_t port, std::string_view transfer, uint32_t slot);

// The slot byte the reader is addressed with.
inline uint8_t slot_byte(uint32_t slot) { return static_cast<uint8_t>(slot & 0xFF); }

}  // namespace kolt::device
