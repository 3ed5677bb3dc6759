// Owners of stdio files and descriptors that close them when they go out of
// scope, so that no early return leaves one open; whole-file reads.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kolt::support {

struct FileCloser {
    void operator()(std::FILE* fp) const { std::fclose(fp); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

// Opens path with an fopen mode; empty when it cannot be opened.
inline File open_file(const char* path, const char* mode) { return File(std::fopen(path, mode)); }

// A descriptor closed at the end of its scope (negative: none). Movable;
// release() hands the descriptor on without closing it.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    ~UniqueFd() { reset(); }
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) reset(other.release());
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1) {
        if (fd_ >= 0 && fd_ != fd) ::close(fd_);
        fd_ = fd;
    }

private:
    int fd_ = -1;
};

// Whole-file read; false when the file cannot be opened.
bool read_file(const std::string& path, std::vector<uint8_t>& out);

}  // namespace kolt::support
