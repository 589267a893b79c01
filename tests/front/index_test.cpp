#include <limits>
#include <thread>

#include "front_fixture.h"

namespace korvex {
namespace {

using namespace test;

constexpr float nan = std::numeric_limits<float>::quiet_NaN();
constexpr float infinity = std::numeric_limits<float>::infinity();

index_options small(std::uint32_t dimension, bool labels = false) {
  return {.dimension = dimension, .labels = labels, .block_vectors = 4096};
}

TEST(Index, RefusesWhatDoesNotFitAndChangesNothing) {
  index index({.dimension = 3, .metric = metric::cosine, .block_vectors = 64});
  const std::vector<float> good = {1, 2, 3};
  index.add(good);
  expect_error(errc::dimension_mismatch, "has 2 components, the index has 3", [&] {
    index.add(std::vector<float>{1, 2});
  });
  expect_error(errc::dimension_mismatch, "7 floats were given, rows of 3",
               [&] { index.add_block(std::vector<float>(7, 1)); });
  // The first row is good: a block is checked before any of it is added.
  expect_error(errc::not_finite, "component 1 of row 1 is nan", [&] {
    index.add_block(std::vector<float>{1, 2, 3, 4, nan, 6});
  });
  expect_error(errc::not_finite, "is -inf", [&] {
    index.add(std::vector<float>{1, -infinity, 3});
  });
  expect_error(errc::not_finite, "all zero", [&] { index.add(std::vector<float>{0, 0, -0.0f}); });
  expect_error(errc::not_finite, "all zero", [&] { index.search(std::vector<float>{0, 0, 0}, 1); });
  expect_error(errc::not_finite, "is inf", [&] {
    index.search_block(std::vector<float>{infinity, 0, 0}, 1);
  });
  expect_error(errc::invalid_argument, "k is 0, 1 to", [&] { index.search(good, 0); });
  expect_error(errc::invalid_argument, "radius is -1",
               [&] { index.search(good, 1, {.radius = -1}); });
  expect_error(errc::invalid_argument, "takes no deadline",
               [&] { index.search_async(good, 1, {.deadline = std::chrono::milliseconds(5)}); });
  expect_error(errc::labels_off, "keeps no labels", [&] { index.add(good, 7); });
  expect_error(errc::no_such_id, "id 1 was given; ids end at 0", [&] { index.remove(1); });
  expect_error(errc::no_such_id, "id 4294967295", [&] { index.vector_at(no_id); });
  EXPECT_EQ(index.added(), 1u);
  EXPECT_EQ(index.size(), 1u);

  korvex::index moved = std::move(index);
  EXPECT_EQ(moved.size(), 1u);
  expect_error(errc::closed, "moved from", [&] { index.size(); });
  expect_error(errc::closed, "empty", [] { pending().get(); });
}

TEST(Index, RefusesOptionsOutsideTheirRange) {
  const auto open = [](const index_options& options) {
    return [options] { index tried(options); };
  };
  expect_error(errc::invalid_argument, "dimension is 0, 1 to 1048576", open({}));
  expect_error(errc::invalid_argument, "constellation is 1, 2 to 256",
               open({.dimension = 2, .constellation = 1}));
  expect_error(errc::invalid_argument, "probes is 17", open({.dimension = 2, .probes = 17}));
  expect_error(errc::invalid_argument, "without path separators",
               open({.dimension = 2, .name = "a/b"}));
  expect_error(errc::not_found, "always new",
               open({.dimension = 2, .mode = open_mode::open_existing}));
}

TEST(Index, DistancesAreInTheScaleOfTheirMetric) {
  const std::vector<float> points = {3, 4, 0, 5, -3, -4, 6, 8};
  const std::vector<float> query = {3, 4};
  const struct {
    metric chosen;
    std::vector<hit> expected;
  } rows[] = {
      {metric::l2_squared, {{0, 0}, {1, 10}, {3, 25}, {2, 100}}},
      {metric::l2, {{0, 0}, {1, std::sqrt(10.0f)}, {3, 5}, {2, 10}}},
      {metric::inner_product, {{3, 50}, {0, 25}, {1, 20}, {2, -25}}},
      {metric::cosine, {{0, 0}, {3, 0}, {1, 0.2f}, {2, 2}}},
  };
  for (const auto& row : rows) {
    index index({.dimension = 2, .metric = row.chosen, .block_vectors = 64});
    index.add_block(points);
    hits found = index.search(query, 4);
    ASSERT_EQ(found.size(), 4u);
    // Under cosine 0 and 3 are equally far.
    if (row.chosen == metric::cosine && found[0].id == 3) std::swap(found[0], found[1]);
    for (std::size_t i = 0; i < 4; ++i) {
      EXPECT_EQ(found[i].id, row.expected[i].id) << detail::name_of(row.chosen) << " " << i;
      EXPECT_NEAR(found[i].distance, row.expected[i].distance, 1e-5);
    }
    const std::vector<float> stored = index.vector_at(3);
    EXPECT_NEAR(stored[0], row.chosen == metric::cosine ? 0.6f : 6.0f, 1e-6);
  }
}

// Their squares leave the range of a float.
TEST(Index, CosineBearsVerySmallAndVeryLargeVectors) {
  index index({.dimension = 2, .metric = metric::cosine, .block_vectors = 64});
  index.add_block(std::vector<float>{1e-30f, 1e-30f, 3e30f, 0, 0, -1e-40f});
  EXPECT_NEAR(index.search(std::vector<float>{1e-25f, 1e-25f}, 1)[0].distance, 0, 1e-6);
  EXPECT_EQ(index.search(std::vector<float>{1e30f, 1e20f}, 1)[0].id, 1u);
  EXPECT_EQ(index.search(std::vector<float>{0, -2}, 1)[0].id, 2u);
}

TEST(Index, LabelsFollowTheirVectors) {
  index index(small(2, true));
  EXPECT_EQ(index.add(std::vector<float>{0, 0}, 70), 0u);
  const std::vector<std::uint64_t> labels = {71, ~std::uint64_t{0}};
  const id_range block = index.add_block(std::vector<float>{1, 0, 2, 0}, labels);
  EXPECT_EQ(block.first, 1u);
  EXPECT_EQ(block.count, 2u);
  index.add(std::vector<float>{3, 0});
  EXPECT_EQ(index.label(0), 70u);
  EXPECT_EQ(index.label(2), ~std::uint64_t{0});
  EXPECT_EQ(index.label(3), 0u);
  index.remove(1);
  index.set_label(1, 99);
  EXPECT_EQ(index.label(1), 99u);
  EXPECT_FALSE(index.contains(1)) << "labelling a removed vector must not bring it back";
  const std::vector<float> query = {0, 0};
  const search_options odd{.filter = [](id_type, std::uint64_t label) { return label % 2 == 1; }};
  EXPECT_EQ(ids_of(index.search(query, 4, odd)), std::vector<id_type>{2});
  index.restore(1);
  EXPECT_EQ(ids_of(index.search(query, 4, odd)), (std::vector<id_type>{1, 2}));
  expect_error(errc::invalid_argument, "1 labels were given for 2 vectors", [&] {
    index.add_block(std::vector<float>{1, 0, 2, 0}, std::vector<std::uint64_t>{1});
  });
}

TEST(Index, RemovedVectorsAreHiddenUntilRestored) {
  index index(small(2));
  for (int i = 0; i < 20; ++i) index.add(std::vector<float>{static_cast<float>(i), 0});
  const std::vector<id_type> gone = {0, 1, 2, 19};
  index.remove(gone);
  index.remove(0);
  expect_error(errc::no_such_id, "id 20", [&] { index.remove(std::vector<id_type>{5, 20}); });
  EXPECT_EQ(index.size(), 16u);
  EXPECT_EQ(index.stats().deleted, 4u);
  const std::vector<float> query = {0, 0};
  const hits found = index.search(query, 100);
  EXPECT_EQ(found.size(), 16u) << "a row is short when no more are there, not an error";
  EXPECT_TRUE(found.complete);
  EXPECT_EQ(found[0].id, 3u);
  index.restore(1);
  index.restore(1);
  EXPECT_EQ(index.size(), 17u);
  EXPECT_EQ(index.search(query, 1)[0].id, 1u);
}

TEST(Index, WaitReadyTellsProgressAndCanBeStopped) {
  index index(small(32));
  const cloud points = make_clusters(4000, 32, 1);
  index.add_block(points.values);
  int told = 0;
  EXPECT_FALSE(index.wait_ready([&](const progress& now) {
    ++told;
    EXPECT_LE(now.linked, now.added);
    EXPECT_EQ(now.added, 4000u);
    return false;
  }) && told == 0);
  EXPECT_EQ(told, 1);
  progress last{};
  EXPECT_TRUE(index.wait_ready([&](const progress& now) {
    last = now;
    return true;
  }));
  EXPECT_EQ(last.linked, 4000u);
  EXPECT_EQ(index.stats().unlinked, 0u);
  EXPECT_FALSE(index.stats().kernels.empty());
}

TEST(Index, EstimatesWhatItWillTake) {
  const scratch_directory scratch;
  for (const std::size_t dimension : {16u, 128u}) {
    const cloud points = make_clusters(sanitized ? 2000 : 6000, dimension, 2);
    for (const bool on_disk : {false, true}) {
      index_options options = small(static_cast<std::uint32_t>(dimension), true);
      options.indexing_threads = 2;
      if (on_disk) options.directory = scratch.path() / std::to_string(dimension);
      const size_estimate expected = index::estimate(options, points.size());
      index index(options);
      index.add_block(points.values, std::vector<std::uint64_t>(points.size(), 1));
      index.flush();
      const statistics real = index.stats();
      EXPECT_NEAR(
          static_cast<double>(real.memory_bytes) / static_cast<double>(expected.memory_bytes), 1,
          0.1);
      if (on_disk) {
        // Where files cannot be reserved they take no more than their records.
        EXPECT_LE(real.disk_bytes, expected.disk_bytes * 1.05);
        EXPECT_GE(real.disk_bytes, real.memory_bytes * 0.9);
      } else {
        EXPECT_EQ(real.disk_bytes, 0u);
      }
    }
  }
}

TEST(Index, OnDiskComesBackAsItWasAndRefusesOtherOptions) {
  const scratch_directory scratch;
  const index_options options{.dimension = 8,
                              .metric = metric::cosine,
                              .directory = scratch.path(),
                              .labels = true,
                              .block_vectors = 512};
  const cloud points = make_clusters(500, 8, 3);
  hits before;
  {
    index index(options);
    std::vector<std::uint64_t> labels(points.size());
    for (std::size_t i = 0; i < labels.size(); ++i) labels[i] = 3 * i;
    index.add_block(points.values, labels);
    index.remove(11);
    before = index.search(points[11], 10);
    index_options second = options;
    expect_error(errc::unavailable, "in use", [&] { korvex::index tried(second); });
  }
  {
    index index({.directory = scratch.path(), .mode = open_mode::open_existing});
    EXPECT_EQ(index.dimension(), 8u);
    EXPECT_EQ(index.metric(), metric::cosine);
    EXPECT_EQ(index.added(), 500u);
    EXPECT_EQ(index.size(), 499u);
    EXPECT_EQ(index.label(17), 51u);
    EXPECT_EQ(ids_of(index.search(points[11], 10)), ids_of(before));
  }
  const auto open = [&](auto change) {
    return [&, change] {
      index_options other = options;
      change(&other);
      index tried(other);
    };
  };
  expect_error(errc::mismatch, "dimension is 9", open([](auto* o) { o->dimension = 9; }));
  expect_error(errc::mismatch, "metric is l2, the index",
               open([](auto* o) { o->metric = metric::l2; }));
  expect_error(errc::exists, "is there already",
               open([](auto* o) { o->mode = open_mode::create_new; }));
  expect_error(errc::not_found, "\"other\"", open([](auto* o) {
                 o->name = "other";
                 o->mode = open_mode::open_existing;
               }));
  expect_error(errc::unavailable, "cannot be opened",
               [] { index tried({.dimension = 2, .directory = "/dev/null/nowhere"}); });
}

TEST(Index, LogGoesWhereItIsSent) {
  std::mutex lock;
  std::string lines;
  set_log([&](std::string_view line) {
    std::lock_guard guard(lock);
    lines += line;
  });
  { index index(small(4)); }
  set_log({});
  EXPECT_NE(lines.find("In-Memory"), std::string::npos);
  const std::size_t so_far = lines.size();
  { index index(small(4)); }
  EXPECT_EQ(korvex_wait_log(5000), 0);
  EXPECT_EQ(lines.size(), so_far);
}

}  // namespace
}  // namespace korvex
