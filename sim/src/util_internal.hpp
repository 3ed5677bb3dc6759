// Small parsing and formatting helpers of the simulator.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kolt_sim/simulator.hpp"

namespace kolt::sim {

// Hex digits, blanks ignored; nullopt on an odd count or a foreign character.
std::optional<std::vector<uint8_t>> parse_hex(std::string_view text);
// Decimal, or hexadecimal with a 0x prefix.
std::optional<long> parse_number(std::string_view text);
// Upper-case hex with blanks between bytes.
std::string hex_dump(const std::vector<uint8_t>& bytes);
// printable() is declared in kolt_sim/simulator.hpp.

}  // namespace kolt::sim
