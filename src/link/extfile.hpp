// The teller terminal's command file "idcread.ext". Terminal types 50 and above take their auxiliary
// port escape sequences from this file.
#pragma once

#include <string>
#include <string_view>

namespace kolt::link {

// Each output of the terminal-file reader holds at most this many bytes
// (and a terminator in the C buffers).
constexpr size_t kExtValueMax = 255;

// $DCCHOME + "/lxbs/font/idcread.ext"; "/dcc/lxbs/font/idcread.ext" when
// DCCHOME is unset or its value contains "(null)".
std::string extfile_path();

// The sequences of one terminal section.
struct TermCommands {
    std::string open;    // OPEN_COM<port>
    std::string close;   // CLOSE_COM<port>
    std::string lock;    // LOCK_KEY
    std::string unlock;  // UNLOCK_KEY
    std::string lead;    // CMD_BEGIN
    std::string end;     // CMD_END
};

// Reads the section [TERM_<type>_KOLT510QX] of the file at path. Returns the
// number of OPEN_COM/CLOSE_COM entries found in it, 0 when the section is
// missing, -1 when the file cannot be opened.
int read_term_commands(const std::string& path, std::string_view type_text, std::string_view port_text,
                       TermCommands& out);

// Reads OPEN_PORT<letter> of [TRANSFER_<type>_KOLT510QX] as hex text into
// bytes. 0 when found, -2 when the section or the file ends first, -1 when
// the file cannot be opened.
int read_transfer_command(const std::string& path, std::string_view type_text, std::string_view letter,
                          std::string& out);

// Terminal-section value to bytes: shorter than 2 characters gives nothing;
// starting with "1B" it is hex text (two digits a byte); otherwise text in
// which each "\033" (backslash, 0, 3, 3) becomes the ESC byte 0x1B.
std::string convert_value(std::string_view value);

// Hex text to bytes, the pass-through value encoding.
std::string bytes_of_hex(std::string_view value);

}  // namespace kolt::link
