#ifndef KORVEX_MATH_SIMD_VOCABULARY_SSE_H
#define KORVEX_MATH_SIMD_VOCABULARY_SSE_H

#include <immintrin.h>

#include <cstddef>

namespace korvex {
namespace {

// What the kernel bodies ask of an instruction set; 128-bit registers, instructions of SSE only.
// lanes         floats in a register
// unroll        registers that one step of the main loop consumes
// accumulators  partial sums; register r of a step goes to sum r % accumulators
// batch_rows    rows that a batch sums at once without running out of registers
struct sse {
  using reg = __m128;
  static constexpr std::size_t lanes = 4;
  static constexpr std::size_t unroll = 4;
  static constexpr std::size_t accumulators = 1;
  static constexpr std::size_t batch_rows = 4;

  static reg zero() { return _mm_setzero_ps(); }
  static reg broadcast(float x) { return _mm_set1_ps(x); }
  static reg load(const float* p) { return _mm_loadu_ps(p); }
  static void store(float* p, reg x) { _mm_storeu_ps(p, x); }
  static reg add(reg x, reg y) { return _mm_add_ps(x, y); }
  static reg sub(reg x, reg y) { return _mm_sub_ps(x, y); }
  static reg mul(reg x, reg y) { return _mm_mul_ps(x, y); }
  static reg multiply_add(reg x, reg y, reg sum) { return _mm_add_ps(_mm_mul_ps(x, y), sum); }

  // Adds the lanes as (0 + 2) + (1 + 3).
  static float reduce(reg x) {
    const reg pairs = _mm_add_ps(x, _mm_movehl_ps(x, x));
    return _mm_cvtss_f32(_mm_add_ss(pairs, _mm_shuffle_ps(pairs, pairs, 1)));
  }
  // Four reductions at once, each with the additions of reduce() so that the results are the same
  // bits.
  static void reduce4(const reg (&x)[4], float* out) {
    const reg left = _mm_add_ps(_mm_unpacklo_ps(x[0], x[1]), _mm_unpackhi_ps(x[0], x[1]));
    const reg right = _mm_add_ps(_mm_unpacklo_ps(x[2], x[3]), _mm_unpackhi_ps(x[2], x[3]));
    _mm_storeu_ps(out, _mm_add_ps(_mm_movelh_ps(left, right), _mm_movehl_ps(right, left)));
  }
};

}  // namespace
}  // namespace korvex

#endif  // KORVEX_MATH_SIMD_VOCABULARY_SSE_H
