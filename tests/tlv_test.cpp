// BER-TLV subset: tag and length rules, counting, unpacking, searching and
// packing, with every result code of the codec.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "common/card_flow.hpp"
#include "common/test_util.hpp"
#include "kolt/kolt.h"
#include "support/tlv.hpp"

using kolt::test::bytes;
using kolt::test::from_hex;

namespace {
int32_t size_of(const std::vector<uint8_t>& v) { return static_cast<int32_t>(v.size()); }
}  // namespace

TEST(TlvTag, OneAndTwoByteTags) {
    const auto one = bytes({0x5A, 0x01, 0x00});
    tlv_t item{};
    EXPECT_EQ(parse_tlv_tag(&item, one.data()), 0);
    EXPECT_EQ(item.tag.size, 1u);
    EXPECT_EQ(item.tag.data, one.data());
    const auto two = bytes({0x9F, 0x36});
    EXPECT_EQ(parse_tlv_tag(&item, two.data()), 0);
    EXPECT_EQ(item.tag.size, 2u);
    // A three-byte tag reads as two bytes; the second byte is not examined.
    const auto three = bytes({0xDF, 0x81, 0x01});
    EXPECT_EQ(parse_tlv_tag(&item, three.data()), 0);
    EXPECT_EQ(item.tag.size, 2u);
}

TEST(TlvLength, Table) {
    tlv_field_t val{};
    const auto zero = bytes({0x00});
    EXPECT_EQ(parse_tlv_length(&val, zero.data()), 0);
    EXPECT_EQ(val.size, 0u);
    EXPECT_EQ(val.data, nullptr);
    const auto short_form = bytes({0x7F});
    EXPECT_EQ(parse_tlv_length(&val, short_form.data()), 0);
    EXPECT_EQ(val.size, 0x7Fu);
    EXPECT_EQ(val.data, short_form.data() + 1);
    const auto f81 = bytes({0x81, 0xC8});
    EXPECT_EQ(parse_tlv_length(&val, f81.data()), 0);
    EXPECT_EQ(val.size, 200u);
    EXPECT_EQ(val.data, f81.data() + 2);
    const auto f82 = bytes({0x82, 0x01, 0x02});
    EXPECT_EQ(parse_tlv_length(&val, f82.data()), 0);
    EXPECT_EQ(val.size, 258u);
    EXPECT_EQ(val.data, f82.data() + 3);
}

TEST(TlvLength, EightyThreeFormMultipliesFirstByteBySixteen) {
    tlv_field_t val{};
    const auto f83 = bytes({0x83, 0x01, 0x00, 0x00});
    EXPECT_EQ(parse_tlv_length(&val, f83.data()), 0);
    EXPECT_EQ(val.size, 4096u);
    EXPECT_EQ(val.data, f83.data() + 4);
    const auto f83b = bytes({0x83, 0x02, 0x03, 0x04});
    EXPECT_EQ(parse_tlv_length(&val, f83b.data()), 0);
    EXPECT_EQ(val.size, (2u * 16 + 3) * 256 + 4);
}

TEST(TlvLength, BadLengthBytes) {
    tlv_field_t val{};
    for (int b : {0x80, 0x84, 0x90, 0xFF}) {
        const auto p = bytes({b, 0, 0, 0, 0});
        EXPECT_EQ(parse_tlv_length(&val, p.data()), -1) << b;
    }
}

TEST(TlvParser, TwoByteTagItem) {
    const auto src = from_hex("9F 36 02 00 1C");
    tlv_t item{};
    ASSERT_EQ(tlv_parser(&item, src.data(), size_of(src)), 0);
    EXPECT_EQ(item.tag.size, 2u);
    EXPECT_EQ(item.val.size, 2u);
    EXPECT_EQ(item.val.data, src.data() + 3);
}

TEST(TlvParser, ValuePastEndOfBufferFails) {
    const auto src = from_hex("9F 36 02 00");
    tlv_t item{};
    EXPECT_EQ(tlv_parser(&item, src.data(), size_of(src)), -1);
    // Length bytes past the end fail as well.
    const auto len = from_hex("5A 82 01");
    EXPECT_EQ(tlv_parser(&item, len.data(), size_of(len)), -1);
    const auto tag_only = from_hex("9F 36");
    EXPECT_EQ(tlv_parser(&item, tag_only.data(), size_of(tag_only)), -1);
    EXPECT_EQ(tlv_parser(&item, tag_only.data(), 0), -1);
}

TEST(TlvParser, BadLengthByteFails) {
    const auto src = from_hex("5A 80 00");
    tlv_t item{};
    EXPECT_EQ(tlv_parser(&item, src.data(), size_of(src)), -1);
}

TEST(TlvCount, TilesTheSource) {
    const auto src = from_hex("5A 02 11 22 9F 36 02 00 1C 50 00");
    EXPECT_EQ(count_tlv_substring(src.data(), size_of(src), 1), 3);
    EXPECT_EQ(count_tlv_substring(src.data(), 0, 1), 0);
}

TEST(TlvCount, LengthEightyStrictAndLenient) {
    const auto src = from_hex("5A 01 11 9F 36 01 22 50 80 33");
    EXPECT_EQ(count_tlv_substring(src.data(), size_of(src), 1), -1);
    EXPECT_EQ(count_tlv_substring(src.data(), size_of(src), 0), 2);
    EXPECT_EQ(count_tlv_substring(src.data(), size_of(src), 2), 2);  // only 1 is strict
}

TEST(TlvCount, OverlongLastItem) {
    const auto src = from_hex("5A 01 11 57 05 22");
    EXPECT_EQ(count_tlv_substring(src.data(), size_of(src), 1), -1);
    EXPECT_EQ(count_tlv_substring(src.data(), size_of(src), 0), 1);
}

TEST(TlvUnpack, ItemsInSourceOrder) {
    const auto src = from_hex("9F 36 02 00 1C 82 02 7C 00");
    tlv_t* list = nullptr;
    const int n = unpack_tlv_data(&list, src.data(), size_of(src), 1);
    ASSERT_EQ(n, 2);
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list[0].tag.data, src.data());
    EXPECT_EQ(list[0].tag.size, 2u);
    EXPECT_EQ(list[0].val.size, 2u);
    EXPECT_EQ(list[1].tag.data, src.data() + 5);
    EXPECT_EQ(list[1].val.data, src.data() + 7);
    std::free(list);
}

TEST(TlvUnpack, ZeroLengthItemHasNullValueAndNextFollows) {
    const auto src = from_hex("5A 00 57 01 99");
    tlv_t* list = nullptr;
    ASSERT_EQ(unpack_tlv_data(&list, src.data(), size_of(src), 1), 2);
    EXPECT_EQ(list[0].val.size, 0u);
    EXPECT_EQ(list[0].val.data, nullptr);
    EXPECT_EQ(list[1].tag.data, src.data() + 2);  // right after the 00
    EXPECT_EQ(list[1].val.size, 1u);
    std::free(list);
}

TEST(TlvUnpack, EmptySourceStillGivesAnArray) {
    const uint8_t dummy = 0;
    tlv_t* list = nullptr;
    EXPECT_EQ(unpack_tlv_data(&list, &dummy, 0, 1), 0);
    EXPECT_NE(list, nullptr);  // the caller frees it, also when n is 0
    std::free(list);
}

TEST(TlvUnpack, CountFailureGivesMinusOne) {
    const auto src = from_hex("5A 80 00");
    tlv_t* list = reinterpret_cast<tlv_t*>(0x1);
    EXPECT_EQ(unpack_tlv_data(&list, src.data(), size_of(src), 1), -1);
    EXPECT_EQ(list, nullptr);
}

TEST(TlvUnpack, LenientStopsBeforeBadItem) {
    const auto src = from_hex("5A 01 11 50 80 00");
    tlv_t* list = nullptr;
    EXPECT_EQ(unpack_tlv_data(&list, src.data(), size_of(src), 0), 1);
    std::free(list);
}

TEST(TlvUnpack, AllocationFailureGivesMinusTwo) {
    const auto src = from_hex("5A 01 11");
    tlv_t* list = nullptr;
    const auto no_memory = [](size_t, size_t) -> void* { return nullptr; };
    EXPECT_EQ(kolt::tlv::detail::unpack_with(&list, src.data(), size_of(src), 1, no_memory, tlv_parser), -2);
    EXPECT_EQ(list, nullptr);
}

TEST(TlvUnpack, SecondPassFailureGivesMinusThreeAndNull) {
    const auto src = from_hex("5A 01 11 57 01 22");
    tlv_t* list = nullptr;
    const auto alloc = [](size_t n, size_t s) -> void* { return std::calloc(n, s); };
    // A parser that refuses the second item on the second pass.
    const auto flaky = [](tlv_t* item, const uint8_t* p, int32_t avail) -> int32_t {
        if (p[0] == 0x57) return -1;
        return tlv_parser(item, p, avail);
    };
    EXPECT_EQ(kolt::tlv::detail::unpack_with(&list, src.data(), size_of(src), 1, alloc, flaky), -3);
    EXPECT_EQ(list, nullptr);
}

TEST(TlvUnpackCpp, OwnsTheArray) {
    const auto src = from_hex("6F 05 84 03 A0 00 01");
    const auto items = kolt::tlv::unpack(src, true);
    ASSERT_TRUE(items.has_value());
    ASSERT_EQ(items->size(), 1u);
    const auto inner = kolt::tlv::unpack(kolt::tlv::value_of((*items)[0]), true);
    ASSERT_TRUE(inner.has_value());
    ASSERT_EQ(inner->size(), 1u);
    EXPECT_EQ(kolt::tlv::tag_of((*inner)[0])[0], 0x84);
    EXPECT_EQ(kolt::tlv::value_of((*inner)[0]).size(), 3u);
    EXPECT_FALSE(kolt::tlv::unpack(from_hex("5A 80"), true).has_value());
    const auto lenient = kolt::tlv::unpack(from_hex("5A 00 50 80"), false);
    ASSERT_TRUE(lenient.has_value());
    EXPECT_EQ(lenient->size(), 1u);
    EXPECT_FALSE(kolt::tlv::parse_one(from_hex("5A 02 00")).has_value());
    EXPECT_TRUE(kolt::tlv::parse_one(from_hex("5A 01 00 FF")).has_value());
}

TEST(TlvFind, FirstTopLevelMatch) {
    const auto src = from_hex("50 02 41 42 9F 36 02 00 1C 9F 36 01 77");
    const uint8_t* value = nullptr;
    EXPECT_EQ(parse_tlv_data_t(&value, "\x9F\x36", src.data(), size_of(src)), 2);
    EXPECT_EQ(value, src.data() + 7);
    uint8_t out[8] = {0};
    EXPECT_EQ(parse_tlv_data(out, "\x50", src.data(), size_of(src)), 2);
    EXPECT_EQ(out[0], 0x41);
    EXPECT_EQ(out[1], 0x42);
}

TEST(TlvFind, TagLengthMustMatch) {
    // "\x9F" is one byte, the item's tag two: no match.
    const auto src = from_hex("9F 36 01 00");
    const uint8_t* value = nullptr;
    EXPECT_EQ(parse_tlv_data_t(&value, "\x9F", src.data(), size_of(src)), -2);
}

TEST(TlvFind, AbsentAndMalformed) {
    const auto src = from_hex("50 01 41 57 01 22");
    const uint8_t* value = nullptr;
    EXPECT_EQ(parse_tlv_data_t(&value, "\x5A", src.data(), size_of(src)), -2);
    const auto bad = from_hex("50 01 41 57 80 22");
    EXPECT_EQ(parse_tlv_data_t(&value, "\x5A", bad.data(), size_of(bad)), -1);
    // A match before the malformed item is still found.
    EXPECT_EQ(parse_tlv_data_t(&value, "\x50", bad.data(), size_of(bad)), 1);
    uint8_t out[4];
    EXPECT_EQ(parse_tlv_data(out, "\x5A", src.data(), size_of(src)), -1);
    EXPECT_EQ(parse_tlv_data(out, "\x5A", bad.data(), size_of(bad)), -1);
}

TEST(TlvTemplate, DescendsThroughThePath) {
    // 77 { 9F27 01 80, 9F36 02 001C, 70 { 5A 02 1234 } }
    const auto src = from_hex("77 0F 9F 27 01 80 9F 36 02 00 1C 70 04 5A 02 12 34");
    uint8_t out[32] = {0};
    EXPECT_EQ(parse_tlv_data_tmplt(out, "\x9F\x36", "\x77", src.data(), size_of(src)), 2);
    EXPECT_EQ(out[0], 0x00);
    EXPECT_EQ(out[1], 0x1C);
    EXPECT_EQ(parse_tlv_data_tmplt(out, "\x5A", "\x77\x70", src.data(), size_of(src)), 2);
    EXPECT_EQ(out[0], 0x12);
    EXPECT_EQ(out[1], 0x34);
    // An empty path searches the top level.
    EXPECT_EQ(parse_tlv_data_tmplt(out, "\x77", "", src.data(), size_of(src)), 15);
}

TEST(TlvTemplate, Codes) {
    const auto src = from_hex("77 06 9F 27 01 80 70 00");
    uint8_t out[8] = {0};
    EXPECT_EQ(parse_tlv_data_tmplt(out, "\x9F\x27", "\x6F", src.data(), size_of(src)), -1);  // path step absent
    EXPECT_EQ(parse_tlv_data_tmplt(out, "\x9F\x36", "\x77", src.data(), size_of(src)), -3);  // final tag absent
    EXPECT_EQ(parse_tlv_data_tmplt(out, "\x5A", "\x77\x70", src.data(), size_of(src)), -2);  // nothing left
    EXPECT_EQ(parse_tlv_data_tmplt(out, "\x5A", "", src.data(), 0), -2);
}

TEST(TlvPack, ShortAndLongForms) {
    uint8_t out[300];
    const uint8_t value[] = {0x00, 0x1C};
    EXPECT_EQ(pack_tlv_data(out, "\x9F\x36", value, 2), 5);
    EXPECT_EQ(kolt::test::to_hex(out, 5), "9F3602001C");
    EXPECT_EQ(pack_tlv_data(out, "\x5A", nullptr, 0), 2);
    EXPECT_EQ(kolt::test::to_hex(out, 2), "5A00");
    std::vector<uint8_t> v200(200, 0xAB);
    EXPECT_EQ(pack_tlv_data(out, "\x70", v200.data(), 200), 203);
    EXPECT_EQ(out[1], 0x81);
    EXPECT_EQ(out[2], 0xC8);
    EXPECT_EQ(out[3], 0xAB);
    std::vector<uint8_t> v127(127, 1);
    EXPECT_EQ(pack_tlv_data(out, "\x70", v127.data(), 127), 129);
    EXPECT_EQ(out[1], 0x7F);
    std::vector<uint8_t> v129(129, 1);
    EXPECT_EQ(pack_tlv_data(out, "\x70", v129.data(), 129), 132);
    EXPECT_EQ(out[1], 0x81);
    EXPECT_EQ(out[2], 0x81);
}

TEST(TlvPack, TwoAndThreeByteLengths) {
    std::vector<uint8_t> value(70000, 0x11);
    std::vector<uint8_t> out(70010);
    EXPECT_EQ(pack_tlv_data(out.data(), "\x70", value.data(), 300), 1 + 3 + 300);
    EXPECT_EQ(kolt::test::to_hex(out.data(), 4), "7082012C");
    EXPECT_EQ(pack_tlv_data(out.data(), "\x70", value.data(), 70000), 1 + 4 + 70000);
    EXPECT_EQ(kolt::test::to_hex(out.data(), 5), "7083011170");
}

TEST(TlvPack, LengthOneTwentyEightRefused) {
    uint8_t out[300];
    std::vector<uint8_t> v(128, 1);
    EXPECT_EQ(pack_tlv_data(out, "\x70", v.data(), 128), -2);
    EXPECT_EQ(pack_tlv_data(out, "\x70", v.data(), 0x1000000), -2);
}

TEST(TlvPack, BadTags) {
    uint8_t out[16];
    const uint8_t v[] = {1};
    EXPECT_EQ(pack_tlv_data(out, "", v, 1), -1);
    EXPECT_EQ(pack_tlv_data(out, "\x9F", v, 1), -1);          // needs a second byte
    EXPECT_EQ(pack_tlv_data(out, "\x5A\x01", v, 1), -1);      // one-byte tag given two
    EXPECT_EQ(pack_tlv_data(out, "\x9F\x36\x01", v, 1), -1);  // three bytes
}

TEST(TlvPack, RoundTrip) {
    uint8_t out[300];
    std::vector<uint8_t> value(200);
    for (size_t i = 0; i < value.size(); ++i) value[i] = static_cast<uint8_t>(i);
    const int n = pack_tlv_data(out, "\xBF\x0C", value.data(), 200);
    ASSERT_EQ(n, 204);
    const uint8_t* found = nullptr;
    EXPECT_EQ(parse_tlv_data_t(&found, "\xBF\x0C", out, n), 200);
    EXPECT_EQ(0, std::memcmp(found, value.data(), 200));
    const auto packed = kolt::tlv::pack(bytes({0x9F, 0x37}), bytes({1, 2, 3, 4}));
    ASSERT_TRUE(packed.has_value());
    EXPECT_EQ(kolt::test::to_hex(*packed), "9F370401020304");
    EXPECT_FALSE(kolt::tlv::pack(bytes({0x9F}), bytes({1})).has_value());
    const auto f = kolt::tlv::find(*packed, bytes({0x9F, 0x37}));
    EXPECT_EQ(f.code, 4);
    EXPECT_EQ(f.value.size(), 4u);
}

TEST(TlvDebugHook, WritesNothing) {
    // The codec's trace hook is kept at its places but writes nothing, even
    // with the log switch on: no debug log, no error log line, nothing on
    // standard output or standard error. It must accept any arguments.
    kolt::test::DebugLogCapture debug;  // switch on, debug log in a directory of its own
    const kolt::test::ErrorLogTail error_log;
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    const uint32_t size = 1;
    KOLT_TLV_debugWriteLog("tlv_parser tlv->val.size 1= %d", &size, 0);
    KOLT_TLV_debugWriteLog("tlv_parser tlv->val.size 1= %d", nullptr, 0);
    KOLT_TLV_debugWriteLog(nullptr, nullptr, -1);
    // The codec's own calls of the hook.
    const auto items = bytes({0x9F, 0x36, 0x02, 0x00, 0x01, 0x5A, 0x01, 0x12});
    EXPECT_EQ(count_tlv_substring(items.data(), size_of(items), 1), 2);
    const std::string out = ::testing::internal::GetCapturedStdout();
    const std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(out, "");
    EXPECT_EQ(err, "");
    EXPECT_TRUE(std::filesystem::is_empty(debug.dir().path()));
    EXPECT_EQ(error_log.text(), "");
}
