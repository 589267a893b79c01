#include "storage/data_cache.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstring>
#include <limits>
#include <memory>
#include <mutex>
#include <new>
#include <shared_mutex>

#include "runtime/log.h"
#include "runtime/platform/memory.h"
#include "runtime/read_write_mutex.h"
#include "storage/int_set.h"
#include "storage/mapping.h"
#include "storage/mempool.h"

namespace korvex {
namespace {

constexpr int pinned_id_slots = 1000000;
constexpr std::uint64_t largest_entry = std::numeric_limits<int>::max() / 2;  // pools count in int
constexpr std::uint32_t most_pinned_ranges = 16'384;
std::atomic<std::uint32_t> pinned_ranges{0};  // of the process
constexpr std::size_t copy_alignment = 64;
constexpr std::uint32_t large_cache =
    4096;  // entries from which on the order of use is kept roughly

// Copied data follows the node.
struct cache_node {
  std::uint32_t id;
  std::uint32_t refreshed;  // the cache's use clock when the node became the newest
  cache_node* chain;
  cache_node* older;
  cache_node* newer;
  void* data;  // pinned memory, null in copying mode

  void* copy() { return this + 1; }
};
static_assert(sizeof(cache_node) == 40);

// The last few copies that a thread was given, oldest first to go.
class copy_ring {
 public:
  copy_ring() = default;
  copy_ring(const copy_ring&) = delete;
  copy_ring& operator=(const copy_ring&) = delete;
  ~copy_ring() {
    for (const auto& slot : slots_) platform::aligned_free(slot.memory);
  }

  void* next(std::size_t size) {
    buffer& slot = slots_[turn_++ % std::size(slots_)];
    if (slot.size >= size) return slot.memory;
    platform::aligned_free(slot.memory);
    slot.memory = platform::aligned_malloc(size, copy_alignment);
    slot.size = slot.memory == nullptr ? 0 : size;
    return slot.memory;
  }

 private:
  struct buffer {
    void* memory = nullptr;
    std::size_t size = 0;
  };
  buffer slots_[data_cache_copies];
  unsigned turn_ = 0;
};

// The calling thread's, null when out of memory. No thread_local object: where the compiler keeps those by itself, their
// memory may go before they are destroyed.
copy_ring* ring_of_thread() {
  struct ring_key {
    pthread_key_t key{};
    bool made =
        pthread_key_create(&key, [](void* ring) { delete static_cast<copy_ring*>(ring); }) == 0;
  };
  static const ring_key rings;
  if (!rings.made) return nullptr;
  auto* ring = static_cast<copy_ring*>(pthread_getspecific(rings.key));
  if (ring != nullptr) return ring;
  std::unique_ptr<copy_ring> fresh(new (std::nothrow) copy_ring);
  return fresh && pthread_setspecific(rings.key, fresh.get()) == 0 ? fresh.release() : nullptr;
}

}  // namespace

struct data_cache_s {
  std::unique_ptr<cache_node*[]> buckets;
  std::uint32_t bucket_count = 0;
  std::uint64_t entry_size = 0;
  std::uint32_t mode = 0;
  // Read before the lock is taken, to turn away most misses.
  std::atomic<std::uint32_t> highest_id{0};

  read_write_mutex lock;  // guards all below
  std::uint32_t entries = 0;
  std::uint32_t max_entries = 0;
  cache_node* newest = nullptr;  // in pin mode the list of what is pinned
  cache_node* oldest = nullptr;
  std::uint32_t use_clock = 0;
  mempool_s* pool = nullptr;
  int32find_s locked_ids{};
  std::uint32_t locked_id_count = 0;  // also ids whose pin failed
  std::uint64_t next_failure_report = 0;

  bool pins() const { return mode == data_cache_pin; }
  cache_node*& bucket(std::uint32_t id) const {
    return buckets[(id * 0x9e3779b1u) & (bucket_count - 1)];
  }
};

namespace {

cache_node* find_node(const data_cache_s& cache, std::uint32_t id) {
  cache_node* node = cache.bucket(id);
  while (node != nullptr && node->id != id) node = node->chain;
  return node;
}

void unlink_from_chain(data_cache_s& cache, const cache_node* node) {
  cache_node** link = &cache.bucket(node->id);
  while (*link != node) link = &(*link)->chain;
  *link = node->chain;
}

void unlink_from_use_list(data_cache_s& cache, const cache_node* node) {
  (node->newer != nullptr ? node->newer->older : cache.newest) = node->older;
  (node->older != nullptr ? node->older->newer : cache.oldest) = node->newer;
}

void make_newest(data_cache_s& cache, cache_node* node) {
  node->newer = nullptr;
  node->older = cache.newest;
  (cache.newest != nullptr ? cache.newest->newer : cache.oldest) = node;
  cache.newest = node;
  node->refreshed = ++cache.use_clock;
}

void put_in_chain(data_cache_s& cache, cache_node* node) {
  node->chain = cache.bucket(node->id);
  cache.bucket(node->id) = node;
}

// Also to the front of its chain: chains are long in a large cache, and what is asked for is asked for again.
void refresh(data_cache_s& cache, cache_node* node) {
  if (cache.newest == node) return;
  unlink_from_use_list(cache, node);
  make_newest(cache, node);
  unlink_from_chain(cache, node);
  put_in_chain(cache, node);
}

// Whether the node can wait for its refresh: in a large cache also one of the newest eighth, which is far from being
// evicted. Saves most readers the exclusive lock.
bool recent(const data_cache_s& cache, const cache_node* node) {
  if (node == cache.newest) return true;
  return cache.max_entries >= large_cache &&
         cache.use_clock - node->refreshed < cache.max_entries / 8;
}

bool may_hold(const data_cache_s* cache, std::uint32_t id) {
  return cache != nullptr && id != 0 && !cache->pins() &&
         id <= cache->highest_id.load(std::memory_order_relaxed);
}

// Calls use(node) under a lock that keeps the node's data as it is. False when the id is absent.
template <typename Use>
bool with_entry(data_cache_s& cache, std::uint32_t id, Use use) {
  {
    const std::shared_lock reading(cache.lock);
    cache_node* node = find_node(cache, id);
    if (node == nullptr) return false;
    if (recent(cache, node)) {
      use(node);
      return true;
    }
  }
  const std::lock_guard writing(cache.lock);
  cache_node* node = find_node(cache, id);  // again: it may have gone in between
  if (node == nullptr) return false;
  refresh(cache, node);
  use(node);
  return true;
}

// Names a pin that the system refused; as the amount asked for doubles, not for every id.
void report_failed_pin(data_cache_s& cache, const void* data) {
  const std::uint64_t asked_for = cache.locked_id_count * cache.entry_size;
  if (asked_for < cache.next_failure_report) return;
  cache.next_failure_report = asked_for * 2;
  KORVEX_LOG("lock memory failed: %p (size %u)\n", data, static_cast<unsigned>(cache.entry_size));
}

int pin(data_cache_s& cache, std::uint32_t id, void* data) {
  {
    const std::shared_lock reading(cache.lock);
    if (int32find_get(&cache.locked_ids, id) != 0) return 1;
  }
  const std::lock_guard writing(cache.lock);
  if (int32find_get(&cache.locked_ids, id) != 0) return 1;
  if (cache.locked_id_count >= cache.locked_ids.capacity / 4 * 3 ||
      pinned_ranges.load(std::memory_order_relaxed) >= most_pinned_ranges)
    return 0;
  auto* node = static_cast<cache_node*>(mempool_alloc(cache.pool, nullptr, nullptr));
  if (node == nullptr) return 0;
  int32find_set(&cache.locked_ids, id, 1);
  cache.locked_id_count += 1;
  if (lock_memory(data, cache.entry_size) != 0) {
    report_failed_pin(cache, data);
    mempool_free(cache.pool, node, nullptr);
    return 1;
  }
  *node = {id, 0, nullptr, nullptr, nullptr, data};
  make_newest(cache, node);
  pinned_ranges.fetch_add(1, std::memory_order_relaxed);
  return 1;
}

void unpin_all(data_cache_s& cache) {
  for (const cache_node* node = cache.newest; node != nullptr; node = node->older) {
    unlock_memory(node->data, cache.entry_size);
    pinned_ranges.fetch_sub(1, std::memory_order_relaxed);
  }
}

// A node for a new id: from the pool, else the least recently used one.
cache_node* obtain_node(data_cache_s& cache) {
  if (void* fresh = mempool_alloc(cache.pool, nullptr, nullptr)) {
    cache.entries += 1;
    return new (fresh) cache_node{};
  }
  cache_node* node = cache.oldest;
  if (node == nullptr) return nullptr;
  unlink_from_chain(cache, node);
  unlink_from_use_list(cache, node);
  return node;
}

}  // namespace

data_cache_s* data_cache_init(std::uint64_t entry_size, std::uint32_t max_entries,
                              std::uint32_t mode) {
  if (entry_size == 0 || entry_size > largest_entry || max_entries == 0 || mode == 0)
    return nullptr;
  std::unique_ptr<data_cache_s> cache(new (std::nothrow) data_cache_s);
  if (cache == nullptr) return nullptr;
  const auto limit = std::min<std::uint32_t>(max_entries, std::numeric_limits<std::int32_t>::max());
  cache->entry_size = entry_size;
  cache->max_entries = limit;
  cache->mode = mode;
  cache->bucket_count = std::clamp<std::uint32_t>(std::bit_ceil(limit / 4), 16, 4096);
  cache->buckets.reset(new (std::nothrow) cache_node*[cache->bucket_count]());
  if (cache->buckets == nullptr) return nullptr;
  if (cache->pins()) {
    int32find_init(&cache->locked_ids, pinned_id_slots, "mlock");
    if (cache->locked_ids.initialised == 0) return nullptr;
  }
  const std::uint64_t node_size = sizeof(cache_node) + (cache->pins() ? 0 : entry_size);
  cache->pool = mempool_init(static_cast<int>(node_size), static_cast<int>(limit / 10), 0,
                             static_cast<int>(limit), 0);
  if (cache->pool == nullptr) {
    int32find_free(&cache->locked_ids);
    return nullptr;
  }
  return cache.release();
}

void data_cache_destroy(data_cache_s* cache) {
  if (cache == nullptr) return;
  if (cache->pins()) unpin_all(*cache);
  mempool_destroy(cache->pool);
  int32find_free(&cache->locked_ids);
  delete cache;
}

void data_cache_set_max_entries(data_cache_s* cache, std::uint32_t max_entries) {
  if (cache == nullptr || max_entries == 0) return;
  const std::lock_guard writing(cache->lock);
  cache->max_entries =
      std::min<std::uint32_t>(max_entries, std::numeric_limits<std::int32_t>::max());
  mempool_set_max_poolsize(cache->pool, static_cast<int>(cache->max_entries));
}

void* data_cache_get(data_cache_s* cache, std::uint32_t id) {
  void* data = nullptr;
  if (may_hold(cache, id)) with_entry(*cache, id, [&](cache_node* node) { data = node->copy(); });
  return data;
}

void* data_cache_get_copy(data_cache_s* cache, std::uint32_t id) {
  if (!may_hold(cache, id)) return nullptr;
  copy_ring* const ring = ring_of_thread();
  void* out = ring == nullptr ? nullptr : ring->next(cache->entry_size);
  if (out == nullptr) return nullptr;
  const bool found = with_entry(
      *cache, id, [&](cache_node* node) { std::memcpy(out, node->copy(), cache->entry_size); });
  return found ? out : nullptr;
}

int data_cache_add(data_cache_s* cache, std::uint32_t id, void* data) {
  if (cache == nullptr || id == 0 || data == nullptr) return 0;
  if (cache->pins()) return pin(*cache, id, data);

  const std::lock_guard writing(cache->lock);
  cache_node* node = find_node(*cache, id);
  if (node != nullptr) {
    std::memmove(node->copy(), data, cache->entry_size);  // may be the cache's own pointer
    refresh(*cache, node);
    return 1;
  }
  if (id > cache->highest_id.load(std::memory_order_relaxed))
    cache->highest_id.store(id, std::memory_order_relaxed);
  node = obtain_node(*cache);
  if (node == nullptr) return 0;
  node->id = id;
  std::memmove(node->copy(), data, cache->entry_size);
  put_in_chain(*cache, node);
  make_newest(*cache, node);
  return 1;
}

int data_cache_remove(data_cache_s* cache, std::uint32_t id) {
  if (!may_hold(cache, id)) return 0;
  const std::lock_guard writing(cache->lock);
  cache_node* node = find_node(*cache, id);
  if (node == nullptr) return 0;
  unlink_from_chain(*cache, node);
  unlink_from_use_list(*cache, node);
  mempool_free(cache->pool, node, nullptr);
  cache->entries -= 1;
  return 1;
}

void data_cache_clear(data_cache_s* cache) {
  if (cache == nullptr) return;
  const std::lock_guard writing(cache->lock);
  if (cache->pins()) {
    unpin_all(*cache);
    int32find_reset(&cache->locked_ids);
    cache->locked_id_count = 0;
  }
  while (cache_node* node = cache->newest) {
    cache->newest = node->older;
    mempool_free(cache->pool, node, nullptr);
  }
  cache->oldest = nullptr;
  std::fill_n(cache->buckets.get(), cache->bucket_count, nullptr);
  cache->entries = 0;
  cache->highest_id.store(0, std::memory_order_relaxed);
}

void data_cache_stats(data_cache_s* cache, std::uint32_t* entries, std::uint32_t* max_entries,
                      std::uint32_t* highest_id) {
  if (cache == nullptr) return;
  const std::shared_lock reading(cache->lock);
  if (entries != nullptr) *entries = cache->entries;
  if (max_entries != nullptr) *max_entries = cache->max_entries;
  if (highest_id != nullptr) *highest_id = cache->highest_id.load(std::memory_order_relaxed);
}

}  // namespace korvex
