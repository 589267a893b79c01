#include "engine/stored_record.h"

#include <algorithm>
#include <cmath>

#include "engine/index_files.h"
#include "engine/points.h"
#include "engine/runtime.h"
#include "engine/store_layout.h"
#include "runtime/log.h"
#include "runtime/platform/files.h"

namespace korvex {

namespace {

// Points take turns: point p + 1 is the first of probe p. Two probes with one seed would walk one graph twice.
void settle_seeds(hnsw_s* hnsw) {
  const std::uint32_t opened = std::min(hnsw->shape_probes, hnsw->added);
  for (std::uint32_t probe = 0; probe < max_probes; ++probe)
    hnsw->probes[probe].seed = probe < opened ? probe + 1 : 0;
  hnsw->max_seed = opened;
  hnsw->probes_made = opened;
}

std::string path_of(const std::string& directory, const vector_file_names_s& names,
                    std::uint32_t block) {
  return directory + "/" + vector_block_file_name(names, block);
}

// The records that an opening would find. All that there can be when a file cannot be read now: it may be sound.
std::uint64_t stored_vectors(const hnsw_s& stored, const std::string& directory,
                             const std::string& name) {
  const vector_file_names_s names = store_files(stored, name, vector_store + 1);
  std::uint64_t records = 0;
  for (std::uint32_t block = 0;; ++block) {
    const std::string path = path_of(directory, names, block);
    const platform::file_status status = platform::status_of(path.c_str());
    if (!status.regular) return records;
    vector_block_header_s header{};
    const int fd = platform::open_file(path.c_str(), platform::open_mode::read_only);
    if (fd < 0) return vector_no_id;
    const bool read = platform::read_at(fd, &header, sizeof header, 0) >= 0;
    platform::close_file(fd);
    if (!read) return vector_no_id;
    if (check_vector_block(reinterpret_cast<const std::byte*>(&header), status.size,
                           names.record_size, names.records_per_block,
                           block) != vector_block_verdict::good)
      return records;
    records = std::uint64_t{block} * names.records_per_block + header.records_used;
  }
}

// Whether the graph is there, but not in the sizes that the record tells: those may be anything then.
bool graph_has_another_shape(const hnsw_s& stored, const std::string& directory,
                             const std::string& name) {
  const vector_file_names_s names = store_files(stored, name, graph_store + 1);
  const std::string expected = vector_block_file_name(names, 0);
  if (platform::status_of((directory + "/" + expected).c_str()).exists) return false;
  const std::string block_code = expected.substr(expected.rfind('-'));
  const auto entries = platform::list_directory(directory.c_str());
  return std::any_of(entries.begin(), entries.end(), [&](const platform::directory_entry& entry) {
    return is_block_file_of(name, entry.name) && entry.name.starts_with(names.prefix + "-") &&
           entry.name.ends_with(block_code);
  });
}

}  // namespace

bool record_matches(const hnsw_s& stored, std::uint32_t dimension, std::uint8_t instance_id) {
  const auto metric_known = [&stored] {
    return stored.distance_type == DISTANCE_NONE || stored.distance_type == DISTANCE_L2_SQUARE ||
           stored.distance_type == DISTANCE_L2 || stored.distance_type == DISTANCE_INNER_PRODUCT;
  };
  return stored.dimension == dimension && stored.instance_id == instance_id &&
         stored.element_bytes == 4 && stored.id_bytes == 4 && stored.neighbour_capacity >= 1 &&
         stored.neighbour_capacity <= (1u << 20) &&
         (stored.shape_valid == 0 ||
          (stored.shape_units >= 1 && stored.shape_capacity >= 1 &&
           stored.shape_capacity <= (1u << 20) && stored.shape_probes >= 1 &&
           stored.shape_probes <= max_probes)) &&
         metric_known();
}

bool stores_are_lost(const hnsw_s& stored, const std::string& directory, const std::string& name) {
  if (stored.shape_valid == 0 || stored.added == 0) return false;
  if (graph_has_another_shape(stored, directory, name)) return true;
  // Before the first sync a power cut may take the file with everything in it.
  if (stored.durable == 0) return false;
  const std::uint64_t promised = std::min(stored.durable, stored.added) + std::uint64_t{1};
  const std::uint64_t there = stored_vectors(stored, directory, name);
  if (there >= promised) return false;
  KORVEX_LOG_CRITICAL(
      "the files of %s held %llu records of vectors, %llu can be read: some were lost or damaged. "
      "Nothing is changed\n",
      name.c_str(), static_cast<unsigned long long>(promised),
      static_cast<unsigned long long>(there));
  return true;
}

void settle_record(hnsw_s* hnsw) {
  hnsw->constant8 = 8;
  hnsw->durable = std::min(hnsw->durable, hnsw->added);
  if (!std::isfinite(hnsw->expand_setting)) hnsw->expand_setting = 0.0f;
  if (!std::isfinite(hnsw->probe_step)) hnsw->probe_step = 0.0f;
  const std::uint32_t probes = hnsw->shape_valid != 0 ? hnsw->shape_probes : 0;
  std::uint32_t named = 0;
  for (std::uint16_t& probe : hnsw->probe_slots) {
    if (probe >= probes || (named >> probe & 1u) != 0) probe = 0;
    named |= 1u << probe;
  }
  if (hnsw->shape_valid != 0 && hnsw->norm_probing == 0) settle_seeds(hnsw);
}

// Only set bits are written: the pages of a sound file stay clean.
void release_link_locks(const korvex_runtime_s& runtime) {
  const std::uint32_t size = runtime.store[flags_store]->size();
  for (std::uint32_t id = 0; id < size; ++id)
    if ((*flags_of(runtime, id) & flag_link_lock) != 0) clear_flags(runtime, id, flag_link_lock);
}

}  // namespace korvex
