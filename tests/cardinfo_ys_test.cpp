// Card information in the YS convention of the IC_ family, end to end
// through the simulated reader: IC_GetInfo_YS (on a link the caller opened)
// and its wrapper IC_GetInfo.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "common/sim_fixture.hpp"
#include "common/test_util.hpp"
#include "emv/card_info.hpp"
#include "emv/tags.hpp"
#include "kolt/kolt.h"
#include "kolt_sim/card.hpp"
#include "support/log.hpp"

namespace {

using kolt::sim::Card;
using kolt::sim::Command;

const std::string kPowerOnError = "\xBF\xA8\xC9\xCF\xB5\xE7\xB4\xED\xCE\xF3";            // 卡上电错误
const std::string kCardInitError = "\xBF\xA8\xB3\xF5\xCA\xBC\xBB\xAF\xB4\xED\xCE\xF3";   // 卡初始化错误
const std::string kReadRecordError = "\xB6\xC1\xBC\xC7\xC2\xBC\xB4\xED\xCE\xF3";         // 读记录错误
const std::string kContactNotInserted =                                                   // 接触方式读卡时卡未插入
    "\xBD\xD3\xB4\xA5\xB7\xBD\xCA\xBD\xB6\xC1\xBF\xA8\xCA\xB1\xBF\xA8\xCE\xB4\xB2\xE5\xC8\xEB";

std::string card_path(const std::string& file) {
    const char* env = std::getenv("KOLT_TEST_SOURCE_DIR");
    const std::filesystem::path root =
        env != nullptr ? std::filesystem::path(env) : std::filesystem::path(__FILE__).parent_path().parent_path();
    return (root / "sim" / "cards" / file).string();
}

std::shared_ptr<Card> load(const std::string& file) { return Card::from_file(card_path(file)); }

std::vector<std::pair<int, int>> afl_reads(const Card& card) {
    std::vector<std::pair<int, int>> reads;
    for (const auto& a : card.apdus()) {
        if (a.size() >= 2 && a[0] == 0x80 && a[1] == 0xA8) reads.clear();
        if (a.size() >= 4 && a[0] == 0x00 && a[1] == 0xB2) reads.emplace_back(a[2], a[3] >> 3);
    }
    return reads;
}

std::vector<int> get_data_tags(const Card& card) {
    std::vector<int> tags;
    for (const auto& a : card.apdus())
        if (a.size() >= 4 && a[0] == 0x80 && a[1] == 0xCA) tags.push_back(a[2] << 8 | a[3]);
    return tags;
}

bool sent(const kolt::sim::Simulator& sim, uint8_t cls, uint8_t code) {
    for (const Command& c : sim.transcript())
        if (c.cls == cls && c.code == code) return true;
    return false;
}

// The reference card as IC_GetInfo_YS reports it.
const std::string kPan = "6299990000001234560";
const std::string kCdol1 = "9F02069F03069F1A0295055F2A029A039C019F37049F21039F4E14";

// IC_GetInfo_YS on a link opened the way the IC_ family does it.
struct YsCall {
    int rc = 0;
    std::string out;
    int32_t kind = -5;
    std::vector<uint8_t> appdata;
};

YsCall ys(int ic_type, const char* letters, const char* aid = "") {
    YsCall c;
    EXPECT_EQ(IC_initCom(0, 0), 0);
    std::vector<char> out(4096, 0);
    std::vector<char> app(KOLT_APPDATA_MAX, 0);
    c.rc = IC_GetInfo_YS(ic_type, letters, aid, out.data(), &c.kind, app.data());
    IC_CloseCom(0, 0);
    c.out = std::string(out.data());
    // The block has no terminator of its own: the test buffer was zeroed,
    // and no value of the reference cards holds a zero byte.
    size_t n = KOLT_APPDATA_MAX;
    while (n > 0 && app[n - 1] == 0) --n;
    c.appdata.assign(app.begin(), app.begin() + static_cast<long>(n));
    return c;
}

std::vector<uint8_t> block(const std::vector<std::pair<char, std::vector<uint8_t>>>& items) {
    std::vector<uint8_t> out;
    for (const auto& [letter, value] : items) {
        out.push_back(static_cast<uint8_t>(letter));
        out.push_back(static_cast<uint8_t>(value.size()));
        out.insert(out.end(), value.begin(), value.end());
    }
    return out;
}

std::vector<uint8_t> text(const std::string& s) { return std::vector<uint8_t>(s.begin(), s.end()); }

class YsInfoTest : public kolt::test::SimTest {};

// ---------------------------------------------------------------------------

TEST_F(YsInfoTest, EveryCallerLetterOnTheContactCard) {
    auto card = load("pboc_debit.json");
    sim().set_contact_card(card);
    const YsCall c = ys(0, "ABCDEFGHIJKL");
    EXPECT_EQ(c.rc, 0);
    EXPECT_EQ(c.out, "A019" + kPan +                                   // A: 5A
                         "B037" "6299990000001234560=30122201234567890" // B: 57 reformatted
                         "C012000000012345"                             // C: 9F79
                         "D012000000100000"                             // D: 9F77
                         "E006301231"                                   // E: 5F24
                         "F012000000050000"                             // F: 9F78
                         "G00201"                                       // G: 5F34
                         "H000"                                         // H: 9F36, in no record
                         "I00200"                                       // I: 9F62
                         "J018990000198001010012"                       // J: 9F61
                         "K009LI/SIMING"                                // K: 5F20
                         "L006\xC0\xEE\xCB\xBC\xC3\xF7");               // L: 9F0B
    EXPECT_EQ(c.kind, 1);
    // L is never found, so the whole AFL is read: the position after the
    // walk is 3 entries and one past the last record read.
    EXPECT_EQ(c.appdata, block({{'A', text(kPan)},
                                {'J', text("01")},
                                {'Z', text("7C00")},
                                {'3', kolt::test::from_hex(kCdol1)},
                                {'4', kolt::test::from_hex("8A02" + kCdol1)},
                                {'Y', text("0302")}}));
    EXPECT_TRUE(sent(sim(), 0x32, 0x23));
}

TEST_F(YsInfoTest, ContactlessCardReportsKindTwo) {
    auto card = load("qpboc_contactless.json");
    sim().set_contactless_card(card);
    const YsCall c = ys(1, "AEG");
    EXPECT_EQ(c.rc, 0);
    EXPECT_EQ(c.out, "A019" "6299990000002468019" "E006291130" "G00201");
    EXPECT_EQ(c.kind, 2);
    EXPECT_TRUE(sent(sim(), 0x32, 0x25));
}

TEST_F(YsInfoTest, SearchListGainsJ) {
    // 5A and 5F34 in different records: a request for A alone still reads
    // on until the PAN sequence number is found, then stops.
    auto card = Card::from_json(R"({
      "name": "split_records", "atr": "3B 02 14 50",
      "pse": {"sfi": 1, "records": [[{"aid": "F0 4B 4F 4C 54 01 01 21"}]]},
      "applications": [{
        "aid": "F0 4B 4F 4C 54 01 01 21",
        "gpo": {"format": 1, "aip": "7C00", "afl": "08010100 10010100 18010100"},
        "records": [
          {"sfi": 1, "record": 1, "data": {"70": {"5A": "6299990000000023"}}},
          {"sfi": 2, "record": 1, "data": {"70": {"5F34": "03"}}},
          {"sfi": 3, "record": 1, "data": {"70": {"5F20": {"text": "LAST/RECORD"}}}}
        ]
      }]})");
    sim().set_contact_card(card);
    const YsCall c = ys(0, "A");
    EXPECT_EQ(c.rc, 0);
    EXPECT_EQ(c.out, "A0166299990000000023");
    const std::vector<std::pair<int, int>> expected{{1, 1}, {1, 2}};
    EXPECT_EQ(afl_reads(*card), expected);
    // Stopped at entry 1, record 1.
    EXPECT_EQ(c.appdata, block({{'A', text("6299990000000023")}, {'J', text("03")}, {'Z', text("7C00")},
                                {'Y', text("0101")}}));

    // The ICRT convention has no such addition: it stops after record 1.
    card->clear_apdus();
    std::vector<char> out(256, 0);
    EXPECT_EQ(KOLT_ICRT_GetICCInfo(0, 1, 0, "", "A", out.data()), 0);
    const std::vector<std::pair<int, int>> icrt{{1, 1}};
    EXPECT_EQ(afl_reads(*card), icrt);
}

TEST_F(YsInfoTest, GetDataTriggersAreTheCallersOwnLetters) {
    auto card = load("pboc_debit.json");
    sim().set_contact_card(card);
    // C shows the balance (slot G), but only the caller letter G fetches it.
    YsCall c = ys(0, "C");
    EXPECT_EQ(c.rc, 0);
    EXPECT_EQ(c.out, "C000");
    EXPECT_TRUE(get_data_tags(*card).empty());

    card->clear_apdus();
    c = ys(0, "CG");
    EXPECT_EQ(c.rc, 0);
    EXPECT_EQ(c.out, "C012000000012345G00201");
    const std::vector<int> expected{0x9F79};
    EXPECT_EQ(get_data_tags(*card), expected);
}

TEST_F(YsInfoTest, LettersOutsideTheTableAreNotTranslated) {
    auto card = load("pboc_debit.json");
    sim().set_contact_card(card);
    const YsCall c = ys(0, "ZXY");
    EXPECT_EQ(c.rc, 0);
    // Z is the AIP, X the ATC (in no record), Y the position of the walk.
    EXPECT_EQ(c.out, "Z0047C00X000Y0040302");
}

TEST_F(YsInfoTest, AidTextSelectsTheApplication) {
    auto card = load("directory_two_records.json");
    sim().set_contact_card(card);
    const YsCall c = ys(0, "A", "F04B4F4C54020101");
    EXPECT_EQ(c.rc, 0);
    ASSERT_GE(c.out.size(), 4u);
    EXPECT_EQ(c.out.substr(c.out.size() - 4), "0073");
}

TEST_F(YsInfoTest, LockedApplication) {
    auto card = load("app_locked.json");
    sim().set_contact_card(card);
    const YsCall c = ys(0, "A");
    EXPECT_EQ(c.rc, -10);
    EXPECT_EQ(c.out, kCardInitError);
    EXPECT_EQ(c.kind, -5);  // not set on failure
    EXPECT_TRUE(c.appdata.empty());
    EXPECT_TRUE(sent(sim(), 0x32, 0x23));
}

TEST_F(YsInfoTest, NoCardInTheContactSlot) {
    const YsCall c = ys(0, "A");
    EXPECT_EQ(c.rc, -9);
    EXPECT_EQ(c.out, kContactNotInserted);
    EXPECT_TRUE(sent(sim(), 0x32, 0x23));
}

TEST_F(YsInfoTest, PowerOnFailure) {
    auto card = load("pboc_debit.json");
    sim().set_contact_card(card);
    sim().set_status(0x32, 0x22, 0x10, 0x05);
    const YsCall c = ys(0, "A");
    EXPECT_EQ(c.rc, -1);
    EXPECT_EQ(c.out, kPowerOnError);
    EXPECT_FALSE(sent(sim(), 0x32, 0x23));
}

TEST_F(YsInfoTest, CardNotAnsweringPowerOn) {
    auto card = load("pboc_debit.json");
    sim().set_contact_card(card);
    sim().set_status(0x32, 0x22, 0x10, 0x06);  // ICC_No_Response
    const YsCall c = ys(0, "A");
    EXPECT_EQ(c.rc, -2);
    EXPECT_EQ(c.out, kPowerOnError);
    EXPECT_FALSE(sent(sim(), 0x32, 0x23));
}

TEST_F(YsInfoTest, OtherSelectionFailure) {
    auto card = load("gpo_format2.json");
    sim().set_contact_card(card);
    const YsCall c = ys(0, "A");
    EXPECT_EQ(c.rc, -10);
    EXPECT_EQ(c.out, kCardInitError);
    EXPECT_TRUE(sent(sim(), 0x32, 0x23));
}

TEST_F(YsInfoTest, FailingReadRecord) {
    auto card = load("pboc_debit.json");
    sim().set_contact_card(card);
    sim().set_handler(0x32, 0x26, [card](const Command& c) -> std::optional<kolt::sim::Reply> {
        const std::span<const uint8_t> apdu(c.data.data() + 1, c.data.size() - 1);
        if (apdu.size() >= 4 && apdu[0] == 0x00 && apdu[1] == 0xB2 && (apdu[3] >> 3) == 3) return std::nullopt;
        return kolt::sim::Reply{0x00, 0x00, card->exchange(apdu)};
    });
    const YsCall c = ys(0, "AL");  // L is never found: SFI 3 is read
    EXPECT_EQ(c.rc, -10);
    EXPECT_EQ(c.out, kReadRecordError);
    EXPECT_TRUE(sent(sim(), 0x32, 0x23));
}

TEST_F(YsInfoTest, TraceWithTheLogSwitchOn) {
    kolt::test::TempDir dir;
    kolt::log::set_debug_dir(dir.str());
    kolt::log::set_switch(1);
    sim().set_contact_card(load("pboc_debit.json"));
    const YsCall c = ys(0, "AB");
    kolt::log::set_switch(0);
    EXPECT_EQ(c.rc, 0);
    std::string trace;
    for (const auto& f : std::filesystem::directory_iterator(dir.path())) trace += kolt::test::read_file(f.path());
    for (const char* line : {"] IC_GetInfo ICtype = 0\n", "] IC_GetInfo ctagList = AB\n",
                             "] IC_GetInfo myctagList = ABJ\n", "] IC_GetInfo nAFL i=0\n",
                             "] IC_GetInfo AIPAFLBuf j=1\n", "] IC_GetInfo All TagList is finded\n",
                             "] IC_GetInfo nAFL &tagListValue[nIndex][1]=0101\n", "] IC_GetInfo icflag=1\n",
                             "] IC_GetInfo apduTagList i =29\n", "] IC_GetInfo apduTagList value =008d\n",
                             "] IC_GetInfo KOLT_T41_ICC_Poweroff flag=0000\n"}) {
        EXPECT_NE(trace.find(line), std::string::npos) << line;
    }
    EXPECT_NE(trace.find("] IC_GetInfo infoBuf=41 30 31 39 "), std::string::npos);
    EXPECT_NE(trace.find("] IC_GetInfo lpicappdata=41 13 36 32 "), std::string::npos);
}

// ---------------------------------------------------------------------------
// The YS answer format on its own.

TEST(YsFormat, TrackTwoOfTwentyFiveCharacters) {
    kolt::emv::clear_working_state();
    kolt::emv::set_slot_text(kolt::emv::kTrack2, "6299990000001234567D2512F");
    EXPECT_EQ(kolt::emv::ys_format("B"), "B024" "6299990000001234567=2512");
}

TEST(YsFormat, LastCharacterDroppedEvenWhenNotPadding) {
    kolt::emv::clear_working_state();
    kolt::emv::set_slot_text(kolt::emv::kTrack2, "6299990000001234D2512101");
    EXPECT_EQ(kolt::emv::ys_format("B"), "B023" "6299990000001234=251210");
}

TEST(YsFormat, EmptyTrackTwo) {
    kolt::emv::clear_working_state();
    EXPECT_EQ(kolt::emv::ys_format("BA"), "B000A000");
}

// ---------------------------------------------------------------------------
// IC_GetInfo: the port name, IC type counted from 1, folded results.

class IcGetInfoTest : public kolt::test::SimTest {};

TEST_F(IcGetInfoTest, ContactCard) {
    auto card = load("pboc_debit.json");
    sim().set_contact_card(card);
    const std::string port = gPortName;
    std::memset(gPortName, 0, sizeof gPortName);  // the call sets it itself
    int32_t ic_type = 1;
    int32_t len = -7;
    std::vector<char> out(1024, 0);
    EXPECT_EQ(IC_GetInfo(port.c_str(), 11, 22, 33, &ic_type, "", "AEG", &len, out.data()), 0);
    const std::string expected = "A019" + kPan + "E006301231" + "G00201";
    EXPECT_EQ(std::string(out.data()), expected);
    EXPECT_EQ(len, static_cast<int32_t>(expected.size()));
    EXPECT_EQ(ic_type, 1);
    EXPECT_EQ(std::string(gPortName), port);
}

TEST_F(IcGetInfoTest, ContactlessCard) {
    auto card = load("qpboc_contactless.json");
    sim().set_contactless_card(card);
    int32_t ic_type = 2;
    int32_t len = -7;
    std::vector<char> out(1024, 0);
    EXPECT_EQ(IC_GetInfo(sim().port_name().c_str(), 0, 0, 0, &ic_type, "", "AG", &len, out.data()), 0);
    EXPECT_EQ(std::string(out.data()), "A019" "6299990000002468019" "G00201");
    EXPECT_EQ(len, 29);
    EXPECT_EQ(ic_type, 2);
}

TEST_F(IcGetInfoTest, AutomaticSlot) {
    auto card = load("qpboc_contactless.json");
    sim().set_contactless_card(card);
    int32_t ic_type = 3;
    int32_t len = -7;
    std::vector<char> out(1024, 0);
    EXPECT_EQ(IC_GetInfo(sim().port_name().c_str(), 0, 0, 0, &ic_type, "", "G", &len, out.data()), 0);
    EXPECT_EQ(std::string(out.data()), "G00201");
    EXPECT_EQ(ic_type, 2);
}

TEST_F(IcGetInfoTest, FailuresFoldToMinus99) {
    auto card = load("app_locked.json");
    sim().set_contact_card(card);
    int32_t ic_type = 1;
    int32_t len = -7;
    std::vector<char> out(1024, 0);
    EXPECT_EQ(IC_GetInfo(sim().port_name().c_str(), 0, 0, 0, &ic_type, "", "A", &len, out.data()), -99);
    EXPECT_EQ(std::string(out.data()), kCardInitError);
    EXPECT_EQ(len, -7);
    EXPECT_EQ(ic_type, 1);
}

TEST_F(IcGetInfoTest, NoCardFoldsToMinus99) {
    int32_t ic_type = 1;
    int32_t len = -7;
    std::vector<char> out(1024, 0);
    EXPECT_EQ(IC_GetInfo(sim().port_name().c_str(), 0, 0, 0, &ic_type, "", "A", &len, out.data()), -99);
    EXPECT_EQ(std::string(out.data()), kContactNotInserted);
}

TEST_F(IcGetInfoTest, PortThatCannotBeOpened) {
    int32_t ic_type = 1;
    int32_t len = -7;
    std::vector<char> out(64, 'x');
    EXPECT_EQ(IC_GetInfo("kolt-no-such-device", 0, 0, 0, &ic_type, "", "A", &len, out.data()), -3);
    EXPECT_EQ(out[0], 'x');  // nothing written
    EXPECT_EQ(len, -7);
    EXPECT_EQ(std::string(gPortName), "kolt-no-such-device");
}

TEST_F(IcGetInfoTest, NullArgumentsDoNotCrash) {
    EXPECT_EQ(IC_GetInfo(nullptr, 0, 0, 0, nullptr, nullptr, nullptr, nullptr, nullptr), -3);
    sim().set_contact_card(load("pboc_debit.json"));
    EXPECT_EQ(IC_GetInfo(sim().port_name().c_str(), 0, 0, 0, nullptr, nullptr, nullptr, nullptr, nullptr), 0);
}

TEST_F(IcGetInfoTest, LongPortNameIsCut) {
    const std::string name(100, 'p');
    int32_t ic_type = 1;
    int32_t len = -7;
    std::vector<char> out(64, 0);
    EXPECT_EQ(IC_GetInfo(name.c_str(), 0, 0, 0, &ic_type, "", "A", &len, out.data()), -3);
    EXPECT_EQ(std::string(gPortName), std::string(31, 'p'));
}

// ---------------------------------------------------------------------------
// The log switch comes from "kolt.ini" beside the library. The test runs a
// copy of this program from a directory of its own (the library is linked
// into it, so its directory is the program's), with or without a kolt.ini
// there; the copy makes the call and checks the switch.

const char* const kChildExpect = "KOLT_CARDINFO_EXPECT_SWITCH";
const char* const kChildLogDir = "KOLT_CARDINFO_LOG_DIR";

int run_copy_of_self(const kolt::test::TempDir& dir, const std::string& filter, const std::string& expect) {
    const std::string copy = (dir.path() / "cardinfo_copy").string();
    std::filesystem::copy_file("/proc/self/exe", copy);
    std::filesystem::permissions(copy, std::filesystem::perms::owner_all);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::setenv(kChildExpect, expect.c_str(), 1);
        ::setenv(kChildLogDir, (dir.path() / "log").c_str(), 1);
        const std::string arg = "--gtest_filter=" + filter;
        ::execl(copy.c_str(), copy.c_str(), arg.c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// In the copy: IC_GetInfo sets the switch before it opens the port.
void check_switch_in_copy() {
    const int expect = std::atoi(std::getenv(kChildExpect));
    kolt::log::set_debug_dir(std::getenv(kChildLogDir));
    kolt::log::set_switch(9);
    int32_t ic_type = 1;
    int32_t len = 0;
    char out[64] = {0};
    EXPECT_EQ(IC_GetInfo("kolt-no-such-device", 0, 0, 0, &ic_type, "", "A", &len, out), -3);
    EXPECT_EQ(kolt::log::switch_value(), expect);
}

TEST(IcGetInfoLogSwitch, ReadFromKoltIniBesideTheLibrary) {
    if (std::getenv(kChildExpect) != nullptr) return check_switch_in_copy();
    kolt::test::TempDir dir;
    dir.write("kolt.ini", "[icc]\nlog=4\n");
    EXPECT_EQ(run_copy_of_self(dir, "IcGetInfoLogSwitch.ReadFromKoltIniBesideTheLibrary", "4"), 0);
    // With the switch on, the call's own trace went to the debug log.
    bool logged = false;
    for (const auto& f : std::filesystem::directory_iterator(dir.path() / "log")) {
        if (kolt::test::read_file(f.path().string()).find("ID_GetInfo g_nWriteDebugLog=4") != std::string::npos)
            logged = true;
    }
    EXPECT_TRUE(logged);
}

TEST(IcGetInfoLogSwitch, OffWithoutKoltIni) {
    if (std::getenv(kChildExpect) != nullptr) return check_switch_in_copy();
    kolt::test::TempDir dir;
    EXPECT_EQ(run_copy_of_self(dir, "IcGetInfoLogSwitch.OffWithoutKoltIni", "0"), 0);
    EXPECT_FALSE(std::filesystem::exists(dir.path() / "log"));
}

}  // namespace
