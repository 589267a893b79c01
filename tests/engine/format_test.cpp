#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <string>

#include "engine/configuration.h"
#include "engine/disk_fixture.h"
#include "engine/points.h"
#include "engine/record.h"
#include "engine/store_layout.h"
#include "storage/persistent_allocator_format.h"
#include "storage/vector_hash.h"

// The bytes of a small index on disk, as docs/format.md tells them.
namespace korvex::test {
namespace {

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
#define FIELD(name) #name, offsetof(hnsw_fields, name), sizeof(hnsw_fields::name)

TEST(RecordFormat, NoFieldOfTheRecordMoves) {
  const struct {
    const char* name;
    std::size_t at, bytes, want_at, want_bytes;
  } fields[] = {
      {FIELD(memory_manager), 0, 8},
      {FIELD(config_valid), 8, 4},
      {FIELD(memory_initialised), 12, 4},
      {FIELD(vector_bytes), 16, 4},
      {FIELD(element_bytes), 20, 4},
      {FIELD(id_bytes), 24, 4},
      {FIELD(dimension), 28, 4},
      {FIELD(validate_parameters), 32, 4},
      {FIELD(pattern_probes), 36, 4},
      {FIELD(labels_enabled), 40, 4},
      {FIELD(attributes_enabled), 44, 4},
      {FIELD(allocation_units), 48, 4},
      {FIELD(huge_pages), 52, 4},
      {FIELD(allocation_units_flag), 56, 4},
      {FIELD(numa_node), 60, 4},
      {FIELD(on_disk), 64, 4},
      {FIELD(directory), 72, 8},
      {FIELD(name), 80, 8},
      {FIELD(disk_cache_size), 88, 8},
      {FIELD(constant8), 96, 4},
      {FIELD(instance_id), 100, 4},
      {FIELD(indexing_threads), 104, 4},
      {FIELD(search_threads), 108, 4},
      {FIELD(search_queue_limit), 112, 4},
      {FIELD(counter25), 116, 4},
      {FIELD(neighbour_capacity), 120, 4},
      {FIELD(radius), 124, 4},
      {FIELD(normalize), 128, 4},
      {FIELD(duplicate_mode), 132, 4},
      {FIELD(duplicate_option), 136, 4},
      {FIELD(duplicate_threshold), 140, 4},
      {FIELD(distance_type), 144, 4},
      {FIELD(distance_range), 148, 8},
      {FIELD(distance), 160, 8},
      {FIELD(distance_function), 168, 8},
      {FIELD(stop_searching), 176, 4},
      {FIELD(stop_indexing), 180, 4},
      {FIELD(destroy_on_delete), 184, 4},
      {FIELD(bloom), 192, 8},
      {FIELD(max_search_count), 200, 4},
      {FIELD(nid), 204, 4},
      {FIELD(memory_usage), 208, 64},
      {FIELD(parallel_search_jobs), 272, 4},
      {FIELD(search_pool), 280, 8},
      {FIELD(search_queue), 288, 8},
      {FIELD(log_handle), 296, 4},
      {FIELD(log_enabled), 300, 4},
      {FIELD(shape_valid), 304, 4},
      {FIELD(shape_units), 308, 4},
      {FIELD(shape_capacity), 312, 4},
      {FIELD(shape_probes), 316, 4},
      {FIELD(shape_labels), 320, 4},
      {FIELD(shape_attributes), 324, 4},
      {FIELD(clean_close), 328, 4},
      {FIELD(index_check), 332, 4},
      {FIELD(identity), 336, 8},
      {FIELD(added), 344, 4},
      {FIELD(taken), 348, 4},
      {FIELD(networked), 352, 4},
      {FIELD(duplicates), 356, 4},
      {FIELD(max_seed), 360, 4},
      {FIELD(probes_made), 364, 4},
      {FIELD(norm_probing), 368, 4},
      {FIELD(expand_setting), 372, 4},
      {FIELD(probe_step), 376, 4},
      {FIELD(search_serial), 380, 4},
      {FIELD(linked_distance_sum), 384, 8},
      {FIELD(probe_slots), 392, 40},
      {FIELD(probes), 432, 384},
      {FIELD(runtime), 816, 8},
      {FIELD(thread_slots), 824, 32},
      {FIELD(durable), 856, 4},
  };
  for (const auto& field : fields) {
    EXPECT_EQ(field.at, field.want_at) << field.name;
    EXPECT_EQ(field.bytes, field.want_bytes) << field.name;
  }
  EXPECT_EQ(offsetof(probe_s, seed), 8U);
  EXPECT_EQ(offsetof(probe_s, count), 12U);
  EXPECT_EQ(offsetof(probe_s, ring), 16U);
}

#undef FIELD
#pragma GCC diagnostic pop

template <class... Words>
std::string bytes_of(Words... words) {
  std::string bytes;
  const auto add = [&bytes](auto word) {
    bytes.append(reinterpret_cast<const char*>(&word), sizeof word);
  };
  (add(words), ...);
  return bytes;
}

// (3, 4) and the same turned by a quarter three times: each has length 5 and stands 50 from two
// others, 100 from the third.
class IndexFormat : public testing::Test {
 protected:
  void SetUp() override {
    disk_index_options options;
    options.dimension = 2;
    options.constellation = 2;
    options.units = 16;
    options.labels = true;
    disk_index index(directory_.path(), "small", options);
    const float points[4][2] = {{3, 4}, {4, -3}, {-3, -4}, {-4, 3}};
    for (std::uint32_t i = 0; i < 4; ++i) {
      korvex_add(index, points[i], 0);
      korvex_set_label(index, i, 0x1000 + i);
    }
    korvex_delete(index, 3, 0);
  }

  // The beginning of a file.
  std::string file(const std::string& name) const {
    std::ifstream stream(folder_of(directory_.path()) + "/" + name, std::ios::binary);
    std::string bytes(1 << 16, '\0');
    stream.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    bytes.resize(static_cast<std::size_t>(stream.gcount()));
    return bytes;
  }
  // The caller's bytes of a block of the index file: blocks follow one another.
  std::string block(std::uint64_t id) const {
    const std::string bytes = file("small.korvex");
    persistent_header_s header;
    std::memcpy(&header, bytes.data(), sizeof header);
    persistent_block_s head;
    for (std::uint64_t at = sizeof header; at < header.used_size; at += head.block_size) {
      std::memcpy(&head, bytes.data() + at, sizeof head);
      if (head.id == id) return bytes.substr(at + sizeof head, head.requested_size);
    }
    return {};
  }

  scratch_directory directory_;
};

TEST_F(IndexFormat, RecordsOfTheStores) {
  using u32 = std::uint32_t;
  using u64 = std::uint64_t;
  const u32 seed = 0xFFFFFFFF;  // left in the seed's fourth slot, behind the end of its list
  const struct {
    const char* name;
    std::uint32_t skipped;  // record 0 holds a random direction in the store of vectors
    std::string records;
  } rows[] = {
      {"small-bws0ljnv-cs0ljnf.korvex", 8, bytes_of(3.f, 4.f, 4.f, -3.f, -3.f, -4.f, -4.f, 3.f)},
      {"small-cgs0ljnv-os0ljnf.korvex", 0,
       bytes_of(0.f, 0u, 0u, 0u, 0u,             //
                50.f, u32{4}, u32{2}, 0u, seed,  //
                50.f, u32{3}, u32{1}, 0u, 0u,    //
                50.f, u32{4}, u32{2}, 0u, 0u,    //
                50.f, u32{3}, u32{1}, 0u, 0u)},
      {"small-gs0ljnv-ks0ljnf.korvex", 0, bytes_of(0.f, 5.f, 5.f, 5.f, 5.f)},
      {"small-cs0ljff-gs0ljnf.korvex", 0, std::string("\0\0\0\0\2", 5)},
      {"small-labels-bws0ljnv-cs0ljnf.korvex", 0,
       bytes_of(u64{0}, u64{0x1000}, u64{0x1001}, u64{0x1002}, u64{0x1003})},
      // A slot that is never used, an array of 8 slots for ring 20, one for ring 39.
      {"small-bws01jnf-ks0ljnf.korvex", 0,
       bytes_of(u64{0}, u64{2}, u64{4}) + std::string(6 * 8, '\0') + bytes_of(u64{3}, u64{0})},
  };
  for (const auto& row : rows) {
    const std::string bytes = file(row.name);
    ASSERT_GE(bytes.size(), 128 + row.skipped + row.records.size()) << row.name;
    EXPECT_EQ(bytes.substr(128 + row.skipped, row.records.size()), row.records) << row.name;
  }
}

TEST_F(IndexFormat, NothingOfTheProcessStaysInTheRecord) {
  const std::string record = block(record_block_id);
  ASSERT_EQ(record.size(), sizeof(hnsw_s));
  const struct {
    std::size_t at, bytes;
  } rows[] = {{0, 8},   {12, 4},   {72, 16},  {160, 16}, {176, 12},
              {192, 8}, {208, 64}, {280, 16}, {816, 40}, {860, 1196}};
  for (const auto& row : rows)
    EXPECT_EQ(record.substr(row.at, row.bytes), std::string(row.bytes, '\0')) << row.at;
  EXPECT_EQ(record.substr(296, 4), bytes_of(-1));
  EXPECT_EQ(record.substr(856, 4), bytes_of(4u)) << "all points are on the device";
}

TEST_F(IndexFormat, BlocksOfTheVectorHash) {
  const std::string record = block(10);
  ASSERT_EQ(record.size(), 104U);
  EXPECT_EQ(record.substr(0, 4), bytes_of(1u)) << "the anchor's id";
  EXPECT_EQ(record.substr(32, 8), bytes_of(2, 2)) << "dimension, length of the anchor";
  EXPECT_EQ(record.substr(56, 14), bytes_of(128u, 32u, 64u, std::uint16_t{40})) << "widths, rings";
  EXPECT_EQ(record.substr(88, 8), bytes_of(2, 3)) << "star arrays, stars";
  EXPECT_EQ(block(11), bytes_of(0.6f, 0.8f));

  const std::string rings = block(12);
  ASSERT_EQ(rings.size(), 40 * 24U);
  const float smallest = 1.17549435e-38f;  // of a ring that no point came to
  const float largest = 3.40282347e+38f;
  for (int ring = 0; ring < 40; ++ring) {
    const float radius = static_cast<float>(ring) * 0.1f;
    std::string want = bytes_of(0u, 0u, radius, 0u, smallest, largest);
    if (ring == 20) want = bytes_of(1u, 1u, radius, 2u, 5.f, 5.f);
    if (ring == 39) want = bytes_of(1u, 9u, radius, 1u, 5.f, 5.f);
    EXPECT_EQ(rings.substr(static_cast<std::size_t>(ring) * 24, 24), want) << ring;
  }
}

}  // namespace
}  // namespace korvex::test
