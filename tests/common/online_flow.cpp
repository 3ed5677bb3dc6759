#include "common/online_flow.hpp"

#include "common/card_flow.hpp"

namespace kolt::test {

std::string ic_field(char letter, const std::string& value) {
    return std::string(1, letter) + static_cast<char>(value.size()) + value;
}

std::vector<std::string> generate_acs(const kolt::sim::Card& card) {
    std::vector<std::string> out;
    for (const auto& a : apdus_hex(card))
        if (a.rfind("80AE", 0) == 0) out.push_back(a);
    return out;
}

void accept_external_authenticate(kolt::sim::ProfileCard& card) {
    kolt::sim::ResponseOverride auth;
    auth.ins = 0x82;
    auth.response = {0x90, 0x00};
    card.add_override(auth);
}

void accept_issuer(kolt::sim::ProfileCard& card) {
    accept_external_authenticate(card);
    const uint8_t unblock[] = {0x84, 0x18};
    card.override_sw(unblock, 0x9000);
}

void refuse_second_generate_ac(kolt::sim::ProfileCard& card) {
    kolt::sim::ResponseOverride second;
    second.ins = 0xAE;
    second.response = {0x69, 0x85};
    second.after = 1;
    card.add_override(second);
}

}  // namespace kolt::test
