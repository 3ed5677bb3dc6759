// key=value lines: the reader of plain key=value files ("koltt41fp.cfg")
// and the entry rule the teller terminal's command file shares with them.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>

namespace kolt::config {

// Reads one piece of a line: characters up to and including a line feed,
// at most max_chars of them (a longer line continues as the next piece).
// False at the end of the file.
bool read_piece(std::FILE* fp, std::size_t max_chars, std::string& line);

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

// The first character that is neither a blank nor a tab, or 0.
char first_char(std::string_view text);

}  // namespace kolt::config
