#ifndef KORVEX_MATH_SIMD_VOCABULARY_AVX_H
#define KORVEX_MATH_SIMD_VOCABULARY_AVX_H

#include "math/simd/vocabulary_sse.h"

namespace korvex {
namespace {

// 256-bit registers; AVX2 adds nothing for floats, so both instruction sets share this.
template <bool Fused>
struct avx {
  using reg = __m256;
  static constexpr std::size_t lanes = 8;
  static constexpr std::size_t unroll = 4;
  static constexpr std::size_t accumulators = 4;
  // 2 x 4 sums, a query register and a difference fit into 16 registers, 4 x 4 sums do not.
  static constexpr std::size_t batch_rows = 2;

  static reg zero() { return _mm256_setzero_ps(); }
  static reg broadcast(float x) { return _mm256_set1_ps(x); }
  static reg load(const float* p) { return _mm256_loadu_ps(p); }
  static void store(float* p, reg x) { _mm256_storeu_ps(p, x); }
  static reg add(reg x, reg y) { return _mm256_add_ps(x, y); }
  static reg sub(reg x, reg y) { return _mm256_sub_ps(x, y); }
  static reg mul(reg x, reg y) { return _mm256_mul_ps(x, y); }
  static reg multiply_add(reg x, reg y, reg sum) {
    if constexpr (Fused) {
      return _mm256_fmadd_ps(x, y, sum);
    } else {
      return _mm256_add_ps(_mm256_mul_ps(x, y), sum);
    }
  }

  static __m128 halve(reg x) {
    return _mm_add_ps(_mm256_castps256_ps128(x), _mm256_extractf128_ps(x, 1));
  }
  static float reduce(reg x) { return sse::reduce(halve(x)); }
  static void reduce4(const reg (&x)[4], float* out) {
    const __m128 halves[4] = {halve(x[0]), halve(x[1]), halve(x[2]), halve(x[3])};
    sse::reduce4(halves, out);
  }
};

}  // namespace
}  // namespace korvex

#endif  // KORVEX_MATH_SIMD_VOCABULARY_AVX_H
