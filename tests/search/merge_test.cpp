#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <vector>

#include "search/results.h"

namespace korvex {
namespace {

using row = std::pair<float, std::uint32_t>;  // raw distance, id

void fill(result_set* set, const std::vector<row>& rows) {
  set->count = 0;
  for (const auto& [distance, id] : rows) {
    set->ids[set->count] = id;
    set->distances[set->count++] = distance;
  }
}

std::vector<row> rows_of(std::uint32_t count, const std::uint32_t* ids, const float* distances) {
  std::vector<row> out;
  for (std::uint32_t i = 0; i < count; ++i) out.emplace_back(distances[i], ids[i]);
  return out;
}

// Few values, so that equal keys are the rule; lists of any length, none included.
TEST(Merge, DeliversTheNearestOfAllListsAndKeepsTheRest) {
  std::mt19937 random(11);
  for (int round = 0; round < 3'000; ++round) {
    const std::uint32_t probes = 1 + random() % 16;
    const std::uint32_t capacity = 10 + random() % 10;
    const std::uint32_t k = 1 + random() % capacity;
    const float direction = round % 2 == 0 ? 1.0f : -1.0f;
    korvex_search_results_s* const store = results_create(capacity, probes);
    results_clear(store, direction);
    std::vector<std::vector<row>> primary(probes);
    std::vector<std::vector<row>> secondary(probes);
    std::vector<float> keys;
    std::uint32_t id = 0;
    for (std::uint32_t p = 0; p < probes; ++p) {
      const std::uint32_t n = random() % 3 == 0 ? 0 : random() % (k + 1);
      for (std::uint32_t i = 0; i < n; ++i)
        primary[p].emplace_back(static_cast<float>(random() % 6), id++);
      for (std::uint32_t i = 0; n == k && i < k; ++i)
        secondary[p].emplace_back(static_cast<float>(6 + random() % 6), id++);
      for (auto* list : {&primary[p], &secondary[p]})
        std::stable_sort(list->begin(), list->end(),
                         [](const row& a, const row& b) { return a.first < b.first; });
      for (auto* list : {&primary[p], &secondary[p]})
        for (row& r : *list) r.first *= direction;
      for (const row& r : primary[p]) keys.push_back(direction * r.first);
      fill(&store->slices[p].primary, primary[p]);
      fill(&store->slices[p].secondary, secondary[p]);
    }
    std::sort(keys.begin(), keys.end());
    keys.resize(std::min<std::size_t>(keys.size(), k));

    korvex_merge_results(store, probes, static_cast<int>(k));
    const auto final = rows_of(store->final.count, store->final.ids, store->final.distances);
    std::vector<float> delivered_keys;
    std::vector<std::vector<row>> taken(probes);
    std::map<std::uint32_t, std::uint32_t> owner;
    for (std::uint32_t p = 0; p < probes; ++p)
      for (const row& r : primary[p]) owner[r.second] = p;
    for (const row& r : final) {
      delivered_keys.push_back(direction * r.first);
      taken[owner.at(r.second)].push_back(r);
    }
    ASSERT_EQ(delivered_keys, keys) << "round " << round;
    id_set delivered;
    results_settle(store, &delivered);
    for (std::uint32_t p = 0; p < probes; ++p) {
      // Every list gives its first ones, in its order; what is left stands in front of the reserve.
      const std::size_t n = taken[p].size();
      ASSERT_TRUE(std::equal(taken[p].begin(), taken[p].end(), primary[p].begin()))
          << "round " << round;
      std::vector<row> reserve(primary[p].begin() + static_cast<std::ptrdiff_t>(n),
                               primary[p].end());
      reserve.insert(reserve.end(), secondary[p].begin(), secondary[p].end());
      reserve.resize(std::min<std::size_t>(reserve.size(), capacity));
      const result_slice& slice = store->slices[p];
      ASSERT_EQ(rows_of(slice.primary.count, slice.primary.ids, slice.primary.distances), taken[p]);
      ASSERT_EQ(rows_of(slice.secondary.count, slice.secondary.ids, slice.secondary.distances),
                reserve);
      ASSERT_EQ(slice.delivered, n != 0);
      if (n == 0) continue;
      ASSERT_EQ(slice.delivered_key, direction * taken[p].back().first);
    }
    for (std::uint32_t i = 0; i < id; ++i)
      ASSERT_EQ(
          delivered.contains(i + 1),
          std::any_of(final.begin(), final.end(), [&](const row& r) { return r.second == i; }));
    results_destroy(store);
  }
}

TEST(Merge, NothingToMergeChangesNothing) {
  korvex_search_results_s* const store = results_create(10, 3);
  fill(&store->slices[0].primary, {{1.0f, 1}, {2.0f, 2}});
  korvex_merge_results(store, 3, 2);
  for (const int k : {0, -5}) korvex_merge_results(store, 3, k);
  korvex_merge_results(store, 0, 5);
  EXPECT_EQ(store->final.count, 2u);
  korvex_merge_results(store, 3, 1 << 24);  // no more than there are, nor than there is room for
  EXPECT_EQ(store->final.count, 2u);
  results_clear(store, 1.0f);
  korvex_merge_results(store, 3, 4);
  EXPECT_EQ(store->final.count, 0u);
  results_destroy(store);
}

TEST(Merge, AnIdSetGrowsAndForgets) {
  id_set set;
  std::set<std::uint32_t> expected;
  std::mt19937 random(7);
  for (int round = 0; round < 3; ++round) {
    for (int i = 0; i < 2'000; ++i) {
      const std::uint32_t id = 1 + random() % 5'000;
      EXPECT_TRUE(set.add(id, 20));
      expected.insert(id);
    }
    EXPECT_EQ(set.size(), expected.size());
    for (std::uint32_t id = 1; id <= 5'000; ++id)
      ASSERT_EQ(set.contains(id), expected.contains(id)) << id;
    set.clear();
    expected.clear();
    EXPECT_FALSE(set.contains(1));
  }
}

}  // namespace
}  // namespace korvex
