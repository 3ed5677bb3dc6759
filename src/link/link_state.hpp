// Process-wide state of the device link: one link per process, used by
// every device operation from one thread at a time.
#pragma once

#include <termios.h>
#include <sys/ioctl.h>

#include <cstddef>
#include <cstring>
#include <string_view>

#include "kolt/kolt.h"

namespace kolt::link {

// Size of each escape-sequence buffer (and of ExtendCmd).
inline constexpr std::size_t kSeqSize = 255;

struct LinkState {
    // Descriptor of the link: 0 (the terminal itself) until a local port or
    // a named terminal device is opened; never reset after a close.
    int fd = 0;
    // The descriptor this library opened itself (a local port, or a terminal
    // device named in auxiliary mode), -1 when fd is not ours: descriptor 0
    // is the application's own terminal, and so is the 0 a refused port
    // number leaves behind. Only an owned descriptor is ever closed. A named
    // terminal stays open after an auxiliary close (fd is never reset) and,
    // like a port the application never closed, is closed when a later open
    // replaces it.
    int owned_fd = -1;

    termios oldtio{};      // saved settings of a local port
    termios newtio{};      // working settings of a local port
    termio oterm_attr{};   // saved terminal line settings (auxiliary mode)
    termio term_attr{};    // working terminal line settings (auxiliary mode)

    char open_aux_cmd[kSeqSize]{};
    char close_aux_cmd[kSeqSize]{};
    char key_lock_cmd[kSeqSize]{};
    char key_unlock_cmd[kSeqSize]{};
    char aux_lead[kSeqSize]{};
    char aux_end[kSeqSize]{};
    char ExtendCmd[kSeqSize]{};  // pass-through command written by connect
};

// The one link of the process.
LinkState& state();

// Back to the state of a freshly loaded library: a descriptor this library
// opened is closed, every setting and sequence cleared, gPortName emptied.
// For test programs that run many cases in one process.
void reset();

// Text held in a sequence buffer (never reads past its end).
inline std::string_view seq_text(const char (&buf)[kSeqSize]) {
    return std::string_view(buf, strnlen(buf, kSeqSize));
}

// Copies text into a sequence buffer, cut to fit with its terminator.
void set_seq(char (&buf)[kSeqSize], std::string_view text);

// Clears the six escape-sequence buffers.
void clear_sequences();

// gPortName as text (at most 31 characters are used).
std::string_view port_name();
// Clears gPortName and copies the name into it (at most 31 characters), as
// the entry points that take a port name do before they open the link. The
// name may be gPortName itself.
void set_port_name(std::string_view name);

// Closes the link descriptor when this library opened it (fd keeps its
// value); a descriptor it did not open is left alone.
void close_fd();

// Forgets terminal settings saved by set_term (port.cpp).
void reset_term_saved();

// Makes fd the link descriptor (owned: opened by this library); a
// descriptor opened earlier that is not fd any more is closed.
void adopt_fd(int fd, bool owned);

}  // namespace kolt::link
