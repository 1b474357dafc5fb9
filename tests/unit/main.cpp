#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>

namespace {

/// The process that runs the tests, while it does; the children of tests are others.
pid_t runner = 0;

/// A test that called exit(0) would otherwise let itself, and all those after it, pass.
void failWhenATestCalledExit(int status, void* /*unused*/) {
  if (status != 0 || getpid() != runner) return;
  const testing::TestInfo* const test = testing::UnitTest::GetInstance()->current_test_info();
  std::cerr << "unit_tests: " << (test ? test->test_suite_name() : "?") << "."
            << (test ? test->name() : "?") << " ended the process" << std::endl;
  _exit(1);
}

}  // namespace

/// unit_tests [OPTION OF GOOGLETEST...]
int main(int argc, char** argv) {
  testing::InitGoogleMock(&argc, argv);
  on_exit(failWhenATestCalledExit, nullptr);
  runner = getpid();
  const int status = RUN_ALL_TESTS();
  runner = 0;
  return status;
}
