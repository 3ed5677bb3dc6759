// Identity card reading end to end through the simulated identity module,
// in a working directory holding the stand-ins of the two closed libraries:
// ID_GetInfo, getIdCardInfo, YC_idCovToGBK, YC_GetBmp and
// displayCheckResult.
#include <gtest/gtest.h>
#include <iconv.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "common/sim_fixture.hpp"
#include "common/test_util.hpp"
#include "idcard/id_card.hpp"
#include "kolt/kolt.h"
#include "kolt_sim/idcard.hpp"

namespace {

namespace fs = std::filesystem;
using kolt::sim::IdCardFields;

using kolt::test::gbk;

std::string read_file(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

// A working directory of the test's own, with the stand-ins the test asks
// for, for the lifetime of the object.
class WorkDir {
public:
    WorkDir(bool wlt, bool idpic) : saved_(fs::current_path()) {
        if (wlt) fs::copy_file(fs::path(KOLT_STANDIN_DIR) / "libwlt.so", dir_.path() / "libwlt.so");
        if (idpic) fs::copy_file(fs::path(KOLT_STANDIN_DIR) / "libidpic.so", dir_.path() / "libidpic.so");
        fs::current_path(dir_.path());
    }
    ~WorkDir() { fs::current_path(saved_); }
    const fs::path& path() const { return dir_.path(); }

private:
    kolt::test::TempDir dir_;
    fs::path saved_;
};

IdCardFields resident() {
    IdCardFields c;
    c.name = "张三";
    c.sex = "1";
    c.nation = "01";
    c.birth = "19900101";
    c.address = "北京市东城区测试路1号";
    c.number = "110101199001011234";
    c.authority = "北京市公安局东城分局";
    c.valid_from = "20200101";
    c.valid_to = "20400101";
    return c;
}

IdCardFields foreign() {
    IdCardFields c;
    c.layout = "I";
    c.english_name = "SMITH JOHN";
    c.sex = "1";
    c.card_number = "CAN110090010101";
    c.country = "CAN";
    c.chinese_name = "史密斯";
    c.valid_from = "20200101";
    c.valid_to = "20300101";
    c.birth = "19800101";
    c.card_version = "01";
    c.authority_code = "1100";
    return c;
}

IdCardFields permit() {
    IdCardFields c;
    c.layout = "J";
    c.name = "李四";
    c.sex = "2";
    c.birth = "19900101";
    c.address = "广东省深圳市福田区测试路2号";
    c.number = "810000199001011234";
    c.authority = "公安部出入境管理局";
    c.valid_from = "20200101";
    c.valid_to = "20250101";
    c.pass_number = "H12345678";
    c.issue_count = "01";
    return c;
}

const std::string kResidentLine = gbk("张三") + "|" + gbk("男") + "|" + gbk("汉") + "|19900101|" +
                                  gbk("北京市东城区测试路1号") + "|110101199001011234|" +
                                  gbk("北京市公安局东城分局") + "|20200101|20400101|1|01||||A";

struct Info {
    int rc = 0;
    std::string line;
};

Info id_get_info(int timeout = 5, const char* photo = "") {
    std::vector<char> out(KOLT_IDINFO_MAX, 0);
    Info i;
    const std::string port(gPortName);
    i.rc = ID_GetInfo(port.c_str(), 0, 0, timeout, photo, 0, 0, 0, out.data());
    i.line = out.data();
    return i;
}

// The pixels the stand-in's unpack delivers for a photo block starting with
// seed, as zp.bmp holds them.
std::vector<uint8_t> expected_bmp(uint8_t seed) {
    std::vector<uint8_t> rgb(kolt::idcard::kPixelBytes);
    for (size_t i = 0; i < rgb.size(); ++i) rgb[i] = static_cast<uint8_t>((i * 7 + seed) & 0xFF);
    return kolt::idcard::bmp_file(rgb);
}

class IdCardTest : public kolt::test::SimTest {};

}  // namespace

TEST_F(IdCardTest, ResidentCardLineAndPhoto) {
    WorkDir dir(true, true);
    sim().set_id_card(resident());
    const Info i = id_get_info();
    EXPECT_EQ(i.rc, 0);
    EXPECT_EQ(i.line, kResidentLine);

    // zp.bmp byte for byte: the header, then 126 rows of 308 bytes.
    const std::string bmp = read_file(dir.path() / "zp.bmp");
    ASSERT_EQ(bmp.size(), 38862u);
    const std::vector<uint8_t> header = {0x42, 0x4D, 0xCE, 0x97, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x36, 0x00, 0x00, 0x00,
                                         0x28, 0x00, 0x00, 0x00, 0x66, 0x00, 0x00, 0x00, 0x7E, 0x00, 0x00, 0x00, 0x01, 0x00,
                                         0x18, 0x00};
    EXPECT_EQ(std::vector<uint8_t>(bmp.begin(), bmp.begin() + 30), header);
    EXPECT_EQ(std::vector<uint8_t>(bmp.begin() + 30, bmp.begin() + 54), std::vector<uint8_t>(24, 0));
    const auto expected = expected_bmp(kolt::sim::default_id_photo()[0]);
    EXPECT_EQ(std::vector<uint8_t>(bmp.begin(), bmp.end()), expected);
    // First row: pixel 0 is RGB 57 5E 65, stored BGR; two zero bytes end it.
    EXPECT_EQ(static_cast<uint8_t>(bmp[54]), 0x65);
    EXPECT_EQ(static_cast<uint8_t>(bmp[56]), 0x57);
    EXPECT_EQ(bmp[54 + 306], 0);
    EXPECT_EQ(bmp[54 + 307], 0);
    EXPECT_EQ(bmp[38862 - 1], 0);
}

TEST_F(IdCardTest, ForeignPermanentResidentCard) {
    WorkDir dir(true, true);
    sim().set_id_card(foreign());
    const Info i = id_get_info();
    EXPECT_EQ(i.rc, 0);
    EXPECT_EQ(i.line, "SMITHJOHN|" + gbk("男") + "|CAN|19800101||CAN110090010101|1100|20200101|20300101|1|||" +
                          gbk("史密斯") + "|01|I");
}

TEST_F(IdCardTest, ResidencePermitWithItsImages) {
    WorkDir dir(true, true);
    sim().set_id_card(permit());
    const Info i = id_get_info();
    EXPECT_EQ(i.rc, 0);
    EXPECT_EQ(i.line, gbk("李四") + "|" + gbk("女") + "||19900101|" + gbk("广东省深圳市福田区测试路2号") +
                          "|810000199001011234|" + gbk("公安部出入境管理局") +
                          "|20200101|20250101|2|||||J|H12345678|01");
    // The stand-in wrote both images with the texts it was given.
    const std::string front = read_file(dir.path() / "zfmfront.bmp");
    EXPECT_EQ(front, gbk("李四") + "\n" + gbk("女") + "\n19900101\n" + gbk("广东省深圳市福田区测试路2号") +
                         "\n810000199001011234\n" + gbk("公安部出入境管理局") +
                         "\n20200101\n20250101\nH12345678\n01\n0 0 0\n");
    EXPECT_EQ(read_file(dir.path() / "zfmback.bmp"), front);
}

TEST_F(IdCardTest, PermitWithoutTheImageLibraryIsMinus98) {
    WorkDir dir(true, false);
    sim().set_id_card(permit());
    std::vector<char> out(KOLT_IDINFO_MAX, 0);
    EXPECT_EQ(getIdCardInfo(0, "", 1, "", 5, out.data(), "", 0, 0, 0), -98);
    sim().set_id_card(permit());
    EXPECT_EQ(id_get_info().rc, -99);
}

TEST_F(IdCardTest, WithoutThePhotoLibraryIsMinus98) {
    WorkDir dir(false, true);
    sim().set_id_card(resident());
    const Info i = id_get_info();
    EXPECT_EQ(i.rc, -98);
    EXPECT_EQ(i.line, "");
    EXPECT_FALSE(fs::exists(dir.path() / "zp.bmp"));
}

TEST_F(IdCardTest, ResidentCardWithoutTheImageLibrary) {
    WorkDir dir(true, false);
    sim().set_id_card(resident());
    const Info i = id_get_info();
    EXPECT_EQ(i.rc, 0);
    EXPECT_EQ(i.line, kResidentLine);
}

TEST_F(IdCardTest, UnknownSexCode) {
    WorkDir dir(true, true);
    IdCardFields c = resident();
    c.sex = "9";
    sim().set_id_card(c);
    const Info i = id_get_info();
    EXPECT_EQ(i.rc, 0);
    EXPECT_NE(i.line.find("|\xCE\xB4\xD6\xAA|"), std::string::npos);  // 未知
}

TEST_F(IdCardTest, RareCharacterOfTheExtensionRange) {
    WorkDir dir(true, true);
    IdCardFields c = resident();
    c.name = "张\xE3\x90\x85";  // 张 and U+3405, GBK AA A1
    sim().set_id_card(c);
    const Info i = id_get_info();
    EXPECT_EQ(i.rc, 0);
    EXPECT_EQ(i.line.substr(0, 4), gbk("张") + "\xAA\xA1");
}

TEST_F(IdCardTest, CardAfterTwoEmptyLooksAndTheDefaultWait) {
    WorkDir dir(true, true);
    sim().id_card_after(2, resident());
    // A time-out of 0 waits up to 864000 s: the card two looks later comes.
    const Info i = id_get_info(0);
    EXPECT_EQ(i.rc, 0);
    EXPECT_EQ(i.line, kResidentLine);
}

TEST_F(IdCardTest, NoCardInTime) {
    WorkDir dir(true, true);
    sim().set_id_card(std::nullopt);
    std::vector<char> out(KOLT_IDINFO_MAX, 0);
    EXPECT_EQ(getIdCardInfo(0, "", 1, "", 1, out.data(), "", 0, 0, 0), -2);
    EXPECT_EQ(id_get_info(1).rc, -99);
}

TEST_F(IdCardTest, ModuleErrorIsMinusOne) {
    WorkDir dir(true, true);
    sim().set_id_card(resident());
    // A reply that does not decode is the module error.
    sim().inject_for(0x35, 0x82, kolt::sim::Fault{kolt::sim::Fault::BadCheck, 0}, 1);
    std::vector<char> out(KOLT_IDINFO_MAX, 0);
    EXPECT_EQ(getIdCardInfo(0, "", 1, "", 5, out.data(), "", 0, 0, 0), -1);
    sim().inject_for(0x35, 0x82, kolt::sim::Fault{kolt::sim::Fault::BadCheck, 0}, 1);
    EXPECT_EQ(id_get_info().rc, -99);
}

TEST_F(IdCardTest, ModuleStatusOtherThanSuccessIsWaitedOut) {
    // A read answered with a failure status counts as "no card": the reader
    // keeps looking until its time is up.
    WorkDir dir(true, true);
    sim().set_id_card(resident());
    sim().set_id_module_error(true);
    std::vector<char> out(KOLT_IDINFO_MAX, 0);
    EXPECT_EQ(getIdCardInfo(0, "", 1, "", 1, out.data(), "", 0, 0, 0), -2);
}

TEST_F(IdCardTest, PortThatCannotBeOpened) {
    WorkDir dir(true, true);
    std::vector<char> out(KOLT_IDINFO_MAX, 0);
    std::strcpy(gPortName, "kolt-no-such-device");
    EXPECT_EQ(getIdCardInfo(0, "", 1, "", 5, out.data(), "", 0, 0, 0), -5);
    EXPECT_EQ(ID_GetInfo("kolt-no-such-device", 0, 0, 5, "", 0, 0, 0, out.data()), -99);
}

TEST_F(IdCardTest, PhotoPathIsComposedButThePhotoStaysInZpBmp) {
    WorkDir dir(true, true);
    sim().set_id_card(resident());
    EXPECT_EQ(id_get_info(5, "photos").rc, 0);
    // The directory was made for it, and nothing was put there.
    EXPECT_TRUE(fs::is_directory(dir.path() / "photos"));
    EXPECT_TRUE(fs::is_empty(dir.path() / "photos"));
    EXPECT_TRUE(fs::exists(dir.path() / "zp.bmp"));
    EXPECT_EQ(kolt::idcard::photo_target("out/pic.jpg", "110101199001011234"), "out/110101199001011234.jpg");
    EXPECT_TRUE(fs::is_directory(dir.path() / "out"));
    EXPECT_EQ(kolt::idcard::photo_target("dir/", "1"), "dir/1.bmp");
}

TEST_F(IdCardTest, RecordConverterAndBitmapDirectly) {
    WorkDir dir(true, true);
    const std::vector<uint8_t> record = kolt::sim::encode_id_record(resident());
    std::vector<char> out(KOLT_IDINFO_MAX, 0);
    EXPECT_EQ(YC_idCovToGBK(record.data(), out.data(), "", 0, 0, 0), 0);
    EXPECT_EQ(std::string(out.data()), kResidentLine);
    std::vector<uint8_t> photo(1024, 0x10);
    EXPECT_EQ(YC_GetBmp(photo.data()), 0);
    const std::string bmp = read_file(dir.path() / "zp.bmp");
    EXPECT_EQ(std::vector<uint8_t>(bmp.begin(), bmp.end()), expected_bmp(0x10));
    EXPECT_EQ(YC_GetBmp(nullptr), -1);
}

TEST_F(IdCardTest, DisplayCheckResultWithAndWithoutPhoto) {
    const std::string port(gPortName);
    const std::string photo_b64 = "AAECAwQF";  // 00 01 02 03 04 05
    EXPECT_EQ(displayCheckResult(0, "", 1, "", "00", gbk("张三").c_str(), "110101199001011234",
                                 gbk("北京市公安局").c_str(), photo_b64.c_str()),
              0);
    EXPECT_EQ(displayCheckResult(0, "", 1, "", "5", gbk("张三").c_str(), "110101199001011234",
                                 gbk("北京市公安局").c_str(), photo_b64.c_str()),
              0);
    ASSERT_TRUE(kolt::test::wait_until([&] { return sim().id_displays().size() >= 2; }));
    const auto shown = sim().id_displays();
    std::vector<uint8_t> name(30, 0), authority(30, 0);
    const auto n = kolt::sim::utf8_to_ucs2le("张三");
    const auto a = kolt::sim::utf8_to_ucs2le("北京市公安局");
    std::copy(n.begin(), n.end(), name.begin());
    std::copy(a.begin(), a.end(), authority.begin());
    std::vector<uint8_t> expected = {0x00, 88, '0', '0'};
    expected.insert(expected.end(), name.begin(), name.end());
    const std::string number = "110101199001011234";
    expected.insert(expected.end(), number.begin(), number.end());
    expected.insert(expected.end(), authority.begin(), authority.end());
    for (uint8_t b = 0; b < 6; ++b) expected.push_back(b);
    EXPECT_EQ(shown[0], expected);
    // Code "5" goes as "05", and no photo follows.
    expected.resize(82);
    expected[1] = 82;
    expected[2] = '0';
    expected[3] = '5';
    EXPECT_EQ(shown[1], expected);
}

TEST_F(IdCardTest, DisplayCheckResultPortFailure) {
    EXPECT_EQ(displayCheckResult(0, "", 1, "", "00", "", "", "", ""), 0 /* the port of the fixture opens */);
    std::strcpy(gPortName, "kolt-no-such-device");
    EXPECT_EQ(displayCheckResult(0, "", 1, "", "00", "", "", "", ""), -5);
}
