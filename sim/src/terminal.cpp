#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include "terminal_internal.hpp"
#include "util_internal.hpp"

namespace kolt::sim {

namespace {

const std::string ESC = "\x1B";

std::string type1_open(int port) {
    static const char letters[] = {'Y', 'Z', 'X', 'V'};
    return ESC + "!0;0;0;0" + letters[port - 1] + ESC + "[/54l" + ESC + "[/53h" + ESC + "[/50h";
}

// The value rule of the terminal command file. The value text first passes
// once through printf-style formatting ("%%" is "%"), then a value that
// begins with "1B" is hex text and any other has its "\033" turned into ESC.
std::string decode_value(const std::string& text) {
    std::string value;
    for (size_t i = 0; i < text.size(); ++i) {
        value.push_back(text[i]);
        if (text[i] == '%' && i + 1 < text.size() && text[i + 1] == '%') ++i;
    }
    std::string out;
    if (value.size() < 2) return out;
    if (value.compare(0, 2, "1B") == 0) {
        for (size_t i = 0; i + 1 < value.size(); i += 2) {
            auto b = parse_hex(value.substr(i, 2));
            if (!b) break;
            out.push_back(static_cast<char>((*b)[0]));
        }
    } else {
        for (size_t i = 0; i < value.size();) {
            if (value.compare(i, 4, "\\033") == 0) {
                out += ESC;
                i += 4;
            } else {
                out.push_back(value[i++]);
            }
        }
    }
    return out;
}

bool is_comment(const std::string& line) {
    for (char c : line) {
        if (c == ' ' || c == '\t') continue;
        return c == '#';
    }
    return false;
}

// Tabs removed, then a trailing line feed and a carriage return.
std::string clean_line(std::string line) {
    std::string out;
    for (char c : line)
        if (c != '\t') out.push_back(c);
    if (!out.empty() && out.back() == '\n') out.pop_back();
    if (!out.empty() && out.back() == '\r') out.pop_back();
    return out;
}

bool value_of(const std::string& line, const std::string& key, std::string& value) {
    const auto pos = line.find(key + "=");
    if (pos == std::string::npos) return false;
    value = line.substr(pos + key.size() + 1);
    return true;
}

// The section headers and port keys the command file is searched for.
struct ExtFileKeys {
    std::string term_header, transfer_header, open_key, close_key;
};

ExtFileKeys ext_file_keys(int type, int port) {
    return {"[TERM_" + std::to_string(type) + "_KOLT510QX]", "[TRANSFER_" + std::to_string(type) + "_KOLT510QX]",
            "OPEN_COM" + std::to_string(port), "CLOSE_COM" + std::to_string(port)};
}

enum class Section { None, Term, Transfer };

// Follows the command file's sections: only the first section with each of
// the two wanted headers is read, and any "[TERM" or "[TRANSFER" line ends it.
struct SectionWalk {
    const std::string& term_header;
    const std::string& transfer_header;
    Section section = Section::None;
    bool term_seen = false;
    bool transfer_seen = false;

    // Whether `line` is an entry of a wanted section (false for headers).
    bool is_content(const std::string& line) {
        if (section != Section::None &&
            (line.find("[TERM") != std::string::npos || line.find("[TRANSFER") != std::string::npos)) {
            section = Section::None;
        }
        if (section != Section::None) return true;
        if (!term_seen && line.find(term_header) != std::string::npos) {
            section = Section::Term;
            term_seen = true;
        } else if (!transfer_seen && line.find(transfer_header) != std::string::npos) {
            section = Section::Transfer;
            transfer_seen = true;
        }
        return false;
    }
};

// One cleaned line of the terminal section; returns whether it was an entry
// for the port's open or close sequence.
bool read_term_line(const std::string& l, const ExtFileKeys& keys, TerminalSequences& s) {
    // Keys are recognised by substring, in this order; the value is
    // what follows "KEY=" (so OPEN_COM12= counts as an OPEN_COM1
    // entry but leaves its value alone).
    auto has = [&](const std::string& key) { return l.find(key) != std::string::npos; };
    auto take = [&](const std::string& key, std::string& out) {
        std::string v;
        if (value_of(l, key, v)) out = decode_value(v);
    };
    if (has(keys.open_key)) {
        take(keys.open_key, s.open);
        return true;
    }
    if (has(keys.close_key)) {
        take(keys.close_key, s.close);
        return true;
    }
    if (has("LOCK_KEY") && !has("UNLOCK_KEY")) {
        take("LOCK_KEY", s.lock);
    } else if (has("UNLOCK_KEY")) {
        take("UNLOCK_KEY", s.unlock);
    } else if (has("CMD_BEGIN")) {
        take("CMD_BEGIN", s.lead);
    } else if (has("CMD_END")) {
        take("CMD_END", s.end);
    }
    return false;
}

// One cleaned line of the transfer section: the first OPEN_PORTx key found
// (x in A, B, C, D, K) adds its value, when it is non-empty hex text, as a
// pass-through command.
void read_transfer_line(const std::string& l, TerminalSequences& s) {
    std::string v;
    for (char letter : std::string("ABCDK")) {
        if (value_of(l, std::string("OPEN_PORT") + letter, v)) {
            auto b = parse_hex(v);
            if (b && !b->empty()) s.transfer.emplace_back(b->begin(), b->end());
            break;
        }
    }
}

// The length of the longest proper prefix of `end` that `rest` ends with.
size_t end_prefix_at_tail(std::string_view rest, std::string_view end) {
    for (size_t k = std::min(rest.size(), end.size() - 1); k > 0; --k) {
        if (rest.substr(rest.size() - k) == end.substr(0, k)) return k;
    }
    return 0;
}

}  // namespace

TerminalSequences builtin_terminal(int type, int port) {
    if (type < 1 || type > 5) throw std::invalid_argument("terminal type must be 1..5");
    if (port < 1 || port > 4) throw std::invalid_argument("auxiliary port must be 1..4");
    TerminalSequences s;
    s.lock = ESC + "[2h";
    s.unlock = ESC + "[2l";
    switch (type) {
        case 1:
        case 2:
            s.open = type1_open(port);
            s.close = ESC + "[/50l";
            s.lead = ESC + "[/51h";
            s.end = ESC + "[/51l";
            break;
        case 3:
            s.open = ESC + "[/" + std::to_string(port) + ";1;8;0;1;0M" + ESC + "[/54l";
            s.close = ESC + "[/M";
            s.lead = ESC + "[/|";
            s.end = "|";
            break;
        case 4:
            s.open = port == 1 ? ESC + "[>" : ESC + "[" + std::to_string(port - 1) + ">";
            s.close = ESC + "[<";
            break;
        case 5:
            s.open = type1_open(port);
            // Port 1 closes twice; port 4 has no close sequence at all.
            s.close = port == 1 ? ESC + "[/50l" + ESC + "[/50l" : port == 4 ? "" : ESC + "[/50l";
            s.lead = ESC + "[/51h";
            s.end = ESC + "[/51l";
            break;
    }
    if (type == 1) {
        for (char letter : std::string("ABCDK")) s.transfer.push_back(ESC + "%" + letter);
    }
    return s;
}

TerminalSequences ext_file_terminal(const std::string& path, int type, int port) {
    std::ifstream in(path);
    if (!in) throw std::runtime_error("terminal command file: cannot open " + path);
    const ExtFileKeys keys = ext_file_keys(type, port);
    TerminalSequences s;
    int count = 0;
    SectionWalk walk{keys.term_header, keys.transfer_header};
    std::string line;
    while (std::getline(in, line)) {
        if (is_comment(line) || !walk.is_content(line)) continue;
        const std::string l = clean_line(line);
        if (walk.section == Section::Term) {
            if (read_term_line(l, keys, s)) ++count;
        } else {
            read_transfer_line(l, s);
        }
    }
    if (!walk.term_seen)
        throw std::runtime_error("terminal command file: no section " + keys.term_header + " in " + path);
    if (count < 2)
        throw std::runtime_error("terminal command file: section " + keys.term_header + " lacks " + keys.open_key +
                                 "/" + keys.close_key);
    return s;
}

TerminalSequences terminal_sequences(const TerminalConfig& config) {
    if (config.type < 50) return builtin_terminal(config.type, config.port);
    std::string path = config.ext_file;
    if (path.empty()) {
        const char* home = std::getenv("DCCHOME");
        path = (home != nullptr && std::strstr(home, "(null)") == nullptr)
                   ? std::string(home) + "/lxbs/font/idcread.ext"
                   : "/dcc/lxbs/font/idcread.ext";
    }
    return ext_file_terminal(path, config.type, config.port);
}

// --- the terminal ----------------------------------------------------------------

TerminalEmulator::TerminalEmulator(TerminalSequences seq) : seq_(std::move(seq)) {
    auto add = [&](const std::string& s, Kind k) {
        if (!s.empty()) tokens_.push_back({s, k});
    };
    add(seq_.lock, Kind::Lock);
    add(seq_.unlock, Kind::Unlock);
    add(seq_.open, Kind::Open);
    add(seq_.close, Kind::Close);
    add(seq_.lead, Kind::Lead);
    add(seq_.end, Kind::End);
    for (const auto& t : seq_.transfer) add(t, Kind::Transfer);
}

std::string TerminalEmulator::state_text() const {
    if (!locked_ && !open_) return "keyboard unlocked, aux port closed";
    if (locked_ && !open_) return "keyboard locked, aux port closed";
    if (!locked_) return "keyboard unlocked, aux port open";
    return "aux port open";
}

void TerminalEmulator::error(const std::string& what) { errors_.push_back(what + " (" + state_text() + ")"); }

void TerminalEmulator::flush_unexpected() {
    if (unexpected_.empty()) return;
    error("unexpected bytes: " + printable(unexpected_));
    unexpected_.clear();
}

void TerminalEmulator::deliver(std::string_view data, std::string& out) {
    if (data.empty()) return;
    if (!open_) {
        error("data while the aux port is closed: " + printable(data));
        return;
    }
    out.append(data);
}

void TerminalEmulator::apply(Kind k) {
    switch (k) {
        case Kind::Lock:
            events_.push_back("lock");
            if (locked_ || open_) error("unexpected keyboard lock " + printable(seq_.lock));
            locked_ = true;
            break;
        case Kind::Open:
            events_.push_back("open");
            if (!locked_ || open_) error("unexpected aux open " + printable(seq_.open));
            open_ = true;
            break;
        case Kind::Close:
            events_.push_back("close");
            if (!open_) error("unexpected aux close " + printable(seq_.close));
            open_ = false;
            break;
        case Kind::Unlock:
            events_.push_back("unlock");
            if (open_ && seq_.close.empty()) {
                open_ = false;  // a port without close sequence closes with the unlock
            } else if (!locked_ || open_) {
                error("unexpected keyboard unlock " + printable(seq_.unlock));
            }
            locked_ = false;
            break;
        case Kind::Lead:
            events_.push_back("lead");
            if (!open_) error("data lead while the aux port is closed");
            if (!seq_.end.empty()) in_block_ = true;
            break;
        case Kind::End:
            events_.push_back("end");
            error("data end without lead");
            break;
        case Kind::Transfer:
            events_.push_back("transfer");
            if (!open_) error("pass-through command while the aux port is closed");
            break;
    }
}

size_t TerminalEmulator::pass_block(std::string_view rest, std::string& out) {
    const auto e = rest.find(seq_.end);
    if (e != std::string_view::npos) {
        deliver(rest.substr(0, e), out);
        in_block_ = false;
        events_.push_back("end");
        return e + seq_.end.size();
    }
    // Hold back what may be the start of the end sequence.
    const size_t keep = end_prefix_at_tail(rest, seq_.end);
    deliver(rest.substr(0, rest.size() - keep), out);
    return rest.size() - keep;
}

const TerminalEmulator::Token* TerminalEmulator::match_token(std::string_view rest, bool& partial) const {
    const Token* best = nullptr;
    for (const auto& t : tokens_) {
        // A data end outside a block is only matched whole, never waited for.
        if (rest.size() >= t.seq.size() || t.kind == Kind::End) {
            if (rest.substr(0, t.seq.size()) == t.seq && (best == nullptr || t.seq.size() > best->seq.size()))
                best = &t;
        } else if (std::string_view(t.seq).substr(0, rest.size()) == rest) {
            partial = true;
        }
    }
    return best;
}

void TerminalEmulator::plain_byte(char c, std::string& out) {
    if (open_ && seq_.lead.empty()) {
        flush_unexpected();
        deliver(std::string_view(&c, 1), out);
    } else {
        unexpected_.push_back(c);
    }
}

std::string TerminalEmulator::feed(std::string_view in) {
    last_feed_ = Clock::now();
    buf_.append(in);
    std::string out;
    size_t pos = 0;
    while (pos < buf_.size()) {
        const std::string_view rest(buf_.data() + pos, buf_.size() - pos);
        if (in_block_) {
            pos += pass_block(rest, out);
            if (in_block_) break;  // the end sequence has not come yet
            continue;
        }
        bool partial = false;
        const Token* best = match_token(rest, partial);
        if (partial) break;  // wait for the rest of a sequence
        if (best != nullptr) {
            flush_unexpected();
            pos += best->seq.size();
            apply(best->kind);
            continue;
        }
        plain_byte(rest[0], out);
        ++pos;
    }
    buf_.erase(0, pos);
    flush_unexpected();
    return out;
}

void TerminalEmulator::idle(Clock::time_point now, std::chrono::milliseconds patience) {
    if (buf_.empty() || in_block_ || now - last_feed_ < patience) return;
    error("incomplete sequence: " + printable(buf_));
    buf_.clear();
}

}  // namespace kolt::sim
