// The nation and verification-result tables (GBK), the card text record's
// short conversion with the module's record, and converZh's table.
#include <algorithm>
#include <array>
#include <cctype>
#include <cstdlib>
#include <cstring>

#include "idcard/gbk.hpp"

namespace kolt::idcard {

namespace {

// The names by two-digit code, "" where a code has none; with_recent adds
// the two names of codes 59 and 60 that only nationtable carries. 29 keeps
// its two characters on purpose (teller applications compare the short
// name); 60 starts with the user-defined code 0xF8DC (U+E26F).
constexpr std::array<const char*, 99> nation_names(bool with_recent) {
    std::array<const char*, 99> a{};
    for (auto& name : a) name = "";
    a[1] = "\xBA\xBA";  // 汉
    a[2] = "\xC3\xC9\xB9\xC5";  // 蒙古
    a[3] = "\xBB\xD8";  // 回
    a[4] = "\xB2\xD8";  // 藏
    a[5] = "\xCE\xAC\xCE\xE1\xB6\xFB";  // 维吾尔
    a[6] = "\xC3\xE7";  // 苗
    a[7] = "\xD2\xCD";  // 彝
    a[8] = "\xD7\xB3";  // 壮
    a[9] = "\xB2\xBC\xD2\xC0";  // 布依
    a[10] = "\xB3\xAF\xCF\xCA";  // 朝鲜
    a[11] = "\xC2\xFA";  // 满
    a[12] = "\xB6\xB1";  // 侗
    a[13] = "\xD1\xFE";  // 瑶
    a[14] = "\xB0\xD7";  // 白
    a[15] = "\xCD\xC1\xBC\xD2";  // 土家
    a[16] = "\xB9\xFE\xC4\xE1";  // 哈尼
    a[17] = "\xB9\xFE\xC8\xF8\xBF\xCB";  // 哈萨克
    a[18] = "\xB4\xF6";  // 傣
    a[19] = "\xC0\xE8";  // 黎
    a[20] = "\xC0\xFC\xCB\xDB";  // 傈僳
    a[21] = "\xD8\xF4";  // 佤
    a[22] = "\xEE\xB4";  // 畲
    a[23] = "\xB8\xDF\xC9\xBD";  // 高山
    a[24] = "\xC0\xAD\xEC\xEF";  // 拉祜
    a[25] = "\xCB\xAE";  // 水
    a[26] = "\xB6\xAB\xCF\xE7";  // 东乡
    a[27] = "\xC4\xC9\xCE\xF7";  // 纳西
    a[28] = "\xBE\xB0\xC6\xC4";  // 景颇
    a[29] = "\xBF\xC2\xB6\xFB";  // 柯尔
    a[30] = "\xCD\xC1";  // 土
    a[31] = "\xB4\xEF\xCE\xD3\xB6\xFB";  // 达斡尔
    a[32] = "\xD8\xEF\xC0\xD0";  // 仫佬
    a[33] = "\xC7\xBC";  // 羌
    a[34] = "\xB2\xBC\xC0\xCA";  // 布朗
    a[35] = "\xC8\xF6\xC0\xAD";  // 撒拉
    a[36] = "\xC3\xAB\xC4\xCF";  // 毛南
    a[37] = "\xD8\xEE\xC0\xD0";  // 仡佬
    a[38] = "\xCE\xFD\xB2\xAE";  // 锡伯
    a[39] = "\xB0\xA2\xB2\xFD";  // 阿昌
    a[40] = "\xC6\xD5\xC3\xD7";  // 普米
    a[41] = "\xCB\xFE\xBC\xAA\xBF\xCB";  // 塔吉克
    a[42] = "\xC5\xAD";  // 怒
    a[43] = "\xCE\xDA\xD7\xCE\xB1\xF0\xBF\xCB";  // 乌孜别克
    a[44] = "\xB6\xED\xC2\xDE\xCB\xB9";  // 俄罗斯
    a[45] = "\xB6\xF5\xCE\xC2\xBF\xCB";  // 鄂温克
    a[46] = "\xB5\xC2\xB0\xBA";  // 德昂
    a[47] = "\xB1\xA3\xB0\xB2";  // 保安
    a[48] = "\xD4\xA3\xB9\xCC";  // 裕固
    a[49] = "\xBE\xA9";  // 京
    a[50] = "\xCB\xFE\xCB\xFE\xB6\xFB";  // 塔塔尔
    a[51] = "\xB6\xC0\xC1\xFA";  // 独龙
    a[52] = "\xB6\xF5\xC2\xD7\xB4\xBA";  // 鄂伦春
    a[53] = "\xBA\xD5\xD5\xDC";  // 赫哲
    a[54] = "\xC3\xC5\xB0\xCD";  // 门巴
    a[55] = "\xE7\xF3\xB0\xCD";  // 珞巴
    a[56] = "\xBB\xF9\xC5\xB5";  // 基诺
    a[97] = "\xC6\xE4\xCB\xFB";  // 其他
    a[98] = "\xCD\xE2\xB9\xFA\xD1\xAA\xCD\xB3";  // 外国血统
    if (with_recent) {
        a[59] = "\xB4\xA9\xC7\xE0\xC8\xCB";  // 穿青人
        a[60] = "\xF8\xDC\xBC\xD2\xC8\xCB";  // (0xF8DC)家人
    }
    return a;
}

}  // namespace

const std::array<const char*, 99> nationtable = nation_names(true);
const std::array<const char*, 99> nationtablejh = nation_names(false);


const char* const checkresulttable[5] = {
    // 公民身份证号码与姓名一致，且存在照片
    "\xB9\xAB\xC3\xF1\xC9\xED\xB7\xDD\xD6\xA4\xBA\xC5\xC2\xEB\xD3\xEB\xD0\xD5\xC3\xFB\xD2\xBB\xD6\xC2\xA3\xAC\xC7\xD2"
    "\xB4\xE6\xD4\xDA\xD5\xD5\xC6\xAC",
    // 公民身份证号码与姓名一致，但不存在照片
    "\xB9\xAB\xC3\xF1\xC9\xED\xB7\xDD\xD6\xA4\xBA\xC5\xC2\xEB\xD3\xEB\xD0\xD5\xC3\xFB\xD2\xBB\xD6\xC2\xA3\xAC\xB5\xAB"
    "\xB2\xBB\xB4\xE6\xD4\xDA\xD5\xD5\xC6\xAC",
    // 公民身份证号码存在，与姓名匹配
    "\xB9\xAB\xC3\xF1\xC9\xED\xB7\xDD\xD6\xA4\xBA\xC5\xC2\xEB\xB4\xE6\xD4\xDA\xA3\xAC\xD3\xEB\xD0\xD5\xC3\xFB\xC6\xA5"
    "\xC5\xE4",
    // 公民身份号码不存在
    "\xB9\xAB\xC3\xF1\xC9\xED\xB7\xDD\xBA\xC5\xC2\xEB\xB2\xBB\xB4\xE6\xD4\xDA",
    // 其他错误
    "\xC6\xE4\xCB\xFB\xB4\xED\xCE\xF3",
};

std::string_view nation_name(int code) { return code >= 0 && code < 99 ? nationtable[code] : std::string_view(); }

int32_t nation_code(std::string_view name) {
    for (int32_t i = 0; i < 99; ++i)
        if (name == nationtablejh[i]) return i;
    return -1;
}

int32_t check_result_code(std::string_view text) {
    for (int32_t i = 0; i < 4; ++i)
        if (text == checkresulttable[i]) return i;
    return 4;
}

namespace {

// 男, 女
constexpr std::string_view kMale = "\xC4\xD0";
constexpr std::string_view kFemale = "\xC5\xAE";

// The record of the last id_cov_to_gbk.
IdCardInfo idcardInfo{};

// converZh's table as loaded by the caller's side (set_ug_table): the
// records and their size in bytes.
std::string ugstart;
std::size_t ugtablestat = 0;

// The text up to its first zero byte.
std::string_view c_text(const std::string& s) { return std::string_view(s.c_str()); }

// Stores text into a slot with its terminator, cut so that it fits without
// splitting a two-byte code.
template <std::size_t N>
void store(char (&slot)[N], std::string_view text) {
    std::size_t n = 0;
    while (n < text.size()) {
        const bool lead = static_cast<uint8_t>(text[n]) > 127;
        const std::size_t step = lead ? std::min<std::size_t>(2, text.size() - n) : 1;
        if (n + step > N - 1) break;
        n += step;
    }
    if (n > 0) std::memcpy(slot, text.data(), n);
    slot[n] = '\0';
}

// The next field of the raw record (cut at its end).
std::span<const uint8_t> take(std::span<const uint8_t> record, std::size_t& pos, std::size_t size) {
    const std::size_t start = std::min(pos, record.size());
    const std::size_t n = std::min(size, record.size() - start);
    pos += size;
    return record.subspan(start, n);
}

uint8_t nibble(char c) {
    if (c >= '0' && c <= '9') return static_cast<uint8_t>(c - '0');
    if (c >= 'A' && c <= 'F') return static_cast<uint8_t>(c - 'A' + 10);
    if (c >= 'a' && c <= 'f') return static_cast<uint8_t>(c - 'a' + 10);
    return 0;
}

}  // namespace

std::string id_cov_to_gbk(std::span<const uint8_t> record) {
    idcardInfo = IdCardInfo{};
    std::size_t pos = 0;
    const std::string name = field_text(take(record, pos, 30));
    const std::string sex = field_text(take(record, pos, 2));
    const std::string nation = field_text(take(record, pos, 4));
    const std::string birth = field_text(take(record, pos, 16));
    const std::string address = field_text(take(record, pos, 70));
    const std::string number = field_text(take(record, pos, 36));
    const std::string authority = field_text(take(record, pos, 30));
    const std::string from = field_text(take(record, pos, 16));
    const std::string to = field_text(take(record, pos, 16));

    store(idcardInfo.name, c_text(name));
    store(idcardInfo.sex, c_text(sex) == "1" ? kMale : kFemale);
    store(idcardInfo.nation, nation_name(std::atoi(nation.c_str())));
    store(idcardInfo.birth, c_text(birth));
    store(idcardInfo.address, c_text(address));
    store(idcardInfo.number, c_text(number));
    store(idcardInfo.authority, c_text(authority));
    store(idcardInfo.valid_from, c_text(from));
    store(idcardInfo.valid_to, c_text(to));

    const IdCardInfo& r = idcardInfo;
    std::string line;
    line.reserve(kIdCovTextMax);
    for (const char* field : {r.name, r.sex, r.nation, r.birth, r.address, r.number, r.authority}) {
        line += field;
        line += ':';
    }
    line += r.valid_from;
    line += '-';
    line += r.valid_to;
    return line;
}

const IdCardInfo& id_card_info() { return idcardInfo; }

std::optional<std::array<uint8_t, 2>> conver_zh(std::string_view hex4) {
    char key[4] = {0, 0, 0, 0};
    for (std::size_t i = 0; i < 4 && i < hex4.size(); ++i)
        key[i] = static_cast<char>(std::toupper(static_cast<unsigned char>(hex4[i])));
    const std::size_t count = ugtablestat / 8;
    std::size_t lo = 0;
    std::size_t hi = count;
    while (lo < hi) {
        const std::size_t mid = lo + (hi - lo) / 2;
        const char* rec = ugstart.data() + mid * 8;
        const int cmp = std::memcmp(rec + 4, key, 4);
        if (cmp == 0) {
            return std::array<uint8_t, 2>{static_cast<uint8_t>((nibble(rec[0]) << 4) | nibble(rec[1])),
                                          static_cast<uint8_t>((nibble(rec[2]) << 4) | nibble(rec[3]))};
        }
        if (cmp < 0) {
            lo = mid + 1;
        } else {
            hi = mid;
        }
    }
    return std::nullopt;
}

void set_ug_table(std::string records) {
    ugstart = std::move(records);
    ugtablestat = ugstart.size();
}

void reset() {
    idcardInfo = IdCardInfo{};
    ugstart.clear();
    ugtablestat = 0;
}

}  // namespace kolt::idcard
