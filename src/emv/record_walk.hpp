// The walk through the records an application's AFL names, parsing each
// into the working state's slots until the letters asked for are found.
// Card information reads with it, and the cryptogram flows that need the
// card's data elements read with it too.
#pragma once

#include <cstdint>
#include <string_view>

#include "emv/app_select.hpp"
#include "emv/trace.hpp"

namespace kolt::emv {

// READ RECORD time-out of the walk.
inline constexpr uint32_t kRecordReadTimeout = 6;
// AFL entries naming a short file identifier from here on are not read.
inline constexpr int kSfiLimit = 11;

struct Walk {
    int32_t read_result = 0;  // negative: the READ RECORD that failed
    bool stopped = false;     // every letter was found
    int entry = 0;            // AFL entry index where the walk ended
    int record = 0;           // record number where it ended
};

// Reads the records the AFL names, entry by entry and record by record, and
// parses each into the slots until every letter of `letters` is listed as
// found. Files with an SFI of 11 or more are skipped. After a complete walk
// entry is the entry count and record one past the last record of the last
// entry read.
Walk walk_afl(const AppInit& app, std::string_view letters, const FlowTrace& trace);

}  // namespace kolt::emv
