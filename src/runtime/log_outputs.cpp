#include "runtime/log_outputs.h"

#include <pthread.h>

#include <atomic>
#include <cstdio>
#include <new>

#include "runtime/platform/files.h"
#include "runtime/sync.h"

namespace korvex {
namespace {

// Longest wait for the path file's lock. A forked child may have inherited it locked for ever.
constexpr std::uint64_t k_path_lock_ms = 200;

std::atomic<int> g_fd{1};
std::atomic<int> g_path_fd{0};
std::atomic<log_callback> g_callback{nullptr};

// Held while the path file is written and closed: its number must not become another file's in
// between.
pthread_mutex_t g_path_lock = PTHREAD_MUTEX_INITIALIZER;

// One stream a descriptor number, kept for ever: closing one would close the host's descriptor.
struct cached_stream {
  int fd;
  std::FILE* stream;
  cached_stream* next;
};
pthread_mutex_t g_streams_lock = PTHREAD_MUTEX_INITIALIZER;
cached_stream* g_streams = nullptr;  // guarded by g_streams_lock

// Null when there is none; `open` makes one.
std::FILE* stream_of(int fd, bool open) {
  mutex_guard guard(&g_streams_lock);
  for (const cached_stream* at = g_streams; at != nullptr; at = at->next)
    if (at->fd == fd) return at->stream;
  if (!open) return nullptr;
  auto* entry = new (std::nothrow) cached_stream{fd, nullptr, g_streams};
  if (entry == nullptr) return nullptr;
  entry->stream = platform::stream_of_file(fd);
  if (entry->stream == nullptr) {
    delete entry;
    return nullptr;
  }
  g_streams = entry;
  return entry->stream;
}

}  // namespace

void write_log_line(std::uint32_t level, const char* tag, const char* message, std::size_t length) {
  const log_callback callback = g_callback.load();
  if (callback != nullptr) callback(static_cast<int>(level), tag, message, nullptr);
  const int fd = g_fd.load();
  if (fd > 0) platform::write_all(fd, message, length);
  if (g_path_fd.load() <= 0) return;
  const bool locked = mutex_lock(&g_path_lock, k_path_lock_ms) == 0;
  const int path_fd = g_path_fd.load();
  if (path_fd > 0) platform::write_all(path_fd, message, length);
  if (locked) mutex_unlock(&g_path_lock);
}

void set_log_output(int fd) {
  g_fd.store(fd);
}

void set_log_output_callback(log_callback callback) {
  g_callback.store(callback);
}

int log_setpath(const char* path) {
  if (path == nullptr) {
    mutex_guard guard(&g_path_lock);
    const int old = g_path_fd.exchange(0);
    if (old > 0) platform::close_file(old);
    return 0;
  }
  const int fd = platform::open_file(path, platform::open_mode::append);
  if (fd <= 0) {
    platform::close_file(fd);  // number 0, free when the host closed its input, means no output
    return 0;
  }
  g_path_fd.store(fd);
  return fd;
}

std::FILE* log_fp() {
  const int fd = g_fd.load();
  if (fd <= 0) return nullptr;
  if (fd <= 2) return fd == 1 ? stdout : stderr;
  return stream_of(fd, true);
}

int log_fd() {
  return g_fd.load();
}

int log_flush() {
  const int fd = g_fd.load();
  const int path_fd = g_path_fd.load();
  bool failed = false;
  if (fd == 1 || fd == 2) failed = std::fflush(fd == 1 ? stdout : stderr) != 0;
  if (fd > 2) {
    std::FILE* const stream = stream_of(fd, false);
    if (stream != nullptr) failed = std::fflush(stream) != 0;
    failed |= platform::sync_file(fd) != 0;
  }
  if (path_fd > 0) failed |= platform::sync_file(path_fd) != 0;
  return failed ? -1 : 0;
}

}  // namespace korvex
