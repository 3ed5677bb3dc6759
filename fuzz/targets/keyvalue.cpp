// key=value files and lines: kolt::config::value_from_file and
// value_from_line, and the exported KOLT_getValueFromFile and
// KOLT_getValueFromStr (outputs of 256 bytes, as the header asks).
//
// Input: a short field with the key, then the file's content (written to
// /tmp/kolt_fuzz_keyvalue_<pid>), which is also taken as one line.
#include <cstring>

#include "common/fuzz_input.hpp"
#include "kolt/kolt.h"
#include "support/keyvalue.hpp"

using namespace kolt::fuzz;

namespace {
constexpr std::size_t kOutRoom = 256;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const ScratchFile file("keyvalue");
    Input in(data, size);
    const std::string key = in.short_string();
    const auto content = in.rest();
    file.write(content);

    {
        std::string value;
        const int rc = kolt::config::value_from_file(file.path(), key, value);
        check(rc == 0 || rc == -2, "value_from_file: result not 0 or -2");
    }
    {
        std::string line = Input::str(content);
        std::string value;
        (void)kolt::config::value_from_line(line, key, value);
        (void)kolt::config::first_char(line);
    }

    const auto c_key = Heap::text(key);
    {
        Heap out(kOutRoom);
        const int32_t rc = KOLT_getValueFromFile(file.path().c_str(), c_key->chars(), out.chars());
        check(rc == 0 || rc == -2, "KOLT_getValueFromFile: result not 0 or -2");
        if (rc == 0) check(::strnlen(out.chars(), kOutRoom) < kOutRoom, "KOLT_getValueFromFile: not terminated");
    }
    {
        const auto line = Heap::text(content);
        Heap out(kOutRoom);
        const int32_t rc = KOLT_getValueFromStr(line->chars(), c_key->chars(), out.chars());
        check(rc == 0 || rc == -1, "KOLT_getValueFromStr: result not 0 or -1");
        (void)getStrFirstChar(line->chars());
    }
    return 0;
}
