// Fault injection and pacing of the simulated reader.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "common/sim_fixture.hpp"
#include "common/test_util.hpp"
#include "kolt_sim/frame.hpp"
#include "kolt_sim/simulator.hpp"

using namespace kolt::sim;
using kolt::test::RawLine;
using kolt::test::stx_etx;
using kolt::test::text_bytes;
using Clock = std::chrono::steady_clock;

namespace {

const Bytes kOk = stx_etx("0002000000");
const Bytes kRfOn = encode_main_command(0x38, 0x97, {});

class SimFault : public kolt::test::RawSimTest {
protected:
    Bytes rf_on() {
        line->write(kRfOn);
        return line->read_until(0x03, 1500);
    }
};

class SimPaced : public SimFault {
protected:
    Options options() const override {
        Options o;
        o.pace = true;
        return o;
    }
};

}  // namespace

TEST_F(SimFault, NoReplyForTheNextCommandOnly) {
    sim->inject(Fault{Fault::NoReply});
    line->write(kRfOn);
    EXPECT_TRUE(line->read_for(300).empty());
    EXPECT_EQ(sim->transcript().size(), 1u);  // received, just not answered
    EXPECT_EQ(rf_on(), kOk);
}

TEST_F(SimFault, BadCheck) {
    sim->inject(Fault{Fault::BadCheck});
    // Check 00 XOR 01: the check pair reads "01".
    EXPECT_EQ(rf_on(), stx_etx("0002000001"));
    EXPECT_EQ(rf_on(), kOk);
}

TEST_F(SimFault, BadCheckOnTheSpecialReply) {
    sim->set_id_answer(Bytes{0x01, 0x02, 0x03});
    sim->inject_for(0x35, 0x82, Fault{Fault::BadCheck});
    line->write(encode_main_command(0x35, 0x82, {}));
    const Bytes wire = line->read_until(0x03, 1500);
    EXPECT_EQ(wire, stx_etx("0008AAABAgM=54"));
    EXPECT_FALSE(decode_special_reply(wire));
}

TEST_F(SimFault, Truncate) {
    sim->inject(Fault{Fault::Truncate});
    line->write(kRfOn);
    EXPECT_EQ(line->read_for(300), Bytes(kOk.begin(), kOk.begin() + 6));
    EXPECT_EQ(rf_on(), kOk);
}

TEST_F(SimFault, GarbageBefore) {
    sim->inject(Fault{Fault::GarbageBefore});
    const Bytes got = rf_on();
    ASSERT_GT(got.size(), kOk.size());
    EXPECT_EQ(Bytes(got.end() - static_cast<long>(kOk.size()), got.end()), kOk);
    for (size_t i = 0; i + kOk.size() < got.size(); ++i) {
        EXPECT_NE(got[i], 0x02);
        EXPECT_NE(got[i], '(');
        EXPECT_NE(got[i], '8');
    }
}

TEST_F(SimFault, LengthTooLong) {
    sim->inject(Fault{Fault::LengthTooLong});
    // Length 2 + 4 = 6; the rest (and the check, which excludes the length) unchanged.
    EXPECT_EQ(rf_on(), stx_etx("0006000000"));
}

TEST_F(SimFault, LengthTooLongOnBracketReply) {
    sim->inject_for(0x00, 0x41, Fault{Fault::LengthTooLong});
    line->write(std::string("(AAQAEA)"));
    const Bytes got = line->read_until(')', 1500);
    ASSERT_GE(got.size(), 4u);
    // 20 + 4 = 24, base64 of 00 18 is "ABg=".
    EXPECT_EQ(std::string(got.begin(), got.begin() + 4), "(ABg");
    EXPECT_FALSE(decode_bracket(got));
}

TEST_F(SimFault, Delay) {
    sim->inject(Fault{Fault::Delay, 400});
    line->write(kRfOn);
    EXPECT_TRUE(line->read_for(150).empty());
    EXPECT_EQ(line->read_until(0x03, 2000), kOk);
}

TEST_F(SimFault, CloseMidFrameThenTheLineComesBack) {
    sim->inject(Fault{Fault::CloseMidFrame, 800});
    line->write(kRfOn);
    EXPECT_EQ(line->read_for(150), Bytes(kOk.begin(), kOk.begin() + 6));
    // While the line is dead, commands are lost.
    line->write(kRfOn);
    EXPECT_TRUE(line->read_for(100).empty());
    // Until it comes back at the end of the 800 ms.
    EXPECT_TRUE(kolt::test::wait_until([&] {
        line->write(kRfOn);
        return line->read_until(0x03, 100) == kOk;
    }));
    EXPECT_EQ(rf_on(), kOk);
    EXPECT_TRUE(sim->running());
}

TEST_F(SimFault, InjectForOneCommandLeavesOthersAlone) {
    sim->inject_for(0x31, 0x13, Fault{Fault::NoReply}, 2);
    EXPECT_EQ(rf_on(), kOk);
    line->write(encode_main_command(0x31, 0x13, Bytes{0x02, 0x01, 0x01}));
    EXPECT_TRUE(line->read_for(200).empty());
    EXPECT_EQ(rf_on(), kOk);
    line->write(encode_main_command(0x31, 0x13, Bytes{0x02, 0x01, 0x01}));
    EXPECT_TRUE(line->read_for(200).empty());
    line->write(encode_main_command(0x31, 0x13, Bytes{0x02, 0x01, 0x01}));
    EXPECT_EQ(line->read_until(0x03, 1500), kOk);
}

TEST_F(SimFault, InjectWhenOnlyForTheCommandsItAccepts) {
    // Buzzer commands whose first data byte is 05.
    sim->inject_when(0x31, 0x13, [](const Command& c) { return !c.data.empty() && c.data[0] == 0x05; },
                     Fault{Fault::BadCheck}, 2);
    auto buzz = [&](uint8_t first) {
        line->write(encode_main_command(0x31, 0x13, Bytes{first, 0x01, 0x01}));
        return line->read_until(0x03, 1500);
    };
    const Bytes bad = stx_etx("0002000001");
    EXPECT_EQ(rf_on(), kOk);    // another command
    EXPECT_EQ(buzz(0x02), kOk);  // the same command, not accepted
    EXPECT_EQ(buzz(0x05), bad);
    EXPECT_EQ(buzz(0x02), kOk);
    EXPECT_EQ(buzz(0x05), bad);
    EXPECT_EQ(buzz(0x05), kOk);  // both used up
    EXPECT_EQ(sim->buzzer_count(), 5);  // damaged or not, every one was carried out
}

TEST_F(SimFault, CountAndForever) {
    sim->inject(Fault{Fault::BadCheck}, 2);
    EXPECT_NE(rf_on(), kOk);
    EXPECT_NE(rf_on(), kOk);
    EXPECT_EQ(rf_on(), kOk);
    sim->inject(Fault{Fault::BadCheck}, -1);
    for (int i = 0; i < 3; ++i) EXPECT_NE(rf_on(), kOk);
    sim->clear_faults();
    EXPECT_EQ(rf_on(), kOk);
}

TEST_F(SimFault, BadCheckOnGreeting) {
    sim->inject(Fault{Fault::BadCheck});
    line->write(std::string("(AAQAEA)"));
    const Bytes got = line->read_until(')', 1500);
    EXPECT_EQ(got.size(), 24u);
    EXPECT_FALSE(decode_bracket(got));
}

TEST_F(SimFault, FaultOnProbeReply) {
    sim->inject_for(0x00, 0x00, Fault{Fault::NoReply});
    line->write(std::string(kProbe));
    EXPECT_TRUE(line->read_for(300).empty());
    line->write(std::string(kProbe));
    EXPECT_EQ(line->read_until(')', 1500), text_bytes("(ABQAkABLTDU2MFQ0MQE=Tg)"));
}

TEST_F(SimPaced, RepliesAtNineThousandSixHundredBaud) {
    sim->set_id_answer(Bytes(60, 0x41));  // 62-byte body, 84 base64 characters
    const auto start = Clock::now();
    line->write(encode_main_command(0x35, 0x82, {}));
    const Bytes got = line->read_until(0x03, 2000);
    const auto took = Clock::now() - start;
    ASSERT_EQ(got.size(), 92u);
    EXPECT_TRUE(decode_special_reply(got));
    // 92 bytes of 10 bits each take at least 95 ms on the line.
    EXPECT_GE(took, std::chrono::milliseconds(90));
}

namespace {

// What a fixed exchange leaves in a simulator's records, and whether every
// reply found its whole command already received.
struct LineRecords {
    Bytes received, sent;
    std::vector<std::string> commands;
    std::vector<std::string> frame_errors;
    std::vector<Bytes> replies;
    bool received_before_answered = true;
};

LineRecords run_exchange(bool pace) {
    Options o;
    o.pace = pace;
    Simulator s(o);
    s.start();
    RawLine l(s.slave_path());
    LineRecords r;
    size_t written = 0;
    auto put = [&](const Bytes& b) {
        l.write(b);
        written += b.size();
    };
    auto answered = [&](Bytes reply) {
        // The reply is in: every byte written before it must have been
        // received by then.
        r.received_before_answered = r.received_before_answered && s.raw_received().size() == written;
        r.replies.push_back(std::move(reply));
    };

    // A command in one write.
    put(kRfOn);
    answered(l.read_until(0x03, 3000));
    // A command in three writes.
    const Bytes version = encode_main_command(0x31, 0x11, Bytes{0x04});
    put(Bytes(version.begin(), version.begin() + 3));
    put(Bytes(version.begin() + 3, version.begin() + 9));
    put(Bytes(version.begin() + 9, version.end()));
    answered(l.read_until(0x03, 3000));
    // Two commands in one write: two replies, in order.
    Bytes two = kRfOn;
    const Bytes rf_off = encode_main_command(0x38, 0x98, {});
    two.insert(two.end(), rf_off.begin(), rf_off.end());
    put(two);
    answered(l.read(2 * kOk.size(), 3000));
    // The bracket greeting and the probe.
    put(encode_bracket(0x41, {}));
    answered(l.read_until(')', 3000));
    put(text_bytes(std::string(kProbe)));
    answered(l.read_until(')', 3000));

    r.received = s.raw_received();
    r.sent = s.raw_sent();
    for (const Command& c : s.transcript()) {
        char head[32];
        std::snprintf(head, sizeof head, "%s %02X %02X ", framing_name(c.framing), c.cls, c.code);
        r.commands.push_back(head + kolt::test::to_hex(c.data));
    }
    r.frame_errors = s.frame_errors();
    s.stop();
    return r;
}

}  // namespace

// The paced line changes when bytes arrive, never which bytes, which
// commands or in what order the replies come.
TEST(SimPacedLine, SameBytesCommandsAndRepliesAsUnpaced) {
    const LineRecords fast = run_exchange(false);
    const LineRecords paced = run_exchange(true);
    EXPECT_TRUE(fast.received_before_answered);
    EXPECT_TRUE(paced.received_before_answered);
    EXPECT_TRUE(paced.frame_errors.empty());
    EXPECT_EQ(paced.received, fast.received);
    EXPECT_EQ(paced.sent, fast.sent);
    EXPECT_EQ(paced.commands, fast.commands);
    EXPECT_EQ(paced.replies, fast.replies);
    ASSERT_EQ(paced.commands.size(), 6u);
    Bytes two_ok = kOk;
    two_ok.insert(two_ok.end(), kOk.begin(), kOk.end());
    EXPECT_EQ(paced.replies[2], two_ok);
}

// A command is answered only after all its bytes have crossed the line:
// the record of received bytes holds the whole command by the time any of
// the reply is there.
TEST_F(SimPaced, ReceivedInFullBeforeTheReplyStarts) {
    const Bytes cmd = encode_main_command(0x31, 0x11, Bytes{0x04});
    line->write(cmd);
    const Bytes first = line->read(1, 3000);
    ASSERT_EQ(first, Bytes{0x02});
    EXPECT_EQ(sim->raw_received(), cmd);
    EXPECT_EQ(sim->transcript().size(), 1u);
}

TEST_F(SimFault, GarbageInside) {
    sim->inject(Fault{Fault::GarbageInside});
    line->write(kRfOn);
    const Bytes got = line->read_for(300);
    ASSERT_EQ(got.size(), kOk.size() + 6);
    const size_t half = kOk.size() / 2;
    EXPECT_EQ(Bytes(got.begin(), got.begin() + static_cast<long>(half)), Bytes(kOk.begin(), kOk.begin() + static_cast<long>(half)));
    EXPECT_EQ(Bytes(got.begin() + static_cast<long>(half), got.begin() + static_cast<long>(half) + 6),
              (Bytes{0x00, 0x55, 0xAA, 'Z', 0x7F, 0xFF}));
    EXPECT_EQ(Bytes(got.end() - static_cast<long>(kOk.size() - half), got.end()),
              Bytes(kOk.begin() + static_cast<long>(half), kOk.end()));
    EXPECT_EQ(rf_on(), kOk);
}

TEST_F(SimFault, TrickleSpacesTheBytes) {
    sim->inject(Fault{Fault::Trickle, 60});
    const auto start = Clock::now();
    line->write(kRfOn);
    const Bytes got = line->read(kOk.size(), 3000);
    const auto took = Clock::now() - start;
    EXPECT_EQ(got, kOk);
    // 12 bytes, 11 gaps of 60 ms.
    EXPECT_GE(took, std::chrono::milliseconds(600));
}

TEST_F(SimFault, TrickleGivesUpWhenTheHostSendsAgain) {
    sim->inject(Fault{Fault::Trickle, 100});
    line->write(kRfOn);
    const Bytes first = line->read(2, 1000);
    EXPECT_EQ(first, Bytes(kOk.begin(), kOk.begin() + 2));
    // The host goes on with the next command: the rest is dropped, the new
    // command answered whole.
    line->write(kRfOn);
    const Bytes rest = line->read_until(0x03, 2000);
    ASSERT_GE(rest.size(), kOk.size());
    EXPECT_EQ(Bytes(rest.end() - static_cast<long>(kOk.size()), rest.end()), kOk);
    EXPECT_LT(rest.size(), 2 * kOk.size() - 2);
}

TEST_F(SimFault, SplitBytesComeOneByOne) {
    sim->set_id_answer(Bytes(30, 0x41));
    sim->inject_for(0x35, 0x82, Fault{Fault::SplitBytes, 3});
    line->write(encode_main_command(0x35, 0x82, {}));
    // Each read finds a byte or two, never the whole reply at once.
    Bytes got;
    size_t reads = 0;
    const auto end = Clock::now() + std::chrono::seconds(3);
    while (Clock::now() < end && (got.empty() || got.back() != 0x03)) {
        const Bytes part = line->read(1, 100);
        if (part.empty()) continue;
        got.insert(got.end(), part.begin(), part.end());
        ++reads;
    }
    EXPECT_TRUE(decode_special_reply(got));
    EXPECT_GT(reads, got.size() / 3);
}

TEST_F(SimFault, OtherReplyIsTheVersionAnswer) {
    sim->inject(Fault{Fault::OtherReply});
    const Bytes got = rf_on();
    const auto frame = decode_main(got);
    ASSERT_TRUE(frame);
    const std::string version = "KL560T41-FW-20240115-V1.08";
    EXPECT_EQ(std::string(frame->data.begin(), frame->data.end()), version);
    EXPECT_EQ(rf_on(), kOk);
}

TEST_F(SimFault, OtherReplySwapsGreetingAndDisconnect) {
    sim->inject(Fault{Fault::OtherReply});
    line->write(std::string("(AAQAEA)"));
    const auto got = decode_bracket(line->read_until(')', 1500));
    ASSERT_TRUE(got);
    EXPECT_EQ(got->cmd, 0x42);
}

TEST_F(SimFault, LengthHugeOnEveryFraming) {
    sim->inject(Fault{Fault::LengthHuge});
    EXPECT_EQ(rf_on(), stx_etx("????000000"));
    sim->inject(Fault{Fault::LengthHuge});
    line->write(std::string("(AAQAEA)"));
    const Bytes got = line->read_until(')', 1500);
    ASSERT_GE(got.size(), 4u);
    EXPECT_EQ(std::string(got.begin(), got.begin() + 4), "(//8");
    sim->set_id_answer(Bytes{0x01, 0x02, 0x03});
    sim->inject_for(0x35, 0x82, Fault{Fault::LengthHuge});
    line->write(encode_main_command(0x35, 0x82, {}));
    const Bytes special = line->read_until(0x03, 1500);
    ASSERT_GE(special.size(), 5u);
    EXPECT_EQ(std::string(special.begin() + 1, special.begin() + 5), "????");
}
