#ifndef KORVEX_RUNTIME_JOB_QUEUE_H
#define KORVEX_RUNTIME_JOB_QUEUE_H

#include <cstddef>
#include <cstdint>

#include "runtime/threads.h"

namespace korvex {

// The head of every job: derive from it or make it the first field. The queue owns no job memory.
struct jobs_s {
  jobs_s* next;
};

// One per worker thread.
struct jobs_thread_s {
  std::uint64_t started_ms;
};

// First-in-first-out jobs with a priority lane at the head, an optional limit that makes producers
// wait, and a pool of workers that start on demand and retire when idle.
// Threads     every operation may be called from any thread. One lock guards list and counters; it
//             is never held while waiting. Lock order: queue, then one of its condition records.
// Ownership   from jobq_init to jobq_cleanup. Workers must have left by then; threads that still
//             wait inside jobq_add or jobq_get are woken, and the last of them frees the queue.
struct jobq_s;

jobq_s* jobq_init();  // null when out of memory
// max_threads 0: no limit. min_threads never retire. At most one worker retires per
// exit_interval_ms (0: no spacing). Until this was called nobody waits in jobq_get.
void jobq_set_threads_config(jobq_s* queue, std::uint32_t max_threads, std::uint32_t min_threads,
                             std::uint64_t exit_interval_ms);
// jobq_add waits while `limit` or more jobs are queued; 0 never waits. Producers that wait see the
// new limit at once.
void jobq_set_blocking(jobq_s* queue, std::int32_t limit);

// Priority above 0: behind earlier priority jobs, in front of all others. Waits while the queue is
// at its limit, except on a worker of this queue. 0; -1 for a null queue or job, or when the queue
// was closed while waiting (the job is still the caller's).
int jobq_add(jobq_s* queue, jobs_s* job, int priority);
// The first job. With none: timeout below 0 returns null at once, 0 waits without limit, otherwise
// milliseconds. May return null early (another worker was faster, trigger, closing): callers look
// at their stop flag and call again.
jobs_s* jobq_get(jobq_s* queue, int timeout_ms);
jobs_s* jobq_try_get(jobq_s* queue);
jobs_s* jobq_peek_head(jobq_s* queue);
int jobq_is_queued(jobq_s* queue, const jobs_s* job);

// Hints, read without the lock.
int jobq_has_front(const jobq_s* queue);
std::uint32_t jobq_size(jobq_s* queue);
std::uint32_t jobq_thread_count_active(const jobq_s* queue);
std::uint32_t jobq_thread_count_waiting(const jobq_s* queue);
std::uint32_t jobq_producer_count_waiting(const jobq_s* queue);

// Wakes one waiting worker, or all. A trigger of all is not lost on an entered worker that is just
// about to wait: its next jobq_get on an empty queue returns null at once.
void jobq_trigger(jobq_s* queue, int all);

// Starts up to `count` workers (0: one, below 0: max_threads), never more than max_threads alive.
// Without `force` only when jobs are queued and no worker waits. 0; -1 when refused or when not a
// single thread could be made. Such a worker begins with thread_detach_self, jobq_thread_init and
// jobq_enter_worker.
int jobq_thread_launch(jobq_s* queue, thread_function function, void* argument, int count,
                       std::size_t stack_bytes, int force);
void jobq_thread_init(jobq_s* queue, jobs_thread_s* worker);
// 1: the worker must end now, it is no longer counted as active. 0: it goes on.
int jobq_thread_should_exit(jobq_s* queue, const jobs_thread_s* worker);
// For a worker that ends for another reason than jobq_thread_should_exit: one active worker less.
void jobq_thread_left(jobq_s* queue);

// Marks the calling thread as a worker of `queue` (null: of none) and returns the previous mark, so
// that a thread which lends itself for a while can put it back.
jobq_s* jobq_enter_worker(jobq_s* queue);
jobq_s* jobq_current_worker_queue();

// Closes and frees the queue; nothing for null. Queued jobs stay with their owners.
void jobq_cleanup(jobq_s* queue);

}  // namespace korvex

#endif  // KORVEX_RUNTIME_JOB_QUEUE_H
