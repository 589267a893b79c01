#include "engine/configuration.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "engine/runtime.h"
#include "engine/startup.h"
#include "runtime/log.h"
#include "runtime/platform/files.h"
#include "storage/bloom_filter.h"

namespace korvex {

hnsw_s* korvex_alloc() {
  return static_cast<hnsw_s*>(std::calloc(1, sizeof(hnsw_s)));
}

void korvex_validate_parameters(hnsw_s* hnsw, int value) {
  if (hnsw != nullptr) hnsw->validate_parameters = static_cast<std::uint32_t>(value);
}

void korvex_set_threads(hnsw_s* hnsw, int threads) {
  if (hnsw != nullptr) hnsw->indexing_threads = threads;
}

void korvex_set_search_threads(hnsw_s* hnsw, int threads, int queue_limit) {
  if (hnsw == nullptr) return;
  hnsw->search_threads = threads;
  hnsw->search_queue_limit = queue_limit;
}

void korvex_set_parallel_search_jobs(hnsw_s* hnsw, int jobs) {
  if (hnsw != nullptr && jobs != 0) hnsw->parallel_search_jobs = static_cast<std::uint32_t>(jobs);
}

void korvex_set_partitions(hnsw_s* hnsw, int partitions) {
  if (hnsw != nullptr && partitions > 0)
    hnsw->pattern_probes = static_cast<std::uint32_t>(partitions);
}

void korvex_set_disk_index(hnsw_s* hnsw, const char* directory) {
  if (hnsw == nullptr) return;
  std::free(hnsw->directory);
  hnsw->directory = directory != nullptr ? ::strdup(directory) : nullptr;
}

int korvex_destroy_disk_index(hnsw_s* hnsw, int destroy) {
  if (hnsw == nullptr || hnsw->on_disk == 0) return 0;
  hnsw->destroy_on_delete = static_cast<std::uint32_t>(destroy);
  if (destroy == 0) return 1;
  return KORVEX_LOG_CRITICAL(
      "Warning: Korvex index files will be deleted when the Korvex instance is removed. Use this "
      "option for testing "
      "only; avoid it in production.\n");
}

void korvex_set_alloc_units(hnsw_s* hnsw, unsigned units, int flag) {
  if (hnsw == nullptr || is_started(hnsw)) return;
  hnsw->allocation_units_flag = static_cast<std::uint32_t>(flag);
  hnsw->allocation_units = units;
}

int korvex_set_max_ram_usage(hnsw_s* hnsw, std::uint64_t bytes) {
  if (hnsw == nullptr) return 0;
  if (hnsw->on_disk == 0) return KORVEX_LOG("Cache can be enabled in On-Disk mode only\n");
  hnsw->disk_cache_size = bytes;
  return 1;
}

void korvex_enable_label(hnsw_s* hnsw, int enable) {
  if (hnsw != nullptr) hnsw->labels_enabled = static_cast<std::uint32_t>(enable);
}

void korvex_enable_attributes(hnsw_s* hnsw, int enable) {
  if (hnsw != nullptr) hnsw->attributes_enabled = static_cast<std::uint32_t>(enable);
}

int korvex_enable_huges_pages(hnsw_s* hnsw, int enable) {
  if (hnsw == nullptr) return 0;
  hnsw->huge_pages = enable > 0 ? 1 : 0;
  return static_cast<int>(hnsw->huge_pages);
}

void korvex_set_numa_node(hnsw_s* hnsw, int node) {
  if (hnsw != nullptr) hnsw->numa_node = node;
}

void korvex_set_debug_id(hnsw_s*, unsigned, int) {}

void korvex_print_debug_info(hnsw_s* hnsw) {
  if (hnsw != nullptr)
    KORVEX_LOG("max search count: %u nid %u\n", hnsw->max_search_count, hnsw->nid);
}

int korvex_init_log(hnsw_s* hnsw, int enabled) {
  if (hnsw == nullptr) return -1;
  char name[64];
  std::snprintf(name, sizeof name, "log_nimbra-%d.txt", hnsw->indexing_threads);
  hnsw->log_handle = platform::open_file(name, platform::open_mode::truncate);
  hnsw->log_enabled = static_cast<std::uint32_t>(enabled);
  return hnsw->log_handle;
}

void korvex_set_distance_type(hnsw_s* hnsw, int type) {
  if (hnsw == nullptr ||
      (type != DISTANCE_L2_SQUARE && type != DISTANCE_L2 && type != DISTANCE_INNER_PRODUCT))
    return;
  std::lock_guard lock(hnsw->runtime->startup_lock);
  korvex_select_metric(hnsw, static_cast<korvex_distance_type>(type));
}

void korvex_set_mips_mode(hnsw_s*) {}
void korvex_set_norms_mode(hnsw_s*) {}

void korvex_set_normalize(hnsw_s* hnsw, int normalize) {
  if (hnsw != nullptr) hnsw->normalize = static_cast<std::uint32_t>(normalize);
}

void korvex_build_graph(hnsw_s*) {}
void korvex_build_optimize(hnsw_s*) {}

int korvex_set_neighbors_count(hnsw_s* hnsw, int count) {
  if (hnsw != nullptr) hnsw->neighbour_capacity = 2u * static_cast<std::uint32_t>(count);
  return 0;
}

int korvex_set_radius(hnsw_s* hnsw, int radius) {
  if (hnsw != nullptr) hnsw->radius = static_cast<std::uint32_t>(radius);
  return 0;
}

void korvex_set_duplicate_threshold(hnsw_s* hnsw, int mode, float threshold, int option) {
  if (hnsw == nullptr) return;
  hnsw->duplicate_mode = mode;
  hnsw->duplicate_threshold = threshold;
  hnsw->duplicate_option = option;
}

void korvex_enable_index_check(hnsw_s* hnsw, int enable) {
  if (hnsw == nullptr) return;
  korvex_runtime_s& runtime = *hnsw->runtime;
  std::scoped_lock locks(runtime.startup_lock, runtime.insert_lock);
  hnsw->index_check = static_cast<std::uint32_t>(enable);
  if (is_started(hnsw) && enable != 0 && hnsw->bloom == nullptr) korvex_create_bloom(hnsw);
}

int korvex_is_indexed(hnsw_s* hnsw, const float* vector) {
  if (hnsw == nullptr || vector == nullptr || !is_started(hnsw)) return 0;
  if (scalable_bloom_filters_s* const bloom =
          std::atomic_ref(hnsw->bloom).load(std::memory_order_acquire))
    sbf_exists(bloom, vector, hnsw->dimension * sizeof(float));
  return 0;
}

int korvex_set_result_cache(hnsw_s* hnsw, int mode) {
  if (hnsw == nullptr || mode < 0 || mode > 2) return -1;
  hnsw->runtime->result_cache_mode.store(mode);
  return 0;
}

}  // namespace korvex
