#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "host_system.h"
#include "runtime/platform/clock.h"
#include "runtime/platform/faults.h"
#include "runtime/platform/files.h"
#include "runtime/platform/memory.h"
#include "runtime/platform/process.h"
#include "runtime/platform/processor.h"
#include "runtime/platform/threads.h"

namespace korvex::platform {
namespace {

namespace fs = std::filesystem;

class Platform : public testing::Test {
 protected:
  void SetUp() override { fs::create_directories(root_); }
  void TearDown() override {
    current_fault_hook = nullptr;
    current_flush_hook = nullptr;
    fs::remove_all(root_);
  }

  std::string path(const std::string& name) const { return (root_ / name).string(); }
  void make(const std::string& name, const std::string& text = "text") const {
    std::ofstream(root_ / name) << text;
  }

  fs::path root_ = fs::temp_directory_path() / ("korvex-platform-" + std::to_string(process_id()));
};

std::atomic<fault_point> failing_point;
void fail_at(fault_point point) {
  failing_point = point;
  current_fault_hook = [](fault_point p) { return p == failing_point; };
}

TEST_F(Platform, OpenModesKeepCreateOrRefuse) {
  const struct {
    open_mode mode;
    bool opens_absent, opens_present;
    std::uint64_t size_after;  // of a present file of 4 bytes
  } rows[] = {
      {open_mode::existing, false, true, 4}, {open_mode::read_only, false, true, 4},
      {open_mode::create, true, true, 4},    {open_mode::create_new, true, false, 4},
      {open_mode::truncate, true, true, 0},  {open_mode::append, true, true, 4},
  };
  for (const auto& row : rows) {
    make("present");
    const int present = open_file(path("present").c_str(), row.mode);
    EXPECT_EQ(present >= 0, row.opens_present);
    EXPECT_EQ(status_of(path("present").c_str()).size, row.size_after);
    const int absent = open_file(path("absent").c_str(), row.mode);
    EXPECT_EQ(absent >= 0, row.opens_absent);
    EXPECT_EQ(status_of(path("absent").c_str()).regular, row.opens_absent);
    if (absent >= 0) {
      EXPECT_TRUE(!host_system::files_are_private ||
                  fs::status(path("absent")).permissions() ==
                      (fs::perms::owner_read | fs::perms::owner_write));
    }
    close_file(present);
    close_file(absent);
    remove_file(path("absent").c_str());
  }
  fail_at(fault_point::open);
  EXPECT_EQ(open_file(path("present").c_str(), open_mode::create), -1);
  EXPECT_NE(error_text(errno), "");
}

TEST_F(Platform, FilesGrowReadWriteAndLock) {
  const int fd = open_file(path("file").c_str(), open_mode::create);
  ASSERT_EQ(set_file_size(fd, 10'000), 0);
  ASSERT_EQ(reserve_file_range(fd, 4'000, 4'000), 0);
  ASSERT_EQ(reserve_file_range(fd, 8'000, 100'000), 0);
  EXPECT_EQ(status_of(path("file").c_str()).size, 10'000u) << "a reservation adds no bytes";

  EXPECT_EQ(write_at(fd, "abcdef", 6, 9'997), 6);
  char back[16]{};
  EXPECT_EQ(read_at(fd, back, 10, 9'996), 7) << "the end of the file is no error";
  EXPECT_STREQ(back + 1, "abcdef");
  EXPECT_EQ(read_at(-1, back, 1, 0), -1);
  EXPECT_EQ(read_at(fd, back, 16, ~0ull - 8), -1);
  EXPECT_EQ(set_file_size(fd, ~0ull), -1);

  const int second = open_file(path("file").c_str(), open_mode::existing);
  EXPECT_EQ(lock_file(fd), 0);
  EXPECT_EQ(lock_file(second), -1) << "also within one process";
  unlock_file(fd);
  EXPECT_EQ(lock_file(second), 0);
  close_file(second);
  EXPECT_EQ(lock_file(fd), 0) << "closing unlocks";

  fail_at(fault_point::resize);
  EXPECT_EQ(set_file_size(fd, 20'000), -1);
  fail_at(fault_point::reserve);
  EXPECT_EQ(reserve_file_range(fd, 0, 100), -1);
  EXPECT_EQ(errno, ENOSPC);
  close_file(fd);

  const int direct = open_unbuffered(path("direct").c_str(), true, true, true, false, false);
  if (direct < 0) return;  // not every file system can
  void* block = aligned_malloc(4096, 4096);
  std::memset(block, 7, 4096);
  EXPECT_EQ(write_at(direct, block, 4096, 4096), 4096);
  EXPECT_EQ(open_unbuffered(path("direct").c_str(), true, true, true, true, false), -1);
  close_file(open_unbuffered(path("direct").c_str(), false, true, true, false, true));
  EXPECT_EQ(status_of(path("direct").c_str()).size, 0u);
  aligned_free(block);
  close_file(direct);
}

TEST_F(Platform, DirectoriesAreMadeListedAndCleared) {
  const std::string deep = path("a//b/c/");
  EXPECT_EQ(create_directories(deep.c_str()), 0);
  EXPECT_EQ(create_directories(deep.c_str()), 0);
  EXPECT_TRUE(status_of(path("a/b/c").c_str()).directory);
  make("file");
  for (const std::string& wrong : {path("file/x"), path("file"), std::string()}) {
    EXPECT_EQ(create_directories(wrong.c_str()), -1);
    EXPECT_EQ(errno, wrong.empty() ? ENOENT : ENOTDIR);
  }

  fs::create_directories(path("d/sub.korvex"));
  for (const char* name : {"d/x.korvex", "d/.korvex", "d/y.KORVEX", "d/z.korvex.old", "d/korvex",
                           "d/sub.korvex/in.korvex"})
    make(name);
  const bool linked = host_system::make_link(path("file"), path("d/link.korvex"));
  const bool any_case = host_system::ending_has_any_case;
  EXPECT_EQ(delete_files(path("d").c_str(), "korvex"), any_case ? 3 : 2);
  EXPECT_EQ(delete_files(path("d/").c_str(), "korvex"), 0);
  std::vector<std::string> names;
  for (const directory_entry& entry : list_directory(path("d").c_str())) {
    names.push_back(entry.name);
    EXPECT_EQ(entry.regular, entry.name != "sub.korvex");
    EXPECT_TRUE(!entry.regular || entry.size == 4);
  }
  std::vector<std::string> left{"korvex"};
  if (linked) left.push_back("link.korvex");
  left.push_back("sub.korvex");
  if (!any_case) left.push_back("y.KORVEX");
  left.push_back("z.korvex.old");
  EXPECT_EQ(names, left);

  const std::string tiring = path("d") + std::string(259 - path("d").size(), '/');
  EXPECT_EQ(delete_files(tiring.c_str(), "old"), -1);
  EXPECT_EQ(delete_files(nullptr, "old"), -1);
  EXPECT_EQ(delete_files(path("none").c_str(), "old"), -1);
  EXPECT_EQ(delete_files(path("file").c_str(), "old"), -1);
  EXPECT_EQ(delete_files(tiring.substr(0, 258).c_str(), "old"), 1);
  EXPECT_TRUE(list_directory(path("none").c_str()).empty());
}

bool aligned_to_power(const void* data, std::uint64_t align) {
  return reinterpret_cast<std::uintptr_t>(data) %
             std::bit_ceil(std::max<std::uint64_t>(align, 1)) ==
         0;
}

TEST_F(Platform, AnonymousMemoryIsAlignedZeroedAndReleased) {
  for (const std::uint64_t size : {std::uint64_t{1}, page_size(), 3 * page_size() + 1})
    for (const std::uint64_t align : {0, 1, 64, 4096, 3 << 16, 1 << 21})
      for (const bool large : {false, true}) {
        std::uint64_t mapped = 0;
        auto* data = static_cast<char*>(map_anonymous(size, align, large, &mapped));
        ASSERT_NE(data, nullptr);
        EXPECT_GE(mapped, size);
        EXPECT_EQ(mapped % page_size(), 0u);
        EXPECT_TRUE(aligned_to_power(data, align));
        EXPECT_EQ(std::count(data, data + mapped, 0), static_cast<std::ptrdiff_t>(mapped));
        std::memset(data, 1, mapped);
        unmap_anonymous(data, mapped);
      }
  std::uint64_t mapped = 1;
  for (const std::uint64_t size : {std::uint64_t{0}, ~std::uint64_t{0}, ~std::uint64_t{0} >> 1})
    EXPECT_EQ(map_anonymous(size, 1 << 21, true, &mapped), nullptr);
  EXPECT_EQ(mapped, 0u);
  fail_at(fault_point::map_anonymous);
  EXPECT_EQ(map_anonymous(4096, 0, false, &mapped), nullptr);

  // Many unaligned rounds must not leave the trimmed pages behind.
  current_fault_hook = nullptr;
  const std::uint64_t before = process_memory().virtual_bytes;
  for (int i = 0; i < 200; ++i)
    unmap_anonymous(map_anonymous(4096, 1 << 22, false, &mapped), mapped);
  EXPECT_LT(process_memory().virtual_bytes, before + (64 << 20));

  for (const std::size_t align : {0, 1, 8, 48, 64, 4096, 1 << 20}) {
    auto* data = static_cast<char*>(aligned_malloc(100, align));
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(
        reinterpret_cast<std::uintptr_t>(data) % std::max<std::size_t>(align == 48 ? 64 : align, 8),
        0u);
    std::memset(data, 1, 100);
    aligned_free(data);
  }
  EXPECT_EQ(aligned_malloc(~std::size_t{0}, 64), nullptr);
  fail_at(fault_point::heap);
  EXPECT_EQ(aligned_malloc(8, 8), nullptr);
  EXPECT_GT(available_memory(), 0u);
}

std::vector<std::pair<bool, std::uint64_t>> flushes;  // of a view? its bytes

TEST_F(Platform, FileViewsReachTheFileAndReportTheirFlushes) {
  const int fd = open_file(path("mapped").c_str(), open_mode::create);
  ASSERT_EQ(set_file_size(fd, 10'000), 0);
  void* native = nullptr;
  const char* call = "";
  long error = 0;
  auto* view = static_cast<char*>(map_file(fd, 10'000, false, &native, &call, &error));
  ASSERT_NE(view, nullptr);
  std::memcpy(view + 5'000, "seen", 4);
  flushes.clear();
  current_flush_hook = [](int flushed, const void*, std::uint64_t size) {
    flushes.emplace_back(flushed < 0, size);
  };
  EXPECT_EQ(flush_view(view + 5'000, 4), 0) << "inside a page";
  EXPECT_EQ(sync_file(fd), 0);
  EXPECT_EQ(sync_file(-1), -1);
  EXPECT_EQ(flushes, (std::vector<std::pair<bool, std::uint64_t>>{{true, 4}, {false, 0}}));
  char back[4];
  EXPECT_EQ(read_at(fd, back, 4, 5'000), 4);
  EXPECT_EQ(std::memcmp(back, "seen", 4), 0);
  if (may_lock(10'000)) {
    EXPECT_EQ(lock_pages(view, 10'000), 0);
    EXPECT_EQ(unlock_pages(view, 10'000), 0);
  }
  unmap_file(view, 10'000, native);

  // A view beyond the end would be a fault at its first touch.
  EXPECT_EQ(map_file(fd, 10'001, false, &native, &call, &error), nullptr);
  EXPECT_STREQ(call, host_system::mapping_call);
  EXPECT_EQ(error, host_system::error_too_long);
  fail_at(fault_point::map_file);
  EXPECT_EQ(map_file(fd, 10'000, false, &native, &call, &error), nullptr);
  EXPECT_EQ(error, host_system::error_no_memory);
  EXPECT_EQ(map_file(-1, 10'000, false, &native, &call, &error), nullptr);
  EXPECT_EQ(call, nullptr) << "a bad descriptor, not a failed call";
  close_file(fd);
}

TEST_F(Platform, ClocksAndWaits) {
  std::atomic<std::uint64_t> latest{0};
  const auto watch = [&latest] {
    for (int i = 0; i < 20'000; ++i) {
      const std::uint64_t seen = latest.load();
      const std::uint64_t now = time_usec();
      ASSERT_GE(now, seen);
      latest.store(now);
    }
  };
  std::thread other(watch);
  watch();
  other.join();
  EXPECT_NEAR(static_cast<double>(time_usec() / 1'000'000), static_cast<double>(std::time(nullptr)),
              2);

  const std::uint64_t start = monotonic_ns();
  sleep_usec(2'000);
  EXPECT_EQ(usleep_interruptible(500), 0);
  EXPECT_GE(monotonic_ns() - start, 2'500'000u);
  std::atomic<std::uint32_t> stop{0};
  EXPECT_EQ(usleep_interruptible(12'000, &stop), 0);
  std::thread stopper([&stop] { stop = 1; });
  EXPECT_EQ(usleep_interruptible(~0ull, &stop), 1);
  stopper.join();

  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t condition;
  ASSERT_EQ(init_condition(&condition), 0);
  pthread_mutex_lock(&mutex);
  const std::uint64_t waited_from = monotonic_ns();
  const timespec deadline = condition_deadline(1'005);
  const timespec soon = condition_deadline(5);
  EXPECT_EQ(pthread_cond_timedwait(&condition, &mutex, &soon), ETIMEDOUT);
  EXPECT_GE(monotonic_ns() - waited_from, 5'000'000u);
  EXPECT_LT(deadline.tv_nsec, 1'000'000'000);
  EXPECT_GT(condition_deadline(~0ull).tv_sec, deadline.tv_sec);
  pthread_mutex_unlock(&mutex);
  pthread_cond_destroy(&condition);
  pthread_mutex_destroy(&mutex);
}

// The number that the processor under the calling thread has for itself.
std::uint32_t apic_id() {
  return cpuid(1, 0).ebx >> 24;
}

TEST_F(Platform, ThreadsHaveTheirOwnNumberPriorityAndProcessor) {
  const std::uint32_t here = thread_id();
  std::thread([here] {
    EXPECT_NE(thread_id(), here);
    EXPECT_EQ(set_thread_priority(0, 99), set_thread_priority(0, 0)) << "counts as normal";
    EXPECT_EQ(set_thread_priority(0, -3), 0);
    EXPECT_EQ(set_thread_priority(thread_id(), -3), 0);
    std::set<std::uint32_t> processors;
    std::size_t bound = 0;
    for (int processor = 0; processor < processor_count(); ++processor) {
      if (bind_thread(processor) != 0) continue;  // not allowed here
      ++bound;
      const std::uint32_t own = apic_id();
      processors.insert(own);
      for (int other = 0; other < processor_count(); ++other) core_type_of(other);
      EXPECT_EQ(apic_id(), own) << "put back where it was";
      EXPECT_EQ(bind_thread(-1), 0);
    }
    EXPECT_GT(bound, 0u);
    EXPECT_EQ(processors.size(), std::min<std::size_t>(bound, 256));
    EXPECT_EQ(bind_thread(1 << 20), -1);
    EXPECT_EQ(core_type_of(1 << 20), core_type::unknown);
  }).join();
  EXPECT_EQ(thread_id(), here);
}

TEST_F(Platform, TheProcessKnowsItsPlaces) {
  EXPECT_NE(user_data_directory(), "");
  EXPECT_NE(module_base(), 0u);
  EXPECT_GT(process_memory().resident_bytes, 1u << 20);
}

TEST(PlatformDeathTest, CrashTakesItsCourseAfterTheTrace) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_EXIT(
      {
        crash_handler_install();
        crash_handler_install();
        std::abort();
      },
      host_system::aborted, "");
}

}  // namespace
}  // namespace korvex::platform
