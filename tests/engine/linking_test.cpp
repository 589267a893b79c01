#include "engine/linking.h"

#include <set>
#include <thread>

#include "engine/index_fixture.h"
#include "engine/points.h"

namespace korvex {
namespace {

using namespace test;
using ids = std::vector<std::uint32_t>;

float key_between(const open_index& index, const cloud& points, std::uint32_t a, std::uint32_t b) {
  const korvex_runtime_s& runtime = *index.runtime();
  return runtime.direction.load() *
         runtime.distance_function.load()(points[static_cast<int>(a) - 1],
                                          points[static_cast<int>(b) - 1], runtime.dimension);
}

// The rule by brute force: all when there are few, else each one that no chosen one is nearer to than the node is.
ids chosen_of(const open_index& index, const cloud& points, std::uint32_t node, ids candidates,
              std::size_t max) {
  std::stable_sort(candidates.begin(), candidates.end(), [&](std::uint32_t a, std::uint32_t b) {
    return key_between(index, points, node, a) < key_between(index, points, node, b);
  });
  if (candidates.size() < max) return candidates;
  ids chosen;
  for (const std::uint32_t x : candidates) {
    if (chosen.size() == max) break;
    if (std::all_of(chosen.begin(), chosen.end(), [&](std::uint32_t s) {
          return key_between(index, points, x, node) <= key_between(index, points, x, s);
        }))
      chosen.push_back(x);
  }
  return chosen;
}

ids list_of(const open_index& index, std::uint32_t id) {
  const graph_record graph = graph_of(*index.runtime(), id);
  ids out;
  for (std::uint32_t i = 0; i < index.runtime()->neighbour_count && graph.slot(i) != 0; ++i)
    out.push_back(graph.slot(i));
  return out;
}

// Whether a link of an older point but `except` leads to the point.
bool held(const std::vector<ids>& lists, std::uint32_t id, std::uint32_t except = 0) {
  return std::any_of(lists[id].begin(), lists[id].end(), [&](std::uint32_t older) {
    return older < id && older != except &&
           std::find(lists[older].begin(), lists[older].end(), id) != lists[older].end();
  });
}

void hold(std::vector<ids>* lists, std::uint32_t node, std::uint32_t id, std::size_t capacity) {
  ids& list = (*lists)[node];
  if (list.size() < capacity) return list.push_back(id);
  for (auto at = list.rbegin(); at != list.rend(); ++at) {
    if (*at > node && !held(*lists, *at, node)) continue;
    *at = id;
    return;
  }
}

// A full list chosen anew, beside the links that no other older point has.
void choose_again(const open_index& index, const cloud& points, std::vector<ids>* lists,
                  std::uint32_t node, std::uint32_t added, std::size_t capacity) {
  const ids before = (*lists)[node];
  (*lists)[node] = chosen_of(index, points, node, before, capacity);
  for (const std::uint32_t id : before) {
    const ids& now = (*lists)[node];
    if (id > node && id != added && std::find(now.begin(), now.end(), id) == now.end() &&
        !held(*lists, id))
      hold(lists, node, id, capacity);
  }
}

// While the beam holds the whole index, every list follows from the rules alone: what the new point chose, itself in
// front of lists with room, full lists chosen anew, and a link of an older point to each.
TEST(Linking, ASmallGraphIsBuiltExactlyByTheRules) {
  for (const int metric : {DISTANCE_L2_SQUARE, DISTANCE_L2, DISTANCE_INNER_PRODUCT}) {
    for (const int constellation : {4, 5, 16}) {
      const cloud points =
          make_clusters(90, 3, 3, 4, metric == DISTANCE_INNER_PRODUCT ? 100.0f : 0.0f);
      const open_index index({.dimension = 3, .metric = metric, .constellation = constellation});
      const auto capacity = static_cast<std::size_t>(2 * constellation);
      std::vector<ids> lists(points.values.size() / 3 + 1);
      ids older;
      for (std::uint32_t id = 1; id < lists.size(); ++id) {
        korvex_add(index, points[static_cast<int>(id) - 1], 0);
        if (id > 1) lists[id] = chosen_of(index, points, id, older, capacity / 2);
        for (const std::uint32_t neighbour : lists[id]) {
          ids& list = lists[neighbour];
          list.insert(list.begin(), id);
          if (list.size() > capacity) choose_again(index, points, &lists, neighbour, id, capacity);
        }
        if (id > 1 && !held(lists, id)) hold(&lists, lists[id].front(), id, capacity);
        older.push_back(id);
        for (std::uint32_t i = 1; i <= id; ++i)
          ASSERT_EQ(list_of(index, i), lists[i]) << "metric " << metric << " constellation "
                                                 << constellation << " id " << id << " list " << i;
      }
    }
  }
}

TEST(Linking, SelectionFollowsTheRuleWithAndWithoutACopy) {
  const cloud points = make_clusters(200, 4, 9);
  const open_index index({.dimension = 4, .constellation = 6}, points);
  std::mt19937 random(5);
  korvex_nbrs_s* const nbrs = korvex_nbrs_alloc(index, 400);
  for (int round = 0; round < 100; ++round) {
    const std::uint32_t node = 1 + random() % 200;
    const std::uint32_t max = 1 + random() % 12;
    std::set<std::uint32_t> candidates;
    while (candidates.size() < 1 + random() % 40)
      if (const std::uint32_t id = 1 + random() % 200; id != node) candidates.insert(id);
    korvex_nbrs_reset(index, nbrs);
    for (const std::uint32_t id : candidates)
      korvex_nbrs_add(nbrs, id, key_between(index, points, node, id), 0, 0);
    const ids expected =
        chosen_of(index, points, node, ids(candidates.begin(), candidates.end()), max);
    const bool copy = round % 2 == 0;
    const ids before = list_of(index, node);
    korvex_select_nbrs(index, nbrs, node, max, copy);
    // What more there is stood there before, and no other older point leads to it.
    ids list = list_of(index, node);
    std::erase_if(list, [&](std::uint32_t id) {
      return id > node && std::find(before.begin(), before.end(), id) != before.end() &&
             std::find(expected.begin(), expected.end(), id) == expected.end();
    });
    if (list_of(index, node).size() < 12)
      EXPECT_EQ(list, expected) << "round " << round;
    else
      EXPECT_TRUE(std::includes(expected.begin(), expected.end(), list.begin(), list.end(),
                                [&](std::uint32_t a, std::uint32_t b) {
                                  return key_between(index, points, node, a) <
                                         key_between(index, points, node, b);
                                }));
    EXPECT_EQ(graph_of(*index.runtime(), node).worst(),
              key_between(index, points, node, expected.back()));
    EXPECT_EQ(korvex_is_flag_set_internal(index, node, flag_link_lock), 0);
  }
  korvex_nbrs_free(nbrs);
}

void walk_from(const open_index& index, std::uint32_t seed, std::set<std::uint32_t>* seen) {
  ids open{seed};
  seen->insert(seed);
  while (!open.empty()) {
    const std::uint32_t id = open.back();
    open.pop_back();
    for (const std::uint32_t next : list_of(index, id))
      if (seen->insert(next).second) open.push_back(next);
  }
}

struct building {
  int probes;
  int threads;
  int adders;
  int n;
  int rounds;
};

// No id is lost, no list damaged, no lock bit left, no probe mixed with another, and an older point leads to each one but
// the seeds: so all can be walked to.
void check_graph(const open_index& index, std::uint32_t last) {
  hnsw_s* const hnsw = index;
  EXPECT_EQ(load_counter(hnsw->added), last);
  EXPECT_EQ(load_counter(hnsw->networked), last);
  EXPECT_EQ(load_counter(hnsw->taken), last);
  std::set<std::uint32_t> seen;
  for (const probe_s& probe : hnsw->probes)
    if (probe.seed != 0) walk_from(index, probe.seed, &seen);
  EXPECT_EQ(seen.size(), last);
  std::set<std::uint32_t> led_to;
  for (std::uint32_t id = 1; id <= last; ++id) {
    EXPECT_TRUE(is_seed(hnsw, id) || led_to.count(id) != 0) << id;
    const ids list = list_of(index, id);
    led_to.insert(list.begin(), list.end());
    EXPECT_EQ(std::set<std::uint32_t>(list.begin(), list.end()).size(), list.size()) << id;
    for (const std::uint32_t neighbour : list) {
      EXPECT_NE(neighbour, id);
      EXPECT_TRUE(neighbour <= last && probe_of(hnsw, neighbour) == probe_of(hnsw, id))
          << id << " -> " << neighbour;
    }
    EXPECT_EQ(korvex_is_flag_set_internal(hnsw, id, 0xFF), 0) << id;
  }
}

TEST(Linking, ConcurrentBuildingLeavesAWholeGraph) {
  const watchdog guard;
  // The first points are where threads meet most: many small graphs beside a few large ones.
  const building rows[] = {{1, 0, 2, 1000, 1}, {1, 1, 2, 2000, 1}, {1, 2, 2, 2000, 1},
                           {1, 4, 2, 2000, 1}, {3, 4, 2, 2000, 1}, {16, 2, 4, 2000, 1},
                           {1, 4, 2, 40, 60},  {2, 2, 2, 100, 30}};
  const log_capture lines;
  for (const building& row : rows) {
    const int n = sanitized && row.rounds == 1 ? row.n / 4 : row.n;
    const int rounds = sanitized ? row.rounds / 3 + 1 : row.rounds;
    for (int round = 0; round < rounds; ++round) {
      SCOPED_TRACE(testing::Message()
                   << row.probes << " probes, " << row.threads << " threads, round " << round);
      const cloud points = make_clusters(n, 6, 21 + static_cast<unsigned>(round));
      const open_index index(
          {.dimension = 6, .probes = row.probes, .threads = row.threads, .constellation = 6});
      std::vector<std::thread> adders;
      for (int a = 0; a < row.adders; ++a)
        adders.emplace_back([&, a] {
          for (int i = a; i < n; i += row.adders) {
            const std::uint32_t id = korvex_add(index, points[i], 0);
            EXPECT_EQ(
                0, std::memcmp(vector_of(*index.runtime(), id + 1), points[i], 6 * sizeof(float)));
          }
        });
      for (std::thread& adder : adders) adder.join();
      korvex_wait_finish_adding(index);
      check_graph(index, static_cast<std::uint32_t>(n));
    }
  }
  EXPECT_EQ(log_capture::count("BUG"), 0);
}

}  // namespace
}  // namespace korvex
