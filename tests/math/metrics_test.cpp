#include "math/metrics.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>
#include <vector>

namespace korvex {
namespace {

class Metrics : public testing::Test {
 protected:
  void SetUp() override { distance_init(); }
  void TearDown() override { kernels_force(supported_kernels()[0].name); }
};

std::vector<float> random_vector(int dim, std::mt19937& random) {
  std::uniform_real_distribution<float> component(-1, 1);
  std::vector<float> v(static_cast<std::size_t>(dim));
  for (float& x : v) x = component(random);
  return v;
}

double reference(korvex_distance_type type, const std::vector<float>& a,
                 const std::vector<float>& b) {
  double sum = 0;
  for (std::size_t i = 0; i < a.size(); ++i) {
    const double difference = double{a[i]} - b[i];
    sum += type == DISTANCE_INNER_PRODUCT ? double{a[i]} * b[i] : difference * difference;
  }
  return type == DISTANCE_L2 ? std::sqrt(sum) : sum;
}

constexpr korvex_distance_type all_types[] = {DISTANCE_L2_SQUARE, DISTANCE_L2,
                                              DISTANCE_INNER_PRODUCT};

TEST_F(Metrics, MatchTheReferenceInEveryDimensionWithEveryTable) {
  std::mt19937 random(11);
  for (const kernel_set& isa : supported_kernels()) {
    ASSERT_TRUE(kernels_force(isa.name));
    EXPECT_STREQ(chosen_kernels(), isa.name);
    for (const korvex_distance_type type : all_types)
      for (int dim = 0; dim <= 100; ++dim) {
        SCOPED_TRACE(std::string(isa.name) + " dimension " + std::to_string(dim));
        const auto number = static_cast<std::uint32_t>(type);
        const auto metric = create_distance(number, dim);
        const std::vector<float> a = random_vector(dim, random);
        std::vector<std::vector<float>> b;
        const float* rows[4];
        for (auto& row : rows) row = b.emplace_back(random_vector(dim, random)).data();
        const float single = metric->distance(a.data(), rows[0]);
        EXPECT_NEAR(single, reference(type, a, b[0]), 1e-6 * (dim + 1));
        EXPECT_EQ(single, metric->distance(a.data(), rows[0], dim));

        float batch[4];
        distance_batch4_function(number, dim)(a.data(), rows, a.size(), batch);
        for (int i = 0; i < 4; ++i) EXPECT_EQ(batch[i], metric->distance(a.data(), rows[i]));
      }
  }
}

TEST_F(Metrics, BoundedFormsStandInForTheMetricBelowTheirBound) {
  std::mt19937 random(12);
  for (const kernel_set& isa : supported_kernels()) {
    ASSERT_TRUE(kernels_force(isa.name));
    for (const korvex_distance_type type : {DISTANCE_L2_SQUARE, DISTANCE_L2})
      for (const int dim : {256, 260, 263, 784, 1000}) {
        SCOPED_TRACE(std::string(isa.name) + " dimension " + std::to_string(dim));
        const auto number = static_cast<std::uint32_t>(type);
        const distance_bounded_kernel bounded = distance_bounded_function(number, dim);
        ASSERT_NE(bounded, nullptr);
        const std::vector<float> a = random_vector(dim, random);
        const std::vector<float> b = random_vector(dim, random);
        const float whole = create_distance(number, dim)->distance(a.data(), b.data());
        for (const float bound : {whole, 1.5f * whole, 3.4e38f})
          EXPECT_EQ(bounded(a.data(), b.data(), a.size(), bound), whole);
        for (const float share : {0.0f, 0.2f, 0.7f, 0.99999f})
          EXPECT_GT(bounded(a.data(), b.data(), a.size(), share * whole), share * whole);
      }
  }
  EXPECT_EQ(distance_bounded_function(DISTANCE_L2, 255), nullptr) << "would not pay";
  EXPECT_EQ(distance_bounded_function(DISTANCE_INNER_PRODUCT, 784), nullptr) << "may fall again";
}

TEST_F(Metrics, KernelFollowsTheDimension) {
  struct row {
    int dim;
    distance_kernel inner_product, l2_square, euclidean;
  };
  const row rows[] = {
      {0, inner_product_16, l2_square_16, l2_16},
      {3, inner_product_default, l2_square_default, l2},
      {4, inner_product_4, l2_square_4, l2_4},
      {7, inner_product_4_plus, l2_square_4_plus, l2_4_plus},
      {12, inner_product_4, l2_square_4, l2_4},
      {15, inner_product_4_plus, l2_square_4_plus, l2_4_plus},
      {16, inner_product_16, l2_square_16, l2_16},
      {17, inner_product_16_plus, l2_square_16_plus, l2_16_plus},
      {20, inner_product_16_plus, l2_square_16_plus, l2_16_plus},
      {784, inner_product_16, l2_square_16, l2_16},
  };
  for (const row& expected : rows) {
    SCOPED_TRACE(expected.dim);
    EXPECT_EQ(DistanceInnerProduct(expected.dim).get_distance_function(), expected.inner_product);
    EXPECT_EQ(DistanceL2Square(expected.dim).get_distance_function(), expected.l2_square);
    EXPECT_EQ(DistanceL2(expected.dim).get_distance_function(), expected.euclidean);
  }
}

TEST_F(Metrics, ReferencePairTellsTheDirection) {
  struct row {
    korvex_distance_type type;
    float self, opposite;
  };
  const row rows[] = {
      {DISTANCE_L2_SQUARE, 0, 4}, {DISTANCE_L2, 0, 2}, {DISTANCE_INNER_PRODUCT, 1, -1}};
  for (const row& expected : rows)
    for (const int dim : {1, 2, 7, 16, 100, 5000}) {
      float self = 9, opposite = 9;
      create_distance(static_cast<std::uint32_t>(expected.type), dim)
          ->reference_distance(&self, &opposite);
      EXPECT_EQ(self, expected.self) << dim;
      EXPECT_EQ(opposite, expected.opposite) << dim;
    }
}

TEST_F(Metrics, OnlyKnownNumbersAreMetrics) {
  for (const std::uint32_t number : {0u, 3u, 5u, 0xFFFFFFFFu}) {
    EXPECT_EQ(create_distance(number, 16), nullptr);
    EXPECT_EQ(distance_batch4_function(number, 16), nullptr);
    EXPECT_EQ(distance_bounded_function(number, 784), nullptr);
  }
}

TEST_F(Metrics, OverriddenThreeArgumentFormIsHeard) {
  struct halved : DistanceInterface {
    halved() : DistanceInterface(16, l2_square_16) {}
    using DistanceInterface::distance;
    float distance(const float* a, const float* b, int dim) const override {
      return DistanceInterface::distance(a, b, dim) / 2;
    }
    float to_linear(float d) const override { return d; }
    float from_linear(float d) const override { return d; }
    int is_linear() const override { return 0; }
    int need_normalization() const override { return 0; }
  };
  const std::vector<float> zero(16), one(16, 1);
  EXPECT_EQ(halved().distance(zero.data(), one.data()), 8);
  float self, opposite;
  halved().reference_distance(&self, &opposite);
  EXPECT_EQ(opposite, 2);
}

TEST_F(Metrics, LinearScale) {
  const DistanceL2Square squared(16);
  EXPECT_EQ(squared.to_linear(9), 3);
  EXPECT_EQ(squared.from_linear(3), 9);
  EXPECT_TRUE(std::isnan(squared.to_linear(-1)));
  EXPECT_EQ(DistanceL2(16).to_linear(9), 9);
}

TEST(NormFormulas, GiveTheDistanceOfTheUnitVectors) {
  std::mt19937 random(12);
  const std::vector<float> a = random_vector(24, random);
  const std::vector<float> b = random_vector(24, random);
  std::vector<float> unit_a(24), unit_b(24);
  const float norm_a = normalize_vector_default(a.data(), unit_a.data(), 24);
  const float norm_b = normalize_vector_default(b.data(), unit_b.data(), 24);
  const auto square = DISTANCE_L2_SQUARE;
  const double expected = reference(square, unit_a, unit_b);
  EXPECT_NEAR(l2_square_normalized_dist(reference(square, a, b), norm_a, norm_b), expected, 1e-5);
  EXPECT_NEAR(l2_square_normalized_dist(reference(square, a, unit_b), norm_a), expected, 1e-5);
  const auto dot = static_cast<float>(reference(DISTANCE_INNER_PRODUCT, a, b));
  EXPECT_NEAR(cosine_similarity(dot, norm_a, norm_b), 1 - expected / 2, 1e-5);
  EXPECT_NEAR(vector_magnitude(a.data(), 24), norm_a, 1e-6);
  EXPECT_EQ(vector_norm(a.data(), 0), 0);
}

TEST(NormFormulas, NormsNextToOneChangeNothing) {
  EXPECT_EQ(cosine_similarity(0.5f, 1.0000005f), 0.5f);
  EXPECT_NE(cosine_similarity(0.5f, 1.00001f), 0.5f);
  EXPECT_EQ(l2_square_normalized_dist(0.7, 0.9999995), 0.7f);
  EXPECT_EQ(l2_square_normalized_dist(0.5, -1.0), 3.5f);
}

TEST(NormFormulas, NormalizedWithinTheTolerance) {
  struct row {
    float length, tolerance;
    bool expected;
  };
  const row rows[] = {
      {1.000004f, 0, true}, {1.00001f, 0, false}, {1.00001f, 1e-4f, true}, {0.99999f, -1, false}};
  for (const row& r : rows)
    EXPECT_EQ(is_normalized(&r.length, 1, r.tolerance), r.expected) << r.length;
  EXPECT_FALSE(is_normalized(nullptr, 0, 1));
  EXPECT_TRUE(is_normalized(nullptr, 0, 1.5f));
}

}  // namespace
}  // namespace korvex
