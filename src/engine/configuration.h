#ifndef KORVEX_ENGINE_CONFIGURATION_H
#define KORVEX_ENGINE_CONFIGURATION_H

#include <cstdint>

#include "engine/record.h"

// Creation of an index record and its options. Options are for the thread that creates the index,
// before the first addition or session: the start-up freezes what the engine reads. A null record
// yields the failure value.
namespace korvex {

// A zero-filled heap block of the record's size, or null.
hnsw_s* korvex_alloc();

// Creates an index, or opens the one that `base_path` and `name` lead to. A null or empty path: in
// memory.
// Requirements  1 <= dimension <= 1,048,576; a name without path separators
// Failure       null after one line: single processor, unusable path, a file that is damaged, in
//               use or of another dimension or instance. The file is left as it was.
hnsw_s* korvex_init(std::uint32_t dimension, std::uint8_t instance_id, const char* base_path,
                    const char* index_name);

void korvex_validate_parameters(hnsw_s* hnsw, int value);
void korvex_set_threads(hnsw_s* hnsw, int threads);
void korvex_set_search_threads(hnsw_s* hnsw, int threads, int queue_limit);
void korvex_set_parallel_search_jobs(hnsw_s* hnsw, int jobs);
void korvex_set_partitions(hnsw_s* hnsw, int partitions);
void korvex_set_disk_index(hnsw_s* hnsw, const char* directory);
int korvex_destroy_disk_index(hnsw_s* hnsw, int destroy);
void korvex_set_alloc_units(hnsw_s* hnsw, unsigned units, int flag);
int korvex_set_max_ram_usage(hnsw_s* hnsw, std::uint64_t bytes);
void korvex_enable_label(hnsw_s* hnsw, int enable);
void korvex_enable_attributes(hnsw_s* hnsw, int enable);
int korvex_enable_huges_pages(hnsw_s* hnsw, int enable);
void korvex_set_numa_node(hnsw_s* hnsw, int node);
void korvex_set_debug_id(hnsw_s* hnsw, unsigned id, int value);
void korvex_print_debug_info(hnsw_s* hnsw);
// Creates the index's own log file in the current directory; its descriptor, or -1.
int korvex_init_log(hnsw_s* hnsw, int enabled);
// 1 squared L2, 2 L2, 4 inner product; anything else changes nothing.
void korvex_set_distance_type(hnsw_s* hnsw, int type);
void korvex_set_mips_mode(hnsw_s* hnsw);
void korvex_set_norms_mode(hnsw_s* hnsw);
void korvex_set_normalize(hnsw_s* hnsw, int normalize);
void korvex_build_graph(hnsw_s* hnsw);
void korvex_build_optimize(hnsw_s* hnsw);
int korvex_set_neighbors_count(hnsw_s* hnsw, int count);
int korvex_set_radius(hnsw_s* hnsw, int radius);
void korvex_set_duplicate_threshold(hnsw_s* hnsw, int mode, float threshold, int option);
// Wants a Bloom filter of indexed vectors; created by the start-up, or at once after it.
void korvex_enable_index_check(hnsw_s* hnsw, int enable);
// Asks the Bloom filter about a vector; always answers 0.
int korvex_is_indexed(hnsw_s* hnsw, const float* vector);
// How the process-wide cache of results serves this index: 0 not at all; 1 (default) nearly equal
// queries share answers, where components that truncate to the same integers count as equal; 2 only
// an identical query is answered from the cache. Any time.
int korvex_set_result_cache(hnsw_s* hnsw, int mode);

}  // namespace korvex

#endif  // KORVEX_ENGINE_CONFIGURATION_H
