// The JSON of the device-information call, as pure functions over text:
// reading the request and writing the two answers. cJSON does the JSON;
// its objects never leave this file's implementation.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace kolt::devinfo {

// What a request asks, or why it cannot be answered.
struct Request {
    enum class Status {
        ok,
        not_json,        // cJSON could not parse it (or it was absent)
        missing_key,     // one of the four keys is absent or not a string
        bad_function,    // FunctionCode is not "0001", or the port is 0
    };
    Status status = Status::not_json;
    int32_t port = 0;  // RequestPort read as atoi reads it
};

// The four keys must all be there, each a JSON string (a number, object,
// null or boolean counts as absent: the values are read as strings only).
// Keys are looked up as cJSON_GetObjectItem does, ignoring letter case; the
// first of duplicate keys counts; text after the object is ignored, as
// cJSON_Parse ignores it. BaudRate and TimeOut must be present but are
// never used: the link always runs at 9600 baud with its own time-outs.
Request parse_request(std::string_view json);

// The ten characters of the serial-number text from its character 15 when
// the text has at least 25 characters, else empty: in the module's text
// form "%02d.%02d-%08u-%010u-%010u" these are the digits of its fourth
// field.
std::string serial_field(std::string_view serial_text);

// The last five bytes of the version when it is longer than 17 bytes, else
// empty. Taken as a C text: a zero byte among them ends it.
std::string version_field(std::span<const uint8_t> version);

// The success answer, unformatted, keys in their fixed order: ErrorCode,
// ErrorMessage, DeviceBrand, DllVersion, ProductionDate, DeviceSN,
// DeviceVersion, DeviceModel.
std::string success_response(std::string_view serial_text, std::span<const uint8_t> version);

// {"ErrorCode":"-1","ErrorMessage":"parameter error"}: the one answer to
// every failure.
std::string error_response();

}  // namespace kolt::devinfo
