#ifndef KORVEX_RUNTIME_PLATFORM_SIGNALS_H
#define KORVEX_RUNTIME_PLATFORM_SIGNALS_H

namespace korvex::platform {

// Calls the handler at the next signal of that number, and lets the one after it take its usual
// course. A read or wait of the interrupted thread fails rather than going on. For programs only: a
// library must not take its host's signals.
void catch_signal_once(int signal, void (*handler)(int));

}  // namespace korvex::platform

#endif  // KORVEX_RUNTIME_PLATFORM_SIGNALS_H
