#include <cstring>

#include "api/engine_border.h"
#include "engine/configuration.h"
#include "engine/distances.h"
#include "engine/indexing.h"
#include "engine/insertion.h"
#include "engine/points.h"
#include "engine/startup.h"
#include "engine/sync.h"
#include "engine/teardown.h"

// The C names of the engine's functions: an index and its vectors. Each forwards; nothing but
// results and records crosses the border: what may run out of memory does so behind it.

using korvex::at_border;
using korvex::on_index;

namespace {

// A vector's copy, once its records are complete.
int copy_vector(const hnsw_s* index, std::uint32_t id, float* out) {
  if (out == nullptr || !korvex::is_started(index) || id >= korvex::load_counter(index->added))
    return -1;
  const float* const vector = korvex::vector_of(*index->runtime, id + 1);
  if (vector == nullptr) return -1;
  std::memcpy(out, vector, index->vector_bytes);
  return 0;
}

float farthest(const hnsw_s* index) {
  return index == nullptr ? korvex::largest_float
                          : index->runtime->direction.load() * korvex::largest_float;
}

}  // namespace

extern "C" {

hnsw_s* korvex_init(uint32_t dimension, uint8_t instance_id, const char* base_path,
                    const char* name) {
  return at_border("korvex_init", static_cast<hnsw_s*>(nullptr),
                   [&] { return korvex::korvex_init(dimension, instance_id, base_path, name); });
}

void korvex_free(hnsw_s* index) {
  at_border("korvex_free", [&] { korvex::korvex_free(index); });
}

int korvex_init_memory(hnsw_s* index) {
  return on_index(index, "korvex_init_memory", -1,
                  [&] { return korvex::korvex_try_init_memory(index) ? 0 : -1; });
}

int korvex_sync_to_disk(hnsw_s* index, unsigned min_interval) {
  return on_index(index, "korvex_sync_to_disk", -1,
                  [&] { return korvex::korvex_sync_to_disk(index, min_interval); });
}

uint32_t korvex_add(hnsw_s* index, const float* vector, uint64_t label) {
  return on_index(index, "korvex_add", uint32_t{0},
                  [&] { return korvex::korvex_add(index, vector, label); });
}

int korvex_try_add(hnsw_s* index, const float* vector, uint64_t label, uint32_t* id) {
  return on_index(index, "korvex_try_add", -1,
                  [&] { return korvex::korvex_try_add(index, vector, label, id) ? 0 : -1; });
}

void korvex_add_multiple(hnsw_s* index, const float* vectors, int count, uint32_t* first,
                         uint32_t* last) {
  if (first != nullptr) *first = 0;
  if (last != nullptr) *last = 0;
  on_index(index, "korvex_add_multiple",
           [&] { korvex::korvex_add_multiple(index, vectors, count, first, last); });
}

int korvex_has_finish_adding(hnsw_s* index) {
  return on_index(index, "korvex_has_finish_adding", 0,
                  [&] { return korvex::korvex_has_finish_adding(index); });
}

void korvex_wait_finish_adding(hnsw_s* index) {
  on_index(index, "korvex_wait_finish_adding", [&] { korvex::korvex_wait_finish_adding(index); });
}

int korvex_wait_linked(hnsw_s* index, uint64_t timeout_ms) {
  return on_index(index, "korvex_wait_linked", -1,
                  [&] { return korvex::korvex_wait_linked(index, timeout_ms) ? 1 : 0; });
}

int korvex_delete(hnsw_s* index, uint32_t id, int undelete) {
  return on_index(index, "korvex_delete", -1,
                  [&] { return korvex::korvex_delete(index, id, undelete); });
}

int korvex_is_flag_set_internal(hnsw_s* index, uint32_t internal_id, int mask) {
  return on_index(index, "korvex_is_flag_set_internal", 0,
                  [&] { return korvex::korvex_is_flag_set_internal(index, internal_id, mask); });
}

uint64_t korvex_get_label(hnsw_s* index, uint32_t id) {
  return on_index(index, "korvex_get_label", uint64_t{0},
                  [&] { return korvex::korvex_get_label(index, id); });
}

uint64_t korvex_set_label(hnsw_s* index, uint32_t id, uint64_t label) {
  return on_index(index, "korvex_set_label", uint64_t{0},
                  [&] { return korvex::korvex_set_label(index, id, label); });
}

int korvex_change_label(hnsw_s* index, uint32_t id, uint64_t label) {
  return on_index(index, "korvex_change_label", -1,
                  [&] { return korvex::korvex_change_label(index, id, label) ? 0 : -1; });
}

void korvex_set_data(hnsw_s* index, uint32_t id, void* data, int unused) {
  on_index(index, "korvex_set_data", [&] { korvex::korvex_set_data(index, id, data, unused); });
}

int korvex_is_indexed(hnsw_s* index, const float* vector) {
  return on_index(index, "korvex_is_indexed", 0,
                  [&] { return korvex::korvex_is_indexed(index, vector); });
}

float korvex_get_distance_ext(hnsw_s* index, uint32_t id, const float* vector) {
  return on_index(index, "korvex_get_distance_ext", farthest(index),
                  [&] { return korvex::korvex_get_distance_ext(index, id, vector); });
}

float korvex_get_distance_internal(hnsw_s* index, uint32_t internal_id, const float* vector) {
  return on_index(index, "korvex_get_distance_internal", farthest(index),
                  [&] { return korvex::korvex_get_distance_internal(index, internal_id, vector); });
}

float korvex_get_distance(hnsw_s* index, const float* a, const float* b) {
  return on_index(index, "korvex_get_distance", farthest(index), [&] {
    return a == nullptr || b == nullptr ? farthest(index)
                                        : korvex::korvex_get_distance_internal(index, a, b);
  });
}

int korvex_get_vector(hnsw_s* index, uint32_t id, float* out) {
  return on_index(index, "korvex_get_vector", -1, [&] { return copy_vector(index, id, out); });
}

}  // extern "C"
