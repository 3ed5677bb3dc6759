#include "common/com_link.hpp"

#include <unistd.h>

#include <cerrno>
#include <filesystem>

namespace kolt::test {

namespace {
std::string com_path(int n) { return "/dev/COM" + std::to_string(n); }
}  // namespace

ComLink::ComLink(const std::string& target) {
    for (int n = 8; n >= 1; --n) {
        const std::string path = com_path(n);
        if (::symlink(target.c_str(), path.c_str()) == 0) {
            number_ = n;
            path_ = path;
            return;
        }
        if (errno != EEXIST) return;
    }
}

ComLink::~ComLink() {
    if (!path_.empty()) ::unlink(path_.c_str());
}

int free_com_number() {
    for (int n = 1; n <= 8; ++n)
        if (!std::filesystem::exists(std::filesystem::symlink_status(com_path(n)))) return n;
    return 0;
}

}  // namespace kolt::test
