#include "runtime/platform/process.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "runtime/platform/threads.h"
#include "runtime/threads.h"

namespace korvex::platform {
namespace {

TEST(PosixProcess, UserDirectoryIsNeverEmpty) {
  const std::string kept_home = std::getenv("HOME") == nullptr ? "" : std::getenv("HOME");
  const struct {
    const char* data_home;
    const char* home;
    const char* expected;  // null: anything but nothing
  } rows[] = {{"/data", "/home/a", "/data"},
              {"relative", "/home/a", "/home/a/.local/share"},
              {"", "/home/a", "/home/a/.local/share"},
              {"", "", nullptr}};
  for (const auto& row : rows) {
    setenv("XDG_DATA_HOME", row.data_home, 1);
    setenv("HOME", row.home, 1);
    const std::string directory = user_data_directory();
    EXPECT_NE(directory, "");
    EXPECT_EQ(directory, row.expected == nullptr ? directory : row.expected);
  }
  unsetenv("XDG_DATA_HOME");
  setenv("HOME", kept_home.c_str(), 1);
}

TEST(PosixProcess, ThreadsBelongToTheProcessThatStartedThem) {
  void* const watch = watch_thread(pthread_self());
  EXPECT_TRUE(thread_runs(watch, process_id()));
  EXPECT_FALSE(thread_runs(watch, process_id() + 1));
  end_watch(watch);
}

TEST(PosixProcess, AStackBelowTheSystemsSmallestIsRefused) {
  const auto body = [](void*) -> void* { return nullptr; };
  EXPECT_EQ(create_thread(body, nullptr, 1), -1);
}

}  // namespace
}  // namespace korvex::platform
