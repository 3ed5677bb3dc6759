// The device-information call's JSON: the request reader, both answers,
// and DEV_CommCall itself for requests it refuses (a request it accepts
// would open /dev/COM<n>, which a fuzzer must not touch).
//
// Input: a short field with the module's serial-number text, a short field
// with the version bytes, then the request text.
#include <cstring>

#include "common/fuzz_input.hpp"
#include "devinfo/request.hpp"
#include "kolt/kolt.h"

using namespace kolt::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input in(data, size);
    const std::string serial = in.short_string();
    const auto version = in.short_field();
    const auto rest = in.rest();
    const std::string json(reinterpret_cast<const char*>(rest.data()), rest.size());

    const std::string answer = kolt::devinfo::success_response(serial, version);
    check(answer.size() < KOLT_DEVINFO_RESPONSE_MAX, "success answer longer than its room");
    check(answer.rfind(R"({"ErrorCode":"0","ErrorMessage":"success","DeviceBrand":"KOLT",)", 0) == 0,
          "success answer does not begin with its fixed keys");

    const kolt::devinfo::Request request = kolt::devinfo::parse_request(json);
    if (request.status == kolt::devinfo::Request::Status::ok) return 0;
    const auto text = Heap::text(json);
    char out[KOLT_DEVINFO_RESPONSE_MAX];
    int32_t len = -1;
    check(DEV_CommCall(text->chars(), nullptr, out, &len) == 0, "DEV_CommCall: not 0");
    check(std::strcmp(out, R"({"ErrorCode":"-1","ErrorMessage":"parameter error"})") == 0,
          "a refused request without the error answer");
    check(len == static_cast<int32_t>(std::strlen(out)), "DEV_CommCall: length");
    return 0;
}
