// The clerk service's texts: the request envelope, node extraction and the
// answer accumulator (pure functions, and their C entry points).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "clerk/reply.hpp"
#include "clerk/xml.hpp"
#include "kolt/kolt.h"

namespace {

namespace clerk = kolt::clerk;

std::span<const uint8_t> bytes(const std::string& s) { return {reinterpret_cast<const uint8_t*>(s.data()), s.size()}; }

TEST(ClerkEnvelope, ElementsInOrderOnOneLine) {
    const std::string xml = clerk::envelope({"0101", "1001", "", "", "ABCD", "", "2"});
    EXPECT_EQ(xml,
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?><koltes><request><bankcode>0101</bankcode>"
              "<clerknum>1001</clerknum><sysnum></sysnum><staffnum></staffnum><fingerprint>ABCD</fingerprint>"
              "<reseve1></reseve1><reseve2></reseve2><password></password><msgflag>2</msgflag></request></koltes>");
    EXPECT_EQ(xml.find('\n'), std::string::npos);
}

TEST(ClerkEnvelope, ValuesAreSentUnescaped) {
    const std::string xml = clerk::envelope({"A&B", "<1>", "", "", "", "p&<w", "1"});
    EXPECT_NE(xml.find("<bankcode>A&B</bankcode>"), std::string::npos);
    EXPECT_NE(xml.find("<clerknum><1></clerknum>"), std::string::npos);
    EXPECT_NE(xml.find("<password>p&<w</password>"), std::string::npos);
    EXPECT_EQ(xml.find("&amp;"), std::string::npos);
}

TEST(ClerkEnvelope, SendedXmlWritesTheEnvelope) {
    std::vector<char> out(1024, 'x');
    EXPECT_EQ(sendedXml(out.data(), "0101", "1001", "S", "T", "", "new", "1"), 0);
    EXPECT_EQ(std::string(out.data()), clerk::envelope({"0101", "1001", "S", "T", "", "new", "1"}));
    EXPECT_EQ(sendedXml(out.data(), nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_NE(std::string(out.data()).find("<bankcode></bankcode>"), std::string::npos);
}

TEST(ClerkEnvelope, OldMessageHasHeadRequestAndTail) {
    std::vector<char> out(2048);
    EXPECT_EQ(sendedXmlOld(out.data(), "0101", "1001", "S", "T", "AB", "pw", "2"), 0);
    const std::string s(out.data());
    EXPECT_EQ(s.rfind("<?xml version=\"1.0\" encoding=\"UTF-8\"?><koltes><head><version>1.0</version>", 0), 0u);
    EXPECT_NE(s.find("<request><bankcode>0101</bankcode>"), std::string::npos);
    EXPECT_NE(s.find("<tail><fplen>2</fplen><pwdlen>2</pwdlen></tail></koltes>"), std::string::npos);
}

TEST(ClerkNode, FirstOccurrenceWins) {
    const auto n = clerk::node_value("<a><result>1</result><result>2</result></a>", "result");
    EXPECT_EQ(n.code, 0);
    EXPECT_EQ(n.value, "1");
}

TEST(ClerkNode, MissingTags) {
    EXPECT_EQ(clerk::node_value("<a>1</a>", "result").code, -1);
    EXPECT_EQ(clerk::node_value("<result>1", "result").code, -2);
    EXPECT_EQ(clerk::node_value("", "result").code, -1);
    const auto e = clerk::node_value("<result></result>", "result");
    EXPECT_EQ(e.code, 0);
    EXPECT_TRUE(e.value.empty());
}

TEST(ClerkNode, NoNestingOrAttributes) {
    // An attribute hides the element; nested elements end at the first close.
    EXPECT_EQ(clerk::node_value("<result code=\"1\">0</result>", "result").code, -1);
    EXPECT_EQ(clerk::node_value("<r><r>x</r></r>", "r").value, "<r>x");
}

TEST(ClerkNode, CApi) {
    char out[64] = "junk";
    EXPECT_EQ(KOLT_XML_GetNodeValue("<koltes><msgflagresult>0</msgflagresult></koltes>", "msgflagresult", out), 0);
    EXPECT_STREQ(out, "0");
    EXPECT_EQ(KOLT_XML_GetNodeValue("<koltes></koltes>", "result", out), -1);
    EXPECT_EQ(KOLT_XML_GetNodeValue("<result>1", "result", out), -2);
    EXPECT_EQ(KOLT_XML_GetNodeValue(nullptr, "result", out), -1);
}

TEST(ClerkReply, AccumulatesSegmentsUntilTheEndMark) {
    const std::string answer = "<?xml version=\"1.0\"?><koltes><result>0</result></koltes>";
    std::string got;
    for (std::size_t at = 0; at < answer.size(); at += 7) {
        got += answer.substr(at, 7);
        const auto s = clerk::scan_reply(bytes(got), "<?xml", "</koltes>", 1024);
        if (got.size() < answer.size()) {
            EXPECT_NE(s.state, clerk::ReplyState::complete) << got;
            EXPECT_EQ(s.state, got.size() < 5 ? clerk::ReplyState::waiting_start : clerk::ReplyState::waiting_end);
        } else {
            EXPECT_EQ(s.state, clerk::ReplyState::complete);
            EXPECT_EQ(s.offset, 0u);
            EXPECT_EQ(s.length, answer.size());
        }
    }
}

TEST(ClerkReply, BytesBeforeTheStartMarkAreDropped) {
    const std::string data = "xx<?xml?><koltes></koltes>";
    const auto s = clerk::scan_reply(bytes(data), "<?xml", "</koltes>", 1024);
    EXPECT_EQ(s.state, clerk::ReplyState::complete);
    EXPECT_EQ(s.offset, 2u);
    EXPECT_EQ(s.length, data.size() - 2);
}

TEST(ClerkReply, TooLongIsAnOverflow) {
    const std::string data = "<?xml" + std::string(100, 'a') + "</koltes>";
    EXPECT_EQ(clerk::scan_reply(bytes(data), "<?xml", "</koltes>", data.size()).state, clerk::ReplyState::overflow);
    EXPECT_EQ(clerk::scan_reply(bytes(data), "<?xml", "</koltes>", data.size() + 1).state,
              clerk::ReplyState::complete);
    EXPECT_EQ(clerk::scan_reply(bytes(std::string(50, 'g')), "<?xml", "</koltes>", 50).state,
              clerk::ReplyState::overflow);
    EXPECT_EQ(clerk::scan_reply(bytes(""), "<?xml", "</koltes>", 0).state, clerk::ReplyState::waiting_start);
}

}  // namespace
