#include "engine/estimate.h"

#include "engine/store_layout.h"
#include "storage/mapping.h"

namespace korvex {

namespace {

constexpr std::uint32_t default_constellation = 16;
// Of star arrays, those that were left for larger ones included: measured were 8 (60,000 pictures) to
// 26 (small clusters).
constexpr std::uint64_t star_bytes_a_vector = 16;

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
  index_estimate sizes{0, plan.on_disk ? 2 * mapping_room_of(1) : 0};
  for (const std::uint64_t record_bytes : records) {
    if (record_bytes == 0) continue;
    sizes.memory_bytes += points * record_bytes;
    if (plan.on_disk) sizes.disk_bytes += mapping_room_of(points * record_bytes);
  }
  return sizes;
}

}  // namespace korvex
