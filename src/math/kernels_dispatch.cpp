#include <cstring>
#include <mutex>
#include <vector>

#include "math/kernels.h"

namespace korvex {

distance_kernel inner_product_16;
distance_kernel inner_product_4;
distance_batch4_kernel inner_product_16_batch4;
distance_kernel l2_square_16;
distance_kernel l2_square_4;
distance_batch4_kernel l2_square_16_batch4;
distance_bounded_kernel l2_square_16_bounded;
normalize_kernel normalize_vector;

namespace {

struct member_row {
  bool (*runs_on)(const cpu_features&);
  kernel_set members;  // null where the instruction set has no member of the kind
};

#define KORVEX_WIDE_ROW(suffix, condition)                                           \
  {                                                                                  \
    [](const cpu_features& f) -> bool { return condition; }, {                       \
#suffix, inner_product_16_##suffix, nullptr, inner_product_16_batch4_##suffix, \
          l2_square_16_##suffix, nullptr, l2_square_16_batch4_##suffix,              \
          l2_square_16_bounded_##suffix, normalize_vector_##suffix                   \
    }                                                                                \
  }
#define KORVEX_ROW(suffix, condition)                                                            \
  {                                                                                              \
    [](const cpu_features& f) -> bool { return condition; }, {                                   \
#suffix, inner_product_16_##suffix, inner_product_4_##suffix,                              \
          inner_product_16_batch4_##suffix, l2_square_16_##suffix, l2_square_4_##suffix,         \
          l2_square_16_batch4_##suffix, l2_square_16_bounded_##suffix, normalize_vector_##suffix \
    }                                                                                            \
  }

// Best first: a kernel comes from the first row that runs on the processor and has one of its kind.
constexpr member_row rows[] = {
#if defined(__x86_64__)
    KORVEX_WIDE_ROW(avx512f_fma, f.avx512f&& f.fma),
    KORVEX_WIDE_ROW(avx512f, f.avx512f),
    KORVEX_WIDE_ROW(avx2_fma, f.avx2&& f.fma),
    KORVEX_WIDE_ROW(avx2, f.avx2),
    KORVEX_WIDE_ROW(avx_fma, f.avx&& f.fma),
    KORVEX_WIDE_ROW(avx, f.avx),
    KORVEX_ROW(sse41, f.sse41),
    KORVEX_ROW(sse3, f.sse3),
    {[](const cpu_features& f) -> bool { return f.sse2; },
     {"sse2", nullptr, nullptr, nullptr, l2_square_16_sse2, l2_square_4_sse2,
      l2_square_16_batch4_sse2, l2_square_16_bounded_sse2, normalize_vector_sse2}},
    {[](const cpu_features& f) -> bool { return f.sse; },
     {"sse", inner_product_16_sse, inner_product_4_sse, inner_product_16_batch4_sse, nullptr,
      nullptr, nullptr, nullptr, nullptr}},
#endif
    {[](const cpu_features&) { return true; },
     {"default", inner_product_default, inner_product_default, inner_product_batch4_default,
      l2_square_default, l2_square_default, l2_square_batch4_default, l2_square_bounded_default,
      normalize_vector_default}},
};
constexpr std::size_t row_count = sizeof(rows) / sizeof(rows[0]);

#undef KORVEX_WIDE_ROW
#undef KORVEX_ROW

template <class Kernel>
Kernel resolve(Kernel kernel_set::*kind, const cpu_features& features, std::size_t best_row = 0) {
  for (std::size_t i = best_row; i < row_count; ++i)
    if (rows[i].members.*kind != nullptr && rows[i].runs_on(features)) return rows[i].members.*kind;
  return nullptr;
}

kernel_set resolve_all(const cpu_features& features, std::size_t best_row) {
  return {rows[best_row].members.name,
          resolve(&kernel_set::inner_product_16, features, best_row),
          resolve(&kernel_set::inner_product_4, features, best_row),
          resolve(&kernel_set::inner_product_16_batch4, features, best_row),
          resolve(&kernel_set::l2_square_16, features, best_row),
          resolve(&kernel_set::l2_square_4, features, best_row),
          resolve(&kernel_set::l2_square_16_batch4, features, best_row),
          resolve(&kernel_set::l2_square_16_bounded, features, best_row),
          resolve(&kernel_set::normalize_vector, features, best_row)};
}

}  // namespace

distance_kernel resolve_inner_product_16(const cpu_features& features) {
  return resolve(&kernel_set::inner_product_16, features);
}
distance_kernel resolve_inner_product_4(const cpu_features& features) {
  return resolve(&kernel_set::inner_product_4, features);
}
distance_kernel resolve_l2_square_16(const cpu_features& features) {
  return resolve(&kernel_set::l2_square_16, features);
}
distance_kernel resolve_l2_square_4(const cpu_features& features) {
  return resolve(&kernel_set::l2_square_4, features);
}
normalize_kernel resolve_normalize_vector(const cpu_features& features) {
  return resolve(&kernel_set::normalize_vector, features);
}

// Each init leaves pointers alone that kernels_force has set before.
void inner_product_init() {
  static std::once_flag once;
  std::call_once(once, [] {
    if (inner_product_16 != nullptr) return;
    inner_product_16 = resolve_inner_product_16();
    inner_product_4 = resolve_inner_product_4();
    inner_product_16_batch4 = supported_kernels()[0].inner_product_16_batch4;
  });
}

void l2_square_init() {
  static std::once_flag once;
  std::call_once(once, [] {
    if (l2_square_16 != nullptr) return;
    l2_square_16 = resolve_l2_square_16();
    l2_square_4 = resolve_l2_square_4();
    l2_square_16_batch4 = supported_kernels()[0].l2_square_16_batch4;
    l2_square_16_bounded = supported_kernels()[0].l2_square_16_bounded;
  });
}

void normalize_vector_init() {
  static std::once_flag once;
  std::call_once(once, [] {
    if (normalize_vector == nullptr) normalize_vector = resolve_normalize_vector();
  });
}

std::span<const kernel_set> supported_kernels() {
  static const std::vector<kernel_set> supported = [] {
    const cpu_features features = detect_cpu_features();
    std::vector<kernel_set> sets;
    for (std::size_t i = 0; i < row_count; ++i)
      if (rows[i].runs_on(features)) sets.push_back(resolve_all(features, i));
    return sets;
  }();
  return supported;
}

const char* chosen_kernels() {
  for (const kernel_set& set : supported_kernels())
    if (set.inner_product_16 == inner_product_16 && set.l2_square_16 == l2_square_16)
      return set.name;
  return supported_kernels()[0].name;
}

bool kernels_force(const char* name) {
  for (const kernel_set& set : supported_kernels()) {
    if (std::strcmp(set.name, name) != 0) continue;
    inner_product_16 = set.inner_product_16;
    inner_product_4 = set.inner_product_4;
    inner_product_16_batch4 = set.inner_product_16_batch4;
    l2_square_16 = set.l2_square_16;
    l2_square_4 = set.l2_square_4;
    l2_square_16_batch4 = set.l2_square_16_batch4;
    l2_square_16_bounded = set.l2_square_16_bounded;
    normalize_vector = set.normalize_vector;
    return true;
  }
  return false;
}

}  // namespace korvex
