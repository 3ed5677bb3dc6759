#include "common/library_state.hpp"

#include "clerk/clerk.hpp"
#include "emv/tags.hpp"
#include "idcard/gbk.hpp"
#include "kolt/kolt.h"
#include "link/link_state.hpp"
#include "support/log.hpp"

namespace kolt::test {

void reset_library_state() {
    kolt::log::reset();
    kolt::link::reset();
    kolt::emv::reset_state();
    kolt::idcard::reset();
    kolt::clerk::reset();
    cancelOperation = 0;
}

void ResetListener::OnTestStart(const ::testing::TestInfo&) { reset_library_state(); }

void ResetListener::OnTestEnd(const ::testing::TestInfo&) { reset_library_state(); }

}  // namespace kolt::test
