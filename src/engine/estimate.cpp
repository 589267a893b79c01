#include "engine/estimate.h"

#include <algorithm>

#include "engine/store_layout.h"

namespace korvex {

namespace {

constexpr std::uint32_t default_constellation = 16;
// Of star arrays, as clustered data take; those that were left for larger ones included.
constexpr std::uint64_t star_bytes_a_vector = 40;

// Files take room in steps, and some ahead of their records.
constexpr std::uint64_t file_step = 2 << 20;
constexpr std::uint64_t most_ahead = 14 << 20;

std::uint64_t file_bytes(std::uint64_t bytes) {
  const std::uint64_t wanted = bytes + std::min(bytes / 4, most_ahead);
  return (wanted / file_step + 1) * file_step;
}

}  // namespace

index_estimate estimate_index(const index_plan& plan) {
  const std::uint32_t constellation =
      plan.constellation != 0 ? plan.constellation : default_constellation;
  const std::uint64_t points = plan.vectors + 1;  // point 0 is reserved
  const std::uint64_t records[] = {
      std::uint64_t{plan.dimension} * 4,
      std::uint64_t{graph_slots(2 * constellation) + 1} * 4,
      4,
      1,
      plan.labels ? 8u : 0u,
      plan.attributes ? 8u : 0u,
      star_bytes_a_vector,
  };
  // On disk: the index file and the result cache.
  index_estimate sizes{0, plan.on_disk ? 2 * file_step : 0};
  for (const std::uint64_t record_bytes : records) {
    if (record_bytes == 0) continue;
    sizes.memory_bytes += points * record_bytes;
    if (plan.on_disk) sizes.disk_bytes += file_bytes(points * record_bytes);
  }
  return sizes;
}

}  // namespace korvex
