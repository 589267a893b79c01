#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "engine/disk_fixture.h"
#include "engine/store_layout.h"
#include "engine/verify.h"
#include "fuzz/damage.h"
#include "runtime/disk_probe.h"
#include "search/direct.h"
#include "storage/bloom_filter.h"

// What an opening makes of each file of an index when it is not what it should be.
namespace korvex::test {
namespace {

namespace fs = std::filesystem;
using fuzz::beginning_of;
using fuzz::file_image;

constexpr int dimension = 8;
constexpr int points = 60;  // two blocks of most stores
constexpr unsigned units = 32;
constexpr const char* mismatch =
    "Bad or mismatched configuration detected. Check and reinitialize.";

disk_index_options options_of(int dimensions) {
  disk_index_options options;
  options.dimension = dimensions;
  options.probes = 2;
  options.units = units;
  options.labels = true;
  options.index_check = true;
  return options;
}

struct source {
  cloud data;
  std::vector<file_image> files;
};

source make_source(int dimensions, unsigned seed) {
  const scratch_directory place;
  source made{make_clusters(points, dimensions, seed), {}};
  {
    const disk_index index(place.path(), "small", options_of(dimensions));
    for (int i = 0; i < points; ++i) korvex_add(index, made.data[i], 0);
  }
  made.files = fuzz::take_images(place.path() + "/nimbra-korvex/0");
  return made;
}

// An index that may be refused.
class attempt {
 public:
  attempt(const std::string& base, int dimensions, std::uint8_t instance = 0) {
    hnsw_ = korvex_init(static_cast<std::uint32_t>(dimensions), instance, base.c_str(), "small");
    if (hnsw_ == nullptr) return;
    runtime_ = hnsw_->runtime;
    runtime_add_handle(runtime_);
    // What a host says each time; a sound index keeps what it was made with.
    const disk_index_options options = options_of(dimensions);
    korvex_set_threads(hnsw_, 0);
    korvex_set_partitions(hnsw_, options.probes);
    korvex_set_neighbors_count(hnsw_, options.constellation);
    korvex_set_alloc_units(hnsw_, options.units, 0);
    korvex_enable_label(hnsw_, 1);
  }
  ~attempt() {
    if (hnsw_ == nullptr) return;
    korvex_free(hnsw_);
    EXPECT_TRUE(eventually([this] { return runtime_->users_gone.load(); }));
    runtime_release_handle(runtime_);
  }
  attempt(const attempt&) = delete;
  attempt& operator=(const attempt&) = delete;
  hnsw_s* get() const { return hnsw_; }

  // How many vectors are found by themselves. -1 when the index cannot be started.
  int found(const cloud& data) const {
    int count = 0;
    for (int i = 0; i < data.size(); ++i) {
      float distance = 1;
      std::uint32_t id = 0;
      direct_options wide;
      wide.radius = points;
      if (korvex_search_direct(hnsw_, data[i], 1, 1, &wide, &id, &distance, nullptr) != 1)
        return -1;
      if (id == static_cast<std::uint32_t>(i)) ++count;
    }
    return count;
  }
  bool takes(const float* vector) const {
    const std::uint32_t id = korvex_add(hnsw_, vector, 0);
    std::uint32_t nearest = 0;
    korvex_search_direct(hnsw_, vector, 1, 1, nullptr, &nearest, nullptr, nullptr);
    return id != 0 && nearest == id;
  }

 private:
  hnsw_s* hnsw_ = nullptr;
  korvex_runtime_s* runtime_ = nullptr;
};

void put(const std::string& path, std::uint64_t offset, const std::string& bytes) {
  std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
  file.seekp(static_cast<std::streamoff>(offset));
  file << bytes;
}
template <class T>
void put_number(const std::string& path, std::uint64_t offset, T value) {
  put(path, offset, std::string(reinterpret_cast<const char*>(&value), sizeof value));
}

class HostileFiles : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    // Each case opens and closes a whole index: in memory that takes no time.
    if (fs::is_directory("/dev/shm")) ::setenv("TMPDIR", "/dev/shm", 1);
    ours_ = new source(make_source(dimension, 1));
    same_shape_ = new source(make_source(dimension, 2));
    other_ = new source(make_source(dimension / 2, 3));
  }
  static void TearDownTestSuite() {
    for (const source* each : {ours_, same_shape_, other_}) delete each;
  }
  void SetUp() override { fuzz::put_images(ours_->files, folder()); }

  std::string folder() const { return base_.path() + "/nimbra-korvex/0"; }
  std::string index_file() const { return folder() + "/small.korvex"; }
  std::string store_file(std::uint8_t kind, std::uint32_t block = 0) const {
    hnsw_s shape{};
    shape.dimension = dimension;
    shape.shape_units = units;
    shape.shape_capacity = 16;
    shape.shape_labels = 1;
    if (kind == cache_store_kind)
      return folder() + "/" + vector_block_file_name(cache_files("small"), block);
    if (kind == bloom_store_kind)
      return folder() + "/" +
             vector_block_file_name(bloom_files("small", sbf_size(0, 0, 0, 0).unit_bytes), block);
    return folder() + "/" + vector_block_file_name(store_files(shape, "small", kind), block);
  }
  static std::string image_of(const source& from, const std::string& path) {
    for (const file_image& image : from.files)
      if (image.name == fs::path(path).filename()) return image.content;
    return {};
  }
  // Every file with its length and its beginning.
  std::vector<std::string> contents() const {
    std::vector<std::string> all;
    for (const auto& entry : fs::recursive_directory_iterator(base_.path()))
      if (entry.is_regular_file())
        all.push_back(entry.path().string() + " " + std::to_string(entry.file_size()) + " " +
                      beginning_of(entry.path().string()));
    std::sort(all.begin(), all.end());
    return all;
  }
  void expect_refused(int dimensions, const std::vector<std::string>& lines) const {
    const std::vector<std::string> before = contents();
    log_capture log;
    EXPECT_EQ(attempt(base_.path(), dimensions).get(), nullptr);
    for (const std::string& line : lines) EXPECT_EQ(log_capture::count(line), 1) << line;
    EXPECT_TRUE(contents() == before);
  }

  static inline const source* ours_ = nullptr;
  static inline const source* same_shape_ = nullptr;
  static inline const source* other_ = nullptr;
  const scratch_directory base_;
  const cloud fresh_ = make_clusters(2, dimension, 4);
};

TEST_F(HostileFiles, AnIndexFileThatDoesNotFitIsRefusedAndStaysAsItWas) {
  constexpr std::uint64_t length = 52'428'800;
  constexpr std::uint64_t record = 8232 + 40;
  const std::string memory = "Unable to allocate memory manager..";
  const std::string header = "persistent memory file has invalid header";
  const auto resized = [](std::uint64_t bytes) {
    return [bytes](const std::string& path) { fs::resize_file(path, bytes); };
  };
  const auto word = [](std::uint64_t offset, std::uint64_t value) {
    return [=](const std::string& path) { put_number(path, offset, value); };
  };
  const auto field = [](std::uint64_t offset, std::uint32_t value) {
    return [=](const std::string& path) { put_number(path, record + offset, value); };
  };
  const struct {
    const char* what;
    std::function<void(const std::string&)> damage;
    std::vector<std::string> lines;
  } rows[] = {
      {"one byte", resized(1), {"existing file size 1 is too small (min: 12328)", memory}},
      {"nearly a header", resized(12'327), {"existing file size 12327 is too small", memory}},
      {"half", resized(length / 2), {"header says 52428800, actual file size is 26214400", header}},
      {"longer", resized(length + 4096), {"header says 52428800, actual file size is", header}},
      {"length", word(8, 1), {"header size mismatch: header says 1, actual", header, memory}},
      {"used part", word(16, length + 16), {"used size exceeds total size: 52428816 >", header}},
      {"no used part", word(16, 8216), {"used size too small: 8216 < 8232", header}},
      {"odd used part", word(16, 8240), {header, memory}},
      {"directory",
       [](const std::string& path) {
         fs::remove(path);
         fs::create_directory(path);
       },
       {memory}},
      {"link to nothing",
       [](const std::string& path) {
         fs::remove(path);
         fs::create_symlink("/nowhere/at/all", path);
       },
       {memory}},
      {"element bytes", field(20, 0), {mismatch}},
      {"id bytes", field(24, 8), {mismatch}},
      {"dimension", field(28, 0x80000008), {mismatch}},
      {"instance", field(100, 7), {mismatch}},
      {"capacity", field(120, 0), {mismatch}},
      {"metric", field(144, 3), {mismatch}},
      {"units", field(308, 0), {mismatch}},
      {"units of other files", field(308, 0x7FFFFFFF), {mismatch}},
      {"stored capacity", field(312, 0xFFFFFFFF), {mismatch}},
      {"capacity of other files", field(312, 1 << 20), {mismatch}},
      {"probes", field(316, 17), {mismatch}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    fuzz::put_images(ours_->files, folder());
    row.damage(index_file());
    expect_refused(dimension, row.lines);
  }
}

TEST_F(HostileFiles, AnIndexOfAnotherKindIsRefusedAndStaysAsItWas) {
  expect_refused(dimension + 1, {mismatch});
  expect_refused(1, {mismatch});

  // The index file of another index in the place of ours.
  fs::remove(index_file());
  std::ofstream(index_file(), std::ios::binary) << image_of(*other_, "small.korvex");
  fs::resize_file(index_file(), 52'428'800);
  expect_refused(dimension, {mismatch});
  expect_refused(dimension / 2, {mismatch});  // its own vectors are not here

  // Ours under another number.
  fuzz::put_images(ours_->files, folder());
  fs::rename(folder(), base_.path() + "/nimbra-korvex/3");
  EXPECT_EQ(attempt(base_.path(), dimension, 3).get(), nullptr);
}

TEST_F(HostileFiles, WithoutItsIndexFileAnIndexIsPutTogetherFromTheStores) {
  const struct {
    const char* what;
    std::function<void(const std::string&)> damage;
  } rows[] = {
      {"removed", [](const std::string& path) { fs::remove(path); }},
      {"empty", [](const std::string& path) { fs::resize_file(path, 0); }},
      {"magic", [](const std::string& path) { put(path, 0, "x"); }},
      {"chains", [](const std::string& path) { put(path, 40, std::string(8192, 0)); }},
      {"record", [](const std::string& path) { put_number(path, 8232 + 40 + 8, 0); }},
      {"shape", [](const std::string& path) { put_number(path, 8232 + 40 + 304, 0); }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    fuzz::put_images(ours_->files, folder());
    row.damage(index_file());
    {
      const attempt index(base_.path(), dimension);
      ASSERT_NE(index.get(), nullptr);
      EXPECT_EQ(index.found(ours_->data), points);
      EXPECT_TRUE(index.takes(fresh_[0]));
    }
    EXPECT_EQ(korvex_verify_directory(folder(), "small").errors, 0U);
    const attempt again(base_.path(), dimension);
    ASSERT_NE(again.get(), nullptr);
    EXPECT_EQ(again.found(ours_->data), points);
    EXPECT_TRUE(again.takes(fresh_[1]));
  }
}

struct block_damage {
  const char* what;
  std::function<void(const std::string&)> damage;
  const char* line;  // of a start that goes on without the block
};

std::vector<block_damage> damages_of_a_block(std::uint32_t block) {
  const auto byte = [](std::uint64_t offset, char value) {
    return [=](const std::string& path) { put(path, offset, std::string(1, value)); };
  };
  const auto number = [](std::uint64_t offset, std::uint32_t value) {
    return [=](const std::string& path) { put_number(path, offset, value); };
  };
  const auto resized = [](std::uint64_t bytes) {
    return [bytes](const std::string& path) { fs::resize_file(path, bytes); };
  };
  static const char* const headers[] = {"Invalid block header in block 0",
                                        "Invalid block header in block 1"};
  return {
      {"empty", resized(0), nullptr},
      {"one byte", resized(1), "failed to map file "},
      {"header alone", resized(128), "failed to map file "},
      {"signature", byte(0, 'x'), "Invalid signature in existing file "},
      {"version", byte(2, 2), headers[block]},
      {"record size", number(24, 5), headers[block]},
      {"too many records", number(28, 0xFFFFFFFF), headers[block]},
      {"directory",
       [](const std::string& path) {
         fs::remove(path);
         fs::create_directory(path);
       },
       "failed to map file "},
  };
}

// Of every store but the vectors: the line, the bytes kept, and an index that goes on.
TEST_F(HostileFiles, ADamagedBlockFileIsSetAsideWithItsBytes) {
  for (const std::uint8_t kind : {2, 3, 4, 5, 7})
    for (const auto& row : damages_of_a_block(0)) {
      SCOPED_TRACE(testing::Message() << row.what << " of " << store_title(kind));
      fuzz::put_images(ours_->files, folder());
      const std::string path = store_file(kind);
      ASSERT_TRUE(fs::exists(path)) << path;
      row.damage(path);
      const std::string damaged = beginning_of(path);
      log_capture log;
      {
        const attempt index(base_.path(), dimension);
        ASSERT_NE(index.get(), nullptr);
        EXPECT_TRUE(index.takes(fresh_[0]));
        if (row.line != nullptr) EXPECT_EQ(log_capture::count(row.line), 1);
        if (kind == star_store_kind) EXPECT_EQ(index.found(ours_->data), points);
      }
      EXPECT_TRUE(damaged.empty() || beginning_of(path + ".bad") == damaged);
      if (kind == star_store_kind)
        EXPECT_TRUE(korvex_verify_directory(folder(), "small").clean()) << "repaired";
      const attempt again(base_.path(), dimension);
      ASSERT_NE(again.get(), nullptr);
      EXPECT_TRUE(again.takes(fresh_[1]));
    }
}

// Nothing else can bring them back: who has their files somewhere must find the rest unchanged.
TEST_F(HostileFiles, WithoutVectorsThatWereSyncedAnIndexIsRefusedAndStaysAsItWas) {
  const std::string lost = "can be read: some were lost or damaged. Nothing is changed";
  for (const std::uint32_t block : {0u, 1u}) {
    std::vector<block_damage> rows = damages_of_a_block(block);
    rows.push_back({"gone", [](const std::string& path) { fs::remove(path); }, nullptr});
    rows.push_back(
        {"fewer records", [](const std::string& path) { put_number(path, 28, 7); }, nullptr});
    for (const auto& row : rows) {
      if (block == 0 && std::string(row.what) == "fewer records") continue;  // others follow
      SCOPED_TRACE(testing::Message() << row.what << " of block " << block);
      fuzz::put_images(ours_->files, folder());
      row.damage(store_file(1, block));
      expect_refused(dimension, {lost, mismatch});
    }
  }
}

// What the record claims beyond its files.
TEST_F(HostileFiles, NumbersOfTheRecordAreBoundedWhereTheyAreUsed) {
  constexpr std::uint64_t record = 8232 + 40;
  constexpr std::uint64_t huge = std::uint64_t{1} << 60;
  put_number(index_file(), record + offsetof(hnsw_fields, disk_cache_size), huge);
  put_number(index_file(), record + offsetof(hnsw_fields, durable), 0xFFFFFFFFu);
  const attempt index(base_.path(), dimension);
  ASSERT_NE(index.get(), nullptr);
  EXPECT_EQ(index.found(ours_->data), points);
  EXPECT_EQ(index.get()->durable, static_cast<std::uint32_t>(points));
  EXPECT_EQ(index.get()->disk_cache_size, huge) << "for a machine that has so much";
}

TEST_F(HostileFiles, AFileOfAnotherStoreOrIndexDoesNoHarm) {
  constexpr std::uint8_t from_same_shape = 100;
  constexpr std::uint8_t from_other = 101;
  for (const std::uint8_t kind : {1, 2, 3, 4, 5, 7, 8, 9})
    for (const std::uint8_t from :
         {std::uint8_t{1}, std::uint8_t{7}, kind, from_same_shape, from_other}) {
      SCOPED_TRACE(testing::Message() << int{from} << " as " << store_title(kind));
      fuzz::put_images(ours_->files, folder());
      const std::string path = store_file(kind);
      if (from < from_same_shape) {
        fs::remove(path);
        fs::copy_file(from == kind ? index_file() : store_file(from), path);
      } else {
        put(path, 0, image_of(from == from_same_shape ? *same_shape_ : *other_, path));
      }
      const attempt index(base_.path(), dimension);
      if (kind == 1 && from < from_same_shape) {
        EXPECT_EQ(index.get(), nullptr);
        continue;
      }
      ASSERT_NE(index.get(), nullptr);
      EXPECT_GE(index.found(ours_->data), kind >= 7 && kind <= 9 ? points * 9 / 10 : 0);
      EXPECT_TRUE(index.takes(fresh_[0]));
    }
}

// A file that is sound but out of reach must not be taken for lost.
TEST_F(HostileFiles, WithoutRightsNothingIsGivenUp) {
  const bool root = ::geteuid() == 0;
  const auto chmod_to = [](const std::string& path, unsigned mode) {
    fs::permissions(path, static_cast<fs::perms>(mode));
  };
  for (const std::uint8_t kind : {0, 1, 2, 3, 4, 5, 7}) {
    SCOPED_TRACE(store_title(kind));
    fuzz::put_images(ours_->files, folder());
    const std::string path = kind == 0 ? index_file() : store_file(kind);
    chmod_to(path, 0);
    for (const auto& entry : fs::recursive_directory_iterator(base_.path()))
      if (root) ASSERT_EQ(::chown(entry.path().c_str(), 65534, 65534), 0);
    if (root) ASSERT_EQ(::seteuid(65534), 0);
    log_capture log;
    {
      const attempt index(base_.path(), dimension);
      EXPECT_EQ(index.get() == nullptr, kind == 0);
      if (index.get() != nullptr) EXPECT_EQ(index.found(ours_->data), -1);
      EXPECT_GE(log_capture::count("Failed to open file " + path + ": Permission denied"), 1);
    }
    if (root) ASSERT_EQ(::seteuid(0), 0);
    chmod_to(path, 0600);
    EXPECT_FALSE(fs::exists(path + ".bad"));
    const attempt again(base_.path(), dimension);
    ASSERT_NE(again.get(), nullptr);
    EXPECT_EQ(again.found(ours_->data), points);
  }
}

// A pipe in the place of a file is never opened: that would wait for somebody at its other end.
TEST_F(HostileFiles, NobodyWaitsForAPipe) {
  const watchdog guard;
  const std::string figures = base_.path() + "/iops_result.txt";
  ASSERT_EQ(::mkfifo(figures.c_str(), 0600), 0);
  disk_iops_s probe{};
  EXPECT_EQ(disk_perf_test(base_.path().c_str(), 0, 0, 1, 0, &probe),
            -1);  // no block size: cannot be measured
  for (const std::string& path : {store_file(2), index_file()}) {
    fs::remove(path);
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    const attempt index(base_.path(), dimension);
    EXPECT_EQ(index.get() == nullptr, path == index_file());
    if (index.get() != nullptr) EXPECT_TRUE(index.takes(fresh_[0]));
  }
}

}  // namespace
}  // namespace korvex::test
