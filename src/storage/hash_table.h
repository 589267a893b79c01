#ifndef KORVEX_STORAGE_HASH_TABLE_H
#define KORVEX_STORAGE_HASH_TABLE_H

#include <cstddef>
#include <cstdint>

#include "storage/vector_store.h"

namespace korvex {

// A table from non-zero 64-bit keys to zero-filled blocks of one size, held in a vector pool, so
// that a persistent pool brings it back with the order of last use.
// Threads     any number; a returned block may be recycled by a removal in another thread, so users
//             keep removals away from readers themselves.
// Ownership   the table owns its pool and all blocks.
// Lock order  stripe -> list; stripe -> free list; stripe -> pool.
struct pers_hash_table_s;

// Items in a block of the table's pool; part of the file names.
inline constexpr std::uint32_t pers_hash_items_per_block = 16384;

// An item of the pool; `data bytes` follow. Part of the file format, the three pointers apart:
// they are rebuilt whenever the table is opened.
struct pers_hash_entry_s {
  std::uint64_t key;       // 0: the item is free
  std::uint64_t last_use;  // microseconds since 1970
  std::uint32_t id;        // of the item in the pool
  std::uint32_t reserved;
  pers_hash_entry_s* chain_next;  // in the bucket; of a free item: in the list of spilled items
  pers_hash_entry_s* older;
  pers_hash_entry_s* newer;
};
static_assert(sizeof(pers_hash_entry_s) == 48 && offsetof(pers_hash_entry_s, chain_next) == 24,
              "the data begins at byte 48 of the stored item");

// Item 0 of the pool; `capacity` ids of free items follow. Part of the file format.
struct pers_hash_free_list_s {
  std::uint64_t reserved;  // zero
  std::uint32_t count;
  std::uint32_t capacity;
};
static_assert(sizeof(pers_hash_free_list_s) == 16, "the ids begin at byte 16 of the stored item");

// The items of a stored table, wherever they are.
struct pers_hash_items_s {
  const void* context;
  const void* (*item)(const void* context, std::uint32_t id);
  std::uint32_t count;  // item 0 included
};
// Whether the stored free list may be used: its capacity fits the data size, every id names an
// item other than 0 whose key is 0, and none occurs twice. Throws std::bad_alloc.
bool pers_hash_free_list_valid(const pers_hash_items_s& items, std::uint64_t data_size);

// Makes or reopens a table of blocks of data_size bytes (at least 32, rounded up to 8). `kind` is
// the pool's. A damaged free list is rebuilt. Null when memory or disk ran out.
pers_hash_table_s* pers_hash_table_init(std::uint64_t data_size, int kind,
                                        vectpool_conf_s* configuration);
// Releases the table and its pool. Null is allowed; no other call on it may be running.
void pers_hash_table_free(pers_hash_table_s* table);

// The block of the key, made (zero-filled) when absent, and now the one used last. Null for key 0,
// without a table or when no item can be had.
void* pers_hash_table_get(pers_hash_table_s* table, std::uint64_t key);
// 1, or 0 when the key is absent.
int pers_hash_table_remove(pers_hash_table_s* table, std::uint64_t key);
// Removes entries unused for more than age_seconds, oldest first, at most `limit` (0: no limit) of
// them. Age 0 removes nothing. The number removed.
std::uint32_t pers_hash_table_remove_old_entries(pers_hash_table_s* table,
                                                 std::uint32_t age_seconds, std::uint32_t limit);
// Removes the `count` entries that were used longest ago, whatever their age. The number removed.
std::uint32_t pers_hash_table_remove_oldest(pers_hash_table_s* table, std::uint32_t count);

std::uint32_t pers_hash_table_entry_count(const pers_hash_table_s* table);
// Calls `visit` for every entry, oldest first, under the list's lock: it must not call back.
void pers_hash_table_visit(pers_hash_table_s* table,
                           void (*visit)(void* context, std::uint64_t key, void* data),
                           void* context);

// Flushes the pool unless that happened fewer than min_interval seconds ago. 0.
int pers_hash_table_sync(pers_hash_table_s* table, unsigned min_interval);
// The same for every table of the process. 0.
int pers_hash_table_sync_all(unsigned min_interval);

}  // namespace korvex

#endif  // KORVEX_STORAGE_HASH_TABLE_H
