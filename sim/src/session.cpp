// The session file: parsing, formatting and the grouping into exchanges.
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "kolt_sim/session.hpp"

namespace kolt::sim {

namespace {

constexpr std::string_view kBlanks = " \t\r";

std::string_view trim(std::string_view s) {
    const auto b = s.find_first_not_of(kBlanks);
    if (b == std::string_view::npos) return {};
    const auto e = s.find_last_not_of(kBlanks);
    return s.substr(b, e - b + 1);
}

int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

std::string quoted(std::string_view s) { return "'" + std::string(s) + "'"; }

// "+12.500": a plus sign, digits, optionally a point and more digits.
bool parse_time(std::string_view token, double& ms) {
    if (token.size() < 2 || token[0] != '+') return false;
    bool digits = false, point = false;
    for (char c : token.substr(1)) {
        if (c >= '0' && c <= '9') {
            digits = true;
        } else if (c == '.' && !point) {
            point = true;
        } else {
            return false;
        }
    }
    if (!digits) return false;
    const std::string text(token.substr(1));
    errno = 0;
    ms = std::strtod(text.c_str(), nullptr);
    return errno == 0 && std::isfinite(ms);
}

// The value of a header comment ("# device: X" gives X for key "device").
bool header_value(std::string_view comment, std::string_view key, std::string& value) {
    const std::string_view t = trim(comment);
    if (t.size() <= key.size() || t.substr(0, key.size()) != key || t[key.size()] != ':') return false;
    value = std::string(trim(t.substr(key.size() + 1)));
    return true;
}

// One chunk line (its comment already cut off) into `c`.
void parse_chunk(std::string_view body, size_t line, Chunk& c) {
    std::vector<std::string_view> tokens;
    for (size_t i = 0; i < body.size();) {
        const auto b = body.find_first_not_of(kBlanks, i);
        if (b == std::string_view::npos) break;
        auto e = body.find_first_of(kBlanks, b);
        if (e == std::string_view::npos) e = body.size();
        tokens.push_back(body.substr(b, e - b));
        i = e;
    }
    if (tokens.empty() || !parse_time(tokens[0], c.time_ms))
        throw RecordingError(line, "a chunk line begins with its time in milliseconds, e.g. +12.500 (found " +
                                       quoted(tokens.empty() ? body : tokens[0]) + ")");
    if (tokens.size() < 2 || (tokens[1] != ">" && tokens[1] != "<"))
        throw RecordingError(line, "expected > (application to device) or < (device to application) after the time");
    c.dir = tokens[1] == ">" ? Direction::ToDevice : Direction::FromDevice;
    bool wild = false;
    for (size_t t = 2; t < tokens.size(); ++t) {
        const std::string_view tok = tokens[t];
        if (tok.size() % 2 != 0)
            throw RecordingError(line, quoted(tok) + " is not a byte (two hex digits, or ?? on application lines)");
        for (size_t i = 0; i < tok.size(); i += 2) {
            const std::string_view pair = tok.substr(i, 2);
            if (pair == "??") {
                if (c.dir != Direction::ToDevice)
                    throw RecordingError(line, "?? (any byte) is for application lines (>) only");
                c.bytes.push_back(0);
                c.any.resize(c.bytes.size() - 1, false);
                c.any.push_back(true);
                wild = true;
                continue;
            }
            const int hi = hex_digit(pair[0]), lo = hex_digit(pair[1]);
            if (hi < 0 || lo < 0)
                throw RecordingError(line, quoted(tok.size() == 2 ? tok : pair) +
                                               " is not a byte (two hex digits, or ?? on application lines)");
            c.bytes.push_back(static_cast<uint8_t>(hi << 4 | lo));
        }
    }
    if (c.bytes.empty()) throw RecordingError(line, "no bytes after the direction");
    if (wild) c.any.resize(c.bytes.size(), false);
}

}  // namespace

RecordingError::RecordingError(size_t line, const std::string& message, const std::string& file)
    : std::runtime_error((file.empty() ? "" : file + ": ") + (line > 0 ? "line " + std::to_string(line) + ": " : "") +
                         message),
      line_(line),
      message_(message) {}

Recording Recording::parse(std::string_view text) {
    Recording r;
    std::vector<std::string> comments;
    size_t line = 0;
    bool header_seen = false;
    double last_time = 0;
    for (size_t pos = 0; pos <= text.size();) {
        auto nl = text.find('\n', pos);
        if (nl == std::string_view::npos) nl = text.size();
        std::string_view raw = text.substr(pos, nl - pos);
        const bool at_end = nl == text.size();
        pos = nl + 1;
        ++line;
        if (!raw.empty() && raw.back() == '\r') raw.remove_suffix(1);
        const std::string_view t = trim(raw);
        if (!header_seen) {
            if (t == kSessionMagic) {
                header_seen = true;
                continue;
            }
            const std::string_view prefix = "# kolt-sim session ";
            if (t.substr(0, prefix.size()) == prefix)
                throw RecordingError(line, "session format " + quoted(t.substr(prefix.size())) +
                                               " is not known; this kolt-sim reads format 1");
            throw RecordingError(line, "not a kolt-sim session: the first line must be \"" +
                                           std::string(kSessionMagic) + "\"");
        }
        if (t.empty()) {
            if (at_end) break;
            continue;
        }
        if (t[0] == '#') {
            const std::string_view comment = t.substr(1);
            std::string value;
            if (r.chunks.empty() && comments.empty() && r.device.empty() && header_value(comment, "device", value)) {
                r.device = value;
            } else if (r.chunks.empty() && comments.empty() && r.date.empty() && header_value(comment, "date", value)) {
                r.date = value;
            } else {
                comments.emplace_back(comment);
            }
            continue;
        }
        Chunk c;
        c.line = line;
        std::string_view body = t;
        if (const auto hash = t.find('#'); hash != std::string_view::npos) {
            c.note = std::string(t.substr(hash + 1));
            body = t.substr(0, hash);
        }
        parse_chunk(body, line, c);
        if (!r.chunks.empty() && c.time_ms < last_time) {
            char buf[128];
            std::snprintf(buf, sizeof buf, "the time goes back (+%.3f after +%.3f)", c.time_ms, last_time);
            throw RecordingError(line, buf);
        }
        last_time = c.time_ms;
        c.comments = std::move(comments);
        comments.clear();
        r.chunks.push_back(std::move(c));
    }
    if (!header_seen)
        throw RecordingError(1, "not a kolt-sim session: the first line must be \"" + std::string(kSessionMagic) + "\"");
    r.trailing_comments = std::move(comments);
    return r;
}

Recording Recording::load(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw RecordingError(0, std::string("cannot be read: ") + std::strerror(errno), path);
    std::stringstream s;
    s << in.rdbuf();
    try {
        return parse(s.str());
    } catch (const RecordingError& e) {
        throw RecordingError(e.line(), e.message(), path);
    }
}

std::string hex_pattern(const std::vector<uint8_t>& bytes, const std::vector<bool>& any) {
    std::string out;
    out.reserve(bytes.size() * 3);
    char buf[4];
    for (size_t i = 0; i < bytes.size(); ++i) {
        if (i != 0) out.push_back(' ');
        if (i < any.size() && any[i]) {
            out += "??";
        } else {
            std::snprintf(buf, sizeof buf, "%02X", bytes[i]);
            out += buf;
        }
    }
    return out;
}

std::string format_chunk_line(const Chunk& c) {
    char head[64];
    std::snprintf(head, sizeof head, "+%.3f %c ", c.time_ms, c.dir == Direction::ToDevice ? '>' : '<');
    return head + hex_pattern(c.bytes, c.any);
}

std::string Recording::format() const {
    std::string out = std::string(kSessionMagic) + "\n";
    if (!device.empty()) out += "# device: " + device + "\n";
    if (!date.empty()) out += "# date: " + date + "\n";
    for (const Chunk& c : chunks) {
        for (const auto& comment : c.comments) out += "#" + comment + "\n";
        out += format_chunk_line(c);
        if (!c.note.empty()) out += "  #" + c.note;
        out += "\n";
    }
    for (const auto& comment : trailing_comments) out += "#" + comment + "\n";
    return out;
}

void Recording::save(const std::string& path) const {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << format();
    out.flush();
    if (!out) throw std::runtime_error(path + ": cannot be written");
}

std::vector<Exchange> Recording::exchanges() const {
    std::vector<Exchange> out;
    Exchange cur;
    double last_app = 0;
    auto open_new = [&](const Chunk& c) {
        cur = Exchange{};
        cur.number = out.size() + 1;
        cur.line = c.line;
    };
    bool open = false;
    for (const Chunk& c : chunks) {
        if (c.dir == Direction::ToDevice) {
            if (open && !cur.reply.empty()) {
                out.push_back(std::move(cur));
                open = false;
            }
            if (!open) {
                open_new(c);
                open = true;
            }
            for (size_t i = 0; i < c.bytes.size(); ++i) {
                cur.app.push_back(c.bytes[i]);
                cur.app_any.push_back(c.wildcard(i));
            }
            last_app = c.time_ms;
        } else {
            if (!open) {
                open_new(c);  // the device spoke first
                open = true;
                last_app = 0;
            }
            cur.reply.push_back({std::max(0.0, c.time_ms - last_app), c.bytes});
        }
    }
    if (open) out.push_back(std::move(cur));
    return out;
}

}  // namespace kolt::sim
