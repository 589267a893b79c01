#include <algorithm>
#include <cmath>

#include "engine/repair_parts.h"

namespace korvex {

namespace {

class list_repair {
 public:
  explicit list_repair(repair_s* repair)
      : repair_(*repair), runtime_(repair->runtime), kept_(runtime_.neighbour_count) {}

  // Keeps the order; what stands behind the end of a list means nothing.
  void mend(std::uint32_t id) {
    graph_record graph = graph_of(runtime_, id);
    if (!std::isfinite(graph.worst())) graph.set_worst(0.0f);
    std::uint32_t length = 0;
    std::uint32_t kept = 0;
    for (; length < runtime_.neighbour_count; ++length) {
      const std::uint32_t neighbour = graph.slot(length);
      if (neighbour == 0) break;
      if (belongs(id, neighbour, kept)) kept_[kept++] = neighbour;
    }
    if (kept == length) return;
    for (std::uint32_t i = 0; i < kept; ++i) graph.set_slot(i, kept_[i]);
    graph.set_slot(kept, 0);
    if (kept == 0) graph.clear_handover();
  }

 private:
  bool belongs(std::uint32_t id, std::uint32_t neighbour, std::uint32_t kept) const {
    const auto begin = kept_.begin();
    return neighbour != id && repair_.usable(neighbour) &&
           same_probe(repair_.hnsw, id, neighbour) &&
           std::find(begin, begin + kept, neighbour) == begin + kept;
  }

  const repair_s& repair_;
  korvex_runtime_s& runtime_;
  std::vector<std::uint32_t> kept_;
};

// The ids to which some older point links.
std::vector<bool> held_points(const repair_s& repair) {
  std::vector<bool> held(repair.size);
  for (std::uint32_t id = 1; id < repair.size; ++id) {
    const graph_record graph = graph_of(repair.runtime, id);
    for (std::uint32_t i = 0; i < repair.runtime.neighbour_count; ++i) {
      const std::uint32_t neighbour = graph.slot(i);
      if (neighbour == 0) break;
      if (neighbour > id) held[neighbour] = true;
    }
  }
  return held;
}

// Duplicates stay unlinked where somebody stands for them.
bool exempt(const repair_s& repair, std::uint32_t id) {
  if (repair.lost[id] || is_seed(repair.hnsw, id)) return true;
  const std::uint8_t flags = std::atomic_ref<std::uint8_t>(*flags_of(repair.runtime, id)).load();
  return (flags & flag_duplicate) != 0 && graph_of(repair.runtime, id).slot(0) == 0;
}

// Where the walk of a point starts: as its addition had found, else (0) where its hash says.
std::uint32_t handed_over_entry(const repair_s& repair, std::uint32_t id) {
  const graph_record graph = graph_of(repair.runtime, id);
  if (graph.slot(0) != 0) return 0;
  const std::uint32_t entry = graph.slot(1);
  return entry < id && repair.usable(entry) && same_probe(repair.hnsw, id, entry) ? entry : 0;
}

}  // namespace

void mend_lists(repair_s* repair) {
  list_repair lists(repair);
  for (std::uint32_t id = 1; id < repair->size; ++id) lists.mend(id);
}

void queue_unlinked(repair_s* repair) {
  korvex_runtime_s& runtime = repair->runtime;
  const std::vector<bool> held = held_points(*repair);
  std::uint32_t duplicates = 0;
  for (std::uint32_t id = 1; id < repair->size; ++id) {
    const bool unlinked = graph_of(runtime, id).slot(0) == 0;
    if (exempt(*repair, id)) {
      if (unlinked && !repair->lost[id] && !is_seed(repair->hnsw, id)) ++duplicates;
      continue;
    }
    if (unlinked || !held[id]) runtime.relink.push_back({0, handed_over_entry(*repair, id), id, 0});
  }
  std::atomic_ref(repair->hnsw->duplicates).store(duplicates);
}

}  // namespace korvex
