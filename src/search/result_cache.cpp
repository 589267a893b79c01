#include "search/result_cache.h"

#include <xxhash.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>

#include "runtime/platform/clock.h"
#include "runtime/read_write_mutex.h"
#include "storage/hash_table.h"

namespace korvex {
namespace {

constexpr std::uint64_t control_key = 1;
constexpr std::uint32_t most_entries = 65536;
constexpr std::uint32_t trim_batch = 1024;
constexpr std::uint32_t trim_age_seconds = 60;
constexpr std::uint32_t stack_words = 4096;
constexpr std::uint64_t lock_patience_usec = 1000000;

// The block of the control key. Part of the file format, the table apart: a stored address means
// nothing.
struct cache_control_s {
  pers_hash_table_s* table;
  std::uint64_t invalidated_at;  // microseconds since 1970
};
static_assert(sizeof(cache_control_s) == 16, "stored as it stands");

// ---- who may touch the cache ----
// Lookups, stores and invalidations hold the door shared; whatever takes entries away holds it
// alone. Shared holders could follow one another without a gap for ever, so they queue at the
// turnstile while somebody wants the door alone.

read_write_mutex door;
std::mutex turnstile;
std::atomic<int> waiting_alone{0};
cache_control_s* control = nullptr;  // null: no cache

class shared_door {
 public:
  shared_door() {
    if (waiting_alone.load(std::memory_order_relaxed) > 0) {
      const std::lock_guard wait_in_line(turnstile);
    }
    door.lock_shared();
  }
  ~shared_door() { door.unlock_shared(); }
  shared_door(const shared_door&) = delete;
  shared_door& operator=(const shared_door&) = delete;
};

class lone_door {
 public:
  lone_door() {
    waiting_alone.fetch_add(1, std::memory_order_relaxed);
    turnstile.lock();
    door.lock();
  }
  ~lone_door() {
    door.unlock();
    turnstile.unlock();
    waiting_alone.fetch_sub(1, std::memory_order_relaxed);
  }
  lone_door(const lone_door&) = delete;
  lone_door& operator=(const lone_door&) = delete;
};

std::uint64_t invalidated_at() {
  return std::atomic_ref(control->invalidated_at).load(std::memory_order_acquire);
}

// ---- keys ----

// Toward zero, the low 32 bits. Not a number, infinite or beyond 2^63: 0, which is also what the
// low bits of every float from 2^55 on are.
std::uint32_t whole_part(float component) {
  constexpr float limit = 9223372036854775808.0F;
  if (!(component > -limit && component < limit)) return 0;
  return static_cast<std::uint32_t>(static_cast<std::int64_t>(component));
}

std::uint32_t coarsened(std::uint32_t word) {
  if (word < 16) return word & ~1U;
  if (word < 32) return word & ~3U;
  if (word < 64) return word & ~7U;
  if (word < 256) return word & ~15U;
  return word & ~31U;
}

void fill_words(const float* vector, std::uint32_t dimension, cache_key_mode mode,
                std::uint32_t* words) {
  if (mode == cache_key_mode::exact_bits) {
    std::memcpy(words, vector, std::size_t{dimension} * 4);
    return;
  }
  for (std::uint32_t i = 0; i < dimension; ++i) words[i] = whole_part(vector[i]);
}

cache_keys_s keys_of_words(std::uint32_t* words, std::uint32_t dimension, cache_key_mode mode) {
  const std::size_t bytes = (std::size_t{dimension} + 1) * 4;
  // Another seed: bits of floats must never stand for whole parts.
  const std::uint64_t seed = mode == cache_key_mode::exact_bits ? 2 : 0;
  cache_keys_s keys;
  keys.exact = XXH64(words, bytes, seed);
  for (std::uint32_t i = 0; i < dimension; ++i) words[i] &= ~1U;
  keys.near = XXH64(words, bytes, seed);
  for (std::uint32_t i = 0; i < dimension; ++i) words[i] = coarsened(words[i]);
  keys.table = XXH64(words, bytes, seed);
  return keys;
}

// ---- entries ----

// Strictly increasing, so that of a store and an invalidation one is always the later.
std::uint64_t next_stamp() {
  static std::atomic<std::uint64_t> last{0};
  std::uint64_t before = last.load(std::memory_order_relaxed);
  std::uint64_t stamp = 0;
  do {
    stamp = std::max(platform::time_usec(), before + 1);
  } while (!last.compare_exchange_weak(before, stamp, std::memory_order_acq_rel));
  return stamp;
}

void mark_invalidated() {
  const std::uint64_t now = next_stamp();
  std::atomic_ref<std::uint64_t> word(control->invalidated_at);
  std::uint64_t before = word.load(std::memory_order_relaxed);
  // Never backward: two invalidations may pass one another here.
  while (before < now && !word.compare_exchange_weak(before, now, std::memory_order_acq_rel)) {
  }
}

bool lock_entry(cache_entry_s* entry) {
  std::uint64_t first_try_ns = 0;
  for (std::uint64_t pause_usec = 100;; pause_usec += pause_usec <= 999 ? 100 : 0) {
    std::uint16_t expected = 0;
    if (std::atomic_ref(entry->lock)
            .compare_exchange_strong(expected, 1, std::memory_order_acquire))
      return true;
    const std::uint64_t now_ns = platform::monotonic_ns();
    if (first_try_ns == 0) first_try_ns = now_ns;
    if (now_ns - first_try_ns >= lock_patience_usec * 1000) return false;
    platform::sleep_usec(pause_usec);
  }
}

void unlock_entry(cache_entry_s* entry) {
  std::atomic_ref(entry->lock).store(0, std::memory_order_release);
}

std::uint16_t load_count(cache_entry_s* entry) {
  return std::atomic_ref(entry->count).load(std::memory_order_relaxed);
}
void store_count(cache_entry_s* entry, std::uint32_t count) {
  std::atomic_ref(entry->count).store(static_cast<std::uint16_t>(count), std::memory_order_relaxed);
}

cache_entry_s* entry_for(const cache_keys_s& keys) {
  // 0 is no key and 1 is the control record's.
  const std::uint64_t key = keys.table <= control_key ? control_key + 1 : keys.table;
  return static_cast<cache_entry_s*>(pers_hash_table_get(control->table, key));
}

// What a lookup takes out of a locked entry.
struct entry_head {
  std::uint16_t ef;
  std::uint64_t stored_at, exact_key, near_key;
};

// Copies the entry to the caller. False when it is empty or busy.
bool read_entry(cache_entry_s* entry, cache_results_s* result, std::uint32_t capacity,
                entry_head* head) {
  if (load_count(entry) == 0 || !lock_entry(entry)) return false;
  const std::uint32_t count = std::min<std::uint32_t>(load_count(entry), cache_max_ids);
  const std::uint32_t copied = std::min(count, capacity);
  if (count > 0) {
    std::copy_n(entry->ids, copied, result->ids);
    result->walk_usec = entry->walk_usec;
    result->ef_and_count = std::uint32_t{entry->ef} << 16 | copied;
    *head = {entry->ef, entry->stored_at, entry->exact_key, entry->near_key};
  }
  unlock_entry(entry);
  return count > 0;
}

int grade(const entry_head& head, const cache_keys_s& keys, std::uint16_t ef) {
  // Beyond the room of an entry the list may be cut off.
  if (head.ef < ef || ef > cache_max_ids || head.stored_at < invalidated_at()) return 2;
  if (head.exact_key == keys.exact) return 0;
  return head.near_key == keys.near ? 1 : 2;
}

void write_entry(cache_entry_s* entry, const cache_keys_s& keys, std::uint16_t ef,
                 std::uint32_t walk_usec, const std::uint32_t* ids, std::uint32_t count,
                 std::uint64_t stamp) {
  const std::uint32_t kept = std::min(count, cache_max_ids);
  std::copy_n(ids, kept, entry->ids);
  entry->ef = ef;
  entry->walk_usec = walk_usec;
  entry->exact_key = keys.exact;
  entry->near_key = keys.near;
  entry->stored_at = stamp;
  store_count(entry, kept);
}

// Takes the door alone: entries must not be recycled under their readers.
void trim() {
  const lone_door alone;
  if (control == nullptr || pers_hash_table_entry_count(control->table) <= most_entries) return;
  pers_hash_table_get(control->table, control_key);  // the control record is never the oldest
  const std::uint32_t aged =
      pers_hash_table_remove_old_entries(control->table, trim_age_seconds, trim_batch);
  // A whole batch at a time, or every store of a busy minute would come here.
  pers_hash_table_remove_oldest(control->table, trim_batch - aged);
}

// The lock word of a dead process would cost every lookup its whole patience.
void settle_restored(void* now, std::uint64_t key, void* data) {
  if (key == control_key) return;
  auto* entry = static_cast<cache_entry_s*>(data);
  if (!cache_entry_valid(*entry, *static_cast<std::uint64_t*>(now))) {
    entry->count = 0;
    entry->ef = 0;
    entry->stored_at = 0;
  }
  entry->lock = 0;
}

}  // namespace

int cache_vector_to_key(const float* vector, std::uint32_t dimension, std::uint32_t partition,
                        cache_keys_s* keys, cache_key_mode mode) {
  std::uint32_t on_stack[stack_words];
  std::unique_ptr<std::uint32_t[]> on_heap;  // worker threads have small stacks
  std::uint32_t* words = on_stack;
  if (dimension >= stack_words) {
    on_heap.reset(new (std::nothrow) std::uint32_t[std::size_t{dimension} + 1]);
    words = on_heap.get();
    if (words == nullptr) return -1;
  }
  fill_words(vector, dimension, mode, words);
  words[dimension] = partition;
  *keys = keys_of_words(words, dimension, mode);
  return 0;
}

bool cache_entry_valid(const cache_entry_s& entry, std::uint64_t now) {
  return entry.lock == 0 && entry.count > 0 && entry.count <= cache_max_ids &&
         entry.stored_at <= now;
}

void cache_search_init(int kind, vectpool_conf_s* configuration) {
  const lone_door alone;
  if (control != nullptr) return;
  pers_hash_table_s* table = pers_hash_table_init(sizeof(cache_entry_s), kind, configuration);
  auto* record = static_cast<cache_control_s*>(pers_hash_table_get(table, control_key));
  if (record == nullptr) {
    pers_hash_table_free(table);
    return;
  }
  std::uint64_t now = next_stamp();
  pers_hash_table_visit(table, settle_restored, &now);
  record->table = table;
  record->invalidated_at = std::min(record->invalidated_at, now);
  control = record;
}

void cache_search_destroy() {
  const lone_door alone;
  if (control == nullptr) return;
  pers_hash_table_s* table = control->table;
  control = nullptr;
  pers_hash_table_free(table);
}

void cache_search_invalidate() {
  const shared_door shared;
  if (control == nullptr) return;
  // Twice: a store that did not see the first mark yet may carry a later stamp than that mark, but
  // not than the second.
  mark_invalidated();
  mark_invalidated();
}

std::uint64_t cache_search_time() {
  return next_stamp();
}

int cache_search_results_get(const float* query, std::uint32_t dimension, std::uint16_t ef,
                             std::uint32_t partition, cache_results_s* result,
                             std::uint32_t capacity, cache_key_mode mode) {
  if (query == nullptr || result == nullptr || result->ids == nullptr) return -1;
  const std::uint32_t room =
      result->capacity != 0 ? std::min(result->capacity, capacity) : capacity;
  const shared_door shared;
  cache_keys_s keys;
  if (control == nullptr || cache_vector_to_key(query, dimension, partition, &keys, mode) != 0)
    return -1;
  cache_entry_s* entry = entry_for(keys);
  entry_head head{};
  if (entry == nullptr || !read_entry(entry, result, room, &head)) return -1;
  return grade(head, keys, ef);
}

int cache_search_results_set(const float* query, std::uint32_t dimension, std::uint16_t ef,
                             std::uint32_t partition, std::uint32_t walk_usec,
                             const std::uint32_t* ids, std::uint32_t count,
                             std::uint64_t walk_start, cache_key_mode mode) {
  if (query == nullptr || (ids == nullptr && count > 0)) return -1;
  bool full = false;
  {
    const shared_door shared;
    cache_keys_s keys;
    if (control == nullptr || cache_vector_to_key(query, dimension, partition, &keys, mode) != 0)
      return -1;
    cache_entry_s* entry = entry_for(keys);
    if (entry == nullptr || !lock_entry(entry)) return -1;
    // Before the mark is read: an invalidation that comes later makes this entry old.
    const std::uint64_t stamp = next_stamp();
    const std::uint64_t invalidated = invalidated_at();
    // A fresh entry of another query with the same table key is kept too.
    const bool keep = entry->ef >= ef && entry->stored_at > invalidated;
    if (!keep && invalidated <= walk_start)
      write_entry(entry, keys, ef, walk_usec, ids, count, stamp);
    unlock_entry(entry);
    full = pers_hash_table_entry_count(control->table) > most_entries;
  }
  if (full) trim();
  return 0;
}

}  // namespace korvex
