#include "engine/insertion.h"

#include <atomic>
#include <limits>

#include "engine/index_fixture.h"
#include "engine/points.h"
#include "runtime/platform/faults.h"
#include "search/session.h"

namespace korvex {
namespace {

using namespace test;
using platform::fault_point;

// Lets threads, or all kinds of memory, run out for the time of a scope, from the n-th operation
// on.
class failing {
 public:
  explicit failing(fault_point point, int after = 0) {
    chosen() = point;
    left() = after;
    platform::current_fault_hook.store([](fault_point at) {
      const bool memory = at == fault_point::map_anonymous || at == fault_point::heap;
      const bool meant = at == chosen() || (memory && chosen() == fault_point::heap);
      return meant && left().fetch_sub(1) <= 0;
    });
  }
  ~failing() { platform::current_fault_hook.store(nullptr); }

 private:
  static fault_point& chosen() {
    static fault_point point;
    return point;
  }
  static std::atomic<int>& left() {
    static std::atomic<int> count;
    return count;
  }
};

TEST(Insertion, RefusesWhatIsNoVectorAndGoesOn) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  const cloud bad{4, {nan, 0, 0, 0, 1, 2, 3, inf, 0, -inf, 0, inf, nan, nan, nan, nan}};
  const cloud good = make_clusters(60, 4, 1);
  for (const int threads : {0, 2}) {
    const open_index index({.dimension = 4, .probes = 2, .threads = threads});
    for (int i = 0; i < 30; ++i) {
      EXPECT_EQ(korvex_add(index, good[i], 0), static_cast<std::uint32_t>(i));
      const log_capture lines;
      EXPECT_EQ(korvex_add(index, bad[i % 4], 0), 0u);
      EXPECT_EQ(log_capture::count("**CRITICAL**"), 1);
    }
    korvex_validate_parameters(index, 0);  // taken then, and harmless
    for (int i = 0; i < 4; ++i)
      EXPECT_EQ(korvex_add(index, bad[i], 0), 30u + static_cast<std::uint32_t>(i));
    for (int i = 30; i < 60; ++i) korvex_add(index, good[i], 0);
    korvex_wait_finish_adding(index);
    EXPECT_EQ(load_counter(static_cast<hnsw_s*>(index)->networked), 64u);
  }
}

TEST(Insertion, CountsEveryPointWhoeverLinksIt) {
  const cloud points = make_clusters(20, 3, 1);
  for (const int threads : {0, 1, 3}) {
    for (const int n : {1, 2, 3, 4, 20}) {
      const open_index index({.dimension = 3, .probes = 3, .threads = threads});
      std::uint32_t first = 9;
      std::uint32_t last = 9;
      korvex_add_multiple(index, points[0], n, &first, &last);
      EXPECT_EQ(first, 0u);
      EXPECT_EQ(last, static_cast<std::uint32_t>(n) - 1);
      EXPECT_EQ(index.runtime()->multi_done.load(), n > 1 ? 1u : 0u);
      korvex_wait_finish_adding(index);
      const hnsw_s& record = *static_cast<hnsw_s*>(index);
      EXPECT_EQ(korvex_has_finish_adding(index), 1);
      EXPECT_EQ(record.networked, static_cast<std::uint32_t>(n));
      EXPECT_EQ(record.taken, record.added);
      EXPECT_EQ(record.probes_made, static_cast<std::uint32_t>(std::min(n, 3)));
      EXPECT_EQ(record.max_seed, record.probes_made);
    }
  }
}

// Threads that retire and points that arrive at the same moment: nobody waits, so nobody repairs.
TEST(Insertion, NoPointIsLostWhileThreadsRetire) {
  const watchdog guard;
  const cloud points = make_clusters((sanitized ? 500 : 3'000) / host_system::patience, 2, 1);
  for (const int threads : {1, 3}) {
    const open_index index({.dimension = 2, .threads = threads, .constellation = 2, .radius = 1});
    std::atomic<bool> over{false};
    std::thread retiring([&] {  // what a waiting host asks of idle threads
      while (!over.load()) index.runtime()->stop_adding.store(1);
    });
    std::mt19937 random(1);
    for (int i = 0; i < points.size(); ++i) {
      const auto moment =
          std::chrono::steady_clock::now() + std::chrono::nanoseconds(random() % 60'000);
      while (std::chrono::steady_clock::now() < moment) continue;
      korvex_add(index, points[i], 0);
      if (!eventually([&] { return korvex_has_finish_adding(index) == 1; })) {
        ADD_FAILURE() << "point " << i << " is never linked";
        break;
      }
    }
    over = true;
    retiring.join();
  }
}

TEST(Insertion, GoesOnWithoutThreads) {
  const watchdog guard;
  const cloud points = make_clusters(100, 3, 1);
  const open_index index({.dimension = 3, .threads = 2});
  {
    const failing no_threads(fault_point::thread);
    index.add(points, 0, 50);
    EXPECT_EQ(index.runtime()->running_threads.load(), 0u);
    korvex_wait_finish_adding(index);
    EXPECT_EQ(load_counter(static_cast<hnsw_s*>(index)->networked), 50u);
    const std::uint32_t sid = korvex_search_init(index, 5, nullptr);
    EXPECT_EQ(korvex_search(index, sid, points[7], 50, 5), 0u);
    EXPECT_EQ(korvex_search_result(index, sid, 0)->ids[0], 7u);
  }
  index.add(points, 50);
  korvex_wait_finish_adding(index);
  EXPECT_EQ(load_counter(static_cast<hnsw_s*>(index)->networked), 100u);
}

TEST(Insertion, AFailedAllocationCostsNoId) {
  const cloud points = make_clusters(1'100, 4, 1);
  int thrown = 0;
  for (int after = 0; after < 8; ++after) {
    const open_index index({.dimension = 4, .probes = 2, .units = 1000});
    {
      const failing no_memory(fault_point::heap, after);
      try {
        korvex_add(index, points[0], 0);
      } catch (const std::exception&) {
        ++thrown;  // the start-up gave everything back and tries again
        EXPECT_EQ(load_counter(static_cast<hnsw_s*>(index)->memory_initialised), 0u);
      }
    }
    if (load_counter(static_cast<hnsw_s*>(index)->added) == 0) korvex_add(index, points[0], 0);
    std::uint32_t expected = 1;
    for (int i = 1; i < points.size(); ++i) {
      // A block of every store is full now and then.
      const failing no_memory(fault_point::heap, i % 3);
      const std::uint32_t before = load_counter(static_cast<hnsw_s*>(index)->added);
      std::uint32_t id = korvex_add(index, points[i], 0);
      if (load_counter(static_cast<hnsw_s*>(index)->added) == before) {
        platform::current_fault_hook.store(nullptr);
        id = korvex_add(index, points[i], 0);
      }
      ASSERT_EQ(id, expected++);
      ASSERT_EQ(0, std::memcmp(vector_of(*index.runtime(), id + 1), points[i], 4 * sizeof(float)));
    }
    if (sanitized) break;
  }
  EXPECT_GT(thrown, 0);
}

struct listener {
  hnsw_s* hnsw;
  const cloud* points;
  std::atomic<int> calls{0};
  std::atomic<std::uint32_t> networked{0};
};

// The notice comes once, when it is due, and its callback may use the index as any host does.
TEST(Insertion, TheReadyNoticeComesOnceAndMayUseTheIndex) {
  const watchdog guard;
  const cloud points = make_clusters(300, 3, 1);
  for (const int threads : {0, 1, 3}) {
    const open_index index({.dimension = 3, .probes = 2, .threads = threads});
    korvex_runtime_s& runtime = *index.runtime();
    listener host{index, &points};
    index.add(points, 0, 10);
    runtime.ready_threshold.store(100);
    runtime.ready_context.store(&host);
    // Full again at each point while they come one by one; the threshold matters only while points wait.
    runtime.ready_callback.store([](void* context, std::uint32_t networked, std::uint32_t added) {
      auto& self = *static_cast<listener*>(context);
      EXPECT_TRUE(networked == added || networked >= 100) << networked << " of " << added;
      EXPECT_LE(networked, added);
      korvex_add(self.hnsw, (*self.points)[0], 0);
      korvex_wait_finish_adding(self.hnsw);
      const std::uint32_t sid = korvex_search_init(self.hnsw, 3, nullptr);
      EXPECT_EQ(korvex_search(self.hnsw, sid, (*self.points)[5], 50, 3), 0u);
      EXPECT_EQ(korvex_search_result(self.hnsw, sid, 0)->ids[0], 5u);
      korvex_search_free(self.hnsw, sid);
      self.networked = networked;
      ++self.calls;
      return 0;
    });
    index.add(points, 10, 250);
    korvex_wait_finish_adding(index);
    EXPECT_TRUE(eventually([&] { return host.calls.load() == 1; })) << threads;
    index.add(points, 250);
    korvex_wait_finish_adding(index);
    EXPECT_EQ(host.calls.load(), 1);
    EXPECT_GT(host.networked.load(), 9u);
  }
}

std::uint32_t copies_found(hnsw_s* hnsw, const float* v) {
  const std::uint32_t sid = korvex_search_init(hnsw, 10, nullptr);
  EXPECT_EQ(korvex_search(hnsw, sid, v, 200, 10), 0u);
  const korvex_results_s& results = *korvex_search_result(hnsw, sid, 0);
  const auto copies = static_cast<std::uint32_t>(
      std::count(results.distances, results.distances + results.count, 0.0f));
  korvex_search_free(hnsw, sid);
  return copies;
}

TEST(Insertion, OfExactCopiesOneStaysVisible) {
  const watchdog guard;
  const cloud points = make_clusters(40, 6, 3, 1);
  for (const int threads : {0, 2}) {
    for (const float threshold : {0.0f, threshold_off}) {
      const open_index index(
          {.dimension = 6, .threads = threads, .duplicate_threshold = threshold});
      for (int copy = 0; copy < 4; ++copy) {
        index.add(points);
        korvex_wait_finish_adding(index);
      }
      int single = 0;
      for (int i = 0; i < points.size(); ++i) single += copies_found(index, points[i]) == 1 ? 1 : 0;
      EXPECT_EQ(single, threshold == 0.0f ? points.size() : 0) << threads;
      EXPECT_EQ(load_counter(static_cast<hnsw_s*>(index)->networked), 160u);
      // Linked here they stay in the graph; threads leave all but one aside.
      EXPECT_EQ(load_counter(static_cast<hnsw_s*>(index)->duplicates),
                threads > 0 && threshold == 0.0f ? 120u : 0u);
    }
  }
}

// A hidden original cannot stand for its copy.
TEST(Insertion, ACopyOfADeletedPointIsVisible) {
  const cloud points = make_clusters(30, 4, 1, 30);
  for (const int threads : {0, 2}) {
    const open_index index({.dimension = 4, .threads = threads, .duplicate_threshold = 0.0f},
                           points);
    for (std::uint32_t id = 0; id < 30; ++id) korvex_delete(index, id, 0);
    index.add(points);
    korvex_wait_finish_adding(index);
    for (int i = 0; i < points.size(); ++i)
      EXPECT_EQ(copies_found(index, points[i]), 1u) << threads << " " << i;
  }
}

}  // namespace
}  // namespace korvex
