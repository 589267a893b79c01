#include "storage/vector_hash.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cfloat>
#include <cmath>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "math/metrics.h"
#include "runtime/platform/faults.h"
#include "runtime/platform/threads.h"
#include "storage/persistent_allocator.h"
#include "storage/vector_hash_repair.h"
#include "storage/vector_store.h"

namespace korvex {
namespace {

float squared(const float* a, const float* b, std::size_t n) {
  float sum = 0;
  for (std::size_t i = 0; i < n; ++i) sum += (a[i] - b[i]) * (a[i] - b[i]);
  return sum;
}

// Points by id (0 unused) and what an index does for the hash.
struct point_set {
  std::size_t dim;
  std::vector<float> data;

  point_set(std::size_t d, unsigned n) : dim(d), data(d * (n + 1)) {}
  float* at(unsigned id) { return data.data() + dim * id; }
  static float distance(void* ctx, unsigned id, vector_hash_node_s* n, int mode) {
    auto* p = static_cast<point_set*>(ctx);
    if (id >= p->data.size() / p->dim) return FLT_MAX;
    return squared(p->at(id), mode == vector_hash_mode_add ? n->vector : n->query, p->dim);
  }
  // Squared distances of 2 on average, in every ring.
  void fill(unsigned seed) {
    std::mt19937 rng(seed);
    std::normal_distribution<float> normal(0, 1 / std::sqrt(static_cast<float>(dim)));
    for (float& x : data) x = normal(rng);
  }
};

struct hash_fixture {
  point_set& points;
  unsigned width;
  std::string path;
  vectpool_conf_s conf{};
  std::unique_ptr<vectpool_c> pool{vector_hash_pool(7, &conf)};
  persistent_malloc_s* pm = nullptr;
  vector_hash_s* vh = nullptr;
  vector_hash_node_s answer{};  // of the last add

  // file_bytes 0: on the heap
  hash_fixture(point_set& p, unsigned w, unsigned file_bytes = 0) : points(p), width(w) {
    const std::string name = "korvex-vector-hash-" + std::to_string(platform::process_id());
    if (file_bytes != 0) path = (std::filesystem::temp_directory_path() / name).string();
    open(file_bytes);
    make();
  }
  ~hash_fixture() {
    close();
    std::filesystem::remove(path);
  }
  void open(unsigned bytes) {
    pm = persistent_malloc_init(bytes != 0 ? path.c_str() : nullptr, bytes);
  }
  void make() {
    distance_init();
    const int dim = static_cast<int>(points.dim);
    vh = vector_hash_init(dim, dim, width, pool.get(), pm, 10, point_set::distance, &points);
  }
  void close() {
    vector_hash_destroy(vh, pm);
    persistent_malloc_destroy(pm);
  }
  int add(unsigned id) {
    const float* v = points.at(id);
    vector_hash_node_s node{.id = id, .query = v, .vector = v, .aux = static_cast<float>(id)};
    return vector_hash_add_point(vh, &node, &answer);
  }
  vector_hash_node_s search(const float* v) {
    vector_hash_node_s query{.query = v, .vector = v}, found;
    EXPECT_EQ(vector_hash_search(vh, &query, &found), 0);
    return found;
  }
  vector_hash_node_s search_few(const float* v, unsigned most) {
    vector_hash_node_s query{.query = v, .vector = v}, found;
    vector_hash_search_few(vh, most, &query, &found);
    return found;
  }
};

// The same sky as plain trees.
struct model_star {
  unsigned id;
  std::vector<model_star> below;
};
struct model {
  hash_fixture& f;
  std::vector<model_star> rings[vector_hash_rings];

  model_star* nearest(std::vector<model_star>& stars, const float* v, float& d) {
    model_star* best = nullptr;
    for (model_star& s : stars)
      if (const float e = squared(f.points.at(s.id), v, f.points.dim); e < d) best = &s, d = e;
    return best;
  }
  int add(std::vector<model_star>& stars, float radius, int depth, vector_hash_node_s& a,
          unsigned id) {
    float d = FLT_MAX;
    model_star* s = nearest(stars, f.points.at(id), d);
    const unsigned slots = f.width * (radius >= 0.799f ? 4 : radius >= 0.2f ? 2 : 1);
    a.placed = stars.size() < slots && radius < d && radius < a.best;
    if (a.placed) return stars.push_back({id, {}}), depth + 1;
    if (s == nullptr) return depth;
    if (d < a.best) a.best = d, a.id = s->id;
    return a.best <= 0.1f || radius / 2 < 0.1f ? 0 : add(s->below, radius / 2, depth + 1, a, id);
  }
  void walk(const std::vector<model_star>& stars, float radius, const float* v,
            vector_hash_node_s& a, std::size_t most = ~std::size_t{0}) {
    float d = FLT_MAX;
    std::vector<model_star> seen(stars.begin(), stars.begin() + std::min(most, stars.size()));
    model_star* s = radius < 0.1f ? nullptr : nearest(seen, v, d);
    if (s == nullptr) return;
    if (d < a.best) a.best = d, a.id = s->id;
    walk(s->below, radius / 2, v, a, most);
  }
  vector_hash_node_s search_few(const float* v, int g, unsigned most) {
    vector_hash_node_s found{.best = FLT_MAX};
    for (int ring : {g, g - 1, g + 1})
      if (found.id == 0 && ring >= 0 && ring < vector_hash_rings)
        walk(rings[ring], static_cast<float>(ring) * 0.1f, v, found, most);
    return found;
  }
  vector_hash_node_s search(const float* v, int g, float r) {
    vector_hash_node_s found{.best = FLT_MAX}, none{.best = r}, answer = none;
    for (int ring : {g, g - 1, g + 1}) {
      if (ring < 0 || ring >= vector_hash_rings) continue;
      // A top array exists as soon as a point was far enough from the anchor, star or not.
      const bool has_array = f.vh->rings[ring].lid != 0;
      if (has_array) walk(rings[ring], static_cast<float>(ring) * 0.1f, v, found);
      answer = has_array ? found : none;
      if (has_array ? found.best < 0.1f : ring == g) break;
    }
    return answer;
  }
};

TEST(VectorHash, MatchesThePlainModel) {
  unsigned hits = 0, misses = 0;
  const unsigned dims[] = {2, 2, 8, 8, 2, 8, 8}, sizes[] = {3, 12, 40, 60, 2000, 2000, 2000};
  for (int i = 0; i < 7; ++i) {
    const unsigned dim = dims[i], n = sizes[i], width = i == 6 ? 32 : i % 2 == 0 ? 1 : 4;
    point_set points(dim, n + 300);
    points.fill(n);
    hash_fixture f(points, width);
    model m{f, {}};
    vector_hash_set_ep_id(f.vh, 1, points.at(1));
    int placed = 0;
    for (unsigned id = 2; id <= n; ++id) {
      vector_hash_node_s want{.best = f.vh->l2_fn(points.at(1), points.at(id), dim)};
      const int depth = f.add(id);
      const vector_hash_node_s& got = f.answer;
      const float radius = static_cast<float>(got.ring) * 0.1f;
      ASSERT_EQ(depth, want.best > 0.1f ? m.add(m.rings[got.ring], radius, 0, want, id) : 0);
      ASSERT_EQ(std::tie(got.id, got.best, got.placed), std::tie(want.id, want.best, want.placed));
      placed += static_cast<int>(want.placed);
    }
    EXPECT_EQ(f.vh->stars, placed);
    for (unsigned q = n + 1; q <= n + 300; ++q) {
      const float r = f.vh->l2_fn(points.at(1), points.at(q), dim);
      const vector_hash_node_s got = f.search(points.at(q));
      const vector_hash_node_s want = m.search(points.at(q), got.ring, r);
      ASSERT_EQ(std::tie(got.id, got.best), std::tie(want.id, want.best)) << n << " " << q;
      ++(got.id != 0 ? hits : misses);
      for (const unsigned most : {1u, 3u, 1000u}) {
        const vector_hash_node_s few = f.search_few(points.at(q), most);
        const vector_hash_node_s expected = m.search_few(points.at(q), got.ring, most);
        ASSERT_EQ(std::tie(few.id, few.best), std::tie(expected.id, expected.best)) << most;
      }
    }
  }
  EXPECT_GT(std::min(hits, misses), 200u);
}

TEST(VectorHash, RingsByDistanceAndWhatTheyRemember) {
  const float distances[] = {0.04f, 0.06f, 0.12f, 0.26f, 3.84f, 3.86f, 3.94f, 1e30f, INFINITY, NAN};
  const int rings[] = {0, 1, 1, 3, 38, 39, 39, 39, 39, 39};
  for (int i = 0; i < 10; ++i) {
    const float r = distances[i];
    const int ring = rings[i], hashed = r > 0.1f;
    point_set points(1, 3);
    *points.at(2) = *points.at(3) = std::sqrt(r);
    hash_fixture f(points, 4);
    vector_hash_set_ep_id(f.vh, 1, points.at(1));
    for (unsigned id : {2u, 3u}) EXPECT_GE(f.add(id), 0);
    const vector_hash_link_s& got = f.vh->rings[ring];
    EXPECT_EQ(std::tuple(got.count, got.low, got.high), std::tuple(2u, 2.0f, 3.0f)) << r;
    EXPECT_EQ(f.vh->arrays, hashed) << r;
    const vector_hash_node_s found = f.search(points.at(3));
    EXPECT_EQ(std::tuple(found.ring, found.ring_count), std::tuple(ring, 2 * hashed)) << r;
  }
}

TEST(VectorHash, DamagedIdsAreRefusedNotFollowed) {
  point_set points(1, 60);
  hash_fixture f(points, 4);
  for (unsigned id = 2; id <= 60; ++id) *points.at(id) = 1.74f + 0.01f * static_cast<float>(id % 5);
  vector_hash_set_ep_id(f.vh, 50, points.at(1));
  EXPECT_EQ(f.add(50), -1) << "the anchor must be older";
  vector_hash_set_ep_id(f.vh, 1, points.at(1));
  f.add(51);
  const int ring = f.answer.ring;
  std::uint32_t& lid = f.vh->rings[ring].lid;
  const std::uint32_t good = lid;
  unsigned filler = 0;  // a second block, not full: arrays could straddle its borders or its end
  ASSERT_NE(f.pool->alloc(&filler, f.pool->records_per_block() - 9), nullptr);
  for (std::uint32_t bad : {f.pool->size() - 7, 0xFFFFFFFFu, f.pool->records_per_block() - 7}) {
    lid = bad;
    EXPECT_EQ(f.add(56), -1) << bad;
    EXPECT_EQ(f.search(points.at(56)).id, 0u) << bad;
  }
  lid = good;
  auto* top = static_cast<vector_hash_star_s*>(f.pool->get(good));
  // Stars that name nothing, the point itself or a younger one never come out as an entry point.
  for (std::uint32_t id : {0xFFFFFFFFu, 61u, 56u, 60u}) {
    for (int i = 0; i < 16; ++i) top[i] = {id, good};
    f.add(56);
    EXPECT_EQ(std::tuple(f.answer.ring, f.answer.id), std::tuple(ring, 0u)) << id;
  }
  // A circle of children under a foreign radius ends.
  f.vh->rings[ring].radius = INFINITY;
  f.search(points.at(56));
}

TEST(VectorHash, ReopenedAllocatorKeepsTheHash) {
  // Which block is gone when the hash is opened again: none, the record, the anchor, the rings.
  for (int lost : {-1, 0, 1, 2}) {
    SCOPED_TRACE(lost);
    point_set points(8, 600);
    points.fill(3);
    hash_fixture f(points, 4, 1 << 20);
    vector_hash_set_ep_id(f.vh, 1, points.at(1));
    for (unsigned id = 2; id <= 400; ++id) f.add(id);
    std::vector<unsigned> before(600);
    for (unsigned i = 0; i < 600; ++i) before[i] = f.search(points.at(i)).id;
    const int stars = f.vh->stars;
    f.vh->rings[f.answer.ring].radius = FLT_MAX;
    f.close();

    f.open(1 << 20);
    unsigned old = 0;
    if (lost >= 0) persistent_malloc(f.pm, 10 + lost, 2000, &old);  // another size is not ours
    f.make();
    EXPECT_EQ(f.vh->ep_id, lost < 0 ? 1u : 0u);
    EXPECT_EQ(f.vh->stars, lost < 0 ? stars : 0);
    EXPECT_EQ(f.vh->rings[f.answer.ring].radius, static_cast<float>(f.answer.ring) * 0.1f);
    if (lost >= 0) vector_hash_set_ep_id(f.vh, 1, points.at(1));
    unsigned found = 0;
    for (unsigned i = 0; i < 600; ++i)
      ASSERT_EQ(f.search(points.at(i)).id, lost < 1 ? before[i] : 0u) << i;
    for (unsigned id = 401; id <= 600; ++id) found += f.add(id) >= 0 && f.answer.id != 0;
    EXPECT_GT(found, 50u);
  }
}

// Until then a kill leaves a hash that is known to be incomplete.
TEST(VectorHash, ARefilledHashHasAnIdOnceItIsFinished) {
  constexpr unsigned n = 600;
  point_set points(8, n);
  points.fill(3);
  hash_fixture f(points, 4, 1 << 20);
  vector_hash_set_ep_id(f.vh, 1, points.at(1));
  for (unsigned id = 2; id <= n; ++id) f.add(id);
  std::vector<unsigned> before;
  for (unsigned id = 1; id <= n; ++id) before.push_back(f.search(points.at(id)).id);
  const int stars = f.vh->stars;
  vector_hash_begin_anew(f.vh, points.at(1));
  for (unsigned id = 2; id <= n; ++id) f.add(id);
  EXPECT_EQ(f.vh->ep_id, 0u);
  EXPECT_EQ(f.search(points.at(9)).id, 0u);
  vector_hash_finish(f.vh, 1);
  EXPECT_EQ(f.vh->stars, stars);
  for (unsigned id = 1; id <= n; ++id) ASSERT_EQ(f.search(points.at(id)).id, before[id - 1]) << id;
}

TEST(VectorHash, NoRoomGivesNull) {
  point_set large(2000, 1);
  EXPECT_EQ(hash_fixture(large, 4, 100).vh, nullptr);
  hash_fixture f(large, 4);
  vector_hash_destroy(f.vh, f.pm);
  f.pool.reset(vector_hash_pool(7, &f.conf));
  platform::current_fault_hook = [](platform::fault_point) { return true; };
  f.make();
  platform::current_fault_hook = nullptr;
  EXPECT_EQ(f.vh, nullptr);
}

TEST(VectorHash, SearchesBesideTheAddingThread) {
  constexpr unsigned n = 20000;
  point_set source(4, n), points(4, n);
  source.fill(11);
  hash_fixture f(points, 8);
  std::atomic<bool> done{false};
  std::atomic<unsigned> hits{0};
  const auto search = [&](unsigned seed) {
    for (std::mt19937 rng(seed); !done || hits == 0;) {
      const float* v = source.at(1 + rng() % n);
      const vector_hash_node_s found = f.search(v);
      if (found.id == 0) continue;
      // Reading the vector of a star is safe as soon as its id is seen.
      EXPECT_EQ(found.best, squared(points.at(found.id), v, 4));
      ++hits;
    }
  };
  std::thread searchers[] = {std::thread(search, 1), std::thread(search, 2)};
  for (unsigned id = 1; id <= n; ++id) {
    std::copy_n(source.at(id), 4, points.at(id));
    if (id == 1) vector_hash_set_ep_id(f.vh, 1, points.at(1));
    EXPECT_GE(id == 1 ? 0 : f.add(id), 0);
  }
  done = true;
  for (std::thread& t : searchers) t.join();
}

}  // namespace
}  // namespace korvex
