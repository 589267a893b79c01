#include "api/bulk_query_object.h"

#include "api/border.h"
#include "api/query_object.h"
#include "api/vector_printer.h"
#include "runtime/log.h"

namespace korvex {

KorvexBulkQueryImpl::KorvexBulkQueryImpl(hnsw_s* base, int radius)
    : base_(base), radius_(radius), runtime_(base->runtime), object_id_(next_object_id()) {
  runtime_add_handle(runtime_);
}

KorvexBulkQueryImpl::~KorvexBulkQueryImpl() {
  at_border("destroy", [this] {
    // The batch's vectors and answers are of this object, whatever became of the index.
    late_use use(runtime_);
    korvex_bulk_search_release(&bulk_);
  });
  runtime_release_handle(runtime_);
}

void KorvexBulkQueryImpl::destroy() {
  delete this;
}

unsigned KorvexBulkQueryImpl::get_objid() {
  return object_id_;
}

void KorvexBulkQueryImpl::setListener(KorvexBulkQueryListener* listener) {
  listener_.store(listener);
}

void KorvexBulkQueryImpl::setUserData(void* data) {
  user_data_.store(data);
}

void* KorvexBulkQueryImpl::getUserData() {
  return user_data_.load();
}

int KorvexBulkQueryImpl::setRadius(int radius) {
  if (radius < 0) {
    log_refusal("setRadius", "the value must not be negative");
    return -1;
  }
  radius_.store(radius);
  return 0;
}

unsigned KorvexBulkQueryImpl::query(const float* vectors, int n, int, int k) {
  return with_open_index(runtime_, "query", search_failed, [&] {
    if (n < 0 || (n > 0 && vectors == nullptr))
      log_refusal("query", "no vectors: their rows stay zero");
    const search_result_callback callback =
        listener_.load() != nullptr ? korvex_bulk_result_callback : nullptr;
    return korvex_bulk_search(base_, &bulk_, vectors, n, radius_.load(), k, callback,
                              static_cast<KorvexBulkQuery*>(this));
  });
}

korvex_bulk_results_s* KorvexBulkQueryImpl::getResultIds(int) {
  return with_open_index(runtime_, "getResultIds", static_cast<korvex_bulk_results_s*>(nullptr),
                         [this] { return korvex_bulk_search_results(base_, &bulk_); });
}

void KorvexBulkQueryImpl::printResults() {
  with_open_index(runtime_, "printResults", 0, [this] {
    const korvex_bulk_results_s* const results = korvex_bulk_search_results(base_, &bulk_);
    if (results == nullptr) return -1;
    KORVEX_LOG("result k=%u count %u\n", results->k, results->query_count);
    for (std::uint32_t i = 0; i < results->query_count && results->ids != nullptr; ++i) {
      const std::string label = "(bulk " + std::to_string(i) + ")\n";
      print_vector(label.c_str(), {results->ids + std::size_t{i} * results->k, results->k});
    }
    return log_wait_empty();
  });
}

int korvex_bulk_result_callback(unsigned, const void* data) {
  auto* const query = static_cast<KorvexBulkQuery*>(const_cast<void*>(data));
  KorvexBulkQueryListener* const listener = static_cast<KorvexBulkQueryImpl*>(query)->getListener();
  if (listener == nullptr) return 0;
  // The query may be gone when the listener returns.
  return at_border("onResults", 0, [&] { return listener->onResults(query); });
}

}  // namespace korvex
