#ifndef KORVEX_ENGINE_H
#define KORVEX_ENGINE_H

#include <stddef.h>
#include <stdint.h>

#include "korvex/results.h"

// The engine below the host classes as C functions over an opaque record: for other languages, and
// for what the fixed classes of korvex/korvex.h have no operation for (labels, direct search, the
// result cache).
//
// Record     from korvex_init, or from Korvex::get_base; the latter belongs to its Korvex object
//            and dies with it.
// Ids        public ids count additions from 0; functions whose name ends in _internal take public
//            id + 1.
// Failures   a null record or pointer yields the failure value of the function and changes nothing.
//            Nothing is thrown.
// Threads    options: the thread that creates the index, before the first addition or session.
//            Everything else: any thread at any time, unless it says otherwise. A call that is under
//            way when another thread gives the index up ends with its failure value or its result;
//            none may begin later.

// Set by the build of a library whose format marks what it exports in another way; hosts leave it alone.
#if !defined(KORVEX_ENGINE_API)
#if defined(__ELF__)
#define KORVEX_ENGINE_API __attribute__((visibility("default")))
#else
#define KORVEX_ENGINE_API
#endif
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef struct hnsw_s hnsw_s;

enum {
  KORVEX_DISTANCE_L2_SQUARE = 1,
  KORVEX_DISTANCE_L2 = 2,
  KORVEX_DISTANCE_INNER_PRODUCT = 4  // the raw dot product; larger is nearer
};

#define KORVEX_FAILED 0xFFFFFFFFu  // of functions that return an unsigned 32-bit result
#define KORVEX_NO_ID 0xFFFFFFFFu   // fills rows that have fewer than k hits

// --- An index ---

// Creates an index, or opens the one below `base_path` with that name (null or empty path: in
// memory; null or empty name: the default). Null when the dimension is not 1..1,048,576, or the
// path or the files do not serve.
KORVEX_ENGINE_API hnsw_s* korvex_init(uint32_t dimension, uint8_t instance_id,
                                      const char* base_path, const char* name);
// Stops and releases an index from korvex_init within 110 ms. Calls that are under way keep what
// they use until they return, and end early; none may follow, those of sessions included. May be
// called from a callback of the index. Not for records that belong to a Korvex object.
KORVEX_ENGINE_API void korvex_free(hnsw_s* index);
// Builds the stores now instead of at the first addition or session. 0, or -1 when memory or disk
// do not suffice.
KORVEX_ENGINE_API int korvex_init_memory(hnsw_s* index);
// Puts an on-disk index on its device unless fewer than min_interval seconds passed since the last
// time. 0 or -1.
KORVEX_ENGINE_API int korvex_sync_to_disk(hnsw_s* index, unsigned min_interval);

typedef struct korvex_description_s {
  uint32_t size;  // bytes of this record, set by the caller: newer libraries fill more
  uint32_t dimension;
  int32_t metric;       // KORVEX_DISTANCE_...; 0 until the first addition unless it was set
  int32_t normalize;    // 1: unit copies are stored
  uint32_t labels;      // 0 or 1
  uint32_t attributes;  // 0 or 1
  uint32_t probes;      // pattern probes
  uint32_t constellation;
  uint32_t radius;   // candidates while building
  uint32_t added;    // vectors that additions returned
  uint32_t on_disk;  // 0 or 1
} korvex_description_s;
// What an open index was made with. 0 or -1.
KORVEX_ENGINE_API int korvex_describe(hnsw_s* index, korvex_description_s* description);
// The same of an index in files, without opening it: also of one that is in use. Arguments as of
// korvex_init. 0, 1 when there is none, or -1 when there is one that cannot be read.
KORVEX_ENGINE_API int korvex_inspect(uint8_t instance_id, const char* base_path, const char* name,
                                     korvex_description_s* description);

typedef struct korvex_estimate_s {
  uint64_t memory_bytes;  // resident when all vectors are in; on disk: with every file cached
  uint64_t disk_bytes;    // taken by the files; 0 in memory
} korvex_estimate_s;
// What an index of `vectors` vectors like the described one will take. Reads dimension, labels,
// attributes, constellation (0: the default) and on_disk. 0 or -1.
KORVEX_ENGINE_API int korvex_estimate(const korvex_description_s* description, uint64_t vectors,
                                      korvex_estimate_s* estimate);

// The distance kernels that this machine gets; static.
KORVEX_ENGINE_API const char* korvex_kernels(void);
// "0.1.0"; static.
KORVEX_ENGINE_API const char* korvex_version(void);

// --- The log of the process ---

// Called for every line on the log's own thread, one call at a time. `line` ends in a newline and
// lives for the call. May not change the sink.
typedef void (*korvex_log_fn)(void* context, const char* line);
// Sends the lines of all indexes to `sink` in place of standard output; a null sink drops them. On
// return the sink before is not called any more. 0 or -1.
KORVEX_ENGINE_API int korvex_set_log_sink(korvex_log_fn sink, void* context);
// Back to a file descriptor, 1 at first; it stays the caller's. 0 or -1.
KORVEX_ENGINE_API int korvex_set_log_descriptor(int descriptor);
// Waits until every line so far was delivered. 0, 1 when timeout_ms passed first, -1 without a log.
KORVEX_ENGINE_API int korvex_wait_log(int timeout_ms);

// --- Options ---

// 1 (default): vectors and queries that are not finite are refused, and sessions look at 2 x k
// candidates at least.
KORVEX_ENGINE_API void korvex_validate_parameters(hnsw_s* index, int value);
// Indexing threads, default: processors - 1, at least 4. 0: link inside korvex_add.
KORVEX_ENGINE_API void korvex_set_threads(hnsw_s* index, int threads);
// Search threads of sessions, default: processors; queued queries before korvex_search waits,
// default twice as many.
KORVEX_ENGINE_API void korvex_set_search_threads(hnsw_s* index, int threads, int queue_limit);
// Stored, default 128; 0 is ignored.
KORVEX_ENGINE_API void korvex_set_parallel_search_jobs(hnsw_s* index, int jobs);
// Pattern probes 1..16, default 2; below 1 is ignored, more count as 16. Each is a graph of its own
// with its share of the vectors: linking is spread, a search walks all of them.
KORVEX_ENGINE_API void korvex_set_partitions(hnsw_s* index, int probes);
// Vectors a storage block, default 1,000,000; flag is stored.
KORVEX_ENGINE_API void korvex_set_alloc_units(hnsw_s* index, unsigned vectors, int flag);
// Disk cache; below 100: per cent of the memory. 1, or 0 after one line for an index in memory.
KORVEX_ENGINE_API int korvex_set_max_ram_usage(hnsw_s* index, uint64_t bytes);
// Plan with this instead of the system's.
KORVEX_ENGINE_API void korvex_available_memory(hnsw_s* index, uint64_t bytes);
// A 64-bit label for every vector, default off; 8 bytes a vector.
KORVEX_ENGINE_API void korvex_enable_label(hnsw_s* index, int enable);
// Room for a 64-bit attribute of every vector, default off. Nothing reads it yet.
KORVEX_ENGINE_API void korvex_enable_attributes(hnsw_s* index, int enable);
// Large pages where the system grants them, default off. What is stored, 0 or 1.
KORVEX_ENGINE_API int korvex_enable_huges_pages(hnsw_s* index, int enable);
// -1 (default): none.
KORVEX_ENGINE_API void korvex_set_numa_node(hnsw_s* index, int node);
// Default squared L2; an unknown number changes nothing.
KORVEX_ENGINE_API void korvex_set_distance_type(hnsw_s* index, int type);
// 1: unit copies are stored and searched; default 0.
KORVEX_ENGINE_API void korvex_set_normalize(hnsw_s* index, int normalize);
// Constellation size, default 16; neighbour lists hold twice as many. 0.
KORVEX_ENGINE_API int korvex_set_neighbors_count(hnsw_s* index, int count);
// Candidates while building, default 100. 0.
KORVEX_ENGINE_API int korvex_set_radius(hnsw_s* index, int radius);
// While mode and option are non-zero, a vector within `threshold` of one that is already there is
// hidden and not linked.
KORVEX_ENGINE_API void korvex_set_duplicate_threshold(hnsw_s* index, int mode, float threshold,
                                                      int option);
// Bloom filter of indexed vectors, default off.
KORVEX_ENGINE_API void korvex_enable_index_check(hnsw_s* index, int enable);
// On disk only: korvex_free deletes every *.korvex file of the index's directory, those of other
// indexes there included.
KORVEX_ENGINE_API int korvex_destroy_disk_index(hnsw_s* index, int destroy);
// Replaces the directory that the stores will lie in; the index file stays where korvex_init put
// it. Null: none.
KORVEX_ENGINE_API void korvex_set_disk_index(hnsw_s* index, const char* directory);
// Creates "log_nimbra-<threads>.txt" in the current directory; its descriptor, or -1. The index
// stores descriptor and flag, and writes nothing to it.
KORVEX_ENGINE_API int korvex_init_log(hnsw_s* index, int enabled);
// One line: the counters "max search count" and "nid".
KORVEX_ENGINE_API void korvex_print_debug_info(hnsw_s* index);
// The cache of recent answers: 0 off; 1 (default) nearly equal queries share answers, components
// count as whole numbers; 2 only an identical query is answered from it. 0, or -1 for another mode.
// Any time.
KORVEX_ENGINE_API int korvex_set_result_cache(hnsw_s* index, int mode);
// These do nothing; they are part of the contract.
KORVEX_ENGINE_API void korvex_set_debug_id(hnsw_s* index, unsigned id, int value);
KORVEX_ENGINE_API void korvex_set_mips_mode(hnsw_s* index);
KORVEX_ENGINE_API void korvex_set_norms_mode(hnsw_s* index);
KORVEX_ENGINE_API void korvex_build_graph(hnsw_s* index);
KORVEX_ENGINE_API void korvex_build_optimize(hnsw_s* index);

// --- Vectors ---

// Adds a copy of a vector of `dimension` floats, with its label when labels are on. The public id,
// or 0 on failure (0 is also the first id). Searches that start later see the vector.
KORVEX_ENGINE_API uint32_t korvex_add(hnsw_s* index, const float* vector, uint64_t label);
// The same, with failure told apart: 0 and *id (may be null), or -1 and nothing changed.
KORVEX_ENGINE_API int korvex_try_add(hnsw_s* index, const float* vector, uint64_t label,
                                     uint32_t* id);
// `count` vectors row after row, without labels. *first and *last are what the first and the last
// addition returned. Other threads' additions may come in between.
KORVEX_ENGINE_API void korvex_add_multiple(hnsw_s* index, const float* vectors, int count,
                                           uint32_t* first, uint32_t* last);
KORVEX_ENGINE_API int korvex_has_finish_adding(hnsw_s* index);
KORVEX_ENGINE_API void korvex_wait_finish_adding(hnsw_s* index);
// The same for at most timeout_ms and without lines in the log. 1: all that was added before the
// call is linked; 0: the time passed, or the index is given up; -1 without an index.
KORVEX_ENGINE_API int korvex_wait_linked(hnsw_s* index, uint64_t timeout_ms);

typedef struct korvex_counts_s {
  uint32_t size;    // bytes of this record, set by the caller: newer libraries fill more
  uint32_t added;   // vectors that additions returned
  uint32_t live;    // of them, neither deleted nor hidden as duplicates
  uint32_t linked;  // of them, those whose linking is over
} korvex_counts_s;
// A glance: constant time. 0 or -1.
KORVEX_ENGINE_API int korvex_get_counts(hnsw_s* index, korvex_counts_s* counts);

// Hides a vector from all results, or shows it again. 0, or -1 for an id that does not exist.
KORVEX_ENGINE_API int korvex_delete(hnsw_s* index, uint32_t id, int undelete);
// Flag bits of a vector: 1 its label is a host's pointer, 2 deleted, 4 duplicate. 1 when any bit of
// `mask` is set, 0 when none is or the id does not exist.
KORVEX_ENGINE_API int korvex_is_flag_set_internal(hnsw_s* index, uint32_t internal_id, int mask);
// Labels: 0 while they are off or the id does not exist. Setting one also undeletes; returns the
// label before.
KORVEX_ENGINE_API uint64_t korvex_get_label(hnsw_s* index, uint32_t id);
KORVEX_ENGINE_API uint64_t korvex_set_label(hnsw_s* index, uint32_t id, uint64_t label);
// Changes the label alone: a deleted vector stays deleted. 0, or -1 while labels are off or for an
// id that does not exist.
KORVEX_ENGINE_API int korvex_change_label(hnsw_s* index, uint32_t id, uint64_t label);
// A pointer of the host in place of the label; korvex_get_label returns it.
KORVEX_ENGINE_API void korvex_set_data(hnsw_s* index, uint32_t id, void* data, int unused);
// Always 0; asks the Bloom filter in passing.
KORVEX_ENGINE_API int korvex_is_indexed(hnsw_s* index, const float* vector);
// Raw distance between a stored vector and one given; the farthest value of the metric when one is
// missing.
KORVEX_ENGINE_API float korvex_get_distance_ext(hnsw_s* index, uint32_t id, const float* vector);
KORVEX_ENGINE_API float korvex_get_distance_internal(hnsw_s* index, uint32_t internal_id,
                                                     const float* vector);
// Between two given vectors.
KORVEX_ENGINE_API float korvex_get_distance(hnsw_s* index, const float* a, const float* b);
// Copies a stored vector of `dimension` floats. 0, or -1 for an id that does not exist.
KORVEX_ENGINE_API int korvex_get_vector(hnsw_s* index, uint32_t id, float* out);

typedef struct korvex_stats_s {
  uint32_t size;  // bytes of this record, set by the caller: newer libraries fill more
  uint32_t dimension;
  uint32_t added;  // vectors that additions returned
  uint32_t deleted;
  uint32_t duplicates;  // hidden because they repeat another
  uint32_t unlinked;    // not yet reachable by a walk
  uint32_t probes;
  uint32_t constellation;
  uint64_t memory_bytes;  // of the records handed out, in all stores
  uint64_t disk_bytes;    // taken by the index's files; 0 in memory
  const char* kernels;    // the chosen distance kernels; static
} korvex_stats_s;
// Counts flags of every vector: time grows with the index. 0 or -1.
KORVEX_ENGINE_API int korvex_get_stats(hnsw_s* index, korvex_stats_s* stats);

// --- Search sessions ---

// Both are called on search threads without a lock, the filter from several at once; they may call
// any function of the index. Exceptions must not leave them.
// Excludes a public id when it returns non-zero; label is 0 while labels are off.
typedef int (*korvex_filter_callback_fn)(const void* data, unsigned id, unsigned long long label);
// The results of a search are ready. May start the next search or free the session.
typedef int (*korvex_result_callback_fn)(unsigned sid, const void* data);

// A session for one query at a time; 0 when there is none. See Korvex::createQuerySession.
KORVEX_ENGINE_API uint32_t korvex_search_init(hnsw_s* index, int k, void* user_data);
KORVEX_ENGINE_API void korvex_search_free(hnsw_s* index, uint32_t sid);
KORVEX_ENGINE_API void* korvex_search_get_userdata(hnsw_s* index, uint32_t sid);
KORVEX_ENGINE_API void korvex_search_set_callbacks(hnsw_s* index, uint32_t sid,
                                                   korvex_filter_callback_fn filter,
                                                   korvex_result_callback_fn result,
                                                   const void* data);
KORVEX_ENGINE_API void korvex_search_set_cbdata(hnsw_s* index, uint32_t sid, const void* data);
// 0 or KORVEX_FAILED.
KORVEX_ENGINE_API uint32_t korvex_search(hnsw_s* index, uint32_t sid, const float* query,
                                         int radius, int k);
KORVEX_ENGINE_API uint32_t korvex_search_more(hnsw_s* index, uint32_t sid);
KORVEX_ENGINE_API uint32_t korvex_search_refine(hnsw_s* index, uint32_t sid);
KORVEX_ENGINE_API uint32_t korvex_search_filter(hnsw_s* index, uint32_t sid, uint32_t id);
KORVEX_ENGINE_API int korvex_search_refine_vector(hnsw_s* index, uint32_t sid, const float* vector,
                                                  const void* attributes);  // always -1
// Wait for the running search; what they return lives until the session's next search.
KORVEX_ENGINE_API korvex_results_s* korvex_search_result(hnsw_s* index, uint32_t sid, int copy);
KORVEX_ENGINE_API korvex_result_ids_s* korvex_search_result_ids(hnsw_s* index, uint32_t sid,
                                                                int copy);
KORVEX_ENGINE_API korvex_result_dists_s* korvex_search_result_dists(hnsw_s* index, uint32_t sid,
                                                                    int copy);

// --- Bulk search ---

// Many queries through a few sessions. The record is opaque and serves one batch at a time.
typedef struct korvex_bulk_search_s korvex_bulk_search_s;
// Null when memory is short.
KORVEX_ENGINE_API korvex_bulk_search_s* korvex_bulk_search_alloc(void);
// Waits for a running batch, not on the thread of its callback; before the index is given up.
KORVEX_ENGINE_API void korvex_bulk_search_free(korvex_bulk_search_s* bulk);
// n queries row after row; they are copied. With a callback it returns at once and the callback
// comes once, when all are answered; without one it returns when most are. k below 1 means 10. 0 or
// KORVEX_FAILED.
KORVEX_ENGINE_API uint32_t korvex_bulk_search(hnsw_s* index, korvex_bulk_search_s* bulk,
                                              const float* vectors, int n, int radius, int k,
                                              korvex_result_callback_fn callback, const void* data);
// Waits for the whole batch; the rows live until the next batch. Null for a null record.
KORVEX_ENGINE_API korvex_bulk_results_s* korvex_bulk_search_results(hnsw_s* index,
                                                                    korvex_bulk_search_s* bulk);

// --- Direct search ---

// Excludes a public id when it returns non-zero; label is 0 while labels are off. Called on the
// searching thread.
typedef int (*korvex_direct_filter_fn)(void* context, uint32_t id, uint64_t label);

typedef struct korvex_direct_options_s {
  uint32_t size;  // bytes of this record; zero the rest for the defaults
  // candidates looked at, at least, and k if that is more; more finds more and takes longer.
  // 0: as many as a vector has neighbours
  int32_t radius;
  korvex_direct_filter_fn filter;  // null: none
  void* filter_context;
  const uint32_t* allowed_ids;  // public ids in any order; null: all
  size_t allowed_count;
  const uint64_t* allowed_bits;  // bit id % 64 of word id / 64 allows an id; null: all
  size_t allowed_bit_count;      // ids from here on are not allowed
  // For the whole call, 0: none. The row it meets holds what was found, those behind it are empty.
  uint64_t deadline_ms;
} korvex_direct_options_s;

// Answers n queries on the calling thread: no queue, no callback, no result cache. All pattern
// probes are walked.
// Shapes   queries [n x dimension] row-major; ids and distances [n x k] row-major; counts [n];
//          distances and counts may be null
// Units    raw distances of the metric
// Order    nearest first; a row with fewer than k hits ends in (KORVEX_NO_ID, NaN), counts[i] tells
//          how many are real
// Filters  excluded vectors still lead the walk on. When few are allowed, or the walk finds fewer
//          than it should, the allowed ones are scanned exactly: a row is short only when no more
//          vectors are allowed
// Result   rows answered before the deadline, all n without one; or -1: null pointers, k < 1 or
//          above 16,777,216, a query that is not finite while parameters are validated, no memory,
//          index given up
// Threads  any number at once, beside additions; sees every addition that returned before the call
KORVEX_ENGINE_API int64_t korvex_search_direct(hnsw_s* index, const float* queries, size_t n, int k,
                                               const korvex_direct_options_s* options,
                                               uint32_t* ids, float* distances, uint32_t* counts);

#ifdef __cplusplus
}
#endif

#endif  // KORVEX_ENGINE_H
