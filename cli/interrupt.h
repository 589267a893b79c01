#ifndef KORVEX_CLI_INTERRUPT_H
#define KORVEX_CLI_INTERRUPT_H

#include <string>

// Ctrl-C and polite ends. Without a guard a signal ends the process as usual.
namespace korvex::cli {

// While one exists, the first SIGINT or SIGTERM is only noted and the work in hand ends in order; a
// second one ends the process at once. One at a time.
class interrupt_guard {
 public:
  interrupt_guard();
  ~interrupt_guard();
  interrupt_guard(const interrupt_guard&) = delete;
  interrupt_guard& operator=(const interrupt_guard&) = delete;
};

// The signal that was noted, 0 for none. Any thread.
int interrupted();
// Throws interruption when a signal was noted.
void stop_if_interrupted(const std::string& text = "interrupted");

// A write to a pipe that nobody reads fails from now on, in place of ending the process in the
// middle of an open index.
void report_broken_pipes();
// Throws the interruption that ends the process the way a broken pipe does, without a word.
[[noreturn]] void end_by_broken_pipe();

// Ends the process as the signal would have done without a guard.
[[noreturn]] void end_by_signal(int signal);

}  // namespace korvex::cli

#endif  // KORVEX_CLI_INTERRUPT_H
