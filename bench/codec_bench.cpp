// Decoding what the card and the reader send, the cost of a log line, and
// the identity card's code-table lookups:
//  - a TLV walk over a card record's items, against OpenSSL's BER decoder
//    (ASN1_get_object) walking the same items in the same run;
//  - a card reply as it arrives: the main frame decoded, then its record
//    stored into the tag-letter slots, in bytes of wire a second;
//  - one debug-log line with the switch on (written to a file) and a
//    logging call with the switch off;
//  - searchgb / searchuni over the 24,068 pairs of the code tables, against
//    a binary search of the same sorted tables.
#include <benchmark/benchmark.h>
#include <openssl/asn1.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "idcard/gbk.hpp"
#include "kolt/kolt.h"
#include "kolt_sim/frame.hpp"
#include "link/frame_codec.hpp"
#include "support/log.hpp"

namespace {

// One primitive item: tag bytes, BER length, value.
void put_item(std::vector<uint8_t>& out, std::vector<uint8_t> tag, std::size_t len, uint8_t fill) {
    out.insert(out.end(), tag.begin(), tag.end());
    if (len >= 0x80) out.push_back(0x81);
    out.push_back(static_cast<uint8_t>(len));
    for (std::size_t i = 0; i < len; ++i) out.push_back(static_cast<uint8_t>(fill + i));
}

// The items of a card record (application data of a debit card: track 2
// equivalent, account number, names, dates, the issuer's public-key data),
// about 1 KiB, each at the top level.
const std::vector<uint8_t>& record_items() {
    static const std::vector<uint8_t> items = [] {
        std::vector<uint8_t> v;
        for (int round = 0; round < 4; ++round) {
            put_item(v, {0x57}, 19, 0x62);
            put_item(v, {0x5A}, 10, 0x62);
            put_item(v, {0x5F, 0x20}, 26, 0x41);
            put_item(v, {0x5F, 0x24}, 3, 0x30);
            put_item(v, {0x5F, 0x25}, 3, 0x20);
            put_item(v, {0x5F, 0x28}, 2, 0x01);
            put_item(v, {0x5F, 0x34}, 1, 0x01);
            put_item(v, {0x8C}, 27, 0x9F);
            put_item(v, {0x8D}, 12, 0x8A);
            put_item(v, {0x8E}, 14, 0x00);
            put_item(v, {0x9F, 0x07}, 2, 0xFF);
            put_item(v, {0x9F, 0x0D}, 5, 0xD8);
            put_item(v, {0x9F, 0x1F}, 40, 0x31);
            put_item(v, {0x90}, 128, 0x5C);
        }
        return v;
    }();
    return items;
}

constexpr int kRecordItemCount = 4 * 14;

void BM_TlvWalkLibrary(benchmark::State& state) {
    const auto& items = record_items();
    for (auto _ : state) {
        const int n = count_tlv_substring(items.data(), static_cast<int32_t>(items.size()), 1);
        if (n != kRecordItemCount) state.SkipWithError("the walk failed");
        benchmark::DoNotOptimize(n);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(items.size()));
}
BENCHMARK(BM_TlvWalkLibrary);

void BM_TlvWalkOpenSSL(benchmark::State& state) {
    const auto& items = record_items();
    for (auto _ : state) {
        const unsigned char* p = items.data();
        const unsigned char* end = p + items.size();
        int n = 0;
        while (p < end) {
            long len = 0;
            int tag = 0, cls = 0;
            const int r = ASN1_get_object(&p, &len, &tag, &cls, end - p);
            if (r & 0x80) {
                state.SkipWithError("OpenSSL refused the items");
                break;
            }
            p += len;
            ++n;
        }
        if (n != kRecordItemCount) state.SkipWithError("OpenSSL's walk failed");
        benchmark::DoNotOptimize(n);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(items.size()));
}
BENCHMARK(BM_TlvWalkOpenSSL);

// A READ RECORD answer as the reader sends it: a main frame carrying the
// record template 70 (the items above, cut to what one record holds) and
// the status word.
std::vector<uint8_t> record_reply_wire() {
    std::vector<uint8_t> record{0x70, 0x81, 0};
    const auto& items = record_items();
    std::size_t n = 0;
    while (n < items.size()) {  // whole items up to 250 bytes
        const std::size_t tag_len = (items[n] & 0x1F) == 0x1F ? 2 : 1;
        const std::size_t len_at = n + tag_len;
        const std::size_t len = items[len_at] == 0x81 ? items[len_at + 1] + 2u : items[len_at] + 1u;
        if (record.size() + tag_len + len > 250) break;
        record.insert(record.end(), items.begin() + static_cast<long>(n),
                      items.begin() + static_cast<long>(n + tag_len + len));
        n += tag_len + len;
    }
    record[2] = static_cast<uint8_t>(record.size() - 3);
    record.push_back(0x90);
    record.push_back(0x00);
    return kolt::sim::encode_main_reply(0x00, 0x00, record);
}

void BM_CardReplyParse(benchmark::State& state) {
    const std::vector<uint8_t> wire = record_reply_wire();
    std::vector<uint8_t> out(KOLT_T41_REPLY_MAX);
    for (auto _ : state) {
        const int n = kolt::link::codec::decode_main(wire, kolt::link::codec::Body::nibbles, out);
        if (n < 9) {
            state.SkipWithError("the reply did not decode");
            break;
        }
        // 02, length, status pair, then the card's answer without its
        // status word, check and 03.
        KOLT_T41_ParseTagValue(out.data() + 5, n - 5 - 4, 1);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(wire.size()));
}
BENCHMARK(BM_CardReplyParse);

// --- logging -----------------------------------------------------------------

void BM_LogLineOn(benchmark::State& state) {
    const std::filesystem::path dir = std::filesystem::temp_directory_path() / "kolt-bench-log";
    std::filesystem::remove_all(dir);
    std::filesystem::create_directories(dir);
    kolt::log::set_debug_dir(dir.string() + "/");
    kolt::log::set_switch(1);
    const uint8_t apdu[] = {0x00, 0xB2, 0x01, 0x0C, 0x00};
    for (auto _ : state) KOLT_debugWriteLogLen("apdu=%02x", apdu, sizeof apdu);
    kolt::log::reset();
    std::filesystem::remove_all(dir);
}
BENCHMARK(BM_LogLineOn);

void BM_LogCallOff(benchmark::State& state) {
    kolt::log::reset();
    const uint8_t apdu[] = {0x00, 0xB2, 0x01, 0x0C, 0x00};
    for (auto _ : state) {
        KOLT_debugWriteLogLen("apdu=%02x", apdu, sizeof apdu);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_LogCallOff);

// --- code tables ---------------------------------------------------------------

// Every Unicode value (GBK code) of the tables, in a shuffled order, so that
// a run touches the whole table as a card's text would.
std::vector<int32_t> shuffled(const int32_t (&table)[kolt::idcard::kPairCount]) {
    std::vector<int32_t> v(std::begin(table), std::end(table));
    std::shuffle(v.begin(), v.end(), std::mt19937(20261123));
    return v;
}

template <class Lookup>
void lookups(benchmark::State& state, const std::vector<int32_t>& keys, Lookup lookup) {
    std::size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(lookup(keys[i]));
        if (++i == keys.size()) i = 0;
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}

void BM_SearchGbLibrary(benchmark::State& state) {
    lookups(state, shuffled(kolt::idcard::table::uni), [](int32_t u) { return searchgb(u); });
}
BENCHMARK(BM_SearchGbLibrary);

void BM_SearchGbBinary(benchmark::State& state) {
    using namespace kolt::idcard::table;
    lookups(state, shuffled(uni), [](int32_t u) {
        const int32_t* p = std::lower_bound(std::begin(uni), std::end(uni), u);
        return p != std::end(uni) && *p == u ? gb[p - std::begin(uni)] : -1;
    });
}
BENCHMARK(BM_SearchGbBinary);

void BM_SearchUniLibrary(benchmark::State& state) {
    lookups(state, shuffled(kolt::idcard::table::gbsort), [](int32_t g) { return searchuni(g); });
}
BENCHMARK(BM_SearchUniLibrary);

void BM_SearchUniBinary(benchmark::State& state) {
    using namespace kolt::idcard::table;
    lookups(state, shuffled(gbsort), [](int32_t g) {
        const int32_t* p = std::lower_bound(std::begin(gbsort), std::end(gbsort), g);
        return p != std::end(gbsort) && *p == g ? unisortbygb[p - std::begin(gbsort)] : -1;
    });
}
BENCHMARK(BM_SearchUniBinary);

}  // namespace
