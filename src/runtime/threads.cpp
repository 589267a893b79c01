#include "runtime/threads.h"

#include <climits>
#include <cstdint>
#include <memory>
#include <mutex>
#include <new>

#include "runtime/platform/faults.h"
#include "runtime/platform/threads.h"
#include "runtime/sync.h"

namespace korvex {
namespace {

constexpr int k_no_level = INT_MIN;

// A thread started here, from before its creation until its function has returned. Listed, because
// the system sets priorities by the number of a thread, which only the thread itself can tell.
struct thread_start {
  thread_function function = nullptr;
  void* argument = nullptr;
  int number = 0;  // what a null argument of create_threads points to

  // Guarded by g_lock.
  pthread_t id{};
  std::uint32_t system_id = 0;  // 0 until the thread runs
  int wanted_level = k_no_level;
  thread_start* next = nullptr;
};

pthread_mutex_t g_lock = PTHREAD_MUTEX_INITIALIZER;
thread_start* g_threads = nullptr;  // guarded by g_lock

void unlist_locked(thread_start* start) {
  thread_start** link = &g_threads;
  while (*link != nullptr && *link != start) link = &(*link)->next;
  if (*link != nullptr) *link = start->next;
}

// Leaves the list however the thread ends, pthread_exit included.
class listed_thread {
 public:
  explicit listed_thread(thread_start* start) : start_(start) {
    mutex_guard guard(&g_lock);
    start_->system_id = platform::thread_id();
    if (start_->wanted_level != k_no_level)
      platform::set_thread_priority(start_->system_id, start_->wanted_level);
  }
  ~listed_thread() {
    {
      mutex_guard guard(&g_lock);
      unlist_locked(start_);
    }
    delete start_;
  }
  listed_thread(const listed_thread&) = delete;
  listed_thread& operator=(const listed_thread&) = delete;

 private:
  thread_start* start_;
};

void* run_thread(void* record) {
  auto* start = static_cast<thread_start*>(record);
  listed_thread listed(start);
  return start->function(start->argument);
}

int start_thread(std::unique_ptr<thread_start> start, pthread_t* id, std::size_t stack_bytes) {
  if (!start || platform::fault_injected(platform::fault_point::thread)) return -1;
  static std::once_flag kept;
  std::call_once(kept, platform::keep_library_loaded);
  pthread_attr_t attributes;
  if (pthread_attr_init(&attributes) != 0) return -1;
  int error = pthread_attr_setstacksize(&attributes,
                                        stack_bytes == 0 ? k_default_stack_bytes : stack_bytes);
  if (error == 0) {
    // The new thread cannot pass listed_thread before its record is complete and listed.
    mutex_guard guard(&g_lock);
    error = pthread_create(&start->id, &attributes, run_thread, start.get());
    if (error == 0) {
      if (id != nullptr) *id = start->id;
      start->next = g_threads;
      g_threads = start.release();
    }
  }
  pthread_attr_destroy(&attributes);
  return error == 0 ? 0 : -1;
}

std::unique_ptr<thread_start> make_start(thread_function function, void* argument) {
  std::unique_ptr<thread_start> start(new (std::nothrow) thread_start);
  if (start) {
    start->function = function;
    start->argument = argument;
  }
  return start;
}

}  // namespace

int create_thread(thread_function function, void* argument, std::size_t stack_bytes) {
  return start_thread(make_start(function, argument), nullptr, stack_bytes);
}

int create_thread(pthread_t* id, thread_function function, void* argument,
                  std::size_t stack_bytes) {
  return start_thread(make_start(function, argument), id, stack_bytes);
}

int create_threads(thread_function function, void* argument, int n, std::size_t stack_bytes) {
  for (int i = 0; i < n; ++i) {
    std::unique_ptr<thread_start> start = make_start(function, argument);
    if (start) start->number = i;
    if (start && argument == nullptr) start->argument = &start->number;
    if (start_thread(std::move(start), nullptr, stack_bytes) != 0) return -1;
  }
  return 0;
}

void thread_detach_self() {
  pthread_detach(pthread_self());
}

int thread_set_priority(pthread_t thread, thread_priority_level_t level) {
  if (pthread_equal(thread, pthread_t{}) || pthread_equal(thread, pthread_self()))
    return platform::set_thread_priority(0, level);
  mutex_guard guard(&g_lock);
  for (thread_start* start = g_threads; start != nullptr; start = start->next) {
    if (!pthread_equal(start->id, thread)) continue;
    if (start->system_id != 0) return platform::set_thread_priority(start->system_id, level);
    start->wanted_level = level;
    return 0;
  }
  return -1;
}

int thread_set_self_priority(thread_priority_level_t level) {
  return platform::set_thread_priority(0, level);
}

}  // namespace korvex
