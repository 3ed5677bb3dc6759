// The device-information call: the request rules and the two answers as
// pure functions, then DEV_CommCall end to end on the simulator, reached
// through a /dev/COM<n> link to its pseudo-terminal.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "common/com_link.hpp"
#include "common/sim_fixture.hpp"
#include "common/test_util.hpp"
#include "devinfo/request.hpp"
#include "kolt/kolt.h"

namespace {

using kolt::devinfo::parse_request;
using kolt::devinfo::Request;
using kolt::sim::Fault;
using Status = Request::Status;
using Bytes = std::vector<uint8_t>;

const std::string kError = R"({"ErrorCode":"-1","ErrorMessage":"parameter error"})";
const std::string kDefaultAnswer =
    R"({"ErrorCode":"0","ErrorMessage":"success","DeviceBrand":"KOLT","DllVersion":"2.0.1",)"
    R"("ProductionDate":"","DeviceSN":"0001234567","DeviceVersion":"V1.08","DeviceModel":"KL560T41"})";

std::string request(const std::string& function, const std::string& port) {
    return R"({"FunctionCode":")" + function + R"(","RequestPort":")" + port +
           R"(","RequestBaudRate":"9600","RequestTimeOut":"3"})";
}

Bytes bytes(const std::string& s) { return Bytes(s.begin(), s.end()); }

// ---- The request.

TEST(DevInfoRequest, AWellFormedRequest) {
    const Request r = parse_request(request("0001", "3"));
    EXPECT_EQ(r.status, Status::ok);
    EXPECT_EQ(r.port, 3);
}

TEST(DevInfoRequest, FunctionCode0002IsRefused) {
    EXPECT_EQ(parse_request(request("0002", "3")).status, Status::bad_function);
    EXPECT_EQ(parse_request(request("1", "3")).status, Status::bad_function);
    EXPECT_EQ(parse_request(request("", "3")).status, Status::bad_function);
}

TEST(DevInfoRequest, PortZeroOrNotANumberIsRefused) {
    EXPECT_EQ(parse_request(request("0001", "0")).status, Status::bad_function);
    EXPECT_EQ(parse_request(request("0001", "abc")).status, Status::bad_function);
    EXPECT_EQ(parse_request(request("0001", "")).status, Status::bad_function);
}

TEST(DevInfoRequest, PortIsReadAsAtoiReadsIt) {
    EXPECT_EQ(parse_request(request("0001", " 7x")).port, 7);
    EXPECT_EQ(parse_request(request("0001", "-2")).port, -2);
    EXPECT_EQ(parse_request(request("0001", "-2")).status, Status::ok);  // non-zero is all that is asked
}

TEST(DevInfoRequest, EachOfTheFourKeysIsRequired) {
    EXPECT_EQ(parse_request(R"({"FunctionCode":"0001","RequestPort":"3","RequestBaudRate":"9600"})").status,
              Status::missing_key);  // no RequestTimeOut, although it is never used
    EXPECT_EQ(parse_request(R"({"FunctionCode":"0001","RequestPort":"3","RequestTimeOut":"3"})").status,
              Status::missing_key);
    EXPECT_EQ(parse_request(R"({"FunctionCode":"0001","RequestBaudRate":"9600","RequestTimeOut":"3"})").status,
              Status::missing_key);
    EXPECT_EQ(parse_request(R"({"RequestPort":"3","RequestBaudRate":"9600","RequestTimeOut":"3"})").status,
              Status::missing_key);
}

TEST(DevInfoRequest, AValueThatIsNotAStringCountsAsAbsent) {
    EXPECT_EQ(parse_request(R"({"FunctionCode":"0001","RequestPort":3,"RequestBaudRate":"9600","RequestTimeOut":"3"})")
                  .status,
              Status::missing_key);
    EXPECT_EQ(parse_request(R"({"FunctionCode":1,"RequestPort":"3","RequestBaudRate":"9600","RequestTimeOut":"3"})")
                  .status,
              Status::missing_key);
    EXPECT_EQ(parse_request(R"({"FunctionCode":"0001","RequestPort":"3","RequestBaudRate":null,"RequestTimeOut":"3"})")
                  .status,
              Status::missing_key);
    EXPECT_EQ(parse_request(R"({"FunctionCode":"0001","RequestPort":"3","RequestBaudRate":"9600","RequestTimeOut":{}})")
                  .status,
              Status::missing_key);
}

TEST(DevInfoRequest, KeysMatchWithoutRegardToCase) {
    const Request r =
        parse_request(R"({"functioncode":"0001","REQUESTPORT":"5","requestBaudRate":"x","requesttimeout":""})");
    EXPECT_EQ(r.status, Status::ok);
    EXPECT_EQ(r.port, 5);
}

TEST(DevInfoRequest, TheFirstOfTwoEqualKeysCounts) {
    const Request r = parse_request(
        R"({"FunctionCode":"0002","FunctionCode":"0001","RequestPort":"3","RequestBaudRate":"9600","RequestTimeOut":"3"})");
    EXPECT_EQ(r.status, Status::bad_function);
}

TEST(DevInfoRequest, TextThatIsNotAJsonObject) {
    EXPECT_EQ(parse_request("").status, Status::not_json);
    EXPECT_EQ(parse_request("{").status, Status::not_json);
    EXPECT_EQ(parse_request("FunctionCode=0001").status, Status::not_json);
    EXPECT_EQ(parse_request(R"(["0001","3"])").status, Status::missing_key);
    EXPECT_EQ(parse_request(R"("0001")").status, Status::missing_key);
    // cJSON_Parse ignores what follows the object.
    EXPECT_EQ(parse_request(request("0001", "2") + " trailing").status, Status::ok);
}

// ---- The answers.

TEST(DevInfoAnswer, ErrorAnswerBytes) { EXPECT_EQ(kolt::devinfo::error_response(), kError); }

TEST(DevInfoAnswer, SuccessAnswerBytesKeyOrderNoBlanks) {
    EXPECT_EQ(kolt::devinfo::success_response("01.02-20230915-0001234567-0089012345",
                                              bytes("KL560T41-FW-20240115-V1.08")),
              kDefaultAnswer);
}

TEST(DevInfoAnswer, SerialNumberIsTheFourthFieldOfTheModuleText) {
    using kolt::devinfo::serial_field;
    EXPECT_EQ(serial_field("01.02-00000003-0000000004-0000000005"), "0000000004");
    EXPECT_EQ(serial_field("0123456789ABCDEFGHIJKLMNO"), "FGHIJKLMNO");  // exactly 25 characters
    EXPECT_EQ(serial_field("0123456789ABCDEFGHIJKLMN"), "");            // 24: too short
    EXPECT_EQ(serial_field(""), "");
}

TEST(DevInfoAnswer, AVersionOfExactly17BytesGivesNoDeviceVersion) {
    using kolt::devinfo::version_field;
    EXPECT_EQ(version_field(bytes("ABCDEFGHIJKLMNOPQ")), "");        // 17
    EXPECT_EQ(version_field(bytes("ABCDEFGHIJKLMNOPQR")), "NOPQR");  // 18
    EXPECT_EQ(version_field({}), "");
}

TEST(DevInfoAnswer, AZeroByteEndsTheVersionText) {
    Bytes v = bytes("ABCDEFGHIJKLMNOPQRST");
    v[17] = 0;
    EXPECT_EQ(kolt::devinfo::version_field(v), "PQ");  // the last five are PQ, 0, S, T
}

TEST(DevInfoAnswer, ControlCharactersAreEscapedByTheJsonWriter) {
    Bytes v = bytes("ABCDEFGHIJKLMNOPQR\"\x01");
    const std::string answer = kolt::devinfo::success_response("", v);
    EXPECT_NE(answer.find(R"("DeviceVersion":"PQR\"\u0001")"), std::string::npos) << answer;
    EXPECT_NE(answer.find(R"("DeviceSN":"")"), std::string::npos);
}

// ---- DEV_CommCall end to end.

int open_fds() {
    int n = 0;
    for ([[maybe_unused]] const auto& e : std::filesystem::directory_iterator("/proc/self/fd")) ++n;
    return n;
}

struct Call {
    int32_t result = -99;
    std::string answer;
    int32_t len = -99;
};

Call comm_call(const char* in) {
    Call c;
    std::vector<char> out(KOLT_DEVINFO_RESPONSE_MAX, 'Z');
    c.result = DEV_CommCall(in, nullptr, out.data(), &c.len);
    c.answer = std::string(out.data(), ::strnlen(out.data(), out.size()));
    return c;
}

class DevCommCall : public kolt::test::SimTest {
protected:
    void SetUp() override {
        kolt::test::SimTest::SetUp();
        link_ = std::make_unique<kolt::test::ComLink>("/dev/" + sim().port_name());
        if (link_->number() == 0) GTEST_SKIP() << "cannot create a /dev/COM<n> link here";
    }
    void TearDown() override {
        link_.reset();
        kolt::test::SimTest::TearDown();
    }
    std::string port() const { return std::to_string(link_->number()); }
    // The commands the simulator received, as (class, code) pairs.
    std::vector<std::pair<int, int>> commands() {
        std::vector<std::pair<int, int>> v;
        for (const auto& c : sim().transcript()) v.emplace_back(c.cls, c.code);
        return v;
    }
    std::unique_ptr<kolt::test::ComLink> link_;
};

TEST_F(DevCommCall, AnswersWithTheDeviceIdentity) {
    const int fds = open_fds();
    const Call c = comm_call(request("0001", port()).c_str());
    EXPECT_EQ(c.result, 0);
    EXPECT_EQ(c.answer, kDefaultAnswer);
    EXPECT_EQ(c.len, static_cast<int32_t>(kDefaultAnswer.size()));
    EXPECT_STREQ(gPortName, ("COM" + port()).c_str());
    // Wake-up read, serial number, version 4; then the link is closed.
    const std::vector<std::pair<int, int>> expected{{0x35, 0x82}, {0x35, 0x87}, {0x31, 0x11}};
    EXPECT_EQ(commands(), expected);
    EXPECT_EQ(sim().transcript().back().data, Bytes{0x04});
    EXPECT_EQ(open_fds(), fds);
}

TEST_F(DevCommCall, AFailedWakeUpReadIsIgnored) {
    sim().set_status(0x35, 0x82, 0x00, 0x41);
    EXPECT_EQ(comm_call(request("0001", port()).c_str()).answer, kDefaultAnswer);
}

TEST_F(DevCommCall, AVersionOfExactly17BytesGivesAnEmptyDeviceVersion) {
    sim().set_reply(0x31, 0x11, {0x00, 0x00, bytes("KL560T41-FW-2024.")});
    const Call c = comm_call(request("0001", port()).c_str());
    EXPECT_NE(c.answer.find(R"("DeviceVersion":"",)"), std::string::npos) << c.answer;
    sim().set_reply(0x31, 0x11, {0x00, 0x00, bytes("KL560T41-FW-2024.1")});
    EXPECT_NE(comm_call(request("0001", port()).c_str()).answer.find(R"("DeviceVersion":"024.1",)"),
              std::string::npos);
}

TEST_F(DevCommCall, ASerialNumberFailureGivesTheErrorAndClosesTheLink) {
    const int fds = open_fds();
    sim().set_status(0x35, 0x87, 0x00, 0x01);
    const Call c = comm_call(request("0001", port()).c_str());
    EXPECT_EQ(c.result, 0);
    EXPECT_EQ(c.answer, kError);
    EXPECT_EQ(c.len, static_cast<int32_t>(kError.size()));
    const std::vector<std::pair<int, int>> expected{{0x35, 0x82}, {0x35, 0x87}};
    EXPECT_EQ(commands(), expected);
    EXPECT_EQ(open_fds(), fds);
}

TEST_F(DevCommCall, AVersionFailureGivesTheErrorAndClosesTheLink) {
    const int fds = open_fds();
    sim().inject_for(0x31, 0x11, Fault{Fault::BadCheck});
    EXPECT_EQ(comm_call(request("0001", port()).c_str()).answer, kError);
    EXPECT_EQ(open_fds(), fds);
    // The next call finds the link healthy.
    EXPECT_EQ(comm_call(request("0001", port()).c_str()).answer, kDefaultAnswer);
}

TEST_F(DevCommCall, RefusedRequestsNeverOpenTheDevice) {
    for (const std::string& in :
         {request("0002", port()), request("0001", "0"), request("0001", "abc"),
          std::string(R"({"FunctionCode":"0001","RequestPort":"1","RequestBaudRate":"9600"})"), std::string("{")}) {
        const Call c = comm_call(in.c_str());
        EXPECT_EQ(c.result, 0) << in;
        EXPECT_EQ(c.answer, kError) << in;
        EXPECT_EQ(c.len, static_cast<int32_t>(kError.size())) << in;
    }
    EXPECT_TRUE(sim().transcript().empty());
}

TEST_F(DevCommCall, NullArguments) {
    Call c = comm_call(nullptr);
    EXPECT_EQ(c.result, 0);
    EXPECT_EQ(c.answer, kError);
    int32_t len = -5;
    EXPECT_EQ(DEV_CommCall(request("0001", port()).c_str(), nullptr, nullptr, &len), 0);
    EXPECT_EQ(len, 0);  // nothing was written
    char out[KOLT_DEVINFO_RESPONSE_MAX];
    EXPECT_EQ(DEV_CommCall(request("0001", port()).c_str(), nullptr, out, nullptr), 0);
    EXPECT_EQ(std::string(out), kDefaultAnswer);
}

TEST(DevCommCallNoDevice, AMissingDeviceGivesTheError) {
    const int n = kolt::test::free_com_number();
    ASSERT_NE(n, 0);
    const int fds = open_fds();
    const Call c = comm_call(request("0001", std::to_string(n)).c_str());
    EXPECT_EQ(c.result, 0);
    EXPECT_EQ(c.answer, kError);
    EXPECT_EQ(open_fds(), fds);
}

TEST(DevCommCallNoDevice, AHugeRequestIsReadWholeAndRefused) {
    std::string in = R"({"FunctionCode":"0001","RequestPort":")" + std::string(10000, '9') + R"(","x":")";
    in += std::string(100000, 'a') + "\"}";
    const Call c = comm_call(in.c_str());
    EXPECT_EQ(c.answer, kError);
}

}  // namespace
