#include "support/random.hpp"

#include <cstdlib>
#include <ctime>

namespace kolt::support {

void random_bytes(std::span<uint8_t> out) {
    std::srand(static_cast<unsigned>(std::time(nullptr)));
    for (uint8_t& b : out) b = static_cast<uint8_t>(std::rand() & 0xFF);
}

}  // namespace kolt::support
