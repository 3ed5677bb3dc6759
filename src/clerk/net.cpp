#include "clerk/net.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "clerk/reply.hpp"
#include "link/deadline.hpp"
#include "support/file.hpp"
#include "support/log.hpp"

namespace kolt::clerk {

namespace {

// A wait of timeout_secs; 0 means no limit for the connect.
link::Deadline connect_deadline(int timeout_secs) {
    if (timeout_secs <= 0) return link::Deadline::after_ms(LLONG_MAX / 4);
    return link::Deadline::after_ms(static_cast<long long>(timeout_secs) * 1000);
}

int code_for(ReplyState s) { return s == ReplyState::waiting_start ? -1 : s == ReplyState::overflow ? -3 : -2; }

}  // namespace

int connect_with_timeout(int fd, const sockaddr* addr, socklen_t len, int timeout_secs) {
    const int flags = ::fcntl(fd, F_GETFL, 0);
    if (flags < 0 || ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) return -1;
    // An address length beyond any address is refused here as the kernel
    // refuses it (EINVAL), so that nothing reads that far into the caller's
    // memory on its way to the kernel.
    const int refused = len > sizeof(sockaddr_storage) ? EINVAL : 0;
    if (refused != 0 || ::connect(fd, addr, len) != 0) {
        if (refused != 0) errno = refused;
        if (errno != EINPROGRESS) {
            const int saved = errno;
            ::fcntl(fd, F_SETFL, flags);
            errno = saved;
            return -1;
        }
        const link::Wake w = link::wait_fd(fd, POLLIN | POLLOUT, connect_deadline(timeout_secs));
        if (w == link::Wake::timeout || w == link::Wake::invalid || w == link::Wake::cancelled) {
            errno = ECHILD;
            return -2;
        }
        // ready, or hung up (a refused connection reports both): SO_ERROR tells.
        int err = 0;
        socklen_t n = sizeof err;
        if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &n) != 0) return -3;
        ::fcntl(fd, F_SETFL, flags);
        if (err != 0) {
            errno = err;
            return -5;
        }
        return 0;
    }
    ::fcntl(fd, F_SETFL, flags);
    return 0;
}

int socket_connect(int fd, const sockaddr* addr, socklen_t len, int timeout_secs) {
    const int r = connect_with_timeout(fd, addr, len, timeout_secs);
    if (r == -2 || r == -5) {
        const int saved = errno;
        ::close(fd);
        errno = saved;
    }
    return r;
}

Answer read_answer(int fd, std::string_view start_mark, std::string_view end_mark, int timeout_secs,
                   std::size_t room) {
    const link::Deadline deadline = link::Deadline::after_ms(static_cast<long long>(std::max(timeout_secs, 0)) * 1000);
    std::vector<uint8_t> received;
    ReplyScan scan;
    std::vector<uint8_t> chunk(kReadChunk);
    for (;;) {
        const link::Wake w = link::wait_fd(fd, POLLIN, deadline);
        if (w == link::Wake::timeout || w == link::Wake::invalid || w == link::Wake::cancelled)
            return {code_for(scan.state), {}};
        const ssize_t n = ::recv(fd, chunk.data(), chunk.size(), 0);
        if (n < 0 && (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK)) continue;
        // The peer has closed (or the line failed): nothing more will come.
        if (n <= 0) return {code_for(scan.state), {}};
        received.insert(received.end(), chunk.begin(), chunk.begin() + n);
        scan = scan_reply(received, start_mark, end_mark, room);
        if (scan.state == ReplyState::overflow) return {-3, {}};
        if (scan.state == ReplyState::complete)
            return {0, std::string(received.begin() + static_cast<std::ptrdiff_t>(scan.offset), received.end())};
    }
}

Answer write_and_read(std::string_view server_ip, int port, std::string_view request, std::string_view start_mark,
                      std::string_view end_mark, int timeout_secs, std::size_t room) {
    support::UniqueFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd) {
        log::debug_int("socketXmlWriteAndRead socket create error; errno=%d", errno);
        return {-1, {}};
    }
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    addr.sin_addr.s_addr = ::inet_addr(std::string(server_ip).c_str());
    if (connect_with_timeout(fd.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr, timeout_secs) != 0) {
        log::debug_int("socketXmlWriteAndRead socketConnect error; errno=%d", errno);
        return {-2, {}};
    }
    std::size_t sent = 0;
    while (sent < request.size()) {
        const ssize_t n = ::send(fd.get(), request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return {-3, {}};
        sent += static_cast<std::size_t>(n);
    }
    Answer a = read_answer(fd.get(), start_mark, end_mark, timeout_secs, room);
    if (a.code < 0) a.code = -1;
    return a;
}

}  // namespace kolt::clerk
