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
    const std::string term_header = "[TERM_" + std::to_string(type) + "_KOLT510QX]";
    const std::string transfer_header = "[TRANSFER_" + std::to_string(type) + "_KOLT510QX]";
    const std::string open_key = "OPEN_COM" + std::to_string(port);
    const std::string close_key = "CLOSE_COM" + std::to_string(port);
    TerminalSequences s;
    int count = 0;
    bool term_seen = false, transfer_seen = false;
    enum { None, Term, Transfer } section = None;
    std::string line;
    while (std::getline(in, line)) {
        if (is_comment(line)) continue;
        if (section != None && (line.find("[TERM") != std::string::npos ||
                                line.find("[TRANSFER") != std::string::npos)) {
            section = None;
        }
        if (section == None) {
            if (!term_seen && line.find(term_header) != std::string::npos) {
                section = Term;
                term_seen = true;
            } else if (!transfer_seen && line.find(transfer_header) != std::string::npos) {
                section = Transfer;
                transfer_seen = true;
            }
            continue;
        }
        const std::string l = clean_line(line);
        std::string v;
        if (section == Term) {
            // Keys are recognised by substring, in this order; the value is
            // what follows "KEY=" (so OPEN_COM12= counts as an OPEN_COM1
            // entry but leaves its value alone).
            auto has = [&](const std::string& key) { return l.find(key) != std::string::npos; };
            auto take = [&](const std::string& key, std::string& out) {
                if (value_of(l, key, v)) out = decode_value(v);
            };
            if (has(open_key)) {
                take(open_key, s.open);
                ++count;
            } else if (has(close_key)) {
                take(close_key, s.close);
                ++count;
            } else if (has("LOCK_KEY") && !has("UNLOCK_KEY")) {
                take("LOCK_KEY", s.lock);
            } else if (has("UNLOCK_KEY")) {
                take("UNLOCK_KEY", s.unlock);
            } else if (has("CMD_BEGIN")) {
                take("CMD_BEGIN", s.lead);
            } else if (has("CMD_END")) {
                take("CMD_END", s.end);
            }
        } else {
            for (char letter : std::string("ABCDK")) {
                if (value_of(l, std::string("OPEN_PORT") + letter, v)) {
                    auto b = parse_hex(v);
                    if (b && !b->empty()) s.transfer.emplace_back(b->begin(), b->end());
                    break;
                }
            }
        }
    }
    if (!term_seen) throw std::runtime_error("terminal command file: no section " + term_header + " in " + path);
    if (count < 2)
        throw std::runtime_error("terminal command file: section " + term_header + " lacks " + open_key + "/" +
                                 close_key);
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

std::string TerminalEmulator::feed(std::string_view in) {
    last_feed_ = Clock::now();
    buf_.append(in);
    std::string out;
    size_t pos = 0;
    while (pos < buf_.size()) {
        const std::string_view rest(buf_.data() + pos, buf_.size() - pos);
        if (in_block_) {
            const auto e = rest.find(seq_.end);
            if (e != std::string_view::npos) {
                deliver(rest.substr(0, e), out);
                pos += e + seq_.end.size();
                in_block_ = false;
                events_.push_back("end");
                continue;
            }
            // Hold back what may be the start of the end sequence.
            size_t keep = 0;
            for (size_t k = std::min(rest.size(), seq_.end.size() - 1); k > 0; --k) {
                if (rest.substr(rest.size() - k) == std::string_view(seq_.end).substr(0, k)) {
                    keep = k;
                    break;
                }
            }
            deliver(rest.substr(0, rest.size() - keep), out);
            pos = buf_.size() - keep;
            break;
        }
        const Token* best = nullptr;
        bool partial = false;
        for (const auto& t : tokens_) {
            if (t.kind == Kind::End) {
                if (rest.substr(0, t.seq.size()) == t.seq && (best == nullptr || t.seq.size() > best->seq.size()))
                    best = &t;
                continue;
            }
            if (rest.size() >= t.seq.size()) {
                if (rest.substr(0, t.seq.size()) == t.seq && (best == nullptr || t.seq.size() > best->seq.size()))
                    best = &t;
            } else if (std::string_view(t.seq).substr(0, rest.size()) == rest) {
                partial = true;
            }
        }
        if (partial) break;  // wait for the rest of a sequence
        if (best != nullptr) {
            flush_unexpected();
            pos += best->seq.size();
            apply(best->kind);
            continue;
        }
        if (open_ && seq_.lead.empty()) {
            flush_unexpected();
            deliver(rest.substr(0, 1), out);
        } else {
            unexpected_.push_back(rest[0]);
        }
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
