#include "emv/record_walk.hpp"

#include "device/icc.hpp"
#include "emv/flow.hpp"
#include "emv/state.hpp"
#include "emv/tags.hpp"
#include "support/log.hpp"

namespace kolt::emv {

Walk walk_afl(const AppInit& app, std::string_view letters, const FlowTrace& trace) {
    Walk w;
    const int count = app.afl_entries();
    int i = 0;
    int j = 0;
    for (i = 0; i < count; ++i) {
        trace.walk_entry(i);
        const uint8_t* entry = &app.aip_afl[2 + 4 * static_cast<std::size_t>(i)];
        const int sfi = entry[0] >> 3;
        if (sfi >= kSfiLimit) continue;
        const int first = entry[1];
        const int last = entry[2];
        for (j = first; j <= last; ++j) {
            trace.walk_record(j);
            device::CardReply reply;
            const auto rc = static_cast<int32_t>(device::read_record(
                static_cast<uint32_t>(state().slot()), static_cast<uint8_t>(j), static_cast<uint8_t>(sfi), reply,
                kRecordReadTimeout));
            if (rc < 0) {
                trace.walk_read_failed(rc);
                w.read_result = rc;
                w.entry = i;
                w.record = j;
                return w;
            }
            parse_tag_value(reply.data(), 1);
            trace.walk_parsed(found_letters());
            if (all_found(letters)) {
                trace.walk_all_found();
                w.stopped = true;
                w.entry = i;
                w.record = j;
                return w;
            }
        }
    }
    w.entry = i;
    w.record = j;
    return w;
}

}  // namespace kolt::emv
