#include "clerk/xml.hpp"

namespace kolt::clerk {

namespace {

void element(std::string& out, std::string_view name, std::string_view value) {
    out += '<';
    out += name;
    out += '>';
    out += value;
    out += "</";
    out += name;
    out += '>';
}

void request_block(std::string& out, const Request& r) {
    out += "<request>";
    element(out, "bankcode", r.bank_code);
    element(out, "clerknum", r.clerk_num);
    element(out, "sysnum", r.sys_num);
    element(out, "staffnum", r.staff_num);
    element(out, "fingerprint", r.fingerprint);
    element(out, "reseve1", "");
    element(out, "reseve2", "");
    element(out, "password", r.password);
    element(out, "msgflag", r.msg_flag);
    out += "</request>";
}

}  // namespace

std::string envelope(const Request& r) {
    std::string out;
    out.reserve(320 + r.bank_code.size() + r.clerk_num.size() + r.sys_num.size() + r.staff_num.size() +
                r.fingerprint.size() + r.password.size() + r.msg_flag.size());
    out += kXmlDeclaration;
    out += "<koltes>";
    request_block(out, r);
    out += "</koltes>";
    return out;
}

std::string envelope_old(const Request& r) {
    std::string out;
    out += kXmlDeclaration;
    out += "<koltes>";
    out += "<head>";
    element(out, "version", "1.0");
    element(out, "msgflag", r.msg_flag);
    element(out, "sysnum", r.sys_num);
    element(out, "staffnum", r.staff_num);
    out += "</head>";
    request_block(out, r);
    out += "<tail>";
    element(out, "fplen", std::to_string(r.fingerprint.size()));
    element(out, "pwdlen", std::to_string(r.password.size()));
    out += "</tail>";
    out += "</koltes>";
    return out;
}

Node node_value(std::string_view xml, std::string_view name) {
    const std::string open = "<" + std::string(name) + ">";
    const std::string close = "</" + std::string(name) + ">";
    const std::size_t a = xml.find(open);
    if (a == std::string_view::npos) return {-1, {}};
    const std::size_t from = a + open.size();
    const std::size_t b = xml.find(close, from);
    if (b == std::string_view::npos) return {-2, {}};
    return {0, xml.substr(from, b - from)};
}

}  // namespace kolt::clerk
