#include "engine/repair.h"

#include <algorithm>
#include <atomic>
#include <iterator>

#include "engine/repair_parts.h"
#include "engine/sync.h"
#include "runtime/log.h"

namespace korvex {

namespace {

// Whether every store has the records of `added` points; one of their files may have been lost. They may also have those
// of the id that a failed addition left for the next one, the vectors first.
bool stores_hold(const hnsw_s& hnsw) {
  const korvex_runtime_s& runtime = *hnsw.runtime;
  const std::uint32_t size = hnsw.added + 1;
  const std::uint32_t most = runtime.store[vector_store]->size();
  if (most != size && most != size + 1) return false;
  return std::all_of(std::begin(runtime.store), std::end(runtime.store),
                     [size, most](const vectpool_c* store) {
                       return store == nullptr || store->size() == size || store->size() == most;
                     });
}

// Whether every hash begins at the seed of its probe, and its stars are there.
bool hashes_fit(const hnsw_s& hnsw) {
  const korvex_runtime_s& runtime = *hnsw.runtime;
  const std::uint32_t slots = runtime.star_pool->size();
  for (std::uint32_t probe = 0; probe < runtime.probe_count; ++probe) {
    const vector_hash_s& hash = *runtime.hash[probe];
    if (hash.ep_id != hnsw.probes[probe].seed) return false;
    if (std::any_of(hash.rings, hash.rings + vector_hash_rings,
                    [slots](const vector_hash_link_s& ring) { return ring.lid >= slots; }))
      return false;
  }
  return true;
}

bool nothing_to_repair(const hnsw_s& hnsw) {
  return hnsw.clean_close != 0 && hnsw.networked == hnsw.added && hnsw.taken == hnsw.added &&
         stores_hold(hnsw) && hashes_fit(hnsw);
}

// Others may read them already.
void restore_counters(const repair_s& repair) {
  hnsw_s* const hnsw = repair.hnsw;
  const std::uint32_t added = repair.size - 1;
  const auto waiting = static_cast<std::uint32_t>(repair.runtime.relink.size());
  std::atomic_ref(hnsw->networked).store(added - waiting);
  std::atomic_ref(hnsw->taken).store(added);
  std::atomic_ref(hnsw->added).store(added);
  std::atomic_ref(hnsw->durable).store(std::min(hnsw->durable, added));
}

}  // namespace

void korvex_repair(hnsw_s* hnsw) {
  if (nothing_to_repair(*hnsw)) {
    const std::uint32_t next = hnsw->added + 1;
    hnsw->runtime->spare_id = hnsw->runtime->store[vector_store]->size() > next ? next : 0;
    return;
  }
  korvex_begin_changes(hnsw);
  repair_s repair{hnsw, *hnsw->runtime};
  repair.runtime.relink.clear();
  complete_records(&repair);
  mend_seeds(&repair);
  mend_hashes(&repair);
  mend_lists(&repair);
  queue_unlinked(&repair);
  restore_counters(repair);
  if (!repair.runtime.relink.empty())
    KORVEX_LOG("%u points were not linked when the index was closed, linking them now\n",
               static_cast<unsigned>(repair.runtime.relink.size()));
}

}  // namespace korvex
