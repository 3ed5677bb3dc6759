#include "common/clerk_server.hpp"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace kolt::test {

namespace fs = std::filesystem;

std::string ClerkServer::program() {
    // A copy of a test program elsewhere is told where the build's is.
    if (const char* p = std::getenv("KOLT_CLERKD")) return p;
    return (fs::read_symlink("/proc/self/exe").parent_path().parent_path() / "sim" / "kolt-clerkd").string();
}

ClerkServer::ClerkServer(const std::string& clerks, std::vector<std::string> args) {
    if (!fs::exists(program())) return;
    data_ = dir_.write("clerks.json", clerks);
    err_ = dir_.str() + "/stderr";
    int out[2];
    if (::pipe(out) != 0) return;
    pid_ = ::fork();
    if (pid_ == 0) {
        ::dup2(out[1], 1);
        if (!std::freopen(err_.c_str(), "w", stderr)) ::_exit(126);
        std::vector<std::string> a = {program(), "--data", data_};
        a.insert(a.end(), args.begin(), args.end());
        std::vector<char*> argv;
        for (auto& s : a) argv.push_back(s.data());
        argv.push_back(nullptr);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    ::close(out[1]);
    const std::string line = read_line(out[0]);
    ::close(out[0]);
    const auto colon = line.rfind(':');
    if (line.rfind("kolt-clerkd listening on 127.0.0.1:", 0) == 0 && colon != std::string::npos)
        port_ = std::stoi(line.substr(colon + 1));
    dir_.write("home/librun/koltt41fp.cfg",
               "serverip=127.0.0.1\nserverport=" + std::to_string(port_) + "\nlogdir=" + dir_.str() + "\n");
}

ClerkServer::~ClerkServer() {
    if (pid_ > 0) {
        ::kill(pid_, SIGTERM);
        int st = 0;
        ::waitpid(pid_, &st, 0);
    }
}

std::string ClerkServer::data() const { return read_file(data_); }
std::string ClerkServer::report() const { return read_file(err_); }

}  // namespace kolt::test
