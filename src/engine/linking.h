#ifndef KORVEX_ENGINE_LINKING_H
#define KORVEX_ENGINE_LINKING_H

#include <cstdint>

#include "engine/neighbours.h"
#include "engine/record.h"
#include "storage/int_set.h"

namespace korvex {

// Chooses up to `max` neighbours of `node` from the candidates of `nbrs` (consumed) and writes its
// record. With `copy` the record changes in one go at the end, so that no reader sees a
// half-written list.
// Source    the diversity rule of relative neighbourhood graphs: a candidate stays only if no
//           chosen neighbour is nearer to it than the node is
void korvex_select_nbrs(hnsw_s* hnsw, korvex_nbrs_s* nbrs, std::uint32_t node, std::uint32_t max,
                        bool copy);

// Links `node` with the candidates of `nbrs`, both ways. `second` is scratch, `conmap` an emptied
// set.
// Threads   any number at once; a neighbour's list is changed under its lock bit, never two at
//           once, and a neighbour that somebody else holds is taken up again later
void korvex_connect_nbrs(hnsw_s* hnsw, korvex_nbrs_s* nbrs, korvex_nbrs_s* second,
                         std::uint32_t node, int32find_s* conmap);

}  // namespace korvex

#endif  // KORVEX_ENGINE_LINKING_H
