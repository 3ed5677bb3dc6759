// kolt-demo: reads the payment application of the IC card in the reader the
// way a teller application does, through the public C interface of libkolt,
// and prints the answer for a human.
//
//   kolt-demo --port pts/3 [--letters ABEIJ] [--ic-type 0] [--port-no 1] [--log]
//   kolt-demo --port-file /tmp/sim.port ...
//
// --port names the device below /dev/ (it goes into gPortName); --port-file
// reads that name from a file (waiting up to 10 s for it to appear). The card
// information comes from ICRT_GetICCInfo with terminal type 0 (local serial
// port); --log also reads the transaction log through ICRT_GetTrDetail.
// Exit status 0 only when every requested read succeeded.
#include <kolt/kolt.h>

#include <iconv.h>
#include <unistd.h>

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
                 "[--ic-type 0] [--port-no 1] [--log]\n");
}

struct Args {
    std::string port;
    std::string letters = "ABEIJ";
    int ic_type = 0;  // contact
    int port_no = 1;
    bool with_log = false;
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

}  // namespace

int main(int argc, char** argv) {
    Args a;
    if (!parse_args(argc, argv, a)) return 2;

    std::memset(gPortName, 0, sizeof gPortName);
    std::memcpy(gPortName, a.port.data(), a.port.size());
    std::printf("== reader on /dev/%s\n", gPortName);

    bool ok = print_card_info(a);
    if (a.with_log && !print_transaction_log(a)) ok = false;

    std::printf("== %s\n", ok ? "card read successfully" : "FAILED");
    return ok ? 0 : 1;
}
