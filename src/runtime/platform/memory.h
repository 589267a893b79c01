#ifndef KORVEX_RUNTIME_PLATFORM_MEMORY_H
#define KORVEX_RUNTIME_PLATFORM_MEMORY_H

#include <cstddef>
#include <cstdint>

// Pages of memory and of files: what the system offers, without policy or messages.
namespace korvex::platform {

std::uint64_t page_size();
// Bytes of a large page, 0 when the system has none.
std::uint64_t large_page_size();
// Whether large pages can be had now (free pages, privilege).
bool large_pages_available();
// Bytes of physical memory for new allocations, not above what the control group leaves; 0 when
// unknown. Cached file pages that are not in use count as free.
std::uint64_t available_memory();

// Zeroed memory aligned to `align` (0: a page; else the next power of two). With large_pages the
// size is rounded up to large pages and ordinary ones serve when none is free. Null on failure.
// *mapped_bytes is the length to release.
void* map_anonymous(std::uint64_t size, std::uint64_t align, bool large_pages,
                    std::uint64_t* mapped_bytes);
void unmap_anonymous(void* data, std::uint64_t mapped_bytes);

// A shared view of the first `size` bytes of an open file, writable unless read_only; the file must
// be that long. *native holds what unmap_file needs. Null on failure, with the name of the call
// that failed in *failed_call (null when the descriptor is not one of a regular file) and the
// system's error number in *error.
void* map_file(int fd, std::uint64_t size, bool read_only, void** native, const char** failed_call,
               long* error);
void unmap_file(void* data, std::uint64_t size, void* native);
// Writes the changed pages of a range of a view to the file; sync_file puts the file's length and
// the rest on the device. The range need not start at a page. 0 or -1.
int flush_view(void* data, std::uint64_t size);

// Whether the process may keep `bytes` in memory; raises its own soft limit when that is allowed.
bool may_lock(std::uint64_t bytes);
// Whole pages: unlocking a range unlocks its neighbours on the same pages too. 0 or -1.
int lock_pages(void* data, std::uint64_t size);
int unlock_pages(void* data, std::uint64_t size);

// Heap memory aligned to `align` (the next power of two), not zeroed; released by aligned_free
// only. Null on failure.
void* aligned_malloc(std::size_t size, std::size_t align);
void aligned_free(void* data);

// Preferred node for the pages of a range that starts at a page: another node serves when that one
// is full. numa_init is 0 when that works here, -1 otherwise; numa_bind 0 or -1.
int numa_init();
int numa_bind(void* data, std::uint64_t size, int node);

}  // namespace korvex::platform

#endif  // KORVEX_RUNTIME_PLATFORM_MEMORY_H
