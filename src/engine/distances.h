#ifndef KORVEX_ENGINE_DISTANCES_H
#define KORVEX_ENGINE_DISTANCES_H

#include <cstdint>

#include "engine/record.h"
#include "storage/vector_hash.h"

// Distances between stored points and vectors, raw: in the metric's own value and direction. A
// missing point is logged and counts as infinitely far.
namespace korvex {

// Internal id against a vector; public id (internal - 1) against a vector; two vectors.
float korvex_get_distance_internal(hnsw_s* hnsw, std::uint32_t id, const float* v);
float korvex_get_distance_ext(hnsw_s* hnsw, std::uint32_t id, const float* v);
float korvex_get_distance_internal(hnsw_s* hnsw, const float* a, const float* b);

// The vector hash's distance: on the squared scale of unit vectors whatever the metric. Mode 1
// corrects for the stored magnitude; the cached form reads through the data cache in search mode.
float korvex_get_hash_distance(void* hnsw, unsigned id, vector_hash_node_s* n, int mode);
float korvex_get_hash_distance_cached(void* hnsw, unsigned id, vector_hash_node_s* n, int mode);

// The same for many ids, in their order. n->aux is the magnitude of a query, 0 when unknown.
void korvex_get_hash_distances(void* hnsw, const std::uint32_t* ids, std::uint32_t count,
                               vector_hash_node_s* n, int mode, float* out);
void korvex_get_hash_distances_cached(void* hnsw, const std::uint32_t* ids, std::uint32_t count,
                                      vector_hash_node_s* n, int mode, float* out);

// Distance between a stored point (internal id) and a unit vector, for placing points in norm
// rings.
float korvex_get_norm_distance(hnsw_s* hnsw, std::uint32_t id, const float* unit);

// Multiplies v by a factor that falls with its magnitude; nothing while expand_setting is 0.
void korvex_expand_vector(hnsw_s* hnsw, float* v);
double logarithmicDecay(double magnitude, double setting, double base);

}  // namespace korvex

#endif  // KORVEX_ENGINE_DISTANCES_H
