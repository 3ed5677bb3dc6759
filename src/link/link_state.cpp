// Process-wide link state.
#include "link/link_state.hpp"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>

namespace kolt::link {

LinkState& state() {
    static LinkState s;
    return s;
}

void reset() {
    close_fd();
    state() = LinkState{};
    reset_term_saved();
    std::memset(gPortName, 0, sizeof gPortName);
}

void set_seq(char (&buf)[kSeqSize], std::string_view text) {
    const std::size_t n = std::min(text.size(), kSeqSize - 1);
    if (n > 0) std::memcpy(buf, text.data(), n);
    std::memset(buf + n, 0, kSeqSize - n);
}

void clear_sequences() {
    LinkState& s = state();
    std::memset(s.open_aux_cmd, 0, kSeqSize);
    std::memset(s.close_aux_cmd, 0, kSeqSize);
    std::memset(s.key_lock_cmd, 0, kSeqSize);
    std::memset(s.key_unlock_cmd, 0, kSeqSize);
    std::memset(s.aux_lead, 0, kSeqSize);
    std::memset(s.aux_end, 0, kSeqSize);
}

std::string_view port_name() {
    return std::string_view(gPortName, strnlen(gPortName, sizeof gPortName - 1));
}

void set_port_name(std::string_view name) {
    const std::string copy(name.substr(0, sizeof gPortName - 1));
    std::memset(gPortName, 0, sizeof gPortName);
    std::memcpy(gPortName, copy.data(), copy.size());
}

void close_fd() {
    LinkState& s = state();
    if (s.fd >= 0 && s.fd == s.owned_fd) {
        ::close(s.fd);
        s.owned_fd = -1;
    }
}

void adopt_fd(int fd, bool owned) {
    LinkState& s = state();
    if (s.owned_fd >= 0 && s.owned_fd != fd) ::close(s.owned_fd);
    s.owned_fd = owned && fd >= 0 ? fd : -1;
    s.fd = fd;
}

}  // namespace kolt::link
