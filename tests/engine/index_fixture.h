#ifndef KORVEX_TESTS_ENGINE_INDEX_FIXTURE_H
#define KORVEX_TESTS_ENGINE_INDEX_FIXTURE_H

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "engine/configuration.h"
#include "engine/indexing.h"
#include "engine/insertion.h"
#include "engine/runtime.h"
#include "engine/teardown.h"
#include "host_system.h"
#include "math/metrics.h"
#include "runtime/log.h"
#include "sanitizers.h"

// What the tests of the engine and of the searches share: data, an index that cleans up after itself, the log as a list
// of lines, and a clock that ends a test which hangs.
namespace korvex::test {

// Ends the process when the scope lasts too long: a hang shows where it is, and the other tests still run.
class watchdog {
 public:
  explicit watchdog(int seconds = (sanitized ? 60 : 20) * host_system::patience)
      : thread_([this, seconds] {
          std::unique_lock lock(mutex_);
          if (over_.wait_for(lock, std::chrono::seconds(seconds), [this] { return done_; })) return;
          std::fprintf(stderr, "the test hangs\n");
          std::abort();
        }) {}
  ~watchdog() {
    {
      std::lock_guard lock(mutex_);
      done_ = true;
    }
    over_.notify_all();
    thread_.join();
  }

 private:
  std::mutex mutex_;
  std::condition_variable over_;
  bool done_ = false;
  std::thread thread_;
};

// False when the condition did not come true in time.
inline bool eventually(const std::function<bool()>& condition,
                       int seconds = (sanitized ? 30 : 10) * host_system::patience) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(100));
  }
  return true;
}

// The library's lines since the beginning of the scope. Elsewhere they are dropped.
class log_capture {
 public:
  log_capture() {
    log_wait_empty();
    std::lock_guard lock(state().mutex);
    state().lines.clear();
  }
  static int count(const std::string& part) {
    log_wait_empty();
    std::lock_guard lock(state().mutex);
    return static_cast<int>(std::count_if(
        state().lines.begin(), state().lines.end(),
        [&](const std::string& line) { return line.find(part) != std::string::npos; }));
  }
  static void install() {
    static std::once_flag once;
    std::call_once(once, [] {
      log_init(64'000, 0);
      log_setfd(0);
      log_set_callback([](int, const char*, const char* line, const char*) {
        std::lock_guard lock(state().mutex);
        if (state().lines.size() < 20'000) state().lines.emplace_back(line);
      });
    });
  }

 private:
  struct lines_s {
    std::mutex mutex;
    std::vector<std::string> lines;
  };
  static lines_s& state() {
    static auto* const lines = new lines_s;
    return *lines;
  }
};

struct cloud {
  int dimension = 0;
  std::vector<float> values;

  int size() const { return static_cast<int>(values.size()) / dimension; }
  const float* operator[](int row) const {
    return values.data() + static_cast<std::size_t>(row) * static_cast<std::size_t>(dimension);
  }
};

// Points around `centres` centres, two units apart on each axis; `length` > 0 scales each to it.
inline cloud make_clusters(int n, int dimension, unsigned seed, int centres = 10,
                           float length = 0.0f) {
  std::mt19937 layout(4711);
  std::mt19937 generator(seed);
  std::normal_distribution<float> normal;
  const auto width = static_cast<std::size_t>(dimension);
  std::vector<float> middle(static_cast<std::size_t>(centres) * width);
  for (float& value : middle) value = 2.0f * normal(layout);
  cloud points{dimension, std::vector<float>(static_cast<std::size_t>(n) * width)};
  for (std::size_t row = 0; row < static_cast<std::size_t>(n); ++row) {
    const float* const centre = &middle[generator() % static_cast<unsigned>(centres) * width];
    float* const point = &points.values[row * width];
    double square = 0;
    for (std::size_t i = 0; i < width; ++i) {
      point[i] = centre[i] + normal(generator);
      square += static_cast<double>(point[i]) * static_cast<double>(point[i]);
    }
    if (length > 0)
      for (std::size_t i = 0; i < width; ++i)
        point[i] *= length / static_cast<float>(std::sqrt(square));
  }
  return points;
}

// Small whole numbers: many distances are equal.
inline cloud make_grid(int n, int dimension, unsigned seed, int side) {
  std::mt19937 generator(seed);
  cloud points{dimension, std::vector<float>(static_cast<std::size_t>(n) *
                                             static_cast<std::size_t>(dimension))};
  for (float& value : points.values)
    value = static_cast<float>(generator() % static_cast<unsigned>(side));
  return points;
}

// Smaller is nearer for every metric.
inline double plain_key(int metric, const float* a, const float* b, int dimension) {
  double sum = 0;
  for (int i = 0; i < dimension; ++i) {
    const double x = static_cast<double>(a[i]);
    const double y = static_cast<double>(b[i]);
    sum += metric == DISTANCE_INNER_PRODUCT ? -x * y : (x - y) * (x - y);
  }
  return metric == DISTANCE_L2 ? std::sqrt(sum) : sum;
}

// The keys of all points, ascending.
inline std::vector<double> exact_keys(int metric, const cloud& points, const float* query) {
  std::vector<double> keys;
  for (int i = 0; i < points.size(); ++i)
    keys.push_back(plain_key(metric, query, points[i], points.dimension));
  std::sort(keys.begin(), keys.end());
  return keys;
}

struct index_options {
  int dimension = 8;
  int metric = DISTANCE_L2_SQUARE;
  int probes = 1;
  int threads = 0;
  int search_threads = 2;
  int queue_limit = 64;
  int constellation = 16;
  int radius = 200;
  unsigned units = 1000;
  bool labels = false;
  bool cache = false;
  float duplicate_threshold = threshold_off;
};

// An index in memory. Closing it checks that its memory is released, not only given up.
class open_index {
 public:
  explicit open_index(const index_options& options = {}) : open_index(options, cloud{}) {}
  open_index(const index_options& options, const cloud& points) {
    log_capture::install();
    hnsw_ = korvex_init(static_cast<std::uint32_t>(options.dimension), 0, nullptr, nullptr);
    if (hnsw_ == nullptr) std::abort();
    korvex_set_distance_type(hnsw_, options.metric);
    korvex_set_partitions(hnsw_, options.probes);
    korvex_set_threads(hnsw_, options.threads);
    korvex_set_search_threads(hnsw_, options.search_threads, options.queue_limit);
    korvex_set_neighbors_count(hnsw_, options.constellation);
    korvex_set_radius(hnsw_, options.radius);
    korvex_set_alloc_units(hnsw_, options.units, 0);
    korvex_enable_label(hnsw_, options.labels ? 1 : 0);
    korvex_set_result_cache(hnsw_, options.cache ? 1 : 0);
    if (options.duplicate_threshold != threshold_off)
      korvex_set_duplicate_threshold(hnsw_, 1, options.duplicate_threshold, 1);
    runtime_ = hnsw_->runtime;
    runtime_add_handle(runtime_);
    if (points.dimension != 0) add(points);
  }
  ~open_index() {
    if (!closed_) close();
    EXPECT_TRUE(eventually([this] { return runtime_->users_gone.load(); }));
    runtime_release_handle(runtime_);
  }
  open_index(const open_index&) = delete;
  open_index& operator=(const open_index&) = delete;

  operator hnsw_s*() const { return hnsw_; }  // NOLINT: stands for the record in every call
  korvex_runtime_s* runtime() const { return runtime_; }

  void add(const cloud& points, int first = 0, int end = -1) const {
    for (int i = first; i < (end < 0 ? points.size() : end); ++i) korvex_add(hnsw_, points[i], 0);
  }
  void close() {
    closed_ = true;
    korvex_free(hnsw_);
  }
  // Somebody else gave the index up.
  void forget() { closed_ = true; }

 private:
  hnsw_s* hnsw_ = nullptr;
  korvex_runtime_s* runtime_ = nullptr;
  bool closed_ = false;
};

// A call of a host thread: it holds a claim on the index, as every call through the host classes does.
template <class Body>
bool as_host(korvex_runtime_s* runtime, Body&& body) {
  const runtime_use use(runtime);
  if (use) body();
  return static_cast<bool>(use);
}

}  // namespace korvex::test

#endif  // KORVEX_TESTS_ENGINE_INDEX_FIXTURE_H
