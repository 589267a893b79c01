#ifndef KORVEX_SEARCH_DIRECT_H
#define KORVEX_SEARCH_DIRECT_H

#include <cstddef>
#include <cstdint>

#include "engine/record.h"

namespace korvex {

// Excludes the public id when it returns non-zero. `label` is 0 while labels are off.
using direct_filter = int (*)(void* context, std::uint32_t id, std::uint64_t label);

// How a query with restrictions is answered. Measurements force one way.
enum class direct_way { cheaper, walk, scan };

struct direct_options {
  // candidates looked at, at least, and k if that is more; 0: as many as a point has neighbours
  std::int32_t radius = 0;
  direct_filter filter = nullptr;
  void* filter_context = nullptr;
  const std::uint32_t* allowed_ids = nullptr;  // public ids; null: all
  std::size_t allowed_count = 0;
  // bit i of word i / 64 allows public id i; null: all
  const std::uint64_t* allowed_bits = nullptr;
  std::size_t allowed_bit_count = 0;  // ids from here on are not allowed
  // for the whole call; 0: none. The row it meets holds what was found, those behind it are empty
  std::uint64_t deadline_ms = 0;
  direct_way way = direct_way::cheaper;
};

// Answers n queries on the calling thread: no queue, no callback, no result cache. All pattern
// probes are walked.
// Shapes   queries [n x dimension] row-major; ids and distances [n x k] row-major; counts [n];
//          distances and counts may be null
// Units    raw distances of the metric
// Order    nearest first; a row with fewer than k hits ends in (0xFFFFFFFF, NaN)
// Filters  points that are excluded still lead the walk on. When few are allowed, or the walk finds
//          fewer than it should, the allowed ones are scanned: a row is short only when no more
//          points are allowed
// Result   rows answered before the deadline, all n without one; or -1: null pointers, k < 1,
//          queries that are not finite while parameters are checked, no memory, index being torn
//          down
// Threads  any number at once, beside additions; sees every addition that returned before the call
std::int64_t korvex_search_direct(hnsw_s* hnsw, const float* queries, std::size_t n, int k,
                                  const direct_options* options, std::uint32_t* ids,
                                  float* distances, std::uint32_t* counts);

}  // namespace korvex

#endif  // KORVEX_SEARCH_DIRECT_H
