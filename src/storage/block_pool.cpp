#include "storage/block_pool.h"

#include <bit>
#include <limits>
#include <new>

#include "runtime/log.h"
#include "runtime/platform/memory.h"

namespace korvex {

namespace {

constexpr std::size_t cache_line = 64;

blockpool_slab_s* new_slab(std::uint64_t block_size, std::uint64_t blocks) {
  constexpr std::uint64_t most = std::numeric_limits<std::int64_t>::max();
  if (blocks > (most - sizeof(blockpool_slab_s)) / block_size) return nullptr;
  void* memory =
      platform::aligned_malloc(sizeof(blockpool_slab_s) + block_size * blocks, cache_line);
  return memory == nullptr ? nullptr : ::new (memory) blockpool_slab_s{nullptr, blocks};
}

void draw_from(blockpool_s* pool, blockpool_slab_s* slab, blockpool_slab_s* then) {
  pool->untouched = slab->blocks;
  pool->untouched_end =
      reinterpret_cast<char*>(slab) + sizeof(blockpool_slab_s) + pool->block_size * slab->blocks;
  pool->untouched_slabs = then;
}

}  // namespace

bool detail::blockpool_refill(blockpool_s* pool) {
  if (pool->untouched_slabs != nullptr) {
    draw_from(pool, pool->untouched_slabs, pool->untouched_slabs->next);
    return true;
  }
  if (pool->capacity < 2) return false;
  blockpool_slab_s* slab = new_slab(pool->block_size, pool->capacity / 2);
  if (slab == nullptr) return false;
  slab->next = pool->slabs;
  pool->slabs = slab;
  pool->capacity += slab->blocks;
  draw_from(pool, slab, nullptr);
  return true;
}

bool detail::blockpool_open(blockpool_s* pool, std::size_t block_size, std::size_t initial) {
  *pool = blockpool_s{};
  pool->block_size = block_size < sizeof(void*) ? sizeof(void*) : block_size;
  if (initial == 0) return false;
  pool->slabs = new_slab(pool->block_size, initial);
  if (pool->slabs == nullptr) return false;
  pool->capacity = initial;
  draw_from(pool, pool->slabs, nullptr);
  return true;
}

void detail::blockpool_close(blockpool_s* pool) {
  while (pool->slabs != nullptr) {
    blockpool_slab_s* next = pool->slabs->next;
    platform::aligned_free(pool->slabs);
    pool->slabs = next;
  }
}

blockpool_s* blockpool_create(std::size_t block_size, std::size_t initial) {
  auto* pool = new (std::nothrow) blockpool_s;
  if (pool == nullptr || detail::blockpool_open(pool, block_size, initial)) return pool;
  delete pool;
  return nullptr;
}

void blockpool_reset(blockpool_s* pool) {
  if (pool == nullptr) return;
  pool->free_list = nullptr;
  pool->in_use = 0;
  draw_from(pool, pool->slabs, pool->slabs->next);
}

void blockpool_destroy(blockpool_s* pool) {
  if (pool == nullptr) return;
  detail::blockpool_close(pool);
  delete pool;
}

allocpool_s* allocpool_init(int element_size, int count) {
  if (element_size < 0 || count < 0) return nullptr;
  const std::uint32_t stride = (static_cast<std::uint32_t>(element_size) + 7) & ~7U;
  const std::uint32_t capacity = count == 0 ? 0 : std::bit_ceil(static_cast<std::uint32_t>(count));
  const std::uint64_t bytes = sizeof(allocpool_s) + std::uint64_t{stride} * capacity;
  void* memory = platform::aligned_malloc(bytes, cache_line);
  if (memory == nullptr) return nullptr;
  std::memset(memory, 0, bytes);
  auto* pool = ::new (memory) allocpool_s{};
  pool->self = pool;
  pool->elements = static_cast<char*>(memory) + sizeof(allocpool_s);
  pool->element_size = stride;
  pool->capacity = capacity;
  return pool;
}

void* allocpool_alloc(allocpool_s* pool) {
  if (pool == nullptr) return nullptr;
  if (pool->self != pool) {
    KORVEX_LOG("allocpool_alloc: bad pool\n");
    return nullptr;
  }
  if (pool->used >= pool->capacity) return nullptr;
  return pool->elements + std::size_t{pool->element_size} * pool->used++;
}

void allocpool_reset(allocpool_s* pool) {
  if (pool != nullptr && pool->self == pool) pool->used = 0;
}

std::uint32_t allocpool_status(const allocpool_s* pool) {
  return pool != nullptr && pool->self == pool ? pool->used : 0;
}

int allocpool_destroy(allocpool_s* pool) {
  if (pool == nullptr || pool->self != pool) return -1;
  pool->self = nullptr;
  platform::aligned_free(pool);
  return 0;
}

}  // namespace korvex
