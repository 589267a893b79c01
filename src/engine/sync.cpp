#include "engine/sync.h"

#include "engine/runtime.h"
#include "storage/persistent_allocator.h"

namespace korvex {

int korvex_sync_to_disk(hnsw_s* hnsw, unsigned min_interval) {
  if (hnsw == nullptr) return -1;
  // Before that the stores are still being made.
  if (load_counter(hnsw->memory_initialised) != 0) {
    const korvex_runtime_s& runtime = *hnsw->runtime;
    for (vectpool_c* const store : runtime.store)
      if (store != nullptr) store->sync(min_interval);
    if (runtime.star_pool != nullptr) runtime.star_pool->sync(min_interval);
  }
  const int result = persistent_malloc_sync(hnsw->memory_manager);
  vector_sync_all(min_interval);
  return result;
}

}  // namespace korvex
