// Node extraction of the clerk service's answers (kolt::clerk::node_value
// and KOLT_XML_GetNodeValue): the text between the first "<name>" and the
// first "</name>" after it.
//
// Input: a short field with the element name, then the XML text.
#include <cstring>
#include <string>

#include "clerk/xml.hpp"
#include "common/fuzz_input.hpp"
#include "kolt/kolt.h"

using namespace kolt::fuzz;
namespace clerk = kolt::clerk;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input in(data, size);
    const std::string name = Input::str(in.short_field());
    const std::string xml = Input::str(in.rest());
    const clerk::Node n = clerk::node_value(xml, name);
    check(n.code == 0 || n.code == -1 || n.code == -2, "node_value: unexpected code");
    if (n.code == 0) {
        check(n.value.data() >= xml.data() && n.value.data() + n.value.size() <= xml.data() + xml.size(),
              "value outside the text");
        const std::string whole = "<" + name + ">" + std::string(n.value) + "</" + name + ">";
        check(xml.find(whole) != std::string::npos, "value not between the tags");
        check(std::string(n.value).find("</" + name + ">") == std::string::npos, "not the first closing tag");
    } else {
        check(n.value.empty(), "value with an error code");
    }
    // The C entry point over terminated copies; the value needs no more
    // room than the text.
    if (name.find('\0') == std::string::npos && xml.find('\0') == std::string::npos) {
        const auto cxml = Heap::text(xml);
        const auto cname = Heap::text(name);
        Heap out(xml.size() + 1);
        const int32_t r = KOLT_XML_GetNodeValue(cxml->chars(), cname->chars(), out.chars());
        check(r == n.code, "C entry point differs");
        if (r == 0) check(std::string(out.chars()) == n.value, "C value differs");
    }
    return 0;
}
