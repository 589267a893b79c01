#include "engine/insertion.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <mutex>

#include "engine/distances.h"
#include "engine/indexing.h"
#include "engine/points.h"
#include "engine/startup.h"
#include "engine/sync.h"
#include "runtime/log.h"
#include "search/result_cache.h"
#include "storage/bloom_filter.h"

namespace korvex {

namespace {

constexpr int bad_entry_line = 1827;

// One addition, under the insert lock.
class insertion {
 public:
  insertion(hnsw_s* hnsw, const float* v, std::uint64_t label)
      : hnsw_(hnsw), runtime_(*hnsw->runtime), v_(v), label_(label) {}

  std::uint32_t public_id() const { return id_ - 1; }

  bool run() {
    korvex_begin_changes(hnsw_);
    if (!allocate()) return false;
    if (!store_vector()) return false;
    const bool is_first_of_probe = choose_probe();
    if (is_first_of_probe) {
      make_seed();
    } else {
      if (!find_entry()) return refuse_linking();
      korvex_launch_threads(hnsw_, 1);
      hand_over();
    }
    remember();
    return true;
  }

 private:
  // Takes an id and a record for it in every store. An id whose records could not be completed
  // stays for the next addition, so that ids keep their order.
  bool allocate() {
    unsigned id = runtime_.spare_id;
    if (!korvex_prepare_linking(hnsw_) ||
        (id == 0 && runtime_.store[vector_store]->alloc(&id, 1) == nullptr)) {
      KORVEX_LOG_CRITICAL("vector allocation failed\n");
      return false;
    }
    id_ = id;
    runtime_.spare_id = id;
    vectpool_c* const graphs = runtime_.store[graph_store];
    if (id >= graphs->size()) {
      unsigned list_id = 0;
      if (graphs->alloc(&list_id, 1) == nullptr || list_id != id) {
        KORVEX_LOG_CRITICAL("list allocation failed: %u %u\n", id, list_id);
        return false;
      }
    } else {
      KORVEX_LOG("node_id is reused: %u\n", id);
    }
    for (std::uint32_t index = magnitude_store; index < store_count; ++index) {
      vectpool_c* const store = runtime_.store[index];
      while (store != nullptr && store->size() <= id) {
        unsigned other = 0;
        if (store->alloc(&other, 1) != nullptr) continue;
        KORVEX_LOG_CRITICAL("list allocation failed: %u %u\n", id, other);
        return false;
      }
    }
    return true;
  }

  bool store_vector() {
    graph_ = graph_of(runtime_, id_);
    stored_ = static_cast<float*>(record_of(runtime_, vector_store, id_));
    if (!graph_ || stored_ == nullptr) {
      KORVEX_LOG("*** BUG *** null buffer for id: %u\n", id_);
      KORVEX_LOG_CRITICAL("vector buffer failed\n");
      return false;
    }
    graph_.clear_handover();
    std::memcpy(stored_, v_, hnsw_->vector_bytes);
    if (hnsw_->normalize != 0) normalize_vector(stored_, stored_, hnsw_->dimension);
    korvex_expand_vector(hnsw_, stored_);
    runtime_.last_magnitude =
        normalize_vector(stored_, runtime_.unit_scratch.get(), hnsw_->dimension);
    clear_flags(runtime_, id_, 0xFF);
    if (runtime_.labels)
      *static_cast<std::uint64_t*>(record_of(runtime_, label_store, id_)) = label_;
    // Last: after a kill it proves the rest.
    std::atomic_ref(*static_cast<float*>(record_of(runtime_, magnitude_store, id_)))
        .store(magnitude_word(runtime_.last_magnitude), std::memory_order_release);
    return true;
  }

  // True when the point opens its probe.
  bool choose_probe() {
    if (hnsw_->norm_probing != 0) return choose_probe_by_norm();
    probe_ = probe_of(hnsw_, id_);
    return id_ <= runtime_.probe_count;
  }

  bool choose_probe_by_norm() {
    probe_ = 0;
    if (id_ == 1) {
      hnsw_->probes[0].ring = 0.0f;
      hnsw_->probes_made = std::max(hnsw_->probes_made, 1u);
      return true;
    }
    const float distance = korvex_get_norm_distance(hnsw_, 1, runtime_.unit_scratch.get());
    const bool measurable = hnsw_->probe_step > 0.0f && distance == distance;
    const float quotient = measurable ? distance / hnsw_->probe_step : 0.0f;
    const auto ring = static_cast<std::uint32_t>(
        std::clamp(quotient, 0.0f, static_cast<float>(norm_buckets - 1)));
    if (ring < 1) return false;
    probe_ = hnsw_->probe_slots[ring];
    if (probe_ != 0 || hnsw_->probes_made >= runtime_.probe_count) return false;
    probe_ = hnsw_->probes_made++;
    hnsw_->probe_slots[ring] = static_cast<std::uint16_t>(probe_);
    hnsw_->probes[probe_].ring = static_cast<float>(ring) * hnsw_->probe_step;
    return true;
  }

  bool find_entry() {
    std::atomic_ref(hnsw_->probes[probe_].count).fetch_add(1, std::memory_order_relaxed);
    vector_hash_node_s node;
    node.id = id_;
    node.query = stored_;
    node.vector = runtime_.unit_scratch.get();
    node.aux = runtime_.last_magnitude;
    vector_hash_node_s answer;
    vector_hash_add_point(runtime_.hash[probe_], &node, &answer);
    star_ = answer.placed;
    const bool found = answer.id != 0 && same_probe(hnsw_, answer.id, id_);
    entry_ = found ? answer.id : probe_seed(hnsw_, probe_);
    if (entry_ != 0 && entry_ < id_) return true;
    KORVEX_LOG("*** BUG *** bad nid: %u %u line %d\n", entry_, id_, bad_entry_line);
    return false;
  }

  // The id keeps its place in the order, hidden and never linked.
  bool refuse_linking() {
    set_flags(runtime_, id_, flag_deleted);
    graph_.set_slot(3, unlinkable_marker);
    publish();
    return false;
  }

  void make_seed() {
    std::atomic_ref(hnsw_->probes[probe_].seed).store(id_, std::memory_order_release);
    std::atomic_ref(hnsw_->max_seed)
        .store(std::max(hnsw_->max_seed, id_), std::memory_order_release);
    vector_hash_set_ep_id(runtime_.hash[probe_], id_, runtime_.unit_scratch.get());
    graph_.set_slot(0, 0);
    graph_.set_slot(3, seed_marker);
    publish();
  }

  void hand_over() {
    graph_.set_slot(1, entry_);
    graph_.set_slot(2, star_);
    publish();
  }

  void publish() {
    if (hnsw_->norm_probing == 0)
      std::atomic_ref(hnsw_->probes_made)
          .store(std::max(hnsw_->probes_made, std::min(id_, runtime_.probe_count)));
    runtime_.spare_id = 0;
    korvex_publish(hnsw_, id_);
  }

  void remember() {
    if (hnsw_->bloom != nullptr && hnsw_->index_check != 0)
      sbf_add(hnsw_->bloom, v_, hnsw_->vector_bytes);
    cache_search_invalidate();
  }

  hnsw_s* const hnsw_;
  korvex_runtime_s& runtime_;
  const float* const v_;
  const std::uint64_t label_;
  float* stored_ = nullptr;
  graph_record graph_;
  std::uint32_t id_ = 0;
  std::uint32_t probe_ = 0;
  std::uint32_t entry_ = 0;
  std::uint32_t star_ = 0;
};

}  // namespace

bool all_finite(const float* v, std::uint32_t dimension) {
  // A sum of v - v stays 0 exactly when no component is infinite or not a number; one pass without
  // branches.
  float sum = 0.0f;
  for (std::uint32_t i = 0; i < dimension; ++i) sum += v[i] - v[i];
  return sum == 0.0f;
}

bool korvex_try_add(hnsw_s* hnsw, const float* v, std::uint64_t label, std::uint32_t* id) {
  if (hnsw == nullptr || v == nullptr) return false;
  if (hnsw->validate_parameters != 0 && !all_finite(v, hnsw->dimension)) {
    KORVEX_LOG_CRITICAL("a vector with components that are not finite was refused\n");
    return false;
  }
  korvex_runtime_s& runtime = *hnsw->runtime;
  runtime.multi_done.store(0);
  runtime.stop_adding.store(0);
  korvex_init_memory(hnsw);
  bool added = false;
  {
    std::lock_guard lock(runtime.insert_lock);
    insertion addition(hnsw, v, label);
    added = addition.run();
    if (added && id != nullptr) *id = addition.public_id();
  }
  // Linked by this thread: the host may add from its callback, so no lock is held.
  if (runtime.indexing_threads == 0) korvex_notify_ready(hnsw);
  return added;
}

std::uint32_t korvex_add(hnsw_s* hnsw, const float* v, std::uint64_t label) {
  std::uint32_t id = 0;
  return korvex_try_add(hnsw, v, label, &id) ? id : 0;
}

void korvex_add_multiple(hnsw_s* hnsw, const float* v, int n, std::uint32_t* first,
                         std::uint32_t* last) {
  std::uint32_t ids[2] = {0, 0};
  for (int i = 0; hnsw != nullptr && v != nullptr && i < n; ++i) {
    if (load_counter(hnsw->stop_indexing) != 0) break;  // given up under the call
    ids[1] = korvex_add(hnsw, v + static_cast<std::size_t>(i) * hnsw->dimension, 0);
    if (i == 0) ids[0] = ids[1];
  }
  if (first != nullptr) *first = ids[0];
  if (last != nullptr) *last = ids[1];
  if (hnsw == nullptr || v == nullptr) return;
  if (n > 1) hnsw->runtime->multi_done.store(1);
}

}  // namespace korvex
