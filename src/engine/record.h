#ifndef KORVEX_ENGINE_RECORD_H
#define KORVEX_ENGINE_RECORD_H

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "math/kernels.h"
#include "math/metrics.h"
#include "runtime/memory_report.h"

namespace korvex {

struct jobq_s;
struct korvex_runtime_s;
struct mempool_s;
struct persistent_malloc_s;
struct scalable_bloom_filters_s;

inline constexpr std::uint32_t max_probes = 16;
inline constexpr std::uint32_t norm_buckets = 20;
inline constexpr std::uint32_t max_dimension = 1u << 20;
inline constexpr float largest_float = 3.4028235e38f;
// The negative of the smallest normal float: as a threshold it is under every distance.
inline constexpr float threshold_off = -1.17549435e-38f;

// One pattern probe as the record keeps it. 24 bytes; reaches disk.
struct probe_s {
  std::uint64_t reserved;
  std::uint32_t seed;   // internal id of the probe's first point; 0 while the probe is unused
  std::uint32_t count;  // points sent to this probe
  float ring;           // lower border of the probe's norm ring
  std::uint32_t pad;
};
static_assert(sizeof(probe_s) == 24, "part of the record");

// The state of one index that comes back when its file is opened again, and the few words that lead
// from it into this process. Everything else of an open index lives in korvex_runtime_s.
// Format      a block of the index file: widths and order never change, new fields go into the
//             reserved tail.
// Threads     configuration: the thread that creates the index, before the first addition.
//             Counters: std::atomic_ref.
struct hnsw_fields {
  // Configuration. Pointers are of this process and are set anew at every opening.
  persistent_malloc_s* memory_manager;
  std::uint32_t config_valid;
  std::uint32_t memory_initialised;  // stored with release once the stores are complete
  std::uint32_t vector_bytes;
  std::uint32_t element_bytes;
  std::uint32_t id_bytes;
  std::uint32_t dimension;
  std::uint32_t validate_parameters;
  std::uint32_t pattern_probes;
  std::uint32_t labels_enabled;
  std::uint32_t attributes_enabled;
  std::uint32_t allocation_units;
  std::uint32_t huge_pages;
  std::uint32_t allocation_units_flag;
  std::int32_t numa_node;
  std::uint32_t on_disk;
  char* directory;
  char* name;
  std::uint64_t disk_cache_size;
  std::uint32_t constant8;
  std::uint32_t instance_id;
  std::int32_t indexing_threads;
  std::int32_t search_threads;
  std::int32_t search_queue_limit;
  std::int32_t counter25;
  std::uint32_t neighbour_capacity;  // twice the constellation size
  std::uint32_t radius;
  std::uint32_t normalize;
  std::int32_t duplicate_mode;
  std::int32_t duplicate_option;
  float duplicate_threshold;
  std::uint32_t distance_type;
  float distance_range[2];  // the metric's value against the opposite vector, then against itself
  DistanceInterface* distance;
  distance_kernel distance_function;
  std::uint32_t stop_searching;
  std::uint32_t stop_indexing;
  std::uint32_t destroy_on_delete;
  scalable_bloom_filters_s* bloom;
  std::uint32_t max_search_count;
  std::uint32_t nid;
  memory_usage_s memory_usage;
  std::uint32_t parallel_search_jobs;
  mempool_s* search_pool;
  jobq_s* search_queue;
  std::int32_t log_handle;
  std::uint32_t log_enabled;

  // What the stores were built with; overrides the configuration of a reopened index.
  std::uint32_t shape_valid;
  std::uint32_t shape_units;
  std::uint32_t shape_capacity;
  std::uint32_t shape_probes;
  std::uint32_t shape_labels;
  std::uint32_t shape_attributes;
  std::uint32_t clean_close;  // 1 between a teardown that left no work undone and the next addition
  std::uint32_t index_check;  // a Bloom filter of indexed vectors is wanted
  std::uint64_t identity;     // random, tells this index's cached results from those of others

  // Counters of the graph.
  std::uint32_t added;       // ids published for linking
  std::uint32_t taken;       // ids claimed by linking
  std::uint32_t networked;   // ids whose linking is over
  std::uint32_t duplicates;  // ids found to repeat another and left unlinked
  std::uint32_t max_seed;
  std::uint32_t probes_made;
  std::uint32_t norm_probing;
  float expand_setting;
  float probe_step;
  std::uint32_t search_serial;
  double linked_distance_sum;
  std::uint16_t probe_slots[norm_buckets];
  probe_s probes[max_probes];

  // Of this process.
  korvex_runtime_s* runtime;
  std::uint8_t thread_slots[32];

  // Kept. Points up to this one were on the device at the last sync or close.
  std::uint32_t durable;
};

}  // namespace korvex

struct hnsw_s : korvex::hnsw_fields {
  std::uint8_t reserved[2056 - sizeof(korvex::hnsw_fields)];
};
static_assert(sizeof(hnsw_s) == 2056 && std::is_trivially_copyable_v<hnsw_s>,
              "the record is a block of the index file");

namespace korvex {

// Forgets everything that names a place in a process: at the close, so that equal indexes are equal
// bytes, and at the opening, because a process that was killed forgot nothing.
void clear_process_fields(hnsw_s* hnsw);

}  // namespace korvex

#endif  // KORVEX_ENGINE_RECORD_H
