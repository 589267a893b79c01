#include "cli/ground_truth.h"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <queue>
#include <thread>

#include "cli/console.h"
#include "cli/readers/vector_file.h"

namespace korvex::cli {

namespace {

constexpr std::size_t queries_at_once = 32;
// Base rows that are compared with every query at hand before the next come: they stay in a cache.
constexpr std::size_t tile_bytes = 128u << 10;

// The k smallest keys so far; the largest of them is on top.
class smallest_keys {
 public:
  explicit smallest_keys(std::size_t k) : k_(k) {}
  void offer(float key) {
    if (keys_.size() == k_ && key >= keys_.top()) return;
    if (keys_.size() == k_) keys_.pop();
    keys_.push(key);
  }
  float largest() const { return keys_.top(); }

 private:
  const std::size_t k_;
  std::priority_queue<float> keys_;
};

}  // namespace

ground_truth::ground_truth(const matrix& base, const matrix& queries, korvex_distance_type metric,
                           std::size_t k)
    : base_(&base),
      queries_(&queries),
      metric_(create_distance(metric, static_cast<int>(base.dimension))),
      batch4_(distance_batch4_function(metric, static_cast<int>(base.dimension))),
      k_(k),
      bound_(queries.rows) {
  float self = 0;
  float opposite = 0;
  metric_->reference_distance(&self, &opposite);
  direction_ = self < opposite ? 1.0f : -1.0f;
}

void ground_truth::find_for_queries(std::size_t first, std::size_t last) {
  std::vector<smallest_keys> nearest(last - first, smallest_keys(k_));
  const std::size_t dimension = base_->dimension;
  const std::size_t tile =
      std::max<std::size_t>(tile_bytes / (dimension * sizeof(float)) / 4, 1) * 4;
  const auto compare = [&](std::size_t query, std::size_t row, std::size_t end) {
    const float* const vector = queries_->row(query);
    smallest_keys& keys = nearest[query - first];
    for (; row + 4 <= end; row += 4) {
      const float* const rows[4] = {base_->row(row), base_->row(row + 1), base_->row(row + 2),
                                    base_->row(row + 3)};
      float distances[4];
      batch4_(vector, rows, dimension, distances);
      for (const float distance : distances) keys.offer(direction_ * distance);
    }
    for (; row < end; ++row) keys.offer(direction_ * metric_->distance(vector, base_->row(row)));
  };
  for (std::size_t row = 0; row < base_->rows; row += tile)
    for (std::size_t query = first; query < last; ++query)
      compare(query, row, std::min(row + tile, base_->rows));
  for (std::size_t query = first; query < last; ++query)
    bound_[query] = nearest[query - first].largest();
}

ground_truth ground_truth::compute(const matrix& base, const matrix& queries,
                                   korvex_distance_type metric, std::size_t k, unsigned threads) {
  ground_truth truth(base, queries, metric, k);
  std::atomic<std::size_t> next{0};
  std::atomic<std::uint64_t> done{0};
  const progress line("exact answers", queries.rows,
                      [&] { return done.load(std::memory_order_relaxed); });
  const auto work = [&] {
    for (;;) {
      const std::size_t first = next.fetch_add(queries_at_once);
      if (first >= queries.rows) return;
      const std::size_t last = std::min(first + queries_at_once, queries.rows);
      truth.find_for_queries(first, last);
      done.fetch_add(last - first, std::memory_order_relaxed);
    }
  };
  {
    std::vector<std::jthread> workers;
    for (unsigned i = 1; i < threads; ++i) workers.emplace_back(work);
    work();
  }
  return truth;
}

ground_truth ground_truth::load(const std::string& path, const matrix& base, const matrix& queries,
                                const std::vector<std::size_t>& query_rows,
                                korvex_distance_type metric, std::size_t k) {
  const id_rows file = read_id_file(path, query_rows.back() + 1);
  if (file.rows <= query_rows.back())
    throw file_error(path, fmt::format("{} rows, expected {} or more: one for each query",
                                       file.rows, query_rows.back() + 1));
  if (file.width < k)
    throw file_error(path, fmt::format("rows of {} ids, expected {} or more", file.width, k));
  ground_truth truth(base, queries, metric, k);
  for (std::size_t query = 0; query < queries.rows; ++query) {
    const std::uint32_t* const ids = file.ids.data() + query_rows[query] * file.width;
    smallest_keys keys(k);
    for (std::size_t i = 0; i < k; ++i) {
      if (ids[i] >= base.rows)
        throw file_error(path,
                         fmt::format("row {} holds the id {}, expected one below {}, the number "
                                     "of base vectors",
                                     query_rows[query], ids[i], base.rows));
      keys.offer(truth.direction_ * truth.metric_->distance(queries.row(query), base.row(ids[i])));
    }
    truth.bound_[query] = keys.largest();
  }
  return truth;
}

bool ground_truth::is_near(std::size_t query, std::uint32_t row) const {
  if (row >= base_->rows) return false;
  return direction_ * metric_->distance(queries_->row(query), base_->row(row)) <= bound_[query];
}

double ground_truth::recall(std::size_t query, const std::uint32_t* rows, std::size_t count) const {
  std::vector<std::uint32_t> unique(rows, rows + std::min(count, k_));
  std::sort(unique.begin(), unique.end());
  unique.erase(std::unique(unique.begin(), unique.end()), unique.end());
  const auto hits = std::count_if(unique.begin(), unique.end(),
                                  [&](std::uint32_t row) { return is_near(query, row); });
  return static_cast<double>(hits) / static_cast<double>(k_);
}

}  // namespace korvex::cli
