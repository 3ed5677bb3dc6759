// The caller's arguments of the card flows.
#include "emv/caller_args.hpp"

#include <cstdlib>
#include <cstring>

#include "device/icc.hpp"
#include "emv/trace.hpp"
#include "kolt/kolt.h"
#include "support/log.hpp"
#include "support/text.hpp"

namespace kolt::emv {

std::string_view bounded(const char* text, std::size_t max) {
    if (text == nullptr) return {};
    return std::string_view(text, ::strnlen(text, max));
}

std::string star_field(std::string_view input, int k) {
    // The input is split with the library's field helper on a bounded copy;
    // the field is then cut to the 256-byte field buffer.
    std::string_view text = input.substr(0, kStarInputMax);
    text = text.substr(0, text.find('\0'));
    std::string field(support::sub_field(text, '|', k).field);
    if (field.size() > kFieldMax) field.resize(kFieldMax);
    return field;
}

StarInput read_star_input(std::string_view input, std::string_view name, std::string_view field4_label) {
    const std::string prefix(name);
    log::debug_text((prefix + " ......%s").c_str(), "");
    log_text((prefix + "  datain=%s").c_str(), input);
    StarInput in;
    in.port = std::atoi(star_field(input, 2).c_str());
    log::debug_int((prefix + "  iPort=%d").c_str(), in.port);
    in.field4 = star_field(input, 4);
    log_text((prefix + "  " + std::string(field4_label) + "=%s").c_str(), in.field4);
    return in;
}

void log_star_return(std::string_view name, const std::optional<std::string>& text) {
    log_text((std::string(name) + "  strReturn=%s").c_str(), text ? std::string_view(*text) : std::string_view());
}


int32_t do_ic_type(int32_t ic_type, int32_t* flag) {
    int32_t slot = device::kSlotContact;
    switch (ic_type) {
    case 0:
    case 20: slot = device::kSlotContact; break;
    case 1:
    case 21: slot = device::kSlotRf; break;
    case 2:
    case 22: slot = device::kSlotAuto; break;
    default: return device::kSlotContact;  // the flag stays as it is
    }
    if (flag != nullptr) *flag = -1;
    return slot;
}

int32_t ic_type_from_one(int32_t caller_type) {
    return static_cast<int32_t>(static_cast<uint32_t>(caller_type) - 1u);
}

int32_t card_kind_of_slot(int32_t slot) { return slot == static_cast<int32_t>(device::kSlotRf) ? 2 : 1; }
}  // namespace kolt::emv
