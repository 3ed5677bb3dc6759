// The data of a card profile, as read from JSON (card_profile.cpp) and
// played by ProfileCard (card.cpp).
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "kolt_sim/card.hpp"

namespace kolt::sim::card_detail {

using Bytes = std::vector<uint8_t>;

constexpr uint16_t kSwOk = 0x9000;
constexpr uint16_t kSwLocked = 0x6283;
// Largest response data that fits, with SW1 SW2, in the 256-byte response
// buffers of a short-APDU reader.
constexpr size_t kMaxResponseData = 254;

struct PseProfile {
    Bytes name;                // DF name, "1PAY.SYS.DDF01" by default
    Bytes fci;                 // complete answer to SELECT
    uint16_t select_sw = kSwOk;
    uint8_t sfi = 1;           // of the directory records
    std::vector<Bytes> records;  // record 1, 2, ...
};

struct LogProfile {
    uint8_t sfi = 11;
    Bytes format;              // log format (9F4F value)
    std::vector<Bytes> records;  // record 1, 2, ...
    unsigned announced = 0;    // record count in the log entry 9F4D
};

struct GenerateAcProfile {
    int format = 1;            // 1: template 80, 2: template 77
    Bytes iad;                 // issuer application data, 9F10
    std::optional<Bytes> cryptogram;  // fixed 9F26; otherwise derived
    std::optional<uint8_t> cid;       // fixed 9F27; otherwise from P1
};

// The issuer's master keys the card derives its own keys from: for the
// application cryptogram and for the integrity of issuer script commands.
struct IssuerMasterKeys {
    Bytes ac = ber::from_hex("0123456789ABCDEFFEDCBA9876543210");
    Bytes smi = ber::from_hex("FEDCBA98765432100123456789ABCDEF");
};

struct AppProfile {
    Bytes aid;
    Bytes fci;                 // complete answer to SELECT (6F ...)
    uint16_t select_sw = kSwOk;
    std::optional<Bytes> pdol;
    // GET PROCESSING OPTIONS: response data (80 ... or 77 ...) and status.
    Bytes gpo_response;
    uint16_t gpo_sw = kSwOk;
    std::map<std::pair<uint8_t, uint8_t>, Bytes> records;  // (SFI, record) -> bytes
    std::map<uint32_t, Bytes> get_data;                     // tag -> value
    std::optional<LogProfile> log;
    GenerateAcProfile generate_ac;
    std::optional<Bytes> cdol1, cdol2;  // found in the records
    // The application's own keys ("issuer_keys"); absent: the card's.
    std::optional<IssuerMasterKeys> issuer_keys;
};

struct CardProfile {
    std::string name;
    std::string description;
    std::string interface_kind = "contact";
    Bytes atr;
    bool check_dol_lengths = true;
    std::optional<PseProfile> pse;
    std::vector<AppProfile> apps;
    std::vector<ResponseOverride> overrides;
    IssuerMasterKeys issuer_keys;  // for the applications without their own
};

// Throws std::runtime_error naming the offending key.
CardProfile parse_profile(const std::string& json_text);

}  // namespace kolt::sim::card_detail
