// The terminal command file "idcread.ext": location, sections, keys, value
// encodings and the key=value reader.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "common/test_util.hpp"
#include "kolt/kolt.h"
#include "link/extfile.hpp"

using kolt::test::ScopedEnv;
using kolt::test::TempDir;

namespace {

using kolt::test::kEsc;

// A DCCHOME with the command file in its place.
struct ExtFile {
    TempDir dir;
    std::string path;
    ScopedEnv env;
    explicit ExtFile(const std::string& content)
        : path(dir.write("lxbs/font/idcread.ext", content)), env("DCCHOME", dir.str()) {}
};

struct Outs {
    char open[256], close[256], lock[256], unlock[256], lead[256], end[256];
    Outs() {
        for (char* p : {open, close, lock, unlock, lead, end}) std::strcpy(p, "junk");
    }
    int read(const char* type, const char* port) {
        return KOLT_getTermCmdFromExtfile(type, port, open, close, lock, unlock, lead, end);
    }
};

const std::string kType51 = "# teller terminal sequences\n" + kolt::test::kTerm51Section +
                            "[TRANSFER_51_KOLT510QX]\n"
                            "OPEN_PORTA=1B5B3F3130681B\n"
                            "OPEN_PORTB=1B5B3F3131\n";

}  // namespace

// ---- location ------------------------------------------------------------------

TEST(ExtPath, FromDccHome) {
    ScopedEnv env("DCCHOME", "/opt/dcc");
    EXPECT_EQ(kolt::link::extfile_path(), "/opt/dcc/lxbs/font/idcread.ext");
}

TEST(ExtPath, FixedPathWhenUnset) {
    ScopedEnv env("DCCHOME", std::nullopt);
    EXPECT_EQ(kolt::link::extfile_path(), "/dcc/lxbs/font/idcread.ext");
}

TEST(ExtPath, FixedPathWhenNullText) {
    ScopedEnv env("DCCHOME", "/home/(null)/x");
    EXPECT_EQ(kolt::link::extfile_path(), "/dcc/lxbs/font/idcread.ext");
}

TEST(ExtPath, PathIsLogged) {
    kolt::test::DebugLogCapture logs;
    ExtFile f(kType51);
    Outs o;
    o.read("51", "1");
    const std::string text = logs.text();
    EXPECT_NE(text.find("getTermCmdFromExtfile idcread.ext path=" + f.path + "\n"), std::string::npos) << text;
    EXPECT_NE(text.find("getTermCmdFromExtfile return ncmd=2\n"), std::string::npos);
    EXPECT_NE(text.find("getTermCmdFromExtfile KOLT_getValueFromStr key_lock_cmd=1b 5b 32 68 \n"), std::string::npos);
    EXPECT_NE(text.find("getTermCmdFromExtfile KOLT_getValueFromStr open_aux_cmd=" + kEsc + "[/50h\n"),
              std::string::npos);
}

// ---- terminal sections ------------------------------------------------------------

TEST(TermCmd, FullSection) {
    ExtFile f(kType51);
    Outs o;
    EXPECT_EQ(o.read("51", "1"), 2);
    EXPECT_EQ(std::string(o.open), kEsc + "[/50h");
    EXPECT_EQ(std::string(o.close), kEsc + "[/50l");
    EXPECT_EQ(std::string(o.lock), kEsc + "[2h");
    EXPECT_EQ(std::string(o.unlock), kEsc + "[2l");
    EXPECT_EQ(std::string(o.lead), kEsc + "[/51h");
    EXPECT_EQ(std::string(o.end), kEsc + "[/51l");
}

TEST(TermCmd, CountsOnlyOpenAndCloseEntries) {
    ExtFile f("[TERM_52_KOLT510QX]\nOPEN_COM1=\\033[/50h\nCLOSE_COM1=\\033[/50l\nLOCK_KEY=1B5B3268\n");
    Outs o;
    EXPECT_EQ(o.read("52", "1"), 2);
    EXPECT_EQ(std::string(o.unlock), "");  // set to empty before filling
    EXPECT_EQ(std::string(o.lead), "");
}

TEST(TermCmd, HexAndEscapeTextGiveTheSameBytes) {
    ExtFile f("[TERM_53_KOLT510QX]\nLOCK_KEY=1B5B3268\nUNLOCK_KEY=\\033[2h\n");
    Outs o;
    EXPECT_EQ(o.read("53", "1"), 0);
    EXPECT_EQ(std::string(o.lock), kEsc + "[2h");
    EXPECT_EQ(std::string(o.unlock), kEsc + "[2h");
}

TEST(TermCmd, LockKeyIsNotTakenFromUnlockLine) {
    ExtFile f("[TERM_54_KOLT510QX]\nUNLOCK_KEY=1B5B326C\n");
    Outs o;
    o.read("54", "1");
    EXPECT_EQ(std::string(o.lock), "");
    EXPECT_EQ(std::string(o.unlock), kEsc + "[2l");
}

TEST(TermCmd, PortKeyMatchesBySubstring) {
    // OPEN_COM1 also claims the line OPEN_COM12=: it is counted, but as the
    // line holds no "OPEN_COM1=" it has no value for port 1, and the one
    // read before stays.
    ExtFile f("[TERM_55_KOLT510QX]\nOPEN_COM1=\\033[/50h\nCLOSE_COM1=\\033[/50l\nOPEN_COM12=\\033[/62h\n");
    Outs o;
    EXPECT_EQ(o.read("55", "1"), 3);
    EXPECT_EQ(std::string(o.open), kEsc + "[/50h");
    EXPECT_EQ(std::string(o.close), kEsc + "[/50l");
    Outs p;
    EXPECT_EQ(p.read("55", "2"), 0);  // port 2 has no entries
}

TEST(TermCmd, PortKeyClaimingAForeignLineCountsWithoutAValue) {
    ExtFile f("[TERM_55_KOLT510QX]\nOPEN_COM12=\\033[/62h\nCLOSE_COM1=\\033[/50l\n");
    Outs o;
    EXPECT_EQ(o.read("55", "1"), 2);  // enough entries, but no open sequence
    EXPECT_EQ(std::string(o.open), "");
}

TEST(TermCmd, KeyWithoutEqualsSignGivesEmptyValue) {
    ExtFile f("[TERM_55_KOLT510QX]\nCMD_BEGIN \\033[/51h\nCMD_END=\\033[/51l\n");
    Outs o;
    o.read("55", "1");
    EXPECT_EQ(std::string(o.lead), "");
    EXPECT_EQ(std::string(o.end), kEsc + "[/51l");
}

TEST(TermCmd, OtherPortIsIgnored) {
    ExtFile f("[TERM_51_KOLT510QX]\nOPEN_COM2=\\033[/60h\nCLOSE_COM2=\\033[/60l\nOPEN_COM1=\\033[/50h\n");
    Outs o;
    EXPECT_EQ(o.read("51", "2"), 2);
    EXPECT_EQ(std::string(o.open), kEsc + "[/60h");
}

TEST(TermCmd, OnlyTheFirstMatchingSectionIsRead) {
    ExtFile f(
        "[TERM_51_KOLT510QX]\nOPEN_COM1=\\033[A\n"
        "[TERM_51_KOLT510QX]\nOPEN_COM1=\\033[B\nCLOSE_COM1=\\033[C\n");
    Outs o;
    EXPECT_EQ(o.read("51", "1"), 1);
    EXPECT_EQ(std::string(o.open), kEsc + "[A");
    EXPECT_EQ(std::string(o.close), "");
}

TEST(TermCmd, NextHeaderEndsTheSection) {
    ExtFile f(
        "[TERM_51_KOLT510QX]\nOPEN_COM1=\\033[A\n"
        "[TERM_52_KOLT510QX]\nCLOSE_COM1=\\033[B\n");
    Outs o;
    EXPECT_EQ(o.read("51", "1"), 1);
    EXPECT_EQ(std::string(o.close), "");
    ExtFile g(
        "[TERM_51_KOLT510QX]\nOPEN_COM1=\\033[A\n"
        "[TRANSFER_51_KOLT510QX]\nCLOSE_COM1=\\033[B\n");
    Outs p;
    EXPECT_EQ(p.read("51", "1"), 1);
}

TEST(TermCmd, HeaderMatchesAnywhereInTheLine) {
    ExtFile f("  ; comment [TERM_56_KOLT510QX] trailing\nOPEN_COM1=\\033[A\n");
    Outs o;
    EXPECT_EQ(o.read("56", "1"), 1);
}

TEST(TermCmd, CommentsAreSkipped) {
    ExtFile f(
        "# [TERM_57_KOLT510QX]\n"
        "[TERM_57_KOLT510QX]\n"
        "  \t# OPEN_COM1=\\033[X\n"
        "#[TERM_58_KOLT510QX]\n"
        "OPEN_COM1=\\033[Y\n");
    Outs o;
    EXPECT_EQ(o.read("57", "1"), 1);  // a commented header neither starts nor ends a section
    EXPECT_EQ(std::string(o.open), kEsc + "[Y");
}

TEST(TermCmd, OneCharacterValueIsEmpty) {
    ExtFile f("[TERM_51_KOLT510QX]\nOPEN_COM1=x\nCMD_END=\n");
    Outs o;
    EXPECT_EQ(o.read("51", "1"), 1);  // still counted
    EXPECT_EQ(std::string(o.open), "");
    EXPECT_EQ(std::string(o.end), "");
}

TEST(TermCmd, DoublePercentGivesOne) {
    ExtFile f("[TERM_51_KOLT510QX]\nCMD_BEGIN=\\033[%%51h\n");
    Outs o;
    o.read("51", "1");
    EXPECT_EQ(std::string(o.lead), kEsc + "[%51h");
}

TEST(TermCmd, PercentBytesOfAHexValueStayDoubled) {
    // Only the value text is formatted: the hex digits 2525 hold no "%%".
    ExtFile f("[TERM_51_KOLT510QX]\nCMD_BEGIN=1B2525\nCMD_END=\\033%%%%\n");
    Outs o;
    o.read("51", "1");
    EXPECT_EQ(std::string(o.lead), kEsc + "%%");
    EXPECT_EQ(std::string(o.end), kEsc + "%%");
}

TEST(TermCmd, TabsAndLineEndsAreRemoved) {
    ExtFile f("[TERM_51_KOLT510QX]\r\n\tOPEN_COM1\t=\\033[/5\t0h\r\n");
    Outs o;
    EXPECT_EQ(o.read("51", "1"), 1);
    EXPECT_EQ(std::string(o.open), kEsc + "[/50h");
}

TEST(TermCmd, MissingSectionGivesZero) {
    ExtFile f(kType51);
    Outs o;
    EXPECT_EQ(o.read("60", "1"), 0);
    EXPECT_EQ(std::string(o.open), "");
}

TEST(TermCmd, MissingFileGivesMinusOne) {
    TempDir dir;
    ScopedEnv env("DCCHOME", dir.str());
    Outs o;
    EXPECT_EQ(o.read("51", "1"), -1);
    EXPECT_EQ(std::string(o.open), "");  // outputs still emptied
}

TEST(TermCmd, UnsetDccHomeLooksAtTheFixedPath) {
    kolt::test::DebugLogCapture logs;
    ScopedEnv env("DCCHOME", std::nullopt);
    Outs o;
    o.read("51", "1");
    char out[256];
    KOLT_getTransferCmdFromExtfile("51", "A", out);
    const std::string text = logs.text();
    EXPECT_NE(text.find("] getTermCmdFromExtfile idcread.ext path=/dcc/lxbs/font/idcread.ext\n"), std::string::npos)
        << text;
    EXPECT_NE(text.find("] getTransferCmdFromExtfile idcread.ext path=/dcc/lxbs/font/idcread.ext\n"),
              std::string::npos);
}

TEST(TermCmd, MissingFileIsLogged) {
    kolt::test::DebugLogCapture logs;
    TempDir dir;
    ScopedEnv env("DCCHOME", dir.str());
    Outs o;
    EXPECT_EQ(o.read("51", "1"), -1);
    const std::string text = logs.text();
    EXPECT_NE(text.find("] getTermCmdFromExtfile fopen error" + dir.str() + "/lxbs/font/idcread.ext\n"),
              std::string::npos)
        << text;
}

TEST(TermCmd, LongValuesAreCutAt255Bytes) {
    const std::string hex = "1B" + std::string(900, 'A');   // 451 bytes as hex
    const std::string text = std::string(1000, 'z');
    ExtFile f("[TERM_51_KOLT510QX]\nOPEN_COM1=" + hex + "\nCLOSE_COM1=" + text + "\n");
    Outs o;
    EXPECT_EQ(o.read("51", "1"), 2);
    EXPECT_EQ(std::strlen(o.open), 255u);
    EXPECT_EQ(std::strlen(o.close), 255u);
}

TEST(TermCmd, OverlongLineIsReadInPieces) {
    // A line longer than 1023 characters continues as the next piece; the
    // piece holding "CLOSE_COM1=" is read as an entry of its own.
    ExtFile f("[TERM_51_KOLT510QX]\nOPEN_COM1=" + std::string(1013, 'a') + "CLOSE_COM1=\\033[Z\n");
    Outs o;
    EXPECT_EQ(o.read("51", "1"), 2);
    EXPECT_EQ(std::string(o.close), kEsc + "[Z");
}

// ---- pass-through section --------------------------------------------------------

TEST(TransferCmd, FoundGivesBytes) {
    ExtFile f(kType51);
    char out[256] = "junk";
    EXPECT_EQ(KOLT_getTransferCmdFromExtfile("51", "B", out), 0);
    EXPECT_EQ(std::string(out), kEsc + "[?11");
    EXPECT_EQ(KOLT_getTransferCmdFromExtfile("51", "A", out), 0);
    EXPECT_EQ(std::string(out), kEsc + "[?10h" + kEsc);
}

TEST(TransferCmd, AbsentKeyOrSectionGivesMinusTwo) {
    ExtFile f(kType51 + std::string("[TERM_52_KOLT510QX]\nOPEN_PORTC=1B41\n"));
    char out[256] = "junk";
    EXPECT_EQ(KOLT_getTransferCmdFromExtfile("51", "C", out), -2);  // the next header ends the section
    EXPECT_EQ(KOLT_getTransferCmdFromExtfile("51", "D", out), -2);
    EXPECT_EQ(KOLT_getTransferCmdFromExtfile("59", "A", out), -2);
}

TEST(TransferCmd, MissingFileGivesMinusOne) {
    TempDir dir;
    ScopedEnv env("DCCHOME", dir.str());
    char out[256] = "junk";
    EXPECT_EQ(KOLT_getTransferCmdFromExtfile("51", "A", out), -1);
}

// ---- line and file readers ----------------------------------------------------------

TEST(ValueFromStr, EntryRule) {
    char line[128] = "\tOPEN_COM1=\\033[/50h\r\n";
    char out[256] = "junk";
    EXPECT_EQ(KOLT_getValueFromStr(line, "OPEN_COM1", out), 0);
    EXPECT_STREQ(out, "\\033[/50h");
    EXPECT_STREQ(line, "OPEN_COM1=\\033[/50h");  // the line is edited
}

TEST(ValueFromStr, KeyAnywhereInTheLine) {
    char line[64] = "xxUNLOCK_KEY=abc";
    char out[256] = "";
    EXPECT_EQ(KOLT_getValueFromStr(line, "LOCK_KEY", out), 0);
    EXPECT_STREQ(out, "abc");
}

TEST(ValueFromStr, AbsentKey) {
    char line[64] = "OPEN_COM1 \\033";
    char out[256] = "keep";
    EXPECT_EQ(KOLT_getValueFromStr(line, "OPEN_COM1", out), -1);
    EXPECT_STREQ(out, "keep");
}

TEST(ValueFromFile, FirstLineWithTheKey) {
    TempDir dir;
    const auto path = dir.write("fp.cfg", "#serverip=1.1.1.1\nserverip=10.0.0.2\nserverport=9000\n");
    char out[256] = "";
    // No comments: the commented line is taken.
    EXPECT_EQ(KOLT_getValueFromFile(path.c_str(), "serverip", out), 0);
    EXPECT_STREQ(out, "1.1.1.1");
    EXPECT_EQ(KOLT_getValueFromFile(path.c_str(), "serverport", out), 0);
    EXPECT_STREQ(out, "9000");
}

TEST(ValueFromFile, AbsentKeyAndMissingFile) {
    TempDir dir;
    const auto path = dir.write("fp.cfg", "serverip=10.0.0.2\nlogdir\n");
    char out[256] = "keep";
    EXPECT_EQ(KOLT_getValueFromFile(path.c_str(), "logdir", out), -2);
    EXPECT_EQ(KOLT_getValueFromFile((dir.str() + "/none").c_str(), "logdir", out), -1);
    EXPECT_STREQ(out, "keep");
}

TEST(ValueFromFile, LastLineWithoutLineFeedCounts) {
    TempDir dir;
    const auto path = dir.write("fp.cfg", "serverport=9000");
    char out[256] = "";
    EXPECT_EQ(KOLT_getValueFromFile(path.c_str(), "serverport", out), 0);
    EXPECT_STREQ(out, "9000");
}

TEST(FirstChar, SkipsBlanksAndTabs) {
    EXPECT_EQ(getStrFirstChar(" \t #x"), '#');
    EXPECT_EQ(getStrFirstChar("abc"), 'a');
    EXPECT_EQ(getStrFirstChar(" \t "), 0);
    EXPECT_EQ(getStrFirstChar(""), 0);
}

TEST(ConvertValue, Encodings) {
    char out[256];
    std::memset(out, 'x', sizeof out);
    EXPECT_EQ(convertStr2Bytebuf("1B5B3268", out), 4);
    EXPECT_EQ(std::string(out), kEsc + "[2h");
    EXPECT_EQ(convertStr2Bytebuf("\\033[2h", out), 4);
    EXPECT_EQ(std::string(out), kEsc + "[2h");
    std::memset(out, 'x', sizeof out);
    EXPECT_EQ(convertStr2Bytebuf("Z", out), 0);
    for (int i = 0; i < 8; ++i) EXPECT_EQ(out[i], 0) << i;  // 8 bytes cleared
    EXPECT_EQ(convertStr2Bytebuf("ab\\033\\033", out), 4);
    EXPECT_EQ(std::string(out), "ab" + kEsc + kEsc);
    EXPECT_EQ(convertStr2Bytebuf("1B5", out), 2);  // odd hex: last digit is a high nibble
    EXPECT_EQ(static_cast<uint8_t>(out[1]), 0x50);
    EXPECT_EQ(convertStr2Bytebuf("1b5B", out), 4);  // only "1B" marks hex
    EXPECT_EQ(std::string(out), "1b5B");
}
