#ifndef KORVEX_RUNTIME_PLATFORM_FAULTS_H
#define KORVEX_RUNTIME_PLATFORM_FAULTS_H

#include <atomic>
#include <cstdint>

// A door for tests: lets single operations of the layers below fail, and shows what reached the
// device. Empty in production; the cost is one relaxed load an operation.
namespace korvex::platform {

enum class fault_point {
  open,
  resize,
  reserve,
  map_file,
  map_anonymous,
  heap,
  thread,
  lock,
  flush
};

// Answers true to make this one operation fail as the system would.
using fault_hook = bool (*)(fault_point point);
inline std::atomic<fault_hook> current_fault_hook{nullptr};

inline bool fault_injected(fault_point point) {
  const fault_hook hook = current_fault_hook.load(std::memory_order_relaxed);
  return hook != nullptr && hook(point);
}

// Told of every completed flush: what a power cut now would leave on the device. Either a
// descriptor (data null, size 0: the whole file), or fd -1 and the range of a view.
using flush_hook = void (*)(int fd, const void* data, std::uint64_t size);
inline std::atomic<flush_hook> current_flush_hook{nullptr};

inline void report_flush(int fd, const void* data, std::uint64_t size) {
  const flush_hook hook = current_flush_hook.load(std::memory_order_relaxed);
  if (hook != nullptr) hook(fd, data, size);
}

}  // namespace korvex::platform

#endif  // KORVEX_RUNTIME_PLATFORM_FAULTS_H
