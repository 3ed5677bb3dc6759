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

}  // namespace

int main(int argc, char** argv) {
    std::string port;
    std::string letters = "ABEIJ";
    int ic_type = 0;  // contact
    int port_no = 1;
    bool with_log = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto next = [&]() -> std::string {
            if (i + 1 >= argc) {
                usage();
                std::exit(2);
            }
            return argv[++i];
        };
        if (arg == "--port") port = next();
        else if (arg == "--port-file") port = read_port_file(next());
        else if (arg == "--letters") letters = next();
        else if (arg == "--ic-type") ic_type = std::atoi(next().c_str());
        else if (arg == "--port-no") port_no = std::atoi(next().c_str());
        else if (arg == "--log") with_log = true;
        else {
            usage();
            return 2;
        }
    }
    if (port.empty() || port.size() >= sizeof gPortName) {
        usage();
        return 2;
    }

    std::memset(gPortName, 0, sizeof gPortName);
    std::memcpy(gPortName, port.data(), port.size());
    std::printf("== reader on /dev/%s\n", gPortName);

    // Card information: terminal type 0 (local port), the IC type, an empty
    // AID list (the card's directory chooses the application).
    std::vector<char> out(8192, 0);
    const int32_t rc = ICRT_GetICCInfo(0, port_no, ic_type, "", letters.c_str(), out.data());
    const std::string text(out.data());
    std::printf("== ICRT_GetICCInfo(letters \"%s\") = %d\n", letters.c_str(), rc);
    std::printf("   output: %s\n", gbk_to_utf8(text).c_str());
    bool ok = (rc == 0);
    std::vector<Field> fields;
    if (ok && parse_fields(text, fields)) {
        for (const Field& f : fields) {
            if (f.value.empty())
                std::printf("   %c (%s): not on the card\n", f.letter, letter_name(f.letter));
            else
                std::printf("   %c (%s): %s\n", f.letter, letter_name(f.letter),
                            gbk_to_utf8(f.value).c_str());
        }
    } else if (ok) {
        std::printf("   (the output is not a letter list)\n");
        ok = false;
    }

    if (with_log) {
        std::vector<char> log(4096, 0);
        const int32_t lrc = ICRT_GetTrDetail(0, port_no, ic_type, 0, "", log.data());
        const std::string records(log.data());
        std::printf("== ICRT_GetTrDetail(index 0) = %d\n", lrc);
        if (lrc != 0) {
            ok = false;
        } else if (records.empty()) {
            std::printf("   no transactions in the card's log\n");
        } else {
            std::vector<Field> lf;
            if (!parse_fields(records, lf)) {
                std::printf("   (the log is not a letter list)\n");
                ok = false;
            } else {
                // One record: P amount, Q other amount, R currency, S date
                // (YYMMDD), T type, U time (HHMMSS), V country, W merchant,
                // X application transaction counter.
                std::vector<std::vector<Field>> rows;
                for (const Field& f : lf) {
                    if (f.letter == 'P' || rows.empty()) rows.emplace_back();
                    rows.back().push_back(f);
                }
                std::printf("   %-19s %12s  %-4s %-4s  %s\n", "date", "amount", "type", "ATC", "merchant");
                for (const auto& row : rows) {
                    std::string date, time, amount, type, atc, merchant;
                    for (const Field& f : row) {
                        switch (f.letter) {
                            case 'S': date = f.value; break;
                            case 'U': time = f.value; break;
                            case 'P': amount = f.value; break;
                            case 'T': type = f.value; break;
                            case 'X': atc = f.value; break;
                            case 'W': merchant = f.value; break;
                            default: break;
                        }
                    }
                    std::string when = date.size() == 6 && time.size() == 6
                                           ? "20" + date.substr(0, 2) + "-" + date.substr(2, 2) + "-" +
                                                 date.substr(4, 2) + " " + time.substr(0, 2) + ":" +
                                                 time.substr(2, 2) + ":" + time.substr(4, 2)
                                           : date + " " + time;
                    std::string money = amount;
                    if (amount.size() == 12) {
                        const long long cents = std::atoll(amount.c_str());
                        money = std::to_string(cents / 100) + "." + (cents % 100 < 10 ? "0" : "") +
                                std::to_string(cents % 100);
                    }
                    std::printf("   %-19s %12s  %-4s %-4s  %s\n", when.c_str(), money.c_str(), type.c_str(),
                                atc.c_str(), gbk_to_utf8(merchant).c_str());
                }
                std::printf("   (%zu records, oldest first)\n", rows.size());
            }
        }
    }

    std::printf("== %s\n", ok ? "card read successfully" : "FAILED");
    return ok ? 0 : 1;
}
