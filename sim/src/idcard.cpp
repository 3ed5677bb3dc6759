// Identity card records from readable fields, card files, and the display
// data of command 0x51.
#include "kolt_sim/idcard.hpp"

#include <cjson/cJSON.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>

#include "idcard_internal.hpp"
#include "kolt_sim/simulator.hpp"
#include "util_internal.hpp"

namespace kolt::sim {

namespace {

using Member = std::string IdCardFields::*;

struct Place {
    const char* key;
    Member member;
    size_t offset, size;
};

// Text layouts, in card order. The card-type unit (248, 2 bytes) of the "I"
// and "J" cards is written from the layout itself.
const Place kResident[] = {
    {"name", &IdCardFields::name, 0, 30},
    {"sex", &IdCardFields::sex, 30, 2},
    {"nation", &IdCardFields::nation, 32, 4},
    {"birth", &IdCardFields::birth, 36, 16},
    {"address", &IdCardFields::address, 52, 70},
    {"number", &IdCardFields::number, 122, 36},
    {"authority", &IdCardFields::authority, 158, 30},
    {"valid_from", &IdCardFields::valid_from, 188, 16},
    {"valid_to", &IdCardFields::valid_to, 204, 16},
};

const Place kForeign[] = {
    {"english_name", &IdCardFields::english_name, 0, 120},
    {"sex", &IdCardFields::sex, 120, 2},
    {"card_number", &IdCardFields::card_number, 122, 30},
    {"country", &IdCardFields::country, 152, 6},
    {"chinese_name", &IdCardFields::chinese_name, 158, 30},
    {"valid_from", &IdCardFields::valid_from, 188, 16},
    {"valid_to", &IdCardFields::valid_to, 204, 16},
    {"birth", &IdCardFields::birth, 220, 16},
    {"card_version", &IdCardFields::card_version, 236, 4},
    {"authority_code", &IdCardFields::authority_code, 240, 8},
};

const Place kPermit[] = {
    {"name", &IdCardFields::name, 0, 30},
    {"sex", &IdCardFields::sex, 30, 2},
    {"birth", &IdCardFields::birth, 36, 16},
    {"address", &IdCardFields::address, 52, 70},
    {"number", &IdCardFields::number, 122, 36},
    {"authority", &IdCardFields::authority, 158, 30},
    {"valid_from", &IdCardFields::valid_from, 188, 16},
    {"valid_to", &IdCardFields::valid_to, 204, 16},
    {"pass_number", &IdCardFields::pass_number, 220, 18},
    {"issue_count", &IdCardFields::issue_count, 238, 4},
};

// Every text field of IdCardFields, for the card files.
const Place kAllFields[] = {
    {"name", &IdCardFields::name, 0, 0},
    {"sex", &IdCardFields::sex, 0, 0},
    {"nation", &IdCardFields::nation, 0, 0},
    {"birth", &IdCardFields::birth, 0, 0},
    {"address", &IdCardFields::address, 0, 0},
    {"number", &IdCardFields::number, 0, 0},
    {"authority", &IdCardFields::authority, 0, 0},
    {"valid_from", &IdCardFields::valid_from, 0, 0},
    {"valid_to", &IdCardFields::valid_to, 0, 0},
    {"english_name", &IdCardFields::english_name, 0, 0},
    {"card_number", &IdCardFields::card_number, 0, 0},
    {"country", &IdCardFields::country, 0, 0},
    {"chinese_name", &IdCardFields::chinese_name, 0, 0},
    {"card_version", &IdCardFields::card_version, 0, 0},
    {"authority_code", &IdCardFields::authority_code, 0, 0},
    {"pass_number", &IdCardFields::pass_number, 0, 0},
    {"issue_count", &IdCardFields::issue_count, 0, 0},
};

constexpr size_t kCardTypeOffset = 248;

std::span<const Place> places_of(const std::string& layout) {
    if (layout == "id") return kResident;
    if (layout == "I") return kForeign;
    if (layout == "J") return kPermit;
    throw std::runtime_error("identity card: unknown layout \"" + layout + "\" (id, I or J)");
}

void put_utf8(std::string& out, uint32_t cp) {
    if (cp < 0x80) {
        out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
}

// Text for the log: UTF-8 kept as it is, control characters as \xNN.
std::string shown(std::string_view s) {
    std::string out;
    for (char ch : s) {
        const auto c = static_cast<unsigned char>(ch);
        if (c < 0x20 || c == 0x7F) {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02X", c);
            out += hex;
        } else {
            out.push_back(ch);
        }
    }
    return out;
}

std::string trim_end(std::string s) {
    while (!s.empty() && (s.back() == ' ' || s.back() == '\0')) s.pop_back();
    return s;
}

// --- card files ------------------------------------------------------------------

using JsonPtr = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;

[[noreturn]] void file_fail(const std::string& what) { throw std::runtime_error("identity card: " + what); }

std::string string_of(const cJSON* item, const char* key) {
    if (!cJSON_IsString(item)) file_fail(std::string("\"") + key + "\" must be a string");
    return item->valuestring;
}

}  // namespace

// --- text ----------------------------------------------------------------------------

std::vector<uint8_t> utf8_to_ucs2le(std::string_view utf8) {
    std::vector<uint8_t> out;
    size_t i = 0;
    auto bad = [&](const char* why) {
        throw std::runtime_error(std::string("identity card text: ") + why + " in \"" + std::string(utf8) + "\"");
    };
    while (i < utf8.size()) {
        const auto c = static_cast<uint8_t>(utf8[i]);
        size_t n = 0;
        uint32_t cp = 0;
        if (c < 0x80) {
            n = 1;
            cp = c;
        } else if ((c & 0xE0) == 0xC0) {
            n = 2;
            cp = c & 0x1F;
        } else if ((c & 0xF0) == 0xE0) {
            n = 3;
            cp = c & 0x0F;
        } else if ((c & 0xF8) == 0xF0) {
            bad("a character beyond the Basic Multilingual Plane");
        } else {
            bad("broken UTF-8");
        }
        if (i + n > utf8.size()) bad("broken UTF-8");
        for (size_t k = 1; k < n; ++k) {
            const auto cc = static_cast<uint8_t>(utf8[i + k]);
            if ((cc & 0xC0) != 0x80) bad("broken UTF-8");
            cp = (cp << 6) | (cc & 0x3F);
        }
        if ((n == 2 && cp < 0x80) || (n == 3 && cp < 0x800)) bad("broken UTF-8");
        if (cp >= 0xD800 && cp <= 0xDFFF) bad("a surrogate code point");
        out.push_back(static_cast<uint8_t>(cp & 0xFF));
        out.push_back(static_cast<uint8_t>(cp >> 8));
        i += n;
    }
    return out;
}

std::string ucs2le_to_utf8(std::span<const uint8_t> ucs2) {
    std::string out;
    for (size_t i = 0; i + 1 < ucs2.size(); i += 2) put_utf8(out, static_cast<uint32_t>(ucs2[i] | ucs2[i + 1] << 8));
    return out;
}

void put_id_field(std::vector<uint8_t>& text, size_t offset, size_t size, std::string_view utf8,
                  std::string_view what) {
    if (offset + size > text.size()) throw std::runtime_error("identity card field outside the text block");
    const auto enc = utf8_to_ucs2le(utf8);
    if (enc.size() > size)
        throw std::runtime_error("identity card field too long: " + std::string(what) + " \"" + std::string(utf8) +
                                 "\" takes " + std::to_string(enc.size()) + " bytes, the card has " +
                                 std::to_string(size));
    for (size_t i = 0; i < size; i += 2) {
        text[offset + i] = 0x20;
        if (i + 1 < size) text[offset + i + 1] = 0x00;
    }
    std::copy(enc.begin(), enc.end(), text.begin() + static_cast<long>(offset));
}

std::vector<uint8_t> blank_id_text() {
    std::vector<uint8_t> text(kIdTextSize, 0);
    put_id_field(text, 0, kIdTextSize, "", "text");
    return text;
}

bool put_id_field_by_key(std::vector<uint8_t>& text, const std::string& layout, std::string_view key,
                         std::string_view utf8) {
    for (const Place& p : places_of(layout)) {
        if (key == p.key) {
            put_id_field(text, p.offset, p.size, utf8, key);
            if (layout != "id") put_id_field(text, kCardTypeOffset, 2, layout, "card type");
            return true;
        }
    }
    return false;
}

// --- records ---------------------------------------------------------------------------

std::vector<uint8_t> default_id_photo() {
    std::vector<uint8_t> p(kIdPhotoSize);
    for (size_t i = 0; i < p.size(); ++i) p[i] = static_cast<uint8_t>((i * 7 + 0x57) & 0xFF);
    return p;
}

IdCardFields default_id_card() {
    IdCardFields c;
    c.name = "张三";
    c.sex = "1";
    c.nation = "01";
    c.birth = "19800101";
    c.address = "北京市东城区测试路1号";
    c.number = "110101198001010014";
    c.authority = "北京市公安局东城分局";
    c.valid_from = "20200101";
    c.valid_to = "20400101";
    return c;
}

std::vector<uint8_t> encode_id_text(const IdCardFields& card) {
    const auto places = places_of(card.layout);
    for (const Place& any : kAllFields) {
        if ((card.*any.member).empty()) continue;
        const bool has = std::any_of(places.begin(), places.end(), [&](const Place& p) { return p.member == any.member; });
        if (!has)
            throw std::runtime_error(std::string("identity card: the \"") + card.layout + "\" layout has no field \"" +
                                     any.key + "\"");
    }
    std::vector<uint8_t> text = blank_id_text();
    for (const Place& p : places) put_id_field(text, p.offset, p.size, card.*p.member, p.key);
    if (card.layout != "id") put_id_field(text, kCardTypeOffset, 2, card.layout, "card type");
    return text;
}

namespace {

std::vector<uint8_t> photo_of(const IdCardFields& card) {
    if (card.photo.empty()) return default_id_photo();
    if (card.photo.size() != kIdPhotoSize)
        throw std::runtime_error("identity card: the photo must be " + std::to_string(kIdPhotoSize) + " bytes, not " +
                                 std::to_string(card.photo.size()));
    return card.photo;
}

}  // namespace

std::vector<uint8_t> encode_id_record(const IdCardFields& card) {
    std::vector<uint8_t> r = encode_id_text(card);
    const auto photo = photo_of(card);
    r.insert(r.end(), photo.begin(), photo.end());
    return r;
}

std::vector<uint8_t> make_id_card_answer(const IdCardFields& card) {
    return make_id_answer(encode_id_text(card), photo_of(card));
}

// --- card files ------------------------------------------------------------------------

IdCardFields parse_id_card(const std::string& json_text) {
    JsonPtr root(cJSON_Parse(json_text.c_str()), &cJSON_Delete);
    if (!root) file_fail("not valid JSON");
    if (!cJSON_IsObject(root.get())) file_fail("the top level must be an object");
    IdCardFields card;
    for (const cJSON* it = root->child; it != nullptr; it = it->next) {
        const std::string key = it->string;
        if (key == "comment") continue;
        if (key == "layout") {
            card.layout = string_of(it, "layout");
            places_of(card.layout);
            continue;
        }
        if (key == "photo_hex") {
            auto photo = parse_hex(string_of(it, "photo_hex"));
            if (!photo) file_fail("\"photo_hex\" is not hexadecimal text");
            card.photo = std::move(*photo);
            continue;
        }
        const Place* field = nullptr;
        for (const Place& p : kAllFields)
            if (key == p.key) field = &p;
        if (field == nullptr) file_fail("unknown key \"" + key + "\"");
        card.*field->member = string_of(it, field->key);
    }
    encode_id_record(card);  // refuses what cannot go on the card
    return card;
}

IdCardFields load_id_card(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("identity card: cannot open " + path);
    std::ostringstream ss;
    ss << in.rdbuf();
    try {
        return parse_id_card(ss.str());
    } catch (const std::runtime_error& e) {
        throw std::runtime_error(std::string(e.what()) + " (" + path + ")");
    }
}

// --- display data ----------------------------------------------------------------------

std::optional<IdDisplay> decode_id_display(std::span<const uint8_t> data) {
    if (data.size() < kIdDisplayHead) return std::nullopt;
    IdDisplay d;
    d.length = static_cast<uint16_t>(data[0] << 8 | data[1]);
    d.code.assign(data.begin() + 2, data.begin() + 4);
    d.name = trim_end(ucs2le_to_utf8(data.subspan(4, 30)));
    d.number = trim_end(std::string(data.begin() + 34, data.begin() + 52));
    d.authority = trim_end(ucs2le_to_utf8(data.subspan(52, 30)));
    d.photo.assign(data.begin() + static_cast<long>(kIdDisplayHead), data.end());
    return d;
}

std::string describe_id_display(std::span<const uint8_t> data) {
    const auto d = decode_id_display(data);
    if (!d) return "identity display: " + std::to_string(data.size()) + " bytes, too short";
    char head[96];
    std::snprintf(head, sizeof head, "identity display: length %u (%zu bytes follow), code ", d->length,
                  data.size() - 2);
    return head + shown(d->code) + ", name " + shown(d->name) + ", number " + shown(d->number) + ", authority " +
           shown(d->authority) + ", photo " + std::to_string(d->photo.size()) + " bytes";
}

}  // namespace kolt::sim
