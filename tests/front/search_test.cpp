#include <set>
#include <stdexcept>
#include <thread>

#include "front_fixture.h"

namespace korvex {
namespace {

using namespace test;

bool everyone(id_type) {
  return true;
}

// Components in (-1, 1): the default cache of the raw contract would take most of these queries for
// one and the same.
TEST(Search, UnitVectorsOneAfterAnother) {
  const cloud points = make_clusters(sanitized ? 2000 : 10'000, 32, 1, true);
  const cloud queries = make_clusters(sanitized ? 100 : 1000, 32, 2, true);
  index index({.dimension = 32, .metric = metric::cosine, .block_vectors = 16'384});
  index.add_block(points.values);
  EXPECT_TRUE(index.wait_ready());
  double sum = 0;
  for (std::size_t q = 0; q < queries.size(); ++q) {
    const hits found = index.search(queries[q], 10, {.radius = 200});
    ASSERT_EQ(found.size(), 10u);
    sum += recall(metric::cosine, found,
                  exact_nearest(metric::cosine, points, queries[q], 10, everyone));
    if (q % 50 == 0) {
      EXPECT_EQ(index.search(queries[q], 10, {.radius = 200}), found);
    }
  }
  EXPECT_GE(sum / static_cast<double>(queries.size()), 0.95);

  const results block = index.search_block(queries.values, 10, {.radius = 200});
  EXPECT_EQ(block.answered, queries.size());
  const hits alone = index.search(queries[77], 10, {.radius = 200});
  ASSERT_EQ(block.ids_of(77).size(), alone.size());
  for (std::size_t i = 0; i < alone.size(); ++i) {
    EXPECT_EQ(block.ids_of(77)[i], alone[i].id);
    EXPECT_EQ(block.distances_of(77)[i], alone[i].distance);
  }
}

TEST(Search, FindsEachVectorOnceItWasAdded) {
  const cloud points = make_clusters(600, 16, 3, true);
  index index({.dimension = 16, .metric = metric::cosine, .block_vectors = 1024});
  for (std::size_t i = 0; i < points.size(); ++i) {
    const id_type id = index.add(points[i]);
    if (i % 3 == 0) index.wait_ready();
    const hits found = index.search(points[i], 1);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].id, id);
    EXPECT_NEAR(found[0].distance, 0, 1e-6);
  }
}

// From half of the points down to a handful, by a filter, a list and a bitmap.
TEST(Search, FiltersKeepTheirRecall) {
  const cloud points = make_clusters(sanitized ? 4000 : 20'000, 16, 4);
  const cloud queries = make_clusters(20, 16, 5);
  index index({.dimension = 16, .labels = true, .block_vectors = 32'768});
  std::vector<std::uint64_t> labels(points.size());
  std::mt19937 generator(6);
  for (std::uint64_t& label : labels) label = generator() % 10'000;
  index.add_block(points.values, labels);
  index.wait_ready();
  for (const std::uint64_t passing : {5000u, 500u, 50u, 5u}) {
    const auto keep = [&](id_type id) { return labels[id] < passing; };
    std::vector<id_type> list;
    std::vector<std::uint64_t> bits((points.size() + 63) / 64);
    for (id_type id = 0; id < points.size(); ++id) {
      if (!keep(id)) continue;
      list.push_back(id);
      bits[id / 64] |= std::uint64_t{1} << (id % 64);
    }
    search_options by[3];
    by[0].filter = [&](id_type, std::uint64_t label) { return label < passing; };
    by[1].allowed = list;
    by[2].allowed_bits = bits;
    for (const search_options& options : by) {
      double sum = 0;
      for (std::size_t q = 0; q < queries.size(); ++q) {
        const hits found = index.search(queries[q], 10, options);
        const auto exact = exact_nearest(metric::l2_squared, points, queries[q], 10, keep);
        EXPECT_EQ(found.size(), exact.size());
        for (const hit& h : found) EXPECT_TRUE(keep(h.id));
        sum += recall(metric::l2_squared, found, exact);
      }
      EXPECT_GE(sum / static_cast<double>(queries.size()), 0.95) << passing;
    }
  }
}

TEST(Search, NothingAllowedIsAnEmptyAnswer) {
  index index({.dimension = 2, .block_vectors = 64});
  const std::vector<float> query = {1, 1};
  EXPECT_TRUE(index.search(query, 5).empty()) << "an empty index";
  EXPECT_TRUE(index.search_async(query, 5).get().empty());
  index.add(query);
  EXPECT_TRUE(index.search(query, 5, {.allowed = std::span<const id_type>()}).empty());
  EXPECT_TRUE(index.search(query, 5, {.allowed_bits = std::span<const std::uint64_t>()}).empty());
  EXPECT_TRUE(
      index.search(query, 5, {.filter = [](id_type, std::uint64_t) { return false; }}).empty());
  EXPECT_EQ(index.search_block({}, 5).size(), 0u);
}

TEST(Search, AFilterMayThrow) {
  index index({.dimension = 2, .block_vectors = 64});
  const std::vector<float> query = {1, 1};
  for (int i = 0; i < 30; ++i) index.add(query);
  const search_options throwing{
      .filter = [](id_type, std::uint64_t) -> bool { throw std::out_of_range("mine"); }};
  EXPECT_THROW(index.search(query, 3, throwing), std::out_of_range);
  EXPECT_THROW(index.search_async(query, 3, throwing).get(), std::out_of_range);
  EXPECT_EQ(index.search(query, 3).size(), 3u);
}

TEST(Search, ADeadlineCutsAnswersOffAndSaysSo) {
  const cloud points = make_clusters(3000, 4, 7);
  index index({.dimension = 4, .block_vectors = 4096});
  index.add_block(points.values);
  index.wait_ready();
  EXPECT_TRUE(index.search(points[0], 3, {.deadline = std::chrono::hours(1)}).complete);
  const search_options slow{.filter =
                                [](id_type id, std::uint64_t) {
                                  // Not asleep: some systems sleep for milliseconds or not at all.
                                  const auto until = std::chrono::steady_clock::now() +
                                                     std::chrono::microseconds(20);
                                  while (std::chrono::steady_clock::now() < until) continue;
                                  return id % 1000 == 0;
                                },
                            .deadline = std::chrono::milliseconds(1)};
  EXPECT_FALSE(index.search(points[0], 3, slow).complete);
  EXPECT_EQ(index.search_block(points.values, 3, slow).answered, 0u);
}

// With a filter and without: page after page, every vector once, until none is left.
TEST(Search, AsyncGoesOnWithMore) {
  const cloud points = make_clusters(300, 8, 8);
  index index({.dimension = 8, .labels = true, .block_vectors = 512, .search_threads = 2});
  std::vector<std::uint64_t> labels(points.size());
  for (std::size_t i = 0; i < labels.size(); ++i) labels[i] = i % 2;
  index.add_block(points.values, labels);
  index.remove(4);
  const search_options odd{.filter = [](id_type, std::uint64_t label) { return label == 1; }};
  for (const bool filtered : {false, true}) {
    pending search = index.search_async(points[0], 20, filtered ? odd : search_options{});
    std::set<id_type> seen;
    float last = -1;
    for (;; search.more()) {
      while (!search.wait_for(std::chrono::milliseconds(1))) {
      }
      EXPECT_TRUE(search.ready());
      const hits page = search.get();
      EXPECT_EQ(search.get(), page);
      if (page.empty()) break;
      for (const hit& found : page) {
        EXPECT_TRUE(seen.insert(found.id).second);
        EXPECT_GE(found.distance, last);
        last = found.distance;
      }
    }
    EXPECT_EQ(seen.size(), filtered ? 150u : 299u);
    EXPECT_FALSE(seen.contains(4));
  }
}

TEST(Search, ManyPendingSearchesOutliveTheirIndex) {
  const cloud points = make_clusters(2000, 8, 9);
  std::vector<pending> searches;
  {
    index index({.dimension = 8, .block_vectors = 2048});
    index.add_block(points.values);
    for (std::size_t i = 0; i < 200; ++i) searches.push_back(index.search_async(points[i], 5));
  }
  for (std::size_t i = 0; i < searches.size(); ++i) {
    const hits found = searches[i].get();
    ASSERT_FALSE(found.empty());
    EXPECT_EQ(found[0].distance, 0);
  }
  searches.resize(100);
}

// All operations at once on one index.
TEST(Search, ThreadsShareAnIndex) {
  const cloud points = make_clusters(1500, 8, 10);
  index index({.dimension = 8, .labels = true, .block_vectors = 2048});
  index.add_block(std::span(points.values).first(100 * 8), std::vector<std::uint64_t>(100, 5));
  std::atomic<bool> over{false};
  std::vector<std::thread> threads;
  for (unsigned seed = 0; seed < 3; ++seed)
    threads.emplace_back([&, seed] {
      std::mt19937 generator(seed);
      while (!over) {
        const auto one = static_cast<id_type>(generator() % index.added());
        const hits found = generator() % 2 == 0 ? index.search(points[one], 3)
                                                : index.search_async(points[one], 3).get();
        EXPECT_GE(found.size(), 1u);
        EXPECT_EQ(index.label(one), 5u);
        if (one >= 50) continue;
        index.remove(one);
        EXPECT_LE(index.size(), index.added());
        index.restore(one);
      }
    });
  for (std::size_t i = 100; i < points.size(); ++i) index.add(points[i], 5);
  over = true;
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(index.size(), points.size());
}

}  // namespace
}  // namespace korvex
