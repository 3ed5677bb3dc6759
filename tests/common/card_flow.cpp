#include "common/card_flow.hpp"

#include <cstdio>
#include <functional>

#include <cstdio>
#include <span>

#include "kolt/kolt.h"
#include "support/log.hpp"

namespace kolt::test {

using kolt::sim::Card;
using kolt::sim::Command;

namespace {

bool is_read_record(std::span<const uint8_t> apdu) {
    return apdu.size() >= 4 && apdu[0] == 0x00 && apdu[1] == 0xB2;
}

}  // namespace

std::shared_ptr<kolt::sim::ProfileCard> load_card(const std::string& name) {
    std::string stem = name;
    const std::string suffix = ".json";
    if (stem.size() > suffix.size() && stem.compare(stem.size() - suffix.size(), suffix.size(), suffix) == 0)
        stem.resize(stem.size() - suffix.size());
    return kolt::sim::ProfileCard::shipped(stem);
}

const std::vector<ShippedCard>& shipped_cards() {
    static const std::vector<ShippedCard> cards = {
        {"pboc_debit", false, 0, "6299990000001234560", "LI/SIMING", "6299990000001234560D30122201234567890F",
         "301231", "01"},
        {"qpboc_contactless", true, 0, "6299990000002468019", "WANG/XIAOHONG",
         "6299990000002468019D29112201234567890F", "291130", "01"},
        // Locked: the selection reports it and goes on.
        {"app_locked", false, -7, "6299990000005550003", "ZHAO/LEI", "6299990000005550003D28062201234567890F",
         "280630", "01"},
        // The name (SFI 11) and the sequence number (SFI 12) are never read.
        {"afl_high_sfi", false, 0, "6299990000010065", "", "6299990000010065D30012201234567890", "300131", ""},
        {"candidate_missing", false, 0, "6299990000010107", "TEST/CARD", "6299990000010107D30012201234567890",
         "300131", "01"},
        // The directory's last record decides: application two.
        {"directory_two_records", false, 0, "6299990000010081", "TEST/CARD", "6299990000010081D30012201234567890",
         "300131", "01"},
        // GPO refused: no AFL, nothing read, yet no error.
        {"gpo_6985", false, 0, "", "", "", "", ""},
        {"gpo_format2", false, -6, "", "", "", "", ""},
        {"contactless_pdol_without_9f66", true, -5, "", "", "", "", ""},
        {"log_format_9f21", false, 0, "6299990000010057", "TEST/CARD", "6299990000010057D30012201234567890",
         "300131", "01"},
        {"log_short", false, 0, "6299990000010040", "TEST/CARD", "6299990000010040D30012201234567890", "300131",
         "01"},
        {"no_log_entry", false, 0, "6299990000007770005", "SUN/MEI", "6299990000007770005D31022201234567890F",
         "310228", "01"},
    };
    return cards;
}

void PrintTo(const ShippedCard& card, std::ostream* os) { *os << card.name; }

const std::vector<SelectionFailure>& selection_failures() {
    static const std::vector<SelectionFailure> failures = {
        {"no_card", ICC_Contact_Not_Insert, [](kolt::sim::Simulator&) {}},
        {"power_on_failed", -1,
         [](kolt::sim::Simulator& sim) {
             sim.set_contact_card(load_card("pboc_debit"));
             sim.set_status(0x32, 0x22, 0x10, 0x05);  // contact power-on failed
         }},
        {"card_not_answering", -12,
         [](kolt::sim::Simulator& sim) {
             sim.set_contact_card(load_card("pboc_debit"));
             sim.set_status(0x32, 0x22, 0x10, 0x06);  // ICC_No_Response
         }},
        {"application_locked", -7, [](kolt::sim::Simulator& sim) { sim.set_contact_card(load_card("app_locked")); }},
        {"gpo_format2", -6, [](kolt::sim::Simulator& sim) { sim.set_contact_card(load_card("gpo_format2")); }},
    };
    return failures;
}

void PrintTo(const SelectionFailure& failure, std::ostream* os) { *os << failure.name; }

std::string field(char letter, const std::string& value) {
    char head[8];
    std::snprintf(head, sizeof head, "%c%03d", letter, static_cast<int>(value.size()));
    return head + value;
}

std::vector<std::string> apdus_hex(const Card& card) {
    std::vector<std::string> out;
    for (const auto& a : card.apdus()) out.push_back(to_hex(a));
    return out;
}

std::vector<std::pair<int, int>> afl_reads(const Card& card) {
    std::vector<std::pair<int, int>> reads;
    for (const auto& a : card.apdus()) {
        if (a.size() >= 2 && a[0] == 0x80 && a[1] == 0xA8) reads.clear();
        if (is_read_record(a)) reads.emplace_back(a[2], a[3] >> 3);
    }
    return reads;
}

std::vector<std::pair<int, int>> reads_of_sfi(const Card& card, int sfi) {
    std::vector<std::pair<int, int>> reads;
    for (const auto& a : card.apdus())
        if (is_read_record(a) && (a[3] >> 3) == sfi) reads.emplace_back(a[2], sfi);
    return reads;
}

std::vector<int> get_data_tags(const Card& card) {
    std::vector<int> tags;
    for (const auto& a : card.apdus())
        if (a.size() >= 4 && a[0] == 0x80 && a[1] == 0xCA) tags.push_back(a[2] << 8 | a[3]);
    return tags;
}

std::vector<std::string> commands(const kolt::sim::Simulator& sim) {
    std::vector<std::string> out;
    for (const Command& c : sim.transcript()) {
        if (c.framing != kolt::sim::Framing::Main) continue;
        out.push_back(to_hex(&c.cls, 1) + " " + to_hex(&c.code, 1) + " " + to_hex(c.data));
    }
    return out;
}

bool sent(const kolt::sim::Simulator& sim, uint8_t cls, uint8_t code) {
    for (const Command& c : sim.transcript())
        if (c.framing == kolt::sim::Framing::Main && c.cls == cls && c.code == code) return true;
    return false;
}

void fail_read_record(kolt::sim::Simulator& sim, int sfi, int record) {
    auto matches = [sfi, record](const Command& c) {
        if (c.data.empty()) return false;
        const std::span<const uint8_t> apdu(c.data.data() + 1, c.data.size() - 1);
        return is_read_record(apdu) && (apdu[3] >> 3) == sfi && (record <= 0 || apdu[2] == record);
    };
    sim.inject_when(0x32, 0x26, matches, kolt::sim::Fault{kolt::sim::Fault::BadCheck}, -1);
}

std::string log_record(const std::string& amount, const std::string& date, const std::string& type,
                       const std::string& time, std::string merchant, int atc) {
    merchant.resize(20, ' ');
    char x[16];
    std::snprintf(x, sizeof x, "%04d", atc);
    return "P012" + amount + "Q012000000000000" + "R0040156" + "S006" + date + "T002" + type + "U006" + time +
           "V0040156" + "W020" + merchant + "X004" + x;
}

ErrorLogTail::ErrorLogTail() : path_(kolt::log::file_in(kolt::log::error_dir())) {
    start_ = read_file(path_).size();
}

std::string ErrorLogTail::text() const {
    const std::string all = read_file(path_);
    return all.size() > start_ ? all.substr(start_) : std::string();
}

void expect_logged(const std::string& log, const std::vector<std::string>& lines) {
    for (const std::string& line : lines) EXPECT_NE(log.find("] " + line + "\n"), std::string::npos) << line;
}

namespace {
kolt::sim::Options terminal_options(int port) {
    kolt::sim::Options options;
    options.terminal.type = 1;
    options.terminal.port = port;
    return options;
}
}  // namespace

TerminalSimulator::TerminalSimulator(int port) : sim_(terminal_options(port)), stdin_(sim_->slave_path()) {}

// A contact card whose log (SFI 11) holds `count` records of the reference
// layout and whose log entry announces `announced`; atc(i) is the counter of
// record i (i + 1 when not given).
std::shared_ptr<kolt::sim::Card> card_with_log(int count, int announced, const std::string& format,
                                               const std::function<int(int)>& atc) {
    std::string records;
    for (int i = 0; i < count; ++i) {
        char r[256];
        std::snprintf(r, sizeof r,
                      R"(%s{"9A": "2601%02d", "9F21": "1200%02d", "9F02": "%012d", "9F4E": {"text": "SHOP %d"}, "9C": "00", "9F36": "%04X"})",
                      i == 0 ? "" : ",", i % 28 + 1, i % 60, (i + 1) * 100, i + 1, atc ? atc(i) : i + 1);
        records += r;
    }
    const std::string fmt = format.empty() ? "" : R"("format": ")" + format + R"(", )";
    return kolt::sim::Card::from_json(R"({
      "name": "custom_log", "atr": "3B 02 14 50",
      "pse": {"sfi": 1, "records": [[{"aid": "F0 4B 4F 4C 54 01 01 41"}]]},
      "applications": [{
        "aid": "F0 4B 4F 4C 54 01 01 41",
        "gpo": {"format": 1, "aip": "7C00", "afl": "08010100"},
        "records": [{"sfi": 1, "record": 1, "data": {"70": {"5A": "6299990000000031"}}}],
        "log": {"sfi": 11, )" + fmt + R"("announced": )" + std::to_string(announced) +
                           R"(, "records": [)" + records + R"(]}
      }]})");
}


}  // namespace kolt::test
