#ifndef KORVEX_RUNTIME_SYNC_H
#define KORVEX_RUNTIME_SYNC_H

#include <pthread.h>

#include <cstdint>

namespace korvex {

// Plain mutexes, without ownership checks. Results are those of the POSIX calls: 0 or an error
// number.
int mutex_create(pthread_mutex_t* mutex);
// Does nothing: a mutex outlives the records that it guards.
void mutex_delete(pthread_mutex_t* mutex);
int mutex_lock(pthread_mutex_t* mutex);
// Waits at most `ms`; 0 waits without limit. ETIMEDOUT when the time passed.
int mutex_lock(pthread_mutex_t* mutex, std::uint64_t ms);
int mutex_trylock(pthread_mutex_t* mutex);
int mutex_unlock(pthread_mutex_t* mutex);
// Stores value into *var under the mutex and returns what was there. Readers without the mutex use
// atomic loads.
std::uint32_t mutex_set_var(pthread_mutex_t* mutex, std::uint32_t* var, std::uint32_t value);

class mutex_guard {
 public:
  explicit mutex_guard(pthread_mutex_t* mutex) : mutex_(mutex) { mutex_lock(mutex_); }
  ~mutex_guard() { mutex_unlock(mutex_); }
  mutex_guard(const mutex_guard&) = delete;
  mutex_guard& operator=(const mutex_guard&) = delete;

 private:
  pthread_mutex_t* mutex_;
};

// An event that latches: a signal stays visible until cond_reset, so that a waiter who comes late
// returns at once.
// Threads     waits and signals change `signalled` and `waiters` under the mutex; cond_set,
//             cond_reset and cond_is_waiting take none, so both words are only touched atomically.
// Layout      trivially copyable, for records cleared with memset; cond_init makes it usable.
struct cond_var_s {
  pthread_mutex_t mutex;
  pthread_cond_t condition;
  std::uint32_t signalled;
  std::uint32_t waiters;
};

int cond_init(cond_var_s* cond);
// Sets the flag, wakes everybody and destroys the condition, not the mutex.
void cond_destroy(cond_var_s* cond);
void cond_set(cond_var_s* cond);
void cond_reset(cond_var_s* cond);

// One wait, whatever the flag says: a signal sent just before is missed. 0, or -1 on an error.
int cond_wait(cond_var_s* cond);
// 0 when signalled (at once if it already is), 1 when `ms` passed first, -1 on another error.
int cond_wait_timeout(cond_var_s* cond, std::uint64_t ms);
// 0 when signalled (at once if it already is), -1 on an error.
int cond_wait_for_done(cond_var_s* cond);

// Set the flag and wake one or all. 0 or -1.
int cond_signal(cond_var_s* cond);
int cond_broadcast(cond_var_s* cond);
// As cond_signal or cond_broadcast, but leaves the flag alone when nobody waits.
int cond_signal_if_waiting(cond_var_s* cond);
std::uint32_t cond_is_waiting(const cond_var_s* cond);

// The same for callers that already hold cond->mutex because it guards their own data as well.
int cond_wait_locked(cond_var_s* cond);
// One wait, at most `ms`: 0 when woken, 1 when the time passed, -1 on another error.
int cond_wait_timeout_locked(cond_var_s* cond, std::uint64_t ms);
int cond_signal_locked(cond_var_s* cond);
int cond_broadcast_locked(cond_var_s* cond);

}  // namespace korvex

#endif  // KORVEX_RUNTIME_SYNC_H
