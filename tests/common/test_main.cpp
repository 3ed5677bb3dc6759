// main of every test program (in place of gtest_main): the library's
// process-wide state is reset around every test, so that the tests of a
// program also pass when they all run in one process.
#include <gtest/gtest.h>

#include "common/library_state.hpp"

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::UnitTest::GetInstance()->listeners().Append(new kolt::test::ResetListener);
    return RUN_ALL_TESTS();
}
