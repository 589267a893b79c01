#include "engine/points.h"

#include "engine/distances.h"
#include "engine/index_fixture.h"

namespace korvex {
namespace {

using namespace test;

TEST(Points, LabelsKeepTheirWordAndUndelete) {
  const cloud points = make_clusters(50, 3, 1);
  const open_index index({.dimension = 3, .probes = 2, .labels = true}, points);
  for (std::uint32_t id = 0; id < 50; ++id) {
    EXPECT_EQ(korvex_get_label(index, id), 0u);
    EXPECT_EQ(korvex_set_label(index, id, 0x1'0000'0000ull * id + 5), 0u);
  }
  for (std::uint32_t id = 0; id < 50; ++id)
    EXPECT_EQ(korvex_get_label(index, id), 0x1'0000'0000ull * id + 5);

  // Public id 7 is internal id 8: its neighbours in the numbering stay as they are.
  EXPECT_EQ(korvex_delete(index, 7, 0), 0);
  EXPECT_EQ(korvex_is_flag_set_internal(index, 8, flag_deleted), 1);
  EXPECT_EQ(
      korvex_is_flag_set_internal(index, 7, 0xFF) + korvex_is_flag_set_internal(index, 9, 0xFF), 0);
  EXPECT_EQ(korvex_set_label(index, 7, 1), 0x7'0000'0005ull);
  EXPECT_EQ(korvex_is_flag_set_internal(index, 8, flag_deleted), 0);

  int word = 0;
  korvex_set_data(index, 7, &word, 0);
  EXPECT_EQ(korvex_get_label(index, 7), reinterpret_cast<std::uintptr_t>(&word));
  EXPECT_EQ(korvex_is_flag_set_internal(index, 8, flag_data), 1);
  korvex_set_label(index, 7, 2);
  EXPECT_EQ(korvex_is_flag_set_internal(index, 8, flag_data), 0);
}

TEST(Points, IdsThatDoNotExistAreRefused) {
  const cloud points = make_clusters(10, 3, 1);
  const open_index index({.dimension = 3, .metric = DISTANCE_INNER_PRODUCT, .labels = true},
                         points);
  for (const std::uint32_t id : {10u, 11u, 1'000'000u, 0xFFFFFFFEu, 0xFFFFFFFFu}) {
    const log_capture lines;
    EXPECT_EQ(korvex_delete(index, id, 0), -1) << id;
    EXPECT_EQ(korvex_delete(index, id, 1), -1) << id;
    EXPECT_EQ(korvex_get_label(index, id), 0u) << id;
    EXPECT_EQ(korvex_set_label(index, id, 4), 0u) << id;
    EXPECT_EQ(log_capture::count("null label buffer for id: " + std::to_string(id)), 2) << id;
    // Infinitely far: the smallest dot product.
    EXPECT_EQ(korvex_get_distance_ext(index, id, points[0]), -largest_float) << id;
  }
  EXPECT_EQ(korvex_get_distance_internal(index, 11, points[0]), -largest_float);
  EXPECT_FLOAT_EQ(korvex_get_distance_ext(index, 9, points[0]),
                  static_cast<float>(-plain_key(DISTANCE_INNER_PRODUCT, points[9], points[0], 3)));
}

// A point that is not linked yet hands over to the entry that it was itself sent to, down to the seed.
TEST(Points, AnEntryWithoutNeighboursIsReplacedByItsOwnEntry) {
  const open_index index({.dimension = 2, .probes = 2}, make_clusters(12, 2, 1));
  const korvex_runtime_s& runtime = *index.runtime();
  const auto unlink = [&](std::uint32_t id, std::uint32_t entry) {
    graph_record graph = graph_of(runtime, id);
    graph.set_slot(0, 0);
    graph.set_slot(1, entry);
  };
  EXPECT_EQ(usable_entry(index, 11, 2), 11u);
  unlink(11, 9);
  EXPECT_EQ(usable_entry(index, 11, 2), 9u);
  unlink(9, 5);
  unlink(5, 1);
  EXPECT_EQ(usable_entry(index, 11, 2), 1u);  // a seed needs no neighbours
  unlink(5, 0);
  EXPECT_EQ(usable_entry(index, 11, 2), 2u);
  unlink(9, 10);  // damaged: entries are older than what they lead to
  EXPECT_EQ(usable_entry(index, 11, 2), 2u);
  EXPECT_EQ(usable_entry(index, 4'000, 2), 2u);
}

}  // namespace
}  // namespace korvex
