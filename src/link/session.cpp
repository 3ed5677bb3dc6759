#include "link/session.hpp"

#include <utility>

#include "link/port.hpp"

namespace kolt::link {

Session::Session(int type, std::string_view tty, int port, std::string_view transfer)
    : type_(type), port_(port), result_(init_com(type, tty, port, transfer)) {}

Session::Session(Session&& other) noexcept
    : type_(other.type_), port_(other.port_), result_(other.result_), owns_(std::exchange(other.owns_, false)) {}

Session::~Session() { close(); }

void Session::close() {
    if (!owns_) return;
    owns_ = false;
    free_com(type_, port_);
}

Session open_teller(int term_type, int port) { return Session(do_term_type(term_type), "", port); }

}  // namespace kolt::link
