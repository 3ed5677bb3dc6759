// The simulated reader seen from the host side of the line, byte by byte.
#include <gtest/gtest.h>

#include <thread>

#include "common/sim_fixture.hpp"
#include "kolt_sim/frame.hpp"
#include "kolt_sim/simulator.hpp"

using namespace kolt::sim;
using kolt::test::RawLine;
using kolt::test::stx_etx;
using kolt::test::text_bytes;

namespace {

// A card that answers every APDU with AA BB 90 00.
class FakeCard : public Card {
public:
    std::vector<uint8_t> power_on() override {
        ++power_ons;
        return {0x3B, 0x02, 0x14, 0x50};
    }
    std::vector<uint8_t> exchange(std::span<const uint8_t> apdu) override {
        seen.emplace_back(apdu.begin(), apdu.end());
        return {0xAA, 0xBB, 0x90, 0x00};
    }
    std::vector<std::vector<uint8_t>> apdus() const override { return seen; }
    void clear_apdus() override { seen.clear(); }
    void power_off() override { ++power_offs; }

    int power_ons = 0, power_offs = 0;
    std::vector<std::vector<uint8_t>> seen;
};

class SimDevice : public kolt::test::RawSimTest {
protected:
    // Sends one main-frame command and returns the raw reply frame.
    Bytes ask(uint8_t cls, uint8_t code, const Bytes& data = {}) {
        line->write(encode_main_command(cls, code, data));
        return line->read_until(0x03, 1500);
    }
    MainFrame ask_decoded(uint8_t cls, uint8_t code, const Bytes& data = {}) {
        const Bytes wire = ask(cls, code, data);
        auto f = decode_main(wire);
        EXPECT_TRUE(f) << "undecodable reply of " << wire.size() << " bytes";
        return f.value_or(MainFrame{0xEE, 0xEE, {}});
    }
};

class SimDeviceLegacy : public SimDevice {
protected:
    Options options() const override {
        Options o;
        o.profile.family = "legacy86";
        return o;
    }
};

class SimDeviceSilent : public SimDevice {
protected:
    Options options() const override {
        Options o;
        o.profile.unknown_reply.reset();
        return o;
    }
};

}  // namespace

TEST_F(SimDevice, PortNameIsSlavePathBelowDev) {
    EXPECT_EQ("/dev/" + sim->port_name(), sim->slave_path());
    EXPECT_EQ(sim->port_name().rfind("pts/", 0), 0u);
}

TEST_F(SimDevice, BuzzerCommandAndReplyBytes) {
    line->write(stx_etx("0005311302010120"));
    EXPECT_EQ(line->read_until(0x03, 1500), stx_etx("0002000000"));
    EXPECT_EQ(sim->buzzer_count(), 1);
}

TEST_F(SimDevice, LedCommandRecordsState) {
    EXPECT_EQ(ask(0x31, 0x14, {0x01, 0x01, 0x02, 0x01, 0x01, 0x00}), stx_etx("0002000000"));
    ask(0x31, 0x14, {0x03, 0x00, 0x01, 0x01, 0x01, 0x00});
    const auto leds = sim->leds();
    ASSERT_EQ(leds.count(1), 1u);
    EXPECT_EQ(leds.at(1).color, 1);
    EXPECT_EQ(leds.at(1).mode, 2);
    ASSERT_EQ(leds.count(3), 1u);
    EXPECT_EQ(leds.at(3).color, 0);
    EXPECT_EQ(leds.at(3).mode, 1);
    ask(0x31, 0x14, {0x01, 0x00, 0x00, 0x01, 0x01, 0x00});
    EXPECT_EQ(sim->leds().at(1).mode, 0);
}

TEST_F(SimDevice, RfFieldOnAndOff) {
    EXPECT_FALSE(sim->rf_on());
    EXPECT_EQ(ask(0x38, 0x97), stx_etx("0002000000"));
    EXPECT_TRUE(sim->rf_on());
    EXPECT_EQ(ask(0x38, 0x98), stx_etx("0002000000"));
    EXPECT_FALSE(sim->rf_on());
}

TEST_F(SimDevice, VersionBySelector) {
    EXPECT_EQ(ask(0x31, 0x11, {0x02}), stx_etx("000:000048572=5245562=431="));
    const auto v4 = ask_decoded(0x31, 0x11, {0x04});
    EXPECT_EQ(v4.a, 0x00);
    EXPECT_EQ(v4.b, 0x00);
    EXPECT_EQ(v4.data, text_bytes("KL560T41-FW-20240115-V1.08"));
    const auto none = ask_decoded(0x31, 0x11, {0x09});
    EXPECT_EQ(none.a, 0x00);
    EXPECT_EQ(none.b, 0x01);
}

TEST_F(SimDevice, ModuleSerialNumberLittleEndianFields) {
    EXPECT_EQ(ask(0x35, 0x87, {0x00}), stx_etx("001200000100020003;3340187=6120079384>05<?"));
}

TEST_F(SimDevice, IdentityReadIsTheSpecialBase64Reply) {
    sim->set_id_answer(Bytes{0x01, 0x02, 0x03});
    EXPECT_EQ(ask(0x35, 0x82), stx_etx("0008AAABAgM=55"));
}

TEST_F(SimDevice, IdentityDefaultCardPutsTheTextAtFrameOffsetNine) {
    const Bytes wire = ask(0x35, 0x82);
    auto body = decode_special_reply(wire);
    ASSERT_TRUE(body);
    ASSERT_EQ(body->size(), 2u + 4u + 256u + 1024u);
    EXPECT_EQ((*body)[0], 0x00);
    EXPECT_EQ((*body)[1], 0x00);
    EXPECT_EQ((*body)[2], 0x01);  // text length 256
    EXPECT_EQ((*body)[3], 0x00);
    EXPECT_EQ((*body)[4], 0x04);  // photo length 1024
    EXPECT_EQ((*body)[5], 0x00);
    // The decoded frame is 02, two length bytes, then the body: body index 6
    // is frame offset 9, where the card text starts with the name (U+5F20).
    EXPECT_EQ((*body)[6], 0x20);
    EXPECT_EQ((*body)[7], 0x5F);
    // Sex code "1" at text offset 30.
    EXPECT_EQ((*body)[6 + 30], '1');
    EXPECT_EQ((*body)[6 + 31], 0x00);
}

TEST_F(SimDevice, IdentityModuleWithoutCard) {
    EXPECT_EQ(ask_decoded(0x35, 0x80, {0x00, 0x00}).a, 0x00);
    EXPECT_EQ(ask_decoded(0x35, 0x80, {0x00, 0x00}).b, 0x00);
    sim->set_id_answer(std::nullopt);
    const auto find = ask_decoded(0x35, 0x80, {0x00, 0x00});
    EXPECT_EQ(find.b, 0x80);
    const auto select = ask_decoded(0x35, 0x81);
    EXPECT_EQ(select.b, 0x80);
    auto body = decode_special_reply(ask(0x35, 0x82));
    ASSERT_TRUE(body);
    EXPECT_EQ(*body, (Bytes{0x00, 0x80}));
}

TEST_F(SimDevice, CardPowerOnWithoutCards) {
    const auto contact = ask_decoded(0x32, 0x22, {0x00, 0x00, 0x00});
    EXPECT_EQ(contact.a, 0x10);
    EXPECT_EQ(contact.b, 0x02);
    const auto rf = ask_decoded(0x32, 0x24, {0x00, 0x00});
    EXPECT_EQ(rf.a, 0x30);
    EXPECT_EQ(rf.b, 0x04);
}

TEST_F(SimDevice, ContactCardPowerApduAndPowerOff) {
    auto card = std::make_shared<FakeCard>();
    sim->set_contact_card(card);
    const auto early = ask_decoded(0x32, 0x26, {0x00, 0x00, 0xA4, 0x04, 0x00});
    EXPECT_EQ(early.a, 0x10);
    EXPECT_EQ(early.b, 0x04);

    const auto on = ask_decoded(0x32, 0x22, {0x00, 0x00, 0x01});
    EXPECT_EQ(on.a, 0x00);
    EXPECT_EQ(on.b, 0x00);
    EXPECT_EQ(on.data, (Bytes{0x3B, 0x02, 0x14, 0x50}));

    const Bytes apdu{0x00, 0xA4, 0x04, 0x00, 0x02, 0x3F, 0x00};
    Bytes data{0x00};
    data.insert(data.end(), apdu.begin(), apdu.end());
    const auto r = ask_decoded(0x32, 0x26, data);
    EXPECT_EQ(r.a, 0x00);
    EXPECT_EQ(r.b, 0x00);
    EXPECT_EQ(r.data, (Bytes{0xAA, 0xBB, 0x90, 0x00}));
    ASSERT_EQ(card->seen.size(), 1u);
    EXPECT_EQ(card->seen[0], apdu);

    const auto state = ask_decoded(0x32, 0x21, {0x11});
    EXPECT_EQ(state.data, (Bytes{0x02, 0x00}));

    const auto off = ask_decoded(0x32, 0x23, {0x01});
    EXPECT_EQ(off.b, 0x00);
    EXPECT_EQ(card->power_offs, 1);
    const auto after = ask_decoded(0x32, 0x26, data);
    EXPECT_EQ(after.a, 0x10);
    EXPECT_EQ(after.b, 0x04);
}

TEST_F(SimDevice, ContactlessCardOnSlotFF) {
    auto contact = std::make_shared<FakeCard>();
    auto rf = std::make_shared<FakeCard>();
    sim->set_contact_card(contact);
    sim->set_contactless_card(rf);
    const auto not_on = ask_decoded(0x32, 0x26, {0xFF, 0x00, 0xB2, 0x01, 0x0C, 0x00});
    EXPECT_EQ(not_on.a, 0x30);
    EXPECT_EQ(not_on.b, 0x04);
    EXPECT_EQ(ask_decoded(0x32, 0x24, {0x00, 0x00}).b, 0x00);
    const auto r = ask_decoded(0x32, 0x26, {0xFF, 0x00, 0xB2, 0x01, 0x0C, 0x00});
    EXPECT_EQ(r.data, (Bytes{0xAA, 0xBB, 0x90, 0x00}));
    EXPECT_EQ(rf->seen.size(), 1u);
    EXPECT_TRUE(contact->seen.empty());
    EXPECT_EQ(ask_decoded(0x32, 0x25, {0x00, 0x00}).b, 0x00);
    EXPECT_EQ(rf->power_offs, 1);
}

TEST_F(SimDevice, GreetingAndDisconnect) {
    line->write(std::string("(AAQAEA)"));
    EXPECT_EQ(line->read_until(')', 1500), text_bytes("(ABQAkABLTDU2MFQ0MQE=Tg)"));
    line->write(std::string("(AAQBEw)"));
    EXPECT_EQ(line->read_until(')', 1500), text_bytes("(AAgBkA==Dw)"));
    const auto t = sim->transcript();
    ASSERT_EQ(t.size(), 2u);
    EXPECT_EQ(t[0].framing, Framing::Bracket);
    EXPECT_EQ(t[0].code, 0x41);
    EXPECT_EQ(t[1].code, 0x42);
}

TEST_F(SimDevice, ProbeAnsweredAsBracketFamily) {
    line->write(std::string(kProbe));
    const Bytes reply = line->read_until(')', 1500);
    EXPECT_EQ(reply, text_bytes("(ABQAkABLTDU2MFQ0MQE=Tg)"));
    ASSERT_TRUE(sim->wait_for_commands(1, 1000));
    EXPECT_EQ(sim->transcript()[0].framing, Framing::Probe);
}

TEST_F(SimDeviceLegacy, ProbeAnsweredAs86Family) {
    line->write(std::string(kProbe));
    EXPECT_EQ(line->read(16, 1500), text_bytes("860005109000:516"));
    // The older family does not answer the bracket greeting.
    line->write(std::string("(AAQAEA)"));
    EXPECT_TRUE(line->read_for(300).empty());
    // ... but an 0x86 query on its own.
    line->write(std::string("860003101316"));
    EXPECT_EQ(line->read(16, 1500), text_bytes("860005109000:516"));
}

TEST_F(SimDevice, TranscriptAndRawBytes) {
    ask(0x31, 0x13, {0x02, 0x01, 0x01});
    ask(0x38, 0x97);
    const auto t = sim->transcript();
    ASSERT_EQ(t.size(), 2u);
    EXPECT_EQ(t[0].framing, Framing::Main);
    EXPECT_EQ(t[0].cls, 0x31);
    EXPECT_EQ(t[0].code, 0x13);
    EXPECT_EQ(t[0].data, (Bytes{0x02, 0x01, 0x01}));
    EXPECT_EQ(t[1].cls, 0x38);
    EXPECT_TRUE(t[1].data.empty());
    Bytes expected = stx_etx("0005311302010120");
    const Bytes second = encode_main_command(0x38, 0x97, {});
    expected.insert(expected.end(), second.begin(), second.end());
    EXPECT_EQ(sim->raw_received(), expected);
    EXPECT_EQ(sim->raw_sent().size(), 24u);
    sim->clear_transcript();
    sim->clear_raw();
    EXPECT_TRUE(sim->transcript().empty());
    EXPECT_TRUE(sim->raw_received().empty());
}

TEST_F(SimDevice, UnknownCommandGetsTheConfiguredReply) {
    const auto r = ask_decoded(0x3A, 0x01, {0x01});
    EXPECT_EQ(r.a, 0x00);
    EXPECT_EQ(r.b, 0x01);
    EXPECT_TRUE(r.data.empty());
}

TEST_F(SimDeviceSilent, UnknownCommandUnanswered) {
    line->write(encode_main_command(0x3A, 0x01, {}));
    EXPECT_TRUE(line->read_for(300).empty());
    EXPECT_EQ(sim->transcript().size(), 1u);
}

TEST_F(SimDevice, StatusOverrideKeepsData) {
    sim->set_status(0x31, 0x11, 0x10, 0x05);
    const auto r = ask_decoded(0x31, 0x11, {0x02});
    EXPECT_EQ(r.a, 0x10);
    EXPECT_EQ(r.b, 0x05);
    EXPECT_EQ(r.data, text_bytes("HW-REV-C"));
    sim->clear_status(0x31, 0x11);
    EXPECT_EQ(ask_decoded(0x31, 0x11, {0x02}).a, 0x00);
}

TEST_F(SimDevice, ScriptedReplyAndHandler) {
    sim->set_reply(0x36, 0x91, Reply{0x00, 0x00, {0x00, 0x00, 0x00, 0x00, 0x05}});
    EXPECT_EQ(ask_decoded(0x36, 0x91, {0x05}).data, (Bytes{0x00, 0x00, 0x00, 0x00, 0x05}));
    sim->set_handler(0x37, 0x93, [](const Command& c) -> std::optional<Reply> {
        if (c.data.empty()) return std::nullopt;
        return Reply{0x00, 0x00, {static_cast<uint8_t>(c.data[0] + 1)}};
    });
    EXPECT_EQ(ask_decoded(0x37, 0x93, {0x41}).data, Bytes{0x42});
    line->write(encode_main_command(0x37, 0x93, {}));
    EXPECT_TRUE(line->read_for(300).empty());
    sim->clear_reply(0x36, 0x91);
    sim->swipe(StripeCard{});  // the built-in stripe reader answers again: a blank card
    EXPECT_EQ(ask_decoded(0x36, 0x91, {0x05}).data, (Bytes{0x00, 0x01, 0x01, 0x01, 0, 0, 0, 0, 0}));
}

TEST_F(SimDevice, GarbageBetweenFramesIsSkipped) {
    Bytes w = text_bytes("xyz\xff");
    const Bytes f = encode_main_command(0x38, 0x97, {});
    w.insert(w.end(), f.begin(), f.end());
    w.push_back(0x7E);
    line->write(w);
    EXPECT_EQ(line->read_until(0x03, 1500), stx_etx("0002000000"));
    EXPECT_EQ(sim->transcript().size(), 1u);
}

TEST_F(SimDevice, DamagedFrameIsReportedAndTheNextAnswered) {
    line->write(stx_etx("0005311302010121"));  // wrong check
    EXPECT_EQ(ask(0x38, 0x97), stx_etx("0002000000"));
    const auto errors = sim->frame_errors();
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_NE(errors[0].find("check"), std::string::npos);
    ASSERT_EQ(sim->transcript().size(), 1u);
    EXPECT_EQ(sim->transcript()[0].cls, 0x38);
}

TEST_F(SimDevice, FrameSplitAcrossWrites) {
    const Bytes f = encode_main_command(0x31, 0x13, Bytes{0x02, 0x01, 0x01});
    line->write(Bytes(f.begin(), f.begin() + 7));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    line->write(Bytes(f.begin() + 7, f.end()));
    EXPECT_EQ(line->read_until(0x03, 1500), stx_etx("0002000000"));
}

TEST_F(SimDevice, RawRuleAnswersBytesOutsideFrames) {
    const Bytes trigger{0x1B, 'O', 0x1B, ']'};
    const Bytes answer = text_bytes("\x1bs;6225880123456789=2512?\x1c");
    sim->add_raw_rule(trigger, answer);
    line->write(trigger);
    EXPECT_EQ(line->read(answer.size(), 1500), answer);
    ASSERT_TRUE(sim->wait_for_commands(1, 500));
    EXPECT_EQ(sim->transcript()[0].framing, Framing::Raw);
    EXPECT_EQ(sim->transcript()[0].data, trigger);
}

TEST_F(SimDevice, WriteRawReachesTheHost) {
    const Bytes bytes{0xEF, 0x01, 0xFF, 0xFF};
    sim->write_raw(bytes);
    EXPECT_EQ(line->read(4, 1500), bytes);
}

TEST_F(SimDevice, WaitForCommandsTimesOut) {
    EXPECT_FALSE(sim->wait_for_commands(1, 50));
    line->write(encode_main_command(0x38, 0x97, {}));
    EXPECT_TRUE(sim->wait_for_commands(1, 1500));
}

TEST_F(SimDevice, LineSurvivesHostReopening) {
    ask(0x38, 0x97);
    line.reset();
    line = std::make_unique<RawLine>(sim->slave_path());
    EXPECT_EQ(ask(0x38, 0x98), stx_etx("0002000000"));
}

TEST_F(SimDevice, StopAndStartAgain) {
    sim->stop();
    EXPECT_FALSE(sim->running());
    sim->start();
    EXPECT_EQ(ask(0x38, 0x97), stx_etx("0002000000"));
}

TEST(SimFixture, ScopedSimulatorSetsPortName) {
    kolt::test::ScopedSimulator s;
    EXPECT_TRUE(s->running());
    RawLine l(s->slave_path());
    l.write(encode_main_command(0x38, 0x97, {}));
    EXPECT_EQ(decode_main(l.read_until(0x03, 1500)).has_value(), true);
}
