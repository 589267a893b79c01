#include "storage/block_pool.h"

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <vector>

#include "storage_fixture.h"

namespace korvex {
namespace {

using testing_support::StorageFixture;
class BlockPool : public StorageFixture {};
class MultiPool : public StorageFixture {};
class AllocPool : public StorageFixture {};

// Live blocks keep what was written into all of their bytes, so no two of them overlap.
TEST_F(BlockPool, BlocksAreDisjointThroughGrowthFreesAndResets) {
  for (const std::size_t size : {1, 8, 44, 100}) {
    SCOPED_TRACE(size);
    std::mt19937 random(static_cast<unsigned>(size));
    const std::size_t bytes = std::max<std::size_t>(size, 8);
    blockpool_s* pool = blockpool_create(size, 3);
    std::vector<std::pair<unsigned char*, int>> live;
    const auto release = [&](std::size_t i) {
      auto [block, mark] = live[i];
      ASSERT_TRUE(std::all_of(block, block + bytes, [m = mark](int b) { return b == m; }));
      live[i] = live.back();
      live.pop_back();
      blockpool_free(pool, block);
    };
    for (int step = 0; step < 20'000; step++) {
      if (random() % 4000 == 0) {
        blockpool_reset(pool);
        live.clear();
      } else if (random() % 5 < 2 && !live.empty()) {
        release(random() % live.size());
      } else {
        auto* block = static_cast<unsigned char*>(blockpool_alloc(pool));
        const int mark = step % 251;
        std::fill_n(block, bytes, static_cast<unsigned char>(mark));
        live.emplace_back(block, mark);
      }
      ASSERT_EQ(pool->in_use, live.size());
    }
    while (!live.empty()) release(0);
    blockpool_destroy(pool);
  }
}

TEST_F(BlockPool, GrowsByHalfAndAResetServesTheWholeCapacityAgain) {
  blockpool_s* pool = blockpool_create(44, 100);
  for (int round = 0; round < 3; round++) {
    std::set<void*> blocks;
    for (int i = 0; i < 225; i++) {
      blocks.insert(blockpool_alloc(pool));
      if (round > 0) continue;
      ASSERT_EQ(pool->capacity, i < 100 ? 100U : i < 150 ? 150U : 225U);
    }
    EXPECT_EQ(blocks.size(), 225U);
    EXPECT_EQ(pool->capacity, 225U);
    if (round == 1) {
      for (void* block : blocks) blockpool_free(pool, block);
      EXPECT_EQ(blockpool_alloc(pool), *blocks.rbegin()) << "the last one freed comes first";
    }
    blockpool_reset(pool);
  }
  blockpool_destroy(pool);
}

TEST_F(BlockPool, RefusesWhatItCannotServe) {
  EXPECT_EQ(blockpool_create(8, 0), nullptr);
  EXPECT_EQ(blockpool_create(1 << 20, ~std::size_t{0} / 8), nullptr);
  fail_at(platform::fault_point::heap);
  EXPECT_EQ(blockpool_create(8, 1), nullptr);
  stop_failing();
  blockpool_s* single = blockpool_create(8, 1);
  EXPECT_NE(blockpool_alloc(single), nullptr);
  EXPECT_EQ(blockpool_alloc(single), nullptr) << "half of one is none";
  blockpool_destroy(single);

  blockpool_s* pool = blockpool_create(8, 2);
  blockpool_alloc(pool);
  blockpool_alloc(pool);
  fail_at(platform::fault_point::heap, 0, 1);
  EXPECT_EQ(blockpool_alloc(pool), nullptr);
  EXPECT_EQ(pool->in_use, 2U);
  EXPECT_NE(blockpool_alloc(pool), nullptr);
  EXPECT_EQ(pool->capacity, 3U);
  blockpool_destroy(pool);
}

std::uint32_t class_of(void* memory) {
  std::uint32_t size = 0;
  std::memcpy(&size, static_cast<char*>(memory) - sizeof size, sizeof size);
  return size;
}

TEST_F(MultiPool, ServesFromTheFirstClassThatFits) {
  std::size_t sizes[] = {32, 64, 128};
  multipool_s* pool = multipool_create(sizes, 3, 2);
  const std::map<std::size_t, std::uint32_t> expected = {{0, 32},  {32, 32},  {33, 64},
                                                         {40, 64}, {65, 128}, {128, 128}};
  for (const auto& [size, chosen] : expected) {
    void* memory = multipool_alloc(pool, size);
    ASSERT_NE(memory, nullptr);
    EXPECT_EQ(class_of(memory), chosen);
    std::memset(memory, 0xAB, chosen);
    multipool_free(pool, memory);
    EXPECT_EQ(multipool_alloc(pool, size), memory) << "went back to its class";
  }
  EXPECT_EQ(multipool_alloc(pool, 129), nullptr);
  multipool_reset(pool);
  multipool_destroy(pool);
}

TEST_F(MultiPool, KeepsUnknownBlocksAndReportsShortage) {
  std::size_t sizes[] = {32, 64};
  multipool_s* pool = multipool_create(sizes, 2, 1);
  char foreign[64] = {48};
  testing::internal::CaptureStderr();
  multipool_free(pool, foreign + 4);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Error: Attempted to free unknown block size 48\n");
  EXPECT_NE(multipool_alloc(pool, 1), nullptr);
  EXPECT_EQ(multipool_alloc(pool, 1), nullptr) << "the larger class does not step in";
  multipool_destroy(pool);
  EXPECT_EQ(multipool_create(sizes, 2, 0), nullptr);
  EXPECT_EQ(multipool_create(sizes, 0, 1), nullptr);
  EXPECT_EQ(multipool_create(nullptr, 1, 1), nullptr);
  fail_at(platform::fault_point::heap, 1);
  EXPECT_EQ(multipool_create(sizes, 2, 1), nullptr) << "the first class is released";
}

TEST_F(AllocPool, HandsOutZeroedElementsUntilItsCapacity) {
  allocpool_s* pool = allocpool_init(12, 100);
  std::set<char*> elements;
  for (int i = 0; i < 128; i++) {
    auto* element = static_cast<char*>(allocpool_alloc(pool));
    ASSERT_EQ(std::count(element, element + 16, 0), 16);
    std::fill_n(element, 16, char(1));
    elements.insert(element);
  }
  EXPECT_EQ(*elements.rbegin() - *elements.begin(), 127 * 16);
  EXPECT_EQ(allocpool_alloc(pool), nullptr);
  EXPECT_EQ(allocpool_status(pool), 128U);
  allocpool_reset(pool);
  EXPECT_EQ(*static_cast<char*>(allocpool_alloc(pool)), 1) << "a reset clears nothing";

  pool->self = nullptr;
  EXPECT_EQ(allocpool_alloc(pool), nullptr);
  EXPECT_TRUE(logged("): allocpool_alloc: bad pool\n"));
  EXPECT_EQ(allocpool_destroy(pool), -1);
  pool->self = pool;
  EXPECT_EQ(allocpool_destroy(pool), 0);
  EXPECT_EQ(allocpool_init(-1, 5), nullptr);
}

}  // namespace
}  // namespace korvex
