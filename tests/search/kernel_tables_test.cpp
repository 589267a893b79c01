// Machines differ in what their processors can do; here each choice of kernels that this one can run has its turn in a
// whole index.
#include "engine/index_fixture.h"
#include "math/kernels.h"
#include "search/direct.h"
#include "search/session.h"

namespace korvex {
namespace {

using namespace test;

constexpr int n_points = sanitized ? 150 : 300;
constexpr int k = 10;

// Puts the best kernels back for whatever runs behind it in this process.
class forced_kernels {
 public:
  explicit forced_kernels(const char* name) : forced_(kernels_force(name)) {}
  ~forced_kernels() { kernels_force(supported_kernels()[0].name); }
  explicit operator bool() const { return forced_; }

 private:
  const bool forced_;
};

// As many candidates as there are points: a walk that finds its way meets all of them, so that the
// answer is exact.
void expect_exact_answers(const open_index& index, int metric, const cloud& points,
                          const cloud& queries, direct_way way) {
  const direct_options options{.radius = n_points, .way = way};
  const double sign = metric == DISTANCE_INNER_PRODUCT ? -1 : 1;
  for (int q = 0; q < queries.size(); ++q) {
    std::uint32_t ids[k];
    float distances[k];
    std::uint32_t count = 0;
    ASSERT_EQ(korvex_search_direct(index, queries[q], 1, k, &options, ids, distances, &count), 1);
    ASSERT_EQ(count, static_cast<std::uint32_t>(k));
    const std::vector<double> keys = exact_keys(metric, points, queries[q]);
    const double rounding = 1e-5 * std::max(std::fabs(keys.front()), std::fabs(keys.back()));
    for (std::size_t i = 0; i < k; ++i) {
      const float* const found = points[static_cast<int>(ids[i])];
      ASSERT_NEAR(sign * static_cast<double>(distances[i]), keys[i], rounding) << "place " << i;
      ASSERT_NEAR(plain_key(metric, queries[q], found, points.dimension), keys[i], rounding)
          << "place " << i;
    }
  }
}

// The same through the queue.
void expect_exact_answer_of_a_session(const open_index& index, int metric, const cloud& points,
                                      const float* query) {
  const std::uint32_t sid = korvex_search_init(index, k, nullptr);
  ASSERT_EQ(korvex_search(index, sid, query, n_points, k), 0u);
  const korvex_results_s& found = *korvex_search_result(index, sid, 0);
  ASSERT_EQ(found.count, static_cast<std::uint32_t>(k));
  const std::vector<double> keys = exact_keys(metric, points, query);
  for (std::size_t i = 0; i < k; ++i)
    EXPECT_NEAR(plain_key(metric, query, points[static_cast<int>(found.ids[i])], points.dimension),
                keys[i], 1e-5 * std::max(std::fabs(keys.front()), std::fabs(keys.back())));
  korvex_search_free(index, sid);
}

// Of each kind of dimension one: below the narrow kernels, narrow with a rest, narrow, wide with a
// rest, wide.
TEST(KernelTables, EachOfThemBuildsAnIndexThatFindsTheNearest) {
  for (const kernel_set& set : supported_kernels()) {
    const forced_kernels forced(set.name);
    ASSERT_TRUE(forced) << set.name;
    for (const int metric : {DISTANCE_L2_SQUARE, DISTANCE_L2, DISTANCE_INNER_PRODUCT})
      for (const int dimension : {2, 7, 20, 101, 128}) {
        if (thread_sanitized && (metric != DISTANCE_L2 || dimension != 101)) continue;
        SCOPED_TRACE(std::string(set.name) + ", metric " + std::to_string(metric) + ", dimension " +
                     std::to_string(dimension));
        // Inner products find long vectors alone unless all are of one length.
        const float length = metric == DISTANCE_INNER_PRODUCT ? 1.0f : 0.0f;
        const cloud points = make_clusters(n_points, dimension, 1, 10, length);
        const cloud queries = make_clusters(5, dimension, 2, 10, length);
        const open_index index({.dimension = dimension, .metric = metric, .radius = 50}, points);
        if (dimension == 128 && metric == DISTANCE_L2_SQUARE) {
          EXPECT_EQ(index.runtime()->distance_function.load(), set.l2_square_16);
        }
        for (const direct_way way : {direct_way::walk, direct_way::scan})
          expect_exact_answers(index, metric, points, queries, way);
        expect_exact_answer_of_a_session(index, metric, points, queries[0]);
      }
  }
}

}  // namespace
}  // namespace korvex
