#include "api/query_object.h"

#include "api/border.h"
#include "runtime/log.h"
#include "search/session.h"

namespace korvex {

namespace {

KorvexQuery* query_of(const void* data) {
  return static_cast<KorvexQuery*>(const_cast<void*>(data));
}

KorvexQueryListener* listener_of(KorvexQuery* query) {
  return static_cast<KorvexQueryImpl*>(query)->getListener();
}

}  // namespace

std::uint32_t next_object_id() {
  static std::atomic<std::uint32_t> last{0};
  return last.fetch_add(1) + 1;
}

KorvexQueryImpl::KorvexQueryImpl(Korvex* parent, hnsw_s* base, int radius)
    : parent_(parent),
      base_(base),
      radius_(radius),
      runtime_(base->runtime),
      object_id_(next_object_id()) {
  runtime_add_handle(runtime_);
}

void KorvexQueryImpl::open(int k) {
  session_id_ = korvex_search_init(base_, k, static_cast<KorvexQuery*>(this));
}

KorvexQueryImpl::~KorvexQueryImpl() {
  at_border("destroy", [this] {
    late_use use(runtime_);
    if (use) korvex_search_free(base_, session_id_);
  });
  runtime_release_handle(runtime_);
}

void KorvexQueryImpl::destroy() {
  delete this;
}

// Null tells that the index is gone: an answer, not a refusal.
Korvex* KorvexQueryImpl::getParent() {
  const runtime_use use(runtime_);
  return use ? parent_ : nullptr;
}

unsigned KorvexQueryImpl::get_objid() {
  return object_id_;
}

unsigned KorvexQueryImpl::getSessionId() {
  return session_id_;
}

void KorvexQueryImpl::setListener(KorvexQueryListener* listener, int filter) {
  listener_.store(listener);
  with_open_index(runtime_, "setListener", 0, [&] {
    korvex_search_set_callbacks(
        base_, session_id_, listener != nullptr && filter != 0 ? korvex_filter_callback : nullptr,
        listener != nullptr ? korvex_result_callback : nullptr, static_cast<KorvexQuery*>(this));
    return 0;
  });
}

void KorvexQueryImpl::setUserData(void* data) {
  user_data_.store(data);
}

void* KorvexQueryImpl::getUserData() {
  return user_data_.load();
}

int KorvexQueryImpl::setRadius(int radius) {
  if (radius < 0) {
    log_refusal("setRadius", "the value must not be negative");
    return -1;
  }
  radius_.store(radius);
  return 0;
}

unsigned KorvexQueryImpl::query(const float* vector, int, int k) {
  return with_open_index(runtime_, "query", search_failed, [&] {
    return korvex_search(base_, session_id_, vector, radius_.load(), k);
  });
}

unsigned KorvexQueryImpl::more() {
  return with_open_index(runtime_, "more", search_failed,
                         [this] { return korvex_search_more(base_, session_id_); });
}

unsigned KorvexQueryImpl::refine() {
  return with_open_index(runtime_, "refine", search_failed,
                         [this] { return korvex_search_refine(base_, session_id_); });
}

unsigned KorvexQueryImpl::filter(unsigned id) {
  return with_open_index(runtime_, "filter", search_failed, [&] {
    if (id == search_failed) log_refusal("filter", "no vector has this id");
    return korvex_search_filter(base_, session_id_, id);
  });
}

korvex_results_s* KorvexQueryImpl::getResults(int copy) {
  return with_open_index(runtime_, "getResults", static_cast<korvex_results_s*>(nullptr),
                         [&] { return korvex_search_result(base_, session_id_, copy); });
}

korvex_result_ids_s* KorvexQueryImpl::getResultIds(int copy) {
  return with_open_index(runtime_, "getResultIds", static_cast<korvex_result_ids_s*>(nullptr), [&] {
    KORVEX_LOG("result ids\n");
    return korvex_search_result_ids(base_, session_id_, copy);
  });
}

korvex_result_dists_s* KorvexQueryImpl::getResultDists(int copy) {
  return with_open_index(runtime_, "getResultDists", static_cast<korvex_result_dists_s*>(nullptr),
                         [&] { return korvex_search_result_dists(base_, session_id_, copy); });
}

int korvex_result_callback(unsigned, const void* data) {
  KorvexQuery* const query = query_of(data);
  KorvexQueryListener* const listener = listener_of(query);
  if (listener == nullptr) return 0;
  // The query may be gone when the listener returns.
  return at_border("onResults", 0, [&] { return listener->onResults(query); });
}

int korvex_filter_callback(const void* data, unsigned id, unsigned long long) {
  KorvexQuery* const query = query_of(data);
  KorvexQueryListener* const listener = listener_of(query);
  if (listener == nullptr) return 0;
  return at_border("onFilter", 0, [&] { return listener->onFilter(query, id); });
}

}  // namespace korvex
