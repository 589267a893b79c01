#include <atomic>
#include <set>

#include "engine/index_fixture.h"
#include "engine/points.h"
#include "search/session.h"

// Sessions against everything that may happen beside them: additions, deletions, their own
// callbacks, the end of the index.
namespace korvex {
namespace {

using namespace test;

std::vector<std::uint32_t> ids_of(hnsw_s* hnsw, std::uint32_t sid) {
  const korvex_results_s* const results = korvex_search_result(hnsw, sid, 0);
  return results == nullptr
             ? std::vector<std::uint32_t>{}
             : std::vector<std::uint32_t>(results->ids, results->ids + results->count);
}

// Blocks of the stores are small: they grow, and their tables move, while readers walk.
TEST(Stress, SearchingWhileTheIndexGrows) {
  const watchdog guard(120);
  const int n = sanitized ? 3'500 : 12'000;
  const cloud points = make_clusters(n, 4, 1);
  const open_index first({.dimension = 4,
                          .probes = 2,
                          .threads = 2,
                          .constellation = 4,
                          .units = 1000,
                          .labels = true});
  const open_index second(
      {.dimension = 4, .metric = DISTANCE_L2, .threads = 1, .constellation = 4, .units = 1000});
  std::atomic<std::uint32_t> added{0};
  std::atomic<bool> over{false};
  std::vector<std::thread> threads;
  threads.emplace_back([&] {
    for (int i = 0; i < n; ++i) {
      korvex_add(first, points[i], 0);
      korvex_set_label(first, static_cast<std::uint32_t>(i), static_cast<std::uint64_t>(i));
      added = static_cast<std::uint32_t>(i) + 1;
      if (i % 2 == 0) korvex_add(second, points[i], 0);
    }
    over = true;
  });
  for (int reader = 0; reader < 3; ++reader)
    threads.emplace_back([&, reader] {
      std::mt19937 random(static_cast<unsigned>(reader));
      const open_index& index = reader == 2 ? second : first;
      const std::uint32_t sid = korvex_search_init(index, 10, nullptr);
      while (!over.load()) {
        const std::uint32_t known = added.load();
        if (known < 10) continue;
        const std::uint32_t wanted = random() % known & ~1u;
        // What was added before the search began is found by it: the nearest is at distance 0.
        ASSERT_EQ(korvex_search(index, sid, points[static_cast<int>(wanted)], 60, 5), 0u);
        const korvex_results_s& found = *korvex_search_result(index, sid, 0);
        ASSERT_GT(found.count, 0u);
        if (reader == 0) {
          korvex_delete(index, wanted, 0);
          korvex_delete(index, wanted, 1);
          EXPECT_EQ(korvex_get_label(index, wanted), wanted);
        } else if (reader == 1) {
          korvex_search_more(index, sid);
          for (const std::uint32_t id : ids_of(index, sid))
            ASSERT_LT(id, load_counter(static_cast<hnsw_s*>(index)->added));
        }
      }
      korvex_search_free(index, sid);
    });
  for (std::thread& thread : threads) thread.join();
  for (const open_index* index : {&first, &second}) {
    const std::uint32_t sid = korvex_search_init(*index, 10, nullptr);
    int exact = 0;
    for (int i = 0; i < 200; ++i) {
      EXPECT_EQ(korvex_search(*index, sid, points[i * 2], 100, 1), 0u);
      const korvex_results_s& found = *korvex_search_result(*index, sid, 0);
      exact += found.count == 1 && found.distances[0] == 0.0f ? 1 : 0;
    }
    EXPECT_GE(exact, 196);
    korvex_search_free(*index, sid);
  }
}

struct asked {
  hnsw_s* hnsw;
  const cloud* points;
  std::atomic<int> left{0};
  std::atomic<int> right{0};
  std::atomic<std::uint32_t> other{0};
};

// In its callback a session may read, ask again, have another session answer, and give itself up.
TEST(Stress, ASessionLivesOnItsOwnCallback) {
  const watchdog guard;
  const cloud points = make_clusters(300, 3, 1);
  for (const int probes : {1, 3}) {
    for (const int threads : {1, 3}) {
      const open_index index(
          {.dimension = 3, .probes = probes, .search_threads = threads, .queue_limit = 1}, points);
      for (int round = 0; round < 20 / host_system::patience; ++round) {
        asked host{index, &points, {30}, {}, {korvex_search_init(index, 3, nullptr)}};
        const auto on_results = [](unsigned sid, const void* data) {
          auto& self = *static_cast<asked*>(const_cast<void*>(data));
          const int at = self.left.load();
          self.right += ids_of(self.hnsw, sid)[0] == static_cast<std::uint32_t>(at) ? 1 : 0;
          EXPECT_EQ(korvex_search(self.hnsw, self.other, (*self.points)[at + 100], 50, 3), 0u);
          self.right +=
              ids_of(self.hnsw, self.other)[0] == static_cast<std::uint32_t>(at + 100) ? 1 : 0;
          if (at > 1) {
            self.left = at - 1;
            EXPECT_EQ(korvex_search(self.hnsw, sid, (*self.points)[at - 1], 50, 3), 0u);
            return 0;
          }
          korvex_search_free(self.hnsw, sid);
          korvex_search_free(self.hnsw, self.other);
          self.left = 0;
          return 0;
        };
        const std::uint32_t sid = korvex_search_init(index, 3, nullptr);
        korvex_search_set_callbacks(index, sid, nullptr, on_results, &host);
        EXPECT_EQ(korvex_search(index, sid, points[30], 50, 3), 0u);
        ASSERT_TRUE(eventually([&] { return host.left.load() == 0; }));
        EXPECT_EQ(host.right.load(), 60);
      }
    }
  }
}

// A record that a callback gave up may serve somebody else while that callback still runs.
TEST(Stress, AFreedSessionDoesNotHoldItsNextOwner) {
  const watchdog guard;
  const cloud points = make_clusters(50, 3, 1);
  const open_index index({.dimension = 3}, points);
  struct host_s {
    hnsw_s* hnsw;
    std::atomic<bool> freed{false};
    std::atomic<bool> go{false};
    std::atomic<bool> left{false};
  } host{index, {}, {}, {}};
  const std::uint32_t sid = korvex_search_init(index, 3, nullptr);
  korvex_search_set_callbacks(
      index, sid, nullptr,
      [](unsigned own, const void* data) {
        auto& self = *static_cast<host_s*>(const_cast<void*>(data));
        korvex_search_free(self.hnsw, own);
        self.freed = true;
        eventually([&] { return self.go.load(); });
        self.left = true;
        return 0;
      },
      &host);
  EXPECT_EQ(korvex_search(index, sid, points[0], 50, 3), 0u);
  ASSERT_TRUE(eventually([&] { return host.freed.load(); }));
  const std::uint32_t next = korvex_search_init(index, 3, nullptr);
  EXPECT_EQ(next, sid);
  korvex_search_free(index, next);
  EXPECT_FALSE(host.left.load());
  host.go = true;
  EXPECT_TRUE(eventually([&] { return host.left.load(); }));
}

// A filter that asks the index runs in the middle of a walk; with one thread the answer comes from
// the thread that walks.
TEST(Stress, AFilterMaySearchOnTheThreadThatWalks) {
  const watchdog guard;
  const cloud points = make_clusters(400, 3, 1);
  for (const int probes : {1, 2}) {
    const open_index index({.dimension = 3, .probes = probes, .search_threads = 1}, points);
    const std::uint32_t sid = korvex_search_init(index, 20, nullptr);
    EXPECT_EQ(korvex_search(index, sid, points[5], 100, 20), 0u);
    const std::vector<std::uint32_t> expected = ids_of(index, sid);
    asked host{index, &points, {}, {}, {}};
    const auto filter = [](const void* data, unsigned id, unsigned long long) {
      auto& self = *static_cast<asked*>(const_cast<void*>(data));
      if (id % 10 != 0) return 0;
      const std::uint32_t other = korvex_search_init(self.hnsw, 3, nullptr);
      EXPECT_EQ(korvex_search(self.hnsw, other, (*self.points)[200], 50, 3), 0u);
      self.right += ids_of(self.hnsw, other)[0] == 200 ? 1 : 0;
      korvex_search_free(self.hnsw, other);
      return 0;
    };
    korvex_search_set_callbacks(index, sid, filter, nullptr, &host);
    EXPECT_EQ(korvex_search(index, sid, points[5], 100, 20), 0u);
    EXPECT_EQ(ids_of(index, sid), expected);
    EXPECT_GT(host.right.load(), 5);
  }
}

// One session, many hosts: exactly one search at a time is taken, and each end wakes all who wait.
TEST(Stress, ABusySessionRefusesAndIsUnharmed) {
  const watchdog guard;
  const cloud points = make_clusters(500, 4, 1);
  const open_index index({.dimension = 4, .probes = 2, .queue_limit = 0}, points);
  const std::uint32_t sid = korvex_search_init(index, 10, nullptr);
  std::atomic<int> taken{0};
  std::atomic<int> told{0};
  korvex_search_set_callbacks(
      index, sid, nullptr,
      [](unsigned, const void* data) {
        ++*static_cast<std::atomic<int>*>(const_cast<void*>(data));
        return 0;
      },
      &told);
  std::vector<std::thread> hosts;
  for (int host = 0; host < 4; ++host)
    hosts.emplace_back([&, host] {
      for (int i = 0; i < 200; ++i) {
        const bool took = korvex_search(index, sid, points[host * 100 + i % 100], 50, 10) == 0;
        taken += took ? 1 : 0;
        korvex_search_result(index, sid, 0);  // never hangs, whoever's search it is
      }
    });
  for (std::thread& host : hosts) host.join();
  EXPECT_TRUE(eventually([&] { return told.load() == taken.load(); }));
  EXPECT_GT(taken.load(), 0);
  korvex_search_set_callbacks(index, sid, nullptr, nullptr, nullptr);
  EXPECT_EQ(korvex_search(index, sid, points[77], 50, 10), 0u);
  EXPECT_EQ(ids_of(index, sid)[0], 77u);
}

struct ending {
  open_index* index;
  std::atomic<bool> inside{false};
  std::atomic<bool> go{false};
};

// Jobs that wait behind a host's callback are completed as empty, and everybody who waits returns.
TEST(Stress, DestroyingWakesWhoeverWaits) {
  const watchdog guard;
  const cloud points = make_clusters(300, 4, 1);
  for (const int probes : {1, 3}) {
    open_index index({.dimension = 4, .probes = probes, .search_threads = 1, .queue_limit = 8},
                     points);
    ending host{&index, {}, {}};
    const std::uint32_t blocking = korvex_search_init(index, 3, nullptr);
    korvex_search_set_callbacks(
        index, blocking, nullptr,
        [](unsigned, const void* data) {
          auto& self = *static_cast<ending*>(const_cast<void*>(data));
          self.inside = true;
          eventually([&] { return self.go.load(); });
          return 0;
        },
        &host);
    EXPECT_EQ(korvex_search(index, blocking, points[0], 50, 3), 0u);
    ASSERT_TRUE(eventually([&] { return host.inside.load(); }));
    std::atomic<int> queued{0};
    std::atomic<int> returned{0};
    std::vector<std::thread> waiting;
    for (int i = 0; i < 12; ++i)  // more than the queue takes: some wait for room
      waiting.emplace_back([&, i] {
        as_host(index.runtime(), [&] {
          const std::uint32_t sid = korvex_search_init(index, 3, nullptr);
          ++queued;
          korvex_search(index, sid, points[i], 50, 3);
          korvex_search_result(index, sid, 0);
          if (i % 2 == 0) korvex_search_free(index, sid);
        });
        ++returned;
      });
    ASSERT_TRUE(eventually([&] { return queued.load() == 12; }));
    const auto begin = std::chrono::steady_clock::now();
    index.close();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(sanitized ? 5 : 1));
    for (std::thread& thread : waiting) thread.join();
    EXPECT_EQ(returned.load(), 12);
    EXPECT_FALSE(index.runtime()->users_gone.load());  // the callback still runs on its memory
    host.go = true;
  }
}

TEST(Stress, DestroyingInsideACallback) {
  const watchdog guard;
  const cloud points = make_clusters(300, 4, 1);
  for (int round = 0; round < 12; ++round) {
    open_index index(
        {.dimension = 4, .probes = 1 + round % 3, .threads = 2, .search_threads = 1 + round % 2},
        points);
    index.forget();
    const std::uint32_t sid = korvex_search_init(index, 3, nullptr);
    ending host{&index, {}, {}};
    const auto destroy = [](unsigned own, const void* data) {
      auto& self = *static_cast<ending*>(const_cast<void*>(data));
      if (own % 2 == 0) korvex_search_free(*self.index, own);
      self.index->close();
      self.inside = true;
      return 0;
    };
    korvex_search_set_callbacks(index, sid, nullptr, destroy, &host);
    as_host(index.runtime(), [&] {
      std::vector<std::uint32_t> others;
      for (int i = 0; i < round; ++i) others.push_back(korvex_search_init(index, 3, nullptr));
      EXPECT_EQ(korvex_search(index, sid, points[0], 50, 3), 0u);
      for (const std::uint32_t other : others) {
        korvex_search(index, other, points[1], 50,
                      3);  // refused or cut short once the end has begun
        korvex_search_result(index, other, 0);
      }
    });
    EXPECT_TRUE(eventually([&] { return host.inside.load(); }));
    EXPECT_FALSE(as_host(index.runtime(), [] {}));
  }
}

}  // namespace
}  // namespace korvex
