// Application selection and initiation: power the card on, select the
// payment application (from the caller's candidate list, else through the
// payment system directory 1PAY.SYS.DDF01), build the PDOL data, issue GET
// PROCESSING OPTIONS and keep the AIP, the AFL and the log entry.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace kolt::emv {

// Result codes of application initiation (besides 0 and
// ICC_Contact_Not_Insert, which is passed through).
inline constexpr int32_t kInitPowerOnFailed = -1;
inline constexpr int32_t kInitPseDeviceError = -2;
inline constexpr int32_t kInitPseNoSfi = -3;
inline constexpr int32_t kInitSelectFailed = -4;
inline constexpr int32_t kInitNo9F66 = -5;
inline constexpr int32_t kInitGpoNotFormat1 = -6;
inline constexpr int32_t kInitAppLocked = -7;
inline constexpr int32_t kInitNoResponse = -12;

// Time-out of GET PROCESSING OPTIONS and of the application-state check.
inline constexpr uint32_t kGpoTimeout = 6;

// The SELECT of the payment system directory, as sent.
inline constexpr const char* kSelectPse = "00 A4 04 00 0E 31 50 41 59 2E 53 59 53 2E 44 44 46 30 31";

// Candidate AID list: byte 0 the count, then per candidate one length byte
// and the AID. Decoded within the bytes given; a list that ends early keeps
// the candidates that are complete.
std::vector<std::vector<uint8_t>> parse_candidates(std::span<const uint8_t> list);
// Room of a candidate list: 256 bytes.
inline constexpr std::size_t kCandidateListMax = 256;
// The bytes of a binary list given by pointer (its count and lengths tell
// its end, never beyond kCandidateListMax bytes); empty for a null pointer.
std::span<const uint8_t> candidate_list_bytes(const uint8_t* list);
// The bytes of a list handed in as a text argument: up to its terminating
// zero, never beyond kCandidateListMax bytes; empty for a null pointer.
std::span<const uint8_t> candidate_list_text(const char* list);

// Everything application initiation hands back.
struct AppInit {
    int32_t result = 0;                    // 0, or a code above
    std::array<uint8_t, 256> aip_afl{};    // value of 80: AIP (2 bytes), then AFL entries of 4 bytes
    int32_t afl_count = 0;                 // (value length - 2) / 4
    std::array<uint8_t, 256> log_entry{};  // value of 9F4D (log SFI, number of records)
    int32_t log_entry_len = 0;             // -1 when the application has none

    std::span<const uint8_t> aip() const { return std::span<const uint8_t>(aip_afl).first(2); }
    // AFL entry i (SFI*8, first record, last record, offline records).
    std::span<const uint8_t, 4> afl_entry(int i) const {
        return std::span<const uint8_t, 4>(aip_afl.data() + 2 + 4 * static_cast<std::size_t>(i), 4);
    }
    // Entries that fit in the buffer (at most 63).
    int afl_entries() const;
};

// KOLT_T41_InitICCardApp: power-on of slot (0x00, 0x01, 0x02 = contact
// then contactless, 0xFF), which sets ssICType; every later command goes to
// ssICType. candidates empty: directory selection only.
AppInit init_app(uint32_t timeout, uint32_t slot, std::span<const uint8_t> candidates);
// KOLT_T41_InitICCardApp_PSBC: the candidate as hex text (empty: none).
AppInit init_app_psbc(uint32_t timeout, uint32_t slot, std::string_view aid_text);

// The same with the outputs as separate buffers (the exported form).
int32_t init_icc_app(uint32_t timeout, uint32_t slot, const uint8_t* aid_list, std::span<uint8_t, 256> aip_afl,
                     int32_t& afl_count, std::span<uint8_t, 256> log_entry, int32_t& log_entry_len);
int32_t init_icc_app_psbc(uint32_t timeout, uint32_t slot, const char* aid_text, std::span<uint8_t, 256> aip_afl,
                          int32_t& afl_count, std::span<uint8_t, 256> log_entry, int32_t& log_entry_len);

// KOLT_T41_ICC_GetCardAppState: on a powered card, selects the directory's
// application and returns the card's status word (0x9000, 0x6283 locked),
// -2 when the directory SELECT fails at device level, -3 without an SFI.
int32_t card_app_state(uint32_t slot);

}  // namespace kolt::emv
