#ifndef KORVEX_ENGINE_REPAIR_PARTS_H
#define KORVEX_ENGINE_REPAIR_PARTS_H

#include <cstdint>
#include <vector>

#include "engine/points.h"
#include "engine/record.h"

// The steps of a repair, in their order. For korvex_repair only; nobody else uses the index yet.
namespace korvex {

struct repair_s {
  hnsw_s* const hnsw;
  korvex_runtime_s& runtime;
  std::uint32_t size = 1;        // the first id without records, once the stores are equally long
  std::vector<bool> lost{};      // points that never were complete
  std::uint32_t lost_count = 0;  // of those, what this repair found

  bool usable(std::uint32_t id) const { return id != 0 && id < size && !lost[id]; }
  bool in_probe(std::uint32_t id, std::uint32_t probe) const {
    return hnsw->norm_probing != 0 || probe_of(hnsw, id) == probe;
  }
};

// Extends every store to the longest one and empties the points whose records are not complete.
void complete_records(repair_s* repair);
// Every probe that has points gets a seed.
void mend_seeds(repair_s* repair);
// Anchors belong to the seeds, stars name points of their probe. A hash that lost its anchor is
// filled anew.
void mend_hashes(repair_s* repair);
// Takes ids out of the lists that do not belong there.
void mend_lists(repair_s* repair);
// Points that linking must take up: those without neighbours, and those that no older point leads to.
void queue_unlinked(repair_s* repair);

}  // namespace korvex

#endif  // KORVEX_ENGINE_REPAIR_PARTS_H
