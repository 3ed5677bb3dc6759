// The clerk service's TCP client: a connect with a time-out, one request
// out, the answer in until its end mark. One short-lived connection per
// request; every wait goes through link::wait_fd.
#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace kolt::clerk {

// Room of an answer, its terminator included (KOLT_CLERK_REPLY_MAX).
inline constexpr std::size_t kReplyRoom = 16384;

// socketConnect on the descriptor fd: non-blocking connect, a wait of
// timeout_secs (0: no limit) for the pending connection, the descriptor's
// flags restored. 0; -1 connect refused at once; -2 wait failed or timed out
// (errno ECHILD); -3 SO_ERROR unreadable; -4 the wait ended without the
// socket being ready; -5 the connection failed (errno its error). The
// descriptor is not closed here: the C entry point closes it on -2 and -5.
int connect_with_timeout(int fd, const sockaddr* addr, socklen_t len, int timeout_secs);
// The same, closing fd on -2 and -5 (errno kept), as socketConnect does.
int socket_connect(int fd, const sockaddr* addr, socklen_t len, int timeout_secs);

// socketXmlRead: waits timeout_secs (from the call) for the answer from
// start_mark to end_mark. 0 with the answer; -1 no start mark in time (or
// the peer closed before one); -2 start mark but no end mark in time (or
// the peer closed); -3 the answer does not fit room - 1 bytes.
struct Answer {
    int code = 0;
    std::string text;
};
Answer read_answer(int fd, std::string_view start_mark, std::string_view end_mark, int timeout_secs,
                   std::size_t room = kReplyRoom);

// socketXmlWriteAndRead: socket, connect (timeout_secs), the whole request,
// read_answer, close. 0 with the answer; -1 socket or read failed; -2
// connect failed; -3 send failed.
Answer write_and_read(std::string_view server_ip, int port, std::string_view request, std::string_view start_mark,
                      std::string_view end_mark, int timeout_secs, std::size_t room = kReplyRoom);

}  // namespace kolt::clerk
