#include "common/session_flows.hpp"

#include <iconv.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <stdexcept>

#include "common/card_flow.hpp"
#include "common/test_util.hpp"
#include "kolt/kolt.h"
#include "kolt_sim/idcard.hpp"

namespace kolt::test {

namespace fs = std::filesystem;

namespace {

fs::path source_dir() {
    if (const char* d = std::getenv("KOLT_TEST_SOURCE_DIR")) return d;
    return fs::path(__FILE__).parent_path().parent_path().parent_path();
}

using kolt::test::gbk;

std::string rc_text(int rc) { return "rc=" + std::to_string(rc); }

// The tracks the framed read gives: status, two length bytes, data.
std::string track_text(const std::vector<uint8_t>& buf) {
    const size_t len = static_cast<size_t>(buf[1] << 8 | buf[2]);
    char head[16];
    std::snprintf(head, sizeof head, "%02X:", buf[0]);
    return head + std::string(buf.begin() + 3, buf.begin() + 3 + static_cast<long>(std::min<size_t>(len, 200)));
}

const std::string kT1 = "%B6299990000001234560^LI/SIMING^3012101?";
const std::string kT2 = ";6299990000001234560=30122201234567890?";
const std::string kT3 = ";996299990000001234560=1561560000000000000003000000114000049120?";

std::vector<SessionFlow> make_flows() {
    std::vector<SessionFlow> flows;

    flows.push_back({"card_info_contact",
                     "ICRT_GetICCInfo(0, 1, 0, \"\", \"ABEIJ\") with sim/cards/pboc_debit.json in the contact reader",
                     [](kolt::sim::Simulator& sim) { sim.set_contact_card(load_card("pboc_debit")); },
                     [] {
                         std::vector<char> out(8192, 0);
                         const int rc = ICRT_GetICCInfo(0, 1, 0, "", "ABEIJ", out.data());
                         return rc_text(rc) + " " + out.data();
                     },
                     "rc=0 A0196299990000001234560B009LI/SIMINGE0386299990000001234560D30122201234567890F"
                     "I006301231J00201"});

    flows.push_back({"tx_log", "ICRT_GetTxDetail(0, 1, 0, \"\") with sim/cards/pboc_debit.json in the contact reader",
                     [](kolt::sim::Simulator& sim) { sim.set_contact_card(load_card("pboc_debit")); },
                     [] {
                         std::vector<char> out(KOLT_TXLOG_MAX, 0);
                         const int rc = ICRT_GetTxDetail(0, 1, 0, "", out.data());
                         return rc_text(rc) + " " + out.data();
                     },
                     "rc=5 106" + log_record("000000010000", "250301", "00", "101530", "KOLT TEST SHOP 01", 0x17) +
                         log_record("000000002550", "250415", "00", "142205", "KOLT CANTEEN", 0x18) +
                         log_record("000000050000", "250620", "01", "090012", "KOLT BRANCH ATM 7", 0x19) +
                         log_record("000000000899", "251102", "00", "183047", "KOLT BOOKSTORE", 0x1A) +
                         log_record("000000100000", "260114", "60", "111111", "KOLT EC LOAD", 0x1B)});

    flows.push_back({"stripe_read_framed",
                     "KOLT_initCom, KOLT_T41_MC_ReadThreeTrackData(5 s) of a swiped three-track card, KOLT_freeCom",
                     [](kolt::sim::Simulator& sim) { sim.swipe(kolt::sim::StripeCard{kT1, kT2, kT3}); },
                     [] {
                         const int open = KOLT_initCom(0, "", 1, "");
                         std::vector<uint8_t> t1(KOLT_T41_REPLY_MAX, 0), t2(KOLT_T41_REPLY_MAX, 0),
                             t3(KOLT_T41_REPLY_MAX, 0);
                         const int rc = KOLT_T41_MC_ReadThreeTrackData(t1.data(), t2.data(), t3.data(), 5);
                         KOLT_freeCom(0, 1, "");
                         return "open=" + std::to_string(open) + " " + rc_text(rc) + " t1=" + track_text(t1) +
                                " t2=" + track_text(t2) + " t3=" + track_text(t3);
                     },
                     "open=0 rc=0 t1=00:" + kT1 + " t2=00:" + kT2 + " t3=00:" + kT3});

    flows.push_back({"id_card",
                     "ID_GetInfo(port, 0, 0, 5, \"\") with sim/cards/idcard/resident.json on the reader",
                     [](kolt::sim::Simulator& sim) {
                         sim.set_id_card(kolt::sim::load_id_card(
                             (source_dir() / "sim" / "cards" / "idcard" / "resident.json").string()));
                     },
                     [] {
                         StandinDir dir;
                         std::vector<char> out(KOLT_IDINFO_MAX, 0);
                         const std::string port(gPortName);
                         const int rc = ID_GetInfo(port.c_str(), 0, 0, 5, "", 0, 0, 0, out.data());
                         std::error_code ec;
                         const auto photo = fs::file_size(dir.path() / "zp.bmp", ec);
                         return rc_text(rc) + " " + out.data() + " photo=" + std::to_string(ec ? 0 : photo);
                     },
                     "rc=0 " + gbk("林晓雯") + "|" + gbk("女") + "|" + gbk("汉") + "|19650315|" +
                         gbk("北京市朝阳区示例大街88号3单元502室") + "|110105196503150247|" +
                         gbk("北京市公安局朝阳分局") + "|20150420|" + gbk("长期") + "|2|01||||A photo=38862"});

    flows.push_back({"device_version_serial",
                     "KOLT_initCom, KOLT_T41_GetVersion(4), KOLT_T41_GetSAIMIDStr, KOLT_freeCom",
                     [](kolt::sim::Simulator&) {},
                     [] {
                         const int open = KOLT_initCom(0, "", 1, "");
                         uint8_t version[KOLT_VERSION_MAX] = {};
                         const int n = KOLT_T41_GetVersion(4, version, 2);
                         char serial[KOLT_SAIMID_TEXT_MAX] = {};
                         const int s = KOLT_T41_GetSAIMIDStr(serial, 2);
                         KOLT_freeCom(0, 1, "");
                         return "open=" + std::to_string(open) + " version=" + std::to_string(n) + " " +
                                std::string(reinterpret_cast<const char*>(version), n > 0 ? static_cast<size_t>(n) : 0) +
                                " serial=" + std::to_string(s) + " " + serial;
                     },
                     "open=0 version=26 KL560T41-FW-20240115-V1.08 serial=23 01.02-20230915-0001234567-0089012345"});
    return flows;
}

// Collects what a proxy or replayer reports (from its own thread).
struct Reports {
    std::mutex m;
    std::vector<std::string> lines;
    kolt::sim::ReportSink sink() {
        return [this](const std::string& line) {
            std::lock_guard l(m);
            lines.push_back(line);
        };
    }
    std::vector<std::string> take() {
        std::lock_guard l(m);
        return lines;
    }
};

}  // namespace

const std::vector<SessionFlow>& session_flows() {
    static const std::vector<SessionFlow> flows = make_flows();
    return flows;
}

const SessionFlow& session_flow(const std::string& name) {
    for (const auto& f : session_flows())
        if (f.name == name) return f;
    throw std::invalid_argument("no session flow " + name);
}

void PrintTo(const SessionFlow& flow, std::ostream* os) { *os << flow.name; }

std::string session_file(const std::string& name) { return std::string(KOLT_SIM_SESSION_DIR) + "/" + name + ".session"; }

ScopedPortName::ScopedPortName(const std::string& name) : saved_(gPortName) {
    std::memset(gPortName, 0, sizeof gPortName);
    std::strncpy(gPortName, name.c_str(), sizeof gPortName - 1);
}

ScopedPortName::~ScopedPortName() {
    std::memset(gPortName, 0, sizeof gPortName);
    std::strncpy(gPortName, saved_.c_str(), sizeof gPortName - 1);
}

ProxiedRun run_through_proxy(const SessionFlow& flow) {
    kolt::sim::Simulator sim;
    flow.prepare(sim);
    sim.start();
    Reports reports;
    kolt::sim::ProxyOptions po;
    po.device = sim.slave_path();
    po.report = reports.sink();
    kolt::sim::Proxy proxy(po);
    proxy.start();
    ProxiedRun out;
    {
        ScopedPortName port(proxy.port_name());
        out.result = flow.run();
    }
    proxy.stop();
    sim.stop();
    out.recording = proxy.recording();
    out.recording.device = "kolt-sim (the simulated reader)";
    if (!out.recording.chunks.empty()) {
        auto& c = out.recording.chunks.front().comments;
        c.insert(c.begin(), " " + flow.what);
        // The result too, where it is plain text (the identity card's is GBK).
        bool plain = true;
        for (char ch : flow.expected) plain = plain && ch >= 0x20 && ch < 0x7F;
        if (plain) c.insert(c.begin() + 1, " result: " + flow.expected);
    }
    return out;
}

ReplayedRun run_against_replay(const SessionFlow& flow, const kolt::sim::Recording& recording) {
    Reports reports;
    kolt::sim::ReplayOptions ro;
    ro.speed = 0;
    ro.report = reports.sink();
    kolt::sim::Replayer replayer(recording, ro);
    replayer.start();
    ReplayedRun out;
    {
        ScopedPortName port(replayer.port_name());
        out.result = flow.run();
    }
    replayer.wait_finished(0, 1000);
    replayer.stop();
    out.differences = replayer.differences();
    out.unexpected = replayer.unexpected_bytes();
    out.played = replayer.played();
    out.exchanges = replayer.exchange_count();
    out.reports = reports.take();
    return out;
}

}  // namespace kolt::test
