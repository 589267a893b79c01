#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "engine/runtime.h"
#include "search/session_record.h"
#include "storage/mempool.h"

// Reading the answers of a session, and giving it up.
namespace korvex {

namespace {

constexpr std::uint64_t worker_wait_ms = 1;

// The result callbacks that the calling thread is inside of, innermost first.
struct callback_frame {
  const session_attachment* attachment;  // null once the callback gave its session up
  callback_frame* outer;
};
thread_local callback_frame* current_callback = nullptr;

// Under the attachment's lock. The session's next owner has nothing to do with callbacks of the
// last one.
void disown_own_callbacks(session_attachment* attachment) {
  for (callback_frame* frame = current_callback; frame != nullptr; frame = frame->outer) {
    if (frame->attachment != attachment) continue;
    frame->attachment = nullptr;
    --attachment->callbacks;
  }
}

template <typename T>
T* copied(const T* from, std::uint32_t count) {
  auto* const to = static_cast<T*>(std::malloc(std::max<std::size_t>(count, 1) * sizeof(T)));
  if (to != nullptr) std::memcpy(to, from, count * sizeof(T));
  return to;
}

void copy_results(korvex_search_results_s* store) {
  std::lock_guard lock(store->lock);
  std::free(store->copy.ids);
  std::free(store->copy.distances);
  store->copy = {store->final.count, 1, copied(store->final.ids, store->final.count),
                 copied(store->final.distances, store->final.count)};
}

}  // namespace

void wait_until_done(hnsw_s* hnsw, korvex_search_ctx_s* session) {
  cond_var_s* const done = &session->attachment->done;
  if (!on_search_worker(hnsw)) {
    cond_wait_for_done(done);
    return;
  }
  while (cond_wait_timeout(done, 0) != 0)
    if (!run_queued_job(hnsw)) cond_wait_timeout(done, worker_wait_ms);
}

korvex_results_s* korvex_search_result(hnsw_s* hnsw, std::uint32_t sid, int copy) {
  korvex_search_ctx_s* const session = session_of(hnsw, sid);
  if (session == nullptr) return nullptr;
  wait_until_done(hnsw, session);
  korvex_search_results_s* const store = session_results(session);
  if (copy == 1) copy_results(store);
  return &store->final;
}

korvex_result_ids_s* korvex_search_result_ids(hnsw_s* hnsw, std::uint32_t sid, int copy) {
  korvex_search_ctx_s* const session = session_of(hnsw, sid);
  if (session == nullptr) return nullptr;
  wait_until_done(hnsw, session);
  const korvex_results_s& final = session_results(session)->final;
  std::lock_guard lock(hnsw->runtime->search_mutex);
  korvex_result_ids_s& view = session->ids_view;
  if (view.owned != 0) std::free(view.ids);
  view = {final.count, 1, copy != 0 ? 1u : 0u,
          copy != 0 ? copied(final.ids, final.count) : final.ids};
  if (view.ids == nullptr) view.count = 0;
  return &view;
}

korvex_result_dists_s* korvex_search_result_dists(hnsw_s* hnsw, std::uint32_t sid, int copy) {
  korvex_search_ctx_s* const session = session_of(hnsw, sid);
  if (session == nullptr) return nullptr;
  wait_until_done(hnsw, session);
  const korvex_results_s& final = session_results(session)->final;
  std::lock_guard lock(hnsw->runtime->search_mutex);
  korvex_result_dists_s& view = session->distances_view;
  if (view.owned != 0) std::free(view.distances);
  view = {final.count, copy != 0 ? 1u : 0u,
          copy != 0 ? copied(final.distances, final.count) : final.distances};
  if (view.distances == nullptr) view.count = 0;
  return &view;
}

void drop_views(korvex_search_ctx_s* session) {
  std::lock_guard lock(session->index->runtime->search_mutex);
  if (session->ids_view.owned != 0) std::free(session->ids_view.ids);
  if (session->distances_view.owned != 0) std::free(session->distances_view.distances);
  session->ids_view = {};
  session->distances_view = {};
}

void complete_search(korvex_search_ctx_s* session, bool cancelled) {
  hnsw_s* const hnsw = session->index;
  session_attachment* const attachment = session->attachment;
  search_result_callback callback = nullptr;
  const void* data = nullptr;
  const unsigned sid = session->sid;
  {
    std::lock_guard lock(hnsw->runtime->search_mutex);
    if (!cancelled || session->bulk != nullptr) callback = session->result;
    data = session->callback_data;
  }
  if (callback != nullptr) {
    std::lock_guard lock(attachment->lock);
    ++attachment->callbacks;
  }
  {
    mutex_guard lock(&attachment->done.mutex);
    std::atomic_ref(session->in_progress).store(0);
    std::atomic_ref(attachment->done.signalled).store(1);
    cond_broadcast_locked(&attachment->done);
  }
  // The session may be gone or busy again from here on.
  if (callback == nullptr) return;
  callback_frame frame{attachment, current_callback};
  current_callback = &frame;
  callback(sid, data);
  current_callback = frame.outer;
  if (frame.attachment == nullptr) return;
  std::lock_guard lock(attachment->lock);
  --attachment->callbacks;
  attachment->callbacks_gone.notify_all();
}

void korvex_search_free(hnsw_s* hnsw, std::uint32_t sid) {
  korvex_search_ctx_s* const session = session_of(hnsw, sid);
  if (session == nullptr) return;
  session_attachment* const attachment = session->attachment;
  wait_until_done(hnsw, session);
  {
    std::unique_lock lock(attachment->lock);
    disown_own_callbacks(attachment);
    attachment->callbacks_gone.wait(lock, [&] { return attachment->callbacks == 0; });
  }
  drop_views(session);
  attachment->session = nullptr;
  mempool_free(hnsw->search_pool, session, attachment);
}

}  // namespace korvex
