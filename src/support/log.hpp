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

}  // namespace kolt::log
