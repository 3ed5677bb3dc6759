// The simulated fingerprint sensor on its own, byte by byte: the EF01
// packets among the other framings of the line, their answers, damaged
// packets, and the framed sensor's commands.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "common/sim_fixture.hpp"
#include "common/test_util.hpp"
#include "kolt_sim/frame.hpp"
#include "kolt_sim/simulator.hpp"

namespace {

using Bytes = std::vector<uint8_t>;
using kolt::sim::Framing;

// A packet written out by hand: EF 01, address, id, length, payload, sum.
Bytes packet(uint8_t pid, const Bytes& payload) {
    const size_t n = payload.size() + 2;
    Bytes p = {0xEF, 0x01, 0xFF, 0xFF, 0xFF, 0xFF, pid, static_cast<uint8_t>(n >> 8), static_cast<uint8_t>(n)};
    unsigned sum = pid + (n >> 8) + (n & 0xFF);
    for (uint8_t b : payload) sum += b;
    p.insert(p.end(), payload.begin(), payload.end());
    p.push_back(static_cast<uint8_t>(sum >> 8));
    p.push_back(static_cast<uint8_t>(sum));
    return p;
}

std::string hex(const Bytes& b) { return kolt::test::to_hex(b); }

using SimFingerModule = kolt::test::FingerSensorTest<kolt::test::RawSimTest, kolt::test::Ef01Sensor>;

using SimFingerFramed = kolt::test::FingerSensorTest<kolt::test::RawSimTest, kolt::test::FramedSensor>;

}  // namespace

TEST_F(SimFingerModule, CaptureImageWithoutAndWithAFinger) {
    line->write(packet(0x01, {0x01}));
    EXPECT_EQ(hex(line->read(12, 1000)), "EF01FFFFFFFF07000302000C");
    sim->place_finger();
    line->write(packet(0x01, {0x01}));
    EXPECT_EQ(hex(line->read(12, 1000)), "EF01FFFFFFFF07000300000A");
    EXPECT_EQ(sim->finger_captures(), 2);
}

TEST_F(SimFingerModule, PacketsAmongOtherFramings) {
    Bytes w = kolt::sim::encode_main_command(0x31, 0x13, {});
    const Bytes p = packet(0x01, {0x05});
    w.insert(w.end(), p.begin(), p.end());
    const Bytes b = kolt::sim::encode_bracket(0x41, {});
    w.insert(w.end(), b.begin(), b.end());
    w.push_back(0xEF);  // a stray EF that begins no packet
    w.push_back(0x33);
    const Bytes m = kolt::sim::encode_main_command(0x38, 0x97, {});
    w.insert(w.end(), m.begin(), m.end());
    line->write(w);
    ASSERT_TRUE(sim->wait_for_commands(4, 2000));
    const auto t = sim->transcript();
    ASSERT_EQ(t.size(), 4u);
    EXPECT_EQ(t[0].framing, Framing::Main);
    EXPECT_EQ(t[1].framing, Framing::Ef01);
    EXPECT_EQ(t[1].code, 0x05);
    EXPECT_EQ(t[2].framing, Framing::Bracket);
    EXPECT_EQ(t[3].framing, Framing::Main);
    EXPECT_EQ(t[3].cls, 0x38);
    EXPECT_TRUE(sim->rf_on());
}

TEST_F(SimFingerModule, WrongSumIsAFrameError) {
    Bytes p = packet(0x01, {0x01});
    p.back() ^= 0x01;
    line->write(p);
    EXPECT_TRUE(line->read_for(300).empty());
    EXPECT_TRUE(kolt::test::wait_until([&] { return !sim->frame_errors().empty(); }));
    EXPECT_NE(sim->frame_errors().at(0).find("EF01"), std::string::npos);
}

TEST_F(SimFingerModule, UploadSendsFourDataPackets) {
    sim->place_finger();
    line->write(packet(0x01, {0x08, 0x02}));
    const Bytes r = line->read(12 + 4 * 139, 2000);
    ASSERT_EQ(r.size(), 12u + 4 * 139);
    const Bytes f = kolt::sim::default_finger_features();
    EXPECT_EQ(Bytes(r.begin() + 12 + 2 * 139 + 9, r.begin() + 12 + 2 * 139 + 9 + 128), Bytes(f.begin(), f.begin() + 128));
    EXPECT_EQ(r[12 + 3 * 139 + 6], 0x08);
}

TEST_F(SimFingerModule, FailureAtAStep) {
    sim->set_finger_failure(5, 0x0A);
    line->write(packet(0x01, {0x05}));
    const Bytes r = line->read(12, 1000);
    ASSERT_EQ(r.size(), 12u);
    EXPECT_EQ(r[9], 0x0A);
}

TEST_F(SimFingerModule, FramedCommandsAreNotAnswered) {
    line->write(kolt::sim::encode_main_command(0x37, 0x96, {}));
    EXPECT_TRUE(line->read_for(300).empty());
}

TEST_F(SimFingerFramed, CaptureWithoutAndWithAFinger) {
    line->write(kolt::sim::encode_main_command(0x37, 0x96, {}));
    const auto no = kolt::sim::decode_main(line->read_until(0x03, 1000));
    ASSERT_TRUE(no.has_value());
    EXPECT_EQ(no->a, 0x00);
    EXPECT_EQ(no->b, 0x01);
    sim->place_finger();
    line->write(kolt::sim::encode_main_command(0x37, 0x96, {}));
    const auto yes = kolt::sim::decode_main(line->read_until(0x03, 1000));
    ASSERT_TRUE(yes.has_value());
    EXPECT_EQ(yes->a, 0x00);
    EXPECT_EQ(yes->b, 0x00);
    EXPECT_EQ(yes->data, kolt::sim::default_finger_features());
}

TEST_F(SimFingerFramed, PacketsAreNotAnswered) {
    line->write(packet(0x01, {0x01}));
    EXPECT_TRUE(line->read_for(300).empty());
}

TEST(SimFingerProfiles, ShippedProfilesLoad) {
    const auto framed = kolt::sim::load_device_profile(kolt::test::sim_profile("finger_framed.json"));
    EXPECT_EQ(framed.finger.type, "framed");
    const auto module = kolt::sim::load_device_profile(kolt::test::sim_profile("finger_ef01.json"));
    EXPECT_EQ(module.finger.type, "ef01");
    EXPECT_EQ(module.finger.finger_after_ms, 2000);
}
