#include "engine/distances.h"

#include <algorithm>
#include <cmath>

#include "engine/points.h"
#include "engine/scoring.h"
#include "engine/startup.h"
#include "runtime/log.h"
#include "storage/data_cache.h"

namespace korvex {

namespace {

float raw_distance(const hnsw_s* hnsw, const float* a, const float* b) {
  const korvex_runtime_s& runtime = *hnsw->runtime;
  const distance_kernel function = runtime.distance_function.load(std::memory_order_acquire);
  return function(a, b, hnsw->dimension);
}

float farthest(const hnsw_s* hnsw) {
  return hnsw->runtime->direction.load(std::memory_order_relaxed) * largest_float;
}

float missing(const hnsw_s* hnsw, std::uint32_t id) {
  KORVEX_LOG("*** BUG *** null buffer for id: %u\n", id);
  return farthest(hnsw);
}

// -1 when no magnitude is stored.
float stored_magnitude(const korvex_runtime_s& runtime, std::uint32_t id) {
  const void* const record = record_of(runtime, magnitude_store, id);
  return record == nullptr ? -1.0f : *static_cast<const float*>(record);
}

// Of a dot product with a unit vector; `magnitude` is that of the other one.
float dot_on_squared_scale(float dot, float magnitude) {
  return 2.0f - 2.0f * (std::fabs(magnitude) >= 1e-6f ? dot / magnitude : dot);
}

// Of a squared distance to a unit vector; `magnitude` is that of the other one.
float without_length(float distance, float magnitude) {
  if (std::fabs(magnitude) < 1e-6f || std::fabs(1.0f - magnitude) < 1e-6f) return distance;
  return (distance - 1.0f) / magnitude + (2.0f - magnitude);
}

// Rings, capture radii and their limits are squared distances of unit vectors; every metric is
// brought to that scale.
float hash_distance(const hnsw_s* hnsw, unsigned id, const float* stored,
                    const vector_hash_node_s& n, int mode) {
  const bool inner_product = hnsw->distance_type == DISTANCE_INNER_PRODUCT;
  const float* const other = mode == vector_hash_mode_search && !inner_product ? n.query : n.vector;
  float distance = raw_distance(hnsw, stored, other);
  if (hnsw->distance_type == DISTANCE_L2) distance *= distance;
  if (mode == vector_hash_mode_search && !inner_product) return distance;
  const float magnitude = stored_magnitude(*hnsw->runtime, id);
  return inner_product ? dot_on_squared_scale(distance, magnitude)
                       : without_length(distance, magnitude);
}

// Stars against one query, a handful at a time: the next handful comes from memory while one is
// compared.
class star_scan {
 public:
  // With `cache`, rows are read through the store's data cache, and missed ones put into it.
  star_scan(const hnsw_s* hnsw, const vector_hash_node_s& n, int mode, vectpool_c* cache,
            float* out)
      : runtime_(*hnsw->runtime),
        cache_(cache),
        scorer_(runtime_),
        inner_product_(hnsw->distance_type == DISTANCE_INNER_PRODUCT),
        squares_(hnsw->distance_type == DISTANCE_L2),
        adds_(mode == vector_hash_mode_add),
        query_(inner_product_ || adds_ ? n.vector : n.query),
        magnitude_(leaves_out() ? n.aux : 0.0f),
        reads_magnitudes_(inner_product_ || adds_ || magnitude_ > 0.0f),
        out_(out) {}

  void run(const std::uint32_t* ids, std::uint32_t count) {
    handful turns[2];
    for (std::uint32_t first = 0, turn = 0; first < count; first += handful_size, turn ^= 1) {
      fetch(ids, first, std::min(first + handful_size, count), &turns[turn]);
      compare(turns[turn ^ 1]);
      turns[turn ^ 1].count = 0;
    }
    for (const handful& last : turns) compare(last);
  }

 private:
  static constexpr std::uint32_t handful_size = 8;
  static_assert(2 * handful_size <= data_cache_copies,
                "both handfuls are copies of a cache at once");
  struct handful {
    std::uint32_t count = 0;
    std::uint32_t position[handful_size];
    float magnitude[handful_size];
    const float* row[handful_size];
  };

  bool leaves_out() const {
    return !inner_product_ && !adds_ && runtime_.vector_bytes > too_short_to_leave_out;
  }

  void fetch(const std::uint32_t* ids, std::uint32_t first, std::uint32_t end, handful* next) {
    for (std::uint32_t i = first; i < end; ++i) {
      const float* row = vector_of(runtime_, ids[i]);
      const float magnitude = reads_magnitudes_ ? stored_magnitude(runtime_, ids[i]) : -1.0f;
      out_[i] = largest_float;
      if (row == nullptr || too_far(magnitude)) continue;
      if (cache_ != nullptr)
        row = static_cast<const float*>(cache_->get_cached(ids[i], adds_ ? 0 : 1));
      else
        scorer_.prefetch(row);
      next->position[next->count] = i;
      next->magnitude[next->count] = magnitude;
      next->row[next->count++] = row;
    }
  }

  // Two vectors are at least as far apart as their lengths differ. The margin covers the rounding
  // of the lengths and of the distances.
  bool too_far(float magnitude) const {
    if (magnitude_ <= 0.0f || magnitude < 0.0f) return false;
    const float apart =
        std::fabs(magnitude_ - magnitude) - rounding_margin * (magnitude_ + magnitude);
    return apart > 0.0f && apart * apart * (1.0f - rounding_margin) > best_;
  }

  void compare(const handful& stars) {
    float distances[handful_size];
    scorer_.score_fetched(query_, stars.row, stars.count, distances);
    for (std::uint32_t i = 0; i < stars.count; ++i) {
      const float distance = on_squared_scale(distances[i], stars.magnitude[i]);
      out_[stars.position[i]] = distance;
      if (distance < best_) best_ = distance;
    }
  }

  float on_squared_scale(float distance, float magnitude) const {
    if (inner_product_) return dot_on_squared_scale(distance, magnitude);
    if (squares_) distance *= distance;
    return adds_ ? without_length(distance, magnitude) : distance;
  }

  static constexpr float rounding_margin = 1e-4f;
  // Bytes. A stored length costs a cache line of its own, more than it saves where rows are this short.
  static constexpr std::uint32_t too_short_to_leave_out = 512;

  const korvex_runtime_s& runtime_;
  vectpool_c* const cache_;
  const row_scorer scorer_;
  const bool inner_product_;
  const bool squares_;
  const bool adds_;
  const float* const query_;
  const float magnitude_;  // of the query; 0: unknown or of no use
  const bool reads_magnitudes_;
  float* const out_;
  float best_ = largest_float;
};

}  // namespace

float korvex_get_distance_internal(hnsw_s* hnsw, std::uint32_t id, const float* v) {
  if (hnsw == nullptr) return largest_float;
  const float* const stored = is_started(hnsw) ? vector_of(*hnsw->runtime, id) : nullptr;
  return stored == nullptr || v == nullptr ? missing(hnsw, id) : raw_distance(hnsw, stored, v);
}

float korvex_get_distance_ext(hnsw_s* hnsw, std::uint32_t id, const float* v) {
  if (hnsw == nullptr) return largest_float;
  if (id == 0xFFFFFFFFu) return missing(hnsw, id);
  return korvex_get_distance_internal(hnsw, id + 1, v);
}

float korvex_get_distance_internal(hnsw_s* hnsw, const float* a, const float* b) {
  if (hnsw == nullptr || a == nullptr || b == nullptr) return largest_float;
  korvex_choose_metric(hnsw);
  return raw_distance(hnsw, a, b);
}

float korvex_get_hash_distance(void* context, unsigned id, vector_hash_node_s* n, int mode) {
  const auto* const hnsw = static_cast<const hnsw_s*>(context);
  const float* const stored = vector_of(*hnsw->runtime, id);
  if (stored == nullptr) return largest_float;
  return hash_distance(hnsw, id, stored, *n, mode);
}

float korvex_get_hash_distance_cached(void* context, unsigned id, vector_hash_node_s* n, int mode) {
  const auto* const hnsw = static_cast<const hnsw_s*>(context);
  if (vector_of(*hnsw->runtime, id) == nullptr) return largest_float;
  const void* const stored =
      hnsw->runtime->store[vector_store]->get_cached(id, mode == vector_hash_mode_search ? 1 : 0);
  return hash_distance(hnsw, id, static_cast<const float*>(stored), *n, mode);
}

void korvex_get_hash_distances(void* context, const std::uint32_t* ids, std::uint32_t count,
                               vector_hash_node_s* n, int mode, float* out) {
  star_scan(static_cast<const hnsw_s*>(context), *n, mode, nullptr, out).run(ids, count);
}

void korvex_get_hash_distances_cached(void* context, const std::uint32_t* ids, std::uint32_t count,
                                      vector_hash_node_s* n, int mode, float* out) {
  const auto* const hnsw = static_cast<const hnsw_s*>(context);
  star_scan(hnsw, *n, mode, hnsw->runtime->store[vector_store], out).run(ids, count);
}

float korvex_get_norm_distance(hnsw_s* hnsw, std::uint32_t id, const float* unit) {
  vector_hash_node_s node;
  node.vector = unit;
  return korvex_get_hash_distance(hnsw, id, &node, vector_hash_mode_add);
}

double logarithmicDecay(double magnitude, double setting, double base) {
  return base / (1.0 + setting * std::log1p(magnitude));
}

void korvex_expand_vector(hnsw_s* hnsw, float* v) {
  if (hnsw->expand_setting == 0.0f) return;
  const double magnitude = vector_magnitude(v, static_cast<int>(hnsw->dimension));
  const double factor = logarithmicDecay(magnitude, static_cast<double>(hnsw->expand_setting), 1.0);
  for (std::uint32_t i = 0; i < hnsw->dimension; ++i) v[i] = static_cast<float>(v[i] * factor);
}

}  // namespace korvex
