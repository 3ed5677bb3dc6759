// The answer accumulator of the clerk service's socket reader
// (kolt::clerk::scan_reply), fed the bytes received so far, segment by
// segment, as the reader does.
//
// Input: two bytes of room (big-endian), a byte of segment size (0 means
// 1), a short field with the start mark, a short field with the end mark,
// then the bytes as they arrive.
#include <algorithm>
#include <string>
#include <vector>

#include "clerk/reply.hpp"
#include "common/fuzz_input.hpp"

using namespace kolt::fuzz;
namespace clerk = kolt::clerk;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input in(data, size);
    const std::size_t room = in.u16();
    const uint8_t segment = in.u8();
    const std::size_t step = segment == 0 ? 1 : segment;
    const std::string start = in.short_string();
    const std::string end = in.short_string();
    const auto rest = in.rest();
    std::vector<uint8_t> received;
    clerk::ReplyState last = clerk::ReplyState::waiting_start;
    for (std::size_t at = 0; at < rest.size(); at += step) {
        const std::size_t n = std::min(step, rest.size() - at);
        received.insert(received.end(), rest.begin() + static_cast<std::ptrdiff_t>(at),
                        rest.begin() + static_cast<std::ptrdiff_t>(at + n));
        Heap copy(received, received.size());
        const clerk::ReplyScan s =
            clerk::scan_reply(std::span<const uint8_t>(copy.data(), copy.size()), start, end, room);
        check(s.offset + s.length == received.size(), "offset and length do not cover the data");
        if (s.state != clerk::ReplyState::overflow) check(s.length < room, "answer longer than its room");
        if (s.state == clerk::ReplyState::waiting_end || s.state == clerk::ReplyState::complete) {
            const std::string got(received.begin() + static_cast<std::ptrdiff_t>(s.offset), received.end());
            check(got.compare(0, start.size(), start) == 0, "answer does not begin with the start mark");
        }
        if (s.state == clerk::ReplyState::complete) {
            const std::string got(received.begin() + static_cast<std::ptrdiff_t>(s.offset), received.end());
            check(got.find(end) != std::string::npos, "complete without the end mark");
        }
        // The reader stops at the first complete answer or overflow.
        check(last != clerk::ReplyState::waiting_end || s.state != clerk::ReplyState::waiting_start,
              "start mark lost");
        last = s.state;
        if (s.state == clerk::ReplyState::complete || s.state == clerk::ReplyState::overflow) break;
    }
    return 0;
}
