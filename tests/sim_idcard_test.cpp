// The simulated identity module: card records byte by byte, the card files,
// the read answer on the line, a card that comes later, the module error and
// the display command 0x51.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "common/sim_fixture.hpp"
#include "kolt/kolt.h"
#include "kolt_sim/frame.hpp"
#include "kolt_sim/idcard.hpp"
#include "kolt_sim/simulator.hpp"

using namespace kolt::sim;
using kolt::test::RawLine;
using kolt::test::text_bytes;

namespace {

// UCS-2LE of ASCII text.
Bytes wide(const std::string& ascii) {
    Bytes out;
    for (char c : ascii) {
        out.push_back(static_cast<uint8_t>(c));
        out.push_back(0x00);
    }
    return out;
}

// `expect` at `offset`, then blanks (20 00) up to offset + size.
void expect_field(const Bytes& text, size_t offset, size_t size, const Bytes& expect, const char* what) {
    ASSERT_LE(expect.size(), size) << what;
    ASSERT_LE(offset + size, text.size()) << what;
    const Bytes got(text.begin() + static_cast<long>(offset), text.begin() + static_cast<long>(offset + expect.size()));
    EXPECT_EQ(got, expect) << what;
    for (size_t i = expect.size(); i < size; i += 2) {
        EXPECT_EQ(text[offset + i], 0x20) << what << " byte " << i;
        if (i + 1 < size) {
            EXPECT_EQ(text[offset + i + 1], 0x00) << what << " byte " << i + 1;
        }
    }
}

std::string card_file(const std::string& name) { return std::string(KOLT_SIM_PROFILE_DIR) + "/../cards/idcard/" + name; }

IdCardFields foreign_card() {
    IdCardFields c;
    c.layout = "I";
    c.english_name = "DOE, JANE";
    c.sex = "2";
    c.card_number = "USA110088010125";
    c.country = "USA";
    c.chinese_name = "多简";
    c.valid_from = "20200601";
    c.valid_to = "20300601";
    c.birth = "19880101";
    c.card_version = "01";
    c.authority_code = "1100";
    return c;
}

IdCardFields permit_card() {
    IdCardFields c;
    c.layout = "J";
    c.name = "王五";
    c.sex = "1";
    c.birth = "19900102";
    c.address = "广东省测试路2号";
    c.number = "810000199001020011";
    c.authority = "测试市公安局";
    c.valid_from = "20210101";
    c.valid_to = "20260101";
    c.pass_number = "H00000001";
    c.issue_count = "03";
    return c;
}

// The display data of command 0x51 as the library builds it.
Bytes display_data(const std::string& code, const std::string& name, const std::string& number,
                   const std::string& authority, const Bytes& photo) {
    Bytes d{0, 0};
    d.insert(d.end(), code.begin(), code.end());
    Bytes n = utf8_to_ucs2le(name);
    n.resize(30, 0x00);
    d.insert(d.end(), n.begin(), n.end());
    d.insert(d.end(), number.begin(), number.end());
    Bytes a = utf8_to_ucs2le(authority);
    a.resize(30, 0x00);
    d.insert(d.end(), a.begin(), a.end());
    d.insert(d.end(), photo.begin(), photo.end());
    d[0] = static_cast<uint8_t>(d.size() >> 8);
    d[1] = static_cast<uint8_t>(d.size() & 0xFF);
    return d;
}

}  // namespace

// --- records ---------------------------------------------------------------------------

TEST(SimIdCard, ResidentRecordFieldByField) {
    IdCardFields c = default_id_card();
    c.valid_to = "长期";
    const Bytes r = encode_id_record(c);
    ASSERT_EQ(r.size(), 1280u);
    // 张 U+5F20, 三 U+4E09.
    expect_field(r, 0, 30, {0x20, 0x5F, 0x09, 0x4E}, "name");
    expect_field(r, 30, 2, wide("1"), "sex");
    expect_field(r, 32, 4, wide("01"), "nation");
    expect_field(r, 36, 16, wide("19800101"), "birth");
    expect_field(r, 52, 70, utf8_to_ucs2le("北京市东城区测试路1号"), "address");
    expect_field(r, 122, 36, wide("110101198001010014"), "number");
    expect_field(r, 158, 30, utf8_to_ucs2le("北京市公安局东城分局"), "authority");
    expect_field(r, 188, 16, wide("20200101"), "valid from");
    // 长 U+957F, 期 U+671F.
    expect_field(r, 204, 16, {0x7F, 0x95, 0x1F, 0x67}, "valid to");
    expect_field(r, 220, 36, {}, "reserved");
    EXPECT_EQ(r[248], 0x20);
    EXPECT_EQ(Bytes(r.begin() + 256, r.end()), default_id_photo());
    EXPECT_EQ(default_id_photo()[0], 0x57);
    EXPECT_EQ(default_id_photo()[1], 0x5E);
}

TEST(SimIdCard, ForeignRecordFieldByField) {
    const Bytes r = encode_id_record(foreign_card());
    ASSERT_EQ(r.size(), 1280u);
    expect_field(r, 0, 120, wide("DOE, JANE"), "english name");
    expect_field(r, 120, 2, wide("2"), "sex");
    expect_field(r, 122, 30, wide("USA110088010125"), "card number");
    expect_field(r, 152, 6, wide("USA"), "country");
    expect_field(r, 158, 30, utf8_to_ucs2le("多简"), "chinese name");
    expect_field(r, 188, 16, wide("20200601"), "valid from");
    expect_field(r, 204, 16, wide("20300601"), "valid to");
    expect_field(r, 220, 16, wide("19880101"), "birth");
    expect_field(r, 236, 4, wide("01"), "card version");
    expect_field(r, 240, 8, wide("1100"), "authority code");
    expect_field(r, 248, 2, {'I', 0x00}, "card type");
    expect_field(r, 250, 6, {}, "reserved");
}

TEST(SimIdCard, PermitRecordFieldByField) {
    const Bytes r = encode_id_record(permit_card());
    ASSERT_EQ(r.size(), 1280u);
    expect_field(r, 0, 30, utf8_to_ucs2le("王五"), "name");
    expect_field(r, 30, 2, wide("1"), "sex");
    expect_field(r, 32, 4, {}, "reserved");
    expect_field(r, 36, 16, wide("19900102"), "birth");
    expect_field(r, 52, 70, utf8_to_ucs2le("广东省测试路2号"), "address");
    expect_field(r, 122, 36, wide("810000199001020011"), "number");
    expect_field(r, 158, 30, utf8_to_ucs2le("测试市公安局"), "authority");
    expect_field(r, 188, 16, wide("20210101"), "valid from");
    expect_field(r, 204, 16, wide("20260101"), "valid to");
    expect_field(r, 220, 18, wide("H00000001"), "pass number");
    expect_field(r, 238, 4, wide("03"), "issue count");
    expect_field(r, 242, 6, {}, "reserved");
    expect_field(r, 248, 2, {'J', 0x00}, "card type");
    expect_field(r, 250, 6, {}, "reserved");
}

TEST(SimIdCard, EveryBmpCharacterIsEncodable) {
    // Private use U+E26F, Extension A U+3405, U+00E9, U+FFFD.
    EXPECT_EQ(utf8_to_ucs2le("\xEE\x89\xAF"), (Bytes{0x6F, 0xE2}));
    EXPECT_EQ(utf8_to_ucs2le("\xE3\x90\x85"), (Bytes{0x05, 0x34}));
    EXPECT_EQ(utf8_to_ucs2le("\xC3\xA9"), (Bytes{0xE9, 0x00}));
    EXPECT_EQ(utf8_to_ucs2le("\xEF\xBF\xBD"), (Bytes{0xFD, 0xFF}));
    IdCardFields c = default_id_card();
    c.name = "\xE3\x90\x85\xEE\x89\xAF";
    const Bytes r = encode_id_record(c);
    expect_field(r, 0, 30, {0x05, 0x34, 0x6F, 0xE2}, "name");
    EXPECT_EQ(ucs2le_to_utf8(Bytes{0x05, 0x34, 0x6F, 0xE2, 0x20, 0x5F}), "\xE3\x90\x85\xEE\x89\xAF张");
}

TEST(SimIdCard, TextThatCannotGoOnTheCardIsRefused) {
    EXPECT_THROW(utf8_to_ucs2le("\xF0\xA0\x80\x80"), std::runtime_error);  // U+20000
    EXPECT_THROW(utf8_to_ucs2le("\xED\xA0\x80"), std::runtime_error);      // a surrogate
    EXPECT_THROW(utf8_to_ucs2le("\xE5\xBC"), std::runtime_error);          // cut short
    EXPECT_THROW(utf8_to_ucs2le("\x80"), std::runtime_error);
    EXPECT_THROW(utf8_to_ucs2le("\xC0\x80"), std::runtime_error);  // overlong
    IdCardFields c = default_id_card();
    c.name = "一二三四五六七八九十一二三四五六";  // 16 characters, 32 bytes
    EXPECT_THROW(encode_id_record(c), std::runtime_error);
    c.name = "一二三四五六七八九十一二三四五";  // 15 fit
    EXPECT_NO_THROW(encode_id_record(c));
    c.english_name = "X";  // not a field of the resident card
    EXPECT_THROW(encode_id_record(c), std::runtime_error);
    c = default_id_card();
    c.layout = "K";
    EXPECT_THROW(encode_id_record(c), std::runtime_error);
    c = default_id_card();
    c.photo = Bytes(1000, 0x11);
    EXPECT_THROW(encode_id_record(c), std::runtime_error);
    c.photo = Bytes(1024, 0x11);
    EXPECT_EQ(encode_id_record(c)[256], 0x11);
}

// --- card files --------------------------------------------------------------------------

TEST(SimIdCard, ShippedCardFiles) {
    const auto resident = load_id_card(card_file("resident.json"));
    EXPECT_EQ(resident.layout, "id");
    EXPECT_EQ(resident.number.size(), 18u);
    EXPECT_EQ(resident.valid_to, "长期");
    const auto foreign = load_id_card(card_file("foreign.json"));
    EXPECT_EQ(foreign.layout, "I");
    EXPECT_EQ(encode_id_record(foreign)[248], 'I');
    const auto permit = load_id_card(card_file("permit.json"));
    EXPECT_EQ(permit.layout, "J");
    EXPECT_EQ(encode_id_record(permit)[248], 'J');
    // The check digit of the 18-character numbers (weights 2^(17-i) mod 11).
    for (const auto& number : {resident.number, permit.number}) {
        int sum = 0;
        for (size_t i = 0; i < 17; ++i) sum += (number[i] - '0') * ((1 << (17 - i)) % 11);
        EXPECT_EQ(number[17], "10X98765432"[sum % 11]) << number;
    }
}

TEST(SimIdCard, CardFileKeysAndErrors) {
    const auto c = parse_id_card(R"({"comment": "x", "layout": "J", "name": "A", "pass_number": "H1",
                                     "photo_hex": ")" + std::string(2048, '7') + R"("})");
    EXPECT_EQ(c.layout, "J");
    EXPECT_EQ(c.name, "A");
    EXPECT_EQ(c.pass_number, "H1");
    EXPECT_EQ(c.photo, Bytes(1024, 0x77));
    EXPECT_EQ(parse_id_card("{}"), IdCardFields{});
    const char* bad[] = {
        "[]", "{", R"({"nickname": "x"})", R"({"layout": "X"})", R"({"name": 5})",
        R"({"layout": "I", "nation": "01"})", R"({"sex": "12"})", R"({"photo_hex": "0102"})",
    };
    for (const char* text : bad) EXPECT_THROW(parse_id_card(text), std::runtime_error) << text;
}

TEST(SimIdCard, ProfileFieldsTakeALayout) {
    const auto p = parse_device_profile(R"({"identity_card": {"fields": {"layout": "J", "pass_number": "H7"}}})");
    ASSERT_EQ(p.id_answer.size(), 4u + 1280u);
    const Bytes text(p.id_answer.begin() + 4, p.id_answer.begin() + 4 + 256);
    expect_field(text, 220, 18, wide("H7"), "pass number");
    expect_field(text, 248, 2, {'J', 0x00}, "card type");
    expect_field(text, 0, 30, {0x20, 0x5F, 0x09, 0x4E}, "name kept from the built-in card");
    EXPECT_THROW(parse_device_profile(R"({"identity_card": {"fields": {"layout": "I", "nation": "01"}}})"),
                 std::runtime_error);
}

TEST(SimIdCard, DisplayDataDecoded) {
    const Bytes d = display_data("00", "张三", "110101198001010014", "北京市公安局", Bytes(5, 0xAB));
    const auto v = decode_id_display(d);
    ASSERT_TRUE(v);
    EXPECT_EQ(v->length, d.size());
    EXPECT_EQ(v->code, "00");
    EXPECT_EQ(v->name, "张三");
    EXPECT_EQ(v->number, "110101198001010014");
    EXPECT_EQ(v->authority, "北京市公安局");
    EXPECT_EQ(v->photo, Bytes(5, 0xAB));
    EXPECT_FALSE(decode_id_display(Bytes(81, 0)));
    EXPECT_NE(describe_id_display(d).find("张三"), std::string::npos);
}

// --- on the line -------------------------------------------------------------------------

namespace {

class SimIdLine : public kolt::test::RawSimTest {
protected:
    Bytes ask(uint8_t cls, uint8_t code, const Bytes& data = {}) {
        line->write(encode_main_command(cls, code, data));
        return line->read_until(0x03, 2000);
    }
    // Status pair of find (35 80) or select (35 81).
    std::pair<int, int> status(uint8_t code) {
        auto f = decode_main(ask(0x35, code, code == 0x80 ? Bytes{0x00, 0x00} : Bytes{}));
        EXPECT_TRUE(f);
        return f ? std::pair<int, int>{f->a, f->b} : std::pair<int, int>{-1, -1};
    }
    // Body of the read reply (35 82): status pair and the module's answer.
    Bytes read() {
        auto body = decode_special_reply(ask(0x35, 0x82));
        EXPECT_TRUE(body);
        return body.value_or(Bytes{});
    }
};

const std::pair<int, int> kOk{0x00, 0x00}, kNoCard{0x00, 0x80};

}  // namespace

TEST_F(SimIdLine, ReadAnswerCarriesTheRecord) {
    sim->set_id_card(foreign_card());
    const Bytes body = read();
    ASSERT_EQ(body.size(), 2u + 4u + 1280u);
    EXPECT_EQ(Bytes(body.begin(), body.begin() + 6), (Bytes{0x00, 0x00, 0x01, 0x00, 0x04, 0x00}));
    // The host's decoded frame is 02, two length bytes, then this body: the
    // record starts at frame offset 9.
    EXPECT_EQ(Bytes(body.begin() + 6, body.end()), encode_id_record(foreign_card()));
    sim->set_id_card(std::nullopt);
    EXPECT_EQ(read(), (Bytes{0x00, 0x80}));
    EXPECT_EQ(status(0x80), kNoCard);
}

TEST_F(SimIdLine, NoCardForTwoLooksThenTheCard) {
    sim->id_card_after(2, permit_card());
    EXPECT_EQ(status(0x80), kNoCard);  // look 1
    EXPECT_EQ(status(0x81), kNoCard);  // select does not count
    EXPECT_EQ(read(), (Bytes{0x00, 0x80}));  // look 2
    EXPECT_EQ(status(0x80), kOk);
    EXPECT_EQ(status(0x81), kOk);
    const Bytes body = read();
    ASSERT_EQ(body.size(), 2u + 4u + 1280u);
    EXPECT_EQ(Bytes(body.begin() + 6, body.end()), encode_id_record(permit_card()));
    EXPECT_EQ(status(0x80), kOk);  // the card stays
}

TEST_F(SimIdLine, NoCardForAWhileThenTheCard) {
    sim->id_card_after_ms(400, default_id_card());
    EXPECT_EQ(status(0x80), kNoCard);
    EXPECT_EQ(read(), (Bytes{0x00, 0x80}));
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_EQ(status(0x80), kOk);
    EXPECT_EQ(read().size(), 2u + 4u + 1280u);
}

TEST_F(SimIdLine, SetIdAnswerForgetsACardToCome) {
    sim->id_card_after(1, permit_card());
    sim->set_id_answer(std::nullopt);
    EXPECT_EQ(status(0x80), kNoCard);
    EXPECT_EQ(status(0x80), kNoCard);
}

TEST_F(SimIdLine, ModuleErrorAnswersTheReadWithItsStatus) {
    sim->set_id_module_error(true);
    EXPECT_EQ(status(0x80), kOk);
    EXPECT_EQ(read(), (Bytes{0x00, 0x41}));
    sim->set_id_module_error(true, 0x00, 0x33);
    EXPECT_EQ(read(), (Bytes{0x00, 0x33}));
    sim->set_id_module_error(false);
    EXPECT_EQ(read().size(), 2u + 4u + 1280u);
}

TEST_F(SimIdLine, DisplayCommandKeptAndAnswered) {
    const Bytes d = display_data("02", "张三", "110101198001010014", "北京市公安局", {});
    line->write(encode_bracket(0x51, d));
    const Bytes reply = line->read_until(')', 2000);
    EXPECT_EQ(reply, encode_bracket(0x51, Bytes{0x90}));
    EXPECT_EQ(reply, text_bytes("(AAgQkA==HA)"));
    ASSERT_EQ(sim->id_displays().size(), 1u);
    EXPECT_EQ(sim->id_displays()[0], d);
    sim->clear_id_displays();
    EXPECT_TRUE(sim->id_displays().empty());
}

TEST_F(SimIdLine, DisplayWithPhotoInPiecesAsTheLibrarySendsIt) {
    const Bytes d = display_data("00", "张三", "110101198001010014", "北京市公安局", default_id_photo());
    const Bytes wire = encode_bracket(0x51, d);
    ASSERT_GT(wire.size(), 1024u);
    line->write(Bytes(wire.begin(), wire.begin() + 1024));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    line->write(Bytes(wire.begin() + 1024, wire.end()));
    EXPECT_EQ(line->read_until(')', 2000), encode_bracket(0x51, Bytes{0x90}));
    ASSERT_EQ(sim->id_displays().size(), 1u);
    const auto v = decode_id_display(sim->id_displays()[0]);
    ASSERT_TRUE(v);
    EXPECT_EQ(v->code, "00");
    EXPECT_EQ(v->photo, default_id_photo());
    EXPECT_TRUE(sim->frame_errors().empty());
}

// --- through the library -----------------------------------------------------------------

namespace {
class SimIdLibrary : public kolt::test::LinkedSimTest {};
}  // namespace

TEST_F(SimIdLibrary, ReadCardFindsTheRecordAtOffsetNine) {
    const auto card = load_id_card(card_file("resident.json"));
    sim().set_id_card(card);
    std::vector<uint8_t> reply(KOLT_T41_REPLY_MAX);
    const int n = KOLT_T41_Id_ReadCard(reply.data());
    ASSERT_GE(n, 9 + 1280);
    EXPECT_EQ(Bytes(reply.begin() + 9, reply.begin() + 9 + 1280), encode_id_record(card));
}

TEST_F(SimIdLibrary, NoCardThenCardAndModuleError) {
    sim().id_card_after(1, permit_card());
    std::vector<uint8_t> reply(KOLT_T41_REPLY_MAX);
    EXPECT_EQ(KOLT_T41_Id_FindCard(), -2);
    EXPECT_EQ(KOLT_T41_Id_FindCard(), 0);
    EXPECT_EQ(KOLT_T41_Id_SelectCard(), 0);
    EXPECT_GE(KOLT_T41_Id_ReadCard(reply.data()), 9 + 1280);
    EXPECT_EQ(reply[9 + 248], 'J');
    // The read maps every status other than 00 00 to -2; the module error
    // differs from "no card" in its status pair (00 41 against 00 80).
    sim().set_id_module_error(true);
    EXPECT_EQ(KOLT_T41_Id_ReadCard(reply.data()), -2);
    EXPECT_EQ(reply[3], 0x00);
    EXPECT_EQ(reply[4], 0x41);
}

TEST_F(SimIdLibrary, DisplayThroughTheBracketCall) {
    RawLine host(sim().slave_path());
    const Bytes d = display_data("00", "张三", "110101198001010014", "北京市公安局", default_id_photo());
    std::vector<uint8_t> out(KOLT_T41_REPLY_MAX);
    const int n = KOLT_writeBufAndRead(host.fd(), 0x51, d.data(), static_cast<int32_t>(d.size()), out.data(), 3);
    ASSERT_EQ(n, 1);
    EXPECT_EQ(out[0], 0x90);
    ASSERT_EQ(sim().id_displays().size(), 1u);
    EXPECT_EQ(sim().id_displays()[0], d);
}
