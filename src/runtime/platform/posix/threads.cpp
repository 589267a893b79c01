#include "runtime/platform/threads.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <mutex>

namespace korvex::platform {
namespace {

constexpr std::uint64_t longest_wait_ms =
    100'000'000'000'000;  // keeps the seconds far from overflow

thread_local std::uint32_t cached_thread_id = 0;

// The one thread of a forked child is a new one; its cached number is still its parent's.
void forget_thread_id() {
  cached_thread_id = 0;
}

}  // namespace

std::uint32_t thread_id() {
  if (cached_thread_id == 0) {
    static std::once_flag fork_watched;
    std::call_once(fork_watched, [] { pthread_atfork(nullptr, nullptr, forget_thread_id); });
    cached_thread_id = static_cast<std::uint32_t>(syscall(SYS_gettid));
  }
  return cached_thread_id;
}

int init_condition(pthread_cond_t* condition) {
  pthread_condattr_t attributes;
  if (pthread_condattr_init(&attributes) != 0) return -1;
  int failed = pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
  if (failed == 0) failed = pthread_cond_init(condition, &attributes);
  pthread_condattr_destroy(&attributes);
  return failed == 0 ? 0 : -1;
}

timespec condition_deadline(std::uint64_t ms) {
  ms = std::min(ms, longest_wait_ms);
  timespec deadline{};
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  deadline.tv_sec += static_cast<std::time_t>(ms / 1'000);
  deadline.tv_nsec += static_cast<long>(ms % 1'000) * 1'000'000;
  if (deadline.tv_nsec >= 1'000'000'000) {
    deadline.tv_nsec -= 1'000'000'000;
    ++deadline.tv_sec;
  }
  return deadline;
}

int set_thread_priority(std::uint32_t id, int level) {
  constexpr int nice_of_level[] = {19, 10, 5, 0, -5, -10, -20};
  if (level < -3 || level > 3) level = 0;
  // The system keeps the nice value per thread; 0 names the calling one.
  return setpriority(PRIO_PROCESS, id, nice_of_level[level + 3]) == 0 ? 0 : -1;
}

void* watch_thread(pthread_t /*thread*/) {
  return nullptr;
}

void end_watch(void* /*watch*/) {}

bool thread_runs(void* /*watch*/, std::uint32_t owner) {
  return process_id() == owner;
}

std::uint32_t process_id() {
  return static_cast<std::uint32_t>(getpid());
}

// The library is linked so that it stays.
void keep_library_loaded() {}

}  // namespace korvex::platform
