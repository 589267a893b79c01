#include "engine/linking.h"

#include <algorithm>
#include <thread>

#include "engine/inbound.h"
#include "engine/points.h"
#include "engine/runtime.h"
#include "engine/scoring.h"
#include "runtime/log.h"

namespace korvex {

namespace {

constexpr int max_repositions = 10;

float key_between(const korvex_runtime_s& runtime, const float* a, const float* b) {
  const distance_kernel distance = runtime.distance_function.load(std::memory_order_acquire);
  return key_of(runtime.direction.load(std::memory_order_relaxed),
                distance(a, b, runtime.dimension));
}

const float* vector_or_report(const korvex_runtime_s& runtime, std::uint32_t id) {
  const float* const vector = vector_of(runtime, id);
  if (vector == nullptr) KORVEX_LOG("*** BUG *** null buffer for id: %u\n", id);
  return vector;
}

void prefetch_vector(const korvex_runtime_s& runtime, const row_scorer& scorer, std::uint32_t id) {
  const float* const vector = vector_of(runtime, id);
  if (vector != nullptr) scorer.prefetch(vector);
}

// Whether no chosen neighbour is nearer to the candidate than the node is.
bool diverse(const row_scorer& scorer, float direction, const korvex_nbrs_s& nbrs,
             std::uint32_t chosen, const float* candidate, float key) {
  if (candidate == nullptr) return true;
  for (std::uint32_t i = 0; i < chosen; ++i) {
    const float* const other = nbrs.selection_vectors[i];
    if (other != nullptr && key_of(direction, scorer.score_bounded(candidate, other, key)) < key)
      return false;
  }
  return true;
}

// Fills nbrs->selection and nbrs->distances; the number chosen.
std::uint32_t select(const korvex_runtime_s& runtime, korvex_nbrs_s* nbrs, std::uint32_t max) {
  const bool take_all = static_cast<std::uint32_t>(nbrs->candidates->size()) < max;
  const row_scorer scorer(runtime);
  const float direction = runtime.direction.load(std::memory_order_relaxed);
  std::uint32_t chosen = 0;
  std::uint32_t id = 0;
  float key = 0;
  while (chosen < max && korvex_nbrs_take_front(nbrs, &id, &key)) {
    if (!take_all) {
      if (const auto* next = static_cast<const korvex_nelem_s*>(nbrs->candidates->peek_front()))
        prefetch_vector(runtime, scorer, next->id);
      const float* const vector = vector_or_report(runtime, id);
      if (!diverse(scorer, direction, *nbrs, chosen, vector, key)) continue;
      nbrs->selection_vectors[chosen] = vector;
    }
    nbrs->selection[chosen] = id;
    nbrs->distances[chosen++] = key;
  }
  return chosen;
}

// The end mark first, the last slot first, slot 0 last: a reader never runs over old words.
void write_list(graph_record graph, const korvex_nbrs_s& nbrs, std::uint32_t chosen,
                std::uint32_t neighbour_count) {
  if (chosen < neighbour_count) graph.set_slot(chosen, 0);
  for (std::uint32_t i = chosen; i-- > 0;) graph.set_slot(i, nbrs.selection[i]);
  graph.set_worst(chosen != 0 ? nbrs.distances[chosen - 1] : 0.0f);
}

// A point without flags can never be linked and counts as done.
enum class lock_result { taken, busy, missing };
lock_result try_lock(const korvex_runtime_s& runtime, std::uint32_t id) {
  std::uint8_t* const flags = flags_of(runtime, id);
  if (flags == nullptr) return lock_result::missing;
  const std::uint8_t before =
      std::atomic_ref<std::uint8_t>(*flags).fetch_or(flag_link_lock, std::memory_order_acquire);
  return (before & flag_link_lock) == 0 ? lock_result::taken : lock_result::busy;
}

void unlock(const korvex_runtime_s& runtime, std::uint32_t id) {
  std::atomic_ref<std::uint8_t>(*flags_of(runtime, id))
      .fetch_and(static_cast<std::uint8_t>(~flag_link_lock), std::memory_order_release);
}

// May wait, because nobody waits who holds one. False when there is no bit to take.
bool wait_for_lock(const korvex_runtime_s& runtime, std::uint32_t id) {
  lock_result result = try_lock(runtime, id);
  while (result == lock_result::busy) {
    std::this_thread::yield();
    result = try_lock(runtime, id);
  }
  return result == lock_result::taken;
}

// Empties a point's own list; what early reverse links stood there is noted.
void set_aside_list(const korvex_runtime_s& runtime, graph_record graph, std::uint32_t node,
                    korvex_nbrs_s* nbrs) {
  if (graph.slot(0) != 0) {
    const bool locked = wait_for_lock(runtime, node);
    note_links(runtime, graph, node, nbrs);
    graph.set_slot(0, 0);
    if (locked) unlock(runtime, node);
  }
  graph.set_worst(0.0f);
}

bool hold_at(korvex_runtime_s& runtime, std::uint32_t neighbour, std::uint32_t node) {
  if (!wait_for_lock(runtime, neighbour)) return false;
  const bool held = hold_link(runtime, graph_of(runtime, neighbour), neighbour, node);
  unlock(runtime, neighbour);
  return held;
}

// The reverse link: `node` into the list of `neighbour`, whose lock bit the caller holds.
class reverse_link {
 public:
  reverse_link(hnsw_s* hnsw, korvex_nbrs_s* second, std::uint32_t node, const float* vector)
      : hnsw_(hnsw), runtime_(*hnsw->runtime), second_(second), node_(node), vector_(vector) {}

  void add_to(std::uint32_t neighbour) {
    graph_record graph = graph_of(runtime_, neighbour);
    const float* const neighbour_vector = vector_or_report(runtime_, neighbour);
    if (!graph || neighbour_vector == nullptr || vector_ == nullptr) return;
    std::uint32_t count = 0;
    for (; count < runtime_.neighbour_count; ++count) {
      const std::uint32_t id = graph.slot(count);
      if (id == node_) return;
      if (id == 0) break;
    }
    const float key = key_between(runtime_, neighbour_vector, vector_);
    if (count < runtime_.neighbour_count)
      put_in_front(graph, count, key);
    else
      reselect(neighbour, neighbour_vector, graph, key);
  }

 private:
  void put_in_front(graph_record graph, std::uint32_t count, float key) {
    if (count + 1 < runtime_.neighbour_count) graph.set_slot(count + 1, 0);
    for (std::uint32_t i = count; i > 0; --i) graph.set_slot(i, graph.slot(i - 1));
    graph.set_slot(0, node_);
    if (count == 0 || key > graph.worst()) graph.set_worst(key);
  }

  void reselect(std::uint32_t neighbour, const float* vector, const graph_record& graph,
                float key) {
    korvex_nbrs_reset(hnsw_, second_);
    std::uint32_t known = 0;
    for (std::uint32_t i = 0; i < runtime_.neighbour_count; ++i) {
      second_->selection[known] = graph.slot(i);
      second_->selection_vectors[known] = vector_or_report(runtime_, second_->selection[known]);
      known += second_->selection_vectors[known] != nullptr ? 1 : 0;
    }
    row_scorer(runtime_).score(vector, second_->selection_vectors, known, second_->distances);
    const float direction = runtime_.direction.load(std::memory_order_relaxed);
    for (std::uint32_t i = 0; i < known; ++i)
      korvex_nbrs_add(second_, second_->selection[i], key_of(direction, second_->distances[i]), 0,
                      0);
    korvex_nbrs_add(second_, node_, key, 0, 0);
    korvex_select_nbrs(hnsw_, second_, neighbour, runtime_.neighbour_count, true);
  }

  hnsw_s* const hnsw_;
  const korvex_runtime_s& runtime_;
  korvex_nbrs_s* const second_;
  const std::uint32_t node_;
  const float* const vector_;
};

// One walk over a node's list after its neighbours were chosen.
class connection {
 public:
  connection(hnsw_s* hnsw, korvex_nbrs_s* second, std::uint32_t node, int32find_s* conmap)
      : hnsw_(hnsw),
        runtime_(*hnsw->runtime),
        node_(node),
        conmap_(conmap),
        graph_(graph_of(runtime_, node)),
        link_(hnsw, second, node, vector_of(runtime_, node)) {}

  void run() {
    if (!graph_) return;
    std::uint32_t position = 0;
    while (position < runtime_.neighbour_count) {
      if (std::atomic_ref(hnsw_->stop_indexing).load(std::memory_order_relaxed) != 0) return;
      const std::uint32_t neighbour = graph_.slot(position);
      if (neighbour == 0) {
        if (skipped_ == 0) return;
        skipped_ = 0;
        position = 0;
        std::this_thread::yield();
        continue;
      }
      position = link(position, neighbour) ? position + 1 : 0;
    }
  }

 private:
  // False when the walk must begin again.
  bool link(std::uint32_t position, std::uint32_t neighbour) {
    if (neighbour == node_) {
      KORVEX_LOG("*** BUG *** connected to self: %u - %u\n", node_, neighbour);
      return true;
    }
    if (int32find_get(conmap_, neighbour) != 0) return true;
    const lock_result locked = try_lock(runtime_, neighbour);
    if (locked == lock_result::busy) {
      ++skipped_;
      return true;
    }
    int32find_set(conmap_, neighbour, 1);
    if (locked == lock_result::missing) return true;
    link_.add_to(neighbour);
    unlock(runtime_, neighbour);
    return !repositioned(position, neighbour);
  }

  // Whether another thread moved the node's list meanwhile, while there are attempts left.
  bool repositioned(std::uint32_t position, std::uint32_t neighbour) {
    const std::uint32_t now = graph_.slot(position);
    if (now == neighbour) return false;
    KORVEX_LOG("repositioning nid %u new nid %u attempts %d\n", neighbour, now, attempts_);
    ++attempts_;
    return attempts_ < max_repositions;
  }

  hnsw_s* const hnsw_;
  const korvex_runtime_s& runtime_;
  const std::uint32_t node_;
  int32find_s* const conmap_;
  const graph_record graph_;
  reverse_link link_;
  std::uint32_t skipped_ = 0;
  int attempts_ = 0;
};

// A new point whose neighbours all had nearer ones, so that no list took it in, is kept by the first
// of the older ones that can, in the end by the seed of its probe.
void hold_point(hnsw_s* hnsw, std::uint32_t node) {
  korvex_runtime_s& runtime = *hnsw->runtime;
  if (held_by_older(runtime, node)) return;
  const graph_record own = graph_of(runtime, node);
  for (std::uint32_t i = 0; own && i < runtime.neighbour_count; ++i) {
    const std::uint32_t neighbour = own.slot(i);
    if (neighbour == 0) break;
    if (neighbour < node && hold_at(runtime, neighbour, node)) return;
  }
  const std::uint32_t seed = probe_seed(hnsw, probe_of(hnsw, node));
  if (seed != 0 && seed < node) hold_at(runtime, seed, node);
}

}  // namespace

void korvex_select_nbrs(hnsw_s* hnsw, korvex_nbrs_s* nbrs, std::uint32_t node, std::uint32_t max,
                        bool copy) {
  korvex_runtime_s& runtime = *hnsw->runtime;
  const graph_record graph = graph_of(runtime, node);
  if (!graph) {
    KORVEX_LOG_CRITICAL("get graph failed for id: %u\n", node);
    return;
  }
  const bool locked_by_caller = copy;
  nbrs->noted_count = 0;
  // Chosen on the side either way; without `copy` the list reads as empty while its neighbours are
  // chosen.
  if (!locked_by_caller) set_aside_list(runtime, graph, node, nbrs);
  const std::uint32_t chosen = select(runtime, nbrs, std::min(max, runtime.neighbour_count));
  const bool locked = !locked_by_caller && wait_for_lock(runtime, node);
  note_links(runtime, graph, node, nbrs);
  write_list(graph, *nbrs, chosen, runtime.neighbour_count);
  settle_dropped(runtime, graph, node, nbrs);
  if (locked) unlock(runtime, node);
}

void korvex_connect_nbrs(hnsw_s* hnsw, korvex_nbrs_s* nbrs, korvex_nbrs_s* second,
                         std::uint32_t node, int32find_s* conmap) {
  korvex_select_nbrs(hnsw, nbrs, node, std::max(hnsw->runtime->neighbour_count / 2, 1u), false);
  connection(hnsw, second, node, conmap).run();
  hold_point(hnsw, node);
}

}  // namespace korvex
