// The issuer's answer: script choice, script result, response code.
#include "emv/issuer_data.hpp"

#include <algorithm>
#include <cstdio>

#include "emv/tags.hpp"
#include "support/hex.hpp"
#include "support/log.hpp"

namespace kolt::emv {

namespace {
constexpr uint8_t kScriptIdTag[2] = {0x9F, 0x18};
constexpr std::size_t kArpcSize = 8;
}  // namespace

ScriptPick pick_script(std::span<const uint8_t> data) {
    log::debug_hex("KOLT_ARPC_GetScritp ARPC=%02x", data);
    ScriptPick pick;
    for (const uint8_t kind : {uint8_t{0x71}, uint8_t{0x72}}) {
        const uint8_t tag[1] = {kind};
        const auto script = find_tag(data, tag, 0);
        if (!script) continue;
        log::debug_int(kind == 0x71 ? "KOLT_ARPC_GetScritp 71 scriptLen=%d" : "KOLT_ARPC_GetScritp 72 scriptLen=%d",
                       static_cast<int>(script->size()));
        pick.kind = kind;
        pick.script = *script;
        if (const auto id = find_tag(*script, kScriptIdTag, 1)) {
            const std::size_t n = std::min<std::size_t>(id->size(), 4);
            std::copy_n(id->begin(), n, pick.id.begin() + 1);
        }
        pick.id[0] = 4;
        return pick;
    }
    return pick;
}

std::string script_result_text(ScriptState state, int32_t index, const ScriptId& id) {
    char head[32];
    std::snprintf(head, sizeof head, "DF3105%d%d", static_cast<int>(state),
                  state == ScriptState::none ? 0 : static_cast<int>(index));
    return head + support::to_hex_upper(std::span<const uint8_t>(id).first(4));
}

std::string response_code(std::span<const uint8_t> issuer_auth_data) {
    if (issuer_auth_data.size() < kArpcSize + 2) return {};
    return {static_cast<char>(issuer_auth_data[kArpcSize]), static_cast<char>(issuer_auth_data[kArpcSize + 1])};
}

uint8_t second_ac_type(std::string_view code) { return code == "00" || code == "10" ? kAcTypeTc : kAcTypeAac; }

}  // namespace kolt::emv
