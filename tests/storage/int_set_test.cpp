#include "storage/int_set.h"

#include <map>
#include <random>
#include <set>
#include <thread>

#include "storage_fixture.h"

namespace korvex {
namespace {

using testing_support::StorageFixture;
class IntSet : public StorageFixture {};
class BitStore : public StorageFixture {};

// Clears are left out: they lose the keys behind them, on purpose (see below).
TEST_F(IntSet, AgreesWithAMapOverMoreResetsThanSessionsExist) {
  std::mt19937 random(11);
  int32find_s set;
  int32find_init(&set, 100, "model");
  ASSERT_EQ(set.capacity, 128U);
  std::map<std::uint32_t, std::uint8_t> model;
  for (int step = 0; step < 700'000; step++) {
    const unsigned roll = random() % 8;
    const std::uint32_t key =
        (random() % 16) * 0x01000011U + random() % 4;  // few keys, long chains
    const auto flag = static_cast<std::uint8_t>(random() % 3);
    const auto expected = static_cast<std::uint8_t>(random() % 3);
    const std::uint8_t before = model.count(key) != 0 ? model[key] : 0;
    if (roll == 0) {
      int32find_reset(&set);
      ASSERT_NE(set.session, 0);
      model.clear();
    } else if (roll < 3) {
      ASSERT_EQ(int32find_get(&set, key), before) << "step " << step;
    } else if (roll == 3) {
      int32find_set(&set, key, flag);
      model[key] = flag;
    } else if (roll == 4) {
      ASSERT_EQ(int32find_get_set_forced(&set, key, flag), before);
      model[key] = flag;
    } else {
      ASSERT_EQ(int32find_get_set(&set, key, expected, flag), before);
      if (before == expected) model[key] = flag;
    }
  }
  int32find_free(&set);
  EXPECT_EQ(take_lines(), "");
}

TEST_F(IntSet, ClearLeavesNoTombstone) {
  int32find_s set;
  int32find_init(&set, 1000, nullptr);
  for (const std::uint32_t key : {5U, 1029U}) int32find_set(&set, key, 7);
  EXPECT_EQ(int32find_get(&set, 1029), 7);
  EXPECT_EQ(int32find_clear(&set, 5), 5U);
  EXPECT_EQ(int32find_get(&set, 1029), 0) << "behind the gap";
  EXPECT_EQ(int32find_clear(&set, 5), 5U) << "an empty entry is emptied again";
  int32find_set(&set, 5, 1);
  EXPECT_EQ(int32find_get(&set, 1029), 7) << "the gap is filled";
  int32find_free(&set);
  int32find_free(&set);
}

TEST_F(IntSet, AFullSetOrOneWithoutMemoryActsAsIfTheKeyWereAbsent) {
  int32find_s set;
  int32find_init(&set, 2, "a name that is longer than the thirty-one characters");
  for (std::uint32_t key = 1; key <= 2; key++) int32find_set(&set, key, 9);
  int32find_set(&set, 3, 9);
  EXPECT_TRUE(
      logged("): *** BUG *** buffer full: session 1 len 2 count 2 key 3 "
             "name (a name that is longer than the )\n"));
  EXPECT_EQ(int32find_get(&set, 3), 0);
  EXPECT_EQ(int32find_get(&set, 2), 9);
  EXPECT_EQ(int32find_clear(&set, 3), 0U);
  int32find_free(&set);

  for (const bool no_memory : {false, true}) {
    take_lines();
    if (no_memory) fail_at(platform::fault_point::heap);
    int32find_init(&set, no_memory ? 64 : 0, nullptr);
    stop_failing();
    EXPECT_EQ(int32find_get_set_forced(&set, 4, 1), 0);
    EXPECT_TRUE(logged("buffer full: session 1 len 0 count 0 key 4 name ()\n"));
    int32find_reset(&set);
    int32find_free(&set);
  }
}

TEST_F(IntSet, LockedFormsExcludeEachOther) {
  int32find_s set;
  int32find_init(&set, 4096, nullptr);
  const auto fill = [&set](std::uint32_t first) {
    for (std::uint32_t key = first; key < 2000; key += 2) int32find_set_locked(&set, key, 3);
    for (std::uint32_t key = 3000 + first; key < 3100; key += 2) int32find_clear_locked(&set, key);
  };
  std::thread other(fill, 0);
  fill(1);
  other.join();
  for (std::uint32_t key = 0; key < 2000; key++) ASSERT_EQ(int32find_get(&set, key), 3) << key;
  int32find_free(&set);
  Int32Find owner(10);
  owner.set(6, 2);
  EXPECT_EQ(owner.get(6), 2);
  owner.reset();
  EXPECT_EQ(owner.get(6), 0);
}

TEST_F(BitStore, AgreesWithASetAcrossSegmentsAndGenerations) {
  std::mt19937 random(3);
  bitstore_s* store = bitstore_init(10);
  ASSERT_EQ(store->segment_bits, 1'048'576U);
  // Both sides of the direct range, of segment borders, of the first table (32 segments) and of the
  // id space.
  const std::uint32_t bases[] = {0,           1'000'000 - 32, 1'048'576 - 32,  3'000'000,
                                 33'554'400,  9U * 1'048'576, 17U * 1'048'576, 700'000'000,
                                 0xFFFFFFC0U, 40U * 1'048'576};
  std::set<std::uint32_t> model;
  for (int step = 0; step < 900'000; step++) {
    const std::uint32_t id = bases[random() % (step < 300'000 ? 6 : 10)] + random() % 64;
    const unsigned roll = random() % 10;
    const int before = model.count(id) != 0;
    if (roll == 0) {
      bitstore_reset(store);
      model.clear();
    } else if (roll < 4) {
      ASSERT_EQ(bitstore_is_set(store, id), before) << id << " step " << step;
    } else if (roll == 4) {
      ASSERT_EQ(bitstore_clear(store, id), before) << id;
      model.erase(id);
    } else {
      bitstore_prefetch(store, id);
      ASSERT_EQ(bitstore_set(store, id), before) << id << " step " << step;
      model.insert(id);
    }
  }
  bitstore_free(store);
}

TEST_F(BitStore, StoresOneSegmentOnFirstUseAndSurvivesEveryFailedAllocation) {
  for (int successes = 0; successes < 3; successes++) {
    fail_at(platform::fault_point::heap, successes);
    EXPECT_EQ(bitstore_init(10), nullptr) << successes;
  }
  stop_failing();
  bitstore_s* store = bitstore_init(10);
  ASSERT_NE(store, nullptr);
  bitstore_set(store, 3'000'000);
  EXPECT_NE(store->segments[2].words, nullptr);
  EXPECT_EQ(store->segments[1].words, nullptr);
  EXPECT_EQ(store->segment_count, 32U);
  for (const int successes : {0, 1, 1}) {  // the table, then the words, then their stamps
    fail_at(platform::fault_point::heap, successes, 1);
    EXPECT_EQ(bitstore_set(store, 4'000'000'000U), 0);
    EXPECT_EQ(bitstore_is_set(store, 4'000'000'000U), 0);
    stop_failing();
  }
  EXPECT_EQ(bitstore_set(store, 4'000'000'000U), 0);
  EXPECT_EQ(bitstore_set(store, 4'000'000'000U), 1);
  EXPECT_EQ(bitstore_check_allocation(store, 4096), 0) << "no 32-bit id lies there";
  EXPECT_EQ(bitstore_set(store, 3'000'000), 1);
  bitstore_free(store);
}

}  // namespace
}  // namespace korvex
