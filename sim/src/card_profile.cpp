// Reading JSON card profiles (format: sim/cards/README.md).
#include "card_profile.hpp"

#include <cjson/cJSON.h>

#include <algorithm>
#include <initializer_list>
#include <memory>
#include <set>
#include <stdexcept>
#include <string_view>

namespace kolt::sim::card_detail {

namespace {

using ber::DolEntry;

[[noreturn]] void fail(const std::string& path, const std::string& what) {
    throw std::runtime_error("card profile: " + path + ": " + what);
}

std::string member_path(const std::string& path, std::string_view key) {
    return path.empty() ? std::string(key) : path + "." + std::string(key);
}

std::string index_path(const std::string& path, size_t i) {
    return path + "[" + std::to_string(i) + "]";
}

// Every member of `obj` must be one of `allowed` (or "comment").
void check_keys(const cJSON* obj, const std::string& path, std::initializer_list<std::string_view> allowed) {
    for (const cJSON* m = obj->child; m != nullptr; m = m->next) {
        const std::string_view key = m->string ? m->string : "";
        if (key == "comment") continue;
        if (std::find(allowed.begin(), allowed.end(), key) == allowed.end())
            fail(member_path(path, key), "unknown key");
    }
    std::set<std::string_view> seen;
    for (const cJSON* m = obj->child; m != nullptr; m = m->next) {
        const std::string_view key = m->string ? m->string : "";
        if (key != "comment" && !seen.insert(key).second) fail(member_path(path, key), "key given twice");
    }
}

const cJSON* get(const cJSON* obj, const char* key) { return cJSON_GetObjectItemCaseSensitive(obj, key); }

const cJSON* require_object(const cJSON* v, const std::string& path) {
    if (!cJSON_IsObject(v)) fail(path, "must be an object");
    return v;
}

const cJSON* require_array(const cJSON* v, const std::string& path) {
    if (!cJSON_IsArray(v)) fail(path, "must be an array");
    return v;
}

std::string text_of(const cJSON* v, const std::string& path) {
    if (!cJSON_IsString(v) || v->valuestring == nullptr) fail(path, "must be a string");
    return v->valuestring;
}

Bytes hex_of(const cJSON* v, const std::string& path) {
    const std::string text = text_of(v, path);
    try {
        return ber::from_hex(text);
    } catch (const std::invalid_argument& e) {
        fail(path, e.what());
    }
}

Bytes hex_of_size(const cJSON* v, const std::string& path, size_t min, size_t max) {
    Bytes b = hex_of(v, path);
    if (b.size() < min || b.size() > max) {
        if (min == max) fail(path, "must be " + std::to_string(min) + " bytes");
        fail(path, "must be " + std::to_string(min) + " to " + std::to_string(max) + " bytes");
    }
    return b;
}

long integer_of(const cJSON* v, const std::string& path, long min, long max) {
    if (!cJSON_IsNumber(v)) fail(path, "must be a number");
    const double d = v->valuedouble;
    if (!(d >= static_cast<double>(min) && d <= static_cast<double>(max)))
        fail(path, "must be between " + std::to_string(min) + " and " + std::to_string(max));
    const long n = static_cast<long>(d);
    if (static_cast<double>(n) != d) fail(path, "must be a whole number");
    return n;
}

bool bool_of(const cJSON* v, const std::string& path) {
    if (!cJSON_IsBool(v)) fail(path, "must be true or false");
    return cJSON_IsTrue(v);
}

uint16_t sw_of(const cJSON* v, const std::string& path) {
    const Bytes b = hex_of_size(v, path, 2, 2);
    if (b[0] < 0x61 || b[0] > 0x6F) {
        if (b[0] != 0x90 || b[1] != 0x00) fail(path, "not a status word");
    }
    return static_cast<uint16_t>(b[0] << 8 | b[1]);
}

uint32_t tag_of_key(const cJSON* m, const std::string& path) {
    try {
        return ber::parse_tag_text(m->string ? m->string : "");
    } catch (const std::invalid_argument& e) {
        fail(path, e.what());
    }
}

bool is_text_value(const cJSON* v) {
    return cJSON_IsObject(v) && v->child != nullptr && v->child->next == nullptr && v->child->string &&
           std::string_view(v->child->string) == "text";
}

Bytes text_value(const cJSON* v, const std::string& path) {
    const std::string t = text_of(v->child, member_path(path, "text"));
    return Bytes(t.begin(), t.end());
}

Bytes tlv_list(const cJSON* obj, const std::string& path);

// The bytes of every element of an array, each made by part(element,
// element path), back to back.
template <class Part>
Bytes concatenated(const cJSON* array, const std::string& path, Part part) {
    Bytes out;
    size_t i = 0;
    for (const cJSON* e = array->child; e != nullptr; e = e->next, ++i) {
        const Bytes bytes = part(e, index_path(path, i));
        out.insert(out.end(), bytes.begin(), bytes.end());
    }
    return out;
}

// A value: hex text, {"text": "..."} for characters, an object of tags
// (the encoded data objects), or an array of such values, concatenated.
Bytes value_of(const cJSON* v, const std::string& path) {
    if (cJSON_IsString(v)) return hex_of(v, path);
    if (is_text_value(v)) return text_value(v, path);
    if (cJSON_IsObject(v)) return tlv_list(v, path);
    if (cJSON_IsArray(v)) return concatenated(v, path, value_of);
    fail(path, "must be hex text, {\"text\": ...}, an object of tags or an array");
}

Bytes tlv_list(const cJSON* obj, const std::string& path) {
    Bytes out;
    for (const cJSON* m = obj->child; m != nullptr; m = m->next) {
        const std::string key = m->string ? m->string : "";
        if (key == "comment") continue;
        const std::string p = member_path(path, key);
        const uint32_t tag = tag_of_key(m, p);
        const Bytes value = value_of(m, p);
        try {
            ber::append(out, tag, value);
        } catch (const std::length_error& e) {
            fail(p, e.what());
        }
    }
    return out;
}

void check_response_size(const Bytes& data, const std::string& path) {
    if (data.size() > kMaxResponseData)
        fail(path, std::to_string(data.size()) + " bytes; a response holds at most " +
                       std::to_string(kMaxResponseData) + " bytes of data");
}

Bytes text_bytes(const cJSON* v, const std::string& path) {
    const std::string t = text_of(v, path);
    return Bytes(t.begin(), t.end());
}

// --- payment system directory -------------------------------------------

Bytes directory_entry(const cJSON* e, const std::string& path) {
    require_object(e, path);
    check_keys(e, path, {"aid", "label", "priority", "extra"});
    const cJSON* aid = get(e, "aid");
    if (aid == nullptr) fail(member_path(path, "aid"), "missing");
    Bytes body;
    ber::append(body, 0x4F, hex_of_size(aid, member_path(path, "aid"), 5, 16));
    if (const cJSON* v = get(e, "label")) ber::append(body, 0x50, text_bytes(v, member_path(path, "label")));
    if (const cJSON* v = get(e, "priority")) {
        const uint8_t p = static_cast<uint8_t>(integer_of(v, member_path(path, "priority"), 0, 255));
        ber::append(body, 0x87, Bytes{p});
    }
    if (const cJSON* v = get(e, "extra")) {
        const Bytes extra = tlv_list(require_object(v, member_path(path, "extra")), member_path(path, "extra"));
        body.insert(body.end(), extra.begin(), extra.end());
    }
    return ber::encode(0x61, body);
}

Bytes directory_record(const cJSON* r, const std::string& path) {
    if (cJSON_IsArray(r)) return ber::encode(0x70, concatenated(r, path, directory_entry));
    return value_of(r, path);
}

PseProfile read_pse(const cJSON* obj, const std::string& path) {
    require_object(obj, path);
    check_keys(obj, path, {"name", "sfi", "language", "fci", "select_sw", "records"});
    PseProfile pse;
    const std::string name = get(obj, "name") ? text_of(get(obj, "name"), member_path(path, "name"))
                                              : std::string("1PAY.SYS.DDF01");
    if (name.size() < 5 || name.size() > 16) fail(member_path(path, "name"), "must be 5 to 16 characters");
    pse.name.assign(name.begin(), name.end());
    if (const cJSON* v = get(obj, "sfi")) pse.sfi = static_cast<uint8_t>(integer_of(v, member_path(path, "sfi"), 1, 30));
    if (const cJSON* v = get(obj, "select_sw")) pse.select_sw = sw_of(v, member_path(path, "select_sw"));
    if (const cJSON* v = get(obj, "fci")) {
        pse.fci = value_of(v, member_path(path, "fci"));
    } else {
        Bytes a5;
        ber::append(a5, 0x88, Bytes{pse.sfi});
        if (const cJSON* l = get(obj, "language")) ber::append(a5, 0x5F2D, text_bytes(l, member_path(path, "language")));
        Bytes body;
        ber::append(body, 0x84, pse.name);
        ber::append(body, 0xA5, a5);
        pse.fci = ber::encode(0x6F, body);
    }
    check_response_size(pse.fci, member_path(path, "fci"));
    if (const cJSON* v = get(obj, "records")) {
        const std::string rp = member_path(path, "records");
        require_array(v, rp);
        size_t i = 0;
        for (const cJSON* r = v->child; r != nullptr; r = r->next, ++i) {
            pse.records.push_back(directory_record(r, index_path(rp, i)));
            check_response_size(pse.records.back(), index_path(rp, i));
        }
        if (pse.records.size() > 255) fail(rp, "too many records");
    }
    return pse;
}

// --- application ----------------------------------------------------------

const std::vector<DolEntry>& standard_log_format() {
    static const std::vector<DolEntry> f = *ber::parse_dol(
        ber::from_hex("9A03 9F2103 9F0206 9F0306 9F1A02 5F2A02 9F4E14 9C01 9F3602"));
    return f;
}

Bytes log_record(const cJSON* r, const std::vector<DolEntry>& format, const std::string& path) {
    if (cJSON_IsString(r)) return hex_of(r, path);
    require_object(r, path);
    // Every key must name a field of the log format.
    for (const cJSON* m = r->child; m != nullptr; m = m->next) {
        const std::string key = m->string ? m->string : "";
        if (key == "comment") continue;
        const uint32_t tag = tag_of_key(m, member_path(path, key));
        if (std::none_of(format.begin(), format.end(), [&](const DolEntry& e) { return e.tag == tag; }))
            fail(member_path(path, key), "not a field of the log format");
    }
    Bytes out;
    for (const DolEntry& field : format) {
        const cJSON* v = nullptr;
        for (const cJSON* m = r->child; m != nullptr; m = m->next) {
            const std::string key = m->string ? m->string : "";
            if (key != "comment" && ber::parse_tag_text(key) == field.tag) {
                v = m;
                break;
            }
        }
        Bytes value(field.length, 0x00);
        if (v != nullptr) {
            const std::string p = member_path(path, v->string);
            if (is_text_value(v)) {
                const Bytes t = text_value(v, p);  // left-aligned, padded with 00
                if (t.size() > field.length) fail(p, "longer than the field's " + std::to_string(field.length) + " bytes");
                std::copy(t.begin(), t.end(), value.begin());
            } else {
                const Bytes h = hex_of(v, p);  // right-aligned, padded with 00
                if (h.size() > field.length) fail(p, "longer than the field's " + std::to_string(field.length) + " bytes");
                std::copy(h.begin(), h.end(), value.end() - static_cast<std::ptrdiff_t>(h.size()));
            }
        }
        out.insert(out.end(), value.begin(), value.end());
    }
    return out;
}

LogProfile read_log(const cJSON* obj, const std::string& path) {
    require_object(obj, path);
    check_keys(obj, path, {"sfi", "format", "announced", "records"});
    LogProfile log;
    const cJSON* sfi = get(obj, "sfi");
    if (sfi == nullptr) fail(member_path(path, "sfi"), "missing");
    log.sfi = static_cast<uint8_t>(integer_of(sfi, member_path(path, "sfi"), 1, 30));
    std::vector<DolEntry> format = standard_log_format();
    if (const cJSON* v = get(obj, "format")) {
        log.format = hex_of_size(v, member_path(path, "format"), 0, 252);
        auto parsed = ber::parse_dol(log.format);
        if (!parsed) fail(member_path(path, "format"), "not a data object list");
        format = *parsed;
    } else {
        log.format = ber::from_hex("9A03 9F2103 9F0206 9F0306 9F1A02 5F2A02 9F4E14 9C01 9F3602");
    }
    if (const cJSON* v = get(obj, "records")) {
        const std::string rp = member_path(path, "records");
        require_array(v, rp);
        size_t i = 0;
        for (const cJSON* r = v->child; r != nullptr; r = r->next, ++i) {
            log.records.push_back(log_record(r, format, index_path(rp, i)));
            check_response_size(log.records.back(), index_path(rp, i));
        }
        if (log.records.size() > 255) fail(rp, "too many records");
    }
    log.announced = static_cast<unsigned>(log.records.size());
    if (const cJSON* v = get(obj, "announced"))
        log.announced = static_cast<unsigned>(integer_of(v, member_path(path, "announced"), 0, 255));
    return log;
}

void read_records(const cJSON* arr, const std::string& path, AppProfile& app) {
    require_array(arr, path);
    size_t i = 0;
    for (const cJSON* r = arr->child; r != nullptr; r = r->next, ++i) {
        const std::string p = index_path(path, i);
        require_object(r, p);
        check_keys(r, p, {"sfi", "record", "data"});
        const cJSON* sfi = get(r, "sfi");
        const cJSON* num = get(r, "record");
        const cJSON* data = get(r, "data");
        if (sfi == nullptr) fail(member_path(p, "sfi"), "missing");
        if (num == nullptr) fail(member_path(p, "record"), "missing");
        if (data == nullptr) fail(member_path(p, "data"), "missing");
        const auto key = std::make_pair(static_cast<uint8_t>(integer_of(sfi, member_path(p, "sfi"), 1, 30)),
                                        static_cast<uint8_t>(integer_of(num, member_path(p, "record"), 1, 255)));
        Bytes bytes = value_of(data, member_path(p, "data"));
        check_response_size(bytes, member_path(p, "data"));
        if (!app.records.emplace(key, std::move(bytes)).second) fail(p, "record given twice");
    }
}

// AFL covering the records (outside the log file): one entry per run of
// consecutive record numbers in an SFI.
Bytes afl_from_records(const AppProfile& app) {
    Bytes afl;
    for (auto it = app.records.begin(); it != app.records.end();) {
        const uint8_t sfi = it->first.first;
        const uint8_t first = it->first.second;
        uint8_t last = first;
        auto next = std::next(it);
        while (next != app.records.end() && next->first.first == sfi && next->first.second == last + 1) {
            last = next->first.second;
            ++next;
        }
        if (!(app.log && app.log->sfi == sfi)) afl.insert(afl.end(), {static_cast<uint8_t>(sfi << 3), first, last, 0});
        it = next;
    }
    return afl;
}

void read_gpo(const cJSON* obj, const std::string& path, AppProfile& app) {
    if (obj != nullptr) {
        require_object(obj, path);
        check_keys(obj, path, {"format", "aip", "afl", "extra", "response", "sw"});
    }
    const cJSON* empty = nullptr;
    auto item = [&](const char* key) { return obj ? get(obj, key) : empty; };
    if (const cJSON* v = item("sw")) app.gpo_sw = sw_of(v, member_path(path, "sw"));
    if (const cJSON* v = item("response")) {
        for (const char* k : {"format", "aip", "afl", "extra"})
            if (item(k)) fail(member_path(path, k), "not allowed together with \"response\"");
        app.gpo_response = value_of(v, member_path(path, "response"));
    } else if (app.gpo_sw == kSwOk) {
        const int format = item("format") ? static_cast<int>(integer_of(item("format"), member_path(path, "format"), 1, 2)) : 1;
        const Bytes aip = item("aip") ? hex_of_size(item("aip"), member_path(path, "aip"), 2, 2) : Bytes{0x7C, 0x00};
        const Bytes afl = item("afl") ? hex_of_size(item("afl"), member_path(path, "afl"), 0, 248) : afl_from_records(app);
        if (afl.size() % 4 != 0) fail(member_path(path, "afl"), "must be a multiple of 4 bytes");
        for (size_t i = 0; i < afl.size(); i += 4) {
            const int sfi = afl[i] >> 3;
            if (sfi < 1 || sfi > 30 || (afl[i] & 7) != 0 || afl[i + 1] == 0 || afl[i + 2] < afl[i + 1])
                fail(member_path(path, "afl"), "bad entry " + ber::to_hex(std::span(afl).subspan(i, 4)));
        }
        if (format == 1) {
            if (item("extra")) fail(member_path(path, "extra"), "only for format 2");
            Bytes v = aip;
            v.insert(v.end(), afl.begin(), afl.end());
            app.gpo_response = ber::encode(0x80, v);
        } else {
            Bytes body;
            ber::append(body, 0x82, aip);
            ber::append(body, 0x94, afl);
            if (const cJSON* e = item("extra")) {
                const Bytes extra = tlv_list(require_object(e, member_path(path, "extra")), member_path(path, "extra"));
                body.insert(body.end(), extra.begin(), extra.end());
            }
            app.gpo_response = ber::encode(0x77, body);
        }
    }
    check_response_size(app.gpo_response, path);
}

void read_generate_ac(const cJSON* obj, const std::string& path, AppProfile& app) {
    GenerateAcProfile& ac = app.generate_ac;
    ac.iad = ber::from_hex("07 01 01 03 A0 00 00 01 0A 01 00 00 00 00 00 4B 4F 4C 54");
    if (obj == nullptr) return;
    require_object(obj, path);
    check_keys(obj, path, {"format", "iad", "cryptogram", "cid"});
    if (const cJSON* v = get(obj, "format")) ac.format = static_cast<int>(integer_of(v, member_path(path, "format"), 1, 2));
    if (const cJSON* v = get(obj, "iad")) ac.iad = hex_of_size(v, member_path(path, "iad"), 0, 32);
    if (const cJSON* v = get(obj, "cryptogram")) ac.cryptogram = hex_of_size(v, member_path(path, "cryptogram"), 8, 8);
    if (const cJSON* v = get(obj, "cid")) ac.cid = hex_of_size(v, member_path(path, "cid"), 1, 1)[0];
}

IssuerMasterKeys read_issuer_keys(const cJSON* obj, const std::string& path) {
    require_object(obj, path);
    check_keys(obj, path, {"ac", "smi"});
    IssuerMasterKeys keys;
    if (const cJSON* v = get(obj, "ac")) keys.ac = hex_of_size(v, member_path(path, "ac"), 16, 16);
    if (const cJSON* v = get(obj, "smi")) keys.smi = hex_of_size(v, member_path(path, "smi"), 16, 16);
    return keys;
}

Bytes build_fci(const cJSON* obj, const std::string& path, const AppProfile& app) {
    Bytes a5;
    if (const cJSON* v = get(obj, "label")) ber::append(a5, 0x50, text_bytes(v, member_path(path, "label")));
    if (const cJSON* v = get(obj, "priority"))
        ber::append(a5, 0x87, Bytes{static_cast<uint8_t>(integer_of(v, member_path(path, "priority"), 0, 255))});
    if (app.pdol) ber::append(a5, 0x9F38, *app.pdol);
    if (const cJSON* v = get(obj, "language")) ber::append(a5, 0x5F2D, text_bytes(v, member_path(path, "language")));
    if (const cJSON* v = get(obj, "preferred_name")) ber::append(a5, 0x9F12, text_bytes(v, member_path(path, "preferred_name")));
    if (const cJSON* v = get(obj, "fci_proprietary")) {
        const std::string p = member_path(path, "fci_proprietary");
        const Bytes extra = tlv_list(require_object(v, p), p);
        a5.insert(a5.end(), extra.begin(), extra.end());
    }
    Bytes bf0c;
    if (app.log) ber::append(bf0c, 0x9F4D, Bytes{app.log->sfi, static_cast<uint8_t>(app.log->announced)});
    if (const cJSON* v = get(obj, "fci_discretionary")) {
        const std::string p = member_path(path, "fci_discretionary");
        const Bytes extra = tlv_list(require_object(v, p), p);
        bf0c.insert(bf0c.end(), extra.begin(), extra.end());
    }
    if (!bf0c.empty()) ber::append(a5, 0xBF0C, bf0c);
    Bytes body;
    ber::append(body, 0x84, app.aid);
    ber::append(body, 0xA5, a5);
    return ber::encode(0x6F, body);
}

AppProfile read_app(const cJSON* obj, const std::string& path) {
    require_object(obj, path);
    check_keys(obj, path,
               {"aid", "label", "priority", "language", "preferred_name", "pdol", "fci_proprietary",
                "fci_discretionary", "fci", "select_sw", "locked", "gpo", "records", "get_data", "log",
                "generate_ac", "issuer_keys"});
    AppProfile app;
    const cJSON* aid = get(obj, "aid");
    if (aid == nullptr) fail(member_path(path, "aid"), "missing");
    app.aid = hex_of_size(aid, member_path(path, "aid"), 5, 16);
    if (const cJSON* v = get(obj, "pdol")) {
        app.pdol = hex_of_size(v, member_path(path, "pdol"), 0, 252);
        if (!ber::parse_dol(*app.pdol)) fail(member_path(path, "pdol"), "not a data object list");
    }
    if (const cJSON* v = get(obj, "select_sw")) app.select_sw = sw_of(v, member_path(path, "select_sw"));
    if (const cJSON* v = get(obj, "locked")) {
        if (get(obj, "select_sw")) fail(member_path(path, "locked"), "not allowed together with \"select_sw\"");
        if (bool_of(v, member_path(path, "locked"))) app.select_sw = kSwLocked;
    }
    if (const cJSON* v = get(obj, "log")) app.log = read_log(v, member_path(path, "log"));
    if (const cJSON* v = get(obj, "records")) read_records(v, member_path(path, "records"), app);
    if (app.log) {
        for (const auto& [key, bytes] : app.records)
            if (key.first == app.log->sfi)
                fail(member_path(path, "records"), "SFI " + std::to_string(key.first) + " is the log file");
    }
    if (const cJSON* v = get(obj, "fci")) {
        for (const char* k : {"label", "priority", "language", "preferred_name", "fci_proprietary", "fci_discretionary"})
            if (get(obj, k)) fail(member_path(path, k), "not allowed together with \"fci\"");
        app.fci = value_of(v, member_path(path, "fci"));
    } else {
        app.fci = build_fci(obj, path, app);
    }
    check_response_size(app.fci, member_path(path, "fci"));
    read_gpo(get(obj, "gpo"), member_path(path, "gpo"), app);
    if (const cJSON* v = get(obj, "get_data")) {
        const std::string gp = member_path(path, "get_data");
        require_object(v, gp);
        for (const cJSON* m = v->child; m != nullptr; m = m->next) {
            const std::string key = m->string ? m->string : "";
            if (key == "comment") continue;
            const std::string p = member_path(gp, key);
            const uint32_t tag = tag_of_key(m, p);
            if (tag > 0xFFFF) fail(p, "GET DATA takes tags of one or two bytes");
            Bytes value = value_of(m, p);
            check_response_size(ber::encode(tag, value), p);
            if (!app.get_data.emplace(tag, std::move(value)).second) fail(p, "given twice");
        }
    }
    if (app.log && !app.get_data.count(0x9F4F)) app.get_data.emplace(0x9F4F, app.log->format);
    read_generate_ac(get(obj, "generate_ac"), member_path(path, "generate_ac"), app);
    if (const cJSON* v = get(obj, "issuer_keys")) app.issuer_keys = read_issuer_keys(v, member_path(path, "issuer_keys"));
    for (const auto& [key, bytes] : app.records) {
        if (!app.cdol1)
            if (auto v = ber::find(bytes, 0x8C)) app.cdol1 = Bytes(v->begin(), v->end());
        if (!app.cdol2)
            if (auto v = ber::find(bytes, 0x8D)) app.cdol2 = Bytes(v->begin(), v->end());
    }
    return app;
}

ResponseOverride read_override(const cJSON* obj, const std::string& path) {
    require_object(obj, path);
    check_keys(obj, path, {"ins", "prefix", "sw", "response", "after", "times"});
    ResponseOverride o;
    if (const cJSON* v = get(obj, "ins")) o.ins = hex_of_size(v, member_path(path, "ins"), 1, 1)[0];
    if (const cJSON* v = get(obj, "prefix")) o.prefix = hex_of_size(v, member_path(path, "prefix"), 1, 261);
    if (!o.ins && o.prefix.empty()) fail(path, "needs \"ins\" or \"prefix\"");
    const cJSON* sw = get(obj, "sw");
    const cJSON* response = get(obj, "response");
    if ((sw == nullptr) == (response == nullptr)) fail(path, "needs exactly one of \"sw\" and \"response\"");
    if (sw != nullptr) {
        const uint16_t s = sw_of(sw, member_path(path, "sw"));
        o.response = {static_cast<uint8_t>(s >> 8), static_cast<uint8_t>(s)};
    } else {
        o.response = hex_of_size(response, member_path(path, "response"), 2, kMaxResponseData + 2);
    }
    if (const cJSON* v = get(obj, "after")) o.after = static_cast<unsigned>(integer_of(v, member_path(path, "after"), 0, 1000000));
    if (const cJSON* v = get(obj, "times")) o.times = static_cast<unsigned>(integer_of(v, member_path(path, "times"), 1, 1000000));
    return o;
}

struct JsonDeleter {
    void operator()(cJSON* j) const { cJSON_Delete(j); }
};

}  // namespace

CardProfile parse_profile(const std::string& json_text) {
    std::unique_ptr<cJSON, JsonDeleter> root(cJSON_ParseWithLength(json_text.data(), json_text.size()));
    if (!root) {
        const char* at = cJSON_GetErrorPtr();
        std::string near = at ? std::string(at).substr(0, 20) : std::string();
        fail("(document)", "JSON syntax error near \"" + near + "\"");
    }
    const cJSON* top = root.get();
    require_object(top, "(document)");
    check_keys(top, "", {"name", "description", "interface", "atr", "check_dol_lengths", "pse", "applications",
                         "overrides", "issuer_keys"});
    CardProfile p;
    const cJSON* name = get(top, "name");
    if (name == nullptr) fail("name", "missing");
    p.name = text_of(name, "name");
    if (const cJSON* v = get(top, "description")) p.description = text_of(v, "description");
    if (const cJSON* v = get(top, "interface")) {
        p.interface_kind = text_of(v, "interface");
        if (p.interface_kind != "contact" && p.interface_kind != "contactless" && p.interface_kind != "dual")
            fail("interface", "must be \"contact\", \"contactless\" or \"dual\"");
    }
    const cJSON* atr = get(top, "atr");
    if (atr == nullptr) fail("atr", "missing");
    p.atr = hex_of_size(atr, "atr", 2, 33);
    if (p.atr[0] != 0x3B && p.atr[0] != 0x3F) fail("atr", "must begin with 3B or 3F");
    if (const cJSON* v = get(top, "check_dol_lengths")) p.check_dol_lengths = bool_of(v, "check_dol_lengths");
    if (const cJSON* v = get(top, "pse")) p.pse = read_pse(v, "pse");
    if (const cJSON* v = get(top, "issuer_keys")) p.issuer_keys = read_issuer_keys(v, "issuer_keys");
    const cJSON* apps = get(top, "applications");
    if (apps == nullptr) fail("applications", "missing");
    require_array(apps, "applications");
    size_t i = 0;
    for (const cJSON* a = apps->child; a != nullptr; a = a->next, ++i) {
        p.apps.push_back(read_app(a, index_path("applications", i)));
        for (size_t k = 0; k + 1 < p.apps.size(); ++k)
            if (p.apps[k].aid == p.apps.back().aid) fail(index_path("applications", i), "AID given twice");
    }
    if (const cJSON* v = get(top, "overrides")) {
        require_array(v, "overrides");
        size_t k = 0;
        for (const cJSON* o = v->child; o != nullptr; o = o->next, ++k)
            p.overrides.push_back(read_override(o, index_path("overrides", k)));
    }
    return p;
}

}  // namespace kolt::sim::card_detail
