// What needs another process, a disk of its own or flushes to count: a full disk, a limit on file sizes, a second opener,
// a device that refuses.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>

#include "engine/disk_fixture.h"
#include "engine/posix/child_process.h"
#include "engine/startup.h"
#include "engine/sync.h"
#include "engine/verify.h"
#include "runtime/platform/clock.h"
#include "runtime/platform/faults.h"

namespace korvex::test {
namespace {

TEST(FullDisk, AdditionsFailAnswersStayAndRoomLetsItGoOn) {
  if (sanitized) GTEST_SKIP() << "filling a disk takes minutes under sanitizers";
  const scratch_directory directory;
  const int outcome = in_child([&] {
    if (!mount_small_disk(directory.path(), 110'000'000)) return child_skipped;
    const std::string ballast = directory.path() + "/ballast";
    std::ofstream(ballast) << std::string(30'000'000, 'b');
    disk_index_options options;
    options.dimension = 2048;
    options.units = 1024;
    options.constellation = 16;
    const cloud data = make_clusters(6'000, options.dimension, 3);
    int full = 0;
    int all = 0;
    {
      const disk_index index(directory.path(), "full", options);
      const log_capture log;
      full = add_until_refused(index, data);
      EXPECT_GT(full, 1'000);
      EXPECT_LT(full, data.size());
      EXPECT_GE(log_capture::count("ftruncate failed for file"), 1);
      EXPECT_EQ(log_capture::count("vector allocation failed") +
                    log_capture::count("list allocation failed"),
                1);
      EXPECT_EQ(korvex_add(index, data[full], 0), 0u) << "still full";
      EXPECT_GE(found(index, data, full), full * 99 / 100);

      std::filesystem::remove(ballast);
      all = add_until_refused(index, data, full);
      EXPECT_GT(all, full + 1'000) << "there was room again";
      EXPECT_GE(found(index, data, all), all * 99 / 100);
    }
    const disk_index again(directory.path(), "full", options);
    korvex_init_memory(again);
    EXPECT_EQ(static_cast<hnsw_s*>(again)->added, static_cast<std::uint32_t>(all));
    EXPECT_GE(found(again, data, all), all * 99 / 100);
    return child_done;
  });
  if (outcome == child_skipped) GTEST_SKIP() << "no disk may be mounted here";
  EXPECT_EQ(outcome, child_done);
}

// A file that would grow over the limit is answered with a signal, which ends a process that does not look first.
TEST(FullDisk, ALimitOnFileSizesIsAFailureNotTheEnd) {
  const scratch_directory directory;
  const int outcome = in_child([&] {
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    const rlim_t before = limit.rlim_cur;
    limit.rlim_cur = 60'000'000;  // the index file fits, a block of vectors does not
    EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    disk_index_options options;
    options.dimension = 128;
    options.units = 131'072;
    const cloud data = make_clusters(50, options.dimension, 4);
    const disk_index index(directory.path(), "limited", options);
    const log_capture log;
    EXPECT_THROW(korvex_add(index, data[0], 0), std::runtime_error);
    EXPECT_EQ(log_capture::count("ftruncate failed for file"), 1);
    limit.rlim_cur = before;
    EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    EXPECT_EQ(add_until_refused(index, data), data.size());
    EXPECT_EQ(found(index, data, data.size()), data.size());
    return child_done;
  });
  EXPECT_EQ(outcome, child_done);
}

TEST(SecondOpener, IsRefused) {
  const scratch_directory directory;
  const auto refused = [&] {
    log_capture::install();
    const log_capture log;
    const hnsw_s* const second = korvex_init(8, 0, directory.path().c_str(), "one");
    EXPECT_EQ(log_capture::count("is in use"), 1);
    EXPECT_EQ(log_capture::count("Unable to allocate memory manager.."), 1);
    return second == nullptr ? child_done : child_failed;
  };
  child_process other(refused);
  const cloud data = make_clusters(100, 8, 5);
  {
    const disk_index index(directory.path(), "one", {});
    add_until_refused(index, data);
    EXPECT_EQ(refused(), child_done) << "the same process";
    EXPECT_EQ(other.finish(), child_done) << "another process";
    EXPECT_EQ(found(index, data, data.size()), data.size());
  }
  const disk_index again(directory.path(), "one", {});
  EXPECT_EQ(found(again, data, data.size()), data.size());
}

// A thread may leave an index after it was given up. Until then the files are in use, and nobody else comes in.
TEST(SecondOpener, WaitsForTheLastThreadOfTheFirst) {
  const scratch_directory directory;
  const cloud data = make_clusters(100, 8, 5);
  hnsw_s* const first = korvex_init(8, 0, directory.path().c_str(), "one");
  ASSERT_NE(first, nullptr);
  korvex_set_threads(first, 0);
  add_until_refused(first, data);
  runtime_use late(first->runtime);
  korvex_free(first);
  EXPECT_TRUE(korvex_verify_directory(directory.path(), "one", {}).in_use);
  std::thread thread([&] {
    platform::sleep_usec(50'000);
    runtime_release_use(late.detach());
  });
  const disk_index again(directory.path(), "one", {});
  thread.join();
  EXPECT_EQ(found(again, data, data.size()), data.size());
}

// Blocks of 64 MiB and more ask for large pages. What is written last lies far from what is written first: the file is
// as long as the block, and a reopening finds it all.
TEST(OnDisk, BlocksAboveTheSizeOfLargePages) {
  const scratch_directory directory;
  disk_index_options options;
  options.dimension = 32'768;  // 128 KiB
  options.units = 512;
  const int n = sanitized ? 20 : 100;
  const cloud data = make_clusters(n, options.dimension, 9);
  {
    const disk_index index(directory.path(), "large", options);
    ASSERT_EQ(add_until_refused(index, data), n);
    EXPECT_EQ(found(index, data, n), n);
  }
  {
    const disk_index again(directory.path(), "large", options);
    EXPECT_EQ(found(again, data, n), n);
  }
  EXPECT_TRUE(korvex_verify_directory(directory.path(), "large", {}).clean());
  const open_index in_memory({.dimension = options.dimension, .units = options.units}, data);
  EXPECT_EQ(found(in_memory, data, n), n);
}

int flushes_before_refusal = 0;

// Each flush of a sync in turn. What a device did not take it may later call written.
TEST(OnDisk, ARefusedSyncIsNeverForgotten) {
  constexpr int flushes = 7;  // five stores of one block, their directory, the index file
  const cloud data = make_clusters(40, 8, 11);
  for (int flush = 0; flush <= flushes; ++flush) {
    SCOPED_TRACE(flush);
    const bool refused = flush < flushes;
    const scratch_directory directory;
    std::uint32_t durable = 0;
    {
      const disk_index index(directory.path(), "refused", {});
      add_until_refused(index, data);
      flushes_before_refusal = refused ? flush : 1'000;
      platform::current_fault_hook = [](platform::fault_point point) {
        return point == platform::fault_point::flush && flushes_before_refusal-- == 0;
      };
      EXPECT_EQ(korvex_sync_to_disk(index, 0), refused ? -1 : 0);
      platform::current_fault_hook = nullptr;
      EXPECT_EQ(korvex_sync_to_disk(index, 0), refused ? -1 : 0);
      durable = static_cast<hnsw_s*>(index)->durable;
    }
    const hnsw_s record =
        korvex_verify_directory(folder_of(directory.path()), "refused", {}).record;
    EXPECT_EQ(record.clean_close, refused ? 0U : 1U);
    EXPECT_EQ(record.durable, durable) << "not raised by the close";
    const disk_index index(directory.path(), "refused", {});
    EXPECT_EQ(found(index, data, data.size()), data.size());
    EXPECT_EQ(korvex_sync_to_disk(index, 0), 0);
    EXPECT_EQ(static_cast<hnsw_s*>(index)->durable, static_cast<std::uint32_t>(data.size()));
  }
}

}  // namespace
}  // namespace korvex::test
