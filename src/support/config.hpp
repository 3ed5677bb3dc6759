// Configuration files and the library's own location. Each entry point
// reads the few settings it needs afresh, at its start.
#pragma once

#include <string>

namespace kolt::config {

// The value of key in [section] of an INI-style file, "" when the file
// cannot be opened or the key is not found. Rules, all kept on purpose:
// only lines ending in a line feed are examined (a last line without one is
// never read); a carriage return before the line feed stays in the value;
// the section header is a prefix match of "[" + section + "]" and, once
// found, the section lasts to the end of the file; a line is taken when it
// contains "=" and the key anywhere (a substring test), unless it begins
// with "#" or "//"; the value is everything after the first "=", untrimmed.
// Lines are read up to 1023 characters; the rest of a longer line is dropped.
std::string ini_string(const std::string& section, const std::string& key, const std::string& path);

// ini_string read as atoi does (leading blanks, sign, digits; 0 when none).
int ini_int(const std::string& section, const std::string& key, const std::string& path);

// Directory of the loaded library (the object holding funcGetsoPath) with
// its trailing "/"; "./" when the loader cannot tell.
std::string so_dir();

// $HOME + "/librun/koltt41fp.cfg": the key=value file of the clerk
// verification service and its log directory.
std::string home_config_path();

// "kolt.ini" beside the library: so_dir() + "kolt.ini".
std::string kolt_ini_path();

}  // namespace kolt::config
