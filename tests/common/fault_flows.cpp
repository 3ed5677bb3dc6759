#include "common/fault_flows.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "common/card_flow.hpp"
#include "common/clerk_server.hpp"
#include "common/com_link.hpp"
#include "common/library_state.hpp"
#include "common/online_flow.hpp"
#include "common/pty_util.hpp"
#include "common/session_flows.hpp"
#include "common/sim_fixture.hpp"
#include "common/test_util.hpp"
#include "kolt/kolt.h"
#include "kolt_sim/idcard.hpp"

namespace kolt::test {

namespace fs = std::filesystem;
using kolt::sim::Fault;
using kolt::sim::Simulator;

// ---------------------------------------------------------------------------
// Faults and modes.

const std::vector<LineFault>& line_faults() {
    static const std::vector<LineFault> all = {
        LineFault::NoReply,       LineFault::Truncated,  LineFault::BadCheck, LineFault::GarbageBefore,
        LineFault::GarbageInside, LineFault::LengthHuge, LineFault::CloseMidFrame, LineFault::Trickle,
        LineFault::SplitBytes,    LineFault::OtherReply,
    };
    return all;
}

const char* fault_name(LineFault f) {
    switch (f) {
        case LineFault::NoReply: return "no reply";
        case LineFault::Truncated: return "truncated";
        case LineFault::BadCheck: return "bad check";
        case LineFault::GarbageBefore: return "garbage before";
        case LineFault::GarbageInside: return "garbage inside";
        case LineFault::LengthHuge: return "length huge";
        case LineFault::CloseMidFrame: return "close mid-frame";
        case LineFault::Trickle: return "trickle";
        case LineFault::SplitBytes: return "split bytes";
        case LineFault::OtherReply: return "other reply";
    }
    return "?";
}

bool fault_waits(LineFault f) {
    return f == LineFault::NoReply || f == LineFault::Truncated || f == LineFault::CloseMidFrame ||
           f == LineFault::Trickle;
}

Fault sim_fault(LineFault f, int trickle_gap_ms) {
    switch (f) {
        case LineFault::NoReply: return {Fault::NoReply, 0};
        case LineFault::Truncated: return {Fault::Truncate, 0};
        case LineFault::BadCheck: return {Fault::BadCheck, 0};
        case LineFault::GarbageBefore: return {Fault::GarbageBefore, 0};
        case LineFault::GarbageInside: return {Fault::GarbageInside, 0};
        case LineFault::LengthHuge: return {Fault::LengthHuge, 0};
        case LineFault::CloseMidFrame: return {Fault::CloseMidFrame, 150};
        case LineFault::Trickle: return {Fault::Trickle, trickle_gap_ms};
        case LineFault::SplitBytes: return {Fault::SplitBytes, 1};
        case LineFault::OtherReply: return {Fault::OtherReply, 0};
    }
    return {};
}

const std::vector<LinkMode>& link_modes() {
    static const std::vector<LinkMode> modes = {
        {"local", 0, 0, 1, false},     {"aux type 1", 1, 1, 1, true},  {"aux type 2", 2, -1, 3, true},
        {"aux type 3", 3, 2, 1, true}, {"aux type 4", 4, 3, 2, false}, {"aux type 5", 5, -1, 2, true},
        {"aux type 51", 51, -1, 1, true},
    };
    return modes;
}

std::ostream& operator<<(std::ostream& os, const Outcome& o) {
    std::string shown;
    for (unsigned char c : o.text) {
        if (c >= 0x20 && c < 0x7F) {
            shown += static_cast<char>(c);
        } else {
            char b[8];
            std::snprintf(b, sizeof b, "\\x%02X", c);
            shown += b;
        }
    }
    return os << o.code << " \"" << shown << "\"";
}

Outcome FaultFlow::expect(LineFault f, const LinkMode& mode) const {
    if (mode.type != 0) {
        const auto aux = expected_aux.find(f);
        if (aux != expected_aux.end()) return aux->second;
    }
    const auto it = expected.find(f);
    return it == expected.end() ? failure : it->second;
}

bool FaultFlow::waits(LineFault f) const {
    return fault_waits(f) || std::find(also_waits.begin(), also_waits.end(), f) != also_waits.end();
}

bool FaultFlow::runs_in(const LinkMode& mode) const {
    if (local_only && mode.type != 0) return false;
    if (needs_public_type && mode.public_type < 0) return false;
    if (unwrapped && mode.wraps) return false;
    return true;
}

std::pair<uint8_t, uint8_t> FaultFlow::target(LineFault f) const {
    if (waits(f) && wait_target) return *wait_target;
    return {cls, code};
}

// ---------------------------------------------------------------------------
// The flows.

namespace {

using Clock = std::chrono::steady_clock;

std::string source_dir() {
    if (const char* d = std::getenv("KOLT_TEST_SOURCE_DIR")) return d;
    return fs::path(__FILE__).parent_path().parent_path().parent_path().string();
}

std::string type_text(const LinkMode& m) { return std::to_string(m.type); }
std::string port_text(const LinkMode& m) { return std::to_string(m.port); }

// Times the call under test.
template <class F>
FlowRun timed(F&& f) {
    FlowRun r;
    const auto start = Clock::now();
    r.outcome = f();
    r.elapsed_ms = ms_since(start);
    return r;
}

// A flow on a link the flow opens itself (KOLT_initCom with the internal
// type of the mode) and closes again.
template <class F>
FlowRun on_open_link(const LinkMode& m, F&& f) {
    const int open = KOLT_initCom(m.type, "", m.port, "");
    if (open != 0) return FlowRun{Outcome{-1000 + open, "link not opened"}, 0};
    FlowRun r = timed(f);
    KOLT_freeCom(m.type, m.port, "");
    return r;
}

const std::string kT1 = "%B6299990000001234560^LI/SIMING^3012101?";
const std::string kT2 = ";6299990000001234560=30122201234567890?";
const std::string kT3 = ";996299990000001234560=1561560000000000000003000000114000049120?";
const std::string kT2Text = "6299990000001234560=30122201234567890";
const std::string kT3Text = "996299990000001234560=1561560000000000000003000000114000049120";
const char* const kTrData = "P003100Q0010R0040156S00820261122T00200U006101530";
const std::string kCdol2Hex = "8A029F02069F03069F1A0295055F2A029A039C019F37049F21039F4E14";
const std::string kVersion = "KL560T41-FW-20240115-V1.08";
const std::string kSerial = "01.02-20230915-0001234567-0089012345";

// Issuer authentication data of an approval and a script of one
// application-unblock command.
const std::string kArpc = "910A" "1122334455667788" "3030" "72" "12" "86098418000004AABBCCDD" "9F180411223344";

std::string track(const std::vector<uint8_t>& buf) {
    const size_t len = static_cast<size_t>(buf[1] << 8 | buf[2]);
    char head[8];
    std::snprintf(head, sizeof head, "%02X:", buf[0]);
    return head + std::string(buf.begin() + 3, buf.begin() + 3 + static_cast<long>(std::min<size_t>(len, 200)));
}

kolt::sim::StripeCard stripe_card() { return kolt::sim::StripeCard{kT1, kT2, kT3}; }

bool apdu_ins(const kolt::sim::Command& c, uint8_t ins) { return c.data.size() >= 3 && c.data[2] == ins; }

// The faults under which the flow gives its healthy outcome.
std::map<LineFault, Outcome> healthy_under(const Outcome& healthy, std::initializer_list<LineFault> faults) {
    std::map<LineFault, Outcome> m;
    for (LineFault f : faults) m[f] = healthy;
    return m;
}

std::vector<FaultFlow> make_flows() {
    std::vector<FaultFlow> flows;

    // --- card information, transaction log, online transaction ------------
    {
        FaultFlow f;
        f.name = "card_info_contact";
        f.what = "ICRT_GetICCInfo(type, port, 0, \"\", \"ABEIJ\"), contact card";
        f.cls = 0x32, f.code = 0x22;  // contact power-on
        f.timeout_ms = 4000;
        f.needs_public_type = true;
        f.prepare = [](Simulator& sim) { sim.set_contact_card(load_card("pboc_debit")); };
        f.run = [](const LinkMode& m) {
            return timed([&] {
                std::vector<char> out(8192, 0);
                const int rc = ICRT_GetICCInfo(m.public_type, m.port, 0, "", "ABEIJ", out.data());
                return Outcome{rc, out.data()};
            });
        };
        f.healthy = {0,
                     "A0196299990000001234560B009LI/SIMINGE0386299990000001234560D30122201234567890FI006301231J00201"};
        // The power-on without a valid answer is the selection's -12; the
        // flow gives that minus 10 and the initialisation text. A reply to
        // another command carries the status 00 00: the reader cannot tell.
        f.failure = {-22, kCardInitError};
        f.expected = healthy_under(f.healthy, {LineFault::GarbageBefore, LineFault::SplitBytes, LineFault::OtherReply});
        flows.push_back(std::move(f));
    }
    {
        FaultFlow f;
        f.name = "card_info_contactless";
        f.what = "ICRT_GetICCInfo(type, port, 1, \"\", \"ABE\"), contactless card";
        f.cls = 0x32, f.code = 0x24;  // contactless activation
        f.timeout_ms = 4000;
        f.needs_public_type = true;
        f.prepare = [](Simulator& sim) { sim.set_contactless_card(load_card("qpboc_contactless")); };
        f.run = [](const LinkMode& m) {
            return timed([&] {
                std::vector<char> out(8192, 0);
                const int rc = ICRT_GetICCInfo(m.public_type, m.port, 1, "", "ABE", out.data());
                return Outcome{rc, out.data()};
            });
        };
        f.healthy = {0, "A0196299990000002468019B013WANG/XIAOHONGE0386299990000002468019D29112201234567890F"};
        f.failure = {-22, kCardInitError};
        f.expected = healthy_under(f.healthy, {LineFault::GarbageBefore, LineFault::SplitBytes, LineFault::OtherReply});
        flows.push_back(std::move(f));
    }
    {
        FaultFlow f;
        f.name = "tx_log";
        f.what = "ICRT_GetTxDetail(type, port, 0, \"\"), contact card";
        f.cls = 0x32, f.code = 0x22;
        f.timeout_ms = 4000;
        f.needs_public_type = true;
        f.prepare = [](Simulator& sim) { sim.set_contact_card(load_card("pboc_debit")); };
        f.run = [](const LinkMode& m) {
            return timed([&] {
                std::vector<char> out(KOLT_TXLOG_MAX, 0);
                const int rc = ICRT_GetTxDetail(m.public_type, m.port, 0, "", out.data());
                return Outcome{rc, std::string(out.data()).substr(0, 40)};
            });
        };
        f.healthy = {5, "106P012000000010000Q012000000000000R0040"};
        // Without a selection there is no log entry: the initialisation's
        // -12 minus 10, and the no-log-entry text.
        f.failure = {-22, kNoLogEntry};
        f.expected = healthy_under(f.healthy, {LineFault::GarbageBefore, LineFault::SplitBytes, LineFault::OtherReply});
        flows.push_back(std::move(f));
    }
    {
        FaultFlow f;
        f.name = "arqc";
        f.what = "KOLT_ICRT_GetARQC(type, port, 0, transaction data, \"\"), contact card";
        f.cls = 0x32, f.code = 0x22;
        f.timeout_ms = 4000;
        f.needs_public_type = true;
        f.prepare = [](Simulator& sim) { sim.set_contact_card(load_card("pboc_debit")); };
        f.run = [](const LinkMode& m) {
            return timed([&] {
                std::vector<char> f55(KOLT_FIELD55_MAX + 16, 0);
                std::vector<char> app(KOLT_APPDATA_TEXT_MAX, 0);
                const int rc = KOLT_ICRT_GetARQC(m.public_type, m.port, 0, kTrData, "", f55.data(), app.data());
                const std::string field55 = f55.data();
                return Outcome{rc, (rc == 0 ? field55.substr(0, 6) : field55) + "|" + app.data()};
            });
        };
        f.healthy = {0, "9F2608|" + kCdol2Hex + "0"};
        f.failure = {-22, kCardInitError + "|"};
        f.expected = healthy_under(f.healthy, {LineFault::GarbageBefore, LineFault::SplitBytes, LineFault::OtherReply});
        flows.push_back(std::move(f));
    }
    {
        FaultFlow f;
        f.name = "issuer_auth";
        f.what = "KOLT_ICRT_ARPCExeScript(type, port, 0, ...) with a script, after KOLT_ICRT_GetARQC";
        f.cls = 0x32, f.code = 0x26;  // the EXTERNAL AUTHENTICATE APDU
        f.match = [](const kolt::sim::Command& c) { return apdu_ins(c, 0x82); };
        f.wait_target = std::make_pair(uint8_t{0x32}, uint8_t{0x23});  // the closing power-off
        f.timeout_ms = 3000;
        f.needs_public_type = true;
        f.prepare = [](Simulator& sim) {
            auto card = load_card("pboc_debit");
            accept_issuer(*card);
            sim.set_contact_card(card);
        };
        f.run = [](const LinkMode& m) {
            std::vector<char> f55(KOLT_FIELD55_MAX + 16, 0);
            std::vector<char> app(KOLT_APPDATA_TEXT_MAX, 0);
            const int arqc = KOLT_ICRT_GetARQC(m.public_type, m.port, 0, kTrData, "", f55.data(), app.data());
            if (arqc != 0) return FlowRun{Outcome{-2000 + arqc, "no ARQC"}, 0};
            const std::string app_data = app.data();
            return timed([&] {
                std::vector<char> result(64, 0);
                std::vector<char> tc(KOLT_FIELD55_MAX + 8, 0);
                const int rc = KOLT_ICRT_ARPCExeScript(m.public_type, m.port, 0, kTrData, kArpc.c_str(),
                                                       app_data.c_str(), result.data(), tc.data());
                return Outcome{rc, std::string(result.data()) + "|" + std::string(tc.data()).substr(0, 9)};
            });
        };
        f.healthy = {0, "DF31052104112233|2269F2608"};
        // A failed EXTERNAL AUTHENTICATE exchange is -26, and the flow
        // goes on to its second cryptogram and script all the same; the
        // closing power-off's result is not looked at.
        f.failure = {-26, "DF31052104112233|2269F2608"};
        f.expected = healthy_under(f.healthy, {LineFault::GarbageBefore, LineFault::SplitBytes, LineFault::NoReply,
                                               LineFault::Truncated, LineFault::CloseMidFrame, LineFault::Trickle});
        flows.push_back(std::move(f));
    }

    // --- magnetic stripe ----------------------------------------------------
    {
        FaultFlow f;
        f.name = "stripe_read_framed";
        f.what = "KOLT_T41_MC_ReadThreeTrackData(1 s) on an open link";
        f.cls = 0x36, f.code = 0x91;
        f.timeout_ms = 3000;  // the caller's second and two more
        f.prepare = [](Simulator& sim) { sim.set_stripe_card(stripe_card()); };
        f.run = [](const LinkMode& m) {
            return on_open_link(m, [] {
                std::vector<uint8_t> t1(KOLT_T41_REPLY_MAX, 0), t2(KOLT_T41_REPLY_MAX, 0), t3(KOLT_T41_REPLY_MAX, 0);
                const int rc = KOLT_T41_MC_ReadThreeTrackData(t1.data(), t2.data(), t3.data(), 1);
                return Outcome{rc, rc == 0 ? track(t1) + " " + track(t2) + " " + track(t3) : ""};
            });
        };
        f.healthy = {0, "00:" + kT1 + " 00:" + kT2 + " 00:" + kT3};
        // Any failed exchange is Revdata_Error; a reply to another command
        // with the status 00 00 is taken for tracks.
        f.failure = {Revdata_Error, ""};
        f.expected = healthy_under(f.healthy, {LineFault::GarbageBefore, LineFault::SplitBytes});
        f.expected[LineFault::OtherReply] = {0, ""};
        flows.push_back(std::move(f));
    }
    {
        FaultFlow f;
        f.name = "stripe_read_escape";
        f.what = "KOLT_MC_Read(type, port, 23, 1 s)";
        f.cls = 0x1B, f.code = 'O';
        // The pause of a second after the command, the caller's second and
        // the loop's last 1-second read.
        f.timeout_ms = 3000;
        f.keeps_link_on_failure = true;
        f.unwrapped = true;  // the escape sequences go out without the terminal's lead and end
        f.needs_public_type = true;
        f.prepare = [](Simulator& sim) { sim.set_stripe_card(stripe_card()); };
        f.run = [](const LinkMode& m) {
            return timed([&] {
                std::vector<char> t2(KOLT_STRIPE_TEXT_MAX, 0), t3(KOLT_STRIPE_TEXT_MAX, 0);
                const int rc = KOLT_MC_Read(m.public_type, m.port, 23, t2.data(), t3.data(), 1);
                return Outcome{rc, rc == 0 ? std::string(t2.data()) + " " + t3.data() : ""};
            });
        };
        f.healthy = {0, kT2Text + " " + kT3Text};
        // No reply ending "?" FS in time: -2. Bytes before the reply make
        // the reply unreadable (-4): it has no head to look for.
        f.failure = {-2, ""};
        f.expected = healthy_under(f.healthy, {LineFault::LengthHuge, LineFault::SplitBytes});
        f.expected[LineFault::GarbageBefore] = {-4, ""};
        f.expected[LineFault::GarbageInside] = {-4, ""};
        flows.push_back(std::move(f));
    }
    {
        FaultFlow f;
        f.name = "stripe_write_escape";
        f.what = "KOLT_MC_Write(type, port, 23, track 2, track 3, 1 s)";
        f.cls = 0x1B, f.code = 't';
        f.timeout_ms = 3000;  // as the read
        f.keeps_link_on_failure = true;
        f.unwrapped = true;  // the escape sequences go out without the terminal's lead and end
        f.needs_public_type = true;
        f.prepare = [](Simulator& sim) { sim.set_stripe_card(stripe_card()); };
        f.run = [](const LinkMode& m) {
            return timed([&] {
                return Outcome{KOLT_MC_Write(m.public_type, m.port, 23, kT2Text.c_str(), kT3Text.c_str(), 1), ""};
            });
        };
        f.healthy = {0, ""};
        // Whatever status arrives decides at once: anything but a last
        // byte "p" is a refusal (-4); nothing at all, -2.
        f.failure = {-4, ""};
        f.expected = healthy_under(f.healthy, {LineFault::LengthHuge, LineFault::SplitBytes});
        f.expected[LineFault::NoReply] = {-2, ""};
        flows.push_back(std::move(f));
    }

    // --- identity card, fingerprint ------------------------------------------
    {
        FaultFlow f;
        f.name = "id_card";
        f.what = "getIdCardInfo(type, \"\", port, \"\", 1 s), resident card";
        f.cls = 0x35, f.code = 0x82;
        f.timeout_ms = 10000;  // the identity read's own time-out
        f.prepare = [](Simulator& sim) {
            static const kolt::sim::IdCardFields card =
                kolt::sim::load_id_card(source_dir() + "/sim/cards/idcard/resident.json");
            sim.set_id_card(card);
        };
        f.run = [](const LinkMode& m) {
            StandinDir dir;
            return timed([&] {
                std::vector<char> out(KOLT_IDINFO_MAX, 0);
                const int rc = getIdCardInfo(m.type, "", m.port, "", 1, out.data(), "", 0, 0, 0);
                const std::string line = out.data();
                return Outcome{rc, line.substr(line.empty() ? 0 : line.size() - std::min<size_t>(line.size(), 20))};
            });
        };
        f.healthy = {0, "50420|\xB3\xA4\xC6\xDA|2|01||||A"};
        f.failure = {-1, ""};
        f.expected = healthy_under(f.healthy, {LineFault::GarbageBefore, LineFault::SplitBytes});
        flows.push_back(std::move(f));
    }
    for (const std::string sensor : {"framed", "ef01"}) {
        FaultFlow f;
        f.name = "finger_" + sensor;
        f.what = "KOLT_T41_FP_GenChar(type, \"\", port, \"\", 0, 1 s), " + sensor + " sensor";
        // The capture's reply; faults that make the host wait go to the
        // detection's answer (3 s instead of the capture's 10 s).
        if (sensor == "framed") {
            f.cls = 0x37, f.code = 0x96;
            f.wait_target = std::make_pair(uint8_t{0x37}, uint8_t{0x93});
        } else {
            f.cls = 0xEF, f.code = 0x02;  // generate the features
            f.wait_target = std::make_pair(uint8_t{0xEF}, uint8_t{0x01});
        }
        f.timeout_ms = 3000;
        f.needs_public_type = true;
        f.sensor = sensor;
        f.prepare = [](Simulator& sim) { sim.place_finger(); };
        f.run = [](const LinkMode& m) {
            return timed([&] {
                std::vector<char> out(KOLT_FP_FEATURE_HEX_MAX + 8, 0);
                const int rc = KOLT_T41_FP_GenChar(m.public_type, "", m.port, "", 0, out.data(), 1);
                return Outcome{rc, std::string(out.data()).substr(0, 16)};
            });
        };
        f.healthy = {0, "5A5D544F4679706B"};
        // Detection tells the sensor by the head of its answer: a
        // truncated or cut one still does; none at all, or one whose head
        // comes in too slowly, is no sensor (-3).
        f.failure = {sensor == "framed" ? -3 : -4, ""};
        f.expected = healthy_under(f.healthy, {LineFault::GarbageBefore, LineFault::SplitBytes, LineFault::Truncated,
                                               LineFault::CloseMidFrame});
        // The module's answers carry a checksum the library does not check.
        if (sensor == "ef01") f.expected[LineFault::BadCheck] = f.healthy;
        f.expected[LineFault::NoReply] = {-3, ""};
        f.expected[LineFault::Trickle] = {-3, ""};
        flows.push_back(std::move(f));
    }

    // --- clerk verification -------------------------------------------------
    {
        FaultFlow f;
        f.name = "clerk_verify";
        f.what = "Verify_clerk_finger(type, \"\", port, \"\", 1 s, clerk) against kolt-clerkd, framed sensor";
        f.cls = 0x37, f.code = 0x96;
        f.wait_target = std::make_pair(uint8_t{0x37}, uint8_t{0x93});
        f.timeout_ms = 3000;
        f.needs_public_type = true;
        f.sensor = "framed";
        f.clerk_server = true;
        f.prepare = [](Simulator& sim) { sim.place_finger(); };
        f.run = [](const LinkMode& m) { return verify_clerk(m, "1005"); };
        f.healthy = {0, "555555"};
        f.failure = {-5, ""};
        f.expected = healthy_under(f.healthy, {LineFault::GarbageBefore, LineFault::SplitBytes, LineFault::Truncated,
                                               LineFault::CloseMidFrame});
        flows.push_back(std::move(f));
    }

    // --- device information, connection, probe ---------------------------------
    {
        FaultFlow f;
        f.name = "device_info";
        f.what = "DEV_CommCall(FunctionCode 0001) on /dev/COM<n>";
        f.cls = 0x31, f.code = 0x11;  // the version query
        f.timeout_ms = 3000;
        f.local_only = true;
        f.prepare = [](Simulator&) {};
        f.run = [](const LinkMode&) {
            const std::string port(gPortName);
            ComLink link("/dev/" + port);
            if (link.number() == 0) return FlowRun{Outcome{-3000, "not root"}, 0};
            ScopedPortName keep(port);
            const std::string request = R"({"FunctionCode":"0001","RequestPort":")" + std::to_string(link.number()) +
                                        R"(","RequestBaudRate":"9600","RequestTimeOut":"3"})";
            return timed([&] {
                char out[KOLT_DEVINFO_RESPONSE_MAX] = {};
                int32_t len = 0;
                const int rc = DEV_CommCall(request.c_str(), nullptr, out, &len);
                return Outcome{rc, out};
            });
        };
        f.healthy = {0, R"({"ErrorCode":"0","ErrorMessage":"success","DeviceBrand":"KOLT","DllVersion":"2.0.1",)"
                        R"("ProductionDate":"","DeviceSN":"0001234567","DeviceVersion":"V1.08","DeviceModel":"KL560T41"})"};
        f.failure = {0, R"({"ErrorCode":"-1","ErrorMessage":"parameter error"})"};
        f.expected = healthy_under(f.healthy, {LineFault::GarbageBefore, LineFault::SplitBytes});
        // The serial number's 16 bytes for a version: 17 bytes or fewer
        // give no device version.
        f.expected[LineFault::OtherReply] = {
            0, R"({"ErrorCode":"0","ErrorMessage":"success","DeviceBrand":"KOLT","DllVersion":"2.0.1",)"
               R"("ProductionDate":"","DeviceSN":"0001234567","DeviceVersion":"","DeviceModel":"KL560T41"})"};
        flows.push_back(std::move(f));
    }
    {
        FaultFlow f;
        f.name = "connect";
        f.what = "KOLT_connectDevice(\"\", type, port, \"\", \"\"), then KOLT_disconnectDevice";
        f.cls = 0x00, f.code = 0x41;
        f.timeout_ms = 6000;
        f.prepare = [](Simulator&) {};
        f.expected = healthy_under({0, ""}, {LineFault::GarbageBefore, LineFault::SplitBytes});
        f.also_waits = {LineFault::LengthHuge};
        f.run = [](const LinkMode& m) {
            const std::string t = type_text(m), p = port_text(m);
            FlowRun r = timed([&] { return Outcome{KOLT_connectDevice("", t.c_str(), p.c_str(), "", ""), ""}; });
            if (r.outcome.code == 0) {
                KOLT_disconnectDevice(t.c_str(), p.c_str());
            } else {
                KOLT_closeComOrAux(t.c_str(), p.c_str());
            }
            return r;
        };
        f.healthy = {0, ""};
        f.failure = {-1, ""};
        flows.push_back(std::move(f));
    }
    {
        FaultFlow f;
        f.name = "disconnect";
        f.what = "KOLT_disconnectDevice(type, port) after KOLT_connectDevice";
        f.cls = 0x00, f.code = 0x42;
        f.timeout_ms = 3000;
        f.prepare = [](Simulator&) {};
        f.expected = healthy_under({0, ""}, {LineFault::GarbageBefore, LineFault::SplitBytes});
        f.also_waits = {LineFault::LengthHuge};
        f.run = [](const LinkMode& m) {
            const std::string t = type_text(m), p = port_text(m);
            const int connect = KOLT_connectDevice("", t.c_str(), p.c_str(), "", "");
            if (connect != 0) {
                KOLT_closeComOrAux(t.c_str(), p.c_str());
                return FlowRun{Outcome{-2000 + connect, "not connected"}, 0};
            }
            return timed([&] { return Outcome{KOLT_disconnectDevice(t.c_str(), p.c_str()), ""}; });
        };
        f.healthy = {0, ""};
        f.failure = {-1, ""};
        // The local port wants a reply of exactly one byte, a terminal's
        // aux port any reply: the greeting's passes there.
        f.expected_aux[LineFault::OtherReply] = {0, ""};
        flows.push_back(std::move(f));
    }
    {
        FaultFlow f;
        f.name = "probe";
        f.what = "KOLT_getDeviceType() on an open link";
        f.cls = 0x00, f.code = 0x00;
        f.timeout_ms = 3000;
        f.prepare = [](Simulator&) {};
        f.run = [](const LinkMode& m) { return on_open_link(m, [] { return Outcome{KOLT_getDeviceType(), ""}; }); };
        f.healthy = {0, ""};
        // The probe checks the head "(ABQ" and nothing after it: only no
        // answer, a head too slow, a length it cannot read on and another
        // reply fail it.
        f.failure = {0, ""};
        f.expected[LineFault::NoReply] = {-1, ""};
        f.expected[LineFault::Trickle] = {-1, ""};
        f.expected[LineFault::LengthHuge] = {-1, ""};
        f.expected[LineFault::OtherReply] = {-1, ""};
        flows.push_back(std::move(f));
    }

    // --- peripheral commands --------------------------------------------------
    struct Simple {
        const char* name;
        const char* what;
        uint8_t cls, code;
        int timeout_ms;
        int32_t (*call)();
    };
    static const Simple simple[] = {
        {"led", "KOLT_T41_LedOperate(LED_IC, LED_Color_G, LED_Light)", 0x31, 0x14, 6000,
         [] { return KOLT_T41_LedOperate(LED_IC, LED_Color_G, LED_Light); }},
        {"buzzer", "KOLT_T41_Buzz()", 0x31, 0x13, 6000, [] { return KOLT_T41_Buzz(); }},
        {"rf_on", "KOLT_T41_OpenRF()", 0x38, 0x97, 3000, [] { return KOLT_T41_OpenRF(); }},
        {"rf_off", "KOLT_T41_CloseRF()", 0x38, 0x98, 3000, [] { return KOLT_T41_CloseRF(); }},
    };
    for (const Simple& s : simple) {
        FaultFlow f;
        f.name = s.name;
        f.what = std::string(s.what) + " on an open link";
        f.cls = s.cls, f.code = s.code;
        f.timeout_ms = s.timeout_ms;
        f.prepare = [](Simulator&) {};
        auto call = s.call;
        f.run = [call](const LinkMode& m) { return on_open_link(m, [call] { return Outcome{call(), ""}; }); };
        f.healthy = {0, ""};
        // A damaged reply is -1 (the LEDs and the buzzer look at nothing
        // but its arrival, the field at its status too); another
        // command's reply with the status 00 00 passes.
        f.failure = {-1, ""};
        f.expected = healthy_under(f.healthy, {LineFault::GarbageBefore, LineFault::SplitBytes, LineFault::OtherReply});
        flows.push_back(std::move(f));
    }
    {
        FaultFlow f;
        f.name = "version";
        f.what = "KOLT_T41_GetVersion(4, 1 s) on an open link";
        f.cls = 0x31, f.code = 0x11;
        f.timeout_ms = 1000;
        f.prepare = [](Simulator&) {};
        f.run = [](const LinkMode& m) {
            return on_open_link(m, [] {
                uint8_t v[KOLT_VERSION_MAX] = {};
                const int n = KOLT_T41_GetVersion(4, v, 1);
                return Outcome{n, std::string(reinterpret_cast<const char*>(v), n > 0 ? static_cast<size_t>(n) : 0)};
            });
        };
        f.healthy = {26, kVersion};
        f.failure = {-1, ""};
        f.expected = healthy_under(f.healthy, {LineFault::GarbageBefore, LineFault::SplitBytes});
        f.expected[LineFault::OtherReply] = {16, ""};  // the serial number's 16 bytes taken for a version
        flows.push_back(std::move(f));
    }
    {
        FaultFlow f;
        f.name = "sam_id";
        f.what = "KOLT_T41_GetSAIMIDStr(1 s) on an open link";
        f.cls = 0x35, f.code = 0x87;
        f.timeout_ms = 1000;
        f.prepare = [](Simulator&) {};
        f.run = [](const LinkMode& m) {
            return on_open_link(m, [] {
                char out[KOLT_SAIMID_TEXT_MAX] = {};
                const int rc = KOLT_T41_GetSAIMIDStr(out, 1);
                return Outcome{rc, out};
            });
        };
        f.healthy = {23, kSerial};
        f.failure = {-1, ""};
        f.expected = healthy_under(f.healthy, {LineFault::GarbageBefore, LineFault::SplitBytes});
        // The version's bytes taken for a serial number.
        f.expected[LineFault::OtherReply] = {33, "19531.13877-825513008-0760694317-0875704370"};
        flows.push_back(std::move(f));
    }
    return flows;
}

}  // namespace

FlowRun verify_clerk(const LinkMode& m, const std::string& clerk) {
    return timed([&] {
        char pw[KOLT_CLERK_PASSWORD_MAX] = "";
        const int rc = Verify_clerk_finger(m.public_type, "", m.port, "", 1, "0101", clerk.c_str(), pw);
        return Outcome{rc, pw};
    });
}

const std::vector<ServerFault>& clerk_server_faults() {
    static const std::vector<ServerFault> faults = {
        {"answer in pieces", "2003", {0, "666666"}, 3000, false},
        {"garbage", "2001", {-1, ""}, 3000, false},
        {"closed mid-answer", "2002", {-1, ""}, 3000, false},
        {"no end mark", "2004", {-1, ""}, 22000, true},
        {"no answer", "2005", {-1, ""}, 22000, true},
    };
    return faults;
}

namespace {

// The bench's clerks: 1005 and the 200x of the server faults, all with the
// simulated sensor's built-in finger.
std::string clerk_file() {
    const std::string finger = to_hex(kolt::sim::default_finger_features());
    auto clerk = [&](const std::string& num, const std::string& pw, const std::string& fault) {
        return R"({"bankcode":"0101","clerknum":")" + num + R"(","password":")" + pw +
               R"(","mode":2,"feature":")" + finger + R"(","fault":")" + fault + R"("})";
    };
    return R"({"clerks":[)" + clerk("1005", "555555", "") + "," + clerk("2001", "666666", "garbage") + "," +
           clerk("2002", "666666", "cut") + "," + clerk("2003", "666666", "split") + "," +
           clerk("2004", "666666", "no-end") + "," + clerk("2005", "666666", "silent") + "]}";
}

}  // namespace

const std::vector<FaultFlow>& fault_flows() {
    static const std::vector<FaultFlow> flows = make_flows();
    return flows;
}

const FaultFlow& fault_flow(const std::string& name) {
    for (const auto& f : fault_flows())
        if (f.name == name) return f;
    throw std::invalid_argument("no fault flow " + name);
}

// ---------------------------------------------------------------------------
// The bench.

struct FlowBench::Impl {
    TempDir dir;
    std::unique_ptr<ClerkServer> clerks;
    std::optional<ScopedEnv> home;
    std::optional<ScopedEnv> dcchome;
    std::unique_ptr<ScopedSimulator> sim;
    std::unique_ptr<ScopedStdin> stdin_line;
};

FlowBench::FlowBench(const LinkMode& mode) : mode_(mode), impl_(std::make_unique<Impl>()) {
    // A link of another mode before this one leaves its descriptor behind
    // in the library's state (the terminal modes write to it): start from a
    // freshly loaded library.
    reset_library_state();
    kolt::sim::Options o;
    o.terminal.type = mode.type;
    o.terminal.port = mode.port;
    if (mode.type >= 50) {
        const std::string path = impl_->dir.write("lxbs/font/idcread.ext", kTerm51Section);
        impl_->dcchome.emplace("DCCHOME", impl_->dir.str());
        o.terminal.ext_file = path;
    }
    impl_->sim = std::make_unique<ScopedSimulator>(o);
    if (mode.type != 0) impl_->stdin_line = std::make_unique<ScopedStdin>((*impl_->sim)->slave_path());
}

FlowBench::~FlowBench() {
    impl_->home.reset();
    impl_->clerks.reset();
    impl_->stdin_line.reset();
    impl_->sim.reset();
}

kolt::sim::Simulator& FlowBench::sim() { return impl_->sim->get(); }

FlowRun FlowBench::run(const FaultFlow& flow, std::optional<LineFault> fault) {
    if (flow.clerk_server) start_clerks();
    Simulator& s = sim();
    // The simulator's own records would grow with every run.
    forget_records();
    s.clear_faults();
    s.set_finger_type(flow.sensor);
    s.lift_finger();
    flow.prepare(s);
    if (fault) {
        // A trickle whose second byte comes after the time-out of the
        // exchange: the head arrives, the rest too late, whatever the
        // reply's length and however the library counts its seconds.
        const int gap = flow.timeout_ms + 500;
        const auto [cls, code] = flow.target(*fault);
        const Fault sf = sim_fault(*fault, gap);
        if (flow.match && std::make_pair(cls, code) == std::make_pair(flow.cls, flow.code)) {
            s.inject_when(cls, code, flow.match, sf);
        } else {
            s.inject_for(cls, code, sf);
        }
    }
    away_from_second_boundary();
    FlowRun r = flow.run(mode_);
    s.clear_faults();
    return r;
}

void FlowBench::forget_records() {
    Simulator& s = sim();
    s.clear_transcript();
    s.clear_raw();
    s.clear_stripe_commands();
    s.clear_id_displays();
}

void FlowBench::start_clerks() {
    if (impl_->clerks) return;
    impl_->clerks = std::make_unique<ClerkServer>(clerk_file());
    impl_->home.emplace("HOME", impl_->clerks->home());
}

FlowRun FlowBench::run_clerk(const std::string& clerk) {
    start_clerks();
    Simulator& s = sim();
    s.clear_faults();
    s.set_finger_type("framed");
    s.place_finger();
    away_from_second_boundary();
    return verify_clerk(mode_, clerk);
}

// ---------------------------------------------------------------------------

int open_descriptors() {
    int n = 0;
    for ([[maybe_unused]] const auto& e : fs::directory_iterator("/proc/self/fd")) ++n;
    return n;
}

long long resident_bytes() {
    std::ifstream in("/proc/self/statm");
    long long size = 0, resident = 0;
    in >> size >> resident;
    return resident * ::sysconf(_SC_PAGESIZE);
}

}  // namespace kolt::test
