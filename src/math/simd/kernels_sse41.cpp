#include "math/simd/kernel_bodies.h"
#include "math/simd/kernel_members.h"
#include "math/simd/vocabulary_sse.h"

namespace korvex {
namespace {
using V = sse;
}

float inner_product_4_sse41(const float* a, const float* b, std::size_t n) {
  return distance_4<V, dot_step>(a, b, n);
}
float inner_product_16_sse41(const float* a, const float* b, std::size_t n) {
  return distance_16<V, dot_step>(a, b, n);
}
void inner_product_16_batch4_sse41(const float* query, const float* const* rows, std::size_t n,
                                   float* out) {
  distance_16_batch4<V, dot_step>(query, rows, n, out);
}
float l2_square_4_sse41(const float* a, const float* b, std::size_t n) {
  return distance_4<V, square_step>(a, b, n);
}
float l2_square_16_sse41(const float* a, const float* b, std::size_t n) {
  return distance_16<V, square_step>(a, b, n);
}
void l2_square_16_batch4_sse41(const float* query, const float* const* rows, std::size_t n,
                               float* out) {
  distance_16_batch4<V, square_step>(query, rows, n, out);
}
float l2_square_16_bounded_sse41(const float* a, const float* b, std::size_t n, float bound) {
  return l2_square_16_bounded<V, bounded_floats>(a, b, n, bound);
}
float normalize_vector_sse41(const float* in, float* out, std::size_t n) {
  return normalize<V>(in, out, n);
}

}  // namespace korvex
