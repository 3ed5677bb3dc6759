// kolt-clerk: the clerk service's line test. Sends a fixed test message to
// the server on port 1976 (the address is a deployment setting: the first
// argument, else KOLT_CLERK_SERVER, else 127.0.0.1; a second argument
// overrides the port), reads the answer up to "</MSG>" within 10 seconds
// and prints the result code and the answer.
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "kolt/kolt.h"

int main(int argc, char** argv) {
    const char* server = argc > 1 ? argv[1] : std::getenv("KOLT_CLERK_SERVER");
    if (server == nullptr || *server == '\0') server = "127.0.0.1";
    const int port = argc > 2 ? std::atoi(argv[2]) : 1976;
    static const char kTest[] =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?><MSG><HEAD><TYPE>TEST</TYPE></HEAD>"
        "<BODY>kolt-clerk line test</BODY></MSG>";
    std::vector<char> readBuf(KOLT_CLERK_REPLY_MAX, '\0');
    const int iFlag = socketXmlWriteAndRead(server, port, kTest, readBuf.data(), "<?xml", "</MSG>", 10);
    std::printf("iFlag=%d\n", iFlag);
    std::printf("readBuf=%s\n", readBuf.data());
    return iFlag > 0 ? 0 : 1;
}
