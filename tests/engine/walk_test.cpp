#include "engine/walk.h"

#include <optional>
#include <set>

#include "engine/distances.h"
#include "engine/index_fixture.h"
#include "engine/points.h"

namespace korvex {
namespace {

using namespace test;

struct found {
  float key;
  std::uint32_t id;
  bool operator==(const found&) const = default;
};

struct walk_row {
  int metric;
  int beam;
  bool ties;
  bool odd_only;   // a filter excludes even ids
  bool continued;  // begins with two candidates and takes none nearer than the second
  int budget;
  int extension;
};

// The walk in its plainest form: a sorted list, a set, no prefetching. Equal keys: the newest first.
class plain_walk {
 public:
  plain_walk(hnsw_s* hnsw, const walk_row& row, const cloud& points, const float* query)
      : hnsw_(hnsw), row_(row), points_(points), query_(query), budget_(row.budget) {}

  void put(std::uint32_t id) {
    const element added{key(id), id, false};
    list_.insert(std::find_if(list_.begin(), list_.end(),
                              [&](const element& e) { return !(e.key < added.key); }),
                 added);
    visited_.insert(id);
  }

  std::vector<found> run(std::optional<float> radius) {
    float best = list_.front().key;
    bool full = false;
    const auto beam = static_cast<std::size_t>(row_.beam);
    while (true) {
      if (list_.size() > beam) list_.resize(beam);
      const float bound = list_.back().key;
      const auto next =
          std::find_if(list_.begin(), list_.end(), [](const element& e) { return !e.expanded; });
      if (next == list_.end()) break;
      next->expanded = true;
      if (budget_ != 0 && full && evaluations_ > budget_) break;
      const std::uint32_t* const slots = korvex_get_list(hnsw_, next->id);
      for (std::uint32_t i = 0; i < hnsw_->runtime->neighbour_count && slots[i] != 0; ++i) {
        const std::uint32_t id = slots[i];
        if (!visited_.insert(id).second) continue;
        ++evaluations_;
        const float d = key(id);
        if (radius && d < *radius) continue;
        if (row_.odd_only && id % 2 == 0) continue;
        if (d > bound && list_.size() >= beam) continue;
        put(id);
        if (!(d < best)) continue;
        best = d;
        if (budget_ != 0)
          budget_ = std::max(budget_,
                             16 * static_cast<int>(hnsw_->runtime->neighbour_count) + evaluations_);
      }
      if (full || list_.size() < beam) continue;
      full = true;
      if (row_.extension == 0) continue;
      const int granted = row_.extension + evaluations_;
      budget_ = budget_ != 0 ? std::min(budget_, granted) : granted;
    }
    std::vector<found> out;
    for (const element& e : list_) out.push_back({e.key, e.id});
    if (out.size() > beam) out.resize(beam);
    return out;
  }
  int evaluations() const { return evaluations_; }

 private:
  struct element {
    float key;
    std::uint32_t id;
    bool expanded;
  };

  float key(std::uint32_t id) const {
    const korvex_runtime_s& runtime = *hnsw_->runtime;
    return runtime.direction.load() *
           runtime.distance_function.load()(query_, points_[static_cast<int>(id) - 1],
                                            runtime.dimension);
  }

  hnsw_s* const hnsw_;
  const walk_row& row_;
  const cloud& points_;
  const float* const query_;
  std::vector<element> list_;
  std::set<std::uint32_t> visited_;
  int evaluations_ = 0;
  int budget_;
};

// The engine's walk with the scratch that a search thread has.
class engine_walk {
 public:
  explicit engine_walk(hnsw_s* hnsw) : hnsw_(hnsw), nbrs_(korvex_nbrs_alloc(hnsw, 400)) {
    session.visited = bitstore_init(1000);
    session.mode = 1;
    session.beam = 50;
  }
  ~engine_walk() {
    korvex_nbrs_free(nbrs_);
    bitstore_free(session.visited);
  }

  std::vector<found> run(const float* query, std::uint32_t entry, std::uint32_t id = 0) {
    const korvex_node_s node{id, query};
    korvex_search_candidates(hnsw_, &session, nbrs_, &node, entry, nullptr);
    evaluations = nbrs_->evaluations;
    broken_off = nbrs_->broken_off;
    std::vector<found> out;
    found next{};
    while (korvex_nbrs_take_front(nbrs_, &next.id, &next.key)) out.push_back(next);
    return out;
  }
  void seed(std::uint32_t id, float key) { korvex_nbrs_add(nbrs_, id, key, 0, 0); }

  korvex_session_s session{};
  int evaluations = 0;
  bool broken_off = false;

 private:
  hnsw_s* const hnsw_;
  korvex_nbrs_s* const nbrs_;
};

TEST(Walk, MatchesThePlainWalkIdForId) {
  const walk_row rows[] = {
      {DISTANCE_L2_SQUARE, 1, false, false, false, 0, 0},
      {DISTANCE_L2_SQUARE, 5, false, false, false, 0, 0},
      {DISTANCE_L2_SQUARE, 20, true, false, false, 0, 0},
      {DISTANCE_L2, 400, true, false, false, 0, 0},
      {DISTANCE_INNER_PRODUCT, 20, false, false, false, 0, 0},
      {DISTANCE_L2_SQUARE, 30, false, true, false, 0, 0},
      {DISTANCE_L2_SQUARE, 30, true, false, true, 0, 0},
      {DISTANCE_INNER_PRODUCT, 10, true, true, true, 0, 0},
      {DISTANCE_L2_SQUARE, 20, false, false, false, 30, 0},
      {DISTANCE_L2_SQUARE, 20, false, false, false, 0, 15},
      {DISTANCE_L2_SQUARE, 10, true, false, false, 200, 15},
  };
  for (const walk_row& row : rows) {
    const cloud points = row.ties ? make_grid(300, 3, 5, 6) : make_clusters(300, 3, 5);
    const open_index index({.dimension = 3, .metric = row.metric, .constellation = 4}, points);
    const cloud queries =
        row.ties ? make_grid(sanitized ? 3 : 10, 3, 6, 6) : make_clusters(sanitized ? 3 : 10, 3, 6);
    for (int q = 0; q < queries.size(); ++q) {
      const std::uint32_t entry = 1 + static_cast<std::uint32_t>(q) * 29;
      plain_walk expected(index, row, points, queries[q]);
      engine_walk walk(index);
      walk.session.beam = row.beam;
      walk.session.budget = row.budget;
      walk.session.extension = row.extension;
      if (row.odd_only)
        walk.session.filter = [](void*, unsigned id, int) { return id % 2 == 0 ? 1 : 0; };
      expected.put(entry);
      std::optional<float> radius;
      if (row.continued) {
        expected.put(entry + 1);
        for (const std::uint32_t id : {entry, entry + 1}) {
          const float key =
              korvex_get_distance_internal(index, queries[q], points[static_cast<int>(id) - 1]) *
              index.runtime()->direction.load();
          walk.seed(id, key);
          radius = walk.session.radius = std::max(radius.value_or(key), key);
        }
        walk.session.radius_set = true;
      }
      EXPECT_EQ(walk.run(queries[q], row.continued ? 0 : entry), expected.run(radius))
          << "beam " << row.beam << " q " << q;
      EXPECT_EQ(walk.evaluations, expected.evaluations()) << "beam " << row.beam << " q " << q;
    }
  }
}

TEST(Walk, FaultsEndItWithOneLine) {
  const cloud points = make_clusters(50, 3, 1);
  const open_index index({.dimension = 3}, points);
  struct {
    std::uint32_t entry;
    const char* line;
    std::size_t found;
  } const rows[] = {{0, "zero id passed to candidtae", 0}, {51, "null buffer for id: 51", 0}};
  for (const auto& row : rows) {
    const log_capture lines;
    engine_walk walk(index);
    EXPECT_EQ(walk.run(points[0], row.entry).size(), row.found);
    EXPECT_EQ(log_capture::count(row.line), 1);
    EXPECT_TRUE(walk.broken_off);
  }
  engine_walk walk(index);
  walk.session.filter = [](void*, unsigned, int) { return 1; };
  EXPECT_EQ(walk.run(points[0], 9).size(), 1u);  // the way in itself is not asked for
  EXPECT_FALSE(walk.broken_off);
  korvex_runtime_s& runtime = *index.runtime();
  graph_of(runtime, 1).set_slot(0, 4'000);  // damaged: an id beyond the store
  engine_walk damaged(index);
  EXPECT_EQ(damaged.run(points[0], 1).size(), 1u);
  EXPECT_TRUE(damaged.broken_off);
}

TEST(Walk, ALinkingWalkMarksTheEntryThatItRepeats) {
  const cloud points = make_clusters(50, 3, 1);
  for (const bool on : {true, false}) {
    const open_index index({.dimension = 3}, points);
    if (on) korvex_set_duplicate_threshold(index, 1, 0.0f, 1);
    engine_walk walk(index);
    walk.session.mode = 0;
    walk.run(points[8], 9, 60);
    EXPECT_EQ(walk.session.duplicate, on ? 9u : 0u);
    EXPECT_EQ(korvex_is_flag_set_internal(index, 9, flag_duplicate), on ? 1 : 0);
  }
}

}  // namespace
}  // namespace korvex
