// kolt-record-sessions: records the library flows of tests/common/
// session_flows.cpp through a proxy in front of the simulated reader and
// writes them as sim/sessions/<name>.session. A recording is written only
// when the library got the expected results through the proxy and a replay
// of it gives them again without a difference. sim/sessions/record.sh
// builds and runs it.
//
//   kolt-record-sessions DIR [NAME ...]     (no NAME: every flow)
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "common/session_flows.hpp"
#include "kolt_sim/frame.hpp"

namespace {

std::string hex(const std::vector<uint8_t>& b, size_t from = 0) {
    std::string s;
    char buf[4];
    for (size_t i = from; i < b.size(); ++i) {
        std::snprintf(buf, sizeof buf, "%02X", b[i]);
        s += buf;
    }
    return s;
}

// A note for a chunk that holds one whole main frame: the command (class,
// code, data) or the reply (status pair and how many data bytes).
std::string note_of(const kolt::sim::Chunk& c) {
    char buf[64];
    if (c.dir == kolt::sim::Direction::ToDevice) {
        const auto f = kolt::sim::decode_main(c.bytes);
        if (!f) return {};
        std::snprintf(buf, sizeof buf, " command %02X %02X", f->a, f->b);
        std::string note = buf;
        if (!f->data.empty()) note += " " + (f->data.size() <= 40 ? hex(f->data) : std::to_string(f->data.size()) + " bytes");
        return note;
    }
    std::optional<std::vector<uint8_t>> body;
    if (const auto f = kolt::sim::decode_main(c.bytes)) {
        body = std::vector<uint8_t>{f->a, f->b};
        body->insert(body->end(), f->data.begin(), f->data.end());
    } else {
        body = kolt::sim::decode_special_reply(c.bytes);
    }
    if (!body || body->size() < 2) return {};
    std::snprintf(buf, sizeof buf, " status %02X %02X, %zu data bytes", (*body)[0], (*body)[1], body->size() - 2);
    return buf;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2 || std::string(argv[1]) == "--help") {
        std::fprintf(argc < 2 ? stderr : stdout, "usage: kolt-record-sessions DIR [NAME ...]\nflows:");
        for (const auto& f : kolt::test::session_flows()) std::fprintf(argc < 2 ? stderr : stdout, " %s", f.name.c_str());
        std::fprintf(argc < 2 ? stderr : stdout, "\n");
        return argc < 2 ? 2 : 0;
    }
    const std::string dir = argv[1];
    std::vector<std::string> names(argv + 2, argv + argc);
    if (names.empty())
        for (const auto& f : kolt::test::session_flows()) names.push_back(f.name);
    int failures = 0;
    for (const auto& name : names) {
        try {
            const auto& flow = kolt::test::session_flow(name);
            const auto proxied = kolt::test::run_through_proxy(flow);
            if (proxied.result != flow.expected) {
                std::fprintf(stderr, "%s: unexpected result through the proxy: %s\n", name.c_str(), proxied.result.c_str());
                ++failures;
                continue;
            }
            const auto replayed = kolt::test::run_against_replay(flow, proxied.recording);
            if (replayed.result != flow.expected || !replayed.differences.empty() || replayed.unexpected != 0) {
                std::fprintf(stderr, "%s: the replay does not give the same (%zu differences, %zu unexpected bytes)\n",
                             name.c_str(), replayed.differences.size(), replayed.unexpected);
                for (const auto& r : replayed.reports) std::fprintf(stderr, "  %s\n", r.c_str());
                ++failures;
                continue;
            }
            const std::string path = dir + "/" + name + ".session";
            auto rec = proxied.recording;
            rec.date.clear();  // a new recording differs from the old one in its times only
            for (auto& c : rec.chunks) c.note = note_of(c);
            rec.save(path);
            std::printf("%s: %zu chunks, %zu exchanges\n", path.c_str(), rec.chunks.size(), rec.exchanges().size());
        } catch (const std::exception& e) {
            std::fprintf(stderr, "%s: %s\n", name.c_str(), e.what());
            ++failures;
        }
    }
    return failures == 0 ? 0 : 1;
}
