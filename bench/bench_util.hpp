// What the benchmarks share: a simulated reader named in gPortName, and a
// working directory holding the identity-card reader's stand-in libraries.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "kolt/kolt.h"
#include "kolt_sim/simulator.hpp"

namespace kolt::bench {

// A simulated reader on its pseudo-terminal, named in gPortName while it
// lives.
class Reader {
public:
    explicit Reader(kolt::sim::Options options = {}) : sim_(std::move(options)) {
        sim_.start();
        const std::string port = sim_.port_name();
        std::memset(gPortName, 0, sizeof gPortName);
        std::strncpy(gPortName, port.c_str(), sizeof gPortName - 1);
    }
    ~Reader() { sim_.stop(); }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;
    kolt::sim::Simulator& operator*() { return sim_; }
    kolt::sim::Simulator* operator->() { return &sim_; }

private:
    kolt::sim::Simulator sim_;
};

// A fresh directory made the working directory while it lives, holding the
// stand-ins of "./libwlt.so" and "./libidpic.so" that the identity-card
// reader loads from there.
class StandinDir {
public:
    StandinDir() : saved_(std::filesystem::current_path()) {
        char name[] = "/tmp/kolt-bench-XXXXXX";
        if (::mkdtemp(name) == nullptr) std::abort();
        dir_ = name;
        for (const char* lib : {"libwlt.so", "libidpic.so"})
            std::filesystem::copy_file(std::filesystem::path(KOLT_BENCH_STANDIN_DIR) / lib, dir_ / lib);
        std::filesystem::current_path(dir_);
    }
    ~StandinDir() {
        std::error_code ec;
        std::filesystem::current_path(saved_, ec);
        std::filesystem::remove_all(dir_, ec);
    }
    StandinDir(const StandinDir&) = delete;
    StandinDir& operator=(const StandinDir&) = delete;
    const std::filesystem::path& path() const { return dir_; }

private:
    std::filesystem::path saved_;
    std::filesystem::path dir_;
};

}  // namespace kolt::bench
