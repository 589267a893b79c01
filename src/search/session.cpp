#include "search/session.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <new>

#include "engine/distances.h"
#include "engine/indexing.h"
#include "engine/insertion.h"
#include "engine/points.h"
#include "engine/startup.h"
#include "runtime/log.h"
#include "search/session_record.h"
#include "storage/mempool.h"

namespace korvex {

namespace {

constexpr int default_k = 10;
constexpr std::int64_t max_k = 1 << 24;
constexpr int records_per_chunk = 128;
constexpr std::uint64_t worker_exit_interval_ms = 1'000;

std::uintptr_t aligned_up(std::uintptr_t address, std::uintptr_t to) {
  return (address + to - 1) / to * to;
}

int wanted_results(int k) {
  return static_cast<int>(std::min<std::int64_t>(k < 1 ? default_k : k, max_k));
}

// Who asks for more than there is gets room for what there is, and for some that may come.
std::int64_t at_most_what_there_is(const hnsw_s* hnsw, std::int64_t wanted) {
  constexpr std::int64_t always_granted = 1 << 16;
  return std::min(wanted, std::max<std::int64_t>(load_counter(hnsw->added), always_granted));
}

jobq_s* create_queue(const hnsw_s* hnsw) {
  jobq_s* const queue = jobq_init();
  if (queue == nullptr) return nullptr;
  jobq_set_threads_config(queue,
                          static_cast<std::uint32_t>(std::clamp(hnsw->search_threads, 1, 1024)), 1,
                          worker_exit_interval_ms);
  jobq_set_blocking(queue, std::max(hnsw->search_queue_limit, 0));
  return queue;
}

// Frees what the records of the pool carry; every id that was ever handed out is in the list.
void release_sessions(hnsw_s* hnsw) {
  for (void* const entry : hnsw->runtime->session_attachments) {
    auto* const attachment = static_cast<session_attachment*>(entry);
    if (attachment->session != nullptr) drop_views(attachment->session);
    results_destroy(attachment->results);
    cond_destroy(&attachment->done);
    delete attachment;
  }
  hnsw->runtime->session_attachments.clear();
}

session_attachment* create_attachment(hnsw_s* hnsw) {
  std::unique_ptr<session_attachment> attachment(new (std::nothrow) session_attachment);
  if (attachment == nullptr) return nullptr;
  try {
    std::lock_guard lock(hnsw->runtime->search_mutex);
    hnsw->runtime->session_attachments.push_back(attachment.get());
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
  cond_init(&attachment->done);
  return attachment.release();
}

// A store for k results; one that is large enough stays.
bool korvex_search_results_alloc(hnsw_s* hnsw, korvex_search_ctx_s* session, int k) {
  session_attachment& attachment = *session->attachment;
  const auto capacity = static_cast<std::uint32_t>(
      at_most_what_there_is(hnsw, std::max(wanted_results(k), default_k)));
  if (attachment.results != nullptr && attachment.results->capacity >= capacity) return true;
  korvex_search_results_s* const store =
      results_create(capacity, std::max(hnsw->runtime->probe_count, 1u));
  if (store == nullptr) return false;
  results_destroy(attachment.results);
  attachment.results = store;
  return true;
}

std::uint32_t candidates_to_look_at(const hnsw_s* hnsw, int radius, int k) {
  std::int64_t ef = std::max<std::int64_t>(k, radius);
  if (hnsw->validate_parameters != 0) ef = std::max<std::int64_t>(ef, 2 * std::int64_t{k});
  ef = std::max<std::int64_t>(ef, hnsw->runtime->neighbour_count);
  return static_cast<std::uint32_t>(at_most_what_there_is(hnsw, std::min(ef, 2 * max_k)));
}

void give_back(korvex_search_ctx_s* session) {
  std::atomic_ref(session->in_progress).store(0);
}

bool try_begin(korvex_search_ctx_s* session) {
  std::uint32_t idle = 0;
  return std::atomic_ref(session->in_progress).compare_exchange_strong(idle, 1);
}

void take_query(hnsw_s* hnsw, korvex_search_ctx_s* session, const float* v) {
  float* const query = const_cast<float*>(session->node.vector);
  const std::uint32_t dimension = hnsw->dimension;
  if (hnsw->norm_probing != 0) {
    // The norm ring follows the session's previous query: the slot still holds it here.
    normalize_vector(query, session->prepared, dimension);
    session->query_norm = korvex_get_norm_distance(hnsw, 1, session->prepared);
  }
  std::memcpy(query, v, hnsw->vector_bytes);
  korvex_expand_vector(hnsw, query);
  if (hnsw->normalize != 0) normalize_vector(query, query, dimension);
  session->query_magnitude = normalize_vector(query, session->prepared, dimension);
}

bool stopped(const hnsw_s* hnsw) {
  return load_counter(hnsw->stop_searching) != 0;
}

std::uint32_t refuse_empty(const hnsw_s* hnsw, korvex_search_ctx_s* session) {
  give_back(session);
  // A teardown is no fault, and a batch comes here once for every query that is left.
  if (stopped(hnsw)) return search_failed;
  if (load_counter(hnsw->added) == 0)
    KORVEX_LOG_CRITICAL("No vectors were indexed, add vectors and try again\n");
  else
    KORVEX_LOG("*** BUG *** zero completed nodes, should not happen\n");
  return search_failed;
}

std::uint32_t start(hnsw_s* hnsw, korvex_search_ctx_s* session, const float* v, int radius, int k) {
  drop_views(session);
  if (!korvex_search_results_alloc(hnsw, session, k)) {
    KORVEX_LOG_CRITICAL("no memory for %d results\n", k);
    give_back(session);
    return search_failed;
  }
  session->k = static_cast<std::uint32_t>(wanted_results(k));
  session->ef = candidates_to_look_at(hnsw, radius, wanted_results(k));
  session->mode = mode_new;
  session->tie_count = 0;
  session->shared.worst = largest_float;
  session->serial = std::atomic_ref(hnsw->search_serial).fetch_add(1) + 1;
  session->node.id = 0;
  take_query(hnsw, session, v);
  results_clear(session->attachment->results, hnsw->runtime->direction.load());
  session->attachment->delivered.clear();
  korvex_wait_finish_adding(hnsw);
  if (load_counter(hnsw->networked) == 0 || stopped(hnsw)) return refuse_empty(hnsw, session);
  return korvex_search_add_queue(hnsw, session) ? 0 : search_failed;
}

// `more` and `refine` share all but their log lines.
bool restart(hnsw_s* hnsw, korvex_search_ctx_s* session, search_mode mode) {
  drop_views(session);
  session->mode = mode;
  session->shared.worst = largest_float;
  if (session->k == 0) {
    KORVEX_LOG_CRITICAL("nothing was searched yet: %u\n", session->sid);
    give_back(session);
    return false;
  }
  return korvex_search_add_queue(hnsw, session);
}

}  // namespace

korvex_search_ctx_s* session_of(hnsw_s* hnsw, std::uint32_t sid) {
  if (hnsw == nullptr || sid == 0) return nullptr;
  mempool_s* const pool = std::atomic_ref(hnsw->search_pool).load(std::memory_order_acquire);
  return pool == nullptr ? nullptr
                         : static_cast<korvex_search_ctx_s*>(mempool_get_from_id(pool, sid));
}

korvex_search_results_s* session_results(const korvex_search_ctx_s* session) {
  return session->attachment->results;
}

bool korvex_search_global_init(hnsw_s* hnsw) {
  if (std::atomic_ref(hnsw->search_queue).load(std::memory_order_acquire) != nullptr) return true;
  if (!korvex_try_init_memory(hnsw)) return false;
  korvex_runtime_s& runtime = *hnsw->runtime;
  std::lock_guard lock(runtime.startup_lock);
  if (hnsw->search_queue != nullptr) return true;
  jobq_s* const queue = create_queue(hnsw);
  runtime.vector_slot = hnsw->vector_bytes + vector_slot_slack;
  const std::uint64_t record = 2 * std::uint64_t{runtime.vector_slot} + session_record_bytes;
  mempool_s* const pool = mempool_init(static_cast<int>(record), records_per_chunk, 0, 0, 1);
  if (queue == nullptr || pool == nullptr) {
    jobq_cleanup(queue);
    if (pool != nullptr) mempool_destroy(pool);
    KORVEX_LOG_CRITICAL("no memory for searching\n");
    return false;
  }
  mempool_require_ids(pool);  // hosts know sessions by their ids
  runtime.search.cancel_queued = cancel_queued_searches;
  runtime.search.release = release_sessions;
  std::atomic_ref(hnsw->search_pool).store(pool, std::memory_order_release);
  std::atomic_ref(hnsw->search_queue).store(queue, std::memory_order_release);
  return true;
}

korvex_search_ctx_s* korvex_search_init_ctx(hnsw_s* hnsw, int k) {
  if (hnsw == nullptr || stopped(hnsw) || !korvex_search_global_init(hnsw)) return nullptr;
  unsigned sid = 0;
  void* tag = nullptr;
  auto* const session =
      static_cast<korvex_search_ctx_s*>(mempool_alloc(hnsw->search_pool, &sid, &tag));
  if (session == nullptr) return nullptr;
  std::memset(static_cast<void*>(session), 0, sizeof *session);
  session->attachment =
      tag != nullptr ? static_cast<session_attachment*>(tag) : create_attachment(hnsw);
  session->index = hnsw;
  session->sid = sid;
  const std::uintptr_t first =
      aligned_up(reinterpret_cast<std::uintptr_t>(session) + sizeof *session, 32);
  session->node.vector = reinterpret_cast<float*>(first);
  session->prepared = reinterpret_cast<float*>(first + hnsw->runtime->vector_slot);
  if (session->attachment == nullptr || !korvex_search_results_alloc(hnsw, session, k)) {
    mempool_free(hnsw->search_pool, session, session->attachment);
    return nullptr;
  }
  session->attachment->session = session;
  std::memset(const_cast<float*>(session->node.vector), 0, hnsw->vector_bytes);
  results_clear(session->attachment->results, hnsw->runtime->direction.load());
  session->attachment->excluded.clear();
  session->attachment->delivered.clear();
  session->attachment->results->final.count = 0;
  cond_broadcast(&session->attachment->done);
  return session;
}

std::uint32_t korvex_search_init(hnsw_s* hnsw, int k, void* user_data) {
  korvex_search_ctx_s* const session = korvex_search_init_ctx(hnsw, k);
  if (session == nullptr) return 0;
  session->user_data = user_data;
  return session->sid;
}

void* korvex_search_get_userdata(hnsw_s* hnsw, std::uint32_t sid) {
  korvex_search_ctx_s* const session = session_of(hnsw, sid);
  return session == nullptr ? nullptr : session->user_data;
}

void korvex_search_set_callbacks(hnsw_s* hnsw, std::uint32_t sid, search_filter_callback filter,
                                 search_result_callback result, const void* data) {
  korvex_search_ctx_s* const session = session_of(hnsw, sid);
  if (session == nullptr) return;
  std::lock_guard lock(hnsw->runtime->search_mutex);
  session->filter = filter;
  session->result = result;
  session->callback_data = data;
}

void korvex_search_set_cbdata(hnsw_s* hnsw, std::uint32_t sid, const void* data) {
  korvex_search_ctx_s* const session = session_of(hnsw, sid);
  if (session == nullptr) return;
  std::lock_guard lock(hnsw->runtime->search_mutex);
  session->callback_data = data;
}

std::uint32_t korvex_search(hnsw_s* hnsw, std::uint32_t sid, const float* v, int radius, int k) {
  if (v == nullptr || sid == 0 || hnsw == nullptr) {
    KORVEX_LOG("*** BUG *** null v %p or sid %u\n", static_cast<const void*>(v), sid);
    return search_failed;
  }
  korvex_search_ctx_s* const session = session_of(hnsw, sid);
  if (session == nullptr || !try_begin(session)) {
    const int word = session == nullptr ? -1 : static_cast<int>(load_counter(session->in_progress));
    KORVEX_LOG("unable to find sid: %u or search already in progress: %d\n", sid, word);
    return search_failed;
  }
  if (hnsw->validate_parameters != 0 && !all_finite(v, hnsw->dimension)) {
    KORVEX_LOG_CRITICAL("a query with components that are not finite was refused\n");
    give_back(session);
    return search_failed;
  }
  return start(hnsw, session, v, radius, k);
}

std::uint32_t korvex_search_more(hnsw_s* hnsw, std::uint32_t sid) {
  korvex_search_ctx_s* const session = session_of(hnsw, sid);
  if (session == nullptr) {
    KORVEX_LOG("search id not found: %u\n", sid);
    return search_failed;
  }
  if (!try_begin(session)) {
    KORVEX_LOG("search is already in progress: %u\n", sid);
    return search_failed;
  }
  return restart(hnsw, session, mode_more) ? 0 : search_failed;
}

std::uint32_t korvex_search_refine(hnsw_s* hnsw, std::uint32_t sid) {
  korvex_search_ctx_s* const session = session_of(hnsw, sid);
  if (session == nullptr) return search_failed;
  if (!try_begin(session)) {
    KORVEX_LOG("*** BUG *** search is already in progress\n");
    return 0;
  }
  return restart(hnsw, session, mode_refine) ? 0 : search_failed;
}

std::uint32_t korvex_search_filter(hnsw_s* hnsw, std::uint32_t sid, std::uint32_t id) {
  korvex_search_ctx_s* const session = session_of(hnsw, sid);
  if (session == nullptr || id == std::numeric_limits<std::uint32_t>::max()) return search_failed;
  session_attachment& attachment = *session->attachment;
  std::lock_guard lock(attachment.lock);
  return attachment.excluded.add(id + 1, 2 * default_k) ? 0 : search_failed;
}

int korvex_search_refine_vector(hnsw_s*, std::uint32_t, const float*, const void*) {
  return -1;
}

}  // namespace korvex
