// The identity card's character codes: a whole 256-byte text record of a
// card (name, address and authority in Chinese) from UCS-2LE to GBK and a
// GBK text back to UCS-2LE, with the library and with the C library's iconv
// (one descriptor, reset before each conversion).
#include <benchmark/benchmark.h>
#include <iconv.h>

#include <cstring>
#include <string>
#include <vector>

#include "kolt/kolt.h"

namespace {

// One conversion with a descriptor opened once.
class Iconv {
public:
    Iconv(const char* to, const char* from) : cd_(iconv_open(to, from)) {}
    ~Iconv() {
        if (ok()) iconv_close(cd_);
    }
    Iconv(const Iconv&) = delete;
    Iconv& operator=(const Iconv&) = delete;
    bool ok() const { return cd_ != reinterpret_cast<iconv_t>(-1); }

    // The number of bytes written, or -1.
    long convert(const char* in, std::size_t len, char* out, std::size_t room) {
        iconv(cd_, nullptr, nullptr, nullptr, nullptr);
        char* ip = const_cast<char*>(in);
        char* op = out;
        std::size_t il = len;
        std::size_t ol = room;
        if (iconv(cd_, &ip, &il, &op, &ol) == static_cast<std::size_t>(-1)) return -1;
        return static_cast<long>(room - ol);
    }

private:
    iconv_t cd_;
};

std::string utf8_to(const char* code, const std::string& utf8) {
    Iconv conv(code, "UTF-8");
    std::string out(utf8.size() * 4, '\0');
    const long n = conv.convert(utf8.data(), utf8.size(), out.data(), out.size());
    out.resize(n < 0 ? 0 : static_cast<std::size_t>(n));
    return out;
}

// One field: UCS-2LE, blank-padded to size bytes.
void field(std::string& record, const std::string& utf8, std::size_t size) {
    std::string f = utf8_to("UCS-2LE", utf8);
    while (f.size() < size) f += std::string(" \0", 2);
    record += f.substr(0, size);
}

// The card's text record: the fields, then blanks up to 256 bytes.
const std::string& record() {
    static const std::string r = [] {
        std::string s;
        field(s, "欧阳晓明", 30);
        field(s, "1", 2);
        field(s, "01", 4);
        field(s, "19800101", 16);
        field(s, "广东省广州市天河区天河北路一百二十三号之四十五", 70);
        field(s, "44010619800101123X", 36);
        field(s, "广州市公安局天河分局", 30);
        field(s, "20100101", 16);
        field(s, "20300101", 16);
        field(s, "", 256 - s.size());
        return s;
    }();
    return r;
}

// The record as GBK text (what an application hands back to the card side).
const std::string& gbk_record() {
    static const std::string g = [] {
        Iconv conv("GBK", "UCS-2LE");
        std::string out(512, '\0');
        const long n = conv.convert(record().data(), record().size(), out.data(), out.size());
        out.resize(n < 0 ? 0 : static_cast<std::size_t>(n));
        return out;
    }();
    return g;
}

void BM_IdUcs2ToGbkLibrary(benchmark::State& state) {
    const std::string& in = record();
    std::vector<char> out(in.size());
    for (auto _ : state) {
        const auto* p = reinterpret_cast<const uint8_t*>(in.data());
        const int rc = KOLT_idInfoConvert2gb(p, static_cast<int32_t>(in.size()), out.data());
        benchmark::DoNotOptimize(rc);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(in.size()));
}
BENCHMARK(BM_IdUcs2ToGbkLibrary);

void BM_IdUcs2ToGbkIconv(benchmark::State& state) {
    const std::string& in = record();
    Iconv conv("GBK", "UCS-2LE");
    if (!conv.ok()) state.SkipWithError("no iconv descriptor");
    std::vector<char> out(in.size());
    for (auto _ : state) {
        const long n = conv.convert(in.data(), in.size(), out.data(), out.size());
        if (n < 0) state.SkipWithError("iconv failed");
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(in.size()));
}
BENCHMARK(BM_IdUcs2ToGbkIconv);

void BM_IdGbkToUcs2Library(benchmark::State& state) {
    const std::string& in = gbk_record();
    std::vector<uint8_t> out(2 * in.size());
    for (auto _ : state) {
        const int n = KOLT_gbConvert2idUni(in.data(), static_cast<int32_t>(in.size()), out.data());
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(in.size()));
}
BENCHMARK(BM_IdGbkToUcs2Library);

void BM_IdGbkToUcs2Iconv(benchmark::State& state) {
    const std::string& in = gbk_record();
    Iconv conv("UCS-2LE", "GBK");
    if (!conv.ok()) state.SkipWithError("no iconv descriptor");
    std::vector<char> out(2 * in.size());
    for (auto _ : state) {
        const long n = conv.convert(in.data(), in.size(), out.data(), out.size());
        if (n < 0) state.SkipWithError("iconv failed");
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(in.size()));
}
BENCHMARK(BM_IdGbkToUcs2Iconv);

// The whole record to its line (nine fields, the nation lookup, the line).
void BM_IdCovToGbk(benchmark::State& state) {
    const std::string& in = record();
    char out[KOLT_IDCOV_TEXT_MAX];
    for (auto _ : state) {
        const int rc = idCovToGBK(reinterpret_cast<const uint8_t*>(in.data()), out);
        benchmark::DoNotOptimize(rc);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_IdCovToGbk);

}  // namespace
