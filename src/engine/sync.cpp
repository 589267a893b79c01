#include "engine/sync.h"

#include <algorithm>
#include <atomic>

#include "engine/runtime.h"
#include "runtime/platform/files.h"
#include "storage/persistent_allocator.h"

namespace korvex {

namespace {

vector_sync_result sync_every_store(const korvex_runtime_s& runtime, unsigned min_interval) {
  auto worst = vector_sync_result::done;
  const auto sync_one = [&](vectpool_c* store) {
    if (store != nullptr) worst = std::max(worst, store->sync_told(min_interval));
  };
  for (vectpool_c* const store : runtime.store) sync_one(store);
  sync_one(runtime.star_pool);
  return worst;
}

}  // namespace

bool korvex_sync_stores(hnsw_s* hnsw, unsigned min_interval) {
  // Before that the stores are still being made.
  if (load_counter(hnsw->memory_initialised) == 0) return true;
  korvex_runtime_s& runtime = *hnsw->runtime;
  const std::uint32_t added = load_counter(hnsw->added);
  const vector_sync_result result = sync_every_store(runtime, min_interval);
  if (hnsw->directory != nullptr && platform::sync_directory(hnsw->directory) != 0)
    runtime.directory_refused.store(true);
  if (result == vector_sync_result::refused || runtime.directory_refused.load()) return false;
  if (result == vector_sync_result::skipped) return true;
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
