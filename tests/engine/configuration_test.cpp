#include "engine/configuration.h"

#include <limits>

#include "engine/distances.h"
#include "engine/index_fixture.h"
#include "engine/points.h"
#include "engine/startup.h"

namespace korvex {
namespace {

using namespace test;

TEST(Configuration, RefusesImpossibleDimensionsWithOneLine) {
  log_capture::install();
  for (const std::uint32_t dimension : {0u, max_dimension + 1, static_cast<std::uint32_t>(-3)}) {
    const log_capture lines;
    EXPECT_EQ(korvex_init(dimension, 0, nullptr, nullptr), nullptr) << dimension;
    EXPECT_EQ(log_capture::count("**CRITICAL**"), 1) << dimension;
  }
}

TEST(Configuration, TheStartUpFreezesWhatTheEngineReads) {
  const open_index index({.dimension = 4, .probes = 3, .constellation = 5, .units = 1000});
  korvex_set_partitions(index, 0);
  korvex_set_partitions(index, -3);
  EXPECT_EQ(index.runtime()->hnsw->pattern_probes, 3u);
  const cloud points = make_clusters(40, 4, 1);
  korvex_add(index, points[0], 0);

  korvex_set_partitions(index, 16);
  korvex_set_neighbors_count(index, 400);
  korvex_set_threads(index, 7);
  korvex_set_alloc_units(index, 5, 1);
  korvex_enable_label(index, 1);
  korvex_available_memory(index, 1);
  for (int i = 1; i < points.size(); ++i)
    EXPECT_EQ(korvex_add(index, points[i], 0), static_cast<std::uint32_t>(i));
  EXPECT_EQ(index.runtime()->probe_count, 3u);
  EXPECT_EQ(index.runtime()->neighbour_count, 10u);
  EXPECT_EQ(index.runtime()->indexing_threads, 0);
  EXPECT_EQ(static_cast<hnsw_s*>(index)->allocation_units, 1000u);
  EXPECT_EQ(korvex_set_label(index, 1, 5), 0u);
}

TEST(Configuration, UnknownMetricsChangeNothing) {
  const open_index index({.dimension = 2, .metric = DISTANCE_L2});
  for (const int type : {0, 3, 5, -1, 1000}) korvex_set_distance_type(index, type);
  const float a[] = {0, 0};
  const float b[] = {3, 4};
  EXPECT_FLOAT_EQ(korvex_get_distance_internal(index, a, b), 5.0f);
  korvex_set_distance_type(index, DISTANCE_INNER_PRODUCT);
  EXPECT_FLOAT_EQ(korvex_get_distance_internal(index, b, b), 25.0f);
}

// Every call before anything was added, or on no index at all, has a failure value and no effect.
TEST(Configuration, CallsOnNothingAreHarmless) {
  const open_index fresh;
  const float v[8] = {};
  for (hnsw_s* const hnsw : {static_cast<hnsw_s*>(nullptr), static_cast<hnsw_s*>(fresh)}) {
    EXPECT_EQ(korvex_delete(hnsw, 0, 0), -1);
    EXPECT_EQ(korvex_get_label(hnsw, 0), 0u);
    EXPECT_EQ(korvex_set_label(hnsw, 0, 9), 0u);
    korvex_set_data(hnsw, 0, nullptr, 0);
    EXPECT_EQ(korvex_is_flag_set_internal(hnsw, 1, 2), 0);
    EXPECT_EQ(korvex_get_list(hnsw, 1), nullptr);
    EXPECT_EQ(korvex_get_distance_ext(hnsw, 0, v), largest_float);
    EXPECT_EQ(korvex_is_indexed(hnsw, v), 0);
    EXPECT_EQ(korvex_has_finish_adding(hnsw), hnsw == nullptr ? 0 : 1);
    korvex_wait_finish_adding(hnsw);
    EXPECT_EQ(korvex_add(hnsw, nullptr, 0), 0u);
    std::uint32_t first = 7;
    std::uint32_t last = 7;
    korvex_add_multiple(hnsw, nullptr, 3, &first, &last);
    EXPECT_EQ(first + last, 0u);
    korvex_add_multiple(hnsw, v, 0, nullptr, nullptr);
    korvex_add_multiple(hnsw, v, -1, &first, &last);
  }
  EXPECT_EQ(load_counter(static_cast<hnsw_s*>(fresh)->added), 0u);
  korvex_set_threads(nullptr, 1);
  korvex_set_distance_type(nullptr, 1);
  EXPECT_EQ(korvex_set_result_cache(nullptr, 1), -1);
  EXPECT_EQ(korvex_set_result_cache(fresh, 3), -1);
  korvex_free(nullptr);
}

}  // namespace
}  // namespace korvex
