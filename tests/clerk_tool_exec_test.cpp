// kolt-clerk, the clerk service's line test: the fixed message to a server,
// the answer up to "</MSG>", the code and the answer printed. (It starts a
// program of the build: ctest labels these tests self_exec.)
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <thread>

#include "common/test_util.hpp"

namespace {

namespace fs = std::filesystem;

std::string program() {
    return (fs::read_symlink("/proc/self/exe").parent_path().parent_path() / "tools" / "kolt-clerk").string();
}

TEST(ClerkTool, SendsTheTestMessageAndPrintsTheAnswer) {
    const int lfd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    ASSERT_EQ(::bind(lfd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    ASSERT_EQ(::listen(lfd, 1), 0);
    ::getsockname(lfd, reinterpret_cast<sockaddr*>(&a), &len);
    const int port = ntohs(a.sin_port);
    std::string request;
    std::thread server([&] {
        pollfd p{lfd, POLLIN, 0};
        if (::poll(&p, 1, 10000) <= 0) return;
        const int fd = ::accept(lfd, nullptr, nullptr);
        char buf[1024];
        while (request.find("</MSG>") == std::string::npos) {
            pollfd q{fd, POLLIN, 0};
            if (::poll(&q, 1, 5000) <= 0) break;
            const ssize_t n = ::recv(fd, buf, sizeof buf, 0);
            if (n <= 0) break;
            request.append(buf, static_cast<size_t>(n));
        }
        const std::string answer = "<?xml version=\"1.0\"?><MSG><RET>0</RET></MSG>";
        ::send(fd, answer.data(), answer.size(), MSG_NOSIGNAL);
        ::close(fd);
    });
    kolt::test::TempDir dir;
    const std::string out = dir.str() + "/out";
    const std::string cmd = program() + " 127.0.0.1 " + std::to_string(port) + " > " + out;
    const int st = std::system(cmd.c_str());
    server.join();
    ::close(lfd);
    EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << st;
    EXPECT_EQ(kolt::test::read_file(out),
              "iFlag=44\nreadBuf=<?xml version=\"1.0\"?><MSG><RET>0</RET></MSG>\n");
    EXPECT_EQ(request.rfind("<?xml version=\"1.0\" encoding=\"UTF-8\"?><MSG>", 0), 0u);
}

TEST(ClerkTool, NoServer) {
    kolt::test::TempDir dir;
    const std::string out = dir.str() + "/out";
    // Port 1 on the loopback: nothing listens there.
    const int st = std::system((program() + " 127.0.0.1 1 > " + out).c_str());
    EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 1);
    EXPECT_EQ(kolt::test::read_file(out), "iFlag=-2\nreadBuf=\n");
}

}  // namespace
