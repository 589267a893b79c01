#include "search/session.h"

#include <atomic>
#include <limits>
#include <set>

#include "engine/distances.h"
#include "engine/index_fixture.h"
#include "engine/points.h"
#include "engine/walk.h"
#include "search/session_record.h"

namespace korvex {
namespace {

using namespace test;

struct answer {
  std::vector<std::uint32_t> ids;
  std::vector<float> distances;
};

answer answer_of(hnsw_s* hnsw, std::uint32_t sid) {
  const korvex_results_s& results = *korvex_search_result(hnsw, sid, 0);
  return {{results.ids, results.ids + results.count},
          {results.distances, results.distances + results.count}};
}

// A session that is freed with its scope.
class session {
 public:
  explicit session(hnsw_s* hnsw, int k = 10, void* user = nullptr)
      : hnsw_(hnsw), sid_(korvex_search_init(hnsw, k, user)) {}
  ~session() { korvex_search_free(hnsw_, sid_); }
  session(const session&) = delete;
  session& operator=(const session&) = delete;
  operator std::uint32_t() const { return sid_; }  // NOLINT

  answer ask(const float* query, int radius, int k) const {
    EXPECT_EQ(korvex_search(hnsw_, sid_, query, radius, k), 0u);
    return answer_of(hnsw_, sid_);
  }
  answer more() const {
    EXPECT_EQ(korvex_search_more(hnsw_, sid_), 0u);
    return answer_of(hnsw_, sid_);
  }
  answer refine() const {
    EXPECT_EQ(korvex_search_refine(hnsw_, sid_), 0u);
    return answer_of(hnsw_, sid_);
  }

 private:
  hnsw_s* const hnsw_;
  const std::uint32_t sid_;
};

// How many answers are as near as the k-th nearest truly is: equal distances may change places.
int hits(const answer& found, const std::vector<double>& keys, int k, int metric) {
  const double limit = keys[static_cast<std::size_t>(k) - 1];
  const double slack = 1e-4 * std::max(1.0, std::fabs(limit));
  int count = 0;
  for (const float distance : found.distances)
    count += (metric == DISTANCE_INNER_PRODUCT ? -1.0 : 1.0) * static_cast<double>(distance) <=
                     limit + slack
                 ? 1
                 : 0;
  return count;
}

TEST(Session, FindsTheNeighboursForEveryDimensionMetricAndProbeCount) {
  const watchdog guard(120);
  struct {
    int dimension;
    int n;
  } const sizes[] = {{1, 1'000},  {3, 1'000}, {7, 1'000}, {17, 1'000},
                     {33, 1'000}, {100, 600}, {960, 300}};
  const int probe_counts[] = {1, 2, 16};
  int turn = 0;
  for (const auto& size : sizes) {
    for (const int metric : {DISTANCE_L2_SQUARE, DISTANCE_L2, DISTANCE_INNER_PRODUCT}) {
      const int probes = probe_counts[turn++ % 3];
      const float length = metric == DISTANCE_INNER_PRODUCT ? 100.0f : 0.0f;
      const cloud points =
          make_clusters(sanitized ? size.n / 4 : size.n, size.dimension, 1, 10, length);
      const cloud queries = make_clusters(sanitized ? 10 : 20, size.dimension, 2, 10, length);
      const open_index index({.dimension = size.dimension,
                              .metric = metric,
                              .probes = probes,
                              .threads = turn % 2 == 0 ? 2 : 0},
                             points);
      const session asking(index);
      int found = 0;
      for (int q = 0; q < queries.size(); ++q) {
        const answer result = asking.ask(queries[q], 200, 10);
        ASSERT_EQ(result.ids.size(), 10u);
        found += hits(result, exact_keys(metric, points, queries[q]), 10, metric);
        for (std::size_t i = 0; i < 10; ++i) {
          // Raw values of the metric, of the point that is named, nearest first.
          const double key = plain_key(metric, queries[q], points[static_cast<int>(result.ids[i])],
                                       size.dimension);
          const double raw = metric == DISTANCE_INNER_PRODUCT ? -key : key;
          ASSERT_NEAR(static_cast<double>(result.distances[i]), raw,
                      1e-3 * std::max(1.0, std::fabs(raw)));
          if (i == 0) continue;
          const bool ordered = metric == DISTANCE_INNER_PRODUCT
                                   ? result.distances[i] <= result.distances[i - 1]
                                   : result.distances[i] >= result.distances[i - 1];
          ASSERT_TRUE(ordered);
        }
      }
      EXPECT_GE(found, queries.size() * 10 * 95 / 100)
          << "dimension " << size.dimension << " metric " << metric << " probes " << probes;
    }
  }
}

struct paging {
  int probes;
  int k;
  int side;  // of the grid, 0 for clusters
  int metric;
};

// With a beam that holds everything, page after page is the exact order.
TEST(Session, MoreNeitherRepeatsNorSkips) {
  const paging rows[] = {
      {1, 7, 0, DISTANCE_L2_SQUARE},     {2, 7, 0, DISTANCE_L2},   {5, 7, 0, DISTANCE_L2_SQUARE},
      {1, 7, 4, DISTANCE_L2_SQUARE},     {2, 11, 3, DISTANCE_L2},  {5, 3, 4, DISTANCE_L2_SQUARE},
      {2, 7, 0, DISTANCE_INNER_PRODUCT}, {16, 10, 0, DISTANCE_L2}, {1, 40, 2, DISTANCE_L2_SQUARE}};
  for (const paging& row : rows) {
    for (unsigned seed = 1; seed <= (sanitized ? 1u : 5u); ++seed) {
      SCOPED_TRACE(testing::Message() << row.probes << " probes, k " << row.k << ", side "
                                      << row.side << ", seed " << seed);
      const float length = row.metric == DISTANCE_INNER_PRODUCT ? 10.0f : 0.0f;
      const cloud points = row.side != 0 ? make_grid(200, 3, seed, row.side)
                                         : make_clusters(200, 3, seed, 4, length);
      const open_index index({.dimension = 3, .metric = row.metric, .probes = row.probes}, points);
      const session asking(index);
      const float* const query = points[static_cast<int>(seed) * 7];
      const float sign = row.metric == DISTANCE_INNER_PRODUCT ? -1.0f : 1.0f;
      std::set<std::uint32_t> seen;
      std::vector<double> keys;
      answer page = asking.ask(query, 400, row.k);
      while (!page.ids.empty() && seen.size() < 400) {
        for (const std::uint32_t id : page.ids)
          EXPECT_TRUE(seen.insert(id).second) << id << " comes again";
        for (const float distance : page.distances)
          keys.push_back(static_cast<double>(sign * distance));
        page = asking.more();
      }
      EXPECT_EQ(seen.size(), 200u);
      const std::vector<double> exact = exact_keys(row.metric, points, query);
      ASSERT_EQ(keys.size(), exact.size());
      for (std::size_t i = 0; i < keys.size(); ++i)
        ASSERT_NEAR(keys[i], exact[i], 1e-3 * (1 + std::fabs(exact[i]))) << i;
      EXPECT_TRUE(asking.more().ids.empty());
      EXPECT_EQ(asking.ask(query, 400, row.k).ids.size(),
                static_cast<std::size_t>(row.k));  // from the start again
    }
  }
}

TEST(Session, RefineGivesTheAnswerAgainWithoutWhatWasExcluded) {
  const cloud points = make_clusters(600, 5, 1);
  for (const int probes : {1, 3}) {
    const open_index index({.dimension = 5, .probes = probes}, points);
    const session asking(index);
    const answer first = asking.ask(points[9], 100, 8);
    EXPECT_EQ(asking.refine().ids, first.ids);
    EXPECT_EQ(korvex_search_filter(index, asking, first.ids[0]), 0u);
    EXPECT_EQ(korvex_search_filter(index, asking, first.ids[3]), 0u);
    const answer refined = asking.refine();
    ASSERT_EQ(refined.ids.size(), 8u);
    std::vector<std::uint32_t> expected = first.ids;
    expected.erase(expected.begin() + 3);
    expected.erase(expected.begin());
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), refined.ids.begin()));
    // What a continued search gave is not what a refined one goes on from.
    asking.ask(points[9], 100, 8);
    asking.more();
    EXPECT_EQ(asking.refine().ids, refined.ids);
    const answer next = asking.more();
    for (const std::uint32_t id : next.ids)
      EXPECT_EQ(std::count(refined.ids.begin(), refined.ids.end(), id), 0);
  }
}

// Whatever hides a point hides it in every kind of answer: new, continued, refined, from the cache.
TEST(Session, HiddenPointsAreNeverReturned) {
  const cloud points = make_clusters(400, 4, 1);
  for (const int probes : {1, 2}) {
    for (const bool cache : {false, true}) {
      const open_index index({.dimension = 4, .probes = probes, .cache = cache}, points);
      const session asking(index);
      const session excluding(index);
      const float* const query = points[3];
      const answer all = asking.ask(query, 200, 12);
      std::set<std::uint32_t> deleted(all.ids.begin(), all.ids.begin() + 6);
      for (const std::uint32_t id : deleted) korvex_delete(index, id, 0);
      for (const std::uint32_t id : deleted)
        EXPECT_EQ(korvex_search_filter(index, excluding, id), 0u);
      for (int i = 0; i < 3; ++i)
        for (const answer& page : {asking.ask(query, 200, 12), asking.more(), asking.refine()})
          for (const std::uint32_t id : page.ids) EXPECT_FALSE(deleted.contains(id)) << id;
      EXPECT_EQ(asking.ask(query, 200, 6).ids,
                std::vector<std::uint32_t>(all.ids.begin() + 6, all.ids.end()));

      for (const std::uint32_t id : deleted) korvex_delete(index, id, 1);
      EXPECT_EQ(asking.ask(query, 200, 12).ids, all.ids);
      for (const answer& page :
           {excluding.ask(query, 200, 12), excluding.more(), excluding.ask(query, 200, 300)})
        for (const std::uint32_t id : page.ids) EXPECT_FALSE(deleted.contains(id)) << id;
      EXPECT_EQ(korvex_search_filter(index, asking, 0xFFFFFFFFu), search_failed);
    }
  }
}

struct filter_log {
  hnsw_s* hnsw;
  std::mutex mutex;
  std::set<std::uint32_t> asked;
  std::atomic<int> wrong{0};
};

TEST(Session, AFilterSeesPublicIdsAndLabels) {
  const watchdog guard;
  const cloud points = make_clusters(600, 4, 1);
  for (const int probes : {1, 4}) {
    for (const bool labels : {true, false}) {
      const open_index index(
          {.dimension = 4, .probes = probes, .threads = 1, .labels = labels, .cache = true},
          points);
      korvex_wait_finish_adding(index);
      for (std::uint32_t id = 0; labels && id < 600; ++id) korvex_set_label(index, id, 1'000 + id);
      filter_log host{index, {}, {}, {}};
      const session asking(index);
      const auto even_only = [](const void* data, unsigned id, unsigned long long label) {
        auto& log = *static_cast<filter_log*>(const_cast<void*>(data));
        if (log.hnsw->runtime->labels ? label != 1'000 + id : label != 0) ++log.wrong;
        const std::lock_guard lock(log.mutex);
        log.asked.insert(id);
        return id % 2 == 0 ? 0 : 1;
      };
      asking.ask(points[1], 200,
                 10);  // goes into the cache, from which no filtered search is answered
      korvex_search_set_callbacks(index, asking, even_only, nullptr, &host);
      for (const int q : {1, 2, 50, 333}) {
        const answer first = asking.ask(points[q], 200, 10);
        EXPECT_EQ(first.ids.size(), 10u);
        for (const answer& page : {first, asking.more(), asking.refine()})
          for (const std::uint32_t id : page.ids)
            EXPECT_TRUE(id % 2 == 0 && host.asked.contains(id));
        EXPECT_EQ(first.ids[0] == static_cast<std::uint32_t>(q), q % 2 == 0);
      }
      EXPECT_EQ(host.wrong.load(), 0);
      korvex_search_set_callbacks(
          index, asking, [](const void*, unsigned, unsigned long long) { return 1; }, nullptr,
          nullptr);
      EXPECT_TRUE(asking.ask(points[1], 200, 10).ids.empty());
      EXPECT_TRUE(asking.more().ids.empty());
      korvex_search_set_callbacks(index, asking, nullptr, nullptr, nullptr);
      EXPECT_EQ(asking.ask(points[1], 200, 10).ids[0], 1u);
    }
  }
}

TEST(Session, BadInputHasItsFailureValueAndHarmsNothing) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  const cloud points = make_clusters(50, 3, 1);
  const float bad[][3] = {{nan, 0, 0}, {0, inf, 0}, {0, 0, -inf}};
  for (const int probes : {1, 2, 16}) {
    const open_index index({.dimension = 3, .probes = probes});
    const session asking(index, 0);
    {
      const log_capture lines;
      EXPECT_EQ(korvex_search(index, asking, points[0], 10, 10), search_failed);
      EXPECT_EQ(log_capture::count("No vectors were indexed"), 1);
      EXPECT_EQ(korvex_search_result(index, asking, 0)->count, 0u);  // at once
      const session unused(index);
      EXPECT_EQ(korvex_search_more(index, unused), search_failed);
      EXPECT_EQ(korvex_search_refine(index, unused), search_failed);
    }
    index.add(points);
    for (const float* const query : {static_cast<const float*>(nullptr), bad[0], bad[1], bad[2]}) {
      const log_capture lines;
      EXPECT_EQ(korvex_search(index, asking, query, 10, 10), search_failed);
      EXPECT_EQ(log_capture::count(query == nullptr ? "*** BUG ***" : "**CRITICAL**"), 1);
    }
    for (const std::uint32_t sid : {0u, 4'000u, 0xFFFFFFFFu}) {
      EXPECT_EQ(korvex_search(index, sid, points[0], 10, 10), search_failed);
      EXPECT_EQ(korvex_search_more(index, sid), search_failed);
      EXPECT_EQ(korvex_search_refine(index, sid), search_failed);
      EXPECT_EQ(korvex_search_filter(index, sid, 1), search_failed);
      EXPECT_EQ(korvex_search_result(index, sid, 0), nullptr);
      EXPECT_EQ(korvex_search_result_ids(index, sid, 1), nullptr);
      EXPECT_EQ(korvex_search_result_dists(index, sid, 1), nullptr);
      EXPECT_EQ(korvex_search_get_userdata(index, sid), nullptr);
      korvex_search_free(index, sid);
      EXPECT_EQ(korvex_search(nullptr, sid, points[0], 10, 10), search_failed);
    }
    EXPECT_EQ(korvex_search_init(nullptr, 10, nullptr), 0u);
    EXPECT_EQ(korvex_search_refine_vector(index, asking, points[0], nullptr), -1);
    struct {
      int k;
      int radius;
      std::size_t found;
    } const rows[] = {{0, 10, 10},  {-7, -1, 10},   {1, 0, 1},
                      {50, 50, 50}, {5'000, 0, 50}, {1 << 20, 1 << 20, 50}};
    for (const auto& row : rows) {
      const answer found = asking.ask(points[7], row.radius, row.k);
      EXPECT_EQ(found.ids.size(), row.found) << probes << " probes, k " << row.k;
      EXPECT_EQ(found.ids[0], 7u);
    }
    korvex_validate_parameters(index, 0);
    asking.ask(bad[0], 10, 10);  // not a number sorts last; nothing is promised but an end
  }
}

TEST(Session, AskingForMoreThanThereIsTakesNoRoomForIt) {
  const cloud points = make_clusters(40, 4, 3);
  const open_index index({.dimension = 4, .probes = 2}, points);
  const int most = std::numeric_limits<int>::max();
  const session query(index, most);
  EXPECT_EQ(query.ask(points[0], most, most).ids.size(), 40u);
  const korvex_search_ctx_s& record = *session_of(index, query);
  EXPECT_LE(record.attachment->results->capacity, 1u << 16);
  EXPECT_LE(record.ef, 1u << 16);
}

TEST(Session, ViewsAndCopiesLastUntilTheNextSearch) {
  const cloud points = make_clusters(100, 3, 1);
  int user = 0;
  for (const int probes : {1, 3}) {
    const open_index index({.dimension = 3, .probes = probes}, points);
    const session asking(index, 5, &user);
    EXPECT_EQ(korvex_search_get_userdata(index, asking), &user);
    const answer first = asking.ask(points[4], 50, 20);
    for (const int copy : {0, 1, 1, 0, 1}) {
      const korvex_result_ids_s& ids = *korvex_search_result_ids(index, asking, copy);
      const korvex_result_dists_s& distances = *korvex_search_result_dists(index, asking, copy);
      EXPECT_EQ(ids.owned, static_cast<std::uint32_t>(copy));
      EXPECT_EQ(ids.valid, 1u);
      EXPECT_EQ(std::vector<std::uint32_t>(ids.ids, ids.ids + ids.count), first.ids);
      EXPECT_EQ(std::vector<float>(distances.distances, distances.distances + distances.count),
                first.distances);
      EXPECT_EQ(korvex_search_result(index, asking, copy)->count, 20u);
    }
    asking.ask(points[5], 50, 100);  // a larger store, and the copies go
    EXPECT_EQ(korvex_search_result_ids(index, asking, 0)->count, 100u);
  }
}

// Once in the cache, an identical query costs no walk; a stored answer never hides what was added
// since, nor serves another index.
TEST(Session, TheCacheAnswersOnlyWhatItKnows) {
  cloud points = make_clusters(500, 4, 1);
  for (float& value : points.values) value *= 1'000;
  cloud others = make_clusters(300, 4, 8);
  for (float& value : others.values) value *= 1'000;
  const open_index index({.dimension = 4, .cache = true}, points);
  const open_index second({.dimension = 4, .cache = true}, others);
  const session asking(index);
  const session elsewhere(second);
  const answer first = asking.ask(points[3], 100, 10);
  const std::uint64_t before = walk_evaluations_total();
  EXPECT_EQ(asking.ask(points[3], 100, 10).ids, first.ids);
  EXPECT_EQ(walk_evaluations_total(), before);
  const answer other = elsewhere.ask(points[3], 100, 10);
  EXPECT_EQ(hits(other, exact_keys(DISTANCE_L2_SQUARE, others, points[3]), 10, DISTANCE_L2_SQUARE),
            10);
  EXPECT_EQ(korvex_add(index, points[3], 0), 500u);
  const answer again = asking.ask(points[3], 100, 10);
  EXPECT_EQ(std::set<std::uint32_t>(again.ids.begin(), again.ids.begin() + 2),
            (std::set<std::uint32_t>{3, 500}));
  korvex_set_result_cache(index, 0);
  const std::uint64_t off = walk_evaluations_total();
  asking.ask(points[3], 100, 10);
  EXPECT_GT(walk_evaluations_total(), off);
}

}  // namespace
}  // namespace korvex
