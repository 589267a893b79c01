#ifndef KORVEX_SEARCH_RESULT_CACHE_H
#define KORVEX_SEARCH_RESULT_CACHE_H

#include <cstddef>
#include <cstdint>

#include "storage/vector_store.h"

namespace korvex {

// What the last walk found for a query and a partition, one cache for all indexes of the process.
// It stands on the storage layer alone, so that insertion may tell it that its answers are old.
// Threads     every function may run beside every other.
// Identity    the partition word must tell indexes apart; ids come back as they were stored, and
//             the caller checks them against its store.

inline constexpr std::uint32_t cache_max_ids = 220;

// An entry as it stands in the table's block. Part of the file format.
struct cache_entry_s {
  std::uint16_t lock;  // 1 while a thread reads or writes the entry
  std::uint16_t ef;    // of the walk
  std::uint16_t count;
  std::uint16_t reserved[3];
  std::uint32_t walk_usec;
  std::uint64_t stored_at;  // microseconds since 1970
  std::uint64_t exact_key;
  std::uint64_t near_key;
  std::uint32_t ids[cache_max_ids];
};
static_assert(sizeof(cache_entry_s) == 920 && offsetof(cache_entry_s, walk_usec) == 12 &&
                  offsetof(cache_entry_s, ids) == 40,
              "entries are stored as they stand");

// What a component counts as in a key: its whole part, or its 32 bits. With whole parts all
// queries whose components lie in (-1, 1) are one query.
enum class cache_key_mode : std::uint32_t { whole_parts = 1, exact_bits = 2 };

struct cache_keys_s {
  std::uint64_t exact;  // the same query
  std::uint64_t near;   // components may differ in their lowest bit
  std::uint64_t table;  // chooses the entry: components are coarsened by their size
};

// The caller's buffer and what a lookup fills in.
struct cache_results_s {
  std::uint32_t* ids = nullptr;
  std::uint32_t capacity = 0;      // of ids; 0: the capacity given with the call counts alone
  std::uint32_t walk_usec = 0;     // of the walk that found the ids
  std::uint32_t ef_and_count = 0;  // its ef in the high 16 bits, ids copied in the low 16
};

// 0, or -1 when memory ran out (above 4,095 dimensions only).
int cache_vector_to_key(const float* vector, std::uint32_t dimension, std::uint32_t partition,
                        cache_keys_s* keys, cache_key_mode mode = cache_key_mode::whole_parts);

// Whether a stored entry may be answered from: it is not empty or half written, its count fits and
// it was not stored after `now` (a clock that was set back would keep it fresh for ever).
bool cache_entry_valid(const cache_entry_s& entry, std::uint64_t now);

// Makes the cache, or opens the one in the configuration's directory; nothing when there is one
// already. `kind` is the pool's. On failure there is no cache.
void cache_search_init(int kind, vectpool_conf_s* configuration);
// Closes the cache for every index of the process; the next cache_search_init makes it again.
void cache_search_destroy();

// Everything stored so far is old from now on.
void cache_search_invalidate();

// The cache's clock: microseconds since 1970, but no two calls or stores have the same value.
// Taken before a walk it tells cache_search_results_set whether an invalidation came in between.
std::uint64_t cache_search_time();
inline constexpr std::uint64_t cache_walk_start_unknown = ~std::uint64_t{0};

// 0: the ids answer the query. 1: they are those of a near query, 2: they are old, of a narrower
// walk, of another query or cut off (ef above 220); both are good as seeds. -1: nothing known, or
// the entry was busy for a second.
int cache_search_results_get(const float* query, std::uint32_t dimension, std::uint16_t ef,
                             std::uint32_t partition, cache_results_s* result,
                             std::uint32_t capacity,
                             cache_key_mode mode = cache_key_mode::whole_parts);

// Stores what a walk found; ids beyond 220 are left out. 0 also when a wider walk that is still
// fresh keeps the entry or an invalidation came after walk_start. -1 without a cache or when the
// entry was busy for a second. Keeps the cache at about 65,536 entries.
int cache_search_results_set(const float* query, std::uint32_t dimension, std::uint16_t ef,
                             std::uint32_t partition, std::uint32_t walk_usec,
                             const std::uint32_t* ids, std::uint32_t count,
                             std::uint64_t walk_start = cache_walk_start_unknown,
                             cache_key_mode mode = cache_key_mode::whole_parts);

}  // namespace korvex

#endif  // KORVEX_SEARCH_RESULT_CACHE_H
