#include "engine/sync.h"

#include <algorithm>
#include <atomic>

#include "engine/runtime.h"
#include "runtime/platform/files.h"
#include "storage/persistent_allocator.h"

namespace korvex {

namespace {

bool sync_store(vectpool_c* store, unsigned min_interval) {
  if (store == nullptr) return true;
  const std::uint32_t refused = store->syncs_refused();
  store->sync(min_interval);
  return store->syncs_refused() == refused;
}

}  // namespace

bool korvex_sync_stores(hnsw_s* hnsw, unsigned min_interval) {
  // Before that the stores are still being made.
  if (load_counter(hnsw->memory_initialised) == 0) return true;
  const korvex_runtime_s& runtime = *hnsw->runtime;
  const std::uint32_t added = load_counter(hnsw->added);
  bool done = true;
  for (vectpool_c* const store : runtime.store) done = sync_store(store, min_interval) && done;
  done = sync_store(runtime.star_pool, min_interval) && done;
  if (hnsw->directory != nullptr) platform::sync_directory(hnsw->directory);
  // With an interval some may have been skipped.
  if (!done || min_interval != 0) return done;
  const std::atomic_ref durable(hnsw->durable);
  durable.store(std::max(durable.load(), added));
  return true;
}

int korvex_sync_to_disk(hnsw_s* hnsw, unsigned min_interval) {
  if (hnsw == nullptr) return -1;
  const bool stores_done = korvex_sync_stores(hnsw, min_interval);
  // Last: its counters must not name what the stores do not hold yet.
  const int result = persistent_malloc_sync(hnsw->memory_manager);
  vector_sync_all(min_interval);
  return stores_done ? result : -1;
}

void korvex_begin_changes(hnsw_s* hnsw) {
  if (load_counter(hnsw->clean_close) == 0) return;
  std::atomic_ref(hnsw->clean_close).store(0);
  persistent_malloc_sync(hnsw->memory_manager);
}

}  // namespace korvex
