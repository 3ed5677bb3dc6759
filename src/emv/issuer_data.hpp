// The issuer's answer as the issuer-authentication call reads it: the
// issuer script picked out of the response data, and the issuer script
// result reported back to the host.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>

namespace kolt::emv {

// Script identifier block: byte 0 is 4, bytes 1..4 the value of 9F18 found
// inside the script.
using ScriptId = std::array<uint8_t, 5>;

struct ScriptPick {
    int32_t kind = -1;               // 0x71, 0x72, or -1 when there is none
    std::span<const uint8_t> script; // the template's value (within the data)
    ScriptId id{};                   // all zero when there is no script
};

// The first issuer script of the response data: template 71 (searched at
// any depth), else 72. Only one script is used.
ScriptPick pick_script(std::span<const uint8_t> data);

// Script processing of the transaction.
enum class ScriptState : int {
    none = 0,      // the script step did not run
    started = 1,   // it ran; no script, or a command failed
    executed = 2,  // every command of the script succeeded
};

// The script result: "DF3105", the state digit, "%d" of the command index,
// then the first four bytes of the identifier block in hex (the length byte
// 04 and three identifier bytes, as hosts have always received it). The
// state none always reports index 0.
std::string script_result_text(ScriptState state, int32_t index, const ScriptId& id);

// The authorisation response code of tag 91's value (its bytes 9 and 10,
// after the 8-byte ARPC), as two characters; empty when 91 is shorter.
std::string response_code(std::span<const uint8_t> issuer_auth_data);
// GENERATE AC reference control for the second cryptogram: TC (40) for
// response codes "00" and "10", AAC (00) for any other.
uint8_t second_ac_type(std::string_view response_code);

inline constexpr uint8_t kAcTypeAac = 0x00;
inline constexpr uint8_t kAcTypeTc = 0x40;
inline constexpr uint8_t kAcTypeArqc = 0x80;

}  // namespace kolt::emv
