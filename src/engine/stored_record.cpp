#include "engine/stored_record.h"

#include <algorithm>
#include <cmath>

#include "engine/points.h"
#include "engine/runtime.h"
#include "engine/store_layout.h"
#include "runtime/platform/files.h"
#include "runtime/platform/memory.h"

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

bool points_without_vectors(const hnsw_s& stored, const std::string& directory,
                            const std::string& name) {
  // Before the first sync a power cut may take the file with everything in it.
  if (stored.shape_valid == 0 || stored.added == 0 || stored.durable == 0) return false;
  const vector_file_names_s names = store_files(stored, name, vector_store + 1);
  return !platform::status_of((directory + "/" + vector_block_file_name(names, 0)).c_str()).exists;
}

void settle_record(hnsw_s* hnsw) {
  hnsw->constant8 = 8;
  // More than the machine has was asked for on another one, or never.
  const std::uint64_t most_cache = std::max<std::uint64_t>(platform::available_memory(), 100);
  hnsw->disk_cache_size = std::min(hnsw->disk_cache_size, most_cache);
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
