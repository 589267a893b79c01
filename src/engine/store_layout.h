#ifndef KORVEX_ENGINE_STORE_LAYOUT_H
#define KORVEX_ENGINE_STORE_LAYOUT_H

#include <cstdint>
#include <string>

#include "engine/record.h"
#include "storage/vector_store_format.h"

// Which files an index keeps beside its index file, as its record tells. Reaches disk: kinds and
// sizes are part of file names.
namespace korvex {

inline constexpr const char* index_extension = "korvex";
inline constexpr std::uint8_t star_store_kind = 7;
inline constexpr std::uint8_t cache_store_kind = 8;
inline constexpr std::uint8_t bloom_store_kind = 9;

// Ids of blocks in the index file.
inline constexpr std::uint64_t record_block_id = 1;
constexpr std::uint64_t hash_block_id(std::uint32_t probe) {
  return 10ull * (probe + 1);  // the hash; + 1 its anchor, + 2 its rings
}

// Slots of a graph record: four at least, they carry the hand-over until the point is linked.
constexpr std::uint64_t graph_slots(std::uint64_t neighbour_capacity) {
  return neighbour_capacity < 4 ? 4 : neighbour_capacity;
}
// What the narrowest star array of an index holds.
constexpr std::uint32_t star_width(std::uint32_t probes) {
  return 32 / probes < 4 ? 4 : 32 / probes;
}

// What the names of a store's block files begin with. Different for any two stores of any two indexes that could else
// share a file: stores of labels and attributes have a prefix of their own, and an index whose name could be taken for
// such a prefix gets one character more.
std::string store_prefix(const std::string& name, std::uint8_t kind);

// How the stores of points are made; kinds 1 to 6.
struct store_plan {
  std::uint64_t record_bytes;
  std::uint64_t block_bytes;
  unsigned alignment;  // of blocks in memory
};
store_plan plan_store(const hnsw_s& record, std::uint8_t kind);

// The stores by their kind, 1 to 7. Requires the shape, a dimension and probes.
bool has_store(const hnsw_s& record, std::uint8_t kind);
vector_file_names_s store_files(const hnsw_s& record, const std::string& name, std::uint8_t kind);
vector_file_names_s cache_files(const std::string& name);
vector_file_names_s bloom_files(const std::string& name, std::uint32_t unit_bytes);

// What a store holds, for a reader's eyes.
const char* store_title(std::uint8_t kind);

}  // namespace korvex

#endif  // KORVEX_ENGINE_STORE_LAYOUT_H
