#include "runtime/platform/signals.h"

#include <csignal>

namespace korvex::platform {

// The C runtime itself goes back to the usual course at the first signal.
void catch_signal_once(int signal, void (*handler)(int)) {
  std::signal(signal, handler);
}

}  // namespace korvex::platform
