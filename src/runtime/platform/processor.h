#ifndef KORVEX_RUNTIME_PLATFORM_PROCESSOR_H
#define KORVEX_RUNTIME_PLATFORM_PROCESSOR_H

#include <cstdint>

namespace korvex::platform {

// Processors that are on line, in all groups.
int processor_count();

struct cpuid_result {
  std::uint32_t eax, ebx, ecx, edx;
};
cpuid_result cpuid(std::uint32_t leaf, std::uint32_t subleaf);
std::uint64_t xgetbv(std::uint32_t index);

enum class core_type { unknown, performance, efficiency };
// The kind of the processor under the calling thread, by its own word.
core_type core_type_here();
// The kind of one processor of a hybrid machine; unknown on others. May move the calling thread for
// a moment and puts it back.
core_type core_type_of(int processor);
// Binds the calling thread to one processor, or to all that it may use when processor is negative.
// 0 or -1.
int bind_thread(int processor);

}  // namespace korvex::platform

#endif  // KORVEX_RUNTIME_PLATFORM_PROCESSOR_H
