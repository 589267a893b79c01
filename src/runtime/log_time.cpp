#include <cstdio>
#include <ctime>

#include "runtime/log.h"
#include "runtime/platform/clock.h"
#include "runtime/platform/threads.h"

namespace korvex {
namespace {

constexpr std::size_t k_text_bytes = 64;

}  // namespace

std::uint32_t log_threadid() {
  return platform::thread_id();
}

// Day before month.
const char* log_timestamp() {
  static thread_local char text[k_text_bytes];
  const std::uint64_t ms = platform::time_ms();
  const std::tm at = platform::local_time(static_cast<std::time_t>(ms / 1000));
  std::snprintf(text, sizeof text, "%02d%02d-%02d%02d%02d-%03u", at.tm_mday, at.tm_mon + 1,
                at.tm_hour, at.tm_min, at.tm_sec, static_cast<unsigned>(ms % 1000));
  return text;
}

const char* log_timestamp_iso8601() {
  static thread_local char text[k_text_bytes];
  const std::uint64_t ms = platform::time_ms();
  const std::tm at = platform::local_time(static_cast<std::time_t>(ms / 1000));
  std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d.%03u", at.tm_year + 1900,
                at.tm_mon + 1, at.tm_mday, at.tm_hour, at.tm_min, at.tm_sec,
                static_cast<unsigned>(ms % 1000));
  return text;
}

std::uint64_t log_timestamp_ms() {
  return platform::time_ms();
}

std::uint32_t log_timestamp32() {
  return static_cast<std::uint32_t>(platform::time_ms());
}

}  // namespace korvex
