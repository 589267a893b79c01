#ifndef KORVEX_CLI_EXACT_SEARCH_H
#define KORVEX_CLI_EXACT_SEARCH_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "cli/dataset.h"
#include "math/metrics.h"

namespace korvex::cli {

struct exact_neighbour {
  float key;  // direction x distance: smaller is nearer
  std::uint32_t id;
  friend bool operator<(const exact_neighbour& a, const exact_neighbour& b) {
    return a.key != b.key ? a.key < b.key : a.id < b.id;
  }
};

// The k nearest of each query by brute force with the library's kernels. Vectors come in blocks, so
// that they need not be in memory at once.
// Requires   start_console ran
class exact_search {
 public:
  exact_search(const matrix& queries, korvex_distance_type metric, std::size_t k, unsigned threads);

  // Compares all queries with `count` rows, on all threads. Their ids are `ids`, or from `first_id`
  // on when that is null. Returns early after a signal.
  void offer(const float* rows, std::size_t count, std::uint32_t first_id,
             const std::uint32_t* ids = nullptr);

  // Nearest first; of equally near ones the smaller id. Fewer than k when fewer were offered.
  std::vector<exact_neighbour> nearest(std::size_t query) const;
  // +1 where smaller distances are nearer, else -1.
  float direction() const { return direction_; }
  const DistanceInterface& metric() const { return *metric_; }
  // Pairs of a query and a vector so far; any thread.
  std::uint64_t compared() const { return compared_.load(std::memory_order_relaxed); }

 private:
  struct block {
    const float* rows;
    std::size_t count;
    std::uint32_t first_id;
    const std::uint32_t* ids;
  };
  void compare(std::size_t query, const block& rows, std::size_t first, std::size_t last);
  void keep(std::size_t query, float key, std::uint32_t id);

  const matrix& queries_;
  std::unique_ptr<DistanceInterface> metric_;
  distance_batch4_kernel batch4_;
  float direction_;
  const std::size_t k_;
  const unsigned threads_;
  std::vector<std::vector<exact_neighbour>> nearest_;  // a query: a heap, the farthest on top
  std::atomic<std::uint64_t> compared_{0};
};

}  // namespace korvex::cli

#endif  // KORVEX_CLI_EXACT_SEARCH_H
