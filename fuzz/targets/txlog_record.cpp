// Transaction-log records as lettered text: the exported
// KOLT_T41_ParseOneRecord (a record of 45 bytes) and
// kolt::emv::format_log_record over records of any length. The header gives
// the room of the text as 108 bytes: 106 characters, 107 when the ATC is
// 10000 or more, and a terminator.
//
// Input: the record (shorter inputs are padded with zeros to 45 bytes for
// the exported call).
#include <algorithm>
#include <cstring>

#include "common/fuzz_input.hpp"
#include "emv/tags.hpp"
#include "kolt/kolt.h"

using namespace kolt::fuzz;
namespace emv = kolt::emv;

namespace {
constexpr std::size_t kRecordText = 107;  // longest "P..X" text of one record, without the terminator
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::span<const uint8_t> input(data, size);
    {
        Heap record(emv::kLogRecordSize);
        std::memset(record.data(), 0, record.size());
        std::memcpy(record.data(), data, std::min<std::size_t>(size, emv::kLogRecordSize));
        Heap out(kRecordText + 1);
        const int32_t n = KOLT_T41_ParseOneRecord(record.data(), out.chars());
        check(n >= 0 && static_cast<std::size_t>(n) <= kRecordText, "KOLT_T41_ParseOneRecord: text longer than 107");
    }
    {
        Heap record(input, size);
        const std::string text = emv::format_log_record(std::span<const uint8_t>(record.data(), record.size()));
        check(text.size() <= kRecordText, "format_log_record: text longer than 107");
    }
    return 0;
}
