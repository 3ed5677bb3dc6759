// Exported C entry points.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string_view>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include "kolt/kolt.h"
#include "support/capi_util.hpp"
#include "support/config.hpp"
#include "support/file.hpp"
#include "support/keyvalue.hpp"
#include "support/log.hpp"

extern "C" {

KOLT_API void KOLT_debugWriteLogLen(const char* format, const void* data, int32_t len) {
    kolt::log::debug(format, data, len);
}

KOLT_API void KOLT_errorWriteLogLen(const char* format, const void* data, int32_t len) {
    kolt::log::error(format, data, len);
}

KOLT_API void KOLT_writeLog(const char* path, const char* format, const void* data, int32_t len) {
    kolt::log::write_entry(path, format, data, len);
}

KOLT_API int32_t getNowYearMonth(char* out) {
    if (out == nullptr) return -1;
    kolt::capi::copy_text(out, kolt::log::now_as("%Y%m"));
    return 0;
}

KOLT_API int32_t KOLT_getcurrenttime(char* out) {
    if (out == nullptr) return -1;
    kolt::capi::copy_text(out, kolt::log::now_as("%Y%m%d%H%M%S"));
    return 0;
}

KOLT_API uint32_t GetTickCount(void) {
    struct timespec ts {};
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    const uint64_t ms = static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
    return static_cast<uint32_t>(ms);
}

// Removes everything in the executable's KTLog directory, whatever its age.
// The application calls it; the library itself never does.
KOLT_API int32_t DeleteLogFilesOneMonthAgo(void) {
    const std::string dir = kolt::log::exe_dir() + "KTLog";
    const std::string cmd = kolt::log::delete_command(dir);
    std::printf("Record: %s.\n", cmd.c_str());
    std::fflush(stdout);
    const int rc = std::system(cmd.c_str());
    (void)rc;
    return 0;
}

KOLT_API int32_t KOLT_InitLogDir(char* out) {
    if (out == nullptr) return 0;
    std::string dir;
    if (kolt::config::value_from_file(kolt::config::home_config_path(), "logdir", dir) != 0) dir = "/tmp";
    dir.resize(std::min<size_t>(dir.size(), 255));
    std::memcpy(out, dir.c_str(), dir.size() + 1);
    return 0;
}

}  // extern "C"
