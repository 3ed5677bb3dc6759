// The INI reader: kolt::config::ini_string and ini_int, and the exported
// GetIniKeyString / GetIniKeyInt, over a file written from the input.
//
// Input: a short field with the section, a short field with the key, then
// the file's content (written to /tmp/kolt_fuzz_ini_<pid>).
#include <cstring>

#include "common/fuzz_input.hpp"
#include "kolt/kolt.h"
#include "support/config.hpp"

using namespace kolt::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const ScratchFile file("ini");
    Input in(data, size);
    const std::string section = in.short_string();
    const std::string key = in.short_string();
    file.write(in.rest());

    const std::string value = kolt::config::ini_string(section, key, file.path());
    (void)kolt::config::ini_int(section, key, file.path());

    // The C texts end at the first zero, as a caller's would.
    const auto c_section = Heap::text(section);
    const auto c_key = Heap::text(key);
    const char* shared = GetIniKeyString(c_section->chars(), c_key->chars(), file.path().c_str());
    check(shared != nullptr, "GetIniKeyString: null");
    check(std::strlen(shared) < 1024, "GetIniKeyString: value longer than its buffer");
    (void)GetIniKeyInt(c_section->chars(), c_key->chars(), file.path().c_str());
    (void)value;
    return 0;
}
