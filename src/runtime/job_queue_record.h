#ifndef KORVEX_RUNTIME_JOB_QUEUE_RECORD_H
#define KORVEX_RUNTIME_JOB_QUEUE_RECORD_H

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "runtime/job_queue.h"
#include "runtime/sync.h"

namespace korvex {

// The inside of a queue, for its own source and for tests that step between two of its operations.
// Words that are also read without the lock are atomics; all are written under it.
struct jobq_s {
  pthread_mutex_t lock;
  cond_var_s work_available;
  cond_var_s space_available;
  bool closed = false;
  std::atomic<std::int32_t> limit{0};
  std::atomic<std::uint32_t> count{0};
  std::atomic<jobs_s*> head{nullptr};
  jobs_s* tail = nullptr;
  std::atomic<jobs_s*> priority_tail{nullptr};
  bool threads_configured = false;
  std::atomic<std::uint32_t> max_threads{0};
  std::uint32_t min_threads = 0;
  std::atomic<std::uint32_t> waiting{0};
  std::atomic<std::uint32_t> active{0};
  std::uint64_t exit_interval_ms = 0;
  std::uint64_t last_exit_ms = 0;
  std::atomic<std::uint32_t> blocked_producers{0};
  std::uint32_t triggers = 0;  // of all workers, ever
};

}  // namespace korvex

#endif  // KORVEX_RUNTIME_JOB_QUEUE_RECORD_H
