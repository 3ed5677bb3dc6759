// Random bytes for the card flows' unpredictable numbers.
#pragma once

#include <cstdint>
#include <span>

namespace kolt::support {

// Fills out from the C library's generator, seeded from the time in seconds
// on every call: two calls within the same second give the same bytes,
// which the card flows accept.
void random_bytes(std::span<uint8_t> out);

// Bytes from the platform's random source (getrandom), for the
// unpredictable numbers of cryptograms: two drawn within one second differ,
// so the ARQC and the TC of a transaction never share theirs. Falls back to
// random_bytes when the source cannot be read.
void unpredictable_bytes(std::span<uint8_t> out);

}  // namespace kolt::support
