#ifndef KORVEX_CORE_HPP
#define KORVEX_CORE_HPP

#include <algorithm>
#include <cmath>
#include <exception>
#include <memory>
#include <mutex>
#include <string>

#include "korvex/error.hpp"
#include "korvex/log.hpp"
#include "korvex/options.hpp"

// What korvex/index.hpp and korvex/pending.hpp share; no part of the interface.
namespace korvex::detail {

inline const char* name_of(metric chosen) {
  constexpr const char* names[] = {"l2_squared", "l2", "inner_product", "cosine"};
  return names[static_cast<int>(chosen)];
}

// Cosine is squared L2 between unit vectors, halved: exact 0 for equal vectors.
inline int engine_metric(metric chosen) {
  if (chosen == metric::l2) return KORVEX_DISTANCE_L2;
  return chosen == metric::inner_product ? KORVEX_DISTANCE_INNER_PRODUCT
                                         : KORVEX_DISTANCE_L2_SQUARE;
}

// What a stored index was made with; nothing when it is none of the front's metrics.
inline std::optional<metric> metric_of(const korvex_description_s& stored) {
  const bool squared = stored.metric == KORVEX_DISTANCE_L2_SQUARE || stored.metric == 0;
  if (stored.normalize != 0)
    return stored.metric == KORVEX_DISTANCE_L2_SQUARE ? std::optional(metric::cosine)
                                                      : std::nullopt;
  if (squared) return metric::l2_squared;
  return stored.metric == KORVEX_DISTANCE_L2 ? metric::l2 : metric::inner_product;
}

inline std::string text(std::uint64_t number) {
  return std::to_string(number);
}

inline void require_range(const char* what, std::int64_t given, std::int64_t least,
                          std::int64_t most) {
  if (given >= least && given <= most) return;
  throw error(errc::invalid_argument, std::string(what) + " is " + std::to_string(given) + ", " +
                                          std::to_string(least) + " to " + std::to_string(most) +
                                          " was expected");
}

inline double length_of(std::span<const float> row) {
  double sum = 0;
  for (const float component : row)
    sum += static_cast<double>(component) * static_cast<double>(component);
  return std::sqrt(sum);
}

// A caller's filter on its way through C; what it throws waits until the search is over.
struct filter_call {
  const filter* keep;
  std::exception_ptr thrown = nullptr;

  static int ask(void* context, std::uint32_t id, std::uint64_t label) noexcept {
    auto* const call = static_cast<filter_call*>(context);
    if (call->thrown) return 1;
    try {
      return (*call->keep)(id, label) ? 0 : 1;
    } catch (...) {
      call->thrown = std::current_exception();
      return 1;
    }
  }
};

// An open index. Lives as long as the index object or one of its pending searches.
class core {
 public:
  core(hnsw_s* record, const korvex_description_s& made, metric distance)
      : record_(record), dimension_(made.dimension), labels_(made.labels != 0), metric_(distance) {}
  ~core() { korvex_free(record_); }
  core(const core&) = delete;
  core& operator=(const core&) = delete;

  hnsw_s* record() const { return record_; }
  std::uint32_t dimension() const { return dimension_; }
  bool labels() const { return labels_; }
  metric distance() const { return metric_; }
  std::mutex& adding() { return adding_; }

  float own_scale(float raw) const { return metric_ == metric::cosine ? raw / 2 : raw; }

  korvex_counts_s counts() const {
    korvex_counts_s counts{};
    counts.size = sizeof counts;
    korvex_get_counts(record_, &counts);
    return counts;
  }

  // How many rows these are. Throws unless all are whole and can be stored or asked for.
  std::size_t check_rows(std::span<const float> rows, const char* what) const {
    if (rows.size() % dimension_ != 0)
      throw error(errc::dimension_mismatch, std::string(what) + ": " + text(rows.size()) +
                                                " floats were given, rows of " + text(dimension_) +
                                                " were expected");
    const std::size_t count = rows.size() / dimension_;
    for (std::size_t i = 0; i < count; ++i) check_row(row_of(rows, i), what, i);
    return count;
  }
  void check_one(std::span<const float> row, const char* what) const {
    if (row.size() != dimension_)
      throw error(errc::dimension_mismatch, std::string(what) + " has " + text(row.size()) +
                                                " components, the index has " + text(dimension_));
    check_row(row, what, 0);
  }

  // The same rows, or copies in *room of which the engine can take the unit length: squares of very
  // small and very large components leave the range of a float.
  std::span<const float> within_range(std::span<const float> rows, std::vector<float>* room) const {
    if (metric_ != metric::cosine) return rows;
    for (std::size_t i = 0; i < rows.size() / dimension_; ++i) {
      const double length = length_of(row_of(rows, i));
      if (length > 1e-15 && length < 1e15) continue;
      if (room->empty()) room->assign(rows.begin(), rows.end());
      for (float& component : std::span(*room).subspan(i * dimension_, dimension_))
        component = static_cast<float>(static_cast<double>(component) / length);
    }
    return room->empty() ? rows : std::span<const float>(*room);
  }

  // Answers on the calling thread. `distances` come in the metric's own scale.
  results search(std::span<const float> queries, std::size_t k,
                 const search_options& options) const {
    const std::size_t n = check_rows(queries, "queries");
    check_search(k, options);
    results found{k, std::vector<id_type>(n * k), std::vector<float>(n * k),
                  std::vector<std::uint32_t>(n), 0};
    if (n != 0) found.answered = search_into(queries, n, options, &found);
    return found;
  }

  static void check_search(std::size_t k, const search_options& options) {
    constexpr std::int64_t most = 1 << 24;
    require_range("k", static_cast<std::int64_t>(std::min<std::size_t>(k, most + 1)), 1, most);
    require_range("radius", options.radius, 0, most);
    require_range("deadline", options.deadline.count(), 0,
                  std::chrono::milliseconds::max().count());
  }

 private:
  std::span<const float> row_of(std::span<const float> rows, std::size_t i) const {
    return rows.subspan(i * dimension_, dimension_);
  }

  void check_row(std::span<const float> row, const char* what, std::size_t number) const {
    bool all_zero = true;
    for (std::size_t i = 0; i < row.size(); ++i) {
      all_zero = all_zero && row[i] == 0.0f;
      if (std::isfinite(row[i])) continue;
      throw error(errc::not_finite, std::string(what) + ": component " + text(i) + " of row " +
                                        text(number) + " is " + std::to_string(row[i]) +
                                        ", finite numbers were expected");
    }
    if (all_zero && metric_ == metric::cosine)
      throw error(errc::not_finite, std::string(what) + ": row " + text(number) +
                                        " is all zero, which has no direction; cosine expects one");
  }

  std::size_t search_into(std::span<const float> queries, std::size_t n,
                          const search_options& options, results* found) const {
    static constexpr std::uint64_t nothing[1] = {0};
    filter_call call{&options.filter};
    korvex_direct_options_s direct{};
    direct.size = sizeof direct;
    direct.radius = options.radius;
    direct.deadline_ms = static_cast<std::uint64_t>(options.deadline.count());
    if (options.filter) {
      direct.filter = filter_call::ask;
      direct.filter_context = &call;
    }
    if (options.allowed) {
      const bool empty = options.allowed->empty();
      direct.allowed_ids =
          empty ? reinterpret_cast<const id_type*>(nothing) : options.allowed->data();
      direct.allowed_count = options.allowed->size();
    }
    if (options.allowed_bits) {
      direct.allowed_bits = options.allowed_bits->empty() ? nothing : options.allowed_bits->data();
      direct.allowed_bit_count = 64 * options.allowed_bits->size();
    }
    std::vector<float> room;
    const std::int64_t answered = korvex_search_direct(
        record_, within_range(queries, &room).data(), n, static_cast<int>(found->k), &direct,
        found->ids.data(), found->distances.data(), found->counts.data());
    if (call.thrown) std::rethrow_exception(call.thrown);
    if (answered < 0) throw error(errc::no_room, "memory does not suffice for the search");
    if (metric_ == metric::cosine)
      for (float& distance : found->distances) distance = own_scale(distance);
    return static_cast<std::size_t>(answered);
  }

  hnsw_s* const record_;
  const std::uint32_t dimension_;
  const bool labels_;
  const metric metric_;
  std::mutex adding_;  // the ids of a block follow one another
};

inline hits hits_of(const results& found) {
  hits row;
  row.complete = found.answered != 0;
  row.reserve(found.counts[0]);
  for (std::size_t i = 0; i < found.counts[0]; ++i)
    row.push_back({found.ids[i], found.distances[i]});
  return row;
}

}  // namespace korvex::detail

#endif  // KORVEX_CORE_HPP
