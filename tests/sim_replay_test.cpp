// Field sessions in process: the session file (parse, format, exchanges),
// the proxy between the library and a simulated reader, the replayer in
// the reader's place, and the recorded sessions of sim/sessions/ played
// back through the library.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "common/session_flows.hpp"
#include "common/sim_fixture.hpp"
#include "common/test_util.hpp"
#include "kolt/kolt.h"
#include "kolt_sim/frame.hpp"
#include "kolt_sim/session.hpp"

namespace {

using kolt::sim::Chunk;
using kolt::sim::Direction;
using kolt::sim::Recording;
using kolt::sim::RecordingError;
using kolt::sim::Replayer;
using kolt::sim::ReplayOptions;
using kolt::test::SessionFlow;

using Clock = std::chrono::steady_clock;

// A session as a person would write it: every kind of line there is.
const std::string kCanonical =
    "# kolt-sim session 1\n"
    "# device: /dev/ttyUSB0\n"
    "# date: 2025-03-01T10:12:33+0800\n"
    "# counter 7, the card that fails\n"
    "+0.000 > 02 30 33 33 31 31 31 30 34 32 34 03  # version, selector 4\n"
    "+5.112 < 02 30 3A 30 30 30 30 03\n"
    "+5.300 < 30 31 03\n"
    "#\n"
    "# the date varies:\n"
    "+12.250 > 02 31 ?? ?? 03\n"
    "+20.000 > 44\n"
    "+31.125 < 06\n"
    "# the end\n";

// What the replayer reports, collected.
struct Collected {
    std::mutex m;
    std::vector<std::string> lines;
    kolt::sim::ReportSink sink() {
        return [this](const std::string& l) {
            std::lock_guard g(m);
            lines.push_back(l);
        };
    }
    std::string text() {
        std::lock_guard g(m);
        std::string s;
        for (const auto& l : lines) s += l + "\n";
        return s;
    }
};

ReplayOptions quick(Collected& c) {
    ReplayOptions o;
    o.speed = 0;
    o.report = c.sink();
    return o;
}

std::string at_line(size_t line) { return "line " + std::to_string(line) + ": "; }

}  // namespace

// ---------------------------------------------------------------------------
// The file format.

TEST(SessionFile, ParsesEveryKindOfLine) {
    const Recording r = Recording::parse(kCanonical);
    EXPECT_EQ(r.device, "/dev/ttyUSB0");
    EXPECT_EQ(r.date, "2025-03-01T10:12:33+0800");
    ASSERT_EQ(r.chunks.size(), 6u);
    const Chunk& first = r.chunks[0];
    EXPECT_EQ(first.dir, Direction::ToDevice);
    EXPECT_DOUBLE_EQ(first.time_ms, 0.0);
    EXPECT_EQ(first.bytes, kolt::test::from_hex("023033333131313034323403"));
    EXPECT_EQ(first.comments, std::vector<std::string>{" counter 7, the card that fails"});
    EXPECT_EQ(first.note, " version, selector 4");
    EXPECT_EQ(first.line, 5u);
    EXPECT_EQ(r.chunks[1].dir, Direction::FromDevice);
    EXPECT_DOUBLE_EQ(r.chunks[1].time_ms, 5.112);
    const Chunk& wild = r.chunks[3];
    EXPECT_EQ(wild.comments, (std::vector<std::string>{"", " the date varies:"}));
    ASSERT_EQ(wild.bytes.size(), 5u);
    EXPECT_EQ(wild.any, (std::vector<bool>{false, false, true, true, false}));
    EXPECT_TRUE(wild.wildcard(2));
    EXPECT_FALSE(wild.wildcard(1));
    EXPECT_FALSE(wild.wildcard(4));
    EXPECT_TRUE(r.chunks[4].any.empty());
    EXPECT_EQ(r.trailing_comments, std::vector<std::string>{" the end"});
}

TEST(SessionFile, FormatGivesTheSameTextBack) {
    EXPECT_EQ(Recording::parse(kCanonical).format(), kCanonical);
}

TEST(SessionFile, EditedTextComesBackInItsPlainForm) {
    // Blank lines, CR LF, lower case, runs of hex, blanks around: all read.
    const std::string edited =
        "# kolt-sim session 1\r\n"
        "\r\n"
        "  +1 >  0233 31??03 \r\n"
        "+2.5\t<\t06\r\n";
    const Recording r = Recording::parse(edited);
    EXPECT_EQ(r.format(),
              "# kolt-sim session 1\n"
              "+1.000 > 02 33 31 ?? 03\n"
              "+2.500 < 06\n");
    // And the plain form is read back alike.
    EXPECT_EQ(Recording::parse(r.format()).format(), r.format());
}

TEST(SessionFile, SaveAndLoad) {
    kolt::test::TempDir dir;
    Recording r = Recording::parse(kCanonical);
    r.chunks[2].bytes.push_back(0xAB);
    const std::string path = dir.str() + "/saved.session";
    r.save(path);
    EXPECT_EQ(Recording::load(path).format(), r.format());
    EXPECT_EQ(kolt::test::read_file(path), r.format());
}

TEST(SessionFile, BadFilesAreRefusedNamingTheLine) {
    struct Bad {
        std::string text;
        size_t line;
        std::string message;
    };
    const std::string head = "# kolt-sim session 1\n";
    const std::vector<Bad> bad = {
        {"", 1, "not a kolt-sim session"},
        {"+0.000 > 02\n", 1, "not a kolt-sim session"},
        {"# kolt-sim session 2\n", 1, "session format '2' is not known"},
        {head + "# fine\n0.000 > 02\n", 3, "begins with its time"},
        {head + "+x > 02\n", 2, "begins with its time"},
        {head + "+1.2.3 > 02\n", 2, "begins with its time"},
        {head + "+1.000 = 02\n", 2, "expected > (application to device) or <"},
        {head + "+1.000\n", 2, "expected > (application to device) or <"},
        {head + "+1.000 > 02 G1\n", 2, "'G1' is not a byte"},
        {head + "+1.000 > 023\n", 2, "'023' is not a byte"},
        {head + "+1.000 > 02 3\n", 2, "'3' is not a byte"},
        {head + "+1.000 > 02\n+2.000 < 06 ??\n", 3, "?? (any byte) is for application lines (>) only"},
        {head + "+1.000 >\n", 2, "no bytes"},
        {head + "+1.000 > # nothing\n", 2, "no bytes"},
        {head + "+5.000 > 02\n\n+4.999 < 06\n", 4, "the time goes back (+4.999 after +5.000)"},
    };
    for (const Bad& b : bad) {
        try {
            Recording::parse(b.text);
            ADD_FAILURE() << "accepted: " << b.text;
        } catch (const RecordingError& e) {
            EXPECT_EQ(e.line(), b.line) << b.text;
            const std::string what = e.what();
            EXPECT_EQ(what.rfind(at_line(b.line), 0), 0u) << what;
            EXPECT_NE(what.find(b.message), std::string::npos) << what;
        }
    }
}

TEST(SessionFile, LoadNamesTheFileAndTheLine) {
    kolt::test::TempDir dir;
    const std::string path = dir.write("bad.session", "# kolt-sim session 1\n+0.000 > 02\n+1.000 < ZZ\n");
    try {
        Recording::load(path);
        ADD_FAILURE() << "accepted";
    } catch (const RecordingError& e) {
        EXPECT_EQ(e.line(), 3u);
        EXPECT_EQ(std::string(e.what()), path + ": line 3: 'ZZ' is not a byte (two hex digits, or ?? on application lines)");
        EXPECT_EQ(e.message(), "'ZZ' is not a byte (two hex digits, or ?? on application lines)");
    }
    try {
        Recording::load(dir.str() + "/missing.session");
        ADD_FAILURE() << "accepted";
    } catch (const RecordingError& e) {
        EXPECT_EQ(e.line(), 0u);
        EXPECT_NE(std::string(e.what()).find("missing.session: cannot be read"), std::string::npos) << e.what();
    }
}

TEST(SessionFile, ChunksGroupIntoExchanges) {
    const auto ex = Recording::parse(kCanonical).exchanges();
    ASSERT_EQ(ex.size(), 2u);
    EXPECT_EQ(ex[0].number, 1u);
    EXPECT_EQ(ex[0].line, 5u);
    EXPECT_EQ(ex[0].app.size(), 12u);
    EXPECT_EQ(ex[0].app_any, std::vector<bool>(12, false));
    ASSERT_EQ(ex[0].reply.size(), 2u);
    EXPECT_NEAR(ex[0].reply[0].delay_ms, 5.112, 1e-9);
    EXPECT_NEAR(ex[0].reply[1].delay_ms, 5.300, 1e-9);
    EXPECT_EQ(ex[0].reply[1].bytes, (std::vector<uint8_t>{0x30, 0x31, 0x03}));
    // Two application chunks in a row make one exchange; the delay counts
    // from the last of them.
    EXPECT_EQ(ex[1].number, 2u);
    EXPECT_EQ(ex[1].line, 10u);
    EXPECT_EQ(ex[1].app, (std::vector<uint8_t>{0x02, 0x31, 0x00, 0x00, 0x03, 0x44}));
    EXPECT_EQ(ex[1].app_any, (std::vector<bool>{false, false, true, true, false, false}));
    ASSERT_EQ(ex[1].reply.size(), 1u);
    EXPECT_NEAR(ex[1].reply[0].delay_ms, 11.125, 1e-9);
}

TEST(SessionFile, DeviceBytesFirstAndApplicationBytesLast) {
    const auto ex = Recording::parse("# kolt-sim session 1\n+3.000 < 90\n+4.000 > 41\n+5.000 < 06\n+9.000 > 42\n")
                        .exchanges();
    ASSERT_EQ(ex.size(), 3u);
    EXPECT_TRUE(ex[0].app.empty());
    EXPECT_NEAR(ex[0].reply.at(0).delay_ms, 3.0, 1e-9);
    EXPECT_EQ(ex[1].app, std::vector<uint8_t>{0x41});
    EXPECT_EQ(ex[2].app, std::vector<uint8_t>{0x42});
    EXPECT_TRUE(ex[2].reply.empty());
}

// ---------------------------------------------------------------------------
// The replayer on its own, byte by byte.

TEST(Replay, AnswersEachExchangeWhenItsBytesHaveCome) {
    Collected c;
    Replayer rep(Recording::parse(kCanonical), quick(c));
    rep.start();
    kolt::test::RawLine line(rep.slave_path());
    const auto r = Recording::parse(kCanonical);
    // The first exchange in two pieces: nothing comes before the last byte.
    const auto& cmd = r.chunks[0].bytes;
    line.write(std::vector<uint8_t>(cmd.begin(), cmd.begin() + 5));
    EXPECT_TRUE(line.read_for(50).empty());
    line.write(std::vector<uint8_t>(cmd.begin() + 5, cmd.end()));
    EXPECT_EQ(kolt::test::to_hex(line.read(11, 1000)), "02303A3030303003303103");
    // The wildcards take any bytes.
    line.write(kolt::test::from_hex("02 31 99 98 03 44"));
    EXPECT_EQ(line.read(1, 1000), std::vector<uint8_t>{0x06});
    EXPECT_TRUE(rep.wait_finished(0, 1000));
    rep.stop();
    EXPECT_EQ(rep.played(), 2u);
    EXPECT_TRUE(rep.clean());
    EXPECT_EQ(rep.summary(), "replay: 2 exchanges, 0 differences, 0 unexpected bytes");
    EXPECT_EQ(c.text(), "");
}

TEST(Replay, DifferenceIsReportedAndTheRecordedReplySentAnyway) {
    Collected c;
    Replayer rep(Recording::parse(kCanonical), quick(c));
    rep.start();
    kolt::test::RawLine line(rep.slave_path());
    line.write(kolt::test::from_hex("02 30 33 33 31 31 31 30 35 32 34 03"));  // selector 5
    EXPECT_EQ(line.read(11, 1000).size(), 11u);
    line.write(kolt::test::from_hex("02 31 00 00 04 44"));  // 04 for 03
    EXPECT_EQ(line.read(1, 1000), std::vector<uint8_t>{0x06});
    rep.stop();
    const auto d = rep.differences();
    ASSERT_EQ(d.size(), 2u);
    EXPECT_EQ(d[0].exchange, 1u);
    EXPECT_EQ(d[0].line, 5u);
    EXPECT_EQ(d[0].offset, 8u);
    EXPECT_EQ(d[1].exchange, 2u);
    EXPECT_EQ(d[1].offset, 4u);
    EXPECT_FALSE(rep.clean());
    EXPECT_EQ(rep.summary(), "replay: 2 exchanges, 2 differences, 0 unexpected bytes");
    const std::string text = c.text();
    EXPECT_NE(text.find("replay: exchange 1 (line 5): difference at offset 8\n"
                        "replay:   recorded: 02 30 33 33 31 31 31 30 34 32 34 03\n"
                        "replay:   received: 02 30 33 33 31 31 31 30 35 32 34 03\n"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("replay: exchange 2 (line 10): difference at offset 4\n"
                        "replay:   recorded: 02 31 ?? ?? 03 44\n"
                        "replay:   received: 02 31 00 00 04 44\n"),
              std::string::npos)
        << text;
}

TEST(Replay, BytesAfterTheLastExchangeAreUnexpected) {
    Collected c;
    Replayer rep(Recording::parse("# kolt-sim session 1\n+0.000 > 41\n+1.000 < 06\n"), quick(c));
    rep.start();
    kolt::test::RawLine line(rep.slave_path());
    line.write(kolt::test::from_hex("41 42 43"));  // one expected, two more
    EXPECT_EQ(line.read(1, 1000), std::vector<uint8_t>{0x06});
    line.write(kolt::test::from_hex("44"));
    EXPECT_TRUE(kolt::test::wait_until([&] { return rep.unexpected_bytes() == 3; }));
    EXPECT_TRUE(line.read_for(50).empty());  // nothing answers them
    rep.stop();
    EXPECT_EQ(rep.summary(), "replay: 1 exchanges, 0 differences, 3 unexpected bytes");
    EXPECT_FALSE(rep.clean());
    EXPECT_NE(c.text().find("replay: 2 unexpected bytes after the last exchange: 42 43\n"), std::string::npos) << c.text();
    EXPECT_NE(c.text().find("replay: 1 unexpected bytes after the last exchange: 44\n"), std::string::npos) << c.text();
}

TEST(Replay, AnExchangeLeftHalfWayCountsAsADifference) {
    Collected c;
    Replayer rep(Recording::parse(kCanonical), quick(c));
    rep.start();
    kolt::test::RawLine line(rep.slave_path());
    line.write(kolt::test::from_hex("02 30 33"));
    EXPECT_TRUE(line.read_for(50).empty());
    rep.stop();  // takes what has come
    const auto d = rep.differences();
    ASSERT_EQ(d.size(), 1u);
    EXPECT_EQ(d[0].exchange, 1u);
    EXPECT_EQ(d[0].offset, 3u);
    EXPECT_EQ(d[0].received, kolt::test::from_hex("023033"));
    EXPECT_NE(c.text().find("replay: exchange 1 (line 5): only 3 of 12 bytes came, difference at offset 3"),
              std::string::npos)
        << c.text();
    EXPECT_NE(c.text().find("replay: the application stopped after 0 of 2 exchanges"), std::string::npos);
}

TEST(Replay, DeviceBytesBeforeAnyApplicationByteGoOutAtTheStart) {
    Collected c;
    Replayer rep(Recording::parse("# kolt-sim session 1\n+3.000 < 90 91\n+4.000 > 41\n+5.000 < 06\n"), quick(c));
    kolt::test::RawLine line(rep.slave_path());
    rep.start();
    EXPECT_EQ(line.read(2, 1000), (std::vector<uint8_t>{0x90, 0x91}));
    line.write(std::vector<uint8_t>{0x41});
    EXPECT_EQ(line.read(1, 1000), std::vector<uint8_t>{0x06});
    EXPECT_TRUE(rep.wait_finished(0, 1000));
    rep.stop();
    EXPECT_EQ(rep.summary(), "replay: 2 exchanges, 0 differences, 0 unexpected bytes");
}

TEST(Replay, RecordedDelaysAreKeptAtSpeedOneAndScaled) {
    // The reply comes 150 ms after the command (its two pieces 60 ms apart):
    // never earlier at speed 1, never earlier than half of it at 0.5.
    const auto r = Recording::parse("# kolt-sim session 1\n+10.000 > 41\n+160.000 < 06\n+220.000 < 07\n");
    for (double speed : {1.0, 0.5}) {
        Collected c;
        ReplayOptions o = quick(c);
        o.speed = speed;
        Replayer rep(r, o);
        rep.start();
        kolt::test::RawLine line(rep.slave_path());
        const auto sent = Clock::now();
        line.write(std::vector<uint8_t>{0x41});
        EXPECT_EQ(line.read(1, 2000), std::vector<uint8_t>{0x06});
        const auto first = Clock::now();
        EXPECT_EQ(line.read(1, 2000), std::vector<uint8_t>{0x07});
        const auto second = Clock::now();
        using ms = std::chrono::milliseconds;
        EXPECT_GE(std::chrono::duration_cast<ms>(first - sent).count(), static_cast<long>(150 * speed) - 1) << speed;
        EXPECT_GE(std::chrono::duration_cast<ms>(second - sent).count(), static_cast<long>(210 * speed) - 1) << speed;
    }
}

// ---------------------------------------------------------------------------
// The proxy between the library and a simulated reader, then the replay of
// what it recorded; the library's results are the same all three ways.

class ProxyFlow : public ::testing::TestWithParam<SessionFlow> {};

TEST_P(ProxyFlow, SameResultsDirectThroughTheProxyAndReplayed) {
    const SessionFlow& flow = GetParam();
    {
        kolt::test::ScopedSimulator sim;
        flow.prepare(*sim);
        EXPECT_EQ(flow.run(), flow.expected) << "directly";
    }
    const kolt::test::ProxiedRun proxied = kolt::test::run_through_proxy(flow);
    EXPECT_EQ(proxied.result, flow.expected) << "through the proxy";
    const Recording& rec = proxied.recording;
    ASSERT_GE(rec.chunks.size(), 2u);
    EXPECT_EQ(rec.chunks.front().dir, Direction::ToDevice);
    EXPECT_EQ(rec.chunks.back().dir, Direction::FromDevice);
    for (size_t i = 1; i < rec.chunks.size(); ++i) EXPECT_GE(rec.chunks[i].time_ms, rec.chunks[i - 1].time_ms);
    // The file of it reads back the same.
    const Recording again = Recording::parse(rec.format());
    EXPECT_EQ(again.format(), rec.format());

    const kolt::test::ReplayedRun replayed = kolt::test::run_against_replay(flow, again);
    EXPECT_EQ(replayed.result, flow.expected) << "replayed";
    EXPECT_TRUE(replayed.differences.empty());
    EXPECT_EQ(replayed.unexpected, 0u);
    EXPECT_EQ(replayed.played, replayed.exchanges);
    EXPECT_TRUE(replayed.reports.empty()) << replayed.reports.front();
}

INSTANTIATE_TEST_SUITE_P(Flows, ProxyFlow, ::testing::ValuesIn(kolt::test::session_flows()),
                         [](const auto& info) { return info.param.name; });

TEST(Proxy, WritesTheFileLineByLineAsTheChunksCome) {
    kolt::test::TempDir dir;
    const std::string path = dir.str() + "/live.session";
    kolt::sim::Simulator sim;
    sim.start();
    kolt::sim::ProxyOptions po;
    po.device = sim.slave_path();
    po.record_path = path;
    kolt::sim::Proxy proxy(po);
    proxy.start();
    // The header is there before anything went over the line.
    const Recording empty = Recording::load(path);
    EXPECT_EQ(empty.device, sim.slave_path());
    EXPECT_FALSE(empty.date.empty());
    EXPECT_TRUE(empty.chunks.empty());

    kolt::test::RawLine line(proxy.slave_path());
    const auto cmd = kolt::sim::encode_main_command(0x31, 0x11, std::vector<uint8_t>{0x04});
    line.write(cmd);
    const auto reply = line.read_until(0x03, 1000);
    ASSERT_TRUE(kolt::sim::decode_main(reply));
    ASSERT_TRUE(proxy.wait_for_chunks(2, 1000));
    // Still running: the file holds what went over the line.
    const Recording live = Recording::load(path);
    std::vector<uint8_t> to_device, from_device;
    for (const auto& c : live.chunks)
        (c.dir == Direction::ToDevice ? to_device : from_device).insert(
            (c.dir == Direction::ToDevice ? to_device : from_device).end(), c.bytes.begin(), c.bytes.end());
    EXPECT_EQ(to_device, cmd);
    EXPECT_EQ(from_device, reply);
    EXPECT_EQ(live.format(), proxy.recording().format());
    proxy.stop();
}

TEST(Proxy, AFailedDeviceLineIsReportedAndNoted) {
    auto sim = std::make_unique<kolt::sim::Simulator>();
    sim->start();
    Collected c;
    kolt::sim::ProxyOptions po;
    po.device = sim->slave_path();
    po.report = c.sink();
    kolt::sim::Proxy proxy(po);
    proxy.start();
    EXPECT_EQ(proxy.device_error(), "");
    sim.reset();  // the reader's line goes away
    EXPECT_TRUE(kolt::test::wait_until([&] { return !proxy.device_error().empty(); }));
    proxy.stop();
    EXPECT_NE(c.text().find("proxy: the device line " + po.device + " failed: "), std::string::npos) << c.text();
    const auto rec = proxy.recording();
    ASSERT_EQ(rec.trailing_comments.size(), 1u);
    EXPECT_EQ(rec.trailing_comments[0].rfind(" the device line failed here: ", 0), 0u);
}

TEST(Proxy, ADeviceThatCannotBeOpenedIsNamed) {
    kolt::sim::ProxyOptions po;
    po.device = "/dev/kolt-no-such-line";
    try {
        kolt::sim::Proxy proxy(po);
        ADD_FAILURE() << "opened";
    } catch (const std::runtime_error& e) {
        EXPECT_NE(std::string(e.what()).find("cannot open /dev/kolt-no-such-line"), std::string::npos) << e.what();
    }
}

// ---------------------------------------------------------------------------
// The library against replays with differences.

namespace {

// A session of the version and serial-number commands, freshly recorded.
Recording version_serial_session() {
    return kolt::test::run_through_proxy(kolt::test::session_flow("device_version_serial")).recording;
}

int version_of(uint8_t selector, std::string& text) {
    uint8_t out[KOLT_VERSION_MAX] = {};
    const int n = KOLT_T41_GetVersion(selector, out, 2);
    text.assign(reinterpret_cast<const char*>(out), n > 0 ? static_cast<size_t>(n) : 0);
    return n;
}

}  // namespace

TEST(ReplayLibrary, AChangedCommandIsReportedWithItsExchangeAndOffset) {
    const Recording rec = version_serial_session();
    Collected c;
    Replayer rep(rec, quick(c));
    rep.start();
    {
        kolt::test::ScopedPortName port(rep.port_name());
        ASSERT_EQ(KOLT_initCom(0, "", 1, ""), 0);
        std::string version;
        // Selector 3 where 4 was recorded: the recorded answer comes anyway.
        EXPECT_EQ(version_of(3, version), 26);
        EXPECT_EQ(version, "KL560T41-FW-20240115-V1.08");
        char serial[KOLT_SAIMID_TEXT_MAX] = {};
        EXPECT_EQ(KOLT_T41_GetSAIMIDStr(serial, 2), 23);
        KOLT_freeCom(0, 1, "");
    }
    ASSERT_TRUE(rep.wait_finished(0, 1000));
    rep.stop();
    // Where the two commands first differ, by the simulator's own encoder.
    const auto recorded = kolt::sim::encode_main_command(0x31, 0x11, std::vector<uint8_t>{0x04});
    const auto sent = kolt::sim::encode_main_command(0x31, 0x11, std::vector<uint8_t>{0x03});
    size_t at = 0;
    while (recorded[at] == sent[at]) ++at;
    const auto d = rep.differences();
    ASSERT_EQ(d.size(), 1u) << c.text();
    EXPECT_EQ(d[0].exchange, 1u);
    EXPECT_EQ(d[0].offset, at);
    EXPECT_EQ(d[0].recorded, recorded);
    EXPECT_EQ(d[0].received, sent);
    EXPECT_EQ(rep.summary(), "replay: 2 exchanges, 1 differences, 0 unexpected bytes");
    EXPECT_NE(c.text().find("replay: exchange 1: difference at offset " + std::to_string(at) + "\n"), std::string::npos)
        << c.text();
}

TEST(ReplayLibrary, AnEditedRecordingIsReportedAtTheEditedByte) {
    Recording rec = Recording::parse(version_serial_session().format());
    // The serial-number command is the second exchange: change its sixth byte.
    const auto ex = rec.exchanges();
    ASSERT_EQ(ex.size(), 2u);
    Chunk* second = nullptr;
    for (auto& chunk : rec.chunks)
        if (chunk.line == ex[1].line) second = &chunk;
    ASSERT_NE(second, nullptr);
    ASSERT_GE(second->bytes.size(), 6u);  // the library writes a command in one piece
    second->bytes[5] ^= 0x01;
    Collected c;
    Replayer rep(Recording::parse(rec.format()), quick(c));
    rep.start();
    {
        kolt::test::ScopedPortName port(rep.port_name());
        EXPECT_EQ(kolt::test::session_flow("device_version_serial").run(),
                  kolt::test::session_flow("device_version_serial").expected);
    }
    rep.stop();
    const auto d = rep.differences();
    ASSERT_EQ(d.size(), 1u);
    EXPECT_EQ(d[0].exchange, 2u);
    EXPECT_EQ(d[0].offset, 5u);
    EXPECT_EQ(d[0].line, ex[1].line);
}

TEST(ReplayLibrary, WildcardsAcceptWhatVaries) {
    Recording rec = version_serial_session();
    // Mark the selector byte (and the check byte that follows it) as varying.
    const auto recorded = kolt::sim::encode_main_command(0x31, 0x11, std::vector<uint8_t>{0x04});
    const auto other = kolt::sim::encode_main_command(0x31, 0x11, std::vector<uint8_t>{0x03});
    Chunk& first = rec.chunks.at(0);
    ASSERT_EQ(first.bytes, recorded);
    first.any.assign(first.bytes.size(), false);
    for (size_t i = 0; i < recorded.size(); ++i) first.any[i] = recorded[i] != other[i];
    Collected c;
    Replayer rep(Recording::parse(rec.format()), quick(c));
    rep.start();
    {
        kolt::test::ScopedPortName port(rep.port_name());
        ASSERT_EQ(KOLT_initCom(0, "", 1, ""), 0);
        std::string version;
        EXPECT_EQ(version_of(3, version), 26);
        char serial[KOLT_SAIMID_TEXT_MAX] = {};
        EXPECT_EQ(KOLT_T41_GetSAIMIDStr(serial, 2), 23);
        KOLT_freeCom(0, 1, "");
    }
    rep.stop();
    EXPECT_TRUE(rep.clean()) << c.text();
    EXPECT_EQ(rep.summary(), "replay: 2 exchanges, 0 differences, 0 unexpected bytes");
}

TEST(ReplayLibrary, ACallTheRecordingDoesNotHoldIsUnexpected) {
    Collected c;
    Replayer rep(version_serial_session(), quick(c));
    rep.start();
    {
        kolt::test::ScopedPortName port(rep.port_name());
        EXPECT_EQ(kolt::test::session_flow("device_version_serial").run(),
                  kolt::test::session_flow("device_version_serial").expected);
    }
    ASSERT_TRUE(rep.wait_finished(0, 1000));
    // One call more: the replayer has nothing to answer it with.
    kolt::test::RawLine line(rep.slave_path());
    const auto extra = kolt::sim::encode_main_command(0x38, 0x97, {});
    line.write(extra);
    EXPECT_TRUE(kolt::test::wait_until([&] { return rep.unexpected_bytes() == extra.size(); }));
    rep.stop();
    EXPECT_EQ(rep.summary(), "replay: 2 exchanges, 0 differences, " + std::to_string(extra.size()) + " unexpected bytes");
    EXPECT_FALSE(rep.clean());
}

// ---------------------------------------------------------------------------
// The recorded sessions of sim/sessions/: each played back through the
// library with the call that made it.

class RecordedSession : public ::testing::TestWithParam<SessionFlow> {};

TEST_P(RecordedSession, ReplaysWithTheSameResultAndNoDifference) {
    const SessionFlow& flow = GetParam();
    const Recording rec = Recording::load(kolt::test::session_file(flow.name));
    ASSERT_FALSE(rec.chunks.empty());
    const kolt::test::ReplayedRun run = kolt::test::run_against_replay(flow, rec);
    EXPECT_EQ(run.result, flow.expected);
    EXPECT_TRUE(run.differences.empty()) << (run.reports.empty() ? "" : run.reports.front());
    EXPECT_EQ(run.unexpected, 0u);
    EXPECT_EQ(run.played, run.exchanges);
}

INSTANTIATE_TEST_SUITE_P(Sessions, RecordedSession, ::testing::ValuesIn(kolt::test::session_flows()),
                         [](const auto& info) { return info.param.name; });
