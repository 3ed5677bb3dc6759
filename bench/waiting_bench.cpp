// What waiting costs: the CPU the calling thread (the library's) uses
// while a call waits 10 seconds for something that never comes, as a share
// of one core. The whole process's share (the simulator's thread included)
// is reported beside it.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bench_util.hpp"
#include "kolt/kolt.h"
#include "kolt_sim/simulator.hpp"

namespace {

using kolt::bench::Reader;
using Clock = std::chrono::steady_clock;

constexpr int kWaitSeconds = 10;

double cpu_seconds(int who) {
    rusage u{};
    getrusage(who, &u);
    return static_cast<double>(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
           static_cast<double>(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

// Runs call once and reports its result, its wall time and the CPU shares.
void measure_wait(benchmark::State& state, const std::function<int()>& call, int expected) {
    double thread_used = 0, process_used = 0, wall = 0;
    int rc = 0;
    for (auto _ : state) {
        const double t0 = cpu_seconds(RUSAGE_THREAD);
        const double p0 = cpu_seconds(RUSAGE_SELF);
        const auto start = Clock::now();
        rc = call();
        wall = std::chrono::duration<double>(Clock::now() - start).count();
        thread_used = cpu_seconds(RUSAGE_THREAD) - t0;
        process_used = cpu_seconds(RUSAGE_SELF) - p0;
    }
    if (rc != expected) {
        state.SkipWithError(("the call gave " + std::to_string(rc) + ", not " + std::to_string(expected)).c_str());
        return;
    }
    state.counters["wall_s"] = wall;
    state.counters["thread_cpu_percent"] = 100.0 * thread_used / wall;
    state.counters["process_cpu_percent"] = 100.0 * process_used / wall;
}

// An identity-card read with no card on the reader: the library looks for
// one until its time is up (-2), over a line paced as a 9600-baud one.
void BM_WaitIdCard(benchmark::State& state) {
    kolt::sim::Options o;
    o.pace = true;
    Reader reader(o);
    kolt::bench::StandinDir dir;
    reader->set_id_card(std::nullopt);
    std::vector<char> out(KOLT_IDINFO_MAX, 0);
    measure_wait(state, [&] { return getIdCardInfo(0, "", 1, "", kWaitSeconds, out.data(), "", 0, 0, 0); }, -2);
}
BENCHMARK(BM_WaitIdCard)->Unit(benchmark::kSecond)->Iterations(1)->Repetitions(1);

// A stripe read no card is swiped for (-2).
void BM_WaitStripeSwipe(benchmark::State& state) {
    Reader reader;
    reader->no_swipe();
    char t2[KOLT_STRIPE_TEXT_MAX] = {0};
    char t3[KOLT_STRIPE_TEXT_MAX] = {0};
    measure_wait(state, [&] { return KOLT_MC_Read(0, 1, 23, t2, t3, kWaitSeconds); }, -2);
}
BENCHMARK(BM_WaitStripeSwipe)->Unit(benchmark::kSecond)->Iterations(1)->Repetitions(1);

// A fingerprint capture no finger is put on, for each sensor: the framed
// sensor's capture times out (-2); the EF01 module's capture gives up (-7),
// which the capture call reports as a failed module capture (-4). Both
// poll the sensor every 500 microseconds, as they must, so the line is
// paced as a 9600-baud one: the polls then come as fast as a real line
// carries them.
void BM_WaitFinger(benchmark::State& state, const char* sensor, int expected) {
    kolt::sim::Options o;
    o.profile.finger.type = sensor;
    o.pace = true;
    Reader reader(o);
    reader->lift_finger();
    std::vector<char> out(KOLT_FP_FEATURE_HEX_MAX, 0);
    measure_wait(state, [&] { return KOLT_T41_FP_GenChar(0, "", 1, "", 0, out.data(), kWaitSeconds); }, expected);
    state.counters["captures"] = reader->finger_captures();
}
BENCHMARK_CAPTURE(BM_WaitFinger, framed, "framed", -2)->Unit(benchmark::kSecond)->Iterations(1)->Repetitions(1);
BENCHMARK_CAPTURE(BM_WaitFinger, ef01, "ef01", -4)->Unit(benchmark::kSecond)->Iterations(1)->Repetitions(1);

// A main-frame command the reader never answers (-1).
void BM_WaitIcReply(benchmark::State& state) {
    Reader reader;
    if (KOLT_initCom(0, "", 1, "") != 0) {
        state.SkipWithError("the link did not open");
        return;
    }
    reader->inject(kolt::sim::Fault{kolt::sim::Fault::NoReply, 0}, -1);
    std::vector<uint8_t> out(KOLT_T41_REPLY_MAX);
    measure_wait(state, [&] { return KOLT_writeBufAndReadFromT41(0x32, 0x22, nullptr, 0, out.data(), kWaitSeconds); }, -1);
    KOLT_freeCom(0, 1, "");
}
BENCHMARK(BM_WaitIcReply)->Unit(benchmark::kSecond)->Iterations(1)->Repetitions(1);

// A clerk server that accepts the connection and never answers (-1). The
// kernel completes the connection from the listen queue; nobody reads.
void BM_WaitClerkServer(benchmark::State& state) {
    const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (listener < 0 || ::bind(listener, reinterpret_cast<sockaddr*>(&addr), len) != 0 || ::listen(listener, 4) != 0 ||
        ::getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        state.SkipWithError("no listening socket");
        if (listener >= 0) ::close(listener);
        return;
    }
    std::vector<char> reply(KOLT_CLERK_REPLY_MAX, 0);
    measure_wait(state,
                 [&] {
                     return socketXmlWriteAndRead("127.0.0.1", ntohs(addr.sin_port), "<request/>", reply.data(),
                                                  "<answer>", "</answer>", kWaitSeconds);
                 },
                 -1);
    ::close(listener);
}
BENCHMARK(BM_WaitClerkServer)->Unit(benchmark::kSecond)->Iterations(1)->Repetitions(1);

// A line whose other end has gone: the link is open on the simulator's
// pseudo-terminal, then the simulator goes away (its side closed) and a
// command waits for its reply (-1).
void BM_WaitDeadLine(benchmark::State& state) {
    auto reader = std::make_unique<Reader>();
    if (KOLT_initCom(0, "", 1, "") != 0) {
        state.SkipWithError("the link did not open");
        return;
    }
    reader.reset();
    std::vector<uint8_t> out(KOLT_T41_REPLY_MAX);
    measure_wait(state, [&] { return KOLT_writeBufAndReadFromT41(0x32, 0x22, nullptr, 0, out.data(), kWaitSeconds); }, -1);
    KOLT_freeCom(0, 1, "");
}
BENCHMARK(BM_WaitDeadLine)->Unit(benchmark::kSecond)->Iterations(1)->Repetitions(1);

}  // namespace
