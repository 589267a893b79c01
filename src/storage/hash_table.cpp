#include "storage/hash_table.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <exception>
#include <memory>
#include <mutex>
#include <vector>

#include "runtime/log.h"
#include "runtime/platform/clock.h"

namespace korvex {

namespace {
constexpr std::uint32_t bucket_count = 1031;
constexpr std::uint32_t stripe_count = 64;
constexpr std::uint64_t min_data_size = 32;
constexpr std::uint64_t max_data_size = std::uint64_t{1} << 30;
constexpr std::uint64_t whatever_age = ~std::uint64_t{0};
}  // namespace

struct pers_hash_table_s {
  std::uint64_t data_size = 0;
  std::unique_ptr<vectpool_c> pool;
  std::atomic<std::uint32_t> entry_count{0};

  std::mutex stripes[stripe_count];               // bucket b: stripe b % 64
  pers_hash_entry_s* buckets[bucket_count] = {};  // each with its chain: its stripe

  // Times and keys of listed entries change under both their stripe and this lock.
  std::mutex list_lock;
  pers_hash_entry_s* oldest = nullptr;
  pers_hash_entry_s* newest = nullptr;

  std::mutex free_lock;
  pers_hash_free_list_s* free_list = nullptr;
  pers_hash_entry_s* spilled = nullptr;  // free items that the list has no room for

  // Guarded by the registry's lock.
  pers_hash_table_s* next_table = nullptr;
};

namespace {

using table_s = pers_hash_table_s;
using entry_s = pers_hash_entry_s;

std::mutex registry_lock;
table_s* first_table = nullptr;

std::uint32_t bucket_of(std::uint64_t key) {
  return static_cast<std::uint32_t>(key % bucket_count);
}
std::mutex& stripe_of(table_s* table, std::uint64_t key) {
  return table->stripes[bucket_of(key) % stripe_count];
}
void* data_of(entry_s* entry) {
  return entry + 1;
}
std::uint32_t* ids_of(pers_hash_free_list_s* list) {
  return reinterpret_cast<std::uint32_t*>(list + 1);
}
std::uint32_t free_capacity(std::uint64_t data_size) {
  return static_cast<std::uint32_t>((data_size - sizeof(pers_hash_free_list_s)) / 4);
}

// ---- the list of last use; the caller holds the list lock ----

void append_newest(table_s* table, entry_s* entry) {
  entry->older = table->newest;
  entry->newer = nullptr;
  (table->newest != nullptr ? table->newest->newer : table->oldest) = entry;
  table->newest = entry;
}

void unlink_from_list(table_s* table, entry_s* entry) {
  (entry->older != nullptr ? entry->older->newer : table->oldest) = entry->newer;
  (entry->newer != nullptr ? entry->newer->older : table->newest) = entry->older;
}

// ---- free items; each call takes the free lock ----

entry_s* take_free_item(table_s* table) {
  const std::lock_guard lock(table->free_lock);
  pers_hash_free_list_s* list = table->free_list;
  if (list->count > 0) {
    const std::uint32_t id = ids_of(list)[--list->count];
    return static_cast<entry_s*>(table->pool->get(id));
  }
  entry_s* entry = table->spilled;
  if (entry != nullptr) table->spilled = entry->chain_next;
  return entry;
}

// What the stored list cannot hold stays in memory and is found again at the next opening by its
// zero key: without this, removals beyond the list's room would grow the pool for ever.
void give_back_item(table_s* table, entry_s* entry) {
  const std::lock_guard lock(table->free_lock);
  pers_hash_free_list_s* list = table->free_list;
  if (list->count < list->capacity) {
    ids_of(list)[list->count] = entry->id;
    ++list->count;
    return;
  }
  entry->chain_next = table->spilled;
  table->spilled = entry;
}

// ---- entries; the caller holds the stripe of the key ----

entry_s* make_entry(table_s* table, std::uint64_t key) {
  entry_s* entry = take_free_item(table);
  unsigned id = 0;
  if (entry != nullptr) {
    id = entry->id;
  } else {
    entry = static_cast<entry_s*>(table->pool->alloc(&id, 1));
  }
  if (entry == nullptr) return nullptr;
  std::memset(data_of(entry), 0, table->data_size);
  entry->id = id;
  entry->reserved = 0;
  entry_s*& head = table->buckets[bucket_of(key)];
  entry->chain_next = head;
  head = entry;
  table->entry_count.fetch_add(1, std::memory_order_relaxed);

  const std::lock_guard lock(table->list_lock);
  entry->last_use = platform::time_usec();
  entry->key = key;
  append_newest(table, entry);
  return entry;
}

void touch(table_s* table, entry_s* entry) {
  const std::lock_guard lock(table->list_lock);
  entry->last_use = platform::time_usec();
  if (table->newest == entry) return;
  unlink_from_list(table, entry);
  append_newest(table, entry);
}

bool used_since(const entry_s* entry, std::uint64_t time) {
  return time != whatever_age && entry->last_use >= time;
}

// Takes an entry out of its chain and the list, unless it is newer than asked for.
bool unlink_entry(table_s* table, entry_s** link, std::uint64_t not_used_since) {
  entry_s* entry = *link;
  {
    const std::lock_guard lock(table->list_lock);
    if (used_since(entry, not_used_since)) return false;
    entry->key = 0;
    unlink_from_list(table, entry);
  }
  *link = entry->chain_next;
  table->entry_count.fetch_sub(1, std::memory_order_relaxed);
  return true;
}

// Removes the first entry of the key's bucket that `wanted` accepts.
template <class Wanted>
bool remove_from_bucket(table_s* table, std::uint64_t key, std::uint64_t not_used_since,
                        Wanted wanted) {
  entry_s* entry = nullptr;
  {
    const std::lock_guard lock(stripe_of(table, key));
    entry_s** link = &table->buckets[bucket_of(key)];
    while (*link != nullptr && !wanted(*link)) link = &(*link)->chain_next;
    entry = *link;
    if (entry == nullptr || !unlink_entry(table, link, not_used_since)) return false;
  }
  give_back_item(table, entry);
  return true;
}

// Removes from the old end. The list lock is dropped before the stripe is taken (the order is
// stripe before list), so the entry is looked for again by its address: another thread may have
// removed or used it meanwhile, and damaged files may hold a key twice.
std::uint32_t remove_oldest_while(table_s* table, std::uint64_t not_used_since,
                                  std::uint32_t limit) {
  std::uint32_t removed = 0;
  while (limit == 0 || removed < limit) {
    entry_s* oldest = nullptr;
    std::uint64_t key = 0;
    {
      const std::lock_guard lock(table->list_lock);
      oldest = table->oldest;
      if (oldest == nullptr || used_since(oldest, not_used_since)) break;
      key = oldest->key;
    }
    const auto is_oldest = [oldest](const entry_s* entry) { return entry == oldest; };
    removed += remove_from_bucket(table, key, not_used_since, is_oldest) ? 1 : 0;
  }
  return removed;
}

// ---- opening ----

bool make_free_list(table_s* table) {
  unsigned id = 0;
  if (table->pool->size() == 0 && table->pool->alloc(&id, 1) == nullptr) return false;
  table->free_list = static_cast<pers_hash_free_list_s*>(table->pool->get(0));
  *table->free_list = {0, 0, free_capacity(table->data_size)};
  return true;
}

void link_restored(table_s* table, std::vector<entry_s*>& used) {
  for (entry_s* entry : used) {
    entry_s*& head = table->buckets[bucket_of(entry->key)];
    entry->chain_next = head;
    head = entry;
  }
  std::stable_sort(used.begin(), used.end(),
                   [](const entry_s* a, const entry_s* b) { return a->last_use < b->last_use; });
  for (entry_s* entry : used) append_newest(table, entry);
  table->entry_count.store(static_cast<std::uint32_t>(used.size()), std::memory_order_relaxed);
}

// Free items that the list does not name: it had no room, or the process was killed in between.
void spill_unlisted(table_s* table, std::uint32_t items) {
  std::vector<bool> listed(items);
  const std::uint32_t* ids = ids_of(table->free_list);
  for (std::uint32_t i = 0; i < table->free_list->count; ++i) listed[ids[i]] = true;
  for (std::uint32_t id = 1; id < items; ++id) {
    auto* entry = static_cast<entry_s*>(table->pool->get(id));
    if (entry->id != id) entry->id = id;  // no write: the page may stay clean
    if (entry->key != 0 || listed[id]) continue;
    entry->chain_next = table->spilled;
    table->spilled = entry;
  }
}

bool restore(table_s* table) {
  const std::uint32_t items = table->pool->size();
  const auto item = [](const void* pool, std::uint32_t id) -> const void* {
    return static_cast<const vectpool_c*>(pool)->get(id);
  };
  table->free_list = static_cast<pers_hash_free_list_s*>(table->pool->get(0));
  if (!pers_hash_free_list_valid({table->pool.get(), item, items}, table->data_size)) {
    KORVEX_LOG("hash table free list is damaged and is rebuilt\n");
    if (!make_free_list(table)) return false;
  }
  spill_unlisted(table, items);
  std::vector<entry_s*> used;
  for (std::uint32_t id = 1; id < items; ++id) {
    auto* entry = static_cast<entry_s*>(table->pool->get(id));
    if (entry->key != 0) used.push_back(entry);
  }
  link_restored(table, used);
  return true;
}

std::unique_ptr<table_s> open_table(std::uint64_t data_size, int kind,
                                    vectpool_conf_s* configuration) {
  auto table = std::make_unique<table_s>();
  table->data_size = data_size;
  const std::uint64_t item_size = data_size + sizeof(entry_s);
  table->pool =
      std::make_unique<vectpool_c>(static_cast<unsigned>(item_size),
                                   item_size * pers_hash_items_per_block, 64, kind, configuration);
  const bool opened = table->pool->size() == 0 ? make_free_list(table.get()) : restore(table.get());
  return opened ? std::move(table) : nullptr;
}

void register_table(table_s* table) {
  const std::lock_guard lock(registry_lock);
  table->next_table = first_table;
  first_table = table;
}

void unregister_table(table_s* table) {
  const std::lock_guard lock(registry_lock);
  table_s** link = &first_table;
  while (*link != table) link = &(*link)->next_table;
  *link = table->next_table;
}

}  // namespace

bool pers_hash_free_list_valid(const pers_hash_items_s& items, std::uint64_t data_size) {
  if (items.count == 0 || data_size < min_data_size) return false;
  const auto* list = static_cast<const pers_hash_free_list_s*>(items.item(items.context, 0));
  if (list->capacity != free_capacity(data_size) || list->count > list->capacity) return false;
  const auto* ids = reinterpret_cast<const std::uint32_t*>(list + 1);
  std::vector<std::uint32_t> seen(ids, ids + list->count);
  for (const std::uint32_t id : seen) {
    if (id == 0 || id >= items.count) return false;
    if (static_cast<const entry_s*>(items.item(items.context, id))->key != 0) return false;
  }
  std::sort(seen.begin(), seen.end());
  return std::adjacent_find(seen.begin(), seen.end()) == seen.end();
}

pers_hash_table_s* pers_hash_table_init(std::uint64_t data_size, int kind,
                                        vectpool_conf_s* configuration) {
  if (data_size > max_data_size) return nullptr;
  // Rounded up so that the entries of a block stay aligned.
  const std::uint64_t rounded = (std::max(data_size, min_data_size) + 7) / 8 * 8;
  try {
    std::unique_ptr<table_s> table = open_table(rounded, kind, configuration);
    if (table != nullptr) {
      register_table(table.get());
      return table.release();
    }
  } catch (const std::exception&) {
  }
  KORVEX_LOG_CRITICAL("creating hash table failed\n");
  return nullptr;
}

void pers_hash_table_free(pers_hash_table_s* table) {
  if (table == nullptr) return;
  unregister_table(table);
  delete table;
}

void* pers_hash_table_get(pers_hash_table_s* table, std::uint64_t key) {
  if (table == nullptr || key == 0) return nullptr;
  const std::lock_guard lock(stripe_of(table, key));
  entry_s* entry = table->buckets[bucket_of(key)];
  while (entry != nullptr && entry->key != key) entry = entry->chain_next;
  if (entry != nullptr) {
    touch(table, entry);
  } else {
    entry = make_entry(table, key);
  }
  return entry != nullptr ? data_of(entry) : nullptr;
}

int pers_hash_table_remove(pers_hash_table_s* table, std::uint64_t key) {
  if (table == nullptr || key == 0) return 0;
  const auto has_key = [key](const entry_s* entry) { return entry->key == key; };
  return remove_from_bucket(table, key, whatever_age, has_key) ? 1 : 0;
}

std::uint32_t pers_hash_table_remove_old_entries(pers_hash_table_s* table,
                                                 std::uint32_t age_seconds, std::uint32_t limit) {
  if (table == nullptr || age_seconds == 0) return 0;
  const std::uint64_t now = platform::time_usec();
  const std::uint64_t age = std::uint64_t{age_seconds} * 1000000;
  return age < now ? remove_oldest_while(table, now - age, limit) : 0;
}

std::uint32_t pers_hash_table_remove_oldest(pers_hash_table_s* table, std::uint32_t count) {
  return table == nullptr || count == 0 ? 0 : remove_oldest_while(table, whatever_age, count);
}

std::uint32_t pers_hash_table_entry_count(const pers_hash_table_s* table) {
  return table == nullptr ? 0 : table->entry_count.load(std::memory_order_relaxed);
}

void pers_hash_table_visit(pers_hash_table_s* table,
                           void (*visit)(void* context, std::uint64_t key, void* data),
                           void* context) {
  if (table == nullptr) return;
  const std::lock_guard lock(table->list_lock);
  for (entry_s* entry = table->oldest; entry != nullptr; entry = entry->newer)
    visit(context, entry->key, data_of(entry));
}

int pers_hash_table_sync(pers_hash_table_s* table, unsigned min_interval) {
  return table == nullptr ? 0 : table->pool->sync(min_interval);
}

int pers_hash_table_sync_all(unsigned min_interval) {
  const std::lock_guard lock(registry_lock);
  for (table_s* table = first_table; table != nullptr; table = table->next_table)
    pers_hash_table_sync(table, min_interval);
  return 0;
}

}  // namespace korvex
