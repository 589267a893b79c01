#include "engine/record.h"

#include <cstring>

namespace korvex {

void clear_process_fields(hnsw_s* hnsw) {
  hnsw->memory_manager = nullptr;
  hnsw->memory_initialised = 0;
  hnsw->directory = nullptr;
  hnsw->name = nullptr;
  hnsw->distance = nullptr;
  hnsw->distance_function = nullptr;
  hnsw->stop_searching = 0;
  hnsw->stop_indexing = 0;
  hnsw->destroy_on_delete = 0;
  hnsw->bloom = nullptr;
  hnsw->memory_usage = {};
  hnsw->search_pool = nullptr;
  hnsw->search_queue = nullptr;
  hnsw->log_handle = -1;
  hnsw->runtime = nullptr;
  std::memset(hnsw->thread_slots, 0, sizeof hnsw->thread_slots);
}

}  // namespace korvex
