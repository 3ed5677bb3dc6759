// Encoders with deliberate defects, for fault injection.
#pragma once

#include "kolt_sim/frame.hpp"

namespace kolt::sim {

struct Tweak {
    uint8_t check_xor = 0;  // XORed into the check field
    int length_extra = 0;   // added to the length field
};

Bytes encode_main_frame(uint8_t a, uint8_t b, std::span<const uint8_t> data, const Tweak& tw);
Bytes encode_special_frame(std::span<const uint8_t> body, const Tweak& tw);
Bytes encode_bracket_frame(uint8_t cmd, std::span<const uint8_t> data, const Tweak& tw);
Bytes encode_86_frame(std::span<const uint8_t> payload, const Tweak& tw);
// The three length characters of a bracket frame as a count.
std::optional<uint16_t> bracket_length(std::span<const uint8_t> three);

}  // namespace kolt::sim
