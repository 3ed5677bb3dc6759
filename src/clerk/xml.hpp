// The clerk service's XML texts: the request envelope and the extraction of
// one element's text from an answer. Plain text work, no parser: values go
// into the envelope verbatim (no escaping) and an element is found by its
// first opening and closing tag, without nesting or attributes.
#pragma once

#include <string>
#include <string_view>

namespace kolt::clerk {

inline constexpr std::string_view kXmlDeclaration = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>";

// The message flags of the three requests.
inline constexpr std::string_view kFlagQueryMode = "0";
inline constexpr std::string_view kFlagChangePassword = "1";
inline constexpr std::string_view kFlagVerifyFinger = "2";

struct Request {
    std::string_view bank_code;
    std::string_view clerk_num;
    std::string_view sys_num;
    std::string_view staff_num;
    std::string_view fingerprint;  // feature data as hexadecimal text
    std::string_view password;
    std::string_view msg_flag;
};

// The envelope, one line: declaration, <koltes><request>, bankcode,
// clerknum, sysnum, staffnum, fingerprint, reseve1, reseve2 (always empty;
// the server expects these names), password, msgflag, </request></koltes>.
std::string envelope(const Request& r);

// The earlier, larger message (sendedXmlOld): a <head> block with the
// message version, flag and the system and staff numbers, then the request
// as envelope() builds it, then a <tail> with the lengths of the feature
// and password texts. Kept for callers of the old server; nothing in the
// library sends it.
std::string envelope_old(const Request& r);

// KOLT_XML_GetNodeValue: the text between the first "<name>" and the first
// "</name>" after it. 0 with the value; -1 no opening tag; -2 no closing tag.
struct Node {
    int code = 0;
    std::string_view value;
};
Node node_value(std::string_view xml, std::string_view name);

}  // namespace kolt::clerk
