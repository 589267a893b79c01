#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <vector>

#include "direct/data.h"
#include "engine/teardown.h"
#include "search/direct.h"

// What filters cost: recall and time of direct searches that may answer with a share of the points only, by walking, by
// scanning, and by whichever the library takes for cheaper.
// Usage: korvex_filters [VECTORS [DIMENSION [PROBES]]]     defaults 100000 128 1
namespace korvex::bench {

namespace {

constexpr std::size_t queries = 200;
constexpr int k = 10;
constexpr int radius = 200;
constexpr int rounds = 3;
constexpr double shares[] = {1, 0.5, 0.2, 0.1, 0.05, 0.02, 0.01, 0.005, 0.0005};

struct data_set {
  std::size_t n, dimension;
  std::vector<float> points, asked;
  std::vector<float> lots;  // of each point, uniform in [0, 1): a share s allows those below s
};

// The k-th nearest allowed point's distance for each query.
std::vector<double> exact_limits(const data_set& data, double share) {
  std::vector<double> limits;
  for (std::size_t q = 0; q < queries; ++q) {
    std::vector<double> all;
    for (std::size_t i = 0; i < data.n; ++i) {
      if (static_cast<double>(data.lots[i]) >= share) continue;
      all.push_back(squared_distance(&data.points[i * data.dimension],
                                     &data.asked[q * data.dimension], data.dimension));
    }
    const std::size_t last = std::min<std::size_t>(k, all.size()) - 1;
    std::nth_element(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(last), all.end());
    limits.push_back(all[last] * (1 + 1e-5));
  }
  return limits;
}

struct measured {
  double microseconds;  // a query, median of the rounds
  double recall;
};

measured measure(hnsw_s* index, const data_set& data, const direct_options& options,
                 std::span<const double> limits) {
  std::vector<std::uint32_t> ids(queries * k), counts(queries);
  std::vector<float> distances(queries * k);
  std::vector<double> times;
  for (int round = 0; round < rounds; ++round) {
    const auto begin = std::chrono::steady_clock::now();
    // One by one, as a server is asked.
    for (std::size_t q = 0; q < queries; ++q)
      korvex_search_direct(index, &data.asked[q * data.dimension], 1, k, &options, &ids[q * k],
                           &distances[q * k], &counts[q]);
    const std::chrono::duration<double, std::micro> time = std::chrono::steady_clock::now() - begin;
    times.push_back(time.count() / queries);
  }
  std::sort(times.begin(), times.end());
  std::size_t hits = 0;
  for (std::size_t q = 0; q < queries; ++q)
    for (std::size_t i = 0; i < counts[q]; ++i)
      hits += static_cast<double>(distances[q * k + i]) <= limits[q] ? 1 : 0;
  return {times[rounds / 2], static_cast<double>(hits) / (queries * k)};
}

void print_row(hnsw_s* index, const data_set& data, double share) {
  const std::vector<double> limits = exact_limits(data, share);
  struct restriction {
    const data_set* data;
    double share;
  } only{&data, share};
  std::vector<std::uint64_t> bits(data.n / 64 + 1);
  for (std::size_t i = 0; i < data.n; ++i)
    if (static_cast<double>(data.lots[i]) < share) bits[i / 64] |= std::uint64_t{1} << (i % 64);
  direct_options by_filter{.radius = radius, .filter_context = &only};
  by_filter.filter = [](void* context, std::uint32_t id, std::uint64_t) {
    const auto* const asked = static_cast<const restriction*>(context);
    return static_cast<double>(asked->data->lots[id]) < asked->share ? 0 : 1;
  };
  const direct_options by_bits{
      .radius = radius, .allowed_bits = bits.data(), .allowed_bit_count = data.n};
  for (const direct_options* const base :
       std::initializer_list<const direct_options*>{&by_filter, &by_bits}) {
    std::printf("%8.2f %%  %-7s", 100 * share, base == &by_filter ? "filter" : "bitmap");
    for (const direct_way way : {direct_way::walk, direct_way::scan, direct_way::cheaper}) {
      direct_options options = *base;
      options.way = way;
      if (way == direct_way::walk && share < 0.02) {
        std::printf("            -        -");
        continue;
      }
      const measured result = measure(index, data, options, limits);
      std::printf(" %12.1f %8.4f", result.microseconds, result.recall);
    }
    std::printf("\n");
    std::fflush(stdout);
  }
}

int run(int argc, char** argv) {
  data_set data{};
  data.n = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 100'000;
  data.dimension = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 128;
  const int probes = argc > 3 ? std::atoi(argv[3]) : 1;
  data.points = make_mixture(data.n, data.dimension, 2);
  data.asked = make_mixture(queries, data.dimension, 3);
  std::mt19937 generator(4);
  for (std::size_t i = 0; i < data.n; ++i)
    data.lots.push_back(static_cast<float>(generator()) / 4294967296.0f);

  hnsw_s* const index = build_index(data.points, data.dimension, probes);
  if (index == nullptr) return 1;

  std::printf(
      "%zu x %zu, %d probes, k %d, radius %d, %zu queries one by one, %d rounds, kernels %s\n",
      data.n, data.dimension, probes, k, radius, queries, rounds, chosen_kernels());
  std::printf("%10s  %-7s %12s %8s %12s %8s %12s %8s\n", "allowed", "by", "walk us", "recall",
              "scan us", "recall", "chosen us", "recall");
  for (const double share : shares) print_row(index, data, share);
  korvex_free(index);
  return 0;
}

}  // namespace

}  // namespace korvex::bench

int main(int argc, char** argv) {
  return korvex::bench::run(argc, argv);
}
