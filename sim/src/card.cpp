// The simulated payment card: plays a card profile APDU by APDU.
#include "kolt_sim/card.hpp"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <set>
#include <sstream>
#include <stdexcept>

#include "card_profile.hpp"
#include "kolt_sim/emv_crypto.hpp"

namespace kolt::sim {

using card_detail::AppProfile;
using card_detail::Bytes;
using card_detail::CardProfile;
using card_detail::kMaxResponseData;
using card_detail::kSwLocked;
using card_detail::kSwOk;

namespace {

// Status words the card answers with.
constexpr uint16_t kSwWrongLength = 0x6700;
constexpr uint16_t kSwNotAllowed = 0x6985;
constexpr uint16_t kSwWrongData = 0x6A80;
constexpr uint16_t kSwFunctionNotSupported = 0x6A81;
constexpr uint16_t kSwFileNotFound = 0x6A82;
constexpr uint16_t kSwRecordNotFound = 0x6A83;
constexpr uint16_t kSwWrongP1P2 = 0x6A86;
constexpr uint16_t kSwDataNotFound = 0x6A88;
constexpr uint16_t kSwInsNotSupported = 0x6D00;
constexpr uint16_t kSwClaNotSupported = 0x6E00;
constexpr uint16_t kSwNoDiagnosis = 0x6F00;
constexpr uint16_t kSwWrongCryptogram = 0x6300;
constexpr uint16_t kSwBadSecureMessaging = 0x6988;

Bytes sw_only(uint16_t sw) { return {static_cast<uint8_t>(sw >> 8), static_cast<uint8_t>(sw)}; }

Bytes with_sw(std::span<const uint8_t> data, uint16_t sw) {
    Bytes out(data.begin(), data.end());
    out.push_back(static_cast<uint8_t>(sw >> 8));
    out.push_back(static_cast<uint8_t>(sw));
    return out;
}

// Statuses after which the card still returns its response data.
bool returns_data(uint16_t sw) {
    const uint8_t sw1 = static_cast<uint8_t>(sw >> 8);
    return sw == kSwOk || sw1 == 0x62 || sw1 == 0x63;
}

// The parts of a command APDU (ISO 7816-4 short cases 1 to 4).
struct Command {
    uint8_t cla = 0, ins = 0, p1 = 0, p2 = 0;
    std::span<const uint8_t> data;
    std::optional<size_t> le;  // 1..256 (an Le byte 00 means 256)
};

std::optional<Command> split(std::span<const uint8_t> apdu) {
    if (apdu.size() < 4) return std::nullopt;
    Command c{apdu[0], apdu[1], apdu[2], apdu[3], {}, std::nullopt};
    if (apdu.size() == 4) return c;
    if (apdu.size() == 5) {
        c.le = apdu[4] == 0 ? 256 : apdu[4];
        return c;
    }
    const size_t lc = apdu[4];
    if (lc == 0) return std::nullopt;  // extended lengths are not supported
    if (apdu.size() == 5 + lc) {
        c.data = apdu.subspan(5, lc);
        return c;
    }
    if (apdu.size() == 6 + lc) {
        c.data = apdu.subspan(5, lc);
        c.le = apdu[5 + lc] == 0 ? 256 : apdu[5 + lc];
        return c;
    }
    return std::nullopt;
}

// Answer of a command that returns data: a T=0 card asks for the right
// length with 6Cxx when Le is present, not 00 and differs.
Bytes data_answer(const Command& c, std::span<const uint8_t> data, uint16_t sw = kSwOk) {
    if (returns_data(sw) && c.le && *c.le != 256 && *c.le != data.size() && !data.empty())
        return sw_only(static_cast<uint16_t>(0x6C00 | (data.size() & 0xFF)));
    return returns_data(sw) ? with_sw(data, sw) : sw_only(sw);
}

// The AIP of a GET PROCESSING OPTIONS answer (format 1 or 2), 0000 when
// there is none.
Bytes aip_of(const AppProfile& app) {
    if (auto v = ber::find(app.gpo_response, 0x82)) return crypto::fit_value(*v, 2);
    if (auto items = ber::parse(app.gpo_response);
        items && items->size() == 1 && (*items)[0].tag == 0x80 && (*items)[0].value.size() >= 2)
        return Bytes((*items)[0].value.begin(), (*items)[0].value.begin() + 2);
    return Bytes(2, 0x00);
}

// One element of the terminal's data, cut out of GENERATE AC data by the
// CDOL that laid it out. An element the CDOL does not list (or data that
// ends early) gives zeros.
Bytes dol_element(const std::optional<Bytes>& dol, std::span<const uint8_t> data, uint32_t tag, size_t length) {
    const auto entries = dol ? ber::parse_dol(*dol) : std::nullopt;
    if (!entries) return Bytes(length, 0x00);
    size_t offset = 0;
    for (const ber::DolEntry& e : *entries) {
        if (e.tag == tag) {
            Bytes v(e.length, 0x00);
            for (size_t i = 0; i < e.length && offset + i < data.size(); ++i) v[i] = data[offset + i];
            return crypto::fit_value(v, length);
        }
        offset += e.length;
    }
    return Bytes(length, 0x00);
}

// The card's own master keys, derived from the issuer's with its PAN (5A
// of its records, F padding stripped; PAN 0 when it has none) and PAN
// sequence number (5F34; 00 when it has none).
struct IccKeys {
    Bytes ac;   // application cryptogram
    Bytes smi;  // script integrity
};

IccKeys derive_icc_keys(const AppProfile& app, const card_detail::IssuerMasterKeys& issuer) {
    std::string pan = "0";
    std::string psn = "00";
    for (const auto& [key, bytes] : app.records) {
        if (auto v = ber::find(bytes, 0x5A); v && pan == "0") {
            try {
                const std::string digits = crypto::unpack_digits(*v);
                if (!digits.empty()) pan = digits;
            } catch (const std::invalid_argument&) {
            }
        }
        if (auto v = ber::find(bytes, 0x5F34); v && v->size() == 1 && psn == "00") {
            try {
                psn = crypto::unpack_digits(*v);
                if (psn.size() == 1) psn.insert(0, "0");
                if (psn.size() != 2) psn = "00";
            } catch (const std::invalid_argument&) {
            }
        }
    }
    return IccKeys{crypto::derive_icc_master_key(issuer.ac, pan, psn),
                   crypto::derive_icc_master_key(issuer.smi, pan, psn)};
}

struct Rule {
    ResponseOverride o;
    unsigned seen = 0;
    unsigned applied = 0;

    bool matches(std::span<const uint8_t> apdu) const {
        if (o.ins && (apdu.size() < 2 || apdu[1] != *o.ins)) return false;
        if (!o.prefix.empty() &&
            (apdu.size() < o.prefix.size() || !std::equal(o.prefix.begin(), o.prefix.end(), apdu.begin())))
            return false;
        return true;
    }
    // Counts a matching command; true when this one gets the canned answer.
    bool take() {
        ++seen;
        if (seen <= o.after) return false;
        if (o.times && applied >= *o.times) return false;
        ++applied;
        return true;
    }
};

}  // namespace

ResponseOverride ResponseOverride::for_ins(uint8_t ins, uint16_t sw) {
    ResponseOverride o;
    o.ins = ins;
    o.response = sw_only(sw);
    return o;
}

ResponseOverride ResponseOverride::for_prefix(std::span<const uint8_t> prefix, uint16_t sw) {
    ResponseOverride o;
    o.prefix.assign(prefix.begin(), prefix.end());
    o.response = sw_only(sw);
    return o;
}

struct ProfileCard::Impl {
    enum class Selected { None, Directory, Application };
    enum class AcState { None, AfterArqc, Done };

    explicit Impl(CardProfile p) : profile(std::move(p)) {
        for (const ResponseOverride& o : profile.overrides) profile_rules.push_back(Rule{o});
        for (const AppProfile& app : profile.apps) {
            icc_keys.push_back(derive_icc_keys(app, app.issuer_keys ? *app.issuer_keys : profile.issuer_keys));
            atc_unused.push_back(true);
            std::set<uint8_t> sfis;
            for (const auto& [key, bytes] : app.records) sfis.insert(key.first);
            if (app.log) sfis.insert(app.log->sfi);
            std::optional<std::span<const uint8_t>> afl;
            if (auto v = ber::find(app.gpo_response, 0x94)) {
                afl = v;
            } else if (auto f1 = ber::parse(app.gpo_response); f1 && f1->size() == 1 && (*f1)[0].tag == 0x80 &&
                                                                   (*f1)[0].value.size() >= 2) {
                afl = (*f1)[0].value.subspan(2);
            }
            if (afl)
                for (size_t i = 0; i + 4 <= afl->size(); i += 4) sfis.insert(static_cast<uint8_t>((*afl)[i] >> 3));
            known_sfis.push_back(std::move(sfis));
        }
    }

    mutable std::mutex mu;
    CardProfile profile;
    std::vector<std::set<uint8_t>> known_sfis;  // per application
    std::vector<Rule> profile_rules;
    std::vector<Rule> added_rules;  // consulted latest first
    std::vector<Bytes> apdus;
    std::vector<Bytes> responses;

    bool powered = false;
    bool card_blocked = false;
    Selected selected = Selected::None;
    size_t app_index = 0;
    bool gpo_done = false;
    AcState ac_state = AcState::None;

    // Per application: its own master keys, and whether its ATC (GET DATA
    // 9F36) still holds a value no transaction has taken.
    std::vector<IccKeys> icc_keys;
    std::vector<bool> atc_unused;

    // The ARQC of this card session (kept until power-off or power-on) and
    // the keys the issuer's answer to it is checked with.
    struct Online {
        size_t app = 0;
        Bytes atc, arqc;
        Bytes ac_key;   // session key of the cryptogram and the ARPC
        Bytes smi_key;  // session key of the script MACs
    };
    std::optional<Online> online;
    bool issuer_authenticated = false;

    void reset_session() {
        selected = Selected::None;
        app_index = 0;
        gpo_done = false;
        ac_state = AcState::None;
    }

    void reset_power() {
        reset_session();
        online.reset();
        issuer_authenticated = false;
    }

    // A card that computes its cryptograms checks the issuer's ARPC and
    // script MACs; one whose profile fixes the cryptogram has no keys and
    // takes whatever the issuer sends.
    static bool keyed(const AppProfile& app) { return !app.generate_ac.cryptogram; }

    // The ATC of a new transaction: the profile's (or a set_get_data) value
    // when no transaction has taken it yet, else one more; 0001 when the
    // application has none.
    Bytes take_atc(size_t i) {
        AppProfile& app = profile.apps[i];
        auto it = app.get_data.find(0x9F36);
        if (it == app.get_data.end() || it->second.size() != 2) {
            app.get_data[0x9F36] = Bytes{0x00, 0x01};
        } else if (!atc_unused[i]) {
            unsigned v = static_cast<unsigned>(it->second[0] << 8 | it->second[1]);
            if (v < 0xFFFF) ++v;
            it->second = Bytes{static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v)};
        }
        atc_unused[i] = false;
        return app.get_data[0x9F36];
    }

    // The application cryptogram over the terminal's data (cut out of the
    // GENERATE AC data by the CDOL), the AIP and the ATC.
    Bytes compute_cryptogram(const AppProfile& app, const std::optional<Bytes>& dol, std::span<const uint8_t> data,
                             const Bytes& atc, uint8_t cid, const Bytes& session_key) const {
        Bytes input;
        for (const crypto::AcElement& e : crypto::cryptogram_elements()) {
            Bytes v = e.tag == 0x82     ? aip_of(app)
                      : e.tag == 0x9F36 ? atc
                      : e.tag == 0x9F27 ? Bytes{cid}
                                        : dol_element(dol, data, e.tag, e.length);
            input.insert(input.end(), v.begin(), v.end());
        }
        return crypto::retail_mac(session_key, input);
    }

    AppProfile* current_app() {
        return selected == Selected::Application ? &profile.apps[app_index] : nullptr;
    }

    size_t app_by_aid(std::span<const uint8_t> aid) const {
        if (profile.apps.empty()) throw std::invalid_argument("the card has no application");
        if (aid.empty()) return 0;
        for (size_t i = 0; i < profile.apps.size(); ++i)
            if (std::equal(aid.begin(), aid.end(), profile.apps[i].aid.begin(), profile.apps[i].aid.end())) return i;
        throw std::invalid_argument("no application " + ber::to_hex(aid));
    }

    std::optional<Bytes> canned(std::span<const uint8_t> apdu) {
        for (auto it = added_rules.rbegin(); it != added_rules.rend(); ++it)
            if (it->matches(apdu)) {
                if (it->take()) return it->o.response;
                return std::nullopt;
            }
        for (Rule& r : profile_rules)
            if (r.matches(apdu)) {
                if (r.take()) return r.o.response;
                return std::nullopt;
            }
        return std::nullopt;
    }

    Bytes answer(std::span<const uint8_t> apdu) {
        if (!powered) return sw_only(kSwNoDiagnosis);
        if (auto r = canned(apdu)) return *r;
        const auto c = split(apdu);
        if (!c) return sw_only(kSwWrongLength);
        if (c->cla == 0x84 || c->cla == 0x04) return issuer_script(*c);
        if (c->cla == 0x00) {
            switch (c->ins) {
                case 0xA4: return select(*c);
                case 0xB2: return read_record(*c);
                case 0x82: return external_authenticate(*c);
                case 0xCA: return get_data(*c);
                default: return sw_only(kSwInsNotSupported);
            }
        }
        if (c->cla == 0x80) {
            switch (c->ins) {
                case 0xA8: return get_processing_options(*c);
                case 0xAE: return generate_ac(*c);
                case 0xCA: return get_data(*c);
                default: return sw_only(kSwInsNotSupported);
            }
        }
        return sw_only(kSwClaNotSupported);
    }

    // SELECT by DF name: the directory or an application (exact AID, else
    // the first AID the given name is a prefix of).
    Bytes select(const Command& c) {
        if (c.p1 != 0x04) return sw_only(kSwWrongP1P2);
        if (c.p2 == 0x02) return sw_only(kSwFileNotFound);  // no next occurrence
        if (c.p2 != 0x00) return sw_only(kSwWrongP1P2);
        if (c.data.empty()) return sw_only(kSwWrongLength);
        if (card_blocked) return sw_only(kSwFunctionNotSupported);
        const auto& pse = profile.pse;
        if (pse && std::equal(c.data.begin(), c.data.end(), pse->name.begin(), pse->name.end())) {
            if (returns_data(pse->select_sw)) {
                reset_session();
                selected = Selected::Directory;
            }
            return data_answer(c, pse->fci, pse->select_sw);
        }
        std::optional<size_t> found;
        for (size_t i = 0; i < profile.apps.size() && !found; ++i)
            if (std::equal(c.data.begin(), c.data.end(), profile.apps[i].aid.begin(), profile.apps[i].aid.end()))
                found = i;
        for (size_t i = 0; i < profile.apps.size() && !found; ++i) {
            const Bytes& aid = profile.apps[i].aid;
            if (c.data.size() < aid.size() && std::equal(c.data.begin(), c.data.end(), aid.begin())) found = i;
        }
        if (!found) return sw_only(kSwFileNotFound);
        const AppProfile& app = profile.apps[*found];
        if (returns_data(app.select_sw)) {
            reset_session();
            selected = Selected::Application;
            app_index = *found;
        }
        return data_answer(c, app.fci, app.select_sw);
    }

    Bytes read_record(const Command& c) {
        if ((c.p2 & 0x07) != 0x04 || (c.p2 >> 3) == 0) return sw_only(kSwWrongP1P2);
        if (c.p1 == 0) return sw_only(kSwRecordNotFound);
        const uint8_t sfi = static_cast<uint8_t>(c.p2 >> 3);
        const uint8_t number = c.p1;
        if (selected == Selected::Directory) {
            if (sfi != profile.pse->sfi) return sw_only(kSwFileNotFound);
            if (number > profile.pse->records.size()) return sw_only(kSwRecordNotFound);
            return data_answer(c, profile.pse->records[number - 1u]);
        }
        const AppProfile* app = current_app();
        if (app == nullptr) return sw_only(kSwNotAllowed);
        if (app->log && sfi == app->log->sfi) {
            if (number > app->log->records.size()) return sw_only(kSwRecordNotFound);
            return data_answer(c, app->log->records[number - 1u]);
        }
        if (auto it = app->records.find({sfi, number}); it != app->records.end()) return data_answer(c, it->second);
        if (known_sfis[app_index].count(sfi)) return sw_only(kSwRecordNotFound);
        return sw_only(kSwFileNotFound);
    }

    // GET DATA works on the selected application, or on the first one when
    // none is selected (the card's default application).
    Bytes get_data(const Command& c) {
        if (profile.apps.empty()) return sw_only(kSwDataNotFound);
        const AppProfile& app = selected == Selected::Application ? profile.apps[app_index] : profile.apps.front();
        const uint32_t tag = c.p1 == 0 ? c.p2 : static_cast<uint32_t>(c.p1 << 8 | c.p2);
        const auto it = app.get_data.find(tag);
        if (it == app.get_data.end()) return sw_only(kSwDataNotFound);
        return data_answer(c, ber::encode(tag, it->second));
    }

    Bytes get_processing_options(const Command& c) {
        AppProfile* app = current_app();
        if (app == nullptr) return sw_only(kSwNotAllowed);
        if (c.p1 != 0 || c.p2 != 0) return sw_only(kSwWrongP1P2);
        if (c.data.empty()) return sw_only(kSwWrongLength);
        const auto items = ber::parse(c.data);
        if (!items || items->size() != 1 || (*items)[0].tag != 0x83) return sw_only(kSwWrongData);
        if (profile.check_dol_lengths && app->pdol) {
            const auto expected = ber::dol_length(*app->pdol);
            if (expected && *expected != (*items)[0].value.size()) return sw_only(kSwWrongLength);
        }
        gpo_done = false;
        ac_state = AcState::None;
        if (app->gpo_sw == kSwOk) gpo_done = true;
        return data_answer(c, app->gpo_response, app->gpo_sw);
    }

    Bytes generate_ac(const Command& c) {
        AppProfile* app = current_app();
        if (app == nullptr || !gpo_done) return sw_only(kSwNotAllowed);
        const uint8_t type = c.p1 & 0xC0;
        if (c.p2 != 0 || type == 0xC0) return sw_only(kSwWrongP1P2);
        if (c.data.empty()) return sw_only(kSwWrongLength);
        if (ac_state == AcState::Done) return sw_only(kSwNotAllowed);
        const bool first = ac_state == AcState::None;
        const bool locked = app->select_sw == kSwLocked;
        // A locked application goes online for the issuer to unblock it, and
        // completes nothing while it stays locked.
        if (!first && locked) return sw_only(kSwNotAllowed);
        const std::optional<Bytes>& dol = first ? app->cdol1 : app->cdol2;
        if (profile.check_dol_lengths && dol) {
            const auto expected = ber::dol_length(*dol);
            if (expected && *expected != c.data.size()) return sw_only(kSwWrongLength);
        }
        const Bytes atc = first ? take_atc(app_index) : app->get_data[0x9F36];
        const uint8_t asked = first && locked && type == 0x40 ? uint8_t{0x80} : type;
        const uint8_t cid = app->generate_ac.cid.value_or(asked);
        const IccKeys& keys = icc_keys[app_index];
        const Bytes ac_key = crypto::derive_session_key(keys.ac, crypto::session_diversifier(atc));
        const Bytes ac = app->generate_ac.cryptogram ? *app->generate_ac.cryptogram
                                                     : compute_cryptogram(*app, dol, c.data, atc, cid, ac_key);
        Bytes response;
        if (app->generate_ac.format == 1) {
            Bytes v{cid};
            v.insert(v.end(), atc.begin(), atc.end());
            v.insert(v.end(), ac.begin(), ac.end());
            v.insert(v.end(), app->generate_ac.iad.begin(), app->generate_ac.iad.end());
            response = ber::encode(0x80, v);
        } else {
            Bytes body;
            ber::append(body, 0x9F27, Bytes{cid});
            ber::append(body, 0x9F36, atc);
            ber::append(body, 0x9F26, ac);
            ber::append(body, 0x9F10, app->generate_ac.iad);
            response = ber::encode(0x77, body);
        }
        const bool arqc = first && (cid & 0xC0) == 0x80;
        if (arqc) {
            online = Online{app_index, atc, ac, ac_key,
                            crypto::derive_session_key(keys.smi, crypto::session_diversifier(atc))};
            issuer_authenticated = false;
        }
        ac_state = arqc ? AcState::AfterArqc : AcState::Done;
        return data_answer(c, response);
    }

    // Issuer authentication data after the ARQC: ARPC (8 bytes) and the
    // response code (2). A keyed card recomputes the ARPC under the session
    // key of its ARQC; when it agrees the issuer is authenticated and the
    // ATC of the ARQC becomes the last online ATC (GET DATA 9F13).
    Bytes external_authenticate(const Command& c) {
        if (c.p1 != 0 || c.p2 != 0) return sw_only(kSwWrongP1P2);
        AppProfile* app = current_app();
        if (app == nullptr || ac_state != AcState::AfterArqc) return sw_only(kSwNotAllowed);
        if (c.data.size() < 8 || c.data.size() > 16) return sw_only(kSwWrongLength);
        if (!keyed(*app)) return sw_only(kSwOk);
        if (c.data.size() != 10) return sw_only(kSwWrongLength);
        if (!online || online->app != app_index) return sw_only(kSwNotAllowed);
        const Bytes expected = crypto::arpc_method1(online->ac_key, online->arqc, c.data.subspan(8, 2));
        if (!std::equal(expected.begin(), expected.end(), c.data.begin())) return sw_only(kSwWrongCryptogram);
        issuer_authenticated = true;
        app->get_data[0x9F13] = online->atc;
        return sw_only(kSwOk);
    }

    // Whether a script command carries the MAC of this session's ARQC: the
    // last 4 data bytes, the leftmost half of the retail MAC under the
    // script session key over CLA INS P1 P2 Lc, the ATC and the ARQC, and
    // the data before the MAC.
    bool script_mac_ok(const Command& c) const {
        if (!online || online->app != app_index || c.data.size() < 4) return false;
        const auto body = c.data.first(c.data.size() - 4);
        Bytes input{c.cla, c.ins, c.p1, c.p2, static_cast<uint8_t>(c.data.size())};
        input.insert(input.end(), online->atc.begin(), online->atc.end());
        input.insert(input.end(), online->arqc.begin(), online->arqc.end());
        input.insert(input.end(), body.begin(), body.end());
        const Bytes mac = crypto::retail_mac(online->smi_key, input);
        return std::equal(mac.begin(), mac.begin() + 4, c.data.end() - 4);
    }

    // Issuer script commands (secure messaging class). A keyed card first
    // checks the MAC (6988 and nothing done when it is wrong or missing, or
    // when there was no ARQC in this card session). APPLICATION BLOCK and
    // UNBLOCK change the application's SELECT answer, CARD BLOCK makes every
    // later SELECT fail, PUT DATA (keyed cards) replaces a GET DATA value;
    // the others (PIN change, UPDATE RECORD...) are accepted as they come.
    Bytes issuer_script(const Command& c) {
        AppProfile* app = current_app();
        if (app == nullptr) return sw_only(kSwNotAllowed);
        const bool checked = keyed(*app);
        if (checked && !script_mac_ok(c)) return sw_only(kSwBadSecureMessaging);
        switch (c.ins) {
            case 0x1E: app->select_sw = kSwLocked; break;
            case 0x18:
                if (app->select_sw == kSwLocked) app->select_sw = kSwOk;
                break;
            case 0x16: card_blocked = true; break;
            case 0xDA:
                if (checked) {
                    const uint32_t tag = c.p1 == 0 ? c.p2 : static_cast<uint32_t>(c.p1 << 8 | c.p2);
                    Bytes value(c.data.begin(), c.data.end() - 4);
                    if (tag == 0 || ber::encode(tag, value).size() > kMaxResponseData) return sw_only(kSwWrongData);
                    if (tag == 0x9F36) atc_unused[app_index] = true;
                    app->get_data[tag] = std::move(value);
                }
                break;
            default: break;
        }
        return sw_only(kSwOk);
    }
};

ProfileCard::ProfileCard(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
ProfileCard::~ProfileCard() = default;

std::shared_ptr<ProfileCard> ProfileCard::load_json(const std::string& text) {
    return std::shared_ptr<ProfileCard>(new ProfileCard(std::make_unique<Impl>(card_detail::parse_profile(text))));
}

std::shared_ptr<ProfileCard> ProfileCard::load_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("card profile: cannot open " + path);
    std::ostringstream text;
    text << in.rdbuf();
    if (in.bad()) throw std::runtime_error("card profile: cannot read " + path);
    try {
        return load_json(text.str());
    } catch (const std::runtime_error& e) {
        throw std::runtime_error(path + ": " + e.what());
    }
}

std::string ProfileCard::shipped_cards_dir() {
    if (const char* dir = std::getenv("KOLT_SIM_CARD_DIR"); dir != nullptr && *dir != '\0') return dir;
    return (std::filesystem::path(__FILE__).parent_path().parent_path() / "cards").string();
}

std::shared_ptr<ProfileCard> ProfileCard::shipped(const std::string& name) {
    return load_file((std::filesystem::path(shipped_cards_dir()) / (name + ".json")).string());
}

std::shared_ptr<Card> Card::from_file(const std::string& path) { return ProfileCard::load_file(path); }
std::shared_ptr<Card> Card::from_json(const std::string& text) { return ProfileCard::load_json(text); }

std::vector<uint8_t> ProfileCard::power_on() {
    std::lock_guard lock(impl_->mu);
    impl_->powered = true;
    impl_->reset_power();
    return impl_->profile.atr;
}

void ProfileCard::power_off() {
    std::lock_guard lock(impl_->mu);
    impl_->powered = false;
    impl_->reset_power();
}

std::vector<uint8_t> ProfileCard::exchange(std::span<const uint8_t> apdu) {
    std::lock_guard lock(impl_->mu);
    impl_->apdus.emplace_back(apdu.begin(), apdu.end());
    Bytes response = impl_->answer(apdu);
    impl_->responses.push_back(response);
    return response;
}

std::vector<std::vector<uint8_t>> ProfileCard::apdus() const {
    std::lock_guard lock(impl_->mu);
    return impl_->apdus;
}

std::vector<std::vector<uint8_t>> ProfileCard::responses() const {
    std::lock_guard lock(impl_->mu);
    return impl_->responses;
}

void ProfileCard::clear_apdus() {
    std::lock_guard lock(impl_->mu);
    impl_->apdus.clear();
    impl_->responses.clear();
}

std::string ProfileCard::name() const {
    std::lock_guard lock(impl_->mu);
    return impl_->profile.name;
}

std::string ProfileCard::description() const {
    std::lock_guard lock(impl_->mu);
    return impl_->profile.description;
}

std::string ProfileCard::interface_kind() const {
    std::lock_guard lock(impl_->mu);
    return impl_->profile.interface_kind;
}

std::vector<uint8_t> ProfileCard::atr() const {
    std::lock_guard lock(impl_->mu);
    return impl_->profile.atr;
}

bool ProfileCard::powered() const {
    std::lock_guard lock(impl_->mu);
    return impl_->powered;
}

void ProfileCard::override_sw(uint8_t ins, uint16_t sw) { add_override(ResponseOverride::for_ins(ins, sw)); }

void ProfileCard::override_sw(std::span<const uint8_t> apdu_prefix, uint16_t sw) {
    if (apdu_prefix.empty()) throw std::invalid_argument("empty APDU prefix");
    add_override(ResponseOverride::for_prefix(apdu_prefix, sw));
}

void ProfileCard::add_override(ResponseOverride override_rule) {
    if (!override_rule.ins && override_rule.prefix.empty())
        throw std::invalid_argument("an override needs an INS or an APDU prefix");
    if (override_rule.response.size() < 2 || override_rule.response.size() > kMaxResponseData + 2)
        throw std::invalid_argument("an override response needs 2 to 256 bytes");
    std::lock_guard lock(impl_->mu);
    impl_->added_rules.push_back(Rule{std::move(override_rule)});
}

void ProfileCard::clear_overrides() {
    std::lock_guard lock(impl_->mu);
    impl_->added_rules.clear();
}

void ProfileCard::set_get_data(uint32_t tag, std::vector<uint8_t> value, std::span<const uint8_t> aid) {
    if (tag == 0 || tag > 0xFFFF) throw std::invalid_argument("GET DATA takes tags of one or two bytes");
    if (ber::encode(tag, value).size() > kMaxResponseData) throw std::invalid_argument("GET DATA value too long");
    std::lock_guard lock(impl_->mu);
    const size_t i = impl_->app_by_aid(aid);
    impl_->profile.apps[i].get_data[tag] = std::move(value);
    if (tag == 0x9F36) impl_->atc_unused[i] = true;
}

void ProfileCard::remove_get_data(uint32_t tag, std::span<const uint8_t> aid) {
    std::lock_guard lock(impl_->mu);
    impl_->profile.apps[impl_->app_by_aid(aid)].get_data.erase(tag);
}

void ProfileCard::set_locked(bool is_locked, std::span<const uint8_t> aid) {
    std::lock_guard lock(impl_->mu);
    impl_->profile.apps[impl_->app_by_aid(aid)].select_sw = is_locked ? kSwLocked : kSwOk;
}

bool ProfileCard::locked(std::span<const uint8_t> aid) const {
    std::lock_guard lock(impl_->mu);
    return impl_->profile.apps[impl_->app_by_aid(aid)].select_sw == kSwLocked;
}

bool ProfileCard::issuer_authenticated() const {
    std::lock_guard lock(impl_->mu);
    return impl_->issuer_authenticated;
}

}  // namespace kolt::sim
