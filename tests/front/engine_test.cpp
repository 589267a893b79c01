#include <cstring>
#include <thread>

#include "front_fixture.h"

// The C functions, as another language calls them.
namespace korvex {
namespace {

using namespace test;

// An index of `points`, labelled with 10 x id.
hnsw_s* make_index(const cloud& points, const char* directory = nullptr) {
  korvex_set_log_sink(nullptr, nullptr);
  hnsw_s* const index =
      korvex_init(static_cast<std::uint32_t>(points.dimension), 0, directory, "engine");
  korvex_enable_label(index, 1);
  korvex_set_partitions(index, 1);
  korvex_set_alloc_units(index, 4096, 0);
  for (std::size_t i = 0; i < points.size(); ++i) korvex_add(index, points[i].data(), 10 * i);
  return index;
}

template <class Record>
Record sized(std::uint32_t size = sizeof(Record)) {
  Record record;
  std::memset(&record, 0x77, sizeof record);
  record.size = size;
  return record;
}

TEST(Engine, LabelsFromEndToEnd) {
  const cloud points = make_clusters(400, 4, 1);
  hnsw_s* const index = make_index(points);
  EXPECT_EQ(korvex_get_label(index, 7), 70u);
  EXPECT_EQ(korvex_set_label(index, 7, 71), 70u);
  EXPECT_EQ(korvex_delete(index, 7, 0), 0);
  EXPECT_EQ(korvex_change_label(index, 7, 72), 0);
  EXPECT_EQ(korvex_is_flag_set_internal(index, 8, 2), 1);
  EXPECT_EQ(korvex_set_label(index, 7, 73), 72u);
  EXPECT_EQ(korvex_is_flag_set_internal(index, 8, 2), 0) << "setting a label undeletes";
  EXPECT_EQ(korvex_change_label(index, 400, 1), -1);
  int host = 0;
  korvex_set_data(index, 8, &host, 0);
  EXPECT_EQ(korvex_get_label(index, 8), reinterpret_cast<std::uintptr_t>(&host));
  EXPECT_EQ(korvex_is_flag_set_internal(index, 9, 1), 1);

  // A session's filter is told the labels, and its answer holds only what passes.
  static std::atomic<int> asked;
  asked = 0;
  const std::uint32_t session = korvex_search_init(index, 5, nullptr);
  korvex_search_set_callbacks(
      index, session,
      [](const void*, unsigned id, unsigned long long label) {
        ++asked;
        return id != 7 && label % 20 == 0 ? 0 : 1;
      },
      nullptr, nullptr);
  ASSERT_EQ(korvex_search(index, session, points[20].data(), 200, 5), 0u);
  const korvex_results_s* const found = korvex_search_result(index, session, 0);
  ASSERT_EQ(found->count, 5u);
  EXPECT_EQ(found->ids[0], 20u);
  for (std::uint32_t i = 0; i < found->count; ++i) EXPECT_EQ(found->ids[i] % 2, 0u);
  EXPECT_GT(asked, 5);
  korvex_search_free(index, session);
  korvex_free(index);
}

TEST(Engine, TellsWhatAnIndexWasMadeWithOpenOrNot) {
  const scratch_directory scratch;
  const std::string directory = scratch.path().string();
  auto description = sized<korvex_description_s>();
  EXPECT_EQ(korvex_inspect(0, directory.c_str(), "engine", &description), 1);
  const cloud points = make_clusters(30, 6, 2);
  hnsw_s* const index = make_index(points, directory.c_str());
  ASSERT_NE(index, nullptr);
  for (const bool open : {true, false}) {
    description = sized<korvex_description_s>();
    if (open) {
      EXPECT_EQ(korvex_describe(index, &description), 0);
      korvex_free(index);
    } else {
      EXPECT_EQ(korvex_inspect(0, directory.c_str(), "engine", &description), 0);
    }
    EXPECT_EQ(description.dimension, 6u);
    EXPECT_EQ(description.metric, KORVEX_DISTANCE_L2_SQUARE);
    EXPECT_EQ(description.labels, 1u);
    EXPECT_EQ(description.probes, 1u);
    EXPECT_EQ(description.constellation, 16u);
    EXPECT_EQ(description.added, 30u);
    EXPECT_EQ(description.on_disk, 1u);
  }
  EXPECT_EQ(korvex_inspect(1, directory.c_str(), "engine", &description), 1) << "another instance";
}

// A caller that was compiled when records were shorter gets what it has room for.
TEST(Engine, FillsRecordsAsFarAsTheyGo) {
  const cloud points = make_clusters(20, 2, 3);
  hnsw_s* const index = make_index(points);
  korvex_delete(index, 3, 0);
  auto counts = sized<korvex_counts_s>(12);
  EXPECT_EQ(korvex_get_counts(index, &counts), 0);
  EXPECT_EQ(counts.size, 12u);
  EXPECT_EQ(counts.added, 20u);
  EXPECT_EQ(counts.live, 19u);
  EXPECT_EQ(counts.linked, 0x77777777u);
  counts = sized<korvex_counts_s>(3);
  EXPECT_EQ(korvex_get_counts(index, &counts), -1);
  EXPECT_EQ(korvex_get_stats(index, nullptr), -1);
  EXPECT_EQ(korvex_wait_linked(index, 10'000), 1);
  auto stats = sized<korvex_stats_s>();
  EXPECT_EQ(korvex_get_stats(index, &stats), 0);
  EXPECT_EQ(stats.deleted, 1u);
  EXPECT_STREQ(stats.kernels, korvex_kernels());
  korvex_free(index);
}

TEST(Engine, BulkSearchesAnswerEveryRow) {
  const cloud points = make_clusters(500, 4, 4);
  hnsw_s* const index = make_index(points);
  korvex_set_result_cache(index, 0);
  korvex_bulk_search_s* const bulk = korvex_bulk_search_alloc();
  for (const int n : {1, 300, 20}) {
    ASSERT_EQ(korvex_bulk_search(index, bulk, points.values.data(), n, 100, 3, nullptr, nullptr),
              0u);
    const korvex_bulk_results_s* const rows = korvex_bulk_search_results(index, bulk);
    ASSERT_EQ(rows->query_count, static_cast<std::uint32_t>(n));
    for (std::uint32_t i = 0; i < rows->query_count; ++i) EXPECT_EQ(rows->ids[3 * i], i);
  }
  korvex_bulk_search_free(bulk);
  korvex_free(index);
}

// Calls that are under way while another thread gives the index up: each ends, and what it uses
// stays until then.
TEST(Engine, GivingUpUnderCallsIsOrderly) {
  const cloud points = make_clusters(2000, 16, 5);
  for (int round = 0; round < 3; ++round) {
    hnsw_s* const index = make_index(points);
    static std::atomic<bool> inside;
    inside = false;
    std::thread searching([&] {
      korvex_direct_options_s options{};
      options.size = sizeof options;
      options.filter = [](void*, std::uint32_t, std::uint64_t) {
        inside = true;
        return 0;
      };
      std::vector<std::uint32_t> ids(2000);
      korvex_search_direct(index, points.values.data(), 2000, 1, &options, ids.data(), nullptr,
                           nullptr);
    });
    std::thread adding(
        [&] { korvex_add_multiple(index, points.values.data(), 2000, nullptr, nullptr); });
    auto counts = sized<korvex_counts_s>();
    do {
      korvex_get_counts(index, &counts);
    } while (!inside || counts.added == 2000);
    korvex_free(index);
    searching.join();
    adding.join();
  }
}

}  // namespace
}  // namespace korvex
