#ifndef KORVEX_RUNTIME_LOG_H
#define KORVEX_RUNTIME_LOG_H

#include <cstdarg>
#include <cstdint>
#include <cstdio>

// The conversions of C99 on every system, also where the system's own printf has others.
#if defined(__clang__)
#define KORVEX_PRINTF(f, a) __attribute__((format(printf, f, a)))
#else
#define KORVEX_PRINTF(f, a) __attribute__((format(gnu_printf, f, a)))
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
// Failure     -1 of a function that returns int: not initialised, unless it says more.

// Starts the logger with a ring of `size` bytes; it ends by log_shutdown or when the process exits,
// which writes what is queued. -1 when it runs already, size is 0 or memory or a thread is missing.
int log_init(std::uint64_t size, std::uint32_t mask);
// Queues a line. A level other than 0 passes when it shares a bit with the mask; a null tag counts
// as empty. 0, also for a line that does not pass; -1 too when the format fails or the line is too
// long for the ring.
int log_async(std::uint32_t level, const char* tag, const char* format, ...) KORVEX_PRINTF(3, 4);
int vlog_async(std::uint32_t level, const char* tag, const char* format, std::va_list args)
    KORVEX_PRINTF(3, 0);

// Formats and writes at once, without the worker, cut to 1,023 bytes (a hundredth of a ring above
// 102,399 bytes). For places where the process may be about to die. 0; -1 too when the format fails.
int log_sync(std::uint32_t level, const char* tag, const char* format, ...) KORVEX_PRINTF(3, 4);
int vlog_sync(std::uint32_t level, const char* tag, const char* format, std::va_list args)
    KORVEX_PRINTF(3, 0);

// 0 once everything queued was written, 1 when timeout_ms passed first (negative: no limit), -1
// when not initialised. In a callback, which the worker itself runs, 1 at once.
int log_wait_empty(int timeout_ms = 1000);
// log_wait_empty without limit, then log_shutdown. Registered to run at process exit.
void log_exit_handler();
// Stops the worker; queued lines are lost. 0; -1 also in a callback.
int log_shutdown();

// The first output: standard output until set, 0 for none. The descriptor stays the caller's.
// Returns whether the logger runs (1, 0); without it, or for a negative number, nothing changes.
int log_setfd(int fd);
int log_fd();
// A stream on the first output, null when there is none; the logger keeps it, never close it.
std::FILE* log_fp();
// Opens a file to append every line to, besides the first output; the descriptor, or 0 when it
// cannot be opened. An earlier one stays open. Null closes the file and returns 0.
int log_setpath(const char* path);
// Brings both outputs and the stream of the first one to their devices. 0, or -1 when any failed.
int log_flush();
// Called for every line, on the worker or in log_sync, before the outputs; extra is always null.
int log_set_callback(log_callback callback);

void log_setlevel(std::uint32_t mask);
std::uint32_t log_level();
int log_is_debug();

std::uint32_t log_threadid();
// Local time as day, month - hour, minute, second - millisecond; valid until the thread's next call.
const char* log_timestamp();
const char* log_timestamp_iso8601();
std::uint64_t log_timestamp_ms();
std::uint32_t log_timestamp32();

}  // namespace korvex

#endif  // KORVEX_RUNTIME_LOG_H
