#include <cstdio>
#include <limits>
#include <memory>
#include <new>

#include "storage/block_pool.h"

namespace korvex {

struct multipool_s {
  std::unique_ptr<blockpool_s[]>
      classes;  // zeroed: a class that was never opened closes as an empty one
  std::unique_ptr<std::uint64_t[]> sizes;
  std::uint64_t class_count = 0;
  std::uint64_t smallest = std::numeric_limits<std::uint64_t>::max();
  std::uint64_t largest = 0;

  ~multipool_s() {
    for (std::uint64_t i = 0; i < class_count; i++) detail::blockpool_close(&classes[i]);
  }
};

namespace {

constexpr std::size_t prefix_bytes = sizeof(std::uint32_t);

bool open_classes(multipool_s* pool, const std::size_t* sizes, std::size_t count,
                  std::size_t initial) {
  pool->classes.reset(new (std::nothrow) blockpool_s[count]());
  pool->sizes.reset(new (std::nothrow) std::uint64_t[count]);
  if (pool->classes == nullptr || pool->sizes == nullptr) return false;
  for (std::size_t i = 0; i < count; i++) {
    const std::uint64_t size = sizes[i];
    if (size > std::numeric_limits<std::uint32_t>::max()) return false;
    if (!detail::blockpool_open(&pool->classes[i], size + prefix_bytes, initial)) return false;
    pool->class_count++;
    pool->sizes[i] = size;
    if (size < pool->smallest) pool->smallest = size;
    if (size > pool->largest) pool->largest = size;
  }
  return true;
}

}  // namespace

multipool_s* multipool_create(std::size_t* sizes, std::size_t count, std::size_t initial) {
  if (sizes == nullptr || count == 0) return nullptr;
  std::unique_ptr<multipool_s> pool(new (std::nothrow) multipool_s);
  if (pool == nullptr || !open_classes(pool.get(), sizes, count, initial)) return nullptr;
  return pool.release();
}

void* multipool_alloc(multipool_s* pool, std::size_t size) {
  if (pool == nullptr || size > pool->largest) return nullptr;
  std::uint64_t i = 0;
  while (pool->sizes[i] < size) i++;  // ends: the largest class fits
  char* block = static_cast<char*>(blockpool_alloc(&pool->classes[i]));
  if (block == nullptr) return nullptr;
  const auto prefix = static_cast<std::uint32_t>(pool->sizes[i]);
  std::memcpy(block, &prefix, prefix_bytes);
  return block + prefix_bytes;
}

void multipool_free(multipool_s* pool, void* memory) {
  if (pool == nullptr || memory == nullptr) return;
  char* block = static_cast<char*>(memory) - prefix_bytes;
  std::uint32_t size = 0;
  std::memcpy(&size, block, prefix_bytes);
  for (std::uint64_t i = 0; i < pool->class_count; i++) {
    if (pool->sizes[i] == size) return blockpool_free(&pool->classes[i], block);
  }
  std::fprintf(stderr, "Error: Attempted to free unknown block size %zu\n", std::size_t{size});
}

void multipool_reset(multipool_s* pool) {
  if (pool == nullptr) return;
  for (std::uint64_t i = 0; i < pool->class_count; i++) blockpool_reset(&pool->classes[i]);
}

void multipool_destroy(multipool_s* pool) {
  delete pool;
}

}  // namespace korvex
