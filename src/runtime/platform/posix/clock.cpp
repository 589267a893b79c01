#include "runtime/platform/clock.h"

#include <algorithm>
#include <cerrno>

#include "runtime/platform/clock_source.h"

namespace korvex::platform {
namespace {

constexpr std::uint64_t usec_per_second = 1'000'000;
constexpr std::uint64_t ns_per_second = 1'000'000'000;
// About 3,000 years: longer waits would overflow the seconds on the way.
constexpr std::uint64_t longest_wait_usec = 100'000'000'000 * usec_per_second;
// How late a raised stop flag may be seen.
constexpr std::uint64_t stop_poll_usec = 5'000;

std::uint64_t read_clock(clockid_t clock, std::uint64_t units_per_second) {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * units_per_second +
         static_cast<std::uint64_t>(now.tv_nsec) / (ns_per_second / units_per_second);
}

timespec monotonic_deadline(std::uint64_t microseconds) {
  const std::uint64_t wait = std::min(microseconds, longest_wait_usec);
  timespec deadline{};
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  const std::uint64_t ns =
      static_cast<std::uint64_t>(deadline.tv_nsec) + wait % usec_per_second * 1'000;
  deadline.tv_sec += static_cast<std::time_t>(wait / usec_per_second + ns / ns_per_second);
  deadline.tv_nsec = static_cast<long>(ns % ns_per_second);
  return deadline;
}

bool earlier(const timespec& a, const timespec& b) {
  return a.tv_sec != b.tv_sec ? a.tv_sec < b.tv_sec : a.tv_nsec < b.tv_nsec;
}

}  // namespace

std::uint64_t wall_clock_usec() {
  return read_clock(CLOCK_REALTIME, usec_per_second);
}

std::uint64_t monotonic_ns() {
  return read_clock(CLOCK_MONOTONIC, ns_per_second);
}

std::tm local_time(std::time_t seconds) {
  std::tm result{};
  localtime_r(&seconds, &result);
  return result;
}

void sleep_usec(std::uint64_t microseconds) {
  const timespec deadline = monotonic_deadline(microseconds);
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) == EINTR) {
  }
}

int usleep_interruptible(std::uint64_t microseconds, const std::atomic<std::uint32_t>* stop) {
  const timespec deadline = monotonic_deadline(microseconds);
  for (;;) {
    if (stop != nullptr && stop->load(std::memory_order_acquire) != 0) return 1;
    timespec until = deadline;
    if (stop != nullptr) {
      const timespec next_poll = monotonic_deadline(stop_poll_usec);
      if (earlier(next_poll, deadline)) until = next_poll;
    }
    if (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) != 0) return 1;
    if (!earlier(until, deadline)) break;
  }
  return stop != nullptr && stop->load(std::memory_order_acquire) != 0 ? 1 : 0;
}

}  // namespace korvex::platform
