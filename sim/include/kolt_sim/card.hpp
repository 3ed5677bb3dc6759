// A simulated IC card: answers APDUs from a JSON card profile.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace kolt::sim {

class Card {
public:
    virtual ~Card() = default;

    // Loads a card profile (JSON). Throws std::runtime_error on a bad profile.
    static std::shared_ptr<Card> from_file(const std::string& path);
    static std::shared_ptr<Card> from_json(const std::string& text);

    // Power-on: resets the card's session state and returns its ATR.
    virtual std::vector<uint8_t> power_on() = 0;
    // One command APDU in, response data followed by SW1 SW2 out.
    virtual std::vector<uint8_t> exchange(std::span<const uint8_t> apdu) = 0;
    // Every APDU the card received since creation or the last clear.
    virtual std::vector<std::vector<uint8_t>> apdus() const = 0;
    virtual void clear_apdus() = 0;
};

}  // namespace kolt::sim
