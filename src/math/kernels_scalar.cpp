#include <algorithm>
#include <cmath>
#include <cstring>

#include "math/kernels.h"

namespace korvex {

float inner_product_default(const float* a, const float* b, std::size_t n) {
  float sum = 0;
  for (std::size_t i = 0; i < n; ++i) sum += a[i] * b[i];
  return sum;
}

float l2_square_default(const float* a, const float* b, std::size_t n) {
  float sum = 0;
  for (std::size_t i = 0; i < n; ++i) sum += (a[i] - b[i]) * (a[i] - b[i]);
  return sum;
}

void inner_product_batch4_default(const float* query, const float* const* rows, std::size_t n,
                                  float* out) {
  for (int row = 0; row < 4; ++row) out[row] = inner_product_default(query, rows[row], n);
}

void l2_square_batch4_default(const float* query, const float* const* rows, std::size_t n,
                              float* out) {
  for (int row = 0; row < 4; ++row) out[row] = l2_square_default(query, rows[row], n);
}

float l2_square_bounded_default(const float* a, const float* b, std::size_t n, float bound) {
  float sum = 0;
  for (std::size_t i = 0; i < n;) {
    for (const std::size_t end = std::min(i + bounded_floats, n); i < end; ++i)
      sum += (a[i] - b[i]) * (a[i] - b[i]);
    if (sum > bound) break;
  }
  return sum;
}

float normalize_vector_default(const float* in, float* out, std::size_t n) {
  double squares = 0;
  for (std::size_t i = 0; i < n; ++i) squares += double{in[i]} * in[i];
  const float magnitude = std::sqrt(static_cast<float>(squares));
  if (magnitude < 1e-6f) {
    if (n != 0) std::memmove(out, in, n * sizeof(float));
    return magnitude;
  }
  const float factor = 1.0f / magnitude;
  for (std::size_t i = 0; i < n; ++i) out[i] = in[i] * factor;
  return magnitude;
}

}  // namespace korvex
