#ifndef KORVEX_BENCH_KERNELS_LIMITS_H
#define KORVEX_BENCH_KERNELS_LIMITS_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "runtime/platform/memory.h"

namespace korvex::bench {

// Vectors one behind the other, in memory as the stores have it, of any dimension that fits.
class row_memory {
 public:
  // Filled with small numbers. Throws std::bad_alloc.
  explicit row_memory(std::size_t floats);
  ~row_memory() { platform::unmap_anonymous(data_, mapped_bytes_); }
  row_memory(const row_memory&) = delete;
  row_memory& operator=(const row_memory&) = delete;

  const float* data() const { return data_; }
  std::size_t floats() const { return floats_; }

 private:
  std::uint64_t mapped_bytes_ = 0;
  std::size_t floats_;
  float* data_;
};

// What this machine can do at best, measured and not looked up: the fastest of some tries.

// Bytes a second that one core loads from its nearest cache with loads of this width: 16, 32 or 64
// bytes. Requires that the processor has such loads.
double cache_bytes_a_second(std::size_t load_bytes);

// Bytes a second that one core reads from memory, front to back.
double memory_bytes_a_second(const row_memory& memory);

// Seconds for one row of `dimension` floats when rows come in this order and each of their cache
// lines is asked for ahead and touched once: no distance can be computed faster.
double random_row_seconds(const row_memory& memory, std::size_t dimension,
                          std::span<const std::uint32_t> order);

// Asks for all cache lines of a row.
inline void prefetch_row(const float* row, std::size_t dimension) {
  constexpr std::size_t floats_a_line = 16;
  for (std::size_t i = 0; i < dimension; i += floats_a_line) __builtin_prefetch(row + i);
}
// Rows between the one that is asked for and the one that is read.
inline constexpr std::size_t prefetch_lead = 8;

}  // namespace korvex::bench

#endif  // KORVEX_BENCH_KERNELS_LIMITS_H
