// Text helpers: GBK and UTF-8, hex, amounts, TLV runs and letter fields.
#include <iconv.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>

#include "cli.hpp"

namespace kolt::cli {

namespace {

// One iconv conversion descriptor for the lifetime of a conversion.
class Converter {
public:
    Converter(const char* to, const char* from) : cd_(::iconv_open(to, from)) {}
    ~Converter() {
        if (ok()) ::iconv_close(cd_);
    }
    Converter(const Converter&) = delete;
    Converter& operator=(const Converter&) = delete;
    bool ok() const { return cd_ != reinterpret_cast<iconv_t>(-1); }
    iconv_t get() const { return cd_; }

private:
    iconv_t cd_;
};

}  // namespace

std::string gbk_to_utf8(std::string_view gbk) {
    Converter cv("UTF-8", "GBK");
    if (!cv.ok()) return std::string(gbk);
    std::string in(gbk);
    std::string out;
    char* src = in.data();
    size_t left = in.size();
    while (left > 0) {
        char buf[256];
        char* dst = buf;
        size_t room = sizeof buf;
        const size_t rc = ::iconv(cv.get(), &src, &left, &dst, &room);
        out.append(buf, static_cast<size_t>(dst - buf));
        if (rc == static_cast<size_t>(-1) && errno != E2BIG) {
            // An undecodable unit: U+FFFD for it (two bytes for a lead
            // byte, else one) and on with the rest.
            out += "\xEF\xBF\xBD";
            const size_t skip = (static_cast<unsigned char>(*src) >= 0x81 && left >= 2) ? 2 : 1;
            src += skip;
            left -= skip;
            ::iconv(cv.get(), nullptr, nullptr, nullptr, nullptr);
        }
    }
    return out;
}

std::optional<std::string> utf8_to_gbk(std::string_view utf8) {
    Converter cv("GBK", "UTF-8");
    if (!cv.ok()) return std::nullopt;
    std::string in(utf8);
    std::string out(in.size() * 2 + 8, '\0');
    char* src = in.data();
    size_t left = in.size();
    char* dst = out.data();
    size_t room = out.size();
    if (::iconv(cv.get(), &src, &left, &dst, &room) == static_cast<size_t>(-1)) return std::nullopt;
    out.resize(out.size() - room);
    return out;
}

std::string shown(const Globals& g, std::string_view gbk) {
    return g.utf8_locale ? gbk_to_utf8(gbk) : std::string(gbk);
}

bool is_hex(std::string_view text) {
    return text.size() % 2 == 0 &&
           std::all_of(text.begin(), text.end(), [](char c) { return std::isxdigit(static_cast<unsigned char>(c)); });
}

std::string upper(std::string text) {
    for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return text;
}

std::string trim_right(std::string text) {
    while (!text.empty() && (text.back() == ' ' || text.back() == '\0')) text.pop_back();
    return text;
}

std::string money(std::string_view digits) {
    if (digits.empty() ||
        !std::all_of(digits.begin(), digits.end(), [](char c) { return std::isdigit(static_cast<unsigned char>(c)); }))
        return std::string(digits);
    std::string d(digits);
    d.erase(0, std::min(d.find_first_not_of('0'), d.size()));
    while (d.size() < 3) d.insert(d.begin(), '0');
    return d.substr(0, d.size() - 2) + "." + d.substr(d.size() - 2);
}

std::optional<std::vector<Tlv>> split_tlvs(const std::string& hex) {
    if (!is_hex(hex)) return std::nullopt;
    std::vector<Tlv> out;
    auto byte_at = [&](size_t p) { return static_cast<unsigned>(std::strtoul(hex.substr(p, 2).c_str(), nullptr, 16)); };
    size_t pos = 0;
    while (pos < hex.size()) {
        if (pos + 4 > hex.size()) return std::nullopt;
        const size_t tag_len = (byte_at(pos) & 0x1F) == 0x1F ? 4 : 2;
        if (pos + tag_len + 2 > hex.size()) return std::nullopt;
        Tlv t;
        t.tag = upper(hex.substr(pos, tag_len));
        pos += tag_len;
        size_t len = byte_at(pos);
        pos += 2;
        if (len == 0x81) {
            if (pos + 2 > hex.size()) return std::nullopt;
            len = byte_at(pos);
            pos += 2;
        }
        if (pos + 2 * len > hex.size()) return std::nullopt;
        t.value = upper(hex.substr(pos, 2 * len));
        pos += 2 * len;
        out.push_back(std::move(t));
    }
    return out;
}

const char* tag_name(const std::string& tag) {
    static const struct {
        const char* tag;
        const char* name;
    } names[] = {
        {"9F26", "application cryptogram"},
        {"9F27", "cryptogram information data"},
        {"9F10", "issuer application data"},
        {"9F37", "unpredictable number"},
        {"9F36", "application transaction counter"},
        {"95", "terminal verification results"},
        {"9F13", "last online ATC"},
        {"9A", "transaction date"},
        {"9C", "transaction type"},
        {"9F02", "amount"},
        {"5F2A", "currency code"},
        {"5A", "account number"},
        {"5F34", "PAN sequence number"},
        {"82", "application interchange profile"},
        {"9F1A", "terminal country code"},
        {"9F03", "other amount"},
        {"9F33", "terminal capabilities"},
        {"91", "issuer authentication data"},
        {"71", "issuer script (before final AC)"},
        {"72", "issuer script (after final AC)"},
    };
    for (const auto& n : names)
        if (tag == n.tag) return n.name;
    return "";
}

std::string cryptogram_type(const std::string& field55) {
    const auto items = split_tlvs(field55);
    if (!items) return "";
    for (const Tlv& t : *items) {
        if (t.tag != "9F27" || t.value.size() != 2) continue;
        const unsigned cid = static_cast<unsigned>(std::strtoul(t.value.c_str(), nullptr, 16)) & 0xC0;
        return cid == 0x40 ? "TC" : cid == 0x80 ? "ARQC" : cid == 0x00 ? "AAC" : "AAR";
    }
    return "";
}

std::optional<std::vector<Field>> split_fields(std::string_view text) {
    std::vector<Field> fields;
    size_t pos = 0;
    while (pos < text.size()) {
        if (pos + 4 > text.size()) return std::nullopt;
        const std::string_view digits = text.substr(pos + 1, 3);
        if (!std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; }))
            return std::nullopt;
        const size_t len = static_cast<size_t>(std::atoi(std::string(digits).c_str()));
        if (pos + 4 + len > text.size()) return std::nullopt;
        fields.push_back({text[pos], std::string(text.substr(pos + 4, len))});
        pos += 4 + len;
    }
    return fields;
}

}  // namespace kolt::cli
