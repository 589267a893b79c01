#include "storage/persistent_allocator.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "runtime/platform/files.h"
#include "storage_fixture.h"

namespace korvex {
namespace {

using platform::fault_point;
using u64 = std::uint64_t;

std::string words(std::initializer_list<u64> values) {
  std::string bytes(values.size() * 8, '\0');
  std::memcpy(bytes.data(), values.begin(), bytes.size());
  return bytes;
}

void put(std::string* file, u64 offset, u64 word) {
  std::memcpy(file->data() + offset, &word, 8);
}

u64 get(std::string_view file, u64 offset) {
  u64 word;
  std::memcpy(&word, file.data() + offset, 8);
  return word;
}

std::string saved_copy;  // of the file beside the compacted one, at the last flush before it went
std::string saved_name;

class PersistentAllocator : public testing_support::StorageFixture {
 protected:
  void TearDown() override {
    close();
    StorageFixture::TearDown();
  }

  bool open(unsigned size = 0) {
    close();
    allocator_ = persistent_malloc_init(file_.c_str(), size);
    return allocator_ != nullptr;
  }
  void close() {
    persistent_malloc_destroy(allocator_);
    allocator_ = nullptr;
  }
  bool open_with(const std::string& bytes) {
    close();
    write_file(file_, bytes);
    return open();
  }
  char* ask(long long id, u64 size, unsigned* old_size = nullptr) {
    return static_cast<char*>(persistent_malloc(allocator_, id, size, old_size));
  }
  void fill(long long id, u64 size, char with) {
    char* data = ask(id, size);
    ASSERT_NE(data, nullptr);
    std::memset(data, with, size);
  }
  // Blocks 1 ('a', 100), 1025 ('b', 500), 1 again ('c', 600, in place of 'a') and 2 ('d', 40): bucket 1 holds both
  // ids, a third of the used part is deleted from a later edit of the counters on.
  std::string sample() {
    open(20'000);
    fill(1, 100, 'a');
    fill(1025, 500, 'b');
    fill(1, 600, 'c');
    fill(2, 40, 'd');
    close();
    return read_file(file_);
  }
  void expect_sample() {
    const struct {
      long long id;
      unsigned size;
      char content;
    } rows[] = {{1, 600, 'c'}, {1025, 500, 'b'}, {2, 40, 'd'}};
    for (const auto& row : rows) {
      unsigned old_size = 0;
      const char* data = ask(row.id, row.size, &old_size);
      ASSERT_NE(data, nullptr);
      EXPECT_EQ(old_size, row.size) << row.id;
      EXPECT_EQ(std::string(data, row.size), std::string(row.size, row.content)) << row.id;
    }
  }

  std::string file_ = path("index");
  persistent_malloc_s* allocator_ = nullptr;
};

TEST_F(PersistentAllocator, BytesOfAFile) {
  ASSERT_TRUE(open(100));
  unsigned old_size = 9;
  const char* first = ask(7, 100, &old_size);
  EXPECT_EQ(old_size, 0U);
  EXPECT_EQ(ask(7, 100, &old_size), first);
  EXPECT_EQ(old_size, 100U);
  EXPECT_EQ(ask(7, 60), first);
  fill(1031, 16, 'k');
  EXPECT_NE(ask(7, 200, &old_size), first);
  EXPECT_EQ(old_size, 100U);
  close();

  std::string expected(12'328, '\0');
  const std::string header = words({0x504D414C, 12'328, 8232 + 160 + 64 + 256, 1, 160});
  const std::string blocks[] = {
      words({~u64{0}, 100, 0, 0x504D414C, 160}) + std::string(120, '\0'),
      words({1031, 16, 8232, 0x504D414C, 64}) + std::string(16, 'k') + std::string(8, '\0'),
      words({7, 200, 8392, 0x504D414C, 256}),
  };
  expected.replace(0, header.size(), header);
  put(&expected, 40 + 7 * 8, 8456);
  u64 at = 8232;
  for (const std::string& block : blocks) {
    expected.replace(at, block.size(), block);
    at += block.size();
  }
  EXPECT_TRUE(read_file(file_) == expected);
}

TEST_F(PersistentAllocator, OpensOnlyFilesWithASoundHeader) {
  const std::string good = sample();
  const u64 total = good.size();
  const struct {
    u64 offset, word;
    const char* line;  // null: opens
  } rows[] = {
      {0, 0x504D414C, nullptr},
      {8, total + 1, "header size mismatch: header says 20001, actual file size is 20000\n"},
      {8, 0, "header size mismatch: header says 0, actual file size is 20000\n"},
      {16, total + 1, "used size exceeds total size: 20001 > 20000\n"},
      {16, ~u64{0}, "used size exceeds total size: 18446744073709551615 > 20000\n"},
      {16, 8231, "used size too small: 8231 < 8232\n"},
      {16, 8232 + 8, "persistent memory file has invalid header\n"},
      {24, ~u64{0}, nullptr},
      {32, ~u64{0}, nullptr},
  };
  for (const auto& row : rows) {
    std::string bytes = good;
    put(&bytes, row.offset, row.word);
    take_lines();
    EXPECT_EQ(open_with(bytes), row.line == nullptr) << row.offset << " " << row.word;
    const std::string lines = take_lines();
    if (row.line == nullptr) continue;
    EXPECT_NE(lines.find(row.line), std::string::npos) << lines;
    EXPECT_NE(lines.find("): persistent memory file has invalid header\n"), std::string::npos);
    EXPECT_TRUE(read_file(file_) == bytes);
  }
  EXPECT_FALSE(open_with(good.substr(0, 12'327)));
  EXPECT_TRUE(logged("existing file size 12327 is too small (min: 12328)\n"));
  EXPECT_TRUE(open_with(""));  // as if it were absent
  EXPECT_EQ(persistent_malloc_total_size(allocator_), 12'328U);
  EXPECT_TRUE(open_with("another file" + std::string(20'000, 'x')));
  EXPECT_EQ(persistent_malloc_used_size(allocator_), 8232U);
  EXPECT_EQ(*ask(1, 100), 0);
}

// Offsets in sample(): 1 deleted 8232 (160), 1025 at 8392 (560), 1 at 8952 (656), 2 at 9608 (96), used 9704.
TEST_F(PersistentAllocator, DamagedBlocksAreNeverTrusted) {
  const std::string good = sample();
  ASSERT_EQ(get(good, 16), 9704U);
  const struct {
    const char* what;
    u64 offset, word;
    const char* line;
  } rows[] = {
      {"head odd", 48, 8953, "corrupted header detected at offset 8953\n"},
      {"head in the header", 48, 40, "corrupted header detected at offset 40\n"},
      {"head beyond", 48, 9704, "corrupted header detected at offset 9704\n"},
      {"head huge", 48, ~u64{0} - 23, "corrupted header detected at offset 18446744073709551592\n"},
      {"head inside a block", 48, 8952 + 48, "corrupted header detected at offset 9000\n"},
      {"magic", 8952 + 24, 1, "corrupted header detected at offset 8952\n"},
      {"size 0", 8952 + 32, 0, "invalid block size at offset 8952\n"},
      {"size 40", 8952 + 32, 40, "invalid block size at offset 8952\n"},
      {"size odd", 8952 + 32, 657, "invalid block size at offset 8952\n"},
      {"size beyond", 8952 + 32, 768, "invalid block size at offset 8952\n"},
      {"size huge", 8952 + 32, ~u64{0} - 15, "invalid block size at offset 8952\n"},
      {"requested beyond", 8952 + 8, 617, "invalid block size at offset 8952\n"},
      {"requested huge", 8952 + 8, ~u64{0}, "invalid block size at offset 8952\n"},
      {"next low", 8952 + 16, 16, "invalid next_offset 16 in chain\n"},
      {"next beyond", 8952 + 16, 9704, "invalid next_offset 9704 in chain\n"},
      {"next near the end", 8952 + 16, 9688, "invalid next_offset 9688 in chain\n"},
      {"next odd", 8952 + 16, 8393, "invalid next_offset 8393 in chain\n"},
      {"cycle", 8952 + 16, 8952, "Warning: possible chain cycle detected for ID 1025\n"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    std::string bytes = good;
    put(&bytes, row.offset, row.word);
    ASSERT_TRUE(open_with(bytes));
    unsigned old_size = 1;
    const char* data = ask(1025, 500, &old_size);
    ASSERT_EQ(data, static_cast<char*>(allocator_->base) + 9704 + 40);
    EXPECT_EQ(std::string(data, 500), std::string(500, '\0'));
    EXPECT_EQ(old_size, 0U);
    EXPECT_TRUE(logged(row.line));
    EXPECT_EQ(ask(1025, 500), data);
    EXPECT_EQ(*ask(2, 40), 'd');
    const u64 next = get({data - 24, 8}, 0);
    EXPECT_TRUE(next == 0 || persistent_is_block_offset(next, 9704)) << next;

    // The same damage met by a compaction: nothing moves out of the file, and the result is sound.
    put(&bytes, 32, 9000);
    ASSERT_TRUE(open_with(bytes));
    EXPECT_TRUE(logged("Memory compaction complete. Reclaimed "));
    EXPECT_LE(persistent_malloc_used_size(allocator_), 9704U);
    EXPECT_EQ(*ask(1025, 500), 'b');
    ASSERT_TRUE(open());
    fill(3, 100, 'e');
  }
}

TEST_F(PersistentAllocator, CompactionKeepsWhatStandsBeforeDamage) {
  std::string bytes = sample();
  put(&bytes, 32, 9000);
  put(&bytes, 8952 + 24, 0);
  ASSERT_TRUE(open_with(bytes));
  EXPECT_TRUE(logged("Corrupted block at offset 8952\n"));
  EXPECT_EQ(persistent_malloc_used_size(allocator_), 8232U + 560);
  EXPECT_EQ(*ask(1025, 500), 'b');
  EXPECT_EQ(*ask(2, 40), 0);

  bytes = sample();
  put(&bytes, 32, 9000);
  put(&bytes, 16, 9704 + 32);
  ASSERT_TRUE(open_with(bytes));
  EXPECT_TRUE(logged("compaction error: read offset 9704 exceeds used size 9736\n"));
  expect_sample();
}

TEST_F(PersistentAllocator, CompactsAboveAFifthOnly) {
  ASSERT_TRUE(open());
  ask(1, 80);
  close();
  std::string bytes = read_file(file_);
  ASSERT_EQ(get(bytes, 16), 8360U);  // 1672 is a fifth
  const struct {
    u64 blocks, deleted;
    const char* line;
  } rows[] = {
      {1, 1672, nullptr},
      {0, 8000, nullptr},
      {3, 1673,
       "file has 3 deleted blocks taking 1673 bytes (20.0% fragmentation). compacting...\n"},
      {1, 2508,
       "file has 1 deleted blocks taking 2508 bytes (30.0% fragmentation). compacting...\n"},
  };
  for (const auto& row : rows) {
    put(&bytes, 24, row.blocks);
    put(&bytes, 32, row.deleted);
    ASSERT_TRUE(open_with(bytes));
    const std::string lines = take_lines();
    EXPECT_EQ(lines.find(row.line == nullptr ? "compact" : row.line) == std::string::npos,
              row.line == nullptr)
        << lines;
    close();
    EXPECT_EQ(get(read_file(file_), 24), row.line == nullptr ? row.blocks : 0);
  }
}

TEST_F(PersistentAllocator, AnInterruptedCompactionIsUndone) {
  std::string before = sample();
  put(&before, 32, 9000);
  saved_name = file_ + ".compact";
  platform::current_flush_hook = [](int, const void*, u64) {
    const std::string now = read_file(saved_name);
    if (!now.empty()) saved_copy = now;
  };
  ASSERT_TRUE(open_with(before));
  platform::current_flush_hook = nullptr;
  EXPECT_TRUE(logged("Memory compaction complete. Reclaimed 160 bytes.\n"));
  EXPECT_FALSE(platform::status_of(saved_name.c_str()).exists);
  expect_sample();
  close();
  const std::string after = read_file(file_);
  ASSERT_EQ(saved_copy.size(), 9704U + 8);

  // Killed while it moved blocks: any mixture of old and new bytes comes back whole.
  for (const u64 moved : {u64{40}, u64{8232}, u64{8400}, u64{9000}, u64{9704}}) {
    write_file(saved_name, saved_copy);
    ASSERT_TRUE(open_with(after.substr(0, moved) + before.substr(moved))) << moved;
    EXPECT_TRUE(logged("put back from "));
    EXPECT_FALSE(platform::status_of(saved_name.c_str()).exists);
    expect_sample();
  }
  // Killed while it saved: the file had not been touched, and what was saved is not.
  for (const u64 length :
       {u64{0}, u64{100}, u64{8240}, u64{9704}, u64{9711}, u64{9712}, u64{9713}}) {
    std::string torn = saved_copy.substr(0, length);
    torn.resize(length, 'x');
    if (length == saved_copy.size()) torn[9500] ^= 1;
    write_file(saved_name, torn);
    ASSERT_TRUE(open_with(before)) << length;
    EXPECT_FALSE(logged("put back"));
    expect_sample();
    close();
    EXPECT_TRUE(read_file(file_) == after);
  }
  // Left beside a file that is made anew: never put back into it.
  write_file(saved_name, saved_copy);
  platform::remove_file(file_.c_str());
  ASSERT_TRUE(open(20'000));
  ASSERT_TRUE(open());
  EXPECT_EQ(persistent_malloc_used_size(allocator_), 8232U);

  // No way to save it: the file stays as it is and works.
  close();
  write_file(file_, before);
  fail_at(fault_point::open, 1, 1);
  ASSERT_TRUE(open());
  stop_failing();
  EXPECT_TRUE(logged("compaction put off"));
  EXPECT_EQ(persistent_malloc_used_size(allocator_), 9704U);
  expect_sample();
}

TEST_F(PersistentAllocator, RandomUseAgreesWithAMap) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::mt19937_64 random(seed);
  std::map<long long, std::string> model;
  ASSERT_TRUE(open(120'000));
  for (int step = 0; step < 3000; ++step) {
    const auto pick = static_cast<long long>(random() % 12);
    const long long id = pick < 8 ? pick * 1024 + 5 : -pick;  // one crowded bucket and some others
    const u64 size = 1 + random() % (random() % 20 == 0 ? 9000 : 300);
    const auto known = model.find(id);
    unsigned old_size = 0;
    char* data = ask(id, size, &old_size);
    ASSERT_EQ(old_size, known == model.end() ? 0 : known->second.size());
    if (data == nullptr) {
      ASSERT_TRUE(known == model.end() || known->second.size() < size);
      ASSERT_GT(persistent_malloc_used_size(allocator_) + size + 63, 120'000U);
      ASSERT_TRUE(open());  // makes room, or keeps what there is
    } else if (known != model.end() && known->second.size() >= size) {
      ASSERT_EQ(std::string(data, known->second.size()), known->second);
    } else {
      ASSERT_EQ(std::string(data, size), std::string(size, '\0'));
      std::string content(size, '\0');
      for (char& c : content) c = static_cast<char>(random());
      std::memcpy(data, content.data(), size);
      model[id] = content;
    }
    if (random() % 100 == 0) {
      ASSERT_TRUE(open());
    }
    if (random() % 400 == 0) {
      close();
      platform::remove_file(file_.c_str());
      ASSERT_TRUE(open(120'000));
      model.clear();
    }
  }
  for (const auto& [id, content] : model) {
    const char* data = ask(id, 1);
    EXPECT_EQ(std::string(data, content.size()), content);
  }
}

TEST_F(PersistentAllocator, NoRoomLeavesTheOldBlock) {
  ASSERT_TRUE(open(100));
  fill(1, 64, 'k');
  for (const bool full_disk : {false, true}) {
    if (full_disk) fail_at(fault_point::reserve);
    allocator_->mapping.reserved_bytes = 0;
    unsigned old_size = 0;
    EXPECT_EQ(ask(1, full_disk ? 100 : 10'000, &old_size), nullptr);
    EXPECT_EQ(old_size, 64U);
    const std::string lines = take_lines();
    EXPECT_EQ(lines.find("ftruncate failed for file " + file_ + ": No space left on device\n") !=
                  std::string::npos,
              full_disk);
    EXPECT_NE(lines.find("Failed to allocate memory: file size limit reached\n"),
              std::string::npos);
    EXPECT_EQ(lines.find("**CRITICAL**") != std::string::npos, true);
  }
  for (const u64 size : {u64{4096 - 47}, ~u64{0}, ~u64{0} - 60, u64{1} << 63})
    EXPECT_EQ(ask(9, size), nullptr);
  stop_failing();
  EXPECT_EQ(*ask(1, 64), 'k');
  EXPECT_EQ(allocator_->header->deleted_blocks, 2U);  // counted although the block came back
  EXPECT_EQ(ask(9, 0), nullptr);
  EXPECT_EQ(ask(-1, 10), nullptr);
  EXPECT_NE(ask(9, 12'328 - 8232 - 112 - 48), nullptr);  // to the last byte
  EXPECT_EQ(persistent_malloc_used_size(allocator_), 12'328U);
}

TEST_F(PersistentAllocator, AChainIsWalkedForAThousandBlocks) {
  ASSERT_TRUE(open(200'000));
  for (long long i = 0; i <= 1000; ++i) fill(i * 1024, 1, 'k');
  take_lines();
  EXPECT_EQ(*ask(1024, 1), 'k');  // the thousandth
  EXPECT_EQ(take_lines(), "");
  EXPECT_EQ(*ask(0, 1), 0);
  EXPECT_TRUE(logged("Warning: possible chain cycle detected for ID 0\n"));
}

TEST_F(PersistentAllocator, ALockedFileIsNotChangedByOthers) {
  std::string bytes = sample();
  ASSERT_TRUE(open());
  allocator_->header->deleted_bytes = 9000;
  ASSERT_EQ(persistent_malloc_lock(allocator_), 0);
  ASSERT_EQ(persistent_malloc_lock(allocator_), 0);
  persistent_malloc_s* other = persistent_malloc_init(file_.c_str(), 0);
  ASSERT_NE(other, nullptr);
  EXPECT_FALSE(logged("compact"));
  EXPECT_EQ(persistent_malloc_lock(other), -1);
  persistent_malloc_unlock(other);
  EXPECT_EQ(persistent_malloc_lock(other), -1);
  persistent_malloc_unlock(allocator_);
  EXPECT_EQ(persistent_malloc_lock(other), 0);
  EXPECT_EQ(persistent_malloc_lock(allocator_), -1);
  persistent_malloc_destroy(other);
  EXPECT_EQ(persistent_malloc_lock(allocator_), 0);
  allocator_->header->magic = 0;
  EXPECT_EQ(persistent_malloc_init(file_.c_str(), 0), nullptr);
  allocator_->header->magic = persistent_magic;
  expect_sample();
}

TEST_F(PersistentAllocator, ThreadsThatAskForOneIdGetOneBlock) {
  ASSERT_TRUE(open(1 << 20));
  constexpr long long ids = 200;
  std::vector<std::vector<char*>> seen(4, std::vector<char*>(ids));
  std::vector<std::thread> threads;
  for (auto& mine : seen)
    threads.emplace_back([&] {
      for (long long id = 0; id < ids; ++id) mine[static_cast<u64>(id)] = ask(id * 512, 100);
      persistent_malloc_sync(allocator_);
    });
  for (std::thread& thread : threads) thread.join();
  for (const auto& mine : seen) EXPECT_EQ(mine, seen.front());
  EXPECT_EQ(persistent_malloc_used_size(allocator_), 8232U + ids * 160);
}

TEST_F(PersistentAllocator, WithoutAFileBlocksComeFromTheHeap) {
  persistent_malloc_s* heap = persistent_malloc_init(nullptr, 0);
  ASSERT_NE(heap, nullptr);
  unsigned old_size = 1;
  auto* block = static_cast<char*>(persistent_malloc(heap, 1, 100, &old_size));
  EXPECT_EQ(old_size, 0U);
  EXPECT_EQ(std::string(block - 16, 16), words({100, 0x504D414C}));
  EXPECT_EQ(std::string(block, 112), std::string(112, '\0'));
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % 16, 0U);
  void* again = persistent_malloc(heap, 1, 100, &old_size);
  EXPECT_NE(again, block);
  persistent_free(heap, block);
  persistent_free(heap, again);
  persistent_free(heap, nullptr);
  alignas(16) char foreign[32] = {};
  persistent_free(heap, foreign + 16);
  EXPECT_TRUE(logged("Invalid memory pointer passed to free\n"));
  for (const u64 size : {u64{0}, ~u64{0}, ~u64{0} >> 1})
    EXPECT_EQ(persistent_malloc(heap, 1, size, nullptr), nullptr);
  EXPECT_EQ(persistent_malloc(nullptr, 1, 1, nullptr), nullptr);
  EXPECT_EQ(persistent_malloc_total_size(heap) + persistent_malloc_used_size(nullptr), 0U);
  EXPECT_EQ(persistent_malloc_is_locked(heap) + persistent_malloc_lock(heap) +
                persistent_malloc_sync(heap),
            0);
  persistent_malloc_destroy(heap);
  fail_at(fault_point::heap);
  EXPECT_EQ(persistent_malloc_init(nullptr, 0), nullptr);
  EXPECT_TRUE(logged("failed to allocate memory for persistent_malloc_t\n"));
}

}  // namespace
}  // namespace korvex
