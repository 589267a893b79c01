#include "storage/hash_table.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "runtime/platform/clock.h"
#include "runtime/platform/threads.h"

namespace korvex {
namespace {

constexpr int cache_kind = 8;

struct freer {
  void operator()(pers_hash_table_s* table) const { pers_hash_table_free(table); }
};
using table_ptr = std::unique_ptr<pers_hash_table_s, freer>;

std::uint64_t& word_of(void* data) {
  return *static_cast<std::uint64_t*>(data);
}
pers_hash_entry_s* entry_of(void* data) {
  return static_cast<pers_hash_entry_s*>(data) - 1;
}

using contents = std::vector<std::pair<std::uint64_t, std::uint64_t>>;  // key, first data word
contents contents_of(pers_hash_table_s* table) {
  contents found;
  const auto note = [](void* context, std::uint64_t key, void* data) {
    static_cast<contents*>(context)->emplace_back(key, word_of(data));
  };
  pers_hash_table_visit(table, note, &found);
  return found;
}

class HashTable : public testing::Test {
 protected:
  HashTable()
      : directory_(std::filesystem::temp_directory_path() /
                   ("korvex-table-" + std::to_string(platform::process_id()))),
        path_(directory_.string()) {
    std::filesystem::remove_all(directory_);
    std::filesystem::create_directories(directory_);
  }
  ~HashTable() override { std::filesystem::remove_all(directory_); }

  table_ptr open(std::uint64_t data_size, bool on_disk) {
    vectpool_conf_s conf;
    conf.directory = path_.c_str();
    conf.persistent = on_disk ? 1 : 0;
    return table_ptr(pers_hash_table_init(data_size, cache_kind, &conf));
  }
  void patch(std::uint64_t offset, const void* bytes, std::size_t size) {
    const auto file = *std::filesystem::directory_iterator(directory_);
    std::fstream stream(file.path(), std::ios::in | std::ios::out | std::ios::binary);
    stream.seekp(static_cast<std::streamoff>(128 + offset));
    stream.write(static_cast<const char*>(bytes), static_cast<std::streamsize>(size));
  }

  std::filesystem::path directory_;
  std::string path_;
};

TEST_F(HashTable, AnswersLikeAListOrderedByUse) {
  const auto seed = std::random_device{}();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  contents model;  // oldest first
  table_ptr table = open(40, true);
  const auto find = [&](std::uint64_t key) {
    return std::find_if(model.begin(), model.end(), [&](const auto& e) { return e.first == key; });
  };
  for (std::uint64_t step = 1; step <= 6000; ++step) {
    const std::uint64_t key = 1 + random() % 60 * (random() % 2 == 0 ? 1 : 1031);  // some collide
    const auto place = find(key);
    const std::uint64_t old = place != model.end() ? place->second : 0;
    const std::uint32_t choice = random() % 100;
    if (choice < 60) {
      std::uint64_t& word = word_of(pers_hash_table_get(table.get(), key));
      ASSERT_EQ(word, old) << "step " << step;
      if (place != model.end()) model.erase(place);
      model.emplace_back(key, word = step);
    } else if (choice < 97) {
      ASSERT_EQ(pers_hash_table_remove(table.get(), key), place != model.end() ? 1 : 0);
      if (place != model.end()) model.erase(place);
    } else if (choice < 99) {
      const std::size_t count = std::min<std::size_t>(random() % 8, model.size());
      ASSERT_EQ(pers_hash_table_remove_oldest(table.get(), static_cast<std::uint32_t>(count)),
                count);
      model.erase(model.begin(), model.begin() + static_cast<std::ptrdiff_t>(count));
    } else {
      // Entries of one microsecond come back in the order of their ids: keep them apart.
      std::uint64_t time = platform::time_usec() - 1000;
      for (const auto& [k, value] : model)
        entry_of(pers_hash_table_get(table.get(), k))->last_use = ++time;
      table.reset();
      table = open(40, true);
    }
    ASSERT_EQ(pers_hash_table_entry_count(table.get()), model.size());
    ASSERT_EQ(contents_of(table.get()), model) << "step " << step;
  }
}

TEST_F(HashTable, StoredBytesNeverChange) {
  const table_ptr table = open(33, false);  // becomes 40
  auto* data = static_cast<std::byte*>(pers_hash_table_get(table.get(), 0x1122334455667788));
  pers_hash_table_get(table.get(), 5);
  ASSERT_EQ(pers_hash_table_remove(table.get(), 5), 1);
  std::uint64_t time = 0;
  std::memcpy(&time, data - 40, 8);
  EXPECT_LE(platform::time_usec() - time, 60000000U);
  const std::uint64_t want_entry[] = {0x1122334455667788, time, 1};
  EXPECT_EQ(std::memcmp(data - 48, want_entry, 24), 0);
  const std::uint32_t want_list[] = {0, 0, 1, 6, 2, 0, 0, 0, 0, 0};
  EXPECT_EQ(std::memcmp(data - 48 - 88, want_list, sizeof want_list), 0) << "item 0";
}

TEST_F(HashTable, RemovedItemsAreReusedWithoutAndBeyondTheStoredList) {
  table_ptr table = open(32, true);  // room for 4 free ids
  for (int round = 0; round < 3; ++round) {
    for (std::uint64_t key = 1; key <= 50; ++key) {
      void* data = pers_hash_table_get(table.get(), key + static_cast<unsigned>(round));
      EXPECT_EQ(word_of(data), 0U);
      EXPECT_LE(entry_of(data)->id, 50U) << "the pool must not grow";
      word_of(data) = 1;
    }
    EXPECT_EQ(pers_hash_table_remove_oldest(table.get(), 100), 50U);
    if (round == 1) {
      table.reset();
      table = open(32, true);
    }
  }
}

TEST_F(HashTable, AgeDecides) {
  const table_ptr table = open(32, false);
  const std::uint64_t now = platform::time_usec();
  const std::uint64_t ages[] = {100, 90, 80, 61, 30, 0};  // seconds
  for (std::uint64_t i = 0; i < std::size(ages); ++i)
    entry_of(pers_hash_table_get(table.get(), 10 + i))->last_use = now - ages[i] * 1000000;
  EXPECT_EQ(pers_hash_table_remove_old_entries(table.get(), 0, 0), 0U);
  EXPECT_EQ(pers_hash_table_remove_old_entries(table.get(), 4000000000, 0), 0U);
  EXPECT_EQ(pers_hash_table_remove_old_entries(table.get(), 60, 1), 1U);
  pers_hash_table_get(table.get(), 11);  // used again: 90 s old no longer
  EXPECT_EQ(pers_hash_table_remove_old_entries(table.get(), 60, 0), 2U);
  EXPECT_EQ(contents_of(table.get()), (contents{{14, 0}, {15, 0}, {11, 0}}));
}

TEST(HashTableFormat, JudgesFreeLists) {
  struct item_s {
    std::uint64_t words[6];
  };
  struct row {
    std::uint32_t count, capacity, first, second;
    bool good;
  };
  const row rows[] = {
      {2, 8, 1, 3, true},           {0, 8, 9, 9, true},           {1, 8, 3, 3, true},
      {2, 8, 1, 1, false},          {2, 8, 1, 0, false},          {2, 8, 1, 4, false},
      {2, 8, 2, 1, false},          {2, 7, 1, 3, false},          {9, 8, 1, 3, false},
      {2, 0xFFFFFFFF, 1, 3, false}, {2, 8, 1, 0xFFFFFFFF, false},
  };
  for (const row& r : rows) {
    SCOPED_TRACE(testing::Message() << r.count << " " << r.capacity << " " << r.second);
    item_s items[4] = {};
    items[2].words[0] = 77;  // in use
    const std::uint32_t list[] = {0, 0, r.count, r.capacity, r.first, r.second};
    std::memcpy(&items[0], list, sizeof list);
    const auto item = [](const void* all, std::uint32_t id) -> const void* {
      return static_cast<const item_s*>(all) + id;
    };
    EXPECT_EQ(pers_hash_free_list_valid({items, item, 4}, 48), r.good);
  }
}

TEST_F(HashTable, DamagedFilesCostNothingButTheFreeList) {
  {
    const table_ptr table = open(32, true);
    for (std::uint64_t key = 1; key <= 6; ++key)
      word_of(pers_hash_table_get(table.get(), key)) = key;
    pers_hash_table_remove(table.get(), 2);
    pers_hash_table_remove(table.get(), 4);
  }
  const std::uint32_t doubled[] = {4, 4};
  patch(16, doubled, sizeof doubled);
  const std::uint64_t key_and_time[] = {3,
                                        ~std::uint64_t{0}};  // a key twice, used in the far future
  patch(80 * 5, key_and_time, sizeof key_and_time);
  table_ptr table = open(32, true);
  EXPECT_EQ(contents_of(table.get()), (contents{{1, 1}, {3, 3}, {6, 6}, {3, 5}}));
  void* first = pers_hash_table_get(table.get(), 100);
  void* second = pers_hash_table_get(table.get(), 101);
  EXPECT_NE(first, second);
  EXPECT_EQ(entry_of(first)->id + entry_of(second)->id, 2U + 4U) << "both free items are found";
  EXPECT_EQ(pers_hash_table_remove_oldest(table.get(), 100), 6U);
}

TEST_F(HashTable, RefusesWhatItCannotServe) {
  EXPECT_EQ(pers_hash_table_init(32, cache_kind, nullptr), nullptr);
  EXPECT_EQ(open(std::uint64_t{1} << 40, false), nullptr);
  EXPECT_EQ(pers_hash_table_get(nullptr, 1), nullptr);
  EXPECT_EQ(pers_hash_table_get(open(32, false).get(), 0), nullptr);
}

TEST_F(HashTable, ThreadsUseRemoveAndAgeAtOnce) {
  const table_ptr table = open(32, true);
  std::vector<std::thread> threads;
  for (std::uint64_t t = 0; t < 3; ++t) {
    threads.emplace_back([&table, t] {
      std::mt19937 random(static_cast<unsigned>(t));
      for (int i = 0; i < 4000; ++i) {
        const std::uint64_t key = 1 + random() % 200;
        const std::uint32_t choice = random() % 10;
        if (choice < 6) {
          EXPECT_NE(pers_hash_table_get(table.get(), key), nullptr);
        } else if (choice < 9) {
          pers_hash_table_remove(table.get(), key);
        } else {
          pers_hash_table_remove_oldest(table.get(), 3);
          pers_hash_table_sync_all(1000);
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  const contents left = contents_of(table.get());
  EXPECT_EQ(left.size(), pers_hash_table_entry_count(table.get()));
  for (const auto& [key, word] : left) EXPECT_EQ(pers_hash_table_remove(table.get(), key), 1);
  EXPECT_EQ(contents_of(table.get()), contents{});
}

}  // namespace
}  // namespace korvex
