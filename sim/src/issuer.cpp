// The simulated issuer host (see kolt_sim/issuer.hpp).
#include "kolt_sim/issuer.hpp"

#include <algorithm>
#include <map>
#include <optional>
#include <stdexcept>

#include "kolt_sim/card.hpp"
#include "kolt_sim/emv_crypto.hpp"

namespace kolt::sim {

namespace {

using Bytes = std::vector<uint8_t>;

// Field 55: tag, one length byte, value; the first occurrence of a tag
// counts. nullopt when the text is not hex or the objects do not tile it.
std::optional<std::map<uint32_t, Bytes>> parse_field55(std::string_view text, std::string& why) {
    Bytes b;
    try {
        b = ber::from_hex(text);
    } catch (const std::invalid_argument& e) {
        why = std::string("field 55 is not hex text: ") + e.what();
        return std::nullopt;
    }
    std::map<uint32_t, Bytes> out;
    size_t i = 0;
    while (i < b.size()) {
        const size_t at = i;
        uint32_t tag = b[i++];
        if ((tag & 0x1F) == 0x1F) {
            do {
                if (i >= b.size() || tag > 0xFFFF) {
                    why = "field 55: tag cut short at byte " + std::to_string(at);
                    return std::nullopt;
                }
                tag = tag << 8 | b[i];
            } while (b[i++] & 0x80);
        }
        if (i >= b.size()) {
            why = "field 55: no length after tag " + ber::to_hex(ber::tag_bytes(tag)) + " at byte " + std::to_string(at);
            return std::nullopt;
        }
        const size_t len = b[i++];
        if (i + len > b.size()) {
            why = "field 55: value of " + ber::to_hex(ber::tag_bytes(tag)) + " (" + std::to_string(len) +
                  " bytes) runs past the end";
            return std::nullopt;
        }
        out.emplace(tag, Bytes(b.begin() + static_cast<std::ptrdiff_t>(i),
                               b.begin() + static_cast<std::ptrdiff_t>(i + len)));
        i += len;
    }
    return out;
}

std::string cid_type_of(uint8_t cid) {
    switch (cid & 0xC0) {
        case 0x80: return "ARQC";
        case 0x40: return "TC";
        case 0x00: return "AAC";
        default: return "AAR";
    }
}

std::string tag_text(uint32_t tag) { return ber::to_hex(ber::tag_bytes(tag)); }

// A script command with its MAC: the leftmost 4 bytes of the retail MAC
// under the script session key over header, Lc (the MAC counted), the ATC,
// the ARQC and the data.
Bytes script_command(const ScriptCommand& sc, const Bytes& smi_key, const Bytes& atc, const Bytes& arqc) {
    Bytes header;
    Bytes data;
    switch (sc.kind) {
        case ScriptCommand::Kind::Unblock: header = {0x84, 0x18, 0x00, 0x00}; break;
        case ScriptCommand::Kind::Block: header = {0x84, 0x1E, 0x00, 0x00}; break;
        case ScriptCommand::Kind::PutData:
            if (sc.tag == 0) throw std::invalid_argument("PUT DATA needs a tag");
            header = {0x04, 0xDA, static_cast<uint8_t>(sc.tag >> 8), static_cast<uint8_t>(sc.tag)};
            data = sc.value;
            break;
    }
    if (data.size() + 4 > 255) throw std::invalid_argument("PUT DATA value too long for one command");
    Bytes input = header;
    input.push_back(static_cast<uint8_t>(data.size() + 4));
    input.insert(input.end(), atc.begin(), atc.end());
    input.insert(input.end(), arqc.begin(), arqc.end());
    input.insert(input.end(), data.begin(), data.end());
    Bytes mac = crypto::retail_mac(smi_key, input);
    mac.resize(4);
    if (sc.bad_mac) mac[3] = static_cast<uint8_t>(~mac[3]);
    Bytes cmd = header;
    cmd.push_back(static_cast<uint8_t>(data.size() + 4));
    cmd.insert(cmd.end(), data.begin(), data.end());
    cmd.insert(cmd.end(), mac.begin(), mac.end());
    return cmd;
}

void check_policy(const IssuerPolicy& p) {
    Issuer::arc_of(p.response_code);
    Issuer::arc_of(p.unverified_response_code);
    if (p.script_template != 0x71 && p.script_template != 0x72)
        throw std::invalid_argument("the script template is 71 or 72");
    if (p.script_id.size() != 4) throw std::invalid_argument("a script identifier is 4 bytes");
}

}  // namespace

Issuer::Issuer(IssuerKeys keys) : keys_(std::move(keys)) {
    if (keys_.ac_master.size() != 16 || keys_.smi_master.size() != 16)
        throw std::invalid_argument("issuer master keys are 16 bytes");
}

std::vector<uint8_t> Issuer::arc_of(std::string_view response_code) {
    if (response_code.size() != 2 || !std::all_of(response_code.begin(), response_code.end(),
                                                  [](char c) { return c >= 0x20 && c < 0x7F; }))
        throw std::invalid_argument("a response code is two characters, not \"" + std::string(response_code) + "\"");
    return {static_cast<uint8_t>(response_code[0]), static_cast<uint8_t>(response_code[1])};
}

Authorisation Issuer::authorise(std::string_view field55_hex, const IssuerPolicy& policy) const {
    check_policy(policy);
    Authorisation a;
    a.cid_type = "none";
    a.response_code = policy.unverified_response_code;
    std::string why;
    const auto f = parse_field55(field55_hex, why);
    if (!f) {
        a.reason = why;
        return a;
    }
    auto value = [&](uint32_t tag) -> const Bytes* {
        const auto it = f->find(tag);
        return it == f->end() ? nullptr : &it->second;
    };
    std::string missing;
    for (uint32_t tag : {0x9F26u, 0x9F36u, 0x5Au})
        if (value(tag) == nullptr) missing += (missing.empty() ? "" : ", ") + tag_text(tag);
    if (!missing.empty()) {
        a.reason = "field 55 lacks " + missing;
        return a;
    }
    if (value(0x9F26)->size() != 8 || value(0x9F36)->size() != 2) {
        a.reason = "field 55: 9F26 must be 8 bytes and 9F36 2 bytes, not " + std::to_string(value(0x9F26)->size()) +
                   " and " + std::to_string(value(0x9F36)->size());
        return a;
    }
    try {
        a.pan = crypto::unpack_digits(*value(0x5A));
        a.psn = value(0x5F34) ? crypto::unpack_digits(*value(0x5F34)) : "00";
    } catch (const std::invalid_argument& e) {
        a.reason = std::string("field 55: PAN or PAN sequence number not digits: ") + e.what();
        return a;
    }
    if (a.pan.empty()) {
        a.reason = "field 55: empty PAN";
        return a;
    }
    if (a.psn.size() == 1) a.psn.insert(0, "0");
    if (a.psn.size() != 2) {
        a.reason = "field 55: PAN sequence number " + a.psn + " is not two digits";
        return a;
    }
    a.parsed = true;
    a.atc = *value(0x9F36);
    a.arqc = *value(0x9F26);
    if (const Bytes* cid = value(0x9F27); cid && !cid->empty()) {
        a.cid = cid->back();
        a.cid_type = cid_type_of(a.cid);
    }

    const Bytes ac_mk = crypto::derive_icc_master_key(keys_.ac_master, a.pan, a.psn);
    const Bytes smi_mk = crypto::derive_icc_master_key(keys_.smi_master, a.pan, a.psn);
    const Bytes r = crypto::session_diversifier(a.atc);
    const Bytes ac_key = crypto::derive_session_key(ac_mk, r);
    const Bytes smi_key = crypto::derive_session_key(smi_mk, r);

    std::string absent, resized;
    for (const crypto::AcElement& e : crypto::cryptogram_elements()) {
        const Bytes* v = value(e.tag);
        if (v == nullptr) absent += " " + tag_text(e.tag);
        else if (v->size() != e.length)
            resized += " " + tag_text(e.tag) + " (" + std::to_string(v->size()) + " bytes)";
        const Bytes fitted = v ? crypto::fit_value(*v, e.length) : Bytes(e.length, 0x00);
        a.mac_input.insert(a.mac_input.end(), fitted.begin(), fitted.end());
    }
    a.expected = crypto::retail_mac(ac_key, a.mac_input);
    a.verified = a.expected == a.arqc;
    if (a.verified) {
        a.reason = "cryptogram " + ber::to_hex(a.arqc) + " verified";
    } else {
        a.reason = "cryptogram differs: expected " + ber::to_hex(a.expected) + ", received " + ber::to_hex(a.arqc) +
                   " (PAN " + a.pan + ", PSN " + a.psn + ", ATC " + ber::to_hex(a.atc) + ", data " +
                   ber::to_hex(a.mac_input) + ")";
        if (!absent.empty()) a.reason += "; absent:" + absent;
        if (!resized.empty()) a.reason += "; not at their length:" + resized;
    }
    if (a.verified && a.cid_type != "ARQC" && a.cid_type != "none")
        a.reason += " (but the CID " + ber::to_hex(Bytes{a.cid}) + " is a " + a.cid_type + ", not an ARQC)";

    a.response_code = a.verified ? policy.response_code : policy.unverified_response_code;
    const Bytes arc = arc_of(a.response_code);
    a.arpc = crypto::arpc_method1(ac_key, a.arqc, arc);
    Bytes answer = a.arpc;
    answer.insert(answer.end(), arc.begin(), arc.end());
    answer = ber::encode(0x91, answer);
    if (a.verified && !policy.script.empty()) {
        Bytes body;
        for (const ScriptCommand& sc : policy.script) {
            a.script_commands.push_back(script_command(sc, smi_key, a.atc, a.arqc));
            ber::append(body, 0x86, a.script_commands.back());
        }
        ber::append(body, 0x9F18, policy.script_id);
        ber::append(answer, policy.script_template, body);
    }
    a.answer_hex = ber::to_hex(answer);
    return a;
}

}  // namespace kolt::sim
