#ifndef KORVEX_RUNTIME_PLATFORM_THREADS_H
#define KORVEX_RUNTIME_PLATFORM_THREADS_H

#include <pthread.h>

#include <cstdint>
#include <ctime>

namespace korvex::platform {

// The number of the calling thread as log lines show it; cached per thread.
std::uint32_t thread_id();

// Makes a condition variable whose timed waits take condition_deadline's clock, which no change of
// the wall clock moves where the system has such waits. 0 or -1.
int init_condition(pthread_cond_t* condition);
// The absolute time `ms` from now on the clock of init_condition's waits.
timespec condition_deadline(std::uint64_t ms);

// Levels -3 (idle) to +3 (time critical); anything else counts as 0. The id is thread_id() of the
// target, 0 for the calling thread. 0, or -1 when the system refuses.
int set_thread_priority(std::uint32_t id, int level);

// What thread_runs asks about a thread of this process, which has not been joined yet; end_watch releases it. Null is
// a watch that sees nothing.
void* watch_thread(pthread_t thread);
void end_watch(void* watch);
// Whether the watched thread, of the process `owner`, still runs: a forked child has lost the threads of its parent,
// and a library may be told of the end of its process when its threads are dead already. Waits for nothing then, the
// thread library's own locks included.
bool thread_runs(void* watch, std::uint32_t owner);
std::uint32_t process_id();

// Keeps the library that holds this code loaded until the process ends. Called before the first thread is started: its
// code may still run when the host unloads the library.
void keep_library_loaded();

}  // namespace korvex::platform

#endif  // KORVEX_RUNTIME_PLATFORM_THREADS_H
