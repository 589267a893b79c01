#if defined(__x86_64__)
#include <cpuid.h>
#endif

#include "runtime/platform/processor.h"

namespace korvex::platform {

#if defined(__x86_64__)
cpuid_result cpuid(std::uint32_t leaf, std::uint32_t subleaf) {
  cpuid_result result{};
  __cpuid_count(leaf, subleaf, result.eax, result.ebx, result.ecx, result.edx);
  return result;
}

std::uint64_t xgetbv(std::uint32_t index) {
  std::uint32_t low = 0;
  std::uint32_t high = 0;
  // Written out, since the intrinsic needs a compiler flag that would allow the instruction
  // everywhere.
  __asm__ volatile("xgetbv" : "=a"(low), "=d"(high) : "c"(index));
  return std::uint64_t{high} << 32 | low;
}
#else
// No such instructions: a highest leaf of 0 tells that there is nothing to read.
cpuid_result cpuid(std::uint32_t, std::uint32_t) {
  return {};
}
std::uint64_t xgetbv(std::uint32_t) {
  return 0;
}
#endif

core_type core_type_here() {
  constexpr std::uint32_t leaf_hybrid_kind = 0x1A;
  constexpr std::uint32_t hybrid_kind_atom = 0x20;
  constexpr std::uint32_t hybrid_kind_core = 0x40;
  if (cpuid(0, 0).eax < leaf_hybrid_kind) return core_type::unknown;
  switch (cpuid(leaf_hybrid_kind, 0).eax >> 24) {
    case hybrid_kind_core:
      return core_type::performance;
    case hybrid_kind_atom:
      return core_type::efficiency;
    default:
      return core_type::unknown;
  }
}

}  // namespace korvex::platform
