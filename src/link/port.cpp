// Opening, configuring and closing the link.
#include "link/port.hpp"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstring>
#include <string>

#include "kolt/kolt.h"
#include "link/aux_tables.hpp"
#include "link/extfile.hpp"
#include "link/frame.hpp"
#include "link/io.hpp"
#include "link/session.hpp"
#include "support/log.hpp"

namespace kolt::link {
namespace {

// Decimal value of a text as atoi reads it (leading blanks, sign, digits),
// saturated instead of overflowing.
long long atoi_text(std::string_view s) {
    std::size_t i = 0;
    while (i < s.size() && std::isspace(static_cast<unsigned char>(s[i]))) ++i;
    bool neg = false;
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) neg = s[i++] == '-';
    long long v = 0;
    while (i < s.size() && s[i] >= '0' && s[i] <= '9') {
        v = v * 10 + (s[i++] - '0');
        if (v > INT_MAX) v = INT_MAX;
    }
    return neg ? -v : v;
}

int to_int(long long v) { return static_cast<int>(std::clamp<long long>(v, INT_MIN, INT_MAX)); }

// Copies a text into a caller's sequence buffer with its terminator.
void copy_seq(std::span<char, kSeqSize> out, std::string_view text) {
    const std::size_t n = std::min(text.size(), kSeqSize - 1);
    if (n > 0) std::memcpy(out.data(), text.data(), n);
    out[n] = '\0';
}

// The legacy termio mode words are 16 bits wide. Raw mode of the teller
// terminal's line clears these flags and keeps every other bit.
constexpr unsigned kTermioBits = 0xFFFF;
constexpr unsigned kRawLocalMask = kTermioBits & ~static_cast<unsigned>(ISIG | ICANON | ECHO | NOFLSH | IEXTEN);
constexpr unsigned kRawInputMask = kTermioBits & ~static_cast<unsigned>(ISTRIP | INLCR | IGNCR | ICRNL | IXON | IXOFF);
static_assert(kRawLocalMask == 0x7F74, "raw local modes of the terminal line");
static_assert(kRawInputMask == 0xEA1F, "raw input modes of the terminal line");
// A local port's control word loses the bits of B2400 before its speed is
// set (the speed calls set the whole speed field afterwards).
constexpr tcflag_t kClearedSpeedBits = B2400;
static_assert(kClearedSpeedBits == 0xB, "speed bits cleared on a local port");

// Whether the terminal settings were saved by set_term: restoring records
// that were never read would hang up the terminal line.
bool g_term_saved = false;

bool is_one_of(std::string_view s, const char* a) { return s == a; }

// Ports 1..8 name ttyS0..ttyS7; 0 is taken as 1.
bool port_accepted(int port) { return port >= 0 && port <= 8; }

// The speed constant of an accepted line speed.
bool speed_of(int baud, speed_t& speed) {
    switch (baud) {
    case 4800: speed = B4800; return true;
    case 9600: speed = B9600; return true;
    case 19200: speed = B19200; return true;
    case 38400: speed = B38400; return true;
    case 57600: speed = B57600; return true;
    case 115200: speed = B115200; return true;
    default: return false;
    }
}

// Opens the terminal device named in auxiliary mode as the link (flags
// besides read-write); its descriptor, negative when it cannot be opened.
int open_named_terminal(std::string_view tty, int flags) {
    const std::string name(tty);
    const int fd = ::open(name.c_str(), O_RDWR | O_CLOEXEC | flags);
    adopt_fd(fd, true);
    return fd;
}

// Opens the local port of port_text at 9600 as the link, without lead or
// end sequences and with pending input flushed; false when the open fails.
// A refused port number leaves descriptor 0, the application's own
// terminal, which the link then uses but never closes.
bool open_local(const LinkTarget& target) {
    const int port = to_int(target.port);
    const int fd = open_com(port, 9600);
    adopt_fd(fd, port_accepted(port));
    if (fd < 0) return false;
    clear_sequences();
    ::tcflush(fd, TCIFLUSH);
    return true;
}

}  // namespace

void reset_term_saved() { g_term_saved = false; }

int do_term_type(int term_type) {
    switch (term_type) {
    case 1:
    case 4:
    case 5:
        return 1;
    case 2:
        return 3;
    case 3:
        return 4;
    default:
        return 0;
    }
}

bool aux_mode(std::string_view type_text) { return type_text.empty() || type_text[0] != '0'; }

LinkTarget LinkTarget::from_text(std::string_view type_text, std::string_view port_text) {
    LinkTarget t;
    t.aux = aux_mode(type_text);
    t.type = atoi_text(type_text);
    t.port = atoi_text(port_text);
    t.type_text = std::string(type_text);
    t.port_text = std::string(port_text);
    return t;
}

LinkTarget LinkTarget::from_numbers(int type, int port) {
    LinkTarget t;
    t.type = type;
    t.port = port;
    t.type_text = std::to_string(type);
    t.port_text = std::to_string(port);
    t.aux = aux_mode(t.type_text);  // every type but 0 (and 0-prefixed texts, which numbers never give)
    return t;
}

int open_com(int port, int baud) {
    speed_t speed = B0;
    if (!port_accepted(port) || !speed_of(baud, speed)) return 0;  // not an error code: nothing is opened
    // The port number only selects whether to open; the device is the one
    // the entry point named in gPortName.
    const std::string name(port_name());
    const std::string device = "/dev/" + name;
    log::debug_text("openCom gPortName is:%s", name.c_str());
    log::debug_text("openCom begin open device=%s", device.c_str());
    const int fd = ::open(device.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    log::debug_int("openCom open flag=%d", fd);
    if (fd < 0) return -1;

    LinkState& s = state();
    ::tcgetattr(fd, &s.oldtio);
    s.newtio = s.oldtio;
    std::memset(&s.newtio, 0, sizeof s.newtio);
    s.newtio.c_cflag &= ~static_cast<tcflag_t>(PARENB | CSTOPB | CSIZE);
    s.newtio.c_cflag |= CS8;
    s.newtio.c_cflag &= ~kClearedSpeedBits;
    s.newtio.c_cflag |= CLOCAL | CREAD;
    s.newtio.c_oflag |= OPOST;
    s.newtio.c_cc[VMIN] = 0;
    s.newtio.c_cc[VTIME] = 0;
    ::tcflush(fd, TCIFLUSH);
    ::cfsetispeed(&s.newtio, speed);
    ::cfsetospeed(&s.newtio, speed);
    ::tcsetattr(fd, TCSANOW, &s.newtio);
    return fd;
}

int set_term() {
    LinkState& s = state();
    // Settings saved from an earlier line are never restored onto this one.
    g_term_saved = false;
    if (s.fd < 0) return -1;
    if (::ioctl(s.fd, TCGETA, &s.oterm_attr) < 0) return -1;
    if (::ioctl(s.fd, TCGETA, &s.term_attr) < 0) return -1;
    g_term_saved = true;
    s.term_attr.c_lflag &= kRawLocalMask;
    s.term_attr.c_iflag &= kRawInputMask;
    s.term_attr.c_cc[VMIN] = 0;
    s.term_attr.c_cc[VTIME] = 0;
    s.term_attr.c_cc[1] = 0x7F;
    if (::ioctl(s.fd, TCSETAW, &s.term_attr) < 0) return -1;
    return s.fd;
}

int reset_term() {
    LinkState& s = state();
    if (s.fd < 0 || !g_term_saved) return -1;
    if (::ioctl(s.fd, TCSETAW, &s.oterm_attr) < 0) return -1;
    return 0;
}

int get_aux_cmd(const LinkTarget& target, std::span<char, kSeqSize> open_out, std::span<char, kSeqSize> close_out) {
    const std::string_view type_text = target.type_text;
    const std::string_view port_text = target.port_text;
    LinkState& s = state();
    std::memset(open_out.data(), 0, 8);
    std::memset(close_out.data(), 0, 8);
    std::memset(s.key_lock_cmd, 0, kSeqSize);
    std::memset(s.key_unlock_cmd, 0, kSeqSize);
    std::memset(s.aux_lead, 0, kSeqSize);
    std::memset(s.aux_end, 0, kSeqSize);

    const std::string& type_str = target.type_text;
    const std::string& port_str = target.port_text;
    const long long type = target.type;
    if (type >= 50) {
        const std::string path = extfile_path();
        log::debug_text("getTermCmdFromExtfile idcread.ext path=%s", path.c_str());
        TermCommands cmds;
        const int flag = read_term_commands(path, type_text, port_text, cmds);
        copy_seq(open_out, cmds.open);
        copy_seq(close_out, cmds.close);
        set_seq(s.key_lock_cmd, cmds.lock);
        set_seq(s.key_unlock_cmd, cmds.unlock);
        set_seq(s.aux_lead, cmds.lead);
        set_seq(s.aux_end, cmds.end);
        if (flag < 2) {
            log::debug_int("getAuxCmdOnTermtypeAuxno getTermCmdFromExtfile flag=%d", flag);
            return -1;
        }
        return 0;
    }

    const long long index = (type - 1) * 4 + target.port - 1;
    log::debug_int("getAuxCmdOnTermtypeAuxno AuxCmd array=%d", to_int(index));
    const long long row = type - 1;
    int result = 0;
    if (index < 0) {
        result = -1;
    } else if (index >= static_cast<long long>(termOpenAux.size())) {
        result = -2;
    } else if (row < 0 || row >= static_cast<long long>(keyLockCmd.size())) {
        // A port number outside 1..4 can bring the index into the table
        // while the type has no row: refused like an index past the end.
        result = -2;
    }
    if (result != 0) {
        log::debug_text("getAuxCmdOnTermtypeAuxno pszTermType=%s", type_str.c_str());
        log::debug_text("getAuxCmdOnTermtypeAuxno pszSerialPortNO=%s", port_str.c_str());
        log::error_text("getAuxCmdOnTermtypeAuxno pszTermType=%s", type_str.c_str());
        log::error_text("getAuxCmdOnTermtypeAuxno pszSerialPortNO=%s", port_str.c_str());
        return result;
    }
    const auto i = static_cast<std::size_t>(index);
    const auto r = static_cast<std::size_t>(row);
    copy_seq(open_out, termOpenAux[i]);
    // Type 5 port 4 has no close sequence: it closes with an empty one.
    copy_seq(close_out, i < termCloseAux.size() ? termCloseAux[i] : "");
    set_seq(s.key_lock_cmd, keyLockCmd[r]);
    set_seq(s.key_unlock_cmd, keyUnlockCmd[r]);
    set_seq(s.aux_lead, dataAuxLead[r]);
    set_seq(s.aux_end, dataAuxEnd[r]);
    return 0;
}

int get_bp_command(std::string_view type_text, std::string_view port_text, std::span<char, kSeqSize> out) {
    const std::string type_str(type_text);
    const std::string port_str(port_text);
    log::debug_text("getBPCommand pszTransPortNO=%s", port_str.c_str());
    const long long type = atoi_text(type_text);
    if (type < 50) {
        long long n;
        if (is_one_of(port_text, "A")) n = 1;
        else if (is_one_of(port_text, "B")) n = 2;
        else if (is_one_of(port_text, "C")) n = 3;
        else if (is_one_of(port_text, "D")) n = 4;
        else if (is_one_of(port_text, "K")) n = 5;
        else n = atoi_text(port_text);
        log::debug_text("getBPCommand portNoBuf=%s", std::to_string(n).c_str());
        // Only terminal type 1 has pass-through ports.
        const long long index = (type - 1) * 5 + n - 1;
        if (index < 0 || index >= static_cast<long long>(transferCmd.size())) return -1;
        copy_seq(out, bytes_of_hex(transferCmd[static_cast<std::size_t>(index)]));
        return 0;
    }
    std::string letter = port_str;
    if (port_text == "1") letter = "A";
    else if (port_text == "2") letter = "B";
    else if (port_text == "3") letter = "C";
    else if (port_text == "4") letter = "D";
    else if (port_text == "5") letter = "K";
    log::debug_text("getBPCommand portNoBuf=%s", letter.c_str());
    const std::string path = extfile_path();
    log::debug_text("getTransferCmdFromExtfile idcread.ext path=%s", path.c_str());
    std::string bytes;
    const int flag = read_transfer_command(path, type_text, letter, bytes);
    if (flag == 0) copy_seq(out, bytes);
    log::debug_int("getBPCommand getTransferCmdFromExtfile flag=%d", flag);
    return flag;
}

int open_com_or_aux(std::string_view tty, const LinkTarget& target, std::string_view transfer_type,
                    std::string_view transfer_data) {
    LinkState& s = state();
    if (target.aux) {
        if (!tty.empty()) {
            const int fd = open_named_terminal(tty, O_NOCTTY);
            log::debug_text("openComOrAux tty_name =%s", std::string(tty).c_str());
            log::debug_int("openComOrAux tty_name fd=%d", fd);
            if (fd < 0) return -1;
        }
        clear_sequences();
        if (get_aux_cmd(target, s.open_aux_cmd, s.close_aux_cmd) != 0) return -2;
        if (set_term() == -1) {
            reset_term();
            return -2;
        }
        write_text(seq_text(s.key_lock_cmd));
        write_text(seq_text(s.open_aux_cmd));
        if (transfer_type == "1") {
            write_text(seq_text(s.aux_lead));
            write_text(transfer_data);
            write_text(seq_text(s.aux_end));
        }
        return 0;
    }
    return open_local(target) ? 0 : -1;
}

int close_com_or_aux(const LinkTarget& target) {
    const std::string& type_str = target.type_text;
    log::debug_text("KOLT_closeComOrAux begin ***********************************%s", type_str.c_str());
    if (target.aux) {
        close_aux(target);
        reset_term();
        write_text(seq_text(state().key_unlock_cmd));
    } else {
        log::debug_text("KOLT_closeComOrAux close begin%s", "");
        close_fd();
        log::debug_text("KOLT_closeComOrAux close end%s", "");
    }
    return 0;
}

int close_aux(const LinkTarget& target) {
    LinkState& s = state();
    if (target.aux) {
        clear_com_buf(s.fd);
        write_text(seq_text(s.close_aux_cmd));
        clear_com_buf(s.fd);
        reset_term();
        reset_term();
    } else {
        close_fd();
    }
    return 0;
}

namespace {

// The auxiliary-port half of connect: terminal settings, escape sequences
// and the pass-through command. False when a step fails.
bool connect_aux(const LinkTarget& target, std::string_view transfer_type_text, std::string_view transfer_port) {
    LinkState& s = state();
    if (set_term() == -1) return false;
    if (get_aux_cmd(target, s.open_aux_cmd, s.close_aux_cmd) != 0) return false;
    write_text(seq_text(s.key_lock_cmd));
    write_text(seq_text(s.open_aux_cmd));
    std::memset(s.ExtendCmd, 0, kSeqSize);
    if (get_bp_command(transfer_type_text, transfer_port, s.ExtendCmd) == 0) write_text(seq_text(s.ExtendCmd));
    return true;
}

// Undoes what a failed connect set up: terminal settings it changed are
// restored and a descriptor it opened is closed (the application's own
// terminal is never closed).
void undo_connect(bool aux) {
    if (aux) reset_term();
    close_fd();
}

}  // namespace

int connect_device(std::string_view tty, const LinkTarget& target, std::string_view transfer_type_text,
                   std::string_view transfer_port) {
    const bool aux = target.aux;
    if (aux) {
        // Opened without the no-controlling-terminal flag, unlike the plain open.
        if (!tty.empty() && open_named_terminal(tty, 0) < 0) return -1;
        if (!connect_aux(target, transfer_type_text, transfer_port)) {
            undo_connect(aux);
            return -1;
        }
    } else if (!open_local(target)) {
        return -1;
    }
    uint8_t out[kReplyMax];
    const int n = bracket_transact(state().fd, kBracketConnect, {}, out, 6);
    if (n == 11 && out[0] == 0x90) return 0;
    undo_connect(aux);
    return -1;
}

int disconnect_device(const LinkTarget& target) {
    LinkState& s = state();
    uint8_t out[kReplyMax];
    const int n = bracket_transact(s.fd, kBracketDisconnect, {}, out, 3);
    if (target.aux) {
        if (n > 0) {
            close_aux(target);
            reset_term();
            return 0;
        }
        clear_com_buf(s.fd);
        close_aux(target);
        return -1;
    }
    if (n == 1) {
        close_fd();
        return 0;
    }
    close_aux(target);
    return -1;
}

int init_com(int type, std::string_view tty, int port, std::string_view transfer) {
    const LinkTarget target = LinkTarget::from_numbers(type, port);
    const std::string_view transfer_type = transfer.substr(0, transfer.empty() ? 0 : 1);
    const std::string_view transfer_data = transfer.empty() ? transfer : transfer.substr(1);
    const int r = open_com_or_aux(tty, target, transfer_type, transfer_data);
    if (r == -1 || r == -2 || r == -3) {
        close_com_or_aux(target);
        return -2;
    }
    if (target.aux) {
        LinkState& s = state();
        s.term_attr.c_cc[VMIN] = 0;
        s.term_attr.c_cc[VTIME] = 0;
        if (::ioctl(s.fd, TCSETAW, &s.term_attr) < 0) {
            close_com_or_aux(target);
            return -1;
        }
    }
    return 0;
}

int free_com(int type, int port) {
    close_com_or_aux(LinkTarget::from_numbers(type, port));
    return 0;
}

int ic_init_com(int term_type, int port) {
    Session link = open_teller(term_type, port);
    if (!link.ok()) return -21;  // released when the session ends
    link.release();
    return 0;
}

int ic_close_com(int term_type, int port) { return free_com(do_term_type(term_type), port); }

}  // namespace kolt::link
