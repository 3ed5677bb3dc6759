// The stripe reader's waiting read: how soon a cancel set from another
// thread ends it, what the wait costs in CPU, and how long a read takes
// when the card is swiped at once.
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <future>
#include <string>
#include <thread>

#include "bench_util.hpp"
#include "kolt/kolt.h"
#include "kolt_sim/simulator.hpp"

namespace {

using Clock = std::chrono::steady_clock;

using kolt::bench::Reader;

const kolt::sim::StripeCard kCard{"", ";6299990000001234560=30122201234567890?",
                                  ";996299990000001234560=1561560000000000000003000000114000049120?"};

int read_both(uint32_t timeout) {
    char t2[KOLT_STRIPE_TEXT_MAX] = {0};
    char t3[KOLT_STRIPE_TEXT_MAX] = {0};
    return KOLT_MC_Read(0, 1, 23, t2, t3, timeout);
}

double cpu_seconds() {
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return static_cast<double>(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
           static_cast<double>(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

// Starts a read no card comes to and waits until it is in its waiting loop
// (it clears cancelOperation when it gets there).
std::future<int> waiting_read() {
    cancelOperation = 2;
    auto done = std::async(std::launch::async, [] { return read_both(60); });
    while (cancelOperation != 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return done;
}

// Time from setting cancelOperation to the read's return (-3). The cancel
// is set at varying points of the read's one-second slices.
void BM_StripeCancelLatency(benchmark::State& state) {
    Reader reader;
    reader->no_swipe();
    int phase = 0;
    double worst = 0;
    for (auto _ : state) {
        auto done = waiting_read();
        std::this_thread::sleep_for(std::chrono::milliseconds(137 * (phase++ % 7)));
        const auto start = Clock::now();
        cancelOperation = 1;
        const int rc = done.get();
        const auto end = Clock::now();
        if (rc != -3) state.SkipWithError("the read did not end cancelled");
        const double took = std::chrono::duration<double>(end - start).count();
        worst = std::max(worst, took);
        state.SetIterationTime(took);
    }
    state.counters["worst_ms"] = worst * 1000;
    cancelOperation = 0;
}
BENCHMARK(BM_StripeCancelLatency)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(14)->Repetitions(1);

// CPU used by the whole process while a read waits for a swipe, in per cent
// of one core (the simulator's thread included).
void BM_StripeWaitCpu(benchmark::State& state) {
    Reader reader;
    reader->no_swipe();
    double percent = 0;
    for (auto _ : state) {
        auto done = waiting_read();
        const double before = cpu_seconds();
        const auto start = Clock::now();
        std::this_thread::sleep_for(std::chrono::seconds(2));
        const double used = cpu_seconds() - before;
        const double wall = std::chrono::duration<double>(Clock::now() - start).count();
        cancelOperation = 1;
        done.get();
        percent = 100.0 * used / wall;
    }
    state.counters["cpu_percent"] = percent;
    cancelOperation = 0;
}
BENCHMARK(BM_StripeWaitCpu)->Unit(benchmark::kMillisecond)->Iterations(1)->Repetitions(1);

// A whole read of tracks 2 and 3 when the card is swiped at once.
void BM_StripeReadSwipedAtOnce(benchmark::State& state) {
    Reader reader;
    reader->set_stripe_card(kCard, 0);
    for (auto _ : state) {
        if (read_both(5) != 0) state.SkipWithError("the read failed");
    }
}
BENCHMARK(BM_StripeReadSwipedAtOnce)->Unit(benchmark::kMillisecond)->Iterations(10)->Repetitions(1);

}  // namespace
