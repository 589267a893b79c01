#include "engine/store_layout.h"

#include <iterator>

#include "search/result_cache.h"
#include "storage/hash_table.h"
#include "storage/vector_hash.h"

namespace korvex {

namespace {

constexpr std::uint8_t label_kind = 5;
constexpr std::uint8_t attribute_kind = 6;
constexpr const char* label_ending = "-labels";
constexpr const char* attribute_ending = "-attributes";

}  // namespace

store_plan plan_store(const hnsw_s& record, std::uint8_t kind) {
  const std::uint64_t units = record.shape_units;
  const std::uint64_t vector_bytes = std::uint64_t{record.dimension} * sizeof(float);
  const std::uint64_t graph_bytes =
      (graph_slots(record.shape_capacity) + 1) * sizeof(std::uint32_t);
  switch (kind) {
    case 1:
      return {vector_bytes, vector_bytes * units, 64};
    case 2:
      return {graph_bytes, graph_bytes * units, 32};
    case 3:
      return {4, 4 * units, 1};
    case 4:
      return {1, 16 * units, 1};
    default:
      return {8, 8 * units, 1};
  }
}

bool has_store(const hnsw_s& record, std::uint8_t kind) {
  if (kind == label_kind) return record.shape_labels != 0;
  if (kind == attribute_kind) return record.shape_attributes != 0;
  return kind >= 1 && kind <= star_store_kind;
}

std::string store_prefix(const std::string& name, std::uint8_t kind) {
  const bool ambiguous =
      name.ends_with(label_ending) || name.ends_with(attribute_ending) || name.ends_with('-');
  const std::string prefix = ambiguous ? name + "-" : name;
  if (kind == label_kind) return prefix + label_ending;
  if (kind == attribute_kind) return prefix + attribute_ending;
  return prefix;
}

vector_file_names_s store_files(const hnsw_s& record, const std::string& name, std::uint8_t kind) {
  if (kind == star_store_kind) {
    const auto bytes = static_cast<std::uint32_t>(sizeof(vector_hash_star_s));
    return {store_prefix(name, kind), index_extension, bytes,
            vector_records_per_block(bytes, vector_hash_block_bytes), kind};
  }
  const store_plan plan = plan_store(record, kind);
  const auto bytes = static_cast<std::uint32_t>(plan.record_bytes);
  return {store_prefix(name, kind), index_extension, bytes,
          vector_records_per_block(bytes, plan.block_bytes), kind};
}

vector_file_names_s cache_files(const std::string& name) {
  constexpr std::uint32_t item_bytes = sizeof(pers_hash_entry_s) + sizeof(cache_entry_s);
  return {store_prefix(name, cache_store_kind), index_extension, item_bytes,
          pers_hash_items_per_block, cache_store_kind};
}

vector_file_names_s bloom_files(const std::string& name, std::uint32_t unit_bytes) {
  return {store_prefix(name, bloom_store_kind), index_extension, unit_bytes, 1, bloom_store_kind};
}

const char* store_title(std::uint8_t kind) {
  constexpr const char* titles[] = {
      "",       "vectors",    "graph", "magnitudes",   "flags",
      "labels", "attributes", "stars", "result cache", "Bloom filter"};
  return kind < std::size(titles) ? titles[kind] : "";
}

}  // namespace korvex
