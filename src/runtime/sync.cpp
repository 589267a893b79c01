#include "runtime/sync.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <type_traits>

#include "runtime/platform/threads.h"

namespace korvex {
namespace {

static_assert(std::is_trivially_copyable_v<cond_var_s>,
              "records that hold one are cleared with memset");

// About 30 years: the nanoseconds since 1970 stay far from overflow.
constexpr std::uint64_t k_longest_lock_ms = 1'000'000'000'000;

std::atomic_ref<std::uint32_t> flag(cond_var_s* cond) {
  return std::atomic_ref<std::uint32_t>(cond->signalled);
}

std::atomic_ref<std::uint32_t> waiter_count(cond_var_s* cond) {
  return std::atomic_ref<std::uint32_t>(cond->waiters);
}

// Timed mutex locks know the real-time clock only; the never-decreasing clock of the platform would
// stretch a deadline after the clock was put back.
timespec realtime_deadline(std::uint64_t ms) {
  using namespace std::chrono;
  const auto at =
      system_clock::now().time_since_epoch() + milliseconds(std::min(ms, k_longest_lock_ms));
  const auto whole = duration_cast<seconds>(at);
  timespec deadline{};
  deadline.tv_sec = static_cast<std::time_t>(whole.count());
  deadline.tv_nsec = static_cast<long>(duration_cast<nanoseconds>(at - whole).count());
  return deadline;
}

int wait_until_locked(cond_var_s* cond, const timespec* deadline) {
  waiter_count(cond).fetch_add(1, std::memory_order_relaxed);
  const int error = deadline == nullptr
                        ? pthread_cond_wait(&cond->condition, &cond->mutex)
                        : pthread_cond_timedwait(&cond->condition, &cond->mutex, deadline);
  waiter_count(cond).fetch_sub(1, std::memory_order_relaxed);
  if (error == 0) return 0;
  return error == ETIMEDOUT ? 1 : -1;
}

int wait_for_flag(cond_var_s* cond, const timespec* deadline) {
  mutex_guard guard(&cond->mutex);
  int result = 0;
  while (result == 0 && flag(cond).load(std::memory_order_acquire) == 0)
    result = wait_until_locked(cond, deadline);
  // A signal that came together with the deadline counts.
  return flag(cond).load(std::memory_order_acquire) != 0 ? 0 : result;
}

}  // namespace

int mutex_create(pthread_mutex_t* mutex) {
  return pthread_mutex_init(mutex, nullptr);
}

void mutex_delete(pthread_mutex_t*) {}

int mutex_lock(pthread_mutex_t* mutex) {
  return pthread_mutex_lock(mutex);
}

int mutex_lock(pthread_mutex_t* mutex, std::uint64_t ms) {
  if (ms == 0) return pthread_mutex_lock(mutex);
  const timespec deadline = realtime_deadline(ms);
  return pthread_mutex_timedlock(mutex, &deadline);
}

int mutex_trylock(pthread_mutex_t* mutex) {
  return pthread_mutex_trylock(mutex);
}

int mutex_unlock(pthread_mutex_t* mutex) {
  return pthread_mutex_unlock(mutex);
}

std::uint32_t mutex_set_var(pthread_mutex_t* mutex, std::uint32_t* var, std::uint32_t value) {
  mutex_guard guard(mutex);
  return std::atomic_ref<std::uint32_t>(*var).exchange(value);
}

int cond_init(cond_var_s* cond) {
  flag(cond).store(0, std::memory_order_relaxed);
  waiter_count(cond).store(0, std::memory_order_relaxed);
  if (mutex_create(&cond->mutex) != 0) return -1;
  return platform::init_condition(&cond->condition) == 0 ? 0 : -1;
}

void cond_destroy(cond_var_s* cond) {
  cond_broadcast(cond);
  pthread_cond_destroy(&cond->condition);
}

void cond_set(cond_var_s* cond) {
  flag(cond).store(1, std::memory_order_release);
}

void cond_reset(cond_var_s* cond) {
  flag(cond).store(0, std::memory_order_release);
}

int cond_wait(cond_var_s* cond) {
  mutex_guard guard(&cond->mutex);
  return cond_wait_locked(cond);
}

int cond_wait_timeout(cond_var_s* cond, std::uint64_t ms) {
  if (flag(cond).load(std::memory_order_acquire) != 0) return 0;
  const timespec deadline = platform::condition_deadline(ms);
  return wait_for_flag(cond, &deadline);
}

int cond_wait_for_done(cond_var_s* cond) {
  if (flag(cond).load(std::memory_order_acquire) != 0) return 0;
  return wait_for_flag(cond, nullptr);
}

int cond_signal(cond_var_s* cond) {
  mutex_guard guard(&cond->mutex);
  return cond_signal_locked(cond);
}

int cond_broadcast(cond_var_s* cond) {
  mutex_guard guard(&cond->mutex);
  return cond_broadcast_locked(cond);
}

int cond_signal_if_waiting(cond_var_s* cond) {
  mutex_guard guard(&cond->mutex);
  const std::uint32_t waiting = cond_is_waiting(cond);
  if (waiting == 0) return 0;
  return waiting == 1 ? cond_signal_locked(cond) : cond_broadcast_locked(cond);
}

std::uint32_t cond_is_waiting(const cond_var_s* cond) {
  return waiter_count(const_cast<cond_var_s*>(cond)).load(std::memory_order_relaxed);
}

int cond_wait_locked(cond_var_s* cond) {
  return wait_until_locked(cond, nullptr) == 0 ? 0 : -1;
}

int cond_wait_timeout_locked(cond_var_s* cond, std::uint64_t ms) {
  const timespec deadline = platform::condition_deadline(ms);
  return wait_until_locked(cond, &deadline);
}

int cond_signal_locked(cond_var_s* cond) {
  cond_set(cond);
  return pthread_cond_signal(&cond->condition) == 0 ? 0 : -1;
}

int cond_broadcast_locked(cond_var_s* cond) {
  cond_set(cond);
  return pthread_cond_broadcast(&cond->condition) == 0 ? 0 : -1;
}

}  // namespace korvex
