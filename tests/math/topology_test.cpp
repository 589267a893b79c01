#include "math/topology.h"

#include <gtest/gtest.h>

namespace korvex {
namespace {

using platform::core_type;

TEST(Topology, ListsPerformanceCoresInProcessorOrder) {
  struct row {
    const char* what;
    int processors;
    core_type (*type_of)(int);
    int pcores, first, last;
  };
  const row rows[] = {
      {"8 P-cores with two threads, then 8 E-cores", 24,
       [](int cpu) { return cpu < 16 ? core_type::performance : core_type::efficiency; }, 16, 0,
       15},
      {"E-cores first", 12,
       [](int cpu) { return cpu < 8 ? core_type::efficiency : core_type::performance; }, 4, 8, 11},
      {"more than the table holds", 100, [](int) { return core_type::performance; }, max_pcores, 0,
       max_pcores - 1},
      {"not hybrid", 8, [](int) { return core_type::unknown; }, 0, 0, 0},
  };
  for (const row& expected : rows) {
    SCOPED_TRACE(expected.what);
    cpu_topology topology;
    find_pcores(topology, expected.processors, expected.type_of);
    EXPECT_EQ(topology.processor_count, expected.processors);
    ASSERT_EQ(topology.pcore_count, expected.pcores);
    if (expected.pcores == 0) continue;
    EXPECT_EQ(topology.pcores[0].processor, static_cast<std::uint32_t>(expected.first));
    EXPECT_EQ(topology.pcores[expected.pcores - 1].processor,
              static_cast<std::uint32_t>(expected.last));
  }
}

TEST(Topology, ReleaseClearsOneMark) {
  cpu_topology topology;
  find_pcores(topology, 4,
              [](int cpu) { return cpu == 1 ? core_type::efficiency : core_type::performance; });
  for (pcore& core : topology.pcores) core.in_use = 1;
  for (const int unknown : {1, 4, -1}) release_pcore(topology, unknown);
  EXPECT_EQ(topology.pcores[0].in_use + topology.pcores[1].in_use + topology.pcores[2].in_use, 3u);
  release_pcore(topology, 2);
  EXPECT_EQ(topology.pcores[0].in_use, 1u);
  EXPECT_EQ(topology.pcores[1].in_use, 0u);
  EXPECT_EQ(topology.pcores[2].in_use, 1u);
}

TEST(Topology, ThisMachine) {
  EXPECT_EQ(cpu_count(), platform::processor_count());
  EXPECT_GE(get_core_type(0), -1);
  EXPECT_EQ(cpu_bind_to_pcore(0), 0);
  cpu_core_test();
}

}  // namespace
}  // namespace korvex
