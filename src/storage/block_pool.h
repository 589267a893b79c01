#ifndef KORVEX_STORAGE_BLOCK_POOL_H
#define KORVEX_STORAGE_BLOCK_POOL_H

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace korvex {

// Three allocators for short-lived objects of fixed sizes: a block pool (one size, grows by half),
// a multi-size pool (one block pool a size class) and a bump pool (one fixed array, emptied as a
// whole).
// Threads     none of them locks; an instance belongs to one thread at a time.
// Ownership   blocks belong to their pool and live until it is destroyed; a reset takes all of them
//             back at once.

struct blockpool_slab_s {
  blockpool_slab_s* next;
  std::uint64_t blocks;
};
static_assert(sizeof(blockpool_slab_s) == 16, "blocks follow the header at once");

// Blocks are given from the free list first, then from the untouched rest of the slabs: a reset
// costs the same whatever the capacity, and a block that was never needed is never written.
// Invariant   blocks on the free list + untouched blocks + in_use == capacity.
// Alignment   a block is aligned to 8 when block_size is a multiple of 8, to 4 when it is one of 4.
struct blockpool_s {
  blockpool_slab_s* slabs;  // newest first
  void* free_list;          // a free block's first 8 bytes hold the next one
  std::uint64_t block_size;
  std::uint64_t capacity;
  std::uint64_t in_use;
  char* untouched_end;                // the next untouched block ends here
  std::uint64_t untouched;            // untouched blocks left below it, in one slab
  blockpool_slab_s* untouched_slabs;  // that slab's successors, when they are wholly untouched too
};

// Null when initial is 0 or memory is short. block_size is raised to 8.
blockpool_s* blockpool_create(std::size_t block_size, std::size_t initial);
// Every block is free again; pointers to blocks given out before must not be used any more.
void blockpool_reset(blockpool_s* pool);
void blockpool_destroy(blockpool_s* pool);

namespace detail {
// Moves on to the next slab that has untouched blocks, or makes one of half the capacity. False: no
// memory left, or a capacity below 2, which cannot grow.
bool blockpool_refill(blockpool_s* pool);
// A pool inside another record: false leaves nothing to close.
bool blockpool_open(blockpool_s* pool, std::size_t block_size, std::size_t initial);
void blockpool_close(blockpool_s* pool);
}  // namespace detail

// Null when the pool cannot grow.
inline void* blockpool_alloc(blockpool_s* pool) {
  if (pool == nullptr) return nullptr;
  void* block = pool->free_list;
  if (block != nullptr) {
    std::memcpy(&pool->free_list, block, sizeof(void*));  // blocks may be aligned to 4 only
  } else {
    if (pool->untouched == 0 && !detail::blockpool_refill(pool)) return nullptr;
    pool->untouched_end -= pool->block_size;
    pool->untouched--;
    block = pool->untouched_end;
  }
  pool->in_use++;
  return block;
}

inline void blockpool_free(blockpool_s* pool, void* block) {
  if (pool == nullptr || block == nullptr) return;
  std::memcpy(block, &pool->free_list, sizeof(void*));
  pool->free_list = block;
  pool->in_use--;
}

// Serves a request from the first class, in the order given, that is large enough (so: give sizes
// in ascending order). A 4-byte prefix before each block holds its class size; pointers are 4 bytes
// past a block, aligned to 4 at most.
struct multipool_s;

// Null when sizes is null or count 0, when initial is 0, when a size does not fit the prefix, or
// memory is short.
multipool_s* multipool_create(std::size_t* sizes, std::size_t count, std::size_t initial);
// Null when no class fits or the class that fits cannot grow; a larger class does not step in.
void* multipool_alloc(multipool_s* pool, std::size_t size);
// Memory of an unknown class is kept, with a line on standard error.
void multipool_free(multipool_s* pool, void* memory);
void multipool_reset(multipool_s* pool);
void multipool_destroy(multipool_s* pool);

// Header of a bump pool; its zeroed elements follow in the same allocation.
struct allocpool_s {
  allocpool_s* self;  // checked by every operation
  char* elements;
  std::uint32_t element_size;  // bytes, a multiple of 8
  std::uint32_t capacity;      // elements, a power of two
  std::uint32_t used;
};
static_assert(sizeof(allocpool_s) == 32, "elements start 32 bytes into the allocation");

// Null for negative arguments or when memory is short. element_size is rounded up to a multiple of
// 8, count to a power of two.
allocpool_s* allocpool_init(int element_size, int count);
// The next element; null when all are used, for a null pool, or (with a line) when the pool is not
// one.
void* allocpool_alloc(allocpool_s* pool);
// Gives all elements back; they are not cleared.
void allocpool_reset(allocpool_s* pool);
// Elements in use.
std::uint32_t allocpool_status(const allocpool_s* pool);
// 0, or -1 (nothing released) when the pool is not one.
int allocpool_destroy(allocpool_s* pool);

}  // namespace korvex

#endif  // KORVEX_STORAGE_BLOCK_POOL_H
