#include "math/processor_features.h"

#include <cstdio>
#include <cstring>
#include <mutex>

namespace korvex {
namespace {

constexpr std::uint32_t leaf_features = 1;
constexpr std::uint32_t leaf_cache = 4;
constexpr std::uint32_t leaf_extended_features = 7;
constexpr std::uint32_t leaf_brand = 0x80000002;
constexpr std::uint32_t leaf_last_brand = 0x80000004;

// State that the system saves on a thread switch (extended control register 0).
constexpr std::uint64_t saves_avx = 0x6;
constexpr std::uint64_t saves_avx512 = 0xE6;

std::uint8_t bit(std::uint32_t word, int number) {
  return (word >> number) & 1u;
}

// All zero for a leaf above the highest one, which would answer with the data of another leaf.
platform::cpuid_result leaf(const processor_source& source, std::uint32_t number) {
  const std::uint32_t highest = source.cpuid(number & 0x80000000u, 0).eax;
  return number <= highest ? source.cpuid(number, 0) : platform::cpuid_result{};
}

void read_avx512(const platform::cpuid_result& extended, cpu_features& features) {
  features.avx512f = bit(extended.ebx, 16);
  features.avx512dq = bit(extended.ebx, 17);
  features.avx512ifma = bit(extended.ebx, 21);
  features.avx512pf = bit(extended.ebx, 26);
  features.avx512er = bit(extended.ebx, 27);
  features.avx512cd = bit(extended.ebx, 28);
  features.avx512bw = bit(extended.ebx, 30);
  features.avx512vl = bit(extended.ebx, 31);
}

void read_wide_registers(const processor_source& source, bool system_saves,
                         cpu_features& features) {
  if (!system_saves) {
    // The system does not tell what it saves; AVX is believed as it is reported.
    if (features.avx) features.avx2 = bit(leaf(source, leaf_extended_features).ebx, 5);
    return;
  }
  if (!features.avx) return;
  const std::uint64_t saved = source.xgetbv(0);
  if ((saved & saves_avx) != saves_avx) {
    features.avx = 0;
    return;
  }
  const platform::cpuid_result extended = leaf(source, leaf_extended_features);
  features.avx2 = bit(extended.ebx, 5);
  if ((saved & saves_avx512) == saves_avx512) read_avx512(extended, features);
}

void read_brand(const processor_source& source, char (&brand)[brand_characters + 1]) {
  char* out = brand;
  for (std::uint32_t number = leaf_brand; number <= leaf_last_brand; ++number) {
    const platform::cpuid_result part = leaf(source, number);
    std::memcpy(out, &part, sizeof(part));
    out += sizeof(part);
  }
  *out = '\0';
}

}  // namespace

cpu_features read_cpu_features(const processor_source& source,
                               char (&brand)[brand_characters + 1]) {
  cpu_features features{};
  const platform::cpuid_result basic = leaf(source, leaf_features);
  features.sse = bit(basic.edx, 25);
  features.sse2 = bit(basic.edx, 26);
  features.sse3 = bit(basic.ecx, 0);
  features.ssse3 = bit(basic.ecx, 9);
  features.sse41 = bit(basic.ecx, 19);
  features.sse42 = bit(basic.ecx, 20);
  features.fma = bit(basic.ecx, 12);
  features.avx = bit(basic.ecx, 28);
  read_wide_registers(source, bit(basic.ecx, 27) != 0, features);

  const platform::cpuid_result cache = leaf(source, leaf_cache);
  features.cache_line_bytes = (cache.ebx & 0xFFF) + 1;
  features.cache_level = (cache.eax >> 5) & 7;
  read_brand(source, brand);
  features.brand = brand;
  features.detected = 1;
  return features;
}

cpu_features detect_cpu_features() {
  static std::once_flag once;
  static char brand[brand_characters + 1];
  static cpu_features features;
  std::call_once(once, [] {
    features = read_cpu_features({platform::cpuid, platform::xgetbv}, brand);
  });
  return features;
}

const char* get_cpu_architecture(const cpu_features& features) {
  if (features.avx512f) return "AVX512";
  if (features.avx2) return features.fma ? "AVX2,FMA" : "AVX2";
  if (features.avx) return features.fma ? "AVX,FMA" : "AVX";
  return features.sse42 ? "SSE4.2" : "Intel Generic";
}

const char* get_cpu_architecture() {
  return get_cpu_architecture(detect_cpu_features());
}

std::string cpu_features_report(const cpu_features& f) {
  char text[1024];
  std::snprintf(text, sizeof(text),
                "CPU Features detected:\n"
                "CPU: %s\n"
                "SSE: %d, SSE2: %d, SSE3: %d, SSSE3: %d, SSE4.1: %d, SSE4.2: %d\n"
                "AVX: %d, AVX2: %d, AVX512F: %d, FMA: %d\n"
                "AVX512DQ: %d, AVX512IFMA: %d, AVX512PF: %d, AVX512ER: %d\n"
                "AVX512CD: %d, AVX512BW: %d, AVX512VL: %d\n"
                "Cache Line Size: %u bytes, Cache Levels: %u\n",
                f.brand, f.sse, f.sse2, f.sse3, f.ssse3, f.sse41, f.sse42, f.avx, f.avx2, f.avx512f,
                f.fma, f.avx512dq, f.avx512ifma, f.avx512pf, f.avx512er, f.avx512cd, f.avx512bw,
                f.avx512vl, f.cache_line_bytes, f.cache_level);
  return text;
}

void print_cpu_features() {
  std::fputs(cpu_features_report(detect_cpu_features()).c_str(), stdout);
}

}  // namespace korvex
