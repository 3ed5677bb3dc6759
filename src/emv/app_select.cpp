// Application selection and initiation.
#include "emv/app_select.hpp"

#include <algorithm>
#include <cstring>
#include <string>

#include "device/icc.hpp"
#include "emv/dol.hpp"
#include "emv/tags.hpp"
#include "kolt/kolt.h"
#include "support/hex.hpp"
#include "support/log.hpp"
#include "support/random.hpp"

namespace kolt::emv {

namespace {

using device::CardReply;
using device::kSwOk;
using device::log_sw;

constexpr uint8_t kTagSfi[] = {0x88};
constexpr uint8_t kTagAid[] = {0x4F};
constexpr uint8_t kTagPdol[] = {0x9F, 0x38};
constexpr uint8_t kTagLogEntry[] = {0x9F, 0x4D};
constexpr uint8_t kTagFormat1[] = {0x80};
constexpr uint8_t kTtq[] = {0x9F, 0x66};

// Records of the directory are read one by one; P1 names at most 255.
constexpr int kLastRecordNumber = 255;

struct Directory {
    int32_t result = 0;              // 0, -2 or -3
    std::vector<uint8_t> candidate;  // first 4F of the last record read
};

// SELECT of 1PAY.SYS.DDF01 and the walk through its records. The
// application chosen is the first entry of the last record that answered
// 0x9000; priority indicators are not consulted.
Directory read_directory(uint32_t slot, uint32_t timeout, const char* log_name) {
    Directory dir;
    CardReply reply;
    const int32_t rc = device::apdu_hex(slot, kSelectPse, reply.room(), reply.length, timeout);
    std::string text = std::string(log_name) + " CAPDU_Select_1PAYSYSDDF01=%d";
    log::debug_int(text.c_str(), rc);
    if (rc != OK) {
        dir.result = kInitPseDeviceError;
        return dir;
    }
    const auto sfi = find_tag(reply.data(), kTagSfi, 0);
    if (!sfi || sfi->empty()) {
        dir.result = kInitPseNoSfi;
        return dir;
    }
    const uint8_t sfi_value = (*sfi)[0];
    text = std::string(log_name) + " cSfi = %d";
    log::debug_int(text.c_str(), sfi_value);

    for (int record = 1; record <= kLastRecordNumber; ++record) {
        CardReply rec;
        const uint32_t sw = device::read_record(slot, static_cast<uint8_t>(record), sfi_value, rec, timeout);
        if (sw != kSwOk) break;  // normally 6A83 after the last record
        const auto aid = find_tag(rec.data(), kTagAid, 0);
        if (aid) {
            dir.candidate.assign(aid->begin(), aid->end());
        } else {
            dir.candidate.clear();
        }
    }
    return dir;
}

bool contains_ttq(std::span<const uint8_t> pdol) {
    return std::search(pdol.begin(), pdol.end(), std::begin(kTtq), std::end(kTtq)) != pdol.end();
}

int32_t finish(int32_t result) {
    log::debug_int("KOLT_T41_InitICCardApp nRet=%d", result);
    return result;
}

// Power-on of the slot; the slot that answered becomes the card's slot.
// 0, or the initiation result of the failure.
int32_t power_on_card(uint32_t slot, uint32_t timeout) {
    int32_t slot_used = state().slot();
    const int32_t power = device::power_on(slot, timeout, &slot_used);
    state().set_slot(slot_used);
    log::debug_int("KOLT_T41_InitICCardApp KOLT_T41_ICC_Poweron flag=%d", power);
    if (power == Revdata_Error || power == ICC_No_Response) return kInitNoResponse;
    if (power == ICC_Contact_Not_Insert) return ICC_Contact_Not_Insert;
    if (power != OK) return kInitPowerOnFailed;
    return 0;
}

// The caller's candidates, in order: true when one answered 0x9000 (its
// SELECT reply in select).
bool select_candidate(uint32_t card, std::span<const uint8_t> candidates, uint32_t timeout, CardReply& select) {
    for (const auto& aid : parse_candidates(candidates)) {
        const uint32_t sw = device::select_aid(card, aid, select, timeout);
        log_sw("KOLT_T41_InitICCardApp KOLT_T41_ICC_Select_Aid sw=%x", sw);
        if (sw == kSwOk) return true;
    }
    return false;
}

// Selection through the payment system directory.
struct DirectorySelection {
    int32_t result = 0;          // 0, kInitAppLocked, or a failure to end with
    bool locked_contact = false; // a locked contact application: GPO with the standard PDOL
};
DirectorySelection select_from_directory(uint32_t card, bool contactless, uint32_t timeout, CardReply& select) {
    DirectorySelection sel;
    const Directory dir = read_directory(card, timeout, "KOLT_T41_InitICCardApp");
    if (dir.result != 0) {
        sel.result = dir.result;
        return sel;
    }
    const uint32_t sw = device::select_aid(card, dir.candidate, select, timeout);
    log_sw("KOLT_T41_InitICCardApp KOLT_T41_ICC_Select_Aid sw=%x", sw);
    if (sw == APDU_App_Locked) {
        sel.result = kInitAppLocked;
        // A locked contact application gets the standard PDOL's own bytes as
        // GPO data, unfilled; the card refuses it and the call reports the lock.
        sel.locked_contact = !contactless;
    } else if (sw != kSwOk) {
        sel.result = kInitSelectFailed;
    }
    return sel;
}

// PDOL data and the log entry from the SELECT reply; a contactless card
// must ask for the terminal transaction qualifiers. 0, or kInitNo9F66.
int32_t read_fci(std::span<const uint8_t> fci, bool contactless, std::span<const uint8_t, 4> random, AppInit& out,
                 std::vector<uint8_t>& gpo_data) {
    const auto pdol = find_tag(fci, kTagPdol, 0);
    const auto log_entry = find_tag(fci, kTagLogEntry, 0);
    if (log_entry) {
        const std::size_t n = std::min(log_entry->size(), out.log_entry.size());
        std::copy_n(log_entry->begin(), n, out.log_entry.begin());
        out.log_entry_len = static_cast<int32_t>(n);
    } else {
        out.log_entry_len = -1;
    }
    if (pdol && !pdol->empty()) {
        std::array<uint8_t, kDolRoom> data{};
        int32_t len = 0;
        build_dol(*pdol, random, data, len);
        gpo_data.assign(data.begin(), data.begin() + len);
    }
    if (contactless) {
        const bool has_ttq = pdol && contains_ttq(*pdol);
        const std::string pdol_hex = pdol ? support::to_hex_upper(*pdol) : std::string();
        log::debug_text("KOLT_T41_InitICCardApp x9F x66 %s", pdol_hex.c_str());
        if (!has_ttq) return kInitNo9F66;
    }
    return 0;
}

// GET PROCESSING OPTIONS; only the format-1 reply (tag 80) is read. Any
// answer other than 0x9000 leaves the result as it is: the commands that
// follow fail instead. 0, or kInitGpoNotFormat1.
int32_t get_processing_options(uint32_t card, std::span<const uint8_t> gpo_data, AppInit& out) {
    CardReply gpo;
    const uint32_t sw = device::set_gpo(card, gpo_data, gpo, kGpoTimeout);
    log_sw("KOLT_T41_InitICCardApp KOLT_T41_ICC_SetGPO sw=%x", sw);
    if (sw != kSwOk) return 0;
    const auto value = find_tag(gpo.data(), kTagFormat1, 0);
    if (!value) return kInitGpoNotFormat1;
    const std::size_t n = std::min(value->size(), out.aip_afl.size());
    std::copy_n(value->begin(), n, out.aip_afl.begin());
    out.afl_count = n >= 2 ? static_cast<int32_t>((n - 2) / 4) : 0;
    if (n >= 2) set_slot_text(kAip, support::to_hex_upper(value->first(2)));
    return 0;
}

int32_t run_init(uint32_t timeout, uint32_t slot, std::span<const uint8_t> candidates, AppInit& out) {
    log::debug_text("KOLT_T41_InitICCardApp......%s", "");
    out.aip_afl.fill(0);
    out.afl_count = 0;
    out.log_entry_len = 0;
    uint8_t random[4] = {};
    support::random_bytes(random);

    if (const int32_t power = power_on_card(slot, timeout)) return finish(power);
    const auto card = static_cast<uint32_t>(state().slot());
    const bool contactless = card == device::kSlotRf;

    CardReply select;
    DirectorySelection sel;
    if (!select_candidate(card, candidates, timeout, select)) {
        sel = select_from_directory(card, contactless, timeout, select);
        if (sel.result != 0 && sel.result != kInitAppLocked) return finish(sel.result);
    }
    std::vector<uint8_t> gpo_data;
    if (sel.locked_contact) {
        gpo_data = support::from_hex(ContactStandardPDOL);
    } else if (const int32_t fci = read_fci(select.data(), contactless, random, out, gpo_data)) {
        return finish(fci);
    }
    if (const int32_t gpo = get_processing_options(card, gpo_data, out)) return finish(gpo);
    return finish(sel.result);
}

}  // namespace

std::vector<std::vector<uint8_t>> parse_candidates(std::span<const uint8_t> list) {
    std::vector<std::vector<uint8_t>> out;
    if (list.empty()) return out;
    const int count = list[0];
    std::size_t pos = 1;
    for (int i = 0; i < count && pos < list.size(); ++i) {
        const std::size_t len = list[pos++];
        if (len > list.size() - pos) break;
        out.emplace_back(list.begin() + static_cast<std::ptrdiff_t>(pos),
                         list.begin() + static_cast<std::ptrdiff_t>(pos + len));
        pos += len;
    }
    return out;
}

std::span<const uint8_t> candidate_list_bytes(const uint8_t* list) {
    if (list == nullptr) return {};
    // The count and lengths are followed only within the room of a list:
    // a list claiming more stops there, and parse_candidates keeps the
    // candidates that are complete.
    std::size_t size = 1;
    for (int i = 0; i < list[0] && size < kCandidateListMax; ++i) size += 1u + list[size];
    return {list, std::min(size, kCandidateListMax)};
}

std::span<const uint8_t> candidate_list_text(const char* list) {
    if (list == nullptr) return {};
    return {reinterpret_cast<const uint8_t*>(list), ::strnlen(list, kCandidateListMax)};
}

int AppInit::afl_entries() const {
    constexpr int kRoom = (256 - 2) / 4;
    return std::clamp(afl_count, 0, kRoom);
}

AppInit init_app(uint32_t timeout, uint32_t slot, std::span<const uint8_t> candidates) {
    AppInit out;
    out.result = run_init(timeout, slot, candidates, out);
    return out;
}

AppInit init_app_psbc(uint32_t timeout, uint32_t slot, std::string_view aid_text) {
    // One candidate from the hex text, or an empty list.
    std::vector<uint8_t> list = {0};
    if (!aid_text.empty()) {
        std::vector<uint8_t> aid = support::from_hex(aid_text);
        aid.resize(std::min<std::size_t>(aid_text.size() / 2, 255));
        list = {1, static_cast<uint8_t>(aid.size())};
        list.insert(list.end(), aid.begin(), aid.end());
    }
    return init_app(timeout, slot, list);
}

namespace {
int32_t copy_init(const AppInit& a, std::span<uint8_t, 256> aip_afl, int32_t& afl_count,
                  std::span<uint8_t, 256> log_entry, int32_t& log_entry_len) {
    std::copy(a.aip_afl.begin(), a.aip_afl.end(), aip_afl.begin());
    afl_count = a.afl_count;
    if (a.log_entry_len > 0) std::copy_n(a.log_entry.begin(), a.log_entry_len, log_entry.begin());
    log_entry_len = a.log_entry_len;
    return a.result;
}
}  // namespace

int32_t init_icc_app(uint32_t timeout, uint32_t slot, const uint8_t* aid_list, std::span<uint8_t, 256> aip_afl,
                     int32_t& afl_count, std::span<uint8_t, 256> log_entry, int32_t& log_entry_len) {
    return copy_init(init_app(timeout, slot, candidate_list_bytes(aid_list)), aip_afl, afl_count, log_entry,
                     log_entry_len);
}

int32_t init_icc_app_psbc(uint32_t timeout, uint32_t slot, const char* aid_text, std::span<uint8_t, 256> aip_afl,
                          int32_t& afl_count, std::span<uint8_t, 256> log_entry, int32_t& log_entry_len) {
    const std::string_view text = aid_text == nullptr ? std::string_view() : std::string_view(aid_text);
    return copy_init(init_app_psbc(timeout, slot, text), aip_afl, afl_count, log_entry, log_entry_len);
}

int32_t card_app_state(uint32_t slot) {
    log::debug_text("KOLT_T41_IsLockCardApp......%s", "");
    const Directory dir = read_directory(slot, kGpoTimeout, "KOLT_T41_IsLockCardApp");
    if (dir.result != 0) {
        log::debug_int("KOLT_T41_IsLockCardApp nRet=%d", dir.result);
        return dir.result;
    }
    CardReply select;
    const uint32_t sw = device::select_aid(slot, dir.candidate, select, kGpoTimeout);
    log_sw("KOLT_T41_IsLockCardApp KOLT_T41_ICC_Select_Aid sw=%x", sw);
    return static_cast<int32_t>(sw);
}

}  // namespace kolt::emv
