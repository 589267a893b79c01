#ifndef KORVEX_SEARCH_SESSION_RECORD_H
#define KORVEX_SEARCH_SESSION_RECORD_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "engine/record.h"
#include "engine/walk.h"
#include "korvex/korvex.h"
#include "runtime/job_queue.h"
#include "runtime/sync.h"
#include "search/results.h"
#include "search/session.h"

namespace korvex {

struct korvex_bulk_search_s;

inline constexpr std::uint32_t max_ties = 4;
inline constexpr std::uint32_t vector_slot_slack = 64;
inline constexpr std::uint32_t session_record_bytes = 640;

enum search_mode : std::uint32_t { mode_new = 0, mode_refine = 1, mode_more = 2 };

// One probe of one query on its way through the job queue.
struct search_job {
  jobs_s link;
  korvex_search_ctx_s* session;
  std::uint32_t probe;
};
static_assert(sizeof(search_job) == 24);

// What stays with a session record when the pool hands it on: kept as the element's tag.
// Threads   `done` latches: set while no search runs. `lock` guards callbacks and excluded;
//           delivered belongs to the search.
struct session_attachment {
  cond_var_s done{};
  korvex_search_results_s* results = nullptr;
  korvex_search_ctx_s* session = nullptr;  // while the record is handed out
  id_set excluded;                         // internal ids that the session never returns again
  id_set delivered;                        // internal ids returned since the last new search
  std::mutex lock;
  std::condition_variable callbacks_gone;
  std::uint32_t callbacks = 0;  // result callbacks that are running for this record
};

// A search session. Followed by room for two vectors.
// Threads   in_progress is taken by compare-and-swap from 0 to 1 and guards everything that a
//           search sets; jobs_done is counted atomically, and the job that brings it to jobs_total
//           completes the search.
struct korvex_search_ctx_s {
  hnsw_s* index;
  std::uint32_t sid;
  std::uint32_t serial;
  korvex_node_s node;  // id 0 and the query
  std::uint64_t reserved;
  float* prepared;  // the query at unit length
  float query_norm;
  float query_magnitude;
  std::uint32_t ef;
  std::uint32_t k;
  std::uint32_t in_progress;
  std::uint32_t jobs_done;
  std::uint32_t jobs_total;
  std::uint32_t mode;
  shared_bound_s shared;
  search_job jobs[max_probes];
  std::uint32_t tie_count;
  std::uint32_t ties[max_ties];  // public ids that closed the last search at equal distances
  session_attachment* attachment;
  korvex_result_ids_s ids_view;
  korvex_result_dists_s distances_view;
  std::uint32_t bulk_index;
  std::uint32_t* bulk_output;
  korvex_bulk_search_s* bulk;
  void* user_data;
  const void* callback_data;
  search_filter_callback filter;
  search_result_callback result;
};
static_assert(sizeof(korvex_search_ctx_s) <= session_record_bytes);

korvex_search_ctx_s* session_of(hnsw_s* hnsw, std::uint32_t sid);
// Frees the copies that callers were given until the next search.
void drop_views(korvex_search_ctx_s* session);
korvex_search_results_s* session_results(const korvex_search_ctx_s* session);

// Queues one job a probe for a session whose in_progress word the caller has taken. False, with the
// word given back, when there is nothing to search.
bool korvex_search_add_queue(hnsw_s* hnsw, korvex_search_ctx_s* session);
// Ends a search: results are final from here on, accessors return, the callback runs on this
// thread. `cancelled`: the index is being torn down; hosts are not called any more.
void complete_search(korvex_search_ctx_s* session, bool cancelled);
// One job less; the last one merges and completes.
void complete_job(korvex_search_ctx_s* session, bool cancelled);
// Completes whatever is still queued as empty.
void cancel_queued_searches(hnsw_s* hnsw);

// Blocks until no search runs on the session; a search worker runs queued jobs meanwhile, so that
// it never waits for itself.
void wait_until_done(hnsw_s* hnsw, korvex_search_ctx_s* session);
// Runs one queued job when the calling thread is a search worker of the index. False when it is
// none, or no job is queued.
bool run_queued_job(hnsw_s* hnsw);
bool on_search_worker(const hnsw_s* hnsw);

}  // namespace korvex

#endif  // KORVEX_SEARCH_SESSION_RECORD_H
