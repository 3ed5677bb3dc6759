#include "support/random.hpp"

#include <sys/random.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>

namespace kolt::support {

void random_bytes(std::span<uint8_t> out) {
    std::srand(static_cast<unsigned>(std::time(nullptr)));
    for (uint8_t& b : out) b = static_cast<uint8_t>(std::rand() & 0xFF);
}

void unpredictable_bytes(std::span<uint8_t> out) {
    std::size_t got = 0;
    while (got < out.size()) {
        const ssize_t n = ::getrandom(out.data() + got, out.size() - got, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            random_bytes(out.subspan(got));
            return;
        }
        got += static_cast<std::size_t>(n);
    }
}

}  // namespace kolt::support
