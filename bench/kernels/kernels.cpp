// Every family of distance kernels with every instruction set that this processor has: on vectors in the nearest cache,
// and on vectors that come from all over the memory. Beside each time stands the share of what the machine can do.
// Usage: korvex_kernels [--rows N] [options of Google Benchmark]     N: vectors in memory, default 1,000,000, or as
// many as half of the free memory holds
//   of_loads    loads from the nearest cache, of the kernels' width: 1 when nothing but loads takes time
//   of_memory   bytes from memory, read front to back
//   of_random   rows from memory in random order, each asked for ahead and touched once
#include "math/kernels.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <numeric>
#include <random>
#include <set>
#include <string>
#include <string_view>

#include "limits.h"
#include "math/metrics.h"
#include "runtime/platform/memory.h"

namespace korvex::bench {

namespace {

constexpr std::size_t dimensions[] = {4,   16,  20,  32,  64,  96,  100,  128,
                                      200, 256, 384, 512, 768, 784, 1024, 1536};
constexpr std::size_t largest_dimension = 1536;
constexpr std::size_t least_rows = 1'000;
constexpr std::size_t most_ordered = 1u << 18;  // rows that the measurement of the limit visits
constexpr std::size_t rows_an_iteration = 256;

struct family {
  const char* name;
  distance_kernel (*single)(int dimension);
  distance_batch4_kernel (*batch4)(int dimension);
};
constexpr family families[] = {
    {"l2_square", space_l2_square_get_distance_function, space_l2_square_get_batch4_function},
    {"l2", space_l2_get_distance_function, space_l2_get_batch4_function},
    {"inner_product", space_inner_product_get_distance_function,
     space_inner_product_get_batch4_function},
};

std::size_t load_bytes(std::string_view set) {
  return set.starts_with("avx512") ? 64 : set.starts_with("avx") ? 32 : 16;
}

// Times that a batch of four rows loads the query, as far as whole blocks of 16 go: once, in two halves where sums of
// four rows do not fit into the registers, or row by row where the set has no kernel for four.
std::size_t query_loads(std::string_view set, std::string_view of) {
  if (set == "default" || (set == "sse" && of != "inner_product")) return 4;
  return set.starts_with("avx") && !set.starts_with("avx512") ? 2 : 1;
}

// What all benchmarks share; limits are measured once, when the first benchmark asks for them.
class machine {
 public:
  explicit machine(std::size_t rows) : memory_(rows * largest_dimension), order_(rows) {
    std::iota(order_.begin(), order_.end(), 0u);
    std::shuffle(order_.begin(), order_.end(), std::mt19937(1));
    memory_rate_ = memory_bytes_a_second(memory_);
  }

  // The same number of rows at every dimension: the shorter ones take the front of the memory.
  const float* row(std::size_t turn, std::size_t dimension) const {
    return memory_.data() + order_[turn % order_.size()] * dimension;
  }
  const float* near_rows() const { return memory_.data(); }
  double memory_rate() const { return memory_rate_; }

  double cache_rate(std::size_t width) {
    double& rate = cache_rates_[width];
    if (rate == 0) rate = cache_bytes_a_second(width);
    return rate;
  }
  double row_seconds(std::size_t dimension) {
    double& seconds = row_seconds_[dimension];
    if (seconds == 0)
      seconds = random_row_seconds(memory_, dimension,
                                   std::span(order_).first(std::min(order_.size(), most_ordered)));
    return seconds;
  }

 private:
  const row_memory memory_;
  std::vector<std::uint32_t> order_;
  double memory_rate_ = 0;
  std::map<std::size_t, double> cache_rates_;
  std::map<std::size_t, double> row_seconds_;
};

struct subject {
  machine* on;
  const char* set;
  const family* of;
  std::size_t dimension;
  bool batch;
  bool prefetch;
};

// Of one call of a batch, or of four of a single kernel: each row once, and the query.
double loaded_bytes(const subject& s) {
  constexpr std::size_t block = 16;  // what is left over goes row by row
  const std::size_t whole = s.batch ? s.dimension / block * block : 0;
  const std::size_t of_query = whole * query_loads(s.set, s.of->name) + 4 * (s.dimension - whole);
  return static_cast<double>((4 * s.dimension + of_query) * sizeof(float));
}

// How much of `limit`, an amount a second, is reached with this amount an iteration.
benchmark::Counter share(double amount, double limit) {
  return {amount / limit, benchmark::Counter::kIsIterationInvariantRate};
}

void tell_each(benchmark::State& state, double evaluations) {
  using counter = benchmark::Counter;
  state.counters["each"] =
      counter(evaluations, counter::kIsIterationInvariantRate | counter::kInvert);
}

void run_near(benchmark::State& state, const subject& s) {
  kernels_force(s.set);
  const distance_kernel single = s.of->single(static_cast<int>(s.dimension));
  const distance_batch4_kernel batch4 = s.of->batch4(static_cast<int>(s.dimension));
  const float* const query = s.on->near_rows();
  const float* rows[4];
  for (std::size_t i = 0; i < 4; ++i) rows[i] = query + (i + 1) * s.dimension;
  float out[4];
  for ([[maybe_unused]] auto _ : state) {
    benchmark::DoNotOptimize(rows);
    if (s.batch)
      batch4(query, rows, s.dimension, out);
    else
      for (std::size_t i = 0; i < 4; ++i) out[i] = single(query, rows[i], s.dimension);
    benchmark::DoNotOptimize(out);
  }
  tell_each(state, 4);
  state.counters["of_loads"] = share(loaded_bytes(s), s.on->cache_rate(load_bytes(s.set)));
}

void run_random(benchmark::State& state, const subject& s) {
  kernels_force(s.set);
  const distance_kernel single = s.of->single(static_cast<int>(s.dimension));
  const distance_batch4_kernel batch4 = s.of->batch4(static_cast<int>(s.dimension));
  const std::vector<float> query(s.dimension, 0.5f);
  const double row_seconds = s.on->row_seconds(s.dimension);
  float out[4];
  std::size_t turn = 0;
  for ([[maybe_unused]] auto _ : state) {
    for (const std::size_t end = turn + rows_an_iteration; turn < end; turn += 4) {
      const float* rows[4];
      for (std::size_t i = 0; i < 4; ++i) rows[i] = s.on->row(turn + i, s.dimension);
      if (s.prefetch)
        for (std::size_t i = 0; i < 4; ++i)
          prefetch_row(s.on->row(turn + i + prefetch_lead, s.dimension), s.dimension);
      if (s.batch)
        batch4(query.data(), rows, s.dimension, out);
      else
        for (std::size_t i = 0; i < 4; ++i) out[i] = single(query.data(), rows[i], s.dimension);
      benchmark::DoNotOptimize(out);
    }
  }
  tell_each(state, rows_an_iteration);
  state.counters["of_memory"] = share(
      static_cast<double>(rows_an_iteration * s.dimension * sizeof(float)), s.on->memory_rate());
  state.counters["of_random"] = share(rows_an_iteration * row_seconds, 1);
}

void register_set(machine* on, const kernel_set& set) {
  for (const family& of : families)
    for (const std::size_t dimension : dimensions)
      for (const bool batch : {false, true}) {
        const std::string tail = std::string(of.name) + "/" + set.name + "/" +
                                 std::to_string(dimension) + (batch ? "/four" : "/one");
        const subject s{on, set.name, &of, dimension, batch, false};
        benchmark::RegisterBenchmark(("near/" + tail).c_str(),
                                     [s](benchmark::State& state) { run_near(state, s); });
        for (const bool prefetch : {false, true}) {
          subject far = s;
          far.prefetch = prefetch;
          benchmark::RegisterBenchmark(
              ("random/" + tail + (prefetch ? "/prefetch" : "/plain")).c_str(),
              [far](benchmark::State& state) { run_random(state, far); });
        }
      }
}

// Rows of the largest dimension that leave half of the memory to others.
std::size_t usual_rows() {
  constexpr std::size_t usual = 1'000'000;
  constexpr std::size_t row_bytes = largest_dimension * sizeof(float);
  constexpr double gigabyte = 1e9;
  const std::uint64_t available = platform::available_memory();
  if (available == 0 || available / 2 / row_bytes >= usual) return usual;
  const auto rows = std::max<std::size_t>(available / 2 / row_bytes, least_rows);
  std::fprintf(
      stderr,
      "%zu vectors in place of %zu: these would take %.1f GB, and %.1f GB are free; --rows "
      "asks for a number\n",
      rows, usual, static_cast<double>(usual * row_bytes) / gigabyte,
      static_cast<double>(available) / gigabyte);
  return rows;
}

// Takes --rows N out of the arguments.
std::size_t take_rows(int* argc, char** argv) {
  for (int i = 1; i + 1 < *argc; ++i) {
    if (std::string_view(argv[i]) != "--rows") continue;
    const std::size_t rows = std::strtoull(argv[i + 1], nullptr, 10);
    std::copy(argv + i + 2, argv + *argc, argv + i);
    *argc -= 2;
    return std::max(rows, least_rows);
  }
  return usual_rows();
}

int run(int argc, char** argv) {
  const std::size_t rows = take_rows(&argc, argv);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  distance_init();
  machine on(rows);
  std::set<std::size_t> widths;
  for (const kernel_set& set : supported_kernels()) {
    register_set(&on, set);
    widths.insert(load_bytes(set.name));
  }
  for (const std::size_t width : widths)
    benchmark::AddCustomContext(
        "nearest cache, GB a second, loads of " + std::to_string(width) + " bytes",
        std::to_string(on.cache_rate(width) * 1e-9));
  benchmark::AddCustomContext("memory, GB a second", std::to_string(on.memory_rate() * 1e-9));
  benchmark::AddCustomContext("vectors in memory", std::to_string(rows));
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}

}  // namespace

}  // namespace korvex::bench

int main(int argc, char** argv) {
  try {
    return korvex::bench::run(argc, argv);
  } catch (const std::bad_alloc&) {
    std::fprintf(stderr, "korvex_kernels: not enough memory; ask for fewer vectors with --rows\n");
    return 1;
  }
}
