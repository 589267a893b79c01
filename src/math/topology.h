#ifndef KORVEX_MATH_TOPOLOGY_H
#define KORVEX_MATH_TOPOLOGY_H

#include <cstdint>
#include <mutex>

#include "runtime/platform/processor.h"

namespace korvex {

constexpr int max_pcores = 32;

struct pcore {
  std::uint32_t processor;
  std::uint32_t in_use;
};

// The processors of this machine and its performance cores.
// Threads     filled once, before other threads read it; in_use is guarded by mutex.
struct cpu_topology {
  std::mutex mutex;
  std::int32_t processor_count = 0;
  std::int32_t pcore_count = 0;
  pcore pcores[max_pcores] = {};
};

// Fills the record of this process: the first call probes, the others wait for it. Probing may move
// the calling thread over every processor and puts it back, so it belongs before worker threads are
// started.
void cpu_core_init();
// Logical processors; probes when nobody has.
int cpu_count();
// 1 for a performance core, 0 for an efficiency core, -1 when the machine does not tell.
int get_core_type(int cpu);
// Binds nothing and returns 0: the system's scheduler knows the cores better than a fixed binding.
int cpu_bind_to_pcore(unsigned long long thread);
void release_pcore(int cpu);
// Logs what was found; for diagnosis by hand.
void cpu_core_test();

// The same over a given record.
void find_pcores(cpu_topology& topology, int processors, platform::core_type (*type_of)(int cpu));
void release_pcore(cpu_topology& topology, int cpu);

}  // namespace korvex

#endif  // KORVEX_MATH_TOPOLOGY_H
