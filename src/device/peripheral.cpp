// Peripheral and identity-module commands.
#include "device/peripheral.hpp"

#include <algorithm>
#include <array>
#include <climits>
#include <cstdio>
#include <cstring>

#include "kolt/kolt.h"
#include "device/command.hpp"
#include "link/frame.hpp"
#include "support/log.hpp"

namespace kolt::device {
namespace {

using Reply = std::array<uint8_t, link::kReplyMax>;

bool status_ok(std::span<const uint8_t> reply) { return reply[3] == 0x00 && reply[4] == 0x00; }

// One command whose reply is judged by its status pair: 0, -2, -1.
int status_command(uint8_t cls, uint8_t code, std::span<const uint8_t> data, int timeout_s) {
    Reply reply{};
    const int n = command(cls, code, data, reply, timeout_s);
    if (n < 0) return -1;
    return status_ok(reply) ? 0 : -2;
}

// One command whose reply only has to arrive: 0, -1.
int arrival_command(uint8_t cls, uint8_t code, std::span<const uint8_t> data, int timeout_s) {
    Reply reply{};
    return command(cls, code, data, reply, timeout_s) < 0 ? -1 : 0;
}

int read_card(std::span<uint8_t> reply, int timeout_s) {
    const int n = command(cmd::kClassId, cmd::kIdRead, {}, reply, timeout_s);
    if (n < 0) return -1;
    return status_ok(reply) ? n : -2;
}

uint32_t le(std::span<const uint8_t> p, std::size_t n) {
    uint32_t v = 0;
    for (std::size_t i = n; i-- > 0;) v = (v << 8) | p[i];
    return v;
}

}  // namespace

int sigle_operate(uint8_t cls, uint8_t code) {
    log::debug_text("KOLT_T41_SigleOperate............%s", "");
    return status_command(cls, code, {}, 3);
}

// The field switches answer as KOLT_T41_SigleOperate does, each with its
// own single entry line.
int open_rf() {
    log::debug_text("KOLT_T41_OpenRF............%s", "");
    return status_command(cmd::kClassRf, cmd::kRfOn, {}, 3);
}

int close_rf() {
    log::debug_text("KOLT_T41_CloseRF............%s", "");
    return status_command(cmd::kClassRf, cmd::kRfOff, {}, 3);
}

int buzz() {
    log::debug_text("KOLT_T41_Buzz............%s", "");
    static constexpr uint8_t data[] = {0x02, 0x01, 0x01};
    return arrival_command(cmd::kClassSystem, cmd::kBuzz, data, 6);
}

int led_operate(uint32_t led, uint32_t color, uint32_t mode) {
    log::debug_text("KOLT_T41_LedOperate............%s", "");
    const uint8_t data[] = {static_cast<uint8_t>(led), static_cast<uint8_t>(color), static_cast<uint8_t>(mode),
                            0x01, 0x01, 0x00};
    return arrival_command(cmd::kClassSystem, cmd::kLed, data, 6);
}

int id_led_flicker() {
    log::debug_text("Led flight............%s", "");
    return led_operate(LED_RF, LED_Color_G, LED_Flicker);
}

int id_led_light() {
    log::debug_text("KOLT_T41_IDLedLight............%s", "");
    return led_operate(LED_RF, LED_Color_G, LED_Light);
}

int id_led_light_out() {
    // The light-out call logs with the light call's text.
    log::debug_text("KOLT_T41_IDLedLight............%s", "");
    return led_operate(LED_RF, LED_Color_G, LED_Lightout);
}

int id_find_card() {
    log::debug_text("KOLT_T41_Id_FindCard............%s", "");
    static constexpr uint8_t data[] = {0x00, 0x00};
    return status_command(cmd::kClassId, cmd::kIdFind, data, 2);
}

int id_select_card() {
    log::debug_text("KOLT_T41_Id_SelectCard............%s", "");
    return status_command(cmd::kClassId, cmd::kIdSelect, {}, 1);
}

int id_read_card(std::span<uint8_t> reply) {
    log::debug_text("KOLT_T41_Id_ReadCard............%s", "");
    return read_card(reply, 10);
}

int read_id_card(std::span<uint8_t> reply, int timeout_s) {
    log::debug_text("KOLT_T41_ReadIDCard............%s", "");
    return read_card(reply, timeout_s);
}

int get_version(uint8_t selector, std::span<uint8_t> out, int timeout_s) {
    log::debug_text("KOLT_T41_GetVersion............%s", "");
    Reply reply{};
    const uint8_t data[] = {selector};
    const int n = command(cmd::kClassSystem, cmd::kVersion, data, reply, timeout_s);
    if (n < 0) return -1;
    if (!status_ok(reply)) return -2;
    // The frame less 02, length, status, check and 03.
    const int count = n - 7;
    if (count < 0 || static_cast<std::size_t>(count) > out.size()) return -1;
    std::copy_n(reply.begin() + 5, count, out.begin());
    return count;
}

std::string saimid_text(std::span<const uint8_t, 16> d) {
    const std::span<const uint8_t> p(d);
    char text[64];
    std::snprintf(text, sizeof text, "%02d.%02d-%08u-%010u-%010u", static_cast<int>(le(p.subspan(0), 2)),
                  static_cast<int>(le(p.subspan(2), 2)), static_cast<unsigned>(le(p.subspan(4), 4)),
                  static_cast<unsigned>(le(p.subspan(8), 4)), static_cast<unsigned>(le(p.subspan(12), 4)));
    return text;
}

int get_saimid_str(std::string& out, int timeout_s) {
    log::debug_text("KOLT_T41_GetSAIMIDStr............%s", "");
    Reply reply{};
    static constexpr uint8_t data[] = {0x00};
    const int n = command(cmd::kClassId, cmd::kIdSamId, data, reply, timeout_s);
    if (n < 0) return -1;
    if (!status_ok(reply)) return -2;
    // 16 data bytes between the status pair and the check byte.
    if (n < 5 + 16 + 2) return -1;
    out = saimid_text(std::span<const uint8_t, 16>(reply.data() + 5, 16));
    return n;
}

}  // namespace kolt::device
