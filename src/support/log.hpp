// Internal logging API. Every step of the library writes a trace line
// through these calls; they write nothing unless the log switch is on.
// The exported KOLT_debugWriteLogLen / KOLT_errorWriteLogLen are thin
// shells over debug() and error().
//
// The format carries exactly one conversion: "%s" (data is text; len > 0
// takes the first len bytes, len <= 0 a terminated string), "%d" (data
// points to an int), "%02x" (hex dump of len bytes), "%x" (the int at data
// as len hex digits), "%c" (len raw bytes). Any other conversion writes
// nothing.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace kolt::log {

// Back to the state of a freshly loaded library: switch off, no debug
// directory. For test programs that run many cases in one process.
void reset();

// The log switch (g_nWriteDebugLog), 0 = off.
int switch_value();
void set_switch(int value);

// Directory of the debug log (g_szLogPath); empty until DEV_CommCall sets it.
std::string debug_dir();
void set_debug_dir(const std::string& dir);

void debug(const char* format, const void* data, int len);
void error(const char* format, const void* data, int len);

inline void debug_text(const char* format, const char* text) { debug(format, text, 0); }
inline void debug_int(const char* format, int value) { debug(format, &value, 0); }
inline void debug_hex(const char* format, std::span<const uint8_t> bytes) {
    debug(format, bytes.data(), static_cast<int>(bytes.size()));
}
inline void error_text(const char* format, const char* text) { error(format, text, 0); }
inline void error_int(const char* format, int value) { error(format, &value, 0); }
inline void error_hex(const char* format, std::span<const uint8_t> bytes) {
    error(format, bytes.data(), static_cast<int>(bytes.size()));
}

// Appends one timestamped entry to path (the body of KOLT_writeLog): opens
// for appending, moves a file above 0xA00000 bytes to path + ".bak" first,
// and writes the line for the format's one conversion.
void write_entry(const char* path, const char* format, const void* data, int len);

// "koltIccheck" + local year and month + ".log" below dir, joined with "/".
// With an empty dir this is "/koltIccheck<YYYYMM>.log" (the debug log before
// a debug directory is set lands in the root).
std::string file_in(const std::string& dir);

// Directory of the running executable with its trailing "/", from the link
// (normally "/proc/self/exe"). A failed readlink, or a target of 256 bytes or
// more, prints "***Error***" and ends the process with status -1.
std::string exe_dir(const char* link = "/proc/self/exe");

// Directory of the error log: exe_dir() + "/" + "KTLog".
std::string error_dir();

// Quotes text for the POSIX shell when it holds anything but letters,
// digits and "/._+-": single quotes around it, a quote inside as '\''.
std::string shell_quote(const std::string& text);

// The clean-up command for a log directory: find <dir>/* -exec rm -rf {} \;
// with <dir> quoted by shell_quote (the "/*" stays outside the quotes).
std::string delete_command(const std::string& dir);

// The local time now through a strftime format.
std::string now_as(const char* format);

// Local time as "YYYY-MM-DD HH:MM:SS mmm".
std::string timestamp();

}  // namespace kolt::log
