#include "engine/distances.h"

#include <span>

#include "engine/index_fixture.h"

namespace korvex {
namespace {

using namespace test;

std::uint32_t nearest(std::span<const std::uint32_t> ids, std::span<const float> distances) {
  std::uint32_t best = 0;
  float least = largest_float;
  for (std::size_t i = 0; i < ids.size(); ++i) {
    if (!(distances[i] < least)) continue;
    least = distances[i];
    best = ids[i];
  }
  return best;
}

// Comparing the stars of a few arrays at once leaves out those that cannot be the nearest of theirs, and none that is.
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
        const auto up_to = [&](unsigned most) {
          return static_cast<std::uint32_t>(random() % most);
        };
        const std::uint32_t counts[] = {up_to(40), up_to(3), up_to(40)};
        std::vector<std::uint32_t> ids(counts[0] + counts[1] + counts[2]);
        for (std::uint32_t& id : ids) id = random() % 310 + 1;  // some do not exist
        std::vector<float> together(ids.size(), -1.0f);
        korvex_get_hash_distances(index, ids.data(), counts, 3, &query, together.data());
        std::size_t first = 0;
        for (const std::uint32_t count : counts) {
          std::vector<float> single;
          for (std::size_t i = first; i < first + count; ++i)
            single.push_back(
                korvex_get_hash_distance(index, ids[i], &query, vector_hash_mode_search));
          const std::span array(ids.data() + first, count);
          const std::span scanned(together.data() + first, count);
          ASSERT_EQ(nearest(array, scanned), nearest(array, single)) << metric << " " << dimension;
          for (std::size_t i = 0; i < count; ++i)
            ASSERT_TRUE(scanned[i] == single[i] || scanned[i] == largest_float) << array[i];
          first += count;
        }
      }
    }
  }
}

}  // namespace
}  // namespace korvex
