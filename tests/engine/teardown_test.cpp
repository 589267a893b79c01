#include "engine/teardown.h"

#include <atomic>

#include "engine/index_fixture.h"
#include "host_system.h"
#include "runtime/platform/process.h"
#include "search/session.h"

namespace korvex {
namespace {

using namespace test;

TEST(Teardown, ThreadSlotsAreTakenFromTheLowestOn) {
  const open_index index;
  for (int slot = 0; slot < 32; ++slot) EXPECT_EQ(korvex_get_thread_index(index), slot);
  EXPECT_EQ(korvex_get_thread_index(index), -1);
  const log_capture lines;
  for (const int slot : {-1, 32, 5}) korvex_free_thread_index(index, slot);
  EXPECT_EQ(korvex_get_thread_index(index), 5);
  EXPECT_EQ(log_capture::count("thread index was not in use"), 0);
  for (int slot = 0; slot < 32; ++slot) korvex_free_thread_index(index, slot);
  korvex_free_thread_index(index, 7);
  EXPECT_EQ(log_capture::count("thread index was not in use: 7"), 1);
}

std::chrono::milliseconds time_to_close(open_index* index) {
  const auto begin = std::chrono::steady_clock::now();
  index->close();
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                               begin);
}

// However much is left to link, the end comes at once; the fixture checks that the last thread released everything.
TEST(Teardown, DestroyingWhileIndexingIsBounded) {
  const watchdog guard;
  const cloud points = make_clusters(2'000, 16, 1);
  for (int round = 0; round < 20; ++round) {
    open_index index({.dimension = 16, .probes = 1 + round % 3, .threads = 1 + round % 4});
    index.add(points, 0, 100 * round + 1);
    std::vector<std::thread> waiting;
    for (int i = 0; i < round % 3; ++i)
      waiting.emplace_back(
          [&] { as_host(index.runtime(), [&] { korvex_wait_finish_adding(index); }); });
    EXPECT_LT(time_to_close(&index).count(), sanitized ? 5'000 : 1'000);
    for (std::thread& thread : waiting) thread.join();
  }
}

// Threads that are about to fall asleep when the stop comes must not sleep on it.
TEST(Teardown, IdleThreadsLeaveAtOnce) {
  const watchdog guard;
  const cloud points = make_clusters(20, 2, 1);
  for (int round = 0; round < (sanitized ? 60 : 300); ++round) {
    open_index index({.dimension = 2, .threads = 3}, points);
    while (korvex_has_finish_adding(index) == 0) continue;
    const auto moment =
        std::chrono::steady_clock::now() + std::chrono::nanoseconds(round % 60 * 50);
    while (std::chrono::steady_clock::now() < moment) continue;
    index.close();
    EXPECT_TRUE(eventually([&] { return index.runtime()->users_gone.load(); }, 1)) << round;
    if (HasFailure()) break;
  }
}

TEST(Teardown, AnIdleIndexUsesNoProcessorTime) {
  const cloud points = make_clusters(2'000, 8, 1);
  const open_index index({.dimension = 8, .probes = 2, .threads = 3, .search_threads = 3}, points);
  const std::uint32_t sid = korvex_search_init(index, 10, nullptr);
  for (int i = 0; i < 50; ++i) {
    EXPECT_EQ(korvex_search(index, sid, points[i], 100, 10), 0u);
    korvex_search_result(index, sid, 0);
  }
  const double before = host_system::processor_seconds();
  std::this_thread::sleep_for(std::chrono::seconds(1));
  EXPECT_LT(host_system::processor_seconds() - before, 0.02);
  korvex_search_free(index, sid);
}

TEST(Teardown, RoundsLeaveMemoryFlat) {
  const watchdog guard;
  const cloud points = make_clusters(500, 64, 1);
  const auto round = [&] {
    const open_index index(
        {.dimension = 64, .probes = 2, .threads = 2, .labels = true, .cache = true}, points);
    const std::uint32_t sid = korvex_search_init(index, 10, nullptr);
    for (int i = 0; i < 20; ++i) {
      EXPECT_EQ(korvex_search(index, sid, points[i], 100, 10), 0u);
      korvex_search_result_ids(index, sid, 1);
      korvex_search_result_dists(index, sid, 1);
      korvex_search_result(index, sid, 1);
    }
    // Every other time the session is left to the index.
    if (sid % 2 == 0) korvex_search_free(index, sid);
  };
  // Heaps settle after some rounds, later on one system than on another; a leak never does.
  const int rounds = sanitized ? 2 : 30;
  const std::uint64_t most = sanitized ? 200'000'000 : 2'000'000;
  std::vector<std::uint64_t> resident = {platform::process_memory().resident_bytes};
  do {
    for (int i = 0; i < rounds; ++i) round();
    resident.push_back(platform::process_memory().resident_bytes);
  } while (resident.size() < 6 && resident.back() > resident.end()[-2] + most);
  EXPECT_LE(resident.back(), resident.end()[-2] + most) << testing::PrintToString(resident);
}

}  // namespace
}  // namespace korvex
