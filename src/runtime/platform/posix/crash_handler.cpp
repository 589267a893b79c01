#include <dlfcn.h>
#include <execinfo.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <iterator>

#include "runtime/log.h"
#include "runtime/platform/process.h"

namespace korvex::platform {
namespace {

constexpr int crash_signals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT};
constexpr int most_frames = 64;

// Written once before the handlers stand, only read afterwards.
struct sigaction previous_actions[std::size(crash_signals)];
std::atomic<bool> crashing{false};

// From here on a further crash, this handler's own included, takes its usual course.
void restore_previous_actions() {
  for (std::size_t i = 0; i < std::size(crash_signals); ++i)
    sigaction(crash_signals[i], &previous_actions[i], nullptr);
}

void log_frame(int number, void* address) {
  Dl_info info{};
  if (dladdr(address, &info) == 0 || info.dli_fname == nullptr) {
    log_sync(0, nullptr, "  #%02d %p\n", number, address);
    return;
  }
  const auto offset = static_cast<const char*>(address) - static_cast<const char*>(info.dli_fbase);
  log_sync(0, nullptr, "  #%02d %p %s+0x%lx %s\n", number, address, info.dli_fname,
           static_cast<unsigned long>(offset), info.dli_sname == nullptr ? "" : info.dli_sname);
}

void log_stack(int signal_number, void* address) {
  void* frames[most_frames];
  const int n = backtrace(frames, most_frames);
  if (log_sync(0, nullptr, "**CRITICAL** signal %d, address %p\n", signal_number, address) != 0) {
    backtrace_symbols_fd(frames, n, STDERR_FILENO);  // no logger to take the lines
    return;
  }
  for (int i = 0; i < n; ++i) log_frame(i, frames[i]);
  log_sync(0, nullptr, "Linux: core dump left to the system\n");
}

void on_crash(int signal_number, siginfo_t* info, void* /*context*/) {
  restore_previous_actions();
  if (!crashing.exchange(true)) log_stack(signal_number, info->si_addr);
  // A fault of the program happens again on return, with its registers as they were; a signal that
  // was sent does not.
  if (info->si_code <= 0) raise(signal_number);
}

// A thread that overflowed its stack has none left for the handler. Serves the installing thread;
// the others keep theirs.
void provide_signal_stack() {
  alignas(16) static char memory[64 * 1024];
  stack_t current{};
  if (sigaltstack(nullptr, &current) != 0 || (current.ss_flags & SS_DISABLE) == 0) return;
  stack_t own{};
  own.ss_sp = memory;
  own.ss_size = sizeof memory;
  sigaltstack(&own, nullptr);
}

int install() {
  // The first call loads a library, which allocates: not to be done in a handler.
  void* frame = nullptr;
  backtrace(&frame, 1);
  provide_signal_stack();
  struct sigaction action {};
  action.sa_sigaction = on_crash;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK;
  sigemptyset(&action.sa_mask);
  for (std::size_t i = 0; i < std::size(crash_signals); ++i)
    if (sigaction(crash_signals[i], nullptr, &previous_actions[i]) != 0) return -1;
  for (const int signal_number : crash_signals)
    if (sigaction(signal_number, &action, nullptr) != 0) return -1;
  return 0;
}

}  // namespace

int crash_handler_install() {
  static const int result = install();
  return result;
}

}  // namespace korvex::platform
