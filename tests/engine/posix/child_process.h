#ifndef KORVEX_TESTS_ENGINE_POSIX_CHILD_PROCESS_H
#define KORVEX_TESTS_ENGINE_POSIX_CHILD_PROCESS_H

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <exception>
#include <functional>
#include <string>

namespace korvex::test {

inline constexpr int child_done = 0;
inline constexpr int child_failed = 1;  // also when an expectation failed in it
inline constexpr int child_skipped = 2;

// A process that runs the body as soon as it is told to. Made before the process has other threads, whose locks it would
// inherit as they are.
class child_process {
 public:
  explicit child_process(const std::function<int()>& body) {
    std::fflush(nullptr);
    int ends[2];
    if (::pipe(ends) != 0) return;
    child_ = ::fork();
    if (child_ == 0) {
      char signal = 0;
      ::close(ends[1]);
      int code = child_failed;
      try {
        if (::read(ends[0], &signal, 1) == 1) code = body();
      } catch (const std::exception& error) {
        std::fprintf(stderr, "the child process ends: %s\n", error.what());
      }
      std::fflush(nullptr);
      ::_exit(testing::Test::HasFailure() ? child_failed : code);
    }
    ::close(ends[0]);
    signal_ = ends[1];
  }
  ~child_process() {
    if (signal_ >= 0) finish();
  }
  child_process(const child_process&) = delete;
  child_process& operator=(const child_process&) = delete;

  // What the body returned, or -1 when it did not come to that.
  int finish() {
    const bool told = signal_ >= 0 && ::write(signal_, "", 1) == 1;
    ::close(signal_);
    signal_ = -1;
    int status = 0;
    if (!told || ::waitpid(child_, &status, 0) != child_ || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
  }

 private:
  pid_t child_ = -1;
  int signal_ = -1;
};

inline int in_child(const std::function<int()>& body) {
  return child_process(body).finish();
}

// Lays an empty disk of that size over the directory, for the calling process alone. False where the system does not
// let it.
inline bool mount_small_disk(const std::string& directory, std::uint64_t bytes) {
  if (::unshare(CLONE_NEWNS) != 0 && ::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return false;
  // Else the disk might appear outside as well.
  if (::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return false;
  const std::string size = "size=" + std::to_string(bytes);
  return ::mount("none", directory.c_str(), "tmpfs", 0, size.c_str()) == 0;
}

}  // namespace korvex::test

#endif  // KORVEX_TESTS_ENGINE_POSIX_CHILD_PROCESS_H
