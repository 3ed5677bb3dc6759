// Base64 throughput, the library's in-place codec against OpenSSL's
// EVP_EncodeBlock / EVP_DecodeBlock in the same run, on 1 KiB and 64 KiB of
// varied bytes (a fixed pseudo-random sequence). The library works in
// place, so its figures include copying the input into the work buffer;
// OpenSSL writes to a separate buffer.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <cstring>
#include <random>
#include <vector>

#include "support/base64.hpp"

namespace {

std::vector<uint8_t> varied_bytes(std::size_t n) {
    std::mt19937 rng(20261122);
    std::vector<uint8_t> v(n);
    for (auto& b : v) b = static_cast<uint8_t>(rng());
    return v;
}

std::vector<uint8_t> text_of(const std::vector<uint8_t>& bytes) {
    std::vector<uint8_t> t(kolt::base64::encoded_size(static_cast<int>(bytes.size())) + 1);
    const int n = EVP_EncodeBlock(t.data(), bytes.data(), static_cast<int>(bytes.size()));
    t.resize(static_cast<std::size_t>(n));
    return t;
}

void BM_Base64EncodeLibrary(benchmark::State& state) {
    const auto in = varied_bytes(static_cast<std::size_t>(state.range(0)));
    std::vector<uint8_t> buf(kolt::base64::encoded_size(static_cast<int>(in.size())) + 1);
    for (auto _ : state) {
        std::memcpy(buf.data(), in.data(), in.size());
        benchmark::DoNotOptimize(kolt::base64::encode_in_place(buf, static_cast<int>(in.size())));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_Base64EncodeLibrary)->Arg(1024)->Arg(65536);

void BM_Base64EncodeOpenSSL(benchmark::State& state) {
    const auto in = varied_bytes(static_cast<std::size_t>(state.range(0)));
    std::vector<uint8_t> out(kolt::base64::encoded_size(static_cast<int>(in.size())) + 1);
    for (auto _ : state) {
        benchmark::DoNotOptimize(EVP_EncodeBlock(out.data(), in.data(), static_cast<int>(in.size())));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_Base64EncodeOpenSSL)->Arg(1024)->Arg(65536);

void BM_Base64DecodeLibrary(benchmark::State& state) {
    const auto text = text_of(varied_bytes(static_cast<std::size_t>(state.range(0))));
    std::vector<uint8_t> buf(kolt::base64::padded_size(static_cast<int>(text.size())));
    for (auto _ : state) {
        std::memcpy(buf.data(), text.data(), text.size());
        benchmark::DoNotOptimize(kolt::base64::decode_in_place(buf, static_cast<int>(text.size())));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(text.size()));
}
BENCHMARK(BM_Base64DecodeLibrary)->Arg(1024)->Arg(65536);

void BM_Base64DecodeOpenSSL(benchmark::State& state) {
    const auto text = text_of(varied_bytes(static_cast<std::size_t>(state.range(0))));
    std::vector<uint8_t> out(text.size());
    for (auto _ : state) {
        benchmark::DoNotOptimize(EVP_DecodeBlock(out.data(), text.data(), static_cast<int>(text.size())));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(text.size()));
}
BENCHMARK(BM_Base64DecodeOpenSSL)->Arg(1024)->Arg(65536);

}  // namespace
