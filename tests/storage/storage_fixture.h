#ifndef KORVEX_TESTS_STORAGE_STORAGE_FIXTURE_H
#define KORVEX_TESTS_STORAGE_STORAGE_FIXTURE_H

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <utility>

#include "runtime/log.h"
#include "runtime/platform/faults.h"
#include "runtime/platform/process.h"
#include "runtime/platform/threads.h"

namespace korvex::testing_support {

// A directory of its own, the lines that were logged, and operations that fail on demand.
class StorageFixture : public testing::Test {
 protected:
  void SetUp() override {
    log_init(1 << 20, 0);
    previous_fd_ = log_fd();
    log_setfd(0);
    lines_.clear();
    log_set_callback([](int, const char*, const char* message, const char*) {
      const std::lock_guard guard(lines_mutex_);
      lines_ += message;
    });
    std::filesystem::remove_all(root_);
    std::filesystem::create_directories(root_);
  }

  void TearDown() override {
    platform::current_fault_hook = nullptr;
    platform::current_flush_hook = nullptr;
    take_lines();
    log_set_callback(nullptr);
    log_setfd(previous_fd_);
    std::filesystem::remove_all(root_);
  }

  // Everything logged since the last call.
  static std::string take_lines() {
    log_wait_empty(10'000);
    const std::lock_guard guard(lines_mutex_);
    return std::exchange(lines_, {});
  }

  static bool logged(const std::string& text) {
    return take_lines().find(text) != std::string::npos;
  }

  // Lets one kind of operation fail after `successes` more of its kind, and `failures` times from then on.
  static void fail_at(platform::fault_point point, int successes = 0, int failures = 1 << 30) {
    failing_point_ = point;
    countdown_ = successes;
    failures_left_ = failures;
    platform::current_fault_hook = [](platform::fault_point asked) {
      if (asked != failing_point_ || countdown_-- > 0) return false;
      return failures_left_-- > 0;
    };
  }
  static void stop_failing() { platform::current_fault_hook = nullptr; }

  std::string path(const std::string& name) const { return (root_ / name).string(); }

  static std::string read_file(const std::string& name) {
    std::ifstream in(name, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }
  static void write_file(const std::string& name, const std::string& bytes) {
    std::ofstream(name, std::ios::binary) << bytes;
  }

  int previous_fd_ = 1;
  static inline std::mutex lines_mutex_;
  static inline std::string lines_;
  static inline std::atomic<platform::fault_point> failing_point_{};
  static inline std::atomic<int> countdown_{0}, failures_left_{0};
  const std::filesystem::path root_ = std::filesystem::temp_directory_path() /
                                      ("korvex-storage-" + std::to_string(platform::process_id()));
};

}  // namespace korvex::testing_support

#endif  // KORVEX_TESTS_STORAGE_STORAGE_FIXTURE_H
