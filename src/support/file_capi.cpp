// Exported C entry points of the whole-file helpers.
#include <fcntl.h>
#include <unistd.h>
#include <cstdio>
#include <cstring>
#include <vector>

#include "kolt/kolt.h"
#include "support/file.hpp"

namespace ks = kolt::support;

extern "C" {

KOLT_API int32_t KOLT_getFileSize(const char* path) {
    if (path == nullptr) return -1;
    ks::File fp(std::fopen(path, "rb"));
    if (!fp) return -1;
    if (std::fseek(fp.get(), 0, SEEK_END) != 0) return -1;
    return static_cast<int32_t>(std::ftell(fp.get()));
}

KOLT_API int32_t KOLT_copyfile(const char* destination, const char* source) {
    if (destination == nullptr || source == nullptr) return -1;
    std::vector<uint8_t> data;
    {
        // The source is opened for reading and update, as the teller
        // system's own copies are.
        ks::File in(std::fopen(source, "rb+"));
        if (!in) return -1;
        uint8_t buf[4096];
        size_t n;
        while ((n = std::fread(buf, 1, sizeof buf, in.get())) > 0) data.insert(data.end(), buf, buf + n);
    }
    ks::File out(std::fopen(destination, "wb"));
    if (!out) return -2;
    if (!data.empty() && std::fwrite(data.data(), 1, data.size(), out.get()) != data.size()) return -2;
    return 0;
}

KOLT_API int32_t KOLT_readFile2Buf(const char* path, uint8_t* buffer, int32_t n) {
    // No buffer for a positive count is a bad parameter, like no path.
    if (path == nullptr || (buffer == nullptr && n > 0)) return -1;
    ks::File fp(std::fopen(path, "rb"));
    if (!fp) return -1;
    if (buffer != nullptr && n > 0) {
        const size_t got = std::fread(buffer, 1, static_cast<size_t>(n), fp.get());
        (void)got;  // a shorter file still answers n
    }
    return n;
}

KOLT_API int32_t KOLT_readFileToBuf(const char* path, uint8_t* buffer) {
    if (path == nullptr) return -1;
    std::vector<uint8_t> data;
    if (!ks::read_file(path, data)) return -1;
    if (buffer != nullptr && !data.empty()) std::memcpy(buffer, data.data(), data.size());
    return static_cast<int32_t>(data.size());
}

KOLT_API int32_t KOLT_writeBuf2File(const char* path, const uint8_t* buffer, int32_t n) {
    if (path == nullptr || n < 0 || (buffer == nullptr && n > 0)) return -1;
    // Never overwrites: an existing path is refused, and the exclusive
    // create closes the gap between the check and the open.
    if (::access(path, F_OK) == 0) return -1;
    const ks::UniqueFd fd(::open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
    if (fd.get() < 0) return -1;
    size_t done = 0;
    while (done < static_cast<size_t>(n)) {
        const ssize_t w = ::write(fd.get(), buffer + done, static_cast<size_t>(n) - done);
        if (w <= 0) break;
        done += static_cast<size_t>(w);
    }
    return done == static_cast<size_t>(n) ? 0 : -1;
}

}  // extern "C"
