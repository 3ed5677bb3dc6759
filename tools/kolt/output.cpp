// Readable and JSON output, failures and the exit code table.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "cli.hpp"

namespace kolt::cli {

const std::vector<ExitCodeText>& exit_codes() {
    static const std::vector<ExitCodeText> codes = {
        {kExitOk, "success"},
        {kExitRefused, "the device, the card or the clerk server refused the operation (library result shown)"},
        {kExitUsage, "usage error"},
        {kExitNoDevice, "the port could not be opened, or the device does not answer"},
        {kExitNothing, "nothing presented in time: no card, no swipe, no finger"},
        {kExitCancelled, "cancelled (Ctrl-C)"},
        {kExitServer, "a server could not be reached or answered badly (clerk server, issuer program)"},
        {kExitDeclined, "the transaction was declined by the card or the issuer"},
        {kExitUnusable, "the card or its data is not usable (no such application, locked, bad reply)"},
        {kExitSetup, "something the library needs is missing (./libwlt.so, the clerk server settings)"},
    };
    return codes;
}

Output::Output(bool json) : json_(json), root_(cJSON_CreateObject()) {}

Output::~Output() { cJSON_Delete(root_); }

void Output::line(const char* format, ...) {
    if (json_) return;
    va_list ap;
    va_start(ap, format);
    std::vfprintf(stdout, format, ap);
    va_end(ap);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

void Output::note(const char* format, ...) {
    std::fflush(stdout);
    std::fputs("kolt: ", stderr);
    va_list ap;
    va_start(ap, format);
    std::vfprintf(stderr, format, ap);
    va_end(ap);
    std::fputc('\n', stderr);
}

namespace {
void print_json(cJSON* obj) {
    char* text = cJSON_PrintUnformatted(obj);
    if (text != nullptr) {
        std::fputs(text, stdout);
        std::fputc('\n', stdout);
        std::free(text);
    }
    std::fflush(stdout);
}
}  // namespace

int Output::finish() {
    if (json_ && !as_is_.empty()) {
        std::fputs(as_is_.c_str(), stdout);
        std::fputc('\n', stdout);
        std::fflush(stdout);
    } else if (json_) {
        print_json(root_);
    }
    return kExitOk;
}

int Output::fail(const Failure& f) {
    if (f.library_result != 0)
        note("%s (library result %d)", f.message.c_str(), static_cast<int>(f.library_result));
    else
        note("%s", f.message.c_str());
    if (json_) {
        cJSON* error = cJSON_CreateObject();
        json_int(error, "code", f.exit_code);
        json_int(error, "library_result", f.library_result);
        json_string(error, "message", f.message);
        cJSON_DeleteItemFromObjectCaseSensitive(root_, "error");
        cJSON_AddItemToObject(root_, "error", error);
        print_json(root_);
    }
    return f.exit_code;
}

void json_string(cJSON* obj, const char* key, std::string_view value) {
    cJSON_AddItemToObject(obj, key, cJSON_CreateString(std::string(value).c_str()));
}

void json_int(cJSON* obj, const char* key, long long value) {
    cJSON_AddItemToObject(obj, key, cJSON_CreateNumber(static_cast<double>(value)));
}

void json_bool(cJSON* obj, const char* key, bool value) { cJSON_AddItemToObject(obj, key, cJSON_CreateBool(value)); }

}  // namespace kolt::cli
