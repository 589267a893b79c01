#ifndef KORVEX_CLI_GROUND_TRUTH_H
#define KORVEX_CLI_GROUND_TRUTH_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "cli/dataset.h"
#include "math/metrics.h"

namespace korvex::cli {

// What the answers are measured against: the k nearest base rows of each query. Rows that tie with
// the k-th are as good as it, so an answer counts by its distance, not by its number.
class ground_truth {
 public:
  // By brute force with the library's kernels, on `threads` threads.
  // Requirements  start_console ran; k is at most the number of base rows
  static ground_truth compute(const matrix& base, const matrix& queries,
                              korvex_distance_type metric, std::size_t k, unsigned threads);
  // From an ivecs file; `query_rows` are the rows of it that belong to the queries. Failure throws
  // file_error: too few rows or columns, an id that is no row of the base.
  static ground_truth load(const std::string& path, const matrix& base, const matrix& queries,
                           const std::vector<std::size_t>& query_rows, korvex_distance_type metric,
                           std::size_t k);

  std::size_t k() const { return k_; }
  // Whether a base row is among the k nearest of a query, or ties with the farthest of them.
  bool is_near(std::size_t query, std::uint32_t row) const;
  // The share of the k nearest that a list of rows holds, repeated rows counted once.
  double recall(std::size_t query, const std::uint32_t* rows, std::size_t count) const;

 private:
  ground_truth(const matrix& base, const matrix& queries, korvex_distance_type metric,
               std::size_t k);

  const matrix* base_;
  const matrix* queries_;
  std::unique_ptr<DistanceInterface> metric_;
  float direction_;  // direction x distance: smaller is nearer
  std::size_t k_;
  std::vector<float> bound_;  // a query: the key of its k-th nearest
};

}  // namespace korvex::cli

#endif  // KORVEX_CLI_GROUND_TRUTH_H
