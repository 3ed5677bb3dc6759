// The card commands: card information, transaction log, ARQC and a whole
// online purchase.
#include <fcntl.h>
#include <kolt/kolt.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <sstream>

#include "cli.hpp"

extern char** environ;

namespace kolt::cli {

namespace {

// ---------------------------------------------------------------------------
// Data elements: the letters of the library's tag list and their names.

struct Element {
    char letter;
    const char* name;
    const char* meaning;
};

constexpr Element kElements[] = {
    {'A', "pan", "account number (5A)"},
    {'B', "name", "cardholder name (5F20)"},
    {'C', "id-type", "cardholder ID type (9F62)"},
    {'D', "id-number", "cardholder ID number (9F61)"},
    {'E', "track2", "track 2 equivalent data (57)"},
    {'F', "track1-discretionary", "track 1 discretionary data (9F1F)"},
    {'G', "balance", "electronic cash balance (9F79)"},
    {'H', "balance-limit", "electronic cash balance limit (9F77)"},
    {'I', "expiry", "application expiry date (5F24)"},
    {'J', "psn", "PAN sequence number (5F34)"},
    {'K', "single-limit", "electronic cash single transaction limit (9F78)"},
    {'L', "reserved-l", "no data element (always empty)"},
    {'M', "name-extended", "cardholder name extended (9F0B)"},
    {'N', "reserved-n", "no data element (always empty)"},
    {'O', "last-online-atc", "last online ATC register (9F13)"},
    {'P', "amount", "amount, authorised (9F02)"},
    {'Q', "other-amount", "amount, other (9F03)"},
    {'R', "currency", "transaction currency code (5F2A)"},
    {'S', "date", "transaction date (9A)"},
    {'T', "transaction-type", "transaction type (9C)"},
    {'U', "time", "transaction time (9F21)"},
    {'V', "country", "terminal country code (9F1A)"},
    {'W', "merchant", "merchant name and location (9F4E)"},
    {'X', "atc", "application transaction counter (9F36)"},
    {'Y', "afl-position", "AFL entry and record of the last read (no tag)"},
    {'Z', "aip", "application interchange profile (82)"},
    {'1', "tvr", "terminal verification results (95)"},
    {'2', "unpredictable-number", "unpredictable number (9F37)"},
    {'3', "cdol1", "card risk management data object list 1 (8C)"},
    {'4', "cdol2", "card risk management data object list 2 (8D)"},
};

const Element* element_of_letter(char letter) {
    for (const Element& e : kElements)
        if (e.letter == letter) return &e;
    return nullptr;
}

const Element* element_of_name(std::string_view name) {
    for (const Element& e : kElements)
        if (name == e.name) return &e;
    return nullptr;
}

// Letters of one word: a name, or tag letters ("ABEIJ"); empty when neither.
std::string letters_of_word(const std::string& word) {
    if (const Element* e = element_of_name(word)) return std::string(1, e->letter);
    if (word.empty()) return {};
    for (char c : word)
        if (element_of_letter(c) == nullptr) return {};
    return word;
}

const CLI::Validator kElementWord(
    [](std::string& word) -> std::string {
        if (letters_of_word(word).empty())
            return "unknown element \"" + word + "\" (tag letters of ABCDEFGHIJKLMNOPQRSTUVWXYZ1234, or a name: see kolt card --help)";
        return {};
    },
    "");

const CLI::Validator kHexText(
    [](std::string& text) -> std::string {
        if (text.empty() || !is_hex(text)) return "not hexadecimal bytes: \"" + text + "\"";
        return {};
    },
    "");

// Decimal digits, min_len to max_len of them, and at most max_value.
CLI::Validator digits_validator(std::size_t min_len, std::size_t max_len, const char* what,
                                long long max_value = -1) {
    return CLI::Validator(
        [=](std::string& text) -> std::string {
            if (text.size() < min_len || text.size() > max_len ||
                !std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; }) ||
                (max_value >= 0 && std::strtoll(text.c_str(), nullptr, 10) > max_value))
                return std::string(what);
            return {};
        },
        "");
}

std::string card_help_footer() {
    std::string text = "Elements (tag letter, name, meaning):\n";
    for (const Element& e : kElements) {
        char line[128];
        std::snprintf(line, sizeof line, "  %c  %-21s %s\n", e.letter, e.name, e.meaning);
        text += line;
    }
    text +=
        "Several letters may share a word (\"ABEIJ\"). Default: pan name id-type id-number expiry psn balance.\n"
        "Exit codes: see kolt --help.";
    return text;
}

// ---------------------------------------------------------------------------
// Result codes of the card calls.

const char* slot_text(int ic_type) { return ic_type == 1 ? "contactless reader" : "contact reader"; }

// A device result code (status pair mapped by the library).
Failure device_failure(int32_t device_code, int32_t rc, int ic_type) {
    switch (device_code) {
    case ICC_Contact_Not_Insert: return {kExitNothing, rc, "no card in the contact reader"};
    case ICC_Contactless_Not_Activated: return {kExitNothing, rc, "no card on the contactless reader"};
    case ICC_No_Response: return {kExitUnusable, rc, "the card does not answer"};
    case ICC_Data_Error: return {kExitUnusable, rc, "the card's answer is not usable"};
    case ICC_Contact_Poweron_Failed: return {kExitRefused, rc, "the card could not be powered on"};
    case ICC_Contact_Not_Support:
    case ICC_Contactless_Not_Support:
        return {kExitRefused, rc, std::string("the reader has no ") + slot_text(ic_type)};
    default: {
        char text[96];
        std::snprintf(text, sizeof text, "the reader refused the card operation (device result 0x%04X)",
                      static_cast<unsigned>(device_code));
        return {kExitRefused, rc, text};
    }
    }
}

// The application selection's result, as the card calls give it (minus 10).
std::optional<Failure> selection_failure(int32_t init, int32_t rc, int ic_type) {
    if (init >= Unknow_Error) return device_failure(init, rc, ic_type);
    switch (init) {
    case -1: return Failure{kExitRefused, rc, std::string("the card in the ") + slot_text(ic_type) + " could not be powered on"};
    case -2: return Failure{kExitUnusable, rc, "the card did not answer the directory selection"};
    case -3: return Failure{kExitUnusable, rc, "the card's directory names no application file"};
    case -4: return Failure{kExitUnusable, rc, "the card refused the application selection (no such application)"};
    case -5: return Failure{kExitUnusable, rc, "the contactless application asks for no terminal qualifiers (9F66)"};
    case -6: return Failure{kExitUnusable, rc, "the card's GET PROCESSING OPTIONS answer is not usable"};
    case -7: return Failure{kExitUnusable, rc, "the card's application is locked"};
    case -12: return Failure{kExitUnusable, rc, "the card did not answer the power-on"};
    default: return std::nullopt;
    }
}

Failure port_failure(int32_t rc) { return {kExitNoDevice, rc, "the port could not be opened"}; }

// The power-on failed (-11 of the card calls): on the contactless reader
// that is a card missing from the field.
Failure power_on_failure(const Globals& g, int32_t rc, int ic_type) {
    if (auto f = device_failure_after(g, rc)) return *f;
    if (ic_type == 1) return {kExitNothing, rc, "no card on the contactless reader"};
    return {kExitRefused, rc, "the card in the contact reader could not be powered on"};
}

// The card gave no answer at power-on (selection -12, card calls -22); a
// silent device gives the same.
Failure no_answer_failure(const Globals& g, int32_t rc, const char* text) {
    if (auto f = device_failure_after(g, rc)) return *f;
    return {kExitUnusable, rc, text};
}

// ICRT_GetICCInfo.
Failure card_info_failure(const Globals& g, int32_t rc, int ic_type) {
    if (rc == -21) return port_failure(rc);
    if (rc == -11) return power_on_failure(g, rc, ic_type);
    if (rc == -22) return no_answer_failure(g, rc, "the card does not answer (at power-on or reading its records)");
    if (auto f = selection_failure(rc + 10, rc, ic_type)) return *f;
    return {kExitRefused, rc, "the card information could not be read"};
}

// KOLT_ICRT_GetTrDetail.
Failure log_failure(const Globals& g, int32_t rc, int ic_type) {
    if (rc == -21) return port_failure(rc);
    if (rc == -11) return power_on_failure(g, rc, ic_type);
    if (rc == -10) return {kExitUnusable, rc, "the card's application has no transaction log"};
    if (rc == -17) return {kExitUnusable, rc, "the card's application is locked and names no transaction log"};
    if (rc == -22) return no_answer_failure(g, rc, "the card does not answer (at power-on or reading its log)");
    if (auto f = selection_failure(rc + 10, rc, ic_type)) return *f;
    if (rc < -22) return {kExitUnusable, rc, "the transaction log could not be read (its format or its records)"};
    return {kExitRefused, rc, "the transaction log could not be read"};
}

// ICRT_GetARQC.
Failure arqc_failure(const Globals& g, int32_t rc, int ic_type) {
    if (rc == -21) return port_failure(rc);
    if (rc == -11) return power_on_failure(g, rc, ic_type);
    if (rc == -25) return {kExitRefused, rc, "the card refused to generate the cryptogram (GENERATE AC)"};
    if (rc == -24) return {kExitUnusable, rc, "the card has no CDOL1, or its records could not be read"};
    if (rc == -22) return no_answer_failure(g, rc, "the card does not answer (at power-on or reading its records)");
    if (auto f = selection_failure(rc + 10, rc, ic_type)) return *f;
    if (rc < -22) return {kExitUnusable, rc, "the card's records could not be read"};
    return {kExitRefused, rc, "the cryptogram could not be generated"};
}

// ---------------------------------------------------------------------------
// Options shared by the card commands.

struct CardOptions {
    std::vector<std::string> elements;
    std::string slot = "contact";
    std::vector<std::string> aids;
};

struct TxOptions {
    std::string slot = "contact";
    std::string aid;
    std::string amount;
    std::string other_amount = "0";
    std::string currency = "156";
    std::string country;
    std::string type = "00";
    std::string date;  // YYYYMMDD or YYMMDD
    std::string time;  // HHMMSS
    std::string merchant;
    std::string issuer;  // "PROGRAM ARGS..."
};

void add_slot_option(CLI::App* sub, std::string& slot) {
    sub->add_option("--slot", slot, "Card slot: contact (IC type 0, default) or contactless (IC type 1)")
        ->check(CLI::IsMember({"contact", "contactless"}).description(""))
        ->type_name("contact|contactless");
}

void add_tx_options(CLI::App* sub, TxOptions& o) {
    add_slot_option(sub, o.slot);
    sub->add_option("--aid", o.aid, "AID of the application to select, as hex (default: the card's directory chooses)")
        ->check(kHexText)
        ->type_name("HEX");
    sub->add_option("--amount", o.amount, "Amount in minor units, e.g. 12345 for 123.45 (at most 2147483647)")
        ->required()
        ->check(digits_validator(1, 10, "the amount is minor units, at most 2147483647", 2147483647LL))
        ->type_name("N");
    sub->add_option("--other-amount", o.other_amount, "Other amount in minor units (default 0)")
        ->check(digits_validator(1, 10, "the other amount is minor units, at most 2147483647", 2147483647LL))
        ->type_name("N");
    sub->add_option("--currency", o.currency, "Currency code, numeric (default 156)")
        ->check(digits_validator(1, 4, "the currency code is 1 to 4 digits"))
        ->type_name("CODE");
    sub->add_option("--country", o.country,
                    "Terminal country code (default: the currency's code; the library takes the terminal country "
                    "from the currency, so a different one is refused)")
        ->check(digits_validator(1, 4, "the country code is 1 to 4 digits"))
        ->type_name("CODE");
    sub->add_option("--type", o.type, "Transaction type, two digits (default 00, goods and services)")
        ->check(digits_validator(2, 2, "the transaction type is two digits"))
        ->type_name("NN");
    sub->add_option("--date", o.date, "Transaction date YYYYMMDD or YYMMDD (default: today)")
        ->check(digits_validator(6, 8, "the date is YYYYMMDD or YYMMDD"))
        ->type_name("DATE");
    sub->add_option("--time", o.time, "Transaction time HHMMSS (default: now)")
        ->check(digits_validator(6, 6, "the time is HHMMSS"))
        ->type_name("HHMMSS");
    sub->add_option("--merchant", o.merchant, "Merchant name and location (9F4E), at most 20 bytes")
        ->type_name("TEXT");
}

// The IC type of --slot: 0 contact, 1 contactless.
int ic_type_of(const std::string& slot) { return slot == "contactless" ? 1 : 0; }

// Transaction data in the ICRT encoding: a letter, three digits of length,
// the value, for amount, other amount, currency, date, type, time and
// merchant.
std::string transaction_data(const Globals& g, const TxOptions& o) {
    if (!o.country.empty() && std::atoi(o.country.c_str()) != std::atoi(o.currency.c_str()))
        throw Failure{kExitUsage, 0,
                      "--country must equal --currency: the library takes the terminal country code from the currency"};
    if (o.date.size() == 7) throw Failure{kExitUsage, 0, "the date is YYYYMMDD or YYMMDD"};
    char now[32] = {0};
    GetSysDate(now);
    const std::string date = o.date.empty() ? std::string(now, 8) : o.date.size() == 6 ? "20" + o.date : o.date;
    const std::string time = o.time.empty() ? std::string(now + 8, 6) : o.time;
    std::string merchant;
    if (!o.merchant.empty()) {
        if (g.utf8_locale) {
            const auto gbk = utf8_to_gbk(o.merchant);
            if (!gbk) throw Failure{kExitUsage, 0, "the merchant name has characters without a GBK code"};
            merchant = *gbk;
        } else {
            merchant = o.merchant;
        }
        if (merchant.size() > 20) throw Failure{kExitUsage, 0, "the merchant name is longer than 20 bytes"};
    }
    auto field = [](char letter, const std::string& value) {
        char head[32];
        std::snprintf(head, sizeof head, "%c%03zu", letter, value.size());
        return head + value;
    };
    char currency[8];
    std::snprintf(currency, sizeof currency, "%04d", std::atoi(o.currency.c_str()));
    std::string tr = field('P', o.amount) + field('Q', o.other_amount) + field('R', currency) + field('S', date) +
                     field('T', o.type) + field('U', time);
    if (!merchant.empty()) tr += field('W', merchant);
    return tr;
}

// The candidate list of ICRT_GetICCInfo: a count byte, then a length byte
// and the AID for each. The call reads it as text, up to its first zero byte.
std::string candidate_list(const std::vector<std::string>& aids) {
    if (aids.empty()) return {};
    if (aids.size() > 255) throw Failure{kExitUsage, 0, "too many AIDs"};
    std::string list(1, static_cast<char>(aids.size()));
    for (const std::string& hex : aids) {
        if (hex.size() / 2 > 16 || hex.size() < 10) throw Failure{kExitUsage, 0, "an AID is 5 to 16 bytes: " + hex};
        list += static_cast<char>(hex.size() / 2);
        for (size_t i = 0; i < hex.size(); i += 2)
            list += static_cast<char>(std::strtoul(hex.substr(i, 2).c_str(), nullptr, 16));
    }
    if (list.find('\0') != std::string::npos)
        throw Failure{kExitUsage, 0,
                      "an AID with a 00 byte cannot go into the candidate list, which the library reads up to its "
                      "first zero byte"};
    return list;
}

bool is_amount_letter(char c) { return c == 'G' || c == 'H' || c == 'K' || c == 'P' || c == 'Q'; }

// ---------------------------------------------------------------------------
// card

void run_card(Globals& g, Output& out, const CardOptions& o) {
    use_port(g);
    const int ic_type = ic_type_of(o.slot);
    std::string wanted;
    const std::vector<std::string> words =
        o.elements.empty() ? std::vector<std::string>{"ABCDIJG"} : o.elements;
    for (const std::string& w : words)
        for (char c : letters_of_word(w))
            if (wanted.find(c) == std::string::npos) wanted += c;
    // The electronic-cash values come by GET DATA, asked for by other
    // letters: the balance (G) by E, its limit (H) by F, the single
    // transaction limit (K) by G. Those are asked for too; only the
    // requested letters are shown.
    std::string request = wanted;
    for (auto [value, trigger] : {std::pair{'G', 'E'}, std::pair{'H', 'F'}, std::pair{'K', 'G'}})
        if (wanted.find(value) != std::string::npos && request.find(trigger) == std::string::npos) request += trigger;
    const std::string aid_list = candidate_list(o.aids);

    std::vector<char> buf(32 * 260, 0);
    const int32_t rc = call_library(g, Wait{}, [&] {
        return ICRT_GetICCInfo(g.terminal_type, g.port_no, ic_type, aid_list.c_str(), request.c_str(), buf.data());
    });
    if (rc != 0 && rc != 10) throw card_info_failure(g, rc, ic_type);
    const auto fields = split_fields(buf.data());
    if (!fields) throw Failure{kExitUnusable, rc, "the card information could not be read from the library's answer"};

    json_int(out.root(), "result", rc);
    cJSON* elements = cJSON_AddArrayToObject(out.root(), "elements");
    if (rc == 10) Output::note("the card's application is locked; its data is shown all the same");
    out.line("%-6s %-21s %s", "letter", "name", "value");
    for (char letter : wanted) {
        const auto f = std::find_if(fields->begin(), fields->end(), [&](const Field& x) { return x.letter == letter; });
        const std::string value = f == fields->end() ? std::string() : f->value;
        const Element* e = element_of_letter(letter);
        cJSON* item = cJSON_CreateObject();
        json_string(item, "letter", std::string(1, letter));
        json_string(item, "name", e->name);
        json_string(item, "value", gbk_to_utf8(value));
        cJSON_AddItemToArray(elements, item);
        std::string text = value.empty() ? "(not on the card)" : shown(g, value);
        if (!value.empty() && is_amount_letter(letter)) text += "  (" + money(value) + ")";
        out.line("%-6c %-21s %s", letter, e->name, text.c_str());
    }
}

// ---------------------------------------------------------------------------
// log

std::string date_text(const std::string& yymmdd) {
    if (yymmdd.size() != 6) return yymmdd;
    return "20" + yymmdd.substr(0, 2) + "-" + yymmdd.substr(2, 2) + "-" + yymmdd.substr(4, 2);
}

std::string time_text(const std::string& hhmmss) {
    if (hhmmss.size() != 6) return hhmmss;
    return hhmmss.substr(0, 2) + ":" + hhmmss.substr(2, 2) + ":" + hhmmss.substr(4, 2);
}

long long number_of(const std::string& digits) { return std::strtoll(digits.c_str(), nullptr, 10); }

void run_log(Globals& g, Output& out, const TxOptions& o) {
    use_port(g);
    const int ic_type = ic_type_of(o.slot);
    std::vector<char> buf(KOLT_TXLOG_MAX + 64, 0);
    const int32_t rc = call_library(g, Wait{}, [&] {
        return KOLT_ICRT_GetTrDetail(g.terminal_type, g.port_no, ic_type, o.aid.c_str(), buf.data());
    });
    // A log: "%03d" of one record's length, then the records (rc of them);
    // anything else is a failure whatever the sign of rc.
    const std::string text(buf.data());
    const bool header = text.size() >= 3 && std::all_of(text.begin(), text.begin() + 3, [](char c) { return c >= '0' && c <= '9'; });
    const size_t record_len = header ? static_cast<size_t>(std::atoi(text.substr(0, 3).c_str())) : 0;
    if (rc < 0 || !header || (rc > 0 && text.size() - 3 != record_len * static_cast<size_t>(rc)))
        throw log_failure(g, rc, ic_type);

    json_int(out.root(), "result", rc);
    cJSON* records = cJSON_AddArrayToObject(out.root(), "records");
    if (rc == 0) {
        out.line("no transactions in the card's log");
        return;
    }
    out.line("%-3s %-10s %-8s %13s %13s %-7s %-8s %-4s %5s  %s", "#", "date", "time", "amount", "other", "country",
             "currency", "type", "ATC", "merchant");
    for (int i = 0; i < rc; ++i) {
        const std::string record = text.substr(3 + static_cast<size_t>(i) * record_len, record_len);
        const auto fields = split_fields(record);
        if (!fields) throw Failure{kExitUnusable, rc, "a log record could not be read from the library's answer"};
        std::string v[128];
        for (const Field& f : *fields) v[static_cast<unsigned char>(f.letter) & 0x7F] = f.value;
        const std::string merchant = trim_right(v['W']);
        cJSON* r = cJSON_CreateObject();
        json_string(r, "date", date_text(v['S']));
        json_string(r, "time", time_text(v['U']));
        json_int(r, "amount", number_of(v['P']));
        json_int(r, "other_amount", number_of(v['Q']));
        json_string(r, "country", v['V']);
        json_string(r, "currency", v['R']);
        json_string(r, "merchant", gbk_to_utf8(merchant));
        json_string(r, "type", v['T']);
        json_int(r, "atc", number_of(v['X']));
        cJSON_AddItemToArray(records, r);
        out.line("%-3d %-10s %-8s %13s %13s %-7s %-8s %-4s %5lld  %s", i + 1, date_text(v['S']).c_str(),
                 time_text(v['U']).c_str(), money(v['P']).c_str(), money(v['Q']).c_str(), v['V'].c_str(),
                 v['R'].c_str(), v['T'].c_str(), number_of(v['X']), shown(g, merchant).c_str());
    }
    out.line("(%d records, as the card keeps them)", rc);
}

// ---------------------------------------------------------------------------
// arqc and transaction

struct Arqc {
    int32_t rc = 0;
    std::string tr;
    std::string field55;
    std::string app_data;
};

void print_tlvs(Output& out, const std::string& hex) {
    const auto items = split_tlvs(hex);
    if (!items) {
        out.line("  %s", hex.c_str());
        return;
    }
    for (const Tlv& t : *items) out.line("  %-5s %-36s %s", t.tag.c_str(), tag_name(t.tag), t.value.c_str());
}

Arqc get_arqc(Globals& g, Output& out, const TxOptions& o) {
    use_port(g);
    const int ic_type = ic_type_of(o.slot);
    Arqc a;
    a.tr = transaction_data(g, o);
    std::vector<char> f55(KOLT_FIELD55_MAX + 1, 0);
    std::vector<char> app(KOLT_APPDATA_TEXT_MAX, 0);
    a.rc = call_library(g, Wait{}, [&] {
        return ICRT_GetARQC(g.terminal_type, g.port_no, ic_type, a.tr.c_str(), o.aid.c_str(), f55.data(), app.data());
    });
    if (a.rc != 0 && a.rc != 10) throw arqc_failure(g, a.rc, ic_type);
    a.field55 = f55.data();
    a.app_data = app.data();
    if (!is_hex(a.field55) || a.field55.empty())
        throw Failure{kExitUnusable, a.rc, "the library gave no usable field 55"};

    cJSON* j = cJSON_CreateObject();
    json_int(j, "result", a.rc);
    json_string(j, "transaction_data", gbk_to_utf8(a.tr));
    json_string(j, "field55", a.field55);
    json_string(j, "cryptogram", cryptogram_type(a.field55));
    json_string(j, "app_data", a.app_data);
    json_bool(j, "locked", !a.app_data.empty() && a.app_data.back() == '1');
    cJSON_AddItemToObject(out.root(), "arqc", j);

    if (a.rc == 10) Output::note("the card's application is locked");
    out.line("transaction data: %s", shown(g, a.tr).c_str());
    out.line("cryptogram: %s, field 55 (%zu bytes):", cryptogram_type(a.field55).c_str(), a.field55.size() / 2);
    print_tlvs(out, a.field55);
    out.line("field 55: %s", a.field55.c_str());
    out.line("application data (CDOL2 and lock digit): %s", a.app_data.c_str());
    return a;
}

void run_arqc(Globals& g, Output& out, const TxOptions& o) {
    get_arqc(g, out, o);
    out.line("the card stays powered for the issuer's answer");
}

// The issuer program's answer: PROGRAM ARGS... with field 55 as the last
// argument; the first non-empty line of its standard output.
struct IssuerAnswer {
    std::string text;
    int status = -1;
};

std::vector<std::string> split_words(const std::string& text) {
    std::istringstream in(text);
    std::vector<std::string> words;
    for (std::string w; in >> w;) words.push_back(w);
    return words;
}

// Prints what the issuer program said on its standard error, as notes.
void pass_on_report(const std::string& report) {
    std::istringstream lines(report);
    for (std::string line; std::getline(lines, line);)
        if (!line.empty()) Output::note("issuer program: %s", line.c_str());
}

IssuerAnswer ask_issuer_program(const std::string& command, const std::string& field55) {
    std::vector<std::string> words = split_words(command);
    if (words.empty()) throw Failure{kExitUsage, 0, "--issuer names no program"};
    words.push_back(field55);
    std::vector<char*> argv;
    for (std::string& w : words) argv.push_back(w.data());
    argv.push_back(nullptr);

    // Its standard output is the answer; its standard error is kept and
    // shown when it fails.
    int out_fds[2], err_fds[2];
    if (::pipe2(out_fds, O_CLOEXEC) != 0) throw Failure{kExitServer, 0, "no pipe for the issuer program"};
    if (::pipe2(err_fds, O_CLOEXEC) != 0) {
        ::close(out_fds[0]);
        ::close(out_fds[1]);
        throw Failure{kExitServer, 0, "no pipe for the issuer program"};
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, out_fds[1], 1);
    posix_spawn_file_actions_adddup2(&actions, err_fds[1], 2);
    pid_t pid = -1;
    const int err = ::posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(out_fds[1]);
    ::close(err_fds[1]);
    if (err != 0) {
        ::close(out_fds[0]);
        ::close(err_fds[0]);
        throw Failure{kExitServer, 0, "the issuer program " + words[0] + " could not be started: " + std::strerror(err)};
    }

    std::string output, report;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    bool timed_out = false;
    pollfd p[2] = {{out_fds[0], POLLIN, 0}, {err_fds[0], POLLIN, 0}};
    std::string* sinks[2] = {&output, &report};
    while (p[0].fd >= 0 || p[1].fd >= 0) {
        if (interrupted() || std::chrono::steady_clock::now() >= end) {
            timed_out = !interrupted();
            ::kill(pid, SIGTERM);
            break;
        }
        if (::poll(p, 2, 100) <= 0) continue;
        for (int i = 0; i < 2; ++i) {
            if (p[i].fd < 0 || p[i].revents == 0) continue;
            char buf[4096];
            const ssize_t n = ::read(p[i].fd, buf, sizeof buf);
            if (n > 0) {
                sinks[i]->append(buf, static_cast<size_t>(n));
            } else if (n == 0 || errno != EINTR) {
                ::close(p[i].fd);
                p[i].fd = -1;
            }
        }
    }
    for (const pollfd& q : p)
        if (q.fd >= 0) ::close(q.fd);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (interrupted()) throw Failure{kExitCancelled, 0, "cancelled"};
    if (timed_out) {
        pass_on_report(report);
        throw Failure{kExitServer, 0, "the issuer program gave no answer within 60 s"};
    }

    IssuerAnswer a;
    a.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        line.erase(std::remove_if(line.begin(), line.end(), [](char c) { return c == '\r' || c == ' ' || c == '\t'; }),
                   line.end());
        if (!line.empty()) {
            a.text = line;
            break;
        }
    }
    if (a.text.empty() || a.status != 0) pass_on_report(report);
    return a;
}

// The response data typed or piped on standard input: one line.
std::string read_response_data() {
    if (::isatty(STDIN_FILENO) == 1) {
        std::fputs("issuer response data (hex): ", stderr);
        std::fflush(stderr);
    }
    std::string line;
    for (;;) {
        if (interrupted()) throw Failure{kExitCancelled, 0, "cancelled"};
        pollfd p{STDIN_FILENO, POLLIN, 0};
        if (::poll(&p, 1, 100) <= 0) continue;
        char c = 0;
        const ssize_t n = ::read(STDIN_FILENO, &c, 1);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0 || c == '\n') break;
        if (c != '\r' && c != ' ' && c != '\t') line += c;
    }
    return line;
}

// The response code of tag 91 (its last two bytes are the two characters).
std::string response_code(const std::string& answer) {
    const auto items = split_tlvs(answer);
    if (!items) return "";
    for (const Tlv& t : *items) {
        if (t.tag != "91" || t.value.size() < 4) continue;
        std::string code;
        for (size_t i = t.value.size() - 4; i < t.value.size(); i += 2)
            code += static_cast<char>(std::strtoul(t.value.substr(i, 2).c_str(), nullptr, 16));
        return code;
    }
    return "";
}

// "DF3105", then the state (2 executed, 1 failed or none, 0 not run), the
// count of commands done and the start of the script identifier block.
std::string script_state(const std::string& result) {
    if (result.size() < 8 || result.rfind("DF3105", 0) != 0) return "unknown";
    const char state = result[6];
    if (state == '2') return "executed";
    if (state == '0') return "not run";
    if (state == '1') return result.substr(7).find_first_not_of('0') == std::string::npos ? "none" : "failed";
    return "unknown";
}

void run_transaction(Globals& g, Output& out, const TxOptions& o) {
    const int ic_type = ic_type_of(o.slot);
    const Arqc a = get_arqc(g, out, o);

    // The issuer's response data.
    std::string answer;
    cJSON* issuer = cJSON_CreateObject();
    cJSON_AddItemToObject(out.root(), "issuer", issuer);
    if (!o.issuer.empty()) {
        out.line("issuer: %s <field 55>", o.issuer.c_str());
        const IssuerAnswer ia = ask_issuer_program(o.issuer, a.field55);
        json_int(issuer, "exit_status", ia.status);
        out.line("issuer program exit status %d", ia.status);
        answer = ia.text;
        if (answer.empty()) throw Failure{kExitServer, 0, "the issuer program gave no response data"};
    } else {
        if (out.json()) Output::note("field 55: %s", a.field55.c_str());
        answer = read_response_data();
        if (answer.empty()) throw Failure{kExitServer, 0, "no issuer response data on standard input"};
    }
    answer = upper(answer);
    json_string(issuer, "response_data", answer);
    if (!is_hex(answer)) throw Failure{kExitServer, 0, "the issuer's response data is not hexadecimal"};
    const std::string code = response_code(answer);
    json_string(issuer, "response_code", code);
    out.line("response data (response code %s):", code.empty() ? "?" : code.c_str());
    print_tlvs(out, answer);

    // Issuer authentication, the script and the final cryptogram.
    std::vector<char> result(64, 0);
    std::vector<char> second(KOLT_FIELD55_MAX + 8, 0);
    const int32_t rc = call_library(g, Wait{}, [&] {
        return ICRT_ARPCExeScript(g.terminal_type, g.port_no, ic_type, a.tr.c_str(), answer.c_str(),
                                  a.app_data.c_str(), result.data(), second.data());
    });
    if (rc == -21) throw port_failure(rc);
    const std::string script_result = result.data();
    const std::string second_text = second.data();
    const std::string final55 = second_text.size() > 3 ? second_text.substr(3) : "";
    const std::string cid = cryptogram_type(final55);
    json_int(out.root(), "result", rc);
    json_string(out.root(), "script_result", script_result);
    json_string(out.root(), "script", script_state(script_result));
    json_string(out.root(), "second_cryptogram", cid);
    json_string(out.root(), "field55", final55);

    out.line("issuer script: %s (%s)", script_state(script_result).c_str(), script_result.c_str());
    if (rc == -26) Output::note("the card refused the issuer authentication");
    if (rc == -28) Output::note("the card's counters could not be read after the final cryptogram");
    if (rc == -29) Output::note("a script command failed");
    if (rc == -27 || final55.empty() || cid.empty()) {
        json_string(out.root(), "outcome", "failed");
        throw Failure{kExitRefused, rc, "the card gave no final cryptogram (it refused the second GENERATE AC)"};
    }
    out.line("final cryptogram: %s, field 55 (%zu bytes):", cid.c_str(), final55.size() / 2);
    print_tlvs(out, final55);
    const bool approved = cid == "TC";
    json_string(out.root(), "outcome", approved ? "approved" : "declined");
    out.line("outcome: %s", approved ? "approved" : "declined");
    if (!approved) {
        const std::string by = code != "00" && !code.empty() ? "the issuer (response code " + code + ")" : "the card";
        throw Failure{kExitDeclined, rc, "the transaction was declined by " + by + " (" + cid + ")"};
    }
}

}  // namespace

void add_card_commands(CLI::App& app, Runner& run) {
    {
        auto o = std::make_shared<CardOptions>();
        CLI::App* sub = app.add_subcommand("card", "Card information (ICRT_GetICCInfo)");
        sub->add_option("elements", o->elements,
                        "Data elements: tag letters (several per word allowed) or names; default: a useful set")
            ->check(kElementWord)
            ->type_name("ELEMENT");
        add_slot_option(sub, o->slot);
        sub->add_option("--aid", o->aids, "Candidate AID as hex (repeatable: the candidate list)")
            ->expected(1)
            ->allow_extra_args(false)
            ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
            ->check(kHexText)
            ->type_name("HEX");
        sub->footer(card_help_footer());
        sub->callback([&run, o] { run = [o](Globals& g, Output& out) { run_card(g, out, *o); }; });
    }
    {
        auto o = std::make_shared<TxOptions>();
        CLI::App* sub = app.add_subcommand("log", "Transaction log of the card (KOLT_ICRT_GetTrDetail)");
        add_slot_option(sub, o->slot);
        sub->add_option("--aid", o->aid, "AID of the application to select, as hex")->check(kHexText)->type_name("HEX");
        sub->callback([&run, o] { run = [o](Globals& g, Output& out) { run_log(g, out, *o); }; });
    }
    {
        auto o = std::make_shared<TxOptions>();
        CLI::App* sub = app.add_subcommand(
            "arqc", "First cryptogram only (ICRT_GetARQC): field 55 and the application data; the card stays powered");
        add_tx_options(sub, *o);
        sub->callback([&run, o] { run = [o](Globals& g, Output& out) { run_arqc(g, out, *o); }; });
    }
    {
        auto o = std::make_shared<TxOptions>();
        CLI::App* sub = app.add_subcommand(
            "transaction",
            "A whole online purchase: ARQC, the issuer's answer, issuer authentication, script, final cryptogram");
        add_tx_options(sub, *o);
        sub->add_option("--issuer", o->issuer,
                        "Issuer program and its arguments (split at blanks, no shell); field 55 is added as the last "
                        "argument and its first line of output is the response data. Without it, field 55 is "
                        "printed and the response data read from standard input")
            ->type_name("\"PROGRAM ARGS...\"");
        sub->callback([&run, o] { run = [o](Globals& g, Output& out) { run_transaction(g, out, *o); }; });
    }
}

}  // namespace kolt::cli
