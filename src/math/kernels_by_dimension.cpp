#include <cmath>

#include "math/kernels.h"

namespace korvex {
namespace {

// Below it the whole vector has been asked for from memory by the time of the first look.
constexpr int min_bounded_dimension = 256;

constexpr std::size_t whole_blocks(std::size_t n, std::size_t width) {
  return n & ~(width - 1);
}

// A family is its resolved kernels and what one element adds; the split kernels are written once
// over it.
struct inner_product_family {
  static float wide(const float* a, const float* b, std::size_t n) {
    return inner_product_16(a, b, n);
  }
  static float narrow(const float* a, const float* b, std::size_t n) {
    return inner_product_4(a, b, n);
  }
  static void wide_batch4(const float* query, const float* const* rows, std::size_t n, float* out) {
    inner_product_16_batch4(query, rows, n, out);
  }
  static float element(float x, float y) { return x * y; }
};

struct l2_square_family {
  static float wide(const float* a, const float* b, std::size_t n) { return l2_square_16(a, b, n); }
  static float narrow(const float* a, const float* b, std::size_t n) {
    return l2_square_4(a, b, n);
  }
  static void wide_batch4(const float* query, const float* const* rows, std::size_t n, float* out) {
    l2_square_16_batch4(query, rows, n, out);
  }
  static float element(float x, float y) { return (x - y) * (x - y); }
};

template <class Family>
float split_4(const float* a, const float* b, std::size_t n) {
  const std::size_t blocks = whole_blocks(n, 4);
  float sum = Family::narrow(a, b, blocks);
  for (std::size_t i = blocks; i < n; ++i) sum += Family::element(a[i], b[i]);
  return sum;
}

template <class Family>
float split_16(const float* a, const float* b, std::size_t n) {
  const std::size_t blocks = whole_blocks(n, 16);
  const float wide = Family::wide(a, b, blocks);
  return wide + split_4<Family>(a + blocks, b + blocks, n - blocks);
}

template <class Family>
void split_16_batch4(const float* query, const float* const* rows, std::size_t n, float* out) {
  const std::size_t blocks = whole_blocks(n, 16);
  Family::wide_batch4(query, rows, blocks, out);
  for (int row = 0; row < 4; ++row)
    out[row] += split_4<Family>(query + blocks, rows[row] + blocks, n - blocks);
}

// The wide part has more floats than the rest, which is added last.
float split_16_bounded(const float* a, const float* b, std::size_t n, float bound) {
  const std::size_t blocks = whole_blocks(n, 16);
  const float wide = l2_square_16_bounded(a, b, blocks, bound);
  if (wide > bound) return wide;
  return wide + split_4<l2_square_family>(a + blocks, b + blocks, n - blocks);
}

float wide_bounded(const float* a, const float* b, std::size_t n, float bound) {
  return l2_square_16_bounded(a, b, n, bound);
}

// The margin keeps the root of what was given up above the bound.
template <distance_bounded_kernel Bounded>
float root_bounded(const float* a, const float* b, std::size_t n, float bound) {
  constexpr float margin = 1.00001f;
  return std::sqrt(Bounded(a, b, n, bound * bound * margin));
}

template <distance_kernel Kernel>
void one_by_one_batch4(const float* query, const float* const* rows, std::size_t n, float* out) {
  for (int row = 0; row < 4; ++row) out[row] = Kernel(query, rows[row], n);
}

template <distance_batch4_kernel Batch>
void root_batch4(const float* query, const float* const* rows, std::size_t n, float* out) {
  Batch(query, rows, n, out);
  for (int row = 0; row < 4; ++row) out[row] = std::sqrt(out[row]);
}

// What a family offers for each kind of dimension.
template <class Kernel>
struct by_dimension {
  Kernel wide, wide_plus, narrow, single, narrow_plus;

  Kernel choose(int dim) const {
    if (dim % 16 == 0) return wide;
    if (dim > 16) return wide_plus;
    if (dim % 4 == 0) return narrow;
    return dim < 5 ? single : narrow_plus;
  }
};

}  // namespace

float inner_product_16_plus(const float* a, const float* b, std::size_t n) {
  return split_16<inner_product_family>(a, b, n);
}
float inner_product_4_plus(const float* a, const float* b, std::size_t n) {
  return split_4<inner_product_family>(a, b, n);
}
float l2_square_16_plus(const float* a, const float* b, std::size_t n) {
  return split_16<l2_square_family>(a, b, n);
}
float l2_square_4_plus(const float* a, const float* b, std::size_t n) {
  return split_4<l2_square_family>(a, b, n);
}

float l2(const float* a, const float* b, std::size_t n) {
  return std::sqrt(l2_square_default(a, b, n));
}
float l2_4(const float* a, const float* b, std::size_t n) {
  return std::sqrt(l2_square_4(a, b, n));
}
float l2_16(const float* a, const float* b, std::size_t n) {
  return std::sqrt(l2_square_16(a, b, n));
}
float l2_4_plus(const float* a, const float* b, std::size_t n) {
  return std::sqrt(l2_square_4_plus(a, b, n));
}
float l2_16_plus(const float* a, const float* b, std::size_t n) {
  return std::sqrt(l2_square_16_plus(a, b, n));
}

distance_kernel space_inner_product_get_distance_function(int dim) {
  return by_dimension<distance_kernel>{inner_product_16, inner_product_16_plus, inner_product_4,
                                       inner_product_default, inner_product_4_plus}
      .choose(dim);
}

distance_kernel space_l2_square_get_distance_function(int dim) {
  return by_dimension<distance_kernel>{l2_square_16, l2_square_16_plus, l2_square_4,
                                       l2_square_default, l2_square_4_plus}
      .choose(dim);
}

distance_kernel space_l2_get_distance_function(int dim) {
  return by_dimension<distance_kernel>{l2_16, l2_16_plus, l2_4, l2, l2_4_plus}.choose(dim);
}

distance_batch4_kernel space_inner_product_get_batch4_function(int dim) {
  using family = inner_product_family;
  return by_dimension<distance_batch4_kernel>{
      inner_product_16_batch4, split_16_batch4<family>, one_by_one_batch4<family::narrow>,
      inner_product_batch4_default, one_by_one_batch4<inner_product_4_plus>}
      .choose(dim);
}

distance_batch4_kernel space_l2_square_get_batch4_function(int dim) {
  using family = l2_square_family;
  return by_dimension<distance_batch4_kernel>{
      l2_square_16_batch4, split_16_batch4<family>, one_by_one_batch4<family::narrow>,
      l2_square_batch4_default, one_by_one_batch4<l2_square_4_plus>}
      .choose(dim);
}

distance_batch4_kernel space_l2_get_batch4_function(int dim) {
  using family = l2_square_family;
  return by_dimension<distance_batch4_kernel>{
      root_batch4<family::wide_batch4>, root_batch4<split_16_batch4<family>>,
      one_by_one_batch4<l2_4>, one_by_one_batch4<l2>, one_by_one_batch4<l2_4_plus>}
      .choose(dim);
}

distance_bounded_kernel space_l2_square_get_bounded_function(int dim) {
  if (dim < min_bounded_dimension) return nullptr;
  return dim % 16 == 0 ? wide_bounded : split_16_bounded;
}

distance_bounded_kernel space_l2_get_bounded_function(int dim) {
  if (dim < min_bounded_dimension) return nullptr;
  return dim % 16 == 0 ? root_bounded<wide_bounded> : root_bounded<split_16_bounded>;
}

}  // namespace korvex
