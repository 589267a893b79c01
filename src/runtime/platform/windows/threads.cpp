#include "runtime/platform/threads.h"

#include <algorithm>
#include <chrono>
#include <iterator>

#include "runtime/platform/windows/system.h"

namespace korvex::platform {
namespace {

// About 30 years: the nanoseconds since 1970 stay far from overflow.
constexpr std::uint64_t longest_wait_ms = 1'000'000'000'000;

HANDLE thread_handle(pthread_t thread) {
  return static_cast<HANDLE>(::pthread_gethandle(thread));
}

}  // namespace

std::uint32_t thread_id() {
  return static_cast<std::uint32_t>(::pthread_self());
}

// The thread library knows no other clock than the wall clock here.
int init_condition(pthread_cond_t* condition) {
  return ::pthread_cond_init(condition, nullptr) == 0 ? 0 : -1;
}

timespec condition_deadline(std::uint64_t ms) {
  using namespace std::chrono;
  const auto at =
      system_clock::now().time_since_epoch() + milliseconds(std::min(ms, longest_wait_ms));
  const auto whole = duration_cast<seconds>(at);
  timespec deadline{};
  deadline.tv_sec = static_cast<std::time_t>(whole.count());
  deadline.tv_nsec = static_cast<long>(duration_cast<nanoseconds>(at - whole).count());
  return deadline;
}

int set_thread_priority(std::uint32_t id, int level) {
  constexpr int priority_of_level[] = {THREAD_PRIORITY_IDLE,         THREAD_PRIORITY_LOWEST,
                                       THREAD_PRIORITY_BELOW_NORMAL, THREAD_PRIORITY_NORMAL,
                                       THREAD_PRIORITY_ABOVE_NORMAL, THREAD_PRIORITY_HIGHEST,
                                       THREAD_PRIORITY_TIME_CRITICAL};
  if (level < -3 || level > 3) level = 0;
  const HANDLE thread = id == 0 ? ::GetCurrentThread() : thread_handle(id);
  if (thread == nullptr) return -1;
  return ::SetThreadPriority(thread, priority_of_level[level + 3]) ? 0 : fail();
}

void* watch_thread(pthread_t thread) {
  HANDLE watch = nullptr;
  const HANDLE process = ::GetCurrentProcess();
  ::DuplicateHandle(process, thread_handle(thread), process, &watch, SYNCHRONIZE, FALSE, 0);
  return watch;
}

void end_watch(void* watch) {
  if (watch != nullptr) ::CloseHandle(watch);
}

// When a process ends, the system kills all threads but one before it tells the libraries. One of them may have held a
// lock of the thread library, so this asks the system alone.
bool thread_runs(void* watch, std::uint32_t owner) {
  return owner == process_id() &&
         (watch == nullptr || ::WaitForSingleObject(watch, 0) != WAIT_OBJECT_0);
}

std::uint32_t process_id() {
  return ::GetCurrentProcessId();
}

// A library whose code still runs must not go: from the first thread on it stays until the process ends.
void keep_library_loaded() {
  HMODULE module = nullptr;
  ::GetModuleHandleExW(
      GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
      reinterpret_cast<const wchar_t*>(reinterpret_cast<const void*>(&keep_library_loaded)),
      &module);
}

}  // namespace korvex::platform
