#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "engine/runtime.h"
#include "engine/teardown.h"
#include "runtime/log.h"
#include "runtime/threads.h"
#include "search/bulk.h"
#include "search/session_record.h"
#include "search/worker.h"

// Sessions become jobs, jobs run on search threads, and the last job of a session completes it.
namespace korvex {

namespace {

constexpr int job_wait_ms = 1'000;
constexpr thread_priority_level_t worker_priority = 2;

// The scratch of the search thread that is running, for jobs that it runs while it waits.
thread_local search_worker* current_worker = nullptr;

bool stopping(const hnsw_s* hnsw) {
  return load_counter(hnsw->stop_searching) != 0;
}

// The populated norm bucket nearest to the query and its populated neighbours. The number of
// probes.
std::uint32_t probes_by_norm(const hnsw_s* hnsw, const korvex_search_ctx_s* session,
                             std::uint32_t* probes) {
  std::uint32_t buckets[norm_buckets];
  std::uint32_t count = 0;
  for (std::uint32_t bucket = 0; bucket < norm_buckets; ++bucket)
    if (hnsw->probe_slots[bucket] != 0) buckets[count++] = bucket;
  if (count == 0) return 0;
  const auto off_by = [&](std::uint32_t position) {
    return std::fabs(session->query_norm -
                     static_cast<float>(buckets[position]) * hnsw->probe_step);
  };
  std::uint32_t nearest = 0;
  for (std::uint32_t i = 1; i < count; ++i)
    if (off_by(i) < off_by(nearest)) nearest = i;
  std::uint32_t chosen = 0;
  probes[chosen++] = hnsw->probe_slots[buckets[nearest]];
  if (nearest > 0) probes[chosen++] = hnsw->probe_slots[buckets[nearest - 1]];
  if (nearest + 1 < count) probes[chosen++] = hnsw->probe_slots[buckets[nearest + 1]];
  return chosen;
}

std::uint32_t choose_probes(const hnsw_s* hnsw, const korvex_search_ctx_s* session,
                            std::uint32_t* probes) {
  if (hnsw->norm_probing != 0) return probes_by_norm(hnsw, session, probes);
  const std::uint32_t in_use =
      std::min(load_counter(hnsw->probes_made), hnsw->runtime->probe_count);
  for (std::uint32_t probe = 0; probe < in_use; ++probe) probes[probe] = probe;
  return in_use;
}

void launch_worker(hnsw_s* hnsw) {
  runtime_use use(hnsw->runtime);
  if (!use) return;
  // The use becomes the thread's.
  if (jobq_thread_launch(hnsw->search_queue, korvex_search_thread, hnsw->runtime, 1, 0, 0) == 0)
    use.detach();
}

// No worker is alive and none could be made: the caller does their work.
void run_on_caller(hnsw_s* hnsw) {
  if (on_search_worker(hnsw) || jobq_thread_count_active(hnsw->search_queue) != 0) return;
  search_worker worker(hnsw);
  if (!worker.ready()) {
    cancel_queued_searches(hnsw);
    return;
  }
  jobq_s* const before = jobq_enter_worker(hnsw->search_queue);
  search_worker* const outer = current_worker;
  current_worker = &worker;
  while (run_queued_job(hnsw)) {
  }
  current_worker = outer;
  jobq_enter_worker(before);
}

void run_job(hnsw_s* hnsw, jobs_s* head) {
  auto* const job = reinterpret_cast<search_job*>(head);
  if (korvex_bulk_search_s* const bulk = job->session->bulk)
    std::atomic_ref(bulk->started).fetch_add(1, std::memory_order_relaxed);
  // A worker that had been woken for one job may face several; more threads may share them.
  if (jobq_size(hnsw->search_queue) != 0) launch_worker(hnsw);
  current_worker->run(job);
}

// Up to four of the ids that close the answer at one distance; none when the whole answer is at one
// distance.
void fill_tie_list(korvex_search_ctx_s* session) {
  const korvex_results_s& final = session_results(session)->final;
  session->tie_count = 0;
  if (final.count == 0) return;
  std::uint32_t first = final.count - 1;
  while (first > 0 && final.distances[first - 1] == final.distances[final.count - 1]) --first;
  if (first == 0) return;
  while (session->tie_count < max_ties && first < final.count)
    session->ties[session->tie_count++] = final.ids[first++];
}

void finish_results(korvex_search_ctx_s* session) {
  korvex_search_results_s* const store = session_results(session);
  const std::uint32_t n = std::min(session->k, store->capacity);
  id_set* const delivered = &session->attachment->delivered;
  if (session->mode != mode_more) {
    delivered->clear();
    for (result_slice& slice : store->slices) slice.delivered = false;
  }
  korvex_merge_results(store, store->probes, static_cast<int>(n));
  if (session->bulk_output != nullptr) {
    std::copy_n(store->final.ids, store->final.count, session->bulk_output);
    return;
  }
  results_settle(store, delivered);
  store->final_secondary.count = store->probes < 2 ? store->slices[0].secondary.count : 0;
  fill_tie_list(session);
}

}  // namespace

bool korvex_search_add_queue(hnsw_s* hnsw, korvex_search_ctx_s* session) {
  std::uint32_t probes[max_probes];
  session->jobs_done = 0;
  session->jobs_total = 0;
  const std::uint32_t count = choose_probes(hnsw, session, probes);
  if (count < 1) {
    std::atomic_ref(session->in_progress).store(0);
    return false;
  }
  {
    // The worker that completed the last search may be about to set the latch; it does so under
    // this mutex.
    mutex_guard lock(&session->attachment->done.mutex);
    cond_reset(&session->attachment->done);
  }
  session->jobs_total = count;
  for (std::uint32_t i = 0; i < count; ++i) {
    search_job& job = session->jobs[i];
    job.session = session;
    job.probe = probes[i];
  }
  // Once the last job is queued the session may complete and be given up: only locals from there
  // on.
  jobq_s* const queue = hnsw->search_queue;
  search_job* const jobs = session->jobs;
  korvex_bulk_search_s* const bulk = session->bulk;
  for (std::uint32_t i = 0; i < count; ++i) {
    if (bulk != nullptr) std::atomic_ref(bulk->queued).fetch_add(1, std::memory_order_relaxed);
    jobq_add(queue, &jobs[i].link, 0);
    launch_worker(hnsw);
  }
  if (stopping(hnsw))
    cancel_queued_searches(hnsw);
  else
    run_on_caller(hnsw);
  return true;
}

void complete_job(korvex_search_ctx_s* session, bool cancelled) {
  const std::uint32_t total = session->jobs_total;
  if (std::atomic_ref(session->jobs_done).fetch_add(1, std::memory_order_acq_rel) + 1 != total)
    return;
  const bool answered_directly =
      session->bulk_output != nullptr && session->index->runtime->probe_count == 1 && !cancelled;
  if (!answered_directly || session_results(session)->slices[0].primary.count == 0)
    finish_results(session);
  complete_search(session, cancelled);
}

void cancel_queued_searches(hnsw_s* hnsw) {
  // The end of a query queues the next one of its batch: the outermost call takes that up as well.
  thread_local const hnsw_s* cancelling = nullptr;
  if (cancelling == hnsw) return;
  const hnsw_s* const outer = std::exchange(cancelling, hnsw);
  while (jobs_s* const head = jobq_try_get(hnsw->search_queue)) {
    auto* const job = reinterpret_cast<search_job*>(head);
    result_slice& slice = session_results(job->session)->slices[job->probe];
    slice.primary.count = 0;
    slice.secondary.count = 0;
    complete_job(job->session, stopping(hnsw));
  }
  cancelling = outer;
}

bool on_search_worker(const hnsw_s* hnsw) {
  jobq_s* const queue =
      std::atomic_ref(const_cast<hnsw_s*>(hnsw)->search_queue).load(std::memory_order_acquire);
  return queue != nullptr && current_worker != nullptr && jobq_current_worker_queue() == queue;
}

bool run_queued_job(hnsw_s* hnsw) {
  if (!on_search_worker(hnsw)) return false;
  search_worker* const outer = current_worker;
  std::optional<search_worker> spare;
  if (outer->walking()) {  // called from a host's filter: the scratch of this thread is in use
    spare.emplace(hnsw);
    if (!spare->ready()) return false;
    current_worker = &*spare;
  }
  jobs_s* const head = jobq_try_get(hnsw->search_queue);
  if (head != nullptr) run_job(hnsw, head);
  current_worker = outer;
  return head != nullptr;
}

void* korvex_search_thread(void* argument) {
  thread_detach_self();
  auto* const runtime = static_cast<korvex_runtime_s*>(argument);
  hnsw_s* const hnsw = runtime->hnsw;
  jobq_s* const queue = hnsw->search_queue;
  jobs_thread_s record;
  jobq_thread_init(queue, &record);
  jobq_enter_worker(queue);
  bool retired = false;
  bool usable = false;
  {
    search_worker worker(hnsw);
    usable = worker.ready();
    if (!usable) KORVEX_LOG_CRITICAL("no memory for a search thread\n");
    current_worker = &worker;
    thread_set_self_priority(worker_priority);
    const int slot = korvex_get_thread_index(hnsw);
    while (usable && !stopping(hnsw) && !retired) {
      jobs_s* const head = jobq_get(queue, job_wait_ms);
      if (head == nullptr) {
        retired = jobq_thread_should_exit(queue, &record) != 0;
        continue;
      }
      run_job(hnsw, head);
    }
    korvex_free_thread_index(hnsw, slot);
    current_worker = nullptr;
  }
  if (!retired) jobq_thread_left(queue);
  if (stopping(hnsw))
    cancel_queued_searches(hnsw);
  else if (!usable)
    run_on_caller(hnsw);  // with no other worker left nobody would ever take what is queued
  jobq_enter_worker(nullptr);
  runtime_release_use(runtime);
  return nullptr;
}

}  // namespace korvex
