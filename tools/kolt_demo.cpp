// kolt-demo: reads the payment application of the IC card in the reader the
// way a teller application does, through the public C interface of libkolt,
// and prints the answer for a human.
//
//   kolt-demo --port pts/3 [--letters ABEIJ] [--ic-type 0] [--port-no 1] [--log]
//             [--online ISSUER [--issuer-args "..."] [--amount 12345]]
//   kolt-demo --port-file /tmp/sim.port ...
//
// --port names the device below /dev/ (it goes into gPortName); --port-file
// reads that name from a file (waiting up to 10 s for it to appear). The card
// information comes from ICRT_GetICCInfo with terminal type 0 (local serial
// port); --log also reads the transaction log through ICRT_GetTrDetail.
// --online runs an online purchase after it: ICRT_GetARQC, the host's
// answer from the issuer program ISSUER (given field 55 as its last
// argument, it prints the response data: tag 91 and any script), then
// ICRT_ARPCExeScript, and reads the card information again.
// Exit status 0 only when every requested step succeeded (for --online: the
// card approved with a TC).
#include <kolt/kolt.h>

#include <iconv.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace {

const char* letter_name(char letter) {
    switch (letter) {
        case 'A': return "account number";
        case 'B': return "cardholder name";
        case 'C': return "cardholder ID type";
        case 'D': return "cardholder ID number";
        case 'E': return "track 2 equivalent data";
        case 'F': return "track 1 discretionary data";
        case 'G': return "electronic cash balance";
        case 'H': return "electronic cash balance limit";
        case 'I': return "expiry date, YYMMDD";
        case 'J': return "PAN sequence number";
        case 'K': return "electronic cash single transaction limit";
        case 'M': return "cardholder name extended";
        case 'O': return "last online ATC";
        case 'P': return "amount";
        case 'Q': return "other amount";
        case 'R': return "currency code";
        case 'S': return "date";
        case 'T': return "transaction type";
        case 'U': return "time";
        case 'V': return "country code";
        case 'W': return "merchant";
        case 'X': return "application transaction counter";
        case 'Z': return "application interchange profile";
        default: return "data element";
    }
}

// The library hands back GBK; the terminal shows UTF-8.
std::string gbk_to_utf8(const std::string& gbk) {
    iconv_t cd = iconv_open("UTF-8", "GBK");
    if (cd == reinterpret_cast<iconv_t>(-1)) return gbk;
    std::string in = gbk;
    std::vector<char> out(in.size() * 4 + 16);
    char* src = in.data();
    size_t src_left = in.size();
    char* dst = out.data();
    size_t dst_left = out.size();
    const size_t rc = iconv(cd, &src, &src_left, &dst, &dst_left);
    iconv_close(cd);
    if (rc == static_cast<size_t>(-1)) return gbk;
    return std::string(out.data(), out.size() - dst_left);
}

// A field list: letter, three decimal digits of length, value; repeated.
struct Field {
    char letter;
    std::string value;
};

bool parse_fields(const std::string& text, std::vector<Field>& fields) {
    size_t pos = 0;
    while (pos < text.size()) {
        if (pos + 4 > text.size()) return false;
        const char letter = text[pos];
        const std::string digits = text.substr(pos + 1, 3);
        for (char c : digits)
            if (c < '0' || c > '9') return false;
        const size_t len = static_cast<size_t>(std::stoi(digits));
        if (pos + 4 + len > text.size()) return false;
        fields.push_back({letter, text.substr(pos + 4, len)});
        pos += 4 + len;
    }
    return true;
}

std::string read_port_file(const std::string& path) {
    for (int i = 0; i < 100; ++i) {
        std::ifstream in(path);
        std::string name;
        if (in && std::getline(in, name) && !name.empty()) {
            if (name.rfind("/dev/", 0) == 0) name = name.substr(5);
            return name;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return {};
}

void usage() {
    std::fprintf(stderr,
                 "usage: kolt-demo (--port NAME | --port-file FILE) [--letters ABEIJ] "
                 "[--ic-type 0] [--port-no 1] [--log] [--online ISSUER [--issuer-args ARGS] [--amount N]]\n");
}

struct Args {
    std::string port;
    std::string letters = "ABEIJ";
    int ic_type = 0;  // contact
    int port_no = 1;
    bool with_log = false;
    std::string issuer;       // --online: the issuer program
    std::string issuer_args;  // its options
    long long amount = 12345; // minor units
};

// Reads the command line; false (after the usage text) when it is wrong.
bool parse_args(int argc, char** argv, Args& a) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto next = [&]() -> std::string {
            if (i + 1 >= argc) {
                usage();
                std::exit(2);
            }
            return argv[++i];
        };
        if (arg == "--port") a.port = next();
        else if (arg == "--port-file") a.port = read_port_file(next());
        else if (arg == "--letters") a.letters = next();
        else if (arg == "--ic-type") a.ic_type = std::atoi(next().c_str());
        else if (arg == "--port-no") a.port_no = std::atoi(next().c_str());
        else if (arg == "--log") a.with_log = true;
        else if (arg == "--online") a.issuer = next();
        else if (arg == "--issuer-args") a.issuer_args = next();
        else if (arg == "--amount") a.amount = std::atoll(next().c_str());
        else {
            usage();
            return false;
        }
    }
    if (a.port.empty() || a.port.size() >= sizeof gPortName) {
        usage();
        return false;
    }
    return true;
}

// Card information: terminal type 0 (local port), the IC type, an empty
// AID list (the card's directory chooses the application).
bool print_card_info(const Args& a) {
    std::vector<char> out(8192, 0);
    const int32_t rc = ICRT_GetICCInfo(0, a.port_no, a.ic_type, "", a.letters.c_str(), out.data());
    const std::string text(out.data());
    std::printf("== ICRT_GetICCInfo(letters \"%s\") = %d\n", a.letters.c_str(), rc);
    std::printf("   output: %s\n", gbk_to_utf8(text).c_str());
    if (rc != 0) return false;
    std::vector<Field> fields;
    if (!parse_fields(text, fields)) {
        std::printf("   (the output is not a letter list)\n");
        return false;
    }
    for (const Field& f : fields) {
        if (f.value.empty())
            std::printf("   %c (%s): not on the card\n", f.letter, letter_name(f.letter));
        else
            std::printf("   %c (%s): %s\n", f.letter, letter_name(f.letter), gbk_to_utf8(f.value).c_str());
    }
    return true;
}

// One transaction of the log, with the fields the table shows.
struct Transaction {
    std::string date, time, amount, type, atc, merchant;
};

Transaction transaction_of(const std::vector<Field>& row) {
    Transaction t;
    for (const Field& f : row) {
        switch (f.letter) {
            case 'S': t.date = f.value; break;
            case 'U': t.time = f.value; break;
            case 'P': t.amount = f.value; break;
            case 'T': t.type = f.value; break;
            case 'X': t.atc = f.value; break;
            case 'W': t.merchant = f.value; break;
            default: break;
        }
    }
    return t;
}

// "YYYY-MM-DD HH:MM:SS" from YYMMDD and HHMMSS, else both as they are.
std::string when_of(const std::string& date, const std::string& time) {
    if (date.size() != 6 || time.size() != 6) return date + " " + time;
    return "20" + date.substr(0, 2) + "-" + date.substr(2, 2) + "-" + date.substr(4, 2) + " " + time.substr(0, 2) +
           ":" + time.substr(2, 2) + ":" + time.substr(4, 2);
}

// Units and hundredths from twelve digits of minor units, else as it is.
std::string money_of(const std::string& amount) {
    if (amount.size() != 12) return amount;
    const long long cents = std::atoll(amount.c_str());
    return std::to_string(cents / 100) + "." + (cents % 100 < 10 ? "0" : "") + std::to_string(cents % 100);
}

// One record: P amount, Q other amount, R currency, S date (YYMMDD), T type,
// U time (HHMMSS), V country, W merchant, X application transaction counter.
std::vector<std::vector<Field>> split_records(const std::vector<Field>& fields) {
    std::vector<std::vector<Field>> rows;
    for (const Field& f : fields) {
        if (f.letter == 'P' || rows.empty()) rows.emplace_back();
        rows.back().push_back(f);
    }
    return rows;
}

void print_log_table(const std::vector<Field>& fields) {
    const auto rows = split_records(fields);
    std::printf("   %-19s %12s  %-4s %-4s  %s\n", "date", "amount", "type", "ATC", "merchant");
    for (const auto& row : rows) {
        const Transaction t = transaction_of(row);
        std::printf("   %-19s %12s  %-4s %-4s  %s\n", when_of(t.date, t.time).c_str(), money_of(t.amount).c_str(),
                    t.type.c_str(), t.atc.c_str(), gbk_to_utf8(t.merchant).c_str());
    }
    std::printf("   (%zu records, oldest first)\n", rows.size());
}

// The card's transaction log through ICRT_GetTrDetail.
bool print_transaction_log(const Args& a) {
    std::vector<char> log(4096, 0);
    const int32_t lrc = ICRT_GetTrDetail(0, a.port_no, a.ic_type, 0, "", log.data());
    const std::string records(log.data());
    std::printf("== ICRT_GetTrDetail(index 0) = %d\n", lrc);
    if (lrc != 0) return false;
    if (records.empty()) {
        std::printf("   no transactions in the card's log\n");
        return true;
    }
    std::vector<Field> fields;
    if (!parse_fields(records, fields)) {
        std::printf("   (the log is not a letter list)\n");
        return false;
    }
    print_log_table(fields);
    return true;
}


// ---------------------------------------------------------------------------
// Online purchase.

const char* tag_name(const std::string& tag) {
    static const struct {
        const char* tag;
        const char* name;
    } names[] = {
        {"9F26", "application cryptogram"}, {"9F27", "cryptogram information"}, {"9F10", "issuer application data"},
        {"9F37", "unpredictable number"},   {"9F36", "transaction counter"},   {"95", "terminal verification results"},
        {"9F13", "last online ATC"},        {"9A", "date"},                     {"9C", "transaction type"},
        {"9F02", "amount"},                 {"5F2A", "currency"},               {"5A", "account number"},
        {"5F34", "PAN sequence number"},    {"82", "interchange profile"},      {"9F1A", "country"},
        {"9F03", "other amount"},           {"9F33", "terminal capabilities"},  {"91", "issuer authentication data"},
        {"71", "issuer script (before the final cryptogram)"}, {"72", "issuer script"},
    };
    for (const auto& n : names)
        if (tag == n.tag) return n.name;
    return "";
}

// A flat run of TLVs in hex text with one-byte lengths (field 55 and the
// host's answer); false when it does not split.
struct Tlv {
    std::string tag, value;
};
bool split_tlvs(const std::string& hex, std::vector<Tlv>& out) {
    size_t pos = 0;
    auto byte_at = [&](size_t p) { return static_cast<unsigned>(std::stoul(hex.substr(p, 2), nullptr, 16)); };
    try {
        while (pos + 4 <= hex.size()) {
            const size_t tag_len = (byte_at(pos) & 0x1F) == 0x1F ? 4 : 2;
            Tlv t;
            t.tag = hex.substr(pos, tag_len);
            pos += tag_len;
            size_t len = byte_at(pos);
            pos += 2;
            if (len == 0x81) {
                len = byte_at(pos);
                pos += 2;
            }
            if (pos + 2 * len > hex.size()) return false;
            t.value = hex.substr(pos, 2 * len);
            pos += 2 * len;
            out.push_back(t);
        }
    } catch (const std::exception&) {
        return false;
    }
    return pos == hex.size();
}

void print_tlvs(const std::string& hex) {
    std::vector<Tlv> items;
    if (!split_tlvs(hex, items)) {
        std::printf("   %s\n", hex.c_str());
        return;
    }
    for (const Tlv& t : items) std::printf("   %-5s %-32s %s\n", t.tag.c_str(), tag_name(t.tag), t.value.c_str());
}

std::string cid_text(const std::string& field55) {
    std::vector<Tlv> items;
    if (!split_tlvs(field55, items)) return "?";
    for (const Tlv& t : items) {
        if (t.tag != "9F27" || t.value.size() != 2) continue;
        const unsigned cid = static_cast<unsigned>(std::stoul(t.value, nullptr, 16)) & 0xC0;
        return cid == 0x40 ? "TC" : cid == 0x80 ? "ARQC" : cid == 0x00 ? "AAC" : "AAR";
    }
    return "?";
}

// The issuer program's answer to field 55 (its first line of output).
std::string ask_issuer(const Args& a, const std::string& field55) {
    const std::string command = a.issuer + " " + a.issuer_args + " " + field55;
    std::FILE* p = ::popen(command.c_str(), "r");
    if (p == nullptr) return {};
    char line[8192] = {0};
    const bool got = std::fgets(line, sizeof line, p) != nullptr;
    const int status = ::pclose(p);
    std::string answer = got ? line : "";
    while (!answer.empty() && (answer.back() == '\n' || answer.back() == '\r')) answer.pop_back();
    std::printf("   issuer program exit status %d\n", WIFEXITED(status) ? WEXITSTATUS(status) : -1);
    return answer;
}

bool run_online(const Args& a) {
    // Transaction data, ICRT encoding: amount, other amount, currency, date,
    // type (00 goods and services), time.
    char now[32] = {0};
    GetSysDate(now);
    const std::string amount = std::to_string(a.amount);
    char tr[160];
    std::snprintf(tr, sizeof tr, "P%03zu%sQ0010R0040156S008%.8sT00200U006%.6s", amount.size(), amount.c_str(), now,
                  now + 8);
    std::printf("== online purchase of %s (currency 0156), transaction data %s\n", money_of(std::string(12 - std::min<size_t>(12, amount.size()), '0') + amount).c_str(), tr);

    std::vector<char> field55(KOLT_FIELD55_MAX + 1, 0);
    std::vector<char> app(KOLT_APPDATA_TEXT_MAX, 0);
    const int32_t rc = ICRT_GetARQC(0, a.port_no, a.ic_type, tr, "", field55.data(), app.data());
    const std::string f55(field55.data());
    std::printf("== ICRT_GetARQC = %d (card left powered for the host's answer)\n", rc);
    if (rc != 0 && rc != 10) {
        std::printf("   output: %s\n", gbk_to_utf8(f55).c_str());
        return false;
    }
    std::printf("   field 55 (%zu bytes), cryptogram %s:\n", f55.size() / 2, cid_text(f55).c_str());
    print_tlvs(f55);
    std::printf("   application data (CDOL2, lock digit): %s\n", app.data());

    std::printf("== host: %s %s <field 55>\n", a.issuer.c_str(), a.issuer_args.c_str());
    std::fflush(stdout);
    const std::string answer = ask_issuer(a, f55);
    if (answer.empty()) {
        std::printf("   no answer from the issuer\n");
        return false;
    }
    std::printf("   response data:\n");
    print_tlvs(answer);

    std::vector<char> result(64, 0);
    std::vector<char> second(KOLT_FIELD55_MAX + 8, 0);
    const int32_t arc = ICRT_ARPCExeScript(0, a.port_no, a.ic_type, tr, answer.c_str(), app.data(), result.data(),
                                           second.data());
    const std::string script_result(result.data());
    const std::string second_text(second.data());
    std::printf("== ICRT_ARPCExeScript = %d (card powered off)\n", arc);
    if (script_result.size() >= 16 && script_result.rfind("DF3105", 0) == 0) {
        const char state = script_result[6];
        std::printf("   issuer script result %s: %s, %s command(s), script id beginning %s\n", script_result.c_str(),
                    state == '2' ? "executed" : state == '1' ? "not executed or failed" : "no script step",
                    script_result.substr(7, script_result.size() - 15).c_str(),
                    script_result.substr(script_result.size() - 6).c_str());
    } else {
        std::printf("   output: %s\n", gbk_to_utf8(script_result).c_str());
    }
    const std::string final55 = second_text.size() > 3 ? second_text.substr(3) : "";
    const std::string cid = cid_text(final55);
    std::printf("   final cryptogram %s, field 55 (%zu bytes):\n", cid.c_str(), final55.size() / 2);
    print_tlvs(final55);
    return arc == 0 && cid == "TC";
}

}  // namespace

int main(int argc, char** argv) {
    Args a;
    if (!parse_args(argc, argv, a)) return 2;

    std::memset(gPortName, 0, sizeof gPortName);
    std::memcpy(gPortName, a.port.data(), a.port.size());
    std::printf("== reader on /dev/%s\n", gPortName);

    bool ok = print_card_info(a);
    if (a.with_log && !print_transaction_log(a)) ok = false;
    if (ok && !a.issuer.empty()) {
        ok = run_online(a);
        std::printf("== the card after the transaction\n");
        if (!print_card_info(a)) ok = false;
    }

    std::printf("== %s\n", ok ? "card read successfully" : "FAILED");
    return ok ? 0 : 1;
}
