#include "api/border.h"
#include "api/index_object.h"
#include "engine/configuration.h"
#include "engine/insertion.h"
#include "engine/points.h"
#include "runtime/log.h"

// Adding and deleting vectors.
namespace korvex {

// Empty once something has been added, so that a listener that is called from an addition may add as well.
std::unique_lock<std::mutex> KorvexImpl::lock_first_addition() {
  if (load_counter(base_->added) != 0) return {};
  std::unique_lock lock(first_addition_);
  if (load_counter(base_->added) != 0) lock.unlock();
  return lock;
}

std::uint32_t KorvexImpl::add_labelled(const float* vector, std::uint64_t label) {
  const std::unique_lock<std::mutex> alone = lock_first_addition();
  const std::uint32_t id = korvex_add(base_, vector, label);
  if (id != 0 || (alone.owns_lock() && load_counter(base_->added) != 0)) korvex_set_label(base_, id, label);
  return id;
}

unsigned KorvexImpl::addVector(const float* vector, int, unsigned long long label) {
  if (vector == nullptr) {
    log_refusal("addVector", "a null vector");
    return 0;
  }
  return at_border("addVector", 0u, [&] { return add_labelled(vector, label); });
}

unsigned long long KorvexImpl::addVectors(const float* vectors, int count, int) {
  if (add_enabled_.load() == 0) return 0;
  if (vectors == nullptr || count < 1) {
    log_refusal("addVectors", "no vectors");
    return 0;
  }
  return at_border("addVectors", 0ull, [&] {
    const std::unique_lock<std::mutex> alone = lock_first_addition();
    std::uint32_t first = 0;
    std::uint32_t last = 0;
    korvex_add_multiple(base_, vectors, count, &first, &last);
    return first | static_cast<unsigned long long>(last) << 32;
  });
}

void KorvexImpl::deleteVector(unsigned id, int undelete) {
  if (korvex_delete(base_, id, undelete) < 0) KORVEX_LOG_CRITICAL("deleteVector: there is no vector %u\n", id);
}

void KorvexImpl::deleteVectors(unsigned* ids, int count, int undelete) {
  if (count <= 0) return;
  if (ids == nullptr) return log_refusal("deleteVectors", "no ids");
  for (int i = 0; i < count; ++i) deleteVector(ids[i], undelete);
}

int KorvexImpl::isIndexed(const float* vector) { return korvex_is_indexed(base_, vector); }

int KorvexImpl::isDuplicate(const float*, float) { return 0; }

}  // namespace korvex
