#include "runtime/platform/clock.h"

#include <algorithm>

#include "runtime/platform/clock_source.h"
#include "runtime/platform/windows/system.h"

namespace korvex::platform {
namespace {

constexpr std::uint64_t ticks_per_usec = 10;  // the system counts in units of 100 ns
constexpr std::uint64_t ticks_to_1970 = 116'444'736'000'000'000;  // from 1601
constexpr std::uint64_t longest_wait_usec = 1'000'000'000'000'000;
// How late a raised stop flag may be seen.
constexpr std::uint64_t stop_poll_usec = 5'000;

// Newer than the headers that this is compiled with.
constexpr DWORD high_resolution = 2;

// A timer that is finer than the system's tick, where there is one.
unique_handle make_timer() {
  const DWORD rights = SYNCHRONIZE | TIMER_MODIFY_STATE;
  unique_handle timer(::CreateWaitableTimerExW(nullptr, nullptr, high_resolution, rights));
  if (!timer) timer.reset(::CreateWaitableTimerExW(nullptr, nullptr, 0, rights));
  return timer;
}

void sleep_until(std::uint64_t deadline_ns) {
  for (std::uint64_t now = monotonic_ns(); now < deadline_ns; now = monotonic_ns()) {
    const std::uint64_t left_usec = (deadline_ns - now + 999) / 1'000;
    const unique_handle timer = make_timer();
    LARGE_INTEGER due{};
    due.QuadPart = -static_cast<std::int64_t>(left_usec * ticks_per_usec);  // from now on
    if (timer && ::SetWaitableTimer(timer.get(), &due, 0, nullptr, nullptr, FALSE))
      ::WaitForSingleObject(timer.get(), INFINITE);
    else
      ::Sleep(static_cast<DWORD>(std::min<std::uint64_t>(left_usec / 1'000 + 1, 1'000'000)));
  }
}

std::uint64_t deadline_after(std::uint64_t microseconds) {
  return monotonic_ns() + std::min(microseconds, longest_wait_usec) * 1'000;
}

bool raised(const std::atomic<std::uint32_t>* stop) {
  return stop != nullptr && stop->load(std::memory_order_acquire) != 0;
}

}  // namespace

std::uint64_t wall_clock_usec() {
  FILETIME now{};
  ::GetSystemTimePreciseAsFileTime(&now);
  const std::uint64_t ticks = std::uint64_t{now.dwHighDateTime} << 32 | now.dwLowDateTime;
  return (ticks - ticks_to_1970) / ticks_per_usec;
}

std::uint64_t monotonic_ns() {
  static const auto per_second = [] {
    LARGE_INTEGER frequency{};
    ::QueryPerformanceFrequency(&frequency);
    return static_cast<std::uint64_t>(frequency.QuadPart);
  }();
  LARGE_INTEGER counter{};
  ::QueryPerformanceCounter(&counter);
  const auto ticks = static_cast<std::uint64_t>(counter.QuadPart);
  constexpr std::uint64_t ns_per_second = 1'000'000'000;
  return ticks / per_second * ns_per_second + ticks % per_second * ns_per_second / per_second;
}

std::tm local_time(std::time_t seconds) {
  std::tm result{};
  ::_localtime64_s(&result, &seconds);
  return result;
}

void sleep_usec(std::uint64_t microseconds) {
  sleep_until(deadline_after(microseconds));
}

int usleep_interruptible(std::uint64_t microseconds, const std::atomic<std::uint32_t>* stop) {
  const std::uint64_t deadline = deadline_after(microseconds);
  while (!raised(stop)) {
    const std::uint64_t next =
        stop == nullptr ? deadline : std::min(deadline, deadline_after(stop_poll_usec));
    sleep_until(next);
    if (next == deadline) break;
  }
  return raised(stop) ? 1 : 0;
}

}  // namespace korvex::platform
