#include "devinfo/request.hpp"

#include <cjson/cJSON.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "support/text.hpp"

namespace kolt::devinfo {

namespace {

struct JsonDelete {
    void operator()(cJSON* item) const { cJSON_Delete(item); }
};
using Json = std::unique_ptr<cJSON, JsonDelete>;

struct JsonTextFree {
    void operator()(char* text) const { cJSON_free(text); }
};
using JsonText = std::unique_ptr<char, JsonTextFree>;

constexpr const char* kBrand = "KOLT";
constexpr const char* kDllVersion = "2.0.1";
constexpr const char* kModel = "KL560T41";

// The string value of key, or nullptr when the key is absent or its value
// is not a string.
const char* string_item(const cJSON* object, const char* key) {
    const cJSON* item = cJSON_GetObjectItem(object, key);
    return cJSON_IsString(item) ? item->valuestring : nullptr;
}

// cJSON_PrintUnformatted of a built object; empty when cJSON runs out of
// memory.
std::string print(const Json& object) {
    if (!object) return {};
    const JsonText text(cJSON_PrintUnformatted(object.get()));
    return text ? std::string(text.get()) : std::string();
}

// An object with the two result keys first.
Json result_object(const char* code, const char* message) {
    Json object(cJSON_CreateObject());
    if (!object) return object;
    cJSON_AddStringToObject(object.get(), "ErrorCode", code);
    cJSON_AddStringToObject(object.get(), "ErrorMessage", message);
    return object;
}

}  // namespace

Request parse_request(std::string_view json) {
    Request r;
    // cJSON reads a terminated text; the copy also ends the caller's text
    // where its view ends.
    const std::string text(json);
    const Json root(cJSON_Parse(text.c_str()));
    if (!root) return r;
    const char* function = string_item(root.get(), "FunctionCode");
    const char* port = string_item(root.get(), "RequestPort");
    const char* baud = string_item(root.get(), "RequestBaudRate");
    const char* timeout = string_item(root.get(), "RequestTimeOut");
    if (function == nullptr || port == nullptr || baud == nullptr || timeout == nullptr) {
        r.status = Request::Status::missing_key;
        return r;
    }
    r.port = support::atoi_value(port);
    r.status = std::strcmp(function, "0001") == 0 && r.port != 0 ? Request::Status::ok : Request::Status::bad_function;
    return r;
}

std::string serial_field(std::string_view serial_text) {
    if (serial_text.size() < 25) return {};
    return std::string(serial_text.substr(15, 10));
}

std::string version_field(std::span<const uint8_t> version) {
    if (version.size() <= 17) return {};
    const auto last = version.last(5);
    const auto end = std::find(last.begin(), last.end(), uint8_t{0});
    return std::string(last.begin(), end);
}

std::string success_response(std::string_view serial_text, std::span<const uint8_t> version) {
    const Json object = result_object("0", "success");
    if (!object) return error_response();
    const std::string sn = serial_field(serial_text);
    const std::string ver = version_field(version);
    cJSON_AddStringToObject(object.get(), "DeviceBrand", kBrand);
    cJSON_AddStringToObject(object.get(), "DllVersion", kDllVersion);
    cJSON_AddStringToObject(object.get(), "ProductionDate", "");
    cJSON_AddStringToObject(object.get(), "DeviceSN", sn.c_str());
    cJSON_AddStringToObject(object.get(), "DeviceVersion", ver.c_str());
    cJSON_AddStringToObject(object.get(), "DeviceModel", kModel);
    std::string printed = print(object);
    return printed.empty() ? error_response() : printed;
}

std::string error_response() {
    std::string printed = print(result_object("-1", "parameter error"));
    // Only an exhausted heap makes cJSON fail; the answer is then written
    // as cJSON would have printed it.
    return printed.empty() ? std::string(R"({"ErrorCode":"-1","ErrorMessage":"parameter error"})") : printed;
}

}  // namespace kolt::devinfo
