#include "clerk/reply.hpp"

#include <algorithm>

namespace kolt::clerk {

namespace {

std::size_t find(std::span<const uint8_t> data, std::size_t from, std::string_view mark) {
    if (from > data.size()) return std::string_view::npos;
    const auto it = std::search(data.begin() + static_cast<std::ptrdiff_t>(from), data.end(), mark.begin(),
                                mark.end(), [](uint8_t a, char b) { return a == static_cast<uint8_t>(b); });
    if (it == data.end() && !mark.empty()) return std::string_view::npos;
    return static_cast<std::size_t>(it - data.begin());
}

}  // namespace

ReplyScan scan_reply(std::span<const uint8_t> received, std::string_view start_mark, std::string_view end_mark,
                     std::size_t room) {
    ReplyScan r;
    const std::size_t limit = room == 0 ? 0 : room - 1;
    const std::size_t p = received.size() < start_mark.size() ? std::string_view::npos : find(received, 0, start_mark);
    if (p == std::string_view::npos) {
        if (received.size() > limit) r.state = ReplyState::overflow;
        r.length = received.size();
        return r;
    }
    r.offset = p;
    r.length = received.size() - p;
    if (r.length > limit) {
        r.state = ReplyState::overflow;
        return r;
    }
    const std::size_t e = find(received, p, end_mark);
    r.state = e == std::string_view::npos ? ReplyState::waiting_end : ReplyState::complete;
    return r;
}

}  // namespace kolt::clerk
