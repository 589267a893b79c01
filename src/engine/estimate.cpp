#include "engine/estimate.h"

#include <algorithm>

#include "engine/store_layout.h"
#include "storage/vector_hash.h"

namespace korvex {

namespace {

constexpr std::uint32_t default_constellation = 16;
constexpr std::uint32_t default_probes = 2;
// Star arrays of clustered data, measured: about so many slots a vector, whatever the probes.
constexpr double star_slots_a_vector = 8.0;
constexpr std::uint64_t index_file_bytes = 64 << 10;  // its used part: the record and the hashes
constexpr std::uint64_t block_header_bytes = 64;
constexpr std::uint64_t largest_reserve = 16 << 20;

// A file's room runs ahead of its records.
std::uint64_t file_bytes(std::uint64_t bytes) {
  return bytes + block_header_bytes + std::min(bytes / 4, largest_reserve);
}

}  // namespace

index_estimate estimate_index(const index_plan& plan) {
  const std::uint32_t constellation =
      plan.constellation != 0 ? plan.constellation : default_constellation;
  const std::uint32_t probes =
      std::clamp(plan.probes != 0 ? plan.probes : default_probes, 1u, max_probes);
  const std::uint64_t points = plan.vectors + 1;  // point 0 is reserved
  const std::uint64_t records[] = {
      std::uint64_t{plan.dimension} * 4,
      std::uint64_t{graph_slots(2 * constellation) + 1} * 4,
      4,
      1,
      plan.labels ? 8u : 0u,
      plan.attributes ? 8u : 0u,
      // Narrow arrays are used up better than wide ones.
      static_cast<std::uint64_t>(star_slots_a_vector * std::max(1.0, star_width(probes) / 16.0) /
                                 2 * sizeof(vector_hash_star_s)),
  };
  index_estimate sizes{0, plan.on_disk ? index_file_bytes : 0};
  for (const std::uint64_t record_bytes : records) {
    if (record_bytes == 0) continue;
    sizes.memory_bytes += points * record_bytes;
    if (plan.on_disk) sizes.disk_bytes += file_bytes(points * record_bytes);
  }
  return sizes;
}

}  // namespace korvex
