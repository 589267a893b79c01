#include "engine/inbound.h"

#include <algorithm>

#include "engine/runtime.h"

namespace korvex {

namespace {

std::uint32_t length_of(const korvex_runtime_s& runtime, const graph_record& graph) {
  std::uint32_t length = 0;
  while (length < runtime.neighbour_count && graph.slot(length) != 0) ++length;
  return length;
}

bool contains(const korvex_runtime_s& runtime, const graph_record& graph, std::uint32_t id) {
  for (std::uint32_t i = 0; i < runtime.neighbour_count; ++i) {
    const std::uint32_t neighbour = graph.slot(i);
    if (neighbour == id) return true;
    if (neighbour == 0) return false;
  }
  return false;
}

// Between a write to a list and the look at other lists: whoever passes second sees what the first
// had written.
void pass_writes(korvex_runtime_s& runtime) {
  runtime.list_rewrites.fetch_add(1, std::memory_order_acq_rel);
}

bool held_by_another(const korvex_runtime_s& runtime, std::uint32_t id, std::uint32_t except) {
  const graph_record graph = graph_of(runtime, id);
  if (!graph) return true;
  for (std::uint32_t i = 0; i < runtime.neighbour_count; ++i) {
    const std::uint32_t neighbour = graph.slot(i);
    if (neighbour == 0) return false;
    if (neighbour >= id || neighbour == except) continue;
    const graph_record other = graph_of(runtime, neighbour);
    if (other && contains(runtime, other, id)) return true;
  }
  return false;
}

// Whether `node` may give up its link to `neighbour`.
bool spares(const korvex_runtime_s& runtime, std::uint32_t node, std::uint32_t neighbour) {
  return neighbour < node || held_by_another(runtime, neighbour, node);
}

}  // namespace

bool held_by_older(const korvex_runtime_s& runtime, std::uint32_t id) {
  return held_by_another(runtime, id, 0);
}

void note_links(const korvex_runtime_s& runtime, const graph_record& graph, std::uint32_t node,
                korvex_nbrs_s* nbrs) {
  for (std::uint32_t i = 0; i < runtime.neighbour_count; ++i) {
    const std::uint32_t neighbour = graph.slot(i);
    if (neighbour == 0) return;
    if (neighbour > node && nbrs->noted_count < nbrs->noted_capacity)
      nbrs->noted[nbrs->noted_count++] = neighbour;
  }
}

void settle_dropped(korvex_runtime_s& runtime, graph_record graph, std::uint32_t node,
                    korvex_nbrs_s* nbrs) {
  if (nbrs->noted_count == 0) return;
  pass_writes(runtime);
  for (std::uint32_t i = 0; i < nbrs->noted_count; ++i) {
    const std::uint32_t id = nbrs->noted[i];
    if (!contains(runtime, graph, id) && !held_by_older(runtime, id))
      hold_link(runtime, graph, node, id);
  }
  nbrs->noted_count = 0;
}

bool hold_link(korvex_runtime_s& runtime, graph_record graph, std::uint32_t node,
               std::uint32_t id) {
  // Another thread may have put the link there since the caller looked, before the lock was taken.
  if (contains(runtime, graph, id)) return true;
  const std::uint32_t length = length_of(runtime, graph);
  if (length < runtime.neighbour_count) {
    if (length + 1 < runtime.neighbour_count) graph.set_slot(length + 1, 0);
    graph.set_slot(length, id);
    return true;
  }
  for (std::uint32_t i = length; i-- > 0;) {
    const std::uint32_t neighbour = graph.slot(i);
    if (!spares(runtime, node, neighbour)) continue;
    graph.set_slot(i, id);
    pass_writes(runtime);
    if (spares(runtime, node, neighbour)) return true;
    graph.set_slot(i, neighbour);
  }
  return false;
}

}  // namespace korvex
