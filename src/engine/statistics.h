#ifndef KORVEX_ENGINE_STATISTICS_H
#define KORVEX_ENGINE_STATISTICS_H

#include <cstdint>

#include "engine/record.h"

namespace korvex {

struct index_statistics {
  std::uint32_t added = 0;
  std::uint32_t deleted = 0;
  std::uint32_t duplicates = 0;  // hidden because they repeat another
  std::uint32_t unlinked = 0;
  std::uint64_t memory_bytes = 0;  // of the records handed out, in all stores
  std::uint64_t disk_bytes = 0;    // that the index's files take on disk; 0 in memory
};

// Looks at the flags of every point.
index_statistics collect_statistics(const hnsw_s* hnsw);

}  // namespace korvex

#endif  // KORVEX_ENGINE_STATISTICS_H
