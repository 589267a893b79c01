#ifndef KORVEX_STORAGE_PERSISTENT_ALLOCATOR_H
#define KORVEX_STORAGE_PERSISTENT_ALLOCATOR_H

#include <pthread.h>

#include <cstdint>
#include <string>

#include "storage/mapping.h"
#include "storage/persistent_allocator_format.h"

namespace korvex {

// Blocks of memory under 64-bit ids inside one mapped file: whoever asks for an id again after a restart gets the same
// bytes back. Without a file it hands out heap memory through the same functions, and the ids mean nothing.
// Threads     every function may be called from any thread; the bytes of a block are their user's to guard.
// Ownership   blocks of a file belong to the allocator and stay valid until persistent_malloc_destroy; heap blocks
//             belong to whoever asked and are released by persistent_free.
// Invariant   a block never moves while the file is open. One that is too small is marked deleted and replaced; the
//             room comes back when the file is next opened.
struct persistent_malloc_s {
  void* base = nullptr;
  persistent_header_s* header = nullptr;  // the same address
  std::uint8_t persistent = 0;            // a file name was given
  mmap_handle_t mapping;
  std::uint64_t total = 0;  // bytes of the mapping
  // Guards the header, chains and block headers of the file, `mapping`, `file_lock` and `places`.
  pthread_mutex_t mutex{};
  persistent_block_places places;
  bool file_lock = false;  // this allocator keeps others out
  std::string path;
};

// Opens the file, or makes it with `size` bytes (at least persistent_smallest_file): the length never
// changes again. A file that does not begin with the magic is reset to empty. More than a fifth of
// deleted bytes is compacted away. A null path gives an allocator on the heap.
// Null, with lines that say why, when the file cannot be used; a file that somebody else has locked is
// opened but not changed.
persistent_malloc_s* persistent_malloc_init(const char* path, unsigned size);

// The block of that id, 16-byte aligned. An existing one comes back as it was left when it is large
// enough; otherwise it is replaced by a fresh one, and so is an id whose chain is damaged. Fresh blocks
// are zeroed.
// *old_size_out (may be null) is the size that an existing block was asked for with (low 32 bits), 0
// for none.
// Null when the allocator is null, size is 0, the id is -1 (it marks deleted blocks), or there is no
// room in the file or on the disk.
void* persistent_malloc(persistent_malloc_s* allocator, long long id, unsigned long long size,
                        unsigned* old_size_out);

// Releases a heap block; null is ignored, and so are all blocks of a file.
void persistent_free(persistent_malloc_s* allocator, void* block);

// Flushes, unmaps and forgets; the file stays, and its lock goes last. Heap blocks stay too.
void persistent_malloc_destroy(persistent_malloc_s* allocator);
// The same, and removes the file before its lock goes.
void persistent_malloc_destroy_and_remove(persistent_malloc_s* allocator);

// 0 without a file.
std::uint64_t persistent_malloc_total_size(persistent_malloc_s* allocator);
std::uint64_t persistent_malloc_used_size(persistent_malloc_s* allocator);
int persistent_malloc_is_locked(persistent_malloc_s* allocator);  // its pages are locked in memory

// Puts the file on its device. 0, or -1 when the device refused, now or since the opening.
int persistent_malloc_sync(persistent_malloc_s* allocator);

// Keeps other users of the file out, in this process and others, until unlocked or destroyed. 0, or -1
// when somebody else holds it or the file is no longer where it was opened. One lock, not counted. 0 without a file.
int persistent_malloc_lock(persistent_malloc_s* allocator);
void persistent_malloc_unlock(persistent_malloc_s* allocator);

}  // namespace korvex

#endif  // KORVEX_STORAGE_PERSISTENT_ALLOCATOR_H
