#include "storage/mapping.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <limits>
#include <string_view>

#include "runtime/log.h"
#include "runtime/platform/clock.h"
#include "runtime/platform/files.h"
#include "runtime/platform/memory.h"
#include "runtime/platform/memory_texts.h"

namespace korvex {
namespace {

// The first write to a page of a file needs room for the whole folio that the page cache keeps it in, and a folio may
// be as large as a large page. So room is only ever taken in whole units: less leaves pages whose touch faults on a
// full disk although they have room themselves.
constexpr std::uint64_t fault_unit = 2ULL << 20;
constexpr std::uint64_t largest_reserve_step = 16ULL << 20;

// Where reserved room for `wanted` bytes ends when about `ahead` more are taken with it.
std::uint64_t reserve_end(std::uint64_t wanted, std::uint64_t ahead, std::uint64_t file_size) {
  const std::uint64_t left = file_size - wanted;
  const std::uint64_t begun = wanted % fault_unit;
  const std::uint64_t step =
      ahead / fault_unit * fault_unit + (begun == 0 ? 0 : fault_unit - begun);
  return wanted + std::min(left, step);
}

// A quarter more: few calls while the file grows, little waste in a small one.
std::uint64_t room_ahead(std::uint64_t wanted) {
  return std::min<std::uint64_t>(wanted / 4, largest_reserve_step - fault_unit);
}

void log_open_failure(const char* path, int error) {
  KORVEX_LOG("Failed to open file %s: %s\n", path, platform::error_text(error).c_str());
}

void log_resize_failure(const char* path, int error) {
  KORVEX_LOG("ftruncate failed for file %s: %s\n", path, platform::error_text(error).c_str());
}

mmap_handle_t open_existing_file(const char* path, const platform::file_status& status) {
  mmap_handle_t file;
  if (!status.regular) {
    // A device or a pipe has no length to map, and must not be mistaken for an empty file.
    KORVEX_LOG("Failed to open file %s: %s\n", path, "not a regular file");
    return file;
  }
  file.fd = platform::open_file(path, platform::open_mode::existing);
  if (file.fd < 0) {
    log_open_failure(path, errno);
    return file;
  }
  file.size = status.size;
  file.existed = 1;
  return file;
}

mmap_handle_t make_file(const char* path, std::uint64_t size) {
  mmap_handle_t file;
  file.fd = platform::open_file(path, platform::open_mode::create_new);
  if (file.fd < 0) {
    log_open_failure(path, errno);
    return file;
  }
  file.size = size;
  file.file_backed = 1;
  if (platform::set_file_size(file.fd, size) == 0 &&
      mapping_reserve(&file, std::min<std::uint64_t>(size, 1)) == 0)
    return file;
  const int error = errno;
  platform::close_file(file.fd);
  platform::remove_file(path);
  log_resize_failure(path, error);
  return {};
}

// Gives up a file that could not be mapped; an empty one of our making must not be found by the
// next start.
mmap_handle_t abandon_file(const mmap_handle_t& file, const char* path) {
  platform::close_file(file.fd);
  if (!file.existed) platform::remove_file(path);
  return {};
}

bool map_whole_file(mmap_handle_t* file) {
  const char* failed_call = nullptr;
  long error = 0;
  file->data =
      platform::map_file(file->fd, file->size, false, &file->mapping_handle, &failed_call, &error);
  if (file->data != nullptr) return true;
  if (failed_call == nullptr || std::string_view(failed_call) == "fd")
    KORVEX_LOG("%s: Invalid file handle from fd %d\n", platform::mapping_name, file->fd);
  else
    KORVEX_LOG("%s: %s failed with error code %ld\n", platform::mapping_name, failed_call, error);
  return false;
}

// True when the pages are locked; without the right to lock that is no failure worth a line of its
// own.
bool lock_if_allowed(const mmap_handle_t& mapping) {
  return set_memory_lock_limits(mapping.size) == 1 && lock_memory(mapping.data, mapping.size) == 0;
}

// Some systems remove no file that is mapped: unmapped first, unlocked last. The closing alone would not unlock it for
// a child process that inherited the descriptor.
void release_file(mmap_handle_t* mapping, const char* path_to_remove) {
  if (path_to_remove == nullptr) sync_persistent_memory(mapping);
  if (mapping->locked) unlock_memory(mapping->data, mapping->size);
  platform::unmap_file(mapping->data, mapping->size, mapping->mapping_handle);
  if (path_to_remove != nullptr && platform::is_file_at(mapping->fd, path_to_remove))
    platform::remove_file(path_to_remove);
  platform::unlock_file(mapping->fd);
  platform::close_file(mapping->fd);
}

void release_anonymous(mmap_handle_t* mapping) {
  if (mapping->locked) unlock_memory(mapping->data, mapping->size);
  if (mapping->heap_fallback)
    platform::aligned_free(mapping->data);
  else
    platform::unmap_anonymous(mapping->data, mapping->mapped_bytes);
}

// Zeroed like a fresh mapping, so that callers need not know where their memory came from.
void* allocate_zeroed(std::uint64_t size, std::uint64_t align) {
  if (size == 0 || size > std::numeric_limits<std::size_t>::max()) return nullptr;
  void* data = platform::aligned_malloc(size, std::max<std::uint64_t>(align, 64));
  if (data != nullptr) std::memset(data, 0, size);
  return data;
}

}  // namespace

mmap_handle_t platform_mmap_file(const char* path, unsigned long long size, bool /*huge*/,
                                 bool lock, bool open_existing) {
  if (path == nullptr || *path == '\0') {
    KORVEX_LOG("platform_mmap_file: NULL filename provided\n");
    return {};
  }
  platform::file_status status = platform::status_of(path);
  if (status.exists && status.regular && status.size == 0 && platform::remove_file(path) == 0)
    status = {};
  if (open_existing && (!status.exists || status.size < size)) return {};

  mmap_handle_t file = status.exists ? open_existing_file(path, status) : make_file(path, size);
  if (file.fd < 0) return {};
  if (!map_whole_file(&file)) return abandon_file(file, path);
  file.file_backed = 1;
  if (lock && set_memory_lock_limits(file.size) == 1) {
    file.locked = lock_memory(file.data, file.size) == 0;
    if (!file.locked) KORVEX_LOG("%s: Failed to lock memory\n", platform::mapping_name);
  }
  return file;
}

mmap_handle_t platform_mmap_anon(unsigned long long size, unsigned long long align, bool huge,
                                 bool lock, bool heap_fallback) {
  mmap_handle_t memory;
  std::uint64_t wanted = size;
  const std::uint64_t large_page = huge ? platform::large_page_size() : 0;
  if (large_page != 0) {
    const std::uint64_t beyond = size % large_page;
    const std::uint64_t missing = beyond == 0 ? 0 : large_page - beyond;
    if (missing > std::numeric_limits<std::uint64_t>::max() - size) return {};
    wanted = size + missing;
  }
  memory.data = wanted == 0
                    ? nullptr
                    : platform::map_anonymous(wanted, align, large_page != 0, &memory.mapped_bytes);
  memory.size = wanted;
  if (memory.data == nullptr && heap_fallback) {
    memory.data = allocate_zeroed(size, align);
    memory.size = size;
    memory.heap_fallback = 1;
  }
  if (memory.data == nullptr) return {};
  if (lock) memory.locked = lock_if_allowed(memory);
  memory.anonymous = 1;
  return memory;
}

void platform_munmap(mmap_handle_t* mapping) {
  if (mapping == nullptr || mapping->data == nullptr) return;
  if (mapping->anonymous)
    release_anonymous(mapping);
  else if (mapping->fd >= 0)
    release_file(mapping, nullptr);
  *mapping = {};
}

void platform_munmap_and_remove(mmap_handle_t* mapping, const char* path) {
  if (mapping == nullptr || mapping->data == nullptr || mapping->fd < 0) return;
  release_file(mapping, path);
  *mapping = {};
}

int sync_persistent_memory(mmap_handle_t* mapping) {
  if (mapping == nullptr || !mapping->file_backed || mapping->data == nullptr || mapping->fd < 0)
    return 0;
  mapping->last_sync = platform::time_usec();
  // Both, even if the first fails: what can be saved is saved.
  const int view = platform::flush_view(mapping->data, mapping->size);
  const int device = platform::sync_file(mapping->fd);
  if (view != 0 || device != 0) mapping->flush_refused = 1;
  return mapping->flush_refused == 0 ? 0 : -1;
}

int mapping_reserve(mmap_handle_t* mapping, unsigned long long upto_bytes) {
  if (upto_bytes > mapping->size) {
    errno = ENOSPC;
    return -1;
  }
  if (!mapping->file_backed || upto_bytes <= mapping->reserved_bytes) return 0;
  const std::uint64_t from = mapping->reserved_bytes;
  const std::uint64_t ahead = room_ahead(upto_bytes);
  std::uint64_t target = reserve_end(upto_bytes, ahead, mapping->size);
  if (platform::reserve_file_range(mapping->fd, from, target - from) != 0) {
    // The last units of a disk are still good for what is needed now.
    target = reserve_end(upto_bytes, 0, mapping->size);
    if (platform::reserve_file_range(mapping->fd, from, target - from) != 0) return -1;
  }
  mapping->reserved_bytes = target;
  return 0;
}

unsigned long long mapping_room_of(unsigned long long bytes) {
  constexpr std::uint64_t any_size = ~std::uint64_t{0};
  std::uint64_t room = 0;
  while (room < bytes) {
    const std::uint64_t wanted = room + 1;
    const std::uint64_t ahead = room_ahead(wanted);
    room = reserve_end(wanted, ahead, any_size);
    if (ahead < largest_reserve_step - fault_unit || room >= bytes) continue;
    // Equal steps from here on.
    const std::uint64_t steps = (bytes - room + largest_reserve_step - 1) / largest_reserve_step;
    room += steps * largest_reserve_step;
  }
  return room;
}

int check_hugetlb_available() {
  if (platform::large_pages_available()) return 1;
  static std::atomic<bool> explained{false};
  if (!explained.exchange(true, std::memory_order_relaxed)) {
    KORVEX_LOG("Warning: Huge pages requested but not available on this system.\n");
    KORVEX_LOG("%s\n", platform::large_pages_help);
  }
  return 0;
}

int set_memory_lock_limits(unsigned long long bytes) {
  if (platform::may_lock(bytes)) return 1;
  static std::atomic<std::uint64_t> largest_refused{0};
  std::uint64_t before = largest_refused.load(std::memory_order_relaxed);
  while (bytes > before) {
    if (!largest_refused.compare_exchange_weak(before, bytes, std::memory_order_relaxed)) continue;
    KORVEX_LOG(
        "\nWARNING: Insufficient memory locking privilege detected! Memory locking is required to "
        "prevent page "
        "swapping and improve performance.\nRequired memory lock size: %u KB\n\n%s",
        static_cast<unsigned>(bytes >> 10), platform::memory_lock_help);
    break;
  }
  return 0;
}

int lock_memory(void* data, std::size_t size) {
  return platform::lock_pages(data, size) == 0 ? 0 : -1;
}
int unlock_memory(void* data, std::size_t size) {
  return platform::unlock_pages(data, size) == 0 ? 0 : -1;
}

int get_memory_lock_limits() {
  return 0;
}
int set_memory_advice(void* /*data*/, std::size_t /*size*/) {
  return 0;
}

int dyn_numa_is_available() {
  static const int result = platform::numa_init();
  return result;
}

int dyn_numa_init() {
  const int result = dyn_numa_is_available();
  static std::atomic<bool> explained{false};
  if (result != 0 && !explained.exchange(true, std::memory_order_relaxed))
    KORVEX_LOG(
        "Warning: NUMA support is not available on this platform. Using default memory "
        "allocation.\n");
  return result;
}

void dyn_numa_helper(void* data, std::size_t size, int node) {
  if (data == nullptr || node < 0 || dyn_numa_is_available() != 0) return;
  platform::numa_bind(data, size, node);  // a preference: memory from elsewhere is right too
}

void dyn_numa_cleanup() {}

}  // namespace korvex
