#include "cli/ground_truth.h"

#include <fmt/format.h>

#include <algorithm>
#include <limits>

#include "cli/console.h"
#include "cli/exact_search.h"
#include "cli/readers/vector_file.h"

namespace korvex::cli {

ground_truth::ground_truth(const matrix& base, const matrix& queries, korvex_distance_type metric,
                           std::size_t k)
    : base_(&base),
      queries_(&queries),
      metric_(create_distance(metric, static_cast<int>(base.dimension))),
      k_(k),
      bound_(queries.rows) {
  float self = 0;
  float opposite = 0;
  metric_->reference_distance(&self, &opposite);
  direction_ = self < opposite ? 1.0f : -1.0f;
}

ground_truth ground_truth::compute(const matrix& base, const matrix& queries,
                                   korvex_distance_type metric, std::size_t k, unsigned threads) {
  ground_truth truth(base, queries, metric, k);
  exact_search exact(queries, metric, k, threads);
  {
    const progress line("exact answers", queries.rows,
                        [&] { return exact.compared() / base.rows; });
    exact.offer(base.values.data(), base.rows, 0);
  }
  for (std::size_t query = 0; query < queries.rows; ++query)
    truth.bound_[query] = exact.nearest(query).back().key;
  return truth;
}

ground_truth ground_truth::load(const std::string& path, const matrix& base, const matrix& queries,
                                const std::vector<std::size_t>& query_rows,
                                korvex_distance_type metric, std::size_t k) {
  const id_rows file =
      read_id_file({path, vector_format::unknown, "neighbors"}, query_rows.back() + 1);
  if (file.rows <= query_rows.back())
    throw file_error(path, fmt::format("{} rows, expected {} or more: one for each query",
                                       file.rows, query_rows.back() + 1));
  if (file.width < k)
    throw file_error(path, fmt::format("rows of {} ids, expected {} or more", file.width, k));
  ground_truth truth(base, queries, metric, k);
  for (std::size_t query = 0; query < queries.rows; ++query) {
    const std::uint32_t* const ids = file.ids.data() + query_rows[query] * file.width;
    float farthest = -std::numeric_limits<float>::infinity();
    for (std::size_t i = 0; i < k; ++i) {
      if (ids[i] >= base.rows)
        throw file_error(path,
                         fmt::format("row {} holds the id {}, expected one below {}, the number "
                                     "of base vectors",
                                     query_rows[query], ids[i], base.rows));
      const float distance = truth.metric_->distance(queries.row(query), base.row(ids[i]));
      farthest = std::max(farthest, truth.direction_ * distance);
    }
    truth.bound_[query] = farthest;
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
