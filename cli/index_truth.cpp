#include "cli/index_truth.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "cli/console.h"
#include "cli/errors.h"
#include "cli/exact_search.h"
#include "cli/interrupt.h"
#include "korvex/engine.h"

namespace korvex::cli {

namespace {

constexpr std::size_t scan_floats = 1u << 22;
// The kernels of walk and brute force add up in different orders.
constexpr float rounding = 1e-5f;

// The vectors that the index shows, in blocks.
class shown_vectors {
 public:
  explicit shown_vectors(const disk_index& index)
      : index_(index), rows_(std::max<std::size_t>(scan_floats / index.dimension(), 1)) {}

  std::size_t next() {
    values_.clear();
    ids_.clear();
    for (; next_id_ < index_.size() && ids_.size() < rows_; ++next_id_) {
      if (index_.hidden(next_id_)) continue;
      values_.resize(values_.size() + index_.dimension());
      float* const out = values_.data() + ids_.size() * index_.dimension();
      if (::korvex_get_vector(index_.get(), next_id_, out) == 0) ids_.push_back(next_id_);
    }
    return ids_.size();
  }
  const float* values() const { return values_.data(); }
  const std::uint32_t* ids() const { return ids_.data(); }

 private:
  const disk_index& index_;
  const std::size_t rows_;
  std::uint32_t next_id_ = 0;
  std::vector<float> values_;
  std::vector<std::uint32_t> ids_;
};

}  // namespace

index_truth::index_truth(const disk_index& index, const matrix& queries, std::size_t k,
                         unsigned threads)
    : k_(k) {
  exact_search exact(queries, index.metric().type, k, threads);
  direction_ = exact.direction();
  shown_vectors vectors(index);
  {
    const progress line("exact answers", index.size(),
                        [&] { return exact.compared() / queries.rows; });
    while (const std::size_t count = vectors.next()) {
      exact.offer(vectors.values(), count, 0, vectors.ids());
      stop_if_interrupted();
    }
  }
  for (std::size_t query = 0; query < queries.rows; ++query) {
    const std::vector<exact_neighbour> nearest = exact.nearest(query);
    if (nearest.size() < k)
      throw tool_error(exit_usage, fmt::format("-k {}: expected at most {}, the number of vectors "
                                               "that the index shows",
                                               k, nearest.size()));
    bound_.push_back(nearest.back().key);
  }
}

double index_truth::recall_of(const answer_rows& answers, std::size_t row, float bound) const {
  const float* const distances = answers.distances.data() + row * answers.k;
  const float farthest = bound + rounding * std::abs(bound);
  const auto hits =
      std::count_if(distances, distances + std::min<std::size_t>(answers.counts[row], k_),
                    [&](float distance) { return direction_ * distance <= farthest; });
  return static_cast<double>(hits) / static_cast<double>(k_);
}

mean_recall index_truth::recall(const answer_rows& answers, std::size_t first) const {
  double sum = 0;
  double squares = 0;
  const auto n = static_cast<double>(answers.counts.size());
  for (std::size_t row = 0; row < answers.counts.size(); ++row) {
    const double one = recall_of(answers, row, bound_[first + row]);
    sum += one;
    squares += one * one;
  }
  const double mean = sum / n;
  return {mean, 2 * std::sqrt(std::max(squares / n - mean * mean, 0.0) / n)};
}

matrix load_queries(const vector_input& input, const disk_index& index, std::size_t count,
                    std::uint64_t seed) {
  matrix queries = load_vectors(input, 0);
  if (queries.dimension != index.dimension())
    throw file_error(input.path,
                     fmt::format("vectors of {} dimensions, expected {} as in the index",
                                 queries.dimension, index.dimension()));
  if (count != 0) keep_rows(queries, choose(queries.rows, count, seed));
  if (index.metric().unit) scale_to_length(queries, 1);
  return queries;
}

}  // namespace korvex::cli
