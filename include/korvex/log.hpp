#ifndef KORVEX_LOG_HPP
#define KORVEX_LOG_HPP

#include <atomic>
#include <functional>
#include <mutex>
#include <string_view>
#include <utility>

#include "korvex/engine.h"

namespace korvex {

// Receives the library's lines, each ending in a newline, one at a time on the log's own thread,
// until the process has ended. What it throws is dropped; it must not change the sink.
using log_sink = std::function<void(std::string_view line)>;

namespace detail {

inline std::atomic<bool> log_chosen{false};

inline void deliver_line(void* context, const char* line) {
  try {
    (*static_cast<const log_sink*>(context))(line);
  } catch (...) {
  }
}

// The raw library writes to standard output, which belongs to the program: silence is the default.
inline void quiet_unless_chosen() {
  if (!log_chosen.exchange(true)) korvex_set_log_sink(nullptr, nullptr);
}

}  // namespace detail

// Sends the lines of all indexes of the process to `sink`; an empty one drops them, which is the
// default as soon as a korvex::index was made. Any time, any thread.
inline void set_log(log_sink sink) {
  static std::mutex changing;
  static log_sink* current = nullptr;  // lines come until the process has ended
  std::lock_guard lock(changing);
  detail::log_chosen = true;
  log_sink* const next = sink ? new log_sink(std::move(sink)) : nullptr;
  korvex_set_log_sink(next != nullptr ? detail::deliver_line : nullptr, next);
  delete std::exchange(current, next);
}

}  // namespace korvex

#endif  // KORVEX_LOG_HPP
