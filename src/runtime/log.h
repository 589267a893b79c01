#ifndef KORVEX_RUNTIME_LOG_H
#define KORVEX_RUNTIME_LOG_H

#include <cstdarg>
#include <cstdint>
#include <cstdio>

#if defined(__MINGW32__)
#define KORVEX_PRINTF(f, a) __attribute__((format(gnu_printf, f, a)))
#else
#define KORVEX_PRINTF(f, a) __attribute__((format(printf, f, a)))
#endif

// One line of the library: E for ordinary lines, CRITICAL for a refused operation. The text ends in
// "\n".
#define KORVEX_LOG(text, ...)                                                   \
  ::korvex::log_async(0, nullptr, "E%s (%u): " text, ::korvex::log_timestamp(), \
                      ::korvex::log_threadid() __VA_OPT__(, ) __VA_ARGS__)
#define KORVEX_LOG_CRITICAL(text, ...)                                                     \
  ::korvex::log_async(0, nullptr, "**CRITICAL**%s (%u): " text, ::korvex::log_timestamp(), \
                      ::korvex::log_threadid() __VA_OPT__(, ) __VA_ARGS__)

namespace korvex {

using log_callback = void (*)(int level, const char* tag, const char* message, const char* extra);

// Process-wide logger: lines go through a fixed ring to one worker thread that writes them.
// Threads     every function may be called from any thread; producers never block for lack of room.
// Loss        a full ring drops its oldest lines; the worker reports the gap.
int log_init(std::uint64_t size, std::uint32_t mask);
int log_async(std::uint32_t level, const char* tag, const char* format, ...) KORVEX_PRINTF(3, 4);
int vlog_async(std::uint32_t level, const char* tag, const char* format, std::va_list args)
    KORVEX_PRINTF(3, 0);

// Formats and writes at once, without the worker. For places where the process may be about to die.
int log_sync(std::uint32_t level, const char* tag, const char* format, ...) KORVEX_PRINTF(3, 4);
int vlog_sync(std::uint32_t level, const char* tag, const char* format, std::va_list args)
    KORVEX_PRINTF(3, 0);

// 0 once everything queued was written, 1 when timeout_ms passed first (negative: no limit), -1
// when not initialised. In a callback, which the worker itself runs, 1 at once.
int log_wait_empty(int timeout_ms = 1000);
void log_exit_handler();
int log_shutdown();

int log_setfd(int fd);
int log_setpath(const char* path);
void log_setlevel(std::uint32_t mask);
std::uint32_t log_level();
int log_is_debug();
std::FILE* log_fp();
int log_fd();
int log_flush();
int log_set_callback(log_callback callback);

std::uint32_t log_threadid();
const char* log_timestamp();
const char* log_timestamp_iso8601();
std::uint64_t log_timestamp_ms();
std::uint32_t log_timestamp32();

}  // namespace korvex

#endif  // KORVEX_RUNTIME_LOG_H
