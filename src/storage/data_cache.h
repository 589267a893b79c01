#ifndef KORVEX_STORAGE_DATA_CACHE_H
#define KORVEX_STORAGE_DATA_CACHE_H

#include <cstdint>

namespace korvex {

// Any value but pin works as copy.
enum data_cache_mode_t : std::uint32_t { data_cache_pin = 1, data_cache_copy = 2 };

// Copies that a thread may use at once.
inline constexpr std::uint32_t data_cache_copies = 16;

// A bounded cache of fixed-size blocks by id that forgets the least recently used one; with 4,096
// entries and more, one of those that were not used for long. In pin mode it copies nothing: it
// keeps the caller's memory for each id from being paged out.
// Threads     every operation may be called from any thread; init and destroy are alone.
// Ownership   copies belong to the cache; pinned memory stays the caller's and must outlive the
//             cache's clear or destroy.
// Ids         0 is never cached.
struct data_cache_s;

// Null when an argument is 0, an entry is too large for a pool, or memory fails.
data_cache_s* data_cache_init(std::uint64_t entry_size, std::uint32_t max_entries,
                              std::uint32_t mode);
// Unpins and releases everything; null is allowed.
void data_cache_destroy(data_cache_s* cache);
// A lower limit evicts nothing by itself. 0 is ignored.
void data_cache_set_max_entries(data_cache_s* cache, std::uint32_t max_entries);

// The cached data, now the newest; null when absent and always in pin mode. The pointer is good
// until anyone adds or removes: beside other threads use data_cache_get_copy.
void* data_cache_get(data_cache_s* cache, std::uint32_t id);
// As data_cache_get, but a 64-byte-aligned copy in the calling thread's memory, good until the
// thread's data_cache_copies-th call from now, on any cache. Also null when memory fails.
void* data_cache_get_copy(data_cache_s* cache, std::uint32_t id);

// Caches the data, or pins entry-size bytes at it. 1 when that is done or was done before. Pinning
// also counts as done when the system refuses, so that it is not tried again and again; it ends,
// with 0, at max entries, when the set of pinned ids is three quarters full, or when 16,384 ranges are
// pinned in the process: each one is a mapping of its own to the system, which has room for 65,530.
int data_cache_add(data_cache_s* cache, std::uint32_t id, void* data);
// 1 removed, 0 not found. Pinned memory is only released by clear and destroy: the system pins
// whole pages, and neighbours share them.
int data_cache_remove(data_cache_s* cache, std::uint32_t id);
void data_cache_clear(data_cache_s* cache);

// Any pointer may be null. Pins are not entries.
void data_cache_stats(data_cache_s* cache, std::uint32_t* entries, std::uint32_t* max_entries,
                      std::uint32_t* highest_id);

}  // namespace korvex

#endif  // KORVEX_STORAGE_DATA_CACHE_H
