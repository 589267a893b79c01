#include "search/result_cache.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "runtime/platform/clock.h"
#include "runtime/platform/threads.h"

namespace korvex {
namespace {

constexpr int cache_kind = 8;
constexpr auto bits = cache_key_mode::exact_bits;
using ids_t = std::vector<std::uint32_t>;

// The cache is one for the process: every test opens it for itself.
class ResultCache : public testing::Test {
 protected:
  ResultCache()
      : directory_(std::filesystem::temp_directory_path() /
                   ("korvex-results-" + std::to_string(platform::process_id()))),
        path_(directory_.string()) {
    std::filesystem::remove_all(directory_);
    std::filesystem::create_directories(directory_);
    open(false);
  }
  ~ResultCache() override {
    cache_search_destroy();
    std::filesystem::remove_all(directory_);
  }

  void open(bool on_disk) {
    cache_search_destroy();
    vectpool_conf_s conf;
    conf.directory = path_.c_str();
    conf.persistent = on_disk ? 1 : 0;
    cache_search_init(cache_kind, &conf);
  }
  // Reads or writes the stored entry of the query that was first to use the cache.
  template <class T>
  T stored(std::size_t offset, const T* replacement = nullptr) {
    const auto file = *std::filesystem::directory_iterator(directory_);
    std::fstream stream(file.path(), std::ios::in | std::ios::out | std::ios::binary);
    const auto place = static_cast<std::streamoff>(128 + 2 * 968 + 48 + offset);
    T value{};
    stream.seekg(place).read(reinterpret_cast<char*>(&value), sizeof value);
    if (replacement != nullptr)
      stream.seekp(place).write(reinterpret_cast<const char*>(replacement), sizeof value);
    return value;
  }

  std::filesystem::path directory_;
  std::string path_;
};

int store(const std::vector<float>& query, std::uint16_t ef, const ids_t& ids,
          std::uint64_t start = cache_walk_start_unknown,
          cache_key_mode mode = cache_key_mode::whole_parts, std::uint32_t partition = 0) {
  return cache_search_results_set(query.data(), static_cast<std::uint32_t>(query.size()), ef,
                                  partition, 1234, ids.data(),
                                  static_cast<std::uint32_t>(ids.size()), start, mode);
}

struct answer_s {
  int grade;
  ids_t ids;
  cache_results_s result;
};
answer_s look_up(const std::vector<float>& query, std::uint16_t ef,
                 cache_key_mode mode = cache_key_mode::whole_parts, std::uint32_t partition = 0,
                 std::uint32_t capacity = cache_max_ids) {
  answer_s answer{-1, ids_t(capacity), {}};
  answer.result.ids = answer.ids.data();
  answer.grade = cache_search_results_get(query.data(), static_cast<std::uint32_t>(query.size()),
                                          ef, partition, &answer.result, capacity, mode);
  answer.ids.resize(answer.result.ef_and_count & 0xFFFF);
  return answer;
}

TEST(CacheKeys, TellQueriesApartByTheirWholeParts) {
  const auto keys_of = [](std::vector<float> v, cache_key_mode mode, std::uint32_t partition = 7) {
    cache_keys_s keys{};
    EXPECT_EQ(
        cache_vector_to_key(v.data(), static_cast<std::uint32_t>(v.size()), partition, &keys, mode),
        0);
    return keys;
  };
  const auto whole = cache_key_mode::whole_parts;
  const cache_keys_s fixed = keys_of({3.9F, -1.5F, 70.2F, 0.5F}, whole);
  EXPECT_EQ(fixed.exact, 0x16f8eaa673d3f59d);
  EXPECT_EQ(fixed.near, 0xbbbbb76039327c69);
  EXPECT_EQ(fixed.table, 0x440082381b5ae567);

  const float inf = std::numeric_limits<float>::infinity();
  struct row {
    float a, b;
    int alike;  // 3: exact, 2: near, 1: table key only, 0: nothing
    int alike_bits;
  };
  const row rows[] = {
      {0.9F, -0.9F, 3, 0},      {0, std::nanf(""), 3, 0},
      {0, inf, 3, 0},           {0, -inf, 3, 0},
      {0, 1e30F, 3, 0},         {0, -1e30F, 3, 0},
      {2, 3.99F, 2, 0},         {1, 2, 0, 0},
      {15, 16, 0, 0},           {16, 19, 1, 0},
      {16, 20, 0, 0},           {32, 39, 1, 0},
      {64, 79, 1, 0},           {255, 240, 1, 0},
      {256, 287, 1, 0},         {256, 288, 0, 0},
      {-1, -2, 2, 0},           {-2, -32, 1, 0},
      {-32, -33, 0, 0},         {1.5F, 1.5F, 3, 3},
      {4294967296.0F, 0, 3, 0}, {1, std::nextafter(1.0F, 2.0F), 3, 2},
      {1, 1.0F + 1e-6F, 3, 1},
  };
  for (const row& r : rows) {
    SCOPED_TRACE(testing::Message() << r.a << " and " << r.b);
    for (const auto& [mode, alike] : {std::pair{whole, r.alike}, std::pair{bits, r.alike_bits}}) {
      const cache_keys_s a = keys_of({5, r.a}, mode);
      const cache_keys_s b = keys_of({5, r.b}, mode);
      EXPECT_EQ(a.exact == b.exact, alike == 3);
      EXPECT_EQ(a.near == b.near, alike >= 2);
      EXPECT_EQ(a.table == b.table, alike >= 1);
    }
  }
  for (const std::size_t dimension : {1U, 4095U, 4096U, 200000U}) {
    std::vector<float> query(dimension, 9);
    const std::uint64_t key = keys_of(query, whole).exact;
    EXPECT_NE(key, keys_of(query, whole, 8).exact) << "the partition counts to the last bit";
    query.back() = 7;
    EXPECT_NE(key, keys_of(query, whole).exact);
  }
}

TEST_F(ResultCache, GradesWhatItKnows) {
  const std::vector<float> query = {100, 200.5F, -7};
  const std::vector<float> same = {100.9F, 200, -7.5F}, near = {101, 200, -7},
                           sharing = {111, 200, -7};
  EXPECT_EQ(look_up(query, 50).grade, -1);
  EXPECT_EQ(store(query, 50, {3, 1, 2}), 0);
  EXPECT_EQ(look_up(same, 50).ids, (ids_t{3, 1, 2}));
  EXPECT_EQ(look_up(same, 50).result.walk_usec, 1234U);
  EXPECT_EQ(look_up(same, 50).result.ef_and_count, 50U << 16 | 3);
  EXPECT_EQ(look_up(same, 50, bits).grade, -1);
  EXPECT_EQ(look_up(same, 50, cache_key_mode::whole_parts, 1 << 4).grade, -1) << "another index";
  EXPECT_EQ(look_up(same, 50, cache_key_mode::whole_parts, 0, 2).ids, (ids_t{3, 1}));
  struct row {
    const std::vector<float>* query;
    std::uint16_t ef;
    int grade;
  };
  for (const row& r : {row{&query, 50, 0}, row{&same, 1, 0}, row{&query, 51, 2}, row{&near, 50, 1},
                       row{&near, 51, 2}, row{&sharing, 50, 2}})
    EXPECT_EQ(look_up(*r.query, r.ef).grade, r.grade) << r.ef;

  EXPECT_EQ(store(sharing, 50, {9}), 0);
  EXPECT_EQ(look_up(query, 50).grade, 0) << "a fresh entry of another query stays";
  EXPECT_EQ(store(query, 51, {9}), 0);
  EXPECT_EQ(look_up(query, 51).ids, ids_t{9}) << "a wider walk replaces it";

  cache_search_invalidate();
  EXPECT_EQ(look_up(query, 50).grade, 2);
  EXPECT_EQ(store(sharing, 10, {4}), 0);
  EXPECT_EQ(look_up(sharing, 10).grade, 0) << "an old entry makes room for a narrower walk";
}

TEST_F(ResultCache, AWalkThatAnInvalidationOvertookIsNotStored) {
  for (int i = 0; i < 200; ++i) {  // many times: the times must differ even within a microsecond
    const std::vector<float> query = {static_cast<float>(i * 64 + 1000)};
    const std::uint64_t early = cache_search_time();
    cache_search_invalidate();
    ASSERT_EQ(store(query, 5, {1}, early), 0);
    ASSERT_EQ(look_up(query, 5).grade, -1);
    ASSERT_EQ(store(query, 5, {1}, cache_search_time()), 0);
    ASSERT_EQ(look_up(query, 5).grade, 0);
    cache_search_invalidate();
    ASSERT_EQ(look_up(query, 5).grade, 2);
  }
}

TEST_F(ResultCache, LongListsAreCutAndNeverCountAsWhole) {
  ids_t ids(500);
  std::iota(ids.begin(), ids.end(), 1);
  ASSERT_EQ(store({1000}, 65535, ids), 0);
  EXPECT_EQ(look_up({1000}, 220, cache_key_mode::whole_parts, 0, 400).ids,
            ids_t(ids.begin(), ids.begin() + 220));
  EXPECT_EQ(look_up({1000}, 220).grade, 0);
  EXPECT_EQ(look_up({1000}, 221).grade, 2);
}

TEST_F(ResultCache, ExactBitsAnswerOnlyTheSameQuery) {
  EXPECT_EQ(store({0.25F, 0.5F}, 10, {1}), 0);
  EXPECT_EQ(look_up({-0.75F, 0}, 10).grade, 0);
  EXPECT_EQ(store({0.25F, 0.5F}, 10, {2}, cache_walk_start_unknown, bits), 0);
  EXPECT_EQ(look_up({0.25F, 0.5F}, 10, bits).ids, ids_t{2});
  EXPECT_EQ(look_up({0.25F, std::nextafter(0.5F, 1.0F)}, 10, bits).grade, 1);
  EXPECT_EQ(look_up({0.25F, 0.51F}, 10, bits).grade, -1);
}

TEST_F(ResultCache, ComesBackFromDiskWithWhatCanBeBelieved) {
  struct row {
    std::size_t offset;  // of a 16-bit word in the stored entry
    std::uint16_t value;
    int grade;
  };
  const row rows[] = {
      {4, 3, 0}, {0, 1, -1}, {4, 221, -1}, {4, 65535, -1}, {4, 0, -1}, {22, 0xFFFF, -1},
  };
  for (const row& r : rows) {
    SCOPED_TRACE(testing::Message() << r.offset << " = " << r.value);
    open(true);
    store({1000}, 20, {5, 6, 7});
    cache_search_destroy();
    EXPECT_EQ(store({1000}, 20, {5}), -1);
    EXPECT_EQ(look_up({1000}, 20).grade, -1);
    stored<std::uint16_t>(r.offset, &r.value);
    open(true);
    EXPECT_EQ(look_up({1000}, 20).grade, r.grade);
    EXPECT_EQ(stored<std::uint16_t>(0), 0U) << "the lock of a dead process";
    EXPECT_EQ(store({1000}, 20, {8, 9, 10}), 0);
    EXPECT_EQ(look_up({1000}, 20).grade, 0);
    cache_search_destroy();
    std::filesystem::remove(*std::filesystem::directory_iterator(directory_));
  }
}

TEST_F(ResultCache, StoredBytesNeverChange) {
  open(true);
  store({3.9F, -1.5F, 70.2F, 0.5F}, 20, {5, 6, 7}, cache_walk_start_unknown,
        cache_key_mode::whole_parts, 7);
  cache_search_destroy();
  const auto entry = stored<cache_entry_s>(0);
  EXPECT_LE(platform::time_usec() - entry.stored_at, 60000000U);
  const std::uint32_t want[] = {20U << 16, 3, 0, 1234};
  const std::uint64_t keys[] = {0x16f8eaa673d3f59d, 0xbbbbb76039327c69};
  const std::uint32_t ids[] = {5, 6, 7, 0};
  const auto* bytes = reinterpret_cast<const char*>(&entry);
  EXPECT_EQ(std::memcmp(bytes, want, 16), 0);
  EXPECT_EQ(std::memcmp(bytes + 24, keys, 16), 0);
  EXPECT_EQ(std::memcmp(bytes + 40, ids, 16), 0);
  EXPECT_EQ(stored<std::uint64_t>(-48), 0x440082381b5ae567);
}

TEST_F(ResultCache, ABusyEntryIsAMissAfterASecond) {
  open(true);
  store({1000}, 20, {5});
  const std::uint16_t held = 1, freed = 0;
  stored<std::uint16_t>(0, &held);
  const std::uint64_t start = platform::monotonic_ns();
  EXPECT_EQ(look_up({1000}, 20).grade, -1);
  EXPECT_NEAR(static_cast<double>(platform::monotonic_ns() - start), 1e9, 4e8);
  std::thread holder([&] {
    platform::sleep_usec(1000);
    stored<std::uint16_t>(0, &freed);
  });
  EXPECT_EQ(store({1000}, 21, {6}), 0);
  holder.join();
}

TEST_F(ResultCache, ForgetsTheOldestWhenFull) {
  const auto query = [](int i) { return std::vector<float>{static_cast<float>(32 * (i + 8))}; };
  for (int i = 0; i < 67000; ++i) ASSERT_EQ(store(query(i), 5, {1}), 0);
  EXPECT_EQ(look_up(query(0), 5).grade, -1);
  EXPECT_EQ(look_up(query(1900), 5).grade, -1);
  EXPECT_EQ(look_up(query(2500), 5).grade, 0);
  cache_search_invalidate();
  EXPECT_EQ(look_up(query(66999), 5).grade, 2) << "the control record survived";
}

// An answer never misses a point whose addition, with its invalidation, had returned before.
TEST_F(ResultCache, NothingOlderThanAReturnedInvalidationIsAnExactHit) {
  const std::vector<float> query = {1000};
  std::atomic<std::uint32_t> points{1}, returned{0};
  std::atomic<bool> done{false};
  std::thread adder([&] {
    for (std::uint32_t i = 1; i < 200000; ++i) {
      points = i;
      cache_search_invalidate();
      returned = i;
    }
    done = true;
  });
  const auto search = [&] {
    for (std::uint16_t ef = 1; !done; ef = static_cast<std::uint16_t>(ef % 200 + 1)) {
      const std::uint32_t known = returned;
      const answer_s got = look_up(query, 1);
      if (got.grade == 0) EXPECT_GE(got.ids[0], known);
      const std::uint64_t start = cache_search_time();
      store(query, ef, ids_t(200, points), start);
    }
  };
  std::thread searcher(search);
  search();
  adder.join();
  searcher.join();
}

TEST_F(ResultCache, ThreadsReadStoreInvalidateAndReopenAtOnce) {
  std::vector<std::thread> threads;
  for (std::uint32_t t = 0; t < 3; ++t) {
    threads.emplace_back([t] {
      for (std::uint32_t i = 0; i < 1500; ++i) {
        const std::vector<float> query = {static_cast<float>(1000 + i % 7 * 64)};
        store(query, static_cast<std::uint16_t>(i % 220), ids_t(1 + (i + t) % 200, i * 3 + t));
        const answer_s got = look_up(query, 1);
        for (const std::uint32_t id : got.ids) ASSERT_EQ(id, got.ids[0]) << "one walk's ids only";
        if (i % 50 == t) cache_search_invalidate();
      }
    });
  }
  for (int i = 0; i < 30; ++i) open(false);
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
}  // namespace korvex
