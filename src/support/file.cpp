#include "support/file.hpp"

namespace kolt::support {

bool read_file(const std::string& path, std::vector<uint8_t>& out) {
    File fp(std::fopen(path.c_str(), "rb"));
    if (!fp) return false;
    out.clear();
    uint8_t buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, fp.get())) > 0) out.insert(out.end(), buf, buf + n);
    return true;
}

}  // namespace kolt::support
