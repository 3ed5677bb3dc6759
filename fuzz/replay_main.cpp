// Replays saved fuzz inputs through a fuzz target without libFuzzer: every
// file given, and every regular file in each directory given, is passed once
// to LLVMFuzzerTestOneInput. The test suite builds each target with this main
// (with the compiler and sanitizers of that build) and runs it over the
// target's seed corpus and its saved regressions. A missing directory counts
// as empty; no input at all is a failure.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

bool replay(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "replay: cannot read %s\n", file.c_str());
        return false;
    }
    const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // A copy of exactly the file's size, as libFuzzer hands it over.
    std::vector<uint8_t> data(bytes.begin(), bytes.end());
    std::fprintf(stderr, "replay: %s (%zu bytes)\n", file.c_str(), data.size());
    LLVMFuzzerTestOneInput(data.empty() ? nullptr : data.data(), data.size());
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    namespace fs = std::filesystem;
    std::size_t count = 0;
    bool ok = true;
    for (int i = 1; i < argc; ++i) {
        const fs::path arg(argv[i]);
        std::error_code ec;
        if (fs::is_directory(arg, ec)) {
            std::vector<fs::path> files;
            for (const auto& entry : fs::recursive_directory_iterator(arg)) {
                if (entry.is_regular_file()) files.push_back(entry.path());
            }
            std::sort(files.begin(), files.end());
            for (const auto& f : files) {
                ok = replay(f) && ok;
                ++count;
            }
        } else if (fs::exists(arg, ec)) {
            ok = replay(arg) && ok;
            ++count;
        } else {
            std::fprintf(stderr, "replay: %s does not exist (no inputs there)\n", argv[i]);
        }
    }
    std::fprintf(stderr, "replay: %zu inputs\n", count);
    if (count == 0) {
        std::fprintf(stderr, "replay: nothing to replay\n");
        return 1;
    }
    return ok ? 0 : 1;
}
