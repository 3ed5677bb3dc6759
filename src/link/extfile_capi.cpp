// Exported C entry points (C interface. Every output receives at most 255 bytes and a terminator.).
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>

#include "kolt/kolt.h"
#include "link/extfile.hpp"
#include "support/capi_util.hpp"
#include "support/file.hpp"
#include "support/hex.hpp"
#include "support/keyvalue.hpp"
#include "support/log.hpp"

namespace kl = kolt::link;

extern "C" {

KOLT_API int32_t KOLT_getTermCmdFromExtfile(const char* typeText, const char* portText, char* openOut,
                                            char* closeOut, char* lockOut, char* unlockOut, char* leadOut,
                                            char* endOut) {
    for (char* out : {openOut, closeOut, lockOut, unlockOut, leadOut, endOut})
        if (out != nullptr) out[0] = 0;
    const std::string path = kl::extfile_path();
    kolt::log::debug_text("getTermCmdFromExtfile idcread.ext path=%s", path.c_str());
    kl::TermCommands cmds;
    const int n = kl::read_term_commands(path, typeText ? typeText : "", portText ? portText : "", cmds);
    kolt::capi::copy_text(openOut, cmds.open, kl::kExtValueMax + 1);
    kolt::capi::copy_text(closeOut, cmds.close, kl::kExtValueMax + 1);
    kolt::capi::copy_text(lockOut, cmds.lock, kl::kExtValueMax + 1);
    kolt::capi::copy_text(unlockOut, cmds.unlock, kl::kExtValueMax + 1);
    kolt::capi::copy_text(leadOut, cmds.lead, kl::kExtValueMax + 1);
    kolt::capi::copy_text(endOut, cmds.end, kl::kExtValueMax + 1);
    return n;
}

KOLT_API int32_t KOLT_getTransferCmdFromExtfile(const char* typeText, const char* letter, char* out) {
    const std::string path = kl::extfile_path();
    kolt::log::debug_text("getTransferCmdFromExtfile idcread.ext path=%s", path.c_str());
    std::string bytes;
    const int rc = kl::read_transfer_command(path, typeText ? typeText : "", letter ? letter : "", bytes);
    if (rc == 0) kolt::capi::copy_text(out, bytes, kl::kExtValueMax + 1);
    return rc;
}

KOLT_API int32_t KOLT_getValueFromStr(char* line, const char* key, char* out) {
    if (line == nullptr || key == nullptr) return -1;
    std::string text(line);
    std::string value;
    const bool found = kolt::config::value_from_line(text, key, value);
    // The line is edited in place (tabs and line end removed); it only
    // gets shorter.
    std::memcpy(line, text.c_str(), text.size() + 1);
    if (!found) return -1;
    kolt::capi::copy_text(out, value, kl::kExtValueMax + 1);
    return 0;
}

KOLT_API int32_t KOLT_getValueFromFile(const char* path, const char* key, char* out) {
    if (path == nullptr || key == nullptr) return -1;
    std::string value;
    const int rc = kolt::config::value_from_file(path, key, value);
    if (rc == 0) kolt::capi::copy_text(out, value, kl::kExtValueMax + 1);
    return rc;
}

KOLT_API int32_t getStrFirstChar(const char* text) {
    if (text == nullptr) return 0;
    return static_cast<unsigned char>(kolt::config::first_char(text));
}

KOLT_API int32_t convertStr2Bytebuf(const char* value, char* out) {
    if (out == nullptr) return 0;
    std::memset(out, 0, 8);
    if (value == nullptr) return 0;
    const std::string bytes = kl::convert_value(value);
    kolt::capi::copy_text(out, bytes, kl::kExtValueMax + 1);
    return static_cast<int32_t>(bytes.size() > kl::kExtValueMax ? kl::kExtValueMax : bytes.size());
}

}  // extern "C"
