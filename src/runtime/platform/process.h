#ifndef KORVEX_RUNTIME_PLATFORM_PROCESS_H
#define KORVEX_RUNTIME_PLATFORM_PROCESS_H

#include <cstdint>
#include <string>

namespace korvex::platform {

struct memory_usage {
  std::uint64_t resident_bytes, peak_resident_bytes, virtual_bytes, peak_virtual_bytes;
};
// All 0 when the system does not tell.
memory_usage process_memory();

// The per-user folder for application data; never empty ("." as the last resort).
std::string user_data_directory();

// The address at which this library was loaded, for stack traces.
std::uintptr_t module_base();

// Writes a stack trace through log_sync when the process crashes, then lets the crash take its
// course. Only a host installs it: a library must not take its host's signals. 0 or -1.
int crash_handler_install();

}  // namespace korvex::platform

#endif  // KORVEX_RUNTIME_PLATFORM_PROCESS_H
