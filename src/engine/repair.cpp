#include "engine/repair.h"

#include <algorithm>
#include <stdexcept>

#include "engine/points.h"
#include "runtime/log.h"

namespace korvex {

namespace {

// Extends every store to the longest one. The ids that had no complete record are marked deleted.
std::uint32_t equalise_stores(korvex_runtime_s& runtime) {
  std::uint32_t longest = 1;
  std::uint32_t shortest = 0xFFFFFFFFu;
  for (const vectpool_c* store : runtime.store) {
    if (store == nullptr) continue;
    longest = std::max<std::uint32_t>(longest, store->size());
    shortest = std::min<std::uint32_t>(shortest, store->size());
  }
  for (vectpool_c* store : runtime.store) {
    while (store != nullptr && store->size() < longest) {
      unsigned id = 0;
      if (store->alloc(&id, 1) == nullptr)
        throw std::runtime_error("no room to complete the records of a store");
    }
  }
  for (std::uint32_t id = std::max(shortest, 1u); id < longest; ++id)
    set_flags(runtime, id, flag_deleted);
  if (shortest != longest)
    KORVEX_LOG("repaired %u incomplete records, the index holds %u\n", longest - shortest,
               longest - 1);
  return longest;
}

// Whether every store has exactly `size` records; one of their files may have been lost.
bool stores_hold(const korvex_runtime_s& runtime, std::uint32_t size) {
  return std::all_of(
      std::begin(runtime.store), std::end(runtime.store),
      [size](const vectpool_c* store) { return store == nullptr || store->size() == size; });
}

bool linked_or_exempt(const hnsw_s* hnsw, std::uint32_t id) {
  const korvex_runtime_s& runtime = *hnsw->runtime;
  if (graph_of(runtime, id).slot(0) != 0 || is_seed(hnsw, id)) return true;
  return (std::atomic_ref<std::uint8_t>(*flags_of(runtime, id)).load() & flag_duplicate) != 0;
}

// Seeds and entries come from the file: they must name earlier points of the same probe.
void check_seeds(hnsw_s* hnsw, std::uint32_t size) {
  for (std::uint32_t probe = 0; probe < hnsw->runtime->probe_count; ++probe) {
    probe_s& state = hnsw->probes[probe];
    if (state.seed >= size || (state.seed == 0 && probe + 1 < size))
      state.seed = probe + 1 < size ? probe + 1 : 0;
    hnsw->max_seed = std::max(hnsw->max_seed, state.seed);
  }
  if (hnsw->max_seed >= size) hnsw->max_seed = std::min(hnsw->runtime->probe_count, size - 1);
  for (std::uint32_t probe = 0; probe < hnsw->runtime->probe_count; ++probe) {
    const std::uint32_t seed = hnsw->probes[probe].seed;
    vector_hash_s* const hash = hnsw->runtime->hash[probe];
    if (seed == 0 || load_counter(hash->ep_id) != 0) continue;
    normalize_vector(vector_of(*hnsw->runtime, seed), hnsw->runtime->unit_scratch.get(),
                     hnsw->dimension);
    vector_hash_set_ep_id(hash, seed, hnsw->runtime->unit_scratch.get());
  }
}

void queue_unlinked(hnsw_s* hnsw, std::uint32_t size) {
  korvex_runtime_s& runtime = *hnsw->runtime;
  for (std::uint32_t id = 1; id < size; ++id) {
    clear_flags(runtime, id, flag_link_lock);
    if (linked_or_exempt(hnsw, id)) continue;
    const std::uint32_t seed = probe_seed(hnsw, probe_of(hnsw, id));
    const std::uint32_t entry = graph_of(runtime, id).slot(1);
    runtime.relink.push_back({0, entry != 0 && entry < id ? entry : seed, id, 0});
  }
}

}  // namespace

void korvex_repair(hnsw_s* hnsw) {
  if (hnsw->shape_valid == 0) return;
  korvex_runtime_s& runtime = *hnsw->runtime;
  if (hnsw->clean_close != 0 && stores_hold(runtime, hnsw->added + 1) &&
      hnsw->networked == hnsw->added && hnsw->taken == hnsw->added)
    return;
  const std::uint32_t size = equalise_stores(runtime);
  check_seeds(hnsw, size);
  queue_unlinked(hnsw, size);
  hnsw->added = size - 1;
  hnsw->taken = hnsw->added;
  hnsw->networked = hnsw->added - static_cast<std::uint32_t>(runtime.relink.size());
  if (!runtime.relink.empty())
    KORVEX_LOG("%u points were not linked when the index was closed, linking them now\n",
               static_cast<unsigned>(runtime.relink.size()));
}

}  // namespace korvex
