#ifndef KORVEX_RUNTIME_THREADS_H
#define KORVEX_RUNTIME_THREADS_H

#include <pthread.h>

#include <cstddef>

namespace korvex {

using thread_function = void* (*)(void*);

inline constexpr std::size_t k_default_stack_bytes = 126976;  // 31 pages of 4 KiB

// From idle (-3) to time critical (+3); any other value counts as 0.
using thread_priority_level_t = int;

// Starts one joinable thread. Stack 0 means k_default_stack_bytes. 0, or -1 when no thread could be
// made. Who starts a thread joins it, unless the thread begins with thread_detach_self.
int create_thread(thread_function function, void* argument, std::size_t stack_bytes = 0);
int create_thread(pthread_t* id, thread_function function, void* argument, std::size_t stack_bytes);

// Starts n joinable threads; nothing for n < 1. With a null argument each thread gets the address
// of its own int with its number from 0 on, valid until the function returns. 0, or -1 when a
// thread could not be made (earlier ones run).
int create_threads(thread_function function, void* argument, int n, std::size_t stack_bytes = 0);

// Gives up joining: the calling thread's stack is returned to the system when it ends.
void thread_detach_self();

// Thread 0 is the calling thread; any other must have been started here and not have ended yet.
// 0, or -1 when the thread is unknown or the system refuses (raising a priority may need a
// privilege).
int thread_set_priority(pthread_t thread, thread_priority_level_t level);
int thread_set_self_priority(thread_priority_level_t level);

}  // namespace korvex

#endif  // KORVEX_RUNTIME_THREADS_H
