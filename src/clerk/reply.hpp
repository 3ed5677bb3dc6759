// The answer accumulator of the clerk service's socket reader, as a pure
// function over the bytes received so far: has the start mark come, has
// the end mark come after it, and does the answer still fit its room.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace kolt::clerk {

// Bytes asked of the socket per read.
inline constexpr std::size_t kReadChunk = 6144;

enum class ReplyState {
    waiting_start,  // the start mark has not come (yet)
    waiting_end,    // the start mark came, the end mark not yet
    complete,       // both came: the answer is received[offset, offset + length)
    overflow,       // the answer (from the start mark on) no longer fits room - 1 bytes
};

struct ReplyScan {
    ReplyState state = ReplyState::waiting_start;
    std::size_t offset = 0;  // where the start mark begins (bytes before it are dropped)
    std::size_t length = 0;  // bytes from the start mark to the end of what was received
};

// Looks at everything received so far. The answer runs from the first start
// mark to the end of the data (what follows the end mark stays in it, as a
// server that sends one answer never sends more). room counts the caller's
// terminator: an answer of room bytes or more is an overflow, and so are
// room bytes or more without a start mark. An empty start mark matches at
// 0; an empty end mark is found as soon as the start mark is.
ReplyScan scan_reply(std::span<const uint8_t> received, std::string_view start_mark, std::string_view end_mark,
                     std::size_t room);

}  // namespace kolt::clerk
