// The walk through the records an application's AFL names, parsing each
// into the working state's slots until the letters asked for are found.
// Card information reads with it, and the cryptogram flows that need the
// card's data elements read with it too.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
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

// Where a walk starts: AFL entry index and record number (a record number
// below the entry's first record starts at its first).
struct WalkStart {
    int entry = 0;
    int record = 0;
};

// What a walk tells its caller as it goes; every member may be empty.
struct WalkHooks {
    std::function<void(int)> entry;        // entry index, before its SFI is looked at
    std::function<void(int)> sfi;          // the entry's SFI, when it is read
    std::function<void(int)> record;       // record number, before it is read
    std::function<void(int32_t)> failed;   // a READ RECORD's negative result
};

// Reads the records the AFL names from start on (files with an SFI of
// kSfiLimit or more are skipped), handing each record's data (without the
// status word) to visit, until visit answers true (stopped) or a READ
// RECORD fails (negative result). The position where it ended is in the
// result; after a complete walk, as for walk_afl.
Walk walk_records(const AppInit& app, uint32_t timeout, WalkStart start, const WalkHooks& hooks,
                  const std::function<bool(std::span<const uint8_t>)>& visit);

// Reads the records the AFL names, entry by entry and record by record, and
// parses each into the slots until every letter of `letters` is listed as
// found. Files with an SFI of 11 or more are skipped. After a complete walk
// entry is the entry count and record one past the last record of the last
// entry read.
Walk walk_afl(const AppInit& app, std::string_view letters, const FlowTrace& trace);

}  // namespace kolt::emv
