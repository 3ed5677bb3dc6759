// The fingerprint sensor: framed variant and EF01 module.
#include "finger_unit_internal.hpp"

#include <algorithm>

namespace kolt::sim {

namespace ef01 {

uint16_t sum(uint8_t pid, std::span<const uint8_t> payload) {
    const size_t len = payload.size() + 2;
    unsigned s = pid + (len >> 8) + (len & 0xFF);
    for (uint8_t b : payload) s += b;
    return static_cast<uint16_t>(s);
}

std::vector<uint8_t> packet(uint8_t pid, std::span<const uint8_t> payload, int length_extra) {
    const size_t len = payload.size() + 2 + static_cast<size_t>(length_extra);
    std::vector<uint8_t> p(9 + payload.size());
    const uint8_t head[9] = {0xEF, 0x01, 0xFF, 0xFF, 0xFF, 0xFF, pid, static_cast<uint8_t>(len >> 8),
                             static_cast<uint8_t>(len)};
    std::copy(std::begin(head), std::end(head), p.begin());
    std::copy(payload.begin(), payload.end(), p.begin() + 9);
    const uint16_t s = sum(pid, payload);
    p.push_back(static_cast<uint8_t>(s >> 8));
    p.push_back(static_cast<uint8_t>(s));
    return p;
}

}  // namespace ef01

namespace {

constexpr uint8_t kPidAnswer = 0x07;
constexpr uint8_t kPidData = 0x02;
constexpr uint8_t kPidLastData = 0x08;
constexpr size_t kDataPacket = 128;
constexpr size_t kFeatureSize = 256;

// Step of the capture sequence an instruction belongs to (0: none).
int step_of(uint8_t ins) {
    switch (ins) {
        case 0x01: return 1;
        case 0x02: return 2;
        case 0x06: return 3;
        case 0x07: return 4;
        case 0x05: return 5;
        case 0x08: return 6;
        default: return 0;
    }
}

}  // namespace

std::vector<uint8_t> default_finger_features() {
    std::vector<uint8_t> f(kFeatureSize);
    for (size_t i = 0; i < f.size(); ++i) f[i] = static_cast<uint8_t>(0x5A ^ (i * 7));
    return f;
}

FingerUnit::FingerUnit(FingerProfile profile, Time now) : profile_(std::move(profile)) {
    features_ = profile_.features.empty() ? default_finger_features() : profile_.features;
    if (profile_.finger_after_ms >= 0) finger_at_ = now + std::chrono::milliseconds(profile_.finger_after_ms);
}

void FingerUnit::place(std::vector<uint8_t> features, Time at) {
    if (!features.empty()) features_ = std::move(features);
    features_.resize(kFeatureSize, 0);
    finger_at_ = at;
}

std::optional<int> FingerUnit::failure(int step) const {
    if (auto it = failures_.find(step); it != failures_.end()) return it->second;
    return std::nullopt;
}

std::optional<Reply> FingerUnit::framed(const Command& c, Time now) {
    if (profile_.type != "framed") return std::nullopt;
    if (c.code == 0x93) return Reply{0x00, 0x00, {}};
    if (c.code != 0x96) return std::nullopt;
    ++captures_;
    if (auto f = failure(1)) {
        if (*f < 0) return std::nullopt;
        return Reply{0x00, static_cast<uint8_t>(*f), {}};
    }
    if (!finger_on(now)) return Reply{profile_.no_finger_status[0], profile_.no_finger_status[1], {}};
    return Reply{0x00, 0x00, features_};
}

std::vector<uint8_t> FingerUnit::answer(uint8_t code) const {
    const uint8_t payload[] = {code};
    return ef01::packet(kPidAnswer, payload);
}

// The answer to the upload and the four data packets: 512 bytes, of which
// the second half is the finger's feature data.
std::vector<uint8_t> FingerUnit::upload() const {
    std::vector<uint8_t> out = answer(0x00);
    const auto f7 = failure(7);
    if (f7 && *f7 < 0) return out;  // the data never comes
    std::vector<uint8_t> data(kFeatureSize);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(0xC0 + (i & 0x3F));
    data.insert(data.end(), features_.begin(), features_.end());
    for (size_t i = 0; i < 4; ++i) {
        const auto part = std::span<const uint8_t>(data).subspan(i * kDataPacket, kDataPacket);
        // A failing data step sends a first packet whose length field lies.
        const int extra = (f7 && i == 0) ? 0x1000 : 0;
        const auto p = ef01::packet(i == 3 ? kPidLastData : kPidData, part, extra);
        out.insert(out.end(), p.begin(), p.end());
    }
    return out;
}

std::vector<uint8_t> FingerUnit::packet(const Command& c, Time now) {
    if (profile_.type != "ef01" || c.data.empty()) return {};
    const int step = step_of(c.data[0]);
    if (step == 0) return answer(0x01);
    if (step == 1) ++captures_;
    if (auto f = failure(step)) {
        if (*f < 0) return {};
        if (*f > 0) return answer(static_cast<uint8_t>(*f));
    }
    if (step == 1) return answer(finger_on(now) ? 0x00 : profile_.no_finger_code);
    if (step == 6) return upload();
    return answer(0x00);
}

}  // namespace kolt::sim
