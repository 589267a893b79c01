#ifndef KORVEX_ENGINE_ESTIMATE_H
#define KORVEX_ENGINE_ESTIMATE_H

#include <cstdint>

namespace korvex {

// An index that is still to be built.
struct index_plan {
  std::uint32_t dimension;
  std::uint64_t vectors;
  std::uint32_t constellation;  // 0: the default
  bool labels;
  bool attributes;
  bool on_disk;
};

struct index_estimate {
  std::uint64_t memory_bytes;  // of the records in all stores
  std::uint64_t disk_bytes;    // that the files take, what is reserved ahead included
};

// Records are counted exactly, the arrays of the vector hashes by what clustered data need.
index_estimate estimate_index(const index_plan& plan);

}  // namespace korvex

#endif  // KORVEX_ENGINE_ESTIMATE_H
