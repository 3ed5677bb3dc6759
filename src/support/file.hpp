// Owners of stdio files and descriptors that close them when they go out of
// scope, so that no early return leaves one open.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <memory>

namespace kolt::support {

struct FileCloser {
    void operator()(std::FILE* fp) const { std::fclose(fp); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

// Opens path with an fopen mode; empty when it cannot be opened.
inline File open_file(const char* path, const char* mode) { return File(std::fopen(path, mode)); }

// A descriptor closed at the end of its scope (negative: none).
class UniqueFd {
public:
    explicit UniqueFd(int fd) : fd_(fd) {}
    ~UniqueFd() {
        if (fd_ >= 0) ::close(fd_);
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

}  // namespace kolt::support
