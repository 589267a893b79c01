#include "storage/mapping.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "host_system.h"
#include "runtime/platform/files.h"
#include "runtime/platform/memory.h"
#include "runtime/platform/memory_texts.h"
#include "storage_fixture.h"

namespace korvex {
namespace {

using platform::fault_point;

class Mapping : public testing_support::StorageFixture {
 protected:
  // The number that the next opened file gets: the same before and after when nothing leaks.
  int next_descriptor() const {
    const int fd = platform::open_file(path("probe").c_str(), platform::open_mode::create);
    platform::close_file(fd);
    return fd;
  }
};

TEST_F(Mapping, TheFileDecidesTheSizeUnlessItIsMissingOrEmpty) {
  constexpr int absent = -1;
  const struct {
    int length;  // of the file beforehand
    unsigned long long asked;
    bool open_existing;
    unsigned long long mapped;  // 0: fails
    unsigned existed;
    int length_after;
  } rows[] = {
      {20000, 12328, false, 20000, 1, 20000}, {20000, 12328, true, 20000, 1, 20000},
      {100, 200, false, 100, 1, 100},         {100, 200, true, 0, 0, 100},
      {absent, 5000, false, 5000, 0, 5000},   {absent, 5000, true, 0, 0, absent},
      {0, 5000, false, 5000, 0, 5000},        {0, 5000, true, 0, 0, absent},
      {absent, 0, false, 0, 0, absent},
  };
  const std::string name = path("file");
  const int descriptor = next_descriptor();
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row.length << " " << row.asked << " " << row.open_existing);
    platform::remove_file(name.c_str());
    if (row.length != absent) write_file(name, std::string(static_cast<unsigned>(row.length), 'x'));
    mmap_handle_t file =
        platform_mmap_file(name.c_str(), row.asked, true, false, row.open_existing);
    ASSERT_EQ(file.data != nullptr, row.mapped != 0);
    EXPECT_EQ(file.size, row.mapped);
    EXPECT_EQ(file.existed, row.existed);
    EXPECT_EQ(file.fd >= 0, row.mapped != 0);
    const std::string lines = take_lines();
    EXPECT_TRUE(lines.empty() || !row.open_existing) << lines;
    platform_munmap(&file);
    platform_munmap(&file);
    EXPECT_EQ(file.data, nullptr);
    const platform::file_status status = platform::status_of(name.c_str());
    EXPECT_EQ(status.exists ? static_cast<int>(status.size) : absent, row.length_after);
  }
  EXPECT_EQ(next_descriptor(), descriptor);
}

TEST_F(Mapping, WrittenBytesComeBackAndSyncNotesItsTime) {
  const std::string name = path("file");
  mmap_handle_t file = platform_mmap_file(name.c_str(), 10'001, false, true, false);
  ASSERT_NE(file.data, nullptr);
  EXPECT_EQ(std::string(static_cast<char*>(file.data), 10'001), std::string(10'001, '\0'));
  std::memset(file.data, 'k', 10'001);
  EXPECT_EQ(sync_persistent_memory(&file), 0);
  EXPECT_NE(file.last_sync, 0U);
  platform_munmap(&file);
  EXPECT_EQ(read_file(name), std::string(10'001, 'k'));
}

TEST_F(Mapping, AFailureLeavesNothingBehindAndSaysWhatFailed) {
  const std::string unmapped = std::string("mmap: ") + host_system::mapping_call +
                               " failed with error code " +
                               std::to_string(host_system::error_no_memory) + "\n";
  const struct {
    fault_point point;
    const char* line;
  } rows[] = {
      {fault_point::open, "Failed to open file %: "},
      {fault_point::resize, "ftruncate failed for file %: No space left on device"},
      {fault_point::reserve, "ftruncate failed for file %: No space left on device"},
      {fault_point::map_file, unmapped.c_str()},
  };
  const std::string name = path("file");
  const int descriptor = next_descriptor();
  for (const auto& row : rows) {
    fail_at(row.point);
    const mmap_handle_t file = platform_mmap_file(name.c_str(), 5000, false, false, false);
    stop_failing();
    EXPECT_EQ(file.data, nullptr);
    EXPECT_EQ(file.fd, -1);
    std::string line = row.line;
    if (const auto at = line.find('%'); at != std::string::npos) line.replace(at, 1, name);
    EXPECT_TRUE(logged(line)) << line;
    EXPECT_FALSE(platform::status_of(name.c_str()).exists) << line;
    EXPECT_EQ(next_descriptor(), descriptor) << line;
  }
  for (const char* bad : {static_cast<const char*>(nullptr), ""}) {
    EXPECT_EQ(platform_mmap_file(bad, 5000, false, false, false).data, nullptr);
    EXPECT_TRUE(logged("platform_mmap_file: NULL filename provided\n"));
  }
  EXPECT_EQ(platform_mmap_file(root_.string().c_str(), 1, false, false, false).data, nullptr);
  EXPECT_TRUE(logged("Failed to open file " + root_.string() + ": not a regular file\n"));

  // A file that was there already stays, whatever fails.
  write_file(name, "content");
  fail_at(fault_point::map_file);
  EXPECT_EQ(platform_mmap_file(name.c_str(), 1, false, false, true).data, nullptr);
  EXPECT_EQ(read_file(name), "content");
}

TEST_F(Mapping, RoomOnDiskIsTakenInFewSmallStepsOrNotAtAll) {
  constexpr unsigned long long size = (100ULL << 20) + 777;
  constexpr unsigned long long largest_step = 16ULL << 20, fault_unit = 2ULL << 20;
  mmap_handle_t file = platform_mmap_file(path("file").c_str(), size, false, false, false);
  ASSERT_NE(file.data, nullptr);
  EXPECT_EQ(file.reserved_bytes, fault_unit);
  fail_at(fault_point::reserve, 0, 0);  // counts only
  for (unsigned long long used = 1; used < size; used += 4096) {
    ASSERT_EQ(mapping_reserve(&file, used), 0);
    ASSERT_GE(file.reserved_bytes, used);
    ASSERT_LE(file.reserved_bytes - used, largest_step);
    ASSERT_TRUE(file.reserved_bytes % fault_unit == 0 || file.reserved_bytes == size);
  }
  ASSERT_EQ(mapping_reserve(&file, size), 0);
  EXPECT_EQ(file.reserved_bytes, size);
  EXPECT_LT(-countdown_, 20);
  EXPECT_EQ(mapping_reserve(&file, size + 1), -1);
  file.reserved_bytes = fault_unit;
  fail_at(fault_point::reserve);
  EXPECT_EQ(mapping_reserve(&file, 30 << 20), -1);
  EXPECT_EQ(errno, ENOSPC);
  fail_at(fault_point::reserve, 0, 1);  // the step ahead fails, the room that is needed is there
  EXPECT_EQ(mapping_reserve(&file, (30 << 20) - 5), 0);
  EXPECT_EQ(file.reserved_bytes, 30U << 20);
  stop_failing();
  EXPECT_EQ(mapping_reserve(&file, (30 << 20) + 1), 0);
  EXPECT_GT(file.reserved_bytes, 32U << 20);
  platform_munmap(&file);
}

TEST_F(Mapping, AnonymousMemoryIsZeroedAlignedAndWhole) {
  for (const bool heap : {false, true})
    for (const bool huge : {false, true})
      for (const unsigned long long align : {0ULL, 64ULL, 8192ULL, 4ULL << 20})
        for (const unsigned long long size : {1ULL, 4095ULL, 3'000'001ULL}) {
          SCOPED_TRACE(testing::Message() << heap << huge << " " << align << " " << size);
          if (heap) fail_at(fault_point::map_anonymous);
          mmap_handle_t memory = platform_mmap_anon(size, align, huge, false, heap);
          stop_failing();
          ASSERT_NE(memory.data, nullptr);
          EXPECT_EQ(memory.anonymous, 1U);
          EXPECT_EQ(memory.fd, -1);
          EXPECT_EQ(reinterpret_cast<std::uintptr_t>(memory.data) % (align == 0 ? 64 : align), 0U);
          const auto large = huge && !heap ? platform::large_page_size() : 0;
          EXPECT_EQ(memory.size, large == 0 ? size : (size + large - 1) / large * large);
          auto* bytes = static_cast<char*>(memory.data);
          EXPECT_EQ(bytes[0], 0);
          EXPECT_EQ(std::memcmp(bytes, bytes + 1, memory.size - 1), 0);
          std::memset(bytes, 1, memory.size);
          EXPECT_EQ(mapping_reserve(&memory, memory.size) + sync_persistent_memory(&memory), 0);
          platform_munmap(&memory);
        }
  for (const auto size : {0ULL, ~0ULL})
    for (const bool huge : {false, true}) {
      EXPECT_EQ(platform_mmap_anon(size, 64, huge, false, true).data, nullptr) << size;
    }
  EXPECT_EQ(platform_mmap_anon(1ULL << 62, 64, false, false, false).data, nullptr);
  fail_at(fault_point::map_anonymous);
  EXPECT_EQ(platform_mmap_anon(4096, 64, false, false, false).data, nullptr);
}

TEST_F(Mapping, LockingIsAWishAndAdviceComesOncePerNewLargestSize) {
  const bool has_the_right = platform::may_lock(5000);
  for (const int refused_call : {0, 1}) {  // the right to lock, the lock itself
    fail_at(fault_point::lock, refused_call);
    mmap_handle_t file = platform_mmap_file(path("file").c_str(), 5000, false, true, false);
    ASSERT_NE(file.data, nullptr);
    EXPECT_EQ(file.locked, 0U);
    EXPECT_EQ(logged(platform::mapping_name + std::string(": Failed to lock memory\n")),
              refused_call == 1 && has_the_right);
    platform_munmap(&file);
  }
  fail_at(fault_point::lock);
  constexpr unsigned long long most = 1ULL << 50;
  const struct {
    unsigned long long bytes;
    const char* size_line;  // null: no advice
  } rows[] = {{most, "size: 0 KB\n"},
              {most, nullptr},
              {most - 1, nullptr},
              {most + 3'072'000, "size: 3000 KB\n"}};
  for (const auto& row : rows) {
    EXPECT_EQ(set_memory_lock_limits(row.bytes), 0);
    const std::string lines = take_lines();
    if (row.size_line == nullptr) {
      EXPECT_EQ(lines, "");
      continue;
    }
    EXPECT_NE(
        lines.find(
            "\nWARNING: Insufficient memory locking privilege detected! Memory locking is required"
            " to prevent page swapping and improve performance.\nRequired memory lock "),
        std::string::npos);
    EXPECT_NE(lines.find(row.size_line), std::string::npos) << lines;
  }
}

TEST_F(Mapping, WhatIsMissingIsSaidOnce) {
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(check_hugetlb_available(), platform::large_pages_available() ? 1 : 0);
    EXPECT_EQ(dyn_numa_init(), dyn_numa_is_available());
  }
  const std::string lines = take_lines();
  for (const char* text :
       {"Huge pages requested", "To enable huge pages", "NUMA support is not available"})
    EXPECT_EQ(lines.find(text), lines.rfind(text)) << text;
  mmap_handle_t memory = platform_mmap_anon(8192, 0, false, false, false);
  dyn_numa_helper(memory.data, memory.size, 0);
  dyn_numa_helper(memory.data, memory.size, -1);
  std::memset(memory.data, 1, memory.size);
  platform_munmap(&memory);
  dyn_numa_cleanup();
}

}  // namespace
}  // namespace korvex
