#include "storage/data_cache.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <list>
#include <memory>
#include <random>
#include <thread>
#include <utility>
#include <vector>

#include "runtime/platform/faults.h"
#include "runtime/platform/memory.h"
#include "storage/mapping.h"

namespace {

using namespace korvex;

constexpr std::uint32_t words = 5;  // an entry of 20 bytes: not a multiple of 8
using entry = std::array<std::uint32_t, words>;
using cache_ptr = std::unique_ptr<data_cache_s, decltype(&data_cache_destroy)>;

cache_ptr make_cache(std::uint32_t max_entries, std::uint32_t mode = data_cache_copy) {
  return {data_cache_init(sizeof(entry), max_entries, mode), data_cache_destroy};
}

entry filled(std::uint32_t value) {
  entry e;
  e.fill(value);
  return e;
}

int add(data_cache_s* cache, std::uint32_t id, std::uint32_t value) {
  entry e = filled(value);
  return data_cache_add(cache, id, e.data());
}

// Least recently used first, in a plain list.
struct plain_cache {
  std::list<std::pair<std::uint32_t, std::uint32_t>> entries;  // id, value
  std::size_t limit;

  auto find(std::uint32_t id) {
    return std::find_if(entries.begin(), entries.end(), [id](auto& e) { return e.first == id; });
  }
  void add(std::uint32_t id, std::uint32_t value) {
    if (auto at = find(id); at != entries.end()) entries.erase(at);
    if (entries.size() == limit) entries.pop_front();
    entries.emplace_back(id, value);
  }
  const std::uint32_t* get(std::uint32_t id) {
    auto at = find(id);
    if (at == entries.end()) return nullptr;
    entries.splice(entries.end(), entries, at);
    return &entries.back().second;
  }
};

TEST(DataCache, ForgetsTheLeastRecentlyUsed) {
  for (const std::uint32_t limit : {1u, 3u, 40u, 300u}) {
    SCOPED_TRACE(limit);
    auto cache = make_cache(limit);
    plain_cache plain{{}, limit};
    std::mt19937 random(limit);
    for (std::uint32_t step = 1; step < 6000; ++step) {
      const std::uint32_t id = 1 + random() % (limit * 2 + 2), what = random() % 100;
      if (what < 40) {
        ASSERT_EQ(add(cache.get(), id, step), 1);
        plain.add(id, step);
      } else if (what < 90) {
        const bool by_copy = random() % 2 != 0;
        void* data =
            by_copy ? data_cache_get_copy(cache.get(), id) : data_cache_get(cache.get(), id);
        const std::uint32_t* expected = plain.get(id);
        ASSERT_EQ(data != nullptr, expected != nullptr) << "step " << step;
        if (data == nullptr) continue;
        const entry wanted = filled(*expected);
        ASSERT_EQ(std::memcmp(data, wanted.data(), sizeof wanted), 0) << "step " << step;
      } else if (what < 99) {
        ASSERT_EQ(data_cache_remove(cache.get(), id), plain.find(id) != plain.entries.end());
        if (auto at = plain.find(id); at != plain.entries.end()) plain.entries.erase(at);
      } else {
        data_cache_clear(cache.get());
        plain.entries.clear();
      }
      std::uint32_t entries = 0;
      data_cache_stats(cache.get(), &entries, nullptr, nullptr);
      ASSERT_EQ(entries, plain.entries.size()) << "step " << step;
    }
  }
}

TEST(DataCache, ACopyOutlivesTheEntryForSomeMoreCalls) {
  auto cache = make_cache(1);
  std::array<void*, data_cache_copies> copies{};
  for (std::uint32_t i = 0; i < data_cache_copies; ++i) {
    add(cache.get(), i + 1, i + 1);  // evicts the entry before it
    copies[i] = data_cache_get_copy(cache.get(), i + 1);
    ASSERT_NE(copies[i], nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(copies[i]) % 64, 0u);
  }
  for (std::uint32_t i = 0; i < data_cache_copies; ++i)
    EXPECT_EQ(std::memcmp(copies[i], filled(i + 1).data(), sizeof(entry)), 0);
}

TEST(DataCache, PinningRecordsIdsOnlyAndStopsAtItsLimit) {
  std::vector<entry> memory(5);
  auto cache = make_cache(3, data_cache_pin);
  std::uint32_t entries = 9, limit = 0, highest = 9;
  for (int round = 0; round < 2; ++round) {
    for (std::uint32_t id = 1; id <= 3; ++id) {
      EXPECT_EQ(data_cache_add(cache.get(), id, &memory[id]), 1);
      EXPECT_EQ(data_cache_add(cache.get(), id, &memory[id]), 1);
      EXPECT_EQ(data_cache_get(cache.get(), id), nullptr);
      EXPECT_EQ(data_cache_get_copy(cache.get(), id), nullptr);
    }
    EXPECT_EQ(data_cache_add(cache.get(), 4, &memory[4]), 0);
    EXPECT_EQ(data_cache_remove(cache.get(), 1), 0);
    data_cache_stats(cache.get(), &entries, &limit, &highest);
    EXPECT_EQ(std::vector({entries, limit, highest}), std::vector({0u, 3u, 0u}));
    data_cache_clear(cache.get());  // unpins: there is room again
  }
}

// Each pinned range is a mapping of its own to the system, and those are limited for the whole process.
TEST(DataCache, PinningLeavesTheProcessRoomForMappings) {
  constexpr std::uint32_t pages = 70'000;
  const std::uint64_t page = platform::page_size();
  if (!platform::may_lock(pages * page)) GTEST_SKIP() << "no right to lock memory";
  mmap_handle_t memory = platform_mmap_anon(2 * pages * page, 0, false, false, false);
  ASSERT_NE(memory.data, nullptr);
  data_cache_s* const cache = data_cache_init(64, pages, data_cache_pin);
  for (std::uint32_t id = 1; id < pages; ++id)
    data_cache_add(cache, id, static_cast<std::byte*>(memory.data) + 2 * page * id);
  for (int i = 0; i < 100; ++i) {
    mmap_handle_t more = platform_mmap_anon(page, 0, false, false, false);
    EXPECT_NE(more.data, nullptr) << i;
    platform_munmap(&more);
  }
  data_cache_destroy(cache);
  platform_munmap(&memory);
}

TEST(DataCache, ARefusedPinIsNotTriedAgain) {
  static std::atomic<int> tries{0};
  platform::current_fault_hook = [](platform::fault_point point) {
    return point == platform::fault_point::lock && ++tries > 0;
  };
  entry memory{};
  auto cache = make_cache(1, data_cache_pin);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(data_cache_add(cache.get(), 1, &memory), 1);
    EXPECT_EQ(data_cache_add(cache.get(), 2, &memory), 1);  // nothing is pinned that would count
  }
  platform::current_fault_hook = nullptr;
  EXPECT_EQ(tries, 2);
}

TEST(DataCache, CopiesStayWholeBesideEvictions) {
  auto cache = make_cache(8);
  std::atomic<int> torn{0};
  auto work = [&](std::uint32_t seed) {
    std::mt19937 random(seed);
    for (int i = 0; i < 3000; ++i) {
      const std::uint32_t id = 1 + random() % 24;
      const void* data = data_cache_get_copy(cache.get(), id);
      if (data == nullptr) {
        add(cache.get(), id, id);
      } else if (std::memcmp(data, filled(id).data(), sizeof(entry)) != 0) {
        ++torn;
      }
      if (i % 64 == 0) data_cache_remove(cache.get(), id);
    }
  };
  std::vector<std::thread> threads;
  for (std::uint32_t seed = 0; seed < 3; ++seed) threads.emplace_back(work, seed);
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(torn, 0);
}

}  // namespace
