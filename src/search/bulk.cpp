#include "search/bulk.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "engine/runtime.h"
#include "runtime/log.h"
#include "runtime/platform/clock.h"
#include "runtime/random.h"
#include "search/session_record.h"

namespace korvex {

namespace {

constexpr int default_k = 10;
constexpr int max_k = 1 << 24;
constexpr std::uint64_t poll_usec = 500;
constexpr std::uint64_t worker_wait_ms = 1;

// The batches whose end the calling thread is reporting, innermost first.
struct end_frame {
  const korvex_bulk_search_s* bulk;
  bool gone;  // released or reused by the host's callback
  end_frame* outer;
};
thread_local end_frame* current_end = nullptr;

end_frame* own_end(const korvex_bulk_search_s* bulk) {
  for (end_frame* frame = current_end; frame != nullptr; frame = frame->outer)
    if (frame->bulk == bulk && !frame->gone) return frame;
  return nullptr;
}

// Every query is answered and no session works for the batch any more: from the broadcast on the
// record is the host's.
void end_batch(korvex_bulk_search_s* bulk) {
  const search_result_callback callback = bulk->callback;
  const void* const data = bulk->callback_data;
  const std::uint32_t sid = bulk->last_sid;
  end_frame frame{bulk, false, current_end};
  current_end = &frame;
  cond_broadcast(&bulk->done);
  if (callback != nullptr) callback(sid, data);
  current_end = frame.outer;
  if (!frame.gone) std::atomic_ref(bulk->busy).store(0, std::memory_order_release);
}

void wait_until_done(hnsw_s* hnsw, korvex_bulk_search_s* bulk) {
  if (!on_search_worker(hnsw)) {
    cond_wait_for_done(&bulk->done);
    return;
  }
  while (cond_wait_timeout(&bulk->done, 0) != 0)
    if (!run_queued_job(hnsw)) cond_wait_timeout(&bulk->done, worker_wait_ms);
}

void count_completed(korvex_bulk_search_s* bulk, std::uint32_t sid) {
  mutex_guard lock(&bulk->lock);
  bulk->last_sid = sid;
  std::atomic_ref(bulk->completed).fetch_add(1);
}

// Takes the next query for a session. False when all are handed out.
bool next_query(korvex_bulk_search_s* bulk, korvex_search_ctx_s* session, std::uint32_t* query) {
  mutex_guard lock(&bulk->lock);
  if (bulk->next >= bulk->query_count) return false;
  *query = bulk->next++;
  session->bulk_output = bulk->output + std::size_t{*query} * bulk->k;
  session->bulk_index = *query;
  return true;
}

// A session leaves the batch; the last one ends it.
void retire(korvex_bulk_search_s* bulk, korvex_search_ctx_s* session) {
  korvex_search_free(bulk->index, session->sid);
  bool last = false;
  {
    mutex_guard lock(&bulk->lock);
    last = --bulk->sessions == 0;
  }
  if (last) end_batch(bulk);
}

std::uint32_t session_count(const hnsw_s* hnsw, int n) {
  const int threads = std::max(hnsw->search_threads, 1);
  const auto probes = static_cast<int>(std::max(load_counter(hnsw->probes_made), 1u));
  return static_cast<std::uint32_t>(std::max(std::min(threads, n) / probes, 2));
}

void reset_record(hnsw_s* hnsw, korvex_bulk_search_s* bulk, int n, int radius, int k,
                  search_result_callback callback, const void* data) {
  std::memset(static_cast<void*>(bulk), 0, sizeof *bulk);
  mutex_create(&bulk->lock);
  cond_init(&bulk->done);
  bulk->initialised = true;
  bulk->index = hnsw;
  bulk->query_count = static_cast<std::uint32_t>(std::max(n, 0));
  bulk->radius = static_cast<std::uint32_t>(radius);
  bulk->k = static_cast<std::uint32_t>(k);
  bulk->callback = callback;
  bulk->callback_data = data;
}

bool take_vectors(korvex_bulk_search_s* bulk, const float* vectors) {
  const std::size_t floats = std::size_t{bulk->query_count} * bulk->index->dimension;
  bulk->output = static_cast<std::uint32_t*>(std::calloc(
      std::max<std::size_t>(std::size_t{bulk->query_count} * bulk->k, 1), sizeof(std::uint32_t)));
  if (bulk->query_count == 0 || vectors == nullptr) return bulk->output != nullptr;
  bulk->vectors = static_cast<float*>(std::malloc(floats * sizeof(float)));
  if (bulk->vectors == nullptr || bulk->output == nullptr) return false;
  std::memcpy(bulk->vectors, vectors, floats * sizeof(float));
  return true;
}

// The call without a callback returns before the slowest queries are answered; reading the results
// waits for the rest.
void wait_for_most(korvex_bulk_search_s* bulk) {
  const std::uint64_t share = 60 + random_u32_max(15);
  const std::uint64_t enough =
      std::min<std::uint64_t>(share * bulk->query_count / 100, bulk->query_count);
  hnsw_s* const hnsw = bulk->index;
  while (std::atomic_ref(bulk->completed).load() < enough)
    if (!run_queued_job(hnsw)) platform::usleep_interruptible(poll_usec);
}

// Gives every session its first query. Sessions that could not be made leave their share to the
// others.
void run_batch(korvex_bulk_search_s* bulk, std::uint32_t sessions) {
  hnsw_s* const hnsw = bulk->index;
  bulk->sessions = 1;  // this call's own claim, so that early ends do not end the batch
  for (std::uint32_t i = 0; i < sessions; ++i) {
    korvex_search_ctx_s* const session = korvex_search_init_ctx(hnsw, static_cast<int>(bulk->k));
    if (session == nullptr) continue;
    korvex_search_set_callbacks(hnsw, session->sid, nullptr, korvex_bulk_search_callback, bulk);
    session->bulk = bulk;
    {
      mutex_guard lock(&bulk->lock);
      ++bulk->sessions;
    }
    korvex_search_add(bulk, session);
  }
  bool last = false;
  {
    mutex_guard lock(&bulk->lock);
    last = --bulk->sessions == 0;
    if (last) bulk->completed = bulk->query_count;  // no session at all: zero rows
  }
  if (last) end_batch(bulk);
}

}  // namespace

std::uint32_t korvex_bulk_search(hnsw_s* hnsw, korvex_bulk_search_s* bulk, const float* vectors,
                                 int n, int radius, int k, search_result_callback callback,
                                 const void* data) {
  if (hnsw == nullptr || bulk == nullptr) return search_failed;
  KORVEX_LOG("bulk queries %d radius %d k %d\n", n, radius, k);
  korvex_bulk_search_release(bulk);
  reset_record(hnsw, bulk, n, radius, std::min(k < 1 ? default_k : k, max_k), callback, data);
  if (!take_vectors(bulk, vectors)) {
    KORVEX_LOG_CRITICAL("no memory for a batch of %d queries\n", n);
    bulk->query_count = 0;
    cond_broadcast(&bulk->done);
    return search_failed;
  }
  bulk->busy = 1;
  const bool empty = load_counter(hnsw->added) == 0;
  const bool nothing_to_do = n <= 0 || vectors == nullptr || empty;
  if (empty) KORVEX_LOG_CRITICAL("No vectors were indexed, add vectors and try again\n");
  const bool waits = callback == nullptr;
  run_batch(bulk, nothing_to_do ? 0 : session_count(hnsw, n));
  if (waits) wait_for_most(bulk);
  return 0;
}

void korvex_search_add(korvex_bulk_search_s* bulk, korvex_search_ctx_s* session) {
  if (session == nullptr) return;
  std::uint32_t query = 0;
  while (next_query(bulk, session, &query)) {
    const float* const vector = bulk->vectors + std::size_t{query} * bulk->index->dimension;
    if (korvex_search(bulk->index, session->sid, vector, static_cast<int>(bulk->radius),
                      static_cast<int>(bulk->k)) == 0)
      return;
    count_completed(bulk, session->sid);  // its row stays zero
  }
  retire(bulk, session);
}

int korvex_bulk_search_callback(unsigned sid, const void* data) {
  auto* const bulk = static_cast<korvex_bulk_search_s*>(const_cast<void*>(data));
  korvex_search_ctx_s* const session = session_of(bulk->index, sid);
  count_completed(bulk, sid);
  korvex_search_add(bulk, session);
  return 0;
}

korvex_bulk_results_s* korvex_bulk_search_results(hnsw_s*, korvex_bulk_search_s* bulk) {
  if (bulk == nullptr) {
    KORVEX_LOG("null bulk search detected\n");
    return nullptr;
  }
  if (!bulk->initialised) return &bulk->view;
  wait_until_done(bulk->index, bulk);
  bulk->view = {bulk->k, bulk->query_count, 1, bulk->output};
  return &bulk->view;
}

void korvex_bulk_search_release(korvex_bulk_search_s* bulk) {
  if (bulk == nullptr || !bulk->initialised) return;
  if (end_frame* const frame = own_end(bulk)) {
    frame->gone = true;
  } else {
    if (cond_wait_timeout(&bulk->done, 0) != 0) wait_until_done(bulk->index, bulk);
    while (std::atomic_ref(bulk->busy).load(std::memory_order_acquire) != 0)
      platform::sleep_usec(50);
  }
  cond_destroy(&bulk->done);
  std::free(bulk->vectors);
  std::free(bulk->output);
  bulk->vectors = nullptr;
  bulk->output = nullptr;
  bulk->initialised = false;
}

}  // namespace korvex
