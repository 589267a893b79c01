#include "runtime/random.h"

#include <gtest/gtest.h>

#include <set>
#include <thread>
#include <vector>

namespace korvex {
namespace {

TEST(Random, SequenceOfASeedNeverChanges) {
  const struct {
    std::uint64_t seed;
    std::vector<std::uint64_t> expected;
  } rows[] = {
      {0, {0x99ec5f36cb75f2b4, 0xbf6e1f784956452a, 0x1a5f849d4933e6e0, 0x6aa594f1262d2d2c}},
      {0x123456789abcdef,
       {0xa2c2a42038d4ec3d, 0x05fc25d0738e7b0f, 0x625e7bff938e701e, 0x1ba4ddc6fe2b5726}},
  };
  for (const auto& row : rows) {
    seed_random(row.seed);
    for (const std::uint64_t number : row.expected) EXPECT_EQ(random_u64(), number);
    seed_random(row.seed);
    for (const std::uint64_t number : row.expected)
      EXPECT_EQ(random_u32(), static_cast<std::uint32_t>(number));
  }
}

TEST(Random, StaysInRangeAndReachesAllOfIt) {
  seed_random(7);
  for (const std::uint32_t max : {0u, 1u, 2u, 9u, 255u}) {
    std::set<std::uint32_t> seen;
    for (std::uint32_t i = 0; i < 40 * (max + 1); ++i) seen.insert(random_u32_max(max));
    EXPECT_EQ(seen.size(), max + 1);
    EXPECT_EQ(*seen.rbegin(), max);
  }
  std::uint32_t all_bits = 0;
  double sum = 0;
  constexpr int draws = 100'000;
  for (int i = 0; i < draws; ++i) {
    all_bits |= random_u32_max(0xFFFFFFFF);
    const double number = random_double();
    ASSERT_GE(number, 0.0);
    ASSERT_LT(number, 1.0);
    sum += number;
  }
  EXPECT_EQ(all_bits, 0xFFFFFFFF);
  EXPECT_NEAR(sum / draws, 0.5, 0.005);
}

TEST(Random, UnseededThreadsDrawDifferentSequences) {
  std::vector<std::uint64_t> first(8);
  std::vector<std::thread> threads;
  for (std::uint64_t& number : first) threads.emplace_back([&number] { number = random_u64(); });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(std::set<std::uint64_t>(first.begin(), first.end()).size(), first.size());
}

}  // namespace
}  // namespace korvex
