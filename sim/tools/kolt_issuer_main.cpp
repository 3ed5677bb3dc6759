// kolt-issuer: the simulated issuer host on the command line. Reads field 55
// (hex text) from the argument, or one per line from standard input, checks
// the ARQC and prints the answer text (91 ... and the script) on standard
// output and a report on standard error. See sim/README.md.
#include <getopt.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <stdexcept>
#include <string>

#include "kolt_sim/card.hpp"
#include "kolt_sim/issuer.hpp"

namespace {

using kolt::sim::Authorisation;
using kolt::sim::IssuerKeys;
using kolt::sim::IssuerPolicy;
using kolt::sim::ScriptCommand;
namespace ber = kolt::sim::ber;

constexpr int kExitVerified = 0;
constexpr int kExitUsage = 2;
constexpr int kExitNotVerified = 3;

void usage(std::FILE* to) {
    std::fputs(
        "usage: kolt-issuer [options] [FIELD55_HEX]\n"
        "  Checks the ARQC in field 55 and prints the answer (91 ARPC ARC, script).\n"
        "  Without FIELD55_HEX: one field 55 per line from standard input.\n"
        "  --response-code CODE   answer to a verified ARQC (default 00)\n"
        "  --decline CODE         the same, for a decline (e.g. 05)\n"
        "  --unverified-code CODE answer when the ARQC does not verify (default 05)\n"
        "  --unblock              script: application unblock\n"
        "  --block                script: application block\n"
        "  --put-data TAG=HEX     script: PUT DATA of a tag (repeatable)\n"
        "  --bad-mac              script commands with a wrong MAC\n"
        "  --template 71|72       script template (default 72)\n"
        "  --script-id HEX        script identifier, 4 bytes (default 00000001)\n"
        "  --ac-key HEX           issuer master key of the cryptogram (16 bytes)\n"
        "  --smi-key HEX          issuer master key of the script MACs (16 bytes)\n"
        "  --quiet                no report on standard error\n"
        "  --help                 this text\n"
        "Exit status: 0 verified, 3 not verified (or not verifiable), 2 bad usage.\n",
        to);
}

[[noreturn]] void bad_usage(const std::string& what) {
    std::fprintf(stderr, "kolt-issuer: %s\n", what.c_str());
    usage(stderr);
    std::exit(kExitUsage);
}

std::vector<uint8_t> hex_arg(const char* option, const std::string& text, size_t size) {
    try {
        auto b = ber::from_hex(text);
        if (size != 0 && b.size() != size) bad_usage(std::string(option) + " takes " + std::to_string(size) + " bytes");
        return b;
    } catch (const std::invalid_argument&) {
        bad_usage(std::string(option) + ": not hex: " + text);
    }
}

std::string response_code_arg(const char* option, const std::string& text) {
    try {
        kolt::sim::Issuer::arc_of(text);
    } catch (const std::invalid_argument&) {
        bad_usage(std::string(option) + " takes two characters, e.g. 00 or 05");
    }
    return text;
}

void report(const Authorisation& a, const IssuerPolicy& policy) {
    std::string r;
    if (!a.parsed) {
        r = "not verifiable: " + a.reason + "\n";
    } else {
        r += std::string("cryptogram: ") + (a.verified ? "verified" : "NOT verified") + " - " + a.reason + "\n";
        r += "PAN: " + a.pan + " sequence " + a.psn + "\n";
        r += "ATC: " + ber::to_hex(a.atc) + "\n";
        r += "CID: " + (a.cid_type == "none" ? std::string("absent") : ber::to_hex(std::vector<uint8_t>{a.cid}) + " (" +
                                                                            a.cid_type + ")") + "\n";
        r += "response code: " + a.response_code + "\n";
        r += "ARPC: " + ber::to_hex(a.arpc) + "\n";
        if (a.script_commands.empty()) {
            r += "script: none\n";
        } else {
            char t[8];
            std::snprintf(t, sizeof t, "%02X", policy.script_template);
            r += "script: template " + std::string(t) + ", identifier " + ber::to_hex(policy.script_id) + "\n";
            for (const auto& c : a.script_commands) r += "  " + ber::to_hex(c) + "\n";
        }
    }
    std::fputs(r.c_str(), stderr);
}

}  // namespace

int main(int argc, char** argv) {
    enum {
        kResponseCode = 1000, kDecline, kUnverified, kUnblock, kBlock, kPutData, kBadMac, kTemplate, kScriptId,
        kAcKey, kSmiKey, kQuiet, kHelp
    };
    static const option options[] = {
        {"response-code", required_argument, nullptr, kResponseCode},
        {"decline", required_argument, nullptr, kDecline},
        {"unverified-code", required_argument, nullptr, kUnverified},
        {"unblock", no_argument, nullptr, kUnblock},
        {"block", no_argument, nullptr, kBlock},
        {"put-data", required_argument, nullptr, kPutData},
        {"bad-mac", no_argument, nullptr, kBadMac},
        {"template", required_argument, nullptr, kTemplate},
        {"script-id", required_argument, nullptr, kScriptId},
        {"ac-key", required_argument, nullptr, kAcKey},
        {"smi-key", required_argument, nullptr, kSmiKey},
        {"quiet", no_argument, nullptr, kQuiet},
        {"help", no_argument, nullptr, kHelp},
        {nullptr, 0, nullptr, 0},
    };
    IssuerPolicy policy;
    IssuerKeys keys;
    bool bad_mac = false;
    bool quiet = false;
    opterr = 0;
    for (;;) {
        const int opt = getopt_long(argc, argv, "", options, nullptr);
        if (opt == -1) break;
        const std::string value = optarg ? optarg : "";
        switch (opt) {
            case kResponseCode: policy.response_code = response_code_arg("--response-code", value); break;
            case kDecline: policy.response_code = response_code_arg("--decline", value); break;
            case kUnverified: policy.unverified_response_code = response_code_arg("--unverified-code", value); break;
            case kUnblock: policy.script.push_back(ScriptCommand::unblock()); break;
            case kBlock: policy.script.push_back(ScriptCommand::block()); break;
            case kPutData: {
                const auto eq = value.find('=');
                if (eq == std::string::npos) bad_usage("--put-data takes TAG=HEX");
                const auto tag = hex_arg("--put-data", value.substr(0, eq), 0);
                if (tag.empty() || tag.size() > 2) bad_usage("--put-data: a tag of one or two bytes");
                auto v = hex_arg("--put-data", value.substr(eq + 1), 0);
                if (v.size() > 251) bad_usage("--put-data: value too long");
                const uint16_t t = tag.size() == 1 ? tag[0] : static_cast<uint16_t>(tag[0] << 8 | tag[1]);
                policy.script.push_back(ScriptCommand::put_data(t, std::move(v)));
                break;
            }
            case kBadMac: bad_mac = true; break;
            case kTemplate:
                if (value == "71") policy.script_template = 0x71;
                else if (value == "72") policy.script_template = 0x72;
                else bad_usage("--template takes 71 or 72");
                break;
            case kScriptId: policy.script_id = hex_arg("--script-id", value, 4); break;
            case kAcKey: keys.ac_master = hex_arg("--ac-key", value, 16); break;
            case kSmiKey: keys.smi_master = hex_arg("--smi-key", value, 16); break;
            case kQuiet: quiet = true; break;
            case kHelp: usage(stdout); return kExitVerified;
            default: bad_usage(std::string("unknown option or missing value: ") + argv[optind - 1]);
        }
    }
    if (bad_mac)
        for (ScriptCommand& c : policy.script) c.bad_mac = true;
    if (argc - optind > 1) bad_usage("one FIELD55_HEX at most");

    const kolt::sim::Issuer issuer(keys);
    bool all_verified = true;
    auto answer = [&](const std::string& field55) {
        const Authorisation a = issuer.authorise(field55, policy);
        std::cout << a.answer_hex << '\n' << std::flush;
        if (!quiet) report(a, policy);
        all_verified = all_verified && a.verified;
    };
    if (optind < argc) {
        answer(argv[optind]);
    } else {
        std::string line;
        while (std::getline(std::cin, line)) {
            if (!line.empty() && line.back() == '\r') line.pop_back();
            if (line.find_first_not_of(" \t") == std::string::npos) continue;
            answer(line);
        }
    }
    return all_verified ? kExitVerified : kExitNotVerified;
}
