#include "api/index_object.h"

#include <cstdlib>

#include "api/border.h"
#include "api/bulk_query_object.h"
#include "api/query_object.h"
#include "engine/configuration.h"
#include "engine/distances.h"
#include "engine/indexing.h"
#include "engine/sync.h"
#include "engine/teardown.h"
#include "math/kernels.h"
#include "runtime/log.h"
#include "search/session.h"

namespace korvex {

constinit instance_registry KorvexImpl::s_instance_manager;

std::unique_ptr<KorvexImpl> KorvexImpl::create(int dimension, const char* path, const char* name) {
  std::unique_ptr<KorvexImpl> index(new KorvexImpl);
  index->base_ = korvex_init(static_cast<std::uint32_t>(dimension), 0, path, name);
  static const bool cleared_at_exit = std::atexit([] { s_instance_manager.clear(); }) == 0;
  static_cast<void>(cleared_at_exit);
  index->instance_id_ = s_instance_manager.add(index.get());
  if (index->base_ == nullptr) return nullptr;
  return index;
}

KorvexImpl::~KorvexImpl() {
  if (base_ != nullptr) {
    base_->runtime->ready_callback.store(nullptr);
    at_border("destroy", [this] { korvex_free(base_); });
  }
  if (keep_registration_.load() == 0) s_instance_manager.release(instance_id_);
}

unsigned KorvexImpl::getId() {
  return instance_id_;
}

void KorvexImpl::destroy() {
  delete this;
}

hnsw_s* KorvexImpl::get_base(int) {
  return base_;
}

void KorvexImpl::this_is_preproduction_software(int enable_adding) {
  add_enabled_.store(static_cast<std::uint32_t>(enable_adding));
}

void KorvexImpl::validateParameters(int value) {
  korvex_validate_parameters(base_, value);
  keep_registration_.store(static_cast<std::uint32_t>(value));
}

void KorvexImpl::setIndexListener(KorvexIndexListener* listener, unsigned threshold) {
  // Once the callback is in place the listener may be called, here or on another thread, and may
  // destroy this object.
  hnsw_s* const base = base_;
  with_open_index(base->runtime, "setIndexListener", 0, [&] {
    korvex_runtime_s& runtime = *base->runtime;
    runtime.ready_callback.store(nullptr);  // the old notice must not fire for the new listener
    index_listener_.store(listener);
    runtime.ready_threshold.store(threshold);
    runtime.ready_context.store(this);
    // A full fence: whoever counts a vector after the look below sees the callback.
    runtime.ready_callback.exchange(korvex_index_ready_callback);
    korvex_notify_ready(base);
    return 0;
  });
}

void KorvexImpl::syncToDisk(unsigned min_interval) {
  at_border("syncToDisk", [&] { korvex_sync_to_disk(base_, min_interval); });
}

void KorvexImpl::waitForIndexReady() {
  // The caller may link, and then calls a listener that may destroy this object.
  hnsw_s* const base = base_;
  with_open_index(base->runtime, "waitForIndexReady", 0, [base] {
    korvex_wait_finish_adding(base);
    return 0;
  });
}

int KorvexImpl::isIndexReady() {
  return korvex_has_finish_adding(base_);
}

KorvexQuery* KorvexImpl::createQuerySession(int radius, int k) {
  auto query = at_border("createQuerySession", std::unique_ptr<KorvexQueryImpl>(),
                         [&] { return std::make_unique<KorvexQueryImpl>(this, base_, radius); });
  // A session that could not be opened is not told here: every operation of the object answers with
  // its failure value.
  if (query != nullptr) at_border("createQuerySession", [&] { query->open(k); });
  return query.release();
}

KorvexBulkQuery* KorvexImpl::createBulkQuerySession(int radius) {
  return at_border("createBulkQuerySession", static_cast<KorvexBulkQuery*>(nullptr),
                   [&] { return new KorvexBulkQueryImpl(base_, radius); });
}

KorvexQuery* KorvexImpl::getQuerySession(unsigned session_id) {
  return at_border("getQuerySession", static_cast<KorvexQuery*>(nullptr), [&] {
    return static_cast<KorvexQuery*>(korvex_search_get_userdata(base_, session_id));
  });
}

float KorvexImpl::distance(const float* a, const float* b) {
  if (a != nullptr && b != nullptr) return korvex_get_distance_internal(base_, a, b);
  log_refusal("distance", "a null vector");
  return base_->runtime->direction.load() * largest_float;
}

float KorvexImpl::distance(unsigned id, const float* vector) {
  return korvex_get_distance_ext(base_, id, vector);
}

void KorvexImpl::normalize(float* vector, int dimension) {
  if (vector == nullptr || dimension < 0)
    return log_refusal("normalize", "a null vector or a negative dimension");
  normalize_vector(vector, vector, static_cast<std::size_t>(dimension));
}

int korvex_index_ready_callback(void* context, std::uint32_t indexed, std::uint32_t added) {
  auto* const index = static_cast<KorvexImpl*>(context);
  KorvexIndexListener* const listener = index->getIndexListener();
  if (listener != nullptr)
    at_border("onIndexReady", [&] { listener->onIndexReady(index, indexed, added); });
  return 0;
}

}  // namespace korvex
