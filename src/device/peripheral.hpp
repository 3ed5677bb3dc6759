// The reader's own peripherals (buzzer, LEDs, contactless field), its
// identity-card module, and the device's identity queries. Each sends one
// main frame on a link the caller has opened and tests the status pair of
// the reply itself: 0 success, -2 a non-zero status, -1 no reply.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace kolt::device {

int sigle_operate(uint8_t cls, uint8_t code);
int open_rf();
int close_rf();
// Buzzer and LEDs report only -1 (no reply) or 0; the status is not read.
int buzz();
int led_operate(uint32_t led, uint32_t color, uint32_t mode);
int id_led_flicker();
int id_led_light();
int id_led_light_out();
int id_find_card();
int id_select_card();
// The whole decoded reply frame stays in reply; the frame length on
// success.
int id_read_card(std::span<uint8_t> reply);
int read_id_card(std::span<uint8_t> reply, int timeout_s);
// Version bytes into out; their count. A version longer than out is
// refused with -1.
int get_version(uint8_t selector, std::span<uint8_t> out, int timeout_s);
// Serial number of the identity module as "%02d.%02d-%08u-%010u-%010u";
// the transport result on success.
int get_saimid_str(std::string& out, int timeout_s);
// The serial-number text of the module's 16 data bytes.
std::string saimid_text(std::span<const uint8_t, 16> data);

}  // namespace kolt::device
