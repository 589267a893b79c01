#ifndef KORVEX_MATH_METRICS_H
#define KORVEX_MATH_METRICS_H

#include <cstddef>
#include <cstdint>
#include <memory>

#include "math/kernels.h"

namespace korvex {

// Kept in index files: never renumber. 3 is not a metric.
enum korvex_distance_type : std::uint32_t {
  DISTANCE_NONE = 0,
  DISTANCE_L2_SQUARE = 1,
  DISTANCE_L2 = 2,
  DISTANCE_INNER_PRODUCT = 4,
};

// Resolves every kernel. Must return before the first metric object is built.
// Threads     any; the first call works, the others wait for it.
void distance_init();

// A metric for vectors of one dimension.
// Threads     never changes after construction: any number of threads.
// Direction   smaller is nearer for the Euclidean metrics, larger for the inner product; callers
//             learn it from reference_distance (self < opposite means smaller is nearer), not from
//             the type.
class DistanceInterface {
 public:
  virtual ~DistanceInterface();
  DistanceInterface(const DistanceInterface&) = delete;
  DistanceInterface& operator=(const DistanceInterface&) = delete;

  virtual float distance(const float* a, const float* b) const;
  // The stored dimension is ignored. The kernel is still that of the stored one: a narrower kernel
  // drops the rest.
  virtual float distance(const float* a, const float* b, int dim) const;
  // To a linear (Euclidean) scale and back.
  virtual float to_linear(float d) const = 0;
  virtual float from_linear(float d) const = 0;
  // The distance of a unit vector to itself and to its negation, as whole numbers.
  virtual void reference_distance(float* self_out, float* opposite_out) const;
  // 1 when the value is itself a linear distance.
  virtual int is_linear() const = 0;
  // 1 when vectors should be brought to unit length before use.
  virtual int need_normalization() const = 0;
  virtual distance_kernel get_distance_function() const;

 protected:
  DistanceInterface(int dim, distance_kernel kernel) : dimension_(dim), kernel_(kernel) {}

  // The dimension of a call, as the kernels take it.
  static std::size_t kernel_count(int dim) { return static_cast<std::size_t>(std::int64_t{dim}); }

  const std::int32_t dimension_;
  const distance_kernel kernel_;
};

class DistanceL2Square final : public DistanceInterface {
 public:
  explicit DistanceL2Square(int dim);
  using DistanceInterface::distance;
  float distance(const float* a, const float* b) const override;
  float to_linear(float d) const override;
  float from_linear(float d) const override { return d * d; }
  int is_linear() const override { return 0; }
  int need_normalization() const override { return 0; }
};

class DistanceL2 final : public DistanceInterface {
 public:
  explicit DistanceL2(int dim);
  using DistanceInterface::distance;
  float distance(const float* a, const float* b) const override;
  float to_linear(float d) const override { return d; }
  float from_linear(float d) const override { return d; }
  int is_linear() const override { return 1; }
  int need_normalization() const override { return 0; }
};

class DistanceInnerProduct final : public DistanceInterface {
 public:
  explicit DistanceInnerProduct(int dim);
  using DistanceInterface::distance;
  float distance(const float* a, const float* b) const override;
  float to_linear(float d) const override { return d; }
  float from_linear(float d) const override { return d; }
  int is_linear() const override { return 0; }
  int need_normalization() const override { return 1; }
};

// The metric of a type number, null for a number that is none (0, 3, above 4).
std::unique_ptr<DistanceInterface> create_distance(std::uint32_t type, int dim);
// The batch form of the kernel that create_distance(type, dim) holds; null for a number that is no
// metric.
distance_batch4_kernel distance_batch4_function(std::uint32_t type, int dim);
// The same for its bounded form; null also where there is none.
distance_bounded_kernel distance_bounded_function(std::uint32_t type, int dim);

// Formulas for vectors of known norm.
float cosine_similarity(float dot, float norm_a, float norm_b);
float cosine_similarity(float dot, float norm);
// From the squared distance d of two vectors to that of their unit vectors; the second form takes
// one of them to be of unit length.
float l2_square_normalized_dist(double d, double norm_a, double norm_b);
float l2_square_normalized_dist(double d, double norm);

// The length of v, 0 when n < 1.
float vector_magnitude(const float* v, int n);
float vector_norm(const float* v, int n);
// Whether the squared length is within tol of 1; a tol of 0 or below means 1e-5.
bool is_normalized(const float* v, std::size_t n, float tol = 0);

// Fills v with a random direction of unit length.
void random_unit_vector(float* v, int dim);

}  // namespace korvex

#endif  // KORVEX_MATH_METRICS_H
