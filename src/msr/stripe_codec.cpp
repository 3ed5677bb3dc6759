// The stripe reader's replies and commands.
#include "msr/stripe_codec.hpp"

#include <algorithm>
#include <cstring>

#include "support/text.hpp"

namespace kolt::msr {

std::array<TrackField, 3> split_three_tracks(std::span<const uint8_t> reply) {
    auto at = [&](std::size_t i) -> uint8_t { return i < reply.size() ? reply[i] : 0; };
    std::array<TrackField, 3> tracks{};
    std::size_t offset = kTrackData;
    for (std::size_t t = 0; t < 3; ++t) {
        TrackField& f = tracks[t];
        f.status = at(kTrackStatus + t);
        f.length_hi = at(kTrackLengths + 2 * t);
        f.length_lo = at(kTrackLengths + 2 * t + 1);
        const std::size_t begin = std::min(offset, reply.size());
        const std::size_t n = std::min<std::size_t>(f.length(), reply.size() - begin);
        f.data = reply.subspan(begin, n);
        offset += f.length();
    }
    return tracks;
}

int32_t card_no_len(std::span<const uint8_t> bytes) {
    for (std::size_t i = 0; i < bytes.size(); ++i)
        if (bytes[i] < '0' || bytes[i] > '9') return static_cast<int32_t>(i);
    return -1;
}

std::vector<uint8_t> read_command(int32_t mode) {
    std::vector<uint8_t> cmd = {kEsc, 'O'};
    switch (mode) {
    case kModeTrack2: cmd.insert(cmd.end(), {kEsc, ']'}); break;
    case kModeTrack3: cmd.insert(cmd.end(), {kEsc, 'T', ']'}); break;
    case kModeBoth: cmd.insert(cmd.end(), {kEsc, 'B', ']'}); break;
    default: break;
    }
    return cmd;
}

std::vector<uint8_t> write_command(int32_t mode, std::string_view track2, std::string_view track3) {
    track2 = track2.substr(0, kTrackTextMax);
    track3 = track3.substr(0, kTrackTextMax);
    std::vector<uint8_t> cmd = {kEsc, 't'};
    auto add = [&cmd](std::string_view text) { cmd.insert(cmd.end(), text.begin(), text.end()); };
    switch (mode) {
    case kModeTrack3:
        cmd.push_back('A');
        add(track3);
        break;
    case kModeBoth:
        add(track2);
        cmd.push_back('A');
        add(track3);
        break;
    case kModeTrack2: add(track2); break;
    default: break;
    }
    cmd.insert(cmd.end(), {0x1D, kEsc, '\\', kEsc, 'j'});
    return cmd;
}

std::size_t write_status_length(int32_t mode) {
    switch (mode) {
    case kModeTrack2: return 3;
    case kModeTrack3:
    case kModeBoth: return 4;
    default: return 0;
    }
}

bool write_succeeded(std::span<const uint8_t> status) { return !status.empty() && status.back() == 'p'; }

bool reply_complete(std::span<const uint8_t> reply) {
    return reply.size() >= 2 && reply[reply.size() - 2] == kReplyEnd[0] && reply.back() == kReplyEnd[1];
}

std::optional<std::string> normalised_reply(std::span<const uint8_t> reply) {
    std::string text(reinterpret_cast<const char*>(reply.data()), reply.size());
    text.resize(std::strlen(text.c_str()));  // read as text: up to its first zero byte
    const std::size_t end = text.find("?\x1C");
    if (end == std::string::npos) return std::nullopt;
    text.resize(end + 2);
    for (const char* sep : {"'", ">", "|"}) text = support::replace_all(std::move(text), sep, "=");
    return text;
}

namespace {

// n characters of text from pos, none where the text does not reach.
std::string piece(const std::string& text, std::size_t pos, long long n) {
    if (n <= 0 || pos >= text.size()) return {};
    return text.substr(pos, static_cast<std::size_t>(n));
}

bool empty_at(const std::string& text, std::size_t pos) {
    return pos < text.size() && static_cast<uint8_t>(text[pos]) == kEmptyTrack;
}

}  // namespace

ReadResult parse_read_reply(std::span<const uint8_t> reply, int32_t mode) {
    ReadResult r;
    const auto text = normalised_reply(reply);
    if (!text) {
        r.code = -4;
        return r;
    }
    const std::string& t = *text;
    const auto len = static_cast<long long>(t.size());
    switch (mode) {
    case kModeTrack3:
        if (empty_at(t, 3)) r.code = -5;
        else r.track3 = piece(t, 3, len - 5);
        break;
    case kModeTrack2:
        if (empty_at(t, 2)) r.code = -5;
        else r.track2 = piece(t, 2, len - 4);
        break;
    case kModeBoth: {
        const std::size_t a = t.find('A');
        if (a == std::string::npos) {
            r.code = -6;
            break;
        }
        int empty = 0;
        if (empty_at(t, 2)) ++empty;
        else r.track2 = piece(t, 2, static_cast<long long>(a) - 2);
        if (empty_at(t, a + 1)) ++empty;
        else r.track3 = piece(t, a + 1, len - static_cast<long long>(a) - 1 - 2);
        if (empty == 2) {
            r.code = -5;
            r.track2.clear();
            r.track3.clear();
        }
        break;
    }
    default: break;
    }
    return r;
}

}  // namespace kolt::msr
