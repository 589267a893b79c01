#include "engine/distances.h"

#include "engine/index_fixture.h"

namespace korvex {
namespace {

using namespace test;

std::uint32_t nearest(const std::vector<std::uint32_t>& ids, const std::vector<float>& distances) {
  std::uint32_t best = 0;
  float least = largest_float;
  for (std::size_t i = 0; i < ids.size(); ++i) {
    if (!(distances[i] < least)) continue;
    least = distances[i];
    best = ids[i];
  }
  return best;
}

// Comparing many stars at once leaves out those that cannot be the nearest, and none that is.
TEST(Distances, ManyAtOnceFindTheNearestOfOneByOne) {
  for (const int metric : {DISTANCE_L2_SQUARE, DISTANCE_L2, DISTANCE_INNER_PRODUCT}) {
    for (const int dimension : {3, 100, 784}) {
      const auto width = static_cast<std::uint32_t>(dimension);
      cloud points = make_clusters(300, dimension, 1);
      for (std::size_t i = 0; i < points.values.size(); ++i)
        points.values[i] *= static_cast<float>(i / width % 7) * 0.5f;  // lengths from 0 on
      const open_index index({.dimension = dimension, .metric = metric}, points);
      std::mt19937 random(width);
      std::vector<float> unit(width);
      for (std::uint32_t round = 0; round < 100; ++round) {
        vector_hash_node_s query;
        query.query = points[static_cast<int>(random() % 300)];
        query.aux = normalize_vector(query.query, unit.data(), width);
        query.vector = unit.data();
        std::vector<std::uint32_t> ids(random() % 40);
        for (std::uint32_t& id : ids) id = random() % 310 + 1;  // some do not exist
        for (const int mode : {vector_hash_mode_search, vector_hash_mode_add}) {
          std::vector<float> together(ids.size(), -1.0f);
          std::vector<float> single;
          for (const std::uint32_t id : ids)
            single.push_back(korvex_get_hash_distance(index, id, &query, mode));
          korvex_get_hash_distances(index, ids.data(), static_cast<std::uint32_t>(ids.size()),
                                    &query, mode, together.data());
          ASSERT_EQ(nearest(ids, together), nearest(ids, single)) << metric << " " << dimension;
          for (std::size_t i = 0; i < ids.size(); ++i)
            ASSERT_TRUE(together[i] == single[i] ||
                        (mode == vector_hash_mode_search && together[i] == largest_float))
                << ids[i];
        }
      }
    }
  }
}

}  // namespace
}  // namespace korvex
