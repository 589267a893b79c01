#include "engine/verify.h"

#include <gtest/gtest.h>
#include <xxhash.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "engine/disk_fixture.h"
#include "engine/points.h"
#include "engine/store_layout.h"
#include "engine/verify_files.h"
#include "search/result_cache.h"
#include "search/session.h"
#include "storage/bloom_filter.h"
#include "storage/hash_table.h"
#include "storage/vector_hash.h"

namespace korvex::test {
namespace {

namespace fs = std::filesystem;

// One index for all tests, made once: each test damages it and puts it back.
class Verify : public testing::Test {
 protected:
  static constexpr int dimension = 8;
  static constexpr std::uint32_t points = 300;
  static constexpr std::uint32_t capacity = 16;
  static constexpr std::uint64_t header = sizeof(vector_block_header_s);

  static void SetUpTestSuite() {
    directory_ = new scratch_directory;
    disk_index_options options;
    options.probes = 2;
    options.labels = true;
    options.index_check = true;
    disk_index index(directory_->path(), "checked", options);
    const cloud data = make_clusters(points, dimension, 1);
    for (int i = 0; i < data.size(); ++i) korvex_add(index, data[i], 0);
    for (const std::uint32_t id : {7u, 8u, 9u}) korvex_delete(index, id, 0);
    const unsigned session = korvex_search_init(index, 10, nullptr);
    for (int query = 0; query < 5; ++query) {
      korvex_search(index, session, data[query], 50, 10);
      korvex_search_result(index, session, 0);
    }
    korvex_search_free(index, session);
  }
  static void TearDownTestSuite() {
    delete directory_;
    directory_ = nullptr;
  }
  void SetUp() override { record_ = verify_report_of().record; }

  static std::string folder() { return folder_of(directory_->path()); }
  static std::string path(const std::string& file) { return folder() + "/" + file; }
  static verify_report verify_report_of(const verify_options& options = {}) {
    return korvex_verify_directory(folder(), "checked", options);
  }

  // ---- places in the files ----

  struct place {
    std::string file;
    std::uint64_t offset;
  };
  static place in_index(std::uint64_t offset) { return {"checked.korvex", offset}; }
  static place in_block(std::uint64_t id, std::uint64_t offset) {
    const verify::mapped_file file(path("checked.korvex"));
    const std::byte* const block =
        verify::find_block({file.data(), file.size(), file.size()}, id, 1);
    return in_index(static_cast<std::uint64_t>(block - file.data()) + offset);
  }
  static place in_record(std::uint64_t offset) { return in_block(record_block_id, offset); }
  std::string store_file(std::uint8_t kind) const {
    return vector_block_file_name(store_files(record_, "checked", kind), 0);
  }
  // Records of these stores fill several blocks.
  place in_store(std::uint8_t kind, std::uint32_t id, std::uint64_t offset = 0) const {
    const vector_file_names_s names = store_files(record_, "checked", kind);
    return {vector_block_file_name(names, id / names.records_per_block),
            header + std::uint64_t{id % names.records_per_block} * names.record_size + offset};
  }
  place in_slot(std::uint32_t id, std::uint32_t position) const {
    return in_store(2, id, 4 + 4ull * position);
  }
  static place in_cache(std::uint32_t item, std::uint64_t offset) {
    const vector_file_names_s names = cache_files("checked");
    return {vector_block_file_name(names, 0),
            header + std::uint64_t{item} * names.record_size + offset};
  }
  static place in_bloom(std::uint32_t unit, std::uint64_t offset) {
    const std::uint32_t bytes = sbf_size(0, 0.001, 0.75, 0).unit_bytes;
    return {vector_block_file_name(bloom_files("checked", bytes), unit), header + offset};
  }
  // The first ring with stars of the first probe, and the first slot of its array.
  std::pair<std::uint32_t, std::uint32_t> first_ring() const {
    for (std::uint32_t ring = 0; ring < vector_hash_rings; ++ring) {
      const auto lid = get<std::uint32_t>(in_block(12, ring * 24 + 4));
      if (lid != 0) return {ring, lid};
    }
    ADD_FAILURE() << "no stars";
    return {};
  }
  static place in_ring(std::uint32_t ring, std::uint64_t offset) {
    return in_block(12, ring * 24 + offset);
  }
  place in_star(std::uint64_t offset) const { return in_store(7, first_ring().second, offset); }

  template <class T>
  static T get(const place& at) {
    T value{};
    std::ifstream file(path(at.file), std::ios::binary);
    file.seekg(static_cast<std::streamoff>(at.offset));
    file.read(reinterpret_cast<char*>(&value), sizeof value);
    return value;
  }

  // ---- damage ----

  struct change {
    place at;
    std::string bytes;
  };
  template <class T>
  static change put(place at, T value) {
    return {std::move(at), std::string(reinterpret_cast<const char*>(&value), sizeof value)};
  }
  // The bytes that stood there before.
  static std::string exchange(const change& made) {
    std::string before(made.bytes.size(), '\0');
    std::fstream file(path(made.at.file), std::ios::binary | std::ios::in | std::ios::out);
    file.seekg(static_cast<std::streamoff>(made.at.offset));
    file.read(before.data(), static_cast<std::streamsize>(before.size()));
    file.seekp(static_cast<std::streamoff>(made.at.offset));
    file.write(made.bytes.data(), static_cast<std::streamsize>(made.bytes.size()));
    EXPECT_TRUE(file.good()) << made.at.file << " " << made.at.offset;
    return before;
  }
  // Changes that last until the end of the scope.
  class damage {
   public:
    explicit damage(const std::vector<change>& changes) {
      for (const change& each : changes) undo_.push_back({each.at, exchange(each)});
    }
    ~damage() {
      for (auto each = undo_.rbegin(); each != undo_.rend(); ++each) exchange(*each);
    }
    damage(const damage&) = delete;
    damage& operator=(const damage&) = delete;

   private:
    std::vector<change> undo_;
  };

  static std::string told(const verify_report& report) {
    std::string text = report.reason;
    for (const verify_finding& finding : report.findings)
      text += "\n  " + std::to_string(static_cast<int>(finding.severity)) + " " + finding.check +
              ": " + finding.text;
    return text;
  }
  static void expect_finding(const verify_report& report, verify_severity severity,
                             const char* check, const std::string& part) {
    EXPECT_FALSE(report.clean());
    EXPECT_TRUE(std::any_of(report.findings.begin(), report.findings.end(),
                            [&](const verify_finding& finding) {
                              return finding.severity == severity && finding.check == check &&
                                     finding.text.find(part) != std::string::npos;
                            }))
        << "expected " << check << ": " << part << told(report);
  }

  static scratch_directory* directory_;
  hnsw_s record_{};
};
scratch_directory* Verify::directory_ = nullptr;

constexpr auto error = verify_severity::error;
constexpr auto warning = verify_severity::warning;
constexpr float not_a_number = std::numeric_limits<float>::quiet_NaN();

TEST_F(Verify, AnOrderlyIndexIsCleanAndCounted) {
  const auto written = fs::last_write_time(path("checked.korvex"));
  const verify_report report = verify_report_of();
  EXPECT_TRUE(report.clean() && report.findings.empty()) << told(report);
  const verify_statistics& counts = report.statistics;
  EXPECT_EQ(counts.points, points);
  EXPECT_EQ(counts.deleted, 3U);
  EXPECT_EQ(counts.live, points - 3);
  EXPECT_EQ(counts.unlinked, 0U);
  EXPECT_GT(counts.links, points * 2);
  EXPECT_LE(counts.most_links, capacity);
  EXPECT_GT(counts.stars, 10U);
  EXPECT_EQ(counts.cached_results, 10U) << "a result a query and probe";
  EXPECT_EQ(counts.bloom_items, points);
  EXPECT_EQ(report.record.dimension, 8U);
  const auto entries = static_cast<std::size_t>(
      std::distance(fs::directory_iterator(folder()), fs::directory_iterator()));
  EXPECT_EQ(report.files.size(), entries);
  for (const verify_file& file : report.files) {
    EXPECT_NE(file.content, "unknown");
    EXPECT_EQ(file.bytes, fs::file_size(path(file.name)));
    EXPECT_LE(file.allocated_bytes, file.bytes + (2U << 20)) << file.name;
  }
  EXPECT_EQ(fs::last_write_time(path("checked.korvex")), written);
}

TEST_F(Verify, TellsEveryDamage) {
  const auto ring = first_ring();
  const auto other_probe = std::uint32_t{101};  // 100 is of probe 0, 101 of probe 1
  const struct {
    verify_severity severity;
    const char* check;
    const char* part;
    change made;
  } rows[] = {
      {error, "index file", "magic of an index", put(in_index(0), 'X')},
      {error, "index file", "a file of another length", put(in_index(8), 12'345ull)},
      {error, "index file", "longer than the file", put(in_index(16), ~0ull)},
      {error, "index file", "no block begins there", put(in_index(8232 + 24), 0u)},
      {error, "index file", "its size does not fit", put(in_index(8232 + 32), 64ull)},
      {error, "index file", "comes back to", put(in_index(8232 + 16), 8232ull)},
      {error, "index file", "leads to 8248", put(in_index(40 + 8 * 77), 8248ull)},
      {error, "index file", "chain 77 leads to block 1 at", put(in_index(40 + 8 * 77), 8232ull)},
      {warning, "index file", "the header counts 3", put(in_index(24), 3ull)},
      {warning, "index file", "block 12 at", put(in_index(40 + 8 * 12), 0ull)},
      {error, "record", "there is none", put(in_index(40 + 8), 0ull)},
      {error, "record", "config_valid is 2", put(in_record(8), 2u)},
      {error, "record", "dimension is 0", put(in_record(28), 0u)},
      {error, "record", "distance_type is 9", put(in_record(144), 9u)},
      {error, "record", "shape_probes is 17", put(in_record(316), 17u)},
      {error, "record", "instance_id is 1", put(in_record(100), 1u)},
      {warning, "record", "threshold", put(in_record(140), not_a_number)},
      {error, "counters", "0 records of vectors, expected 301", put(in_record(28), 9u)},
      {error, "counters", "301 records of flags, expected 303", put(in_record(344), 302u)},
      {error, "counters", "300 points added, 299 taken", put(in_record(348), 299u)},
      {error, "seeds", "probe 1 begins at point 5000", put(in_record(432 + 24 + 8), 5000u)},
      {error, "seeds", "probe 0 has points and no seed", put(in_record(432 + 8), 0u)},
      {error, "blocks", "signature", put(place{store_file(3), 1}, 'X')},
      {error, "blocks", "does not fit block 0", put(place{store_file(3), 24}, 5u)},
      {warning, "blocks", "header size 64", put(place{store_file(3), 6}, std::uint16_t{64})},
      {warning, "blocks", "written for a file of 5 bytes", put(place{store_file(3), 8}, 5ull)},
      {warning, "counters", "block 0 of vectors holds 60", put(place{store_file(1), 28}, 60u)},
      {error, "graph", "point 100 is its own neighbour", put(in_slot(100, 0), 100u)},
      {error, "graph", "has neighbour 301, there are 300", put(in_slot(100, 0), 301u)},
      {error, "graph", "has neighbour 4294967295", put(in_slot(100, 0), ~0u)},
      {warning, "graph", "neighbour 101 of probe 1", put(in_slot(100, 0), other_probe)},
      {warning, "graph", "more than once",
       put(in_slot(100, 0), get<std::uint32_t>(in_slot(100, 1)))},
      {warning, "graph", "not finite", put(in_store(2, 100), not_a_number)},
      {warning, "links", "point 100 is live and linked to nothing", put(in_slot(100, 0), 0u)},
      {error, "flags", "flags 0x08", put(in_store(4, 100), std::uint8_t{0x08})},
      {error, "flags", "point 100 is locked", put(in_store(4, 100), std::uint8_t{0x80})},
      {error, "vectors", "its magnitude says", put(in_store(1, 100, 4), 1e6f)},
      {error, "vectors", "its magnitude says 0", put(in_store(3, 100), 0.0f)},
      {error, "vectors", "not finite", put(in_store(1, 100, 4), not_a_number)},
      {warning, "stars", "its anchor is point 77", put(in_block(10, 0), 77u)},
      {warning, "stars", "squared length 1e+06", put(in_block(11, 0), 1e3f)},
      {warning, "stars", "a block of its vector hash is missing", put(in_index(40 + 8 * 20), 0ull)},
      {warning, "stars", "belongs to anchor 77", put(in_ring(ring.first, 0), 77u)},
      {warning, "stars", "stars and no anchor", put(in_ring(ring.first, 0), 0u)},
      {error, "stars", "can begin at 4000000", put(in_ring(ring.first, 4), 4'000'000u)},
      {error, "stars", "a star is point 999, there are 300", put(in_star(0), 999u)},
      {warning, "stars", "star 101 is of probe 1", put(in_star(0), other_probe)},
      {error, "stars", "shares slot", put(in_star(4), ring.second)},
      {warning, "result cache", "count 300", put(in_cache(3, 48 + 4), std::uint16_t{300})},
      {warning, "result cache", "lock 1", put(in_cache(3, 48), std::uint16_t{1})},
      {warning, "result cache", "says that it is item 9", put(in_cache(3, 16), 9u)},
      {warning, "result cache", "more than once",
       put(in_cache(3, 0), get<std::uint64_t>(in_cache(4, 0)))},
      {warning, "result cache", "list of free items", put(in_cache(0, 8), 1u)},
      {warning, "Bloom filter", "base unit is damaged", put(in_bloom(0, 16 + 4), 0u)},
      {warning, "Bloom filter", "unit 1 is damaged", put(in_bloom(1, 0), 0u)},
      {warning, "Bloom filter", "the base unit counts 301", put(in_bloom(0, 12), points + 1)},
      {warning, "Bloom filter", "unit 1 says that it is unit 5", put(in_bloom(1, 8), 5u)},
  };
  for (const auto& row : rows) {
    const damage done({row.made});
    expect_finding(verify_report_of(), row.severity, row.check, row.part);
  }
  EXPECT_TRUE(verify_report_of().findings.empty()) << "all was put back";
}

TEST_F(Verify, WhatTheNextOpeningMendsIsAWarning) {
  const change unclean = put(in_record(328), 0u);
  const struct {
    const char* check;
    const char* part;
    change made;
  } rows[] = {
      {"counters", "300 points added, 301 taken", put(in_record(348), 301u)},
      {"counters", "records of flags, expected 303", put(in_record(344), 302u)},
      {"links", "point 100 is not linked", put(in_slot(100, 0), 0u)},
      {"flags", "point 100 is locked", put(in_store(4, 100), std::uint8_t{0x80})},
      {"seeds", "probe 0 has points and no seed", put(in_record(432 + 8), 0u)},
  };
  {
    const damage done({unclean});
    EXPECT_TRUE(verify_report_of().clean()) << "work left undone is no damage";
    EXPECT_EQ(verify_report_of().notes, 1U);
  }
  for (const auto& row : rows) {
    const damage done({unclean, row.made});
    const verify_report report = verify_report_of();
    expect_finding(report, warning, row.check, row.part);
    EXPECT_EQ(report.errors, 0U) << told(report);
  }
  const damage done(
      {put(in_store(4, 50), std::uint8_t{0xFF}), put(in_store(4, 51), std::uint8_t{0xFF})});
  EXPECT_EQ(verify_report_of().statistics.duplicates, 2U);
}

TEST_F(Verify, MissesAPartOfTheGraphThatNoLinkLeadsTo) {
  std::vector<change> cut;
  for (std::uint32_t ring = 0; ring < vector_hash_rings; ++ring)
    cut.push_back(put(in_ring(ring, 4), 0u));
  cut.push_back(put(in_slot(get<std::uint32_t>(in_record(432 + 8)), 0), 0u));
  const damage done(cut);
  const verify_report report = verify_report_of();
  expect_finding(report, warning, "reach", "probe 0: no link leads to 14");
  EXPECT_GE(report.statistics.unreachable, 140U);
}

TEST_F(Verify, TellsFilesThatAreNotWhatTheyShouldBe) {
  const struct {
    const char* what;
    std::string file;
    std::function<void(const std::string& file)> replace;
    verify_severity severity;
    const char* check;
    const char* part;
  } rows[] = {
      {"missing", store_file(4), [](const std::string&) {}, error, "counters",
       "0 records of flags"},
      {"a directory", store_file(4), [](const std::string& file) { fs::create_directory(file); },
       error, "blocks", "not a file that can be read"},
      {"empty", store_file(4), [](const std::string& file) { std::ofstream{file}; }, error,
       "blocks", "not a file that can be read"},
      {"cut", store_file(4), [](const std::string& file) { std::ofstream(file) << "abc"; }, error,
       "blocks", "3 bytes, a block has"},
      {"a block between others", in_store(1, 100).file, [](const std::string&) {}, warning,
       "blocks", "no store of this index reads it"},
      {"a hash table", in_cache(0, 0).file,
       [](const std::string& file) { std::ofstream(file) << "x"; }, error, "blocks", "1 bytes"},
  };
  for (const auto& row : rows) {
    const std::string aside = directory_->path() + "/aside";
    fs::rename(path(row.file), aside);
    row.replace(path(row.file));
    SCOPED_TRACE(row.what);
    expect_finding(verify_report_of(), row.severity, row.check, row.part);
    fs::remove_all(path(row.file));
    fs::rename(aside, path(row.file));
  }
}

TEST_F(Verify, ACompactionThatWasCutOffIsLookedThrough) {
  const auto used = get<std::uint64_t>(in_index(16));
  std::string saved(used, '\0');
  std::ifstream(path("checked.korvex"), std::ios::binary)
      .read(saved.data(), static_cast<std::streamsize>(used));
  const std::uint64_t digest = XXH64(saved.data(), saved.size(), 0);
  const std::string copy = path("checked.korvex.compact");
  std::ofstream(copy, std::ios::binary) << saved.substr(0, used / 2);
  EXPECT_TRUE(verify_report_of().clean()) << "it had not begun";
  std::ofstream(copy, std::ios::binary)
      << saved << std::string(reinterpret_cast<const char*>(&digest), sizeof digest);
  {
    const damage mixture({put(in_index(8232 + 24), 0u)});
    const verify_report report = verify_report_of();
    expect_finding(report, warning, "index file", "a compaction was cut off");
    EXPECT_EQ(report.errors, 0U) << told(report);
    EXPECT_EQ(report.statistics.points, points);
  }
  fs::remove(copy);
}

TEST_F(Verify, FindsTheIndexOrSaysWhatThereIs) {
  const std::string base = directory_->path();
  const struct {
    std::string directory, name;
    verify_outcome outcome;
    std::string reason;
  } rows[] = {
      {base, "", verify_outcome::checked, ""},
      {base + "/nimbra-korvex/", "", verify_outcome::checked, ""},
      {base, "checked", verify_outcome::checked, ""},
      {base, "other", verify_outcome::not_found, "there is: checked"},
      {base + "/none", "", verify_outcome::not_found, "no such directory"},
      {path("checked.korvex"), "", verify_outcome::checked, ""},
  };
  for (const auto& row : rows) {
    const verify_report report = korvex_verify_directory(row.directory, row.name);
    EXPECT_EQ(report.outcome, row.outcome) << row.directory << told(report);
    EXPECT_NE(report.reason.find(row.reason), std::string::npos) << report.reason;
  }
  // Another index beside it: neither counts the other's files, and a name is needed.
  const std::string second = path("checked-labels.korvex");
  { const disk_index other(base, "checked-labels", {}); }
  EXPECT_TRUE(verify_report_of().findings.empty()) << told(verify_report_of());
  const verify_report unnamed = korvex_verify_directory(base, "");
  EXPECT_EQ(unnamed.outcome, verify_outcome::not_found);
  EXPECT_NE(unnamed.reason.find("say which: checked-labels checked"), std::string::npos);
  const verify_report fresh = korvex_verify_directory(base, "checked-labels");
  EXPECT_TRUE(fresh.clean() && fresh.notes == 1) << told(fresh);
  fs::remove(second);
}

TEST(VerifyInUse, AnOpenIndexIsLeftAloneUnlessForced) {
  const scratch_directory directory;
  const cloud data = make_clusters(50, 8, 3);
  disk_index index(directory.path(), "open", {});
  for (int i = 0; i < data.size(); ++i) korvex_add(index, data[i], 0);
  const verify_report refused = korvex_verify_directory(directory.path(), "open");
  EXPECT_EQ(refused.outcome, verify_outcome::in_use);
  EXPECT_NE(refused.reason.find("is in use"), std::string::npos);
  verify_options force;
  force.force = true;
  const verify_report forced = korvex_verify_directory(directory.path(), "open", force);
  EXPECT_EQ(forced.outcome, verify_outcome::checked);
  EXPECT_EQ(forced.statistics.points, 50U);
  EXPECT_EQ(forced.errors, 0U);
}

// Whatever stands in the files, the check ends and touches nothing that it may not.
TEST_F(Verify, AnyBytesAreSurvived) {
  std::mt19937 random(std::random_device{}());
  const unsigned number = random();
  SCOPED_TRACE("seed " + std::to_string(number));
  random.seed(number);
  const std::uint64_t used = get<std::uint64_t>(in_index(16));
  const struct {
    std::string file;
    std::uint64_t bytes;
  } targets[] = {{"checked.korvex", used},        {in_store(1, 0).file, 2048},
                 {in_store(2, 0).file, 4096},     {store_file(4), 400},
                 {store_file(7), 20'000},         {in_cache(0, 0).file, 10'000},
                 {in_bloom(0, 0).file, 128 + 40}, {in_bloom(1, 0).file, 128 + 40}};
  const std::uint32_t words[] = {0, 1, 2, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF, points, 8232};
  for (int round = 0; round < (sanitized ? 150 : 600); ++round) {
    std::vector<change> changes;
    for (unsigned i = 0; i < 1 + random() % 6; ++i) {
      const auto& target = targets[random() % std::size(targets)];
      const std::uint64_t at = random() % (target.bytes / 4) * 4;
      const std::uint32_t word = random() % 2 == 0 ? words[random() % std::size(words)] : random();
      changes.push_back(put(place{target.file, at}, word));
    }
    const damage done(changes);
    verify_report_of();
  }
  EXPECT_TRUE(verify_report_of().findings.empty()) << "all was put back";
}

}  // namespace
}  // namespace korvex::test
