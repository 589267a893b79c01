#ifndef KORVEX_ENGINE_NEIGHBOURS_H
#define KORVEX_ENGINE_NEIGHBOURS_H

#include <cstdint>
#include <memory>

#include "engine/beam.h"
#include "engine/record.h"
#include "storage/block_pool.h"
#include "storage/sorted_list.h"

namespace korvex {

inline constexpr std::uint32_t max_dropped = 10;

// One candidate of a working list; the link's payload is the element itself, its tag the expanded
// mark.
struct __attribute__((packed, aligned(4))) korvex_nelem_s {
  std::uint32_t id;
  float distance;
  std::uint16_t hops;
  std::uint16_t word;
  linklist_link_s link;
};
static_assert(sizeof(korvex_nelem_s) == 44 && offsetof(korvex_nelem_s, link) == 12,
              "carved from 44-byte blocks");

inline linklist_link_s* korvex_nbrs_elem_to_link(korvex_nelem_s* element) {
  return &element->link;
}

// A working list: what a walk found, and the room that selecting neighbours needs. Distances in it
// are keys, smaller is nearer.
// Threads     one at a time; every engine thread keeps its own for its whole life.
struct korvex_nbrs_s {
  float worst;
  std::int32_t capacity;
  std::int32_t evaluations;
  std::int32_t dropped_count;
  std::uint32_t dropped[max_dropped];  // ids that a query walk trimmed off its tail last
  float* distances;  // of the selected neighbours, parallel to the slots being written
  sortedlist_c* candidates;
  sortedlist_c* results;
  blockpool_s* elements;
  walk_beam* beam;                  // the walk's own form of `candidates`
  std::uint32_t* selection;         // room for one neighbour list
  const float** selection_vectors;  // and for the vectors of its members
  std::uint32_t* noted;             // links of a list that is being rewritten; see inbound.h
  std::uint32_t noted_count;
  std::uint32_t noted_capacity;  // of two lists
  bool broken_off;               // a fault ended the last walk
};

// Null when memory is short.
korvex_nbrs_s* korvex_nbrs_alloc(hnsw_s* hnsw, int capacity);
void korvex_nbrs_reset(hnsw_s* hnsw, korvex_nbrs_s* nbrs);
void korvex_nbrs_free(korvex_nbrs_s* nbrs);
// Adds a candidate at its place by `distance`. 0, or -1 when no element is left.
int korvex_nbrs_add(korvex_nbrs_s* nbrs, std::uint32_t id, float distance, int hops, int tag);
// Unlinks the nearest candidate and gives its element back. False when the list is empty.
bool korvex_nbrs_take_front(korvex_nbrs_s* nbrs, std::uint32_t* id, float* distance,
                            std::uint16_t* hops = nullptr);

}  // namespace korvex

#endif  // KORVEX_ENGINE_NEIGHBOURS_H
