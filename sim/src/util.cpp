#include <cstdio>

#include "util_internal.hpp"

namespace kolt::sim {

static int hex_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

std::optional<std::vector<uint8_t>> parse_hex(std::string_view text) {
    std::vector<uint8_t> out;
    int hi = -1;
    for (char c : text) {
        if (c == ' ' || c == '\t' || c == '\n' || c == '\r') continue;
        const int v = hex_value(c);
        if (v < 0) return std::nullopt;
        if (hi < 0) {
            hi = v;
        } else {
            out.push_back(static_cast<uint8_t>(hi << 4 | v));
            hi = -1;
        }
    }
    if (hi >= 0) return std::nullopt;
    return out;
}

std::optional<long> parse_number(std::string_view text) {
    if (text.empty()) return std::nullopt;
    long v = 0;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        for (char c : text.substr(2)) {
            const int d = hex_value(c);
            if (d < 0 || v > 0xFFFFFFFFL) return std::nullopt;
            v = v * 16 + d;
        }
        return v;
    }
    for (char c : text) {
        if (c < '0' || c > '9' || v > 0xFFFFFFFFL) return std::nullopt;
        v = v * 10 + (c - '0');
    }
    return v;
}

std::string hex_dump(const std::vector<uint8_t>& bytes) {
    std::string out;
    char buf[4];
    for (size_t i = 0; i < bytes.size(); ++i) {
        std::snprintf(buf, sizeof buf, "%02X", bytes[i]);
        if (i != 0) out.push_back(' ');
        out += buf;
    }
    return out;
}

std::string printable(std::string_view bytes) {
    std::string out;
    char buf[8];
    for (char ch : bytes) {
        const auto c = static_cast<unsigned char>(ch);
        if (c == 0x1B) {
            out += "ESC";
        } else if (c >= 0x20 && c < 0x7F) {
            out.push_back(static_cast<char>(c));
        } else {
            std::snprintf(buf, sizeof buf, "\\x%02X", c);
            out += buf;
        }
    }
    return out;
}

}  // namespace kolt::sim
