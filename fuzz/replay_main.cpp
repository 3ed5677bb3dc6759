// Replays saved fuzz inputs through a fuzz target without libFuzzer: the
// first argument names the target; every file given after it, and every
// regular file in each directory given, is passed once to the target's
// entry point. The test suite builds all the targets with this main
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

#include <cstring>

namespace {

using Entry = int (*)(const uint8_t* data, size_t size);
struct Target {
    const char* name;
    Entry entry;
};

}  // namespace

#include "fuzz_registry.inc"

namespace {

Entry g_entry = nullptr;

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
    g_entry(data.empty() ? nullptr : data.data(), data.size());
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    namespace fs = std::filesystem;
    if (argc < 2) {
        std::fprintf(stderr, "usage: fuzz_replay <target> <file or directory>...\n");
        return 2;
    }
    for (const Target& t : kTargets) {
        if (std::strcmp(t.name, argv[1]) == 0) g_entry = t.entry;
    }
    if (g_entry == nullptr) {
        std::fprintf(stderr, "replay: no target %s\n", argv[1]);
        return 2;
    }
    std::size_t count = 0;
    bool ok = true;
    for (int i = 2; i < argc; ++i) {
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
