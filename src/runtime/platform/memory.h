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
// Physical memory that new allocations may use: not above the limit of the control group.
std::uint64_t available_memory();

// Zeroed memory aligned to `align` (0: a page). Large pages are tried first when asked for. Null on failure.
// *mapped_bytes is the length to release.
void* map_anonymous(std::uint64_t size, std::uint64_t align, bool large_pages, std::uint64_t* mapped_bytes);
void unmap_anonymous(void* data, std::uint64_t mapped_bytes);

// A shared, writable view of a whole open file. *native holds what unmap_file needs. Null on failure, with the name
// of the call that failed in *failed_call and the system's error number in *error.
void* map_file(int fd, std::uint64_t size, bool read_only, void** native, const char** failed_call, long* error);
void unmap_file(void* data, std::uint64_t size, void* native);
// Writes the changed pages of a range to the file; sync_file puts them on the device. 0 or -1.
int flush_view(void* data, std::uint64_t size);

// Whether the process may keep `bytes` in memory; raises its own soft limit when that is allowed.
bool may_lock(std::uint64_t bytes);
int lock_pages(void* data, std::uint64_t size);
int unlock_pages(void* data, std::uint64_t size);

// Heap memory with a chosen alignment; released by aligned_free only.
void* aligned_malloc(std::size_t size, std::size_t align);
void aligned_free(void* data);

// Binding of memory to a node of a machine with several; numa_init is 0 when that works here, -1 otherwise.
int numa_init();
int numa_bind(void* data, std::uint64_t size, int node);

}  // namespace korvex::platform

#endif  // KORVEX_RUNTIME_PLATFORM_MEMORY_H
