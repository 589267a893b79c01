#ifndef KORVEX_BENCH_COMPARE_TRUTH_H
#define KORVEX_BENCH_COMPARE_TRUTH_H

#include <cstdint>
#include <string>
#include <vector>

#include "dataset.h"

namespace korvex::compare {

// The k nearest base rows of every query by squared Euclidean distance, nearest first.
struct exact_truth {
  std::uint32_t k = 0;
  std::vector<std::uint32_t> ids;
  std::vector<float> distances;
};

// By brute force on every processor, or from `cache_file` when that holds the truth of exactly these vectors; otherwise
// it is written there. An empty name: no cache. Kernels must be initialised.
exact_truth find_truth(const dataset& data, std::uint32_t k, const std::string& cache_file);

// The share of the true neighbours among the answers (k ids a row). An answer that is exactly as far as the last true
// neighbour counts as true; an id that comes twice counts once.
double recall_of(const exact_truth& truth, const dataset& data,
                 const std::vector<std::uint32_t>& answers);

}  // namespace korvex::compare

#endif  // KORVEX_BENCH_COMPARE_TRUTH_H
