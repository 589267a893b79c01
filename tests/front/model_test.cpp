#include <rapidcheck.h>

#include <map>

#include "front_fixture.h"

// Any mix of operations on a small index agrees with an exact model of it.
namespace korvex {
namespace {

using namespace test;

constexpr std::size_t dimension = 6;

struct point {
  std::vector<float> vector;
  std::uint64_t label;
  bool deleted;
};

// What the index must be.
class model {
 public:
  explicit model(metric chosen) : metric_(chosen) {}

  std::vector<point> points;

  std::size_t live() const {
    return static_cast<std::size_t>(
        std::count_if(points.begin(), points.end(), [](const point& p) { return !p.deleted; }));
  }

  // Distances of the nearest, ascending, or descending for the inner product.
  std::vector<double> nearest(const std::vector<float>& query, std::size_t k, bool odd_only) const {
    const double sign = metric_ == metric::inner_product ? -1 : 1;
    std::vector<double> keys;
    for (const point& p : points)
      if (!p.deleted && (!odd_only || p.label % 2 == 1))
        keys.push_back(sign * exact_distance(metric_, p.vector, query));
    std::sort(keys.begin(), keys.end());
    keys.resize(std::min(keys.size(), k));
    for (double& key : keys) key *= sign;
    return keys;
  }

 private:
  const metric metric_;
};

class run {
 public:
  run(metric chosen, int probes, bool on_disk)
      : options_{.dimension = dimension,
                 .metric = chosen,
                 .directory = on_disk ? scratch_.path() : std::filesystem::path(),
                 .labels = true,
                 .probes = probes,
                 .block_vectors = 128,
                 .indexing_threads = 1,
                 .search_threads = 1},
        model_(chosen),
        index_(options_) {}

  void step() {
    switch (
        *rc::gen::weightedElement<int>({{8, 0}, {3, 1}, {2, 2}, {2, 3}, {6, 4}, {1, 5}, {2, 6}})) {
      case 0:
        return add(1);
      case 1:
        return model_.points.empty() ? add(2) : mark(true);
      case 2:
        return model_.points.empty() ? add(2) : mark(false);
      case 3:
        return model_.points.empty() ? add(2) : relabel();
      case 4:
        return search();
      case 5:
        return reopen();
      default:
        return add(*rc::gen::inRange<std::size_t>(2, 40));
    }
  }

  void check() const {
    RC_ASSERT(index_.added() == model_.points.size());
    RC_ASSERT(index_.size() == model_.live());
    for (id_type id = 0; id < model_.points.size(); ++id) {
      RC_ASSERT(index_.label(id) == model_.points[id].label);
      RC_ASSERT(index_.contains(id) == !model_.points[id].deleted);
    }
    const statistics counted = index_.stats();
    RC_ASSERT(counted.deleted == model_.points.size() - model_.live());
  }

  std::size_t wanted() const { return wanted_; }
  std::size_t found() const { return found_; }

 private:
  // Small numbers: many vectors are equal or equally far.
  static std::vector<float> vector() {
    auto values = *rc::gen::container<std::vector<int>>(dimension, rc::gen::inRange(-8, 9));
    if (std::all_of(values.begin(), values.end(), [](int value) { return value == 0; }))
      values[0] = 1;
    return {values.begin(), values.end()};
  }

  id_type some_id() const {
    return *rc::gen::inRange<id_type>(0, static_cast<id_type>(model_.points.size()));
  }

  void add(std::size_t n) {
    std::vector<float> block;
    std::vector<std::uint64_t> labels;
    const std::size_t before = model_.points.size();
    for (std::size_t i = 0; i < n; ++i) {
      const std::vector<float> one = vector();
      labels.push_back(*rc::gen::arbitrary<std::uint64_t>());
      block.insert(block.end(), one.begin(), one.end());
      model_.points.push_back({one, labels.back(), false});
    }
    const id_range ids = index_.add_block(block, labels);
    RC_ASSERT(ids.first == before);
    RC_ASSERT(ids.count == n);
  }

  void mark(bool deleted) {
    const id_type id = some_id();
    model_.points[id].deleted = deleted;
    deleted ? index_.remove(id) : index_.restore(id);
  }

  void relabel() {
    const id_type id = some_id();
    model_.points[id].label = *rc::gen::arbitrary<std::uint64_t>();
    index_.set_label(id, model_.points[id].label);
  }

  void search() {
    const std::vector<float> query = vector();
    const auto k = *rc::gen::inRange<std::size_t>(1, 30);
    const bool odd_only = *rc::gen::arbitrary<bool>();
    search_options options{.radius = 100};
    if (odd_only) options.filter = [](id_type, std::uint64_t label) { return label % 2 == 1; };
    const hits answer = index_.search(query, k, options);
    const std::vector<double> exact = model_.nearest(query, k, odd_only);
    RC_ASSERT(answer.size() == exact.size());
    std::map<id_type, int> seen;
    for (const hit& one : answer) {
      RC_ASSERT(one.id < model_.points.size());
      const point& meant = model_.points[one.id];
      RC_ASSERT(++seen[one.id] == 1);
      RC_ASSERT(!meant.deleted);
      RC_ASSERT(!odd_only || meant.label % 2 == 1);
      const double true_distance = exact_distance(index_.metric(), meant.vector, query);
      RC_ASSERT(std::fabs(static_cast<double>(one.distance) - true_distance) < 1e-3);
    }
    wanted_ += exact.size();
    found_ += static_cast<std::size_t>(
        std::lround(recall(index_.metric(), answer, exact) * static_cast<double>(exact.size())));
  }

  void reopen() {
    if (options_.directory.empty()) return search();
    index_.close();
    index_ = index(options_);
    check();
  }

  const scratch_directory scratch_;
  const index_options options_;
  model model_;
  index index_;
  std::size_t wanted_ = 0;
  std::size_t found_ = 0;
};

TEST(Model, AnyMixOfOperationsAgrees) {
  std::size_t wanted = 0;
  std::size_t found = 0;
  const bool held = rc::check("an index agrees with its model", [&] {
    const auto chosen =
        *rc::gen::element(metric::l2_squared, metric::l2, metric::inner_product, metric::cosine);
    // One in four has files: opening and closing them is what takes the time.
    const bool on_disk = *rc::gen::weightedElement<bool>({{1, true}, {3, false}});
    run one(chosen, *rc::gen::inRange(1, 4), on_disk);
    const int steps = *rc::gen::inRange(5, sanitized ? 25 : 60);
    for (int i = 0; i < steps; ++i) one.step();
    one.check();
    wanted += one.wanted();
    found += one.found();
  });
  EXPECT_TRUE(held);
  EXPECT_GT(wanted, sanitized ? 100u : 1000u);
  EXPECT_GE(static_cast<double>(found) / static_cast<double>(wanted), 0.97);
}

}  // namespace
}  // namespace korvex
