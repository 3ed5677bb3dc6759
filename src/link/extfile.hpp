// The teller terminal's command file "idcread.ext" and the generic
// key=value line reader. Terminal types 50 and above take their auxiliary
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

// The entry rule: tabs anywhere are removed from line, then a trailing line
// feed and a trailing carriage return; the value is what follows key + "="
// (found anywhere in the line), passed once through no-argument printf
// formatting ("%%" becomes "%"; any other "%" stays as it is). False when
// key + "=" does not occur.
bool value_from_line(std::string& line, std::string_view key, std::string& value);

// The first line (read in pieces of up to 1022 characters) of a key=value
// file that contains key + "=". 0 with the value, -2 when no line has it,
// -1 when the file cannot be opened. No sections, no comments: a commented
// line that holds the key is taken.
int value_from_file(const std::string& path, std::string_view key, std::string& value);

// Terminal-section value to bytes: shorter than 2 characters gives nothing;
// starting with "1B" it is hex text (two digits a byte); otherwise text in
// which each "\033" (backslash, 0, 3, 3) becomes the ESC byte 0x1B.
std::string convert_value(std::string_view value);

// Hex text to bytes, the pass-through value encoding.
std::string hex_value(std::string_view value);

// The first character that is neither a blank nor a tab, or 0.
char first_char(std::string_view text);

}  // namespace kolt::link
