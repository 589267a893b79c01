#ifndef KORVEX_ENGINE_INBOUND_H
#define KORVEX_ENGINE_INBOUND_H

#include <cstdint>

#include "engine/neighbours.h"
#include "engine/points.h"

// Keeps every point reachable. Choosing diverse neighbours may drop the last link that leads to a
// point, so each linked point but a seed keeps a link from an older one: by induction over the ids
// a way then leads from the seed of its probe to every point. Where the choice would break that
// rule (about one point in a hundred) the link stays beside the chosen ones.
// Threads   a list changes under its lock bit, which the caller holds. Two threads that drop the
//           last two links to a point at once are told apart by settle_dropped: each looks only
//           after its own list was written, so one of them sees what the other did.
namespace korvex {

// Whether a link from an older point leads to `id`; looked for where links are mostly mutual, so it
// may overlook one.
bool held_by_older(const korvex_runtime_s& runtime, std::uint32_t id);

// Notes which links of `node` to younger points the list `graph` holds now, in nbrs->noted.
void note_links(const korvex_runtime_s& runtime, const graph_record& graph, std::uint32_t node,
                korvex_nbrs_s* nbrs);
// After the list was written anew: takes back those noted links that were the last of their kind.
void settle_dropped(korvex_runtime_s& runtime, graph_record graph, std::uint32_t node,
                    korvex_nbrs_s* nbrs);

// Adds `id` to the list of `node`: at its end, or in place of a link that is not needed. False when
// every link is.
bool hold_link(korvex_runtime_s& runtime, graph_record graph, std::uint32_t node, std::uint32_t id);

}  // namespace korvex

#endif  // KORVEX_ENGINE_INBOUND_H
