// A simulated issuer host: checks the ARQC of an online transaction from the
// chip data (field 55) the terminal sends, and answers with the issuer
// authentication data (tag 91) and, optionally, an issuer script.
//
//     kolt::sim::Issuer issuer;                        // default keys
//     kolt::sim::IssuerPolicy policy;                  // approve, no script
//     policy.script.push_back(kolt::sim::ScriptCommand::unblock());
//     auto a = issuer.authorise(field55_hex, policy);
//     if (!a.verified) FAIL() << a.reason;
//     send_to_library(a.answer_hex);                   // 910A... 72...
//
// Field 55 is hex text of a flat run of data objects: tags of one or two
// bytes (three when BER says so), ONE length byte each (also for values of
// 128 bytes and more), then the value. Any order; unknown tags are ignored;
// the first of repeated tags counts; blanks in the text are ignored. The
// cryptogram is recomputed over the elements of crypto::cryptogram_elements
// (9F02 9F03 9F1A 95 5F2A 9A 9C 9F37 82 9F36 9F27), each brought to its length
// as crypto::fit_value does (shorter: zeros on the left; longer: its last
// bytes; absent: zeros), under the session key of the card's ATC (9F36)
// from the card master key of its PAN (5A, F padding left out) and PAN
// sequence number (5F34; 00 when absent).
//
// The answer is hex text of 91 0A <ARPC 8> <ARC 2> (ARPC method 1 under the
// cryptogram session key; the ARC is the response code's two characters,
// "00" is 30 30), followed, when the cryptogram verified and the policy has
// a script, by the script template (72 or 71) holding the commands first,
// each as 86 <length> <command>, then 9F18 04 <script identifier>. Lengths
// of 128 and more in the answer take the form 81 xx.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kolt::sim {

struct IssuerKeys {
    // The issuer's master keys (16 bytes each): application cryptogram and
    // integrity of script commands. The defaults are the simulated cards'.
    std::vector<uint8_t> ac_master = {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF,
                                      0xFE, 0xDC, 0xBA, 0x98, 0x76, 0x54, 0x32, 0x10};
    std::vector<uint8_t> smi_master = {0xFE, 0xDC, 0xBA, 0x98, 0x76, 0x54, 0x32, 0x10,
                                       0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF};
};

// One issuer script command, MACed for the card's ARQC:
//   Unblock  84 18 00 00 04 <MAC>        Block  84 1E 00 00 04 <MAC>
//   PutData  04 DA t1 t2 Lc <value> <MAC>  (a one-byte tag is 00 tag)
// bad_mac sends a MAC that is wrong (its last byte inverted).
struct ScriptCommand {
    enum class Kind { Unblock, Block, PutData };
    Kind kind = Kind::Unblock;
    uint16_t tag = 0;             // PutData
    std::vector<uint8_t> value;   // PutData
    bool bad_mac = false;

    static ScriptCommand unblock() { return {Kind::Unblock, 0, {}, false}; }
    static ScriptCommand block() { return {Kind::Block, 0, {}, false}; }
    static ScriptCommand put_data(uint16_t tag, std::vector<uint8_t> value) {
        return {Kind::PutData, tag, std::move(value), false};
    }
};

struct IssuerPolicy {
    std::string response_code = "00";             // answer to a verified ARQC ("05": decline, ...)
    std::string unverified_response_code = "05";  // answer when the cryptogram does not verify
    std::vector<ScriptCommand> script;            // sent after a verified ARQC only
    uint8_t script_template = 0x72;               // 72: after the second GENERATE AC; 71: before
    std::vector<uint8_t> script_id = {0x00, 0x00, 0x00, 0x01};  // 9F18, 4 bytes
};

struct Authorisation {
    bool parsed = false;    // field 55 parsed and has 9F26, 9F36 and a usable 5A
    bool verified = false;  // the received cryptogram is the one recomputed
    std::string reason;     // why not (names what differed), or a summary
    std::string pan;        // digits, F padding left out
    std::string psn;        // two digits ("00" when 5F34 is absent)
    std::vector<uint8_t> atc, arqc;  // as received
    std::vector<uint8_t> expected;   // the recomputed cryptogram
    std::vector<uint8_t> mac_input;  // the data it covers
    uint8_t cid = 0;                 // 9F27 as received (0 when absent)
    std::string cid_type;            // "ARQC", "TC", "AAC", "AAR" or "none"
    std::string response_code;       // the one answered ("00", "05", ...)
    std::vector<uint8_t> arpc;
    std::vector<std::vector<uint8_t>> script_commands;  // as sent in the script
    std::string answer_hex;          // 91 ... [72|71 ...]; empty when not parsed
};

class Issuer {
public:
    explicit Issuer(IssuerKeys keys = {});

    // Checks one field 55 and answers it as the policy says. Throws
    // std::invalid_argument on a bad policy (a response code that is not two
    // characters, a script identifier that is not 4 bytes, a template other
    // than 71/72, a PUT DATA value too long for a command) or bad keys.
    Authorisation authorise(std::string_view field55_hex, const IssuerPolicy& policy = {}) const;

    // The ARC of a response code: its two characters as bytes.
    static std::vector<uint8_t> arc_of(std::string_view response_code);

private:
    IssuerKeys keys_;
};

}  // namespace kolt::sim
