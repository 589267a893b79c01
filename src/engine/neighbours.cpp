#include "engine/neighbours.h"

#include <algorithm>
#include <new>

#include "engine/runtime.h"

namespace korvex {

korvex_nbrs_s* korvex_nbrs_alloc(hnsw_s* hnsw, int capacity) {
  const std::uint32_t slots = std::max<std::uint32_t>(hnsw->runtime->neighbour_count, 1) + 1;
  auto* nbrs = new (std::nothrow) korvex_nbrs_s{};
  if (nbrs == nullptr) return nullptr;
  nbrs->capacity = capacity;
  nbrs->worst = largest_float;
  nbrs->elements =
      blockpool_create(sizeof(korvex_nelem_s), static_cast<std::size_t>(std::max(capacity, 2)));
  nbrs->candidates = new (std::nothrow) sortedlist_c(0, nullptr, nullptr);
  nbrs->results = new (std::nothrow) sortedlist_c(0, nullptr, nullptr);
  nbrs->beam = new (std::nothrow) walk_beam;
  nbrs->distances = new (std::nothrow) float[slots];
  nbrs->selection = new (std::nothrow) std::uint32_t[slots];
  nbrs->selection_vectors = new (std::nothrow) const float*[slots];
  nbrs->noted = new (std::nothrow) std::uint32_t[2 * slots];
  nbrs->noted_capacity = 2 * slots;
  if (nbrs->elements == nullptr || nbrs->candidates == nullptr || nbrs->results == nullptr ||
      nbrs->beam == nullptr || nbrs->distances == nullptr || nbrs->selection == nullptr ||
      nbrs->selection_vectors == nullptr || nbrs->noted == nullptr) {
    korvex_nbrs_free(nbrs);
    return nullptr;
  }
  return nbrs;
}

void korvex_nbrs_reset(hnsw_s*, korvex_nbrs_s* nbrs) {
  nbrs->worst = largest_float;
  nbrs->evaluations = 0;
  nbrs->dropped_count = 0;
  nbrs->broken_off = false;
  blockpool_reset(nbrs->elements);
  nbrs->candidates->reset();
  nbrs->results->reset();
}

void korvex_nbrs_free(korvex_nbrs_s* nbrs) {
  if (nbrs == nullptr) return;
  delete nbrs->candidates;
  delete nbrs->results;
  delete nbrs->beam;
  delete[] nbrs->distances;
  delete[] nbrs->selection;
  delete[] nbrs->selection_vectors;
  delete[] nbrs->noted;
  if (nbrs->elements != nullptr) blockpool_destroy(nbrs->elements);
  delete nbrs;
}

int korvex_nbrs_add(korvex_nbrs_s* nbrs, std::uint32_t id, float distance, int hops, int tag) {
  if (nbrs == nullptr) return 0;
  auto* element = static_cast<korvex_nelem_s*>(blockpool_alloc(nbrs->elements));
  if (element == nullptr) return -1;
  element->id = id;
  element->distance = distance;
  element->hops = static_cast<std::uint16_t>(hops);
  element->word = 0;
  linklist_link_s* link = korvex_nbrs_elem_to_link(element);
  link->data = element;
  nbrs->candidates->add(link, distance);
  link->tag = (link->tag & 0xFFFF0000u) | static_cast<std::uint16_t>(tag);
  return 0;
}

bool korvex_nbrs_take_front(korvex_nbrs_s* nbrs, std::uint32_t* id, float* distance,
                            std::uint16_t* hops) {
  auto* element = static_cast<korvex_nelem_s*>(nbrs->candidates->front());
  if (element == nullptr) return false;
  *id = element->id;
  *distance = element->distance;
  if (hops != nullptr) *hops = element->hops;
  blockpool_free(nbrs->elements, element);
  return true;
}

}  // namespace korvex
