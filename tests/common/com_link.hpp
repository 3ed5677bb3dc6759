// /dev/COM<n> names for the device-information call, which opens the port
// by that name: a link to a simulator's line, or a number with no device.
#pragma once

#include <string>

namespace kolt::test {

// A /dev/COM<n> link to target for the lifetime of the object, n the first
// of 8..1 that is free (symlink fails on a name that exists, so two test
// programs never share one). number() is 0 without the right to create it
// (not root): the tests then skip themselves.
class ComLink {
public:
    explicit ComLink(const std::string& target);
    ~ComLink();
    ComLink(const ComLink&) = delete;
    ComLink& operator=(const ComLink&) = delete;
    int number() const { return number_; }

private:
    int number_ = 0;
    std::string path_;
};

// A port number of 1..8 with no /dev/COM<n> at all; 0 when every one exists.
int free_com_number();

}  // namespace kolt::test
