#ifndef KORVEX_SEARCH_BULK_H
#define KORVEX_SEARCH_BULK_H

#include <cstdint>

#include "engine/record.h"
#include "korvex/korvex.h"
#include "runtime/sync.h"
#include "search/session.h"

namespace korvex {

struct korvex_runtime_s;

// A batch of queries that runs through a few sessions; each takes the next query when it has
// answered its last.
// Ownership   the vectors are copied, so the host's may go as soon as the call returns; output and
//             copy live until the next batch or korvex_bulk_search_release.
// Threads     `lock` guards next and completed; started and queued are atomic. One batch at a time.
struct korvex_bulk_search_s {
  hnsw_s* index;
  std::uint32_t query_count;
  std::uint32_t next;
  std::uint32_t completed;
  std::uint32_t started;
  std::uint32_t queued;
  std::uint32_t k;
  std::uint32_t radius;
  float* vectors;
  std::uint32_t* output;
  search_result_callback callback;
  const void* callback_data;
  korvex_bulk_results_s view;
  pthread_mutex_t lock;
  cond_var_s done;
  bool initialised;        // lock and done exist
  std::uint32_t last_sid;  // of the session that answered last
  std::uint32_t sessions;  // that still work for the batch; under lock
  std::uint32_t busy;      // the batch runs, or its end is being reported
};

// Runs the batch; a batch that still runs on the record is waited for first. With a callback it
// returns at once and the callback comes once, when every query is answered; without one it returns
// when most are. 0, or search_failed when memory is short.
std::uint32_t korvex_bulk_search(hnsw_s* hnsw, korvex_bulk_search_s* bulk, const float* vectors,
                                 int n, int radius, int k, search_result_callback callback,
                                 const void* data);
// Waits for the whole batch. Null for a null record.
korvex_bulk_results_s* korvex_bulk_search_results(hnsw_s* hnsw, korvex_bulk_search_s* bulk);
// Waits for a running batch (not on the thread of its callback) and frees what the record holds.
void korvex_bulk_search_release(korvex_bulk_search_s* bulk);

void korvex_search_add(korvex_bulk_search_s* bulk, korvex_search_ctx_s* session);
int korvex_bulk_search_callback(unsigned sid, const void* bulk);

}  // namespace korvex

#endif  // KORVEX_SEARCH_BULK_H
