// Encoders with deliberate defects, for fault injection, and the wire form
// of a reply.
#pragma once

#include "kolt_sim/frame.hpp"
#include "kolt_sim/simulator.hpp"

namespace kolt::sim {

struct Tweak {
    uint8_t check_xor = 0;  // XORed into the check field
    int length_extra = 0;   // added to the length field
    bool length_max = false;  // the length field at its largest value instead
};

Bytes encode_main_frame(uint8_t a, uint8_t b, std::span<const uint8_t> data, const Tweak& tw);
Bytes encode_special_frame(std::span<const uint8_t> body, const Tweak& tw);
Bytes encode_bracket_frame(uint8_t cmd, std::span<const uint8_t> data, const Tweak& tw);
Bytes encode_86_frame(std::span<const uint8_t> payload, const Tweak& tw);
// The three length characters of a bracket frame as a count.
std::optional<uint16_t> bracket_length(std::span<const uint8_t> three);

// A command's class and code as one key.
constexpr uint16_t key_of(uint8_t cls, uint8_t code) { return static_cast<uint16_t>(cls << 8 | code); }

// How a reply goes on the wire.
enum class ReplyForm {
    Main,      // main frame: the status pair and the data
    Special,   // the identity-card read reply: status pair and data as base64 text
    Bracket,   // bracket frame: `cmd` and the data as its body
    Legacy86,  // 0x86 family: the data as the payload
    Raw,       // the data as it is (EF01 packets, already whole)
};

// A reply as the command handling decided it, before it is encoded.
struct Answer {
    ReplyForm form = ReplyForm::Main;
    Reply reply;      // Bracket and Legacy86 use only the data
    uint8_t cmd = 0;  // Bracket: the command byte of the reply frame
};

Bytes encode_answer(const Answer& answer, const Tweak& tw);

}  // namespace kolt::sim
