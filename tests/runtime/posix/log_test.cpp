#include "runtime/log.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace korvex {
namespace {

TEST(PosixLog, AForkedChildWritesItsOwnLinesAndEnds) {
  ASSERT_EQ(log_init(64'000, 0), 0);
  log_setfd(2);
  log_async(0, nullptr, "parent\n");
  ASSERT_EQ(log_wait_empty(-1), 0);
  const auto log_and_exit = [] {
    log_async(0, nullptr, "child\n");
    std::exit(8);
  };
  // A leak checker in the child may say something of its own, in a line that begins with "==".
  EXPECT_EXIT(log_and_exit(), ::testing::ExitedWithCode(8), "^child\n(==[^\n]*\n)?$");
  EXPECT_EQ(log_shutdown(), 0);
  log_setfd(1);
}

}  // namespace
}  // namespace korvex
