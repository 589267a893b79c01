#ifndef KORVEX_RUNTIME_PLATFORM_CLOCK_H
#define KORVEX_RUNTIME_PLATFORM_CLOCK_H

#include <atomic>
#include <cstdint>
#include <ctime>

namespace korvex::platform {

// Wall-clock microseconds since 1970, never decreasing within the process: the values are stored in
// files and compared across runs.
std::uint64_t time_usec();
std::uint64_t time_ms();
// Monotonic nanoseconds, for measuring durations only.
std::uint64_t monotonic_ns();

std::tm local_time(std::time_t seconds);

void sleep_usec(std::uint64_t microseconds);
// Returns early (1) when a signal arrives or, within some 5 ms, *stop becomes non-zero; 0 after the
// whole time.
int usleep_interruptible(std::uint64_t microseconds,
                         const std::atomic<std::uint32_t>* stop = nullptr);

}  // namespace korvex::platform

#endif  // KORVEX_RUNTIME_PLATFORM_CLOCK_H
