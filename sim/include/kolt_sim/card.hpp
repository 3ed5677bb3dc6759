// A simulated IC card: answers APDUs from a JSON card profile.
//
// Card profiles live in sim/cards/*.json; their format is described in
// sim/cards/README.md. ProfileCard is the one implementation: a payment
// card with an optional payment system directory (1PAY.SYS.DDF01) and one or
// more applications, each with its FCI, GET PROCESSING OPTIONS answer,
// records, GET DATA values, transaction log and GENERATE AC answer.
//
// The simulator keeps its own BER-TLV and hex helpers (namespace ber below);
// they share no code with the driver library, so that a mistake on one side
// shows up as a disagreement with the other.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
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

    // Power-off: ends the card session (selection, GPO and cryptogram state,
    // the ARQC and the issuer authentication are forgotten; the ATC, the
    // locked state and PUT DATA values are card data and stay). A card that is not powered answers every APDU with
    // 6F00. Optional for the reader to call; power_on() resets as well.
    virtual void power_off() {}
};

// ---------------------------------------------------------------------------
// BER-TLV and hex helpers of the simulator.
namespace ber {

using Bytes = std::vector<uint8_t>;

// Hex digit text to bytes; blanks (space, tab, newline) are ignored.
// Throws std::invalid_argument on any other non-hex character or an odd
// number of digits.
Bytes from_hex(std::string_view text);
// Upper-case hex digits, no separators.
std::string to_hex(std::span<const uint8_t> bytes);

// Tags are held as integers of their bytes, big-endian: 0x5A, 0x9F4D, 0xBF0C.
// Encodes a tag (1 to 3 bytes) to its bytes.
Bytes tag_bytes(uint32_t tag);
// Reads a tag written as hex text ("9F4D") and checks it is a well-formed
// BER tag of 1 to 3 bytes. Throws std::invalid_argument otherwise.
uint32_t parse_tag_text(std::string_view text);
bool is_constructed(uint32_t tag);

// Definite length in the shortest form (1, 2 (81 xx), 3 (82 xx xx) or
// 4 (83 xx xx xx) bytes).
Bytes length_bytes(size_t length);
// Tag, length and value.
Bytes encode(uint32_t tag, std::span<const uint8_t> value);
void append(Bytes& out, uint32_t tag, std::span<const uint8_t> value);

struct Item {
    uint32_t tag = 0;
    size_t offset = 0;        // of the tag, within the parsed buffer
    size_t header_size = 0;   // tag and length bytes
    std::span<const uint8_t> value;
    size_t size() const { return header_size + value.size(); }
};

// Splits a buffer into consecutive data objects that must tile it exactly.
// Padding bytes 00 and FF between objects are skipped, as BER allows.
// Returns nullopt on a malformed buffer (bad tag, bad length, value past
// the end).
std::optional<std::vector<Item>> parse(std::span<const uint8_t> buffer);
// Searches for a tag, descending into constructed objects only. Returns
// the value of the first occurrence in document order, or nullopt (also
// when the buffer does not parse).
std::optional<std::span<const uint8_t>> find(std::span<const uint8_t> buffer, uint32_t tag);

// A data object list (PDOL, CDOL1, CDOL2, log format): tag and one-byte
// length pairs.
struct DolEntry {
    uint32_t tag = 0;
    size_t length = 0;
};
std::optional<std::vector<DolEntry>> parse_dol(std::span<const uint8_t> dol);
// Sum of the lengths of a data object list, or nullopt when it is malformed.
std::optional<size_t> dol_length(std::span<const uint8_t> dol);

}  // namespace ber

// ---------------------------------------------------------------------------
// A canned answer in place of the card's own, for error paths. It applies
// to commands whose INS equals `ins` (when set) and whose bytes begin with
// `prefix` (when not empty). The first `after` matching commands are
// answered normally; then the next `times` (unset: all) get `response`.
struct ResponseOverride {
    std::optional<uint8_t> ins;
    std::vector<uint8_t> prefix;
    std::vector<uint8_t> response;  // response data followed by SW1 SW2
    unsigned after = 0;
    std::optional<unsigned> times;

    static ResponseOverride for_ins(uint8_t ins, uint16_t sw);
    static ResponseOverride for_prefix(std::span<const uint8_t> prefix, uint16_t sw);
};

// The card described by a JSON profile. All members may be called from
// any thread.
class ProfileCard final : public Card {
public:
    // Throw std::runtime_error naming the offending key on a bad profile
    // (unreadable file, JSON syntax, unknown key, wrong type, bad hex,
    // values out of range or too long for a short APDU response).
    static std::shared_ptr<ProfileCard> load_file(const std::string& path);
    static std::shared_ptr<ProfileCard> load_json(const std::string& text);
    // One of the shipped cards by name: <shipped_cards_dir()>/<name>.json.
    static std::shared_ptr<ProfileCard> shipped(const std::string& name);
    // The directory of the shipped card profiles: $KOLT_SIM_CARD_DIR when
    // set, otherwise sim/cards of the source tree this was built from.
    static std::string shipped_cards_dir();

    ~ProfileCard() override;
    ProfileCard(const ProfileCard&) = delete;
    ProfileCard& operator=(const ProfileCard&) = delete;

    std::vector<uint8_t> power_on() override;
    void power_off() override;
    std::vector<uint8_t> exchange(std::span<const uint8_t> apdu) override;
    std::vector<std::vector<uint8_t>> apdus() const override;
    void clear_apdus() override;

    // The responses, parallel to apdus() (also emptied by clear_apdus()).
    std::vector<std::vector<uint8_t>> responses() const;

    std::string name() const;
    std::string description() const;
    // "contact", "contactless" or "dual", as the profile states.
    std::string interface_kind() const;
    std::vector<uint8_t> atr() const;
    bool powered() const;

    // Error paths. Overrides added here are consulted before those of the
    // profile, the latest first.
    void override_sw(uint8_t ins, uint16_t sw);
    void override_sw(std::span<const uint8_t> apdu_prefix, uint16_t sw);
    void add_override(ResponseOverride override_rule);
    // Removes the overrides added through this interface (the profile's stay).
    void clear_overrides();

    // Changes the card's data between transactions. An empty AID means the
    // first application of the profile. Throws std::invalid_argument when no
    // application has that AID.
    void set_get_data(uint32_t tag, std::vector<uint8_t> value, std::span<const uint8_t> aid = {});
    void remove_get_data(uint32_t tag, std::span<const uint8_t> aid = {});
    // Locked applications answer SELECT with 6283 (and still return their FCI).
    void set_locked(bool locked, std::span<const uint8_t> aid = {});
    bool locked(std::span<const uint8_t> aid = {}) const;

    // Whether EXTERNAL AUTHENTICATE has accepted the issuer's ARPC for the
    // ARQC of this card session (until power-off or power-on).
    bool issuer_authenticated() const;

private:
    struct Impl;
    explicit ProfileCard(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

}  // namespace kolt::sim
