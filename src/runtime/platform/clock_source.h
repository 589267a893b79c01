#ifndef KORVEX_RUNTIME_PLATFORM_CLOCK_SOURCE_H
#define KORVEX_RUNTIME_PLATFORM_CLOCK_SOURCE_H

#include <cstdint>

namespace korvex::platform {

// Microseconds since 1970 as the system tells them: they go back when somebody sets the clock back.
std::uint64_t wall_clock_usec();

}  // namespace korvex::platform

#endif  // KORVEX_RUNTIME_PLATFORM_CLOCK_SOURCE_H
