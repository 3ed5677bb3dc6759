// Exported C entry points of the clerk verification service.
#include <sys/socket.h>

#include <string>

#include "clerk/clerk.hpp"
#include "clerk/net.hpp"
#include "clerk/xml.hpp"
#include "kolt/kolt.h"
#include "support/capi_util.hpp"

namespace clerk = kolt::clerk;
using kolt::capi::text;

namespace {

clerk::Request request_of(const char* bankCode, const char* clerkNum, const char* sysNum, const char* staffNum,
                          const char* fingerprint, const char* password, const char* msgFlag) {
    return {text(bankCode), text(clerkNum),  text(sysNum), text(staffNum),
            text(fingerprint), text(password), text(msgFlag)};
}

}  // namespace

extern "C" {

KOLT_API int32_t Verify_clerk_finger(int32_t termType, const char* portArg, int32_t port, const char* auxArg,
                                     int32_t timeoutSecs, const char* bankCode, const char* clerkNum,
                                     char* passwordOut) {
    clerk::CaptureArgs args;
    args.term_type = termType;
    args.port_arg = std::string(text(portArg));
    args.port = port;
    args.aux_arg = std::string(text(auxArg));
    args.a5 = 3;
    args.timeout_secs = timeoutSecs;
    const clerk::Verification v = clerk::verify_clerk_finger(args, text(bankCode), text(clerkNum));
    if (v.password) kolt::capi::copy_text(passwordOut, *v.password, KOLT_CLERK_PASSWORD_MAX);
    return v.code;
}

KOLT_API int32_t QueryClerkMode(const char* bankCode, const char* clerkNum) {
    return clerk::query_clerk_mode(text(bankCode), text(clerkNum));
}

KOLT_API int32_t RefreshPwd(const char* bankCode, const char* clerkNum, const char* newPassword) {
    return clerk::refresh_pwd(text(bankCode), text(clerkNum), text(newPassword));
}

KOLT_API int32_t sendedXml(char* out, const char* bankCode, const char* clerkNum, const char* sysNum,
                           const char* staffNum, const char* fingerprint, const char* password, const char* msgFlag) {
    kolt::capi::copy_text(
        out, clerk::envelope(request_of(bankCode, clerkNum, sysNum, staffNum, fingerprint, password, msgFlag)));
    return 0;
}

KOLT_API int32_t sendedXmlOld(char* out, const char* bankCode, const char* clerkNum, const char* sysNum,
                              const char* staffNum, const char* fingerprint, const char* password,
                              const char* msgFlag) {
    kolt::capi::copy_text(
        out, clerk::envelope_old(request_of(bankCode, clerkNum, sysNum, staffNum, fingerprint, password, msgFlag)));
    return 0;
}

KOLT_API int32_t socketConnect(int32_t fd, const struct sockaddr* addr, uint32_t addrLen, int32_t timeoutSecs) {
    return clerk::socket_connect(fd, addr, static_cast<socklen_t>(addrLen), timeoutSecs);
}

KOLT_API int32_t socketXmlRead(int32_t fd, char* replyBuf, const char* startMark, const char* endMark,
                               int32_t timeoutSecs) {
    const clerk::Answer a = clerk::read_answer(fd, text(startMark), text(endMark), timeoutSecs, KOLT_CLERK_REPLY_MAX);
    if (a.code != 0) return a.code;
    kolt::capi::copy_text(replyBuf, a.text, KOLT_CLERK_REPLY_MAX);
    return static_cast<int32_t>(a.text.size());
}

KOLT_API int32_t socketXmlWriteAndRead(const char* serverIp, int32_t serverPort, const char* request,
                                       char* replyBuf, const char* startMark, const char* endMark,
                                       int32_t timeoutSecs) {
    const clerk::Answer a = clerk::write_and_read(text(serverIp), serverPort, text(request), text(startMark),
                                                  text(endMark), timeoutSecs, KOLT_CLERK_REPLY_MAX);
    if (a.code != 0) return a.code;
    kolt::capi::copy_text(replyBuf, a.text, KOLT_CLERK_REPLY_MAX);
    return static_cast<int32_t>(a.text.size());
}

KOLT_API int32_t KOLT_XML_GetNodeValue(const char* xml, const char* name, char* valueOut) {
    const clerk::Node n = clerk::node_value(text(xml), text(name));
    if (n.code == 0) kolt::capi::copy_text(valueOut, n.value);
    return n.code;
}

}  // extern "C"
