#ifndef KORVEX_SEARCH_WORKER_H
#define KORVEX_SEARCH_WORKER_H

#include "engine/neighbours.h"
#include "engine/walk.h"
#include "search/session_record.h"

namespace korvex {

// What one search thread needs to run jobs, for its whole life.
class search_worker {
 public:
  explicit search_worker(hnsw_s* hnsw);
  ~search_worker();
  search_worker(const search_worker&) = delete;
  search_worker& operator=(const search_worker&) = delete;

  bool ready() const { return nbrs_ != nullptr && walk_.visited != nullptr; }
  // Whether run() is in its walk, where a host's filter may want other jobs run: they need another
  // worker.
  bool walking() const { return walking_; }
  // Searches one probe for one session; the last job of a session completes it.
  void run(search_job* job);

 private:
  struct cache_view;

  void search_slice(korvex_search_ctx_s* session, std::uint32_t probe);
  void search_anew(korvex_search_ctx_s* session, std::uint32_t probe, result_slice* slice);
  void search_around(korvex_search_ctx_s* session, std::uint32_t probe);
  void search_on(korvex_search_ctx_s* session, std::uint32_t probe, result_slice* slice);
  std::uint32_t entry_of(const korvex_search_ctx_s* session, std::uint32_t probe) const;
  bool seed_from_cache(korvex_search_ctx_s* session, const cache_view& cache);
  void store_in_cache(korvex_search_ctx_s* session, const cache_view& cache,
                      std::uint64_t walk_start, std::uint64_t elapsed_usec);
  void walk(korvex_search_ctx_s* session, std::uint32_t entry);
  void use_filter(korvex_search_ctx_s* session);
  std::uint32_t copy_results(korvex_search_ctx_s* session, result_set* set, std::uint32_t k);
  void copy_out(korvex_search_ctx_s* session, result_slice* slice);
  bool copy_to_bulk(korvex_search_ctx_s* session);

  hnsw_s* const hnsw_;
  korvex_nbrs_s* nbrs_;
  korvex_session_s walk_{};
  struct filter_snapshot {
    search_filter_callback filter;
    const void* data;
    hnsw_s* hnsw;
  } filter_{};
  bool dropping_delivered_ = false;
  bool walking_ = false;
};

// The body of a search thread; the argument is the runtime, with one use taken for the thread.
void* korvex_search_thread(void* argument);

}  // namespace korvex

#endif  // KORVEX_SEARCH_WORKER_H
