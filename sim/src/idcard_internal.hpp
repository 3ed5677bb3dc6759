// The identity card text block, field by field, for the device profiles.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "kolt_sim/idcard.hpp"

namespace kolt::sim {

// A text block of blanks (20 00), kIdTextSize bytes.
std::vector<uint8_t> blank_id_text();
// Writes UTF-8 text as UCS-2LE at `offset`, blank-padded to `size` bytes.
// Throws std::runtime_error (naming `what`) when it does not fit.
void put_id_field(std::vector<uint8_t>& text, size_t offset, size_t size, std::string_view utf8,
                  std::string_view what);
// Writes the field `key` of `layout` ("id", "I", "J"; an "I" or "J" field
// also writes the card type). False when the layout has no such field;
// throws for an unknown layout or a field too long.
bool put_id_field_by_key(std::vector<uint8_t>& text, const std::string& layout, std::string_view key,
                         std::string_view utf8);

}  // namespace kolt::sim
