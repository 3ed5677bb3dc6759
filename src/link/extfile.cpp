// Reader of "idcread.ext", the command file the teller system shares with
// the library, and of plain key=value files.
#include "link/extfile.hpp"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>

#include "kolt/kolt.h"
#include "support/file.hpp"
#include "support/hex.hpp"
#include "support/keyvalue.hpp"
#include "support/log.hpp"

namespace kolt::link {
namespace {

using config::first_char;
using config::read_piece;
using config::value_from_line;

// Terminal-file lines are read in pieces of up to 1023 characters (a longer
// line continues as the next piece).
constexpr size_t kExtLineMax = 1023;

bool contains(const std::string& text, std::string_view what) { return text.find(what) != std::string::npos; }

bool is_comment(const std::string& line) { return first_char(line) == '#'; }

std::string section_header(const char* kind, std::string_view type_text) {
    return std::string("[") + kind + "_" + std::string(type_text) + "_" + "KOLT510QX" + "]";
}

// A section ends at the next header of either kind.
bool ends_section(const std::string& line) { return contains(line, "[TERM") || contains(line, "[TRANSFER"); }

// The lines of the first section of the terminal file whose header line
// contains header. Comment lines are skipped everywhere (a commented header
// neither starts nor ends a section); the next header of either kind ends
// the section, and only the first matching section is read.
class SectionLines {
public:
    SectionLines(const std::string& path, std::string header)
        : fp_(support::open_file(path.c_str(), "r")), header_(std::move(header)) {}
    bool opened() const { return fp_ != nullptr; }
    // The next line of the section; false at its end or the file's.
    bool next(std::string& line) {
        while (!done_ && read_piece(fp_.get(), kExtLineMax, line)) {
            if (is_comment(line)) continue;
            if (!inside_) {
                inside_ = contains(line, header_);
                continue;
            }
            if (ends_section(line)) break;
            return true;
        }
        done_ = true;
        return false;
    }

private:
    support::File fp_;
    std::string header_;
    bool inside_ = false;
    bool done_ = false;
};

std::string capped(std::string bytes) {
    if (bytes.size() > kExtValueMax) bytes.resize(kExtValueMax);
    return bytes;
}

std::span<const uint8_t> as_bytes(const std::string& s) {
    return {reinterpret_cast<const uint8_t*>(s.data()), s.size()};
}

// The value of key in line (the line is edited as by value_from_line);
// empty when key + "=" does not occur.
std::string entry_value(std::string& line, std::string_view key) {
    std::string value;
    if (!value_from_line(line, key, value)) value.clear();
    return value;
}

void copy_out(char* out, const std::string& bytes) {
    if (out == nullptr) return;
    const size_t n = bytes.size() > kExtValueMax ? kExtValueMax : bytes.size();
    std::memcpy(out, bytes.data(), n);
    out[n] = 0;
}

}  // namespace

std::string extfile_path() {
    const char* home = std::getenv("DCCHOME");
    if (home == nullptr || std::strstr(home, "(null)") != nullptr) return "/dcc/lxbs/font/idcread.ext";
    return std::string(home) + "/lxbs/font/idcread.ext";
}

std::string hex_value(std::string_view value) {
    const auto bytes = kolt::support::from_hex(value);
    return std::string(bytes.begin(), bytes.end());
}

std::string convert_value(std::string_view value) {
    if (value.size() < 2) return {};
    if (value.substr(0, 2) == "1B") return hex_value(value);
    std::string out;
    for (size_t i = 0; i < value.size(); ++i) {
        if (value.substr(i, 4) == "\\033") {
            out += '\x1b';
            i += 3;
        } else {
            out += value[i];
        }
    }
    return out;
}

int read_term_commands(const std::string& path, std::string_view type_text, std::string_view port_text,
                       TermCommands& out) {
    out = TermCommands{};
    SectionLines section(path, section_header("TERM", type_text));
    if (!section.opened()) {
        log::debug_text("getTermCmdFromExtfile fopen error%s", path.c_str());
        return -1;
    }
    const std::string open_key = "OPEN_COM" + std::string(port_text);
    const std::string close_key = "CLOSE_COM" + std::string(port_text);
    int ncmd = 0;
    std::string line;
    // Stores the value of the key the line was claimed for, as bytes; a line
    // without key + "=" has no value and leaves the output as it was.
    const auto take = [&line](std::string_view key, std::string& to) {
        std::string value;
        if (value_from_line(line, key, value)) to = capped(convert_value(value));
    };
    while (section.next(line)) {
        // Keys in this order, each matched by substring of the key text: the
        // key OPEN_COM1 also claims (and counts) a line holding OPEN_COM12=,
        // as the teller system's files have always been read.
        if (contains(line, open_key)) {
            take(open_key, out.open);
            ++ncmd;
            log::debug_text("getTermCmdFromExtfile KOLT_getValueFromStr open_aux_cmd=%s", out.open.c_str());
        } else if (contains(line, close_key)) {
            take(close_key, out.close);
            ++ncmd;
            log::debug_text("getTermCmdFromExtfile KOLT_getValueFromStr close_aux_cmd=%s", out.close.c_str());
        } else if (contains(line, "LOCK_KEY") && !contains(line, "UNLOCK_KEY")) {
            take("LOCK_KEY", out.lock);
            log::debug_hex("getTermCmdFromExtfile KOLT_getValueFromStr key_lock_cmd=%02x", as_bytes(out.lock));
        } else if (contains(line, "UNLOCK_KEY")) {
            take("UNLOCK_KEY", out.unlock);
            log::debug_hex("getTermCmdFromExtfile KOLT_getValueFromStr key_unlock_cmd=%02x", as_bytes(out.unlock));
        } else if (contains(line, "CMD_BEGIN")) {
            take("CMD_BEGIN", out.lead);
            log::debug_text("getTermCmdFromExtfile KOLT_getValueFromStr aux_lead=%s", out.lead.c_str());
        } else if (contains(line, "CMD_END")) {
            take("CMD_END", out.end);
            log::debug_text("getTermCmdFromExtfile KOLT_getValueFromStr aux_end=%s", out.end.c_str());
        }
    }
    log::debug_int("getTermCmdFromExtfile return ncmd=%d", ncmd);
    return ncmd;
}

int read_transfer_command(const std::string& path, std::string_view type_text, std::string_view letter,
                          std::string& out) {
    out.clear();
    SectionLines section(path, section_header("TRANSFER", type_text));
    if (!section.opened()) {
        log::debug_text("getTransferCmdFromExtfile fopen error%s", path.c_str());
        return -1;
    }
    const std::string key = "OPEN_PORT" + std::string(letter);
    std::string line;
    while (section.next(line)) {
        if (contains(line, key)) {
            // Matched by substring like the terminal keys; pass-through values
            // are always hex text.
            out = capped(hex_value(entry_value(line, key)));
            log::debug_hex("getTransferCmdFromExtfile KOLT_getValueFromStr BPCommand=%02x", as_bytes(out));
            return 0;
        }
    }
    return -2;
}

}  // namespace kolt::link

// ---------------------------------------------------------------------------
// C interface. Every output receives at most 255 bytes and a terminator.

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
    kl::copy_out(openOut, cmds.open);
    kl::copy_out(closeOut, cmds.close);
    kl::copy_out(lockOut, cmds.lock);
    kl::copy_out(unlockOut, cmds.unlock);
    kl::copy_out(leadOut, cmds.lead);
    kl::copy_out(endOut, cmds.end);
    return n;
}

KOLT_API int32_t KOLT_getTransferCmdFromExtfile(const char* typeText, const char* letter, char* out) {
    const std::string path = kl::extfile_path();
    kolt::log::debug_text("getTransferCmdFromExtfile idcread.ext path=%s", path.c_str());
    std::string bytes;
    const int rc = kl::read_transfer_command(path, typeText ? typeText : "", letter ? letter : "", bytes);
    if (rc == 0) kl::copy_out(out, bytes);
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
    kl::copy_out(out, value);
    return 0;
}

KOLT_API int32_t KOLT_getValueFromFile(const char* path, const char* key, char* out) {
    if (path == nullptr || key == nullptr) return -1;
    std::string value;
    const int rc = kolt::config::value_from_file(path, key, value);
    if (rc == 0) kl::copy_out(out, value);
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
    kl::copy_out(out, bytes);
    return static_cast<int32_t>(bytes.size() > kl::kExtValueMax ? kl::kExtValueMax : bytes.size());
}

}  // extern "C"
