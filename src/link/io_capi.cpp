// Exported C entry points.
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <time.h>
#include <unistd.h>

#include "kolt/kolt.h"
#include "link/io.hpp"
#include "link/link_state.hpp"
#include "support/capi_util.hpp"

using namespace kolt;

extern "C" {

KOLT_API int32_t KOLT_SendData(int32_t fd, const uint8_t* buf, int32_t len) {
    if (buf == nullptr || len < 0) return -1;
    return static_cast<int32_t>(::write(fd, buf, static_cast<std::size_t>(len)));
}

KOLT_API int32_t KOLT_ReceiveData(int32_t fd, uint8_t* buf, int32_t len) {
    if (buf == nullptr || len < 0) return -1;
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, 0) <= 0) return 0;  // nothing there: never block
    return static_cast<int32_t>(::read(fd, buf, static_cast<std::size_t>(len)));
}

KOLT_API int32_t select_fd(int32_t fd, int32_t mode, double seconds) {
    return link::select_fd(fd, mode, seconds);
}

KOLT_API int32_t KOLT_writeBuf(int32_t fd, const uint8_t* buf, int32_t len, int32_t timeoutSec) {
    return link::write_buf(fd, capi::span(buf, len), timeoutSec);
}

KOLT_API int32_t KOLT_rcvBuf(int32_t fd, uint8_t* buf, int32_t len, int32_t timeoutSec) {
    return link::rcv_buf(fd, capi::span(buf, len), timeoutSec);
}

KOLT_API int32_t KOLT_rcvBuf100s(int32_t fd, uint8_t* buf, int32_t len, int32_t timeoutSec) {
    return link::rcv_buf_100s(fd, capi::span(buf, len), timeoutSec);
}

KOLT_API int32_t KOLT_rcvBufFromHeadByte(int32_t fd, uint8_t* buf, int32_t len, uint8_t head,
                                         int32_t timeoutSec) {
    return link::rcv_from_head(fd, capi::span(buf, len), head, timeoutSec);
}

KOLT_API int32_t KOLT_rcvBufFrom2DisHeadByte(int32_t fd, uint8_t* buf, int32_t len, uint8_t headA,
                                             uint8_t headB, int32_t timeoutSec) {
    return link::rcv_from_2heads(fd, capi::span(buf, len), headA, headB, timeoutSec);
}

KOLT_API int32_t KOLT_clearComBuf(int32_t fd) { return link::clear_com_buf(fd); }

}  // extern "C"
