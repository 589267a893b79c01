#ifndef KORVEX_MATH_SIMD_VOCABULARY_AVX512_H
#define KORVEX_MATH_SIMD_VOCABULARY_AVX512_H

#include "math/simd/vocabulary_sse.h"

namespace korvex {
namespace {

// 512-bit registers with the foundation instructions only (no DQ, no VL). These hold a fused
// multiply-add already; the unfused form exists for processors that do not report FMA.
template <bool Fused>
struct avx512 {
  using reg = __m512;
  static constexpr std::size_t lanes = 16;
  static constexpr std::size_t unroll = 8;
  static constexpr std::size_t accumulators = 4;
  static constexpr std::size_t batch_rows = 4;

  static reg zero() { return _mm512_setzero_ps(); }
  static reg broadcast(float x) { return _mm512_set1_ps(x); }
  static reg load(const float* p) { return _mm512_loadu_ps(p); }
  static void store(float* p, reg x) { _mm512_storeu_ps(p, x); }
  static reg add(reg x, reg y) { return _mm512_add_ps(x, y); }
  static reg sub(reg x, reg y) { return _mm512_sub_ps(x, y); }
  static reg mul(reg x, reg y) { return _mm512_mul_ps(x, y); }
  static reg multiply_add(reg x, reg y, reg sum) {
    if constexpr (Fused) {
      return _mm512_fmadd_ps(x, y, sum);
    } else {
      return _mm512_add_ps(_mm512_mul_ps(x, y), sum);
    }
  }

  // The first n < lanes floats; lanes that are masked off are neither read nor written and count as
  // 0.
  static reg load_first(std::size_t n, const float* p) {
    return _mm512_maskz_loadu_ps(mask_of(n), p);
  }
  static void store_first(std::size_t n, float* p, reg x) {
    _mm512_mask_storeu_ps(p, mask_of(n), x);
  }

  // Adds lanes that are 8 apart, then 4, 2, 1.
  static float reduce(reg x) {
    const reg eight = add(x, quarters<_MM_SHUFFLE(1, 0, 3, 2)>(x, x));
    const reg four = add(eight, quarters<1>(eight, eight));
    return sse::reduce(_mm512_maskz_extractf32x4_ps(0xF, four, 0));
  }
  // The same additions for four rows, which end up one in each 128-bit quarter.
  static void reduce4(const reg (&x)[4], float* out) {
    const reg left = add_halves(x[0], x[1]);
    const reg right = add_halves(x[2], x[3]);
    const reg four = add(quarters<_MM_SHUFFLE(2, 0, 2, 0)>(left, right),
                         quarters<_MM_SHUFFLE(3, 1, 3, 1)>(left, right));
    const reg two = add(four, within_quarters<_MM_SHUFFLE(1, 0, 3, 2)>(four));
    const reg one = add(two, within_quarters<_MM_SHUFFLE(2, 3, 0, 1)>(two));
    // Compressed in a register: the form that compresses into memory is slow on some processors.
    const reg packed = _mm512_maskz_compress_ps(0x1111, one);
    _mm_storeu_ps(out, _mm512_maskz_extractf32x4_ps(0xF, packed, 0));
  }

 private:
  static __mmask16 mask_of(std::size_t n) { return static_cast<__mmask16>((1u << n) - 1u); }

  // Full masks cost nothing; the unmasked intrinsics start from an undefined register, which GCC 12
  // warns about.
  static constexpr __mmask16 all = 0xFFFF;
  template <int Order>
  static reg quarters(reg x, reg y) {
    return _mm512_maskz_shuffle_f32x4(all, x, y, Order);
  }
  template <int Order>
  static reg within_quarters(reg x) {
    return _mm512_maskz_permute_ps(all, x, Order);
  }
  // The upper half of each row added to its lower half, both rows in one register.
  static reg add_halves(reg x, reg y) {
    return add(quarters<_MM_SHUFFLE(1, 0, 1, 0)>(x, y), quarters<_MM_SHUFFLE(3, 2, 3, 2)>(x, y));
  }
};

}  // namespace
}  // namespace korvex

#endif  // KORVEX_MATH_SIMD_VOCABULARY_AVX512_H
