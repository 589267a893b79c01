// What a host may rely on with an index on disk: neighbours under one base, deletion, syncing, size, the disk cache.
#include <gtest/gtest.h>
#include <xxhash.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "engine/disk_fixture.h"
#include "engine/points.h"
#include "engine/startup.h"
#include "engine/sync.h"
#include "engine/verify.h"
#include "engine/verify_files.h"
#include "runtime/platform/faults.h"
#include "runtime/platform/files.h"
#include "runtime/platform/memory.h"
#include "search/direct.h"

namespace korvex::test {
namespace {

namespace fs = std::filesystem;

std::uint64_t allocated(const std::string& directory) {
  std::uint64_t bytes = 0;
  for (const fs::directory_entry& file : fs::directory_iterator(directory))
    bytes += platform::allocated_bytes(file.path().string().c_str());
  return bytes;
}

// ---- others beside it ----

using digests = std::map<std::string, std::uint64_t>;

std::uint64_t digest_of(const std::string& path) {
  const verify::mapped_file file(path);
  return XXH3_64bits(file.data(), file.size());
}

// The files that are the index's by the documented rule.
digests files_of(const std::string& directory, const std::string& name) {
  digests all;
  for (const verify_file& file : korvex_verify_directory(directory, name, {}).files)
    all[file.name] = digest_of(directory + "/" + file.name);
  return all;
}

// Names that begin with one another, and some that look like a part of another's file names. Records of two floats
// are as large as labels.
TEST(OnDisk, IndexesUnderOneBaseKeepToTheirOwnFiles) {
  const scratch_directory directory;
  const std::string folder = folder_of(directory.path());
  const std::vector<std::string> names = {"a", "ab", "a-labels", "a-labels-", "a-b"};
  disk_index_options options;
  options.dimension = 2;
  options.labels = true;
  constexpr int n = 200;
  const auto fill = [&](unsigned which, int first, int last) {
    const disk_index index(directory.path(), names[which].c_str(), options);
    const cloud data = make_clusters(n, options.dimension, 100 + which);
    for (int i = first; i < last; ++i) {
      korvex_add(index, data[i], 0);
      korvex_set_label(index, static_cast<std::uint32_t>(i),
                       1000 * which + static_cast<unsigned>(i));
    }
  };
  for (unsigned which = 0; which < names.size(); ++which) fill(which, 0, n / 2);
  std::vector<digests> before;
  std::set<std::string> owned;
  std::size_t owners = 0;
  for (const std::string& name : names) {
    before.push_back(files_of(folder, name));
    for (const auto& file : before.back()) owned.insert(file.first);
    owners += before.back().size();
  }
  EXPECT_EQ(owned.size(), owners) << "no file belongs to two";
  fill(0, n / 2, n);
  fill(2, n / 2, n);
  for (const unsigned other : {1u, 3u, 4u})
    EXPECT_EQ(files_of(folder, names[other]), before[other]) << names[other];
  for (const unsigned other : {1u, 3u, 4u}) fill(other, n / 2, n);

  for (unsigned which = 0; which < names.size(); ++which) {
    const disk_index index(directory.path(), names[which].c_str(), options);
    EXPECT_EQ(found(index, make_clusters(n, options.dimension, 100 + which), n), n) << names[which];
    for (const std::uint32_t id : {0u, 99u, 199u})
      EXPECT_EQ(korvex_get_label(index, id), 1000 * which + id) << names[which];
  }
}

std::set<std::string> names_in(const std::string& directory) {
  std::set<std::string> names;
  for (const fs::directory_entry& file : fs::directory_iterator(directory))
    names.insert(file.path().filename().string());
  return names;
}

TEST(OnDisk, DestroyOnDeleteTakesAllOfTheIndexAndNothingOfOthers) {
  const scratch_directory directory;
  const std::string folder = folder_of(directory.path());
  const cloud data = make_clusters(300, 8, 6);
  disk_index_options options;
  options.labels = true;
  options.index_check = true;
  for (const char* other : {"go", "gone-labels", "gone-with"}) {
    const disk_index index(directory.path(), other, options);
    add_until_refused(index, data);
  }
  std::set<std::string> others = names_in(folder);
  {
    const disk_index index(directory.path(), "gone", options);
    add_until_refused(index, data);
  }
  // What a crash while compacting, and refused blocks, leave behind.
  std::ofstream(folder + "/gone.korvex.compact") << "half";
  for (const std::string& name : names_in(folder))
    if (others.count(name) == 0 && name != "gone.korvex" && name.ends_with(".korvex"))
      std::ofstream(folder + "/" + name + ".bad") << "refused";
  for (const char* kept : {"mine.txt", "go.korvex.compact"}) {
    std::ofstream(folder + "/" + kept) << "of somebody else";
    others.insert(kept);
  }
  std::ofstream(folder + "/stray.korvex") << "of nobody";
  {
    const disk_index index(directory.path(), "gone", options);
    EXPECT_EQ(found(index, data, 10), 10);
    korvex_destroy_disk_index(index, 1);
  }
  EXPECT_EQ(names_in(folder), others);
  const disk_index other(directory.path(), "gone-labels", options);
  EXPECT_EQ(found(other, data, data.size()), data.size());
}

// "images" would call a file of its own so: two codes behind its name.
TEST(OnDisk, AnIndexThatIsCalledLikeABlockFileOutlivesTheOther) {
  const scratch_directory directory;
  const std::string folder = folder_of(directory.path());
  const cloud data = make_clusters(100, 8, 6);
  const char* const others[] = {"images-train-large", "images-train", "image"};
  for (const char* name : others) {
    const disk_index index(directory.path(), name, {});
    add_until_refused(index, data);
  }
  const std::set<std::string> files = names_in(folder);
  {
    const disk_index index(directory.path(), "images", {});
    add_until_refused(index, data);
  }
  EXPECT_TRUE(korvex_verify_directory(folder, "images").clean());
  {
    const disk_index index(directory.path(), "images", {});
    korvex_destroy_disk_index(index, 1);
  }
  EXPECT_EQ(names_in(folder), files);
  for (const char* name : others) {
    const disk_index index(directory.path(), name, {});
    EXPECT_EQ(found(index, data, data.size()), data.size()) << name;
  }
}

// The names of block files are no secret: one of them may be given to an index.
TEST(OnDisk, AnIndexAndABlockFileOfOneNameKeepClear) {
  const scratch_directory directory;
  const std::string folder = folder_of(directory.path());
  const cloud data = make_clusters(100, 8, 7);
  {
    const disk_index index(directory.path(), "first", {});
    add_until_refused(index, data);
  }
  std::string block;
  for (const std::string& name : names_in(folder))
    if (name != "first.korvex" && name.ends_with(".korvex")) block = name;
  const std::string taken = block.substr(0, block.size() - std::string(".korvex").size());
  EXPECT_EQ(korvex_init(8, 0, directory.path().c_str(), taken.c_str()), nullptr);
  {
    const disk_index index(directory.path(), "first", {});
    EXPECT_EQ(found(index, data, data.size()), data.size());
    korvex_destroy_disk_index(index, 1);
  }
  {
    const disk_index index(directory.path(), taken.c_str(), {});
    add_until_refused(index, data);
    const disk_index late(directory.path(), "first", {});
    EXPECT_THROW(korvex_add(late, data[0], 0), std::runtime_error);
  }
  const disk_index index(directory.path(), taken.c_str(), {});
  EXPECT_EQ(found(index, data, data.size()), data.size());
}

// ---- many at once ----

std::mutex flushed_lock;
std::vector<const void*> flushed_views;

TEST(OnDisk, MoreIndexesThanTheProcessListsStillSync) {
  const scratch_directory directory;
  const cloud data = make_clusters(40, 8, 7);
  std::vector<std::unique_ptr<disk_index>> open;
  for (int i = 0; i < 33; ++i) {
    const std::string name = "many" + std::to_string(i);
    open.push_back(
        std::make_unique<disk_index>(directory.path(), name.c_str(), disk_index_options{}));
    add_until_refused(*open.back(), data);
  }
  platform::current_flush_hook.store([](int, const void* view, std::uint64_t) {
    std::lock_guard lock(flushed_lock);
    flushed_views.push_back(view);
  });
  for (const auto& index : open) {
    flushed_views.clear();
    EXPECT_EQ(korvex_sync_to_disk(*index, 0), 0);
    hnsw_s* const hnsw = *index;
    for (const vectpool_c* store : hnsw->runtime->store) {
      if (store == nullptr) continue;
      const void* const block = store->manager()->blocks.load()[0].data;
      EXPECT_EQ(std::count(flushed_views.begin(), flushed_views.end(), block) > 0, true);
    }
  }
  platform::current_flush_hook.store(nullptr);
}

// ---- no room ----

int resizes_before_failure = 0;

// Of the id that a failed addition took nobody sees anything.
TEST(OnDisk, AnAdditionWithoutRoomLeavesNoPoint) {
  const scratch_directory directory;
  const cloud data = make_clusters(66, 8, 13);
  constexpr int n = 63;  // with the reserved record they fill the first blocks
  const auto look = [&] {
    const verify_report report = korvex_verify_directory(folder_of(directory.path()), "spare", {});
    EXPECT_TRUE(report.clean());
    EXPECT_EQ(report.statistics.points, static_cast<std::uint32_t>(n));
    EXPECT_EQ(report.statistics.live, static_cast<std::uint32_t>(n));
  };
  for (const int blocks : {1, 2}) {  // of vectors, of links: the next one fails
    SCOPED_TRACE(blocks);
    std::filesystem::remove_all(folder_of(directory.path()));
    {
      const disk_index index(directory.path(), "spare", {});
      for (int i = 0; i < n; ++i) korvex_add(index, data[i], 0);
      resizes_before_failure = blocks;
      platform::current_fault_hook = [](platform::fault_point point) {
        return point == platform::fault_point::resize && resizes_before_failure-- <= 0;
      };
      EXPECT_EQ(korvex_add(index, data[n], 0), 0u);
      platform::current_fault_hook = nullptr;
    }
    look();
    {
      // And nothing needs room until something is added.
      const disk_index index(directory.path(), "spare", {});
      platform::current_fault_hook = [](platform::fault_point point) {
        return point == platform::fault_point::resize || point == platform::fault_point::reserve;
      };
      EXPECT_EQ(found(index, data, n), n);
      EXPECT_EQ(korvex_add(index, data[n], 0), 0u);
      platform::current_fault_hook = nullptr;
      EXPECT_EQ(static_cast<hnsw_s*>(index)->added, static_cast<std::uint32_t>(n));
    }
    look();
    const disk_index index(directory.path(), "spare", {});
    EXPECT_EQ(add_until_refused(index, data, n), data.size());
    EXPECT_EQ(found(index, data, data.size()), data.size());
  }
}

// ---- what the device took ----

std::string flushed_path;
std::vector<std::string> flushed_images;  // of an index file, one for each of its flushes

TEST(OnDisk, TheCleanFlagGoesOutAfterEverythingElse) {
  const scratch_directory directory;
  flushed_path = folder_of(directory.path()) + "/flag.korvex";
  flushed_images.clear();
  {
    const disk_index index(directory.path(), "flag", {});
    add_until_refused(index, make_clusters(40, 8, 12));
    platform::current_flush_hook.store([](int fd, const void*, std::uint64_t) {
      if (fd < 0 || !platform::is_file_at(fd, flushed_path.c_str())) return;
      std::string image(100'000, '\0');
      platform::read_at(fd, image.data(), image.size(), 0);
      flushed_images.push_back(image);
    });
  }
  platform::current_flush_hook.store(nullptr);
  ASSERT_GE(flushed_images.size(), 2U);
  const std::string& last = flushed_images.back();
  const std::string& before = flushed_images[flushed_images.size() - 2];
  std::vector<std::size_t> differing;
  for (std::size_t i = 0; i < last.size(); ++i)
    if (last[i] != before[i]) differing.push_back(i);
  EXPECT_EQ(differing, std::vector<std::size_t>{8232 + 40 + offsetof(hnsw_fields, clean_close)});
}

// ---- size and cache ----

TEST(OnDisk, ASmallIndexStaysSmall) {
  const scratch_directory directory;
  const cloud data = make_clusters(1'000, 128, 8);
  {
    hnsw_s* const hnsw = korvex_init(128, 0, directory.path().c_str(), "small");
    ASSERT_NE(hnsw, nullptr);
    korvex_runtime_s* const runtime = hnsw->runtime;
    runtime_add_handle(runtime);
    add_until_refused(hnsw, data);
    korvex_wait_finish_adding(hnsw);
    EXPECT_LT(allocated(folder_of(directory.path())), 80'000'000u) << "while it is open";
    korvex_free(hnsw);
    EXPECT_TRUE(eventually([&] { return runtime->users_gone.load(); }));
    runtime_release_handle(runtime);
  }
  EXPECT_LT(allocated(folder_of(directory.path())), 80'000'000u);
}

bool refuse_locking(platform::fault_point point) {
  return point == platform::fault_point::lock;
}

// Whatever the cache holds, and however it holds it.
TEST(OnDisk, TheDiskCacheChangesNoAnswer) {
  const scratch_directory directory;
  disk_index_options options;
  options.dimension = 64;
  options.probes = 2;
  options.units = 1024;
  const cloud data = make_clusters(3'000, options.dimension, 9);
  const cloud queries = make_clusters(100, options.dimension, 10);
  {
    const disk_index index(directory.path(), "cached", options);
    add_until_refused(index, data);
  }
  struct answers {
    std::vector<std::uint32_t> ids;
    std::vector<float> distances;
    bool operator==(const answers&) const = default;
  };
  const auto ask = [&](std::uint64_t cache, const char* line) {
    const disk_index index(directory.path(), "cached", options);
    const log_capture log;
    korvex_set_max_ram_usage(index, cache);
    answers all{std::vector<std::uint32_t>(1000), std::vector<float>(1000)};
    for (int pass = 0; pass < 2; ++pass)  // the second one meets a full cache
      EXPECT_EQ(korvex_search_direct(index, queries[0], 100, 10, nullptr, all.ids.data(),
                                     all.distances.data(), nullptr),
                100);
    if (line != nullptr) {
      EXPECT_EQ(log_capture::count(line), 1) << line;
    }
    return all;
  };
  const answers without = ask(0, nullptr);
  for (const bool may_lock : {true, false}) {
    if (!may_lock) platform::current_fault_hook.store(refuse_locking);
    if (may_lock && !platform::may_lock(52'428'800)) continue;
    const std::string mode = may_lock ? " mode 1" : " mode 2";
    EXPECT_EQ(ask(20'000, ("Enabling disk cache: 20000" + mode).c_str()), without)
        << "tiny" << mode;
    EXPECT_EQ(ask(4'000'000, ("Enabling disk cache: 4000000" + mode).c_str()), without) << mode;
    EXPECT_EQ(ask(99, ("Enabling disk cache: 52428800" + mode).c_str()), without)
        << "per cent" << mode;
  }
  platform::current_fault_hook.store(nullptr);
}

}  // namespace
}  // namespace korvex::test
