#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "crash/posix/crash_report.h"
#include "crash/posix/flush_record.h"
#include "engine/configuration.h"
#include "engine/indexing.h"
#include "engine/insertion.h"
#include "engine/points.h"
#include "engine/runtime.h"
#include "engine/sync.h"
#include "engine/teardown.h"
#include "runtime/log.h"
#include "search/session.h"
#include "storage/persistent_allocator.h"

// crash_child BASE REPORT use|check SEED [DEVICE]: works on the index "crash" until it is killed, or looks for every
// row that a report says was added.
namespace korvex::test {
namespace {

constexpr long long junk_block = 1 << 20;
constexpr unsigned most_junk = 18 << 20;

struct arguments {
  std::string base, report, verb, seed, device;
  std::string folder() const { return base + "/nimbra-korvex/0"; }
};

hnsw_s* open_index(const arguments& given) {
  hnsw_s* const index = korvex_init(row_dimension, 0, given.base.c_str(), "crash");
  if (index == nullptr) return nullptr;
  korvex_set_threads(index, 2);
  korvex_set_search_threads(index, 2, 64);
  korvex_set_partitions(index, 2);
  korvex_set_neighbors_count(index, 6);
  korvex_set_radius(index, 50);
  korvex_set_alloc_units(index, 500, 0);
  korvex_set_result_cache(index, 2);
  korvex_enable_label(index, 1);
  return index;
}

class worker {
 public:
  worker(const arguments& given, unsigned seed)
      : given_(given), report_(given.report), random_(seed) {}

  // Opens, adds, closes, and begins again.
  int run() {
    while (true) {
      const bool compacts = random_() % 2 == 0 && leave_blocks_to_compact();
      report_.enter(compacts ? phase::compacting : phase::opening);
      index_ = open_index(given_);
      if (index_ == nullptr) return 1;
      report_.enter(phase::starting);
      korvex_search_init(index_, 1, nullptr);
      use();
      report_.enter(phase::closing);
      close();
    }
  }

 private:
  // So that the next opening moves the blocks of the index file together: a block that grows leaves a deleted one.
  bool leave_blocks_to_compact() const {
    const std::string file = given_.folder() + "/crash.korvex";
    if (::access(file.c_str(), F_OK) != 0) return false;
    persistent_malloc_s* const blocks = persistent_malloc_init(file.c_str(), 1);
    if (blocks == nullptr) return false;
    unsigned bytes = 0;
    persistent_malloc(blocks, junk_block, 1 << 20, &bytes);
    bytes += 2 << 20;
    void* const block =
        bytes < most_junk ? persistent_malloc(blocks, junk_block, bytes, nullptr) : nullptr;
    if (block != nullptr) std::memset(block, 1, bytes);
    persistent_malloc_destroy(blocks);
    return block != nullptr;
  }

  // On a busy machine the last thread may leave after korvex_free has returned; until then the files are in use.
  void close() {
    korvex_runtime_s* const runtime = index_->runtime;
    runtime_add_handle(runtime);
    korvex_free(index_);
    while (!runtime->users_gone.load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    runtime_release_handle(runtime);
  }

  void use() {
    const unsigned batches = 1 + random_() % 4;
    for (unsigned batch = 0; batch < batches; ++batch) {
      report_.enter(phase::adding);
      add(100 + random_() % 400);
      if (random_() % 2 == 0) sync();
    }
    if (random_() % 2 == 0) {
      report_.enter(phase::linking);
      korvex_wait_finish_adding(index_);
    }
  }

  void add(std::uint32_t rows) {
    std::vector<std::uint32_t> missing;
    for (std::uint32_t row = 0; row < most_rows && missing.size() < rows; ++row)
      if (report_->id[row].load() == 0) missing.push_back(row);
    const auto add_half = [&](std::size_t first) {
      for (std::size_t i = first; i < missing.size(); i += 2) {
        const auto vector = row_vector(missing[i]);
        const std::uint32_t id = korvex_add(index_, vector.data(), 0);
        report_->id[missing[i]].store(id + 1);
        if (random_label(missing[i])) korvex_set_label(index_, id, missing[i]);
      }
    };
    std::thread other(add_half, 1);
    add_half(0);
    other.join();
  }

  static bool random_label(std::uint32_t row) { return row % 3 == 0; }

  void sync() {
    std::vector<std::uint32_t> returned;
    for (std::uint32_t row = 0; row < most_rows; ++row)
      if (report_->id[row].load() != 0) returned.push_back(row);
    report_.enter(phase::syncing);
    if (korvex_sync_to_disk(index_, 0) != 0) return;
    for (const std::uint32_t row : returned) report_->synced[row].store(1);
  }

  const arguments& given_;
  const shared_report report_;
  std::mt19937 random_;
  hnsw_s* index_ = nullptr;
};

// Whether the nearest vector is the row itself.
bool finds(hnsw_s* index, std::uint32_t session, std::uint32_t row) {
  const auto vector = row_vector(row);
  if (korvex_search(index, session, vector.data(), 50, 1) != 0) return false;
  const korvex_results_s* const results = korvex_search_result(index, session, 0);
  return results != nullptr && results->count != 0 && results->distances[0] < 1e-3f;
}

// Whether the point still is what was added, and an answer. A search may overlook it all the same, rarely.
bool keeps(hnsw_s* index, std::uint32_t id, std::uint32_t row) {
  const auto vector = row_vector(row);
  const float* const stored = vector_of(*index->runtime, id);
  return stored != nullptr && std::memcmp(stored, vector.data(), sizeof vector) == 0 &&
         korvex_is_flag_set_internal(index, id, flags_hidden) == 0;
}

int check(const arguments& given) {
  const shared_report report(given.report);
  hnsw_s* const index = open_index(given);
  if (index == nullptr) return 1;
  const std::uint32_t session = korvex_search_init(index, 1, nullptr);
  report->asked = report->found = report->kept = report->lost_row = 0;
  for (std::uint32_t row = 0; row < most_rows; ++row) {
    if (report->id[row].load() == 0) continue;
    report->asked += 1;
    if (finds(index, session, row)) report->found += 1;
    if (keeps(index, report->id[row].load(), row))
      report->kept += 1;
    else
      report->lost_row = row;
  }
  korvex_wait_finish_adding(index);
  korvex_search_free(index, session);
  korvex_free(index);
  return 0;
}

}  // namespace
}  // namespace korvex::test

int main(int count, char** words) {
  using namespace korvex::test;
  if (count < 5) return 2;
  const arguments given{words[1], words[2], words[3], words[4], count > 5 ? words[5] : ""};
  korvex::log_init(64'000, 0);
  korvex::log_setfd(0);
  korvex::log_setpath((given.base + "/" + given.verb + ".log").c_str());
  if (!given.device.empty()) record_flushes(given.folder(), given.device);
  if (given.verb == "check") return check(given);
  return worker(given, static_cast<unsigned>(std::stoul(given.seed))).run();
}
