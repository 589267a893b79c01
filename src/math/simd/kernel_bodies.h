#ifndef KORVEX_MATH_SIMD_KERNEL_BODIES_H
#define KORVEX_MATH_SIMD_KERNEL_BODIES_H

#include <math.h>

#include <cstddef>

// The kernels, written once over a vocabulary V (vocabulary_*.h). Everything is in an unnamed
// namespace: each instruction set must keep a copy of its own, since a shared one could be the copy
// that older processors cannot run.
namespace korvex {
namespace {

#define KORVEX_INLINE [[gnu::always_inline]] static inline

struct dot_step {
  template <class V>
  KORVEX_INLINE typename V::reg apply(typename V::reg x, typename V::reg y, typename V::reg sum) {
    return V::multiply_add(x, y, sum);
  }
};

struct square_step {
  template <class V>
  KORVEX_INLINE typename V::reg apply(typename V::reg x, typename V::reg y, typename V::reg sum) {
    const typename V::reg difference = V::sub(x, y);
    return V::multiply_add(difference, difference, sum);
  }
};

template <std::size_t... I>
struct indices {};
template <std::size_t N, std::size_t... I>
struct first_indices : first_indices<N - 1, N - 1, I...> {};
template <std::size_t... I>
struct first_indices<0, I...> {
  using type = indices<I...>;
};
template <std::size_t N>
using first = typename first_indices<N>::type;

// The partial sums of Rows rows against one query.
template <class V, class Step, std::size_t Rows>
struct partial_sums {
  using reg = typename V::reg;
  static constexpr std::size_t width = V::accumulators;
  reg sums[Rows][width];

  // Adds Count registers that start at offset. Indices are constants, so the sums stay in
  // registers.
  template <std::size_t Count>
  [[gnu::always_inline]] void advance(const float* query, const float* const (&rows)[Rows],
                                      std::size_t offset) {
    each_register(query, rows, offset, first<Count>{});
  }

  [[gnu::always_inline]] void clear() { clear_all(first<Rows * width>{}); }

  [[gnu::always_inline]] reg total(std::size_t row) const {
    if constexpr (width == 1) {
      return sums[row][0];
    } else {
      static_assert(width == 4);
      return V::add(V::add(sums[row][0], sums[row][1]), V::add(sums[row][2], sums[row][3]));
    }
  }

 private:
  template <std::size_t... R>
  [[gnu::always_inline]] void each_register(const float* query, const float* const (&rows)[Rows],
                                            std::size_t offset, indices<R...>) {
    (each_row<R>(V::load(query + offset + R * V::lanes), rows, offset, first<Rows>{}), ...);
  }
  template <std::size_t R, std::size_t... Row>
  [[gnu::always_inline]] void each_row(reg x, const float* const (&rows)[Rows], std::size_t offset,
                                       indices<Row...>) {
    ((sums[Row][R % width] = Step::template apply<V>(x, V::load(rows[Row] + offset + R * V::lanes),
                                                     sums[Row][R % width])),
     ...);
  }
  template <std::size_t... I>
  [[gnu::always_inline]] void clear_all(indices<I...>) {
    ((sums[I / width][I % width] = V::zero()), ...);
  }
};

// Adds what the main loop left over, in halving steps down to Smallest registers.
template <std::size_t Count, std::size_t Smallest, class Sums, class V, std::size_t Rows>
KORVEX_INLINE void add_rest(Sums& sums, const float* query, const float* const (&rows)[Rows],
                            std::size_t offset, std::size_t n) {
  if constexpr (Count >= Smallest) {
    if ((n & (Count * V::lanes)) != 0) {
      sums.template advance<Count>(query, rows, offset);
      offset += Count * V::lanes;
    }
    add_rest<Count / 2, Smallest, Sums, V>(sums, query, rows, offset, n);
  }
}

// Sums the first n floats, n rounded down to whole blocks of Block. Unroll registers a step of the
// main loop.
template <class V, class Step, std::size_t Unroll, std::size_t Block, std::size_t Rows>
KORVEX_INLINE partial_sums<V, Step, Rows> sum_rows(const float* query,
                                                   const float* const (&rows)[Rows],
                                                   std::size_t n) {
  constexpr std::size_t step = Unroll * V::lanes;
  static_assert(step % Block == 0 && Block % V::lanes == 0 && (step & (step - 1)) == 0);
  partial_sums<V, Step, Rows> sums;
  sums.clear();
  const std::size_t whole = n & ~(step - 1);
  for (std::size_t i = 0; i < whole; i += step) sums.template advance<Unroll>(query, rows, i);
  add_rest<Unroll / 2, Block / V::lanes, decltype(sums), V>(sums, query, rows, whole, n);
  return sums;
}

template <class V, class Step>
KORVEX_INLINE float distance_16(const float* a, const float* b, std::size_t n) {
  const float* const rows[1] = {b};
  return V::reduce(sum_rows<V, Step, V::unroll, 16>(a, rows, n).total(0));
}

// Sums that only grow, with a look at them every Checked floats: what is above `bound` by then is
// returned as it is. Otherwise the operations of distance_16 in their order: the result is the same
// bits.
template <class V, std::size_t Checked>
KORVEX_INLINE float l2_square_16_bounded(const float* a, const float* b, std::size_t n,
                                         float bound) {
  constexpr std::size_t step = V::unroll * V::lanes;
  static_assert(Checked % step == 0 && step >= 16);
  const float* const rows[1] = {b};
  partial_sums<V, square_step, 1> sums;
  sums.clear();
  std::size_t i = 0;
  while (n - i > Checked) {
    for (const std::size_t end = i + Checked; i < end; i += step)
      sums.template advance<V::unroll>(a, rows, i);
    const float so_far = V::reduce(sums.total(0));
    if (so_far > bound) return so_far;
  }
  for (const std::size_t whole = n & ~(step - 1); i < whole; i += step)
    sums.template advance<V::unroll>(a, rows, i);
  add_rest<V::unroll / 2, 16 / V::lanes, decltype(sums), V>(sums, a, rows, i, n);
  return V::reduce(sums.total(0));
}

// At most three blocks reach this kernel in practice, too few to unroll for.
template <class V, class Step>
KORVEX_INLINE float distance_4(const float* a, const float* b, std::size_t n) {
  const float* const rows[1] = {b};
  return V::reduce(sum_rows<V, Step, 1, 4>(a, rows, n).total(0));
}

// Per row the same operations in the same order as distance_16: the results are the same bits.
template <class V, class Step>
KORVEX_INLINE void distance_16_batch4(const float* query, const float* const* rows, std::size_t n,
                                      float* out) {
  if constexpr (V::batch_rows == 4) {
    const float* const all[4] = {rows[0], rows[1], rows[2], rows[3]};
    const auto sums = sum_rows<V, Step, V::unroll, 16>(query, all, n);
    V::reduce4({sums.total(0), sums.total(1), sums.total(2), sums.total(3)}, out);
  } else {
    static_assert(V::batch_rows == 2);
    const float* const low[2] = {rows[0], rows[1]};
    const float* const high[2] = {rows[2], rows[3]};
    const auto low_sums = sum_rows<V, Step, V::unroll, 16>(query, low, n);
    const typename V::reg total0 = low_sums.total(0);
    const typename V::reg total1 = low_sums.total(1);
    const auto high_sums = sum_rows<V, Step, V::unroll, 16>(query, high, n);
    V::reduce4({total0, total1, high_sums.total(0), high_sums.total(1)}, out);
  }
}

template <class V>
concept has_masks = requires(const float* p) {
  V::load_first(1, p);
};

template <class V>
KORVEX_INLINE float sum_of_squares(const float* v, std::size_t n) {
  const float* const rows[1] = {v};
  const std::size_t whole = n & ~(V::lanes - 1);
  typename V::reg sum = sum_rows<V, dot_step, V::unroll, V::lanes>(v, rows, n).total(0);
  if constexpr (has_masks<V>) {
    const typename V::reg rest = V::load_first(n - whole, v + whole);
    return V::reduce(V::multiply_add(rest, rest, sum));
  } else {
    float squares = V::reduce(sum);
    for (std::size_t i = whole; i < n; ++i) squares += v[i] * v[i];
    return squares;
  }
}

template <class V>
KORVEX_INLINE void scale(const float* in, float* out, std::size_t n, float factor) {
  const typename V::reg factors = V::broadcast(factor);
  std::size_t i = 0;
  for (; i + V::lanes <= n; i += V::lanes) V::store(out + i, V::mul(V::load(in + i), factors));
  if constexpr (has_masks<V>) {
    V::store_first(n - i, out + i, V::mul(V::load_first(n - i, in + i), factors));
  } else {
    for (; i < n; ++i) out[i] = in[i] * factor;
  }
}

// Returns the magnitude of the input. One below 1e-6 has no direction worth keeping: the input is
// copied.
template <class V>
KORVEX_INLINE float normalize(const float* in, float* out, std::size_t n) {
  const float magnitude = ::sqrtf(sum_of_squares<V>(in, n));
  scale<V>(in, out, n, magnitude < 1e-6f ? 1.0f : 1.0f / magnitude);
  return magnitude;
}

#undef KORVEX_INLINE

}  // namespace
}  // namespace korvex

#endif  // KORVEX_MATH_SIMD_KERNEL_BODIES_H
