// The host's response data as the issuer-authentication call reads it: the
// exported KOLT_ARPC_GetScritp (script template 71 or 72 and its 9F18),
// the response code of tag 91 and the script result text.
//
// Input: the response data bytes.
#include <cstring>

#include "common/fuzz_input.hpp"
#include "emv/issuer_data.hpp"
#include "kolt/kolt.h"

using namespace kolt::fuzz;
namespace emv = kolt::emv;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Heap copy(std::span<const uint8_t>(data, size), size);
    // The header asks for len bytes of script room and 5 of identifier.
    Heap script(size);
    Heap id(5);
    int32_t len = 0;
    const int32_t kind =
        KOLT_ARPC_GetScritp(copy.data(), static_cast<int32_t>(size), script.data(), &len, id.data());
    check(kind == 0x71 || kind == 0x72 || kind == -1, "KOLT_ARPC_GetScritp: result not 71, 72 or -1");
    check(kind == -1 ? len == -1 : (len >= 0 && static_cast<std::size_t>(len) <= size),
          "KOLT_ARPC_GetScritp: script length outside the data");

    const emv::ScriptPick pick = emv::pick_script(std::span<const uint8_t>(copy.data(), size));
    touch(pick.script);
    const std::string result = emv::script_result_text(emv::ScriptState::executed, len, pick.id);
    check(result.size() <= 8 + 10 + 8, "script result too long");
    const std::string code = emv::response_code(std::span<const uint8_t>(copy.data(), size));
    check(code.empty() || code.size() == 2, "response code not two characters");
    return 0;
}
