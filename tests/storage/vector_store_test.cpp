#include "storage/vector_store.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "runtime/log.h"
#include "runtime/platform/faults.h"
#include "runtime/platform/process.h"
#include "runtime/platform/threads.h"
#include "storage/data_cache.h"
#include "storage/vector_store_format.h"

namespace {

using namespace korvex;
namespace fs = std::filesystem;
struct destroyer {
  void operator()(vector_manager_s* m) const { vector_destroy(m); }
};
using store_ptr = std::unique_ptr<vector_manager_s, destroyer>;
using bytes = std::vector<std::uint8_t>;

// The lines that the library wrote during its life.
class log_lines {
 public:
  log_lines() {
    log_init(64000, 0);
    log_wait_empty(-1);
    const std::lock_guard guard(mutex());
    text().clear();
    log_set_callback([](int, const char*, const char* message, const char*) {
      const std::lock_guard inner(mutex());
      text() += message;
    });
  }
  ~log_lines() { log_set_callback(nullptr); }
  bool have(const std::string& part) {
    log_wait_empty(-1);
    const std::lock_guard guard(mutex());
    return text().find(part) != std::string::npos;
  }

 private:
  static std::mutex& mutex() {
    static std::mutex& only = *new std::mutex;  // the log's worker outlives static objects
    return only;
  }
  static std::string& text() {
    static std::string& only = *new std::string;
    return only;
  }
};

// A directory of its own and a configuration that keeps stores in it.
struct disk {
  fs::path path =
      fs::temp_directory_path() / ("korvex-store-test-" + std::to_string(platform::process_id()));
  std::string name = path.string();
  vectpool_conf_s conf;

  disk() {
    fs::remove_all(path);
    fs::create_directories(path);
    conf.directory = name.c_str();
    conf.extension = "korvex";
    conf.persistent = 1;
  }
  ~disk() { fs::remove_all(path); }

  std::set<std::string> files() const {
    std::set<std::string> names;
    for (const auto& file : fs::directory_iterator(path))
      names.insert(file.path().filename().string());
    return names;
  }
};

// Makes operations of the platform fail, by kind.
class fault {
 public:
  template <typename... Points>
  explicit fault(Points... points) {
    mask_ = ((1u << static_cast<unsigned>(points)) | ...);
    platform::current_fault_hook = [](platform::fault_point point) {
      return (mask_ >> static_cast<unsigned>(point) & 1) != 0 && skip_-- <= 0 && times_-- > 0;
    };
  }
  ~fault() {
    platform::current_fault_hook = nullptr;
    skip_ = 0;
    times_ = 1 << 30;
  }
  static void skip(int count) { skip_ = count; }    // the first ones succeed
  static void times(int count) { times_ = count; }  // after so many failures all succeed

 private:
  static inline std::atomic<unsigned> mask_{0};
  static inline std::atomic<int> skip_{0};
  static inline std::atomic<int> times_{1 << 30};
};
using platform::fault_point;

store_ptr make_store(unsigned record_size, unsigned records_per_block, vectpool_conf_s conf = {},
                     int kind = 1) {
  const std::uint64_t block_bytes = std::uint64_t{record_size} * records_per_block;
  return store_ptr(vector_create(record_size, block_bytes, 1, kind, &conf));
}

unsigned add(const store_ptr& store, unsigned count = 1) {
  unsigned id = vector_no_id;
  return vector_add(store.get(), &id, count) == nullptr ? vector_no_id : id;
}

void add_many(const store_ptr& store, unsigned count) {
  while (count-- != 0) ASSERT_NE(add(store), vector_no_id);
}

bytes read_file(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

void patch(const fs::path& path, std::streamoff offset, const std::string& value) {
  std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
  file.seekp(offset);
  file.write(value.data(), static_cast<std::streamsize>(value.size()));
}

TEST(VectorStore, NamesOfFilesNeverChange) {
  struct row {
    std::uint64_t value;
    const char* name;
  };
  const auto pair = [](std::uint64_t high, std::uint64_t low) { return high << 32 | low; };
  for (const row& r :
       {row{0, "a"}, row{1, "a"}, row{pair(512, 1 << 20), "duws1ljnf"},
        row{pair(132, 1 << 20), "egs1ljnf"}, row{pair(8, 1 << 19), "bws01jnf"},
        row{pair(968, 1 << 14), "cnws0lznf"}, row{pair(1, 0), "cs0ljnf"},
        row{pair(2, 0), "os0ljnf"}, row{pair(7, 0), "ks0ljnf"}, row{pair(8, 0), "bws0ljnf"}}) {
    char name[hex_compress_room];
    EXPECT_EQ(string_hex_compress(r.value, true, name), std::strlen(r.name));
    EXPECT_STREQ(name, r.name);
  }
}

TEST(VectorStore, BlockFileIsStableByteForByte) {
  disk d;
  {
    auto store = make_store(20, 4, d.conf);
    add_many(store, 3);
    for (unsigned id = 0; id < 3; ++id)
      std::memset(vector_get(store.get(), id), static_cast<int>(0xA0 + id), 20);
  }
  bytes expected(128 + 80);
  const bytes header = {0xAC, 0x59, 1, 0, 0, 0, 128, 0, 208, 0, 0, 0, 0, 0, 0, 0,
                        0,    0,    0, 0, 0, 0, 0,   0, 20,  0, 0, 0, 3, 0, 0, 0};
  std::copy(header.begin(), header.end(), expected.begin());
  for (std::size_t id = 0; id < 3; ++id)
    std::fill_n(expected.begin() + 128 + static_cast<std::ptrdiff_t>(id) * 20, 20, 0xA0 + id);
  ASSERT_EQ(d.files(), std::set<std::string>{"nimbra-korvex-cgs0ljnb-cs0ljnf.korvex"});
  EXPECT_EQ(read_file(d.path / *d.files().begin()), expected);
}

TEST(VectorStore, GeometryAndRefusals) {
  log_lines log;
  vectpool_conf_s conf;
  vectpool_c pool(512, 1000000, 64, 1, &conf);
  EXPECT_EQ(pool.records_per_block(), 2048u);
  unsigned id = 7;
  EXPECT_EQ(pool.alloc(&id, 2049), nullptr);
  EXPECT_TRUE(log.have("currently not supporting more than block boundry: 2049\n"));
  EXPECT_NE(pool.alloc(&id, 0), nullptr);
  EXPECT_EQ(id, 0u);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(pool.get(0)) % 64, 0u);

  EXPECT_EQ(vector_create(8, 8, 1, 1, nullptr), nullptr);
  EXPECT_EQ(vector_create(0, 8, 1, 1, &conf), nullptr);
  EXPECT_EQ(vector_create((1u << 31) + 1, 8, 1, 1, &conf), nullptr);
  EXPECT_THROW(vectpool_c(0, 8, 1, 1, &conf), std::runtime_error);
  // Sizes beyond 32 bits: no record of the block is touched.
  EXPECT_EQ(vectpool_c(1, 1ull << 40, 1, 4, &conf).records_per_block(), 1u << 31);
  EXPECT_EQ(vectpool_c(7, 3, 1, 4, &conf).records_per_block(), 1u);

  auto tiny = make_store(8, 4);
  add_many(tiny, 2);
  vector_free(tiny.get(), 0, 1);  // too small to hold a run
  EXPECT_EQ(add(tiny), 2u);
}

// Random additions, releases and reopenings against a map of what must be there.
void churn(std::uint32_t seed, unsigned record_size, unsigned per_block, vectpool_conf_s conf) {
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  auto store = make_store(record_size, per_block, conf);
  std::map<unsigned, std::pair<unsigned, int>> live;  // first id: count, fill byte
  const auto intact = [&](unsigned id, unsigned count, int fill) {
    for (unsigned i = 0; i < count; ++i) {
      const auto* record = static_cast<const std::uint8_t*>(vector_get(store.get(), id + i));
      if (std::any_of(record, record + record_size, [fill](int b) { return b != fill; }))
        return false;
    }
    return true;
  };
  for (int step = 0; step < 2500; ++step) {
    const unsigned what = random() % 100;
    if (what < 55 || live.empty()) {
      const unsigned count = 1 + random() % (what < 30 ? 2 : per_block);
      const unsigned id = add(store, count);
      ASSERT_NE(id, vector_no_id);
      ASSERT_EQ(id / per_block, (id + count - 1) / per_block) << "crosses a block";
      const auto after = live.lower_bound(id);
      ASSERT_TRUE(after == live.end() || id + count <= after->first);
      ASSERT_TRUE(after == live.begin() ||
                  std::prev(after)->first + std::prev(after)->second.first <= id);
      const int fill = static_cast<int>(random() % 256);
      for (unsigned i = 0; i < count; ++i)
        std::memset(vector_get(store.get(), id + i), fill, record_size);
      live[id] = {count, fill};
    } else if (what < 99 || conf.persistent == 0) {
      const auto chosen = std::next(live.begin(), random() % live.size());
      ASSERT_TRUE(intact(chosen->first, chosen->second.first, chosen->second.second));
      vector_free(store.get(), chosen->first, chosen->second.first);
      live.erase(chosen);
    } else {
      const unsigned size = vector_count(store.get());
      store.reset();
      store = make_store(record_size, per_block, conf);
      ASSERT_EQ(vector_count(store.get()), size);
    }
  }
  for (const auto& [id, run] : live) ASSERT_TRUE(intact(id, run.first, run.second)) << id;
}

TEST(VectorStore, KeepsWhatItHandedOut) {
  for (std::uint32_t seed = 1; seed <= 4; ++seed) {
    churn(seed, 16, 32, {});
    churn(seed, 21, 8, {});
  }
  disk d;
  churn(5, 132, 32, d.conf);  // once: every reopening flushes every block to the device
}

TEST(VectorStore, ReusesTheShortestRunThatFits) {
  auto store = make_store(16, 64);
  add_many(store, 40);
  for (const auto& [id, count] : {std::pair{20u, 5u}, {10u, 3u}, {30u, 8u}, {15u, 3u}})
    vector_free(store.get(), id, count);
  EXPECT_EQ(add(store, 3), 15u);  // the later of two equal runs is met first
  EXPECT_EQ(add(store, 4), 20u);
  EXPECT_EQ(vector_count(store.get()), 41u);  // the rest of that run is described in a fresh record
  EXPECT_EQ(add(store, 1), 24u);
  EXPECT_EQ(add(store, 9), 41u);
  vector_free(store.get(), 45, 1000);  // cut to what was handed out
  EXPECT_EQ(add(store, 5), 45u);
  vector_free(store.get(), 50, 1);  // never handed out
  EXPECT_EQ(add(store, 8), 30u);
  EXPECT_EQ(store->free_records, 3u);
}

TEST(VectorStore, NeighbouringFreeRunsJoinInPairsButNotAcrossBlocks) {
  auto store = make_store(16, 256);
  add_many(store, 515);
  for (unsigned id = 1; id <= 255; ++id) vector_free(store.get(), id, 1);
  EXPECT_EQ(store->free_runs, 255u);
  vector_free(store.get(), 256, 1);
  // 1..255 make 127 pairs and 255 alone; 256 starts the next block.
  EXPECT_EQ(store->free_runs, 129u);
  EXPECT_EQ(store->free_records, 256u);
  vector_free(store.get(), 510, 4);
  EXPECT_EQ(store->free_runs, 131u);  // 510-511 and 512-513
}

TEST(VectorStore, NoFreeRunIsLostWhenThereAreMoreThanTheWorkAreaHolds) {
  auto store = make_store(16, 256);
  add_many(store, 3000);
  for (unsigned id = 0; id < 3000; id += 2) vector_free(store.get(), id, 1);
  EXPECT_EQ(store->free_runs, 1500u);
  std::set<unsigned> reused;
  for (int i = 0; i < 1500; ++i) reused.insert(add(store));
  EXPECT_EQ(reused.size(), 1500u);
  EXPECT_EQ(*reused.rbegin(), 2998u);
}

TEST(VectorStore, AWriteIntoAFreedRecordLeadsNoAdditionAstray) {
  auto store = make_store(16, 512);
  add_many(store, 300);
  unsigned id = 0;
  for (const auto& [first, length] :
       {std::pair{vector_no_id - 9, 4u}, {1u << 20, 1u}, {298u, vector_no_id - 9}, {510u, 4u}}) {
    vector_free(store.get(), id, 1);
    auto* run = static_cast<vector_free_run_s*>(vector_get(store.get(), id));
    run->first = first;
    run->length = length;
    EXPECT_EQ(add(store), 300 + id / 2);
    id += 2;
  }
  for (id = 10; id < 262; ++id) vector_free(store.get(), id, 1);
  EXPECT_EQ(store->free_runs, 126u);  // pairs; the others are forgotten
  for (unsigned i = 0; i < 252; ++i) EXPECT_LT(add(store), 262u);
}

TEST(VectorStore, SlotsThatALargeRequestSkipsAreKept) {
  disk d;
  for (const auto& conf : {vectpool_conf_s{}, d.conf}) {
    auto store = make_store(16, 8, conf);
    EXPECT_EQ(add(store, 5), 0u);
    EXPECT_EQ(add(store, 6), 8u);
    EXPECT_EQ(add(store, 2), 5u);  // and a fresh record for the one left over
    EXPECT_EQ(add(store, 1), 7u);
    EXPECT_EQ(vector_count(store.get()), 15u);
  }
}

TEST(VectorStore, RestoreStopsAtTheFirstMissingBlock) {
  disk d;
  log_lines log;
  add_many(make_store(16, 4, d.conf), 15);
  ASSERT_EQ(d.files().size(), 4u);
  fs::remove(d.path / "nimbra-korvex-cws0ljnb-cs0ljnh.korvex");
  auto store = make_store(16, 4, d.conf);
  EXPECT_EQ(vector_count(store.get()), 8u);
  EXPECT_TRUE(log.have("restored 8 vectors from 2 blocks\n"));
  add_many(store, 8);  // block 3 is in the way of a new one and makes room
  EXPECT_EQ(d.files().count("nimbra-korvex-cws0ljnb-cs0ljng.korvex.bad"), 1u);
  store.reset();
  EXPECT_EQ(vector_count(make_store(16, 4, d.conf).get()), 16u);
}

TEST(VectorStore, RefusesBadBlocksAndKeepsTheirBytes) {
  struct row {
    std::streamoff offset;  // below 0: the file is cut to -offset bytes
    std::string value;
    const char* line;
  };
  using namespace std::string_literals;
  const std::string file = "nimbra-korvex-cws0ljnb-cs0ljne.korvex";  // block 1
  for (const row& r : {row{0, "\xAD"s, "Invalid signature in existing file "},
                       row{1, "Z"s, "Invalid signature in existing file "},
                       row{2, "\2"s, "Invalid block header in block 1\n"},
                       row{24, "\x18"s, "Invalid block header in block 1\n"},
                       row{28, "\5\0\0\0"s, "Invalid block header in block 1\n"},
                       row{28, "\xFF\xFF\xFF\xFF"s, "Invalid block header in block 1\n"},
                       row{-191, "", "failed to map file "}, row{-1, "", "failed to map file "}}) {
    SCOPED_TRACE(std::to_string(r.offset) + " " + r.line);
    disk d;
    log_lines log;
    add_many(make_store(16, 4, d.conf), 12);
    const fs::path block = d.path / file;
    if (r.offset < 0)
      fs::resize_file(block, static_cast<std::uintmax_t>(-r.offset));
    else
      patch(block, r.offset, r.value);
    const bytes before = read_file(block);

    auto store = make_store(16, 4, d.conf);
    EXPECT_TRUE(log.have(r.line));
    EXPECT_EQ(vector_count(store.get()), 4u);
    EXPECT_EQ(read_file(block), before);
    add_many(store, 1);
    EXPECT_EQ(read_file(block.string() + ".bad"), before);
    EXPECT_EQ(vector_count(store.get()), 5u);
  }
}

TEST(VectorStore, ABlockMustKeepIdsBelowTheLastOne) {
  vector_block_header_s header{};
  std::memcpy(header.signature, vector_block_signature, 3);
  header.record_size = 1;
  header.records_used = 2;
  std::array<std::byte, 256> block{};
  const auto verdict = [&](std::uint32_t index) {
    std::memcpy(block.data(), &header, sizeof header);
    return check_vector_block(block.data(), sizeof(block), 1, 128, index);
  };
  EXPECT_EQ(verdict((1u << 25) - 1), vector_block_verdict::good);
  EXPECT_EQ(verdict(1u << 25), vector_block_verdict::bad_header);
  header.records_used = 127;
  EXPECT_EQ(verdict((1u << 25) - 1), vector_block_verdict::bad_header);
}

TEST(VectorStore, ReadersRunBesideGrowth) {
  auto store = make_store(16, 2);
  constexpr unsigned total = 3000;
  std::atomic<unsigned> published{0};
  std::atomic<int> wrong{0};
  auto read = [&](unsigned seed) {
    std::mt19937 random(seed);
    for (unsigned count = 0; count < total; count = published.load(std::memory_order_acquire)) {
      if (count == 0) continue;
      const unsigned id = random() % count;
      std::uint64_t value = 0;
      std::memcpy(&value, vector_get(store.get(), id), sizeof value);
      if (value != id * 3 || vector_count(store.get()) < count) ++wrong;
    }
  };
  std::thread one(read, 1), two(read, 2);
  for (unsigned i = 0; i < total; ++i) {
    const std::uint64_t value = add(store) * 3;
    std::memcpy(vector_get(store.get(), i), &value, sizeof value);
    published.store(i + 1, std::memory_order_release);
  }
  one.join();
  two.join();
  EXPECT_EQ(wrong, 0);
}

TEST(VectorStore, AFailedAdditionLeavesTheStoreUsable) {
  auto in_memory = make_store(16, 2);
  disk d;
  auto on_disk = make_store(4096, 2, d.conf);
  for (unsigned i = 0; i < 40; ++i) {  // passes the growth of the blocks array, too
    for (const auto* store : {&in_memory, &on_disk}) {
      SCOPED_TRACE(i);
      const auto files = d.files();
      if (i % 2 == 0) {
        log_lines log;
        const fault no_memory(fault_point::map_anonymous, fault_point::map_file, fault_point::heap);
        EXPECT_EQ(add(*store), vector_no_id);
      }
      EXPECT_EQ(d.files(), files);
      EXPECT_EQ(add(*store), i);
      EXPECT_EQ(vector_count(store->get()), i + 1);
    }
  }
  on_disk.reset();
  EXPECT_EQ(vector_count(make_store(4096, 2, d.conf).get()), 40u);
}

TEST(VectorStore, CreationSurvivesEveryFailedAllocation) {
  disk d;
  add_many(make_store(16, 1, d.conf), 20);
  log_lines log;
  bool made = false;
  for (int n = 0; !made && n < 50; ++n) {
    const fault heap(fault_point::heap);
    fault::skip(n);
    auto conf = d.conf;
    conf.cache_size = 4;
    conf.cache_mode = data_cache_copy;
    // A blocks array that cannot grow ends the restore early; nothing else may be cut short.
    auto store = make_store(16, 1, conf);
    made = store != nullptr && vector_count(store.get()) == 20;
    EXPECT_TRUE(store == nullptr || made || vector_count(store.get()) == 16);
  }
  EXPECT_TRUE(made);
}

TEST(VectorStore, AFullDiskIsAFailedAddition) {
  disk d;
  log_lines log;
  auto store = make_store(256 << 10, 64, d.conf);  // more than is ever reserved ahead
  unsigned added = 0;
  {
    const fault full(fault_point::reserve);
    EXPECT_EQ(add(store), vector_no_id);
    EXPECT_TRUE(log.have("ftruncate failed for file " + d.name + "/nimbra-korvex-"));
    EXPECT_TRUE(d.files().empty());
    fault::skip(1);  // the file could be made, its records have no room
    EXPECT_EQ(add(store, 32), vector_no_id);
    EXPECT_TRUE(d.files().empty());
  }
  add_many(store, ++added);
  {
    const fault full(fault_point::reserve);
    while (add(store) == added) ++added;  // room that was taken ahead
  }
  EXPECT_LT(added, 60u);
  EXPECT_EQ(vector_count(store.get()), added);
  EXPECT_EQ(add(store), added);
  {
    const fault full(fault_point::reserve);
    fault::times(2);
    EXPECT_EQ(add(store, 60), 64u);  // the slots that it skips have no room on disk
  }
  EXPECT_EQ(add(store), 124u);
}

TEST(VectorStore, OneStoreForOneSetOfFiles) {
  disk d;
  log_lines log;
  auto store = make_store(16, 4, d.conf, 1);
  EXPECT_EQ(make_store(16, 4, d.conf, 1), nullptr);
  EXPECT_EQ(make_store(16, 4, d.conf, 5), nullptr);  // has the file names of kind 1
  EXPECT_EQ(make_store(16, 4, d.conf, 0), nullptr);  // its blocks share names
  EXPECT_NE(make_store(16, 4, d.conf, 2), nullptr);
  EXPECT_NE(make_store(16, 8, d.conf, 1), nullptr);
  store.reset();
  EXPECT_NE(make_store(16, 4, d.conf, 1), nullptr);
}

std::atomic<int> flushes{0};

TEST(VectorStore, SyncReachesLiveRegisteredStoresOnce) {
  disk d;
  log_lines log;
  platform::current_flush_hook = [](int, const void* data, std::uint64_t) {
    if (data != nullptr) ++flushes;
  };
  std::vector<store_ptr> stores;
  std::string prefix;
  for (unsigned i = 0; i < 33; ++i) {
    EXPECT_FALSE(log.have("vector_manager pool limit reached!\n"));
    prefix = std::to_string(i);
    d.conf.prefix = prefix.c_str();
    stores.push_back(make_store(16, 4, d.conf));
    add_many(stores.back(), 1);
  }
  EXPECT_TRUE(log.have("vector_manager pool limit reached!\n"));
  EXPECT_EQ(vector_sync_all(0), 0);
  EXPECT_EQ(flushes.exchange(0), 32);
  vector_sync_all(3600);
  EXPECT_EQ(flushes, 0);
  stores.resize(10);
  flushes = 0;
  vector_sync_all(0);
  EXPECT_EQ(flushes.exchange(0), 10);
  EXPECT_EQ(vector_sync(make_store(16, 4).get(), 0), 0);
  EXPECT_EQ(vector_sync(nullptr, 0), 0);
  EXPECT_EQ(flushes, 0);
  platform::current_flush_hook = nullptr;
  const auto header = read_file(d.path / *d.files().begin());
  EXPECT_NE(header[36] | header[37] | header[38] | header[39], 0);

  // Destruction waits for a flush in another thread; a store may be found again beside one.
  std::thread syncing([] {
    for (int i = 0; i < 20; ++i) vector_sync_all(0);
  });
  while (!stores.empty()) stores.pop_back();
  for (int i = 0; i < 5; ++i) EXPECT_EQ(vector_count(make_store(16, 4, d.conf).get()), 1u);
  syncing.join();
}

TEST(VectorStore, CachedReadsAreCopies) {
  disk d;
  d.conf.cache_size = 1;
  d.conf.cache_mode = data_cache_copy;
  auto store = make_store(16, 8, d.conf);
  add_many(store, 3);
  for (unsigned id = 1; id < 3; ++id) {
    void* record = vector_get(store.get(), id);
    std::memset(record, static_cast<int>(id), 16);
    EXPECT_EQ(vector_get_cached(store.get(), id, 0), record);
    EXPECT_EQ(vector_get_cached(store.get(), id, 1), record);
    EXPECT_NE(vector_get_cached(store.get(), id, 0), record);
    EXPECT_EQ(std::memcmp(vector_get_cached(store.get(), id, 0), record, 16), 0);
  }
  vector_cache(store.get(), 1, nullptr);
  EXPECT_NE(vector_get_cached(store.get(), 1, 0), vector_get(store.get(), 1));
}

TEST(VectorStore, MemoryIsTouchedAsRecordsAreHandedOutAndReturned) {
  const auto resident = [] { return platform::process_memory().resident_bytes; };
  const auto before = resident();
  constexpr std::uint64_t mib = 1 << 20;
  for (int round = 0; round < 3; ++round) {
    auto store = make_store(512, 1 << 20);  // blocks of 512 MiB
    for (int i = 0; i < 4096; ++i) std::memset(vector_get(store.get(), add(store)), 1, 512);
    EXPECT_LT(resident(), before + 16 * mib);
  }
  EXPECT_LT(resident(), before + 8 * mib);
}

}  // namespace
