// Blocking library calls on a worker thread, the countdown and Ctrl-C.
#include <kolt/kolt.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>

#include "cli.hpp"

namespace kolt::cli {

namespace {

// The only mutable state of the program outside main: set by the SIGINT
// handler.
volatile sig_atomic_t g_interrupted = 0;

void on_sigint(int) {
    if (g_interrupted) ::_exit(kExitCancelled);  // the second Ctrl-C
    g_interrupted = 1;
    cancelOperation = 1;
}

// The countdown line on stderr, when stderr is a terminal.
class Countdown {
public:
    Countdown(const Globals& g, const Wait& w)
        : on_(!w.what.empty() && !g.no_countdown && ::isatty(STDERR_FILENO) == 1), what_(w.what) {}
    ~Countdown() {
        if (!on_ || width_ == 0) return;
        std::fprintf(stderr, "\r%*s\r", static_cast<int>(width_), "");
        std::fflush(stderr);
    }
    Countdown(const Countdown&) = delete;
    Countdown& operator=(const Countdown&) = delete;

    void show(int seconds_left) {
        if (!on_ || seconds_left == shown_) return;
        shown_ = seconds_left;
        const std::string text = "waiting for " + what_ + ": " + std::to_string(seconds_left) + " s ";
        std::fprintf(stderr, "\r%s", text.c_str());
        std::fflush(stderr);
        width_ = std::max(width_, text.size());
    }
    // A message on a line of its own while the countdown runs.
    void say(const char* text) {
        if (on_ && width_ > 0) std::fputc('\n', stderr);
        Output::note("%s", text);
        shown_ = -1;
    }

private:
    bool on_;
    std::string what_;
    int shown_ = -1;
    std::size_t width_ = 0;
};

Failure cancelled(int32_t rc) { return Failure{kExitCancelled, rc, "cancelled"}; }

}  // namespace

void install_signal_handler() {
    struct sigaction sa {};
    sa.sa_handler = on_sigint;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;  // no SA_RESTART: a read of standard input ends with EINTR
    ::sigaction(SIGINT, &sa, nullptr);
}

bool interrupted() { return g_interrupted != 0; }

int32_t call_library(const Globals& g, const Wait& wait, const std::function<int32_t()>& call) {
    if (interrupted()) throw cancelled(0);

    std::mutex m;
    std::condition_variable cv;
    bool done = false;
    int32_t result = 0;
    std::thread worker([&] {
        // Ctrl-C goes to the main thread, which watches for it.
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGINT);
        ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
        const int32_t r = call();
        std::lock_guard<std::mutex> lock(m);
        result = r;
        done = true;
        cv.notify_all();
    });

    {
        Countdown countdown(g, wait);
        const auto start = std::chrono::steady_clock::now();
        bool told = false;
        std::unique_lock<std::mutex> lock(m);
        while (!done) {
            if (interrupted()) {
                // The stripe calls clear the flag when their wait begins:
                // it is set again until the call has ended.
                if (wait.cancellable) {
                    cancelOperation = 1;
                } else if (!told) {
                    countdown.say("stopping once the device has answered (Ctrl-C again to quit at once)");
                    told = true;
                }
            }
            const auto elapsed =
                std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start).count();
            countdown.show(std::max(0, wait.seconds - static_cast<int>(elapsed)));
            cv.wait_for(lock, std::chrono::milliseconds(50));
        }
    }
    worker.join();
    if (interrupted()) throw cancelled(result);
    return result;
}

void pause_ms(int ms) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (!interrupted() && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(std::min(ms, 20)));
}

}  // namespace kolt::cli
