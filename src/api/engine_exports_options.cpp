#include "api/border.h"
#include "engine/configuration.h"
#include "engine/startup.h"
#include "korvex/engine.h"

// The C names of the options. They are for the thread that creates the index, so no claim is taken.

using korvex::at_border;

extern "C" {

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

void korvex_set_disk_index(hnsw_s* index, const char* directory) {
  korvex::korvex_set_disk_index(index, directory);
}
void korvex_set_debug_id(hnsw_s* index, unsigned id, int value) {
  korvex::korvex_set_debug_id(index, id, value);
}
void korvex_set_mips_mode(hnsw_s* index) {
  korvex::korvex_set_mips_mode(index);
}
void korvex_set_norms_mode(hnsw_s* index) {
  korvex::korvex_set_norms_mode(index);
}
void korvex_build_graph(hnsw_s* index) {
  korvex::korvex_build_graph(index);
}
void korvex_build_optimize(hnsw_s* index) {
  korvex::korvex_build_optimize(index);
}

}  // extern "C"
