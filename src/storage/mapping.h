#ifndef KORVEX_STORAGE_MAPPING_H
#define KORVEX_STORAGE_MAPPING_H

#include <cstddef>
#include <cstdint>

namespace korvex {

// One mapping: a whole file, shared and writable, or anonymous memory.
// Threads     the operations may run at once on different records; one record belongs to one thread
//             at a time.
// Ownership   of whoever asked for it; released by platform_munmap. A record may be copied, but only
//             one copy counts.
// Invariant   data is null exactly when the mapping failed or was released; fd is -1 then, and for
//             anonymous memory.
struct mmap_handle_t {
  void* data = nullptr;
  std::uint64_t size = 0;  // mapped length in bytes
  std::int32_t fd = -1;
  std::uint32_t locked = 0;  // the pages are locked in memory
  std::uint8_t file_backed = 0;
  std::uint32_t existed = 0;  // an existing file was opened, none was made
  std::uint32_t anonymous = 0;
  std::uint64_t last_sync = 0;      // time_usec() of the last flush
  std::uint32_t flush_refused = 0;  // by the device, once or more
  void* mapping_handle = nullptr;

  // For platform_munmap and mapping_reserve only.
  std::uint64_t mapped_bytes = 0;    // what the system handed out for anonymous memory
  std::uint64_t reserved_bytes = 0;  // length from the start for which the file has room on disk
  std::uint32_t heap_fallback = 0;   // data came from the heap
};

// Maps all of a file. An existing one keeps its length, which becomes the record's size; an empty one
// is replaced. An absent one is made with `size` bytes, which read as zeros and take no room on disk
// beyond a first unit of mapping_reserve.
// open_existing  never creates anything, and fails when the file is missing or shorter than `size`,
//                both silently.
// lock           keeps the pages in memory when the process may; the mapping is made all the same.
// huge           has no effect on files.
// Failure: data is null, nothing stays open, a file that was made is removed again, and one line was
// logged.
mmap_handle_t platform_mmap_file(const char* path, unsigned long long size, bool huge, bool lock,
                                 bool open_existing);

// Zeroed memory, at least aligned to `align` (0: a page). `huge` rounds the size up to whole large
// pages and tries to get them. heap_fallback takes the memory from the heap when the system refuses
// a mapping. Failure: data is null; nothing is logged.
mmap_handle_t platform_mmap_anon(unsigned long long size, unsigned long long align, bool huge,
                                 bool lock, bool heap_fallback);

// Flushes a file to its device, then releases the mapping and empties the record. Null and released
// records are left alone.
void platform_munmap(mmap_handle_t* mapping);

// The same, and removes the file at that path, unless another one stands there by now, while whoever holds its lock
// still holds it.
void platform_munmap_and_remove(mmap_handle_t* mapping, const char* path);

// Puts everything written into a file mapping on the device; other records are left alone. 0, or -1
// when the device refused, now or earlier: a system may take what it could not write for written.
int sync_persistent_memory(mmap_handle_t* mapping);

// Makes sure that the first upto_bytes of a file mapping have room on disk, so that touching them
// cannot fault on a full disk. Call it before bytes are handed out to be written, also after opening an
// existing file: a copy of it may have holes. Room is taken in whole units of 2 MiB (or to the end of the
// file), ahead of what is asked for by a quarter and never by more than 16 MiB; a call that finds the room
// there costs one comparison. Anonymous memory needs nothing.
// 0, or -1 with errno set when the disk is full or upto_bytes is beyond the mapping; nothing is logged.
int mapping_reserve(mmap_handle_t* mapping, unsigned long long upto_bytes);
// The room that a file has taken once its records have grown to `bytes` one after another.
unsigned long long mapping_room_of(unsigned long long bytes);

// 1 when large pages can be had now. Explains once in a process how to get them when they cannot:
// ask only for someone who wants them.
int check_hugetlb_available();

// 1 when the process may lock that many bytes. Explains how to get the right whenever a new largest
// size was refused.
int set_memory_lock_limits(unsigned long long bytes);
int lock_memory(void* data, std::size_t size);    // 0 or -1
int unlock_memory(void* data, std::size_t size);  // 0 or -1

// These have nothing to do and answer 0.
int get_memory_lock_limits();
int set_memory_advice(void* data, std::size_t size);

// Placement of memory on a node of a machine that has several. init and is_available answer 0 when
// that works here and -1 when not; the first init that fails says so once.
int dyn_numa_init();
int dyn_numa_is_available();
void dyn_numa_helper(void* data, std::size_t size, int node);
void dyn_numa_cleanup();

}  // namespace korvex

#endif  // KORVEX_STORAGE_MAPPING_H
