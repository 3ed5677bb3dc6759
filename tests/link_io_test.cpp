// Timed read and write primitives of the device link, on a real
// pseudo-terminal: the test plays the far end on the master side.
#include <signal.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "common/pty_util.hpp"
#include "common/test_util.hpp"
#include "kolt/kolt.h"
#include "link/io.hpp"

namespace {

using kolt::test::Clock;
using kolt::test::elapsed_ms;
using kolt::test::ms_since;
using kolt::test::pending_input;
using kolt::test::Pty;
using kolt::test::wait_until;

std::vector<uint8_t> buffer(size_t n) { return std::vector<uint8_t>(n, 0xEE); }

TEST(LinkIo, WriteBufWritesEveryByte) {
    Pty pty;
    const std::string text = "0123456789abcdef";
    EXPECT_EQ(KOLT_writeBuf(pty.slave(), reinterpret_cast<const uint8_t*>(text.data()), 16, 1), 16);
    EXPECT_EQ(pty.take(), text);
}

TEST(LinkIo, WriteBufOnBadDescriptorWritesNothing) {
    const uint8_t b[2] = {1, 2};
    EXPECT_EQ(KOLT_writeBuf(-1, b, 2, 1), 0);
}

TEST(LinkIo, RcvBufReturnsAsSoonAsAllBytesArrive) {
    Pty pty;
    pty.send("hello");
    auto buf = buffer(5);
    const auto start = Clock::now();
    EXPECT_EQ(KOLT_rcvBuf(pty.slave(), buf.data(), 5, 2), 5);
    EXPECT_EQ(std::string(buf.begin(), buf.end()), "hello");
    // Answered on arrival, not at the end of the 2-second wait.
    EXPECT_LT(ms_since(start), 1000);
}

TEST(LinkIo, RcvBufCollectsBytesArrivingInPieces) {
    Pty pty;
    std::thread far([&] {
        pty.send("ab");
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        pty.send("cd");
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        pty.send("e");
    });
    auto buf = buffer(5);
    EXPECT_EQ(KOLT_rcvBuf(pty.slave(), buf.data(), 5, 2), 5);
    far.join();
    EXPECT_EQ(std::string(buf.begin(), buf.end()), "abcde");
}

TEST(LinkIo, RcvBufGivesTheShortCountAtTheTimeOut) {
    Pty pty;
    pty.send("abc");
    auto buf = buffer(8);
    EXPECT_EQ(KOLT_rcvBuf(pty.slave(), buf.data(), 8, 1), 3);
    EXPECT_EQ(buf[3], 0xEE);  // nothing written past what came
}

// The time-out counts whole seconds of the wall clock: started half-way
// through a second, a 1-second wait ends at the next second boundary.
TEST(LinkIo, TimeoutOfOneSecondMayEndInLessThanASecond) {
    Pty pty;
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    // Start at about .5 s into a second.
    long wait_ns = (1500000000L - now.tv_nsec) % 1000000000L;
    timespec pause{0, wait_ns};
    nanosleep(&pause, nullptr);
    timespec started{};
    clock_gettime(CLOCK_REALTIME, &started);
    auto buf = buffer(4);
    const auto start = Clock::now();
    EXPECT_EQ(KOLT_rcvBuf(pty.slave(), buf.data(), 4, 1), 0);
    const long long took = ms_since(start);
    EXPECT_LT(took, 950);
    // It ended when the seconds field moved on, not before.
    timespec ended{};
    clock_gettime(CLOCK_REALTIME, &ended);
    EXPECT_GE(ended.tv_sec, started.tv_sec + 1);
}

TEST(LinkIo, TimeoutNeverExceedsItsSeconds) {
    Pty pty;
    auto buf = buffer(4);
    const auto start = Clock::now();
    EXPECT_EQ(KOLT_rcvBuf(pty.slave(), buf.data(), 4, 2), 0);
    const long long took = ms_since(start);
    EXPECT_GE(took, 900);  // at least timeout - 1 seconds
    EXPECT_LE(took, 2300);
}

TEST(LinkIo, RcvBuf100sEndsAtTheFirstByteAbove3F) {
    Pty pty;
    pty.send("0123A5678");
    auto buf = buffer(9);
    EXPECT_EQ(KOLT_rcvBuf100s(pty.slave(), buf.data(), 9, 1), 5);
    EXPECT_EQ(buf[4], 'A');
}

TEST(LinkIo, RcvBuf100sReadsNibbleTextToTheEnd) {
    Pty pty;
    pty.send("0123456789:;<=>?");
    auto buf = buffer(16);
    EXPECT_EQ(KOLT_rcvBuf100s(pty.slave(), buf.data(), 16, 1), 16);
}

TEST(LinkIo, RcvBufFromHeadByteSkipsToTheHead) {
    Pty pty;
    pty.send(std::string("xyz\x02" "abcdEXTRA"));
    auto buf = buffer(5);
    EXPECT_EQ(KOLT_rcvBufFromHeadByte(pty.slave(), buf.data(), 5, 0x02, 1), 5);
    EXPECT_EQ(buf[0], 0x02);
    EXPECT_EQ(std::string(buf.begin() + 1, buf.end()), "abcd");
    // The rest stays on the line.
    auto rest = buffer(5);
    EXPECT_EQ(KOLT_rcvBuf(pty.slave(), rest.data(), 5, 1), 5);
    EXPECT_EQ(std::string(rest.begin(), rest.end()), "EXTRA");
}

TEST(LinkIo, RcvBufFromHeadByteWithoutHeadGivesMinusOne) {
    Pty pty;
    pty.send("no head here");
    auto buf = buffer(5);
    EXPECT_EQ(KOLT_rcvBufFromHeadByte(pty.slave(), buf.data(), 5, 0x02, 1), -1);
}

TEST(LinkIo, RcvBufFromHeadByteCountsTheHeadWhenTheRestIsShort) {
    Pty pty;
    pty.send(std::string("\x02" "ab"));
    auto buf = buffer(5);
    EXPECT_EQ(KOLT_rcvBufFromHeadByte(pty.slave(), buf.data(), 5, 0x02, 1), 3);
}

TEST(LinkIo, RcvBufFrom2DisHeadByteTakesEitherHead) {
    {
        Pty pty;
        pty.send("zz8600ab");
        auto buf = buffer(4);
        EXPECT_EQ(KOLT_rcvBufFrom2DisHeadByte(pty.slave(), buf.data(), 4, '8', '(', 1), 4);
        EXPECT_EQ(std::string(buf.begin(), buf.end()), "8600");
    }
    {
        Pty pty;
        pty.send("zz(ABQ");
        auto buf = buffer(4);
        EXPECT_EQ(KOLT_rcvBufFrom2DisHeadByte(pty.slave(), buf.data(), 4, '8', '(', 1), 4);
        EXPECT_EQ(std::string(buf.begin(), buf.end()), "(ABQ");
    }
    {
        Pty pty;
        pty.send("zzzz");
        auto buf = buffer(4);
        EXPECT_EQ(KOLT_rcvBufFrom2DisHeadByte(pty.slave(), buf.data(), 4, '8', '(', 1), -1);
    }
}

TEST(LinkIo, ClearComBufDiscardsPendingInput) {
    Pty pty;
    pty.send(std::string(600, 'x'));
    ASSERT_TRUE(wait_until([&] { return pending_input(pty.slave()) >= 600; }));
    EXPECT_EQ(KOLT_clearComBuf(pty.slave()), 0);
    pty.send("Y");
    auto buf = buffer(4);
    EXPECT_EQ(KOLT_rcvBuf(pty.slave(), buf.data(), 4, 1), 1);
    EXPECT_EQ(buf[0], 'Y');
}

TEST(LinkIo, ClearComBufOnAQuietLineReturnsAtOnce) {
    Pty pty;
    EXPECT_LT(elapsed_ms([&] { EXPECT_EQ(KOLT_clearComBuf(pty.slave()), 0); }), 1000);
}

TEST(LinkIo, ClearComBufGivesUpAfterFiveSecondsOfContinuousData) {
    Pty pty;
    std::atomic<bool> stop{false};
    std::thread chatter([&] {
        const auto start = Clock::now();
        while (!stop && ms_since(start) < 8000) {
            (void)!::write(pty.master(), "chatter", 7);
            std::this_thread::sleep_for(std::chrono::milliseconds(40));
        }
    });
    ASSERT_TRUE(wait_until([&] { return pending_input(pty.slave()) > 0; }));  // the chatter has begun
    EXPECT_EQ(KOLT_clearComBuf(pty.slave()), -1);
    stop = true;
    chatter.join();
}

TEST(LinkIo, SelectFdReportsReadableAndWritable) {
    Pty pty;
    EXPECT_EQ(select_fd(pty.slave(), 1, 0.0), 0);
    EXPECT_EQ(select_fd(pty.slave(), 2, 1.0), 1);
    pty.send("x");
    ASSERT_TRUE(wait_until([&] { return pending_input(pty.slave()) == 1; }));
    EXPECT_EQ(select_fd(pty.slave(), 1, 1.0), 1);
    EXPECT_EQ(select_fd(pty.slave(), 3, 1.0), 2);
    EXPECT_EQ(select_fd(-1, 1, 1.0), -1);
}

TEST(LinkIo, SelectFdDropsTheFractionOfTheSeconds) {
    Pty pty;
    const auto start = Clock::now();
    EXPECT_EQ(select_fd(pty.slave(), 1, 0.9), 0);  // waits 0 seconds
    EXPECT_LT(ms_since(start), 500);
}

TEST(LinkIo, SendAndReceiveDataArePlainTransfers) {
    Pty pty;
    const uint8_t out[3] = {'a', 'b', 'c'};
    EXPECT_EQ(KOLT_SendData(pty.slave(), out, 3), 3);
    EXPECT_EQ(pty.take(), "abc");
    uint8_t in[8] = {};
    EXPECT_EQ(KOLT_ReceiveData(pty.slave(), in, 8), 0);  // nothing there: no wait
    pty.send("xy");
    ASSERT_TRUE(wait_until([&] { return pending_input(pty.slave()) == 2; }));
    EXPECT_EQ(KOLT_ReceiveData(pty.slave(), in, 8), 2);
}

TEST(LinkIo, ReadPacingIsHalfTheTransferTimeOfTheMissingBytes) {
    using kolt::link::pacing_us;
    EXPECT_EQ(pacing_us(0), 1000);        // raised to 2 ms, halved
    EXPECT_EQ(pacing_us(1), 1000);        // 833 us raised to 2 ms
    EXPECT_EQ(pacing_us(24), 10000);      // 24 bytes: 20 ms
    EXPECT_EQ(pacing_us(600), 250000);    // 600 bytes: 500 ms
    EXPECT_EQ(pacing_us(100000), 500000); // capped at 1 s
}

}  // namespace

// A caller's periodic timer interrupts the pause after a command many times:
// the pause still ends when its time is up (it used to start again in full
// after every interruption, so that a timer faster than the pause kept it
// going for ever).
namespace {
void ignore_alarm(int) {}
}  // namespace

TEST(LinkIo, WaitForDataEndsOnTimeUnderAPeriodicSignal) {
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    struct sigaction sa {};
    struct sigaction old {};
    sa.sa_handler = ignore_alarm;  // no SA_RESTART: poll sees EINTR
    ASSERT_EQ(::sigaction(SIGALRM, &sa, &old), 0);
    itimerval every{};
    every.it_value.tv_usec = 20000;
    every.it_interval.tv_usec = 20000;
    ASSERT_EQ(::setitimer(ITIMER_REAL, &every, nullptr), 0);
    const auto start = std::chrono::steady_clock::now();
    kolt::link::wait_for_data(fds[0], 300);
    const auto took = std::chrono::steady_clock::now() - start;
    itimerval off{};
    ::setitimer(ITIMER_REAL, &off, nullptr);
    ::sigaction(SIGALRM, &old, nullptr);
    ::close(fds[0]);
    ::close(fds[1]);
    EXPECT_GE(took, std::chrono::milliseconds(250));
    EXPECT_LT(took, std::chrono::milliseconds(2000));
}
