#include "engine/startup.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <mutex>
#include <new>
#include <stdexcept>
#include <string>

#include "engine/distances.h"
#include "engine/neighbours.h"
#include "engine/points.h"
#include "engine/repair.h"
#include "engine/runtime.h"
#include "engine/startup_report.h"
#include "engine/store_layout.h"
#include "engine/stored_record.h"
#include "math/topology.h"
#include "runtime/log.h"
#include "runtime/platform/memory.h"
#include "runtime/random.h"
#include "search/result_cache.h"
#include "storage/bloom_filter.h"
#include "storage/data_cache.h"
#include "storage/mapping.h"
#include "storage/mempool.h"

namespace korvex {

namespace {

constexpr std::uint32_t default_units = 1'000'000;
constexpr std::uint64_t log_ring_bytes = 64'000;
constexpr std::uint64_t percentage_cache_limit = 52'428'800;
constexpr unsigned result_element_bytes = 40;
constexpr int result_first_chunk = 128;

// 0 when unknown.
std::uint64_t memory_budget(const korvex_runtime_s& runtime) {
  const std::uint64_t bytes =
      runtime.memory_budget != 0 ? runtime.memory_budget : platform::available_memory();
  const double available = static_cast<double>(bytes);
  return static_cast<std::uint64_t>(std::max(available * 0.8, available - 4'000'000'000.0));
}

// A reopened index keeps the geometry that its files were made with.
void take_shape(hnsw_s* hnsw) {
  if (hnsw->shape_valid == 0) return;
  const bool differs = hnsw->allocation_units != hnsw->shape_units ||
                       hnsw->neighbour_capacity != hnsw->shape_capacity ||
                       hnsw->pattern_probes != hnsw->shape_probes ||
                       hnsw->labels_enabled != hnsw->shape_labels ||
                       hnsw->attributes_enabled != hnsw->shape_attributes;
  hnsw->allocation_units = hnsw->shape_units;
  hnsw->neighbour_capacity = hnsw->shape_capacity;
  hnsw->pattern_probes = hnsw->shape_probes;
  hnsw->labels_enabled = hnsw->shape_labels;
  hnsw->attributes_enabled = hnsw->shape_attributes;
  if (differs)
    KORVEX_LOG(
        "the index keeps the layout that it was created with; changed options are ignored\n");
}

void keep_shape(hnsw_s* hnsw) {
  hnsw->shape_units = hnsw->allocation_units;
  hnsw->shape_capacity = hnsw->neighbour_capacity;
  hnsw->shape_probes = hnsw->pattern_probes;
  hnsw->shape_labels = hnsw->labels_enabled;
  hnsw->shape_attributes = hnsw->attributes_enabled;
}

std::uint64_t graph_record_bytes(const hnsw_s* hnsw) {
  return (graph_slots(hnsw->neighbour_capacity) + 1) * hnsw->id_bytes;
}

void choose_units(hnsw_s* hnsw, std::uint64_t budget) {
  if (hnsw->allocation_units == 0) hnsw->allocation_units = default_units;
  if (hnsw->on_disk != 0 || budget == 0) return;
  const std::uint64_t point_bytes = hnsw->vector_bytes + graph_record_bytes(hnsw);
  const std::uint64_t fitting = std::max<std::uint64_t>(budget / point_bytes, 1);
  hnsw->allocation_units =
      static_cast<std::uint32_t>(std::min<std::uint64_t>(hnsw->allocation_units, fitting));
}

// Bytes of the disk cache, 0 for none.
std::uint64_t disk_cache_bytes(hnsw_s* hnsw, std::uint64_t budget) {
  if (hnsw->on_disk == 0) return 0;
  // More than the machine has was asked for on another one, or never.
  const std::uint64_t most = std::max<std::uint64_t>(platform::available_memory(), 100);
  if (hnsw->disk_cache_size == 0 || hnsw->disk_cache_size >= 100)
    return std::min(hnsw->disk_cache_size, most);
  const std::uint64_t bytes = hnsw->disk_cache_size * budget / 100;
  if (bytes <= percentage_cache_limit) return bytes;
  hnsw->disk_cache_size = percentage_cache_limit;
  return percentage_cache_limit;
}

void select_metric_if_unset(hnsw_s* hnsw) {
  if (hnsw->distance != nullptr) return;
  korvex_select_metric(hnsw, hnsw->distance_type != 0
                                 ? static_cast<korvex_distance_type>(hnsw->distance_type)
                                 : DISTANCE_L2_SQUARE);
}

// The start-up makes the metric that could not be made when it was asked for.
void keep_wish(hnsw_s* hnsw, korvex_distance_type type) {
  delete hnsw->distance;
  hnsw->distance = nullptr;
  hnsw->distance_type = type;
  hnsw->runtime->distance_function.store(nullptr);
}

class startup {
 public:
  explicit startup(hnsw_s* hnsw) : hnsw_(hnsw), runtime_(*hnsw->runtime) {}

  void run() {
    take_shape(hnsw_);
    select_metric_if_unset(hnsw_);
    hnsw_->vector_bytes = hnsw_->element_bytes * hnsw_->dimension;
    const std::uint64_t budget = memory_budget(runtime_);
    choose_units(hnsw_, budget);
    freeze();
    // Says nothing to a later opening before shape_valid does.
    keep_shape(hnsw_);
    configure_stores(disk_cache_bytes(hnsw_, budget));
    create_stores();
    cache_search_init(cache_store_kind, runtime_.store_config.get());
    create_lists();
    int32find_init(&runtime_.vmapg, 1024, "vmapg");
    runtime_.vmapg_ready = true;
    if (hnsw_->index_check != 0) korvex_create_bloom(hnsw_);
    create_hashes();
    runtime_.result_pool = mempool_init(result_element_bytes, static_cast<int>(hnsw_->constant8),
                                        result_first_chunk, 0, 0);
    print_startup_box(hnsw_, cache_bytes_);
    print_startup_memory(hnsw_);
    reserve_node_zero();
    korvex_repair(hnsw_);
    release_link_locks(runtime_);
    count_hidden(hnsw_);
    hnsw_->shape_valid = 1;
  }

 private:
  void freeze() {
    hnsw_->pattern_probes = std::clamp<std::uint32_t>(hnsw_->pattern_probes, 1, max_probes);
    runtime_.dimension = hnsw_->dimension;
    runtime_.vector_bytes = hnsw_->vector_bytes;
    runtime_.probe_count = hnsw_->pattern_probes;
    runtime_.neighbour_count = hnsw_->neighbour_capacity;
    // Options and files may say anything; these limits are far beyond what a machine can use.
    runtime_.construction_beam = static_cast<std::int32_t>(std::min(hnsw_->radius, 1u << 20));
    runtime_.indexing_threads = std::clamp(hnsw_->indexing_threads, 0, 1024);
    runtime_.labels = hnsw_->labels_enabled != 0;
    runtime_.attributes = hnsw_->attributes_enabled != 0;
    // A point for each indexing thread: these have nobody to tell that memory is short.
    runtime_.in_flight.reserve(static_cast<std::size_t>(runtime_.indexing_threads) + 1);
  }

  void configure_stores(std::uint64_t cache_bytes) {
    cache_bytes_ = cache_bytes;
    const std::string name = hnsw_->name != nullptr ? hnsw_->name : "";
    runtime_.store_prefix = store_prefix(name, vector_store + 1);
    auto config = std::make_unique<vectpool_conf_s>();
    config->directory = hnsw_->directory;
    config->prefix = hnsw_->on_disk != 0 ? runtime_.store_prefix.c_str() : nullptr;
    config->extension = index_extension;
    config->huge_pages = hnsw_->huge_pages;
    config->numa_node = hnsw_->numa_node;
    config->persistent = hnsw_->on_disk;
    runtime_.store_config = std::move(config);
    if (cache_bytes == 0) return;
    const std::uint64_t records = cache_bytes / (hnsw_->vector_bytes + graph_record_bytes(hnsw_));
    cache_records_ = static_cast<std::uint32_t>(std::min<std::uint64_t>(
        records, static_cast<std::uint64_t>(std::numeric_limits<int>::max())));
    cache_mode_ = set_memory_lock_limits(cache_bytes) != 0 ? 1 : 2;
    KORVEX_LOG("Enabling disk cache: %llu mode %d\n", static_cast<unsigned long long>(cache_bytes),
               static_cast<int>(cache_mode_));
  }

  void create_stores() {
    for (std::uint32_t index = 0; index < store_count; ++index) {
      const auto kind = static_cast<std::uint8_t>(index + 1);
      if (!has_store(*hnsw_, kind)) continue;
      vectpool_conf_s config = *runtime_.store_config;
      if (index <= graph_store) {
        config.cache_size = cache_records_;
        config.cache_mode = cache_mode_;
      }
      const store_plan plan = plan_store(*hnsw_, kind);
      const std::string prefix = store_prefix(hnsw_->name != nullptr ? hnsw_->name : "", kind);
      if (hnsw_->on_disk != 0) config.prefix = prefix.c_str();
      if (plan.record_bytes > std::numeric_limits<unsigned>::max())
        throw std::length_error("a record of a store is too large");
      runtime_.store[index] = new vectpool_c(static_cast<unsigned>(plan.record_bytes),
                                             plan.block_bytes, plan.alignment, kind, &config);
    }
  }

  void create_lists() {
    const int beam = 2 * std::max(runtime_.construction_beam, 100);
    runtime_.work[0] = korvex_nbrs_alloc(hnsw_, beam);
    runtime_.work[1] = korvex_nbrs_alloc(hnsw_, static_cast<int>(2 * runtime_.neighbour_count));
    if (runtime_.work[0] == nullptr || runtime_.work[1] == nullptr) throw std::bad_alloc();
    runtime_.unit_scratch.reset(new float[hnsw_->dimension]);
  }

  void create_hashes() {
    const std::uint32_t width = star_width(runtime_.probe_count);
    runtime_.star_pool = vector_hash_pool(star_store_kind, runtime_.store_config.get());
    runtime_.hash_scratch.reset(new float[hnsw_->dimension]);
    const vector_hash_distance_fn distance =
        cache_bytes_ != 0 ? korvex_get_hash_distance_cached : korvex_get_hash_distance;
    for (std::uint32_t probe = 0; probe < runtime_.probe_count; ++probe) {
      const int dimension = static_cast<int>(hnsw_->dimension);
      vector_hash_s* const hash =
          vector_hash_init(dimension, dimension, width, runtime_.star_pool, hnsw_->memory_manager,
                           10 * (probe + 1), distance, hnsw_);
      if (hash == nullptr) throw std::runtime_error("no room for a vector hash");
      vector_hash_set_scan(
          hash, cache_bytes_ != 0 ? korvex_get_hash_distances_cached : korvex_get_hash_distances);
      runtime_.hash[probe] = hash;
    }
  }

  // Id 0 is never handed out: it ends neighbour lists. A reopened store has its own already.
  void reserve_node_zero() {
    for (std::uint32_t index = 0; index < store_count; ++index) {
      vectpool_c* const store = runtime_.store[index];
      if (store == nullptr || store->size() != 0) continue;
      unsigned id = 0;
      void* const record = store->alloc(&id, 1);
      if (record == nullptr) throw std::runtime_error("no room for the first record of a store");
      if (index != vector_store) continue;
      auto* const vector = static_cast<float*>(record);
      for (std::uint32_t i = 0; i < hnsw_->dimension; ++i)
        vector[i] = static_cast<float>(random_double());
      normalize_vector(vector, vector, hnsw_->dimension);
    }
  }

  hnsw_s* const hnsw_;
  korvex_runtime_s& runtime_;
  std::uint64_t cache_bytes_ = 0;
  std::uint32_t cache_records_ = 0;
  std::uint32_t cache_mode_ = 0;
};

}  // namespace

void korvex_process_start() {
  static std::once_flag once;
  std::call_once(once, [] {
    std::srand(static_cast<unsigned>(std::time(nullptr)));
    seed_random(static_cast<std::uint64_t>(std::rand()));
    log_init(log_ring_bytes, 0);
  });
  log_setlevel(0);
  cpu_core_init();
  distance_init();
}

void korvex_select_metric(hnsw_s* hnsw, korvex_distance_type type) {
  std::unique_ptr<DistanceInterface> chosen;
  float self = 0;
  float opposite = 0;
  try {
    chosen = create_distance(type, static_cast<int>(hnsw->dimension));
    chosen->reference_distance(&self, &opposite);
  } catch (const std::bad_alloc&) {
    if (!is_started(hnsw)) keep_wish(hnsw, type);
    throw;
  }
  delete hnsw->distance;
  hnsw->distance = chosen.release();
  hnsw->distance_type = type;
  hnsw->distance_function = hnsw->distance->get_distance_function();
  hnsw->distance_range[0] = opposite;
  hnsw->distance_range[1] = self;
  korvex_runtime_s& runtime = *hnsw->runtime;
  runtime.direction.store(self < opposite ? 1.0f : -1.0f);
  runtime.distance_batch.store(
      distance_batch4_function(hnsw->distance_type, static_cast<int>(hnsw->dimension)),
      std::memory_order_relaxed);
  runtime.distance_bounded.store(
      distance_bounded_function(hnsw->distance_type, static_cast<int>(hnsw->dimension)),
      std::memory_order_relaxed);
  runtime.distance_function.store(hnsw->distance_function, std::memory_order_release);
}

void korvex_choose_metric(hnsw_s* hnsw) {
  if (hnsw->runtime->distance_function.load(std::memory_order_acquire) != nullptr) return;
  std::lock_guard lock(hnsw->runtime->startup_lock);
  select_metric_if_unset(hnsw);
}

void korvex_create_bloom(hnsw_s* hnsw) {
  scalable_bloom_filters_s* const bloom = sbf_create(
      hnsw->allocation_units, 0.001, 0.75, 0, hnsw->runtime->store_config.get(), bloom_store_kind);
  std::atomic_ref(hnsw->bloom).store(bloom, std::memory_order_release);
}

void korvex_release_stores(hnsw_s* hnsw) {
  korvex_runtime_s& runtime = *hnsw->runtime;
  for (vectpool_c*& store : runtime.store) {
    delete store;
    store = nullptr;
  }
  for (vector_hash_s*& hash : runtime.hash) {
    if (hash != nullptr) vector_hash_destroy(hash, hnsw->memory_manager);
    hash = nullptr;
  }
  delete runtime.star_pool;
  runtime.star_pool = nullptr;
  if (hnsw->bloom != nullptr) sbf_destroy(hnsw->bloom);
  hnsw->bloom = nullptr;
  runtime.hash_scratch.reset();
  runtime.unit_scratch.reset();
  for (korvex_nbrs_s*& work : runtime.work) {
    korvex_nbrs_free(work);
    work = nullptr;
  }
  if (runtime.vmapg_ready) int32find_free(&runtime.vmapg);
  runtime.vmapg_ready = false;
  if (runtime.result_pool != nullptr) mempool_destroy(runtime.result_pool);
  runtime.result_pool = nullptr;
}

void korvex_init_memory(hnsw_s* hnsw) {
  if (load_counter(hnsw->memory_initialised) != 0) return;
  std::lock_guard lock(hnsw->runtime->startup_lock);
  if (load_counter(hnsw->memory_initialised) != 0) return;
  try {
    startup(hnsw).run();
  } catch (...) {
    korvex_release_stores(hnsw);
    throw;
  }
  std::atomic_ref(hnsw->memory_initialised).store(1, std::memory_order_release);
}

bool korvex_try_init_memory(hnsw_s* hnsw) {
  try {
    korvex_init_memory(hnsw);
    return true;
  } catch (const std::exception& error) {
    KORVEX_LOG_CRITICAL("the index could not be started: %s\n", error.what());
    return false;
  }
}

void korvex_available_memory(hnsw_s* hnsw, std::uint64_t bytes) {
  if (hnsw != nullptr && load_counter(hnsw->memory_initialised) == 0)
    hnsw->runtime->memory_budget = bytes;
}

}  // namespace korvex
