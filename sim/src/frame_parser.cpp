// Recognising and decoding the host's frames.
#include "frame_parser_internal.hpp"

#include <algorithm>

#include "util_internal.hpp"

namespace kolt::sim {

namespace {

bool is_nibble(uint8_t c) { return c >= 0x30 && c <= 0x3F; }
bool is_b64(uint8_t c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' || c == '/' ||
           c == '=';
}

}  // namespace

// --- helpers -------------------------------------------------------------------------

// The position of the first byte in [from, to) that fails `ok`, else `to`.
size_t FrameParser::first_not(size_t from, size_t to, CharTest ok) const {
    for (size_t i = from; i < to; ++i)
        if (!ok(in_[i])) return i;
    return to;
}

// Whether a foreign byte turns up in the body of a frame of `total` bytes
// before its last byte; reported as `what`.
bool FrameParser::cut_short(size_t from, size_t total, CharTest ok, const char* what, Sink& sink) const {
    const size_t to = std::min(total - 1, in_.size());
    const size_t i = first_not(from, to, ok);
    if (i == to) return false;
    error(sink, what, i + 1);
    return true;
}

// The 16-bit number in the four nibble characters at `at`.
size_t FrameParser::nibble_u16(size_t at) const {
    return static_cast<size_t>((in_[at] - '0') << 12 | (in_[at + 1] - '0') << 8 | (in_[at + 2] - '0') << 4 |
                               (in_[at + 3] - '0'));
}

void FrameParser::error(Sink& sink, const std::string& what, size_t n) const {
    const Bytes shown(in_.begin(), in_.begin() + static_cast<long>(std::min<size_t>(n, 64)));
    sink.error(what + ": " + printable(std::string(shown.begin(), shown.end())));
}

// --- the framings ------------------------------------------------------------------

FrameParser::Parse FrameParser::try_main(size_t& n, Sink& sink) {
    const size_t head = std::min<size_t>(5, in_.size());
    if (first_not(1, head, is_nibble) != head) return Parse::NotFrame;
    if (in_.size() < 5) return Parse::NeedMore;
    const size_t len = nibble_u16(1);
    const size_t total = 1 + 4 + 2 * len + 2 + 1;
    if (cut_short(5, total, is_nibble, "main frame shorter than its length", sink)) return Parse::Bad;
    if (in_.size() < total) return Parse::NeedMore;
    n = total;
    if (in_[total - 1] != 0x03) {
        error(sink, "main frame without 0x03 at its end", total);
        return Parse::Bad;
    }
    auto f = decode_main(std::span(in_.data(), total));
    if (!f || len < 2) {
        error(sink, "main frame with a wrong check byte", total);
        return Parse::Bad;
    }
    sink.command(Command{Framing::Main, f->a, f->b, std::move(f->data)});
    return Parse::Complete;
}

FrameParser::Parse FrameParser::try_bracket(size_t& n, Sink& sink) {
    const size_t head = std::min<size_t>(4, in_.size());
    if (first_not(1, head, is_b64) != head) return Parse::NotFrame;
    if (in_.size() < 4) return Parse::NeedMore;
    auto r = bracket_length(std::span(in_.data() + 1, 3));
    if (!r || *r < 4) return Parse::NotFrame;
    const size_t total = 4 + *r;
    if (cut_short(5, total, is_b64, "bracket frame shorter than its length", sink)) return Parse::Bad;
    if (in_.size() < total) return Parse::NeedMore;
    n = total;
    auto f = decode_bracket(std::span(in_.data(), total));
    if (!f) {
        error(sink, "bracket frame with a wrong check or end", total);
        return Parse::Bad;
    }
    sink.command(Command{Framing::Bracket, 0, f->cmd, std::move(f->data)});
    return Parse::Complete;
}

// The probe: an 0x86 query immediately followed by a bracket "A". NotFrame
// when the input is no probe (it may still be an 0x86 frame).
FrameParser::Parse FrameParser::try_probe(size_t& n, Sink& sink, bool idle) {
    const size_t probe_n = std::min(in_.size(), kProbe.size());
    if (!std::equal(in_.begin(), in_.begin() + static_cast<long>(probe_n), kProbe.begin())) return Parse::NotFrame;
    if (probe_n == kProbe.size()) {
        n = probe_n;
        sink.command(Command{Framing::Probe, 0, 0, {}});
        return Parse::Complete;
    }
    return idle ? Parse::NotFrame : Parse::NeedMore;
}

FrameParser::Parse FrameParser::try_86(size_t& n, Sink& sink, bool idle) {
    if (const Parse p = try_probe(n, sink, idle); p != Parse::NotFrame) return p;
    const size_t head = std::min<size_t>(in_.size(), 6);
    if (first_not(1, head, is_nibble) != head) return Parse::NotFrame;
    if (in_.size() >= 2 && in_[1] != '6') return Parse::NotFrame;
    if (in_.size() < 6) return Parse::NeedMore;
    const size_t total = 6 + 2 * nibble_u16(2);
    const size_t have = std::min(total, in_.size());
    if (first_not(6, have, is_nibble) != have) return Parse::NotFrame;
    if (in_.size() < total) return Parse::NeedMore;
    auto payload = decode_86(std::span(in_.data(), total));
    if (!payload) return Parse::NotFrame;
    n = total;
    const uint8_t cmd = payload->empty() ? 0 : (*payload)[0];
    sink.command(Command{Framing::Legacy86, 0x86, cmd, {}});
    return Parse::Complete;
}

// The stripe reader's escape sequences: ESC "0" (reset); ESC "O" ESC "]",
// ESC "O" ESC "T" "]", ESC "O" ESC "B" "]" (read track 2, 3, both); ESC "O"
// alone; ESC "t" data GS ESC "\" ESC "j" (write). Any other ESC is no frame.
namespace {
constexpr uint8_t kEsc = 0x1B;
const Bytes kWriteEnd = {0x1D, kEsc, '\\', kEsc, 'j'};
constexpr size_t kMaxWrite = 512;
}  // namespace

void FrameParser::escape(Sink& sink, size_t n) {
    sink.command(Command{Framing::Escape, kEsc, in_[1], Bytes(in_.begin(), in_.begin() + static_cast<long>(n))});
}

FrameParser::Parse FrameParser::try_escape(size_t& n, Sink& sink, bool idle) {
    if (in_.size() < 2) return Parse::NeedMore;
    switch (in_[1]) {
        case '0':
            n = 2;
            escape(sink, n);
            return Parse::Complete;
        case 'O': return try_escape_read(n, sink, idle);
        case 't': return try_escape_write(n, sink);
        default: return Parse::NotFrame;
    }
}

FrameParser::Parse FrameParser::try_escape_read(size_t& n, Sink& sink, bool idle) {
    // The track selection: ESC "]", ESC "T" "]" or ESC "B" "]".
    const size_t have = in_.size();
    bool whole = false;
    if (have > 2 && in_[2] == kEsc && have > 3) {
        if (in_[3] == ']') {
            n = 4;
            whole = true;
        } else if ((in_[3] == 'T' || in_[3] == 'B') && have > 4 && in_[4] == ']') {
            n = 5;
            whole = true;
        } else if ((in_[3] == 'T' || in_[3] == 'B') && have == 4 && !idle) {
            return Parse::NeedMore;
        }
    } else if (have <= 3 && (have == 2 || in_[2] == kEsc) && !idle) {
        return Parse::NeedMore;
    }
    if (!whole) n = 2;  // ESC "O" on its own
    escape(sink, n);
    return Parse::Complete;
}

FrameParser::Parse FrameParser::try_escape_write(size_t& n, Sink& sink) {
    const auto end = std::search(in_.begin() + 2, in_.end(), kWriteEnd.begin(), kWriteEnd.end());
    if (end == in_.end()) {
        // An ESC in the data that does not begin the end: a broken write.
        // (The end's own ESCs come 1 and 3 bytes after its GS.)
        auto starts_end = [&](size_t at) {
            const size_t k = std::min(kWriteEnd.size(), in_.size() - at);
            return std::equal(kWriteEnd.begin(), kWriteEnd.begin() + static_cast<long>(k),
                              in_.begin() + static_cast<long>(at));
        };
        for (size_t i = 2; i < in_.size(); ++i) {
            if (in_[i] == kEsc && !(i >= 3 && starts_end(i - 1)) && !(i >= 5 && starts_end(i - 3))) {
                error(sink, "stripe write without its end", i);
                return Parse::Bad;
            }
        }
        if (in_.size() > kMaxWrite) {
            error(sink, "stripe write without its end", in_.size());
            return Parse::Bad;
        }
        return Parse::NeedMore;
    }
    n = static_cast<size_t>(end - in_.begin()) + kWriteEnd.size();
    escape(sink, n);
    return Parse::Complete;
}

// The fingerprint module's packet: EF 01, four address bytes, identifier,
// length (payload + 2), payload, sum. A second byte other than 01 is no
// packet; a length the module could not take, or a wrong sum, is a
// damaged one.
namespace {
constexpr size_t kEf01Head = 9;
constexpr size_t kEf01MaxBody = 2 + 256;
}  // namespace

FrameParser::Parse FrameParser::try_ef01(size_t& n, Sink& sink) {
    if (in_.size() < 2) return Parse::NeedMore;
    if (in_[1] != 0x01) return Parse::NotFrame;
    if (in_.size() < kEf01Head) return Parse::NeedMore;
    const size_t len = static_cast<size_t>(in_[7]) << 8 | in_[8];
    if (len < 3 || len > kEf01MaxBody) {
        error(sink, "EF01 packet with a length of " + std::to_string(len), kEf01Head);
        return Parse::Bad;
    }
    const size_t total = kEf01Head + len;
    if (in_.size() < total) return Parse::NeedMore;
    n = total;
    unsigned sum = 0;
    for (size_t i = 6; i < total - 2; ++i) sum += in_[i];
    if ((sum & 0xFFFF) != (static_cast<unsigned>(in_[total - 2]) << 8 | in_[total - 1])) {
        error(sink, "EF01 packet with a wrong sum", total);
        return Parse::Bad;
    }
    Bytes payload(in_.begin() + kEf01Head, in_.begin() + static_cast<long>(total - 2));
    const uint8_t ins = payload.empty() ? 0 : payload[0];
    sink.command(Command{Framing::Ef01, 0xEF, ins, std::move(payload)});
    return Parse::Complete;
}

// Raw rules come first: 1 fired, 0 no match, -1 a trigger has begun.
int FrameParser::try_raw(Sink& sink) {
    bool partial = false;
    for (const auto& rule : rules_) {
        if (in_.size() >= rule.trigger.size()) {
            if (std::equal(rule.trigger.begin(), rule.trigger.end(), in_.begin())) {
                in_.erase(in_.begin(), in_.begin() + static_cast<long>(rule.trigger.size()));
                sink.raw(rule);
                return 1;
            }
        } else if (std::equal(in_.begin(), in_.end(), rule.trigger.begin())) {
            partial = true;
        }
    }
    return partial ? -1 : 0;
}

// --- the input stream ------------------------------------------------------------------

FrameParser::Parse FrameParser::try_frame(size_t& n, Sink& sink, bool idle) {
    switch (in_[0]) {
        case 0x02: return try_main(n, sink);
        case '(': return try_bracket(n, sink);
        case '8': return try_86(n, sink, idle);
        case 0x1B: return try_escape(n, sink, idle);
        case 0xEF: return try_ef01(n, sink);
        default: return Parse::NotFrame;
    }
}

void FrameParser::parse(Sink& sink, bool idle, bool stale) {
    while (!in_.empty()) {
        const int raw = try_raw(sink);
        if (raw > 0) continue;
        size_t n = 1;
        Parse p = raw < 0 ? Parse::NeedMore : try_frame(n, sink, idle);
        if (p == Parse::NeedMore) {
            if (!stale) return;
            error(sink, "incomplete frame dropped", in_.size());
            p = Parse::NotFrame;
            n = 1;
        }
        if (p == Parse::Bad) n = 1;  // resynchronise just after the broken start
        in_.erase(in_.begin(), in_.begin() + static_cast<long>(n));
    }
}

}  // namespace kolt::sim
