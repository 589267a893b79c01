#ifndef KORVEX_ENGINE_SCORING_H
#define KORVEX_ENGINE_SCORING_H

#include <algorithm>
#include <cstdint>

#include "engine/runtime.h"

namespace korvex {

inline void prefetch_range(const void* address, std::uint32_t bytes) {
  constexpr std::uint32_t cache_line = 64;
  const char* const first = static_cast<const char*>(address);
  for (std::uint32_t offset = 0; offset < bytes; offset += cache_line)
    __builtin_prefetch(first + offset);
}

// Raw distances of one query to stored vectors all over the memory: a few rows ahead are on their
// way to the cache while four at a time are compared.
class row_scorer {
 public:
  explicit row_scorer(const korvex_runtime_s& runtime)
      : one_(runtime.distance_function.load(std::memory_order_acquire)),
        four_(runtime.distance_batch.load(std::memory_order_relaxed)),
        bounded_(runtime.distance_bounded.load(std::memory_order_relaxed)),
        dimension_(runtime.dimension),
        prefetched_bytes_(std::min(runtime.vector_bytes, max_prefetched_bytes)),
        lead_(runtime.vector_bytes <= short_row_bytes ? 12 : 8) {}

  // How many rows should be on their way while others are compared. More would not be under way at
  // once: a core keeps track of a few dozen missing cache lines, and the processor itself goes on
  // reading ahead of the first kilobyte.
  std::uint32_t lead() const { return lead_; }
  void prefetch(const float* row) const { prefetch_range(row, prefetched_bytes_); }

  // rows: `count` addresses, none null. out: `count` distances, in their order.
  void score(const float* query, const float* const* rows, std::uint32_t count, float* out) const {
    for (std::uint32_t i = 0; i < std::min(lead_, count); ++i) prefetch(rows[i]);
    for (std::uint32_t i = 0; i < count; i += 4) {
      const std::uint32_t ahead = std::min(i + lead_ + 4, count);
      for (std::uint32_t j = i + lead_; j < ahead; ++j) prefetch(rows[j]);
      score_fetched(query, rows + i, std::min(count - i, 4u), out + i);
    }
  }

  // The same for rows that the caller has asked for.
  void score_fetched(const float* query, const float* const* rows, std::uint32_t count,
                     float* out) const {
    std::uint32_t i = 0;
    for (; i + 4 <= count; i += 4) four_(query, rows + i, dimension_, out + i);
    const std::uint32_t left = count - i;
    if (left == 3 || (left == 2 && dimension_ <= pair_dimension)) {
      const float* const last[4] = {rows[i], rows[i + 1], rows[count - 1], rows[count - 1]};
      float distances[4];
      four_(query, last, dimension_, distances);
      std::copy_n(distances, left, out + i);
      return;
    }
    for (; i < count; ++i) out[i] = one_(query, rows[i], dimension_);
  }

  float score(const float* query, const float* row) const { return one_(query, row, dimension_); }

  // The same for who has no use for distances above `bound`: instead of one of those any value
  // above it. For vectors that are in the cache.
  float score_bounded(const float* query, const float* row, float bound) const {
    return bounded_ != nullptr ? bounded_(query, row, dimension_, bound) : score(query, row);
  }

 private:
  static constexpr std::uint32_t max_prefetched_bytes = 1024;
  static constexpr std::uint32_t short_row_bytes = 512;
  static constexpr std::uint32_t pair_dimension =
      128;  // up to here four at once cost less than two one by one

  const distance_kernel one_;
  const distance_batch4_kernel four_;
  const distance_bounded_kernel bounded_;
  const std::uint32_t dimension_;
  const std::uint32_t prefetched_bytes_;
  const std::uint32_t lead_;
};

}  // namespace korvex

#endif  // KORVEX_ENGINE_SCORING_H
