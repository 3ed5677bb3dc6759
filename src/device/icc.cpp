// IC card command set of the KL560T41 (device class 0x32).
#include "device/icc.hpp"

#include <algorithm>
#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "device/command.hpp"
#include "device/peripheral.hpp"
#include "kolt/kolt.h"
#include "link/frame.hpp"
#include "link/session.hpp"
#include "support/hex.hpp"
#include "support/log.hpp"
#include "support/tlv.hpp"

namespace kolt::device {

int32_t ssICType = 0;

namespace {

// Decoded reply frame: 02, length, status pair, data, check, 03.
constexpr std::size_t kFrameRoom = 1024;
constexpr std::size_t kFrameOverhead = 7;  // 02, two length bytes, two status bytes, check, 03

int as_timeout(uint32_t seconds) { return seconds > INT_MAX ? INT_MAX : static_cast<int>(seconds); }

// One device command of class 0x32; the decoded reply frame lands in frame.
int transact(uint8_t code, std::span<const uint8_t> data, std::array<uint8_t, kFrameRoom>& frame, uint32_t timeout) {
    return command(kIccClass, code, data, frame, as_timeout(timeout));
}

// Whether a reply frame of n bytes is long enough to hold the status pair.
bool has_status(int n) { return n >= static_cast<int>(kFrameOverhead); }

uint32_t status_word(std::span<const uint8_t> response) {
    const std::size_t n = response.size();
    return static_cast<uint32_t>(response[n - 2]) * 256u + response[n - 1];
}

uint32_t device_code(int32_t code) { return static_cast<uint32_t>(code); }

// Card-level result of an exchange: the status word when the reader
// reported success, otherwise the reader's result.
uint32_t card_result(uint32_t slot, std::span<const uint8_t> command, CardReply& reply, uint32_t timeout) {
    reply.bytes.fill(0);
    reply.length = 0;
    const int32_t rc = apdu(slot, command, reply.room(), reply.length, timeout);
    if (rc != OK) return device_code(rc);
    if (reply.length < 2) return device_code(Lenth_Error);  // no status word came back
    return status_word(reply.response());
}

// The reader LED of a slot: the contact LED for the two contact readers,
// the RF LED for the field; slot 0x00 has none.
void set_slot_led(uint32_t slot, uint32_t mode) {
    if (slot == SLOT_0_K300 || slot == SLOT_5_K200) {
        led_operate(LED_IC, LED_Color_G, mode);
    } else if (slot == kSlotRf) {
        led_operate(LED_RF, LED_Color_G, mode);
    }
}

}  // namespace

void log_sw(const char* format, uint32_t sw) {
    const int value = static_cast<int>(sw);
    log::debug(format, &value, 4);
}

uint32_t poweron_transport_timeout(uint32_t timeout) { return std::min<uint32_t>(timeout, 3) + 1; }

int32_t get_state() {
    std::array<uint8_t, kFrameRoom> frame{};
    const uint8_t data[] = {0x11};
    return transact(kCodeState, data, frame, 2);
}

int32_t power_on(uint32_t slot, uint32_t timeout, int32_t* out_slot) {
    log::debug_int("KOLT_T41_ICC_Poweron slotNo=%d", static_cast<int>(slot));
    if (slot != 0x00 && slot != 0x01 && slot != kSlotAuto && slot != kSlotRf) return Para_Error;

    // The two leading bytes of the command are a wait field in
    // milliseconds; the reader waits by its own rule, so it goes out as zero
    // whatever time-out the caller gave.
    const uint32_t wait = poweron_transport_timeout(timeout);
    const bool auto_mode = slot == kSlotAuto;
    uint32_t working = auto_mode ? kSlotContact : slot;

    int32_t result = OK;
    for (;;) {
        std::array<uint8_t, kFrameRoom> frame{};
        int n;
        if (working == kSlotRf) {
            const uint8_t data[] = {0x00, 0x00};
            n = transact(kCodeRfPowerOn, data, frame, wait);
        } else {
            const uint8_t data[] = {0x00, 0x00, slot_byte(working)};
            n = transact(kCodeContactPowerOn, data, frame, wait);
        }
        if (n < 1 || !has_status(n)) {
            log::debug_int("KOLT_T41_ICC_Poweron rcv flag=%d", n);
            return Revdata_Error;
        }
        log::debug_hex("KOLT_T41_ICC_Poweron rcvBuf=%02x", std::span<const uint8_t>(frame.data(), static_cast<std::size_t>(n)));
        result = link::ret_code(frame[3], frame[4]);
        if (result == OK) break;
        if (auto_mode && working == kSlotContact) {
            // Auto mode: no contact card answered, the contactless field is next.
            log::debug_text("KOLT_T41_ICC_Poweron contactless ic card=%s", "");
            working = kSlotRf;
            continue;
        }
        break;
    }

    if (result == OK) set_slot_led(working, LED_Light);  // slot 0x00 lights nothing
    if (out_slot != nullptr) *out_slot = static_cast<int32_t>(working);
    log::debug_int("KOLT_T41_ICC_Poweron ret=%d", result);
    return result;
}

int32_t power_off(uint32_t slot) {
    log::debug_text("KOLT_T41_ICC_Poweroff......%s", "");
    std::array<uint8_t, kFrameRoom> frame{};
    int n;
    if (slot == kSlotRf) {
        const uint8_t data[] = {0x00, 0x00};
        n = transact(kCodeRfPowerOff, data, frame, 3);
    } else {
        const uint8_t data[] = {slot_byte(slot)};
        n = transact(kCodeContactPowerOff, data, frame, 3);
    }
    if (n < 0 || !has_status(n)) {
        log::debug_int("KOLT_T41_ICC_Poweroff rcv flag=%d", n);
        return Revdata_Error;
    }
    log::debug_hex("KOLT_T41_ICC_Poweroff rcvBuf=%02x", std::span<const uint8_t>(frame.data(), static_cast<std::size_t>(n)));
    const int32_t result = link::ret_code(frame[3], frame[4]);
    if (result == OK) set_slot_led(slot, LED_Lightout);
    log::debug_int("KOLT_T41_ICC_Poweroff ret=%d", result);
    return result;
}

int32_t PoweredCard::device_power_off() const { return device::power_off(slot_); }

int32_t apdu(uint32_t slot, std::span<const uint8_t> command, std::span<uint8_t> out, int32_t& out_len,
             uint32_t timeout) {
    log::debug_text("KOLT_T41_APDUBuf......%s", "");
    out_len = 0;
    log::debug_hex("KOLT_T41_APDUBuf apdu=%02x", command);

    std::vector<uint8_t> data;
    data.reserve(command.size() + 1);
    data.push_back(slot_byte(slot));
    data.insert(data.end(), command.begin(), command.end());

    std::array<uint8_t, kFrameRoom> frame{};
    const int n = transact(kCodeApdu, data, frame, timeout);
    if (n < 0) {
        log::debug_int("KOLT_T41_APDUBuf rcv flag=%d", n);
        return Revdata_Error;
    }
    if (!has_status(n)) {
        log::debug_int("KOLT_T41_APDUBuf short reply=%d", n);
        return Lenth_Error;
    }
    // L counts the status pair and the data; never more than arrived.
    const std::size_t declared = static_cast<std::size_t>(frame[1]) * 256u + frame[2];
    const std::size_t arrived = static_cast<std::size_t>(n) - kFrameOverhead;
    const std::size_t len = std::min(declared >= 2 ? declared - 2 : 0u, arrived);
    if (len + 1 > out.size()) {
        log::debug_int("KOLT_T41_APDUBuf reply too long=%d", static_cast<int>(len));
        return Lenth_Error;
    }
    std::memset(out.data(), 0, len + 1);
    std::memcpy(out.data(), frame.data() + 5, len);
    out_len = static_cast<int32_t>(len);
    log::debug_hex("KOLT_T41_APDUBuf rApdu=%02x", std::span<const uint8_t>(out.data(), len));
    const int32_t result = link::ret_code(frame[3], frame[4]);
    log::debug_int("KOLT_T41_APDUBuf ret=%d", result);
    return result;
}

int32_t apdu_hex(uint32_t slot, std::string_view hex, std::span<uint8_t> out, int32_t& out_len, uint32_t timeout) {
    log::debug_text("KOLT_T41_APDUHexstr......%s", "");
    out_len = 0;
    std::string text(hex.substr(0, 1023));
    text.erase(std::remove(text.begin(), text.end(), ' '), text.end());
    std::vector<uint8_t> command = support::from_hex(text);
    command.resize(text.size() / 2);
    return apdu(slot, command, out, out_len, timeout);
}

uint32_t apdu_lc_data(uint32_t slot, std::span<const uint8_t, 4> header, std::span<const uint8_t> data,
                      CardReply& reply, uint32_t timeout) {
    log::debug_text("KOLT_T41_ICC_SingleAPDUWrite......%s", "");
    reply.length = 0;
    if (data.size() > 255) return device_code(Lenth_Error);
    std::vector<uint8_t> command(header.begin(), header.end());
    command.push_back(static_cast<uint8_t>(data.size()));
    command.insert(command.end(), data.begin(), data.end());
    const uint32_t sw = card_result(slot, command, reply, timeout);
    log_sw("KOLT_T41_ICC_SingleAPDUWrite sw=%x", sw);
    return sw;
}

uint32_t read_record(uint32_t slot, uint8_t record, uint8_t sfi, CardReply& reply, uint32_t timeout) {
    log::debug_text("KOLT_T41_ICC_Comm_Read_Record......%s", "");
    // The trailing zero sits in the Lc position and acts as Le.
    const uint8_t header[4] = {0x00, 0xB2, record, static_cast<uint8_t>(sfi * 8 + 4)};
    return apdu_lc_data(slot, header, {}, reply, timeout);
}

uint32_t select_aid(uint32_t slot, std::span<const uint8_t> aid, CardReply& reply, uint32_t timeout) {
    log::debug_text("KOLT_T41_ICC_Select_Aid......%s", "");
    const uint8_t header[4] = {0x00, 0xA4, 0x04, 0x00};
    return apdu_lc_data(slot, header, aid, reply, timeout);
}

uint32_t set_gpo(uint32_t slot, std::span<const uint8_t> pdol_data, CardReply& reply, uint32_t timeout) {
    log::debug_text("KOLT_T41_ICC_SetGPO......%s", "");
    reply.length = 0;
    if (pdol_data.size() > 253) return device_code(Lenth_Error);  // Lc = len + 2 is one byte
    std::vector<uint8_t> command = {0x80, 0xA8, 0x00, 0x00, static_cast<uint8_t>(pdol_data.size() + 2), 0x83,
                                    static_cast<uint8_t>(pdol_data.size())};
    command.insert(command.end(), pdol_data.begin(), pdol_data.end());
    const uint32_t sw = card_result(slot, command, reply, timeout);
    log_sw("KOLT_T41_ICC_SetGPO sw=%x", sw);
    return sw;
}

uint32_t generate_ac(uint32_t slot, uint8_t p1, std::span<const uint8_t> cdol_data, CardReply& reply,
                     uint32_t timeout) {
    log::debug_text("KOLT_T41_ICC_Generate_Ac......%s", "");
    const uint8_t header[4] = {0x80, 0xAE, p1, 0x00};
    return apdu_lc_data(slot, header, cdol_data, reply, timeout);
}

uint32_t external_authenticate(uint32_t slot, std::span<const uint8_t> data, CardReply& reply, uint32_t timeout) {
    log::debug_text("KOLT_T41_External_Authenticate......%s", "");
    const uint8_t header[4] = {0x00, 0x82, 0x00, 0x00};
    return apdu_lc_data(slot, header, data, reply, timeout);
}

uint32_t put_data(uint32_t slot, std::span<const uint8_t, 2> tag, std::span<const uint8_t> data, CardReply& reply,
                  uint32_t timeout) {
    log::debug_text("KOLT_T41_Put_Data......%s", "");
    // CLA 04: the command goes with secure messaging; P1 P2 are the tag.
    const uint8_t header[4] = {0x04, 0xDA, tag[0], tag[1]};
    return apdu_lc_data(slot, header, data, reply, timeout);
}

uint32_t exec_script(uint32_t slot, std::span<const uint8_t> command, CardReply& reply, uint32_t timeout) {
    log::debug_text("KOLT_T41_Exec_Script......%s", "");
    reply.length = 0;
    if (command.size() < 4) return device_code(-1);
    const uint32_t sw = card_result(slot, command, reply, timeout);
    log_sw("KOLT_T41_Exec_Script sw=%x", sw);
    return sw;
}

uint32_t exec_multi_script(uint32_t slot, std::span<const uint8_t> script, int32_t& executed, uint32_t timeout) {
    log::debug_text("KOLT_T41_Exec_MutiScript......%s", "");
    const std::vector<uint8_t> copy(script.begin(), script.end());
    uint32_t result = kSwOk;
    executed = 0;

    const uint8_t tag86[] = {0x86};
    auto next_command = [&](std::size_t pos) -> std::span<const uint8_t> {
        const auto found = tlv::search(std::span<const uint8_t>(copy).subspan(pos), tag86, 0, -1);
        return found.found ? found.value : std::span<const uint8_t>{};
    };

    // Commands are read as a flat run of 86 items with one-byte lengths:
    // the read position moves on by tag, length byte and command.
    std::size_t pos = 0;
    std::size_t remaining = copy.size();
    std::span<const uint8_t> command = next_command(pos);
    while (!command.empty()) {
        CardReply reply;
        const uint32_t rc = exec_script(slot, command, reply, timeout);
        if (rc != kSwOk) {
            result = reply.length >= 2 ? status_word(reply.response()) : rc;
            break;
        }
        ++executed;
        const std::size_t step = 2 + command.size();
        if (step >= remaining) break;
        pos += step;
        remaining -= step;
        command = next_command(pos);
    }
    log_sw("KOLT_T41_Exec_MutiScript ret=%x", result);
    return result;
}

uint32_t get_data(uint32_t slot, std::span<const uint8_t, 2> tag, std::span<uint8_t, 256> out, uint32_t timeout) {
    log::debug_text("KOLT_T41_ICC_GetData......%s", "");
    const uint8_t header[4] = {0x80, 0xCA, tag[0], tag[1]};
    CardReply reply;
    const uint32_t sw = apdu_lc_data(slot, header, {}, reply, timeout);
    if (sw != kSwOk) return sw;

    // The tag is matched as text: its bytes up to the first zero.
    const std::size_t tag_len = tag[0] == 0 ? 0 : (tag[1] == 0 ? 1 : 2);
    const auto found = tlv::search(reply.data(), tag.first(tag_len), 0, -1);
    const std::span<const uint8_t> value = found.found ? found.value : std::span<const uint8_t>{};

    std::fill(out.begin(), out.end(), 0);
    const uint16_t t = static_cast<uint16_t>(tag[0] * 256 + tag[1]);
    if (t == 0x9F13 || t == 0x9F77 || t == 0x9F78 || t == 0x9F79) {
        // Electronic-cash amounts and the last online counter come back as
        // hex digits.
        const std::size_t n = value.size() & 0x7F;
        const std::string hex = support::to_hex_upper(value.first(n));
        out[0] = static_cast<uint8_t>(hex.size());
        std::memcpy(out.data() + 1, hex.data(), hex.size());
    } else {
        const std::size_t n = std::min<std::size_t>(value.size(), out.size() - 1);
        out[0] = static_cast<uint8_t>(n);
        if (n > 0) std::memcpy(out.data() + 1, value.data(), n);
    }
    log::debug_hex("KOLT_T41_ICC_GetData value=%02x", std::span<const uint8_t>(out.data(), 1u + out[0]));
    return sw;
}

int32_t psam_operate(int32_t term_type, std::string_view tty_name, int32_t port, std::string_view transfer, uint32_t slot) {
    log::debug_text("KOLT_PSAM_Operate......%s", "");
    const link::Session session(term_type, tty_name, port, transfer);
    if (!session.ok()) {
        log::debug_int("KOLT_PSAM_Operate KOLT_initCom flag=%d", session.result());
        return -1;
    }
    get_state();  // the reader's state is not consulted
    // Power-on takes only the card slots 0x00, 0x01, 0x02 and 0xFF: a PSAM
    // holder number (0x11..0x14) fails here, and the call reports -1.
    if (power_on(slot, 6, &ssICType) != OK) return -1;
    return power_off(slot);
}

}  // namespace kolt::device
