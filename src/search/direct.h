#ifndef KORVEX_SEARCH_DIRECT_H
#define KORVEX_SEARCH_DIRECT_H

#include <cstddef>
#include <cstdint>

#include "engine/record.h"

namespace korvex {

// Excludes the public id when it returns non-zero. `label` is 0 while labels are off.
using direct_filter = int (*)(void* context, std::uint32_t id, std::uint64_t label);

struct direct_options {
  // candidates looked at, at least; k and the neighbour count are the lower limits
  std::int32_t radius = 0;
  direct_filter filter = nullptr;
  void* filter_context = nullptr;
  const std::uint32_t* allowed_ids = nullptr;  // public ids; null: all
  std::size_t allowed_count = 0;
  // bit i of word i / 64 allows public id i; null: all
  const std::uint64_t* allowed_bits = nullptr;
  std::size_t allowed_bit_count = 0;  // ids from here on are not allowed
  // for the whole call; 0: none. Queries behind it get what was found
  std::uint64_t deadline_ms = 0;
};

// Answers n queries on the calling thread: no queue, no callback, no result cache. All pattern
// probes are walked.
// Shapes   queries [n x dimension] row-major; ids and distances [n x k] row-major; counts [n];
//          distances and counts may be null
// Units    raw distances of the metric
// Order    nearest first; a row with fewer than k hits ends in (0xFFFFFFFF, NaN)
// Filters  points that are excluded still lead the walk on. When few points are allowed they are
//          scanned exactly.
// Result   n, or -1: null pointers, k < 1, queries that are not finite while parameters are
//          checked, no memory
// Threads  any number at once, beside additions; sees every addition that returned before the call
std::int64_t korvex_search_direct(hnsw_s* hnsw, const float* queries, std::size_t n, int k,
                                  const direct_options* options, std::uint32_t* ids,
                                  float* distances, std::uint32_t* counts);

}  // namespace korvex

#endif  // KORVEX_SEARCH_DIRECT_H
