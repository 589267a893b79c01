#ifndef KORVEX_CLI_QUERY_BATCH_H
#define KORVEX_CLI_QUERY_BATCH_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "cli/disk_index.h"

namespace korvex::cli {

// The answers of a batch of queries, a row of k each: nearest first, counts[i] of them real.
struct answer_rows {
  std::size_t k = 0;
  std::vector<std::uint32_t> ids;
  std::vector<float> distances;  // raw, as the index counts them
  std::vector<std::uint32_t> counts;
};

struct query_options {
  int k = 10;
  int radius = 200;
  int threads = 0;  // 0: one a core
};

// Answers n queries directly on several threads. Stops early after a signal: interrupted() tells,
// and the answers are not complete then. Failure throws tool_error.
void answer_queries(const disk_index& index, const float* queries, std::size_t n,
                    const query_options& options, answer_rows& answers);

// Seconds of each query, asked one after the other on this thread.
std::vector<double> time_queries(const disk_index& index, const float* queries, std::size_t n,
                                 const query_options& options);

}  // namespace korvex::cli

#endif  // KORVEX_CLI_QUERY_BATCH_H
