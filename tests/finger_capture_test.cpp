// Fingerprint capture end to end through the simulated sensor, in both of
// its variants: detection with the one combined write, the framed sensor's
// init and capture loop, the EF01 module's capture, the codes of every
// failure, and the fingerprint server settings.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "common/sim_fixture.hpp"
#include "common/test_util.hpp"
#include "finger/finger.hpp"
#include "kolt/kolt.h"
#include "kolt_sim/simulator.hpp"

namespace {

using Bytes = std::vector<uint8_t>;
using kolt::sim::Fault;

std::string hex(const Bytes& b) { return kolt::test::to_hex(b); }

// The one detection write: the framed init with parameter 3, then the EF01
// capture-image packet.
const char kDetectWrite[] = "0230303033333739333033" "3A3703" "EF01FFFFFFFF010003010005";

struct Captured {
    int rc = 0;
    std::string hex;
};

Captured capture(int timeout_s) {
    std::vector<char> out(KOLT_FP_FEATURE_HEX_MAX + 8, 'x');
    out.back() = 0;
    Captured c;
    c.rc = KOLT_T41_FP_GenChar(0, "", 1, "", 0, out.data(), timeout_s);
    c.hex = out.data();
    return c;
}

Bytes finger(uint8_t seed) {
    Bytes f(256);
    for (size_t i = 0; i < f.size(); ++i) f[i] = static_cast<uint8_t>(seed + i * 3);
    return f;
}

using FramedTest = kolt::test::FingerSensorTest<kolt::test::SimTest, kolt::test::FramedSensor>;

using ModuleTest = kolt::test::FingerSensorTest<kolt::test::SimTest, kolt::test::Ef01Sensor>;

class NoSensorTest : public kolt::test::SimTest {};

using FramedLinkedTest = kolt::test::FingerSensorTest<kolt::test::LinkedSimTest, kolt::test::FramedSensor>;

using ModuleLinkedTest = kolt::test::FingerSensorTest<kolt::test::LinkedSimTest, kolt::test::Ef01Sensor>;

}  // namespace

// ---------------------------------------------------------------------------
// Detection.

TEST_F(FramedLinkedTest, DetectsTheFramedSensorWithOneWrite) {
    EXPECT_EQ(KOLT_FP_GetDeviceType(), 0);
    EXPECT_EQ(hex(sim().raw_received()), kDetectWrite);
    EXPECT_EQ(sim().raw_received().size(), 26u);
    // The framed answer was drained: the line is clean for the next call.
    EXPECT_EQ(KOLT_T41_FP_Init(1), 0);
}

TEST_F(ModuleLinkedTest, DetectsTheModule) {
    EXPECT_EQ(KOLT_FP_GetDeviceType(), 1);
    EXPECT_EQ(hex(sim().raw_received()), kDetectWrite);
    // The module's answer was drained.
    uint8_t reply[KOLT_FP_PACKET_MAX];
    sim().place_finger();
    const uint8_t payload[] = {0x01};
    EXPECT_EQ(ARA_EM02_WriteAndRead(0x01, payload, 1, reply, 2), 12);
    EXPECT_EQ(reply[9], 0x00);
}

TEST_F(ModuleLinkedTest, DetectionWithAFingerAlreadyThere) {
    sim().place_finger();
    EXPECT_EQ(KOLT_FP_GetDeviceType(), 1);
}

// Neither 0x02 nor 0xEF within 3 seconds: device type -1, and capture -3.
TEST_F(NoSensorTest, NoAnswerToDetectionThenCaptureFails) {
    ASSERT_EQ(KOLT_initCom(0, "", 1, ""), 0);
    sim().add_raw_rule(Bytes{0xEF, 0x01, 0xFF, 0xFF, 0xFF, 0xFF, 0x01, 0x00, 0x03, 0x01, 0x00, 0x05},
                       kolt::test::text_bytes("garbage"));
    EXPECT_EQ(KOLT_FP_GetDeviceType(), -1);
    KOLT_freeCom(0, 1, "");
    const Captured c = capture(5);
    EXPECT_EQ(c.rc, -3);
}

// ---------------------------------------------------------------------------
// The framed sensor.

TEST_F(FramedLinkedTest, Init) {
    EXPECT_EQ(KOLT_T41_FP_Init(3), 0);
    const auto t = sim().transcript();
    ASSERT_FALSE(t.empty());
    EXPECT_EQ(t.back().cls, 0x37);
    EXPECT_EQ(t.back().code, 0x93);
    EXPECT_EQ(t.back().data, Bytes{0x03});
}

TEST_F(FramedLinkedTest, InitStatusNotZero) {
    sim().set_status(0x37, 0x93, 0x00, 0x05);
    EXPECT_EQ(KOLT_T41_FP_Init(3), -2);
}

TEST_F(FramedLinkedTest, InitExchangeFails) {
    sim().inject_for(0x37, 0x93, Fault{Fault::BadCheck});
    EXPECT_EQ(KOLT_T41_FP_Init(3), -1);
}

TEST_F(FramedTest, CaptureEndToEnd) {
    const Bytes f = finger(0x10);
    sim().place_finger(f);
    const Captured c = capture(5);
    EXPECT_EQ(c.rc, 0);
    EXPECT_EQ(c.hex, hex(f));
    EXPECT_EQ(c.hex.size(), 512u);
}

TEST_F(FramedTest, NoFingerThenFinger) {
    sim().place_finger(finger(0x20), 400);
    const Captured c = capture(5);
    EXPECT_EQ(c.rc, 0);
    EXPECT_EQ(c.hex, hex(finger(0x20)));
    EXPECT_GT(sim().finger_captures(), 2);
}

TEST_F(FramedTest, TimeOut) {
    const Captured c = capture(2);
    EXPECT_EQ(c.rc, -2);
    EXPECT_GT(sim().finger_captures(), 2);
    EXPECT_EQ(c.hex, std::string(KOLT_FP_FEATURE_HEX_MAX + 7, 'x'));  // nothing written
}

TEST_F(FramedTest, ExchangeFails) {
    sim().place_finger();
    sim().inject_for(0x37, 0x96, Fault{Fault::BadCheck});
    EXPECT_EQ(capture(5).rc, -3);
}

TEST_F(FramedTest, CaptureAnswerTooShortForTheFeatures) {
    sim().set_reply(0x37, 0x96, kolt::sim::Reply{0x00, 0x00, Bytes(10, 0x01)});
    EXPECT_EQ(capture(5).rc, -3);
}

TEST_F(FramedTest, PortFails) {
    std::strcpy(gPortName, "kolt-no-such-port");
    EXPECT_EQ(capture(5).rc, -1);
}

// ---------------------------------------------------------------------------
// The EF01 module.

TEST_F(ModuleTest, CaptureEndToEnd) {
    const Bytes f = finger(0x77);
    sim().place_finger(f);
    const Captured c = capture(5);
    EXPECT_EQ(c.rc, 0);
    EXPECT_EQ(c.hex, hex(f));
}

TEST_F(ModuleTest, NoFingerThenFinger) {
    sim().place_finger({}, 300);
    const Captured c = capture(5);
    EXPECT_EQ(c.rc, 0);
    EXPECT_EQ(c.hex, hex(kolt::sim::default_finger_features()));
}

TEST_F(ModuleTest, CaptureFailsAtAStep) {
    sim().place_finger();
    sim().set_finger_failure(3, 0x18);
    EXPECT_EQ(capture(5).rc, -4);
}

TEST_F(ModuleTest, TimeOutIsACaptureFailure) {
    EXPECT_EQ(capture(1).rc, -4);
}

TEST_F(ModuleTest, CppApiForCallers) {
    sim().place_finger(finger(0x01));
    const kolt::finger::Capture c = kolt::finger::gen_char(0, "", 1, "", 5);
    EXPECT_EQ(c.code, 0);
    EXPECT_EQ(c.hex, hex(finger(0x01)));
}

// ---------------------------------------------------------------------------
// Server settings.

TEST(FingerConfig, ReadsAddressAndPort) {
    kolt::test::TempDir home;
    home.write("librun/koltt41fp.cfg", "serverip=10.1.2.3\nserverport=9107\n");
    kolt::test::ScopedEnv env("HOME", home.str());
    char ip[KOLT_FP_SERVERIP_MAX] = {};
    int32_t port = 0;
    EXPECT_EQ(KOLT_T41_FP_ReadCfg(ip, &port), 0);
    EXPECT_STREQ(ip, "10.1.2.3");
    EXPECT_EQ(port, 9107);
    const auto cfg = kolt::finger::read_cfg();
    EXPECT_EQ(cfg.code, 0);
    EXPECT_EQ(cfg.ip, "10.1.2.3");
    EXPECT_EQ(cfg.port, 9107);
}

TEST(FingerConfig, MissingAddress) {
    kolt::test::TempDir home;
    home.write("librun/koltt41fp.cfg", "serverport=9107\n");
    kolt::test::ScopedEnv env("HOME", home.str());
    char ip[KOLT_FP_SERVERIP_MAX] = {};
    int32_t port = 0;
    EXPECT_EQ(KOLT_T41_FP_ReadCfg(ip, &port), -1);
}

TEST(FingerConfig, MissingPort) {
    kolt::test::TempDir home;
    home.write("librun/koltt41fp.cfg", "serverip=10.1.2.3\n");
    kolt::test::ScopedEnv env("HOME", home.str());
    char ip[KOLT_FP_SERVERIP_MAX] = {};
    int32_t port = 5;
    EXPECT_EQ(KOLT_T41_FP_ReadCfg(ip, &port), -2);
    EXPECT_EQ(port, 5);
}

TEST(FingerConfig, NoFile) {
    kolt::test::TempDir home;
    kolt::test::ScopedEnv env("HOME", home.str());
    char ip[KOLT_FP_SERVERIP_MAX] = {};
    int32_t port = 0;
    EXPECT_EQ(KOLT_T41_FP_ReadCfg(ip, &port), -1);
}

TEST(FingerSimProfile, ReadsTheFingerprintPart) {
    const auto p = kolt::sim::parse_device_profile(
        R"({"fingerprint": {"type": "ef01", "finger_after_ms": 250, "no_finger_code": "02"}})");
    EXPECT_EQ(p.finger.type, "ef01");
    EXPECT_EQ(p.finger.finger_after_ms, 250);
    EXPECT_THROW(kolt::sim::parse_device_profile(R"({"fingerprint": {"type": "optical"}})"), std::runtime_error);
}

// ---------------------------------------------------------------------------
// Through the teller terminal's auxiliary port: every write between the lead
// and end sequences.

namespace {

kolt::sim::Options terminal_with(const std::string& type) {
    kolt::sim::Options o;
    o.terminal.type = 1;
    o.terminal.port = 1;
    o.profile.finger.type = type;
    return o;
}

Captured capture_on_terminal(kolt::sim::Simulator& sim) {
    std::vector<char> out(KOLT_FP_FEATURE_HEX_MAX, 0);
    Captured c;
    c.rc = KOLT_T41_FP_GenChar(1, sim.slave_path().c_str(), 1, "", 0, out.data(), 5);
    c.hex = out.data();
    return c;
}

}  // namespace

TEST(FingerTerminal, ModuleCaptureThroughTheAuxiliaryPort) {
    kolt::test::ScopedSimulator sim(terminal_with("ef01"));
    sim->place_finger(finger(0x42));
    const Captured c = capture_on_terminal(*sim);
    EXPECT_EQ(c.rc, 0);
    EXPECT_EQ(c.hex, hex(finger(0x42)));
    EXPECT_TRUE(sim->terminal_errors().empty());
    const auto events = sim->terminal_events();
    // Detection and the six commands, each wrapped.
    EXPECT_EQ(std::count(events.begin(), events.end(), "lead"), 7);
}

TEST(FingerTerminal, FramedCaptureThroughTheAuxiliaryPort) {
    kolt::test::ScopedSimulator sim(terminal_with("framed"));
    sim->place_finger(finger(0x24));
    const Captured c = capture_on_terminal(*sim);
    EXPECT_EQ(c.rc, 0);
    EXPECT_EQ(c.hex, hex(finger(0x24)));
    EXPECT_TRUE(sim->terminal_errors().empty());
}

TEST(FingerProfileFinger, FingerComesAfterTheProfilesDelay) {
    kolt::sim::Options o;
    o.profile.finger.type = "ef01";
    o.profile.finger.finger_after_ms = 300;
    kolt::test::ScopedSimulator sim(o);
    const Captured c = capture(5);
    EXPECT_EQ(c.rc, 0);
    EXPECT_EQ(c.hex, hex(kolt::sim::default_finger_features()));
    EXPECT_GT(sim->finger_captures(), 2);
}
