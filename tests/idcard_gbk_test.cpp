// The identity card's character codes: the GBK <-> UCS-2 tables against the
// C library's iconv and the adjustments file, the converters, the nation and
// verification-result tables, the record conversion and converZh.
#include <gtest/gtest.h>
#include <iconv.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "idcard/gbk.hpp"
#include "kolt/kolt.h"

namespace id = kolt::idcard;

namespace {

std::filesystem::path source_dir() {
    if (const char* d = std::getenv("KOLT_TEST_SOURCE_DIR")) return d;
    return std::filesystem::path(__FILE__).parent_path().parent_path();
}

// One conversion by iconv(3); nullopt when iconv refuses the input.
class Iconv {
public:
    Iconv(const char* to, const char* from) : cd_(iconv_open(to, from)) {
        if (cd_ == reinterpret_cast<iconv_t>(-1)) ADD_FAILURE() << "iconv_open " << from << " -> " << to;
    }
    ~Iconv() {
        if (cd_ != reinterpret_cast<iconv_t>(-1)) iconv_close(cd_);
    }
    Iconv(const Iconv&) = delete;
    Iconv& operator=(const Iconv&) = delete;

    std::optional<std::string> operator()(const std::string& in) {
        iconv(cd_, nullptr, nullptr, nullptr, nullptr);
        std::string src = in;
        std::string dst(in.size() * 4 + 16, '\0');
        char* ip = src.data();
        char* op = dst.data();
        std::size_t il = src.size();
        std::size_t ol = dst.size();
        if (iconv(cd_, &ip, &il, &op, &ol) == static_cast<std::size_t>(-1) || il != 0) return std::nullopt;
        dst.resize(dst.size() - ol);
        return dst;
    }

private:
    iconv_t cd_;
};

std::string gbk(const std::string& utf8) {
    Iconv conv("GB18030", "UTF-8");
    return conv(utf8).value_or("?");
}
std::string utf8_of_gbk(const std::string& g) {
    Iconv conv("UTF-8", "GB18030");
    return conv(g).value_or("?");
}
std::vector<uint8_t> ucs2le(const std::string& utf8) {
    Iconv conv("UCS-2LE", "UTF-8");
    const std::string s = conv(utf8).value_or("");
    return {s.begin(), s.end()};
}
std::vector<uint8_t> bytes(const std::string& s) { return {s.begin(), s.end()}; }

// The pairs of the adjustments file.
std::map<int32_t, int32_t> overrides() {
    std::ifstream in(source_dir() / "src" / "idcard" / "data" / "gb18030_2005_overrides.txt");
    EXPECT_TRUE(in.good());
    std::map<int32_t, int32_t> pairs;
    std::string line;
    while (std::getline(in, line)) {
        line = line.substr(0, line.find('#'));
        std::istringstream fields(line);
        std::string g;
        std::string u;
        if (!(fields >> g >> u)) continue;
        pairs[static_cast<int32_t>(std::stol(g, nullptr, 16))] = static_cast<int32_t>(std::stol(u, nullptr, 16));
    }
    return pairs;
}

std::vector<int32_t> all_codes() {
    std::vector<int32_t> codes;
    for (int32_t c = 0; c < 0x80; ++c) codes.push_back(c);
    for (int32_t lead = 0x81; lead <= 0xFE; ++lead)
        for (int32_t trail = 0x40; trail <= 0xFE; ++trail)
            if (trail != 0x7F) codes.push_back((lead << 8) | trail);
    return codes;
}

// Binary search in a sorted column, as the tables were searched before the
// direct index.
int32_t binary(const int32_t* keys, const int32_t* values, int32_t key) {
    const int32_t* end = keys + id::kPairCount;
    const int32_t* it = std::lower_bound(keys, end, key);
    return it != end && *it == key ? values[it - keys] : -1;
}

}  // namespace

TEST(IdcardGbkTable, EveryPairIsIconvOrTheAdjustmentsFile) {
    const auto adjust = overrides();
    EXPECT_EQ(adjust.size(), 27u);
    Iconv conv("UTF-32BE", "GB18030");
    const auto codes = all_codes();
    ASSERT_EQ(codes.size(), static_cast<std::size_t>(id::kPairCount));
    int differing = 0;
    for (std::size_t i = 0; i < codes.size(); ++i) {
        const int32_t code = codes[i];
        std::string in;
        if (code > 0xFF) in += static_cast<char>(code >> 8);
        in += static_cast<char>(code & 0xFF);
        const auto out = conv(in);
        ASSERT_TRUE(out && out->size() == 4) << std::hex << code;
        const auto* p = reinterpret_cast<const uint8_t*>(out->data());
        const int32_t from_iconv = static_cast<int32_t>((p[0] << 24) | (p[1] << 16) | (p[2] << 8) | p[3]);
        const auto adjusted = adjust.find(code);
        const int32_t expected = adjusted != adjust.end() ? adjusted->second : from_iconv;
        if (expected != from_iconv) ++differing;
        EXPECT_EQ(id::search_uni(code), expected) << std::hex << code;
        EXPECT_EQ(id::search_gb(expected), code) << std::hex << code;
        EXPECT_EQ(id::table::gbsort[i], code);
        EXPECT_EQ(id::table::unisortbygb[i], expected) << std::hex << code;
    }
    EXPECT_EQ(differing, 27);
}

TEST(IdcardGbkTable, SortedColumnsOneToOneBothWays) {
    using namespace id::table;
    std::set<int32_t> codes;
    std::set<int32_t> values;
    for (int i = 0; i < id::kPairCount; ++i) {
        if (i > 0) {
            EXPECT_LT(uni[i - 1], uni[i]) << i;
            EXPECT_LT(gbsort[i - 1], gbsort[i]) << i;
        }
        EXPECT_GE(uni[i], 0);
        EXPECT_LE(uni[i], 0xFFFF);
        codes.insert(gb[i]);
        values.insert(unisortbygb[i]);
        // The two orderings hold the same pairs.
        EXPECT_EQ(binary(gbsort, unisortbygb, gb[i]), uni[i]);
    }
    EXPECT_EQ(codes.size(), static_cast<std::size_t>(id::kPairCount));
    EXPECT_EQ(values.size(), static_cast<std::size_t>(id::kPairCount));
}

TEST(IdcardGbkTable, LookupsGiveWhatBinarySearchGives) {
    using namespace id::table;
    for (int32_t v = -2; v <= 0x10001; ++v) {
        ASSERT_EQ(id::search_gb(v), binary(uni, gb, v)) << v;
        ASSERT_EQ(id::search_uni(v), binary(gbsort, unisortbygb, v)) << v;
        ASSERT_EQ(searchgb(v), id::search_gb(v));
        ASSERT_EQ(searchuni(v), id::search_uni(v));
    }
    EXPECT_EQ(searchgb(INT32_MIN), -1);
    EXPECT_EQ(searchuni(INT32_MAX), -1);
}

TEST(IdcardGbkTable, SpotValues) {
    const std::pair<int32_t, int32_t> pairs[] = {
        {0x41, 0x41},       {0xA2E3, 0x20AC}, {0xA8BC, 0x1E3F}, {0xA8BF, 0x01F9}, {0xAAA1, 0x3405},
        {0xAAA2, 0x3428},   {0xAAA3, 0x3435}, {0xAAA4, 0xE003}, {0xACDB, 0xE0F6}, {0xF8DC, 0xE26F},
        {0xA140, 0xE4C6},   {0xA7A0, 0xE765}, {0xF8A1, 0xE234}, {0xFEFE, 0xE4C5}, {0xFE50, 0x2E81},
        {0xB0A1, 0x554A},   {0xA6D9, 0xE78D}, {0xA6DA, 0xE78E}, {0xA6DB, 0xE78F}, {0xA6DC, 0xE790},
        {0xA6DD, 0xE791},   {0xA6DE, 0xE792}, {0xA6DF, 0xE793}, {0xA6EC, 0xE794}, {0xA6ED, 0xE795},
        {0xA6F3, 0xE796},   {0xFE51, 0xE816}, {0xFE52, 0xE817}, {0xFE53, 0xE818}, {0xFE59, 0xE81E},
        {0xFE61, 0xE826},   {0xFE66, 0xE82B}, {0xFE67, 0xE82C}, {0xFE6C, 0xE831}, {0xFE6D, 0xE832},
        {0xFE76, 0xE83B},   {0xFE7E, 0xE843}, {0xFE90, 0xE854}, {0xFE91, 0xE855}, {0xFEA0, 0xE864},
    };
    for (const auto& [g, u] : pairs) {
        EXPECT_EQ(searchuni(g), u) << std::hex << g;
        EXPECT_EQ(searchgb(u), g) << std::hex << u;
    }
    // What the 2022 revision maps these codes to is not in the table.
    for (int32_t u : {0xFE10, 0xFE19, 0x9FB4, 0x9FBB, 0xE000, 0xE001, 0xE002}) EXPECT_EQ(searchgb(u), -1) << u;
    EXPECT_EQ(searchuni(0x80), -1);
    EXPECT_EQ(searchuni(0x8130), -1);
    EXPECT_EQ(searchuni(0xFF40), -1);
}

TEST(IdcardGbkConvert, OddLengthGivesMinusOneAndWritesNothing) {
    const uint8_t in[3] = {0x41, 0x00, 0x42};
    char out[8];
    uint8_t uout[8];
    std::memset(out, 'x', sizeof out);
    std::memset(uout, 0xEE, sizeof uout);
    EXPECT_EQ(KOLT_idInfoConvert2gb(in, 3, out), -1);
    EXPECT_EQ(convert2gb(in, 3, out), -1);
    EXPECT_EQ(convert2uni(in, 3, uout), -1);
    EXPECT_EQ(KOLT_idInfoConvert2gb(in, -2, out), -1);
    for (char c : out) EXPECT_EQ(c, 'x');
    for (uint8_t b : uout) EXPECT_EQ(b, 0xEE);
    EXPECT_FALSE(id::ucs2le_to_gbk_pairs(std::span<const uint8_t>(in, 3)));
    EXPECT_FALSE(id::ucs2be_to_gbk_pairs(std::span<const uint8_t>(in, 3)));
    EXPECT_FALSE(id::gbk_units_to_ucs2be(std::span<const uint8_t>(in, 3)));
    // field_text drops the odd byte.
    EXPECT_EQ(id::field_text(std::span<const uint8_t>(in, 3)), "A");
}

TEST(IdcardGbkConvert, AsciiAsBlankAndCharacter) {
    const uint8_t le[2] = {0x41, 0x00};
    const uint8_t be[2] = {0x00, 0x41};
    char out[3] = {0, 0, 'x'};
    EXPECT_EQ(KOLT_idInfoConvert2gb(le, 2, out), 0);
    EXPECT_EQ(std::string(out, 3), std::string(" A") + 'x');  // no terminator
    std::memset(out, 0, sizeof out);
    EXPECT_EQ(convert2gb(be, 2, out), 0);
    EXPECT_EQ(std::string(out, 2), " A");
    EXPECT_EQ(id::field_text(le), "A");
    EXPECT_EQ(id::field_text(ucs2le(" 12 3 ")), "123");
}

TEST(IdcardGbkConvert, MixedText) {
    const auto in = ucs2le("王A小\xE2\x82\xAC");  // 王A小€
    const auto pairs = id::ucs2le_to_gbk_pairs(in);
    ASSERT_TRUE(pairs);
    EXPECT_EQ(*pairs, gbk("王") + " A" + gbk("小") + "\xA2\xE3");
    EXPECT_EQ(id::field_text(in), gbk("王A小") + "\xA2\xE3");
    // Big-endian units, the same text.
    std::vector<uint8_t> be = in;
    for (std::size_t i = 0; i < be.size(); i += 2) std::swap(be[i], be[i + 1]);
    EXPECT_EQ(*id::ucs2be_to_gbk_pairs(be), *pairs);
    // GBK back to both UCS-2 forms.
    EXPECT_EQ(id::gbk_to_ucs2le(bytes(gbk("王A小"))), ucs2le("王A小"));
    const std::string units = gbk("王小");
    std::vector<uint8_t> expected_be = ucs2le("王小");
    for (std::size_t i = 0; i < expected_be.size(); i += 2) std::swap(expected_be[i], expected_be[i + 1]);
    EXPECT_EQ(*id::gbk_units_to_ucs2be(bytes(units)), expected_be);
}

TEST(IdcardGbkConvert, ExtensionANameBothWaysWithoutLoss) {
    // 李㐅明: U+3405 is GBK 0xAAA1 on the card.
    const auto name = ucs2le("李\xE3\x90\x85明");
    ASSERT_EQ(name.size(), 6u);
    std::string out(6, '\0');
    ASSERT_EQ(KOLT_idInfoConvert2gb(name.data(), 6, out.data()), 0);
    EXPECT_EQ(out, gbk("李") + "\xAA\xA1" + gbk("明"));
    std::vector<uint8_t> back(12, 0xEE);
    EXPECT_EQ(KOLT_gbConvert2idUni(out.data(), 6, back.data()), 6);
    back.resize(6);
    EXPECT_EQ(back, name);
    std::vector<uint8_t> be(6);
    ASSERT_EQ(convert2uni(reinterpret_cast<const uint8_t*>(out.data()), 6, be.data()), 0);
    EXPECT_EQ(be, (std::vector<uint8_t>{0x67, 0x4E, 0x34, 0x05, 0x66, 0x0E}));
    EXPECT_EQ(convert2gb(be.data(), 6, out.data()), 0);
    EXPECT_EQ(out, gbk("李") + "\xAA\xA1" + gbk("明"));
}

TEST(IdcardGbkConvert, UnmappedUnits) {
    // U+FFFF and a lone surrogate have no GBK code.
    const uint8_t le[4] = {0xFF, 0xFF, 0x00, 0xD8};
    char out[4];
    EXPECT_EQ(KOLT_idInfoConvert2gb(le, 4, out), 0);
    EXPECT_EQ(std::string(out, 4), "****");
    // 0x8130 and 0x4142 are no two-byte codes: 00 FF each.
    const uint8_t units[4] = {0x81, 0x30, 0x41, 0x42};
    uint8_t uout[4];
    EXPECT_EQ(convert2uni(units, 4, uout), 0);
    EXPECT_EQ(std::vector<uint8_t>(uout, uout + 4), (std::vector<uint8_t>{0x00, 0xFF, 0x00, 0xFF}));
    // In mixed text: FF 00.
    EXPECT_EQ(id::gbk_to_ucs2le(bytes("\x81\x30" "B")), (std::vector<uint8_t>{0xFF, 0x00, 0x42, 0x00}));
    EXPECT_EQ(id::gbk_to_ucs2le(bytes("\x80\x80")), (std::vector<uint8_t>{0xFF, 0x00}));
}

TEST(IdcardGbkConvert, TrailingLeadByteReadsTrailZero) {
    // The lead byte is the last byte of an exactly sized block: no read past it.
    auto* in = static_cast<char*>(std::malloc(2));
    in[0] = 'A';
    in[1] = '\xB0';
    uint8_t out[4] = {0xEE, 0xEE, 0xEE, 0xEE};
    EXPECT_EQ(KOLT_gbConvert2idUni(in, 2, out), 4);
    EXPECT_EQ(std::vector<uint8_t>(out, out + 4), (std::vector<uint8_t>{0x41, 0x00, 0xFF, 0x00}));
    std::free(in);
    EXPECT_EQ(id::gbk_to_ucs2le(bytes("\xB0")), (std::vector<uint8_t>{0xFF, 0x00}));
}

TEST(IdcardGbkConvert, NullArguments) {
    char out[8];  // the code outputs are cleared on 8 bytes
    uint8_t uout[4];
    EXPECT_EQ(KOLT_idInfoConvert2gb(nullptr, 2, out), -1);
    EXPECT_EQ(convert2gb(nullptr, 2, out), -1);
    EXPECT_EQ(convert2uni(nullptr, 2, uout), -1);
    const uint8_t in[2] = {0x41, 0x00};
    EXPECT_EQ(KOLT_idInfoConvert2gb(in, 2, nullptr), -1);
    EXPECT_EQ(convert2uni(in, 2, nullptr), -1);
    EXPECT_EQ(KOLT_idInfoConvert2gb(nullptr, 0, out), 0);
    EXPECT_EQ(KOLT_gbConvert2idUni(nullptr, 4, uout), -1);
    EXPECT_EQ(KOLT_gbConvert2idUni("A", 1, nullptr), -1);
    EXPECT_EQ(KOLT_gbConvert2idUni(nullptr, 0, nullptr), 0);
    EXPECT_EQ(KOLT_getNationCode(nullptr, out), -1);
    EXPECT_EQ(KOLT_getNationCode("", nullptr), -1);
    EXPECT_EQ(KOLT_getCheckResultCode(nullptr, nullptr), 0);
    EXPECT_EQ(idCovToGBK(nullptr, out), -1);
    EXPECT_EQ(converZh(nullptr, uout), -1);
}

TEST(IdcardGbkConvert, ChineseHighByte) {
    EXPECT_EQ(isChineseHighByte(127), 0);
    EXPECT_EQ(isChineseHighByte(128), 1);
    EXPECT_EQ(isChineseHighByte(0xFE), 1);
    EXPECT_EQ(isChineseHighByte(-1), 0);
}

TEST(IdcardNation, TablesAreTheGbkNames) {
    const std::map<int, std::string> names = {
        {1, "汉"},      {2, "蒙古"},   {3, "回"},      {4, "藏"},      {5, "维吾尔"},  {6, "苗"},
        {7, "彝"},      {8, "壮"},     {9, "布依"},    {10, "朝鲜"},   {11, "满"},     {12, "侗"},
        {13, "瑶"},     {14, "白"},    {15, "土家"},   {16, "哈尼"},   {17, "哈萨克"}, {18, "傣"},
        {19, "黎"},     {20, "傈僳"},  {21, "佤"},     {22, "畲"},     {23, "高山"},   {24, "拉祜"},
        {25, "水"},     {26, "东乡"},  {27, "纳西"},   {28, "景颇"},   {29, "柯尔"},   {30, "土"},
        {31, "达斡尔"}, {32, "仫佬"},  {33, "羌"},     {34, "布朗"},   {35, "撒拉"},   {36, "毛南"},
        {37, "仡佬"},   {38, "锡伯"},  {39, "阿昌"},   {40, "普米"},   {41, "塔吉克"}, {42, "怒"},
        {43, "乌孜别克"}, {44, "俄罗斯"}, {45, "鄂温克"}, {46, "德昂"}, {47, "保安"},   {48, "裕固"},
        {49, "京"},     {50, "塔塔尔"}, {51, "独龙"},  {52, "鄂伦春"}, {53, "赫哲"},   {54, "门巴"},
        {55, "珞巴"},   {56, "基诺"},  {97, "其他"},   {98, "外国血统"},
    };
    for (int code = 0; code < 99; ++code) {
        const auto it = names.find(code);
        const std::string expected = it == names.end() ? "" : it->second;
        EXPECT_EQ(utf8_of_gbk(id::nationtablejh[code]), expected) << code;
        if (code != 59 && code != 60) {
            EXPECT_EQ(utf8_of_gbk(id::nationtable[code]), expected) << code;
        }
    }
    EXPECT_EQ(utf8_of_gbk(id::nationtable[59]), "穿青人");
    // 0xF8DC is in the user-defined area: U+E26F.
    EXPECT_EQ(std::string(id::nationtable[60]), "\xF8\xDC" + gbk("家人"));
    EXPECT_EQ(utf8_of_gbk(id::nationtable[60]), "\xEE\x89\xAF" "家人");
    EXPECT_EQ(id::nation_name(60), id::nationtable[60]);
    EXPECT_EQ(id::nation_name(99), "");
    EXPECT_EQ(id::nation_name(-1), "");
}

TEST(IdcardNation, NationCode) {
    char code[8];
    std::memset(code, 'x', sizeof code);
    EXPECT_EQ(KOLT_getNationCode("", code), 0);
    EXPECT_EQ(std::string(code, 8), std::string("00\0\0\0\0\0\0", 8));
    EXPECT_EQ(KOLT_getNationCode(gbk("汉").c_str(), code), 0);
    EXPECT_STREQ(code, "01");
    EXPECT_EQ(KOLT_getNationCode(gbk("基诺").c_str(), code), 0);
    EXPECT_STREQ(code, "56");
    EXPECT_EQ(KOLT_getNationCode(gbk("外国血统").c_str(), code), 0);
    EXPECT_STREQ(code, "98");
    // Codes 59 and 60 exist only in nationtable.
    std::memset(code, 'x', sizeof code);
    EXPECT_EQ(KOLT_getNationCode(gbk("穿青人").c_str(), code), -1);
    EXPECT_EQ(std::string(code, 8), std::string(8, '\0'));
    EXPECT_EQ(KOLT_getNationCode(id::nationtable[60], code), -1);
    EXPECT_EQ(KOLT_getNationCode(gbk("柯尔克孜").c_str(), code), -1);
    EXPECT_EQ(id::nation_code(gbk("柯尔")), 29);
}

TEST(IdcardNation, CheckResultCode) {
    const char* texts[] = {"公民身份证号码与姓名一致，且存在照片", "公民身份证号码与姓名一致，但不存在照片",
                           "公民身份证号码存在，与姓名匹配", "公民身份号码不存在", "其他错误"};
    char code[8];
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(std::string(id::checkresulttable[i]), gbk(texts[i])) << i;
        std::memset(code, 'x', sizeof code);
        EXPECT_EQ(KOLT_getCheckResultCode(gbk(texts[i]).c_str(), code), 0);
        EXPECT_EQ(std::string(code, 8), std::string("0") + char('0' + i) + std::string(6, '\0'));
    }
    EXPECT_EQ(KOLT_getCheckResultCode("unknown", code), 0);
    EXPECT_STREQ(code, "04");
    // The comma is the full-width one.
    EXPECT_EQ(KOLT_getCheckResultCode(gbk("公民身份证号码存在,与姓名匹配").c_str(), code), 0);
    EXPECT_STREQ(code, "04");
}

namespace {

// One field of a raw record: UCS-2LE, padded with blanks to size bytes.
void put_field(std::vector<uint8_t>& record, const std::string& utf8, std::size_t size) {
    auto f = ucs2le(utf8);
    EXPECT_LE(f.size(), size);
    while (f.size() < size) {
        f.push_back(0x20);
        f.push_back(0x00);
    }
    record.insert(record.end(), f.begin(), f.begin() + static_cast<std::ptrdiff_t>(size));
}

std::vector<uint8_t> raw_record(const std::string& name, const std::string& sex, const std::string& nation,
                                const std::string& address) {
    std::vector<uint8_t> r;
    put_field(r, name, 30);
    put_field(r, sex, 2);
    put_field(r, nation, 4);
    put_field(r, "19800101", 16);
    put_field(r, address, 70);
    put_field(r, "11010119800101123X", 36);
    put_field(r, "北京市公安局西城分局", 30);
    put_field(r, "20100101", 16);
    put_field(r, "长期", 16);
    EXPECT_EQ(r.size(), id::kRawRecordSize);
    r.resize(256, 0);
    return r;
}

}  // namespace

TEST(IdcardRecord, IdCovToGbk) {
    const auto raw = raw_record("张三", "1", "01", "北京市西城区某某街道 12 号");
    char out[KOLT_IDCOV_TEXT_MAX];
    std::memset(out, 'x', sizeof out);
    EXPECT_EQ(idCovToGBK(raw.data(), out), 0);
    EXPECT_EQ(std::string(out), gbk("张三:男:汉:19800101:北京市西城区某某街道12号:11010119800101123X:"
                                    "北京市公安局西城分局:20100101-长期"));
    const auto& info = id::id_card_info();
    EXPECT_EQ(std::string(info.name), gbk("张三"));
    EXPECT_EQ(std::string(info.sex), gbk("男"));
    EXPECT_EQ(std::string(info.number), "11010119800101123X");
    EXPECT_EQ(std::string(info.valid_to), gbk("长期"));
}

TEST(IdcardRecord, SexNationAndUserDefinedCode) {
    char out[KOLT_IDCOV_TEXT_MAX];
    EXPECT_EQ(idCovToGBK(raw_record("李\xE3\x90\x85", "2", "60", "").data(), out), 0);
    EXPECT_EQ(std::string(out), gbk("李") + "\xAA\xA1" + gbk(":女:") + id::nationtable[60] +
                                    gbk(":19800101::11010119800101123X:北京市公安局西城分局:20100101-长期"));
    EXPECT_EQ(idCovToGBK(raw_record("A", "9", "99", "").data(), out), 0);
    EXPECT_EQ(std::string(out), gbk("A:女::19800101::11010119800101123X:北京市公安局西城分局:20100101-长期"));
    EXPECT_EQ(idCovToGBK(raw_record("A", "1", "59", "").data(), out), 0);
    EXPECT_EQ(std::string(out), gbk("A:男:穿青人:19800101::11010119800101123X:北京市公安局西城分局:20100101-长期"));
    id::reset();
    EXPECT_EQ(id::id_card_info().name[0], '\0');
}

TEST(IdcardRecord, LongestLineFitsTheRoom) {
    // Every field full of two-byte characters, nation 98.
    std::vector<uint8_t> raw;
    std::string han;
    for (int i = 0; i < 35; ++i) han += "中";
    put_field(raw, han.substr(0, 15 * 3), 30);
    put_field(raw, "1", 2);
    put_field(raw, "98", 4);
    put_field(raw, han.substr(0, 8 * 3), 16);
    put_field(raw, han, 70);
    put_field(raw, han.substr(0, 18 * 3), 36);
    put_field(raw, han.substr(0, 15 * 3), 30);
    put_field(raw, han.substr(0, 8 * 3), 16);
    put_field(raw, han.substr(0, 8 * 3), 16);
    const std::string line = id::id_cov_to_gbk(raw);
    EXPECT_LE(line.size() + 1, static_cast<std::size_t>(KOLT_IDCOV_TEXT_MAX));
    EXPECT_EQ(line.size(), id::kIdCovTextMax);
    // The birth date slot holds 8 bytes: four characters, none split.
    EXPECT_EQ(std::string(id::id_card_info().birth), gbk("中中中中"));
}

TEST(IdcardConverZh, FoundAndNotFound) {
    uint8_t out[2] = {0, 0};
    testing::internal::CaptureStdout();
    EXPECT_EQ(converZh("554A", out), -1);  // no table loaded
    std::fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), gbk("没有找到相应的gbk编码"));

    id::set_ug_table("A2E320AC" "D2BB4E00" "B0A1554A" "BABA6C49" "12");  // a partial record is ignored
    EXPECT_EQ(converZh("6c49", out), 1);
    EXPECT_EQ(out[0], 0xBA);
    EXPECT_EQ(out[1], 0xBA);
    EXPECT_EQ(converZh("4E00", out), 1);
    EXPECT_EQ(out[0], 0xD2);
    EXPECT_EQ(out[1], 0xBB);
    EXPECT_EQ(converZh("20ac", out), 1);
    EXPECT_EQ(out[0], 0xA2);
    EXPECT_EQ(out[1], 0xE3);
    EXPECT_EQ(converZh("554AFFFF", out), 1);  // only four characters are read
    EXPECT_EQ(out[0], 0xB0);
    EXPECT_EQ(out[1], 0xA1);

    testing::internal::CaptureStdout();
    EXPECT_EQ(converZh("FFFF", out), -1);
    EXPECT_EQ(converZh("55", out), -1);
    std::fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), gbk("没有找到相应的gbk编码没有找到相应的gbk编码"));
}
