#include "search/direct.h"

#include <atomic>
#include <set>

#include "engine/index_fixture.h"
#include "engine/points.h"
#include "engine/startup.h"
#include "runtime/platform/clock.h"
#include "search/session.h"

namespace korvex {
namespace {

using namespace test;

constexpr std::uint32_t no_id = 0xFFFFFFFFu;

struct rows {
  rows(std::size_t n, int width)
      : k(width),
        ids(n * static_cast<std::size_t>(width), 1),
        distances(ids.size(), 1),
        counts(n, 1) {}
  int k;
  std::vector<std::uint32_t> ids;
  std::vector<float> distances;
  std::vector<std::uint32_t> counts;

  std::vector<std::uint32_t> row(std::size_t i) const {
    const auto begin = ids.begin() + static_cast<std::ptrdiff_t>(i) * k;
    return {begin, begin + counts[i]};
  }
};

rows ask(hnsw_s* hnsw, const cloud& queries, int k, const direct_options& options = {}) {
  const auto n = static_cast<std::size_t>(queries.size());
  rows found(n, k);
  EXPECT_EQ(korvex_search_direct(hnsw, queries.values.data(), n, k, &options, found.ids.data(),
                                 found.distances.data(), found.counts.data()),
            static_cast<std::int64_t>(n));
  return found;
}

// Keys of the k nearest that `keep` allows, ascending.
template <class Keep>
std::vector<double> exact(int metric, const cloud& points, const float* query, int k, Keep&& keep) {
  std::vector<double> keys;
  for (int i = 0; i < points.size(); ++i)
    if (keep(static_cast<std::uint32_t>(i)))
      keys.push_back(plain_key(metric, query, points[i], points.dimension));
  std::sort(keys.begin(), keys.end());
  keys.resize(std::min(keys.size(), static_cast<std::size_t>(k)));
  return keys;
}

bool everyone(std::uint32_t) {
  return true;
}

// Every row: as many as there are, none twice, in order, with their true distances; the mean share
// of the exact answer.
template <class Keep>
double checked_recall(int metric, const cloud& points, const cloud& queries, const rows& found,
                      Keep&& keep) {
  double sum = 0;
  for (int q = 0; q < queries.size(); ++q) {
    const auto row = static_cast<std::size_t>(q);
    const auto keys = exact(metric, points, queries[q], found.k, keep);
    EXPECT_EQ(found.counts[row], keys.size()) << "query " << q;
    std::set<std::uint32_t> seen;
    double last = -1e30;
    int hits = 0;
    for (std::size_t i = 0; i < static_cast<std::size_t>(found.k); ++i) {
      const std::size_t place = row * static_cast<std::size_t>(found.k) + i;
      if (i >= found.counts[row]) {
        EXPECT_EQ(found.ids[place], no_id);
        EXPECT_TRUE(std::isnan(found.distances[place]));
        continue;
      }
      const std::uint32_t id = found.ids[place];
      EXPECT_TRUE(seen.insert(id).second) << "id " << id << " twice";
      EXPECT_TRUE(keep(id)) << "id " << id << " is not allowed";
      const double key =
          plain_key(metric, queries[q], points[static_cast<int>(id)], points.dimension);
      const double sign = metric == DISTANCE_INNER_PRODUCT ? -1 : 1;
      EXPECT_NEAR(static_cast<double>(found.distances[place]), sign * key,
                  1e-4 * std::max(1.0, std::fabs(key)));
      EXPECT_GE(key, last - 1e-4 * std::max(1.0, std::fabs(key)));
      last = key;
      hits += key <= keys.back() + 1e-4 * std::max(1.0, std::fabs(keys.back())) ? 1 : 0;
    }
    sum += keys.empty() ? 1.0 : hits / static_cast<double>(keys.size());
  }
  return sum / queries.size();
}

TEST(DirectSearch, FindsTheNearestOfAllProbesUnderEveryMetric) {
  const cloud points = make_clusters(sanitized ? 1000 : 3000, 24, 1);
  const cloud queries = make_clusters(sanitized ? 20 : 60, 24, 2);
  for (const int metric : {DISTANCE_L2_SQUARE, DISTANCE_L2, DISTANCE_INNER_PRODUCT})
    for (const int probes : {1, 4}) {
      const open_index index({.dimension = 24, .metric = metric, .probes = probes}, points);
      const rows found = ask(index, queries, 10, {.radius = 200});
      EXPECT_GE(checked_recall(metric, points, queries, found, everyone), 0.95)
          << "metric " << metric << " probes " << probes;
    }
}

// The queue walks as far: what one finds the other finds.
TEST(DirectSearch, AgreesWithTheQueue) {
  const cloud points = make_clusters(thread_sanitized ? 1000 : 3000, 16, 3);
  const cloud queries = make_clusters(50, 16, 4);
  const open_index index({.dimension = 16, .probes = 2}, points);
  const rows found = ask(index, queries, 10, {.radius = 100});
  const std::uint32_t sid = korvex_search_init(index, 10, nullptr);
  for (int q = 0; q < queries.size(); ++q) {
    ASSERT_EQ(korvex_search(index, sid, queries[q], 100, 10), 0u);
    const korvex_results_s& queued = *korvex_search_result(index, sid, 0);
    EXPECT_EQ(found.row(static_cast<std::size_t>(q)),
              std::vector<std::uint32_t>(queued.ids, queued.ids + queued.count));
  }
  korvex_search_free(index, sid);
}

// A list (with repeats and ids that do not exist), a bitmap, a filter on labels, and all at once;
// from half of the points down to none.
TEST(DirectSearch, AnswersOnlyWithAllowedPoints) {
  const cloud points = make_clusters(4000, 16, 5);
  const cloud queries = make_clusters(thread_sanitized ? 3 : 20, 16, 6);
  const open_index index({.dimension = 16, .probes = 2, .labels = true});
  for (int i = 0; i < points.size(); ++i)
    korvex_add(index, points[i], static_cast<std::uint64_t>(i) * 7);
  for (const std::uint32_t step : {2u, 9u, 150u, 2000u, 100'000u}) {
    const auto keep = [step](std::uint32_t id) { return id % step == step / 2; };
    std::vector<std::uint32_t> list = {no_id, 4000, 123'456'789};
    std::vector<std::uint64_t> bits(63);  // 4,032: more than there are
    for (std::uint32_t id = 0; id < 4000; ++id) {
      if (!keep(id)) continue;
      list.push_back(id);
      list.insert(list.begin(), id);
      bits[id / 64] |= std::uint64_t{1} << (id % 64);
    }
    bits[62] |= std::uint64_t{1} << 63;
    std::uint32_t wanted = step;
    const auto filter = [](void* context, std::uint32_t id, std::uint64_t label) {
      EXPECT_EQ(label, id * 7ull);
      const std::uint32_t every = *static_cast<std::uint32_t*>(context);
      return id % every == every / 2 ? 0 : 1;
    };
    direct_options by[4];
    for (direct_options& options : by) options.radius = 100;
    by[0].allowed_ids = by[3].allowed_ids = list.data();
    by[0].allowed_count = by[3].allowed_count = list.size();
    by[1].allowed_bits = by[3].allowed_bits = bits.data();
    by[1].allowed_bit_count = by[3].allowed_bit_count = 64 * bits.size();
    by[2].filter = by[3].filter = filter;
    by[2].filter_context = by[3].filter_context = &wanted;
    for (const direct_way way : {direct_way::walk, direct_way::scan, direct_way::cheaper})
      for (direct_options& options : by) {
        options.way = way;
        const rows found = ask(index, queries, 10, options);
        EXPECT_GE(checked_recall(DISTANCE_L2_SQUARE, points, queries, found, keep),
                  way == direct_way::scan ? 1.0 : 0.95)
            << "step " << step << " by " << &options - by << " way " << static_cast<int>(way);
      }
  }
}

// The few allowed points lie where the queries are not.
TEST(DirectSearch, FindsAllowedPointsFarFromTheQuery) {
  const cloud points = make_clusters(5000, 8, 7, 20);
  const cloud queries = make_clusters(20, 8, 8, 20);
  const open_index index({.dimension = 8}, points);
  std::vector<std::uint64_t> bits(79);
  std::vector<std::pair<double, std::uint32_t>> far;
  for (int i = 0; i < points.size(); ++i)
    far.emplace_back(-plain_key(DISTANCE_L2_SQUARE, points[i], queries[0], 8),
                     static_cast<std::uint32_t>(i));
  std::sort(far.begin(), far.end());
  for (std::size_t i = 0; i < 600; ++i)
    bits[far[i].second / 64] |= std::uint64_t{1} << (far[i].second % 64);
  const auto keep = [&](std::uint32_t id) { return (bits[id / 64] >> (id % 64) & 1) != 0; };
  for (const direct_way way : {direct_way::walk, direct_way::cheaper}) {
    const rows found =
        ask(index, queries, 10,
            {.radius = 50, .allowed_bits = bits.data(), .allowed_bit_count = 5000, .way = way});
    EXPECT_GE(checked_recall(DISTANCE_L2_SQUARE, points, queries, found, keep), 0.95);
  }
}

TEST(DirectSearch, NeverReturnsDeletedPoints) {
  const cloud points = make_clusters(3000, 8, 9);
  const cloud queries = make_clusters(30, 8, 10);
  const open_index index({.dimension = 8, .probes = 2}, points);
  std::mt19937 generator(11);
  std::vector<bool> deleted(3000);
  for (const int share : {1, 50, 99, 100}) {  // per cent
    for (std::uint32_t id = 0; id < 3000; ++id) {
      deleted[id] = static_cast<int>(generator() % 100) < share;
      ASSERT_EQ(korvex_delete(index, id, deleted[id] ? 0 : 1), 0);
    }
    const auto live = [&](std::uint32_t id) { return !deleted[id]; };
    for (const direct_way way : {direct_way::walk, direct_way::cheaper}) {
      const rows found = ask(index, queries, 10, {.radius = 100, .way = way});
      EXPECT_GE(checked_recall(DISTANCE_L2_SQUARE, points, queries, found, live), 0.95) << share;
    }
  }
}

TEST(DirectSearch, SmallIndexesAreAnsweredInFull) {
  for (const int n : {0, 1, 2, 5, 40}) {
    const cloud points = make_clusters(std::max(n, 1), 4, 12);
    const open_index index({.dimension = 4, .probes = 3});
    index.add(points, 0, n);
    const rows found = ask(index, points, 50);
    for (const std::uint32_t count : found.counts) EXPECT_EQ(count, static_cast<std::uint32_t>(n));
  }
}

TEST(DirectSearch, RefusesBadArguments) {
  const cloud points = make_clusters(10, 4, 13);
  const open_index index({.dimension = 4}, points);
  std::uint32_t ids[4];
  const float* const query = points[0];
  const float nan[4] = {0, std::numeric_limits<float>::quiet_NaN(), 0, 0};
  const auto ask_raw = [&](hnsw_s* hnsw, const float* from, std::size_t n, int k,
                           std::uint32_t* to) {
    return korvex_search_direct(hnsw, from, n, k, nullptr, to, nullptr, nullptr);
  };
  EXPECT_EQ(ask_raw(index, query, 1, 4, ids), 1);
  EXPECT_EQ(ask_raw(index, query, 0, 4, ids), 0);
  EXPECT_EQ(ask_raw(nullptr, query, 1, 4, ids), -1);
  EXPECT_EQ(ask_raw(index, nullptr, 1, 4, ids), -1);
  EXPECT_EQ(ask_raw(index, query, 1, 4, nullptr), -1);
  EXPECT_EQ(ask_raw(index, query, 1, 0, ids), -1);
  EXPECT_EQ(ask_raw(index, query, 1, -5, ids), -1);
  EXPECT_EQ(ask_raw(index, query, 1, std::numeric_limits<int>::max(), ids), -1);
  EXPECT_EQ(ask_raw(index, nan, 1, 4, ids), -1);
}

// A filter that takes its time runs into the deadline: the rows from there on say so.
TEST(DirectSearch, KeepsItsDeadline) {
  const cloud points = make_clusters(4000, 4, 14);
  const cloud queries = make_clusters(200, 4, 15);
  const open_index index({.dimension = 4}, points);
  const auto slow = [](void*, std::uint32_t id, std::uint64_t) {
    platform::sleep_usec(20);
    return id % 1000 == 0 ? 0 : 1;
  };
  rows found(200, 10);
  const direct_options options{.radius = 50, .filter = slow, .deadline_ms = 60};
  const std::uint64_t begin = platform::time_ms();
  const std::int64_t answered =
      korvex_search_direct(index, queries.values.data(), 200, 10, &options, found.ids.data(),
                           found.distances.data(), found.counts.data());
  EXPECT_LT(platform::time_ms() - begin, 60u + (sanitized ? 5000u : 1500u));
  EXPECT_LT(answered, 100);
  ASSERT_GE(answered, 0);
  for (std::size_t i = static_cast<std::size_t>(answered) + 1; i < 200; ++i) {
    EXPECT_EQ(found.counts[i], 0u);
    EXPECT_EQ(found.ids[10 * i], no_id);
  }
  for (std::int64_t i = 0; i < answered; ++i)
    EXPECT_EQ(found.counts[static_cast<std::size_t>(i)], 4u) << i;
}

// Searches on many threads beside additions and deletions: each sees what was added before it began
// and nothing that was deleted before.
TEST(DirectSearch, ManyThreadsBesideAdditionsAndDeletions) {
  const watchdog guard;
  const cloud points = make_clusters(sanitized ? 600 : 3000, 8, 16);
  const open_index index({.dimension = 8, .probes = 2, .threads = 2});
  index.add(points, 0, 100);
  std::atomic<int> added{100};
  std::atomic<bool> over{false};
  const auto search = [&](unsigned seed) {
    std::mt19937 generator(seed);
    while (!over) {
      const int newest = added.load() - 1;
      const int one = static_cast<int>(generator() % static_cast<unsigned>(newest + 1));
      const int pick = generator() % 2 == 0 ? newest : one;
      std::uint32_t id[3];
      float distance[3];
      std::uint32_t count = 0;
      const direct_options options{.radius = 100};
      ASSERT_EQ(korvex_search_direct(index, points[pick], 1, 3, &options, id, distance, &count), 1);
      ASSERT_EQ(count, 3u);
      for (const std::uint32_t found : id)
        EXPECT_TRUE(found % 10 != 9 || static_cast<int>(found) > newest) << found;
      if (pick % 10 != 9) {
        EXPECT_EQ(id[0], static_cast<std::uint32_t>(pick));
      }
    }
  };
  for (std::uint32_t id = 9; id < 100; id += 10) korvex_delete(index, id, 0);
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < 4; ++i) threads.emplace_back(search, i);
  for (int i = 100; i < points.size(); ++i) {
    const std::uint32_t id = korvex_add(index, points[i], 0);
    if (id % 10 == 9) korvex_delete(index, id, 0);
    added = i + 1;
  }
  over = true;
  for (std::thread& thread : threads) thread.join();
}

// The index is given up while they search: each call ends, with an answer or without.
TEST(DirectSearch, EndsWhenTheIndexIsGivenUp) {
  const watchdog guard;
  const cloud points = make_clusters(2000, 8, 17);
  open_index index({.dimension = 8}, points);
  std::atomic<int> searching{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([&] {
      as_host(index.runtime(), [&] {
        ++searching;
        rows found(2000, 10);
        korvex_search_direct(index, points.values.data(), 2000, 10, nullptr, found.ids.data(),
                             nullptr, nullptr);
      });
    });
  EXPECT_TRUE(eventually([&] { return searching == 4; }));
  index.close();
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
}  // namespace korvex
