// The link of one exported call: opened from typed arguments when the
// session is made, closed when it goes out of scope (on every path, the
// failed open included, as the teller entry points have always released
// it). One session at a time: the link itself is process-wide.
#pragma once

#include <string_view>

namespace kolt::link {

class Session {
public:
    // KOLT_initCom: internal terminal type (0 local port; 1, 3, 4 built-in
    // auxiliary ports; 50 and above from the terminal command file), the
    // terminal device to open in auxiliary mode (empty: the terminal
    // itself), the port, the pass-through text.
    Session(int type, std::string_view tty, int port, std::string_view transfer = {});
    ~Session();
    Session(Session&& other) noexcept;
    Session& operator=(Session&&) = delete;
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // The open's result: 0, or the negative code of KOLT_initCom.
    int result() const { return result_; }
    bool ok() const { return result_ == 0; }
    int type() const { return type_; }

    // Closes the link now (the destructor then does nothing).
    void close();
    // Leaves the link open past the session (the IC_initCom call).
    void release() { owns_ = false; }

private:
    int type_;
    int port_;
    int result_;
    bool owns_ = true;
};

// The session of the teller entry points: the public terminal type as
// KOLT_DoTermType maps it (1, 4, 5 -> 1; 2 -> 3; 3 -> 4; else 0).
Session open_teller(int term_type, int port);

}  // namespace kolt::link
