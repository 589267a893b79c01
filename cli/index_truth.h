#ifndef KORVEX_CLI_INDEX_TRUTH_H
#define KORVEX_CLI_INDEX_TRUTH_H

#include <cstddef>
#include <vector>

#include "cli/dataset.h"
#include "cli/disk_index.h"
#include "cli/query_batch.h"

namespace korvex::cli {

// A mean over queries, and how far it may be off: two standard errors.
struct mean_recall {
  double mean = 0;
  double uncertainty = 0;
};

// The exact answers of queries among the vectors that an index shows.
class index_truth {
 public:
  // By brute force. Throws interruption after a signal, tool_error when the index shows fewer than k
  // vectors. Under cosine the queries must have length 1.
  index_truth(const disk_index& index, const matrix& queries, std::size_t k, unsigned threads);

  // The share of the k nearest among the answers of the queries from `first` on; what ties with the
  // k-th counts as well as it.
  mean_recall recall(const answer_rows& answers, std::size_t first) const;

 private:
  double recall_of(const answer_rows& answers, std::size_t row, float bound) const;

  const std::size_t k_;
  float direction_ = 1;
  std::vector<float> bound_;  // a query: the key of its k-th nearest
};

// Query vectors for an index, brought to length 1 for cosine: `count` of the file's, chosen at
// random (0: all).
matrix load_queries(const vector_input& input, const disk_index& index, std::size_t count,
                    std::uint64_t seed);

}  // namespace korvex::cli

#endif  // KORVEX_CLI_INDEX_TRUTH_H
