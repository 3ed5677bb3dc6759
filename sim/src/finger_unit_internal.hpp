// The fingerprint sensor of the unit, in one of its two variants: the
// framed sensor (class 0x37 of the main frame: 0x93 init, 0x96 capture) or
// the module that speaks EF01 packets on the same line. Which one is there
// comes from the profile ("none": neither answers). A finger lies on the
// sensor from a given moment on (place) until it is lifted.
//
// Not thread-safe on its own: the simulator calls it under its lock.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <vector>

#include "kolt_sim/simulator.hpp"

namespace kolt::sim {

// The simulator's own EF01 packet codec.
namespace ef01 {
// The sum of identifier, length field and payload.
uint16_t sum(uint8_t pid, std::span<const uint8_t> payload);
// A whole packet: EF 01, address FF FF FF FF, pid, length, payload, sum.
// length_extra is added to the length field (a packet that lies).
std::vector<uint8_t> packet(uint8_t pid, std::span<const uint8_t> payload, int length_extra = 0);
}  // namespace ef01

class FingerUnit {
public:
    using Time = std::chrono::steady_clock::time_point;

    FingerUnit(FingerProfile profile, Time now);

    const std::string& type() const { return profile_.type; }
    void set_type(std::string type) { profile_.type = std::move(type); }

    // A finger with these features from `at` on (empty: the profile's).
    void place(std::vector<uint8_t> features, Time at);
    void lift() { finger_at_.reset(); }
    bool finger_on(Time now) const { return finger_at_ && now >= *finger_at_; }

    // Step 1..7 (capture, generate, store, load, merge, upload, data)
    // answers with code: a confirmation (or status) code; below 0 no answer.
    void set_failure(int step, int code) { failures_[step] = code; }
    void clear_failures() { failures_.clear(); }
    int captures() const { return captures_; }

    // A framed command (class 0x37); nullopt: no answer.
    std::optional<Reply> framed(const Command& c, Time now);
    // An EF01 packet; the bytes to send back (empty: no answer).
    std::vector<uint8_t> packet(const Command& c, Time now);

private:
    std::optional<int> failure(int step) const;
    std::vector<uint8_t> answer(uint8_t code) const;
    std::vector<uint8_t> upload() const;

    FingerProfile profile_;
    std::vector<uint8_t> features_;
    std::optional<Time> finger_at_;
    std::map<int, int> failures_;
    int captures_ = 0;
};

}  // namespace kolt::sim
