// Hex text, BCD, search, replace and whole-file helpers with their edge
// behaviour.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>

#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include "common/test_util.hpp"
#include "kolt/kolt.h"
#include "support/hex.hpp"
#include "support/text.hpp"

using kolt::test::bytes;
using kolt::test::read_file;
using kolt::test::TempDir;

// ---- KOLT_hexstrtoint ------------------------------------------------------

TEST(HexStrToInt, ReadsUpperAndLowerDigits) {
    EXPECT_EQ(KOLT_hexstrtoint("9F1A", 4), 0x9F1Au);
    EXPECT_EQ(KOLT_hexstrtoint("ff", 2), 0xFFu);
    EXPECT_EQ(KOLT_hexstrtoint("9F1A", 2), 0x9Fu);
}

TEST(HexStrToInt, ColonCountsTen) { EXPECT_EQ(KOLT_hexstrtoint("0:", 2), 10u); }

TEST(HexStrToInt, ForeignCharacterKeepsItsPosition) {
    EXPECT_EQ(KOLT_hexstrtoint("G1", 2), 0x01u);
    EXPECT_EQ(KOLT_hexstrtoint("1G", 2), 0x10u);
}

TEST(HexStrToInt, NoOverflowCheck) { EXPECT_EQ(KOLT_hexstrtoint("123456789", 9), 0x23456789u); }

TEST(HexStrToInt, NothingToRead) {
    EXPECT_EQ(KOLT_hexstrtoint("12", 0), 0u);
    EXPECT_EQ(KOLT_hexstrtoint(nullptr, 2), 0u);
}

// Past the terminator every count reads zero digits: a count of eight or more
// beyond it gives 0, and a huge count is no longer a loop of that length.
TEST(HexStrToInt, CountPastTheTextReadsZeroDigits) {
    EXPECT_EQ(KOLT_hexstrtoint("1", 3), 0x100u);
    EXPECT_EQ(KOLT_hexstrtoint("1", 8), 0x10000000u);
    EXPECT_EQ(KOLT_hexstrtoint("1", 9), 0u);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(KOLT_hexstrtoint("1", INT32_MAX), 0u);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
}

// ---- KOLT_hexstrtointBuf ---------------------------------------------------

TEST(HexStrToIntBuf, PairsToBytes) {
    uint8_t out[10];
    std::memset(out, 0xEE, sizeof out);
    EXPECT_EQ(KOLT_hexstrtointBuf("9F1A", out), 0);
    EXPECT_EQ(out[0], 0x9F);
    EXPECT_EQ(out[1], 0x1A);
    for (int i = 2; i < 8; ++i) EXPECT_EQ(out[i], 0) << i;  // the first 8 bytes are cleared
    EXPECT_EQ(out[8], 0xEE);
}

TEST(HexStrToIntBuf, ColonPair) {
    uint8_t out[8];
    KOLT_hexstrtointBuf("0:", out);
    EXPECT_EQ(out[0], 0x0A);
}

TEST(HexStrToIntBuf, OddFinalCharacterIsHighNibble) {
    uint8_t out[8];
    KOLT_hexstrtointBuf("ABC", out);
    EXPECT_EQ(out[0], 0xAB);
    EXPECT_EQ(out[1], 0xC0);
}

// ---- KOLT_hexStrToIntStr ---------------------------------------------------

TEST(HexStrToIntStr, ReturnsHalfAndSpillsPerCharacter) {
    uint8_t out[6];
    std::memset(out, 0xEE, sizeof out);
    EXPECT_EQ(KOLT_hexStrToIntStr("9F1A", out), 2);
    EXPECT_EQ(out[0], 0x9F);
    EXPECT_EQ(out[1], 0x1A);
    EXPECT_EQ(out[2], 0x00);  // one byte per input character
    EXPECT_EQ(out[3], 0x00);
    EXPECT_EQ(out[4], 0xEE);  // nothing beyond strlen(text)
}

TEST(HexStrToIntStr, InvalidPairGivesZero) {
    uint8_t out[4] = {0xEE, 0xEE, 0xEE, 0xEE};
    EXPECT_EQ(KOLT_hexStrToIntStr("G112", out), 2);
    EXPECT_EQ(out[0], 0x00);
    EXPECT_EQ(out[1], 0x12);
}

TEST(HexStrToIntStr, OddTextLastDigitAlone) {
    uint8_t out[4] = {0xEE, 0xEE, 0xEE, 0xEE};
    EXPECT_EQ(KOLT_hexStrToIntStr("ABC", out), 1);
    EXPECT_EQ(out[0], 0xAB);
    EXPECT_EQ(out[1], 0x0C);
    EXPECT_EQ(out[2], 0x00);
    EXPECT_EQ(out[3], 0xEE);
}

// ---- BCDBuf2HexCharBuf / KOLT_buf2HexStrBuf --------------------------------

TEST(BcdToHex, UpperCaseWithTerminator) {
    const uint8_t in[] = {0x5A, 0x0F};
    char out[8];
    std::memset(out, 'x', sizeof out);
    EXPECT_EQ(BCDBuf2HexCharBuf(in, 2, out), 4);
    EXPECT_STREQ(out, "5A0F");
}

TEST(BcdToHex, NothingGivesEmptyText) {
    char out[4] = {'x', 'x', 'x', 'x'};
    EXPECT_EQ(BCDBuf2HexCharBuf(nullptr, 0, out), 0);
    EXPECT_STREQ(out, "");
}

TEST(BufToHexStr, OutputStaysLowerCaseAndSourceIsUpperCased) {
    uint8_t src[3] = {0x61, 0xAF, 'z'};  // 'a', 0xAF, then a byte past the source
    char out[6];
    std::memset(out, 'x', sizeof out);
    EXPECT_EQ(KOLT_buf2HexStrBuf(out, 2, src), 4);
    EXPECT_EQ(std::string(out, 4), "61af");
    EXPECT_EQ(out[4], 'x');     // no terminator
    EXPECT_EQ(src[0], 'A');     // the source byte is upper-cased
    EXPECT_EQ(src[1], 0xAF);
    EXPECT_EQ(src[2], 'z');     // nothing past the n source bytes is touched
}

// ---- BCD packing -----------------------------------------------------------

TEST(Decimal2Bcd, PacksRightAligned) {
    uint8_t out[4];
    std::memset(out, 0xEE, sizeof out);
    EXPECT_EQ(Decimal2BCDBuf(156, out, 2), 2);
    EXPECT_EQ(out[0], 0x01);
    EXPECT_EQ(out[1], 0x56);
    EXPECT_EQ(out[2], 0xEE);
}

TEST(Decimal2Bcd, LeftBytesNotWritten) {
    uint8_t out[4];
    std::memset(out, 0xEE, sizeof out);
    EXPECT_EQ(Decimal2BCDBuf(12345, out, 4), 4);
    EXPECT_EQ(out[0], 0xEE);
    EXPECT_EQ(out[1], 0x01);
    EXPECT_EQ(out[2], 0x23);
    EXPECT_EQ(out[3], 0x45);
}

TEST(Decimal2Bcd, TooWideGivesMinusOne) {
    uint8_t out[2] = {0xEE, 0xEE};
    EXPECT_EQ(Decimal2BCDBuf(12345, out, 2), -1);
    EXPECT_EQ(out[0], 0xEE);
}

TEST(ByteBufToBcd, PacksOddDigitCount) {
    uint8_t out[4];
    std::memset(out, 0xEE, sizeof out);
    EXPECT_EQ(byteBuf2BCDBuf("156", 3, out, 2), 2);
    EXPECT_EQ(out[0], 0x01);
    EXPECT_EQ(out[1], 0x56);
    EXPECT_EQ(out[2], 0xEE);  // nothing written past width
}

TEST(ByteBufToBcd, RightAlignsAndTakesOnlyNCharacters) {
    uint8_t out[6];
    std::memset(out, 0xEE, sizeof out);
    EXPECT_EQ(byteBuf2BCDBuf("000000010000xyz", 12, out, 6), 6);
    EXPECT_EQ(kolt::test::to_hex(out, 6), "000000010000");
    std::memset(out, 0xEE, sizeof out);
    EXPECT_EQ(byteBuf2BCDBuf("0156", 4, out, 3), 3);
    EXPECT_EQ(out[0], 0xEE);
    EXPECT_EQ(out[1], 0x01);
    EXPECT_EQ(out[2], 0x56);
}

TEST(ByteBufToBcd, TooLongGivesMinusOne) {
    uint8_t out[2] = {0xEE, 0xEE};
    EXPECT_EQ(byteBuf2BCDBuf("12345", 5, out, 2), -1);
    EXPECT_EQ(out[0], 0xEE);
}

// ---- KOLT_atoiLen / KOLT_itoa ----------------------------------------------

TEST(AtoiLen, FirstNCharacters) {
    EXPECT_EQ(KOLT_atoiLen("12345", 3), 123);
    EXPECT_EQ(KOLT_atoiLen("  -42x", 5), -42);
    EXPECT_EQ(KOLT_atoiLen("7", 10), 7);
    EXPECT_EQ(KOLT_atoiLen("abc", 3), 0);
    EXPECT_EQ(KOLT_atoiLen("12", 0), 0);
}

TEST(Itoa, Bases) {
    char out[80];
    KOLT_itoa(255, out, 16);
    EXPECT_STREQ(out, "ff");
    KOLT_itoa(255, out, 2);
    EXPECT_STREQ(out, "11111111");
    KOLT_itoa(0, out, 10);
    EXPECT_STREQ(out, "0");
    KOLT_itoa(35, out, 36);
    EXPECT_STREQ(out, "z");
    KOLT_itoa(UINT64_MAX, out, 10);
    EXPECT_STREQ(out, "18446744073709551615");
}

TEST(Itoa, BaseZeroWritesZero) {
    char out[8] = "xxxxxxx";
    KOLT_itoa(12345, out, 0);
    EXPECT_STREQ(out, "0");
}

// ---- search ----------------------------------------------------------------

TEST(StrPos, Codes) {
    EXPECT_EQ(KOLT_strpos("", "abc"), -2);
    EXPECT_EQ(KOLT_strpos("b", ""), -3);
    EXPECT_EQ(KOLT_strpos("z", "abc"), -1);
    EXPECT_EQ(KOLT_strpos("b", "abc"), 1);
    EXPECT_EQ(KOLT_strpos("abc", "abc"), 0);
}

TEST(SubBufPos, Codes) {
    const uint8_t buf[] = {0x10, 0x00, 0x90, 0x00, 0x33};
    const uint8_t sw[] = {0x90, 0x00};
    const uint8_t nul[] = {0x00, 0x33};
    const uint8_t absent[] = {0x90, 0x01};
    EXPECT_EQ(KOLT_SubBufPos(sw, 0, buf, 5), -2);
    EXPECT_EQ(KOLT_SubBufPos(sw, 2, buf, 1), -3);
    EXPECT_EQ(KOLT_SubBufPos(absent, 2, buf, 5), -1);
    EXPECT_EQ(KOLT_SubBufPos(sw, 2, buf, 5), 2);
    EXPECT_EQ(KOLT_SubBufPos(nul, 2, buf, 5), 3);
    EXPECT_EQ(KOLT_SubBufPos(sw, 2, sw, 2), 0);
}

TEST(GetSubStr, Fields) {
    char out[64];
    EXPECT_EQ(KOLT_GetSubStr("a|bb|ccc", out, '|', 1), 0);
    EXPECT_STREQ(out, "a");
    EXPECT_EQ(KOLT_GetSubStr("a|bb|ccc", out, '|', 2), 2);
    EXPECT_STREQ(out, "bb");
    // The last field: no further separator, the whole rest and 0.
    EXPECT_EQ(KOLT_GetSubStr("a|bb|ccc", out, '|', 3), 0);
    EXPECT_STREQ(out, "ccc");
}

TEST(GetSubStr, EmptyAndMissingFields) {
    char out[64];
    EXPECT_EQ(KOLT_GetSubStr("10|2||ABC", out, '|', 3), 5);
    EXPECT_STREQ(out, "");
    EXPECT_EQ(KOLT_GetSubStr("10|2||ABC", out, '|', 4), 0);
    EXPECT_STREQ(out, "ABC");
    std::strcpy(out, "junk");
    EXPECT_EQ(KOLT_GetSubStr("a|b", out, '|', 5), 0);
    EXPECT_STREQ(out, "");
    std::strcpy(out, "junk");
    EXPECT_EQ(KOLT_GetSubStr("a|b", out, '|', 0), 0);
    EXPECT_STREQ(out, "");
}

// ---- KOLT_strreplace -------------------------------------------------------

TEST(StrReplace, RemovesBlanks) {
    char text[64] = " 6225 8812 3456 ";
    EXPECT_EQ(KOLT_strreplace(" ", "", text), 0);
    EXPECT_STREQ(text, "622588123456");
}

TEST(StrReplace, ReplacesEveryOccurrence) {
    char text[64] = "6225D2512D101";
    KOLT_strreplace("D", "=", text);
    EXPECT_STREQ(text, "6225=2512=101");
}

TEST(StrReplace, SearchesFromTheStartAfterEachReplacement) {
    char text[64] = "aaaa";
    KOLT_strreplace("aa", "a", text);
    EXPECT_STREQ(text, "a");  // a left-to-right single pass would leave "aa"
}

TEST(StrReplace, ToContainingFromStillEnds) {
    char text[64] = "aXa";
    KOLT_strreplace("a", "ab", text);
    EXPECT_STREQ(text, "abXab");
}

TEST(StrReplace, WorksOnAtMost1023Characters) {
    std::vector<char> text(1500, 'x');
    text[1499] = 0;
    KOLT_strreplace("y", "z", text.data());
    EXPECT_EQ(std::strlen(text.data()), 1023u);
}

TEST(StrReplace, GrowthStopsAtTheWorkingLimit) {
    std::vector<char> text(2048, 0);
    std::memset(text.data(), 'a', 600);
    KOLT_strreplace("a", "bb", text.data());
    EXPECT_LE(std::strlen(text.data()), 1023u);
}

TEST(ReplaceAll, CppHelper) {
    EXPECT_EQ(kolt::support::replace_all("a'b>c|d", "'", "="), "a=b>c|d");
    EXPECT_EQ(kolt::support::replace_all("x", "", "y"), "x");
}

// ---- digit checks ----------------------------------------------------------

TEST(IsNum, ZeroMeansAllDigits) {
    EXPECT_EQ(KOLT_isNum(reinterpret_cast<const uint8_t*>("0123456789"), 10), 0);
    EXPECT_EQ(KOLT_isNum(reinterpret_cast<const uint8_t*>("12a4"), 4), -1);
    EXPECT_EQ(KOLT_isNum(reinterpret_cast<const uint8_t*>("12a4"), 2), 0);
    EXPECT_EQ(KOLT_isNum(reinterpret_cast<const uint8_t*>(""), 0), 0);
}

TEST(CharIsNum, Sense) {
    EXPECT_EQ(KOLT_CharIsNum('0'), 0);
    EXPECT_EQ(KOLT_CharIsNum('9'), 0);
    EXPECT_EQ(KOLT_CharIsNum(':'), -1);
    EXPECT_EQ(KOLT_CharIsNum('/'), -1);
}

// ---- KOLT_GetRandByte ------------------------------------------------------

TEST(RandByte, ReturnsN) {
    uint8_t out[9] = {0};
    out[8] = 0xEE;
    EXPECT_EQ(KOLT_GetRandByte(out, 8), 8);
    EXPECT_EQ(out[8], 0xEE);
    EXPECT_EQ(KOLT_GetRandByte(out, 0), 0);
}

TEST(RandByte, SameSecondSameBytes) {
    // Seeded from the time in seconds: compare only when both calls surely
    // fell into the same second.
    for (int attempt = 0; attempt < 5; ++attempt) {
        uint8_t a[16], b[16];
        const std::time_t before = std::time(nullptr);
        KOLT_GetRandByte(a, 16);
        KOLT_GetRandByte(b, 16);
        const std::time_t after = std::time(nullptr);
        if (before != after) continue;
        EXPECT_EQ(0, std::memcmp(a, b, 16));
        // And the bytes are those of the platform generator with that seed.
        std::srand(static_cast<unsigned>(before));
        for (int i = 0; i < 16; ++i) EXPECT_EQ(a[i], static_cast<uint8_t>(std::rand() & 0xFF)) << i;
        return;
    }
    GTEST_SKIP() << "the clock kept changing second";
}

// ---- file helpers ----------------------------------------------------------

TEST(FileSize, SizeAndMissing) {
    TempDir dir;
    const auto path = dir.write("f.bin", std::string(1234, 'q'));
    EXPECT_EQ(KOLT_getFileSize(path.c_str()), 1234);
    EXPECT_EQ(KOLT_getFileSize((dir.str() + "/none").c_str()), -1);
}

TEST(CopyFile, CopiesAndReportsFailures) {
    TempDir dir;
    std::string content("\x00\x01zp\xFF", 5);
    const auto src = dir.write("src.bmp", content);
    const auto dst = dir.str() + "/dst.bmp";
    dir.write("dst.bmp", "old content that is longer");
    EXPECT_EQ(KOLT_copyfile(dst.c_str(), src.c_str()), 0);
    EXPECT_EQ(read_file(dst), content);  // created or truncated
    EXPECT_EQ(KOLT_copyfile(dst.c_str(), (dir.str() + "/none").c_str()), -1);
    EXPECT_EQ(KOLT_copyfile((dir.str() + "/no/such/dir/x").c_str(), src.c_str()), -2);
}

TEST(ReadFile2Buf, ReturnsNForAShortFile) {
    TempDir dir;
    const auto path = dir.write("s", "abc");
    uint8_t buf[10];
    std::memset(buf, 0xEE, sizeof buf);
    EXPECT_EQ(KOLT_readFile2Buf(path.c_str(), buf, 8), 8);
    EXPECT_EQ(std::string(buf, buf + 3), "abc");
    EXPECT_EQ(buf[3], 0xEE);
    EXPECT_EQ(KOLT_readFile2Buf(path.c_str(), buf, 2), 2);
    EXPECT_EQ(KOLT_readFile2Buf((dir.str() + "/none").c_str(), buf, 2), -1);
}

TEST(ReadFileToBuf, WholeFile) {
    TempDir dir;
    const auto path = dir.write("w", "hello world");
    uint8_t buf[32] = {0};
    EXPECT_EQ(KOLT_readFileToBuf(path.c_str(), buf), 11);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(buf)), "hello world");
    EXPECT_EQ(KOLT_readFileToBuf((dir.str() + "/none").c_str(), buf), -1);
}

TEST(WriteBuf2File, CreatesNewFile) {
    TempDir dir;
    const auto path = dir.str() + "/zp.bmp";
    const uint8_t data[] = {'B', 'M', 0, 1};
    EXPECT_EQ(KOLT_writeBuf2File(path.c_str(), data, 4), 0);
    EXPECT_EQ(read_file(path), std::string("BM\x00\x01", 4));
}

TEST(WriteBuf2File, RefusesExistingPathAndLeavesItUnchanged) {
    TempDir dir;
    const auto path = dir.write("zp.bmp", "previous");
    const uint8_t data[] = {'n', 'e', 'w'};
    EXPECT_EQ(KOLT_writeBuf2File(path.c_str(), data, 3), -1);
    EXPECT_EQ(read_file(path), "previous");
}

TEST(WriteBuf2File, UncreatablePath) {
    TempDir dir;
    const uint8_t data[] = {1};
    EXPECT_EQ(KOLT_writeBuf2File((dir.str() + "/no/dir/f").c_str(), data, 1), -1);
}

// ---- C++ helpers -----------------------------------------------------------

TEST(HexCpp, Helpers) {
    EXPECT_EQ(kolt::support::to_hex_upper(bytes({0x5A, 0x0F, 0xab})), "5A0FAB");
    EXPECT_EQ(kolt::support::from_hex("9F1A"), bytes({0x9F, 0x1A}));
    EXPECT_EQ(kolt::support::from_hex("ABC"), bytes({0xAB, 0xC0}));
    EXPECT_EQ(kolt::support::hex_value("0:"), 10u);
    EXPECT_EQ(kolt::support::pack_bcd("156"), bytes({0x01, 0x56}));
}
