#include <algorithm>
#include <cstring>

#include "api/border.h"
#include "engine/configuration.h"
#include "engine/distances.h"
#include "engine/indexing.h"
#include "engine/insertion.h"
#include "engine/points.h"
#include "engine/startup.h"
#include "engine/statistics.h"
#include "engine/sync.h"
#include "engine/teardown.h"
#include "korvex/engine.h"
#include "math/kernels.h"
#include "search/direct.h"
#include "search/session.h"

// The C names of the engine's functions. Each forwards; nothing but results and records crosses the
// border: what may run out of memory does so behind it.

using korvex::at_border;

namespace {

std::uint32_t add_with_label(hnsw_s* index, const float* vector, std::uint64_t label) {
  const std::uint32_t before = korvex::load_counter(index->added);
  const std::uint32_t id = korvex::korvex_add(index, vector, label);
  // 0 is the first id, and a failure unless the first vector was added just now.
  const bool added = id != 0 || (before == 0 && korvex::load_counter(index->added) != 0);
  if (added && index->runtime->labels) korvex::korvex_set_label(index, id, label);
  return id;
}

void fill_stats(const hnsw_s* index, korvex_stats_s* stats) {
  const korvex::index_statistics counted = korvex::collect_statistics(index);
  korvex_stats_s full{};
  full.size = std::min<uint32_t>(stats->size, sizeof full);
  full.dimension = index->dimension;
  full.added = counted.added;
  full.deleted = counted.deleted;
  full.duplicates = counted.duplicates;
  full.unlinked = counted.unlinked;
  full.probes = index->pattern_probes;
  full.constellation = index->neighbour_capacity / 2;
  full.memory_bytes = counted.memory_bytes;
  full.disk_bytes = counted.disk_bytes;
  full.kernels = korvex::chosen_kernels();
  std::memcpy(stats, &full, full.size);
}

}  // namespace

extern "C" {

hnsw_s* korvex_init(uint32_t dimension, uint8_t instance_id, const char* base_path,
                    const char* name) {
  return at_border("korvex_init", static_cast<hnsw_s*>(nullptr),
                   [&] { return korvex::korvex_init(dimension, instance_id, base_path, name); });
}

void korvex_free(hnsw_s* index) {
  at_border("korvex_free", [&] { korvex::korvex_free(index); });
}

int korvex_init_memory(hnsw_s* index) {
  return index != nullptr && korvex::korvex_try_init_memory(index) ? 0 : -1;
}

int korvex_sync_to_disk(hnsw_s* index, unsigned min_interval) {
  return korvex::korvex_sync_to_disk(index, min_interval);
}

void korvex_validate_parameters(hnsw_s* index, int value) {
  korvex::korvex_validate_parameters(index, value);
}
void korvex_set_threads(hnsw_s* index, int threads) {
  korvex::korvex_set_threads(index, threads);
}
void korvex_set_search_threads(hnsw_s* index, int threads, int queue_limit) {
  korvex::korvex_set_search_threads(index, threads, queue_limit);
}
void korvex_set_parallel_search_jobs(hnsw_s* index, int jobs) {
  korvex::korvex_set_parallel_search_jobs(index, jobs);
}
void korvex_set_partitions(hnsw_s* index, int probes) {
  korvex::korvex_set_partitions(index, probes);
}
void korvex_set_alloc_units(hnsw_s* index, unsigned vectors, int flag) {
  korvex::korvex_set_alloc_units(index, vectors, flag);
}
int korvex_set_max_ram_usage(hnsw_s* index, uint64_t bytes) {
  return korvex::korvex_set_max_ram_usage(index, bytes);
}
void korvex_available_memory(hnsw_s* index, uint64_t bytes) {
  korvex::korvex_available_memory(index, bytes);
}
void korvex_enable_label(hnsw_s* index, int enable) {
  korvex::korvex_enable_label(index, enable);
}
void korvex_enable_attributes(hnsw_s* index, int enable) {
  korvex::korvex_enable_attributes(index, enable);
}
int korvex_enable_huges_pages(hnsw_s* index, int enable) {
  return korvex::korvex_enable_huges_pages(index, enable);
}
void korvex_set_numa_node(hnsw_s* index, int node) {
  korvex::korvex_set_numa_node(index, node);
}
void korvex_set_distance_type(hnsw_s* index, int type) {
  at_border("korvex_set_distance_type", [&] { korvex::korvex_set_distance_type(index, type); });
}
void korvex_set_normalize(hnsw_s* index, int normalize) {
  korvex::korvex_set_normalize(index, normalize);
}
int korvex_set_neighbors_count(hnsw_s* index, int count) {
  return korvex::korvex_set_neighbors_count(index, count);
}
int korvex_set_radius(hnsw_s* index, int radius) {
  return korvex::korvex_set_radius(index, radius);
}
void korvex_set_duplicate_threshold(hnsw_s* index, int mode, float threshold, int option) {
  korvex::korvex_set_duplicate_threshold(index, mode, threshold, option);
}
void korvex_enable_index_check(hnsw_s* index, int enable) {
  at_border("korvex_enable_index_check", [&] { korvex::korvex_enable_index_check(index, enable); });
}
int korvex_destroy_disk_index(hnsw_s* index, int destroy) {
  return korvex::korvex_destroy_disk_index(index, destroy);
}
int korvex_init_log(hnsw_s* index, int enabled) {
  return korvex::korvex_init_log(index, enabled);
}
void korvex_print_debug_info(hnsw_s* index) {
  korvex::korvex_print_debug_info(index);
}
int korvex_set_result_cache(hnsw_s* index, int mode) {
  return korvex::korvex_set_result_cache(index, mode);
}

uint32_t korvex_add(hnsw_s* index, const float* vector, uint64_t label) {
  if (index == nullptr || vector == nullptr) return 0;
  return at_border("korvex_add", uint32_t{0}, [&] { return add_with_label(index, vector, label); });
}

void korvex_add_multiple(hnsw_s* index, const float* vectors, int count, uint32_t* first,
                         uint32_t* last) {
  if (first != nullptr) *first = 0;
  if (last != nullptr) *last = 0;
  at_border("korvex_add_multiple",
            [&] { korvex::korvex_add_multiple(index, vectors, count, first, last); });
}

int korvex_has_finish_adding(hnsw_s* index) {
  return korvex::korvex_has_finish_adding(index);
}
void korvex_wait_finish_adding(hnsw_s* index) {
  at_border("korvex_wait_finish_adding", [&] { korvex::korvex_wait_finish_adding(index); });
}
int korvex_delete(hnsw_s* index, uint32_t id, int undelete) {
  return korvex::korvex_delete(index, id, undelete);
}
int korvex_is_flag_set_internal(hnsw_s* index, uint32_t internal_id, int mask) {
  return korvex::korvex_is_flag_set_internal(index, internal_id, mask);
}
uint64_t korvex_get_label(hnsw_s* index, uint32_t id) {
  return korvex::korvex_get_label(index, id);
}
uint64_t korvex_set_label(hnsw_s* index, uint32_t id, uint64_t label) {
  return korvex::korvex_set_label(index, id, label);
}
void korvex_set_data(hnsw_s* index, uint32_t id, void* data, int unused) {
  korvex::korvex_set_data(index, id, data, unused);
}
int korvex_is_indexed(hnsw_s* index, const float* vector) {
  return korvex::korvex_is_indexed(index, vector);
}
float korvex_get_distance_ext(hnsw_s* index, uint32_t id, const float* vector) {
  return korvex::korvex_get_distance_ext(index, id, vector);
}

int korvex_get_vector(hnsw_s* index, uint32_t id, float* out) {
  if (index == nullptr || out == nullptr || id >= korvex::load_counter(index->added)) return -1;
  const float* const vector = korvex::vector_of(*index->runtime, id + 1);
  if (vector == nullptr) return -1;
  std::memcpy(out, vector, index->vector_bytes);
  return 0;
}

int korvex_get_stats(hnsw_s* index, korvex_stats_s* stats) {
  if (index == nullptr || stats == nullptr || stats->size < sizeof stats->size) return -1;
  return at_border("korvex_get_stats", -1, [&] {
    fill_stats(index, stats);
    return 0;
  });
}

uint32_t korvex_search_init(hnsw_s* index, int k, void* user_data) {
  return at_border("korvex_search_init", uint32_t{0},
                   [&] { return korvex::korvex_search_init(index, k, user_data); });
}
void korvex_search_free(hnsw_s* index, uint32_t sid) {
  korvex::korvex_search_free(index, sid);
}
void* korvex_search_get_userdata(hnsw_s* index, uint32_t sid) {
  return korvex::korvex_search_get_userdata(index, sid);
}
void korvex_search_set_callbacks(hnsw_s* index, uint32_t sid, korvex_filter_callback_fn filter,
                                 korvex_result_callback_fn result, const void* data) {
  korvex::korvex_search_set_callbacks(index, sid, filter, result, data);
}
void korvex_search_set_cbdata(hnsw_s* index, uint32_t sid, const void* data) {
  korvex::korvex_search_set_cbdata(index, sid, data);
}
uint32_t korvex_search(hnsw_s* index, uint32_t sid, const float* query, int radius, int k) {
  return at_border("korvex_search", uint32_t{KORVEX_FAILED},
                   [&] { return korvex::korvex_search(index, sid, query, radius, k); });
}
uint32_t korvex_search_more(hnsw_s* index, uint32_t sid) {
  return at_border("korvex_search_more", uint32_t{KORVEX_FAILED},
                   [&] { return korvex::korvex_search_more(index, sid); });
}
uint32_t korvex_search_refine(hnsw_s* index, uint32_t sid) {
  return at_border("korvex_search_refine", uint32_t{KORVEX_FAILED},
                   [&] { return korvex::korvex_search_refine(index, sid); });
}
uint32_t korvex_search_filter(hnsw_s* index, uint32_t sid, uint32_t id) {
  return at_border("korvex_search_filter", uint32_t{KORVEX_FAILED},
                   [&] { return korvex::korvex_search_filter(index, sid, id); });
}
int korvex_search_refine_vector(hnsw_s* index, uint32_t sid, const float* vector,
                                const void* attributes) {
  return korvex::korvex_search_refine_vector(index, sid, vector, attributes);
}
korvex_results_s* korvex_search_result(hnsw_s* index, uint32_t sid, int copy) {
  return at_border("korvex_search_result", static_cast<korvex_results_s*>(nullptr),
                   [&] { return korvex::korvex_search_result(index, sid, copy); });
}
korvex_result_ids_s* korvex_search_result_ids(hnsw_s* index, uint32_t sid, int copy) {
  return at_border("korvex_search_result_ids", static_cast<korvex_result_ids_s*>(nullptr),
                   [&] { return korvex::korvex_search_result_ids(index, sid, copy); });
}
korvex_result_dists_s* korvex_search_result_dists(hnsw_s* index, uint32_t sid, int copy) {
  return at_border("korvex_search_result_dists", static_cast<korvex_result_dists_s*>(nullptr),
                   [&] { return korvex::korvex_search_result_dists(index, sid, copy); });
}

int64_t korvex_search_direct(hnsw_s* index, const float* queries, size_t n, int k,
                             const korvex_direct_options_s* options, uint32_t* ids,
                             float* distances, uint32_t* counts) {
  korvex_direct_options_s given{};
  if (options != nullptr)
    std::memcpy(&given, options, std::min<size_t>(options->size, sizeof given));
  const korvex::direct_options chosen{
      given.radius,        given.filter,       given.filter_context,    given.allowed_ids,
      given.allowed_count, given.allowed_bits, given.allowed_bit_count, given.deadline_ms};
  return at_border("korvex_search_direct", int64_t{-1}, [&] {
    return korvex::korvex_search_direct(index, queries, n, k, &chosen, ids, distances, counts);
  });
}

}  // extern "C"
