#ifndef KORVEX_ENGINE_INSERTION_H
#define KORVEX_ENGINE_INSERTION_H

#include <cstdint>

#include "engine/record.h"

namespace korvex {

// Stores one vector with its label, which is dropped while labels are off, and hands it to the
// linking. True with the public id (`id` may be null), or false after one line.
// Threads   any; additions exclude each other. Once it has returned, a search that starts later
//           sees the vector.
// Failure   throws only what the start-up throws; a vector that is not finite is refused while
//           parameters are checked
bool korvex_try_add(hnsw_s* hnsw, const float* v, std::uint64_t label, std::uint32_t* id);
// The same; the public id, or 0 on failure. 0 is also the id of the first point.
std::uint32_t korvex_add(hnsw_s* hnsw, const float* v, std::uint64_t label);
// n vectors row after row; the first and the last result, 0 when nothing was to be added. Outputs
// may be null.
void korvex_add_multiple(hnsw_s* hnsw, const float* v, int n, std::uint32_t* first,
                         std::uint32_t* last);

// Whether every component is a number that arithmetic can bear.
bool all_finite(const float* v, std::uint32_t dimension);

}  // namespace korvex

#endif  // KORVEX_ENGINE_INSERTION_H
