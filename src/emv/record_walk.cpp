#include "emv/record_walk.hpp"

#include <algorithm>

#include "device/icc.hpp"
#include "emv/flow.hpp"
#include "emv/state.hpp"
#include "emv/tags.hpp"
#include "support/log.hpp"

namespace kolt::emv {

Walk walk_records(const AppInit& app, uint32_t timeout, WalkStart start, const WalkHooks& hooks,
                  const std::function<bool(std::span<const uint8_t>)>& visit) {
    Walk w;
    const int count = app.afl_entries();
    int i = std::max(start.entry, 0);
    int j = 0;
    for (; i < count; ++i) {
        if (hooks.entry) hooks.entry(i);
        const auto entry = app.afl_entry(i);
        const int sfi = entry[0] >> 3;
        if (sfi >= kSfiLimit) continue;
        if (hooks.sfi) hooks.sfi(sfi);
        const int first = i == start.entry ? std::max<int>(entry[1], start.record) : entry[1];
        const int last = entry[2];
        for (j = first; j <= last; ++j) {
            if (hooks.record) hooks.record(j);
            device::CardReply reply;
            const auto rc = static_cast<int32_t>(device::read_record(static_cast<uint32_t>(state().slot()),
                                                                     static_cast<uint8_t>(j),
                                                                     static_cast<uint8_t>(sfi), reply, timeout));
            if (rc < 0) {
                if (hooks.failed) hooks.failed(rc);
                w.read_result = rc;
                w.entry = i;
                w.record = j;
                return w;
            }
            if (visit(reply.data())) {
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

Walk walk_afl(const AppInit& app, std::string_view letters, const FlowTrace& trace) {
    WalkHooks hooks;
    hooks.entry = [&](int i) { trace.walk_entry(i); };
    hooks.record = [&](int j) { trace.walk_record(j); };
    hooks.failed = [&](int32_t rc) { trace.walk_read_failed(rc); };
    return walk_records(app, kRecordReadTimeout, {}, hooks, [&](std::span<const uint8_t> record) {
        parse_tag_value(record, 1);
        trace.walk_parsed(found_letters());
        if (!all_found(letters)) return false;
        trace.walk_all_found();
        return true;
    });
}

}  // namespace kolt::emv
