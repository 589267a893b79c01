#include "runtime/job_queue.h"

#include <algorithm>
#include <new>

#include "runtime/job_queue_record.h"
#include "runtime/log.h"
#include "runtime/platform/clock.h"
#include "runtime/platform/faults.h"
#include "runtime/sync.h"

namespace korvex {
namespace {

constexpr std::uint64_t k_shortest_life_ms = 1000;

struct worker_mark {
  jobq_s* queue = nullptr;
  std::uint32_t triggers_seen = 0;
};
thread_local worker_mark t_mark;

std::uint64_t now_ms() {
  return platform::monotonic_ns() / 1'000'000;
}

void destroy(jobq_s* queue) {
  cond_destroy(&queue->work_available);
  cond_destroy(&queue->space_available);
  pthread_mutex_destroy(&queue->work_available.mutex);
  pthread_mutex_destroy(&queue->space_available.mutex);
  pthread_mutex_destroy(&queue->lock);
  delete queue;
}

// Both kinds of waiters are counted under the lock, so exactly one thread sees the last one go.
bool was_last_of_closed_locked(const jobq_s* queue) {
  return queue->closed && queue->waiting.load() == 0 && queue->blocked_producers.load() == 0;
}

void unlock_after_wait(jobq_s* queue) {
  const bool last = was_last_of_closed_locked(queue);
  mutex_unlock(&queue->lock);
  if (last) destroy(queue);
}

jobs_s* unlink_locked(jobq_s* queue) {
  jobs_s* job = queue->head.load(std::memory_order_relaxed);
  if (job == nullptr) return nullptr;
  queue->head.store(job->next, std::memory_order_relaxed);
  if (job->next == nullptr) queue->tail = nullptr;
  if (job->next == nullptr || job == queue->priority_tail.load(std::memory_order_relaxed))
    queue->priority_tail.store(nullptr, std::memory_order_relaxed);
  job->next = nullptr;
  queue->count.fetch_sub(1, std::memory_order_relaxed);
  if (queue->blocked_producers.load() > 0) cond_signal(&queue->space_available);
  return job;
}

void link_locked(jobq_s* queue, jobs_s* job, int priority) {
  jobs_s* head = queue->head.load(std::memory_order_relaxed);
  jobs_s* priority_tail = queue->priority_tail.load(std::memory_order_relaxed);
  if (head == nullptr) {
    queue->head.store(job, std::memory_order_relaxed);
    queue->tail = job;
    if (priority != 0) queue->priority_tail.store(job, std::memory_order_relaxed);
  } else if (priority > 0) {
    if (priority_tail == nullptr) {
      job->next = head;
      queue->head.store(job, std::memory_order_relaxed);
    } else {
      job->next = priority_tail->next;
      priority_tail->next = job;
      if (job->next == nullptr) queue->tail = job;
    }
    queue->priority_tail.store(job, std::memory_order_relaxed);
  } else {
    queue->tail->next = job;
    queue->tail = job;
  }
  queue->count.fetch_add(1, std::memory_order_relaxed);
}

bool at_limit(const jobq_s* queue) {
  const std::int32_t limit = queue->limit.load(std::memory_order_relaxed);
  return limit != 0 && static_cast<std::int64_t>(queue->count.load(std::memory_order_relaxed)) >=
                           static_cast<std::int64_t>(limit);
}

// With the queue's lock held on entry and on return. The record's mutex is taken before that lock
// goes, so no signal falls in between. One wait whatever the latch says: it stays set after the
// first signal, and another waiter that cleared it could take this one's wake-up away.
void sleep_on(jobq_s* queue, cond_var_s* record, int timeout_ms) {
  {
    mutex_guard guard(&record->mutex);
    mutex_unlock(&queue->lock);
    if (timeout_ms == 0)
      cond_wait_locked(record);
    else
      cond_wait_timeout_locked(record, static_cast<std::uint64_t>(timeout_ms));
  }
  mutex_lock(&queue->lock);
}

void wait_for_space_locked(jobq_s* queue) {
  queue->blocked_producers.fetch_add(1);
  while (!queue->closed && at_limit(queue)) sleep_on(queue, &queue->space_available, 0);
  queue->blocked_producers.fetch_sub(1);
}

// Whether this thread still has to react to a trigger of all workers; it does so once per trigger.
bool trigger_pending_locked(jobq_s* queue) {
  if (t_mark.queue != queue || t_mark.triggers_seen == queue->triggers) return false;
  t_mark.triggers_seen = queue->triggers;
  return true;
}

// Called with the lock held and an empty list; returns without the lock.
jobs_s* wait_for_job_locked(jobq_s* queue, int timeout_ms) {
  queue->waiting.fetch_add(1);
  sleep_on(queue, &queue->work_available, timeout_ms);
  trigger_pending_locked(queue);
  queue->waiting.fetch_sub(1);
  jobs_s* job = queue->closed ? nullptr : unlink_locked(queue);
  unlock_after_wait(queue);
  return job;
}

bool may_launch(const jobq_s* queue) {
  return queue->waiting.load() == 0 && queue->count.load() != 0;
}

bool room_for_worker(const jobq_s* queue) {
  const std::uint32_t max_threads = queue->max_threads.load();
  return max_threads == 0 || queue->active.load() < max_threads;
}

}  // namespace

jobq_s* jobq_init() {
  if (platform::fault_injected(platform::fault_point::heap)) return nullptr;
  auto* queue = new (std::nothrow) jobq_s;
  if (queue == nullptr) return nullptr;
  mutex_create(&queue->lock);
  cond_init(&queue->work_available);
  cond_init(&queue->space_available);
  return queue;
}

void jobq_set_threads_config(jobq_s* queue, std::uint32_t max_threads, std::uint32_t min_threads,
                             std::uint64_t exit_interval_ms) {
  mutex_guard guard(&queue->lock);
  queue->max_threads.store(max_threads);
  queue->min_threads = min_threads;
  queue->exit_interval_ms = exit_interval_ms;
  queue->threads_configured = true;
}

void jobq_set_blocking(jobq_s* queue, std::int32_t limit) {
  mutex_guard guard(&queue->lock);
  queue->limit.store(std::max(limit, 0));
  cond_broadcast(&queue->space_available);
}

int jobq_add(jobq_s* queue, jobs_s* job, int priority) {
  if (queue == nullptr || job == nullptr) return -1;
  job->next = nullptr;
  mutex_lock(&queue->lock);
  if (t_mark.queue != queue && at_limit(queue)) {
    wait_for_space_locked(queue);
    if (queue->closed) {
      unlock_after_wait(queue);
      return -1;
    }
  }
  link_locked(queue, job, priority);
  if (queue->threads_configured && queue->waiting.load() > 0) cond_signal(&queue->work_available);
  mutex_unlock(&queue->lock);
  return 0;
}

jobs_s* jobq_get(jobq_s* queue, int timeout_ms) {
  if (queue == nullptr) return nullptr;
  mutex_lock(&queue->lock);
  jobs_s* job = unlink_locked(queue);
  const bool wait = job == nullptr && timeout_ms >= 0 && queue->threads_configured &&
                    !queue->closed && !trigger_pending_locked(queue);
  if (wait) return wait_for_job_locked(queue, timeout_ms);
  mutex_unlock(&queue->lock);
  return job;
}

jobs_s* jobq_try_get(jobq_s* queue) {
  return jobq_get(queue, -1);
}

jobs_s* jobq_peek_head(jobq_s* queue) {
  mutex_guard guard(&queue->lock);
  return queue->head.load();
}

int jobq_is_queued(jobq_s* queue, const jobs_s* job) {
  mutex_guard guard(&queue->lock);
  for (const jobs_s* at = queue->head.load(); at != nullptr; at = at->next)
    if (at == job) return 1;
  return 0;
}

int jobq_has_front(const jobq_s* queue) {
  return queue->priority_tail.load() != nullptr ? 1 : 0;
}

std::uint32_t jobq_size(jobq_s* queue) {
  const std::uint32_t count = queue->count.load();
  if (count == 0 || queue->head.load() != nullptr) return count;
  // The two words were read at different moments; only under the lock they must agree.
  mutex_guard guard(&queue->lock);
  const std::uint32_t now = queue->count.load();
  if (now != 0 && queue->head.load() == nullptr)
    KORVEX_LOG("*** BUG *** p->q NULL while p->count %d\n", static_cast<int>(now));
  return now;
}

std::uint32_t jobq_thread_count_active(const jobq_s* queue) {
  return queue == nullptr ? 0 : queue->active.load();
}

std::uint32_t jobq_thread_count_waiting(const jobq_s* queue) {
  return queue == nullptr ? 0 : queue->waiting.load();
}

std::uint32_t jobq_producer_count_waiting(const jobq_s* queue) {
  return queue == nullptr ? 0 : queue->blocked_producers.load();
}

void jobq_trigger(jobq_s* queue, int all) {
  if (queue == nullptr) return;
  mutex_guard guard(&queue->lock);
  if (all == 0) {
    cond_signal(&queue->work_available);
    return;
  }
  ++queue->triggers;
  cond_broadcast(&queue->work_available);
}

int jobq_thread_launch(jobq_s* queue, thread_function function, void* argument, int count,
                       std::size_t stack_bytes, int force) {
  if (queue == nullptr || !room_for_worker(queue)) return -1;
  if (force == 0 && !may_launch(queue)) return -1;
  mutex_guard guard(&queue->lock);
  // Both again under the lock: another launcher may have taken the last place.
  if (queue->closed || !room_for_worker(queue)) return -1;
  if (force == 0 && !may_launch(queue)) return -1;
  std::uint32_t wanted = count == 0 ? 1 : static_cast<std::uint32_t>(count);
  if (count < 0) wanted = queue->max_threads.load();
  for (std::uint32_t made = 0; made < wanted && room_for_worker(queue); ++made) {
    if (create_thread(function, argument, stack_bytes) != 0) return made == 0 ? -1 : 0;
    queue->active.fetch_add(1);
  }
  return 0;
}

void jobq_thread_init(jobq_s*, jobs_thread_s* worker) {
  worker->started_ms = now_ms();
}

int jobq_thread_should_exit(jobq_s* queue, const jobs_thread_s* worker) {
  const auto may_go = [queue] {
    return queue->count.load() == 0 && queue->active.load() > queue->min_threads;
  };
  if (!may_go() || now_ms() - worker->started_ms < k_shortest_life_ms) return 0;
  mutex_guard guard(&queue->lock);
  // Both again under the lock: of two workers that became idle together only one may go.
  const std::uint64_t now = now_ms();
  const bool too_soon =
      queue->last_exit_ms != 0 && now - queue->last_exit_ms < queue->exit_interval_ms;
  if (!may_go() || too_soon) return 0;
  queue->last_exit_ms = now;
  queue->active.fetch_sub(1);
  return 1;
}

void jobq_thread_left(jobq_s* queue) {
  mutex_guard guard(&queue->lock);
  if (queue->active.load() > 0) queue->active.fetch_sub(1);
}

jobq_s* jobq_enter_worker(jobq_s* queue) {
  jobq_s* previous = t_mark.queue;
  t_mark.queue = queue;
  if (queue != nullptr) {
    mutex_guard guard(&queue->lock);
    t_mark.triggers_seen = queue->triggers;
  }
  return previous;
}

jobq_s* jobq_current_worker_queue() {
  return t_mark.queue;
}

void jobq_cleanup(jobq_s* queue) {
  if (queue == nullptr) return;
  mutex_lock(&queue->lock);
  if (queue->closed) {
    mutex_unlock(&queue->lock);
    return;
  }
  queue->closed = true;
  cond_broadcast(&queue->work_available);
  cond_broadcast(&queue->space_available);
  unlock_after_wait(queue);
}

}  // namespace korvex
