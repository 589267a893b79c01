#include "storage/mempool.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <mutex>
#include <new>

#include "runtime/log.h"
#include "runtime/platform/memory.h"

namespace korvex {

namespace {

constexpr std::uint16_t element_marker = 0x59AC;
constexpr std::uint32_t default_per_chunk = 256;
constexpr std::uint32_t id_map_step = 256;
constexpr std::size_t cache_line = 64;

// In front of every element's data.
struct header_s {
  header_s* next;    // on the free list
  std::uint32_t id;  // never changes once the element is in the id map; 0 without ids
  std::uint16_t marker;
  std::atomic<std::uint8_t> in_use;
  std::uint8_t spare;
  mempool_s* pool;
  void* tag;
};
static_assert(sizeof(header_s) == 32, "part of the stride");

struct chunk_s {
  chunk_s* next;
  std::uint64_t full_bytes;
  std::uint32_t index;
  std::uint32_t bytes;  // for messages: stays at the largest value when the chunk is larger

  char* begin() { return reinterpret_cast<char*>(this + 1); }
  char* end() { return reinterpret_cast<char*>(this) + full_bytes; }
};
static_assert(sizeof(chunk_s) == 24, "elements follow the header at once");

// An id map; its entries follow. A map that was outgrown stays as it is until the pool goes:
// readers take no lock.
struct id_map_s {
  id_map_s* outgrown;
  std::uint64_t capacity;

  std::atomic<header_s*>* entries() { return reinterpret_cast<std::atomic<header_s*>*>(this + 1); }
};

void* data_of(header_s* header) {
  return header + 1;
}
header_s* header_of(void* data) {
  return static_cast<header_s*>(data) - 1;
}

// Byte-wise: data may be any pointer that a caller took for an element.
std::uint16_t marker_before(const void* data) {
  std::uint16_t marker = 0;
  const auto* header = static_cast<const char*>(data) - sizeof(header_s);
  std::memcpy(&marker, header + offsetof(header_s, marker), sizeof marker);
  return marker;
}

bool is_element(const void* data) {
  const std::uint16_t marker = marker_before(data);
  if (marker == element_marker) return true;
  KORVEX_LOG("*** BUG *** bad data %p %x %x\n", data, marker, element_marker);
  return false;
}

id_map_s* grown_map(id_map_s* old) {
  const std::uint64_t before = old != nullptr ? old->capacity : 0;
  const std::uint64_t capacity = before + id_map_step;
  void* memory =
      platform::aligned_malloc(sizeof(id_map_s) + capacity * sizeof(header_s*), cache_line);
  if (memory == nullptr) return nullptr;
  auto* map = ::new (memory) id_map_s{old, capacity};
  std::uninitialized_value_construct_n(map->entries(), capacity);
  for (std::uint64_t i = 0; i < before; i++)
    map->entries()[i].store(old->entries()[i].load(std::memory_order_relaxed),
                            std::memory_order_relaxed);
  return map;
}

}  // namespace

struct mempool_s {
  mempool_s* self = this;
  char* bump = nullptr;  // the next unused byte of the current chunk
  char* chunk_end = nullptr;
  std::uint32_t stride = 0;  // bytes of an element and its header
  std::uint32_t per_chunk = default_per_chunk;
  std::uint32_t first_count = 0;
  std::uint32_t maximum = 0;  // elements, 0: no limit
  std::uint32_t total = 0;    // elements in all chunks ever made
  // Read without the mutex too, to turn callers away early: a stale answer only costs them the
  // lock.
  std::atomic<bool> exhausted = false;

  std::mutex mutex;  // guards everything but what is atomic; that is written under it
  // Readers of ids see an element's header complete: its entry is stored with release before
  // next_id is.
  std::atomic<bool> ids_enabled = false;
  bool ids_required = false;  // set before the pool is shared
  std::atomic<std::uint32_t> next_id = 1;
  std::atomic<id_map_s*> id_map = nullptr;
  std::atomic<header_s*> free_head = nullptr;
  header_s* free_tail = nullptr;
  std::uint32_t in_use = 0;
  chunk_s* first_chunk = nullptr;
  chunk_s* last_chunk = nullptr;
  std::uint32_t chunk_count = 0;

  void set_maximum(int value);
  header_s* take_free();
  header_s* take_fresh();
  std::uint32_t next_chunk_elements();
  bool add_chunk();
  bool give_id(header_s* header);
  void append_free(header_s* header);
  void release_chunks(chunk_s* from);
  void forget_elements();
  void restore(chunk_s* chunk);
  void release_maps();
};

void mempool_s::set_maximum(int value) {
  maximum = static_cast<std::uint32_t>(std::max(value, 0));
  if (maximum == 0 || maximum > total) exhausted = false;
}

header_s* mempool_s::take_free() {
  header_s* header = free_head.load(std::memory_order_relaxed);
  if (header == nullptr) return nullptr;
  free_head.store(header->next, std::memory_order_relaxed);
  if (header->next == nullptr) free_tail = nullptr;
  return header;
}

header_s* mempool_s::take_fresh() {
  if (exhausted.load(std::memory_order_relaxed)) return nullptr;
  if (static_cast<std::size_t>(chunk_end - bump) < stride && !add_chunk()) return nullptr;
  auto* header = ::new (bump) header_s{};
  bump += stride;
  header->marker = element_marker;
  header->pool = this;
  if (!ids_enabled.load(std::memory_order_relaxed) || give_id(header)) return header;
  bump -= stride;
  return nullptr;
}

// 0 when the limit leaves no room.
std::uint32_t mempool_s::next_chunk_elements() {
  std::int64_t count = first_chunk == nullptr && first_count != 0 ? first_count : per_chunk;
  if (maximum != 0) count = std::min<std::int64_t>(count, std::int64_t{maximum} - total);
  return static_cast<std::uint32_t>(std::max<std::int64_t>(count, 0));
}

bool mempool_s::add_chunk() {
  const std::uint32_t count = next_chunk_elements();
  if (count == 0) {
    KORVEX_LOG("pool maxsize exceeded: max %d current %d\n", static_cast<int>(maximum),
               static_cast<int>(total));
    exhausted.store(true, std::memory_order_relaxed);
    return false;
  }
  const std::uint64_t bytes = std::uint64_t{count} * stride + sizeof(chunk_s);
  void* memory = platform::aligned_malloc(bytes, cache_line);
  if (memory == nullptr) return false;
  const auto shown = std::min<std::uint64_t>(bytes, std::numeric_limits<std::uint32_t>::max());
  auto* chunk =
      ::new (memory) chunk_s{nullptr, bytes, chunk_count++, static_cast<std::uint32_t>(shown)};
  (last_chunk != nullptr ? last_chunk->next : first_chunk) = chunk;
  last_chunk = chunk;
  total += count;
  bump = chunk->begin();
  chunk_end = chunk->end();
  return true;
}

// False when the element must have an id and there is no memory to find it by.
bool mempool_s::give_id(header_s* header) {
  const std::uint32_t id = next_id.load(std::memory_order_relaxed);
  id_map_s* map = id_map.load(std::memory_order_relaxed);
  if (map == nullptr || id >= map->capacity) {
    map = grown_map(map);
    if (map == nullptr) {
      KORVEX_LOG_CRITICAL("malloc failed for pool map\n");
      if (ids_required) return false;
      ids_enabled.store(false, std::memory_order_relaxed);
      return true;
    }
    id_map.store(map, std::memory_order_release);
  }
  header->id = id;
  map->entries()[id].store(header, std::memory_order_release);
  next_id.store(id + 1, std::memory_order_release);
  return true;
}

void mempool_s::append_free(header_s* header) {
  header->next = nullptr;
  if (free_tail != nullptr) {
    free_tail->next = header;
  } else {
    free_head.store(header, std::memory_order_relaxed);
  }
  free_tail = header;
}

void mempool_s::release_chunks(chunk_s* from) {
  while (from != nullptr) {
    chunk_s* next = from->next;
    platform::aligned_free(from);
    from = next;
  }
}

void mempool_s::forget_elements() {
  free_head.store(nullptr, std::memory_order_relaxed);
  free_tail = nullptr;
  in_use = 0;
  bump = chunk_end = nullptr;
  first_chunk = last_chunk = nullptr;
  chunk_count = 0;
  next_id.store(1, std::memory_order_release);
}

void mempool_s::restore(chunk_s* chunk) {
  KORVEX_LOG("restoring pool: id %u len %u capacity %u\n", chunk->index, chunk->bytes,
             static_cast<std::uint32_t>(chunk->full_bytes / stride));
  chunk->next = nullptr;
  first_chunk = last_chunk = chunk;
  chunk_count = 1;
  bump = chunk->begin();
  chunk_end = chunk->end();
}

void mempool_s::release_maps() {
  for (id_map_s* map = id_map.load(std::memory_order_relaxed); map != nullptr;) {
    id_map_s* outgrown = map->outgrown;
    platform::aligned_free(map);
    map = outgrown;
  }
}

mempool_s* mempool_init(int element_size, int per_chunk, int first_chunk, int maximum, int ids) {
  if (element_size < 0) return nullptr;
  auto* pool = new (std::nothrow) mempool_s;
  if (pool == nullptr) return nullptr;
  const auto size = static_cast<std::uint32_t>(element_size);
  pool->stride = ((size + 8) & ~7U) + static_cast<std::uint32_t>(sizeof(header_s));
  if (per_chunk > 0) pool->per_chunk = static_cast<std::uint32_t>(per_chunk);
  pool->first_count = static_cast<std::uint32_t>(std::max(first_chunk, 0));
  pool->ids_enabled = ids != 0;
  pool->set_maximum(maximum);
  return pool;
}

void mempool_require_ids(mempool_s* pool) {
  if (pool != nullptr && pool->self == pool) pool->ids_required = true;
}

void mempool_set_max_poolsize(mempool_s* pool, int maximum) {
  if (pool == nullptr || pool->self != pool) return;
  const std::lock_guard lock(pool->mutex);
  pool->set_maximum(maximum);
}

void* mempool_alloc(mempool_s* pool, unsigned* id_out, void** tag_out) {
  if (pool == nullptr) return nullptr;
  if (pool->self != pool) {
    KORVEX_LOG("bad pool\n");
    return nullptr;
  }
  if (pool->exhausted.load(std::memory_order_relaxed) &&
      pool->free_head.load(std::memory_order_relaxed) == nullptr)
    return nullptr;
  header_s* header = nullptr;
  {
    const std::lock_guard lock(pool->mutex);
    header = pool->take_free();
    if (header == nullptr) header = pool->take_fresh();
    if (header == nullptr) return nullptr;
    pool->in_use++;
  }
  if (id_out != nullptr) *id_out = header->id;
  if (tag_out != nullptr) *tag_out = header->tag;
  header->tag = nullptr;
  header->in_use.store(1, std::memory_order_release);
  return data_of(header);
}

void mempool_free(mempool_s* pool, void* data, void* tag) {
  if (data == nullptr || pool == nullptr) return;
  if (pool->self != pool) {
    KORVEX_LOG("bad pool on free\n");
    return;
  }
  if (!is_element(data)) return;
  header_s* header = header_of(data);
  if (header->in_use.exchange(0, std::memory_order_acq_rel) != 1) {
    KORVEX_LOG("*** BUG *** double free detected %p\n", data);
    return;
  }
  header->tag = tag;
  const std::lock_guard lock(pool->mutex);
  pool->append_free(header);
  pool->in_use--;
}

void mempool_free_auto(void* data, void* tag) {
  if (data == nullptr) return;
  mempool_s* pool = nullptr;
  const char* header = static_cast<const char*>(data) - sizeof(header_s);
  std::memcpy(&pool, header + offsetof(header_s, pool), sizeof pool);
  if (pool == nullptr) {
    KORVEX_LOG("*** BUG *** null pool in block %p\n", data);
    return;
  }
  if (!is_element(data)) return;  // before the pool of a foreign block is followed
  mempool_free(pool, data, tag);
}

void* mempool_get_from_id(mempool_s* pool, unsigned id) {
  if (pool == nullptr || pool->self != pool) return nullptr;
  if (!pool->ids_enabled.load(std::memory_order_relaxed)) return nullptr;
  if (id == 0 || id >= pool->next_id.load(std::memory_order_acquire)) return nullptr;
  id_map_s* map = pool->id_map.load(std::memory_order_acquire);
  if (map == nullptr || id >= map->capacity) return nullptr;
  header_s* header = map->entries()[id].load(std::memory_order_acquire);
  if (header == nullptr) return nullptr;
  if (header->id != id) {
    KORVEX_LOG("*** BUG *** mempool id does not match: %u %u\n", id, header->id);
    return nullptr;
  }
  if (header->in_use.load(std::memory_order_acquire) == 0) {
    KORVEX_LOG("block is already free\n");
    return nullptr;
  }
  return data_of(header);
}

int mempool_reset(mempool_s* pool, int free_all, int force) {
  if (pool == nullptr || pool->self != pool) return -1;
  const std::lock_guard lock(pool->mutex);
  if (force == 0 && pool->in_use != 0) {
    KORVEX_LOG("*** BUG *** mempool is not empty: %d\n", static_cast<int>(pool->in_use));
    return -1;
  }
  chunk_s* first = pool->first_chunk;
  const bool keep = first != nullptr && pool->first_count != 0 && free_all == 0 && force == 0;
  pool->release_chunks(keep ? first->next : first);
  pool->forget_elements();
  if (keep) pool->restore(first);
  return 0;
}

void mempool_destroy(mempool_s* pool) {
  if (pool == nullptr || pool->self != pool) return;
  pool->release_chunks(pool->first_chunk);
  pool->release_maps();
  pool->self = nullptr;
  delete pool;
}

}  // namespace korvex
