// Random bytes for the card flows' unpredictable numbers.
#pragma once

#include <cstdint>
#include <span>

namespace kolt::support {

// Fills out from the C library's generator, seeded from the time in seconds
// on every call: two calls within the same second give the same bytes,
// which the card flows accept.
void random_bytes(std::span<uint8_t> out);

}  // namespace kolt::support
