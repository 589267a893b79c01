#include "engine/distances.h"

#include <cmath>

#include "engine/points.h"
#include "engine/startup.h"
#include "runtime/log.h"

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

// Rings, capture radii and their limits are squared distances of unit vectors; every metric is
// brought to that scale.
float hash_distance(const hnsw_s* hnsw, unsigned id, const float* stored,
                    const vector_hash_node_s& n, int mode) {
  const bool inner_product = hnsw->distance_type == DISTANCE_INNER_PRODUCT;
  const float* const other = mode == vector_hash_mode_search && !inner_product ? n.query : n.vector;
  const float magnitude = stored_magnitude(*hnsw->runtime, id);
  const bool corrected = std::fabs(magnitude) >= 1e-6f;
  float distance = raw_distance(hnsw, stored, other);
  if (inner_product) return 2.0f - 2.0f * (corrected ? distance / magnitude : distance);
  if (hnsw->distance_type == DISTANCE_L2) distance *= distance;
  if (mode == vector_hash_mode_search) return distance;
  if (!corrected || std::fabs(1.0f - magnitude) < 1e-6f) return distance;
  return (distance - 1.0f) / magnitude + (2.0f - magnitude);
}

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
