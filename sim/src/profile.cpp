// Device profiles: the built-in unit and JSON files.
#include <cjson/cJSON.h>

#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <sstream>

#include "idcard_internal.hpp"
#include "kolt_sim/idcard.hpp"
#include "kolt_sim/simulator.hpp"
#include "util_internal.hpp"

namespace kolt::sim {

namespace {

std::vector<uint8_t> text_bytes(std::string_view s) { return {s.begin(), s.end()}; }

void put_le(std::vector<uint8_t>& out, uint32_t v, int n) {
    for (int i = 0; i < n; ++i) out.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

std::vector<uint8_t> serial_from_fields(uint32_t a, uint32_t b, uint32_t c, uint32_t d, uint32_t e) {
    std::vector<uint8_t> s;
    put_le(s, a, 2);
    put_le(s, b, 2);
    put_le(s, c, 4);
    put_le(s, d, 4);
    put_le(s, e, 4);
    return s;
}

// --- JSON helpers -------------------------------------------------------------

using JsonPtr = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;

[[noreturn]] void fail(const std::string& what) { throw std::runtime_error("device profile: " + what); }

std::string get_string(const cJSON* item, const std::string& key) {
    if (!cJSON_IsString(item)) fail("\"" + key + "\" must be a string");
    return item->valuestring;
}

std::vector<uint8_t> get_hex(const cJSON* item, const std::string& key) {
    auto v = parse_hex(get_string(item, key));
    if (!v) fail("\"" + key + "\" is not hexadecimal text");
    return *v;
}

long get_int(const cJSON* item, const std::string& key, long lo, long hi) {
    long v = 0;
    if (cJSON_IsNumber(item)) {
        const double d = item->valuedouble;
        if (d != static_cast<double>(static_cast<long>(d))) fail("\"" + key + "\" must be an integer");
        v = static_cast<long>(d);
    } else if (cJSON_IsString(item)) {
        auto p = parse_number(item->valuestring);
        if (!p) fail("\"" + key + "\" is not a number");
        v = *p;
    } else {
        fail("\"" + key + "\" must be a number");
    }
    if (v < lo || v > hi) fail("\"" + key + "\" out of range");
    return v;
}

std::pair<uint8_t, uint8_t> get_status(const cJSON* item, const std::string& key) {
    auto v = get_hex(item, key);
    if (v.size() != 2) fail("\"" + key + "\" must be two bytes (four hex digits)");
    return {v[0], v[1]};
}

void check_keys(const cJSON* obj, const std::set<std::string>& allowed, const std::string& where) {
    for (const cJSON* it = obj->child; it != nullptr; it = it->next) {
        if (allowed.count(it->string) == 0) fail("unknown key \"" + std::string(it->string) + "\" in " + where);
    }
}

std::vector<uint8_t> bytes_value(const cJSON* item, const std::string& key) {
    // A string is taken as text; {"hex": "..."} gives bytes.
    if (cJSON_IsString(item)) return text_bytes(item->valuestring);
    if (cJSON_IsObject(item)) {
        check_keys(item, {"hex", "text"}, key);
        if (const cJSON* h = cJSON_GetObjectItemCaseSensitive(item, "hex")) return get_hex(h, key + ".hex");
        if (const cJSON* t = cJSON_GetObjectItemCaseSensitive(item, "text"))
            return text_bytes(get_string(t, key + ".text"));
    }
    fail("\"" + key + "\" must be a text or {\"hex\": ...}");
}

// Calls `body` for each entry of the array `arr` (named `where` in messages),
// after checking that the entry is an object with only the keys `allowed`.
template <typename Body>
void for_each_entry(const cJSON* arr, const std::string& where, const std::set<std::string>& allowed, Body&& body) {
    if (!cJSON_IsArray(arr)) fail("\"" + where + "\" must be an array");
    const cJSON* it = nullptr;
    cJSON_ArrayForEach(it, arr) {
        if (!cJSON_IsObject(it)) fail("\"" + where + "\" entries must be objects");
        check_keys(it, allowed, where);
        body(it);
    }
}

long entry_int(const cJSON* entry, const char* key, long lo, long hi) {
    return get_int(cJSON_GetObjectItemCaseSensitive(entry, key), key, lo, hi);
}

// "fields": {"layout": "id", "name": "...", ...} written at the layout's
// places ("I" and "J" fields also write the card type).
void apply_named_fields(const cJSON* f, std::vector<uint8_t>& text) {
    if (!cJSON_IsObject(f)) fail("\"identity_card.fields\" must be an object");
    if (text.size() < kIdTextSize) text.resize(kIdTextSize, 0);
    std::string layout = "id";
    if (const cJSON* l = cJSON_GetObjectItemCaseSensitive(f, "layout")) {
        layout = get_string(l, "identity_card.fields.layout");
        if (layout != "id" && layout != "I" && layout != "J")
            fail("\"identity_card.fields.layout\" must be \"id\", \"I\" or \"J\"");
    }
    for (const cJSON* it = f->child; it != nullptr; it = it->next) {
        if (std::strcmp(it->string, "layout") == 0) continue;
        if (!put_id_field_by_key(text, layout, it->string, get_string(it, it->string)))
            fail("unknown identity card field \"" + std::string(it->string) + "\" (layout " + layout + ")");
    }
}

// "raw_fields": [{"offset": N, "size": N, "text": "..."}, ...].
void apply_raw_fields(const cJSON* rf, std::vector<uint8_t>& text) {
    if (text.size() < 256) text.resize(256, 0);
    for_each_entry(rf, "identity_card.raw_fields", {"offset", "size", "text"}, [&](const cJSON* it) {
        const long off = entry_int(it, "offset", 0, 255);
        const long size = entry_int(it, "size", 1, 256);
        put_id_field(text, static_cast<size_t>(off), static_cast<size_t>(size),
                     get_string(cJSON_GetObjectItemCaseSensitive(it, "text"), "text"), "raw field");
    });
}

// The identity card answer built from the default text and photo and the
// object's text_hex, fields, raw_fields and photo_hex.
std::vector<uint8_t> build_id_answer(const cJSON* obj) {
    std::vector<uint8_t> text = encode_id_text(default_id_card());
    std::vector<uint8_t> photo = default_id_photo();
    if (const cJSON* t = cJSON_GetObjectItemCaseSensitive(obj, "text_hex")) {
        text = get_hex(t, "identity_card.text_hex");
    }
    if (const cJSON* f = cJSON_GetObjectItemCaseSensitive(obj, "fields")) apply_named_fields(f, text);
    if (const cJSON* rf = cJSON_GetObjectItemCaseSensitive(obj, "raw_fields")) apply_raw_fields(rf, text);
    if (const cJSON* ph = cJSON_GetObjectItemCaseSensitive(obj, "photo_hex")) {
        photo = get_hex(ph, "identity_card.photo_hex");
    }
    return make_id_answer(text, photo);
}

void read_identity(const cJSON* obj, DeviceProfile& p) {
    if (cJSON_IsNull(obj)) {
        p.id_answer.clear();
        return;
    }
    if (!cJSON_IsObject(obj)) fail("\"identity_card\" must be an object or null");
    check_keys(obj, {"present", "no_card_status", "answer_hex", "text_hex", "photo_hex", "fields", "raw_fields"},
               "identity_card");
    if (const cJSON* s = cJSON_GetObjectItemCaseSensitive(obj, "no_card_status")) {
        std::tie(p.id_no_card_s1, p.id_no_card_s2) = get_status(s, "identity_card.no_card_status");
    }
    bool present = true;
    if (const cJSON* pr = cJSON_GetObjectItemCaseSensitive(obj, "present")) {
        if (!cJSON_IsBool(pr)) fail("\"identity_card.present\" must be true or false");
        present = cJSON_IsTrue(pr);
    }
    if (const cJSON* a = cJSON_GetObjectItemCaseSensitive(obj, "answer_hex")) {
        p.id_answer = get_hex(a, "identity_card.answer_hex");
    } else {
        p.id_answer = build_id_answer(obj);
    }
    if (!present) p.id_answer.clear();
}

std::string read_family(const cJSON* v) {
    std::string family = get_string(v, "family");
    if (family != "bracket" && family != "legacy86") fail("\"family\" must be \"bracket\" or \"legacy86\"");
    return family;
}

// "versions": {"selector": version, ...}; replaces all built-in versions.
std::map<uint8_t, std::vector<uint8_t>> read_versions(const cJSON* v) {
    if (!cJSON_IsObject(v)) fail("\"versions\" must be an object of selector: version");
    std::map<uint8_t, std::vector<uint8_t>> versions;
    for (const cJSON* it = v->child; it != nullptr; it = it->next) {
        auto sel = parse_number(it->string);
        if (!sel || *sel < 0 || *sel > 255) fail("version selector \"" + std::string(it->string) + "\" is not 0..255");
        versions[static_cast<uint8_t>(*sel)] = bytes_value(it, std::string("versions.") + it->string);
    }
    return versions;
}

// "module_serial": sixteen bytes of hex, or the fields {"a", ..., "e"}.
std::vector<uint8_t> read_module_serial(const cJSON* v) {
    if (!cJSON_IsObject(v)) {
        auto serial = get_hex(v, "module_serial");
        if (serial.size() != 16) fail("\"module_serial\" must be 16 bytes");
        return serial;
    }
    check_keys(v, {"a", "b", "c", "d", "e"}, "module_serial");
    auto field = [&](const char* k, long hi) {
        const cJSON* f = cJSON_GetObjectItemCaseSensitive(v, k);
        if (f == nullptr) fail(std::string("\"module_serial.") + k + "\" is missing");
        return static_cast<uint32_t>(get_int(f, std::string("module_serial.") + k, 0, hi));
    };
    return serial_from_fields(field("a", 0xFFFF), field("b", 0xFFFF), field("c", 0xFFFFFFFFL), field("d", 0xFFFFFFFFL),
                              field("e", 0xFFFFFFFFL));
}

std::optional<Reply> read_unknown_reply(const cJSON* v) {
    if (cJSON_IsNull(v)) return std::nullopt;
    if (!cJSON_IsObject(v)) fail("\"unknown_reply\" must be an object or null");
    check_keys(v, {"status", "data"}, "unknown_reply");
    Reply rep;
    if (const cJSON* s = cJSON_GetObjectItemCaseSensitive(v, "status"))
        std::tie(rep.s1, rep.s2) = get_status(s, "unknown_reply.status");
    if (const cJSON* d = cJSON_GetObjectItemCaseSensitive(v, "data")) rep.data = get_hex(d, "unknown_reply.data");
    return rep;
}

// "status_overrides": [{"class": N, "code": N, "status": "XXXX"}, ...].
void read_status_overrides(const cJSON* v, DeviceProfile& p) {
    for_each_entry(v, "status_overrides", {"class", "code", "status"}, [&](const cJSON* it) {
        const long cls = entry_int(it, "class", 0, 255);
        const long code = entry_int(it, "code", 0, 255);
        const cJSON* st = cJSON_GetObjectItemCaseSensitive(it, "status");
        if (st == nullptr) fail("\"status_overrides\" entry without \"status\"");
        p.status_overrides[static_cast<uint16_t>(cls << 8 | code)] = get_status(st, "status");
    });
}

// --- the magnetic stripe unit ------------------------------------------------

// Track 2 and 3 text goes into escape replies between "s", "A" and "?" FS.
void check_track(const std::string& text, const std::string& key, bool escape_track) {
    for (char ch : text) {
        const auto c = static_cast<unsigned char>(ch);
        if (c < 0x20 || c >= 0x7F) fail("\"" + key + "\" holds a control character");
        if (escape_track && ch == 'A') fail("\"" + key + "\" must not hold \"A\"");
    }
}

StripeCard read_stripe_card(const cJSON* v, const std::string& where) {
    if (!cJSON_IsObject(v)) fail("\"" + where + "\" must be an object of track1, track2, track3");
    check_keys(v, {"track1", "track2", "track3", "comment"}, where);
    StripeCard card;
    auto track = [&](const char* key, std::string& out, bool escape_track) {
        if (const cJSON* t = cJSON_GetObjectItemCaseSensitive(v, key)) {
            out = get_string(t, where + "." + key);
            check_track(out, where + "." + key, escape_track);
        }
    };
    track("track1", card.track1, false);
    track("track2", card.track2, true);
    track("track3", card.track3, true);
    return card;
}

bool get_bool(const cJSON* item, const std::string& key) {
    if (!cJSON_IsBool(item)) fail("\"" + key + "\" must be true or false");
    return cJSON_IsTrue(item);
}

uint8_t get_byte(const cJSON* item, const std::string& key) {
    if (cJSON_IsNumber(item)) return static_cast<uint8_t>(get_int(item, key, 0, 255));
    const auto v = get_hex(item, key);
    if (v.size() != 1) fail("\"" + key + "\" must be one byte (two hex digits)");
    return v[0];
}

// "stripe": {"card": {...}, "card_stays": false, "swipe_delay_ms": 0, "pieces": [..],
// "piece_delay_ms": 0, "separator": "=", "omit_a": false, "trailer": "..." or {"hex": ".."},
// "write_fails": false, "write_fail_byte": "41", "no_data_status": "01"}.
void read_stripe(const cJSON* v, StripeProfile& sp) {
    if (!cJSON_IsObject(v)) fail("\"stripe\" must be an object");
    check_keys(v,
               {"card", "card_stays", "swipe_delay_ms", "pieces", "piece_delay_ms", "separator", "omit_a", "trailer",
                "write_fails", "write_fail_byte", "no_data_status", "comment"},
               "stripe");
    auto get = [&](const char* key) { return cJSON_GetObjectItemCaseSensitive(v, key); };
    if (const cJSON* c = get("card")) sp.card = read_stripe_card(c, "stripe.card");
    if (const cJSON* c = get("card_stays")) sp.card_stays = get_bool(c, "stripe.card_stays");
    if (const cJSON* c = get("swipe_delay_ms"))
        sp.swipe_delay_ms = static_cast<int>(get_int(c, "stripe.swipe_delay_ms", 0, 600000));
    if (const cJSON* c = get("pieces")) {
        if (!cJSON_IsArray(c)) fail("\"stripe.pieces\" must be an array of sizes");
        sp.style.pieces.clear();
        const cJSON* it = nullptr;
        cJSON_ArrayForEach(it, c) sp.style.pieces.push_back(static_cast<size_t>(get_int(it, "stripe.pieces", 1, 4096)));
    }
    if (const cJSON* c = get("piece_delay_ms"))
        sp.style.piece_delay_ms = static_cast<int>(get_int(c, "stripe.piece_delay_ms", 0, 60000));
    if (const cJSON* c = get("separator")) {
        const std::string sep = get_string(c, "stripe.separator");
        if (sep.size() != 1 || std::string("='>|").find(sep[0]) == std::string::npos)
            fail("\"stripe.separator\" must be one of = ' > |");
        sp.style.separator = sep[0];
    }
    if (const cJSON* c = get("omit_a")) sp.style.omit_a = get_bool(c, "stripe.omit_a");
    if (const cJSON* c = get("trailer")) sp.style.trailer = bytes_value(c, "stripe.trailer");
    if (const cJSON* c = get("write_fails")) sp.write_fails = get_bool(c, "stripe.write_fails");
    if (const cJSON* c = get("write_fail_byte")) sp.style.write_fail_byte = get_byte(c, "stripe.write_fail_byte");
    if (const cJSON* c = get("no_data_status")) {
        sp.style.no_data_status = get_byte(c, "stripe.no_data_status");
        if (sp.style.no_data_status == 0) fail("\"stripe.no_data_status\" must not be 00");
    }
}

// "fingerprint": {"type": "none"|"framed"|"ef01", "features": "hex" (256
// bytes), "finger_after_ms": N, "no_finger_status": "0001",
// "no_finger_code": "02"}.
void read_finger(const cJSON* v, FingerProfile& fp) {
    if (!cJSON_IsObject(v)) fail("\"fingerprint\" must be an object");
    check_keys(v, {"type", "features", "finger_after_ms", "no_finger_status", "no_finger_code", "comment"},
               "fingerprint");
    auto get = [&](const char* key) { return cJSON_GetObjectItemCaseSensitive(v, key); };
    if (const cJSON* c = get("type")) {
        fp.type = get_string(c, "fingerprint.type");
        if (fp.type != "none" && fp.type != "framed" && fp.type != "ef01")
            fail("\"fingerprint.type\" must be \"none\", \"framed\" or \"ef01\"");
    }
    if (const cJSON* c = get("features")) {
        fp.features = get_hex(c, "fingerprint.features");
        if (fp.features.size() != 256) fail("\"fingerprint.features\" must be 256 bytes");
    }
    if (const cJSON* c = get("finger_after_ms"))
        fp.finger_after_ms = static_cast<int>(get_int(c, "fingerprint.finger_after_ms", -1, 86400000));
    if (const cJSON* c = get("no_finger_status")) {
        std::tie(fp.no_finger_status[0], fp.no_finger_status[1]) = get_status(c, "fingerprint.no_finger_status");
        if (fp.no_finger_status[0] == 0 && fp.no_finger_status[1] == 0)
            fail("\"fingerprint.no_finger_status\" must not be 0000");
    }
    if (const cJSON* c = get("no_finger_code")) {
        fp.no_finger_code = get_byte(c, "fingerprint.no_finger_code");
        if (fp.no_finger_code == 0) fail("\"fingerprint.no_finger_code\" must not be 00");
    }
}

std::string read_text_file(const std::string& path, const char* what) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error(std::string(what) + ": cannot open " + path);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

}  // namespace

StripeCard default_stripe_card() {
    StripeCard c;
    c.track1 = "%B6299990000001234560^ZHANG/SAN^3012201100000000000000?";
    c.track2 = ";6299990000001234560=30122201234567890?";
    c.track3 = ";996299990000001234560=1560000000000000000000000000000000000003012=0000000000000000000000?";
    return c;
}

StripeCard parse_stripe_card(const std::string& json_text) {
    JsonPtr root(cJSON_Parse(json_text.c_str()), &cJSON_Delete);
    if (!root) throw std::runtime_error("stripe card: not valid JSON");
    try {
        return read_stripe_card(root.get(), "the card");
    } catch (const std::runtime_error& e) {
        std::string what = e.what();
        if (what.rfind("device profile: ", 0) == 0) what.replace(0, 16, "stripe card: ");
        throw std::runtime_error(what);
    }
}

StripeCard load_stripe_card(const std::string& path) {
    const std::string text = read_text_file(path, "stripe card");
    try {
        return parse_stripe_card(text);
    } catch (const std::runtime_error& e) {
        throw std::runtime_error(std::string(e.what()) + " (" + path + ")");
    }
}

std::vector<uint8_t> make_id_answer(std::span<const uint8_t> text, std::span<const uint8_t> photo) {
    std::vector<uint8_t> a;
    a.push_back(static_cast<uint8_t>(text.size() >> 8));
    a.push_back(static_cast<uint8_t>(text.size() & 0xFF));
    a.push_back(static_cast<uint8_t>(photo.size() >> 8));
    a.push_back(static_cast<uint8_t>(photo.size() & 0xFF));
    a.insert(a.end(), text.begin(), text.end());
    a.insert(a.end(), photo.begin(), photo.end());
    return a;
}

DeviceProfile default_profile() {
    DeviceProfile p;
    p.name = "KL560T41";
    p.family = "bracket";
    p.greeting = {0x90, 0x00, 'K', 'L', '5', '6', '0', 'T', '4', '1', 0x01};
    p.disconnect = {0x90};
    p.legacy86_reply = {0x10, 0x90, 0x00};
    p.versions[1] = text_bytes("KOLT KL560T41");
    p.versions[2] = text_bytes("HW-REV-C");
    p.versions[3] = text_bytes("BOOT-1.02");
    p.versions[4] = text_bytes("KL560T41-FW-20240115-V1.08");
    p.module_serial = serial_from_fields(1, 2, 20230915, 1234567, 89012345);
    p.id_answer = make_id_card_answer(default_id_card());
    p.stripe.card = default_stripe_card();
    return p;
}

DeviceProfile parse_device_profile(const std::string& json_text) {
    JsonPtr root(cJSON_Parse(json_text.c_str()), &cJSON_Delete);
    if (!root) fail("not valid JSON");
    if (!cJSON_IsObject(root.get())) fail("the top level must be an object");
    const cJSON* r = root.get();
    check_keys(r,
               {"name", "family", "greeting", "disconnect", "legacy86_reply", "versions", "module_serial",
                "identity_card", "unknown_reply", "status_overrides", "stripe", "fingerprint", "comment"},
               "the profile");
    DeviceProfile p = default_profile();
    auto get = [&](const char* key) { return cJSON_GetObjectItemCaseSensitive(r, key); };

    if (const cJSON* v = get("name")) p.name = get_string(v, "name");
    if (const cJSON* v = get("family")) p.family = read_family(v);
    if (const cJSON* v = get("greeting")) p.greeting = get_hex(v, "greeting");
    if (const cJSON* v = get("disconnect")) p.disconnect = get_hex(v, "disconnect");
    if (const cJSON* v = get("legacy86_reply")) p.legacy86_reply = get_hex(v, "legacy86_reply");
    if (const cJSON* v = get("versions")) p.versions = read_versions(v);
    if (const cJSON* v = get("module_serial")) p.module_serial = read_module_serial(v);
    if (const cJSON* v = get("identity_card")) read_identity(v, p);
    if (const cJSON* v = get("unknown_reply")) p.unknown_reply = read_unknown_reply(v);
    if (const cJSON* v = get("status_overrides")) read_status_overrides(v, p);
    if (const cJSON* v = get("stripe")) read_stripe(v, p.stripe);
    if (const cJSON* v = get("fingerprint")) read_finger(v, p.finger);
    return p;
}

DeviceProfile load_device_profile(const std::string& path) {
    const std::string text = read_text_file(path, "device profile");
    try {
        return parse_device_profile(text);
    } catch (const std::runtime_error& e) {
        throw std::runtime_error(std::string(e.what()) + " (" + path + ")");
    }
}

}  // namespace kolt::sim
