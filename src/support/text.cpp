#include "support/text.hpp"

#include <algorithm>
#include <cstdlib>
#include <string>

namespace kolt::support {

std::string replace_bounded(std::string text, std::string_view from, std::string_view to, size_t max_len) {
    if (from.empty()) return text;
    if (to.find(from) != std::string_view::npos) {
        std::string out;
        size_t pos = 0;
        for (;;) {
            const size_t hit = text.find(from, pos);
            if (hit == std::string::npos) break;
            out.append(text, pos, hit - pos);
            out.append(to);
            pos = hit + from.size();
        }
        out.append(text, pos, std::string::npos);
        if (out.size() > max_len) out.resize(max_len);
        return out;
    }
    for (size_t rounds = 0; rounds < 65536; ++rounds) {
        const size_t hit = text.find(from);
        if (hit == std::string::npos) break;
        if (text.size() - from.size() + to.size() > max_len) break;
        text.replace(hit, from.size(), to);
    }
    return text;
}

std::string replace_all(std::string text, std::string_view from, std::string_view to) {
    const size_t limit = std::max<size_t>(text.size(), 1023) + 65536;
    return replace_bounded(std::move(text), from, to, limit);
}

SubField sub_field(std::string_view text, char separator, int32_t k) {
    if (k < 1) return {};
    // Walk to the start of field k.
    size_t start = 0;
    for (int32_t i = 1; i < k; ++i) {
        const size_t sep = separator == 0 ? std::string_view::npos : text.find(separator, start);
        if (sep == std::string_view::npos) return {};
        start = sep + 1;
    }
    const size_t sep = separator == 0 ? std::string_view::npos : text.find(separator, start);
    if (sep == std::string_view::npos) return {text.substr(start), 0};
    return {text.substr(start, sep - start), static_cast<int32_t>(start)};
}

int32_t sub_buf_pos(std::span<const uint8_t> needle, std::span<const uint8_t> buffer) {
    if (needle.empty()) return -2;
    if (buffer.size() < needle.size()) return -3;
    const auto hit = std::search(buffer.begin(), buffer.end(), needle.begin(), needle.end());
    return hit == buffer.end() ? -1 : static_cast<int32_t>(hit - buffer.begin());
}

int32_t atoi_value(std::string_view text) {
    const std::string copy(text.substr(0, text.find('\0')));
    return static_cast<int32_t>(std::strtol(copy.c_str(), nullptr, 10));
}

}  // namespace kolt::support
