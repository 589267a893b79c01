#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <thread>
#include <vector>

#include "direct/data.h"
#include "engine/teardown.h"
#include "runtime/threads.h"
#include "search/bulk.h"
#include "search/direct.h"

// Direct searches against the queue, and one thread of them against two: queries a second at equal radii, hence equal
// recall. Sessions are asked one query after another, bulk searches keep one search thread busy.
// Usage: korvex_queue [VECTORS [DIMENSION [PROBES]]]     defaults 100000 128 1
namespace korvex::bench {

namespace {

constexpr std::size_t queries = 1000;
constexpr int k = 10;
constexpr int rounds = 5;
constexpr int passes = 4;  // over the queries in a round

struct data_set {
  std::size_t dimension;
  std::vector<float> points, asked;
  std::vector<double> limits;  // the k-th nearest point's distance for each query
};

void find_limits(data_set* data) {
  for (std::size_t q = 0; q < queries; ++q) {
    std::vector<double> all;
    for (std::size_t i = 0; i < data->points.size(); i += data->dimension)
      all.push_back(
          squared_distance(&data->points[i], &data->asked[q * data->dimension], data->dimension));
    std::nth_element(all.begin(), all.begin() + k - 1, all.end());
    data->limits.push_back(all[k - 1] * (1 + 1e-5));
  }
}

double recall_of(const data_set& data, const std::vector<std::uint32_t>& ids) {
  std::size_t hits = 0;
  for (std::size_t place = 0; place < ids.size(); ++place) {
    const std::size_t q = place / k;
    if (ids[place] >= data.points.size() / data.dimension) continue;
    hits += squared_distance(&data.points[ids[place] * data.dimension],
                             &data.asked[q * data.dimension], data.dimension) <= data.limits[q]
                ? 1
                : 0;
  }
  return static_cast<double>(hits) / static_cast<double>(ids.size());
}

void ask_direct(hnsw_s* index, const data_set& data, int radius, int threads,
                std::vector<std::uint32_t>* ids) {
  const direct_options options{.radius = radius};
  const std::size_t share = queries / static_cast<std::size_t>(threads);
  std::vector<std::thread> running;
  for (std::size_t begin = 0; begin < queries; begin += share)
    running.emplace_back([&, begin] {
      thread_set_self_priority(2);  // as search threads do: on a busy machine it counts
      const std::size_t end = std::min(begin + share, queries);
      for (std::size_t q = begin; q < end; ++q)
        korvex_search_direct(index, &data.asked[q * data.dimension], 1, k, &options, &(*ids)[q * k],
                             nullptr, nullptr);
    });
  for (std::thread& thread : running) thread.join();
}

void ask_session(hnsw_s* index, const data_set& data, int radius, std::vector<std::uint32_t>* ids) {
  const std::uint32_t session = korvex_search_init(index, k, nullptr);
  for (std::size_t q = 0; q < queries; ++q) {
    korvex_search(index, session, &data.asked[q * data.dimension], radius, k);
    const korvex_results_s* const found = korvex_search_result(index, session, 0);
    std::copy_n(found->ids, found->count, &(*ids)[q * k]);
  }
  korvex_search_free(index, session);
}

void ask_bulk(hnsw_s* index, const data_set& data, int radius, std::vector<std::uint32_t>* ids) {
  korvex_bulk_search_s bulk{};
  korvex_bulk_search(index, &bulk, data.asked.data(), queries, radius, k, nullptr, nullptr);
  const korvex_bulk_results_s* const found = korvex_bulk_search_results(index, &bulk);
  std::copy_n(found->ids, queries * k, ids->begin());
  korvex_bulk_search_release(&bulk);
}

struct speed {
  double rate = 0;          // queries a second
  double microseconds = 0;  // of processor time a query takes, on all threads
};

template <class Ask>
speed speed_of(Ask&& ask) {
  const auto begin = std::chrono::steady_clock::now();
  const std::clock_t used = std::clock();
  for (int pass = 0; pass < passes; ++pass) ask();
  const std::chrono::duration<double> time = std::chrono::steady_clock::now() - begin;
  constexpr double asked = static_cast<double>(queries) * passes;
  return {asked / time.count(),
          static_cast<double>(std::clock() - used) * 1e6 / CLOCKS_PER_SEC / asked};
}

speed middle(std::vector<speed> measured) {
  const auto by = [&](double speed::*part) {
    std::sort(measured.begin(), measured.end(),
              [part](const speed& a, const speed& b) { return a.*part < b.*part; });
    return measured[measured.size() / 2].*part;
  };
  return {by(&speed::rate), by(&speed::microseconds)};
}

void print_radius(hnsw_s* index, const data_set& data, int radius) {
  constexpr std::size_t ways = 4;
  std::vector<std::uint32_t> ids[ways];
  std::vector<speed> measured[ways];
  for (auto& row : ids) row.assign(queries * k, 0xFFFFFFFFu);
  // In turn, so that what the machine does besides meets all of them.
  for (int round = 0; round < rounds; ++round) {
    measured[0].push_back(speed_of([&] { ask_session(index, data, radius, &ids[0]); }));
    measured[1].push_back(speed_of([&] { ask_bulk(index, data, radius, &ids[1]); }));
    measured[2].push_back(speed_of([&] { ask_direct(index, data, radius, 1, &ids[2]); }));
    measured[3].push_back(speed_of([&] { ask_direct(index, data, radius, 2, &ids[3]); }));
  }
  std::printf("%7d", radius);
  speed middles[ways];
  for (std::size_t way = 0; way < ways; ++way) {
    middles[way] = middle(measured[way]);
    std::printf(" %8.0f %5.0f us %6.4f", middles[way].rate, middles[way].microseconds,
                recall_of(data, ids[way]));
  }
  std::printf(" %6.2f %10.2f\n", middles[3].rate / middles[2].rate,
              2 * middles[2].microseconds / middles[3].microseconds);
  std::fflush(stdout);
}

int run(int argc, char** argv) {
  data_set data{};
  const std::size_t n = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 100'000;
  data.dimension = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 128;
  const int probes = argc > 3 ? std::atoi(argv[3]) : 1;
  data.points = make_mixture(n, data.dimension, 2);
  data.asked = make_mixture(queries, data.dimension, 3);
  find_limits(&data);
  hnsw_s* const index = build_index(data.points, data.dimension, probes);
  if (index == nullptr) return 1;
  std::printf("%zu x %zu, %d probes, k %d, %zu queries, median of %d rounds, kernels %s\n", n,
              data.dimension, probes, k, queries, rounds, chosen_kernels());
  std::printf(
      "queries a second, processor time a query, recall; of two threads against one: the rate, and "
      "what the rate would be with two processors to themselves\n%7s %24s %24s %24s %24s %6s "
      "%10s\n",
      "radius", "session", "bulk", "direct", "direct, 2 threads", "2 to 1", "undisturbed");
  for (const int radius : {10, 32, 50, 100, 200, 400}) print_radius(index, data, radius);
  korvex_free(index);
  return 0;
}

}  // namespace

}  // namespace korvex::bench

int main(int argc, char** argv) {
  return korvex::bench::run(argc, argv);
}
