// Device profiles of the simulator: the shipped JSON files and bad input.
#include <gtest/gtest.h>

#include "common/sim_fixture.hpp"
#include "common/test_util.hpp"
#include "kolt_sim/frame.hpp"
#include "kolt_sim/simulator.hpp"

using namespace kolt::sim;
using kolt::test::RawLine;
using kolt::test::sim_profile;
using kolt::test::TempDir;
using kolt::test::text_bytes;

namespace {
void expect_same(const DeviceProfile& a, const DeviceProfile& b) {
    EXPECT_EQ(a.name, b.name);
    EXPECT_EQ(a.family, b.family);
    EXPECT_EQ(a.greeting, b.greeting);
    EXPECT_EQ(a.disconnect, b.disconnect);
    EXPECT_EQ(a.legacy86_reply, b.legacy86_reply);
    EXPECT_EQ(a.versions, b.versions);
    EXPECT_EQ(a.module_serial, b.module_serial);
    EXPECT_EQ(a.id_answer, b.id_answer);
    EXPECT_EQ(a.id_no_card_s1, b.id_no_card_s1);
    EXPECT_EQ(a.id_no_card_s2, b.id_no_card_s2);
    ASSERT_EQ(a.unknown_reply.has_value(), b.unknown_reply.has_value());
    if (a.unknown_reply) {
        EXPECT_EQ(a.unknown_reply->s1, b.unknown_reply->s1);
        EXPECT_EQ(a.unknown_reply->s2, b.unknown_reply->s2);
        EXPECT_EQ(a.unknown_reply->data, b.unknown_reply->data);
    }
    EXPECT_EQ(a.status_overrides, b.status_overrides);
}
}  // namespace

TEST(SimProfile, DefaultFileIsTheBuiltInUnit) {
    expect_same(load_device_profile(sim_profile("default.json")), default_profile());
}

TEST(SimProfile, BuiltInValues) {
    const auto p = default_profile();
    ASSERT_EQ(p.greeting.size(), 11u);
    EXPECT_EQ(p.greeting[0], 0x90);
    EXPECT_EQ(p.disconnect.size(), 1u);
    EXPECT_EQ(p.module_serial,
              kolt::test::from_hex("0100 0200 03B33401 87D61200 79384E05"));  // 01.02-20230915-0001234567-0089012345
    EXPECT_GT(p.versions.at(4).size(), 17u);
}

TEST(SimProfile, ShippedProfilesLoad) {
    EXPECT_EQ(load_device_profile(sim_profile("legacy86.json")).family, "legacy86");
    EXPECT_TRUE(load_device_profile(sim_profile("no_id_card.json")).id_answer.empty());
    EXPECT_FALSE(load_device_profile(sim_profile("silent_unknown.json")).unknown_reply);
    const auto p = load_device_profile(sim_profile("short_version.json"));
    EXPECT_EQ(p.versions.at(4).size(), 17u);
    EXPECT_EQ(p.module_serial, kolt::test::from_hex("0300 0700 ADD73401 2A000000 FFFFFFFF"));
}

TEST(SimProfile, ValuesFromJson) {
    const auto p = parse_device_profile(R"({
        "name": "test unit",
        "versions": {"0x02": {"hex": "0102"}, "7": "V7"},
        "module_serial": "00112233445566778899AABBCCDDEEFF",
        "identity_card": {"fields": {"name": "AB", "sex": "2"}, "photo_hex": "0102", "no_card_status": "1234"},
        "unknown_reply": {"status": "6D00", "data": "EE"},
        "status_overrides": [{"class": "0x32", "code": 34, "status": "1005"}]
    })");
    EXPECT_EQ(p.name, "test unit");
    EXPECT_EQ(p.versions.size(), 2u);
    EXPECT_EQ(p.versions.at(2), (Bytes{0x01, 0x02}));
    EXPECT_EQ(p.versions.at(7), text_bytes("V7"));
    EXPECT_EQ(p.module_serial[15], 0xFF);
    ASSERT_EQ(p.id_answer.size(), 4u + 256u + 2u);
    EXPECT_EQ(p.id_answer[4], 'A');
    EXPECT_EQ(p.id_answer[5], 0x00);
    EXPECT_EQ(p.id_answer[6], 'B');
    EXPECT_EQ(p.id_answer[8], 0x20);  // blank padding of the name field
    EXPECT_EQ(p.id_answer[4 + 30], '2');
    EXPECT_EQ(p.id_no_card_s1, 0x12);
    EXPECT_EQ(p.id_no_card_s2, 0x34);
    ASSERT_TRUE(p.unknown_reply);
    EXPECT_EQ(p.unknown_reply->s1, 0x6D);
    EXPECT_EQ(p.unknown_reply->data, Bytes{0xEE});
    EXPECT_EQ(p.status_overrides.at(0x3222).first, 0x10);
    EXPECT_EQ(p.status_overrides.at(0x3222).second, 0x05);
}

TEST(SimProfile, BadProfilesRejected) {
    const char* bad[] = {
        "not json",
        "[1, 2]",
        R"({"colour": "red"})",
        R"({"family": "other"})",
        R"({"greeting": "9G"})",
        R"({"greeting": "900"})",
        R"({"module_serial": "0011"})",
        R"({"module_serial": {"a": 1, "b": 2, "c": 3, "d": 4}})",
        R"({"module_serial": {"a": 70000, "b": 2, "c": 3, "d": 4, "e": 5}})",
        R"({"versions": {"256": "x"}})",
        R"({"versions": {"1": 5}})",
        R"({"unknown_reply": {"status": "00"}})",
        R"({"status_overrides": [{"class": 1, "code": 2}]})",
        R"({"identity_card": {"fields": {"nickname": "x"}}})",
        R"({"identity_card": {"fields": {"sex": "12"}}})",
    };
    for (const char* text : bad) {
        EXPECT_THROW(parse_device_profile(text), std::runtime_error) << text;
    }
}

TEST(SimProfile, MissingOrBrokenFileRejected) {
    TempDir dir;
    EXPECT_THROW(load_device_profile(dir.str() + "/absent.json"), std::runtime_error);
    const std::string path = dir.write("bad.json", "{\"family\": ");
    try {
        load_device_profile(path);
        FAIL() << "accepted a broken file";
    } catch (const std::runtime_error& e) {
        EXPECT_NE(std::string(e.what()).find("bad.json"), std::string::npos) << e.what();
    }
}

TEST(SimProfile, ProfileDrivesTheSimulator) {
    Options o;
    o.profile = parse_device_profile(R"({
        "versions": {"1": "ONE"},
        "status_overrides": [{"class": "0x38", "code": "0x97", "status": "0001"}],
        "identity_card": {"present": false, "no_card_status": "0041"}
    })");
    Simulator sim(o);
    sim.start();
    RawLine line(sim.slave_path());
    line.write(encode_main_command(0x31, 0x11, Bytes{0x01}));
    auto v = decode_main(line.read_until(0x03, 1500));
    ASSERT_TRUE(v);
    EXPECT_EQ(v->data, text_bytes("ONE"));
    line.write(encode_main_command(0x38, 0x97, {}));
    auto rf = decode_main(line.read_until(0x03, 1500));
    ASSERT_TRUE(rf);
    EXPECT_EQ(rf->b, 0x01);
    line.write(encode_main_command(0x35, 0x80, Bytes{0x00, 0x00}));
    auto find = decode_main(line.read_until(0x03, 1500));
    ASSERT_TRUE(find);
    EXPECT_EQ(find->b, 0x41);
}
