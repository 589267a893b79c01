#ifndef KORVEX_ENGINE_WALK_H
#define KORVEX_ENGINE_WALK_H

#include <cstdint>

#include "engine/neighbours.h"
#include "engine/record.h"
#include "storage/bit_store.h"

namespace korvex {

// What a walk looks for: a stored point that is being linked, or a query (id 0).
struct korvex_node_s {
  std::uint32_t id;
  const float* vector;
};

// The worst key that any of a query's parallel walks still accepts; they lower it together by
// compare-and-swap.
struct shared_bound_s {
  float worst;
};

// Excludes an internal id when it returns non-zero. The third argument is always 0.
using walk_filter = int (*)(void* context, unsigned id, int);

// Settings and scratch of one thread's walks.
struct korvex_session_s {
  std::int32_t mode;  // 0 links a new point, anything else answers a query
  std::int32_t beam;  // how many candidates are kept
  float radius;       // a continued query takes no candidate nearer than this key, while radius_set
  std::uint32_t duplicate;    // out, linking: the entry point when the new point repeats it
  bool duplicate_was_hidden;  // and whether that one had been marked before
  std::int32_t budget;        // distance evaluations at most, 0 = no limit
  std::int32_t extension;     // evaluations granted once the beam is full, 0 = none
  std::int32_t step;    // evaluations granted on each new nearest point; 0 = 16 x neighbour count
  bitstore_s* visited;  // reset by the caller between walks
  hnsw_s* index;
  void* filter_context;
  walk_filter filter;
  bool radius_set;
};

// The one graph walk: a best-first beam search from `entry_id`, or from the candidates that `nbrs`
// already holds when a query is continued. Leaves the nearest points found in nbrs->candidates,
// ascending.
// Threads   any number at once beside linking; takes no lock. `session`, `nbrs` belong to the
//           caller.
// Failure   a fault ends the walk with one line; what was found stays.
// Source    greedy beam search on a navigable proximity graph, as in Malkov and Yashunin,
//           "Efficient and robust approximate nearest neighbor search using HNSW graphs", 2016,
//           reduced to its lowest layer
void korvex_search_candidates(hnsw_s* hnsw, korvex_session_s* session, korvex_nbrs_s* nbrs,
                              const korvex_node_s* node, std::uint32_t entry_id,
                              shared_bound_s* shared);

// Counts of one walk on a bare beam.
struct walk_report {
  std::int32_t evaluations = 0;
  std::int32_t dropped_count = 0;
  bool broken_off = false;  // by a fault
  std::uint32_t dropped[max_dropped] = {};
};

// The same walk on a beam alone. A beam that is not empty holds the candidates of a continued
// query. Its capacity must be session->beam + the index's neighbour count + 1 at least.
void walk_graph(hnsw_s* hnsw, korvex_session_s* session, walk_beam* beam, const korvex_node_s& node,
                std::uint32_t entry_id, shared_bound_s* shared, walk_report* report);

// Evaluations of all walks of the process since it began; for benchmarks. Relaxed.
std::uint64_t walk_evaluations_total();

}  // namespace korvex

#endif  // KORVEX_ENGINE_WALK_H
