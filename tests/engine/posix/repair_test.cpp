#include "engine/repair.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "engine/disk_fixture.h"
#include "engine/points.h"
#include "engine/startup.h"
#include "engine/store_layout.h"
#include "engine/sync.h"
#include "engine/verify.h"
#include "runtime/platform/faults.h"
#include "search/session.h"
#include "storage/vector_hash.h"

namespace korvex::test {
namespace {

namespace fs = std::filesystem;

constexpr std::uint32_t points = 200;
constexpr int dimension = 8;
constexpr int probes = 2;

disk_index_options shape() {
  disk_index_options options;
  options.probes = probes;
  options.labels = true;
  return options;
}

std::string told(const verify_report& report) {
  std::string text = report.reason;
  for (const verify_finding& finding : report.findings)
    if (finding.severity != verify_severity::note)
      text += "\n  " + finding.check + ": " + finding.text;
  return text;
}

// The first file of a store: without it the others are not read.
fs::path store_file(const hnsw_s& record, const std::string& base, std::uint8_t kind) {
  return fs::path(folder_of(base)) / vector_block_file_name(store_files(record, "killed", kind), 0);
}

// What a kill leaves of an open index: its files as they stand in the page cache.
class Repair : public testing::Test {
 protected:
  Repair() : data_(make_clusters(static_cast<int>(points) + 1, dimension, 5)) {}

  // Makes an index, lets `harm` change it, and takes its files at that moment.
  void kill_after(const std::function<void(hnsw_s*)>& harm) {
    const scratch_directory directory;
    disk_index index(directory.path(), "killed", shape());
    for (std::uint32_t row = 0; row < points; ++row)
      korvex_add(index, data_[static_cast<int>(row)], 0);
    harm(index);
    const hnsw_s* const record = index;
    record_ = *record;
    fs::remove_all(killed_.path());
    // Not fs::copy, which fills holes: index files are long and mostly empty.
    ASSERT_EQ(std::system(("cp -r " + directory.path() + " " + killed_.path()).c_str()), 0);
  }

  struct result {
    std::uint32_t added = 0;
    std::uint32_t relinked = 0;
    std::vector<std::uint32_t> hidden;  // public ids
    std::vector<std::uint32_t> lost;    // rows that a query for themselves does not find
    std::uint32_t next = 0;             // the id of the next addition
  };

  // Opens it, looks for every row, adds one more, and expects nothing wrong in the end.
  result reopen() {
    result seen;
    {
      disk_index index(killed_.path(), "killed", shape());
      const std::uint32_t session = korvex_search_init(index, 1, nullptr);
      hnsw_s* const record = index;
      seen.relinked = record->added - record->networked;
      korvex_wait_finish_adding(index);
      for (std::uint32_t row = 0; row < points; ++row)
        if (!finds(index, session, row)) seen.lost.push_back(row);
      seen.added = record->added;
      for (std::uint32_t id = 1; id <= seen.added; ++id)
        if (korvex_is_flag_set_internal(index, id, flags_hidden) != 0)
          seen.hidden.push_back(id - 1);
      // What was lost cannot be undeleted.
      for (const std::uint32_t id : seen.hidden) {
        EXPECT_EQ(korvex_delete(index, id, 1), -1);
        korvex_set_label(index, id, 7);
        EXPECT_EQ(korvex_is_flag_set_internal(index, id + 1, flag_deleted), 1);
      }
      seen.next = korvex_add(index, data_[static_cast<int>(points)], 0);
      EXPECT_TRUE(finds(index, session, points));
      korvex_search_free(index, session);
    }
    const verify_report report = korvex_verify_directory(folder_of(killed_.path()), "killed");
    EXPECT_TRUE(report.clean()) << told(report);
    EXPECT_EQ(report.statistics.unreachable, 0U);
    return seen;
  }

  bool finds(hnsw_s* index, std::uint32_t session, std::uint32_t row) {
    EXPECT_EQ(korvex_search(index, session, data_[static_cast<int>(row)], 100, 1), 0U);
    const korvex_results_s* const results = korvex_search_result(index, session, 0);
    return results != nullptr && results->count == 1 && results->distances[0] < 1e-6f;
  }

  const cloud data_;
  const scratch_directory killed_;
  hnsw_s record_{};  // of the killed index
};

void allocate(hnsw_s* index, std::initializer_list<store_index> stores) {
  for (const store_index store : stores) {
    unsigned id = 0;
    index->runtime->store[store]->alloc(&id, 1);
    EXPECT_EQ(id, points + 1);
  }
}

constexpr std::initializer_list<store_index> all_stores = {
    vector_store, graph_store, magnitude_store, flags_store, label_store};

TEST_F(Repair, AnAdditionThatDidNotReturnIsWholeOrHidden) {
  const float* const vector = data_[static_cast<int>(points)];
  const auto write = [&](hnsw_s* index, std::size_t components) {
    std::memcpy(record_of(*index->runtime, vector_store, points + 1), vector,
                components * sizeof(float));
  };
  const auto write_length = [&](hnsw_s* index) {
    double square = 0;
    for (int i = 0; i < dimension; ++i) square += static_cast<double>(vector[i] * vector[i]);
    *static_cast<float*>(record_of(*index->runtime, magnitude_store, points + 1)) =
        static_cast<float>(std::sqrt(square));
  };
  const struct {
    const char* what;
    std::function<void(hnsw_s*)> done;
    bool whole;
  } rows[] = {
      {"an id", [&](hnsw_s* index) { allocate(index, {vector_store}); }, false},
      {"some records",
       [&](hnsw_s* index) {
         allocate(index, {vector_store, graph_store, magnitude_store});
       },
       false},
      {"half a vector",
       [&](hnsw_s* index) {
         allocate(index, all_stores);
         write(index, dimension / 2);
       },
       false},
      {"a vector",
       [&](hnsw_s* index) {
         allocate(index, all_stores);
         write(index, dimension);
       },
       false},
      {"half a vector and its length",
       [&](hnsw_s* index) {
         allocate(index, all_stores);
         write(index, dimension / 2);
         write_length(index);
       },
       false},
      {"all but the publication",
       [&](hnsw_s* index) {
         allocate(index, all_stores);
         write(index, dimension);
         write_length(index);
       },
       true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    kill_after(row.done);
    const result seen = reopen();
    EXPECT_TRUE(seen.lost.empty());
    EXPECT_EQ(seen.added, points + 1);
    EXPECT_EQ(seen.hidden.size(), row.whole ? 0U : 1U);
    EXPECT_EQ(seen.relinked, row.whole ? 1U : 0U) << "what is hidden is never linked";
    EXPECT_EQ(seen.next, points + 1) << "ids go on behind it";
  }
}

TEST_F(Repair, AVectorOfZerosIsWhole) {
  const std::vector<float> zeros(dimension);
  kill_after([&](hnsw_s* index) { korvex_add(index, zeros.data(), 0); });
  const result seen = reopen();
  EXPECT_TRUE(seen.hidden.empty() && seen.lost.empty());
}

TEST_F(Repair, ListsKeepWhatBelongsThere) {
  constexpr std::uint32_t point = 100;
  const auto set = [](hnsw_s* index, std::initializer_list<std::uint32_t> list) {
    graph_record graph = graph_of(*index->runtime, point);
    std::uint32_t slot = 0;
    for (const std::uint32_t id : list) graph.set_slot(slot++, id);
    graph.set_slot(slot, 0);
  };
  const struct {
    const char* what;
    std::function<void(hnsw_s*)> harm;
  } rows[] = {
      {"a neighbour twice",
       [&](hnsw_s* index) {
         set(index, {98, 96, 96, 94});
       }},
      {"itself",
       [&](hnsw_s* index) {
         set(index, {98, point, 94});
       }},
      {"ids of nothing",
       [&](hnsw_s* index) {
         set(index, {98, points + 1, 0xFFFFFFFF, 94});
       }},
      {"another probe",
       [&](hnsw_s* index) {
         set(index, {98, 97, 94});
       }},
      {"nothing but faults",
       [&](hnsw_s* index) {
         set(index, {point, point, 4'000'000'000});
       }},
      {"a lock", [&](hnsw_s* index) { set_flags(*index->runtime, point, flag_link_lock); }},
      {"a key that is none",
       [&](hnsw_s* index) { graph_of(*index->runtime, point).set_worst(NAN); }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    kill_after(row.harm);
    const result seen = reopen();
    EXPECT_TRUE(seen.lost.empty() && seen.hidden.empty());
    EXPECT_EQ(seen.added, points);
  }
}

// No list names the points any more: linking takes them up again.
TEST_F(Repair, PointsThatNoLinkLeadsToAreLinkedAnew) {
  kill_after([&](hnsw_s* index) {
    for (std::uint32_t id = 1; id <= points; ++id) {
      graph_record graph = graph_of(*index->runtime, id);
      std::uint32_t kept = 0;
      for (std::uint32_t slot = 0; slot < index->runtime->neighbour_count; ++slot) {
        const std::uint32_t neighbour = graph.slot(slot);
        if (neighbour == 0) break;
        if (neighbour % 10 > 1) graph.set_slot(kept++, neighbour);
      }
      if (kept < index->runtime->neighbour_count) graph.set_slot(kept, 0);
    }
  });
  const result seen = reopen();
  EXPECT_TRUE(seen.lost.empty());
  EXPECT_GE(seen.relinked, points / 5 - probes);
}

TEST_F(Repair, SeedsAndStarsAreMended) {
  const auto first_array = [](hnsw_s* index) {
    for (vector_hash_link_s* ring = index->runtime->hash[0]->rings;; ++ring)
      if (ring->lid != 0) return ring;
  };
  const auto star_at = [](hnsw_s* index, std::uint32_t slot) {
    return static_cast<vector_hash_star_s*>(index->runtime->star_pool->get(slot));
  };
  const struct {
    const char* what;
    std::function<void(hnsw_s*)> harm;
  } rows[] = {
      {"no seed", [](hnsw_s* index) { index->probes[1].seed = 0; }},
      {"a seed of nothing", [](hnsw_s* index) { index->probes[1].seed = 7'000; }},
      {"an anchor of nothing", [](hnsw_s* index) { index->runtime->hash[0]->ep_id = 7'000; }},
      {"an anchor that is not the seed's",
       [](hnsw_s* index) { std::fill_n(index->runtime->hash[1]->anchor, dimension, 0.0f); }},
      {"an array of nothing", [&](hnsw_s* index) { first_array(index)->lid = 1'000'000; }},
      {"an array twice",
       [&](hnsw_s* index) {
         star_at(index, first_array(index)->lid)->lid = first_array(index)->lid;
       }},
      {"a star of nothing",
       [&](hnsw_s* index) { star_at(index, first_array(index)->lid)->id = 5'000; }},
      {"a star of another probe",
       [&](hnsw_s* index) { star_at(index, first_array(index)->lid)->id = 101; }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    kill_after(row.harm);
    const result seen = reopen();
    EXPECT_TRUE(seen.lost.empty() && seen.hidden.empty());
    EXPECT_EQ(seen.relinked, 0U);
  }
}

// A power cut may bring a block back with an older header than the blocks behind it.
TEST_F(Repair, BlocksThatOthersFollowAreFull) {
  kill_after([](hnsw_s* index) {
    for (const store_index store : {graph_store, flags_store, label_store}) {
      const vector_block_s& first = index->runtime->store[store]->manager()->blocks.load()[0];
      auto* const header = reinterpret_cast<vector_block_header_s*>(first.data);
      ASSERT_GT(header->records_used, 30U);
      header->records_used -= 30;
    }
  });
  // And files of blocks that nothing was written to.
  for (const std::uint32_t block : {4u, 9u})
    std::ofstream(fs::path(folder_of(killed_.path())) /
                  vector_block_file_name(store_files(record_, "killed", 3), block))
        << std::string(1000, '\0');
  {
    const disk_index full(killed_.path(), "killed", shape());
    const log_capture log;
    platform::current_fault_hook = [](platform::fault_point point) {
      return point == platform::fault_point::reserve;
    };
    EXPECT_FALSE(korvex_try_init_memory(full));
    platform::current_fault_hook = nullptr;
    EXPECT_EQ(log_capture::count("no room to repair the records of a store"), 1);
  }
  const result seen = reopen();
  EXPECT_TRUE(seen.lost.empty() && seen.hidden.empty());
  EXPECT_EQ(seen.added, points);
}

// As long as the vectors are there, everything else can be made again.
TEST_F(Repair, AFileThatWasLostIsMadeAnew) {
  const struct {
    const char* what;
    std::function<fs::path()> file;
  } rows[] = {
      {"graph", [&] { return store_file(record_, killed_.path(), 2); }},
      {"magnitudes", [&] { return store_file(record_, killed_.path(), 3); }},
      {"flags", [&] { return store_file(record_, killed_.path(), 4); }},
      {"stars", [&] { return store_file(record_, killed_.path(), 7); }},
      {"index", [&] { return fs::path(folder_of(killed_.path())) / "killed.korvex"; }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    kill_after([](hnsw_s* index) { EXPECT_EQ(korvex_sync_to_disk(index, 0), 0); });
    ASSERT_TRUE(fs::remove(row.file()));
    const result seen = reopen();
    EXPECT_TRUE(seen.lost.empty() && seen.hidden.empty());
    EXPECT_EQ(seen.added, points);
  }
}

// The counters vouch for nothing else once the device may hold changes that they do not know.
TEST_F(Repair, TheFirstChangeIsAnnouncedToTheDevice) {
  const scratch_directory directory;
  {
    disk_index index(directory.path(), "killed", shape());
    korvex_add(index, data_[0], 0);
  }
  const auto clean = [&] {
    return korvex_verify_directory(folder_of(directory.path()), "killed", {.force = true})
        .record.clean_close;
  };
  EXPECT_EQ(clean(), 1U);
  static int flushes = 0;
  disk_index index(directory.path(), "killed", shape());
  korvex_search_init(index, 1, nullptr);
  EXPECT_EQ(clean(), 1U) << "nothing has changed yet";
  flushes = 0;
  platform::current_flush_hook = [](int fd, const void*, std::uint64_t) {
    if (fd >= 0) ++flushes;
  };
  korvex_add(index, data_[1], 0);
  const int of_first = flushes;
  korvex_add(index, data_[2], 0);
  platform::current_flush_hook = nullptr;
  EXPECT_EQ(of_first, 1);
  EXPECT_EQ(flushes, 1);
  EXPECT_EQ(clean(), 0U);
}

}  // namespace
}  // namespace korvex::test
