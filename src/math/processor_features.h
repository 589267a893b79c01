#ifndef KORVEX_MATH_PROCESSOR_FEATURES_H
#define KORVEX_MATH_PROCESSOR_FEATURES_H

#include <cstdint>
#include <string>

#include "runtime/platform/processor.h"

namespace korvex {

// What the kernels may use; each flag is 0 or 1.
struct cpu_features {
  std::uint8_t sse, sse2, sse3, ssse3, sse41, sse42;
  std::uint8_t avx, avx2;
  std::uint8_t avx512f, avx512dq, avx512ifma, avx512pf, avx512er, avx512cd, avx512bw, avx512vl;
  std::uint8_t fma;
  std::uint32_t cache_line_bytes;
  std::uint32_t cache_level;
  const char* brand;  // static, never null
  std::uint8_t detected;
};

// Threads     the first call detects, beside others too; all of them get the same record.
cpu_features detect_cpu_features();

// The best instruction set in words: "AVX512", "AVX2,FMA", "AVX2", "AVX,FMA", "AVX", "SSE4.2" or
// "Intel Generic".
const char* get_cpu_architecture();
const char* get_cpu_architecture(const cpu_features& features);

// The report on standard output, and its text.
void print_cpu_features();
std::string cpu_features_report(const cpu_features& features);

// The processor as detection sees it; tests put processors here that they do not have.
struct processor_source {
  platform::cpuid_result (*cpuid)(std::uint32_t leaf, std::uint32_t subleaf);
  std::uint64_t (*xgetbv)(std::uint32_t index);
};
constexpr int brand_characters = 48;
// brand receives the brand string and must live as long as the record.
cpu_features read_cpu_features(const processor_source& source, char (&brand)[brand_characters + 1]);

}  // namespace korvex

#endif  // KORVEX_MATH_PROCESSOR_FEATURES_H
