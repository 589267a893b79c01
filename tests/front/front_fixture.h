#ifndef KORVEX_TESTS_FRONT_FRONT_FIXTURE_H
#define KORVEX_TESTS_FRONT_FRONT_FIXTURE_H

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <filesystem>
#include <korvex/index.hpp>
#include <random>
#include <string>
#include <vector>

#include "sanitizers.h"

// Data, exact answers, and what an operation throws.
namespace korvex::test {

struct cloud {
  std::size_t dimension = 0;
  std::vector<float> values;

  std::size_t size() const { return values.size() / dimension; }
  std::span<const float> operator[](std::size_t row) const {
    return std::span(values).subspan(row * dimension, dimension);
  }
};

// Points around centres; `unit` scales each to length 1.
inline cloud make_clusters(std::size_t n, std::size_t dimension, unsigned seed, bool unit = false,
                           std::size_t centres = 50) {
  std::mt19937 layout(4711);
  std::mt19937 generator(seed);
  std::normal_distribution<float> normal;
  std::vector<float> middle(centres * dimension);
  for (float& value : middle) value = 1.5f * normal(layout);
  cloud points{dimension, std::vector<float>(n * dimension)};
  for (std::size_t row = 0; row < n; ++row) {
    const std::size_t centre = generator() % centres * dimension;
    double square = 0;
    for (std::size_t i = 0; i < dimension; ++i) {
      float& value = points.values[row * dimension + i];
      value = middle[centre + i] + normal(generator);
      square += static_cast<double>(value) * static_cast<double>(value);
    }
    for (std::size_t i = 0; unit && i < dimension; ++i)
      points.values[row * dimension + i] /= static_cast<float>(std::sqrt(square));
  }
  return points;
}

inline double exact_distance(metric chosen, std::span<const float> a, std::span<const float> b) {
  double dot = 0, aa = 0, bb = 0, difference = 0;
  for (std::size_t i = 0; i < a.size(); ++i) {
    const double x = static_cast<double>(a[i]), y = static_cast<double>(b[i]);
    dot += x * y;
    aa += x * x;
    bb += y * y;
    difference += (x - y) * (x - y);
  }
  if (chosen == metric::inner_product) return dot;
  if (chosen == metric::cosine) return 1 - dot / std::sqrt(aa * bb);
  return chosen == metric::l2 ? std::sqrt(difference) : difference;
}

// Distances of the k nearest among the points that `keep` allows, nearest first.
template <class Keep>
std::vector<double> exact_nearest(metric chosen, const cloud& points, std::span<const float> query,
                                  std::size_t k, Keep&& keep) {
  const double sign = chosen == metric::inner_product ? -1 : 1;
  std::vector<double> keys;
  for (std::size_t i = 0; i < points.size(); ++i)
    if (keep(static_cast<id_type>(i)))
      keys.push_back(sign * exact_distance(chosen, points[i], query));
  std::sort(keys.begin(), keys.end());
  keys.resize(std::min(keys.size(), k));
  for (double& key : keys) key *= sign;
  return keys;
}

// The share of the exact answer that was found. Equal distances may change places.
inline double recall(metric chosen, const hits& found, const std::vector<double>& exact) {
  if (exact.empty()) return 1;
  const double limit = exact.back();
  const double slack = 1e-4 * std::max(1.0, std::fabs(limit));
  const auto near_enough = [&](const hit& h) {
    const double distance = static_cast<double>(h.distance);
    return chosen == metric::inner_product ? distance >= limit - slack : distance <= limit + slack;
  };
  const auto count = std::count_if(found.begin(), found.end(), near_enough);
  return static_cast<double>(count) / static_cast<double>(exact.size());
}

// The code of what the body throws and a part of its message, or a failure.
template <class Body>
void expect_error(errc code, const std::string& part, Body&& body) {
  try {
    body();
    ADD_FAILURE() << "nothing was thrown, expected: " << part;
  } catch (const error& thrown) {
    EXPECT_EQ(static_cast<int>(thrown.code()), static_cast<int>(code)) << thrown.what();
    EXPECT_NE(std::string(thrown.what()).find(part), std::string::npos) << thrown.what();
  }
}

// A directory of this test that goes with the scope.
class scratch_directory {
 public:
  scratch_directory() {
    static std::atomic<int> number{0};
    const auto* const test = ::testing::UnitTest::GetInstance()->current_test_info();
    path_ = std::filesystem::temp_directory_path() /
            ("korvex-front-" + std::string(test->name()) + "-" +
             std::to_string(std::random_device{}()) + "-" + std::to_string(number++));
    std::filesystem::create_directories(path_);
  }
  ~scratch_directory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  scratch_directory(const scratch_directory&) = delete;
  scratch_directory& operator=(const scratch_directory&) = delete;
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

inline std::vector<id_type> ids_of(const hits& found) {
  std::vector<id_type> ids;
  for (const hit& h : found) ids.push_back(h.id);
  return ids;
}

}  // namespace korvex::test

#endif  // KORVEX_TESTS_FRONT_FRONT_FIXTURE_H
