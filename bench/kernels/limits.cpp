#include "limits.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <new>

namespace korvex::bench {

namespace {

constexpr int tries = 5;
constexpr std::size_t near_bytes = 16 * 1024;  // fits the nearest cache of every processor

template <class Work>
double fastest_seconds(const Work& work) {
  double best = 1e9;
  for (int i = 0; i < tries; ++i) {
    const auto begin = std::chrono::steady_clock::now();
    work();
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    best = std::min(best, took.count());
  }
  return best;
}

using word_16 __attribute__((vector_size(16))) = std::uint64_t;
using word_32 __attribute__((vector_size(32))) = std::uint64_t;
using word_64 __attribute__((vector_size(64))) = std::uint64_t;

using loader = void (*)(const void* data, std::size_t bytes, std::size_t passes);

// Loads and one cheap operation each, on eight chains that do not wait for one another. A macro: a shared function
// would be taken apart into narrow loads before it is compiled for the instruction set of its caller.
#define KORVEX_LOAD_ALL(word)                                                          \
  const word* const words = static_cast<const word*>(data);                            \
  word sums[8] = {};                                                                   \
  for (std::size_t pass = 0; pass < passes; ++pass) {                                  \
    for (std::size_t i = 0; i + 8 <= bytes / sizeof(word); i += 8)                     \
      for (std::size_t chain = 0; chain < 8; ++chain) sums[chain] ^= words[i + chain]; \
    asm volatile("" ::: "memory"); /* the next pass loads again */                     \
  }                                                                                    \
  for (std::size_t chain = 1; chain < 8; ++chain) sums[0] ^= sums[chain];              \
  benchmark::DoNotOptimize(sums[0][0])

#if defined(__x86_64__)
#define KORVEX_COMPILED_FOR(isa) __attribute__((target(isa)))
#else
#define KORVEX_COMPILED_FOR(isa)
#endif

void load_16(const void* data, std::size_t bytes, std::size_t passes) {
  KORVEX_LOAD_ALL(word_16);
}
KORVEX_COMPILED_FOR("avx2")
void load_32(const void* data, std::size_t bytes, std::size_t passes) {
  KORVEX_LOAD_ALL(word_32);
}
KORVEX_COMPILED_FOR("avx512f")
void load_64(const void* data, std::size_t bytes, std::size_t passes) {
  KORVEX_LOAD_ALL(word_64);
}

double bytes_a_second(loader load, const void* words, std::size_t bytes, std::size_t passes) {
  return static_cast<double>(bytes * passes) / fastest_seconds([&] { load(words, bytes, passes); });
}

}  // namespace

row_memory::row_memory(std::size_t floats)
    : floats_(floats),
      data_(static_cast<float*>(
          platform::map_anonymous(floats * sizeof(float), 0, false, &mapped_bytes_))) {
  if (data_ == nullptr) throw std::bad_alloc();
  for (std::size_t i = 0; i < floats; ++i) data_[i] = static_cast<float>(i % 251) * 0.01f;
}

double cache_bytes_a_second(std::size_t load_bytes) {
  constexpr std::size_t passes = 20'000;
  alignas(64) static const std::uint64_t words[near_bytes / sizeof(std::uint64_t)] = {};
  const loader load = load_bytes == 64 ? load_64 : load_bytes == 32 ? load_32 : load_16;
  return bytes_a_second(load, words, near_bytes, passes);
}

double memory_bytes_a_second(const row_memory& memory) {
  return bytes_a_second(load_16, memory.data(), memory.floats() * sizeof(float), 1);
}

double random_row_seconds(const row_memory& memory, std::size_t dimension,
                          std::span<const std::uint32_t> order) {
  constexpr std::size_t floats_a_line = 16;
  const auto row = [&](std::size_t i) { return memory.data() + order[i] * dimension; };
  const double seconds = fastest_seconds([&] {
    float sum = 0;
    for (std::size_t i = 0; i < order.size(); ++i) {
      if (i + prefetch_lead < order.size()) prefetch_row(row(i + prefetch_lead), dimension);
      for (std::size_t at = 0; at < dimension; at += floats_a_line) sum += row(i)[at];
    }
    benchmark::DoNotOptimize(sum);
  });
  return seconds / static_cast<double>(order.size());
}

}  // namespace korvex::bench
