#ifndef KORVEX_ENGINE_RUNTIME_H
#define KORVEX_ENGINE_RUNTIME_H

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "engine/record.h"
#include "runtime/sync.h"
#include "storage/int_set.h"
#include "storage/vector_hash.h"
#include "storage/vector_store.h"

namespace korvex {

struct korvex_nbrs_s;

// Per-node stores, by their number in file names minus one.
enum store_index : std::uint32_t {
  vector_store = 0,
  graph_store = 1,
  magnitude_store = 2,
  flags_store = 3,
  label_store = 4,
  attribute_store = 5,
  store_count = 6,
};

// Called once per engine when its layers above were built; see korvex_search_global_init.
struct search_hooks {
  void (*cancel_queued)(hnsw_s*) = nullptr;  // completes every queued job as empty
  void (*release)(hnsw_s*) = nullptr;        // frees what the sessions of the pool still hold
};

struct deferred_s {
  std::uint32_t id;
  std::uint32_t entry;
  std::uint64_t queued;  // microseconds
};

// What a point's record carries from its addition to its linking.
struct handover_s {
  std::uint32_t first;   // slot 0: a neighbour when another point linked to it meanwhile
  std::uint32_t entry;   // slot 1: where the walk starts
  std::uint32_t star;    // slot 2
  std::uint32_t marker;  // slot 3: seed_marker or unlinkable_marker
};
inline constexpr std::uint32_t seed_marker = 0xFFFFFFFFu;
inline constexpr std::uint32_t unlinkable_marker = 0xFFFFFFFEu;

inline constexpr std::uint32_t deferred_capacity = 16;

// Everything of an open index that lives only in this process.
// Ownership   `users` counts the host's claim, every engine thread and every call that is under
//             way; the last one out after the close frees the stores and the record. `handles`
//             counts those who may still ask whether the index is open (the index itself, query
//             objects); the last one frees this object.
// Threads     the frozen settings are written once before memory_initialised is released; the rest
//             says its lock.
struct korvex_runtime_s {
  explicit korvex_runtime_s(hnsw_s* record) : hnsw(record) {}

  hnsw_s* const hnsw;

  // Frozen by the start-up.
  std::uint32_t dimension = 0;
  std::uint32_t vector_bytes = 0;
  std::uint32_t probe_count = 0;
  std::uint32_t neighbour_count = 0;
  std::int32_t construction_beam = 0;
  std::int32_t indexing_threads = 0;
  bool labels = false;
  bool attributes = false;
  vectpool_c* store[store_count] = {};
  vectpool_c* star_pool = nullptr;
  vector_hash_s* hash[max_probes] = {};
  std::unique_ptr<vectpool_conf_s> store_config;
  std::string store_prefix;  // of the configuration
  std::uint64_t memory_budget = 0;
  korvex_nbrs_s* work[2] = {};  // the lists of inline linking
  std::unique_ptr<float[]> hash_scratch;
  mempool_s* result_pool = nullptr;
  int32find_s vmapg{};
  bool vmapg_ready = false;

  // Points among 1..added that are deleted or duplicates; follows every change of their flags.
  mutable std::atomic<std::uint32_t> hidden{0};

  // Direction and kernel follow the metric; changed under startup_lock.
  std::atomic<float> direction{1.0f};
  std::atomic<distance_kernel> distance_function{nullptr};
  std::atomic<distance_batch4_kernel> distance_batch{nullptr};     // stored before the single one
  std::atomic<distance_bounded_kernel> distance_bounded{nullptr};  // as well; null: no such kernel

  // Lock order: startup, insert, add, store.
  std::mutex startup_lock;
  std::mutex insert_lock;

  // Under insert_lock.
  std::unique_ptr<float[]> unit_scratch;
  std::shared_ptr<void> inline_linker;  // the scratch of inline linking, made on first use
  float last_magnitude = 0.0f;
  std::uint32_t spare_id = 0;  // allocated by an addition that failed later; the next one takes it

  // Under add_lock.
  std::mutex add_lock;
  deferred_s deferred[deferred_capacity] = {};
  std::uint32_t deferred_count = 0;
  std::deque<handover_s> relink;         // points whose linking a crash cut off; .star holds the id
  std::vector<std::uint32_t> in_flight;  // ids that indexing threads hold now; has room for all

  cond_var_s add_cond{};
  std::atomic<std::uint32_t> cond_waiters{0};
  std::atomic<std::uint32_t> running_threads{0};
  std::atomic<std::uint32_t> stop_adding{0};
  std::atomic<std::uint32_t> multi_done{0};
  std::atomic<std::uint32_t> list_rewrites{0};  // orders the threads that drop links

  // Ready notice: context before callback, callback exchanged to fire once.
  std::atomic<std::uint32_t> ready_threshold{0};
  std::atomic<std::uint32_t> ready_notified{0};
  std::atomic<void*> ready_context{nullptr};
  std::atomic<int (*)(void*, std::uint32_t, std::uint32_t)> ready_callback{nullptr};

  // Of the search layer.
  std::mutex search_mutex;                 // guards the callbacks and views of sessions, and:
  std::vector<void*> session_attachments;  // one for every session record that was ever handed out
  std::uint32_t vector_slot = 0;           // bytes a query takes in a session record
  std::mutex scratch_lock;                 // guards:
  std::vector<std::shared_ptr<void>> idle_scratch;  // of direct searches, kept between calls
  search_hooks search{};
  std::atomic<int> result_cache_mode{1};
  std::atomic<bool> cache_advice_given{false};

  std::atomic<bool> directory_refused{false};  // the device refused the names of its files once

  // Of the files that are deleted after the release; empty: none are.
  std::string files_directory;
  std::string files_name;

  // Lifetime; see runtime_use and runtime_handle.
  std::atomic<std::uint64_t> users{1};
  std::atomic<bool> users_gone{false};  // after the close: everything but this object is released
  std::atomic<std::uint32_t> handles{1};
};

inline constexpr std::uint64_t runtime_closed = std::uint64_t{1} << 63;

// Indexes on disk that this process has given up and not yet released: their files are in use.
inline std::atomic<int> indexes_closing{0};

// Gives up one claim; the last one after the close releases the index. Safe on any thread.
void runtime_release_use(korvex_runtime_s* runtime);
void runtime_add_handle(korvex_runtime_s* runtime);
void runtime_release_handle(korvex_runtime_s* runtime);

// A claim on an open index for the time of a call or a thread. Empty once the index is closed.
class runtime_use {
 public:
  explicit runtime_use(korvex_runtime_s* runtime);
  ~runtime_use() {
    if (runtime_ != nullptr) runtime_release_use(runtime_);
  }
  runtime_use(const runtime_use&) = delete;
  runtime_use& operator=(const runtime_use&) = delete;

  explicit operator bool() const { return runtime_ != nullptr; }
  // Hands the claim to somebody who calls runtime_release_use.
  korvex_runtime_s* detach() {
    korvex_runtime_s* runtime = runtime_;
    runtime_ = nullptr;
    return runtime;
  }

 private:
  korvex_runtime_s* runtime_ = nullptr;
};

// The order inside the engine: smaller is nearer, whatever the metric. Not a number sorts last.
inline float key_of(float direction, float distance) {
  const float key = direction * distance;
  return key == key ? key : largest_float;
}

// Whether the stores and the frozen settings may be used. Everything that the start-up wrote is
// visible then.
inline bool is_started(const hnsw_s* hnsw) {
  return std::atomic_ref<std::uint32_t>(const_cast<std::uint32_t&>(hnsw->memory_initialised))
             .load(std::memory_order_acquire) != 0;
}

inline std::uint32_t load_counter(const std::uint32_t& word) {
  return std::atomic_ref<std::uint32_t>(const_cast<std::uint32_t&>(word))
      .load(std::memory_order_acquire);
}

}  // namespace korvex

#endif  // KORVEX_ENGINE_RUNTIME_H
