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


}  // namespace

std::string extfile_path() {
    const char* home = std::getenv("DCCHOME");
    if (home == nullptr || std::strstr(home, "(null)") != nullptr) return "/dcc/lxbs/font/idcread.ext";
    return std::string(home) + "/lxbs/font/idcread.ext";
}

std::string bytes_of_hex(std::string_view value) {
    const auto bytes = kolt::support::from_hex(value);
    return std::string(bytes.begin(), bytes.end());
}

std::string convert_value(std::string_view value) {
    if (value.size() < 2) return {};
    if (value.substr(0, 2) == "1B") return bytes_of_hex(value);
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
            out = capped(bytes_of_hex(entry_value(line, key)));
            log::debug_hex("getTransferCmdFromExtfile KOLT_getValueFromStr BPCommand=%02x", as_bytes(out));
            return 0;
        }
    }
    return -2;
}

}  // namespace kolt::link
