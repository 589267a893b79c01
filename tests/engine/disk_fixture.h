#ifndef KORVEX_TESTS_ENGINE_DISK_FIXTURE_H
#define KORVEX_TESTS_ENGINE_DISK_FIXTURE_H

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "engine/index_fixture.h"
#include "runtime/platform/threads.h"
#include "search/direct.h"

// An index on disk, in a directory of its own.
namespace korvex::test {

class scratch_directory {
 public:
  scratch_directory() {
    static std::atomic<int> made{0};
    path_ = std::filesystem::temp_directory_path() /
            ("korvex-engine-" + std::to_string(platform::process_id()) + "-" +
             std::to_string(made.fetch_add(1)));
    std::filesystem::remove_all(path_);
    std::filesystem::create_directories(path_);
  }
  ~scratch_directory() { std::filesystem::remove_all(path_); }
  scratch_directory(const scratch_directory&) = delete;
  scratch_directory& operator=(const scratch_directory&) = delete;
  std::string path() const { return path_.string(); }

 private:
  std::filesystem::path path_;
};

// The files of the indexes under a base.
inline std::string folder_of(const std::string& base) {
  return base + "/nimbra-korvex/0";
}

struct disk_index_options {
  int dimension = 8;
  int probes = 1;
  int constellation = 8;
  unsigned units = 64;
  bool labels = false;
  bool index_check = false;
};

// Linked by the adding thread, so that equal input gives equal files. The destructor closes it.
class disk_index {
 public:
  disk_index(const std::string& base, const char* name, const disk_index_options& options) {
    log_capture::install();
    hnsw_ = korvex_init(static_cast<std::uint32_t>(options.dimension), 0, base.c_str(), name);
    if (hnsw_ == nullptr) std::abort();
    runtime_ = hnsw_->runtime;
    runtime_add_handle(runtime_);
    korvex_set_threads(hnsw_, 0);
    korvex_set_search_threads(hnsw_, 1, 64);
    korvex_set_partitions(hnsw_, options.probes);
    korvex_set_neighbors_count(hnsw_, options.constellation);
    korvex_set_alloc_units(hnsw_, options.units, 0);
    korvex_enable_label(hnsw_, options.labels ? 1 : 0);
    korvex_enable_index_check(hnsw_, options.index_check ? 1 : 0);
  }
  ~disk_index() {
    korvex_free(hnsw_);
    EXPECT_TRUE(eventually([this] { return runtime_->users_gone.load(); }));
    runtime_release_handle(runtime_);
  }
  disk_index(const disk_index&) = delete;
  disk_index& operator=(const disk_index&) = delete;

  operator hnsw_s*() const { return hnsw_; }  // NOLINT: stands for the record in every call

 private:
  hnsw_s* hnsw_ = nullptr;
  korvex_runtime_s* runtime_ = nullptr;
};

// The additions that succeed, from row `first` on, until one fails.
inline int add_until_refused(hnsw_s* hnsw, const cloud& data, int first = 0) {
  for (int i = first; i < data.size(); ++i)
    if (korvex_add(hnsw, data[i], 0) != static_cast<std::uint32_t>(i)) return i;
  return data.size();
}

// How many of the first n points are found by a query for themselves.
inline int found(hnsw_s* hnsw, const cloud& data, int n) {
  int hits = 0;
  direct_options options;
  options.radius = 100;
  for (int i = 0; i < n; ++i) {
    std::uint32_t id = 0;
    if (korvex_search_direct(hnsw, data[i], 1, 1, &options, &id, nullptr, nullptr) == 1)
      hits += id == static_cast<std::uint32_t>(i) ? 1 : 0;
  }
  return hits;
}

}  // namespace korvex::test

#endif  // KORVEX_TESTS_ENGINE_DISK_FIXTURE_H
