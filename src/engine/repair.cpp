#include "engine/repair.h"

#include <algorithm>
#include <iterator>

#include "engine/repair_parts.h"
#include "engine/sync.h"
#include "runtime/log.h"

namespace korvex {

namespace {

// Whether every store has exactly `size` records; one of their files may have been lost.
bool stores_hold(const korvex_runtime_s& runtime, std::uint32_t size) {
  return std::all_of(
      std::begin(runtime.store), std::end(runtime.store),
      [size](const vectpool_c* store) { return store == nullptr || store->size() == size; });
}

bool nothing_to_repair(const hnsw_s* hnsw) {
  return hnsw->clean_close != 0 && stores_hold(*hnsw->runtime, hnsw->added + 1) &&
         hnsw->networked == hnsw->added && hnsw->taken == hnsw->added;
}

void restore_counters(const repair_s& repair) {
  hnsw_s* const hnsw = repair.hnsw;
  hnsw->added = repair.size - 1;
  hnsw->taken = hnsw->added;
  hnsw->networked = hnsw->added - static_cast<std::uint32_t>(repair.runtime.relink.size());
  hnsw->durable = std::min(hnsw->durable, hnsw->added);
}

}  // namespace

void korvex_repair(hnsw_s* hnsw) {
  if (nothing_to_repair(hnsw)) return;
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
