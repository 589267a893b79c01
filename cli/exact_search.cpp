#include "cli/exact_search.h"

#include <algorithm>
#include <thread>

#include "cli/interrupt.h"

namespace korvex::cli {

namespace {

constexpr std::size_t queries_at_once = 32;
// Rows that are compared with every query at hand before the next come: they stay in a cache.
constexpr std::size_t tile_bytes = 128u << 10;

}  // namespace

exact_search::exact_search(const matrix& queries, korvex_distance_type metric, std::size_t k,
                           unsigned threads)
    : queries_(queries),
      metric_(create_distance(metric, static_cast<int>(queries.dimension))),
      batch4_(distance_batch4_function(metric, static_cast<int>(queries.dimension))),
      k_(k),
      threads_(threads),
      nearest_(queries.rows) {
  float self = 0;
  float opposite = 0;
  metric_->reference_distance(&self, &opposite);
  direction_ = self < opposite ? 1.0f : -1.0f;
  for (auto& heap : nearest_) heap.reserve(k);
}

void exact_search::keep(std::size_t query, float key, std::uint32_t id) {
  std::vector<exact_neighbour>& heap = nearest_[query];
  const exact_neighbour found{key, id};
  if (heap.size() == k_) {
    if (!(found < heap.front())) return;
    std::pop_heap(heap.begin(), heap.end());
    heap.pop_back();
  }
  heap.push_back(found);
  std::push_heap(heap.begin(), heap.end());
}

void exact_search::compare(std::size_t query, const block& rows, std::size_t first,
                           std::size_t last) {
  const std::size_t dimension = queries_.dimension;
  const float* const vector = queries_.row(query);
  const auto row = [&](std::size_t i) { return rows.rows + i * dimension; };
  const auto id = [&](std::size_t i) {
    return rows.ids != nullptr ? rows.ids[i] : rows.first_id + static_cast<std::uint32_t>(i);
  };
  std::size_t i = first;
  for (; i + 4 <= last; i += 4) {
    const float* const four[4] = {row(i), row(i + 1), row(i + 2), row(i + 3)};
    float distances[4];
    batch4_(vector, four, dimension, distances);
    for (std::size_t lane = 0; lane < 4; ++lane)
      keep(query, direction_ * distances[lane], id(i + lane));
  }
  for (; i < last; ++i) keep(query, direction_ * metric_->distance(vector, row(i)), id(i));
}

void exact_search::offer(const float* rows, std::size_t count, std::uint32_t first_id,
                         const std::uint32_t* ids) {
  const block all{rows, count, first_id, ids};
  const std::size_t row_bytes = queries_.dimension * sizeof(float);
  const std::size_t tile = std::max<std::size_t>(tile_bytes / row_bytes / 4, 1) * 4;
  std::atomic<std::size_t> next{0};
  const auto work = [&] {
    while (interrupted() == 0) {
      const std::size_t first = next.fetch_add(queries_at_once);
      if (first >= queries_.rows) return;
      const std::size_t last = std::min(first + queries_at_once, queries_.rows);
      for (std::size_t row = 0; row < count && interrupted() == 0; row += tile)
        for (std::size_t query = first; query < last; ++query)
          compare(query, all, row, std::min(row + tile, count));
      compared_.fetch_add((last - first) * count, std::memory_order_relaxed);
    }
  };
  std::vector<std::jthread> workers;
  for (unsigned i = 1; i < threads_; ++i) workers.emplace_back(work);
  work();
}

std::vector<exact_neighbour> exact_search::nearest(std::size_t query) const {
  std::vector<exact_neighbour> sorted = nearest_[query];
  std::sort_heap(sorted.begin(), sorted.end());
  return sorted;
}

}  // namespace korvex::cli
