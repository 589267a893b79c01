#include "storage/persistent_allocator.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <new>

#include "runtime/log.h"
#include "runtime/platform/faults.h"
#include "runtime/platform/files.h"
#include "runtime/sync.h"
#include "storage/persistent_allocator_file.h"

namespace korvex {
namespace {

constexpr unsigned longest_walk = 1000;  // blocks of a chain; a longer one is taken for a cycle
constexpr std::uint64_t appends_per_flush = 128;  // over all allocators of the process
std::atomic<std::uint64_t> append_count{0};

// Stands before every heap block; keeps the caller's bytes 16-byte aligned.
struct heap_prefix {
  std::uint64_t requested_size;
  std::uint64_t magic;
};
static_assert(sizeof(heap_prefix) == 16);

void* heap_allocate(std::uint64_t size) {
  constexpr std::uint64_t largest =
      std::numeric_limits<std::ptrdiff_t>::max() - 2 * sizeof(heap_prefix);
  const bool possible = size <= largest && !platform::fault_injected(platform::fault_point::heap);
  const std::uint64_t wanted = (size + 15) / 16 * 16 + sizeof(heap_prefix);
  void* memory = possible ? std::calloc(1, wanted) : nullptr;
  if (memory == nullptr) {
    KORVEX_LOG("failed to allocate %llu bytes\n", static_cast<unsigned long long>(size));
    return nullptr;
  }
  return new (memory) heap_prefix{size, persistent_magic} + 1;
}

void log_damaged_block(persistent_block_fault fault, std::uint64_t offset) {
  if (fault == persistent_block_fault::bad_size)
    KORVEX_LOG("invalid block size at offset %llu\n", static_cast<unsigned long long>(offset));
  else
    KORVEX_LOG("corrupted header detected at offset %llu\n",
               static_cast<unsigned long long>(offset));
}

// Reads a block that a chain leads to.
persistent_block_fault read_linked(const persistent_malloc_s* allocator, std::uint64_t offset,
                                   persistent_block_s* block) {
  const auto fault =
      persistent_read_block(allocator->base, allocator->header->used_size, offset, block);
  if (fault != persistent_block_fault::none || allocator->places.contain(offset)) return fault;
  return persistent_block_fault::bad_header;
}

// The newest block of that id, 0 when its chain has none or is damaged before it.
std::uint64_t find_block(persistent_malloc_s* allocator, std::uint64_t id) {
  const persistent_header_s* const header = allocator->header;
  allocator->places.learn(allocator->base, header->used_size);
  std::uint64_t offset = header->chain_heads[persistent_bucket_of(id)];
  for (unsigned walked = 1; offset != 0; ++walked) {
    persistent_block_s block;
    const persistent_block_fault fault = read_linked(allocator, offset, &block);
    if (fault != persistent_block_fault::none) {
      log_damaged_block(fault, offset);
      return 0;
    }
    if (block.id == id) return offset;
    if (walked == longest_walk) {
      KORVEX_LOG("Warning: possible chain cycle detected for ID %llu\n",
                 static_cast<unsigned long long>(id));
      return 0;
    }
    offset = block.next_offset;
    if (offset != 0 && !persistent_is_block_offset(offset, header->used_size)) {
      KORVEX_LOG("invalid next_offset %llu in chain\n", static_cast<unsigned long long>(offset));
      return 0;
    }
  }
  return 0;
}

persistent_block_s* block_at(persistent_malloc_s* allocator, std::uint64_t offset) {
  return reinterpret_cast<persistent_block_s*>(static_cast<char*>(allocator->base) + offset);
}

// Before the used part grows.
void void_misfits(persistent_malloc_s* allocator) {
  for (const std::uint64_t offset : allocator->places.misfits())
    block_at(allocator, offset)->magic = 0;
  allocator->places.forget_misfits();
}

// Null when the file or the disk has no room.
void* append_block(persistent_malloc_s* allocator, std::uint64_t id, std::uint64_t size) {
  persistent_header_s* header = allocator->header;
  const std::uint64_t offset = header->used_size;
  const std::uint64_t needed = persistent_block_bytes(size);
  if (needed == 0 || needed > allocator->total - offset) return nullptr;
  if (!persistent_file_reserve(&allocator->mapping, offset + needed, allocator->path.c_str()))
    return nullptr;

  void_misfits(allocator);
  persistent_block_s* block = block_at(allocator, offset);
  std::memset(static_cast<void*>(block), 0, needed);  // may be the stale tail of a compacted file
  std::uint64_t& head = header->chain_heads[persistent_bucket_of(id)];
  const std::uint64_t next = persistent_is_block_offset(head, offset) ? head : 0;
  *block = {id, size, next, persistent_magic, needed};
  // In this order, so that a kill in between leaves a whole chain: a head beyond the used part would hide its bucket.
  std::atomic_ref(header->used_size).store(offset + needed, std::memory_order_release);
  std::atomic_ref(head).store(offset, std::memory_order_release);

  const std::uint64_t count = append_count.fetch_add(1, std::memory_order_relaxed) + 1;
  if (count % appends_per_flush == 0) sync_persistent_memory(&allocator->mapping);
  return block + 1;
}

// Requires the mutex.
void* find_or_append(persistent_malloc_s* allocator, std::uint64_t id, std::uint64_t size,
                     unsigned* old_size) {
  const std::uint64_t offset = find_block(allocator, id);
  if (offset == 0) return append_block(allocator, id, size);

  persistent_block_s* block = block_at(allocator, offset);
  *old_size = static_cast<unsigned>(block->requested_size);
  if (block->requested_size >= size) return block + 1;

  block->id = persistent_deleted_id;
  allocator->header->deleted_blocks += 1;
  allocator->header->deleted_bytes += block->block_size;
  void* data = append_block(allocator, id, size);
  if (data == nullptr) block->id = id;
  return data;
}

// What an opened file needs before its blocks can be used. Requires the file's lock. A file of our making may hold
// somebody else's blocks by the time it is locked.
bool repair_and_compact(mmap_handle_t* file, const char* path) {
  const auto* header = static_cast<const persistent_header_s*>(file->data);
  const bool fresh = !file->existed && header->magic != persistent_magic;
  if (!fresh && !persistent_file_recover(file, path)) return false;
  if (header->magic != persistent_magic)
    return persistent_file_discard_saved(path) && persistent_file_reset(file, path);
  if (!persistent_file_validate(*file)) return false;
  if (!persistent_file_reserve(file, header->used_size, path)) return false;
  return !persistent_file_wants_compaction(*header) || persistent_file_compact(file, path);
}

// Somebody else works in the file: looks only, so that their blocks do not move.
bool look_only(mmap_handle_t* file, const char* path) {
  return persistent_file_validate(*file) &&
         persistent_file_reserve(
             file, static_cast<const persistent_header_s*>(file->data)->used_size, path);
}

mmap_handle_t map_file(const char* path, unsigned size) {
  platform::file_status status = platform::status_of(path);
  if (status.regular && status.size == 0 && platform::remove_file(path) == 0) status = {};
  if (status.exists && status.size < persistent_smallest_file) {
    KORVEX_LOG("existing file size %llu is too small (min: %llu)\n",
               static_cast<unsigned long long>(status.size),
               static_cast<unsigned long long>(persistent_smallest_file));
    return {};
  }
  const std::uint64_t fresh_size = std::max<std::uint64_t>(size, persistent_smallest_file);
  const mmap_handle_t file =
      platform_mmap_file(path, status.exists ? status.size : fresh_size, true, true, status.exists);
  if (file.data == nullptr) KORVEX_LOG("Failed to map persistent memory file %s\n", path);
  return file;
}

bool prepare_blocks(mmap_handle_t* file, const char* path, bool locked) {
  try {
    return locked ? repair_and_compact(file, path) : look_only(file, path);
  } catch (
      const std::bad_alloc&) {  // of file names; what was begun is taken up by the next opening
    KORVEX_LOG("no memory to prepare %s\n", path);
    return false;
  }
}

enum class preparation { ready, failed, moved };

// Somebody may have removed or replaced the file before it was locked: then it is nobody's any more.
preparation prepare_file(mmap_handle_t* file, const char* path) {
  const bool locked = platform::lock_file(file->fd) == 0;
  if (!platform::is_file_at(file->fd, path)) {
    platform_munmap(file);
    return preparation::moved;
  }
  if (prepare_blocks(file, path, locked)) {
    if (locked) platform::unlock_file(file->fd);
    return preparation::ready;
  }
  if (locked && !file->existed)
    platform_munmap_and_remove(file, path);
  else
    platform_munmap(file);
  return preparation::failed;
}

bool open_file(persistent_malloc_s* allocator, const char* path, unsigned size) {
  constexpr int attempts = 10;
  allocator->path = path;
  mmap_handle_t file;
  preparation result = preparation::moved;
  for (int i = 0; i < attempts && result == preparation::moved; ++i) {
    file = map_file(path, size);
    if (file.data == nullptr) return false;
    result = prepare_file(&file, path);
  }
  if (result != preparation::ready) return false;
  allocator->mapping = file;
  allocator->base = file.data;
  allocator->header = static_cast<persistent_header_s*>(file.data);
  allocator->total = file.size;
  return true;
}

std::unique_ptr<persistent_malloc_s> new_record() {
  if (platform::fault_injected(platform::fault_point::heap)) return nullptr;
  return std::unique_ptr<persistent_malloc_s>(new (std::nothrow) persistent_malloc_s{});
}

persistent_malloc_s* open_allocator(const char* path, unsigned size) {
  std::unique_ptr<persistent_malloc_s> allocator = new_record();
  if (allocator == nullptr) {
    KORVEX_LOG("failed to allocate memory for persistent_malloc_t\n");
    return nullptr;
  }
  allocator->persistent = path != nullptr;
  mutex_create(&allocator->mutex);
  if (path != nullptr && !open_file(allocator.get(), path, size)) return nullptr;
  return allocator.release();
}

bool has_file(const persistent_malloc_s* allocator) {
  return allocator != nullptr && allocator->persistent;
}

}  // namespace

persistent_malloc_s* persistent_malloc_init(const char* path, unsigned size) {
  try {
    return open_allocator(path, size);
  } catch (const std::bad_alloc&) {  // a path's copy
    KORVEX_LOG("failed to allocate memory for persistent_malloc_t\n");
    return nullptr;
  }
}

void* persistent_malloc(persistent_malloc_s* allocator, long long id, unsigned long long size,
                        unsigned* old_size_out) {
  unsigned old_size = 0;
  void* data = nullptr;
  if (old_size_out != nullptr) *old_size_out = 0;
  if (allocator == nullptr || size == 0 || static_cast<std::uint64_t>(id) == persistent_deleted_id)
    return nullptr;
  if (!allocator->persistent) return heap_allocate(size);
  try {
    const mutex_guard guard(&allocator->mutex);
    data = find_or_append(allocator, static_cast<std::uint64_t>(id), size, &old_size);
  } catch (const std::bad_alloc&) {  // the list of places
    KORVEX_LOG("failed to allocate memory for persistent_malloc_t\n");
    return nullptr;
  }
  if (old_size_out != nullptr) *old_size_out = old_size;
  if (data == nullptr) KORVEX_LOG_CRITICAL("Failed to allocate memory: file size limit reached\n");
  return data;
}

void persistent_free(persistent_malloc_s* allocator, void* block) {
  if (allocator == nullptr || allocator->persistent || block == nullptr) return;
  heap_prefix* prefix = static_cast<heap_prefix*>(block) - 1;
  if (prefix->magic != persistent_magic) {
    KORVEX_LOG("Invalid memory pointer passed to free\n");
    return;
  }
  prefix->magic = 0;
  std::free(prefix);
}

void persistent_malloc_destroy(persistent_malloc_s* allocator) {
  if (allocator == nullptr) return;
  {
    const mutex_guard guard(&allocator->mutex);
    platform_munmap(&allocator->mapping);
  }
  mutex_delete(&allocator->mutex);
  delete allocator;
}

void persistent_malloc_destroy_and_remove(persistent_malloc_s* allocator) {
  if (has_file(allocator)) {
    const mutex_guard guard(&allocator->mutex);
    platform_munmap_and_remove(&allocator->mapping, allocator->path.c_str());
  }
  persistent_malloc_destroy(allocator);
}

std::uint64_t persistent_malloc_total_size(persistent_malloc_s* allocator) {
  if (!has_file(allocator)) return 0;
  const mutex_guard guard(&allocator->mutex);
  return allocator->header->total_size;
}

std::uint64_t persistent_malloc_used_size(persistent_malloc_s* allocator) {
  if (!has_file(allocator)) return 0;
  const mutex_guard guard(&allocator->mutex);
  return allocator->header->used_size;
}

int persistent_malloc_is_locked(persistent_malloc_s* allocator) {
  return has_file(allocator) ? static_cast<int>(allocator->mapping.locked) : 0;
}

int persistent_malloc_sync(persistent_malloc_s* allocator) {
  if (!has_file(allocator)) return 0;
  const mutex_guard guard(&allocator->mutex);
  return sync_persistent_memory(&allocator->mapping);
}

int persistent_malloc_lock(persistent_malloc_s* allocator) {
  if (!has_file(allocator)) return 0;
  const mutex_guard guard(&allocator->mutex);
  if (allocator->file_lock) return 0;
  const int fd = allocator->mapping.fd;
  if (platform::lock_file(fd) != 0) return -1;
  allocator->file_lock = platform::is_file_at(fd, allocator->path.c_str());
  if (!allocator->file_lock) platform::unlock_file(fd);
  return allocator->file_lock ? 0 : -1;
}

void persistent_malloc_unlock(persistent_malloc_s* allocator) {
  if (!has_file(allocator)) return;
  const mutex_guard guard(&allocator->mutex);
  if (allocator->file_lock) platform::unlock_file(allocator->mapping.fd);
  allocator->file_lock = false;
}

}  // namespace korvex
