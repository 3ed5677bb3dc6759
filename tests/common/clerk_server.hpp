// kolt-clerkd, the simulator's clerk verification server, started for a
// test: on a port of its choice, with a clerk file and a HOME of its own
// whose librun/koltt41fp.cfg points the library at it. Stopped when the
// object goes out of scope. (Test programs that use it start a program:
// name them *_exec_test.cpp.)
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "common/test_util.hpp"

namespace kolt::test {

class ClerkServer {
public:
    // clerks: the clerk file's JSON text; args: more options of the program.
    explicit ClerkServer(const std::string& clerks, std::vector<std::string> args = {});
    ~ClerkServer();
    ClerkServer(const ClerkServer&) = delete;
    ClerkServer& operator=(const ClerkServer&) = delete;

    // Where the program is: <build>/sim/kolt-clerkd beside the tests, or
    // $KOLT_CLERKD (for a copy of a test program started elsewhere).
    static std::string program();

    bool running() const { return port_ > 0; }
    int port() const { return port_; }
    std::string data() const;    // the clerk file as it is now
    std::string report() const;  // what the server wrote to standard error
    std::string home() const { return dir_.str() + "/home"; }

private:
    TempDir dir_;
    std::string data_, err_;
    pid_t pid_ = -1;
    int port_ = 0;
};

}  // namespace kolt::test
