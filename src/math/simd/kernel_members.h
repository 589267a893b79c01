#ifndef KORVEX_MATH_SIMD_KERNEL_MEMBERS_H
#define KORVEX_MATH_SIMD_KERNEL_MEMBERS_H

#include <cstddef>

// Every kernel by name. Callers use the resolved pointers of math/kernels.h: a member may only run
// on a processor that has its instruction set. Nothing here may have a body, this is included by
// code for every instruction set.
//
// distance     (a, b, n): the 16-wide members use n rounded down to 16, the 4-wide ones to 4, and
//              ignore the rest; 0 when nothing is left. Any alignment.
// batch4       (query, rows, n, out): out[i] has the bits of the distance member for
//              (query, rows[i], n).
// bounded      (a, b, n, bound): the bits of the distance member when they are at most `bound`;
//              otherwise any value above it, for which the end of the rows need not be read.
// normalize    (in, out, n): out may be in. Returns the magnitude of in; below 1e-6 in is copied
//              as it is.
namespace korvex {

// Floats between two looks of a bounded member at its sum.
constexpr std::size_t bounded_floats = 128;

float inner_product_default(const float* a, const float* b, std::size_t n);
float l2_square_default(const float* a, const float* b, std::size_t n);
void inner_product_batch4_default(const float* query, const float* const* rows, std::size_t n,
                                  float* out);
void l2_square_batch4_default(const float* query, const float* const* rows, std::size_t n,
                              float* out);
float l2_square_bounded_default(const float* a, const float* b, std::size_t n, float bound);
float normalize_vector_default(const float* in, float* out, std::size_t n);

float inner_product_4_sse(const float* a, const float* b, std::size_t n);
float inner_product_16_sse(const float* a, const float* b, std::size_t n);
void inner_product_16_batch4_sse(const float* query, const float* const* rows, std::size_t n,
                                 float* out);

float l2_square_4_sse2(const float* a, const float* b, std::size_t n);
float l2_square_16_sse2(const float* a, const float* b, std::size_t n);
void l2_square_16_batch4_sse2(const float* query, const float* const* rows, std::size_t n,
                              float* out);
float l2_square_16_bounded_sse2(const float* a, const float* b, std::size_t n, float bound);
float normalize_vector_sse2(const float* in, float* out, std::size_t n);

float inner_product_4_sse3(const float* a, const float* b, std::size_t n);
float inner_product_16_sse3(const float* a, const float* b, std::size_t n);
void inner_product_16_batch4_sse3(const float* query, const float* const* rows, std::size_t n,
                                  float* out);
float l2_square_4_sse3(const float* a, const float* b, std::size_t n);
float l2_square_16_sse3(const float* a, const float* b, std::size_t n);
void l2_square_16_batch4_sse3(const float* query, const float* const* rows, std::size_t n,
                              float* out);
float l2_square_16_bounded_sse3(const float* a, const float* b, std::size_t n, float bound);
float normalize_vector_sse3(const float* in, float* out, std::size_t n);

float inner_product_4_sse41(const float* a, const float* b, std::size_t n);
float inner_product_16_sse41(const float* a, const float* b, std::size_t n);
void inner_product_16_batch4_sse41(const float* query, const float* const* rows, std::size_t n,
                                   float* out);
float l2_square_4_sse41(const float* a, const float* b, std::size_t n);
float l2_square_16_sse41(const float* a, const float* b, std::size_t n);
void l2_square_16_batch4_sse41(const float* query, const float* const* rows, std::size_t n,
                               float* out);
float l2_square_16_bounded_sse41(const float* a, const float* b, std::size_t n, float bound);
float normalize_vector_sse41(const float* in, float* out, std::size_t n);

float inner_product_16_avx(const float* a, const float* b, std::size_t n);
void inner_product_16_batch4_avx(const float* query, const float* const* rows, std::size_t n,
                                 float* out);
float l2_square_16_avx(const float* a, const float* b, std::size_t n);
void l2_square_16_batch4_avx(const float* query, const float* const* rows, std::size_t n,
                             float* out);
float l2_square_16_bounded_avx(const float* a, const float* b, std::size_t n, float bound);
float normalize_vector_avx(const float* in, float* out, std::size_t n);

float inner_product_16_avx_fma(const float* a, const float* b, std::size_t n);
void inner_product_16_batch4_avx_fma(const float* query, const float* const* rows, std::size_t n,
                                     float* out);
float l2_square_16_avx_fma(const float* a, const float* b, std::size_t n);
void l2_square_16_batch4_avx_fma(const float* query, const float* const* rows, std::size_t n,
                                 float* out);
float l2_square_16_bounded_avx_fma(const float* a, const float* b, std::size_t n, float bound);
float normalize_vector_avx_fma(const float* in, float* out, std::size_t n);

float inner_product_16_avx2(const float* a, const float* b, std::size_t n);
void inner_product_16_batch4_avx2(const float* query, const float* const* rows, std::size_t n,
                                  float* out);
float l2_square_16_avx2(const float* a, const float* b, std::size_t n);
void l2_square_16_batch4_avx2(const float* query, const float* const* rows, std::size_t n,
                              float* out);
float l2_square_16_bounded_avx2(const float* a, const float* b, std::size_t n, float bound);
float normalize_vector_avx2(const float* in, float* out, std::size_t n);

float inner_product_16_avx2_fma(const float* a, const float* b, std::size_t n);
void inner_product_16_batch4_avx2_fma(const float* query, const float* const* rows, std::size_t n,
                                      float* out);
float l2_square_16_avx2_fma(const float* a, const float* b, std::size_t n);
void l2_square_16_batch4_avx2_fma(const float* query, const float* const* rows, std::size_t n,
                                  float* out);
float l2_square_16_bounded_avx2_fma(const float* a, const float* b, std::size_t n, float bound);
float normalize_vector_avx2_fma(const float* in, float* out, std::size_t n);

float inner_product_16_avx512f(const float* a, const float* b, std::size_t n);
void inner_product_16_batch4_avx512f(const float* query, const float* const* rows, std::size_t n,
                                     float* out);
float l2_square_16_avx512f(const float* a, const float* b, std::size_t n);
void l2_square_16_batch4_avx512f(const float* query, const float* const* rows, std::size_t n,
                                 float* out);
float l2_square_16_bounded_avx512f(const float* a, const float* b, std::size_t n, float bound);
float normalize_vector_avx512f(const float* in, float* out, std::size_t n);

float inner_product_16_avx512f_fma(const float* a, const float* b, std::size_t n);
void inner_product_16_batch4_avx512f_fma(const float* query, const float* const* rows,
                                         std::size_t n, float* out);
float l2_square_16_avx512f_fma(const float* a, const float* b, std::size_t n);
void l2_square_16_batch4_avx512f_fma(const float* query, const float* const* rows, std::size_t n,
                                     float* out);
float l2_square_16_bounded_avx512f_fma(const float* a, const float* b, std::size_t n, float bound);
float normalize_vector_avx512f_fma(const float* in, float* out, std::size_t n);

}  // namespace korvex

#endif  // KORVEX_MATH_SIMD_KERNEL_MEMBERS_H
