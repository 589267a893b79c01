#include "storage/mempool.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <deque>
#include <map>
#include <random>
#include <thread>
#include <vector>

#include "storage_fixture.h"

namespace korvex {
namespace {

using testing_support::StorageFixture;
class Mempool : public StorageFixture {};

struct element_s {
  unsigned char* data;
  unsigned id;
  void* tag;
};

struct shape_s {
  int size, per_chunk, first_chunk, ids;
};

// Elements come back oldest free first with their id and tag, are disjoint, and are found by id while handed out only.
void run_against_model(const shape_s& shape, int steps) {
  SCOPED_TRACE(testing::Message() << "size " << shape.size << " first chunk " << shape.first_chunk);
  std::mt19937 random(static_cast<unsigned>(shape.size));
  mempool_s* pool = mempool_init(shape.size, shape.per_chunk, shape.first_chunk, 0, shape.ids);
  const auto bytes = static_cast<std::size_t>(shape.size);
  std::vector<element_s> live;
  std::deque<element_s> freed;
  unsigned made = 0;
  for (int step = 0; step < steps; step++) {
    if (random() % 9 < 5 || live.empty()) {
      element_s got{nullptr, 77, &got};
      got.data = static_cast<unsigned char*>(mempool_alloc(pool, &got.id, &got.tag));
      ASSERT_NE(got.data, nullptr);
      if (!freed.empty()) {
        ASSERT_EQ(got.data, freed.front().data);
        ASSERT_EQ(got.id, freed.front().id);
        ASSERT_EQ(got.tag, freed.front().tag);
        freed.pop_front();
      } else {
        ASSERT_EQ(got.id, shape.ids != 0 ? ++made : 0U);
        ASSERT_EQ(got.tag, nullptr);
      }
      std::memset(got.data, static_cast<int>(step % 251), bytes);
      live.push_back(got);
    } else {
      std::swap(live[random() % live.size()], live.back());
      element_s gone = live.back();
      live.pop_back();
      ASSERT_TRUE(std::all_of(gone.data, gone.data + bytes,
                              [&](unsigned char b) { return b == gone.data[0]; }));
      ASSERT_EQ(mempool_get_from_id(pool, gone.id), shape.ids != 0 ? gone.data : nullptr);
      gone.tag = random() % 2 != 0 ? reinterpret_cast<void*>(std::uintptr_t{random()}) : nullptr;
      if (step % 2 != 0) {
        mempool_free(pool, gone.data, gone.tag);
      } else {
        mempool_free_auto(gone.data, gone.tag);
      }
      freed.push_back(gone);
    }
  }
  mempool_destroy(pool);
}

TEST_F(Mempool, AgreesWithAQueueOfFreeElements) {
  for (const shape_s& shape :
       {shape_s{8, 0, 0, 1}, {100, 16, 3, 1}, {33, 1, 0, 0}, {640, 128, 500, 1}})
    run_against_model(shape, 20'000);
}

std::vector<void*> alloc_all(mempool_s* pool) {
  std::vector<void*> elements;
  while (void* data = mempool_alloc(pool, nullptr, nullptr)) elements.push_back(data);
  return elements;
}

TEST_F(Mempool, TheLimitHoldsUntilItIsRaised) {
  mempool_s* pool = mempool_init(8, 256, 0, 300, 0);
  std::vector<void*> elements = alloc_all(pool);
  EXPECT_EQ(elements.size(), 300U);
  EXPECT_TRUE(logged("): pool maxsize exceeded: max 300 current 300\n"));
  EXPECT_EQ(mempool_alloc(pool, nullptr, nullptr), nullptr);
  EXPECT_EQ(take_lines(), "") << "said once";
  mempool_free(pool, elements[7], nullptr);
  EXPECT_EQ(mempool_alloc(pool, nullptr, nullptr), elements[7]);
  for (const auto& [maximum, more] : {std::pair{300, 0U}, {200, 0U}, {310, 10U}}) {
    mempool_set_max_poolsize(pool, maximum);
    EXPECT_EQ(alloc_all(pool).size(), more) << maximum;
  }
  mempool_set_max_poolsize(pool, 0);
  EXPECT_NE(mempool_alloc(pool, nullptr, nullptr), nullptr);
  mempool_destroy(pool);
}

TEST_F(Mempool, RefusesFalseFreesAndFalsePools) {
  mempool_s* pool = mempool_init(16, 4, 0, 0, 1);
  unsigned id = 0;
  void* data = mempool_alloc(pool, &id, nullptr);
  mempool_free(pool, data, nullptr);
  mempool_free(pool, data, nullptr);
  EXPECT_TRUE(logged("): *** BUG *** double free detected "));
  EXPECT_EQ(mempool_get_from_id(pool, id), nullptr);
  EXPECT_TRUE(logged("): block is already free\n"));
  EXPECT_EQ(mempool_alloc(pool, nullptr, nullptr), data);
  EXPECT_NE(mempool_alloc(pool, nullptr, nullptr), data) << "the second free left no trace";
  for (const unsigned unknown : {0U, 3U, 255U, ~0U})
    EXPECT_EQ(mempool_get_from_id(pool, unknown), nullptr);

  std::uint64_t foreign[8] = {};
  mempool_free(pool, foreign + 4, nullptr);
  EXPECT_TRUE(logged(" 0 59ac\n"));
  mempool_free(pool, reinterpret_cast<char*>(foreign) + 33, nullptr);
  EXPECT_TRUE(logged("): *** BUG *** bad data "));
  mempool_free_auto(foreign + 4, nullptr);
  EXPECT_TRUE(logged("): *** BUG *** null pool in block "));

  auto* not_a_pool = reinterpret_cast<mempool_s*>(foreign);
  EXPECT_EQ(mempool_alloc(not_a_pool, nullptr, nullptr), nullptr);
  EXPECT_TRUE(logged("): bad pool\n"));
  mempool_free(not_a_pool, data, nullptr);
  EXPECT_TRUE(logged("): bad pool on free\n"));
  EXPECT_EQ(mempool_reset(not_a_pool, 1, 1), -1);
  mempool_destroy(not_a_pool);
  mempool_destroy(pool);
}

TEST_F(Mempool, AResetStartsAgainAndKeepsAFirstChunk) {
  mempool_s* pool = mempool_init(16, 4, 6, 0, 1);
  std::vector<void*> elements;
  for (int i = 0; i < 20; i++) elements.push_back(mempool_alloc(pool, nullptr, nullptr));
  EXPECT_EQ(mempool_reset(pool, 0, 0), -1);
  EXPECT_TRUE(logged("): *** BUG *** mempool is not empty: 20\n"));
  for (void* data : elements) mempool_free(pool, data, nullptr);
  EXPECT_EQ(mempool_reset(pool, 0, 0), 0);
  EXPECT_TRUE(logged("): restoring pool: id 0 len 360 capacity 6\n"));
  EXPECT_EQ(mempool_get_from_id(pool, 1), nullptr);
  for (unsigned i = 0; i < 20; i++) {
    unsigned id = 0;
    void* data = mempool_alloc(pool, &id, nullptr);
    EXPECT_EQ(id, i + 1);
    EXPECT_TRUE(i >= 6 || data == elements[i]) << i;
    EXPECT_EQ(mempool_get_from_id(pool, id), data);
  }
  EXPECT_EQ(mempool_reset(pool, 0, 1), 0) << "forced: nothing is kept";
  EXPECT_EQ(take_lines(), "");
  unsigned id = 0;
  EXPECT_NE(mempool_alloc(pool, &id, nullptr), nullptr);
  EXPECT_EQ(id, 1U);
  mempool_destroy(pool);

  pool = mempool_init(16, 4, 0, 4, 0);
  for (void* data : alloc_all(pool)) mempool_free(pool, data, nullptr);
  EXPECT_EQ(mempool_reset(pool, 1, 0), 0);
  EXPECT_EQ(mempool_alloc(pool, nullptr, nullptr), nullptr)
      << "the limit counts what was ever made";
  mempool_destroy(pool);
}

TEST_F(Mempool, SurvivesAShortageOfMemory) {
  mempool_s* pool = mempool_init(16, 4, 0, 0, 1);
  fail_at(platform::fault_point::heap, 0, 1);
  EXPECT_EQ(mempool_alloc(pool, nullptr, nullptr), nullptr);
  unsigned id = 0;
  EXPECT_NE(mempool_alloc(pool, &id, nullptr), nullptr);
  EXPECT_EQ(id, 1U);
  for (int i = 2; i < 256; i++) mempool_alloc(pool, nullptr, nullptr);
  fail_at(platform::fault_point::heap, 0, 1);  // the larger id map
  EXPECT_NE(mempool_alloc(pool, &id, nullptr), nullptr);
  EXPECT_EQ(id, 0U);
  EXPECT_TRUE(logged("**CRITICAL**"));
  EXPECT_EQ(mempool_get_from_id(pool, 1), nullptr) << "ids are off";
  mempool_destroy(pool);
}

TEST_F(Mempool, RequiredIdsSurviveAShortageOfMemory) {
  mempool_s* pool = mempool_init(16, 4, 0, 0, 1);
  mempool_require_ids(pool);
  unsigned id = 0;
  void* first = mempool_alloc(pool, &id, nullptr);
  for (int i = 2; i < 256; i++) mempool_alloc(pool, nullptr, nullptr);
  fail_at(platform::fault_point::heap, 0, 1);  // the larger id map
  EXPECT_EQ(mempool_alloc(pool, nullptr, nullptr), nullptr);
  EXPECT_EQ(mempool_get_from_id(pool, 1), first);
  void* next = mempool_alloc(pool, &id, nullptr);
  EXPECT_EQ(id, 256U);
  EXPECT_EQ(mempool_get_from_id(pool, id), next);
  mempool_destroy(pool);
}

// Writers keep the id map growing while readers look ids up; every element is owned by one thread at a time.
TEST_F(Mempool, ServesSeveralThreads) {
  mempool_s* pool = mempool_init(16, 8, 0, 0, 1);
  std::atomic<int> running{3};
  std::atomic<int> wrong{0};
  const auto own = [&](std::uint64_t self) {
    std::vector<std::uint64_t*> mine;
    for (int round = 0; round < 6; round++) {
      for (int i = 0; i < 300; i++) {
        unsigned id = 0;
        auto* data = static_cast<std::uint64_t*>(mempool_alloc(pool, &id, nullptr));
        data[0] = self;
        data[1] = id;
        if (mempool_get_from_id(pool, id) != data) wrong++;
        mine.push_back(data);
      }
      for (std::uint64_t* data : mine) {
        if (data[0] != self) wrong++;
        if (round < 3) mempool_free(pool, data, nullptr);
      }
      if (round < 3) mine.clear();
    }
    running--;
  };
  std::vector<std::thread> threads;
  for (std::uint64_t self = 1; self <= 3; self++) threads.emplace_back(own, self);
  while (running > 0)
    for (unsigned id = 1; id < 900; id += 50) mempool_get_from_id(pool, id);
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(mempool_reset(pool, 0, 0), -1);
  EXPECT_TRUE(logged("mempool is not empty: 2700\n"));
  mempool_destroy(pool);
}

TEST_F(Mempool, OneOfTwoConcurrentFreesIsRefused) {
  mempool_s* pool = mempool_init(16, 8, 0, 0, 0);
  for (int round = 0; round < 50; round++) {
    void* data = mempool_alloc(pool, nullptr, nullptr);
    std::thread other([&] { mempool_free(pool, data, nullptr); });
    mempool_free(pool, data, nullptr);
    other.join();
    ASSERT_EQ(mempool_alloc(pool, nullptr, nullptr), data);
    void* next = mempool_alloc(pool, nullptr, nullptr);
    ASSERT_NE(next, data);
    mempool_free(pool, data, nullptr);
    mempool_free(pool, next, nullptr);
    EXPECT_EQ(mempool_reset(pool, 1, 0), 0);
  }
  mempool_destroy(pool);
}

}  // namespace
}  // namespace korvex
