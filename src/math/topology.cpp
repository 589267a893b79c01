#include "math/topology.h"

#include <pthread.h>

#include "runtime/log.h"

namespace korvex {
namespace {

std::once_flag probed;
cpu_topology process_topology;

void* report_binding(void* number) {
  const int cpu = cpu_bind_to_pcore(static_cast<unsigned long long>(pthread_self()));
  KORVEX_LOG("Thread %d bound to CPU %d\n", *static_cast<const int*>(number), cpu);
  return nullptr;
}

}  // namespace

void find_pcores(cpu_topology& topology, int processors, platform::core_type (*type_of)(int cpu)) {
  topology.processor_count = processors;
  topology.pcore_count = 0;
  for (int cpu = 0; cpu < processors && topology.pcore_count < max_pcores; ++cpu)
    if (type_of(cpu) == platform::core_type::performance)
      topology.pcores[topology.pcore_count++] = {static_cast<std::uint32_t>(cpu), 0};
}

void release_pcore(cpu_topology& topology, int cpu) {
  const std::lock_guard lock(topology.mutex);
  for (int i = 0; i < topology.pcore_count; ++i)
    if (topology.pcores[i].processor == static_cast<std::uint32_t>(cpu))
      topology.pcores[i].in_use = 0;
}

void cpu_core_init() {
  std::call_once(probed, [] {
    find_pcores(process_topology, platform::processor_count(), platform::core_type_of);
  });
}

int cpu_count() {
  cpu_core_init();
  return process_topology.processor_count;
}

int get_core_type(int cpu) {
  switch (platform::core_type_of(cpu)) {
    case platform::core_type::performance:
      return 1;
    case platform::core_type::efficiency:
      return 0;
    default:
      return -1;
  }
}

int cpu_bind_to_pcore(unsigned long long) {
  return 0;
}

void release_pcore(int cpu) {
  release_pcore(process_topology, cpu);
}

void cpu_core_test() {
  cpu_core_init();
  KORVEX_LOG("Found %d P-cores\n", process_topology.pcore_count);
  constexpr int threads = 4;
  pthread_t started[threads];
  int numbers[threads];
  int count = 0;
  for (int i = 0; i < threads; ++i) {
    numbers[count] = i;
    if (pthread_create(&started[count], nullptr, report_binding, &numbers[count]) == 0) ++count;
  }
  for (int i = 0; i < count; ++i) pthread_join(started[i], nullptr);
  KORVEX_LOG("-------------------------\n");
}

}  // namespace korvex
