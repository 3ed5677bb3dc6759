// The three framings end to end against the simulated reader, with every
// injected fault, plus connect, disconnect and the device probe.
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "common/pty_util.hpp"
#include "common/sim_fixture.hpp"
#include "common/test_util.hpp"
#include "kolt/kolt.h"
#include "link/frame.hpp"
#include "link/link_state.hpp"

namespace {

using kolt::sim::Fault;
using kolt::sim::Framing;
using kolt::test::ScopedSimulator;
using kolt::test::to_hex;
using Bytes = std::vector<uint8_t>;
using kolt::test::elapsed_ms;

bool is_open(int fd) { return ::fcntl(fd, F_GETFD) != -1; }

kolt::sim::Options with_profile(const kolt::sim::DeviceProfile& p) {
    kolt::sim::Options o;
    o.profile = p;
    return o;
}

kolt::sim::Options legacy86() { return with_profile(kolt::sim::load_device_profile(kolt::test::sim_profile("legacy86.json"))); }

// A local link to the simulated reader for the length of a test.
class Framed : public kolt::test::LinkedSimTest {
protected:
    int version(int timeout) {
        const uint8_t sel = 4;
        return KOLT_writeBufAndReadFromT41(0x31, 0x11, &sel, 1, out_, timeout);
    }
    int bracket(uint8_t cmd, int timeout) {
        return KOLT_writeBufAndRead(kolt::link::state().fd, cmd, nullptr, 0, out_, timeout);
    }
    uint8_t out_[KOLT_T41_REPLY_MAX] = {};
};

// ---- Main frame.

TEST_F(Framed, MainFrameHappyPath) {
    const int n = version(2);
    ASSERT_EQ(n, 26 + 7);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(out_) + 5, 26), "KL560T41-FW-20240115-V1.08");
    ASSERT_TRUE(sim().wait_for_commands(1, 1000));
    const auto c = sim().transcript().back();
    EXPECT_EQ(c.framing, Framing::Main);
    EXPECT_EQ(c.cls, 0x31);
    EXPECT_EQ(c.code, 0x11);
    EXPECT_EQ(to_hex(c.data), "04");
    EXPECT_TRUE(sim().frame_errors().empty());
}

TEST_F(Framed, MainFrameStatusPairReachesTheMapping) {
    sim().set_status(0x31, 0x11, 0x30, 0x06);
    ASSERT_GT(version(2), 0);
    EXPECT_EQ(KOLT_T41_Ret_Code(out_[3], out_[4]), ICC_No_Response);
}

// The link layer's real time-out test against the simulated reader: it
// stays silent and the read runs out its time. (The other faults of this
// file - a short, truncated or late reply - end in the same wait, because
// that is how the link notices them.)
TEST_F(Framed, MainFrameNoReply) {
    sim().inject(Fault{Fault::NoReply});
    EXPECT_LT(elapsed_ms([&] { EXPECT_EQ(version(1), Lenth_Error); }), 1500);
}

TEST_F(Framed, MainFrameWrongCheck) {
    sim().inject(Fault{Fault::BadCheck});
    EXPECT_EQ(version(2), Revdata_Error);
}

TEST_F(Framed, MainFrameTruncated) {
    sim().inject(Fault{Fault::Truncate});
    EXPECT_LT(elapsed_ms([&] { EXPECT_EQ(version(1), Lenth_Error); }), 1500);
}

TEST_F(Framed, MainFrameGarbageBefore) {
    sim().inject(Fault{Fault::GarbageBefore});
    EXPECT_EQ(version(2), 33);
}

TEST_F(Framed, MainFrameLengthTooLong) {
    sim().inject(Fault{Fault::LengthTooLong});
    EXPECT_EQ(version(1), Lenth_Error);
}

TEST_F(Framed, MainFrameDelayWithinTheTimeOut) {
    sim().inject(Fault{Fault::Delay, 300});
    EXPECT_EQ(version(2), 33);
}

TEST_F(Framed, MainFrameDelayBeyondTheTimeOut) {
    sim().inject(Fault{Fault::Delay, 2500});
    EXPECT_LT(elapsed_ms([&] { EXPECT_EQ(version(1), Lenth_Error); }), 1500);
}

TEST_F(Framed, MainFrameLineClosedMidFrame) {
    sim().inject(Fault{Fault::CloseMidFrame, 500});
    EXPECT_EQ(version(1), Lenth_Error);
    // The line is back once its dead time is over: until then a command is
    // lost and its one-second wait ends without a reply.
    EXPECT_TRUE(kolt::test::wait_until([&] { return version(1) == 33; }));
    EXPECT_EQ(version(2), 33);
}

// ---- The identity-card read reply.

TEST_F(Framed, SpecialReplyHappyPath) {
    const int n = KOLT_writeBufAndReadFromT41(0x35, 0x82, nullptr, 0, out_, 2);
    ASSERT_GT(n, 1000);
    EXPECT_EQ(out_[3], 0x00);
    EXPECT_EQ(out_[4], 0x00);
    EXPECT_EQ(out_[1] * 256 + out_[2], n - 5);
    EXPECT_EQ(out_[n - 2], 0x30);
    EXPECT_EQ(out_[n - 1], 0x03);
}

TEST_F(Framed, SpecialReplyWrongCheck) {
    sim().inject(Fault{Fault::BadCheck});
    EXPECT_EQ(KOLT_writeBufAndReadFromT41(0x35, 0x82, nullptr, 0, out_, 2), Revdata_Error);
}

TEST_F(Framed, SpecialReplyTruncatedOrTooLong) {
    sim().inject(Fault{Fault::Truncate});
    EXPECT_EQ(KOLT_writeBufAndReadFromT41(0x35, 0x82, nullptr, 0, out_, 1), Lenth_Error);
    sim().inject(Fault{Fault::LengthTooLong});
    EXPECT_EQ(KOLT_writeBufAndReadFromT41(0x35, 0x82, nullptr, 0, out_, 1), Lenth_Error);
}

// ---- Bracket framing.

TEST_F(Framed, BracketGreeting) {
    EXPECT_EQ(bracket(0x41, 2), 11);
    EXPECT_EQ(out_[0], 0x90);
    const auto c = sim().transcript().back();
    EXPECT_EQ(c.framing, Framing::Bracket);
    EXPECT_EQ(c.code, 0x41);
}

TEST_F(Framed, BracketWithData) {
    const Bytes data = {1, 2, 3, 4, 5};
    EXPECT_EQ(KOLT_writeBufAndRead(kolt::link::state().fd, 0x51, data.data(), 5, out_, 2), 1);
    EXPECT_EQ(out_[0], 0x90);
    const auto c = sim().transcript().back();
    EXPECT_EQ(c.code, 0x51);
    EXPECT_EQ(to_hex(c.data), to_hex(data));
}

TEST_F(Framed, BracketFaults) {
    sim().inject_for(0, 0x41, Fault{Fault::BadCheck});
    EXPECT_EQ(bracket(0x41, 2), Revdata_Error);
    sim().inject_for(0, 0x41, Fault{Fault::NoReply});
    EXPECT_EQ(bracket(0x41, 1), Lenth_Error);
    sim().inject_for(0, 0x41, Fault{Fault::Truncate});
    EXPECT_EQ(bracket(0x41, 1), Lenth_Error);
    sim().inject_for(0, 0x41, Fault{Fault::LengthTooLong});
    EXPECT_EQ(bracket(0x41, 1), Lenth_Error);
    sim().inject_for(0, 0x41, Fault{Fault::GarbageBefore});
    EXPECT_EQ(bracket(0x41, 2), 11);
}

// ---- Device probe.

TEST_F(Framed, ProbeFindsTheBracketFamily) {
    EXPECT_EQ(KOLT_getDeviceType(), 0);
    EXPECT_EQ(sim().transcript().back().framing, Framing::Probe);
}

TEST_F(Framed, ProbeWithoutAnswer) {
    sim().inject_for(0, 0, Fault{Fault::NoReply});
    EXPECT_EQ(KOLT_getDeviceType(), -1);
}

TEST(FrameSim86, ProbeFindsTheOlderFamily) {
    ScopedSimulator sim(legacy86());
    ASSERT_EQ(KOLT_initCom(0, "", 1, ""), 0);
    EXPECT_EQ(KOLT_getDeviceType(), 1);
    KOLT_freeCom(0, 1, "");
}

TEST(FrameSim86, CommandAndFaults) {
    ScopedSimulator sim(legacy86());
    ASSERT_EQ(KOLT_initCom(0, "", 1, ""), 0);
    uint8_t out[KOLT_T41_REPLY_MAX];
    // 86 00 05, the payload 10 90 00, the sum and 16.
    ASSERT_EQ(KOLT_writeBufAndReadFrom100s(0x10, 0, 0, out, 2), 8);
    EXPECT_EQ(to_hex(out, 8), "8600051090" "00" + to_hex(Bytes{static_cast<uint8_t>(0x05 + 0x10 + 0x90)}) + "16");
    const auto c = sim->transcript().back();
    EXPECT_EQ(c.framing, Framing::Legacy86);
    EXPECT_EQ(c.code, 0x10);
    sim->inject_for(0x86, 0x10, Fault{Fault::BadCheck});
    EXPECT_EQ(KOLT_writeBufAndReadFrom100s(0x10, 0, 0, out, 2), Revdata_Error);
    sim->inject_for(0x86, 0x10, Fault{Fault::NoReply});
    EXPECT_EQ(KOLT_writeBufAndReadFrom100s(0x10, 0, 0, out, 1), Lenth_Error);
    sim->inject_for(0x86, 0x10, Fault{Fault::Truncate});
    EXPECT_EQ(KOLT_writeBufAndReadFrom100s(0x10, 0, 0, out, 1), Lenth_Error);
    EXPECT_EQ(KOLT_sendCmd100s(0x10), 12);
    ASSERT_TRUE(sim->wait_for_commands(5, 2000));
    EXPECT_EQ(sim->transcript().back().framing, Framing::Legacy86);
    KOLT_freeCom(0, 1, "");
}

// ---- Connect and disconnect, local port.

TEST(FrameConnect, ConnectAndDisconnect) {
    ScopedSimulator sim;
    EXPECT_EQ(KOLT_connectDevice("", "0", "1", "", ""), 0);
    const int fd = kolt::link::state().fd;
    EXPECT_TRUE(is_open(fd));
    EXPECT_EQ(sim->transcript().back().code, 0x41);
    EXPECT_EQ(KOLT_disconnectDevice("0", "1"), 0);
    EXPECT_EQ(sim->transcript().back().framing, Framing::Bracket);
    EXPECT_EQ(sim->transcript().back().code, 0x42);
    EXPECT_FALSE(is_open(fd));
}

TEST(FrameConnect, GreetingWithAWrongCheckFails) {
    ScopedSimulator sim;
    sim->inject_for(0, 0x41, Fault{Fault::BadCheck});
    EXPECT_EQ(KOLT_connectDevice("", "0", "1", "", ""), -1);
}

TEST(FrameConnect, GreetingMustBeElevenBytesFrom0x90) {
    auto p = kolt::sim::default_profile();
    p.greeting = {0x90, 1, 2, 3, 4, 5, 6, 7, 8, 9};
    {
        ScopedSimulator sim(with_profile(p));
        EXPECT_EQ(KOLT_connectDevice("", "0", "1", "", ""), -1);
        KOLT_closeComOrAux("0", "1");
    }
    p.greeting = {0x91, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    {
        ScopedSimulator sim(with_profile(p));
        EXPECT_EQ(KOLT_connectDevice("", "0", "1", "", ""), -1);
        KOLT_closeComOrAux("0", "1");
    }
}

TEST(FrameConnect, ConnectToAMissingPortFails) {
    std::strcpy(gPortName, "kolt-no-such-device");
    EXPECT_EQ(KOLT_connectDevice("", "0", "1", "", ""), -1);
}

TEST(FrameConnect, DisconnectWithoutAnswerFailsAndCloses) {
    ScopedSimulator sim;
    ASSERT_EQ(KOLT_connectDevice("", "0", "1", "", ""), 0);
    const int fd = kolt::link::state().fd;
    sim->inject_for(0, 0x42, Fault{Fault::BadCheck});
    EXPECT_EQ(KOLT_disconnectDevice("0", "1"), -1);
    EXPECT_FALSE(is_open(fd));
}

TEST(FrameConnect, LocalDisconnectNeedsExactlyOneByte) {
    auto p = kolt::sim::default_profile();
    p.disconnect = {0x90, 0x00};
    ScopedSimulator sim(with_profile(p));
    ASSERT_EQ(KOLT_connectDevice("", "0", "1", "", ""), 0);
    const int fd = kolt::link::state().fd;
    EXPECT_EQ(KOLT_disconnectDevice("0", "1"), -1);
    EXPECT_FALSE(is_open(fd));
}

}  // namespace
