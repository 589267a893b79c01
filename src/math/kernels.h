#ifndef KORVEX_MATH_KERNELS_H
#define KORVEX_MATH_KERNELS_H

#include <cstddef>
#include <span>

#include "math/processor_features.h"
#include "math/simd/kernel_members.h"

namespace korvex {

using distance_kernel = float (*)(const float* a, const float* b, std::size_t n);
// One query against four rows: out[i] has the bits of the single kernel for (query, rows[i], n).
using distance_batch4_kernel = void (*)(const float* query, const float* const* rows, std::size_t n,
                                        float* out);
// The bits of the single kernel when they are at most `bound`; otherwise any value above it: most of a vector that
// is too far away is never read.
using distance_bounded_kernel = float (*)(const float* a, const float* b, std::size_t n,
                                          float bound);
// in and out may be the same. Returns the magnitude of in.
using normalize_kernel = float (*)(const float* in, float* out, std::size_t n);

// The kernels of this process: null until the init functions ran, never changed after. Process
// start-up runs them before any thread that could call a kernel exists, so that readers need no
// synchronisation.
extern distance_kernel inner_product_16;
extern distance_kernel inner_product_4;
extern distance_batch4_kernel inner_product_16_batch4;
extern distance_kernel l2_square_16;
extern distance_kernel l2_square_4;
extern distance_batch4_kernel l2_square_16_batch4;
extern distance_bounded_kernel l2_square_16_bounded;
extern normalize_kernel normalize_vector;

// Threads     any; the first call resolves, the others wait for it and do nothing.
void inner_product_init();
void l2_square_init();
void normalize_vector_init();

// The best member for a processor.
distance_kernel resolve_inner_product_16(const cpu_features& features = detect_cpu_features());
distance_kernel resolve_inner_product_4(const cpu_features& features = detect_cpu_features());
distance_kernel resolve_l2_square_16(const cpu_features& features = detect_cpu_features());
distance_kernel resolve_l2_square_4(const cpu_features& features = detect_cpu_features());
normalize_kernel resolve_normalize_vector(const cpu_features& features = detect_cpu_features());

// One choice of kernels. name is the instruction set of the 16-wide ones ("avx2_fma"); the 4-wide
// ones may come from a lesser one.
struct kernel_set {
  const char* name;
  distance_kernel inner_product_16, inner_product_4;
  distance_batch4_kernel inner_product_16_batch4;
  distance_kernel l2_square_16, l2_square_4;
  distance_batch4_kernel l2_square_16_batch4;
  distance_bounded_kernel l2_square_16_bounded;
  normalize_kernel normalize_vector;
};

// Every choice that this processor can run, the best one first, the portable "default" last.
std::span<const kernel_set> supported_kernels();
// The name of the choice in use; that of the best one before the init functions ran.
const char* chosen_kernels();
// Puts another choice in place, for tests and measurements: no other thread may use kernels
// meanwhile, and metric objects keep the kernels that they were built with. False, and nothing
// changed, for a name that is not supported.
bool kernels_force(const char* name);

// Any n, over the resolved kernels: whole blocks, then single elements.
float inner_product_16_plus(const float* a, const float* b, std::size_t n);
float inner_product_4_plus(const float* a, const float* b, std::size_t n);
float l2_square_16_plus(const float* a, const float* b, std::size_t n);
float l2_square_4_plus(const float* a, const float* b, std::size_t n);

// Euclidean: the square root of the squared kernel of the same name.
float l2(const float* a, const float* b, std::size_t n);
float l2_4(const float* a, const float* b, std::size_t n);
float l2_16(const float* a, const float* b, std::size_t n);
float l2_4_plus(const float* a, const float* b, std::size_t n);
float l2_16_plus(const float* a, const float* b, std::size_t n);

// Kernels for a dimension. Requires the init functions to have run.
distance_kernel space_inner_product_get_distance_function(int dim);
distance_kernel space_l2_square_get_distance_function(int dim);
distance_kernel space_l2_get_distance_function(int dim);
distance_batch4_kernel space_inner_product_get_batch4_function(int dim);
distance_batch4_kernel space_l2_square_get_batch4_function(int dim);
distance_batch4_kernel space_l2_get_batch4_function(int dim);
// Null where vectors are too short for it to pay. An inner product may fall again, so it has none.
distance_bounded_kernel space_l2_square_get_bounded_function(int dim);
distance_bounded_kernel space_l2_get_bounded_function(int dim);

}  // namespace korvex

#endif  // KORVEX_MATH_KERNELS_H
