#include "runtime/log.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "runtime/log_outputs.h"
#include "runtime/log_ring.h"
#include "runtime/platform/clock.h"
#include "runtime/platform/faults.h"
#include "runtime/platform/threads.h"
#include "runtime/sync.h"
#include "runtime/threads.h"

namespace korvex {
namespace {

constexpr std::uint64_t k_sync_bytes = 1024;
constexpr std::uint64_t k_large_ring =
    102'399;  // above: the sync buffer is a hundredth of the ring
constexpr std::uint64_t k_orphan_lock_ms = 200;  // for locks that a lost thread may hold for ever

struct log_buffers {
  log_ring ring;
  std::unique_ptr<char[]> line;  // the worker's copy of one entry: tag, NUL, message, NUL
  log_ring::line in_work{};      // that entry, in `line`
};

// Trivially destructible, so lines may come until the very end of the process.
struct log_state {
  pthread_mutex_t lifecycle = PTHREAD_MUTEX_INITIALIZER;  // start and shutdown, one at a time
  bool prepared = false;                                  // guarded by lifecycle
  pthread_t worker{};                                     // guarded by lifecycle
  std::atomic<void*> worker_watch{nullptr};               // set before initialised
  std::atomic<std::uint32_t> owner_pid{0};                // the process that has the worker

  std::atomic<std::uint32_t> initialised{0};
  std::atomic<std::uint32_t> level_mask{0};

  cond_var_s lock{};   // its mutex guards the rest; the worker waits on its condition
  cond_var_s empty{};  // flushers wait here
  log_buffers* buffers = nullptr;
  bool running = false;
  bool worker_waiting = false;
  bool writing = false;  // an entry has left the ring but not yet reached the outputs
  std::uint32_t flushers = 0;
  std::uint32_t last_sequence = 0;
  std::uint32_t last_dropped = 0;

  std::atomic<bool> sync_busy{false};  // guards the two below
  char* sync_buffer = nullptr;
  std::uint64_t sync_bytes = 0;
};

constinit log_state g_log;
thread_local bool t_is_worker = false;

// A forked child has the ring but not the thread that drains it; nor has a library whose process ends.
bool worker_lost() {
  return g_log.initialised.load() != 0 &&
         !platform::thread_runs(g_log.worker_watch.load(), g_log.owner_pid.load());
}

bool lock_unless_orphaned(pthread_mutex_t* mutex) {
  return worker_lost() ? mutex_lock(mutex, k_orphan_lock_ms) == 0 : mutex_lock(mutex) == 0;
}

bool passes(std::uint32_t level) {
  return level == 0 || (level & g_log.level_mask.load(std::memory_order_relaxed)) != 0;
}

bool drained_locked() {
  return g_log.buffers == nullptr || (g_log.buffers->ring.count() == 0 && !g_log.writing);
}

// One call a nap, however many lines come before the worker runs.
void wake_worker_locked() {
  if (!g_log.worker_waiting) return;
  g_log.worker_waiting = false;
  cond_signal_locked(&g_log.lock);
}

// A hole in the numbers means that lines were dropped before they were written.
struct sequence_gap {
  std::uint32_t sequence, last, dropped, last_dropped;
  std::uint64_t entries;

  void report() const {
    if (sequence == last + 1) return;
    std::FILE* const output = log_fp();
    if (output == nullptr) return;
    std::fprintf(output,
                 "out of sequence: seq %u last %u dropped %u last dropped %u diff %u entries %zd\n",
                 sequence, last, dropped, last_dropped, dropped - last_dropped,
                 static_cast<ssize_t>(entries));
    std::fflush(output);
  }
};

// Requires an entry. Gives the lock up while writing: no producer ever waits for an output.
void write_front_locked() {
  log_ring& ring = g_log.buffers->ring;
  char* const tag = g_log.buffers->line.get();
  log_ring::line& entry = g_log.buffers->in_work;
  entry = ring.front();
  char* const message = tag + entry.tag_length + 1;
  std::memcpy(tag, entry.tag, entry.tag_length + 1);
  std::memcpy(message, entry.message, entry.message_length + 1);
  entry.tag = tag;
  entry.message = message;
  ring.pop_front();
  const sequence_gap gap{entry.sequence, g_log.last_sequence, ring.dropped(), g_log.last_dropped,
                         ring.count()};
  g_log.last_sequence = gap.sequence;
  g_log.last_dropped = gap.dropped;
  g_log.writing = true;
  mutex_unlock(&g_log.lock.mutex);

  gap.report();
  write_log_line(entry.level, tag, message, entry.message_length);

  mutex_lock(&g_log.lock.mutex);
  g_log.writing = false;
  if (ring.count() == 0 && g_log.flushers > 0) cond_broadcast(&g_log.empty);
}

void* log_worker_thread_func(void*) {
  t_is_worker = true;
  thread_set_self_priority(-1);
  mutex_guard guard(&g_log.lock.mutex);
  while (g_log.running) {
    if (g_log.buffers->ring.count() > 0) {
      write_front_locked();
      continue;
    }
    g_log.worker_waiting = true;
    cond_wait_locked(&g_log.lock);
    g_log.worker_waiting = false;
  }
  return nullptr;
}

int flush_locked(int timeout_ms) {
  constexpr int k_polls = 10;
  constexpr std::uint64_t k_poll_usec = 100;
  // Counted before the latch is cleared, both under the lock: the worker cannot run dry unnoticed.
  ++g_log.flushers;
  cond_reset(&g_log.empty);
  wake_worker_locked();
  for (int i = 0; i < k_polls && !drained_locked(); ++i) {
    mutex_unlock(&g_log.lock.mutex);
    platform::sleep_usec(k_poll_usec);
    mutex_lock(&g_log.lock.mutex);
  }
  int result = 0;
  if (!drained_locked()) {
    mutex_unlock(&g_log.lock.mutex);
    result = timeout_ms < 0
                 ? cond_wait_for_done(&g_log.empty)
                 : cond_wait_timeout(&g_log.empty, static_cast<std::uint64_t>(timeout_ms));
    mutex_lock(&g_log.lock.mutex);
  }
  --g_log.flushers;
  return g_log.buffers == nullptr ? -1 : result;  // shut down meanwhile: nothing was written
}

// For a process that has no worker any more, nor any thread that waits for one.
int drain_here() {
  if (mutex_lock(&g_log.lock.mutex, k_orphan_lock_ms) != 0) return -1;
  g_log.flushers = 0;
  // The parent of a forked child writes its line itself. A worker that was killed in here may have written it or not:
  // better twice than never.
  if (g_log.writing && g_log.owner_pid.load() == platform::process_id()) {
    const log_ring::line& entry = g_log.buffers->in_work;
    write_log_line(entry.level, entry.tag, entry.message, entry.message_length);
  }
  g_log.writing = false;
  while (g_log.buffers != nullptr && g_log.buffers->ring.count() > 0) write_front_locked();
  mutex_unlock(&g_log.lock.mutex);
  return 0;
}

// Null when out of memory.
std::unique_ptr<log_buffers> make_buffers(std::uint64_t size) {
  std::unique_ptr<log_buffers> buffers(new (std::nothrow) log_buffers);
  if (!buffers || !buffers->ring.allocate(size)) return nullptr;
  buffers->line.reset(new (std::nothrow) char[size]);
  return buffers->line ? std::move(buffers) : nullptr;
}

// The records and the exit handler stay for the life of the process: late producers may still come.
bool prepare_once() {
  if (g_log.prepared) return true;
  if (cond_init(&g_log.lock) != 0 || cond_init(&g_log.empty) != 0) return false;
  g_log.prepared = std::atexit(log_exit_handler) == 0;
  return g_log.prepared;
}

// Exactly one thread at a time uses the sync buffer; the others do without.
bool take_sync_buffer() {
  return !g_log.sync_busy.exchange(true, std::memory_order_acquire);
}

void give_sync_buffer() {
  g_log.sync_busy.store(false, std::memory_order_release);
}

void replace_sync_buffer(char* buffer, std::uint64_t bytes) {
  // A line of log_sync is short work. If its thread died in it, the buffer is left to it.
  constexpr int rounds = 1000;
  for (int i = 0; !take_sync_buffer(); ++i) {
    if (i == rounds) {
      delete[] buffer;
      return;
    }
    platform::sleep_usec(100);
  }
  delete[] g_log.sync_buffer;
  g_log.sync_buffer = buffer;
  g_log.sync_bytes = bytes;
  give_sync_buffer();
}

int start_locked(std::uint64_t size, std::uint32_t mask) {
  if (!prepare_once()) return -1;
  std::unique_ptr<log_buffers> buffers = make_buffers(size);
  const std::uint64_t sync_bytes = size > k_large_ring ? size / 100 : k_sync_bytes;
  std::unique_ptr<char[]> sync_buffer(new (std::nothrow) char[sync_bytes]);
  if (!buffers || !sync_buffer) return -1;
  mutex_guard guard(&g_log.lock.mutex);
  g_log.running = true;
  if (create_thread(&g_log.worker, log_worker_thread_func, nullptr, 0) != 0) {
    g_log.running = false;
    return -1;
  }
  g_log.worker_watch.store(platform::watch_thread(g_log.worker));
  g_log.buffers = buffers.release();
  g_log.last_sequence = g_log.last_dropped = 0;
  g_log.writing = g_log.worker_waiting = false;
  g_log.level_mask.store(mask);
  g_log.owner_pid.store(platform::process_id());
  replace_sync_buffer(sync_buffer.release(), sync_bytes);
  g_log.initialised.store(1);
  return 0;
}

}  // namespace

int log_init(std::uint64_t size, std::uint32_t mask) {
  if (size == 0) return -1;
  mutex_guard guard(&g_log.lifecycle);
  return g_log.initialised.load() != 0 ? -1 : start_locked(size, mask);
}

int log_shutdown() {
  // The worker itself, in a host's callback, cannot wait for its own end.
  if (g_log.initialised.load() == 0 || t_is_worker) return -1;
  const bool lost = worker_lost();
  if (!lock_unless_orphaned(&g_log.lifecycle)) return -1;
  if (g_log.initialised.load() == 0 || !lock_unless_orphaned(&g_log.lock.mutex)) {
    mutex_unlock(&g_log.lifecycle);
    return -1;
  }
  g_log.initialised.store(0);
  g_log.running = false;
  if (!lost)
    cond_broadcast_locked(&g_log.lock);  // a lost thread may have left the condition in any state
  mutex_unlock(&g_log.lock.mutex);
  if (!lost) pthread_join(g_log.worker, nullptr);
  platform::end_watch(g_log.worker_watch.exchange(nullptr));

  mutex_lock(&g_log.lock.mutex);
  delete g_log.buffers;
  g_log.buffers = nullptr;
  cond_reset(&g_log.lock);
  cond_reset(&g_log.empty);
  if (g_log.flushers > 0) cond_broadcast(&g_log.empty);
  mutex_unlock(&g_log.lock.mutex);
  replace_sync_buffer(nullptr, 0);
  mutex_unlock(&g_log.lifecycle);
  return 0;
}

void log_exit_handler() {
  if (g_log.initialised.load() == 0) return;
  log_wait_empty(-1);
  // Threads that were killed may have left the heap locked: nothing is freed after them.
  if (!worker_lost()) log_shutdown();
}

int vlog_async(std::uint32_t level, const char* tag, const char* format, std::va_list args) {
  if (g_log.initialised.load() == 0) return -1;
  if (!passes(level)) return 0;
  std::va_list measured;
  va_copy(measured, args);
  const int length = std::vsnprintf(nullptr, 0, format, measured);
  va_end(measured);
  if (length < 0) return -1;
  mutex_guard guard(&g_log.lock.mutex);
  if (g_log.buffers == nullptr) return -1;
  const bool queued = g_log.buffers->ring.push(level, tag == nullptr ? "" : tag,
                                               static_cast<std::size_t>(length), format, args);
  wake_worker_locked();
  return queued ? 0 : -1;
}

int log_async(std::uint32_t level, const char* tag, const char* format, ...) {
  std::va_list args;
  va_start(args, format);
  const int result = vlog_async(level, tag, format, args);
  va_end(args);
  return result;
}

int vlog_sync(std::uint32_t level, const char* tag, const char* format, std::va_list args) {
  if (g_log.initialised.load() == 0) return -1;
  if (!passes(level)) return 0;
  char on_stack[k_sync_bytes];
  const bool taken = take_sync_buffer();
  const bool shared = taken && g_log.sync_buffer != nullptr;
  char* const buffer = shared ? g_log.sync_buffer : on_stack;
  const std::uint64_t bytes = shared ? g_log.sync_bytes : sizeof on_stack;
  const int length = std::vsnprintf(buffer, bytes, format, args);
  if (length >= 0)
    write_log_line(level, tag == nullptr ? "" : tag, buffer,
                   std::min<std::uint64_t>(static_cast<std::uint64_t>(length), bytes - 1));
  if (taken) give_sync_buffer();
  return length < 0 ? -1 : 0;
}

int log_sync(std::uint32_t level, const char* tag, const char* format, ...) {
  std::va_list args;
  va_start(args, format);
  const int result = vlog_sync(level, tag, format, args);
  va_end(args);
  return result;
}

int log_wait_empty(int timeout_ms) {
  if (g_log.initialised.load() == 0) return -1;
  if (t_is_worker) return 1;  // in a host's callback: its own line is still being written
  if (worker_lost()) return drain_here();
  mutex_guard guard(&g_log.lock.mutex);
  return drained_locked() ? 0 : flush_locked(timeout_ms);
}

int log_setfd(int fd) {
  const std::uint32_t initialised = g_log.initialised.load();
  if (initialised != 0 && fd >= 0) set_log_output(fd);
  return static_cast<int>(initialised);
}

void log_setlevel(std::uint32_t mask) {
  if (g_log.initialised.load() == 0) return;
  mutex_guard guard(&g_log.lock.mutex);
  g_log.level_mask.store(mask);
}

std::uint32_t log_level() {
  return g_log.level_mask.load();
}

int log_is_debug() {
  return 0;
}

int log_set_callback(log_callback callback) {
  if (g_log.initialised.load() == 0) return -1;
  mutex_guard guard(&g_log.lock.mutex);
  set_log_output_callback(callback);
  return 0;
}

}  // namespace korvex
