#include "runtime/platform/clock.h"

#include <algorithm>

#include "runtime/platform/clock_source.h"

namespace korvex::platform {

std::uint64_t time_usec() {
  static std::atomic<std::uint64_t> latest{0};
  const std::uint64_t now = wall_clock_usec();
  std::uint64_t seen = latest.load(std::memory_order_relaxed);
  while (seen < now && !latest.compare_exchange_weak(seen, now, std::memory_order_relaxed)) {
  }
  return std::max(seen, now);
}

std::uint64_t time_ms() {
  return time_usec() / 1'000;
}

}  // namespace korvex::platform
