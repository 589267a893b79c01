#include "injection.h"

#include <dirent.h>
#include <execinfo.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <new>

namespace korvex::test::injection {
namespace {

enum class state { idle, recording, failing };

constexpr int deepest = 32;
constexpr int frames_of_a_place = 8;
constexpr std::size_t most_calls = 1 << 18;

std::atomic<state> current{state::idle};
std::atomic<long> count{0};
std::atomic<bool> has_failed{false};
std::atomic<std::int64_t> mapped{0};
long failing_number = 0;
thread_local int pauses = 0;

// Of the call that failed.
const char* failed_name = "";
void* failed_way[deepest];
int failed_depth = 0;

call calls[most_calls];

std::uint64_t place_of(void* const* way, int depth) {
  std::uint64_t place = 0xCBF29CE484222325;
  for (int i = 0; i < std::min(depth, frames_of_a_place); ++i)
    place = (place ^ reinterpret_cast<std::uintptr_t>(way[i])) * 0x100000001B3;
  return place;
}

void note(const char* name, long number) {
  const pause own;
  void* way[frames_of_a_place];
  const auto position = static_cast<std::size_t>(number - 1);
  if (position < most_calls)
    calls[position] = {name, place_of(way, backtrace(way, frames_of_a_place))};
}

void note_failure(const char* name) {
  const pause own;
  failed_name = name;
  failed_depth = backtrace(failed_way, deepest);
  has_failed = true;
}

bool fails(const char* name) {
  const state now = current.load(std::memory_order_acquire);
  if (now == state::idle || pauses != 0) return false;
  const long number = count.fetch_add(1) + 1;
  if (now == state::recording) note(name, number);
  if (now != state::failing || number != failing_number) return false;
  note_failure(name);
  return true;
}

void start(state next) {
  count = 0;
  has_failed = false;
  current.store(next, std::memory_order_release);
}

}  // namespace

void record() {
  start(state::recording);
}

std::vector<call> recorded() {
  const auto n = std::min(static_cast<std::size_t>(count.load()), most_calls);
  return {calls, calls + n};
}

void fail(long number) {
  failing_number = number;
  start(state::failing);
}

void stop() {
  current = state::idle;
}

bool failed() {
  return has_failed;
}

void print_failed() {
  const pause own;
  std::fprintf(stderr, "call %ld, %s, failed:\n", failing_number, failed_name);
  backtrace_symbols_fd(failed_way, failed_depth, STDERR_FILENO);
}

std::int64_t mapped_bytes() {
  return mapped;
}

pause::pause() {
  ++pauses;
}
pause::~pause() {
  --pauses;
}

}  // namespace korvex::test::injection

// The linker sends the library's calls to __wrap_NAME; __real_NAME is the system's own.
namespace injection = korvex::test::injection;
using korvex::test::injection::fails;
using korvex::test::injection::mapped;

namespace {
template <class Result>
Result refused(int error, Result result) {
  errno = error;
  return result;
}
}  // namespace

extern "C" {

void* __real_malloc(std::size_t);
void* __real_calloc(std::size_t, std::size_t);
void* __real_realloc(void*, std::size_t);
char* __real_strdup(const char*);
int __real_posix_memalign(void**, std::size_t, std::size_t);
void* __real_mmap(void*, std::size_t, int, int, int, off_t);
int __real_munmap(void*, std::size_t);
int __real_ftruncate(int, off_t);
int __real_open(const char*, int, ...);
DIR* __real_opendir(const char*);
int __real_mkdir(const char*, mode_t);
ssize_t __real_pread(int, void*, std::size_t, off_t);
ssize_t __real_pwrite(int, const void*, std::size_t, off_t);
int __real_rename(const char*, const char*);
int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);

void* __wrap_malloc(std::size_t size) {
  return fails("malloc") ? refused<void*>(ENOMEM, nullptr) : __real_malloc(size);
}
void* __wrap_calloc(std::size_t n, std::size_t size) {
  return fails("calloc") ? refused<void*>(ENOMEM, nullptr) : __real_calloc(n, size);
}
void* __wrap_realloc(void* old, std::size_t size) {
  return fails("realloc") ? refused<void*>(ENOMEM, nullptr) : __real_realloc(old, size);
}
char* __wrap_strdup(const char* text) {
  return fails("strdup") ? refused<char*>(ENOMEM, nullptr) : __real_strdup(text);
}
int __wrap_posix_memalign(void** data, std::size_t align, std::size_t size) {
  return fails("posix_memalign") ? ENOMEM : __real_posix_memalign(data, align, size);
}
void* __wrap_mmap(void* at, std::size_t size, int protection, int flags, int fd, off_t offset) {
  if (fails("mmap")) return refused(ENOMEM, MAP_FAILED);
  void* const data = __real_mmap(at, size, protection, flags, fd, offset);
  if (data != MAP_FAILED) mapped += static_cast<std::int64_t>(size);
  return data;
}
int __wrap_munmap(void* data, std::size_t size) {
  mapped -= static_cast<std::int64_t>(size);
  return __real_munmap(data, size);
}
// Never granted: locking 50 MB of the index file would be most of the time that a life takes.
int __wrap_mlock(const void*, std::size_t) {
  return refused(ENOMEM, -1);
}
int __wrap_ftruncate(int fd, off_t size) {
  return fails("ftruncate") ? refused(ENOSPC, -1) : __real_ftruncate(fd, size);
}
// There is room, and the power stays on: nothing has to be reserved or to reach the device.
int __wrap_fallocate(int, int, off_t, off_t) {
  return fails("fallocate") ? refused(ENOSPC, -1) : 0;
}
int __wrap_msync(void*, std::size_t, int) {
  return fails("msync") ? refused(EIO, -1) : 0;
}
int __wrap_fsync(int) {
  return fails("fsync") ? refused(EIO, -1) : 0;
}
int __wrap_open(const char* path, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
  va_end(rest);
  return fails("open") ? refused(EMFILE, -1) : __real_open(path, flags, mode);
}
DIR* __wrap_opendir(const char* path) {
  return fails("opendir") ? refused<DIR*>(EMFILE, nullptr) : __real_opendir(path);
}
int __wrap_mkdir(const char* path, mode_t mode) {
  return fails("mkdir") ? refused(ENOSPC, -1) : __real_mkdir(path, mode);
}
ssize_t __wrap_pread(int fd, void* data, std::size_t size, off_t offset) {
  return fails("pread") ? refused<ssize_t>(EIO, -1) : __real_pread(fd, data, size, offset);
}
ssize_t __wrap_pwrite(int fd, const void* data, std::size_t size, off_t offset) {
  return fails("pwrite") ? refused<ssize_t>(ENOSPC, -1) : __real_pwrite(fd, data, size, offset);
}
int __wrap_rename(const char* from, const char* to) {
  return fails("rename") ? refused(EIO, -1) : __real_rename(from, to);
}
int __wrap_pthread_create(pthread_t* id, const pthread_attr_t* attributes, void* (*run)(void*),
                          void* argument) {
  return fails("pthread_create") ? EAGAIN : __real_pthread_create(id, attributes, run, argument);
}

}  // extern "C"

namespace {

void* allocate(std::size_t size) {
  return fails("operator new") ? nullptr : __real_malloc(std::max<std::size_t>(size, 1));
}
void* allocate(std::size_t size, std::align_val_t align) {
  void* data = nullptr;
  const auto boundary = std::max(static_cast<std::size_t>(align), sizeof(void*));
  const bool failed = fails("operator new") || __real_posix_memalign(&data, boundary, size) != 0;
  return failed ? nullptr : data;
}
void* or_throw(void* data) {
  return data != nullptr ? data : throw std::bad_alloc();
}

}  // namespace

// All forms: the sanitizers have all of their own.
void* operator new(std::size_t size) {
  return or_throw(allocate(size));
}
void* operator new[](std::size_t size) {
  return or_throw(allocate(size));
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return allocate(size);
}
void* operator new(std::size_t size, std::align_val_t align) {
  return or_throw(allocate(size, align));
}
void* operator new[](std::size_t size, std::align_val_t align) {
  return or_throw(allocate(size, align));
}
void* operator new(std::size_t size, std::align_val_t align, const std::nothrow_t&) noexcept {
  return allocate(size, align);
}
void* operator new[](std::size_t size, std::align_val_t align, const std::nothrow_t&) noexcept {
  return allocate(size, align);
}
void operator delete(void* data) noexcept {
  std::free(data);
}
void operator delete[](void* data) noexcept {
  std::free(data);
}
void operator delete(void* data, std::size_t) noexcept {
  std::free(data);
}
void operator delete[](void* data, std::size_t) noexcept {
  std::free(data);
}
void operator delete(void* data, const std::nothrow_t&) noexcept {
  std::free(data);
}
void operator delete[](void* data, const std::nothrow_t&) noexcept {
  std::free(data);
}
void operator delete(void* data, std::align_val_t) noexcept {
  std::free(data);
}
void operator delete[](void* data, std::align_val_t) noexcept {
  std::free(data);
}
void operator delete(void* data, std::size_t, std::align_val_t) noexcept {
  std::free(data);
}
void operator delete[](void* data, std::size_t, std::align_val_t) noexcept {
  std::free(data);
}
