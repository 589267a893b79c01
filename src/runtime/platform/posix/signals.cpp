#include "runtime/platform/signals.h"

#include <signal.h>

namespace korvex::platform {

void catch_signal_once(int signal, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  sigemptyset(&action.sa_mask);
  sigaction(signal, &action, nullptr);
}

}  // namespace korvex::platform
