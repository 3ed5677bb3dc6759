// The library's process-wide state between the tests of one test program.
//
// Every test program runs all its tests in one process when it is started
// directly (ctest starts one process per test). So that no test sees what
// an earlier one left behind, the test programs' main (test_main.cpp)
// registers ResetListener, which puts the library back to the state of a
// freshly loaded one before and after every test.
#pragma once

#include <gtest/gtest.h>

namespace kolt::test {

// Back to the state of a freshly loaded library: log switch off and no
// debug directory, the link closed (a descriptor the library opened itself)
// and cleared with gPortName empty, the EMV working state and card slot
// cleared, cancelOperation 0. The one place to extend when a subsystem
// gains process-wide state of its own.
void reset_library_state();

// Calls reset_library_state when a test starts (before its fixture's
// SetUp) and when it ends (after its TearDown).
class ResetListener : public ::testing::EmptyTestEventListener {
public:
    void OnTestStart(const ::testing::TestInfo& test) override;
    void OnTestEnd(const ::testing::TestInfo& test) override;
};

}  // namespace kolt::test
