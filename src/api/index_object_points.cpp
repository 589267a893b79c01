#include "api/border.h"
#include "api/index_object.h"
#include "engine/configuration.h"
#include "engine/insertion.h"
#include "engine/points.h"
#include "runtime/log.h"

// Adding and deleting vectors.
namespace korvex {

// An addition may link and then calls the ready listener, which may destroy the index: the claim
// keeps the engine's half, and nothing of this object is used after the additions.

unsigned KorvexImpl::addVector(const float* vector, int, unsigned long long label) {
  if (vector == nullptr) {
    log_refusal("addVector", "a null vector");
    return 0;
  }
  hnsw_s* const base = base_;
  return with_open_index(base->runtime, "addVector", 0u,
                         [&] { return korvex_add(base, vector, label); });
}

unsigned long long KorvexImpl::addVectors(const float* vectors, int count, int) {
  if (add_enabled_.load() == 0) return 0;
  if (vectors == nullptr || count < 1) {
    log_refusal("addVectors", "no vectors");
    return 0;
  }
  hnsw_s* const base = base_;
  return with_open_index(base->runtime, "addVectors", 0ull, [&] {
    std::uint32_t first = 0;
    std::uint32_t last = 0;
    korvex_add_multiple(base, vectors, count, &first, &last);
    return first | static_cast<unsigned long long>(last) << 32;
  });
}

void KorvexImpl::deleteVector(unsigned id, int undelete) {
  if (korvex_delete(base_, id, undelete) < 0)
    KORVEX_LOG_CRITICAL("deleteVector: there is no vector %u\n", id);
}

void KorvexImpl::deleteVectors(unsigned* ids, int count, int undelete) {
  if (count <= 0) return;
  if (ids == nullptr) return log_refusal("deleteVectors", "no ids");
  for (int i = 0; i < count; ++i) deleteVector(ids[i], undelete);
}

int KorvexImpl::isIndexed(const float* vector) {
  if (vector == nullptr) log_refusal("isIndexed", "a null vector");
  return korvex_is_indexed(base_, vector);
}

int KorvexImpl::isDuplicate(const float*, float) {
  return 0;
}

}  // namespace korvex
