#ifndef KORVEX_BENCH_DIRECT_DATA_H
#define KORVEX_BENCH_DIRECT_DATA_H

#include <cstddef>
#include <random>
#include <vector>

#include "engine/configuration.h"
#include "engine/indexing.h"
#include "engine/insertion.h"
#include "runtime/log.h"

namespace korvex::bench {

// 1,000 clusters, as wide as they are far apart.
inline std::vector<float> make_mixture(std::size_t n, std::size_t dimension, unsigned seed) {
  std::mt19937 layout(1), generator(seed);
  std::normal_distribution<float> normal;
  std::vector<float> centres(1000 * dimension), rows(n * dimension);
  for (float& value : centres) value = normal(layout);
  for (std::size_t i = 0; i < n; ++i) {
    const float* const centre = &centres[generator() % 1000 * dimension];
    for (std::size_t d = 0; d < dimension; ++d)
      rows[i * dimension + d] = centre[d] + normal(generator);
  }
  return rows;
}

inline double squared_distance(const float* a, const float* b, std::size_t dimension) {
  double sum = 0;
  for (std::size_t d = 0; d < dimension; ++d) {
    const double step = static_cast<double>(a[d]) - static_cast<double>(b[d]);
    sum += step * step;
  }
  return sum;
}

// A linked index in memory, silent, without the result cache and with one search thread; null when
// it cannot be made.
inline hnsw_s* build_index(const std::vector<float>& points, std::size_t dimension, int probes) {
  hnsw_s* const index = korvex_init(static_cast<std::uint32_t>(dimension), 0, nullptr, nullptr);
  if (index == nullptr) return nullptr;
  log_setfd(0);
  korvex_set_partitions(index, probes);
  korvex_set_radius(index, 200);
  korvex_set_search_threads(index, 1, 10'000);
  korvex_set_result_cache(index, 0);
  for (std::size_t i = 0; i < points.size() / dimension; ++i)
    korvex_add(index, &points[i * dimension], 0);
  korvex_wait_finish_adding(index);
  return index;
}

}  // namespace korvex::bench

#endif  // KORVEX_BENCH_DIRECT_DATA_H
