#include "math/kernels.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace korvex {
namespace {

// n floats, `shift` floats into a heap block, so that every alignment occurs. Without padding the
// block ends with the last one, for sanitizers; with padding NaNs follow, for masked reads and
// writes, which sanitizers do not see.
class test_vector {
 public:
  test_vector(std::size_t n, std::size_t shift, std::size_t padding, std::mt19937& random)
      : n_(n), padding_(padding), block_(new float[shift + n + padding]), data_(&block_[shift]) {
    std::uniform_real_distribution<float> component(-1, 1);
    for (std::size_t i = 0; i < n; ++i) data_[i] = component(random);
    for (std::size_t i = n; i < n + padding; ++i) data_[i] = std::nanf("");
  }
  float* data() { return data_; }
  float& operator[](std::size_t i) { return data_[i]; }
  bool padding_untouched() const {
    for (std::size_t i = n_; i < n_ + padding_; ++i)
      if (!std::isnan(data_[i])) return false;
    return true;
  }

 private:
  std::size_t n_, padding_;
  std::unique_ptr<float[]> block_;
  float* data_;
};

double reference_dot(const float* a, const float* b, std::size_t n) {
  double sum = 0;
  for (std::size_t i = 0; i < n; ++i) sum += double{a[i]} * b[i];
  return sum;
}
double reference_square(const float* a, const float* b, std::size_t n) {
  double sum = 0;
  for (std::size_t i = 0; i < n; ++i) sum += (double{a[i]} - b[i]) * (double{a[i]} - b[i]);
  return sum;
}
// Rounding of n single-precision additions of terms up to 4.
double tolerance(std::size_t n) {
  return 1e-6 * (static_cast<double>(n) + 1);
}

constexpr std::size_t lengths[] = {0,  1,  3,  4,  7,  8,  15,  16,  17,  20,  31,  32,  33,
                                   47, 48, 63, 64, 65, 96, 112, 127, 128, 129, 200, 257, 784};

struct place {
  std::size_t n, shift, padding;
};
template <class Check>
void at_every_place(Check check) {
  for (const std::size_t n : lengths)
    for (const std::size_t shift : {0, 1, 3})
      for (const std::size_t padding : {0, 17}) check(place{n, shift, padding});
}

TEST(Kernels, MatchTheReferenceAtEveryLengthAndOffset) {
  std::mt19937 random(7);
  for (const kernel_set& isa : supported_kernels())
    at_every_place([&](const place& at) {
      const auto [n, shift, padding] = at;
      SCOPED_TRACE(std::string(isa.name) + " n " + std::to_string(n) + " shift " +
                   std::to_string(shift));
      test_vector a(n, shift, padding, random);
      test_vector b(n, 3 - shift, padding, random);
      const bool portable = isa.inner_product_16 == inner_product_default;
      const bool portable_l2 = isa.l2_square_16 == l2_square_default;
      const std::size_t n16 = n / 16 * 16;
      const std::size_t n4 = n / 4 * 4;
      const auto used = [n](bool all, std::size_t blocks) { return all ? n : blocks; };
      EXPECT_NEAR(isa.inner_product_16(a.data(), b.data(), n),
                  reference_dot(a.data(), b.data(), used(portable, n16)), tolerance(n));
      EXPECT_NEAR(isa.inner_product_4(a.data(), b.data(), n),
                  reference_dot(a.data(), b.data(), used(portable, n4)), tolerance(n));
      EXPECT_NEAR(isa.l2_square_16(a.data(), b.data(), n),
                  reference_square(a.data(), b.data(), used(portable_l2, n16)), tolerance(n));
      EXPECT_NEAR(isa.l2_square_4(a.data(), b.data(), n),
                  reference_square(a.data(), b.data(), used(portable_l2, n4)), tolerance(n));
    });
}

TEST(Kernels, BatchesGiveTheBitsOfTheSingleForm) {
  std::mt19937 random(8);
  for (const kernel_set& isa : supported_kernels())
    at_every_place([&](const place& at) {
      test_vector query(at.n, at.shift, at.padding, random);
      std::vector<test_vector> vectors;
      const float* rows[4];
      for (std::size_t i = 0; i < 4; ++i) vectors.emplace_back(at.n, i, at.padding, random);
      for (std::size_t i = 0; i < 4; ++i) rows[i] = vectors[i].data();
      float dots[4], squares[4], expected_dots[4], expected_squares[4];
      isa.inner_product_16_batch4(query.data(), rows, at.n, dots);
      isa.l2_square_16_batch4(query.data(), rows, at.n, squares);
      for (std::size_t i = 0; i < 4; ++i) {
        expected_dots[i] = isa.inner_product_16(query.data(), rows[i], at.n);
        expected_squares[i] = isa.l2_square_16(query.data(), rows[i], at.n);
      }
      EXPECT_EQ(std::memcmp(dots, expected_dots, sizeof(dots)), 0) << isa.name << " n " << at.n;
      EXPECT_EQ(std::memcmp(squares, expected_squares, sizeof(squares)), 0)
          << isa.name << " n " << at.n;
    });
}

TEST(Kernels, BoundedFormGivesTheBitsOfTheSingleFormUpToItsBound) {
  std::mt19937 random(10);
  for (const kernel_set& isa : supported_kernels())
    for (const std::size_t n : {16, 128, 144, 256, 272, 640, 784, 1040}) {
      SCOPED_TRACE(std::string(isa.name) + " n " + std::to_string(n));
      test_vector a(n, 1, 17, random);
      test_vector b(n, 3, 17, random);
      const float whole = isa.l2_square_16(a.data(), b.data(), n);
      for (const float bound : {whole, std::nextafter(whole, 1e9f), 2 * whole, 3e38f})
        EXPECT_EQ(isa.l2_square_16_bounded(a.data(), b.data(), n, bound), whole) << bound;
      for (const float share : {0.0f, 0.1f, 0.3f, 0.5f, 0.9f, 0.9999f}) {
        const float given_up = isa.l2_square_16_bounded(a.data(), b.data(), n, share * whole);
        EXPECT_GT(given_up, share * whole);
        EXPECT_LE(given_up, whole);
      }
    }
}

TEST(Kernels, NormalisationGivesUnitLengthAndReturnsTheMagnitude) {
  std::mt19937 random(9);
  for (const kernel_set& isa : supported_kernels())
    at_every_place([&](const place& at) {
      if (at.n == 0) return;
      SCOPED_TRACE(std::string(isa.name) + " n " + std::to_string(at.n));
      test_vector in(at.n, at.shift, at.padding, random);
      test_vector out(at.n, 3 - at.shift, at.padding, random);
      const double magnitude = std::sqrt(reference_dot(in.data(), in.data(), at.n));
      EXPECT_NEAR(isa.normalize_vector(in.data(), out.data(), at.n), magnitude, 1e-5 * magnitude);
      for (std::size_t i = 0; i < at.n; ++i) ASSERT_NEAR(out[i], in[i] / magnitude, 1e-5);
      EXPECT_TRUE(out.padding_untouched());
      isa.normalize_vector(in.data(), in.data(), at.n);
      EXPECT_EQ(std::memcmp(in.data(), out.data(), at.n * sizeof(float)), 0) << "in place";
    });
}

TEST(Kernels, NormalisationCopiesWhatHasNoDirection) {
  for (const kernel_set& isa : supported_kernels())
    for (const std::size_t n : {1, 16, 21})
      for (const float component : {0.0f, 1e-8f}) {
        const std::vector<float> in(n, component);
        std::vector<float> out(n, 5);
        const auto magnitude = component * std::sqrt(static_cast<float>(n));
        EXPECT_NEAR(isa.normalize_vector(in.data(), out.data(), n), magnitude, 1e-12) << isa.name;
        EXPECT_EQ(in, out) << isa.name;
      }
}

// a * a is not exact: an unfused sum cancels the rounded product to 0, a fused one keeps the
// rounding error. 128 floats on, the second product meets the first one's partial sum in every
// instruction set.
TEST(Kernels, OnlyTheFmaMembersFuse) {
  const float a = 1.0f + std::ldexp(1.0f, -12);
  const float rounded = a * a;
  std::vector<float> x(256), y(256);
  x[0] = 1, y[0] = -rounded;
  x[128] = y[128] = a;
  for (const kernel_set& isa : supported_kernels()) {
    const bool fused = std::string(isa.name).ends_with("_fma");
    EXPECT_EQ(isa.inner_product_16(x.data(), y.data(), x.size()) != 0, fused) << isa.name;
  }
}

#if defined(__x86_64__)
// The compiler's own look at the processor, so that no set is left out where it could run.
TEST(Kernels, EverySetThatTheProcessorRunsIsOffered) {
  const bool fma = __builtin_cpu_supports("fma") != 0;
  const std::pair<const char*, bool> sets[] = {
      {"avx512f_fma", __builtin_cpu_supports("avx512f") != 0 && fma},
      {"avx512f", __builtin_cpu_supports("avx512f") != 0},
      {"avx2_fma", __builtin_cpu_supports("avx2") != 0 && fma},
      {"avx2", __builtin_cpu_supports("avx2") != 0},
      {"avx_fma", __builtin_cpu_supports("avx") != 0 && fma},
      {"avx", __builtin_cpu_supports("avx") != 0},
      {"sse41", __builtin_cpu_supports("sse4.1") != 0},
      {"sse3", __builtin_cpu_supports("sse3") != 0},
      {"sse2", true},
      {"sse", true},
      {"default", true}};
  for (const auto& [name, runs] : sets) {
    const auto offered = supported_kernels();
    EXPECT_EQ(
        std::any_of(offered.begin(), offered.end(),
                    [name = name](const kernel_set& set) { return std::string(set.name) == name; }),
        runs)
        << name;
  }
}

cpu_features features_up_to(const std::string& best) {
  cpu_features f{};
  auto next = [&, on = true](std::uint8_t& flag, const char* name) mutable {
    flag = on;
    if (best == name) on = false;
  };
  next(f.sse, "sse");
  next(f.sse2, "sse2");
  next(f.sse3, "sse3");
  next(f.sse41, "sse41");
  next(f.avx, "avx");
  next(f.avx2, "avx2");
  next(f.avx512f, "avx512f");
  return f;
}

TEST(Kernels, AreResolvedByProcessor) {
  struct row {
    const char* best;
    bool fma;
    distance_kernel inner_product_16, inner_product_4, l2_square_16, l2_square_4;
    normalize_kernel normalize;
  };
#define WIDE(isa)                                                                       \
  inner_product_16_##isa, inner_product_4_sse41, l2_square_16_##isa, l2_square_4_sse41, \
      normalize_vector_##isa
#define NARROW(isa)                                                                     \
  inner_product_16_##isa, inner_product_4_##isa, l2_square_16_##isa, l2_square_4_##isa, \
      normalize_vector_##isa
  const row rows[] = {
      {"avx512f", true, WIDE(avx512f_fma)},
      {"avx512f", false, WIDE(avx512f)},
      {"avx2", true, WIDE(avx2_fma)},
      {"avx2", false, WIDE(avx2)},
      {"avx", true, WIDE(avx_fma)},
      {"avx", false, WIDE(avx)},
      {"sse41", true, NARROW(sse41)},
      {"sse3", false, NARROW(sse3)},
      {"sse2", false, inner_product_16_sse, inner_product_4_sse, l2_square_16_sse2,
       l2_square_4_sse2, normalize_vector_sse2},
      {"sse", false, inner_product_16_sse, inner_product_4_sse, l2_square_default,
       l2_square_default, normalize_vector_default},
  };
#undef WIDE
#undef NARROW
  for (const row& expected : rows) {
    cpu_features f = features_up_to(expected.best);
    f.fma = expected.fma;
    SCOPED_TRACE(expected.best);
    EXPECT_EQ(resolve_inner_product_16(f), expected.inner_product_16);
    EXPECT_EQ(resolve_inner_product_4(f), expected.inner_product_4);
    EXPECT_EQ(resolve_l2_square_16(f), expected.l2_square_16);
    EXPECT_EQ(resolve_l2_square_4(f), expected.l2_square_4);
    EXPECT_EQ(resolve_normalize_vector(f), expected.normalize);
  }
}
#endif

TEST(Kernels, APlainProcessorGetsThePortableOnes) {
  EXPECT_EQ(resolve_inner_product_16(cpu_features{}), inner_product_default);
  EXPECT_EQ(resolve_l2_square_4(cpu_features{}), l2_square_default);
  EXPECT_EQ(resolve_normalize_vector(cpu_features{}), normalize_vector_default);
}

// A processor in words: the answers of its leaves.
struct fake_processor {
  std::uint32_t highest_leaf, leaf1_ecx, leaf7_ebx;
  std::uint64_t saved_state;
};
fake_processor fake;

constexpr std::uint32_t system_tells = 1u << 27, avx_bit = 1u << 28, fma_bit = 1u << 12;
constexpr std::uint32_t avx2_bit = 1u << 5, avx512f_bit = 1u << 16;

cpu_features detect_fake(const fake_processor& processor, char (&brand)[brand_characters + 1]) {
  fake = processor;
  const processor_source source{[](std::uint32_t leaf, std::uint32_t) -> platform::cpuid_result {
                                  if (leaf == 0) return {fake.highest_leaf, 0, 0, 0};
                                  if (leaf == 1) return {0, 0, fake.leaf1_ecx, 3u << 25};
                                  if (leaf == 4) return {3u << 5, 63, 0, 0};
                                  if (leaf == 7) return {0, fake.leaf7_ebx, 0, 0};
                                  if (leaf == 0x80000000) return {0x80000004, 0, 0, 0};
                                  return {0x64636261, 0x64636261, 0x64636261, 0x64636261};
                                },
                                [](std::uint32_t) { return fake.saved_state; }};
  return read_cpu_features(source, brand);
}

TEST(ProcessorFeatures, FollowTheProcessorAndWhatTheSystemSaves) {
  struct row {
    const char* what;
    fake_processor processor;
    const char* architecture;
  };
  const std::uint32_t all = system_tells | avx_bit | fma_bit;
  const std::uint32_t wide = avx2_bit | avx512f_bit;
  const row rows[] = {
      {"everything", {0x20, all, wide, 0xE7}, "AVX512"},
      {"512-bit state not saved", {0x20, all, wide, 0x7}, "AVX2,FMA"},
      {"a part of the 512-bit state saved", {0x20, all, wide, 0x67}, "AVX2,FMA"},
      {"256-bit state not saved", {0x20, all, wide, 0x3}, "Intel Generic"},
      {"no fused multiply-add", {0x20, all & ~fma_bit, avx2_bit, 0x7}, "AVX2"},
      {"leaf 7 above the highest leaf", {6, all, wide, 0xE7}, "AVX,FMA"},
      {"system tells nothing", {0x20, avx_bit, wide, 0}, "AVX2"},
      {"system tells, processor has none", {0x20, system_tells | 1u << 20, wide, 0xE7}, "SSE4.2"},
  };
  char brand[brand_characters + 1];
  for (const row& expected : rows)
    EXPECT_STREQ(get_cpu_architecture(detect_fake(expected.processor, brand)),
                 expected.architecture)
        << expected.what;
}

TEST(ProcessorFeatures, ReportIsStable) {
  char brand[brand_characters + 1];
  const cpu_features f =
      detect_fake({0x20, system_tells | avx_bit, avx2_bit | avx512f_bit | 1u << 31, 0xE6}, brand);
  EXPECT_EQ(cpu_features_report(f),
            "CPU Features detected:\n"
            "CPU: abcdabcdabcdabcdabcdabcdabcdabcdabcdabcdabcdabcd\n"
            "SSE: 1, SSE2: 1, SSE3: 0, SSSE3: 0, SSE4.1: 0, SSE4.2: 0\n"
            "AVX: 1, AVX2: 1, AVX512F: 1, FMA: 0\n"
            "AVX512DQ: 0, AVX512IFMA: 0, AVX512PF: 0, AVX512ER: 0\n"
            "AVX512CD: 0, AVX512BW: 0, AVX512VL: 1\n"
            "Cache Line Size: 64 bytes, Cache Levels: 3\n");
}

}  // namespace
}  // namespace korvex
