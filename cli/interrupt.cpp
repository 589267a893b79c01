#include "cli/interrupt.h"

#include <atomic>
#include <csignal>
#include <cstdlib>

#include "cli/errors.h"
#include "runtime/platform/signals.h"

namespace korvex::cli {

namespace {

std::atomic<int> noted_signal{0};
static_assert(std::atomic<int>::is_always_lock_free, "a signal handler stores it");

extern "C" void note_signal(int signal) {
  noted_signal = signal;
}

}  // namespace

interrupt_guard::interrupt_guard() {
  noted_signal = 0;
  platform::catch_signal_once(SIGINT, note_signal);
  platform::catch_signal_once(SIGTERM, note_signal);
}

interrupt_guard::~interrupt_guard() {
  std::signal(SIGINT, SIG_DFL);
  std::signal(SIGTERM, SIG_DFL);
}

int interrupted() {
  return noted_signal;
}

void stop_if_interrupted(const std::string& text) {
  if (const int signal = interrupted(); signal != 0) throw interruption(signal, text);
}

#ifdef SIGPIPE
void report_broken_pipes() {
  std::signal(SIGPIPE, SIG_IGN);
}
void end_by_broken_pipe() {
  throw interruption(SIGPIPE, "");
}
#else
void report_broken_pipes() {}
void end_by_broken_pipe() {
  throw interruption(SIGTERM, "");
}
#endif

void end_by_signal(int signal) {
  std::signal(signal, SIG_DFL);
  std::raise(signal);
  std::_Exit(128 + signal);  // blocked by whoever started the process
}

}  // namespace korvex::cli
