// The kolt-issuer program: answer on standard output, report on standard
// error, exit status. (It starts a program of the build: ctest labels these
// tests self_exec.)
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "common/test_util.hpp"
#include "kolt_sim/card.hpp"
#include "kolt_sim/emv_crypto.hpp"

namespace {

namespace fs = std::filesystem;
using kolt::sim::ProfileCard;
using kolt::test::from_hex;
using kolt::test::to_hex;
namespace ber = kolt::sim::ber;
using Bytes = std::vector<uint8_t>;

// The program is built beside the tests: <build>/sim/kolt-issuer.
std::string program() {
    return (fs::read_symlink("/proc/self/exe").parent_path().parent_path() / "sim" / "kolt-issuer").string();
}

fs::path cards_dir() {
    if (const char* d = std::getenv("KOLT_TEST_SOURCE_DIR")) return fs::path(d) / "sim" / "cards";
    return fs::path(__FILE__).parent_path().parent_path() / "sim" / "cards";
}

struct Outcome {
    int status = -1;
    std::string out, err;
};

// Runs kolt-issuer with args, standard input from stdin_text.
Outcome run(const std::vector<std::string>& args, const std::string& stdin_text = "") {
    kolt::test::TempDir dir;
    const std::string in = dir.write("in", stdin_text);
    const std::string out = dir.str() + "/out";
    const std::string err = dir.str() + "/err";
    const pid_t pid = ::fork();
    if (pid == 0) {
        if (!std::freopen(in.c_str(), "r", stdin) || !std::freopen(out.c_str(), "w", stdout) ||
            !std::freopen(err.c_str(), "w", stderr))
            ::_exit(126);
        std::vector<std::string> a = args;
        a.insert(a.begin(), program());
        std::vector<char*> argv;
        for (auto& s : a) argv.push_back(s.data());
        argv.push_back(nullptr);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    Outcome r;
    int st = 0;
    if (pid > 0 && ::waitpid(pid, &st, 0) == pid && WIFEXITED(st)) r.status = WEXITSTATUS(st);
    r.out = kolt::test::read_file(out);
    r.err = kolt::test::read_file(err);
    return r;
}

std::string tx(ProfileCard& card, const std::string& apdu_hex) { return to_hex(card.exchange(from_hex(apdu_hex))); }

std::string tlv(const std::string& tag, const std::string& value_hex) {
    return tag + to_hex(Bytes{static_cast<uint8_t>(value_hex.size() / 2)}) + value_hex;
}

// A card after its ARQC, and field 55 for it.
struct Transaction {
    std::shared_ptr<ProfileCard> card;
    std::string field55;
    std::string arqc;

    explicit Transaction(const std::string& name, const std::string& amount = "000000005000") {
        card = ProfileCard::load_file((cards_dir() / "online" / (name + ".json")).string());
        card->power_on();
        const Bytes fci = card->exchange(from_hex(name == "online_debit" ? "00A4040008F04B4F4C5401010E"
                                                                        : "00A4040008F04B4F4C5401010F"));
        EXPECT_GE(fci.size(), 2u);
        tx(*card, "80 A8 00 00 0B 83 09 01 000000000100 0156");
        const std::string data = "000000005000 000000000000 0156 0000000000 0156 250612 00 0BADCAFE 103000" +
                                 std::string(40, '0');
        const std::string r = tx(*card, "80 AE 80 00 34 " + data);
        const std::string atc = r.substr(6, 4);
        arqc = r.substr(10, 16);
        const std::string pan = name == "online_debit" ? "6299990000020000018F" : "6299990000020000117F";
        field55 = tlv("9F26", arqc) + tlv("9F27", "80") + tlv("9F10", r.substr(26, r.size() - 30)) +
                  tlv("9F37", "0BADCAFE") + tlv("9F36", atc) + tlv("95", "0000000000") + tlv("9F13", "0019") +
                  tlv("9A", "250612") + tlv("9C", "00") + tlv("9F02", amount) + tlv("5F2A", "0156") +
                  tlv("5A", pan) + tlv("5F34", "01") + tlv("82", "7C00") + tlv("9F1A", "0156") +
                  tlv("9F03", "000000000000") + tlv("9F33", "E0F8C8");
    }
};

std::string first_line(const std::string& s) { return s.substr(0, s.find('\n')); }

// ---------------------------------------------------------------------------

TEST(SimIssuerProgram, ApprovesAVerifiedArqc) {
    ASSERT_TRUE(fs::exists(program())) << program();
    Transaction t("online_debit");
    const Outcome r = run({t.field55});
    EXPECT_EQ(r.status, 0) << r.err;
    const std::string answer = first_line(r.out);
    ASSERT_EQ(answer.size(), 24u) << r.out;
    EXPECT_EQ(answer.substr(0, 4), "910A");
    EXPECT_EQ(answer.substr(20), "3030");
    EXPECT_NE(r.err.find("verified"), std::string::npos);
    EXPECT_NE(r.err.find("6299990000020000018"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("ARQC"), std::string::npos);
    EXPECT_NE(r.err.find("response code: 00"), std::string::npos);
    EXPECT_EQ(tx(*t.card, "00 82 00 00 0A " + answer.substr(4)), "9000");
}

TEST(SimIssuerProgram, ChangedAmountExitsWith3) {
    Transaction t("online_debit", "000000005000");
    std::string f55 = t.field55;
    f55.replace(f55.find("9F0206000000005000"), 18, "9F0206000000005001");
    const Outcome r = run({"--unblock", f55});
    EXPECT_EQ(r.status, 3);
    EXPECT_NE(r.err.find("NOT verified"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("received " + t.arqc), std::string::npos) << r.err;
    EXPECT_EQ(first_line(r.out).substr(20), "3035");  // declined, no script
    EXPECT_EQ(first_line(r.out).size(), 24u);
}

TEST(SimIssuerProgram, DeclineWithAScriptThatUnblocks) {
    Transaction t("online_locked");
    const Outcome r = run({"--decline", "05", "--unblock", "--put-data", "9F77=000000200000", "--script-id", "0A0B0C0D",
                       "--template", "71", "--quiet", t.field55});
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(r.err.empty()) << r.err;
    const Bytes answer = from_hex(first_line(r.out));
    const auto arpc = ber::find(answer, 0x91);
    ASSERT_TRUE(arpc);
    EXPECT_EQ(ber::to_hex(arpc->subspan(8)), "3035");
    const auto tmpl = ber::find(answer, 0x71);
    ASSERT_TRUE(tmpl);
    const auto items = ber::parse(*tmpl);
    ASSERT_TRUE(items);
    ASSERT_EQ(items->size(), 3u);
    EXPECT_EQ(ber::to_hex(*ber::find(*tmpl, 0x9F18)), "0A0B0C0D");
    EXPECT_EQ(tx(*t.card, "00 82 00 00 0A " + ber::to_hex(*arpc)), "9000");
    for (size_t i = 0; i < 2; ++i) EXPECT_EQ(tx(*t.card, ber::to_hex((*items)[i].value)), "9000");
    EXPECT_FALSE(t.card->locked());
    EXPECT_EQ(tx(*t.card, "80 CA 9F 77 00"), "9F77060000002000009000");
}

TEST(SimIssuerProgram, BadMacScriptIsRefusedByTheCard) {
    Transaction t("online_locked");
    const Outcome r = run({"--unblock", "--bad-mac", t.field55});
    EXPECT_EQ(r.status, 0);
    const Bytes answer = from_hex(first_line(r.out));
    const auto tmpl = ber::find(answer, 0x72);
    ASSERT_TRUE(tmpl);
    const auto cmd = ber::find(*tmpl, 0x86);
    ASSERT_TRUE(cmd);
    EXPECT_EQ(tx(*t.card, ber::to_hex(*cmd)), "6988");
    EXPECT_TRUE(t.card->locked());
}

TEST(SimIssuerProgram, OneAnswerPerLineOfStandardInput) {
    Transaction a("online_debit");
    Transaction b("online_locked");
    const Outcome r = run({"--quiet"}, a.field55 + "\n\n" + b.field55 + "\n9F2608\n");
    EXPECT_EQ(r.status, 3);  // the last is not verifiable
    std::vector<std::string> lines;
    for (size_t at = 0; at < r.out.size();) {
        const size_t nl = r.out.find('\n', at);
        lines.push_back(r.out.substr(at, nl - at));
        at = nl == std::string::npos ? r.out.size() : nl + 1;
    }
    ASSERT_EQ(lines.size(), 3u) << r.out;
    EXPECT_EQ(lines[0].substr(0, 4), "910A");
    EXPECT_EQ(lines[1].substr(0, 4), "910A");
    EXPECT_EQ(lines[2], "");
    EXPECT_EQ(run({"--quiet"}, a.field55 + "\n").status, 0);
}

TEST(SimIssuerProgram, OtherKeysAndBadUsage) {
    Transaction t("online_debit");
    EXPECT_EQ(run({"--ac-key", "00112233445566778899AABBCCDDEEFF", "--quiet", t.field55}).status, 3);
    EXPECT_EQ(run({"--ac-key", "0123456789ABCDEFFEDCBA9876543210", "--quiet", t.field55}).status, 0);
    EXPECT_EQ(run({"--template", "73", t.field55}).status, 2);
    EXPECT_EQ(run({"--decline", "5", t.field55}).status, 2);
    EXPECT_EQ(run({"--put-data", "9F77", t.field55}).status, 2);
    EXPECT_EQ(run({"--script-id", "0102", t.field55}).status, 2);
    EXPECT_EQ(run({"--ac-key", "0011", t.field55}).status, 2);
    EXPECT_EQ(run({"--no-such-option", t.field55}).status, 2);
    EXPECT_EQ(run({t.field55, t.field55}).status, 2);
    const Outcome help = run({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("usage: kolt-issuer"), std::string::npos);
}

}  // namespace
