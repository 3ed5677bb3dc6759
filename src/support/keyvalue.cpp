#include "support/keyvalue.hpp"

#include <algorithm>

#include "support/file.hpp"

namespace kolt::config {
namespace {

// key=value files are read in pieces of up to 1022 characters.
constexpr std::size_t kValueFileLineMax = 1022;

// One pass of printf with no arguments: "%%" gives "%". Any other directive
// would read an argument that is not there; it is copied as it stands.
std::string format_no_args(std::string_view text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 1 < text.size() && text[i + 1] == '%') {
            out += '%';
            ++i;
        } else {
            out += text[i];
        }
    }
    return out;
}

}  // namespace

bool read_piece(std::FILE* fp, std::size_t max_chars, std::string& line) {
    line.clear();
    int c;
    while (line.size() < max_chars && (c = std::fgetc(fp)) != EOF) {
        line += static_cast<char>(c);
        if (c == '\n') break;
    }
    return !line.empty();
}

char first_char(std::string_view text) {
    for (const char c : text) {
        if (c == 0) break;
        if (c != ' ' && c != '\t') return c;
    }
    return 0;
}

bool value_from_line(std::string& line, std::string_view key, std::string& value) {
    std::erase(line, '\t');
    if (!line.empty() && line.back() == '\n') line.pop_back();
    if (!line.empty() && line.back() == '\r') line.pop_back();
    const std::string entry = std::string(key) + "=";
    const auto pos = line.find(entry);
    if (pos == std::string::npos) return false;
    value = format_no_args(std::string_view(line).substr(pos + entry.size()));
    return true;
}

int value_from_file(const std::string& path, std::string_view key, std::string& value) {
    const support::File fp = support::open_file(path.c_str(), "r");
    if (!fp) return -1;
    const std::string entry = std::string(key) + "=";
    std::string line;
    while (read_piece(fp.get(), kValueFileLineMax, line)) {
        if (line.find(entry) != std::string::npos) return value_from_line(line, key, value) ? 0 : -2;
    }
    return -2;
}

}  // namespace kolt::config
