#include "math/metrics.h"

#include <algorithm>
#include <cmath>
#include <mutex>
#include <vector>

#include "runtime/random.h"

namespace korvex {
namespace {

bool is_unit(double norm) {
  return std::max(norm, 1.0) - std::min(norm, 1.0) < 1e-6;
}

}  // namespace

void distance_init() {
  static std::once_flag once;
  std::call_once(once, [] {
    l2_square_init();
    inner_product_init();
    normalize_vector_init();
  });
}

DistanceInterface::~DistanceInterface() = default;

float DistanceInterface::distance(const float* a, const float* b) const {
  return distance(a, b, dimension_);
}

float DistanceInterface::distance(const float* a, const float* b, int dim) const {
  return kernel_(a, b, kernel_count(dim));
}

distance_kernel DistanceInterface::get_distance_function() const {
  return kernel_;
}

// Rounded: the noise of the last bits must not reach comparisons with the pair.
void DistanceInterface::reference_distance(float* self_out, float* opposite_out) const {
  const std::size_t n = dimension_ > 0 ? static_cast<std::size_t>(dimension_) : 0;
  std::vector<float> direction(n);
  std::vector<float> opposite(n);
  random_unit_vector(direction.data(), dimension_);
  for (std::size_t i = 0; i < n; ++i) opposite[i] = 0.0f - direction[i];
  *self_out = std::round(distance(direction.data(), direction.data(), dimension_));
  *opposite_out = std::round(distance(direction.data(), opposite.data(), dimension_));
}

DistanceL2Square::DistanceL2Square(int dim)
    : DistanceInterface(dim, space_l2_square_get_distance_function(dim)) {}
DistanceL2::DistanceL2(int dim) : DistanceInterface(dim, space_l2_get_distance_function(dim)) {}
DistanceInnerProduct::DistanceInnerProduct(int dim)
    : DistanceInterface(dim, space_inner_product_get_distance_function(dim)) {}

// The three-argument form is not overridden in these classes: straight to the kernel.
float DistanceL2Square::distance(const float* a, const float* b) const {
  return kernel_(a, b, kernel_count(dimension_));
}
float DistanceL2::distance(const float* a, const float* b) const {
  return kernel_(a, b, kernel_count(dimension_));
}
float DistanceInnerProduct::distance(const float* a, const float* b) const {
  return kernel_(a, b, kernel_count(dimension_));
}

float DistanceL2Square::to_linear(float d) const {
  return std::sqrt(d);
}

std::unique_ptr<DistanceInterface> create_distance(std::uint32_t type, int dim) {
  switch (static_cast<korvex_distance_type>(type)) {
    case DISTANCE_L2_SQUARE:
      return std::make_unique<DistanceL2Square>(dim);
    case DISTANCE_L2:
      return std::make_unique<DistanceL2>(dim);
    case DISTANCE_INNER_PRODUCT:
      return std::make_unique<DistanceInnerProduct>(dim);
    default:
      return nullptr;
  }
}

distance_batch4_kernel distance_batch4_function(std::uint32_t type, int dim) {
  switch (static_cast<korvex_distance_type>(type)) {
    case DISTANCE_L2_SQUARE:
      return space_l2_square_get_batch4_function(dim);
    case DISTANCE_L2:
      return space_l2_get_batch4_function(dim);
    case DISTANCE_INNER_PRODUCT:
      return space_inner_product_get_batch4_function(dim);
    default:
      return nullptr;
  }
}

distance_bounded_kernel distance_bounded_function(std::uint32_t type, int dim) {
  switch (static_cast<korvex_distance_type>(type)) {
    case DISTANCE_L2_SQUARE:
      return space_l2_square_get_bounded_function(dim);
    case DISTANCE_L2:
      return space_l2_get_bounded_function(dim);
    default:
      return nullptr;
  }
}

float cosine_similarity(float dot, float norm_a, float norm_b) {
  return dot / (norm_a * norm_b);
}

float cosine_similarity(float dot, float norm) {
  return is_unit(norm) ? dot : dot / norm;
}

float l2_square_normalized_dist(double d, double norm_a, double norm_b) {
  return static_cast<float>(2 - (norm_a * norm_a + norm_b * norm_b - d) / (norm_a * norm_b));
}

float l2_square_normalized_dist(double d, double norm) {
  return static_cast<float>(is_unit(norm) ? d : (d - 1) / norm + (2 - norm));
}

float vector_magnitude(const float* v, int n) {
  double squares = 0;
  for (int i = 0; i < n; ++i) squares += double{v[i]} * v[i];
  return std::sqrt(static_cast<float>(squares));
}

float vector_norm(const float* v, int n) {
  return vector_magnitude(v, n);
}

bool is_normalized(const float* v, std::size_t n, float tol) {
  if (tol <= 0) tol = 1e-5f;
  float squares = 0;
  for (std::size_t i = 0; i < n; ++i) squares += v[i] * v[i];
  return std::fabs(squares - 1) < tol;
}

void random_unit_vector(float* v, int dim) {
  if (dim < 1) return;
  const auto n = static_cast<std::size_t>(dim);
  for (std::size_t i = 0; i < n; ++i) v[i] = static_cast<float>(2 * random_double() - 1);
  if (normalize_vector(v, v, n) >= 1e-6f) return;
  // Too short to have a direction; possible in a very low dimension only.
  std::fill(v, v + n, 0.0f);
  v[0] = 1;
}

}  // namespace korvex
