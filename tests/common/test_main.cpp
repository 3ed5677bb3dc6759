// main of every test program (in place of gtest_main): the library's
// process-wide state is reset around every test, so that the tests of a
// program also pass when they all run in one process.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <utility>

#include "common/library_state.hpp"
#include "common/test_util.hpp"

namespace {

// In a copy started by kolt::test::run_copy_of_self: notes the name of
// every test as it starts (before its body, which may end the process).
class StartedTestsFile : public ::testing::EmptyTestEventListener {
public:
    explicit StartedTestsFile(std::string path) : path_(std::move(path)) {}
    void OnTestStart(const ::testing::TestInfo& test) override {
        std::ofstream(path_, std::ios::app) << test.test_suite_name() << '.' << test.name() << '\n';
    }

private:
    std::string path_;
};

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    auto& listeners = ::testing::UnitTest::GetInstance()->listeners();
    listeners.Append(new kolt::test::ResetListener);
    if (const char* started = std::getenv(kolt::test::kStartedTestsFileVar)) {
        listeners.Append(new StartedTestsFile(started));
    }
    return RUN_ALL_TESTS();
}
