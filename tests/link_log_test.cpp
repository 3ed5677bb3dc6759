// The trace lines of the link, the frames and the peripheral commands, text
// for text: service staff search the logs for exactly these lines.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "common/pty_util.hpp"
#include "common/sim_fixture.hpp"
#include "common/test_util.hpp"
#include "kolt/kolt.h"
#include "link/link_state.hpp"

namespace {

using kolt::sim::Fault;
using kolt::test::DebugLogCapture;
using kolt::test::TempDir;

// Whether the log holds the line (after its time stamp) exactly.
bool has_line(const std::string& log, const std::string& line) {
    return log.find("] " + line + "\n") != std::string::npos;
}

// Number of lines that begin (after the time stamp) with text.
size_t lines_beginning(const std::string& log, const std::string& text) {
    size_t n = 0;
    for (size_t at = log.find("] " + text); at != std::string::npos; at = log.find("] " + text, at + 1)) ++n;
    return n;
}

void set_port_name(const std::string& name) {
    std::memset(gPortName, 0, sizeof gPortName);
    std::strncpy(gPortName, name.c_str(), sizeof gPortName - 1);
}

const std::string kStars = "***********************************";

// ---- opening and closing -------------------------------------------------------

TEST(LinkLog, LocalPortOpenAndClose) {
    DebugLogCapture log;
    set_port_name("kolt-no-such-device");
    EXPECT_EQ(KOLT_openCom(1, 9600), -1);
    kolt::test::Pty pty;
    set_port_name(pty.name());
    ASSERT_EQ(KOLT_initCom(0, "", 1, ""), 0);
    EXPECT_EQ(KOLT_freeCom(0, 1, ""), 0);
    const std::string t = log.text();
    EXPECT_TRUE(has_line(t, "openCom gPortName is:kolt-no-such-device")) << t;
    EXPECT_TRUE(has_line(t, "openCom begin open device=/dev/kolt-no-such-device")) << t;
    EXPECT_TRUE(has_line(t, "openCom open flag=-1")) << t;
    EXPECT_TRUE(has_line(t, "openCom begin open device=" + pty.path())) << t;
    EXPECT_TRUE(has_line(t, "KOLT_closeComOrAux begin " + kStars + "0")) << t;
    EXPECT_TRUE(has_line(t, "KOLT_closeComOrAux close begin")) << t;
    EXPECT_TRUE(has_line(t, "KOLT_closeComOrAux close end")) << t;
}

TEST(LinkLog, NamedTerminalAndTableIndex) {
    kolt::test::Pty pty(kolt::test::Pty::Mode::Terminal);
    DebugLogCapture log;
    ASSERT_EQ(KOLT_openComOrAux(pty.path().c_str(), "1", "5", "", ""), 0);
    const int fd = kolt::link::state().fd;
    KOLT_closeComOrAux("1", "5");
    const std::string t = log.text();
    EXPECT_TRUE(has_line(t, "openComOrAux tty_name =" + pty.path())) << t;
    EXPECT_TRUE(has_line(t, "openComOrAux tty_name fd=" + std::to_string(fd))) << t;
    EXPECT_TRUE(has_line(t, "getAuxCmdOnTermtypeAuxno AuxCmd array=4")) << t;
    EXPECT_TRUE(has_line(t, "KOLT_closeComOrAux begin " + kStars + "1")) << t;
}

TEST(LinkLog, RefusedTableIndexNamesTypeAndPort) {
    DebugLogCapture log;
    char open[KOLT_SEQ_MAX], close[KOLT_SEQ_MAX];
    EXPECT_EQ(KOLT_getAuxCmdOnTermtypeAuxno("6", "1", open, close), -2);
    const std::string t = log.text();
    EXPECT_TRUE(has_line(t, "getAuxCmdOnTermtypeAuxno AuxCmd array=20")) << t;
    EXPECT_TRUE(has_line(t, "getAuxCmdOnTermtypeAuxno pszTermType=6")) << t;
    EXPECT_TRUE(has_line(t, "getAuxCmdOnTermtypeAuxno pszSerialPortNO=1")) << t;
}

TEST(LinkLog, TerminalFileLookups) {
    TempDir dir;
    dir.write("lxbs/font/idcread.ext", kolt::test::kTerm51Section + "[TRANSFER_51_KOLT510QX]\nOPEN_PORTB=1B2542\n");
    kolt::test::ScopedEnv env("DCCHOME", dir.str());
    DebugLogCapture log;
    char open[KOLT_SEQ_MAX], close[KOLT_SEQ_MAX], out[KOLT_SEQ_MAX];
    EXPECT_EQ(KOLT_getAuxCmdOnTermtypeAuxno("52", "1", open, close), -1);
    EXPECT_EQ(KOLT_getBPCommand("51", "2", out), 0);
    EXPECT_EQ(KOLT_getBPCommand("1", "K", out), 0);
    const std::string t = log.text();
    EXPECT_TRUE(has_line(t, "getAuxCmdOnTermtypeAuxno getTermCmdFromExtfile flag=0")) << t;
    EXPECT_TRUE(has_line(t, "getBPCommand pszTransPortNO=2")) << t;
    EXPECT_TRUE(has_line(t, "getBPCommand portNoBuf=B")) << t;
    EXPECT_TRUE(has_line(t, "getTransferCmdFromExtfile KOLT_getValueFromStr BPCommand=1b 25 42 ")) << t;
    EXPECT_TRUE(has_line(t, "getBPCommand getTransferCmdFromExtfile flag=0")) << t;
    EXPECT_TRUE(has_line(t, "getBPCommand pszTransPortNO=K")) << t;
}

// ---- frames ---------------------------------------------------------------------

class FrameLog : public kolt::test::LinkedSimTest {
protected:
    DebugLogCapture log;
    uint8_t out[KOLT_T41_REPLY_MAX] = {};
};

TEST_F(FrameLog, MainFrameHeadAndStatus) {
    EXPECT_EQ(KOLT_T41_Buzz(), 0);
    EXPECT_EQ(KOLT_T41_SigleOperate(0x38, 0x97), 0);
    EXPECT_EQ(KOLT_T41_Ret_Code(0x10, 0x06), ICC_No_Response);
    const std::string t = log.text();
    // The first 8 bytes of a longer frame, all of a frame shorter than 9.
    EXPECT_TRUE(has_line(t, "KOLT_writeBufAndReadFromT41 tBuf 02 00 05 31 13 02 01 01 ")) << t;
    EXPECT_TRUE(has_line(t, "KOLT_writeBufAndReadFromT41 tBuf 02 00 02 38 97 af 03 ")) << t;
    EXPECT_TRUE(has_line(t, "KOLT_T41_Ret_Code byteBuf=10 06 ")) << t;
}

TEST_F(FrameLog, MainFrameFailures) {
    sim().inject(Fault{Fault::BadCheck});
    EXPECT_EQ(KOLT_writeBufAndReadFromT41(0x38, 0x97, nullptr, 0, out, 2), Revdata_Error);
    sim().inject(Fault{Fault::Truncate});
    EXPECT_EQ(KOLT_writeBufAndReadFromT41(0x38, 0x97, nullptr, 0, out, 1), Lenth_Error);
    const std::string t = log.text();
    EXPECT_TRUE(has_line(t, "KOLT_writeBufAndReadFromT4 checkByte error")) << t;
    EXPECT_EQ(lines_beginning(t, "KOLT_writeBufAndReadFromT4 KOLT_rcvBuf100s error flag="), 1u) << t;
}

TEST_F(FrameLog, BracketFailures) {
    const int fd = kolt::link::state().fd;
    sim().inject_for(0, 0x41, Fault{Fault::BadCheck});
    EXPECT_EQ(KOLT_writeBufAndRead(fd, 0x41, nullptr, 0, out, 2), Revdata_Error);
    sim().inject_for(0, 0x41, Fault{Fault::NoReply});
    EXPECT_EQ(KOLT_writeBufAndRead(fd, 0x41, nullptr, 0, out, 1), Lenth_Error);
    sim().inject_for(0, 0x41, Fault{Fault::Truncate});
    EXPECT_EQ(KOLT_writeBufAndRead(fd, 0x41, nullptr, 0, out, 1), Lenth_Error);
    const std::string t = log.text();
    EXPECT_TRUE(has_line(t, "writeBufAndRead check error")) << t;
    EXPECT_TRUE(has_line(t, "writeBufAndRead read rcvBuf4 error=-1")) << t;
    EXPECT_TRUE(has_line(t, "writeBufAndRead rcv error")) << t;
}

// ---- peripheral commands: one entry line each ------------------------------------------

TEST_F(FrameLog, PeripheralEntryLines) {
    EXPECT_EQ(KOLT_T41_OpenRF(), 0);
    EXPECT_EQ(KOLT_T41_CloseRF(), 0);
    EXPECT_EQ(KOLT_T41_Buzz(), 0);
    EXPECT_EQ(KOLT_T41_LedOperate(LED_IC, LED_Color_G, LED_Light), 0);
    EXPECT_EQ(KOLT_T41_Id_FindCard(), 0);
    kolt::test::away_from_second_boundary();  // its time-out is one second
    EXPECT_EQ(KOLT_T41_Id_SelectCard(), 0);
    EXPECT_GT(KOLT_T41_Id_ReadCard(out), 0);
    EXPECT_GT(KOLT_T41_ReadIDCard(out, 2), 0);
    EXPECT_GT(KOLT_T41_GetVersion(4, out, 2), 0);
    char serial[KOLT_SAIMID_TEXT_MAX];
    EXPECT_GT(KOLT_T41_GetSAIMIDStr(serial, 2), 0);
    const std::string t = log.text();
    for (const char* name : {"KOLT_T41_OpenRF", "KOLT_T41_CloseRF", "KOLT_T41_Buzz", "KOLT_T41_LedOperate",
                             "KOLT_T41_Id_FindCard", "KOLT_T41_Id_SelectCard", "KOLT_T41_Id_ReadCard",
                             "KOLT_T41_ReadIDCard", "KOLT_T41_GetVersion", "KOLT_T41_GetSAIMIDStr"}) {
        EXPECT_EQ(lines_beginning(t, std::string(name) + "............\n"), 1u) << name << "\n" << t;
    }
    // The field switches answer like KOLT_T41_SigleOperate without logging as it.
    EXPECT_EQ(lines_beginning(t, "KOLT_T41_SigleOperate"), 0u) << t;
}

TEST_F(FrameLog, IdentityLedLinesKeepTheirOwnTexts) {
    EXPECT_EQ(KOLT_T41_IDLedFlicker(), 0);
    EXPECT_EQ(KOLT_T41_IDLedLightOut(), 0);
    const std::string t = log.text();
    EXPECT_EQ(lines_beginning(t, "Led flight............\n"), 1u) << t;
    // The light-out call logs with the light call's text.
    EXPECT_EQ(lines_beginning(t, "KOLT_T41_IDLedLight............\n"), 1u) << t;
    EXPECT_EQ(lines_beginning(t, "KOLT_T41_LedOperate............\n"), 2u) << t;
    EXPECT_EQ(lines_beginning(t, "KOLT_T41_IDLedLightOut"), 0u) << t;
    EXPECT_EQ(lines_beginning(t, "KOLT_T41_IDLedFlicker"), 0u) << t;
}

}  // namespace
