#include "search/bulk.h"

#include <atomic>
#include <limits>

#include "engine/index_fixture.h"
#include "runtime/platform/faults.h"

namespace korvex {
namespace {

using namespace test;
using ids = std::vector<std::uint32_t>;

// A batch record as a host object holds it: it may be given up at any time, also inside its callback.
class batch {
 public:
  explicit batch(hnsw_s* hnsw) : hnsw_(hnsw) {}
  ~batch() { korvex_bulk_search_release(&record_); }
  batch(const batch&) = delete;
  batch& operator=(const batch&) = delete;

  std::uint32_t ask(const cloud& queries, int radius, int k,
                    search_result_callback callback = nullptr, const void* data = nullptr,
                    int n = -1) {
    return korvex_bulk_search(hnsw_, &record_, queries.values.data(), n < 0 ? queries.size() : n,
                              radius, k, callback, data);
  }
  ids rows() {
    const korvex_bulk_results_s& view = *korvex_bulk_search_results(hnsw_, &record_);
    EXPECT_EQ(view.valid, 1u);
    return ids(view.ids, view.ids + std::size_t{view.k} * view.query_count);
  }
  korvex_bulk_search_s* record() { return &record_; }

 private:
  hnsw_s* const hnsw_;
  korvex_bulk_search_s record_{};
};

// The same queries one by one; rows end in zeros.
ids one_by_one(hnsw_s* hnsw, const cloud& queries, int radius, int k) {
  ids out;
  const std::uint32_t sid = korvex_search_init(hnsw, k, nullptr);
  for (int q = 0; q < queries.size(); ++q) {
    EXPECT_EQ(korvex_search(hnsw, sid, queries[q], radius, k), 0u);
    const korvex_results_s& found = *korvex_search_result(hnsw, sid, 0);
    out.insert(out.end(), found.ids, found.ids + found.count);
    out.resize(static_cast<std::size_t>(k) * static_cast<std::size_t>(q + 1));
  }
  korvex_search_free(hnsw, sid);
  return out;
}

TEST(Bulk, RowsAreTheAnswersOfTheirQueries) {
  const watchdog guard;
  const cloud points = make_clusters(sanitized ? 300 : 900, 5, 1);
  for (const int probes : {1, 2, 16}) {
    for (const int threads : {1, 3}) {
      // A beam that holds all a probe has: parallel walks then find the same whatever their timing.
      const open_index index({.dimension = 5,
                              .probes = probes,
                              .threads = 2,
                              .search_threads = threads,
                              .queue_limit = 3},
                             points);
      korvex_wait_finish_adding(index);
      batch asking(index);
      for (const int n : {1, 2, 7, sanitized ? 40 : 150}) {
        const cloud queries = make_clusters(n, 5, 2);
        const int k = n == 7 ? 1'000 : 10;  // more than there are
        EXPECT_EQ(asking.ask(queries, 900, k), 0u);
        EXPECT_EQ(asking.rows(), one_by_one(index, queries, 900, k))
            << probes << " probes, " << n << " queries";
        EXPECT_EQ(asking.rows().size(), static_cast<std::size_t>(n * k));
      }
    }
  }
}

struct call_count {
  std::atomic<int> calls{0};
};

int count_call(unsigned, const void* data) {
  ++static_cast<call_count*>(const_cast<void*>(data))->calls;
  return 0;
}

TEST(Bulk, BadInputIsZeroRowsAndAnEnd) {
  const watchdog guard;
  const cloud queries = make_clusters(6, 3, 2);
  const cloud none{3, {}};
  for (const int probes : {1, 4}) {
    const open_index index({.dimension = 3, .probes = probes, .threads = 1});
    batch asking(index);
    call_count told;
    EXPECT_EQ(korvex_bulk_search_results(index, nullptr), nullptr);
    EXPECT_EQ(korvex_bulk_search_results(index, asking.record())->query_count, 0u);
    EXPECT_EQ(korvex_bulk_search(nullptr, asking.record(), queries[0], 1, 10, 10, nullptr, nullptr),
              search_failed);
    EXPECT_EQ(korvex_bulk_search(index, nullptr, queries[0], 1, 10, 10, nullptr, nullptr),
              search_failed);
    // Nothing was added yet.
    EXPECT_EQ(asking.ask(queries, 10, 5), 0u);
    EXPECT_EQ(asking.rows(), ids(30));
    EXPECT_EQ(asking.ask(queries, 10, 5, count_call, &told), 0u);
    EXPECT_EQ(asking.rows(), ids(30));
    EXPECT_TRUE(eventually([&] { return told.calls.load() == 1; }));
    index.add(make_clusters(40, 3, 1));
    EXPECT_EQ(asking.ask(none, 10, 5), 0u);
    EXPECT_TRUE(asking.rows().empty());
    EXPECT_EQ(asking.ask(queries, 10, 5, nullptr, nullptr, -7), 0u);
    EXPECT_EQ(asking.ask(none, 10, 5, count_call, &told, 3), 0u);  // a null address of vectors
    EXPECT_EQ(asking.rows(), ids(15));
    for (const int k : {0, -3}) {
      EXPECT_EQ(asking.ask(queries, 100, k), 0u);
      EXPECT_EQ(asking.rows(), one_by_one(index, queries, 100, 10));
    }
    cloud spoilt = queries;
    spoilt.values[7] = std::numeric_limits<float>::quiet_NaN();
    ids expected = one_by_one(index, queries, 100, 4);
    std::fill(expected.begin() + 8, expected.begin() + 12, 0u);
    EXPECT_EQ(asking.ask(spoilt, 100, 4), 0u);
    EXPECT_EQ(asking.rows(), expected);
    EXPECT_EQ(asking.ask(queries, -5, 1 << 16), 0u);  // more results than points
    EXPECT_EQ(asking.rows().size(), std::size_t{6} << 16);
  }
}

TEST(Bulk, RunsOnTheCallerWhenThereAreNoThreads) {
  const watchdog guard;
  const cloud points = make_clusters(200, 3, 1);
  const open_index index({.dimension = 3, .probes = 2}, points);
  platform::current_fault_hook = [](platform::fault_point at) {
    return at == platform::fault_point::thread;
  };
  batch asking(index);
  EXPECT_EQ(asking.ask(points, 200, 1), 0u);
  const ids rows = asking.rows();
  platform::current_fault_hook = nullptr;
  EXPECT_EQ(rows, one_by_one(index, points, 200, 1));
}

struct chain {
  hnsw_s* hnsw;
  const cloud* queries;
  batch* asking;
  ids expected;
  std::atomic<int> left;
  std::atomic<bool> over{false};
};

// Each end starts the next batch on the same record; the last one gives the record up.
int next_batch(unsigned, const void* data) {
  auto& self = *static_cast<chain*>(const_cast<void*>(data));
  EXPECT_EQ(self.asking->rows(), self.expected);
  if (--self.left > 0) {
    EXPECT_EQ(self.asking->ask(*self.queries, 100, 3, next_batch, &self), 0u);
    return 0;
  }
  delete self.asking;
  self.over = true;
  return 0;
}

TEST(Bulk, ACallbackMayReuseOrGiveUpItsBatch) {
  const watchdog guard;
  const cloud points = make_clusters(300, 3, 1);
  const cloud queries = make_clusters(9, 3, 2);
  for (const int probes : {1, 3}) {
    for (const int threads : {1, 2}) {
      const open_index index(
          {.dimension = 3, .probes = probes, .search_threads = threads, .queue_limit = 1}, points);
      for (int round = 0; round < (sanitized ? 3 : 10); ++round) {
        chain self{index, &queries, new batch(index), one_by_one(index, queries, 100, 3), {10}, {}};
        EXPECT_EQ(self.asking->ask(queries, 100, 3, next_batch, &self), 0u);
        EXPECT_TRUE(eventually([&] { return self.over.load(); }));
      }
      // Given up while it runs, and reused while it runs.
      batch reused(index);
      for (int round = 0; round < (sanitized ? 3 : 10); ++round) {
        batch dropped(index);
        EXPECT_EQ(dropped.ask(points, 100, 3), 0u);
        EXPECT_EQ(reused.ask(queries, 100, 3), 0u);
      }
      EXPECT_EQ(reused.rows(), one_by_one(index, queries, 100, 3));
    }
  }
}

struct nested {
  hnsw_s* hnsw;
  const cloud* queries;
  ids expected;
  std::atomic<int> right{0};
};

// One search thread only: whatever a callback waits for, that thread has to do itself.
TEST(Bulk, ABatchInsideACallbackOfTheOnlyThreadEnds) {
  const watchdog guard;
  const cloud points = make_clusters(300, 3, 1);
  const cloud queries = make_clusters(20, 3, 2);
  for (const int probes : {1, 4}) {
    const open_index index(
        {.dimension = 3, .probes = probes, .search_threads = 1, .queue_limit = 1}, points);
    nested self{index, &queries, one_by_one(index, queries, 100, 3), {}};
    batch outer(index);
    const auto inner_batch = [](unsigned, const void* data) {
      auto& host = *static_cast<nested*>(const_cast<void*>(data));
      batch inner(host.hnsw);
      inner.ask(*host.queries, 100, 3);
      host.right += inner.rows() == host.expected ? 1 : 0;
      return 0;
    };
    EXPECT_EQ(outer.ask(queries, 100, 3, inner_batch, &self), 0u);
    EXPECT_TRUE(eventually([&] { return self.right.load() == 1; }));
  }
}

TEST(Bulk, ManyHostsShareSixteenProbesAndTwoThreads) {
  const watchdog guard(120);
  const cloud points = make_clusters(sanitized ? 250 : 800, 6, 1);
  const cloud queries = make_clusters(60, 6, 2);
  const open_index index({.dimension = 6, .probes = 16, .threads = 2, .queue_limit = 4}, points);
  korvex_wait_finish_adding(index);
  const ids expected = one_by_one(index, queries, 800, 10);
  std::vector<std::thread> hosts;
  for (int host = 0; host < 8; ++host)
    hosts.emplace_back([&, host] {
      for (int round = 0; round < 2; ++round) {
        if (host % 2 == 0) {
          EXPECT_EQ(one_by_one(index, queries, 800, 10), expected);
          continue;
        }
        batch first(index);
        batch second(index);
        call_count told;
        EXPECT_EQ(first.ask(queries, 800, 10, count_call, &told), 0u);
        EXPECT_EQ(second.ask(queries, 800, 10), 0u);
        EXPECT_EQ(second.rows(), expected);
        EXPECT_EQ(first.rows(), expected);
        EXPECT_TRUE(eventually([&] { return told.calls.load() == 1; }));
      }
    });
  for (std::thread& host : hosts) host.join();
}

// What was not answered by then is zero rows; who waits returns, the callback comes.
TEST(Bulk, DestroyingTheIndexEndsARunningBatch) {
  const watchdog guard;
  const cloud points = make_clusters(sanitized ? 300 : 1000, 8, 1);
  const cloud queries = make_clusters(sanitized ? 500 : 2000, 8, 2);
  for (int round = 0; round < 12; ++round) {
    open_index index({.dimension = 8, .probes = 1 + round % 3, .search_threads = 1 + round % 2},
                     points);
    call_count told;
    std::atomic<bool> running{false};
    std::thread host([&] {
      as_host(index.runtime(), [&] {
        batch asking(index);
        const bool tells = round % 4 < 2;
        asking.ask(queries, 100, 5, tells ? count_call : nullptr, &told);
        running = true;
        EXPECT_EQ(asking.rows().size(), 5 * static_cast<std::size_t>(queries.size()));
        EXPECT_TRUE(eventually([&] { return told.calls.load() == (tells ? 1 : 0); }));
      });
      running = true;
    });
    if (round % 2 == 0) eventually([&] { return running.load(); });
    index.close();
    host.join();
  }
}

}  // namespace
}  // namespace korvex
