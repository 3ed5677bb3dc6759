// Opening, configuring and closing the link: a local serial port (type 0)
// or the auxiliary port of the teller terminal (types 1 to 5 from the
// built-in tables, 50 and above from the terminal command file).
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "link/link_state.hpp"

namespace kolt::link {

// Terminal type and port of one link, read once from the caller's form: the
// mode (auxiliary unless the type text begins with "0"), the numbers (read
// as atoi reads them, saturated) and the texts the terminal command file
// names its sections and keys with.
struct LinkTarget {
    bool aux = false;
    long long type = 0;
    long long port = 0;
    std::string type_text;
    std::string port_text;

    // The text form of the C entry points ("0", "51", "1").
    static LinkTarget from_text(std::string_view type_text, std::string_view port_text);
    // The numeric form of KOLT_initCom and the teller entry points.
    static LinkTarget from_numbers(int type, int port);
};

// Public terminal type to internal type: 1, 4, 5 -> 1; 2 -> 3; 3 -> 4;
// anything else 0 (local port).
int do_term_type(int term_type);

// Auxiliary mode: the type text does not begin with "0".
bool aux_mode(std::string_view type_text);

// Opens "/dev/" + gPortName raw at the given speed: the descriptor, -1
// when the open fails, 0 when port (1..8, 0 taken as 1) or speed is not
// accepted.
int open_com(int port, int baud);
// Puts the terminal line (fd) in raw mode, saving its settings: fd or -1.
int set_term();
// Restores the saved terminal settings: 0, or -1.
int reset_term();

// Escape sequences of a terminal type and port: open and close go to the
// two outputs (255 bytes each), the rest to the link state. 0, -1 (index
// below 0, or fewer than two file entries), -2 (index 20 or more).
int get_aux_cmd(const LinkTarget& target, std::span<char, kSeqSize> open_out, std::span<char, kSeqSize> close_out);
// Pass-through command of a transfer port into out (255 bytes): 0, or -1
// (types 50 and above: the result of the terminal command file).
int get_bp_command(std::string_view type_text, std::string_view port_text, std::span<char, kSeqSize> out);

int open_com_or_aux(std::string_view tty, const LinkTarget& target, std::string_view transfer_type,
                    std::string_view transfer_data);
int close_com_or_aux(const LinkTarget& target);
int close_aux(const LinkTarget& target);
int connect_device(std::string_view tty, const LinkTarget& target, std::string_view transfer_type_text,
                   std::string_view transfer_port);
int disconnect_device(const LinkTarget& target);

int init_com(int type, std::string_view tty, int port, std::string_view transfer);
int free_com(int type, int port);
int ic_init_com(int term_type, int port);
int ic_close_com(int term_type, int port);

}  // namespace kolt::link
