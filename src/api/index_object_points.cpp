#include "api/border.h"
#include "api/index_object.h"
#include "engine/configuration.h"
#include "engine/insertion.h"
#include "engine/points.h"
#include "runtime/log.h"

// Adding and deleting vectors.
namespace korvex {

namespace {

// 0 is both the first id and the failure value; only who adds alone can tell them apart. So
// additions exclude each other while nothing has been added; later ones, such as those of a
// listener that the first one calls, do not ask.
class first_addition {
 public:
  first_addition(const hnsw_s* base, std::shared_ptr<std::mutex> mutex) : mutex_(std::move(mutex)) {
    if (load_counter(base->added) != 0) return;
    lock_ = std::unique_lock(*mutex_);
    if (load_counter(base->added) != 0) lock_.unlock();
  }
  // Whether an addition that returned 0 within this object's life has succeeded.
  bool succeeded(const hnsw_s* base) const {
    return lock_.owns_lock() && load_counter(base->added) != 0;
  }

 private:
  std::shared_ptr<std::mutex> mutex_;
  std::unique_lock<std::mutex> lock_;
};

}  // namespace

// An addition may link and then calls the ready listener, which may destroy the index: the claim
// keeps the engine's half, and nothing of this object is used after the additions.

unsigned KorvexImpl::addVector(const float* vector, int, unsigned long long label) {
  if (vector == nullptr) {
    log_refusal("addVector", "a null vector");
    return 0;
  }
  hnsw_s* const base = base_;
  return with_open_index(base->runtime, "addVector", 0u, [&] {
    const first_addition first(base, first_addition_);
    const std::uint32_t id = korvex_add(base, vector, label);
    if (id != 0 || first.succeeded(base)) korvex_set_label(base, id, label);
    return id;
  });
}

unsigned long long KorvexImpl::addVectors(const float* vectors, int count, int) {
  if (add_enabled_.load() == 0) return 0;
  if (vectors == nullptr || count < 1) {
    log_refusal("addVectors", "no vectors");
    return 0;
  }
  hnsw_s* const base = base_;
  return with_open_index(base->runtime, "addVectors", 0ull, [&] {
    const first_addition alone(base, first_addition_);
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
